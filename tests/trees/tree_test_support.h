#ifndef MERROWSTORE_TESTS_TREES_TREE_TEST_SUPPORT_H
#define MERROWSTORE_TESTS_TREES_TREE_TEST_SUPPORT_H

// Shared by the tree tests: IsCompartmentCached's answer and a private
// gHistoryTree per test.

#include "trees/MemoryTree.h"
#include "value_support.h"

namespace treetest {

using namespace mtest;

// {compartment version, content version, cached} from IsCompartmentCached;
// 9 where nothing was written.
inline std::vector<long> Cached(CAbstractTree& tree, const std::string& id, HRESULT expected = S_OK) {
  unsigned long compartment = 9, content = 9;
  signed char cached = 9;
  EXPECT_EQ(tree.IsCompartmentCached(S(id), &compartment, &content, &cached, 0), expected) << id;
  return {static_cast<long>(compartment), static_cast<long>(content), cached};
}
typedef std::vector<long> C;

// Gives each test a fresh gHistoryTree, putting back the one the library made
// at load afterwards.
class HistoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pLoaded = gHistoryTree;
    gHistoryTree = new CMemoryTree(S("History"));
  }
  void TearDown() override {
    DropHistory();
    gHistoryTree = m_pLoaded;
  }
  static void DropHistory() {
    delete gHistoryTree;
    gHistoryTree = nullptr;
  }
  // A fresh, empty history in place of the current one.
  static void RenewHistory() {
    DropHistory();
    gHistoryTree = new CMemoryTree(S("History"));
  }

 private:
  CAbstractTree* m_pLoaded = nullptr;
};

}  // namespace treetest

#endif
