#include "common/FctUtils.h"

#include <cstring>
#include <memory>

#include "common/Module.h"
#include "xk/log.h"

namespace {

// What the log shows for a NULL text.
const char* Printable(const char* s) { return s != NULL ? s : "(null)"; }

HRESULT ConvertBSTR(char* sBSTRCompartmentId, SecureString& sCompartmentId) {
  xklogLog(MSTORE_MODULE, 0, "BSTR2wstring sBSTRCompartmentId = %s", Printable(sBSTRCompartmentId));
  // The service answers an unsigned length; a value with the top bit set counts as none.
  if (static_cast<int>(SysStringLen(sBSTRCompartmentId)) <= 0) {
    xklogLog(MSTORE_MODULE, 1, "BSTR2wstring sBSTRCompartmentId length = 0");
    return E_INVALIDARG;
  }
  sCompartmentId.assign(sBSTRCompartmentId);
  xklogLog(MSTORE_MODULE, 0, "BSTR2wstring sCompartmentId = %s", sCompartmentId.c_str());
  return S_OK;
}

HRESULT ConvertString(SecureString const& sCompartmentId, char*& sBSTRCompartmentId) {
  xklogLog(MSTORE_MODULE, 0, "wstring2BSTR sCompartmentId = %s", sCompartmentId.c_str());
  std::unique_ptr<char[]> temp(new char[sCompartmentId.size() + 1]());
  std::strcpy(temp.get(), sCompartmentId.c_str());
  sBSTRCompartmentId = SysAllocString(temp.get());
  xklogLog(MSTORE_MODULE, 0, "wstring2BSTR sBSTRCompartmentId = %s", Printable(sBSTRCompartmentId));
  return S_OK;
}

}  // namespace

HRESULT BSTR2wstring(char* sBSTRCompartmentId, SecureString& sCompartmentId) {
  return ConvertBSTR(sBSTRCompartmentId, sCompartmentId);
}

HRESULT wstring2BSTR(SecureString const& sCompartmentId, char*& sBSTRCompartmentId) {
  return ConvertString(sCompartmentId, sBSTRCompartmentId);
}

HRESULT CFctUtils::BSTR2wstring(char* sBSTRCompartmentId, SecureString& sCompartmentId) {
  return ConvertBSTR(sBSTRCompartmentId, sCompartmentId);
}

HRESULT CFctUtils::wstring2BSTR(SecureString const& sCompartmentId, char*& sBSTRCompartmentId) {
  return ConvertString(sCompartmentId, sBSTRCompartmentId);
}

std::vector<SecureString> split(SecureString const& s, wchar_t cSeparator) {
  const char separator = static_cast<char>(static_cast<signed char>(cSeparator & 0xFF));
  std::vector<SecureString> tokens;
  SecureString::size_type start = 0;
  SecureString::size_type pos = s.find(separator, start);
  while (pos != SecureString::npos) {
    tokens.push_back(s.substr(start, pos - start));
    start = pos + 1;
    pos = s.find(separator, start);
  }
  tokens.push_back(s.substr(start));
  return tokens;
}
