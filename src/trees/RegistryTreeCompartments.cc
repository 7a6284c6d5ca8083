// Compartments and listings of CRegistryTree: a compartment is a key, so the
// registry's own hierarchy does the work. RegDelTree and RegListTree are the
// two recursive key walks; both always enumerate index 0.

#include <cerrno>
#include <cstring>
#include <memory>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "trees/RegistryTree.h"
#include "trees/VersionHistory.h"
#include "xk/log.h"
#include "xk/registry.h"

namespace {

// Puts the identifiers at indices 0, 1, ...: a failed conversion ends the
// listing with its result, a failed put is logged and the listing goes on.
// Answers the last put's result.
template <typename Names>
HRESULT PutNames(SAFEARRAY* psa, const Names& names, const char* sOperation) {
  HRESULT hr = S_OK;
  int i = 0;
  for (const SecureString& sName : names) {
    BSTR bstrName = NULL;
    hr = wstring2BSTR(sName, bstrName);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::%s wstring2BSTR failed", sOperation);
      return hr;
    }
    hr = SafeArrayPutElement(psa, &i, bstrName);
    qxSysFreeString(bstrName, 0);
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CRegistryTree::%s SafeArrayPutElement failed hr = %x", sOperation, hr);
    ++i;
  }
  return hr;
}

// How long a child's name may be below sPath (which ends in a backslash): the
// room left in a key buffer, less 2 more when the walk added that backslash.
long long NameRoom(const SecureString& sPath, bool bAddedBackslash, unsigned int nBufferSize) {
  return static_cast<long long>(nBufferSize) - static_cast<long long>(sPath.size()) - (bAddedBackslash ? 2 : 0);
}

}  // namespace

HRESULT CRegistryTree::CreateCompartment(const SecureString& sCompartmentId, unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::CreateCompartment");
  UpdateRegistryKey(dwClientProcessId);
  ScopedBstr pSubKey;
  HRESULT hr = BeginOperation("CreateCompartment", "pSubKey", sCompartmentId, pSubKey);
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    HKEY hKey = NULL;
    unsigned int dwDisposition = 0;
    if (xkRegCreateKeyEx(m_pRootKey, pSubKey.get(), 0, NULL, 0, 3, NULL, &hKey, &dwDisposition) != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::CreateCompartment RegCreateKeyEx failed");
      hr = E_FAIL;
    }
    if (xkRegCloseKey(hKey) != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::CreateCompartment RegCloseKey failed");
      hr = E_FAIL;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::CreateCompartment hr = 0x%x", hr);
  return hr;
}

HRESULT CRegistryTree::RemoveCompartment(const SecureString& sCompartmentId, signed char bUpdateVersions,
                                         unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::RemoveCompartment");
  UpdateRegistryKey(dwClientProcessId);
  ScopedBstr pSubKey;
  HRESULT hr = BeginOperation("RemoveCompartment", "pSubKey", sCompartmentId, pSubKey);
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    // Opening is the test of existence.
    HKEY hKey = NULL;
    const long lResult = xkRegOpenKeyEx(m_pRootKey, pSubKey.get(), 0, 0, &hKey);
    const int dwLastError = errno;
    if (lResult != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::RemoveCompartment RegOpenKeyEx failed : lResult = %x dwLastError = %x",
               static_cast<unsigned int>(lResult), static_cast<unsigned int>(dwLastError));
      xkRegCloseKey(hKey);
      hr = E_INVALIDARG;
    } else {
      xkRegCloseKey(hKey);
      // A partly failed deletion is reported as a success.
      if (RegDelTree(m_pRootKey, pSubKey.get(), bUpdateVersions) == 0)
        xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RemoveCompartment RegDelTree return FALSE");
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::RemoveCompartment hr = 0x%x", hr);
  return hr;
}

int CRegistryTree::RegDelTree(char* pRootKey, char* pSubKey, signed char bUpdateVersions) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::RegDelTree");
  int bRet = 0;
  const std::size_t nLength = std::strlen(pSubKey);
  if (nLength > kMaxKeyPathLength) {
    // Refused, and counted as a success.
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::RegDelTree length of pSubKey = %d greater than %d",
             static_cast<int>(nLength), static_cast<int>(kMaxKeyPathLength));
    bRet = 1;
  } else if (qxRegDeleteKey(pRootKey, pSubKey, 0, 0) == 0) {
    // A key without subkeys goes at the first try, unopened.
    xklogLog(MSTORE_MODULE, 0, "CRegistryTree::RegDelTree qxRegDeleteKey succeeded");
    bRet = 1;
  } else {
    SecureString sPath(pSubKey, nLength);
    HKEY hKey = NULL;
    long lResult = xkRegOpenKeyEx(pRootKey, sPath.c_str(), 0, 0, &hKey);
    const int dwLastError = errno;
    if (lResult != 0) {
      xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegDelTree RegOpenKeyEx failed : lResult = %x dwLastError = %x",
               static_cast<unsigned int>(lResult), static_cast<unsigned int>(dwLastError));
    } else {
      const bool bAdded = sPath.empty() || sPath.back() != '\\';
      if (bAdded) sPath += '\\';
      const long long nRoom = NameRoom(sPath, bAdded, kKeyBufferSize);
      char szName[kKeyBufferSize];
      unsigned int dwSize = kKeyBufferSize;
      FILETIME ftLastWriteTime;
      // Index 0 at every turn: each child is gone by the next one.
      while (xkRegEnumKeyEx(hKey, 0, szName, &dwSize, NULL, NULL, NULL, &ftLastWriteTime) == 0) {
        if (static_cast<long long>(dwSize) > nRoom) {
          xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegDelTree dwSize too long");
          break;
        }
        SecureString sChild = sPath + SecureString(szName, dwSize);
        if (RegDelTree(pRootKey, sChild.data(), bUpdateVersions) == 0) {
          xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegDelTree RegDelTree failed");
          break;
        }
        if (bUpdateVersions) {
          // After the child's own subtree: the deepest keys move first.
          SecureString sVersionKey;
          HRESULT hr = CompartmentIdFromPath(sChild.data(), sVersionKey);
          if (FAILED(hr)) {
            xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegDelTree BSTR2wstring failed hr = %x", hr);
          } else {
            hr = UpdateVersion(sVersionKey, 0);
            if (FAILED(hr)) xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegDelTree UpdateVersion failed hr = %x", hr);
            hr = UpdateVersion(sVersionKey, 1);
            if (FAILED(hr)) xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegDelTree UpdateVersion failed hr = %x", hr);
          }
        }
        dwSize = kKeyBufferSize;
      }
      if (bAdded) sPath.pop_back();
      lResult = xkRegCloseKey(hKey);
      xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegDelTree RegCloseKey lResult = 0x%x",
               static_cast<unsigned int>(lResult));
      // Tried even when the loop was left early.
      bRet = qxRegDeleteKey(pRootKey, sPath.c_str(), 0, 0) == 0 ? 1 : 0;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::RegDelTree hr = 0x%x", static_cast<unsigned int>(bRet));
  return bRet;
}

long CRegistryTree::RegListTree(char* pRootKey, char* pSubKey, std::list<SecureString>& compartmentIds) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::RegListTree");
  long lResult = 0;
  const std::size_t nLength = std::strlen(pSubKey);
  if (nLength > kMaxKeyPathLength) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::RegListTree length of pSubKey = %d greater than %d",
             static_cast<int>(nLength), static_cast<int>(kMaxKeyPathLength));
  } else {
    SecureString sPath(pSubKey, nLength);
    HKEY hKey = NULL;
    lResult = xkRegOpenKeyEx(pRootKey, sPath.c_str(), 0, 0, &hKey);
    const int dwLastError = errno;
    if (lResult != 0) {
      xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegListTree RegOpenKeyEx failed : lResult = %x dwLastError = %x",
               static_cast<unsigned int>(lResult), static_cast<unsigned int>(dwLastError));
    } else {
      SecureString sCompartmentId2;
      const HRESULT hr = CompartmentIdFromPath(sPath.data(), sCompartmentId2);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegListTree BSTR2wstring failed hr = %x", hr);
      } else {
        xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegListTree sCompartmentId2 = %s", sCompartmentId2.c_str());
        compartmentIds.push_back(sCompartmentId2);
      }
      const bool bAdded = sPath.empty() || sPath.back() != '\\';
      if (bAdded) sPath += '\\';
      const long long nRoom = NameRoom(sPath, bAdded, kKeyBufferSize);
      char szName[kKeyBufferSize];
      unsigned int dwSize = kKeyBufferSize;
      FILETIME ftLastWriteTime;
      // The loop of RegDelTree, kept as it is: index 0 at every turn although
      // nothing is deleted, and a recursion's 0 (its success) taken for a
      // failure. So one chain is walked, first subkey under first subkey, with
      // one "RegListTree failed" line a level on the way back; a child that
      // can't be opened is asked for again for as long as that lasts.
      if (xkRegEnumKeyEx(hKey, 0, szName, &dwSize, NULL, NULL, NULL, &ftLastWriteTime) == 0) {
        do {
          if (static_cast<long long>(dwSize) > nRoom) {
            xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegListTree dwSize too long");
            break;
          }
          SecureString sChild = sPath + SecureString(szName, dwSize);
          if (RegListTree(pRootKey, sChild.data(), compartmentIds) == 0) {
            xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegListTree RegListTree failed");
            break;
          }
          dwSize = kKeyBufferSize;
        } while (xkRegEnumKeyEx(hKey, 0, szName, &dwSize, NULL, NULL, NULL, &ftLastWriteTime) == 0);
      }
      if (bAdded) sPath.pop_back();
      lResult = xkRegCloseKey(hKey);
      xklogLog(MSTORE_MODULE, 2, "CRegistryTree::RegListTree RegCloseKey lResult = 0x%x",
               static_cast<unsigned int>(lResult));
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::RegListTree hr = 0x%x", static_cast<unsigned int>(lResult));
  return lResult;
}

HRESULT CRegistryTree::FlushTree(unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::FlushTree");
  const SecureString sRegistryPath = m_sRegistryKey + m_sTreeId;
  UpdateRegistryKey(dwClientProcessId);
  ScopedBstr pSubKey;
  HRESULT hr = MakeSubKey("FlushTree", "pSubKey", sRegistryPath, pSubKey);
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    // The whole subtree in one call; no counter moves.
    if (qxRegDeleteSubKey(m_pRootKey, pSubKey.get(), 0, 0) != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::FlushTree qxRegDeleteSubKey failed");
      hr = E_FAIL;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::FlushTree hr = 0x%x", hr);
  return hr;
}

HRESULT CRegistryTree::ListCompartmentIds(const SecureString& sCompartmentId, SAFEARRAY** ppsCompartmentIdList,
                                          unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::ListCompartmentIds");
  UpdateRegistryKey(dwClientProcessId);
  HRESULT hr = S_OK;
  ScopedBstr pSubKey;
  if (ppsCompartmentIdList == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::ListCompartmentIds ppsCompartmentIdList == NULL");
    hr = E_FAIL;
  } else {
    hr = BeginOperation("ListCompartmentIds", "pSubKey", sCompartmentId, pSubKey);
  }
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    unsigned int nSubKeyCount1 = 0;
    std::unique_ptr<qxRegKey_[]> records;
    unsigned int nSubKeyCount2 = 0;
    int rc = 0;
    {
      // Both passes see one state of the registry.
      xk::registry::Batch batch(XK_REG_BATCH_READ);
      rc = qxRegListKeys(m_pRootKey, pSubKey.get(), NULL, &nSubKeyCount1);
      if (rc == 0) {
        records.reset(new qxRegKey_[nSubKeyCount1]);
        nSubKeyCount2 = nSubKeyCount1;
        rc = qxRegListKeys(m_pRootKey, pSubKey.get(), records.get(), &nSubKeyCount2);
      }
    }
    if (rc != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::ListCompartmentIds qxRegListKeys failed rc = %x",
               static_cast<unsigned int>(rc));
      hr = E_FAIL;
    } else if (nSubKeyCount2 > nSubKeyCount1) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::ListCompartmentIds nSubKeyCount2 > nSubKeyCount1 = %d > %d",
               static_cast<int>(nSubKeyCount2), static_cast<int>(nSubKeyCount1));
      hr = E_FAIL;
    } else {
      std::list<SecureString> names;
      for (unsigned int i = 0; i < nSubKeyCount2; ++i)
        names.emplace_back(records[i].szName, strnlen(records[i].szName, sizeof(records[i].szName)));
      SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, nSubKeyCount2);
      *ppsCompartmentIdList = psa;
      hr = PutNames(psa, names, "ListCompartmentIds");
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::ListCompartmentIds hr = 0x%x", hr);
  return hr;
}

HRESULT CRegistryTree::ListAllCompartmentIds(SAFEARRAY** ppsAllCompartmentIdList) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::ListAllCompartmentIds");
  HRESULT hr = S_OK;
  ScopedBstr pSubKey;
  if (ppsAllCompartmentIdList == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::ListAllCompartmentIds ppsAllCompartmentIdList == NULL");
    hr = E_FAIL;
  } else {
    hr = BeginOperation("ListAllCompartmentIds", "pSubKey", SecureString("/"), pSubKey);
  }
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    std::list<SecureString> compartmentIds;
    if (RegListTree(m_pRootKey, pSubKey.get(), compartmentIds) != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::ListAllCompartmentIds RegListTree failed");
      hr = E_FAIL;
    } else {
      xklogLog(MSTORE_MODULE, 2, "CRegistryTree::ListAllCompartmentIds nbSubKeyCount = %d",
               static_cast<int>(compartmentIds.size()));
      SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, compartmentIds.size());
      *ppsAllCompartmentIdList = psa;
      hr = PutNames(psa, compartmentIds, "ListAllCompartmentIds");
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::ListAllCompartmentIds hr = 0x%x", hr);
  return hr;
}

HRESULT CRegistryTree::IsCompartmentCached(const SecureString& sCompartmentId, unsigned long* pulCompartmentVersion,
                                           unsigned long* pulContentVersion, signed char* pbCached,
                                           unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::IsCompartmentCached");
  UpdateRegistryKey(dwClientProcessId);
  HRESULT hr = S_OK;
  ScopedBstr pSubKey;
  if (pulCompartmentVersion == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::IsCompartmentCached pulCompartmentVersion == NULL");
    hr = E_FAIL;
  } else if (pulContentVersion == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::IsCompartmentCached pulContentVersion == NULL");
    hr = E_FAIL;
  } else if (pbCached == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::IsCompartmentCached pbCached == NULL");
    hr = E_FAIL;
  } else {
    hr = BeginOperation("IsCompartmentCached", "pSubKey", sCompartmentId, pSubKey);
    if (SUCCEEDED(hr) && pSubKey == NULL) {
      *pulCompartmentVersion = 0;
      *pulContentVersion = 0;
      *pbCached = 0;
    }
  }
  if (SUCCEEDED(hr) && pSubKey != NULL) {
    HKEY hKey = NULL;
    const long lRet = xkRegOpenKeyEx(m_pRootKey, pSubKey.get(), 0, 0, &hKey);
    const int dwLastError = errno;
    const signed char bCached = lRet == 0 ? 1 : 0;
    if (lRet != 0)
      xklogLog(MSTORE_MODULE, 2, "CRegistryTree::IsCompartmentCached RegOpenKeyEx failed : lRet = %x dwLastError = %x",
               static_cast<unsigned int>(lRet), static_cast<unsigned int>(dwLastError));
    SecureString sHistoryKey = m_sTreeId;
    if (sCompartmentId != "/") sHistoryKey += "/" + sCompartmentId;
    unsigned long ulCompartmentVersion = 0;
    unsigned long ulContentVersion = 0;
    hr = GetVersion(sHistoryKey, &ulCompartmentVersion, &ulContentVersion);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::IsCompartmentCached GetVersion failed hr = %x", hr);
    } else {
      *pulCompartmentVersion = ulCompartmentVersion;
      *pulContentVersion = ulContentVersion;
      *pbCached = bCached;
    }
    if (bCached && xkRegCloseKey(hKey) != 0) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::IsCompartmentCached RegCloseKey failed");
      hr = E_FAIL;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::IsCompartmentCached hr = 0x%x", hr);
  return hr;
}
