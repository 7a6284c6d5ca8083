// Compartments of the registry tree: keys made, listed, probed, flushed and
// removed with their version updates, the one-chain listing of every
// compartment, the walks' name room, and failing registry calls.

#include "trees/RegistryTree.h"
#include "tree_test_support.h"
#include "xk/registry.h"

namespace {

using namespace treetest;

const char kHive[] = "HKEY_LOCAL_MACHINE";
const std::string kKey = "Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\T";

// Records, in order, each counter write UpdateVersion makes.
class RecordingHistory : public CMemoryTree {
 public:
  RecordingHistory() : CMemoryTree(S("History")) {}
  HRESULT SetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY* psa, unsigned int p,
                  signed char e) override {
    m_Writes.push_back(std::string(sCompartmentId.c_str()) + " " + sDataId.c_str());
    return CMemoryTree::SetData(sCompartmentId, sDataId, psa, p, e);
  }
  Strings m_Writes;
};

bool KeyExists(const std::string& below) {
  HKEY h = nullptr;
  if (xkRegOpenKeyEx(kHive, (kKey + below).c_str(), 0, 0, &h) != 0) return false;
  xkRegCloseKey(h);
  return true;
}

class RegistryCompartments : public HistoryTest {
 protected:
  void Create(const Strings& paths) {
    for (const std::string& path : paths) ASSERT_EQ(m_Tree.CreateCompartment(S(path), 0), S_OK) << path;
  }
  Strings Children(const std::string& id) {
    SAFEARRAY* psa = nullptr;
    EXPECT_EQ(m_Tree.ListCompartmentIds(S(id), &psa, 0), S_OK);
    return Take(psa);
  }

  Sandbox m_Sandbox;
  CRegistryTree m_Tree{S("T"), 0};
};

TEST_F(RegistryCompartments, CreateListProbeAndFlush) {
  SAFEARRAY* psa = nullptr;
  EXPECT_EQ(m_Tree.ListCompartmentIds(S("/"), &psa, 0), E_FAIL) << "never created";
  EXPECT_EQ(m_Tree.ListAllCompartmentIds(&psa), E_FAIL);
  EXPECT_EQ(psa, nullptr);
  Create({"s/a/b", "s/a/b", "s/Z", "s/B"});
  EXPECT_EQ(Children("/"), Strings({"s"}));
  EXPECT_EQ(Children("s"), Strings({"B", "Z", "a"})) << "byte order";
  EXPECT_EQ(Children("s/a/b"), Strings()) << "a leaf lists a zero-element vector";
  EXPECT_EQ(m_Tree.ListCompartmentIds(S("s"), nullptr, 0), E_FAIL);

  UpdateHistoryTree(S("T/s/a"), -1);
  EXPECT_EQ(Cached(m_Tree, "/"), C({1, 1, 1})) << "the tree's key exists";
  EXPECT_EQ(Cached(m_Tree, "s/a"), C({1, 1, 1}));
  EXPECT_EQ(Cached(m_Tree, "s/a/b"), C({0, 0, 1}));
  EXPECT_EQ(Cached(m_Tree, "q"), C({0, 0, 0}));
  unsigned long v = 9;
  EXPECT_EQ(m_Tree.IsCompartmentCached(S("s"), &v, &v, nullptr, 0), E_FAIL);

  EXPECT_EQ(m_Tree.FlushTree(0), S_OK);
  EXPECT_EQ(Cached(m_Tree, "/"), C({1, 1, 0})) << "versions outlive the keys";
  EXPECT_EQ(m_Tree.FlushTree(0), E_FAIL);
}

TEST_F(RegistryCompartments, RemovalRaisesDescendantsDeepestFirst) {
  LogCapture log;
  RecordingHistory* history = new RecordingHistory;
  DropHistory();
  gHistoryTree = history;
  Create({"a/b/c", "a/d", "ab", "z"});
  Put(m_Tree, "a/b", "v");
  EXPECT_EQ(m_Tree.RemoveCompartment(S("a"), 1, 0), S_OK);
  EXPECT_EQ(history->m_Writes, Strings({"T/a/b/c CompartmentVersion", "T/a/b/c ContentVersion",
                                        "T/a/b CompartmentVersion", "T/a/b ContentVersion",
                                        "T/a/d CompartmentVersion", "T/a/d ContentVersion"}));
  EXPECT_EQ(Children("/"), Strings({"ab", "z"}));
  history->m_Writes.clear();
  Create({"q/r"});
  EXPECT_EQ(m_Tree.RemoveCompartment(S("q"), 0, 0), S_OK);
  EXPECT_EQ(m_Tree.RemoveCompartment(S("z"), 1, 0), S_OK);
  EXPECT_EQ(history->m_Writes, Strings()) << "no flag, or no descendant: no counter";
  EXPECT_EQ(Children("/"), Strings({"ab"}));
  EXPECT_EQ(m_Tree.RemoveCompartment(S("q"), 1, 0), E_INVALIDARG);
  EXPECT_EQ(m_Tree.RemoveCompartment(S("5//"), 1, 0), E_INVALIDARG) << "the registry refuses empty components";
  // Without a history the removal still happens; each failed update is a detail.
  DropHistory();
  Create({"ab/c"});
  EXPECT_EQ(m_Tree.RemoveCompartment(S("ab"), 1, 0), S_OK);
  EXPECT_EQ(log.Count("CRegistryTree::RegDelTree UpdateVersion failed hr = 80004005"), 2u);
  EXPECT_FALSE(KeyExists("\\ab"));
}

TEST_F(RegistryCompartments, ChildNamesMustFitTheWorkBuffer) {
  // "<base>T\p\" is 54 characters: a child's name may have 251 - 54 - 2.
  for (std::size_t length : {195u, 196u}) {
    HKEY h = nullptr;
    ASSERT_EQ(xkRegCreateKeyEx(kHive, (kKey + "\\p\\" + std::string(length, 'n')).c_str(), 0, nullptr, 0, 3, nullptr,
                               &h, nullptr),
              0);
    xkRegCloseKey(h);
    EXPECT_EQ(m_Tree.RemoveCompartment(S("p"), 1, 0), S_OK) << length;
    EXPECT_EQ(KeyExists("\\p"), length == 196u) << length;
  }
}

TEST_F(RegistryCompartments, ListAllFollowsOneChain) {
  LogCapture log;
  Create({"b", "a/y", "a/x/deep"});
  EXPECT_EQ(AllKeys(m_Tree), Strings({"T", "T/a", "T/a/x", "T/a/x/deep"}));
  // A child that can't be opened is asked for again.
  FaultInjector faults;
  faults.FailWithCode("xkRegOpenKeyEx", ERROR_REGISTRY_IO_FAILED, 2);
  EXPECT_EQ(AllKeys(m_Tree), Strings({"T", "T/a", "T/a/x", "T/a/x/deep"}));
  EXPECT_EQ(faults.Fired("xkRegOpenKeyEx"), 1u);
  EXPECT_EQ(m_Tree.ListAllCompartmentIds(nullptr), E_FAIL);
}

TEST_F(RegistryCompartments, FailingRegistryCalls) {
  LogCapture log;
  FaultInjector faults;
  Create({"a/b/c"});
  // Deletions that fail leave the keys and still report success.
  faults.FailWithCode("qxRegDeleteKey", ERROR_REGISTRY_IO_FAILED, 1, true);
  EXPECT_EQ(m_Tree.RemoveCompartment(S("a"), 1, 0), S_OK);
  faults.Reset();
  faults.FailWithCode("xkRegEnumKeyEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(m_Tree.RemoveCompartment(S("a"), 1, 0), S_OK);
  EXPECT_EQ(log.Count("CRegistryTree::RegDelTree RegDelTree failed"), 2u) << "each level gives up once";
  EXPECT_TRUE(KeyExists("\\a\\b\\c"));
  faults.FailWithCode("xkRegOpenKeyEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(m_Tree.RemoveCompartment(S("a"), 1, 0), E_INVALIDARG);

  SAFEARRAY* psa = nullptr;
  faults.FailWithCode("qxRegListKeys", ERROR_REGISTRY_IO_FAILED, 2);
  EXPECT_EQ(m_Tree.ListCompartmentIds(S("a"), &psa, 0), E_FAIL);
  faults.FailWithCode("xkRegCreateKeyEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(m_Tree.CreateCompartment(S("n"), 0), E_FAIL);

  faults.FailWithCode("xkRegCloseKey", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Cached(m_Tree, "a", E_FAIL), C({0, 0, 1})) << "written, then the close fails";
  faults.FailWithNull("SysAllocString");
  EXPECT_EQ(Cached(m_Tree, "a"), C({0, 0, 0})) << "no path: zeros and success";
  DropHistory();
  EXPECT_EQ(Cached(m_Tree, "a", E_FAIL), C({9, 9, 9}));
}

}  // namespace
