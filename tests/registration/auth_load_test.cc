// Loading the library for real, for the PIN store: the program does not link
// the library (see tests/CMakeLists.txt); a forked child arms its faults,
// loads the library with dlopen, reports the PIN store map and exits, which
// tears the library down. Every library log record reaches the parent through
// a pipe, in order, with the report.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "registration/StaticAuthStoreRegistration.h"
#include "xk/testsupport.h"

namespace {

// Writes "level text" lines to a file descriptor, as they come.
class PipeSink : public xk::log::Sink {
 public:
  explicit PipeSink(int fd) : m_Fd(fd) {}
  void Write(const char*, int level, const char* text) override { Line(std::to_string(level) + " " + text); }
  void Line(const std::string& line) const {
    const std::string out = line + "\n";
    if (write(m_Fd, out.data(), out.size()) != static_cast<ssize_t>(out.size())) _exit(2);
  }

 private:
  int m_Fd;
};

// Loads the library in a child and answers its lines: the log, with "store
// <id>" for each PIN store the map held right after the load.
std::vector<std::string> LoadInChild(bool failKeyGenerator) {
  int fds[2];
  if (pipe(fds) != 0) return {"<no pipe>"};
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    auto* sink = new PipeSink(fds[1]);  // lives until the process ends
    xk::log::AddSink(sink);
    xk::log::SetLevelMask(xk::log::kAllLevels);
    if (failKeyGenerator) xk::fault::Arm("KeyGenerator::GenerateKey", 1, {xk::fault::Kind::kThrow, 4003, 0}, false);
    void* library = dlopen(MSTORE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) _exit(3);
    const auto* registration = static_cast<QX::AuthStore::StaticAuthStoreRegistration*>(
        dlsym(library, "gStaticAuthStoreRegistration"));
    for (const auto& entry : registration->m_Stores) sink->Line("store " + std::string(entry.first.c_str()));
    std::exit(0);
  }
  close(fds[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
  close(fds[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  std::vector<std::string> lines;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) lines.push_back("<child failed>");
  for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
    lines.push_back(text.substr(at, end - at));
  return lines;
}

std::ptrdiff_t At(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) - lines.begin();
}

// The PIN store registers before the data stores (and so before gHistoryTree
// exists) and ends after them; a failed key leaves the library loaded without
// it.
TEST(AuthStoreLoad, TheDefaultPINStoreComesFirstGoesLastAndMayBeMissing) {
  ASSERT_EQ(dlopen(MSTORE_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the program must not link the library";
  xk::test::Sandbox sandbox;  // an empty catalogue
  for (bool failKey : {false, true}) {
    SCOPED_TRACE(failKey ? "failing key generator" : "plain load");
    const std::vector<std::string> lines = LoadInChild(failKey);
    ASSERT_EQ(At(lines, "<child failed>"), static_cast<std::ptrdiff_t>(lines.size()));
    std::vector<std::string> stores;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(stores),
                 [](const std::string& line) { return line.rfind("store ", 0) == 0; });
    EXPECT_EQ(stores, failKey ? std::vector<std::string>{}
                              : std::vector<std::string>{"store {AEA79AF9-BECB-490a-BCCB-CD0806BA970D}"});
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "2 CStaticAuthCacheClient::RegisterAuthStore Begin failed"),
              failKey ? 1 : 0);
    const std::ptrdiff_t order[] = {
        At(lines, "8 StaticAuthStoreRegistration::StaticAuthStoreRegistration"),
        At(lines, "16 StaticAuthStoreRegistration::StaticAuthStoreRegistration"),
        At(lines, "8 StaticDataStoreRegistration::StaticDataStoreRegistration"),
        At(lines, "16 StaticDataStoreRegistration::~StaticDataStoreRegistration"),
        At(lines, "8 StaticAuthStoreRegistration::~StaticAuthStoreRegistration"),
        At(lines, "16 StaticAuthStoreRegistration::~StaticAuthStoreRegistration"),
    };
    EXPECT_TRUE(std::is_sorted(std::begin(order), std::end(order)));
    EXPECT_LT(order[5], static_cast<std::ptrdiff_t>(lines.size()));
    // The PIN store ends exactly once, inside its registration's destructor.
    const auto end = std::find(lines.begin(), lines.end(), "8 CInternalAuthStore::End");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "8 CInternalAuthStore::End"), failKey ? 0 : 1);
    if (!failKey) {
      EXPECT_TRUE(end - lines.begin() > order[4] && end - lines.begin() < order[5]);
    }
  }
}

}  // namespace
