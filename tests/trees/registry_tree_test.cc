// The registry tree: every vartype through the stored format and back with the
// exact bytes other programs see, values written by others, the limits and
// result codes; keys made, listed, probed, flushed and removed with their
// version updates, the one-chain listing of every compartment, the walks' name
// room; failing registry calls.

#include "trees/RegistryTree.h"
#include "registry_support.h"
#include "tree_test_support.h"

namespace {

using namespace treetest;

const std::string kKey = "Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\T";
const unsigned kAnyType = 99;  // the stored bytes are not checked

void WriteRaw(const std::string& name, unsigned type, const Bytes& bytes) {
  regtest::Put((kKey + "\\s").c_str(), name.c_str(), std::string(bytes.begin(), bytes.end()), type);
}

// Type and bytes of a stored value; type 99 when it is absent.
std::pair<unsigned, Bytes> ReadRaw(const std::string& compartment, const std::string& name = "v") {
  const std::string path = kKey + "\\" + compartment;
  unsigned type = 99, size = 0;
  if (qxRegReadValueEx(regtest::kHklm, path.c_str(), name.c_str(), &type, nullptr, &size, 0) != 0) return {99, {}};
  Bytes bytes(size);
  qxRegReadValueEx(regtest::kHklm, path.c_str(), name.c_str(), &type, bytes.data(), &size, 0);
  return {type, bytes};
}

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

class RegistryTree : public HistoryTest {
 protected:
  HRESULT Set(SAFEARRAY* psa, const std::string& compartment = "s", const std::string& id = "v") {
    HRESULT hr = m_Tree.SetData(S(compartment), S(id), psa, 0, 0);
    SafeArrayDestroy(psa);
    return hr;
  }
  std::string Get(const std::string& id = "v", HRESULT expected = S_OK) {
    SAFEARRAY* psa = nullptr;
    EXPECT_EQ(m_Tree.GetData(S("s"), S(id), psa, 0), expected);
    return TakeDescribed(psa);
  }
  Strings Ids(const std::string& compartment = "s") {
    SAFEARRAY* psa = nullptr;
    EXPECT_EQ(m_Tree.ListDataIds(S(compartment), &psa, 0), S_OK);
    return Take(psa);
  }
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

TEST_F(RegistryTree, EveryVartypeThroughTheStoredFormat) {
  Bytes stored300{0xBA, 44};  // the length byte keeps the low 8 bits; the reader goes by the size
  stored300.resize(302, 'k');
  struct Row {
    SAFEARRAY* value;
    std::string back;  // empty: the value itself comes back
    unsigned type;
    Bytes bytes;
  } rows[] = {
      {MakeValue({}), "", REG_SZ, {}},
      {MakeValue({"ab"}), "", REG_SZ, {'a', 'b'}},
      {MakeValue({std::string("a\0b", 3)}), "", kAnyType, {}},
      {MakeValue({"ab", "c"}), "", REG_MULTI_SZ, {'a', 'b', 0, 'c', 0, 0}},
      {MakeValue({"", "x"}), "", kAnyType, {}},
      {MakeValue({"a", "", "b"}), "8[1]:a", kAnyType, {}},  // an empty string ends the list
      {MakeValue({"", ""}), "8[1]:", kAnyType, {}},
      {Make(VT_UI1, {3}, {1, 2, 3}), "", REG_BINARY, {0xBA, 3, 1, 2, 3}},
      {Make(VT_UI1, {0}), "", REG_BINARY, {0xBA, 0}},
      {Make(VT_I1, {2}, {0xff, 1}), "", REG_BINARY, {0x0B, 2, 0xff, 1}},
      {Make(VT_UI1, {3, 2}, {2, 'a', 'b', 1, 'c', 0}), "", REG_BINARY, {0xBB, 2, 'a', 'b', 0xBB, 1, 'c'}},
      {Make(VT_UI1, {4, 2}, {1, 'a', 0, 0, 0, 0, 0, 0}), "17[2,2]:01 61 00 00", kAnyType, {}},  // narrower rows
      {Make(VT_UI1, {3, 0}), "17[0,2]:", REG_BINARY, {0xBB, 0}},
      {Make(VT_I1, {3, 2}, {2, 'a', 'b', 1, 'c', 'x'}), "16[5]:61 62 0b 01 63", kAnyType, {}},  // flattened
      {Make(VT_INT, {2}, {1, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}), "23[2]:01 00 00 00 ff ff ff ff", REG_DWORD,
       {1, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}},
      {Make(VT_I8, {1}, {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}), "21[1]:fe ff ff ff ff ff ff ff", REG_QWORD,
       {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
      {Make(VT_UNKNOWN, {0}), "", REG_NONE, {}},
      {Make(VT_UI1, {300}, Bytes(300, 'k')), "", REG_BINARY, stored300},
  };
  for (Row& row : rows) {
    const std::string expected = row.back.empty() ? Describe(row.value) : row.back;
    SCOPED_TRACE(expected);
    ASSERT_EQ(Set(row.value), S_OK);
    EXPECT_EQ(Get(), expected);
    if (row.type != kAnyType) {
      EXPECT_EQ(ReadRaw("s"), std::make_pair(row.type, row.bytes));
    }
  }
}

TEST_F(RegistryTree, ValuesWrittenByOthers) {
  SAFEARRAY* const untouched = reinterpret_cast<SAFEARRAY*>(&m_Tree);
  struct Row {
    unsigned type;
    Bytes bytes;
    std::string back;  // "untouched": the output as it was; "failed " before a failure
  } rows[] = {
      {REG_BINARY, {0x42, 1, 2}, "untouched"},          {REG_BINARY, {0xBB, 3, 'x'}, "17[1,4]:03 78 00 00"},
      {REG_BINARY, {0xBB, 1, 'x', 0xBB}, "17[2,2]:01 78 00 00"}, {REG_BINARY, {0xBB, 5}, "17[0,6]:"},
      {REG_BINARY, {0xBA}, "17[0]:"},                   {REG_BINARY, {}, "17[0]:"},
      {REG_MULTI_SZ, {'a', 'b'}, "untouched"},          {REG_MULTI_SZ, {'a', 0, 'b', 'c'}, "8[1]:a"},
      {REG_SZ, {}, "8[0]:"},                            {REG_DWORD, {1, 0, 0, 0, 2, 0}, "23[1]:01 00 00 00"},
      {REG_QWORD, {1, 2, 3}, "21[0]:"},                 {REG_NONE, {1, 2, 3, 4, 5}, "13[0]:"},
      {REG_EXPAND_SZ, {'x'}, "failed untouched"},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.back);
    WriteRaw("v", row.type, row.bytes);
    SAFEARRAY* psa = untouched;
    const HRESULT hr = m_Tree.GetData(S("s"), S("v"), psa, 0);
    EXPECT_EQ((hr == S_OK ? "" : "failed ") + (psa == untouched ? "untouched" : TakeDescribed(psa)), row.back);
  }
  // The default value (empty name) is listed but never found by name.
  ASSERT_EQ(m_Tree.RemoveData(S("s"), S("v"), 0), S_OK);
  WriteRaw("", REG_SZ, {'d'});
  signed char cached = 9;
  EXPECT_EQ(m_Tree.IsDataCached(S("s"), S(""), &cached, 0), E_INVALIDARG) << "the failed conversion came last";
  EXPECT_EQ(Get("", E_INVALIDARG), "null");
  EXPECT_EQ(Ids(), Strings({""}));
}

TEST_F(RegistryTree, LimitsAndAbsentValues) {
  // The base key and "T\" take 52 characters of the 250; a value name may have 255.
  const std::string path250 = std::string(99, 'a') + "/" + std::string(98, 'b');
  EXPECT_EQ(Set(MakeValue({"x"}), path250), S_OK);
  EXPECT_EQ(Set(MakeValue({"x"}), path250 + "b"), E_INVALIDARG);
  EXPECT_EQ(Set(MakeValue({"x"}), "s", std::string(255, 'n')), S_OK);
  EXPECT_EQ(Set(MakeValue({"x"}), "s", std::string(256, 'n')), E_INVALIDARG);
  EXPECT_EQ(m_Tree.RemoveData(S("s"), S(std::string(256, 'n')), 0), E_INVALIDARG);
  // Each kind of value at its limit and one past it, then a type with no
  // registry form.
  const std::pair<SAFEARRAY*, HRESULT> rows[] = {
      {Make(VT_UI1, {1048574}), S_OK},
      {Make(VT_UI1, {1048575}), E_INVALIDARG},
      {MakeValue({std::string(1048576, 'b')}), S_OK},
      {MakeValue({std::string(1048577, 'b')}), E_INVALIDARG},
      {MakeValue({std::string(524286, 'b'), std::string(524287, 'c')}), S_OK},
      {MakeValue({std::string(524287, 'b'), std::string(524287, 'c')}), E_INVALIDARG},
      {Make(VT_UINT, {262144}), S_OK},
      {Make(VT_UINT, {262145}), E_INVALIDARG},
      {Make(VT_R8, {1}), E_FAIL},
  };
  int n = 0;
  for (const auto& [value, hr] : rows) {
    const std::string compartment = "big" + std::to_string(n++);
    EXPECT_EQ(Set(value, compartment), hr) << compartment;
    // A refused value leaves its key created and empty.
    EXPECT_EQ(Ids(compartment).size(), hr == S_OK ? 1u : 0u) << compartment;
  }
  for (const char* compartment : {"big0", "big2", "big4"}) EXPECT_EQ(ReadRaw(compartment).second.size(), 1048576u);

  // One absent key, three different answers.
  SAFEARRAY* psa = nullptr;
  signed char cached = 9;
  EXPECT_EQ(m_Tree.GetData(S("n"), S("v"), psa, 0), E_INVALIDARG);
  EXPECT_EQ(m_Tree.ListDataIds(S("n"), &psa, 0), E_FAIL);
  EXPECT_EQ(m_Tree.IsDataCached(S("n"), S("v"), &cached, 0), S_OK);
  EXPECT_EQ(cached, 0);
  EXPECT_EQ(m_Tree.RemoveData(S("n"), S("v"), 0), E_INVALIDARG);
  // An absent value of a present key.
  EXPECT_EQ(Get("c", E_INVALIDARG), "null");
  for (const auto& [id, expected] : {std::pair{std::string("c"), 0}, {std::string(255, 'n'), 1}}) {
    EXPECT_EQ(m_Tree.IsDataCached(S("s"), S(id), &cached, 0), S_OK);
    EXPECT_EQ(cached, expected);
  }
}

TEST_F(RegistryTree, FailingRegistryCallsOnValues) {
  FaultInjector faults;
  SAFEARRAY* const untouched = reinterpret_cast<SAFEARRAY*>(&m_Tree);
  ASSERT_EQ(Set(MakeValue({"ab", "c"})), S_OK);
  signed char cached = 9;
  SAFEARRAY* psa = untouched;
  // The listing of value names counts, then fetches; either failing fails
  // the lookup.
  faults.FailWithCode("qxRegListValueNamesEx", ERROR_REGISTRY_IO_FAILED, 1);
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), E_INVALIDARG);
  faults.FailWithCode("qxRegListValueNamesEx", ERROR_REGISTRY_IO_FAILED, 2);
  EXPECT_EQ(m_Tree.IsDataCached(S("s"), S("v"), &cached, 0), S_OK);
  EXPECT_EQ(cached, 0);
  faults.FailWithCode("qxRegListValueNamesEx", ERROR_REGISTRY_IO_FAILED, 2);
  EXPECT_EQ(m_Tree.ListDataIds(S("s"), &psa, 0), E_FAIL);
  // The first read fails the lookup; a failed second read finds the value and
  // gives no array.
  faults.FailWithCode("qxRegReadValueEx", ERROR_REGISTRY_IO_FAILED, 1);
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), E_INVALIDARG);
  faults.FailWithCode("qxRegReadValueEx", ERROR_REGISTRY_IO_FAILED, 2);
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), S_OK);
  EXPECT_EQ(psa, untouched);
  faults.FailWithCode("qxRegDeleteValue", ERROR_ACCESS_DENIED);
  EXPECT_EQ(m_Tree.RemoveData(S("s"), S("v"), 0), E_INVALIDARG);
  // Writing: a failed create, write, commit or close fails the write; only a
  // failed close leaves the value written.
  for (const char* op : {"xkRegCreateKeyEx", "xkRegSetValueEx", "xkRegCommitBatch", "xkRegCloseKey"}) {
    faults.FailWithCode(op, ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(Set(MakeValue({"x"}), op), E_FAIL) << op;
    EXPECT_EQ(ReadRaw(op), std::string(op) == "xkRegCloseKey" ? std::make_pair(REG_SZ, Bytes({'x'}))
                                                              : std::make_pair(99u, Bytes()));
  }
  // Several strings: a failed fetch is logged, a later good one decides the
  // result, and the value is written in any case within the first pass's size.
  faults.FailWithCode("SafeArrayGetElement", E_FAIL, 4);  // "c" in the second pass
  EXPECT_EQ(Set(MakeValue({"ab", "c"})), E_FAIL);
  EXPECT_EQ(ReadRaw("s").second, Bytes({'a', 'b', 0, 0, 0, 0}));
  faults.FailWithCode("SafeArrayGetElement", E_FAIL, 1);  // "ab" in the first pass
  EXPECT_EQ(Set(MakeValue({"ab", "c"})), S_OK);
  EXPECT_EQ(ReadRaw("s").second, Bytes({'a', 'b', 0}));
  // Rows read back into an array that can't be made.
  ASSERT_EQ(Set(Make(VT_UI1, {3, 2}, {2, 'a', 'b', 1, 'c', 0})), S_OK);
  faults.FailWithNull("SafeArrayCreate");
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), E_INVALIDARG);
  EXPECT_EQ(psa, nullptr);
}

TEST_F(RegistryTree, CreateListProbeAndFlush) {
  SAFEARRAY* psa = nullptr;
  EXPECT_EQ(m_Tree.ListCompartmentIds(S("/"), &psa, 0), E_FAIL) << "never created";
  EXPECT_EQ(m_Tree.ListAllCompartmentIds(&psa), E_FAIL);
  EXPECT_EQ(psa, nullptr);
  Create({"s/a/b", "s/a/b", "s/Z", "s/B"});
  EXPECT_EQ(Children("/"), Strings({"s"}));
  EXPECT_EQ(Children("s"), Strings({"B", "Z", "a"})) << "byte order";
  EXPECT_EQ(Children("s/a/b"), Strings()) << "a leaf lists a zero-element vector";
  EXPECT_EQ(m_Tree.ListCompartmentIds(S("s"), nullptr, 0), E_FAIL);
  // The full listing follows the first child of each key; a child that can't
  // be opened is asked for again.
  Create({"s/B/x/deep"});
  FaultInjector faults;
  faults.FailWithCode("xkRegOpenKeyEx", ERROR_REGISTRY_IO_FAILED, 3);
  EXPECT_EQ(AllKeys(m_Tree), Strings({"T", "T/s", "T/s/B", "T/s/B/x", "T/s/B/x/deep"}));
  EXPECT_EQ(faults.Fired("xkRegOpenKeyEx"), 1u);
  EXPECT_EQ(m_Tree.ListAllCompartmentIds(nullptr), E_FAIL);

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

TEST_F(RegistryTree, RemovalRaisesDescendantsDeepestFirst) {
  LogCapture log;
  RecordingHistory* history = new RecordingHistory;
  DropHistory();
  gHistoryTree = history;
  Create({"a/d", "a/b/c", "ab", "z"});  // removed in byte order, not in the order made
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
  EXPECT_FALSE(regtest::Exists((kKey + "\\ab").c_str()));
  // A child's name must fit the walk's work buffer: "<base>T\p\" is 54
  // characters, so a name may have 251 - 54 - 2.
  for (std::size_t length : {195u, 196u}) {
    xkRegCloseKey(regtest::Create((kKey + "\\p\\" + std::string(length, 'n')).c_str()));
    EXPECT_EQ(m_Tree.RemoveCompartment(S("p"), 1, 0), S_OK) << length;
    EXPECT_EQ(regtest::Exists((kKey + "\\p").c_str()), length == 196u) << length;
  }
}

TEST_F(RegistryTree, FailingRegistryCallsOnKeys) {
  FaultInjector faults;
  Create({"a/b/c"});
  // Deletions that fail leave the keys and still report success.
  faults.FailWithCode("qxRegDeleteKey", ERROR_REGISTRY_IO_FAILED, 1, true);
  EXPECT_EQ(m_Tree.RemoveCompartment(S("a"), 1, 0), S_OK);
  faults.Reset();
  faults.FailWithCode("xkRegEnumKeyEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(m_Tree.RemoveCompartment(S("a"), 1, 0), S_OK);
  EXPECT_TRUE(regtest::Exists((kKey + "\\a\\b\\c").c_str()));
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
