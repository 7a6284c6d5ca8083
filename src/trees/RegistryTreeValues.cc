// The data operations of CRegistryTree: a data item is a value of the
// compartment's key, in the format of RegistryValueCodec.h.

#include <memory>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "trees/RegistryTree.h"
#include "trees/RegistryValueCodec.h"
#include "xk/log.h"
#include "xk/registry.h"

namespace {

const unsigned int kAllTypes = 0xFFFFFFFF;

// The value names of a key, listed twice: first the count, then that many
// records. nValueCount2 is what the second pass reported; only
// min(nValueCount1, nValueCount2) records are filled.
struct ValueListing {
  std::unique_ptr<qxRegValue_[]> records;
  unsigned int nValueCount1 = 0;
  unsigned int nValueCount2 = 0;
};

// The first failing pass's code, else the second pass's (0). Both passes see
// the same state of the registry.
int ListValueNames(const char* pRootKey, const char* pSubKey, ValueListing& listing) {
  xk::registry::Batch batch(XK_REG_BATCH_READ);
  int rc = qxRegListValueNamesEx(pRootKey, pSubKey, NULL, &listing.nValueCount1, kAllTypes, 0);
  if (rc != 0) return rc;
  listing.records.reset(new qxRegValue_[listing.nValueCount1]);
  listing.nValueCount2 = listing.nValueCount1;
  rc = qxRegListValueNamesEx(pRootKey, pSubKey, listing.records.get(), &listing.nValueCount2, kAllTypes, 0);
  // The registry terminates every name; the last byte of the field is made a
  // terminator all the same, so no name is ever read past its record.
  for (unsigned int i = 0; i < listing.nValueCount1; ++i)
    listing.records[i].szName[sizeof(listing.records[i].szName) - 1] = '\0';
  return rc;
}

// Writes the value and commits the write batch the key was opened in: a
// failed commit is a failed write.
HRESULT WriteTypedValue(HKEY hKey, const char* pDataName, SAFEARRAY* psaDataValue, xk::registry::Batch& batch) {
  VARTYPE vt = VT_EMPTY;
  if (FAILED(SafeArrayGetVartype(psaDataValue, &vt))) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData SafeArrayGetVartype failed");
    return E_FAIL;
  }
  unsigned int dwRegistryType = REG_NONE;
  if (FAILED(GetRegistryTypeFromSafeArrayType(vt, dwRegistryType))) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData GetRegistryTypeFromSafeArrayType failed");
    return E_FAIL;
  }
  RegistryValueBytes value;
  bool bWrite = false;
  HRESULT hr = EncodeRegistryValue(psaDataValue, vt, dwRegistryType, value, bWrite);
  if (!bWrite) return hr;
  long lRet = xkRegSetValueEx(hKey, pDataName, 0, value.dwType, value.bNullData ? NULL : value.data.data(),
                              static_cast<unsigned int>(value.data.size()));
  if (lRet == 0) lRet = batch.Commit();
  if (lRet != 0) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData RegSetValueEx failed");
    hr = E_FAIL;
  }
  return hr;
}

HRESULT WriteNamedValue(HKEY hKey, const SecureString& sDataId, SAFEARRAY* psaDataValue,
                        unsigned int nMaxValueNameLength, xk::registry::Batch& batch) {
  BSTR pDataName = NULL;
  HRESULT hr = wstring2BSTR(sDataId, pDataName);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData wstring2BSTR failed");
    return E_FAIL;
  }
  const unsigned int nLength = SysStringLen(pDataName);
  if (nLength > nMaxValueNameLength) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData length of pDataName = %d greater than %d",
             static_cast<int>(nLength), static_cast<int>(nMaxValueNameLength));
    hr = E_INVALIDARG;
  } else {
    hr = WriteTypedValue(hKey, pDataName, psaDataValue, batch);
  }
  qxSysFreeString(pDataName, 0);
  return hr;
}

// Reads the listed value pName and decodes it. S_OK with no array when the
// second read fails (the value changed in between).
HRESULT ReadListedValue(const char* pRootKey, const char* pSubKey, const char* pName, SAFEARRAY*& psaDataValue,
                        bool& bLast) {
  unsigned int dwType = REG_NONE;
  unsigned int dwSize = 0;
  bLast = true;
  if (qxRegReadValueEx(pRootKey, pSubKey, pName, &dwType, NULL, &dwSize, 0) != 0) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::GetData qxRegReadValueEx failed");
    return E_INVALIDARG;
  }
  if (dwSize == 0) {
    // Found, and the scan goes on.
    bLast = false;
    return DecodeRegistryValue(dwType, NULL, 0, psaDataValue);
  }
  SecureByteVector buffer(dwSize, 0);
  if (qxRegReadValueEx(pRootKey, pSubKey, pName, &dwType, buffer.data(), &dwSize, 0) != 0) {
    bLast = false;
    return S_OK;
  }
  return DecodeRegistryValue(dwType, buffer.data(), dwSize, psaDataValue);
}

}  // namespace

HRESULT CRegistryTree::SetData(const SecureString& sCompartmentId, const SecureString& sDataId,
                               SAFEARRAY* psaDataValue, unsigned int dwClientProcessId, signed char /*bEncrypted*/) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::SetData");
  UpdateRegistryKey(dwClientProcessId);
  ScopedBstr pSubKey;
  HRESULT hr = BeginOperation("SetData", "pSubKey", sCompartmentId, pSubKey);
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    // The key's opening and the value's write are one registry transaction,
    // committed with the write.
    xk::registry::Batch batch(XK_REG_BATCH_WRITE);
    HKEY hKey = NULL;
    unsigned int dwDisposition = 0;
    long lRet = xkRegCreateKeyEx(m_pRootKey, pSubKey.get(), 0, NULL, 0, 3, NULL, &hKey, &dwDisposition);
    if (lRet != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData RegCreateKeyEx failed lRet = %ld", lRet);
      hr = E_FAIL;
    } else {
      hr = WriteNamedValue(hKey, sDataId, psaDataValue, kMaxValueNameLength, batch);
    }
    // Also after a failed create, on the handle that was never set.
    lRet = xkRegCloseKey(hKey);
    if (lRet != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData RegCloseKey failed lRet = %ld", lRet);
      hr = E_FAIL;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::SetData hr = 0x%x", hr);
  return hr;
}

HRESULT CRegistryTree::GetData(const SecureString& sCompartmentId, const SecureString& sDataId,
                               SAFEARRAY*& psaDataValue, unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::GetData");
  UpdateRegistryKey(dwClientProcessId);
  ScopedBstr pSubKey;
  HRESULT hr = BeginOperation("GetData", "lpSubKey", sCompartmentId, pSubKey);
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    // The listings and the reads see one state of the registry.
    xk::registry::Batch batch(XK_REG_BATCH_READ);
    ValueListing listing;
    const int rc = ListValueNames(m_pRootKey, pSubKey.get(), listing);
    if (listing.nValueCount2 > listing.nValueCount1) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::GetData nValueCount2 > nValueCount1 = %d > %d",
               static_cast<int>(listing.nValueCount2), static_cast<int>(listing.nValueCount1));
      hr = E_FAIL;
    } else if (rc != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::GetData qxRegListValueNamesEx failed");
      hr = E_INVALIDARG;
    } else {
      bool bFound = false;
      for (unsigned int i = 0; i < listing.nValueCount2; ++i) {
        char* pName = listing.records[i].szName;
        SecureString sName;
        if (FAILED(BSTR2wstring(pName, sName))) {
          xklogLog(MSTORE_MODULE, 1, "CRegistryTree::GetData BSTR2wstring failed");
          continue;
        }
        if (sName != sDataId) {
          xklogLog(MSTORE_MODULE, 0, "CRegistryTree::GetData datas are different");
          continue;
        }
        bFound = true;
        bool bLast = true;
        hr = ReadListedValue(m_pRootKey, pSubKey.get(), pName, psaDataValue, bLast);
        if (bLast) break;
      }
      if (!bFound) {
        xklogLog(MSTORE_MODULE, 2, "CRegistryTree::GetData data was not found");
        hr = E_INVALIDARG;
      }
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::GetData hr = 0x%x", hr);
  return hr;
}

HRESULT CRegistryTree::RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                                  unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::RemoveData");
  UpdateRegistryKey(dwClientProcessId);
  ScopedBstr pSubKey;
  HRESULT hr = BeginOperation("RemoveData", "pSubKey", sCompartmentId, pSubKey);
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    BSTR bstrValueName = NULL;
    hr = wstring2BSTR(sDataId, bstrValueName);
    ScopedBstr pValueName(bstrValueName);
    const unsigned int nLength = SysStringLen(pValueName.get());
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::RemoveData wstring2BSTR failed");
      hr = E_FAIL;
    } else if (nLength > kMaxValueNameLength) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::RemoveData length of pValueName = %d greater than %d",
               static_cast<int>(nLength), static_cast<int>(kMaxValueNameLength));
      hr = E_INVALIDARG;
    } else {
      // Any refusal, whatever its cause, is the one code the callers know.
      const int rc = qxRegDeleteValue(m_pRootKey, pSubKey.get(), pValueName.get(), 0);
      if (rc != 0) {
        xklogLog(MSTORE_MODULE, 1, "CRegistryTree::RemoveData qxRegDeleteValue failed : rc = %d", rc);
        hr = E_INVALIDARG;
      }
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::RemoveData hr = 0x%x", hr);
  return hr;
}

HRESULT CRegistryTree::IsDataCached(const SecureString& sCompartmentId, const SecureString& sDataId,
                                    signed char* pbCached, unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::IsDataCached");
  UpdateRegistryKey(dwClientProcessId);
  HRESULT hr = S_OK;
  ScopedBstr pSubKey;
  if (pbCached == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::IsDataCached pbCached == NULL");
    hr = E_FAIL;
  } else {
    hr = BeginOperation("IsDataCached", "pSubKey", sCompartmentId, pSubKey);
  }
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    ValueListing listing;
    const int rc = ListValueNames(m_pRootKey, pSubKey.get(), listing);
    if (rc != 0) {
      // An absent compartment is simply not cached.
      xklogLog(MSTORE_MODULE, 2, "CRegistryTree::IsDataCached qxRegListValueNamesEx failed");
      *pbCached = 0;
    } else if (listing.nValueCount2 > listing.nValueCount1) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::IsDataCached nValueCount2 > nValueCount1 = %d > %d",
               static_cast<int>(listing.nValueCount2), static_cast<int>(listing.nValueCount1));
      hr = E_FAIL;
    } else {
      // Every name is compared; a failed conversion stays the result if it came last.
      signed char bCached = 0;
      for (unsigned int i = 0; i < listing.nValueCount2; ++i) {
        SecureString sName;
        hr = BSTR2wstring(listing.records[i].szName, sName);
        if (FAILED(hr)) {
          xklogLog(MSTORE_MODULE, 1, "CRegistryTree::IsDataCached BSTR2wstring failed");
          continue;
        }
        if (sName == sDataId) bCached = 1;
      }
      *pbCached = bCached;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::IsDataCached hr = 0x%x", hr);
  return hr;
}

HRESULT CRegistryTree::ListDataIds(const SecureString& sCompartmentId, SAFEARRAY** ppsaDataIdList,
                                   unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::ListDataIds");
  UpdateRegistryKey(dwClientProcessId);
  HRESULT hr = S_OK;
  ScopedBstr pSubKey;
  if (ppsaDataIdList == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::ListDataIds ppsaDataIdList == NULL");
    hr = E_FAIL;
  } else {
    hr = BeginOperation("ListDataIds", "pSubKey", sCompartmentId, pSubKey);
  }
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    ValueListing listing;
    const int rc = ListValueNames(m_pRootKey, pSubKey.get(), listing);
    if (rc != 0) {
      xklogLog(MSTORE_MODULE, 2, "CRegistryTree::ListDataIds qxRegListValueNamesEx failed");
      hr = E_FAIL;
    } else if (listing.nValueCount2 > listing.nValueCount1) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::ListDataIds nValueCount2 > nValueCount1 = %d > %d",
               static_cast<int>(listing.nValueCount2), static_cast<int>(listing.nValueCount1));
      hr = E_FAIL;
    } else {
      SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, listing.nValueCount2);
      *ppsaDataIdList = psa;
      for (int i = 0; i < static_cast<int>(listing.nValueCount2); ++i) {
        BSTR bstrName = SysAllocString(listing.records[i].szName);
        hr = SafeArrayPutElement(psa, &i, bstrName);
        qxSysFreeString(bstrName, 0);
        if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CRegistryTree::ListDataIds SafeArrayPutElement failed");
      }
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::ListDataIds hr = 0x%x", hr);
  return hr;
}
