// Loading and unloading the library for real: the test prepares a catalogue in
// a sandbox registry and runs this same program as a child with that registry.
// In the child the library is loaded by the dynamic loader before any code of
// the program runs, so the catalogue is read as in production; the probe below
// reports what the client then sees and exits, and the library is torn down
// at exit, writing its log to a file that the test reads.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "catalogue_support.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "trees/RegistryTree.h"
#include "value_support.h"

namespace {

using QX::DataStore::CStaticDataCacheClient;

const char kProbeVariable[] = "MSTORE_LOAD_PROBE";

// The child's report: the history tree, the listing, then per store its
// configuration and the answer to one write.
void Probe() {
  CStaticDataCacheClient client;
  SAFEARRAY* ids = nullptr;
  const HRESULT hrList = client.ListDataStoreIds(&ids);
  const mtest::Strings names = mtest::Take(ids);
  std::printf("history %d\nlist 0x%x %zu\n", gHistoryTree != nullptr, static_cast<unsigned>(hrList), names.size());
  const mtest::Array value(SafeArrayCreateVector(VT_UI1, 0, 1));
  for (const std::string& name : names) {
    mtest::Bstr id(name), compartment("c"), data("d");
    BSTR product = nullptr;
    QX::DataStore::Type eType;
    signed char bEncrypted = 0, bShared = 0;
    client.GetDataStoreInfo(id, &eType, &bEncrypted, &bShared, &product);
    const HRESULT hrSet = client.SetData(id, compartment, data, value.get());
    std::printf("store %s %d %d %d [%s] 0x%x\n", name.c_str(), eType, bEncrypted, bShared, product,
                static_cast<unsigned>(hrSet));
    qxSysFreeString(product, 0);
  }
}

// Runs before main in the child, after the library has loaded.
struct ProbeHook {
  ProbeHook() {
    if (std::getenv(kProbeVariable) == nullptr) return;
    Probe();
    std::fflush(stdout);
    std::exit(0);
  }
} gProbeHook;

struct ChildRun {
  int status = -1;
  std::string report;
  std::vector<std::string> log;  // "level text" of each record of the library
};

// Runs this program as a probe on the sandbox's registry, key file and a log
// file of its own.
ChildRun LoadInChild(const xk::test::Sandbox& sandbox) {
  const std::string logFile = sandbox.Dir() + "/probe.log";
  unlink(logFile.c_str());  // the log service appends
  const std::string command = "env -u XK_LOG_STDERR " + std::string(kProbeVariable) + "=1 XK_LOG_LEVELS=all" +
                              " XK_REGISTRY_PATH='" + sandbox.RegistryPath() + "' XK_TEST_KEY_FILE='" +
                              sandbox.KeyFilePath() + "' XK_LOG_FILE='" + logFile + "' " +
                              std::filesystem::read_symlink("/proc/self/exe").string();
  ChildRun run;
  FILE* child = popen(command.c_str(), "r");
  char buffer[4096];
  for (std::size_t n; child != nullptr && (n = std::fread(buffer, 1, sizeof buffer, child)) > 0;)
    run.report.append(buffer, n);
  run.status = child != nullptr ? pclose(child) : -1;
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

}  // namespace

TEST(RegistrationLoad, TheCatalogueIsReadAtLoadAndTheStoresEndOnceAtUnload) {
  xk::test::Sandbox sandbox;  // (no catalogue key at all is mstore's empty catalogue)
  using namespace cattest;
  Write("A_plain");
  Dword("B_shared", "SharedBetweenUserSessions", 1);
  Text("B_shared", "Product", "Acme");
  Dword("C_odd", "Type", 2);
  Dword("C_odd", "Encrypted", 2);
  Dword("C_odd", "type", 1);
  Dword("C_odd", "SharedBetweenUserSessions", 1);
  Text("D_emptyproduct", "Product", "");
  for (const char* id : {"E_encrypted", "F_remanent", "F_vault", "G_last"}) Dword(id, "SharedBetweenUserSessions", 1);
  for (const char* id : {"E_encrypted", "F_vault"}) Dword(id, "Encrypted", 1);
  for (const char* id : {"F_remanent", "F_vault"}) Dword(id, "Type", 1);
  Text("H_unreadable", "Encrypted", "yes");
  Dword("I_never_read", "SharedBetweenUserSessions", 1);
  const ChildRun run = LoadInChild(sandbox);
  ASSERT_EQ(run.status, 0) << run.report;
  EXPECT_EQ(run.report,
            "history 1\n"
            "list 0x0 6\n"
            "store A_plain 0 0 0 [Keldara] 0x80004005\n"
            "store B_shared 0 0 1 [Acme] 0x0\n"
            "store C_odd 0 0 1 [Keldara] 0x0\n"
            "store E_encrypted 0 1 1 [Keldara] 0x0\n"
            "store F_remanent 1 0 1 [Keldara] 0x0\n"
            "store G_last 0 0 1 [Keldara] 0x0\n");
  // The sandbox has no key file, whatever the machine has: only the encrypted
  // remanent store is left out. The remanent store's write outlived the
  // child, in the clear.
  SAFEARRAY* value = nullptr;
  ASSERT_EQ(CRegistryTree(SecureString("F_remanent"), 0).GetData(SecureString("c"), SecureString("d"), value, 0), S_OK);
  EXPECT_EQ(mtest::TakeDescribed(value), "17[1]:00");

  // Teardown: every store ends once, inside the registration's destructor,
  // and its tree goes with it; the history tree stays. The one memory tree
  // that goes after them is the PIN store's.
  const std::string destructor = "StaticDataStoreRegistration::~StaticDataStoreRegistration";
  const auto from = std::find(run.log.begin(), run.log.end(), "8 " + destructor);
  const auto to = std::find(from, run.log.end(), "16 " + destructor);
  ASSERT_TRUE(from < to && to != run.log.end());
  for (const auto& [record, inside, after] : {std::tuple<const char*, int, int>{"8 CInternalDataStore::End", 6, 0},
                                              {"0 CMemoryTree::~CMemoryTree", 5, 1},
                                              {"0 CRegistryTree::~CRegistryTree", 1, 0}}) {
    EXPECT_EQ(std::count(from, to, record), inside) << record;
    EXPECT_EQ(std::count(to, run.log.end(), record), after) << record;
    EXPECT_EQ(std::count(run.log.begin(), from, record), 0) << record;
  }
}
