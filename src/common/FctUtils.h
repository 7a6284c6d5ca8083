#ifndef MERROWSTORE_COMMON_FCTUTILS_H
#define MERROWSTORE_COMMON_FCTUTILS_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "merrowstore/export.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// Identifier conversions between a BSTR and a SecureString, and the path cutter.
// The library has no wide strings: "wstring" and the wchar_t separator are names
// only, every character is one byte.

// Copies the text of sBSTRCompartmentId up to its first NUL into sCompartmentId.
// A NULL or empty BSTR (SysStringLen zero or less) gives E_INVALIDARG and leaves
// sCompartmentId as it was. The BSTR stays the caller's.
MERROWSTORE_EXPORT HRESULT BSTR2wstring(char* sBSTRCompartmentId, SecureString& sCompartmentId);

// Makes a new BSTR holding sCompartmentId up to its first NUL and stores it in
// sBSTRCompartmentId, which the caller then owns and releases with
// qxSysFreeString. Always S_OK: the allocation's answer is stored untested, so
// the output may be NULL when memory runs out. An empty string gives an empty
// BSTR, which BSTR2wstring refuses.
MERROWSTORE_EXPORT HRESULT wstring2BSTR(SecureString const& sCompartmentId, char*& sBSTRCompartmentId);

// Cuts s at every occurrence of the low byte of cSeparator. n separators give
// n+1 tokens; empty tokens are kept and nothing is trimmed.
MERROWSTORE_EXPORT std::vector<SecureString> split(SecureString const& s, wchar_t cSeparator);

// Whether a and b hold the same bytes. SecureString's own == (a custom
// allocator gets no short cut) always compares the texts through memcmp, even
// when the lengths differ. This looks at the lengths first, then at the last
// eight bytes, where paths that share a prefix (every path of one store or one
// session) differ, and reads at most sixteen bytes without a call.
inline bool SameText(const SecureString& a, const SecureString& b) {
  const std::size_t n = a.size();
  if (n != b.size()) return false;
  const char* pa = a.data();
  const char* pb = b.data();
  if (n < 8) {
    for (std::size_t i = 0; i < n; ++i)
      if (pa[i] != pb[i]) return false;
    return true;
  }
  std::uint64_t wa;
  std::uint64_t wb;
  std::memcpy(&wa, pa + n - 8, 8);
  std::memcpy(&wb, pb + n - 8, 8);
  if (wa != wb) return false;
  if (n > 16) return std::memcmp(pa, pb, n - 8) == 0;
  std::memcpy(&wa, pa, 8);
  std::memcpy(&wb, pb, 8);
  return wa == wb;
}

// The same two conversions as static members, with the same results and log
// texts. The value protection code uses CFctUtils::BSTR2wstring.
class MERROWSTORE_EXPORT CFctUtils {
 public:
  // See the free BSTR2wstring.
  static HRESULT BSTR2wstring(char* sBSTRCompartmentId, SecureString& sCompartmentId);
  // See the free wstring2BSTR.
  static HRESULT wstring2BSTR(SecureString const& sCompartmentId, char*& sBSTRCompartmentId);
};

#endif
