// Loading and unloading the library for real: the test prepares a catalogue in
// a sandbox registry and runs this same program as a child with that registry.
// In the child the library is loaded by the dynamic loader before any code of
// the program runs, so the catalogue is read as in production; the probe below
// reports what the client then sees and exits, and the library is torn down
// at exit, writing its log to a file that the test reads.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "catalogue_support.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "trees/RegistryTree.h"
#include "value_support.h"

extern char** environ;

namespace {

using QX::DataStore::CStaticDataCacheClient;

const char kProbeVariable[] = "MSTORE_LOAD_PROBE";

// The child's report: the history tree, the listing, then per store its
// configuration and the answer to one write.
void Probe() {
  CStaticDataCacheClient client;
  SAFEARRAY* ids = nullptr;
  const HRESULT hrList = client.ListDataStoreIds(&ids);
  std::printf("history %d\nlist 0x%x %d\n", gHistoryTree != nullptr, static_cast<unsigned>(hrList),
              static_cast<int>(ids->rgsabound->cElements));
  SAFEARRAY* value = SafeArrayCreateVector(VT_UI1, 0, 1);
  char compartment[] = "c", data[] = "d";
  for (int i = 0; i < static_cast<int>(ids->rgsabound->cElements); ++i) {
    BSTR id = nullptr, product = nullptr;
    QX::DataStore::Type eType;
    signed char bEncrypted = 0, bShared = 0;
    SafeArrayGetElement(ids, &i, &id);
    client.GetDataStoreInfo(id, &eType, &bEncrypted, &bShared, &product);
    const HRESULT hrSet = client.SetData(id, compartment, data, value);
    std::printf("store %s %d %d %d [%s] 0x%x\n", id, eType, bEncrypted, bShared, product, static_cast<unsigned>(hrSet));
    qxSysFreeString(product, 0);
    qxSysFreeString(id, 0);
  }
  qxSafeArrayDestroy(value, 0);
  qxSafeArrayDestroy(ids, 0);
  std::fflush(stdout);
  std::exit(0);
}

// Runs before main in the child, after the library has loaded.
struct ProbeHook {
  ProbeHook() {
    if (std::getenv(kProbeVariable) != nullptr) Probe();
  }
} gProbeHook;

struct ChildRun {
  int status = -1;
  std::string report;
  std::vector<std::string> log;  // "level text" of each record of the library
};

// Runs this program as a probe on the sandbox's registry.
ChildRun LoadInChild(const xk::test::Sandbox& sandbox) {
  const std::string logFile = sandbox.Dir() + "/probe.log";
  unlink(logFile.c_str());  // the log service appends
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e)
    if (std::strncmp(*e, "XK_", 3) != 0) env.push_back(*e);
  env.push_back(std::string(kProbeVariable) + "=1");
  env.push_back("XK_REGISTRY_PATH=" + sandbox.RegistryPath());
  env.push_back("XK_TEST_KEY_FILE=" + sandbox.KeyFilePath());
  env.push_back("XK_LOG_FILE=" + logFile);
  env.push_back("XK_LOG_LEVELS=all");
  std::vector<char*> envp;
  for (std::string& s : env) envp.push_back(s.data());
  envp.push_back(nullptr);
  char name[] = "registration_probe";
  char* argv[] = {name, nullptr};

  ChildRun run;
  int fds[2];
  if (pipe(fds) != 0) return run;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    execve("/proc/self/exe", argv, envp.data());
    _exit(127);
  }
  close(fds[1]);
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) run.report.append(buffer, n);
  close(fds[0]);
  waitpid(pid, &run.status, 0);
  // "... SRVMERROWSTORE [level] text" becomes "level text".
  std::ifstream in(logFile);
  for (std::string line; std::getline(in, line);) {
    const std::size_t at = line.find(" SRVMERROWSTORE [");
    const std::size_t close = line.find("] ", at);
    if (at != std::string::npos && close != std::string::npos)
      run.log.push_back(line.substr(at + 17, close - at - 17) + " " + line.substr(close + 2));
  }
  return run;
}

std::size_t CountOf(const ChildRun& run, const std::string& record) {
  return std::count(run.log.begin(), run.log.end(), record);
}

std::size_t IndexOf(const ChildRun& run, const std::string& record) {
  return std::find(run.log.begin(), run.log.end(), record) - run.log.begin();
}

}  // namespace

TEST(RegistrationLoad, TheCatalogueIsReadAtLoadAndTheStoresEndOnceAtUnload) {
  xk::test::Sandbox sandbox;
  ChildRun run = LoadInChild(sandbox);  // no catalogue key at all
  ASSERT_EQ(run.status, 0) << run.report;
  EXPECT_EQ(run.report, "history 1\nlist 0x0 0\n");

  using namespace cattest;
  Write("A_plain");
  Dword("B_shared", "SharedBetweenUserSessions", 1);
  Text("B_shared", "Product", "Acme");
  Dword("C_odd", "Type", 2);
  Dword("C_odd", "Encrypted", 2);
  Dword("C_odd", "type", 1);
  Dword("C_odd", "SharedBetweenUserSessions", 1);
  Text("D_emptyproduct", "Product", "");
  Dword("E_encrypted", "Encrypted", 1);
  Dword("F_remanent", "Type", 1);
  Dword("G_last", "SharedBetweenUserSessions", 1);
  Text("H_unreadable", "Encrypted", "yes");
  Dword("I_never_read", "SharedBetweenUserSessions", 1);
  run = LoadInChild(sandbox);
  ASSERT_EQ(run.status, 0) << run.report;
  EXPECT_EQ(run.report,
            "history 1\n"
            "list 0x0 6\n"
            "store A_plain 0 0 0 [Keldara] 0x80004005\n"
            "store B_shared 0 0 1 [Acme] 0x0\n"
            "store C_odd 0 0 1 [Keldara] 0x0\n"
            "store E_encrypted 0 1 0 [Keldara] 0x80004005\n"
            "store F_remanent 1 0 0 [Keldara] 0x80004005\n"
            "store G_last 0 0 1 [Keldara] 0x0\n");
  EXPECT_EQ(CountOf(run, "1 GetRegInfos qxRegRead failed rc = 70c"), 1u) << "H_unreadable ends the reading";

  // Teardown: every store ends once, inside the registration's destructor,
  // and its tree goes with it; the history tree stays. The one memory tree
  // that goes after them is the PIN store's.
  const auto from = run.log.begin() + IndexOf(run, "8 StaticDataStoreRegistration::~StaticDataStoreRegistration");
  const auto to = run.log.begin() + IndexOf(run, "16 StaticDataStoreRegistration::~StaticDataStoreRegistration");
  ASSERT_TRUE(from < to && to != run.log.end());
  for (const auto& [record, inside, after] : {std::tuple<const char*, int, int>{"8 CInternalDataStore::End", 6, 0},
                                              {"0 CMemoryTree::~CMemoryTree", 5, 1},
                                              {"0 CRegistryTree::~CRegistryTree", 1, 0}}) {
    EXPECT_EQ(std::count(from, to, record), inside) << record;
    EXPECT_EQ(std::count(to, run.log.end(), record), after) << record;
    EXPECT_EQ(CountOf(run, record), static_cast<std::size_t>(inside + after)) << record;
  }
}

TEST(RegistrationLoad, AMissingKeyFileLeavesOutOnlyTheEncryptedRemanentStore) {
  xk::test::Sandbox sandbox;  // no key file in it, whatever the machine has
  using namespace cattest;
  for (const char* id : {"M_plain", "M_vault", "R_plain", "R_vault"}) {
    Dword(id, "SharedBetweenUserSessions", 1);
    if (id[0] == 'R') Dword(id, "Type", 1);
    if (id[2] == 'v') Dword(id, "Encrypted", 1);
  }
  ChildRun run = LoadInChild(sandbox);
  ASSERT_EQ(run.status, 0) << run.report;
  EXPECT_EQ(run.report,
            "history 1\n"
            "list 0x0 3\n"
            "store M_plain 0 0 1 [Keldara] 0x0\n"
            "store M_vault 0 1 1 [Keldara] 0x0\n"
            "store R_plain 1 0 1 [Keldara] 0x0\n");
  // The remanent store's write outlived the child, in the clear.
  SAFEARRAY* value = nullptr;
  ASSERT_EQ(CRegistryTree(SecureString("R_plain"), 0).GetData(SecureString("c"), SecureString("d"), value, 0), S_OK);
  EXPECT_EQ(mtest::TakeDescribed(value), "17[1]:00");
}
