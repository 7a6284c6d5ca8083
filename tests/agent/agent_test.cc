// The agent across processes: each test makes a SoftHSM2 token with a P-256
// key in a folder of its own, starts `mstore agent` on its own registry in
// front of it, and drives it with pkcs11-tool through p11-kit's client module,
// every process a new client.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char kClient[] = "/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so";
constexpr char kSoftHSM[] = "/usr/lib/softhsm/libsofthsm2.so";
// Neither a serial (hex digits) nor the label can contain it.
constexpr char kPIN[] = "agent-pin-4711";

struct Result {
  int status;
  std::string out;
};

// A shell command; stdout and stderr together.
Result Shell(const std::string& command) {
  Result r{-1, ""};
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return r;
  std::array<char, 4096> buf;
  for (std::size_t n; (n = fread(buf.data(), 1, buf.size(), p)) > 0;) r.out.append(buf.data(), n);
  const int raw = pclose(p);
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return r;
}

int Connect(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    fd = -1;
  }
  return fd;
}

// What a peer gets back for the first byte of p11-kit's protocol (its
// version): 1 and the answer's first byte, or 0 when the agent closed the
// connection without answering, -1 if it could not connect.
int Probe(const std::string& path, char* answer) {
  const int fd = Connect(path);
  if (fd < 0) return -1;
  const char version = 0;
  (void)!send(fd, &version, 1, MSG_NOSIGNAL);
  pollfd p{fd, POLLIN, 0};
  int got = 0;
  if (poll(&p, 1, 10000) == 1 && read(fd, answer, 1) == 1) got = 1;
  close(fd);
  return got;
}

class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/mstore-agent-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    run_ = dir_ + "/run";
    mkdir((dir_ + "/tokens").c_str(), 0700);
    std::ofstream(dir_ + "/softhsm2.conf") << "directories.tokendir = " << dir_ << "/tokens\n"
                                            << "objectstore.backend = file\nlog.level = ERROR\n";
    std::ofstream(dir_ + "/data") << "a document to sign\n";
    // Every child of the test sees this token only, the agent's module finds
    // SoftHSM2 behind it, and the agent's address is set once it is known.
    setenv("SOFTHSM2_CONF", (dir_ + "/softhsm2.conf").c_str(), 1);
    setenv("MERROWSTORE_PKCS11_MODULE", kSoftHSM, 1);
    Result token = Shell("softhsm2-util --init-token --free --label agent --so-pin 0000 --pin " + std::string(kPIN));
    ASSERT_EQ(token.status, 0) << token.out;
    Result key = Shell(std::string("pkcs11-tool --module ") + kSoftHSM + " --login --pin " + kPIN +
                    " --keypairgen --key-type EC:prime256v1 --id 01 --label signing");
    ASSERT_EQ(key.status, 0) << key.out;
  }

  void TearDown() override {
    if (agent_ > 0) {
      const int status = Stop();
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "agent status " << status << "\n" << AgentLog();
    }
    Shell("rm -rf " + dir_);
  }

  // Starts the agent (the Merrowstore module, found beside the program) and
  // sets P11_KIT_SERVER_ADDRESS from the line it prints.
  void StartAgent() {
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    agent_ = fork();
    ASSERT_GE(agent_, 0);
    if (agent_ == 0) {
      dup2(out[1], 1);
      const int err = open((dir_ + "/agent.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(err, 2);
      close(out[0]);
      const std::string registry = dir_ + "/registry.db";
      execl(MSTORE_BINARY, MSTORE_BINARY, "--registry", registry.c_str(), "agent", "--dir", run_.c_str(), nullptr);
      _exit(127);
    }
    close(out[1]);
    std::string line;
    char c;
    pollfd p{out[0], POLLIN, 0};
    while (poll(&p, 1, 60000) == 1 && read(out[0], &c, 1) == 1 && c != '\n') line += c;
    close(out[0]);
    const std::string expected = "P11_KIT_SERVER_ADDRESS=unix:path=" + run_ + "/pkcs11; export P11_KIT_SERVER_ADDRESS;";
    ASSERT_EQ(line, expected) << AgentLog();
    setenv("P11_KIT_SERVER_ADDRESS", ("unix:path=" + run_ + "/pkcs11").c_str(), 1);
  }

  // SIGTERM, then the agent's wait status (SIGKILL after a minute).
  int Stop() {
    kill(agent_, SIGTERM);
    int status = -1;
    for (int i = 0; i < 600 && waitpid(agent_, &status, WNOHANG) == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (!WIFEXITED(status) && !WIFSIGNALED(status)) {
      kill(agent_, SIGKILL);
      waitpid(agent_, &status, 0);
    }
    agent_ = 0;
    return status;
  }

  // A new process signing with the key through the agent; no PIN asks the
  // agent's cache. No terminal and nothing on stdin: a prompt fails.
  Result Sign(const std::string& out, bool withPIN) {
    return Shell(std::string("setsid -w pkcs11-tool --module ") + kClient + " --login" +
                 (withPIN ? std::string(" --pin ") + kPIN : "") + " --sign --mechanism ECDSA --id 01 -i " + dir_ +
                 "/data -o " + dir_ + "/" + out + " </dev/null");
  }

  Result Status() { return Shell(std::string(MSTORE_BINARY) + " agent --status --dir " + run_); }

  std::string AgentLog() { return Shell("cat " + dir_ + "/agent.log").out; }

  std::string dir_, run_;
  pid_t agent_ = 0;
};

TEST_F(AgentTest, PINTypedOnceServesTheNextProcessUntilItExpires) {
  // 0: the shortest timeout, 5 seconds without use.
  ASSERT_EQ(Shell(std::string(MSTORE_BINARY) + " --registry " + dir_ +
                  "/registry.db settings set Merrowstore.Authentication.Timeout 0")
                .status,
            0);
  StartAgent();

  Result first = Sign("first.sig", true);
  ASSERT_EQ(first.status, 0) << first.out << AgentLog();
  Result cached = Status();
  EXPECT_NE(cached.out.find("\"agent"), std::string::npos) << cached.out;
  EXPECT_NE(cached.out.find("pin cached expires 20"), std::string::npos) << cached.out;
  EXPECT_EQ(cached.out.find(kPIN), std::string::npos) << cached.out;

  Result second = Sign("second.sig", false);
  EXPECT_EQ(second.status, 0) << second.out;
  EXPECT_EQ(second.out.find("User PIN"), std::string::npos) << second.out;

  // The one wait on the clock: the agent's timer ends the PIN, the report
  // says so, and the next process has nothing to sign with.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  Result expired;
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    expired = Status();
  } while (expired.out.find("pin none") == std::string::npos && std::chrono::steady_clock::now() < deadline);
  EXPECT_NE(expired.out.find("pin none"), std::string::npos) << expired.out;
  Result late = Sign("late.sig", false);
  EXPECT_NE(late.status, 0) << late.out;
}

TEST_F(AgentTest, TenProcessesSignAtOnce) {
  StartAgent();
  ASSERT_EQ(Sign("login.sig", true).status, 0) << AgentLog();
  std::vector<std::thread> clients;
  std::vector<Result> runs(10);
  for (int i = 0; i < 10; ++i)
    clients.emplace_back([&, i] { runs[i] = Sign("sig" + std::to_string(i), false); });
  for (auto& t : clients) t.join();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(runs[i].status, 0) << i << ": " << runs[i].out;
    EXPECT_TRUE(std::filesystem::exists(dir_ + "/sig" + std::to_string(i))) << i;
  }
}

TEST_F(AgentTest, PeersOfAnotherUserAreRefusedBeforeAByteIsRead) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  StartAgent();
  // Open the folder and the sockets to everyone: the peer check alone stands.
  ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  ASSERT_EQ(chmod(run_.c_str(), 0755), 0);
  for (const char* name : {"pkcs11", "control"}) ASSERT_EQ(chmod((run_ + "/" + name).c_str(), 0666), 0);
  struct Case {
    const char* socket;
    uid_t uid;
    int got;  // what Probe() sees
  };
  const Case cases[] = {{"pkcs11", 65534, 0}, {"control", 65534, 0}, {"pkcs11", 0, 1}, {"control", 0, 1}};
  for (const Case& c : cases) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      if (c.uid != 0 && (setgid(c.uid) != 0 || setuid(c.uid) != 0)) _exit(100);
      char answer;
      _exit(Probe(run_ + "/" + c.socket, &answer) + 1);
    }
    int status;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), c.got + 1) << c.socket << " uid " << c.uid;
  }
  EXPECT_EQ(Sign("after.sig", true).status, 0) << AgentLog();
}

TEST_F(AgentTest, SIGTERMWithAConnectionOpenEndsItAndRemovesTheSockets) {
  StartAgent();
  const int open = Connect(run_ + "/pkcs11");
  ASSERT_GE(open, 0);
  const char version = 0;
  char answer;
  ASSERT_EQ(write(open, &version, 1), 1);
  ASSERT_EQ(read(open, &answer, 1), 1);

  const int status = Stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << AgentLog();
  EXPECT_EQ(read(open, &answer, 1), 0);
  close(open);
  EXPECT_FALSE(std::filesystem::exists(run_));
  EXPECT_NE(Status().status, 0);
}

}  // namespace
