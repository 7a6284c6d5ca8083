#include "common/FctUtils.h"

#include <cstring>
#include <memory>

#include "common/Module.h"
#include "merrowstore/StaticAuthCacheClient.h"
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

// ---- Packing for the PIN client ---------------------------------------------

HRESULT GetSafeArrayFromParameterStruct(QX::AuthStore::AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                        SAFEARRAY*& psaParameters) {
  xklogLog(MSTORE_MODULE, 8, "GetSafeArrayFromParameterStruct");
  HRESULT hr = S_OK;
  if (pAdditionalParameters == NULL) {
    xklogLog(MSTORE_MODULE, 1, "GetSafeArrayFromParameterStruct: NULL == pAdditionalParameters");
    hr = E_FAIL;
  } else if (ulCount == 0) {
    xklogLog(MSTORE_MODULE, 1, "GetSafeArrayFromParameterStruct: ulCount == 0");
    hr = E_FAIL;
  } else {
    // Stored at once and not tested: a failed creation shows as a failed put.
    psaParameters = SafeArrayCreateVector(VT_BSTR, 0, 2 * ulCount);
    int index = 0;
    for (unsigned long i = 0; i < ulCount && SUCCEEDED(hr); ++i) {
      hr = SafeArrayPutElement(psaParameters, &index, pAdditionalParameters[i].bstrName);
      if (FAILED(hr)) break;
      ++index;
      hr = SafeArrayPutElement(psaParameters, &index, pAdditionalParameters[i].bstrValue);
      ++index;
    }
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "GetSafeArrayFromParameterStruct: SafeArrayPutElement failed");
  }
  xklogLog(MSTORE_MODULE, 16, "GetSafeArrayFromParameterStruct: hr = %x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT GetBSTRFromSafeArrayBytes(SAFEARRAY* psaValue, BSTR& bstrValue) {
  xklogLog(MSTORE_MODULE, 8, "GetBSTRFromSafeArrayBytes");
  HRESULT hr = S_OK;
  void* pvData = NULL;
  if (psaValue == NULL) {
    xklogLog(MSTORE_MODULE, 1, "GetBSTRFromSafeArrayBytes psaValue == NULL");
    hr = E_FAIL;
  } else if (psaValue->rgsabound[0].cElements == 0) {
    // The test is on the count; the text names the byte buffer.
    xklogLog(MSTORE_MODULE, 1, "GetBSTRFromSafeArrayBytes byarValue == NULL");
    hr = E_FAIL;
  } else if (FAILED(SafeArrayAccessData(psaValue, &pvData))) {
    // E_FAIL, not the service's code.
    xklogLog(MSTORE_MODULE, 1, "GetBSTRFromSafeArrayBytes SafeArrayAccessData failed");
    hr = E_FAIL;
  } else {
    const unsigned long ulBytes = psaValue->rgsabound[0].cElements;
    std::vector<char> buffer(static_cast<const char*>(pvData), static_cast<const char*>(pvData) + ulBytes);
    SafeArrayUnaccessData(psaValue);
    // The length is cut to 32 bits; the allocation's answer is not tested.
    bstrValue = SysAllocStringByteLen(buffer.data(), static_cast<unsigned int>(ulBytes));
  }
  xklogLog(MSTORE_MODULE, 16, "GetBSTRFromSafeArrayBytes hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT GetSafeArrayBytesFromBSTR(BSTR bstrValue, SAFEARRAY*& psaValue) {
  xklogLog(MSTORE_MODULE, 8, "GetSafeArrayBytesFromBSTR");
  HRESULT hr = S_OK;
  if (bstrValue == NULL) {
    xklogLog(MSTORE_MODULE, 1, "GetSafeArrayBytesFromBSTR bstrValue == NULL");
    hr = E_FAIL;
  } else {
    const unsigned int nBytes = SysStringByteLen(bstrValue);
    psaValue = SafeArrayCreateVector(VT_UI1, 0, nBytes);
    void* pvData = NULL;
    if (FAILED(SafeArrayAccessData(psaValue, &pvData))) {
      // E_FAIL, not the service's code; the new array stays in psaValue.
      xklogLog(MSTORE_MODULE, 1, "GetSafeArrayBytesFromBSTR SafeArrayAccessData failed");
      hr = E_FAIL;
    } else {
      if (nBytes != 0) std::memcpy(pvData, bstrValue, nBytes);
      SafeArrayUnaccessData(psaValue);
    }
  }
  xklogLog(MSTORE_MODULE, 16, "GetSafeArrayBytesFromBSTR hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}
