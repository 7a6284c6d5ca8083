// Version counters in gHistoryTree: raising one, raising a path, reading both,
// the results masked on purpose, and IsCompartmentCached that reports them.

#include "trees/VersionHistory.h"

#include "tree_test_support.h"

namespace {

using namespace treetest;

class VersionHistory : public HistoryTest {};

TEST_F(VersionHistory, CountersStartAtOneAndWrap) {
  EXPECT_EQ(Versions("T/s"), V({0, 0}));
  EXPECT_EQ(UpdateVersion(S("T/s"), 0), S_OK);
  EXPECT_EQ(Versions("T/s"), V({1, 0}));
  EXPECT_EQ(UpdateVersion(S("T/s"), 0), S_OK);
  EXPECT_EQ(UpdateVersion(S("T/s"), 7), S_OK) << "any non-zero kind is the content counter";
  EXPECT_EQ(Versions("T/s"), V({2, 1}));
  EXPECT_EQ(Versions("T"), V({0, 0}));
  SAFEARRAY* psa = SafeArrayCreateVector(VT_UINT, 0, 1);
  unsigned int top = 0xFFFFFFFFu;
  int at = 0;
  SafeArrayPutElement(psa, &at, &top);
  gHistoryTree->SetData(S("W"), S("CompartmentVersion"), psa, 0, 0);
  SafeArrayDestroy(psa);
  EXPECT_EQ(UpdateVersion(S("W"), 0), S_OK);
  EXPECT_EQ(Versions("W"), V({0, 0}));
}

TEST_F(VersionHistory, UpdateHistoryTreeRaisesEveryPrefix) {
  EXPECT_EQ(UpdateHistoryTree(S("T/S/C"), -1), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S/D"), 1), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), 0), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S/E"), 2), S_OK) << "walks and changes nothing";
  EXPECT_EQ(Versions("T"), V({2, 2}));
  EXPECT_EQ(Versions("T/S"), V({2, 2}));
  EXPECT_EQ(Versions("T/S/C"), V({1, 1}));
  EXPECT_EQ(Versions("T/S/D"), V({0, 1}));
  EXPECT_EQ(UpdateHistoryTree(S("U//x/"), 1), S_OK);
  EXPECT_EQ(AllKeys(*gHistoryTree), Strings({"T", "T/S", "T/S/C", "T/S/D", "U", "U/", "U//x", "U//x/"}));
}

TEST_F(VersionHistory, WithoutHistoryTreeEverythingFailsAndOutputsAreZeroed) {
  LogCapture log;
  DropHistory();
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), -1), E_FAIL);
  EXPECT_EQ(log.Count("UpdateVersion NULL == gHistoryTree"), 1u) << "the walk stops at the first failure";
  EXPECT_TRUE(log.Contains(1, "UpdateHistoryTree UpdateVersion failed"));
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), 5), S_OK) << "no UpdateVersion ran";
  unsigned long compartment = 9, content = 9;
  EXPECT_EQ(GetVersion(S("T"), &compartment, &content), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "GetVersion NULL == gHistoryTree"));
  EXPECT_EQ(V({compartment, content}), V({0, 0}));
}

TEST_F(VersionHistory, FailedStepsOfUpdateVersion) {
  LeakAllowedScope leaking;  // an array whose destruction fails is lost
  LogCapture log;
  FaultInjector faults;
  UpdateVersion(S("T"), 1);
  UpdateVersion(S("T"), 1);
  faults.FailWithNull("SafeArrayCopy", 2);  // the write's copy, after the old value went
  EXPECT_EQ(UpdateVersion(S("T"), 1), S_OK) << "a failed write is lost to the caller";
  EXPECT_TRUE(log.Contains(1, "UpdateVersion SetData failed"));
  EXPECT_EQ(Versions("T"), V({0, 0}));
  UpdateVersion(S("T"), 0);
  UpdateVersion(S("T"), 0);
  faults.FailWithCode("SafeArrayCopy", E_UNEXPECTED);  // the lookup: the counter restarts
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK);
  EXPECT_EQ(Versions("T"), V({1, 0}));
  faults.FailWithCode("SafeArrayGetElement", DISP_E_BADINDEX);
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK) << "masked by the destruction that follows";
  EXPECT_TRUE(log.Contains(1, "UpdateVersion SafeArrayGetElement failed"));
  faults.FailWithNull("SafeArrayCreateVector");
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK);
  faults.FailWithNull("SafeArrayCreateVector");
  EXPECT_EQ(UpdateVersion(S("N"), 0), E_INVALIDARG) << "no array read: the lookup's code remains";
  EXPECT_EQ(log.Count("UpdateVersion SafeArrayCreateVector failed"), 2u);
  EXPECT_EQ(Versions("T"), V({1, 0})) << "nothing written";
  // Destructions: the replaced stored value, the value read, the new value.
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 2);
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK) << "a later destruction replaces the failure";
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 3);
  EXPECT_EQ(UpdateVersion(S("T"), 0), E_UNEXPECTED);
  EXPECT_EQ(log.Count("UpdateVersion qxSafeArrayDestroy failed"), 2u);
  faults.Reset();
  EXPECT_EQ(Versions("T"), V({3, 0}));
}

TEST_F(VersionHistory, FailedStepsOfGetVersion) {
  LogCapture log;
  FaultInjector faults;
  UpdateVersion(S("C"), 1);  // content counter only
  unsigned long compartment = 9, content = 9;
  faults.FailWithNull("SafeArrayCopy");
  EXPECT_EQ(GetVersion(S("C"), &compartment, &content), E_OUTOFMEMORY);
  EXPECT_EQ(V({compartment, content}), V({0, 0}));
  EXPECT_EQ(GetVersion(S("C"), nullptr, &content), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "GetVersion NULL == pulCompartmentVersion"));
  UpdateHistoryTree(S("B"), -1);
  UpdateVersion(S("B"), 1);
  faults.FailWithNull("SafeArrayCopy", 2);
  EXPECT_EQ(Versions("B"), V({1, 0})) << "the first array's destruction replaces the failure";
  faults.FailWithCode("SafeArrayGetElement", DISP_E_BADINDEX);
  EXPECT_EQ(Versions("B"), V({0, 0})) << "a failed first read ends the reading";
  EXPECT_TRUE(log.Contains(1, "GetVersion SafeArrayGetElement failed"));
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 2);
  EXPECT_EQ(Versions("B"), V({1, 2})) << "a failed destruction is retried";
  EXPECT_EQ(log.Count("GetVersion qxSafeArrayDestroy failed"), 1u);
}

TEST_F(VersionHistory, IsCompartmentCachedReportsTheTreesVersions) {
  LogCapture log;
  CMemoryTree tree(S("T"));
  tree.CreateCompartment(S("s/c"), 0);
  UpdateHistoryTree(S("T/s/c"), -1);
  UpdateVersion(S("T"), 1);
  struct Case { CAbstractTree* tree; const char* id; signed char cached; V versions; };
  for (const Case& c : {Case{&tree, "s/c", 1, {1, 1}}, Case{&tree, "/", 0, {1, 2}}, Case{&tree, "s/c/d", 0, {0, 0}},
                        Case{gHistoryTree, "T/s", 1, {1, 1}}}) {
    V versions(2, 99);
    signed char cached = 9;
    EXPECT_EQ(c.tree->IsCompartmentCached(S(c.id), &versions[0], &versions[1], &cached, 0), S_OK);
    EXPECT_EQ(cached, c.cached) << c.id;
    EXPECT_EQ(versions, c.versions) << c.id;
  }
  unsigned long compartment = 77, content = 77;
  signed char cached = 77;
  // Checked in this order: the flag, the compartment counter, the content counter.
  EXPECT_EQ(tree.IsCompartmentCached(S("s"), nullptr, nullptr, nullptr, 0), E_FAIL);
  EXPECT_EQ(tree.IsCompartmentCached(S("s"), nullptr, nullptr, &cached, 0), E_FAIL);
  EXPECT_EQ(tree.IsCompartmentCached(S("s"), &compartment, nullptr, &cached, 0), E_FAIL);
  for (const char* text : {"pbCached", "pulCompartmentVersion", "pulContentVersion"})
    EXPECT_EQ(log.Count(std::string("CMemoryTree::IsCompartmentCached ") + text + " == NULL"), 1u) << text;
  DropHistory();
  EXPECT_EQ(tree.IsCompartmentCached(S("s/c"), &compartment, &content, &cached, 0), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "CMemoryTree::IsCompartmentCached GetVersion failed hr = 80004005"));
  EXPECT_EQ(V({compartment, content, static_cast<unsigned long>(cached)}), V({77, 77, 77})) << "no output written";
}

}  // namespace
