// The agent across processes: each test starts `mstore agent` on its own
// registry in front of a SoftHSM2 token with a P-256 key, and drives it with
// pkcs11-tool through p11-kit's client module, every process a new client.

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "pkcs11_test_support.h"

namespace {

using namespace p11test;

// Neither a serial (hex digits) nor the label can contain it.
constexpr char kPIN[] = "agent-pin-4711";

// A connection to the socket `path` that has sent the first byte of p11-kit's
// protocol (its version), its reads given 10 seconds; -1 if none.
int Hello(const std::string& path) {
  sockaddr_un addr{AF_UNIX, {}};
  path.copy(addr.sun_path, sizeof addr.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  const timeval limit{10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  (void)!send(fd, "", 1, MSG_NOSIGNAL);  // a peer refused may find the connection closed already
  return fd;
}

struct AgentTest : ::testing::Test {
  void SetUp() override {
    std::ofstream(dir + "/data") << "a document to sign\n";
    const auto [out, status] = Shell("pkcs11-tool --module " SOFTHSM2_LIBRARY " --login --pin " + std::string(kPIN) +
                                     " --keypairgen --key-type EC:prime256v1 --id 01");
    ASSERT_EQ(status, 0) << out;
  }
  void TearDown() override {
    if (agent != nullptr) {
      EXPECT_EQ(Stop(), 0) << AgentLog();
    }
  }

  // Starts the agent (the Merrowstore module, found beside the program) and
  // sets P11_KIT_SERVER_ADDRESS from the line it prints.
  void StartAgent() {
    agent = popen(("echo $$; exec " MSTORE_BINARY " agent --dir " + run + " 2>" + dir + "/agent.log").c_str(), "r");
    char line[512];
    pid = std::fgets(line, sizeof line, agent) != nullptr ? std::atoi(line) : 0;
    const std::string printed = std::fgets(line, sizeof line, agent) != nullptr ? line : "";
    ASSERT_EQ(printed, "P11_KIT_SERVER_ADDRESS=unix:path=" + run + "/pkcs11; export P11_KIT_SERVER_ADDRESS;\n")
        << AgentLog();
    setenv("P11_KIT_SERVER_ADDRESS", ("unix:path=" + run + "/pkcs11").c_str(), 1);
  }
  // SIGTERM, then the agent's wait status.
  int Stop() {
    if (pid > 0) kill(pid, SIGTERM);
    const int status = pclose(agent);
    agent = nullptr;
    return status;
  }

  // A new process signing with the key through the agent; no PIN asks the
  // agent's cache. No terminal and nothing on stdin: a prompt fails.
  std::pair<std::string, int> Sign(const std::string& out, bool withPIN) {
    return Shell("setsid -w pkcs11-tool --module /usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so --login" +
                 (withPIN ? " --pin " + std::string(kPIN) : "") + " --sign --mechanism ECDSA --id 01 -i " + dir +
                 "/data -o " + dir + "/" + out);
  }
  std::pair<std::string, int> Status() { return Shell(MSTORE_BINARY " agent --status --dir " + run); }
  std::string AgentLog() { return Shell("cat " + dir + "/agent.log").first; }

  World world{SOFTHSM2_LIBRARY, kPIN};
  const std::string dir = world.sandbox.Dir(), run = dir + "/run";
  FILE* agent = nullptr;
  pid_t pid = 0;
};

TEST_F(AgentTest, PINTypedOnceServesTheNextProcessUntilItExpires) {
  SetSetting("Merrowstore.Authentication.Timeout", 0);  // the shortest: 5 seconds without use
  StartAgent();
  const auto [first, signedFirst] = Sign("first.sig", true);
  ASSERT_EQ(signedFirst, 0) << first << AgentLog();
  const std::string cached = Status().first;
  EXPECT_NE(cached.find("\"t\" pin cached expires 20"), std::string::npos) << cached;
  EXPECT_EQ(cached.find(kPIN), std::string::npos) << cached;
  const auto [second, signedSecond] = Sign("second.sig", false);
  EXPECT_EQ(signedSecond, 0) << second;
  // The one wait on the clock: the agent's timer ends the PIN, the report
  // says so, and the next process has nothing to sign with.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  std::string expired;
  while ((expired = Status().first).find("pin none") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_NE(expired.find("pin none"), std::string::npos) << expired;
  EXPECT_NE(Sign("late.sig", false).second, 0);
}

// Ten processes sign at once; then SIGTERM ends a connection left open and
// removes the sockets with their folder.
TEST_F(AgentTest, TenProcessesSignAtOnceUntilSIGTERM) {
  StartAgent();
  ASSERT_EQ(Sign("login.sig", true).second, 0) << AgentLog();
  std::vector<std::pair<std::string, int>> runs(10);
  std::vector<std::thread> clients;
  for (int i = 0; i < 10; ++i) clients.emplace_back([&, i] { runs[i] = Sign("sig" + std::to_string(i), false); });
  for (auto& t : clients) t.join();
  for (const auto& [out, status] : runs) EXPECT_EQ(status, 0) << out;
  const int open = Hello(run + "/pkcs11");
  char answer;
  ASSERT_EQ(read(open, &answer, 1), 1);
  EXPECT_EQ(Stop(), 0) << AgentLog();
  EXPECT_EQ(read(open, &answer, 1), 0);
  close(open);
  EXPECT_FALSE(std::filesystem::exists(run));
  EXPECT_NE(Status().second, 0);
}

TEST_F(AgentTest, PeersOfAnotherUserAreRefusedBeforeAByteIsRead) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  StartAgent();
  // Open the folder and the sockets to everyone: the peer check alone stands.
  for (const std::string& path : {dir, run}) ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  for (const char* name : {"pkcs11", "control"}) ASSERT_EQ(chmod((run + "/" + name).c_str(), 0666), 0);
  for (const uid_t uid : {65534u, 0u}) {
    for (const char* name : {"pkcs11", "control"}) {
      const pid_t child = fork();
      if (child == 0) {
        const int fd = uid != 0 && (setgid(uid) != 0 || setuid(uid) != 0) ? -1 : Hello(run + "/" + name);
        char answer;
        _exit(fd < 0 ? 2 : read(fd, &answer, 1) == 1);  // 1: answered
      }
      int status = -1;
      waitpid(child, &status, 0);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == (uid == 0)) << name << " uid " << uid << " " << status;
    }
  }
  EXPECT_EQ(Sign("after.sig", true).second, 0) << AgentLog();
}

}  // namespace
