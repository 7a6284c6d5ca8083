// Version counters in gHistoryTree: raising one, raising a path, reading both,
// the results masked on purpose, and IsCompartmentCached that reports them.

#include "trees/VersionHistory.h"

#include "tree_test_support.h"

namespace {

using namespace treetest;

class VersionHistory : public HistoryTest {};

TEST_F(VersionHistory, CountersStartAtOneWrapAndRiseAlongThePath) {
  EXPECT_EQ(UpdateVersion(S("T/s"), 0), S_OK);
  EXPECT_EQ(UpdateVersion(S("T/s"), 0), S_OK);
  EXPECT_EQ(UpdateVersion(S("T/s"), 7), S_OK) << "any non-zero kind is the content counter";
  EXPECT_EQ(Versions("T/s"), V(2, 1));
  EXPECT_EQ(Versions("T"), V(0, 0));
  gHistoryTree->SetData(S("W"), S("CompartmentVersion"), Array(Make(VT_UINT, {1}, Bytes(4, 0xFF))).get(), 0, 0);
  EXPECT_EQ(UpdateVersion(S("W"), 0), S_OK);
  EXPECT_EQ(Versions("W"), V(0, 0));

  RenewHistory();
  EXPECT_EQ(UpdateHistoryTree(S("T/S/C"), -1), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S/D"), 1), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), 0), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S/E"), 2), S_OK) << "walks and changes nothing";
  EXPECT_EQ(Versions("T"), V(2, 2));
  EXPECT_EQ(Versions("T/S"), V(2, 2));
  EXPECT_EQ(Versions("T/S/C"), V(1, 1));
  EXPECT_EQ(Versions("T/S/D"), V(0, 1));
  EXPECT_EQ(UpdateHistoryTree(S("U//x/"), 1), S_OK);
  EXPECT_EQ(AllKeys(*gHistoryTree), Strings({"T", "T/S", "T/S/C", "T/S/D", "U", "U/", "U//x", "U//x/"}));
}

TEST_F(VersionHistory, FailedStepsOfUpdateVersionAndGetVersion) {
  LeakAllowedScope leaking;  // an array whose destruction fails is lost
  LogCapture log;
  FaultInjector faults;
  UpdateVersion(S("T"), 1);
  UpdateVersion(S("T"), 1);
  faults.FailWithNull("SafeArrayCopy", 2);  // the write's copy, after the old value went
  EXPECT_EQ(UpdateVersion(S("T"), 1), S_OK) << "a failed write is lost to the caller";
  EXPECT_TRUE(log.Contains(1, "UpdateVersion SetData failed"));
  EXPECT_EQ(Versions("T"), V(0, 0));
  UpdateVersion(S("T"), 0);
  UpdateVersion(S("T"), 0);
  faults.FailWithCode("SafeArrayCopy", E_UNEXPECTED);  // the lookup: the counter restarts
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK);
  EXPECT_EQ(Versions("T"), V(1, 0));
  faults.FailWithCode("SafeArrayGetElement", DISP_E_BADINDEX);
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK) << "masked by the destruction that follows";
  faults.FailWithNull("SafeArrayCreateVector");
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK);
  faults.FailWithNull("SafeArrayCreateVector");
  EXPECT_EQ(UpdateVersion(S("N"), 0), E_INVALIDARG) << "no array read: the lookup's code remains";
  EXPECT_EQ(Versions("T"), V(1, 0)) << "nothing written";
  // Destructions: the replaced stored value, the value read, the new value.
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 2);
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK) << "a later destruction replaces the failure";
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 3);
  EXPECT_EQ(UpdateVersion(S("T"), 0), E_UNEXPECTED);
  faults.Reset();
  EXPECT_EQ(Versions("T"), V(3, 0));

  UpdateVersion(S("C"), 1);  // content counter only
  V v(9, 9);
  faults.FailWithNull("SafeArrayCopy");
  EXPECT_EQ(GetVersion(S("C"), &v.first, &v.second), E_OUTOFMEMORY);
  EXPECT_EQ(v, V(0, 0));
  EXPECT_EQ(GetVersion(S("C"), nullptr, &v.second), E_FAIL);
  UpdateHistoryTree(S("B"), -1);
  UpdateVersion(S("B"), 1);
  faults.FailWithNull("SafeArrayCopy", 2);
  EXPECT_EQ(Versions("B"), V(1, 0)) << "the first array's destruction replaces the failure";
  faults.FailWithCode("SafeArrayGetElement", DISP_E_BADINDEX);
  EXPECT_EQ(Versions("B"), V(0, 0)) << "a failed first read ends the reading";
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 2);
  EXPECT_EQ(Versions("B"), V(1, 2)) << "a failed destruction is retried";
  EXPECT_EQ(log.Count("GetVersion qxSafeArrayDestroy failed"), 1u);
}

TEST_F(VersionHistory, IsCompartmentCachedReportsTheTreesVersionsAndNothingWorksWithoutHistory) {
  LogCapture log;
  CMemoryTree tree(S("T"));
  tree.CreateCompartment(S("s/c"), 0);
  UpdateHistoryTree(S("T/s/c"), -1);
  // (A store's compartments and "/" are the data store's and mstore's tests.)
  EXPECT_EQ(Cached(*gHistoryTree, "T/s"), C({1, 1, 1})) << "the history reads its own keys";
  unsigned long compartment = 77;
  signed char cached = 77;
  EXPECT_EQ(tree.IsCompartmentCached(S("s"), &compartment, nullptr, &cached, 0), E_FAIL);
  DropHistory();
  EXPECT_EQ(Cached(tree, "s/c", E_FAIL), C({9, 9, 9})) << "no output written";
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), -1), E_FAIL);
  EXPECT_EQ(log.Count("UpdateVersion NULL == gHistoryTree"), 1u) << "the walk stops at the first failure";
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), 5), S_OK) << "no UpdateVersion ran";
  V v(9, 9);
  EXPECT_EQ(GetVersion(S("T"), &v.first, &v.second), E_FAIL);
  EXPECT_EQ(v, V(0, 0)) << "GetVersion zeroes its outputs all the same";
}

}  // namespace
