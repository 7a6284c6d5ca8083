#include "registration/StaticDataStoreRegistration.h"

#include <vector>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "trees/MemoryTree.h"
#include "trees/VersionHistory.h"
#include "xk/log.h"
#include "xk/registry.h"

namespace QX {
namespace DataStore {

namespace {

const char kHive[] = "HKEY_LOCAL_MACHINE";
const char kStoreListKey[] = "Software\\Norvane Co\\Merrowstore\\StoreList";
const char kDefaultProduct[] = "Keldara";
const unsigned int kAllValueTypes = 0xFFFFFFFF;

// Reads one DWORD flag; only an exact 1 sets it. Answers the registry status.
int ReadFlag(char* bstrSubKey, const SecureString& sName, bool& bSet) {
  unsigned int dwValue = 0;
  const int rc = qxRegReadDWORDValueEx(kHive, bstrSubKey, sName.c_str(), &dwValue, 0);
  if (rc == 0 && dwValue == 1) bSet = true;
  return rc;
}

// Reads the product text into a new BSTR, replacing the entry's default.
int ReadProduct(char* bstrSubKey, const SecureString& sName, _regInfos& entry) {
  unsigned int nSize = 0;
  int rc = qxRegReadStringValueEx(kHive, bstrSubKey, sName.c_str(), NULL, &nSize, 0);
  if (rc != 0) return rc;
  std::vector<char> buffer(nSize, '\0');
  rc = qxRegReadStringValueEx(kHive, bstrSubKey, sName.c_str(), buffer.data(), &nSize, 0);
  if (rc == 0) {
    qxSysFreeString(entry.sBSTRProduct, 0);
    entry.sBSTRProduct = SysAllocString(buffer.data());
  }
  return rc;
}

// Applies the listed values of one sub-key to its entry; any other value is
// ignored. Answers the first failing read's status, or 0.
int ReadValues(char* bstrSubKey, std::vector<qxRegValue_>& values, unsigned int nValueCount,
               _regInfos& entry) {
  for (unsigned int i = 0; i < nValueCount; ++i) {
    SecureString sName;
    if (FAILED(BSTR2wstring(values[i].szName, sName))) continue;
    int rc = 0;
    bool bSet = false;
    if (sName == "Type") {
      rc = ReadFlag(bstrSubKey, sName, bSet);
      if (bSet) entry.eType = TypeRemanent;
    } else if (sName == "Encrypted") {
      rc = ReadFlag(bstrSubKey, sName, bSet);
      if (bSet) entry.bEncrypted = 1;
    } else if (sName == "SharedBetweenUserSessions") {
      rc = ReadFlag(bstrSubKey, sName, bSet);
      if (bSet) entry.bSharedBetweenUserSessions = 1;
    } else if (sName == "Product") {
      rc = ReadProduct(bstrSubKey, sName, entry);
    }
    if (rc != 0) return rc;
  }
  return 0;
}

// Reads the sub-keys in the order listed; the first failure ends the walk.
HRESULT ReadStores(const SecureString& sStoreListKey, const std::vector<qxRegKey_>& subKeys, unsigned int nSubKeyCount,
                   std::list<_regInfos>& regInfos) {
  HRESULT hr = S_OK;
  for (unsigned int i = 0; i < nSubKeyCount; ++i) {
    BSTR bstrSubKey = NULL;
    hr = wstring2BSTR(sStoreListKey + "\\" + subKeys[i].szName, bstrSubKey);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "GetRegInfos wstring2BSTR failed");
      break;
    }
    _regInfos entry = {NULL, TypeMemory, 0, 0, SysAllocString(kDefaultProduct)};

    unsigned int nValueCount1 = 0;
    int rcList = qxRegListValueNamesEx(kHive, bstrSubKey, NULL, &nValueCount1, kAllValueTypes, 0);
    if (rcList == 0) {
      std::vector<qxRegValue_> values(nValueCount1);
      unsigned int nValueCount2 = nValueCount1;
      rcList = qxRegListValueNamesEx(kHive, bstrSubKey, values.data(), &nValueCount2, kAllValueTypes, 0);
      if (nValueCount2 > nValueCount1) {
        xklogLog(MSTORE_MODULE, 1, "GetRegInfos nValueCount2 > nValueCount1 = %d > %d", static_cast<int>(nValueCount2),
                 static_cast<int>(nValueCount1));
        qxSysFreeString(entry.sBSTRProduct, 0);
        qxSysFreeString(bstrSubKey, 0);
        hr = E_FAIL;
        break;
      }
      if (rcList == 0) {
        const int rcRead = ReadValues(bstrSubKey, values, nValueCount2, entry);
        if (rcRead != 0) {
          // The store being read gets no entry.
          xklogLog(MSTORE_MODULE, 1, "GetRegInfos qxRegRead failed rc = %x", static_cast<unsigned int>(rcRead));
          qxSysFreeString(entry.sBSTRProduct, 0);
          qxSysFreeString(bstrSubKey, 0);
          hr = E_FAIL;
          break;
        }
      }
      // Entered even when the second listing failed: the entry then holds the defaults.
      entry.sBSTRStoreId = SysAllocString(subKeys[i].szName);
      regInfos.push_back(entry);
    } else {
      qxSysFreeString(entry.sBSTRProduct, 0);
    }
    qxSysFreeString(bstrSubKey, 0);
    if (rcList != 0) {
      xklogLog(MSTORE_MODULE, 1, "GetRegInfos qxRegListValueNames failed rc = %x", static_cast<unsigned int>(rcList));
      hr = E_FAIL;
      break;
    }
  }
  return hr;
}

}  // namespace

HRESULT GetRegInfos(std::list<_regInfos>& regInfos) {
  const SecureString sStoreListKey(kStoreListKey);
  BSTR bstrStoreListKey = NULL;
  HRESULT hr = wstring2BSTR(sStoreListKey, bstrStoreListKey);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "GetRegInfos wstring2BSTR failed");
    return hr;
  }
  // Callers hand in an empty list; nothing in it is released here.
  regInfos.clear();

  unsigned int nSubKeyCount1 = 0;
  int rc = qxRegListKeysEx(kHive, bstrStoreListKey, NULL, &nSubKeyCount1, 0);
  if (rc != 0) {
    xklogLog(MSTORE_MODULE, 1, "GetRegInfos qxRegListKeys failed rc = %x", static_cast<unsigned int>(rc));
    hr = E_FAIL;
  } else {
    std::vector<qxRegKey_> subKeys(nSubKeyCount1);
    unsigned int nSubKeyCount2 = nSubKeyCount1;
    rc = qxRegListKeysEx(kHive, bstrStoreListKey, subKeys.data(), &nSubKeyCount2, 0);
    if (nSubKeyCount2 > nSubKeyCount1) {
      xklogLog(MSTORE_MODULE, 1, "GetRegInfos nSubKeyCount2 > nSubKeyCount1 = %d > %d", static_cast<int>(nSubKeyCount2),
               static_cast<int>(nSubKeyCount1));
      hr = E_FAIL;
    } else if (rc != 0) {
      xklogLog(MSTORE_MODULE, 1, "GetRegInfos qxRegListKeys failed rc = %x", static_cast<unsigned int>(rc));
      hr = E_FAIL;
    } else {
      hr = ReadStores(sStoreListKey, subKeys, nSubKeyCount2, regInfos);
    }
  }
  qxSysFreeString(bstrStoreListKey, 0);
  return hr;
}

void ClearRegInfos(std::list<_regInfos>& regInfos) {
  for (_regInfos& entry : regInfos) {
    qxSysFreeString(entry.sBSTRStoreId, 0);
    qxSysFreeString(entry.sBSTRProduct, 0);
  }
  regInfos.clear();
}

StaticDataStoreRegistration::StaticDataStoreRegistration() {
  xklogLog(MSTORE_MODULE, 8, "StaticDataStoreRegistration::StaticDataStoreRegistration");
  // The shared version tree exists before the first store does, whatever the
  // catalogue holds.
  if (gHistoryTree == NULL) gHistoryTree = new CMemoryTree(SecureString("History"));

  // Whatever was gathered before a failure is registered; a store that fails
  // is missing and the following ones are still registered.
  std::list<_regInfos> regInfos;
  GetRegInfos(regInfos);
  for (const _regInfos& entry : regInfos)
    CStaticDataCacheClient::RegisterDataStore(entry.sBSTRStoreId, entry.eType, entry.bEncrypted,
                                              entry.bSharedBetweenUserSessions, entry.sBSTRProduct);
  ClearRegInfos(regInfos);
  xklogLog(MSTORE_MODULE, 16, "StaticDataStoreRegistration::StaticDataStoreRegistration");
}

StaticDataStoreRegistration::~StaticDataStoreRegistration() {
  xklogLog(MSTORE_MODULE, 8, "StaticDataStoreRegistration::~StaticDataStoreRegistration");
  for (auto& entry : m_Stores) {
    if (entry.second == NULL) continue;
    entry.second->End();
    delete entry.second;
  }
  m_Stores.clear();
  // gHistoryTree stays until the process ends; no store mutex is destroyed.
  xklogLog(MSTORE_MODULE, 16, "StaticDataStoreRegistration::~StaticDataStoreRegistration");
}

}  // namespace DataStore
}  // namespace QX
