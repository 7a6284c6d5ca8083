// CNode owns deep copies: the caller's arrays stay the caller's, a replaced or
// removed value is destroyed (AddressSanitizer reports one that isn't), and a
// failed copy or destruction is reported.

#include "trees/Node.h"

#include <map>

#include "tree_test_support.h"

namespace {

using namespace treetest;

Strings Item(CNode& node, const char* id) {
  SAFEARRAY* psa = nullptr;
  return node.GetDataItem(S(id), psa) == S_OK ? Take(psa) : Strings({"<absent>"});
}

// A node keeps deep copies (the caller's array stays the caller's, each read
// is a copy of its own), finds a handful of items by walking them and more by
// searching its map, and remembers the item it found last; each way must agree
// with what was put, replaced and removed.
TEST(CNode, KeepsCopiesAndFindsItemsWhateverTheirNumber) {
  CNode node(S("n"));
  std::map<std::string, std::string> held;
  auto id = [](int i) { return "id" + std::string(i % 3, '.') + std::to_string(i); };
  auto put = [&](const std::string& key, const std::string& value) {
    SAFEARRAY* v = MakeValue({value});
    EXPECT_EQ(node.AddDataItem(S(key), v), S_OK);
    int at = 0;
    EXPECT_EQ(SafeArrayPutElement(v, &at, const_cast<char*>("changed by the caller")), S_OK);
    SafeArrayDestroy(v);
    held[key] = value;
    for (const auto& [each, text] : held) EXPECT_EQ(Item(node, each.c_str()), Strings({text})) << key;
  };
  for (int i = 0; i < 12; ++i) put(id(i), id(i));
  for (int i = 1; i < 12; i += 3) put(id(i), "replaced");  // the replaced copy is destroyed (ASan)
  for (int i = 0; i < 12; i += 2) {
    EXPECT_EQ(node.RemoveDataItem(S(id(i))), S_OK);
    held.erase(id(i));
    SAFEARRAY* out = reinterpret_cast<SAFEARRAY*>(&node);
    EXPECT_EQ(node.GetDataItem(S(id(i)), out), E_INVALIDARG) << "not found again after its removal";
    EXPECT_EQ(out, reinterpret_cast<SAFEARRAY*>(&node)) << "a miss leaves the output alone";
    EXPECT_EQ(node.RemoveDataItem(S(id(i))), E_INVALIDARG);
    for (const auto& [each, text] : held) EXPECT_EQ(Item(node, each.c_str()), Strings({text})) << id(i);
  }
  std::vector<SecureString> ids{S("kept")};
  EXPECT_EQ(node.ListDataItems(ids), S_OK);
  Strings expected{"kept"};  // appended after what was there
  for (const auto& entry : held) expected.push_back(entry.first);
  EXPECT_EQ(Strings(ids.begin(), ids.end()), expected);
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
