// Identifier conversions and the path cutter.

#include "common/FctUtils.h"

#include <gtest/gtest.h>

#include "xk/testsupport.h"

namespace {

typedef std::vector<std::string> Tokens;

Tokens Split(const std::string& text, wchar_t separator = L'/') {
  Tokens out;
  for (const SecureString& t : split(SecureString(text.data(), text.size()), separator)) out.emplace_back(t.data(), t.size());
  return out;
}

TEST(Split, KeepsEmptyTokensAndSearchesTheLowByteOnly) {
  EXPECT_EQ(Split(""), Tokens({""}));
  EXPECT_EQ(Split("/"), Tokens({"", ""}));
  EXPECT_EQ(Split("a//b"), Tokens({"a", "", "b"}));
  EXPECT_EQ(Split("/a/"), Tokens({"", "a", ""}));
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

TEST(Conversions, BstrToStringStopsAtNulAndRefusesEmpty) {
  xk::test::LogCapture log;
  SecureString out("kept");
  BSTR empty = SysAllocString("");
  EXPECT_EQ(BSTR2wstring(empty, out), E_INVALIDARG);
  EXPECT_EQ(CFctUtils::BSTR2wstring(nullptr, out), E_INVALIDARG);
  {
    xk::test::FaultInjector faults;  // a length with its top bit set reads as negative
    faults.FailWithCode("SysStringLen", static_cast<long>(0x80000000u));
    EXPECT_EQ(BSTR2wstring(const_cast<char*>("abc"), out), E_INVALIDARG);
  }
  EXPECT_EQ(out, "kept");
  EXPECT_EQ(log.Count("BSTR2wstring sBSTRCompartmentId length = 0"), 3u);
  EXPECT_TRUE(log.Contains(1, "BSTR2wstring sBSTRCompartmentId length = 0"));

  BSTR b = SysAllocStringByteLen("ab\0cd", 5);
  EXPECT_EQ(CFctUtils::BSTR2wstring(b, out), S_OK);
  EXPECT_EQ(out, "ab");
  EXPECT_TRUE(log.Contains(0, "BSTR2wstring sBSTRCompartmentId = ab"));
  EXPECT_TRUE(log.Contains(0, "BSTR2wstring sCompartmentId = ab"));
  EXPECT_EQ(BSTR2wstring(const_cast<char*>("plain/buffer"), out), S_OK);
  EXPECT_EQ(out, "plain/buffer");
  SysFreeString(b);
  SysFreeString(empty);
}

TEST(Conversions, StringToBstrNeverFails) {
  xk::test::LogCapture log;
  BSTR b = nullptr;
  EXPECT_EQ(wstring2BSTR(SecureString("a\0b", 3), b), S_OK);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(SysStringLen(b), 1u);
  EXPECT_TRUE(log.Contains(0, "wstring2BSTR sCompartmentId = a"));
  EXPECT_TRUE(log.Contains(0, "wstring2BSTR sBSTRCompartmentId = a"));
  SysFreeString(b);
  // An empty string goes out but doesn't come back.
  EXPECT_EQ(CFctUtils::wstring2BSTR(SecureString(), b), S_OK);
  SecureString back;
  EXPECT_EQ(BSTR2wstring(b, back), E_INVALIDARG);
  SysFreeString(b);
  xk::test::FaultInjector faults;
  faults.FailWithNull("SysAllocString");
  EXPECT_EQ(wstring2BSTR(SecureString("id"), b), S_OK);
  EXPECT_EQ(b, nullptr);
}

}  // namespace
