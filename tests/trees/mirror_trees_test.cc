// The two trees that wrap others: which inner tree each operation reaches,
// whose result and whose output the caller gets.

#include "trees/DumpTree.h"
#include "trees/DuplicateRegistryTree.h"
#include "trees/RegistryTree.h"
#include "tree_test_support.h"

namespace {

using namespace treetest;

class MirrorTrees : public HistoryTest {
 protected:
  Sandbox m_Sandbox;
};

}  // namespace

TEST_F(MirrorTrees, TheDumpTreeAnswersWithTheMemoryTreeAndSharesItsOutputsWithTheRegistry) {
  CDumpTree dump(S("D"));
  CRegistryTree registry(S("D"), 0);  // the mirror's key, read directly
  LogCapture log;
  Put(dump, "s/c", "d", "one");
  EXPECT_EQ(Stored(registry, "s/c", "d"), Strings{"one"});
  // Where the registry has an answer, it replaces the memory tree's.
  Put(registry, "s/c", "d", "two");
  Put(registry, "s/c", "only", "r");
  EXPECT_EQ(Stored(dump, "s/c", "d"), Strings{"two"});
  SAFEARRAY* psa = nullptr;
  ASSERT_EQ(dump.ListDataIds(S("s/c"), &psa, 0), S_OK);
  EXPECT_EQ(Take(psa), Strings({"d", "only"}));
  EXPECT_EQ(AllKeys(dump), Strings({"D", "D/s", "D/s/c"}));  // the registry's one-chain listing
  signed char bCached = 0;
  EXPECT_EQ(dump.IsDataCached(S("s/c"), S("only"), &bCached, 0), S_OK);
  EXPECT_EQ(bCached, 1) << "the memory tree's 0, then the registry's answer";
  ASSERT_EQ(dump.CreateCompartment(S("s/e"), 0), S_OK);
  registry.CreateCompartment(S("s/r"), 0);
  ASSERT_EQ(dump.ListCompartmentIds(S("s"), &psa, 0), S_OK);
  EXPECT_EQ(Take(psa), Strings({"c", "e", "r"}));
  EXPECT_EQ(dump.RemoveData(S("s/c"), S("d"), 0), S_OK);
  EXPECT_EQ(Stored(registry, "s/c", "d"), Strings());
  // What the memory tree lacks fails there, and the registry is not asked.
  psa = nullptr;
  EXPECT_EQ(dump.GetData(S("s/c"), S("only"), psa, 0), E_INVALIDARG);
  EXPECT_EQ(dump.RemoveData(S("s/c"), S("only"), 0), E_INVALIDARG);
  EXPECT_EQ(psa, nullptr);
  EXPECT_EQ(Stored(registry, "s/c", "only"), Strings{"r"});

  // A registry that refuses (a key path over 250 characters) is logged, never
  // returned; the memory tree's answers then stand alone.
  const std::string deep = "s/" + std::string(260, 'x');
  Put(dump, deep, "d", "mem");
  EXPECT_TRUE(log.Contains(2, "CDumpTree::SetData hr1 = 0x80070057"));
  EXPECT_EQ(Stored(dump, deep, "d"), Strings{"mem"});

  // Removal always asks both trees for version updates: the memory tree and
  // the registry raise each descendant once.
  Put(dump, "a/b/c", "d");
  EXPECT_EQ(dump.RemoveCompartment(S("a"), 0, 0), S_OK);
  EXPECT_EQ(Versions("D/a/b"), V(2, 2));
  EXPECT_EQ(Versions("D/a/b/c"), V(2, 2));
  EXPECT_EQ(dump.FlushTree(0), S_OK);
  EXPECT_EQ(Stored(dump, deep, "d"), Strings());
  EXPECT_EQ(Stored(registry, "s/c", "only"), Strings());
}

TEST_F(MirrorTrees, TheDuplicateTreeRemovesOnceAndReportsAFlushThatWorkedAsFailed) {
  CDuplicateRegistryTree duplicate(S("R"));
  CRegistryTree registry(S("R"), 1);
  LogCapture log;
  Put(duplicate, "a/b/c", "d");
  EXPECT_EQ(duplicate.RemoveCompartment(S("a/b"), 0, 0), S_OK);
  EXPECT_EQ(Versions("R/a/b/c"), V(1, 1));  // the first tree updates, the mirror finds nothing
  EXPECT_EQ(duplicate.RemoveData(S("a"), S("x"), 0), E_INVALIDARG);  // the first tree's failure, unmirrored
  EXPECT_EQ(log.Count("CDuplicateRegistryTree::RemoveCompartment hr1 = 0x80070057"), 1u);
  EXPECT_EQ(duplicate.FlushTree(0), E_FAIL);
  EXPECT_EQ(Cached(registry, "/")[2], 0) << "the tree's key is gone all the same";
}
