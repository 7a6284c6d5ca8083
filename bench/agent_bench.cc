// A P-256 signature through the agent against one through `p11-kit server`,
// both with a SoftHSM2 token behind them and both reached through p11-kit's
// client module: once on a connection that stays open (C_SignInit + C_Sign),
// once as a new client each time (connect, C_Initialize, session, C_Login with
// the PIN, find the key, sign, C_Finalize), where p11-kit server forks and
// executes a p11-kit-remote per connection and the agent starts a thread.
// The agent serves the Merrowstore module in front of SoftHSM2.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr char kClient[] = "/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so";
constexpr char kSoftHSM[] = "/usr/lib/softhsm/libsofthsm2.so";
constexpr char kPIN[] = "bench-pin";

void Check(CK_RV rv, const char* what) {
  if (rv != CKR_OK) throw std::runtime_error(std::string(what) + " failed: " + std::to_string(rv));
}

// Starts `argv`, returns its pid and the value of the first
// P11_KIT_SERVER_ADDRESS=...; it prints.
pid_t StartServer(std::vector<std::string> argv, std::string& address) {
  int out[2];
  if (pipe(out) != 0) throw std::runtime_error("pipe");
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(out[1]);
  std::string text;
  char c;
  pollfd p{out[0], POLLIN, 0};
  while (text.find("; export") == std::string::npos && poll(&p, 1, 30000) == 1 && read(out[0], &c, 1) == 1) text += c;
  close(out[0]);
  const std::string key = "P11_KIT_SERVER_ADDRESS=";
  const auto at = text.find(key);
  if (at == std::string::npos) throw std::runtime_error(argv[0] + " printed no address: " + text);
  address = text.substr(at + key.size(), text.find(';', at) - at - key.size());
  return pid;
}

// The token, the two servers and a client function list for each.
struct World {
  std::string dir;
  pid_t agent = 0, server = 0;
  CK_FUNCTION_LIST* viaAgent = nullptr;
  CK_FUNCTION_LIST* viaServer = nullptr;

  World() {
    try {
      Start();
    } catch (...) {
      Stop();
      throw;
    }
  }
  ~World() { Stop(); }

  void Start() {
    char tmp[] = "/tmp/mstore-agent-bench-XXXXXX";
    if (mkdtemp(tmp) == nullptr) throw std::runtime_error("mkdtemp");
    dir = tmp;
    std::system(("mkdir -p " + dir + "/tokens").c_str());
    std::ofstream(dir + "/softhsm2.conf") << "directories.tokendir = " << dir << "/tokens\n"
                                           << "objectstore.backend = file\nlog.level = ERROR\n";
    setenv("SOFTHSM2_CONF", (dir + "/softhsm2.conf").c_str(), 1);
    setenv("MERROWSTORE_PKCS11_MODULE", kSoftHSM, 1);
    const std::string quiet = " >/dev/null 2>&1";
    if (std::system(("softhsm2-util --init-token --free --label bench --so-pin 0000 --pin " + std::string(kPIN) + quiet)
                        .c_str()) != 0 ||
        std::system((std::string("pkcs11-tool --module ") + kSoftHSM + " --login --pin " + kPIN +
                     " --keypairgen --key-type EC:prime256v1 --id 01 --label signing" + quiet)
                        .c_str()) != 0)
      throw std::runtime_error("cannot make the SoftHSM2 token");
    std::string agentAddress, serverAddress;
    agent = StartServer({MSTORE_BINARY, "--registry", dir + "/registry.db", "agent", "--dir", dir + "/agent"},
                        agentAddress);
    server = StartServer({P11_KIT_BINARY, "server", "-f", "-s", "--provider", kSoftHSM, "-n", dir + "/p11-kit",
                          "pkcs11:token=bench"},
                         serverAddress);
    // The client module reads the address each time a function list is made.
    void* client = dlopen(kClient, RTLD_NOW);
    if (client == nullptr) throw std::runtime_error(dlerror());
    auto list = reinterpret_cast<CK_C_GetFunctionList>(dlsym(client, "C_GetFunctionList"));
    setenv("P11_KIT_SERVER_ADDRESS", agentAddress.c_str(), 1);
    Check(list(&viaAgent), "C_GetFunctionList (agent)");
    setenv("P11_KIT_SERVER_ADDRESS", serverAddress.c_str(), 1);
    Check(list(&viaServer), "C_GetFunctionList (p11-kit server)");
  }

  void Stop() {
    for (pid_t pid : {agent, server}) {
      if (pid <= 0) continue;
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
    agent = server = 0;
    if (!dir.empty()) std::system(("rm -rf " + dir).c_str());
  }
};

World& TheWorld() {
  static World world;
  return world;
}

// A client's session on the token, logged in, with the signing key found.
struct Client {
  CK_FUNCTION_LIST* f;
  CK_SESSION_HANDLE session = 0;
  CK_OBJECT_HANDLE key = 0;

  explicit Client(CK_FUNCTION_LIST* functions) : f(functions) {
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    Check(f->C_Initialize(&args), "C_Initialize");
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    Check(f->C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");
    if (count == 0) throw std::runtime_error("no token");
    Check(f->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
          "C_OpenSession");
    Check(f->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(kPIN)), sizeof kPIN - 1),
          "C_Login");
    CK_OBJECT_CLASS cls = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE find[] = {{CKA_CLASS, &cls, sizeof cls}};
    CK_ULONG found = 0;
    Check(f->C_FindObjectsInit(session, find, 1), "C_FindObjectsInit");
    Check(f->C_FindObjects(session, &key, 1, &found), "C_FindObjects");
    Check(f->C_FindObjectsFinal(session), "C_FindObjectsFinal");
    if (found != 1) throw std::runtime_error("no signing key");
  }

  void Sign() {
    CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
    CK_BYTE digest[32] = {1, 2, 3}, signature[64];
    CK_ULONG size = sizeof signature;
    Check(f->C_SignInit(session, &ecdsa, key), "C_SignInit");
    Check(f->C_Sign(session, digest, sizeof digest, signature, &size), "C_Sign");
  }

  ~Client() {
    f->C_CloseSession(session);
    f->C_Finalize(nullptr);
  }
};

CK_FUNCTION_LIST* Through(int which) { return which == 0 ? TheWorld().viaAgent : TheWorld().viaServer; }

void BM_SignOnOpenConnection(benchmark::State& state) {
  state.SetLabel(state.range(0) == 0 ? "agent" : "p11-kit server");
  try {
    Client client(Through(static_cast<int>(state.range(0))));
    for (auto _ : state) client.Sign();
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}
BENCHMARK(BM_SignOnOpenConnection)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_NewClientLoginAndSign(benchmark::State& state) {
  state.SetLabel(state.range(0) == 0 ? "agent" : "p11-kit server");
  try {
    CK_FUNCTION_LIST* f = Through(static_cast<int>(state.range(0)));
    for (auto _ : state) Client(f).Sign();
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}
BENCHMARK(BM_NewClientLoginAndSign)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
