// Data values of the registry tree: every vartype through the stored format and
// back, the exact bytes other programs see, values written by others, the
// limits, result codes, failing registry calls, and two processes on one tree.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "trees/RegistryTree.h"
#include "tree_test_support.h"
#include "xk/registry.h"

namespace {

using namespace treetest;
typedef std::vector<unsigned char> Bytes;

const char kHive[] = "HKEY_LOCAL_MACHINE";
const std::string kKey = "Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\T";

SAFEARRAY* Bstrs(const Strings& items) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, items.size());
  for (int i = 0; i < static_cast<int>(items.size()); ++i) {
    BSTR b = SysAllocStringByteLen(items[i].data(), items[i].size());
    SafeArrayPutElement(psa, &i, b);
    SysFreeString(b);
  }
  return psa;
}

// An array of the given bounds (given order) holding raw, zero-filled after it.
SAFEARRAY* Make(VARTYPE vt, std::vector<unsigned long> dims, const Bytes& raw) {
  std::vector<SAFEARRAYBOUND> bounds;
  for (unsigned long d : dims) bounds.push_back({d, 0});
  SAFEARRAY* psa = dims.size() == 1 ? SafeArrayCreateVector(vt, 0, dims[0]) : SafeArrayCreate(vt, 2, bounds.data());
  void* pv = nullptr;
  SafeArrayAccessData(psa, &pv);
  std::copy(raw.begin(), raw.end(), static_cast<unsigned char*>(pv));
  SafeArrayUnaccessData(psa);
  return psa;
}

// "vt[stored bounds]:content", content as hex bytes or '|'-separated strings.
std::string Describe(SAFEARRAY* psa) {
  if (psa == nullptr) return "null";
  std::string out = std::to_string(psa->vt) + "[", sep;
  std::size_t n = psa->cbElements;
  for (unsigned d = 0; d < psa->cDims; n *= psa->rgsabound[d++].cElements)
    out += (d ? "," : "") + std::to_string(psa->rgsabound[d].cElements);
  out += "]:";
  for (int i = 0; psa->vt == VT_BSTR && i < static_cast<int>(psa->rgsabound->cElements); ++i, sep = "|") {
    BSTR b = nullptr;
    SafeArrayGetElement(psa, &i, &b);
    out += sep + std::string(b, SysStringByteLen(b));
    SysFreeString(b);
  }
  void* pv = nullptr;
  SafeArrayAccessData(psa, &pv);
  char hex[4];
  for (std::size_t i = 0; psa->vt != VT_BSTR && i < n; ++i) {
    std::snprintf(hex, sizeof hex, i ? " %02x" : "%02x", static_cast<unsigned char*>(pv)[i]);
    out += hex;
  }
  SafeArrayUnaccessData(psa);
  return out;
}

std::string TakeDescribed(SAFEARRAY* psa) {
  std::string d = Describe(psa);
  SafeArrayDestroy(psa);
  return d;
}

void WriteRaw(const std::string& name, unsigned type, const Bytes& bytes) {
  HKEY h = nullptr;
  ASSERT_EQ(xkRegCreateKeyEx(kHive, (kKey + "\\s").c_str(), 0, nullptr, 0, 3, nullptr, &h, nullptr), 0);
  EXPECT_EQ(xkRegSetValueEx(h, name.c_str(), 0, type, bytes.data(), bytes.size()), 0);
  xkRegCloseKey(h);
}

// Type and bytes of a stored value; type 99 when it is absent.
std::pair<unsigned, Bytes> ReadRaw(const std::string& compartment, const std::string& name) {
  const std::string path = kKey + "\\" + compartment;
  unsigned type = 99, size = 0;
  if (qxRegReadValueEx(kHive, path.c_str(), name.c_str(), &type, nullptr, &size, 0) != 0) return {99, {}};
  Bytes bytes(size);
  qxRegReadValueEx(kHive, path.c_str(), name.c_str(), &type, bytes.data(), &size, 0);
  return {type, bytes};
}

class RegistryValues : public HistoryTest {
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

  xk::test::Sandbox m_Sandbox;
  CRegistryTree m_Tree{S("T"), 0};
};

TEST_F(RegistryValues, EveryVartypeThroughTheStoredFormat) {
  const std::string k300(300, 'k');
  struct Row {
    const char* what;
    SAFEARRAY* value;
    std::string back;  // empty: the value itself comes back
  } rows[] = {
      {"no string", Bstrs({}), ""},
      {"one string holding a NUL", Bstrs({std::string("a\0b", 3)}), ""},
      {"two strings", Bstrs({"ab", "c"}), ""},
      {"an empty string first", Bstrs({"", "x"}), ""},
      {"an empty string ends the list", Bstrs({"a", "", "b"}), "8[1]:a"},
      {"two empty strings", Bstrs({"", ""}), "8[1]:"},
      {"bytes", Make(VT_UI1, {3}, {1, 2, 3}), ""},
      {"no bytes", Make(VT_UI1, {0}, {}), ""},
      {"300 bytes", Make(VT_UI1, {300}, Bytes(k300.begin(), k300.end())), ""},
      {"signed bytes", Make(VT_I1, {2}, {0xff, 1}), ""},
      {"rows of bytes", Make(VT_UI1, {3, 2}, {2, 'a', 'b', 1, 'c', 0}), ""},
      {"rows narrower than their width", Make(VT_UI1, {4, 2}, {1, 'a', 0, 0, 0, 0, 0, 0}), "17[2,2]:01 61 00 00"},
      {"no rows", Make(VT_UI1, {3, 0}, {}), "17[0,2]:"},
      {"rows of signed bytes flatten", Make(VT_I1, {3, 2}, {2, 'a', 'b', 1, 'c', 'x'}), "16[5]:61 62 0b 01 63"},
      {"INT comes back UINT", Make(VT_INT, {2}, {1, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}), "23[2]:01 00 00 00 ff ff ff ff"},
      {"UINT", Make(VT_UINT, {1}, {7, 0, 0, 0}), ""},
      {"I8 comes back UI8", Make(VT_I8, {1}, {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}),
       "21[1]:fe ff ff ff ff ff ff ff"},
      {"UI8", Make(VT_UI8, {2}, {1, 2, 3, 4, 5, 6, 7, 8, 9}), ""},
      {"no IUnknown", Make(VT_UNKNOWN, {0}, {}), ""},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string expected = row.back.empty() ? Describe(row.value) : row.back;
    ASSERT_EQ(Set(row.value), S_OK);
    EXPECT_EQ(Get(), expected);
  }
}

TEST_F(RegistryValues, StoredBytesAreTheFormat) {
  const Bytes k300(300, 'k');
  struct Row {
    const char* what;
    SAFEARRAY* value;
    unsigned type;
    Bytes bytes;
  } rows[] = {
      {"two strings", Bstrs({"ab", "c"}), REG_MULTI_SZ, {'a', 'b', 0, 'c', 0, 0}},
      {"one string", Bstrs({"ab"}), REG_SZ, {'a', 'b'}},
      {"no string", Bstrs({}), REG_SZ, {}},
      {"no bytes", Make(VT_UI1, {0}, {}), REG_BINARY, {0xBA, 0}},
      {"signed byte", Make(VT_I1, {1}, {9}), REG_BINARY, {0x0B, 1, 9}},
      {"rows", Make(VT_UI1, {3, 2}, {2, 'a', 'b', 1, 'c', 0}), REG_BINARY, {0xBB, 2, 'a', 'b', 0xBB, 1, 'c'}},
      {"no rows", Make(VT_UI1, {3, 0}, {}), REG_BINARY, {0xBB, 0}},
      {"INT", Make(VT_INT, {2}, {1, 0, 0, 0, 2, 0, 0, 0}), REG_DWORD, {1, 0, 0, 0, 2, 0, 0, 0}},
      {"UI8", Make(VT_UI8, {1}, {1}), REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0}},
      {"no IUnknown", Make(VT_UNKNOWN, {0}, {}), REG_NONE, {}},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.what);
    ASSERT_EQ(Set(row.value), S_OK);
    EXPECT_EQ(ReadRaw("s", "v"), std::make_pair(row.type, row.bytes));
  }
  // 300 bytes: the length byte keeps its low 8 bits, the reader goes by the size.
  ASSERT_EQ(Set(Make(VT_UI1, {300}, k300)), S_OK);
  const Bytes stored = ReadRaw("s", "v").second;
  ASSERT_EQ(stored.size(), 302u);
  EXPECT_EQ(Bytes(stored.begin(), stored.begin() + 3), Bytes({0xBA, 44, 'k'}));
}

TEST_F(RegistryValues, ValuesWrittenByOthers) {
  LogCapture log;
  SAFEARRAY* const untouched = reinterpret_cast<SAFEARRAY*>(&m_Tree);
  struct Row {
    unsigned type;
    Bytes bytes;
    std::string back;  // "untouched": S_OK with the output as it was
  } rows[] = {
      {REG_BINARY, {0x42, 1, 2}, "untouched"},
      {REG_BINARY, {0xBB, 3, 'x'}, "17[1,4]:03 78 00 00"},
      {REG_BINARY, {0xBB, 1, 'x', 0xBB}, "17[2,2]:01 78 00 00"},
      {REG_BINARY, {0xBB, 5}, "17[0,6]:"},
      {REG_BINARY, {0xBA}, "17[0]:"},
      {REG_BINARY, {}, "17[0]:"},
      {REG_MULTI_SZ, {'a', 'b'}, "untouched"},
      {REG_MULTI_SZ, {'a', 0, 'b', 'c'}, "8[1]:a"},
      {REG_SZ, {}, "8[0]:"},
      {REG_DWORD, {1, 0, 0, 0, 2, 0}, "23[1]:01 00 00 00"},
      {REG_QWORD, {1, 2, 3}, "21[0]:"},
      {REG_NONE, {1, 2, 3, 4, 5}, "13[0]:"},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.back);
    WriteRaw("v", row.type, row.bytes);
    SAFEARRAY* psa = untouched;
    EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), S_OK);
    EXPECT_EQ(psa == untouched ? "untouched" : TakeDescribed(psa), row.back);
  }
  WriteRaw("v", REG_EXPAND_SZ, {'x'});
  SAFEARRAY* psa = untouched;
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::GetData GetSafeArrayTypeFromRegistryType failed"));
  EXPECT_EQ(psa, untouched);
  // The default value (empty name) is listed but never found by name.
  ASSERT_EQ(m_Tree.RemoveData(S("s"), S("v"), 0), S_OK);
  WriteRaw("", REG_SZ, {'d'});
  signed char cached = 9;
  EXPECT_EQ(m_Tree.IsDataCached(S("s"), S(""), &cached, 0), E_INVALIDARG) << "the failed conversion came last";
  EXPECT_EQ(Get("", E_INVALIDARG), "null");
  EXPECT_EQ(Ids(), Strings({""}));
}

TEST_F(RegistryValues, Limits) {
  LogCapture log;
  // The base key and "T\" take 52 characters of the 250.
  const std::string path250 = std::string(99, 'a') + "/" + std::string(98, 'b');
  EXPECT_EQ(Set(Bstrs({"x"}), path250), S_OK);
  EXPECT_EQ(Set(Bstrs({"x"}), path250 + "b"), E_INVALIDARG);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::SetData length of pSubKey = 251 greater than 250"));
  SAFEARRAY* psa = nullptr;
  EXPECT_EQ(m_Tree.GetData(S(path250 + "b"), S("v"), psa, 0), E_INVALIDARG);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::GetData length of lpSubKey = 251 greater than 250"));

  EXPECT_EQ(Set(Bstrs({"x"}), "s", std::string(255, 'n')), S_OK);
  EXPECT_EQ(Set(Bstrs({"x"}), "s", std::string(256, 'n')), E_INVALIDARG);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::SetData length of pDataName = 256 greater than 255"));
  EXPECT_EQ(m_Tree.RemoveData(S("s"), S(std::string(256, 'n')), 0), E_INVALIDARG);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::RemoveData length of pValueName = 256 greater than 255"));

  struct Row {
    SAFEARRAY* value;
    HRESULT hr;
    const char* text;  // the refusal's text
  } rows[] = {
      {Make(VT_UI1, {1048574}, {}), S_OK, nullptr},
      {Make(VT_UI1, {1048575}, {}), E_INVALIDARG, "CRegistryTree::SetData nSize > 1MB"},
      {Bstrs({std::string(1048576, 'b')}), S_OK, nullptr},
      {Bstrs({std::string(1048577, 'b')}), E_INVALIDARG, "CRegistryTree::SetData SysStringByteLen(pElem) > 1MB"},
      {Bstrs({std::string(524286, 'b'), std::string(524287, 'c')}), S_OK, nullptr},
      {Bstrs({std::string(524287, 'b'), std::string(524287, 'c')}), E_INVALIDARG,
       "CRegistryTree::SetData SysStringByteLen(pElem) > 1MB"},
      {Make(VT_UINT, {262144}, {}), S_OK, nullptr},
      {Make(VT_UINT, {262145}, {}), E_INVALIDARG,
       "CRegistryTree::SetData dwElemSize*psaDataValue->rgsabound->cElements > 1MB"},
      {Make(VT_R8, {1}, {}), E_FAIL, "CRegistryTree::SetData GetRegistryTypeFromSafeArrayType failed"},
  };
  int n = 0;
  for (Row& row : rows) {
    const std::string compartment = "big" + std::to_string(n++);
    SCOPED_TRACE(compartment);
    EXPECT_EQ(Set(row.value, compartment), row.hr);
    if (row.text) {
      EXPECT_TRUE(log.Contains(1, row.text));
    }
    // A refused value leaves its key created and empty.
    EXPECT_EQ(Ids(compartment).size(), row.hr == S_OK ? 1u : 0u);
  }
  EXPECT_EQ(ReadRaw("big0", "v").second.size(), 1048576u);
  EXPECT_EQ(ReadRaw("big2", "v").second.size(), 1048576u);
  EXPECT_EQ(ReadRaw("big4", "v").second.size(), 1048576u);
}

TEST_F(RegistryValues, AbsentKeysAndValues) {
  LogCapture log;
  SAFEARRAY* psa = nullptr;
  signed char cached = 9;
  // One absent key, three different answers.
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), E_INVALIDARG);
  EXPECT_EQ(m_Tree.ListDataIds(S("s"), &psa, 0), E_FAIL);
  EXPECT_EQ(m_Tree.IsDataCached(S("s"), S("v"), &cached, 0), S_OK);
  EXPECT_EQ(cached, 0);
  EXPECT_EQ(m_Tree.RemoveData(S("s"), S("v"), 0), E_INVALIDARG);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::RemoveData qxRegDeleteValue failed : rc = 2"));
  ASSERT_EQ(Set(Bstrs({"1"}), "s", "b"), S_OK);
  ASSERT_EQ(Set(Bstrs({"2"}), "s", "a"), S_OK);
  EXPECT_EQ(Ids(), Strings({"a", "b"}));
  EXPECT_EQ(Get("c", E_INVALIDARG), "null");
  EXPECT_TRUE(log.Contains(2, "CRegistryTree::GetData data was not found"));
  EXPECT_EQ(m_Tree.RemoveData(S("s"), S("a"), 0), S_OK);
  EXPECT_EQ(m_Tree.IsDataCached(S("s"), S("a"), &cached, 0), S_OK);
  EXPECT_EQ(cached, 0);
  EXPECT_EQ(m_Tree.IsDataCached(S("s"), S("b"), &cached, 0), S_OK);
  EXPECT_EQ(cached, 1);
}

TEST_F(RegistryValues, FailingRegistryCalls) {
  LogCapture log;
  FaultInjector faults;
  SAFEARRAY* const untouched = reinterpret_cast<SAFEARRAY*>(&m_Tree);
  ASSERT_EQ(Set(Bstrs({"ab", "c"})), S_OK);
  signed char cached = 9;
  SAFEARRAY* psa = untouched;
  for (unsigned pass : {1u, 2u}) {
    faults.FailWithCode("qxRegListValueNamesEx", ERROR_REGISTRY_IO_FAILED, pass);
    EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), E_INVALIDARG) << pass;
    faults.FailWithCode("qxRegListValueNamesEx", ERROR_REGISTRY_IO_FAILED, pass);
    EXPECT_EQ(m_Tree.IsDataCached(S("s"), S("v"), &cached, 0), S_OK) << pass;
    EXPECT_EQ(cached, 0);
    faults.FailWithCode("qxRegListValueNamesEx", ERROR_REGISTRY_IO_FAILED, pass);
    EXPECT_EQ(m_Tree.ListDataIds(S("s"), &psa, 0), E_FAIL) << pass;
  }
  EXPECT_EQ(log.Count("CRegistryTree::GetData qxRegListValueNamesEx failed"), 2u);
  EXPECT_TRUE(log.Contains(2, "CRegistryTree::IsDataCached qxRegListValueNamesEx failed"));
  // The first read fails the lookup; a failed second read finds the value and
  // gives no array.
  faults.FailWithCode("qxRegReadValueEx", ERROR_REGISTRY_IO_FAILED, 1);
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), E_INVALIDARG);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::GetData qxRegReadValueEx failed"));
  faults.FailWithCode("qxRegReadValueEx", ERROR_REGISTRY_IO_FAILED, 2);
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), S_OK);
  EXPECT_EQ(psa, untouched);
  faults.FailWithCode("qxRegDeleteValue", ERROR_ACCESS_DENIED);
  EXPECT_EQ(m_Tree.RemoveData(S("s"), S("v"), 0), E_INVALIDARG);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::RemoveData qxRegDeleteValue failed : rc = 5"));
  // Writing: a failed create still closes (the unset handle); a failed write
  // leaves the key; a failed close fails a value that was written.
  faults.FailWithCode("xkRegCreateKeyEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Set(Bstrs({"x"}), "w"), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::SetData RegCreateKeyEx failed lRet = 1016"));
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::SetData RegCloseKey failed lRet = 6"));
  faults.FailWithCode("xkRegSetValueEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Set(Bstrs({"x"}), "w"), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::SetData RegSetValueEx failed"));
  EXPECT_EQ(Ids("w"), Strings());
  // A write whose commit fails is a failed write, and the key made for it goes too.
  faults.FailWithCode("xkRegCommitBatch", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Set(Bstrs({"x"}), "w2"), E_FAIL);
  EXPECT_EQ(log.Count("CRegistryTree::SetData RegSetValueEx failed"), 2u);
  EXPECT_EQ(ReadRaw("w2", "v").first, 99u);
  EXPECT_EQ(m_Tree.ListDataIds(S("w2"), &psa, 0), E_FAIL);
  faults.FailWithCode("xkRegCloseKey", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Set(Bstrs({"x"}), "w"), E_FAIL);
  EXPECT_EQ(ReadRaw("w", "v").second, Bytes({'x'}));
  // Several strings: a failed fetch is logged, a later good one decides the
  // result, and the value is written in any case within the first pass's size.
  faults.FailWithCode("SafeArrayGetElement", E_FAIL, 4);  // "c" in the second pass
  EXPECT_EQ(Set(Bstrs({"ab", "c"})), E_FAIL);
  EXPECT_EQ(ReadRaw("s", "v").second, Bytes({'a', 'b', 0, 0, 0, 0}));
  faults.FailWithCode("SafeArrayGetElement", E_FAIL, 1);  // "ab" in the first pass
  EXPECT_EQ(Set(Bstrs({"ab", "c"})), S_OK);
  EXPECT_EQ(ReadRaw("s", "v").second, Bytes({'a', 'b', 0}));
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::SetData SafeArrayGetElement failed"));
  // Rows read back into an array that can't be made.
  ASSERT_EQ(Set(Make(VT_UI1, {3, 2}, {2, 'a', 'b', 1, 'c', 0})), S_OK);
  faults.FailWithNull("SafeArrayCreate");
  EXPECT_EQ(m_Tree.GetData(S("s"), S("v"), psa, 0), E_INVALIDARG);
  EXPECT_EQ(psa, nullptr);
  EXPECT_TRUE(log.Contains(1, "CRegistryTree::GetData SafeArrayAccessData failed"));
}

TEST_F(RegistryValues, TwoProcessesShareOneTreeId) {
  ASSERT_EQ(Set(Bstrs({"parent"}), "s", "first"), S_OK);
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    // The child: its own tree object on the same id. No gtest here; the exit
    // status is the verdict, and _exit leaves the sandbox to the parent.
    char c = 0;
    bool ok = read(go[0], &c, 1) == 1;
    CRegistryTree other(S("T"), 0);
    SAFEARRAY* psa = nullptr;
    ok = ok && other.GetData(S("s"), S("first"), psa, 0) == S_OK && Describe(psa) == "8[1]:parent";
    SafeArrayDestroy(psa);
    for (int i = 0; i < 20; ++i) {
      SAFEARRAY* v = Bstrs({"c"});
      ok = other.SetData(S("s"), S("child" + std::to_string(i)), v, 0, 0) == S_OK && ok;
      SafeArrayDestroy(v);
    }
    _exit(ok ? 0 : 1);
  }
  ASSERT_EQ(write(go[1], "g", 1), 1);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Set(Bstrs({"p"}), "s", "parent" + std::to_string(i)), S_OK);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(Ids().size(), 41u);
  EXPECT_EQ(Get("child19"), "8[1]:c");
  close(go[0]);
  close(go[1]);
}

}  // namespace
