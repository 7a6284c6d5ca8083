// CInternalAuthStore: lifecycle, caller identity and the steps every PIN
// request shares.
#include "authstore/InternalAuthStore.h"

#include <unistd.h>

#include <string>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "common/StoreMutexLock.h"
#include "trees/MemoryTree.h"
#include "trees/RegistryTree.h"
#include "xk/log.h"

CInternalAuthStore::CInternalAuthStore()
    : m_Tree(NULL),
      m_AuthType(QX::AuthStore::AuthTypeVolatile),
      m_bEncrypted(0),
      m_bSharedBetweenUserSessions(0),
      m_PinCachingMode(PinCachingPerSession),
      m_Availability("CInternalAuthStore") {}

CInternalAuthStore::~CInternalAuthStore() {}

HRESULT CInternalAuthStore::Begin(char* bstrStoreId, QX::AuthStore::AuthType enAuthType, signed char bEncrypted,
                                  signed char bSharedBetweenUserSessions) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::Begin");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::Begin bstrStoreId = %s enAuthType = %d bEncrypted = %d "
           "bSharedBetweenUserSessions = %d", LogText(bstrStoreId), static_cast<int>(enAuthType), bEncrypted,
           bSharedBetweenUserSessions);
  HRESULT hr = S_OK;
  SecureString sStoreId;
  const int rc = pthread_mutex_init(&m_Mutex, NULL);
  if (rc != 0) {
    // Reported as a success: the store stays without a tree and refuses its
    // PIN operations.
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::Begin pthread_mutex_init failed with error code 0x%x",
             static_cast<unsigned int>(rc));
    goto exit;
  }
  m_AuthType = enAuthType;
  m_bEncrypted = bEncrypted;
  m_bSharedBetweenUserSessions = bSharedBetweenUserSessions;
  hr = BSTR2wstring(bstrStoreId, sStoreId);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::Begin BSTR2wstring failed");
    goto exit;
  }
  if (m_bEncrypted != 0) {
    hr = m_Crypto.initialize(sStoreId, m_AuthType != QX::AuthStore::AuthTypeVolatile);
    if (FAILED(hr)) {
      // The text names the wrong step; it is the key set-up that failed.
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::Begin GetPINCachingMode failed");
      goto exit;
    }
  }
  // The tree asks whether the type is exactly 1, the key whether it is not 0.
  if (m_AuthType == QX::AuthStore::AuthTypeRemanent) {
    m_Tree = new CRegistryTree(sStoreId, 0);
  } else {
    m_Tree = new CMemoryTree(sStoreId);
  }
  m_PinCachingMode = PinCachingPerSession;
  GetPINCachingMode(m_PinCachingMode);
  m_Timers.clear();
  m_ExpiredTimers.clear();
  m_PINSessionIds.clear();
  m_Availability.Clear();
exit:
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::Begin hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

void CInternalAuthStore::DeleteTimers(std::map<SecureString, QX::Framework::ITimer*>& timers,
                                      const char* sLogText) {
  for (auto& entry : timers) {
    if (entry.second == NULL) continue;
    xklogLog(MSTORE_MODULE, 2, sLogText, static_cast<void*>(entry.second));
    delete entry.second;
  }
  timers.clear();
}

HRESULT CInternalAuthStore::End() {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::End");
  {
    // Once a timer is deleted none of its callbacks starts; one that already
    // started may be waiting for the mutex, so the mutex is let go before the
    // wait below.
    CStoreMutexLock lock(&m_Mutex);
    DeleteTimers(m_Timers, "CInternalAuthStore::End pTimer = %p");
    DeleteTimers(m_ExpiredTimers, "CInternalAuthStore::End Expired pTimer = %p");
  }
  // A callback in flight finishes on the intact store (it finds no timer of
  // its own any more) before the tree goes.
  QX::Framework::ITimer::WaitForRunningCallbacks();
  {
    CStoreMutexLock lock(&m_Mutex);
    m_PINSessionIds.clear();
    m_Availability.Clear();
    delete m_Tree;
    m_Tree = NULL;
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::End hr = 0x%x", 0u);
  return S_OK;
}

HRESULT CInternalAuthStore::GetStoreInfo(QX::AuthStore::AuthType& enAuthType, signed char& bEncrypted,
                                         signed char& bSharedBetweenUserSessions) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::GetStoreInfo");
  enAuthType = m_AuthType;
  bEncrypted = m_bEncrypted;
  bSharedBetweenUserSessions = m_bSharedBetweenUserSessions;
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::GetStoreInfo hr = 0x%x", 0u);
  return S_OK;
}

HRESULT CInternalAuthStore::GetSessionId(unsigned int dwClientProcessId, SecureString& sSessionId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::GetSessionId dwClientProcessId = %u", dwClientProcessId);
  HRESULT hr = S_OK;
  if (dwClientProcessId == 0) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetSessionId GetProcessId failed");
    hr = E_FAIL;
  } else {
    // No error test: a failed getsid gives -1, which serves as the session
    // 4294967295.
    const unsigned int dwSessionId = static_cast<unsigned int>(getsid(static_cast<pid_t>(dwClientProcessId)));
    signed char bAvailabled = 1;
    GetAvailabilityStoreFromSessionId(dwSessionId, bAvailabled);
    if (bAvailabled == 0) {
      xklogLog(MSTORE_MODULE, 1,
               "CInternalAuthStore::GetSessionId GetAvailabilityStoreFromSessionId returned bAvailabled = FALSE");
      hr = E_FAIL;
    } else {
      const std::string sText = std::to_string(dwSessionId);
      sSessionId.assign(sText.data(), sText.size());
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::GetSessionId hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::SetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char bAvailabled) {
  return m_Availability.SetAvailabilityStoreFromSessionId(dwSessionId, bAvailabled);
}

HRESULT CInternalAuthStore::GetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char& bAvailabled) {
  return m_Availability.GetAvailabilityStoreFromSessionId(dwSessionId, bAvailabled);
}

HRESULT CInternalAuthStore::ResolveSession(const char* sOperation, signed char bFromPINSessionId,
                                           unsigned int dwClientProcessId, char* bstrPINSessionId,
                                           SecureString& sSessionId) {
  HRESULT hr = S_OK;
  if (bFromPINSessionId != 0) {
    // An id that does not convert is looked up as the empty id, which no PIN
    // has: both go on with the empty session.
    SecureString sPINSessionId;
    BSTR2wstring(bstrPINSessionId, sPINSessionId);
    auto it = m_PINSessionIds.find(sPINSessionId);
    if (it == m_PINSessionIds.end()) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s sPINSessionId not found", sOperation);
      sSessionId.clear();
    } else {
      sSessionId = it->second;
    }
  } else {
    hr = GetSessionId(dwClientProcessId, sSessionId);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s GetSessionId failed", sOperation);
      return hr;
    }
  }
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::%s sSessionId = %s", sOperation, sSessionId.c_str());
  return hr;
}

HRESULT CInternalAuthStore::ConvertIds(const char* sOperation, char* bstrCompartmentId, char* bstrPINId,
                                       SecureString& sCompartmentId, SecureString& sPINId) {
  HRESULT hr = BSTR2wstring(bstrCompartmentId, sCompartmentId);
  if (SUCCEEDED(hr)) hr = BSTR2wstring(bstrPINId, sPINId);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s BSTR2wstring failed", sOperation);
  return hr;
}

HRESULT CInternalAuthStore::CheckTree(const char* sOperation) {
  if (m_Tree != NULL) return S_OK;
  xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s m_Tree == NULL", sOperation);
  return E_FAIL;
}

SecureString CInternalAuthStore::BuildPath(const SecureString& sSessionId, const SecureString& sCompartmentId,
                                           const SecureString& sPINId, unsigned int dwClientProcessId) const {
  // Sized exactly up front: a short path stays in the string itself.
  char sProcess[16];
  std::size_t nProcess = 0;
  if (m_PinCachingMode == PinCachingPerProcess)
    nProcess = static_cast<std::size_t>(snprintf(sProcess, sizeof sProcess, "%u", dwClientProcessId));
  const bool bSession = m_bSharedBetweenUserSessions == 0;
  SecureString sPath;
  sPath.reserve((bSession ? sSessionId.size() + 1 : 0) + sCompartmentId.size() + 1 + sPINId.size() +
                (nProcess > 0 ? nProcess + 1 : 0));
  if (bSession) {
    sPath += sSessionId;
    sPath += '/';
  }
  sPath += sCompartmentId;
  sPath += '/';
  sPath += sPINId;
  if (nProcess > 0) {
    sPath += '/';
    sPath.append(sProcess, nProcess);
  }
  return sPath;
}

HRESULT CInternalAuthStore::ResolvePINPath(const char* sOperation, signed char bFromPINSessionId,
                                           unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                           char* bstrPINSessionId, SecureString& sCompartmentIdGlobal) {
  SecureString sSessionId;
  SecureString sCompartmentId;
  SecureString sPINId;
  HRESULT hr = S_OK;
  if (m_bSharedBetweenUserSessions == 0)
    hr = ResolveSession(sOperation, bFromPINSessionId, dwClientProcessId, bstrPINSessionId, sSessionId);
  if (SUCCEEDED(hr)) hr = ConvertIds(sOperation, bstrCompartmentId, bstrPINId, sCompartmentId, sPINId);
  if (SUCCEEDED(hr)) hr = CheckTree(sOperation);
  if (SUCCEEDED(hr)) sCompartmentIdGlobal = BuildPath(sSessionId, sCompartmentId, sPINId, dwClientProcessId);
  return hr;
}

void CInternalAuthStore::DestroyHeld(const char* sOperation, SAFEARRAY*& psa, HRESULT& hr) {
  if (psa == NULL) return;
  hr = qxSafeArrayDestroy(psa, 0);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s qxSafeArrayDestroy failed", sOperation);
    return;
  }
  psa = NULL;
}

HRESULT CInternalAuthStore::MakeBSTRVector(const char* sOperation, BSTR bstrText, SAFEARRAY*& psa) {
  psa = SafeArrayCreateVector(VT_BSTR, 0, 1);
  if (psa == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s SafeArrayCreateVector failed", sOperation);
    return E_FAIL;
  }
  if (bstrText == NULL) return S_OK;
  int nIndex = 0;
  const HRESULT hr = SafeArrayPutElement(psa, &nIndex, bstrText);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s SafeArrayPutElement failed", sOperation);
  return hr;
}

HRESULT CInternalAuthStore::MakeTextVector(const char* sOperation, const char* sText, SAFEARRAY*& psa) {
  BSTR bstrText = SysAllocString(sText);
  const HRESULT hr = MakeBSTRVector(sOperation, bstrText, psa);
  qxSysFreeString(bstrText, 0);
  return hr;
}

HRESULT CInternalAuthStore::ReadItem(const char* sOperation, const SecureString& sCompartmentIdGlobal,
                                     const SecureString& sDataId, SAFEARRAY*& psa) {
  const HRESULT hr = m_Tree->GetData(sCompartmentIdGlobal, sDataId, psa, 0);
  if (hr == E_INVALIDARG) {
    xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::%s GetData : data not found", sOperation);
  } else if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s GetData failed", sOperation);
  }
  return hr;
}

HRESULT CInternalAuthStore::WriteItem(const char* sOperation, const SecureString& sCompartmentIdGlobal,
                                      const SecureString& sDataId, SAFEARRAY* psa) {
  const HRESULT hr = m_Tree->SetData(sCompartmentIdGlobal, sDataId, psa, 0, 0);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s SetData failed", sOperation);
  return hr;
}

HRESULT CInternalAuthStore::ReadText(const char* sOperation, SAFEARRAY* psa, SecureString& sText) {
  BSTR bstrText = NULL;
  int nIndex = 0;
  HRESULT hr = SafeArrayGetElement(psa, &nIndex, &bstrText);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s SafeArrayGetlement failed", sOperation);
    return hr;
  }
  hr = BSTR2wstring(bstrText, sText);
  qxSysFreeString(bstrText, 0);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::%s BSTR2wstring failed", sOperation);
  return hr;
}
