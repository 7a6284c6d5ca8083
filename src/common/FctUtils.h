#ifndef MERROWSTORE_COMMON_FCTUTILS_H
#define MERROWSTORE_COMMON_FCTUTILS_H

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
