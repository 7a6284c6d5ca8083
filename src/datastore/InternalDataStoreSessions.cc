// CInternalDataStore: flushing, whole or by session, and the per-session
// availability flags.

#include <string>

#include "common/Module.h"
#include "datastore/InternalDataStore.h"
#include "common/StoreMutexLock.h"
#include "trees/VersionHistory.h"
#include "xk/log.h"

HRESULT CInternalDataStore::FlushStore(unsigned int dwClientProcessId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalDataStore::FlushStore");
  xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::FlushStore dwClientProcessId = %d", static_cast<int>(dwClientProcessId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    // No serving condition: any store can be emptied.
    hr = CheckTree("FlushStore");
    if (SUCCEEDED(hr)) {
      hr = m_Tree->FlushTree(dwClientProcessId);
      // The store's history lies under its id; it goes with the content. The
      // history calls' results replace the flush's.
      HistoryLock historyLock;
      if (gHistoryTree != NULL) {
        unsigned long ulCompartmentVersion = 0;
        unsigned long ulContentVersion = 0;
        signed char bCached = 0;
        hr = gHistoryTree->IsCompartmentCached(m_StoreId, &ulCompartmentVersion, &ulContentVersion, &bCached, 0);
        if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::FlushStore IsCompartmentCached failed");
        if (bCached == 1) {
          hr = gHistoryTree->RemoveCompartment(m_StoreId, 1, 0);
          if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::FlushStore RemoveCompartment failed");
        }
      }
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::FlushStore hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalDataStore::FlushStoreFromSessionId(unsigned int dwSessionId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalDataStore::FlushStoreFromSessionId");
  xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::FlushStoreFromSessionId dwSessionId = %d",
           static_cast<int>(dwSessionId));
  const std::string sDecimal = std::to_string(dwSessionId);
  const SecureString sSessionId(sDecimal.data(), sDecimal.size());
  const SecureString sCompartmentId("/");
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::FlushStoreFromSessionId sSessionId = %s", sSessionId.c_str());
    SecureString sCompartmentIdGlobal;
    hr = CheckTree("FlushStoreFromSessionId");
    if (SUCCEEDED(hr)) {
      if (m_bSharedBetweenUserSessions != 0) {
        // The session plays no part: "/" removes nothing from a memory tree.
        sCompartmentIdGlobal = sCompartmentId;
      } else {
        SecureString sSessionIdFound;
        hr = m_Tree->FindSessionId(sSessionId, sCompartmentId, sSessionIdFound);
        if (FAILED(hr)) {
          xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::FlushStoreFromSessionId FindSessionId failed");
        } else {
          xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::FlushStoreFromSessionId sSessionIdFound = %s",
                   sSessionIdFound.c_str());
          sCompartmentIdGlobal = sSessionIdFound;
          // A compartment other than "/" would follow here after a "/"; the
          // fixed "/" above never lets that happen.
        }
      }
    }
    if (SUCCEEDED(hr)) {
      hr = m_Tree->RemoveCompartment(sCompartmentIdGlobal, 1, 0);
      if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::FlushStoreFromSessionId RemoveCompartment failed");
    }
    if (SUCCEEDED(hr)) {
      const SecureString sHistoryPath = HistoryPath(sCompartmentIdGlobal);
      HistoryLock historyLock;
      if (gHistoryTree != NULL) {
        hr = gHistoryTree->RemoveCompartment(sHistoryPath, 1, 0);
        if (FAILED(hr))
          xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::FlushStoreFromSessionId RemoveCompartment failed");
      } else {
        xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::FlushStoreFromSessionId gHistoryTree == NULL");
      }
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::FlushStoreFromSessionId hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalDataStore::SetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char bAvailabled) {
  return m_Availability.SetAvailabilityStoreFromSessionId(dwSessionId, bAvailabled);
}

HRESULT CInternalDataStore::GetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char& bAvailabled) {
  return m_Availability.GetAvailabilityStoreFromSessionId(dwSessionId, bAvailabled);
}
