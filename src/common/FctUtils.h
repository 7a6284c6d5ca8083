#ifndef MERROWSTORE_COMMON_FCTUTILS_H
#define MERROWSTORE_COMMON_FCTUTILS_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "merrowstore/export.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// Identifier conversions between a BSTR and a SecureString, the path cutter, and
// the packing of PIN parameters and byte values for the PIN client.
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

namespace QX {
namespace AuthStore {
struct AuthParameter;
}  // namespace AuthStore
}  // namespace QX

// Packing between the PIN client's shapes and the PIN store's. Each logs its
// name on entry and its result on exit.

// Builds a VT_BSTR vector of 2 * ulCount copies, lower bound 0: the name of
// record 0, its value, the name of record 1, and so on, and stores it in
// psaParameters as soon as it is created. A NULL pAdditionalParameters or a
// ulCount of 0 gives E_FAIL and creates nothing. The first element that can't
// be put ends the packing with SafeArrayPutElement's code; the partly filled
// array stays in psaParameters. Whatever array is left there is the caller's,
// also after a failure. The records stay the caller's.
MERROWSTORE_EXPORT HRESULT GetSafeArrayFromParameterStruct(QX::AuthStore::AuthParameter* pAdditionalParameters,
                                                           unsigned long ulCount, SAFEARRAY*& psaParameters);

// A new BSTR in bstrValue holding the bytes of psaValue, as many as its first
// bound counts (meant for VT_UI1 vectors: the element size is not looked at).
// NUL bytes are kept. A NULL array, an array of 0 elements and an array whose
// data can't be reached give E_FAIL, with bstrValue untouched. The BSTR is the
// caller's.
MERROWSTORE_EXPORT HRESULT GetBSTRFromSafeArrayBytes(SAFEARRAY* psaValue, BSTR& bstrValue);

// A new VT_UI1 vector in psaValue holding the bytes of bstrValue (its byte
// length, NUL bytes included). A NULL bstrValue gives E_FAIL; an empty one a
// vector of 0 elements and S_OK, which GetBSTRFromSafeArrayBytes refuses. If
// the new array's data can't be reached the result is E_FAIL and the array,
// empty, stays in psaValue. Whatever array is left there is the caller's.
MERROWSTORE_EXPORT HRESULT GetSafeArrayBytesFromBSTR(BSTR bstrValue, SAFEARRAY*& psaValue);

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
