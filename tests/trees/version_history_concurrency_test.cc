// Two stores on two threads raise and read counters in the one shared
// gHistoryTree at once: no update is lost and no read sees a counter go back.
// The concurrency job runs it under ThreadSanitizer.

#include <latch>
#include <thread>

#include "tree_test_support.h"

namespace {

using namespace treetest;

constexpr unsigned long kRounds = 300;

void StoreWork(const std::string& treeId, std::latch& start, bool& monotonic) {
  CMemoryTree tree(S(treeId));
  SAFEARRAY* v = SafeArrayCreateVector(VT_UI1, 0, 4);
  unsigned long last = 0, compartment = 0, content = 0;
  signed char cached = 0;
  start.arrive_and_wait();
  for (unsigned long i = 0; i < kRounds; ++i) {
    tree.SetData(S("s/c/d"), S("x"), v, 0, 0);
    UpdateHistoryTree(S(treeId + "/s/c"), -1);
    UpdateHistoryTree(S("Shared/x"), 1);
    GetVersion(S("Shared/x"), &compartment, &content);
    monotonic &= content > last;
    last = content;
    tree.IsCompartmentCached(S("s/c"), &compartment, &content, &cached, 0);
    tree.RemoveCompartment(S("s/c"), 1, 0);  // raises treeId/s/c/d through UpdateVersion
  }
  SafeArrayDestroy(v);
}

TEST_F(HistoryTest, TwoStoresShareTheHistoryTree) {
  std::latch start(2);
  bool monotonic1 = true, monotonic2 = true;
  std::thread first(StoreWork, "T1", std::ref(start), std::ref(monotonic1));
  std::thread second(StoreWork, "T2", std::ref(start), std::ref(monotonic2));
  first.join();
  second.join();
  EXPECT_TRUE(monotonic1 && monotonic2);
  EXPECT_EQ(Versions("Shared/x"), V({0, 2 * kRounds}));
  for (const char* id : {"T1", "T2"}) {
    EXPECT_EQ(Versions(std::string(id) + "/s/c"), V({kRounds, kRounds})) << id;
    EXPECT_EQ(Versions(std::string(id) + "/s/c/d"), V({kRounds, kRounds})) << id;
  }
}

}  // namespace
