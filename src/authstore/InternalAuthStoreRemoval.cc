// CInternalAuthStore: expiry timers, and every way a PIN leaves the store or
// follows a session.
#include <climits>
#include <string>

#include "authstore/InternalAuthStore.h"
#include "authstore/PINItems.h"
#include "authstore/TimerCallbackFunction.h"
#include "common/FctUtils.h"
#include "common/Module.h"
#include "common/StoreMutexLock.h"
#include "xk/log.h"

namespace {

SecureString DecimalText(unsigned int dwValue) {
  const std::string sText = std::to_string(dwValue);
  return SecureString(sText.data(), sText.size());
}

}  // namespace

// ---- Expiry ------------------------------------------------------------------

HRESULT CInternalAuthStore::SetInternalTimer(SecureString const& sCompartmentIdGlobal, unsigned int dwClientProcessId,
                                             char* bstrCompartmentId, char* bstrPINId, char* bstrPINSessionId) {
  RemoveExpiredTimers();
  auto it = m_Timers.find(sCompartmentIdGlobal);
  if (it == m_Timers.end())
    xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::SetInternalTimer sCompartmentIdGlobal not found in list");
  int nTimeout = 0;
  GetPINCachingTimeout(nTimeout);
  // The lowest 32-bit value: the PIN never expires; a timer it already has
  // is left as it is.
  if (nTimeout == INT_MIN) return S_OK;
  // 0 minutes is 5 seconds; any other count is minutes, in 32 bits, unchecked.
  const unsigned int dwSeconds = nTimeout == 0 ? 5u : static_cast<unsigned int>(nTimeout) * 60u;
  if (it != m_Timers.end() && it->second != NULL) {
    // Re-armed with the duration it was made with.
    it->second->Restart();
    return S_OK;
  }
  TimerCallbackData* pData = new TimerCallbackData{this, dwClientProcessId, SysAllocString(bstrCompartmentId),
                                                   SysAllocString(bstrPINId), SysAllocString(bstrPINSessionId)};
  QX::Framework::ITimer* pTimer =
      QX::Framework::ITimer::CreateNewTimer(dwSeconds, new CTimerCallbackFunction(pData));
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::SetInternalTimer timeout = %d s", static_cast<int>(dwSeconds));
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::SetInternalTimer pTimer = %p", static_cast<void*>(pTimer));
  m_Timers[sCompartmentIdGlobal] = pTimer;
  return S_OK;
}

HRESULT CInternalAuthStore::RemoveExpiredTimers() {
  DeleteTimers(m_ExpiredTimers, "CInternalAuthStore::RemoveExpiredTimers pTimer = %p");
  return S_OK;
}

HRESULT CInternalAuthStore::RemoveExpiredPINFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId,
                                                             char* bstrPINId, char* bstrPINSessionId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::RemoveExpiredPINFromPINSessionId");
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    hr = RemoveInternalPIN(1, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId, 1);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemoveExpiredPINFromPINSessionId RemoveInternalPIN failed");
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::RemoveExpiredPINFromPINSessionId hr = 0x%x",
           static_cast<unsigned int>(hr));
  return hr;
}

// ---- One PIN ---------------------------------------------------------------

HRESULT CInternalAuthStore::RemovePINFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId,
                                                      char* bstrPINId, char* bstrPINSessionId,
                                                      SAFEARRAY* /*pAdditionalParameters*/) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::RemovePINFromPINSessionId");
  xklogLog(MSTORE_MODULE, 2,
           "CInternalAuthStore::RemovePINFromPINSessionId dwClientProcessId = %u bstrCompartmentId = %s "
           "bstrPINId = %s bstrPINSessionId = %s",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId), LogText(bstrPINSessionId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    hr = RemoveInternalPIN(1, dwClientProcessId, bstrCompartmentId, bstrPINId, bstrPINSessionId, 0);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePINFromPINSessionId RemoveInternalPIN failed");
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::RemovePINFromPINSessionId hr = 0x%x",
           static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::RemoveInternalPIN(signed char bFromPINSessionId, unsigned int dwClientProcessId,
                                              char* bstrCompartmentId, char* bstrPINId, char* bstrPINSessionId,
                                              signed char bExpired) {
  SecureString sCompartmentIdGlobal;
  HRESULT hr = ResolvePINPath("RemoveInternalPIN", bFromPINSessionId, dwClientProcessId, bstrCompartmentId, bstrPINId,
                              bstrPINSessionId, sCompartmentIdGlobal);
  if (FAILED(hr)) return hr;
  hr = RemovePINData(sCompartmentIdGlobal, bExpired);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemoveInternalPIN RemovePINData failed");
  return hr;
}

HRESULT CInternalAuthStore::RemovePINData(SecureString const& sCompartmentIdGlobal, signed char bExpired) {
  static const char kOp[] = "RemovePINData";
  SAFEARRAY* psaSessionId = NULL;
  HRESULT hr = CheckTree(kOp);
  if (FAILED(hr)) return hr;
  for (const SecureString* pId : {&PINItems::Value(), &PINItems::AlwaysState(), &PINItems::BypassAlwaysState()}) {
    hr = m_Tree->RemoveData(sCompartmentIdGlobal, *pId, 0);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePINData RemoveData failed");
      return hr;
    }
  }
  hr = ReadItem(kOp, sCompartmentIdGlobal, PINItems::SessionId(), psaSessionId);
  if (FAILED(hr)) return hr;
  if (psaSessionId != NULL) {
    // The PIN session id no longer leads anywhere.
    SecureString sPINSessionId;
    hr = ReadText(kOp, psaSessionId, sPINSessionId);
    if (FAILED(hr)) goto exit;
    m_PINSessionIds.erase(sPINSessionId);
  }
  hr = m_Tree->RemoveData(sCompartmentIdGlobal, PINItems::SessionId(), 0);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePINData RemoveData failed");
    goto exit;
  }
  {
    auto it = m_Timers.find(sCompartmentIdGlobal);
    if (it != m_Timers.end()) {
      if (bExpired != 0) {
        // Fired: it cannot be deleted from its own callback, so it waits for
        // the next caller.
        m_ExpiredTimers[sCompartmentIdGlobal] = it->second;
      } else if (it->second != NULL) {
        xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::RemovePINData pTimer = %p", static_cast<void*>(it->second));
        delete it->second;
      }
      m_Timers.erase(it);
    }
  }
  hr = m_Tree->RemoveCompartment(sCompartmentIdGlobal, 1, 0);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePINData RemoveCompartment failed");
exit:
  DestroyHeld(kOp, psaSessionId, hr);
  return hr;
}

HRESULT CInternalAuthStore::RemovePINCompartment(SecureString const& sCompartmentIdGlobal) {
  HRESULT hr = CheckTree("RemovePINCompartment");
  if (FAILED(hr)) return hr;
  RemoveExpiredTimers();
  // Only the timer keyed by exactly this path; those of PINs below it run on.
  auto it = m_Timers.find(sCompartmentIdGlobal);
  if (it != m_Timers.end()) {
    xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::RemovePINCompartment pTimer = %p", static_cast<void*>(it->second));
    delete it->second;
    m_Timers.erase(it);
  }
  hr = m_Tree->RemoveCompartment(sCompartmentIdGlobal, 1, 0);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePINCompartment RemoveCompartment failed");
  return hr;
}

HRESULT CInternalAuthStore::RemovePIN(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                      SAFEARRAY* pAdditionalParameters) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::RemovePIN");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::RemovePIN dwClientProcessId = %u bstrCompartmentId = %s bstrPINId = %s",
           dwClientProcessId, LogText(bstrCompartmentId), LogText(bstrPINId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sIsACRPINAlways, sAction, sAllProcess, sAllSession, sCheckClientCaller, sBypassPINAlways;
    SecureString sCompartmentId, sPINId;
    hr = GetAdditionalParameters(pAdditionalParameters, sIsACRPINAlways, sAction, sAllProcess, sAllSession,
                                 sCheckClientCaller, sBypassPINAlways);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePIN GetAdditionalParameters failed");
      goto exit;
    }
    if (sAllProcess == "False" && sAllSession == "False") {
      hr = RemoveInternalPIN(0, dwClientProcessId, bstrCompartmentId, bstrPINId, NULL, 0);
      goto done;
    }
    hr = ConvertIds("RemovePIN", bstrCompartmentId, bstrPINId, sCompartmentId, sPINId);
    if (FAILED(hr)) goto done;
    if (sAllProcess == "True" && m_PinCachingMode == PinCachingPerProcess) {
      // Every process of the caller's session: the path without its process
      // segment, straight from the tree. Timers and PIN session ids stay.
      SecureString sSessionId;
      if (m_bSharedBetweenUserSessions == 0) {
        hr = GetSessionId(dwClientProcessId, sSessionId);
        if (FAILED(hr)) {
          xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePIN GetSessionId failed");
          goto done;
        }
      }
      if (m_Tree == NULL) {
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePIN NULL == m_Tree");
        goto done;
      }
      SecureString sPath = m_bSharedBetweenUserSessions == 0 ? sSessionId + "/" : SecureString();
      sPath += sCompartmentId + "/" + sPINId;
      hr = m_Tree->RemoveCompartment(sPath, 1, 0);
      if (FAILED(hr)) {
        // The same text as above, though the step differs.
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePIN GetSessionId failed");
        goto done;
      }
    }
    if (sAllSession == "True" && m_bSharedBetweenUserSessions == 0) {
      // Every session known by a PIN session id, over a copy: RemovePINData
      // erases from the map. A session with several ids is visited as often.
      const std::map<SecureString, SecureString> sessions = m_PINSessionIds;
      for (const auto& entry : sessions) {
        hr = RemovePINData(BuildPath(entry.second, sCompartmentId, sPINId, dwClientProcessId), 0);
        if (FAILED(hr)) {
          xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::RemovePIN RemovePINData failed");
          hr = S_OK;
        }
      }
    }
  done:
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemovePIN RemoveInternalPIN failed");
  }
exit:
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::RemovePIN hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

// ---- Compartments, flushes, moves -------------------------------------------

HRESULT CInternalAuthStore::RemoveCompartment(unsigned int dwClientProcessId, char* bstrCompartmentId,
                                              SAFEARRAY* pAdditionalParameters) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::RemoveCompartment");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::RemoveCompartment dwClientProcessId = %u bstrCompartmentId = %s",
           dwClientProcessId, LogText(bstrCompartmentId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sIsACRPINAlways, sAction, sAllProcess, sAllSession, sCheckClientCaller, sBypassPINAlways;
    SecureString sSessionId, sCompartmentId;
    hr = GetAdditionalParameters(pAdditionalParameters, sIsACRPINAlways, sAction, sAllProcess, sAllSession,
                                 sCheckClientCaller, sBypassPINAlways);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::RemoveCompartment GetAdditionalParameters failed");
      goto exit;
    }
    // The caller's session is checked also for the all-sessions form.
    if (m_bSharedBetweenUserSessions == 0) {
      hr = GetSessionId(dwClientProcessId, sSessionId);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemoveCompartment GetSessionId failed");
        goto exit;
      }
    }
    hr = BSTR2wstring(bstrCompartmentId, sCompartmentId);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemoveCompartment BSTR2wstring failed");
      goto exit;
    }
    hr = CheckTree("RemoveCompartment");
    if (FAILED(hr)) goto exit;
    if (sAllSession == "False") {
      const SecureString sPath =
          m_bSharedBetweenUserSessions == 0 ? sSessionId + "/" + sCompartmentId : sCompartmentId;
      hr = RemovePINCompartment(sPath);
      if (FAILED(hr))
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::RemoveCompartment RemovePINCompartment failed");
    } else if (sAllSession == "True" && m_bSharedBetweenUserSessions == 0) {
      const std::map<SecureString, SecureString> sessions = m_PINSessionIds;
      for (const auto& entry : sessions) {
        hr = RemovePINCompartment(entry.second + "/" + sCompartmentId);
        if (FAILED(hr)) {
          xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::RemoveCompartment RemovePINCompartment failed");
          hr = S_OK;
        }
      }
    }
  }
exit:
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::RemoveCompartment hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::FlushStore(unsigned int dwClientProcessId, SAFEARRAY* pAdditionalParameters) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::FlushStore");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::FlushStore dwClientProcessId = %u", dwClientProcessId);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sIsACRPINAlways, sAction, sAllProcess, sAllSession, sCheckClientCaller, sBypassPINAlways;
    hr = GetAdditionalParameters(pAdditionalParameters, sIsACRPINAlways, sAction, sAllProcess, sAllSession,
                                 sCheckClientCaller, sBypassPINAlways);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::FlushStore GetAdditionalParameters failed");
    } else {
      DeleteTimers(m_Timers, "CInternalAuthStore::FlushStore pTimer = %p");
      DeleteTimers(m_ExpiredTimers, "CInternalAuthStore::FlushStore Expired pTimer = %p");
      hr = CheckTree("FlushStore");
      if (SUCCEEDED(hr)) hr = m_Tree->FlushTree(0);
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::FlushStore hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::FlushStore(unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::FlushStore");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::FlushStore dwClientProcessId = %u", dwClientProcessId);
  HRESULT hr;
  {
    // Timers are left alone: they fire later and find nothing.
    CStoreMutexLock lock(&m_Mutex);
    hr = CheckTree("FlushStore");
    if (SUCCEEDED(hr)) hr = m_Tree->FlushTree(dwClientProcessId);
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::FlushStore hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::FlushStoreFromSessionId(unsigned int dwSessionId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::FlushStoreFromSessionId");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::FlushStoreFromSessionId dwSessionId = %u", dwSessionId);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    hr = CheckTree("FlushStoreFromSessionId");
    if (SUCCEEDED(hr)) {
      // "session//": two slashes, kept as they are. On a memory tree no
      // ordinary PIN lies below that path.
      const SecureString sPath = m_bSharedBetweenUserSessions != 0 ? SecureString("/")
                                                                   : DecimalText(dwSessionId) + "/" + "/";
      hr = RemovePINCompartment(sPath);
      if (FAILED(hr))
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::FlushStoreFromSessionId RemovePINCompartment failed");
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::FlushStoreFromSessionId hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::MoveStore(unsigned int dwFromSessionId, unsigned int dwToSessionId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalAuthStore::MoveStore");
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::MoveStore dwFromSessionId = %u dwToSessionId = %u", dwFromSessionId,
           dwToSessionId);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    hr = CheckTree("MoveStore");
    if (SUCCEEDED(hr)) {
      const bool bShared = m_bSharedBetweenUserSessions != 0;
      const SecureString sFrom = bShared ? SecureString("/") : DecimalText(dwFromSessionId);
      const SecureString sTo = bShared ? SecureString("/") : DecimalText(dwToSessionId);
      xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::MoveStore sCompartmentIdFromGlobal = %s sCompartmentIdToGlobal = %s",
               sFrom.c_str(), sTo.c_str());
      hr = MovePINCompartment(sFrom, sTo);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::MoveStore MovePINCompartment failed");
      } else {
        // The PIN session ids follow; timers keep their old keys.
        for (auto& entry : m_PINSessionIds)
          if (entry.second == sFrom) entry.second = sTo;
      }
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalAuthStore::MoveStore hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalAuthStore::MovePINCompartment(SecureString const& sCompartmentIdFromGlobal,
                                               SecureString const& sCompartmentIdToGlobal) {
  const HRESULT hr = m_Tree->MoveCompartmentIds(sCompartmentIdFromGlobal, sCompartmentIdToGlobal, true);
  // The text names a removal; the step is a move.
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::MovePINCompartment RemoveCompartment failed");
  return hr;
}
