#include "merrowstore/StaticAuthCacheClient.h"

#include "authstore/InternalAuthStore.h"
#include "common/FctUtils.h"
#include "common/Module.h"
#include "common/StoreIdList.h"
#include "registration/StaticAuthStoreRegistration.h"
#include "xk/log.h"

namespace QX {
namespace AuthStore {

namespace {

// The store every PIN operation acts on.
const char kDefaultStoreId[] = "{AEA79AF9-BECB-490a-BCCB-CD0806BA970D}";

unsigned int Code(HRESULT hr) { return static_cast<unsigned int>(hr); }

// What a store operation hands back. Whatever the caller did not take is
// released here, also after a failed call (the store issues a PIN session id
// even when a later step of SetPIN failed).
struct StoreResults {
  SAFEARRAY* pPINValue = NULL;
  BSTR bstrPINSessionId = NULL;
  int nPINState = PINStatePrompt;
  StoreResults() = default;
  StoreResults(const StoreResults&) = delete;
  StoreResults& operator=(const StoreResults&) = delete;
  ~StoreResults() {
    if (pPINValue != NULL) qxSafeArrayDestroy(pPINValue, 0);
    qxSysFreeString(bstrPINSessionId, 0);
  }
};

// Step 7, value out: the caller takes the value if it asked for it.
void GiveValue(StoreResults& results, SAFEARRAY** ppPINValue) {
  if (ppPINValue == NULL) return;
  *ppPINValue = results.pPINValue;
  results.pPINValue = NULL;
}

// Step 7, session id out: the store's BSTR as bytes. E_FAIL if they can't be
// handed out; hr otherwise.
HRESULT GiveSessionId(const char* sOperation, const StoreResults& results, SAFEARRAY** ppsaPINSessionId,
                      HRESULT hr) {
  if (results.bstrPINSessionId == NULL || ppsaPINSessionId == NULL) return hr;
  if (FAILED(GetSafeArrayBytesFromBSTR(results.bstrPINSessionId, *ppsaPINSessionId))) {
    xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::%s GetSafeArrayBytesFromBSTR failed", sOperation);
    return E_FAIL;
  }
  return hr;
}

// Step 7, state out (the Ex forms).
void GiveState(const StoreResults& results, PINState* pnPINState) {
  if (pnPINState != NULL) *pnPINState = static_cast<PINState>(results.nPINState);
}

// Step 7, flag out: only a PIN the caller may use counts as cached.
void GiveFlag(const StoreResults& results, signed char* pbCached) {
  if (pbCached != NULL) *pbCached = results.nPINState == PINStateAvailable ? 1 : 0;
}

// The road of every PIN operation. sStoreOperation names the store operation
// in the failure text. psaPINSessionId is converted (step 5) only for the
// forms that take one (bFromPINSessionId). `call` is step 6: it gets the
// store, the parameter array (NULL without parameters) and the session id
// BSTR (NULL for the other forms). `handOver` is step 7, run only after a
// successful call; it answers the result.
template <typename Call, typename HandOver>
HRESULT ForwardPIN(const char* sOperation, const char* sStoreOperation, AuthParameter* pAdditionalParameters,
                   unsigned long ulCount, bool bFromPINSessionId, SAFEARRAY* psaPINSessionId, Call call,
                   HandOver handOver) {
  // 1. Entry.
  xklogLog(MSTORE_MODULE, 8, "CStaticAuthCacheClient::%s", sOperation);
  HRESULT hr = S_OK;
  SAFEARRAY* psaParameters = NULL;
  BSTR bstrPINSessionId = NULL;
  CInternalAuthStore* pInternalAuthStore = NULL;
  // 2, 3. The default store.
  const SecureString sStoreId(kDefaultStoreId);
  const auto& stores = gStaticAuthStoreRegistration.m_Stores;
  const auto it = stores.find(sStoreId);
  if (it == stores.end()) {
    xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::%s Didn't find this id", sOperation);
    hr = E_FAIL;
  } else if (it->second == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::%s pInternalAuthStore is NULL", sOperation);
    hr = E_FAIL;
  } else {
    pInternalAuthStore = it->second;
  }
  // 4. The parameters; a NULL pointer means none, whatever ulCount says.
  if (SUCCEEDED(hr) && pAdditionalParameters != NULL) {
    hr = GetSafeArrayFromParameterStruct(pAdditionalParameters, ulCount, psaParameters);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::%s: GetSafeArrayFromParameterStruct failed hr = %x",
               sOperation, Code(hr));
  }
  // 5. The PIN session id, after the parameters.
  if (SUCCEEDED(hr) && bFromPINSessionId) {
    hr = GetBSTRFromSafeArrayBytes(psaPINSessionId, bstrPINSessionId);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::%s GetBSTRFromSafeArrayBytes failed", sOperation);
  }
  // 6. The store, for the calling process 0; 7. the results.
  if (SUCCEEDED(hr)) {
    hr = call(*pInternalAuthStore, psaParameters, bstrPINSessionId);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::%s: %s failed hr = %x", sOperation, sStoreOperation,
               Code(hr));
    else
      hr = handOver(hr);
  }
  // 8. Clean-up. Destroying the parameter array decides the result, whatever
  // came before: with parameters, a failed request reads as its destruction.
  if (bstrPINSessionId != NULL) qxSysFreeString(bstrPINSessionId, 0);
  if (psaParameters != NULL) {
    hr = qxSafeArrayDestroy(psaParameters, 0);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::%s: qxSafeArrayDestroy failed hr = %x", sOperation,
               Code(hr));
  }
  // 9. Exit.
  xklogLog(MSTORE_MODULE, 16, "CStaticAuthCacheClient::%s hr = 0x%x", sOperation, Code(hr));
  return hr;
}

// The hand-over of an operation that has nothing to hand over.
HRESULT Nothing(HRESULT hr) { return hr; }

}  // namespace

CStaticAuthCacheClient::CStaticAuthCacheClient() {
  xklogLog(MSTORE_MODULE, 8, "CStaticAuthCacheClient::CStaticAuthCacheClient");
}

CStaticAuthCacheClient::~CStaticAuthCacheClient() {
  xklogLog(MSTORE_MODULE, 16, "CStaticAuthCacheClient::~CStaticAuthCacheClient");
}

// ---- Caching ------------------------------------------------------------------

HRESULT CStaticAuthCacheClient::SetPIN(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* pPINValue,
                                       AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                       SAFEARRAY** ppsaPINSessionId) {
  StoreResults results;
  return ForwardPIN(
      "SetPIN", "SetPIN", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) {
        return store.SetPIN(0, bstrCompartmentId, bstrPINId, pPINValue, psaParameters, &results.bstrPINSessionId);
      },
      [&](HRESULT hr) { return GiveSessionId("SetPIN", results, ppsaPINSessionId, hr); });
}

HRESULT CStaticAuthCacheClient::SetPINFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId,
                                                       SAFEARRAY* psaPINSessionId, SAFEARRAY* pPINValue,
                                                       AuthParameter* pAdditionalParameters, unsigned long ulCount) {
  return ForwardPIN(
      "SetPINFromPINSessionId", "SetPINFromPINSessionId", pAdditionalParameters, ulCount, true, psaPINSessionId,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR bstrPINSessionId) {
        return store.SetPINFromPINSessionId(0, bstrCompartmentId, bstrPINId, bstrPINSessionId, pPINValue,
                                            psaParameters);
      },
      Nothing);
}

// ---- Reading --------------------------------------------------------------------

HRESULT CStaticAuthCacheClient::GetPIN(BSTR bstrCompartmentId, BSTR bstrPINId, AuthParameter* pAdditionalParameters,
                                       unsigned long ulCount, SAFEARRAY** ppPINValue, SAFEARRAY** ppsaPINSessionId) {
  StoreResults results;
  return ForwardPIN(
      "GetPIN", "GetPIN", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) {
        return store.GetPIN(0, bstrCompartmentId, bstrPINId, psaParameters, &results.pPINValue,
                            &results.bstrPINSessionId, &results.nPINState);
      },
      [&](HRESULT hr) {
        GiveValue(results, ppPINValue);
        return GiveSessionId("GetPIN", results, ppsaPINSessionId, hr);  // the state is dropped
      });
}

HRESULT CStaticAuthCacheClient::GetPINEx(BSTR bstrCompartmentId, BSTR bstrPINId, AuthParameter* pAdditionalParameters,
                                         unsigned long ulCount, SAFEARRAY** ppPINValue, SAFEARRAY** ppsaPINSessionId,
                                         PINState* pnPINState) {
  StoreResults results;
  return ForwardPIN(
      "GetPINEx", "GetPIN", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) {
        return store.GetPIN(0, bstrCompartmentId, bstrPINId, psaParameters, &results.pPINValue,
                            &results.bstrPINSessionId, &results.nPINState);
      },
      [&](HRESULT hr) {
        GiveValue(results, ppPINValue);
        hr = GiveSessionId("GetPINEx", results, ppsaPINSessionId, hr);
        GiveState(results, pnPINState);  // even when the session id failed
        return hr;
      });
}

HRESULT CStaticAuthCacheClient::GetPINFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId,
                                                       SAFEARRAY* psaPINSessionId,
                                                       AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                                       SAFEARRAY** ppPINValue) {
  StoreResults results;
  return ForwardPIN(
      "GetPINFromPINSessionId", "GetPINFromPINSessionId", pAdditionalParameters, ulCount, true, psaPINSessionId,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR bstrPINSessionId) {
        return store.GetPINFromPINSessionId(0, bstrCompartmentId, bstrPINId, bstrPINSessionId, psaParameters,
                                            &results.pPINValue, &results.nPINState);
      },
      [&](HRESULT hr) {
        GiveValue(results, ppPINValue);  // the state is dropped
        return hr;
      });
}

HRESULT CStaticAuthCacheClient::GetPINFromPINSessionIdEx(BSTR bstrCompartmentId, BSTR bstrPINId,
                                                         SAFEARRAY* psaPINSessionId,
                                                         AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                                         SAFEARRAY** ppPINValue, PINState* pnPINState) {
  StoreResults results;
  return ForwardPIN(
      "GetPINFromPINSessionIdEx", "GetPINFromPINSessionId", pAdditionalParameters, ulCount, true, psaPINSessionId,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR bstrPINSessionId) {
        return store.GetPINFromPINSessionId(0, bstrCompartmentId, bstrPINId, bstrPINSessionId, psaParameters,
                                            &results.pPINValue, &results.nPINState);
      },
      [&](HRESULT hr) {
        GiveValue(results, ppPINValue);
        GiveState(results, pnPINState);
        return hr;
      });
}

// ---- Probing --------------------------------------------------------------------

HRESULT CStaticAuthCacheClient::IsPINCached(BSTR bstrCompartmentId, BSTR bstrPINId,
                                            AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                            SAFEARRAY** ppsaPINSessionId, signed char* pbCached) {
  StoreResults results;
  return ForwardPIN(
      "IsPINCached", "IsPINCached", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) {
        return store.IsPINCached(0, bstrCompartmentId, bstrPINId, psaParameters, &results.bstrPINSessionId,
                                 &results.nPINState);
      },
      [&](HRESULT hr) {
        hr = GiveSessionId("IsPINCached", results, ppsaPINSessionId, hr);
        GiveFlag(results, pbCached);
        return hr;
      });
}

HRESULT CStaticAuthCacheClient::IsPINCachedEx(BSTR bstrCompartmentId, BSTR bstrPINId,
                                              AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                              SAFEARRAY** ppsaPINSessionId, PINState* pnPINState) {
  StoreResults results;
  return ForwardPIN(
      "IsPINCachedEx", "IsPINCached", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) {
        return store.IsPINCached(0, bstrCompartmentId, bstrPINId, psaParameters, &results.bstrPINSessionId,
                                 &results.nPINState);
      },
      [&](HRESULT hr) {
        hr = GiveSessionId("IsPINCachedEx", results, ppsaPINSessionId, hr);
        GiveState(results, pnPINState);
        return hr;
      });
}

HRESULT CStaticAuthCacheClient::IsPINCachedFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId,
                                                            SAFEARRAY* psaPINSessionId,
                                                            AuthParameter* pAdditionalParameters,
                                                            unsigned long ulCount, signed char* pbCached) {
  StoreResults results;
  return ForwardPIN(
      "IsPINCachedFromPINSessionId", "IsPINCachedFromPINSessionId", pAdditionalParameters, ulCount, true,
      psaPINSessionId,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR bstrPINSessionId) {
        return store.IsPINCachedFromPINSessionId(0, bstrCompartmentId, bstrPINId, bstrPINSessionId, psaParameters,
                                                 &results.nPINState);
      },
      [&](HRESULT hr) {
        GiveFlag(results, pbCached);
        return hr;
      });
}

HRESULT CStaticAuthCacheClient::IsPINCachedFromPINSessionIdEx(BSTR bstrCompartmentId, BSTR bstrPINId,
                                                              SAFEARRAY* psaPINSessionId,
                                                              AuthParameter* pAdditionalParameters,
                                                              unsigned long ulCount, PINState* pnPINState) {
  StoreResults results;
  return ForwardPIN(
      "IsPINCachedFromPINSessionIdEx", "IsPINCachedFromPINSessionId", pAdditionalParameters, ulCount, true,
      psaPINSessionId,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR bstrPINSessionId) {
        return store.IsPINCachedFromPINSessionId(0, bstrCompartmentId, bstrPINId, bstrPINSessionId, psaParameters,
                                                 &results.nPINState);
      },
      [&](HRESULT hr) {
        GiveState(results, pnPINState);
        return hr;
      });
}

// ---- Removing -------------------------------------------------------------------

HRESULT CStaticAuthCacheClient::RemovePIN(BSTR bstrCompartmentId, BSTR bstrPINId,
                                          AuthParameter* pAdditionalParameters, unsigned long ulCount) {
  return ForwardPIN(
      "RemovePIN", "RemovePIN", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) {
        return store.RemovePIN(0, bstrCompartmentId, bstrPINId, psaParameters);
      },
      Nothing);
}

HRESULT CStaticAuthCacheClient::RemovePINFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId,
                                                          SAFEARRAY* psaPINSessionId,
                                                          AuthParameter* pAdditionalParameters,
                                                          unsigned long ulCount) {
  return ForwardPIN(
      "RemovePINFromPINSessionId", "RemovePINFromPINSessionId", pAdditionalParameters, ulCount, true,
      psaPINSessionId,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR bstrPINSessionId) {
        return store.RemovePINFromPINSessionId(0, bstrCompartmentId, bstrPINId, bstrPINSessionId, psaParameters);
      },
      Nothing);
}

HRESULT CStaticAuthCacheClient::RemoveCompartment(BSTR bstrCompartmentId, AuthParameter* pAdditionalParameters,
                                                  unsigned long ulCount) {
  return ForwardPIN(
      "RemoveCompartment", "RemoveCompartment", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) {
        return store.RemoveCompartment(0, bstrCompartmentId, psaParameters);
      },
      Nothing);
}

HRESULT CStaticAuthCacheClient::FlushStore(AuthParameter* pAdditionalParameters, unsigned long ulCount) {
  return ForwardPIN(
      "FlushStore", "FlushStore", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) { return store.FlushStore(0, psaParameters); },
      Nothing);
}

// ---- State changes ----------------------------------------------------------------

HRESULT CStaticAuthCacheClient::ChangePINState(BSTR bstrCompartmentId, BSTR bstrPINId,
                                               AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                               PINState enPINState) {
  return ForwardPIN(
      "ChangePINState", "ChangePINState", pAdditionalParameters, ulCount, false, NULL,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR) {
        return store.ChangePINState(0, bstrCompartmentId, bstrPINId, psaParameters, static_cast<int>(enPINState));
      },
      Nothing);
}

HRESULT CStaticAuthCacheClient::ChangePINStateFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId,
                                                               SAFEARRAY* psaPINSessionId,
                                                               AuthParameter* pAdditionalParameters,
                                                               unsigned long ulCount, PINState enPINState) {
  // The stray letter in the failure text is part of the log.
  return ForwardPIN(
      "ChangePINStateFromPINSessionId", "ChangePINStateFromPINSessionIde", pAdditionalParameters, ulCount, true,
      psaPINSessionId,
      [&](CInternalAuthStore& store, SAFEARRAY* psaParameters, BSTR bstrPINSessionId) {
        return store.ChangePINStateFromPINSessionId(0, bstrCompartmentId, bstrPINId, bstrPINSessionId, psaParameters,
                                                    static_cast<int>(enPINState));
      },
      Nothing);
}

// ---- The PIN stores -----------------------------------------------------------------

HRESULT CStaticAuthCacheClient::RegisterAuthStore(BSTR bstrStoreId, AuthType eType, signed char bEncrypted,
                                                  signed char bSharedBetweenUserSessions) {
  xklogLog(MSTORE_MODULE, 8, "CStaticAuthCacheClient::RegisterAuthStore");
  SecureString sStoreId;
  HRESULT hr = BSTR2wstring(bstrStoreId, sStoreId);
  auto& stores = gStaticAuthStoreRegistration.m_Stores;
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::RegisterAuthStore BSTR2wstring failed");
  } else if (stores.find(sStoreId) != stores.end()) {
    // "DataStore" is part of the text.
    xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::RegisterAuthStore This DataStore id already exist !");
    hr = E_FAIL;
  } else {
    CInternalAuthStore* pInternalAuthStore = new CInternalAuthStore();
    hr = pInternalAuthStore->Begin(bstrStoreId, eType, bEncrypted, bSharedBetweenUserSessions);
    if (FAILED(hr)) {
      // Destroyed without End: a failed Begin leaves no tree and no timer.
      delete pInternalAuthStore;
      xklogLog(MSTORE_MODULE, 2, "CStaticAuthCacheClient::RegisterAuthStore Begin failed");
    } else {
      stores[sStoreId] = pInternalAuthStore;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CStaticAuthCacheClient::RegisterAuthStore hr = 0x%x", Code(hr));
  return hr;
}

HRESULT CStaticAuthCacheClient::FlushAuthStores() {
  xklogLog(MSTORE_MODULE, 8, "CStaticAuthCacheClient::FlushAuthStores");
  HRESULT hr = S_OK;
  // Each store's code overwrites the one before: only the last one counts.
  for (const auto& entry : gStaticAuthStoreRegistration.m_Stores) {
    CInternalAuthStore* pInternalAuthStore = entry.second;
    if (pInternalAuthStore == NULL) continue;
    AuthType eType = AuthTypeVolatile;
    signed char bEncrypted = 0;
    signed char bShared = 0;
    hr = pInternalAuthStore->GetStoreInfo(eType, bEncrypted, bShared);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::FlushAuthStores GetStoreInfo failed hr = 0x%x", Code(hr));
      continue;
    }
    hr = pInternalAuthStore->FlushStore(0);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::FlushAuthStores FlushStore failed lRet = 0x%x, hr = 0x%x",
               0u, Code(hr));
  }
  xklogLog(MSTORE_MODULE, 16, "CStaticAuthCacheClient::FlushAuthStores hr = 0x%x", Code(hr));
  return hr;
}

HRESULT CStaticAuthCacheClient::ListAuthStoreIds(SAFEARRAY** ppsaStoreIds) {
  xklogLog(MSTORE_MODULE, 8, "CStaticAuthCacheClient::ListAuthStoreIds");
  const HRESULT hr = ListStoreIds(gStaticAuthStoreRegistration.m_Stores,
                                  "CStaticAuthCacheClient::ListAuthStoreIds", ppsaStoreIds);
  xklogLog(MSTORE_MODULE, 16, "CStaticAuthCacheClient::ListAuthStoreIds hr = 0x%x", Code(hr));
  return hr;
}

HRESULT CStaticAuthCacheClient::GetAuthStoreInfo(BSTR bstrStoreId, AuthType* peType, signed char* pbEncrypted,
                                                 signed char* pbSharedBetweenUserSessions) {
  xklogLog(MSTORE_MODULE, 8, "CStaticAuthCacheClient::GetAuthStoreInfo");
  SecureString sStoreId;
  HRESULT hr = BSTR2wstring(bstrStoreId, sStoreId);
  const auto& stores = gStaticAuthStoreRegistration.m_Stores;
  const auto it = SUCCEEDED(hr) ? stores.find(sStoreId) : stores.end();
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::GetAuthStoreInfo BSTR2wstring failed");
  } else if (it == stores.end()) {
    // The one lookup failure of the PIN client worded this way.
    xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::GetAuthStoreInfo Didn't find IDataStore with this id");
    hr = E_FAIL;
  } else if (it->second == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::GetAuthStoreInfo pInternalAuthStore is NULL");
    hr = E_FAIL;
  } else {
    AuthType eType = AuthTypeVolatile;
    signed char bEncrypted = 0;
    signed char bShared = 0;
    hr = it->second->GetStoreInfo(eType, bEncrypted, bShared);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CStaticAuthCacheClient::GetAuthStoreInfo: GetAuthStoreInfo failed hr = %x",
               Code(hr));
    } else {
      if (peType != NULL) *peType = eType;
      if (pbEncrypted != NULL) *pbEncrypted = bEncrypted;
      if (pbSharedBetweenUserSessions != NULL) *pbSharedBetweenUserSessions = bShared;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CStaticAuthCacheClient::GetAuthStoreInfo hr = 0x%x", Code(hr));
  return hr;
}

}  // namespace AuthStore
}  // namespace QX
