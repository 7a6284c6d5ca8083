// CNode owns deep copies: the caller's arrays stay the caller's, a replaced or
// removed value is destroyed (AddressSanitizer reports one that isn't), and a
// failed copy or destruction is reported.

#include "trees/Node.h"

#include <set>

#include "tree_test_support.h"

namespace {

using namespace treetest;

Strings Item(CNode& node, const char* id) {
  SAFEARRAY* psa = nullptr;
  return node.GetDataItem(S(id), psa) == S_OK ? Take(psa) : Strings({"<absent>"});
}

TEST(CNode, KeepsIndependentDeepCopiesAndDestroysReplacedValues) {
  CNode node(S("leaf"));
  SAFEARRAY* mine = MakeValue({"one"});
  EXPECT_EQ(node.AddDataItem(S("x"), mine), S_OK);
  int at = 0;
  EXPECT_EQ(SafeArrayPutElement(mine, &at, const_cast<char*>("changed")), S_OK);
  EXPECT_EQ(node.AddDataItem(S("y"), mine), S_OK);
  EXPECT_EQ(node.AddDataItem(S("y"), mine), S_OK);  // replaces, destroying the first copy
  SafeArrayDestroy(mine);
  // Each read is a copy of its own: destroying one (Take) leaves the next intact.
  EXPECT_EQ(Item(node, "x"), Strings({"one"}));
  EXPECT_EQ(Item(node, "x"), Strings({"one"}));
  EXPECT_EQ(Item(node, "y"), Strings({"changed"}));
  EXPECT_EQ(node.RemoveDataItem(S("y")), S_OK);
  std::vector<SecureString> ids{S("kept")};
  EXPECT_EQ(node.ListDataItems(ids), S_OK);
  EXPECT_EQ(ids, std::vector<SecureString>({S("kept"), S("x")}));
}

// A node finds a handful of items by walking them and more by searching its
// map, and remembers the item it found last; each way must agree with what
// was put and removed.
TEST(CNode, FindsItemsWhateverTheirNumber) {
  CNode node(S("n"));
  std::set<std::string> held;
  auto id = [](int i) { return "id" + std::string(i % 3, '.') + std::to_string(i); };
  auto expectHeld = [&](const std::string& when) {
    for (const std::string& each : held) EXPECT_EQ(Item(node, each.c_str()), Strings({each})) << when;
  };
  for (int i = 0; i < 12; ++i) {
    SAFEARRAY* v = MakeValue({id(i)});
    EXPECT_EQ(node.AddDataItem(S(id(i)), v), S_OK);
    SafeArrayDestroy(v);
    held.insert(id(i));
    expectHeld("after adding " + id(i));
  }
  for (int i = 0; i < 12; i += 2) {
    EXPECT_EQ(node.RemoveDataItem(S(id(i))), S_OK);
    held.erase(id(i));
    SAFEARRAY* out = reinterpret_cast<SAFEARRAY*>(&node);
    EXPECT_EQ(node.GetDataItem(S(id(i)), out), E_INVALIDARG) << "not found again after its removal";
    EXPECT_EQ(out, reinterpret_cast<SAFEARRAY*>(&node)) << "a miss leaves the output alone";
    EXPECT_EQ(node.RemoveDataItem(S(id(i))), E_INVALIDARG);
    expectHeld("after removing " + id(i));
  }
  std::vector<SecureString> ids;
  node.ListDataItems(ids);
  Strings listed;
  for (const SecureString& each : ids) listed.emplace_back(each.data(), each.size());
  EXPECT_EQ(listed, Strings(held.begin(), held.end()));
}

TEST(CNode, FailedCopiesAndDestructions) {
  LeakAllowedScope leaking;  // an array whose destruction fails is lost
  LogCapture log;
  FaultInjector faults;
  {
    CNode node(S("n"));
    SAFEARRAY* v = MakeValue({"old"});
    for (const char* id : {"a", "b", "c", "d", "e"}) node.AddDataItem(S(id), v);
    faults.FailWithNull("SafeArrayCopy");
    EXPECT_EQ(node.AddDataItem(S("a"), v), E_OUTOFMEMORY);
    EXPECT_EQ(Item(node, "a"), Strings({"<absent>"})) << "the old value is gone too";
    SafeArrayDestroy(v);
    faults.FailWithCode("qxSafeArrayDestroy", DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(node.RemoveDataItem(S("b")), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(Item(node, "b"), Strings({"<absent>"})) << "erased all the same";
    // The destructor destroys "c", fails on "d" and never tries "e".
    faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 2, true);
  }
  EXPECT_EQ(faults.Fired("qxSafeArrayDestroy"), 1u);
  EXPECT_TRUE(log.Contains(1, "CNode::~CNode qxSafeArrayDestroy hr = 0x8000ffff"));
}

}  // namespace
