#include "merrowstore/StaticDataCacheClient.h"

#include "common/FctUtils.h"
#include "common/Module.h"
#include "common/StoreIdList.h"
#include "datastore/InternalDataStore.h"
#include "registration/StaticDataStoreRegistration.h"
#include "xk/log.h"

namespace QX {
namespace DataStore {

namespace {

// Converts the store id and finds its store, with the texts of sOperation.
HRESULT FindStore(const char* sOperation, char* sStoreId, CInternalDataStore*& pInternalDataStore) {
  SecureString sId;
  HRESULT hr = BSTR2wstring(sStoreId, sId);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::%s BSTR2wstring failed", sOperation);
    return hr;
  }
  auto& stores = gStaticDataStoreRegistration.m_Stores;
  auto it = stores.find(sId);
  if (it == stores.end()) {
    xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::%s Didn't find IDataStore with this id", sOperation);
    return E_FAIL;
  }
  if (it->second == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::%s pInternalDataStore is NULL", sOperation);
    return E_FAIL;
  }
  pInternalDataStore = it->second;
  return S_OK;
}

// The road of every member that forwards to one store: entry log, lookup, the
// call (with the calling process 0), failure and exit logs. The client never
// looks at compartment ids, data ids or values.
template <typename Call>
HRESULT Forward(const char* sOperation, char* sStoreId, Call call) {
  xklogLog(MSTORE_MODULE, 8, "CStaticDataCacheClient::%s", sOperation);
  CInternalDataStore* pInternalDataStore = NULL;
  HRESULT hr = FindStore(sOperation, sStoreId, pInternalDataStore);
  if (SUCCEEDED(hr)) {
    hr = call(*pInternalDataStore);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::%s: %s failed hr = %x", sOperation, sOperation,
               static_cast<unsigned int>(hr));
  }
  xklogLog(MSTORE_MODULE, 16, "CStaticDataCacheClient::%s hr = 0x%x", sOperation, static_cast<unsigned int>(hr));
  return hr;
}

}  // namespace

CStaticDataCacheClient::CStaticDataCacheClient() {
  xklogLog(MSTORE_MODULE, 8, "CStaticDataCacheClient::CStaticDataCacheClient");
}

CStaticDataCacheClient::~CStaticDataCacheClient() {
  xklogLog(MSTORE_MODULE, 16, "CStaticDataCacheClient::~CStaticDataCacheClient");
}

HRESULT CStaticDataCacheClient::RegisterDataStore(char* sStoreId, Type eType, signed char bEncrypted,
                                                  signed char bSharedBetweenUserSessions, char* sProduct) {
  xklogLog(MSTORE_MODULE, 8, "CStaticDataCacheClient::RegisterDataStore");
  SecureString sProductId;
  SecureString sId;
  HRESULT hr = BSTR2wstring(sProduct, sProductId);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 2, "CStaticDataCacheClient::RegisterDataStore BSTR2wstring failed");
  } else {
    hr = BSTR2wstring(sStoreId, sId);
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::RegisterDataStore BSTR2wstring failed");
  }
  if (SUCCEEDED(hr)) {
    auto& stores = gStaticDataStoreRegistration.m_Stores;
    if (stores.find(sId) != stores.end()) {
      xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::RegisterDataStore This DataStore id already exist !");
      hr = E_FAIL;
    } else {
      CInternalDataStore* pInternalDataStore = new CInternalDataStore();
      hr = pInternalDataStore->Begin(sStoreId, eType, bEncrypted, bSharedBetweenUserSessions, sProductId);
      if (FAILED(hr)) {
        // Destroyed without End: a failed Begin leaves no tree behind.
        delete pInternalDataStore;
        xklogLog(MSTORE_MODULE, 2, "CStaticDataCacheClient::RegisterDataStore Begin failed");
      } else {
        stores[sId] = pInternalDataStore;
      }
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CStaticDataCacheClient::RegisterDataStore hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CStaticDataCacheClient::ListDataStoreIds(tagSAFEARRAY** ppsaStoreIds) {
  xklogLog(MSTORE_MODULE, 8, "CStaticDataCacheClient::ListDataStoreIds");
  const HRESULT hr = ListStoreIds(gStaticDataStoreRegistration.m_Stores,
                                  "CStaticDataCacheClient::ListDataStoreIds", ppsaStoreIds);
  xklogLog(MSTORE_MODULE, 16, "CStaticDataCacheClient::ListDataStoreIds hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CStaticDataCacheClient::GetDataStoreInfo(char* sStoreId, Type* pType, signed char* pbEncrypted,
                                                 signed char* pbSharedBetweenUserSessions, char** psProduct) {
  return Forward("GetDataStoreInfo", sStoreId, [&](CInternalDataStore& store) {
    Type eType = TypeMemory;
    signed char bEncrypted = 0;
    signed char bShared = 0;
    SecureString sProduct;
    HRESULT hr = store.GetStoreInfo(eType, bEncrypted, bShared, sProduct);
    if (SUCCEEDED(hr)) {
      if (pType != NULL) *pType = eType;
      if (pbEncrypted != NULL) *pbEncrypted = bEncrypted;
      if (pbSharedBetweenUserSessions != NULL) *pbSharedBetweenUserSessions = bShared;
      if (psProduct != NULL) *psProduct = SysAllocString(sProduct.c_str());
    }
    return hr;
  });
}

HRESULT CStaticDataCacheClient::FlushDataStores(char* sProduct) {
  xklogLog(MSTORE_MODULE, 8, "CStaticDataCacheClient::FlushDataStores");
  SecureString sProductId;
  HRESULT hr = BSTR2wstring(sProduct, sProductId);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 2, "CStaticDataCacheClient::FlushDataStores BSTR2wstring failed");
  } else {
    // The code is whatever the last store examined left.
    for (const auto& entry : gStaticDataStoreRegistration.m_Stores) {
      CInternalDataStore* pInternalDataStore = entry.second;
      if (pInternalDataStore == NULL) continue;
      Type eType = TypeMemory;
      signed char bEncrypted = 0;
      signed char bShared = 0;
      SecureString sStoreProduct;
      hr = pInternalDataStore->GetStoreInfo(eType, bEncrypted, bShared, sStoreProduct);
      if (FAILED(hr))
        xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::FlushDataStores GetStoreInfo failed hr = 0x%x",
                 static_cast<unsigned int>(hr));
      if (sProductId != sStoreProduct) {
        xklogLog(MSTORE_MODULE, 2, "CStaticDataCacheClient::FlushDataStores sProduct = %s <> sProduct1 = %s",
                 sProductId.c_str(), sStoreProduct.c_str());
        continue;
      }
      hr = pInternalDataStore->FlushStore(0);
      if (FAILED(hr))
        xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::FlushDataStores FlushStore failed lRet = 0x%x, hr = 0x%x",
                 0u, static_cast<unsigned int>(hr));
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CStaticDataCacheClient::FlushDataStores hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CStaticDataCacheClient::SetData(char* sStoreId, char* sCompartmentId, char* sDataId,
                                        tagSAFEARRAY* psaDataValue) {
  return Forward("SetData", sStoreId, [&](CInternalDataStore& store) {
    return store.SetData(0, sCompartmentId, sDataId, psaDataValue);
  });
}

HRESULT CStaticDataCacheClient::GetData(char* sStoreId, char* sCompartmentId, char* sDataId,
                                        tagSAFEARRAY** ppsaDataValue) {
  // Not found is no failure here: it is logged at the detail level and
  // returned as it is.
  xklogLog(MSTORE_MODULE, 8, "CStaticDataCacheClient::GetData");
  CInternalDataStore* pInternalDataStore = NULL;
  HRESULT hr = FindStore("GetData", sStoreId, pInternalDataStore);
  if (SUCCEEDED(hr)) {
    hr = pInternalDataStore->GetData(0, sCompartmentId, sDataId, ppsaDataValue);
    if (hr == E_INVALIDARG)
      xklogLog(MSTORE_MODULE, 2, "CStaticDataCacheClient::GetData GetData : data not found");
    else if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CStaticDataCacheClient::GetData: GetData failed hr = %x", static_cast<unsigned int>(hr));
  }
  xklogLog(MSTORE_MODULE, 16, "CStaticDataCacheClient::GetData hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CStaticDataCacheClient::RemoveData(char* sStoreId, char* sCompartmentId, char* sDataId) {
  return Forward("RemoveData", sStoreId,
                 [&](CInternalDataStore& store) { return store.RemoveData(0, sCompartmentId, sDataId); });
}

HRESULT CStaticDataCacheClient::CreateCompartment(char* sStoreId, char* sCompartmentId) {
  return Forward("CreateCompartment", sStoreId,
                 [&](CInternalDataStore& store) { return store.CreateCompartment(0, sCompartmentId); });
}

HRESULT CStaticDataCacheClient::TouchCompartment(char* sStoreId, char* sCompartmentId) {
  return Forward("TouchCompartment", sStoreId,
                 [&](CInternalDataStore& store) { return store.TouchCompartment(0, sCompartmentId); });
}

HRESULT CStaticDataCacheClient::RemoveCompartment(char* sStoreId, char* sCompartmentId, signed char bRemoveVersions) {
  return Forward("RemoveCompartment", sStoreId, [&](CInternalDataStore& store) {
    return store.RemoveCompartment(0, sCompartmentId, bRemoveVersions);
  });
}

HRESULT CStaticDataCacheClient::FlushStore(char* sStoreId) {
  return Forward("FlushStore", sStoreId, [&](CInternalDataStore& store) { return store.FlushStore(0); });
}

HRESULT CStaticDataCacheClient::IsDataCached(char* sStoreId, char* sCompartmentId, char* sDataId,
                                             signed char* pbCached) {
  return Forward("IsDataCached", sStoreId,
                 [&](CInternalDataStore& store) { return store.IsDataCached(0, sCompartmentId, sDataId, pbCached); });
}

HRESULT CStaticDataCacheClient::ListDataIds(char* sStoreId, char* sCompartmentId, tagSAFEARRAY** ppsaDataIdList) {
  return Forward("ListDataIds", sStoreId,
                 [&](CInternalDataStore& store) { return store.ListDataIds(0, sCompartmentId, ppsaDataIdList); });
}

HRESULT CStaticDataCacheClient::ListCompartmentIds(char* sStoreId, char* sCompartmentId,
                                                   tagSAFEARRAY** ppsCompartmentIdList) {
  return Forward("ListCompartmentIds", sStoreId, [&](CInternalDataStore& store) {
    return store.ListCompartmentIds(0, sCompartmentId, ppsCompartmentIdList);
  });
}

HRESULT CStaticDataCacheClient::IsCompartmentCached(char* sStoreId, char* sCompartmentId,
                                                    unsigned long* pulCompartmentVersion,
                                                    unsigned long* pulContentVersion, signed char* pbCached) {
  return Forward("IsCompartmentCached", sStoreId, [&](CInternalDataStore& store) {
    return store.IsCompartmentCached(0, sCompartmentId, pulCompartmentVersion, pulContentVersion, pbCached);
  });
}

}  // namespace DataStore
}  // namespace QX
