// Loading the library for real. The program does not link it (see
// tests/CMakeLists.txt): a forked child arms its faults, loads the library
// with dlopen, reports the PIN store map and exits, which tears the library
// down. The library's log reaches the parent through a pipe, in order.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "registration/StaticAuthStoreRegistration.h"
#include "xk/testsupport.h"

namespace {

struct PipeSink : xk::log::Sink {
  explicit PipeSink(int fd) : fd(fd) {}
  void Write(const char*, int level, const char* text) override { Line(std::to_string(level) + " " + text); }
  void Line(std::string line) const {
    line += "\n";
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(2);
  }
  int fd;
};

// The child's lines: "level text" for each log record, and "store <id>" for
// each PIN store right after the load.
std::vector<std::string> LoadInChild(bool failKeyGenerator) {
  int fds[2];
  if (pipe(fds) != 0) return {"<no pipe>"};
  const pid_t pid = fork();
  if (pid == 0) {
    auto* sink = new PipeSink(fds[1]);  // lives until the process ends
    xk::log::AddSink(sink);
    xk::log::SetLevelMask(xk::log::kAllLevels);
    if (failKeyGenerator) xk::fault::Arm("KeyGenerator::GenerateKey", 1, {xk::fault::Kind::kThrow, 4003, 0}, false);
    void* library = dlopen(MSTORE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) _exit(3);
    for (const auto& entry : static_cast<QX::AuthStore::StaticAuthStoreRegistration*>(
                                 dlsym(library, "gStaticAuthStoreRegistration"))->m_Stores)
      sink->Line("store " + std::string(entry.first.c_str()));
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
  for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
    lines.push_back(text.substr(at, end - at));
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) lines.push_back("<child failed>");
  return lines;
}

// The PIN store registers before the data stores (so before gHistoryTree
// exists) and ends after them; a failed key leaves the library loaded
// without it.
TEST(AuthStoreLoad, TheDefaultPINStoreComesFirstGoesLastAndMayBeMissing) {
  ASSERT_EQ(dlopen(MSTORE_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the program must not link the library";
  xk::test::Sandbox sandbox;  // an empty catalogue
  for (bool failKey : {false, true}) {
    SCOPED_TRACE(failKey ? "failing key generator" : "plain load");
    const std::vector<std::string> lines = LoadInChild(failKey);
    const auto at = [&](const std::string& line) { return std::find(lines.begin(), lines.end(), line) - lines.begin(); };
    const auto count = [&](const std::string& line) { return std::count(lines.begin(), lines.end(), line); };
    ASSERT_EQ(count("<child failed>"), 0);
    EXPECT_EQ(count("store {AEA79AF9-BECB-490a-BCCB-CD0806BA970D}"), failKey ? 0 : 1);
    // Strictly in this order, each present.
    const std::ptrdiff_t order[] = {at("16 StaticAuthStoreRegistration::StaticAuthStoreRegistration"),
                                    at("8 StaticDataStoreRegistration::StaticDataStoreRegistration"),
                                    at("16 StaticDataStoreRegistration::~StaticDataStoreRegistration"),
                                    at("8 StaticAuthStoreRegistration::~StaticAuthStoreRegistration"),
                                    at("16 StaticAuthStoreRegistration::~StaticAuthStoreRegistration"),
                                    static_cast<std::ptrdiff_t>(lines.size())};
    EXPECT_EQ(std::adjacent_find(std::begin(order), std::end(order), std::greater_equal<>()), std::end(order));
    // A PIN store ends once, inside its registration's destructor.
    EXPECT_EQ(count("8 CInternalAuthStore::End"), failKey ? 0 : 1);
    if (!failKey) {
      EXPECT_TRUE(order[3] < at("8 CInternalAuthStore::End") && at("8 CInternalAuthStore::End") < order[4]);
    }
  }
}

}  // namespace
