// The memory tree's write and read roads: the path walk, not-found versus
// failure codes with their log levels.

#include "trees/MemoryTree.h"

#include "tree_test_support.h"

namespace {

using namespace treetest;

TEST(MemoryTreeData, WalkCreatesEveryPrefixAndNeverNormalises) {
  CMemoryTree tree(S("T"));
  Put(tree, "a/b/c", "x");
  std::vector<SecureString> paths;
  std::vector<CNode*> nodes;
  EXPECT_EQ(tree.ListNodes(paths, nodes), S_OK);
  EXPECT_EQ(paths, std::vector<SecureString>({S("a"), S("a/b"), S("a/b/c")}));
  Put(tree, "a//b", "x", "1");
  Put(tree, "/lead", "x", "2");
  Put(tree, "", "x", "3");
  EXPECT_EQ(tree.CreateCompartment(S("trail/"), 0), S_OK);
  EXPECT_EQ(tree.CreateCompartment(S("a/b"), 0), S_OK);
  EXPECT_EQ(AllKeys(tree), Strings({"", "/lead", "a", "a/", "a//b", "a/b", "a/b/c", "trail", "trail/"}));
  EXPECT_EQ(Stored(tree, "a//b", "x"), Strings({"1"}));
  EXPECT_EQ(Stored(tree, "", "x"), Strings({"3"}));
  EXPECT_EQ(Stored(tree, "a/b/c", "x"), Strings({"v"}));
  EXPECT_EQ(Stored(tree, "a/b", "x"), Strings()) << "only the last node holds the item";
}

// An unknown compartment or a missing item is not found, logged at trace
// level only; IsDataCached answers in its output.
TEST(MemoryTreeData, MissingItemsAreNotFoundAtTraceLevel) {
  LogCapture log;
  CMemoryTree tree(S("T"));
  Put(tree, "a/b", "x");
  SAFEARRAY* out = nullptr;
  EXPECT_EQ(tree.GetData(S("zz"), S("x"), out, 0), E_INVALIDARG);
  EXPECT_EQ(tree.GetData(S("a"), S("x"), out, 0), E_INVALIDARG);
  EXPECT_EQ(tree.RemoveData(S("a/b/c"), S("x"), 0), E_INVALIDARG);
  EXPECT_EQ(tree.RemoveData(S("a"), S("x"), 0), E_INVALIDARG);
  const struct { const char* compartment; const char* id; int cached; } items[] = {
      {"a/b", "x", 1}, {"a/b", "y", 0}, {"a", "x", 0}, {"unknown", "x", 0}};
  for (const auto& c : items) {
    signed char cached = 7;
    EXPECT_EQ(tree.IsDataCached(S(c.compartment), S(c.id), &cached, 0), S_OK);
    EXPECT_EQ(cached, c.cached) << c.compartment << " " << c.id;
  }
  for (const auto& e : log.Entries()) EXPECT_NE(e.level, 1) << e.text;
  EXPECT_TRUE(log.Contains(0, "CNode::GetDataItem sDataId not found"));
  EXPECT_EQ(tree.IsDataCached(S("a/b"), S("x"), nullptr, 0), E_FAIL);
  EXPECT_EQ(tree.RemoveData(S("a/b"), S("x"), 0), S_OK);
  EXPECT_EQ(Stored(tree, "a/b", "x"), Strings());
  EXPECT_EQ(AllKeys(tree), Strings({"a", "a/b"})) << "removing data keeps the compartment";
}

// Each allocation of a write fails in turn: the write reports it, loses only
// its own item (the old value goes first), and leaks nothing.
TEST(MemoryTreeData, WriteSurvivesEachFailedAllocation) {
  CMemoryTree tree(S("T"));
  Put(tree, "s/c", "keep", "k");
  SAFEARRAY* v = MakeValue({"a", "b", "c"});
  unsigned n = 1;
  for (bool completed = false; !completed && n < 50; ++n) {
    Put(tree, "s/c", "x", "old");
    FaultInjector faults;
    faults.FailWithNull("winext.Allocate", n);
    const HRESULT hr = tree.SetData(S("s/c"), S("x"), v, 0, 0);
    completed = faults.Fired("winext.Allocate") == 0;
    faults.Reset();
    EXPECT_EQ(hr, completed ? S_OK : E_OUTOFMEMORY) << n;
    EXPECT_EQ(Stored(tree, "s/c", "x"), completed ? Strings({"a", "b", "c"}) : Strings()) << n;
    EXPECT_EQ(Stored(tree, "s/c", "keep"), Strings({"k"}));
  }
  EXPECT_GT(n, 5u) << "the array's block and its three strings each failed once";
  EXPECT_LT(n, 50u);
  SafeArrayDestroy(v);
}

}  // namespace
