// Identifier conversions, the path cutter and the PIN client's packing.

#include "common/FctUtils.h"

#include <gtest/gtest.h>

#include "merrowstore/StaticAuthCacheClient.h"
#include "value_support.h"

namespace {

typedef std::vector<std::string> Tokens;

Tokens Split(const std::string& text, wchar_t separator = L'/') {
  Tokens out;
  for (const SecureString& t : split(SecureString(text.data(), text.size()), separator)) out.emplace_back(t.data(), t.size());
  return out;
}

// (Empty tokens are the memory tree's walks over awkward paths.)
TEST(Split, KeepsNulsAndSearchesTheLowByteOnly) {
  EXPECT_EQ(Split(std::string(" a\0/b ", 6)), Tokens({std::string(" a\0", 3), "b "}));
  EXPECT_EQ(Split("a/b\x01/c", static_cast<wchar_t>(0x12F)), Tokens({"a", "b\x01", "c"}));
  EXPECT_EQ(Split("x\xE9y\xE9", static_cast<wchar_t>(0x4E9)), Tokens({"x", "y", ""}));
}

// SameText reads words, not bytes: a difference at any position of texts of
// any length up to past two words, and in bytes with the top bit set, must
// show.
TEST(SameText, EveryByteCounts) {
  for (std::size_t n = 0; n <= 24; ++n) {
    const std::string text = std::string("a/b/c/d/e/f/g/h/i/j/k/l/m").substr(0, n);
    SecureString a(text.data(), text.size());
    EXPECT_TRUE(SameText(a, SecureString(text.data(), text.size()))) << n;
    EXPECT_FALSE(SameText(a, SecureString(text.data(), text.size()) + "x")) << n;
    for (std::size_t at = 0; at < n; ++at) {
      for (char other : {'\0', '\x80', 'z'}) {
        SecureString b = a;
        b[at] = other;
        EXPECT_FALSE(SameText(a, b)) << n << " at " << at;
      }
    }
  }
}

// To a string, a BSTR stops at its first NUL and NULL is refused (an empty one
// is the clients' empty identifier); to a BSTR, a string always goes, even
// when it can't come back.
TEST(Conversions, BothWays) {
  SecureString out("kept");
  EXPECT_EQ(CFctUtils::BSTR2wstring(nullptr, out), E_INVALIDARG);
  {
    xk::test::FaultInjector faults;  // a length with its top bit set reads as negative
    faults.FailWithCode("SysStringLen", static_cast<long>(0x80000000u));
    EXPECT_EQ(BSTR2wstring(const_cast<char*>("abc"), out), E_INVALIDARG);
  }
  EXPECT_EQ(out, "kept");
  BSTR b = SysAllocStringByteLen("ab\0cd", 5);
  EXPECT_EQ(CFctUtils::BSTR2wstring(b, out), S_OK);
  EXPECT_EQ(out, "ab");
  EXPECT_EQ(BSTR2wstring(const_cast<char*>("plain/buffer"), out), S_OK);
  EXPECT_EQ(out, "plain/buffer");
  SysFreeString(b);

  EXPECT_EQ(wstring2BSTR(SecureString("a\0b", 3), b), S_OK);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(SysStringLen(b), 1u);
  SysFreeString(b);
  EXPECT_EQ(CFctUtils::wstring2BSTR(SecureString(), b), S_OK);
  EXPECT_EQ(BSTR2wstring(b, out), E_INVALIDARG);
  SysFreeString(b);
  xk::test::FaultInjector faults;
  faults.FailWithNull("SysAllocString");
  EXPECT_EQ(wstring2BSTR(SecureString("id"), b), S_OK);
  EXPECT_EQ(b, nullptr);
}

// Three records go out name, value, name...; a failed put stops the packing
// and leaves the partly filled array to the caller.
TEST(Packing, RecordsGoOutNameThenValue) {
  char n0[] = "IsACRPINAlways", v0[] = "Yes", n1[] = "Action", v1[] = "Authenticate", n2[] = "X", v2[] = "";
  QX::AuthStore::AuthParameter records[] = {{n0, v0}, {n1, v1}, {n2, v2}};
  for (unsigned failingPut : {0u, 2u}) {
    xk::test::FaultInjector faults;
    if (failingPut != 0) faults.FailWithCode("SafeArrayPutElement", E_OUTOFMEMORY, failingPut);
    SAFEARRAY* psa = nullptr;
    EXPECT_EQ(GetSafeArrayFromParameterStruct(records, 3, psa), failingPut != 0 ? E_OUTOFMEMORY : S_OK);
    ASSERT_TRUE(psa != nullptr && psa->vt == VT_BSTR);
    EXPECT_EQ(mtest::Take(psa), failingPut != 0
                                    ? Tokens({"IsACRPINAlways", "<null>", "<null>", "<null>", "<null>", "<null>"})
                                    : Tokens({"IsACRPINAlways", "Yes", "Action", "Authenticate", "X", ""}));
  }
  SAFEARRAY* untouched = nullptr;  // (a count of 0 is the PIN client's round)
  EXPECT_EQ(GetSafeArrayFromParameterStruct(nullptr, 3, untouched), E_FAIL);
  EXPECT_EQ(untouched, nullptr);
}

// Lengths come from the counts, so NUL bytes survive both ways; an empty value
// goes out but doesn't come back; a failed access is E_FAIL, not its code.
TEST(Packing, BytesBothWays) {
  for (const std::string& bytes : {std::string("\0a\0b\0", 5), std::string()}) {
    BSTR in = SysAllocStringByteLen(bytes.data(), static_cast<unsigned>(bytes.size())), back = nullptr;
    SAFEARRAY* psa = nullptr;
    ASSERT_EQ(GetSafeArrayBytesFromBSTR(in, psa), S_OK);
    ASSERT_EQ(psa->vt, VT_UI1);
    EXPECT_EQ(std::string(static_cast<char*>(psa->pvData), psa->rgsabound[0].cElements), bytes);
    EXPECT_EQ(GetBSTRFromSafeArrayBytes(psa, back), bytes.empty() ? E_FAIL : S_OK);
    EXPECT_EQ(back == nullptr ? "<null>" : std::string(back, SysStringByteLen(back)), bytes.empty() ? "<null>" : bytes);
    SysFreeString(back);
    xk::test::FaultInjector faults;
    faults.FailWithCode("SafeArrayAccessData", E_UNEXPECTED, 1, true);
    EXPECT_EQ(GetBSTRFromSafeArrayBytes(psa, back), E_FAIL);
    SafeArrayDestroy(psa);
    psa = nullptr;
    EXPECT_EQ(GetSafeArrayBytesFromBSTR(in, psa), E_FAIL);
    EXPECT_NE(psa, nullptr);  // the new array stays, the caller's
    faults.Reset();
    SafeArrayDestroy(psa);
    SysFreeString(in);
  }
}

}  // namespace
