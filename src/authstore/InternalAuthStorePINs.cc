// CInternalAuthStore: setting, reading, probing a PIN and changing its token.
#include <uuid/uuid.h>

#include "authstore/InternalAuthStore.h"
#include "authstore/PINItems.h"
#include "common/FctUtils.h"
#include "common/Module.h"
#include "common/StoreMutexLock.h"
#include "xk/log.h"

using QX::AuthStore::PINState;

namespace {

const char kAvailable[] = "available";
const char kUnavailable[] = "unavailable";

bool Keeps(const SecureString& sAction) { return sAction == "Authenticate" || sAction == "ChangeAuthenticator"; }

// The prompt a spent PIN-always token calls for.
PINState SpentTokenPrompt() {
  PinAlwaysCachingMode enMode = PinAlwaysPINPrompt;
  CInternalAuthStore::GetPINAlwaysCachingMode(enMode);
  return enMode == PinAlwaysConfirmationPrompt ? QX::AuthStore::PINStateConfirm : QX::AuthStore::PINStatePrompt;
}

// Runs an internal operation that takes its state as PINState* for a caller
// that passes int*, keeping the caller's value when nothing is written.
template <typename Body>
HRESULT WithState(int* pnPINState, Body body) {
  PINState enState = pnPINState != NULL ? static_cast<PINState>(*pnPINState) : QX::AuthStore::PINStatePrompt;
  const HRESULT hr = body(pnPINState != NULL ? &enState : NULL);
  if (pnPINState != NULL) *pnPINState = static_cast<int>(enState);
  return hr;
}

}  // namespace

// ---- Setting ----------------------------------------------------------------

HRESULT CInternalAuthStore::SetPIN(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                   SAFEARRAY* pPINValue, SAFEARRAY* pAdditionalParameters,
                                   char** pbstrPINSessionId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::SetPIN");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::SetPIN dwClientProcessId = %u bstrCompartmentId = %s bstrPINId = %s",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    char* bstrPINSessionId = NULL;
    hr = SetInternalPIN(0, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId, pPINValue,
                        pAdditionalParameters);
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::SetPIN SetInternalPIN failed");
    if (pbstrPINSessionId != NULL) *pbstrPINSessionId = SysAllocString(bstrPINSessionId);
    qxSysFreeString(bstrPINSessionId, 0);
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::SetPIN hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::SetPINFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId,
                                                   char* bstrPINId, char* bstrPINSessionId, SAFEARRAY* pPINValue,
                                                   SAFEARRAY* pAdditionalParameters) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::SetPINFromPINSessionId");
  xklogLog(MSTORE_MODULE, 2,
           "CInternalAuthStore::SetPINFromPINSessionId dwClientProcessId = %u bstrCompartmentId = %s bstrPINId = %s "
           "bstrPINSessionId = %s",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId), LogText(bstrPINSessionId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    hr = SetInternalPIN(1, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId, pPINValue,
                        pAdditionalParameters);
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::SetPINFromPINSessionId SetInternalPIN failed");
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::SetPINFromPINSessionId hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::SetInternalPIN(signed char bFromPINSessionId, unsigned int dwClientProcessId,
                                           char* bstrCompartmentId, char* bstrPINId, char*& bstrPINSessionId,
                                           SAFEARRAY* pPINValue, SAFEARRAY* pAdditionalParameters) {
  static const char kOp[] = "SetInternalPIN";
  SecureString sPINSessionId, sSessionId, sCompartmentId, sPINId, sCompartmentIdGlobal;
  SecureString sIsACRPINAlways, sAction, sAllProcess, sAllSession, sCheckClientCaller, sBypassPINAlways;
  SAFEARRAY* psaOldState = NULL;
  SAFEARRAY* psaValue = NULL;
  SAFEARRAY* psaState = NULL;
  SAFEARRAY* psaBypass = NULL;
  SAFEARRAY* psaSessionId = NULL;
  bool bAvailable = false;
  int enPINAlwaysState = 0;
  HRESULT hr = S_OK;

  // 1. A new PIN session id, for every store.
  if (bFromPINSessionId == 0) {
    uuid_t uuid;
    char sUuid[37];
    uuid_generate(uuid);
    uuid_unparse(uuid, sUuid);
    sPINSessionId = sUuid;
    hr = wstring2BSTR(sPINSessionId, bstrPINSessionId);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::SetInternalPIN wstring2BSTR failed");
      goto exit;
    }
  }
  // 2. The session; a new id is recorded against it.
  if (m_bSharedBetweenUserSessions == 0) {
    hr = ResolveSession(kOp, bFromPINSessionId, dwClientProcessId, bstrPINSessionId, sSessionId);
    if (FAILED(hr)) goto exit;
    if (bFromPINSessionId == 0) m_PINSessionIds[sPINSessionId] = sSessionId;
  }
  // 3. The identifiers.
  hr = ConvertIds(kOp, bstrCompartmentId, bstrPINId, sCompartmentId, sPINId);
  if (FAILED(hr)) goto exit;
  // 4. The protected value, held from here on.
  if (m_bEncrypted != 0) {
    hr = m_Crypto.encryptValue(pPINValue, psaValue, m_AuthType != QX::AuthStore::AuthTypeVolatile);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::SetInternalPIN EncryptValue failed");
      goto exit;
    }
  } else {
    hr = SafeArrayCopy(pPINValue, &psaValue);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::SetInternalPIN SafeArrayCopy failed");
      goto exit;
    }
  }
  // 5, 6. The tree and the path.
  hr = CheckTree(kOp);
  if (FAILED(hr)) goto exit;
  sCompartmentIdGlobal = BuildPath(sSessionId, sCompartmentId, sPINId, dwClientProcessId);
  // 7. The previous token; a missing one counts as spent.
  if (SUCCEEDED(ReadItem(kOp, sCompartmentIdGlobal, PINItems::AlwaysState(), psaOldState)) && psaOldState != NULL) {
    SecureString sOldState;
    hr = ReadText(kOp, psaOldState, sOldState);
    if (FAILED(hr)) goto exit;
    bAvailable = sOldState == kAvailable;
  }
  // 8, 9. The token follows the action.
  hr = GetAdditionalParameters(pAdditionalParameters, sIsACRPINAlways, sAction, sAllProcess, sAllSession,
                               sCheckClientCaller, sBypassPINAlways);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::SetInternalPIN GetAdditionalParameters failed");
    goto exit;
  }
  if (sAction == "Authenticate") {
    enPINAlwaysState = 1;
  } else if (sAction == "ChangeAuthenticator") {
    enPINAlwaysState = bAvailable ? 1 : 0;
  }
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::SetInternalPIN enPINAlwaysState = %d", enPINAlwaysState);
  // 10. The four items, one by one: a failure leaves those already written.
  hr = WriteItem(kOp, sCompartmentIdGlobal, PINItems::Value(), psaValue);
  if (FAILED(hr)) goto exit;
  hr = MakeTextVector(kOp, enPINAlwaysState != 0 ? kAvailable : kUnavailable, psaState);
  if (FAILED(hr)) goto exit;
  hr = WriteItem(kOp, sCompartmentIdGlobal, PINItems::AlwaysState(), psaState);
  if (FAILED(hr)) goto exit;
  hr = MakeTextVector(kOp, sBypassPINAlways == "True" ? "True" : "False", psaBypass);
  if (FAILED(hr)) goto exit;
  hr = WriteItem(kOp, sCompartmentIdGlobal, PINItems::BypassAlwaysState(), psaBypass);
  if (FAILED(hr)) goto exit;
  hr = MakeBSTRVector(kOp, bstrPINSessionId, psaSessionId);
  if (FAILED(hr)) goto exit;
  hr = WriteItem(kOp, sCompartmentIdGlobal, PINItems::SessionId(), psaSessionId);
  if (FAILED(hr)) goto exit;
  // 11. The expiry timer, whatever it gives.
  hr = S_OK;
  SetInternalTimer(sCompartmentIdGlobal, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId);
exit:
  DestroyHeld(kOp, psaOldState, hr);
  DestroyHeld(kOp, psaValue, hr);
  DestroyHeld(kOp, psaState, hr);
  DestroyHeld(kOp, psaBypass, hr);
  DestroyHeld(kOp, psaSessionId, hr);
  return hr;
}

// ---- Reading and probing -------------------------------------------------

HRESULT CInternalAuthStore::ReadPINItems(const char* sOperation, const SecureString& sCompartmentIdGlobal,
                                         char*& bstrPINSessionId, SAFEARRAY*& psaSessionId, SAFEARRAY*& psaValue,
                                         SAFEARRAY*& psaState, bool& bAvailable, SAFEARRAY*& psaBypass,
                                         SecureString& sBypassPINAlwaysStateValue) {
  HRESULT hr = ReadItem(sOperation, sCompartmentIdGlobal, PINItems::SessionId(), psaSessionId);
  if (FAILED(hr)) return hr;
  if (psaSessionId != NULL) {
    int nIndex = 0;
    hr = SafeArrayGetElement(psaSessionId, &nIndex, &bstrPINSessionId);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s SafeArrayGetlement failed", sOperation);
      return hr;
    }
  }
  hr = ReadItem(sOperation, sCompartmentIdGlobal, PINItems::Value(), psaValue);
  if (FAILED(hr)) return hr;
  hr = ReadItem(sOperation, sCompartmentIdGlobal, PINItems::AlwaysState(), psaState);
  if (FAILED(hr)) return hr;
  if (psaState != NULL) {
    SecureString sState;
    hr = ReadText(sOperation, psaState, sState);
    if (FAILED(hr)) return hr;
    bAvailable = sState == kAvailable;
  }
  hr = ReadItem(sOperation, sCompartmentIdGlobal, PINItems::BypassAlwaysState(), psaBypass);
  if (FAILED(hr)) return hr;
  if (psaBypass != NULL) hr = ReadText(sOperation, psaBypass, sBypassPINAlwaysStateValue);
  return hr;
}

HRESULT CInternalAuthStore::GetPIN(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                   SAFEARRAY* pAdditionalParameters, SAFEARRAY** ppPINValue,
                                   char** pbstrPINSessionId, int* pnPINState) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::GetPIN");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::GetPIN dwClientProcessId = %u bstrCompartmentId = %s bstrPINId = %s",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    char* bstrPINSessionId = NULL;
    hr = WithState(pnPINState, [&](PINState* pnState) {
      return GetInternalPIN(0, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId,
                            pAdditionalParameters, ppPINValue, pnState);
    });
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetPIN GetInternalPIN failed");
    if (pbstrPINSessionId != NULL && bstrPINSessionId != NULL) *pbstrPINSessionId = SysAllocString(bstrPINSessionId);
    qxSysFreeString(bstrPINSessionId, 0);
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::GetPIN hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::GetPINFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId,
                                                   char* bstrPINId, char* bstrPINSessionId,
                                                   SAFEARRAY* pAdditionalParameters, SAFEARRAY** ppPINValue,
                                                   int* pnPINState) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::GetPINFromPINSessionId");
  xklogLog(MSTORE_MODULE, 2,
           "CInternalAuthStore::GetPINFromPINSessionId dwClientProcessId = %u bstrCompartmentId = %s bstrPINId = %s "
           "bstrPINSessionId = %s",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId), LogText(bstrPINSessionId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    // A copy of the caller's handle: the read replaces it with the stored id,
    // which is released here; the caller's handle never changes.
    char* bstrLocal = bstrPINSessionId;
    hr = WithState(pnPINState, [&](PINState* pnState) {
      return GetInternalPIN(1, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrLocal, pAdditionalParameters,
                            ppPINValue, pnState);
    });
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetPINFromPINSessionId GetInternalPIN failed");
    if (bstrLocal != bstrPINSessionId) qxSysFreeString(bstrLocal, 0);
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::GetPINFromPINSessionId hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::IsPINCached(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                        SAFEARRAY* pAdditionalParameters, char** pbstrPINSessionId,
                                        int* pnPINState) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::IsPINCached");
  xklogLog(MSTORE_MODULE, 2,
           "CInternalAuthStore::IsPINCached dwClientProcessId = %u bstrCompartmentId = %s bstrPINId = %s",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    char* bstrPINSessionId = NULL;
    hr = WithState(pnPINState, [&](PINState* pnState) {
      return IsInternalPINCached(0, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId,
                                 pAdditionalParameters, pnState);
    });
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::IsPINCached IsInternalPINCached failed");
    if (pbstrPINSessionId != NULL && bstrPINSessionId != NULL) *pbstrPINSessionId = SysAllocString(bstrPINSessionId);
    qxSysFreeString(bstrPINSessionId, 0);
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::IsPINCached hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::IsPINCachedFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId,
                                                        char* bstrPINId, char* bstrPINSessionId,
                                                        SAFEARRAY* pAdditionalParameters, int* pnPINState) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::IsPINCachedFromPINSessionId");
  xklogLog(MSTORE_MODULE, 2,
           "CInternalAuthStore::IsPINCachedFromPINSessionId dwClientProcessId = %u bstrCompartmentId = %s "
           "bstrPINId = %s bstrPINSessionId = %s",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId), LogText(bstrPINSessionId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    char* bstrLocal = bstrPINSessionId;
    hr = WithState(pnPINState, [&](PINState* pnState) {
      return IsInternalPINCached(1, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrLocal,
                                 pAdditionalParameters, pnState);
    });
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::IsPINCachedFromPINSessionId IsInternalPINCached failed");
    if (bstrLocal != bstrPINSessionId) qxSysFreeString(bstrLocal, 0);
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::IsPINCachedFromPINSessionId hr = 0x%x",
           static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::GetInternalPIN(signed char bFromPINSessionId, unsigned int dwClientProcessId,
                                           char* bstrCompartmentId, char* bstrPINId, char*& bstrPINSessionId,
                                           SAFEARRAY* pAdditionalParameters, SAFEARRAY** ppPINValue,
                                           PINState* pnPINState) {
  static const char kOp[] = "GetInternalPIN";
  SecureString sBypassPINAlwaysStateValue("False");
  SecureString sCompartmentIdGlobal;
  SecureString sIsACRPINAlways, sAction, sAllProcess, sAllSession, sCheckClientCaller, sBypassPINAlways;
  SAFEARRAY* psaSessionId = NULL;
  SAFEARRAY* psaValue = NULL;
  SAFEARRAY* psaState = NULL;
  SAFEARRAY* psaBypass = NULL;
  SAFEARRAY* psaNewState = NULL;
  bool bAvailable = false;
  HRESULT hr = S_OK;

  if (pnPINState == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetInternalPIN pnPINState == NULL");
    return E_INVALIDARG;
  }
  *pnPINState = QX::AuthStore::PINStatePrompt;
  hr = ResolvePINPath(kOp, bFromPINSessionId, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId,
                      sCompartmentIdGlobal);
  if (FAILED(hr)) goto exit;
  // The four items; only the first one's "not found" reaches the caller.
  hr = ReadPINItems(kOp, sCompartmentIdGlobal, bstrPINSessionId, psaSessionId, psaValue, psaState, bAvailable,
                    psaBypass, sBypassPINAlwaysStateValue);
  if (FAILED(hr)) goto exit;
  if (psaBypass != NULL)
    xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::GetInternalPIN sBypassPINAlwaysStateValue = %s",
             sBypassPINAlwaysStateValue.c_str());
  hr = GetAdditionalParameters(pAdditionalParameters, sIsACRPINAlways, sAction, sAllProcess, sAllSession,
                               sCheckClientCaller, sBypassPINAlways);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetInternalPIN GetAdditionalParameters failed");
    goto exit;
  }
  // The PIN-always decision. A plain use spends the token; a bypass lets a
  // spent token pass without renewing it.
  *pnPINState = QX::AuthStore::PINStateAvailable;
  if (sIsACRPINAlways == "Yes") {
    if (!bAvailable && sBypassPINAlwaysStateValue == "False") *pnPINState = SpentTokenPrompt();
    bAvailable = bAvailable && Keeps(sAction);
  } else if (sIsACRPINAlways == "No") {
    bAvailable = bAvailable && Keeps(sAction);
  }
  // The token is written back in every case, also when unchanged.
  hr = MakeTextVector(kOp, bAvailable ? kAvailable : kUnavailable, psaNewState);
  if (FAILED(hr)) goto exit;
  hr = WriteItem(kOp, sCompartmentIdGlobal, PINItems::AlwaysState(), psaNewState);
  if (FAILED(hr)) goto exit;
  if (psaValue != NULL) {
    SAFEARRAY* psaClear = psaValue;
    if (m_bEncrypted != 0) {
      psaClear = NULL;
      hr = m_Crypto.DecryptValue(psaValue, psaClear, m_AuthType != QX::AuthStore::AuthTypeVolatile);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetInternalPIN DecryptValue failed");
        if (psaClear != NULL) qxSafeArrayDestroy(psaClear, 0);
        goto exit;
      }
      hr = qxSafeArrayDestroy(psaValue, 0);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetInternalPIN qxSafeArrayDestroy failed");
        qxSafeArrayDestroy(psaClear, 0);
        goto exit;
      }
    }
    psaValue = NULL;
    if (ppPINValue != NULL) {
      *ppPINValue = psaClear;
    } else {
      qxSafeArrayDestroy(psaClear, 0);
    }
    // A read pushes expiry back.
    hr = S_OK;
    SetInternalTimer(sCompartmentIdGlobal, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId);
  }
exit:
  DestroyHeld(kOp, psaSessionId, hr);
  DestroyHeld(kOp, psaState, hr);
  DestroyHeld(kOp, psaNewState, hr);
  DestroyHeld(kOp, psaBypass, hr);
  // The value copy is not on the clean-up list: releasing it changes no
  // result, so it goes without touching hr.
  if (psaValue != NULL) qxSafeArrayDestroy(psaValue, 0);
  return hr;
}

HRESULT CInternalAuthStore::IsInternalPINCached(signed char bFromPINSessionId, unsigned int dwClientProcessId,
                                                char* bstrCompartmentId, char* bstrPINId, char*& bstrPINSessionId,
                                                SAFEARRAY* pAdditionalParameters, PINState* pnPINState) {
  static const char kOp[] = "IsInternalPINCached";
  SecureString sBypassPINAlwaysStateValue("False");
  SecureString sCompartmentIdGlobal;
  SecureString sIsACRPINAlways, sAction, sAllProcess, sAllSession, sCheckClientCaller, sBypassPINAlways;
  SAFEARRAY* psaSessionId = NULL;
  SAFEARRAY* psaValue = NULL;
  SAFEARRAY* psaState = NULL;
  SAFEARRAY* psaBypass = NULL;
  bool bAvailable = false;
  HRESULT hr = S_OK;

  if (pnPINState == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::IsInternalPINCached pnPINState == NULL");
    return E_INVALIDARG;
  }
  *pnPINState = QX::AuthStore::PINStatePrompt;
  hr = ResolvePINPath(kOp, bFromPINSessionId, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId,
                      sCompartmentIdGlobal);
  if (FAILED(hr)) goto exit;
  // The value is read only to prove that it is there.
  hr = ReadPINItems(kOp, sCompartmentIdGlobal, bstrPINSessionId, psaSessionId, psaValue, psaState, bAvailable,
                    psaBypass, sBypassPINAlwaysStateValue);
  if (FAILED(hr)) goto exit;
  hr = GetAdditionalParameters(pAdditionalParameters, sIsACRPINAlways, sAction, sAllProcess, sAllSession,
                               sCheckClientCaller, sBypassPINAlways);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::IsInternalPINCached GetAdditionalParameters failed");
    goto exit;
  }
  // The state a read would report, for "Yes" and "No" only; the token is not
  // spent.
  if (sIsACRPINAlways == "Yes") {
    *pnPINState = !bAvailable && sBypassPINAlwaysStateValue == "False" ? SpentTokenPrompt()
                                                                       : QX::AuthStore::PINStateAvailable;
  } else if (sIsACRPINAlways == "No") {
    *pnPINState = QX::AuthStore::PINStateAvailable;
  }
exit:
  DestroyHeld(kOp, psaSessionId, hr);
  DestroyHeld(kOp, psaValue, hr);
  DestroyHeld(kOp, psaState, hr);
  DestroyHeld(kOp, psaBypass, hr);
  return hr;
}

// ---- State changes -------------------------------------------------------

HRESULT CInternalAuthStore::ChangePINState(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                           SAFEARRAY* pAdditionalParameters, int nPINState) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::ChangePINState");
  xklogLog(MSTORE_MODULE, 2,
           "CInternalAuthStore::ChangePINState dwClientProcessId = %u bstrCompartmentId = %s bstrPINId = %s "
           "nPINState = %d",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId), nPINState);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    char* bstrPINSessionId = NULL;
    hr = ChangeInternalPINState(0, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId,
                                pAdditionalParameters, static_cast<PINState>(nPINState));
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::ChangePINState ChangeInternalPINState failed");
    qxSysFreeString(bstrPINSessionId, 0);
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::ChangePINState hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::ChangePINStateFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId,
                                                           char* bstrPINId, char* bstrPINSessionId,
                                                           SAFEARRAY* pAdditionalParameters, int nPINState) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::ChangePINStateFromPINSessionId");
  xklogLog(MSTORE_MODULE, 2,
           "CInternalAuthStore::ChangePINStateFromPINSessionId dwClientProcessId = %u bstrCompartmentId = %s "
           "bstrPINId = %s bstrPINSessionId = %s nPINState = %d",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId), LogText(bstrPINSessionId), nPINState);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    char* bstrLocal = bstrPINSessionId;
    hr = ChangeInternalPINState(1, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrLocal,
                                pAdditionalParameters, static_cast<PINState>(nPINState));
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::ChangePINStateFromPINSessionId ChangeInternalPINState failed");
    if (bstrLocal != bstrPINSessionId) qxSysFreeString(bstrLocal, 0);
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::ChangePINStateFromPINSessionId hr = 0x%x",
           static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::ChangeInternalPINState(signed char bFromPINSessionId, unsigned int dwClientProcessId,
                                                   char* bstrCompartmentId, char* bstrPINId, char*& bstrPINSessionId,
                                                   SAFEARRAY* /*pAdditionalParameters*/, PINState enPINState) {
  static const char kOp[] = "ChangeInternalPINState";
  SecureString sCompartmentIdGlobal;
  SAFEARRAY* psaSessionId = NULL;
  SAFEARRAY* psaValue = NULL;
  SAFEARRAY* psaState = NULL;
  const bool bAvailable = enPINState == QX::AuthStore::PINStateAvailable;
  HRESULT hr = ResolvePINPath(kOp, bFromPINSessionId, dwClientProcessId, bstrCompartmentId, bstrPINId,
                              bstrPINSessionId, sCompartmentIdGlobal);
  if (FAILED(hr)) goto exit;
  hr = ReadItem(kOp, sCompartmentIdGlobal, PINItems::SessionId(), psaSessionId);
  if (FAILED(hr)) goto exit;
  if (psaSessionId != NULL) {
    int nIndex = 0;
    hr = SafeArrayGetElement(psaSessionId, &nIndex, &bstrPINSessionId);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::ChangeInternalPINState SafeArrayGetlement failed");
      goto exit;
    }
  }
  // Read only to prove the PIN is there.
  hr = ReadItem(kOp, sCompartmentIdGlobal, PINItems::Value(), psaValue);
  if (FAILED(hr)) goto exit;
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::ChangeInternalPINState enPINAlwaysState = %d", bAvailable ? 1 : 0);
  hr = MakeTextVector(kOp, bAvailable ? kAvailable : kUnavailable, psaState);
  if (FAILED(hr)) goto exit;
  hr = WriteItem(kOp, sCompartmentIdGlobal, PINItems::AlwaysState(), psaState);
  if (FAILED(hr)) goto exit;
  // A state change pushes expiry back.
  hr = S_OK;
  SetInternalTimer(sCompartmentIdGlobal, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId);
exit:
  DestroyHeld(kOp, psaSessionId, hr);
  DestroyHeld(kOp, psaValue, hr);
  DestroyHeld(kOp, psaState, hr);
  return hr;
}
