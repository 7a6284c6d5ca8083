// The two trees that wrap others: which inner tree each operation reaches,
// whose result and whose output the caller gets.

#include <functional>

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

// The level 2 "hr1" lines of one class, "<operation> <code>".
Strings MirrorLines(const LogCapture& log, const std::string& sClass) {
  Strings out;
  for (const auto& e : log.Entries()) {
    const std::size_t at = e.text.find(" hr1 = 0x");
    if (e.level == 2 && e.text.rfind(sClass + "::", 0) == 0 && at != std::string::npos)
      out.push_back(e.text.substr(sClass.size() + 2, at - sClass.size() - 2) + " " + e.text.substr(at + 9));
  }
  return out;
}

}  // namespace

TEST_F(MirrorTrees, EachOperationReachesTheMirrorOnlyWhereItShould) {
  SAFEARRAY* psa = nullptr;
  signed char b = 0;
  unsigned long v1 = 0, v2 = 0;
  const std::vector<std::pair<std::string, std::function<HRESULT(CAbstractTree&)>>> operations = {
      {"SetData", [](CAbstractTree& t) { SAFEARRAY* v = MakeValue({"v"}); HRESULT hr = t.SetData(S("s/c"), S("d"), v, 0, 0); SafeArrayDestroy(v); return hr; }},
      {"GetData", [&](CAbstractTree& t) { HRESULT hr = t.GetData(S("s/c"), S("d"), psa, 0); Take(psa); return hr; }},
      {"IsDataCached", [&](CAbstractTree& t) { return t.IsDataCached(S("s/c"), S("d"), &b, 0); }},
      {"ListDataIds", [&](CAbstractTree& t) { HRESULT hr = t.ListDataIds(S("s/c"), &psa, 0); Take(psa); return hr; }},
      {"ListCompartmentIds", [&](CAbstractTree& t) { HRESULT hr = t.ListCompartmentIds(S("s"), &psa, 0); Take(psa); return hr; }},
      {"ListAllCompartmentIds", [&](CAbstractTree& t) { HRESULT hr = t.ListAllCompartmentIds(&psa); Take(psa); return hr; }},
      {"IsCompartmentCached", [&](CAbstractTree& t) { return t.IsCompartmentCached(S("s/c"), &v1, &v2, &b, 0); }},
      {"CreateCompartment", [](CAbstractTree& t) { return t.CreateCompartment(S("s/e"), 0); }},
      {"RemoveData", [](CAbstractTree& t) { return t.RemoveData(S("s/c"), S("d"), 0); }},
      {"RemoveCompartment", [](CAbstractTree& t) { return t.RemoveCompartment(S("s/e"), 0, 0); }},
      {"FlushTree", [](CAbstractTree& t) { return t.FlushTree(0); }},
  };
  CDumpTree dump(S("D"));
  CDuplicateRegistryTree duplicate(S("R"));
  const std::vector<std::pair<std::string, CAbstractTree*>> trees = {{"CDumpTree", &dump},
                                                                     {"CDuplicateRegistryTree", &duplicate}};
  for (const auto& [sClass, tree] : trees) {
    for (const auto& [name, call] : operations) {
      LogCapture log;
      const HRESULT hr = call(*tree);
      const bool bRemoval = name == "RemoveData" || name == "RemoveCompartment" || name == "FlushTree";
      const Strings mirrored = MirrorLines(log, sClass);
      EXPECT_EQ(mirrored.size(), sClass == "CDumpTree" || bRemoval ? 1u : 0u) << sClass << " " << name;
      // Every operation succeeds on the first tree; the duplicate's removals
      // find nothing left on the shared key, which is forgiven, except for the
      // flush.
      EXPECT_EQ(hr, sClass != "CDumpTree" && name == "FlushTree" ? E_FAIL : S_OK) << sClass << " " << name;
      if (sClass != "CDumpTree" && bRemoval) {
        EXPECT_EQ(mirrored, Strings{name + (name == "FlushTree" ? " 80004005" : " 80070057")});
      }
    }
  }
}

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
  // What the memory tree lacks fails there, and the registry is not asked.
  log.Clear();
  psa = nullptr;
  EXPECT_EQ(dump.GetData(S("s/c"), S("only"), psa, 0), E_INVALIDARG);
  EXPECT_EQ(dump.RemoveData(S("s/c"), S("only"), 0), E_INVALIDARG);
  EXPECT_EQ(psa, nullptr);
  EXPECT_EQ(MirrorLines(log, "CDumpTree"), Strings());
  EXPECT_EQ(Stored(registry, "s/c", "only"), Strings{"r"});

  // A registry that refuses (a key path over 250 characters) is logged, never
  // returned; the memory tree's answers then stand alone.
  const std::string deep = "s/" + std::string(260, 'x');
  Put(dump, deep, "d", "mem");
  EXPECT_EQ(MirrorLines(log, "CDumpTree"), Strings{"SetData 80070057"});
  EXPECT_EQ(Stored(dump, deep, "d"), Strings{"mem"});

  // Removal always asks both trees for version updates: the memory tree and
  // the registry raise each descendant once.
  Put(dump, "a/b/c", "d");
  EXPECT_EQ(dump.RemoveCompartment(S("a"), 0, 0), S_OK);
  EXPECT_EQ(Versions("D/a/b"), V(2, 2));
  EXPECT_EQ(Versions("D/a/b/c"), V(2, 2));
  EXPECT_EQ(dump.FlushTree(0), S_OK);
  EXPECT_EQ(Stored(dump, "s/c", "d"), Strings());
  EXPECT_EQ(Stored(registry, "s/c", "d"), Strings());
}

TEST_F(MirrorTrees, TheDuplicateTreeRemovesOnceAndReportsAFlushThatWorkedAsFailed) {
  CDuplicateRegistryTree duplicate(S("R"));
  CRegistryTree registry(S("R"), 1);
  LogCapture log;
  Put(duplicate, "a/b/c", "d");
  EXPECT_EQ(duplicate.RemoveCompartment(S("a/b"), 0, 0), S_OK);
  EXPECT_EQ(Versions("R/a/b/c"), V(1, 1));  // the first tree updates, the mirror finds nothing
  EXPECT_EQ(duplicate.RemoveData(S("a"), S("x"), 0), E_INVALIDARG);  // the first tree's failure, unmirrored
  EXPECT_EQ(MirrorLines(log, "CDuplicateRegistryTree"), Strings{"RemoveCompartment 80070057"});
  EXPECT_EQ(duplicate.FlushTree(0), E_FAIL);
  unsigned long v1 = 0, v2 = 0;
  signed char bCached = 1;
  EXPECT_EQ(registry.IsCompartmentCached(S("/"), &v1, &v2, &bCached, 0), S_OK);
  EXPECT_EQ(bCached, 0);  // the tree's key is gone all the same
}
