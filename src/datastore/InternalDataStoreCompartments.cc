// CInternalDataStore: the item and compartment operations besides SetData and
// GetData. Each logs its entry and arguments, locks, converts the ids, clears
// its outputs, checks the tree and the serving condition, works on the tree and
// the version history, unlocks and logs its exit.

#include <list>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "datastore/InternalDataStore.h"
#include "common/StoreMutexLock.h"
#include "trees/VersionHistory.h"
#include "xk/log.h"

namespace {

void LogArguments(const char* sOperation, unsigned int dwClientProcessId, char* sBSTRCompartmentId,
                  char* sBSTRDataId, bool bHasDataId) {
  xklogLog(MSTORE_MODULE, 8, "CInternalDataStore::%s", sOperation);
  xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::%s dwClientProcessId = %d", sOperation,
           static_cast<int>(dwClientProcessId));
  xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::%s sBSTRCompartmentId = %s", sOperation,
           LogText(sBSTRCompartmentId));
  if (bHasDataId) xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::%s sBSTRDataId = %s", sOperation, LogText(sBSTRDataId));
}

HRESULT LogExit(const char* sOperation, HRESULT hr) {
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::%s hr = 0x%x", sOperation, static_cast<unsigned int>(hr));
  return hr;
}

// The counters travel as unsigned long; the log shows their low 32 bits.
int AsLogged(unsigned long ulVersion) { return static_cast<int>(static_cast<unsigned int>(ulVersion)); }

}  // namespace

HRESULT CInternalDataStore::RemoveData(unsigned int dwClientProcessId, char* sBSTRCompartmentId, char* sBSTRDataId) {
  static const char kOp[] = "RemoveData";
  LogArguments(kOp, dwClientProcessId, sBSTRCompartmentId, sBSTRDataId, true);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    SecureString sDataId;
    hr = ConvertIds(kOp, sBSTRCompartmentId, sBSTRDataId, sCompartmentId, &sDataId);
    if (SUCCEEDED(hr)) hr = CheckTree(kOp);
    if (SUCCEEDED(hr)) hr = CheckServing(kOp);
    if (SUCCEEDED(hr)) {
      const SecureString sCompartmentIdGlobal = sCompartmentId;
      hr = m_Tree->RemoveData(sCompartmentIdGlobal, sDataId, dwClientProcessId);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::RemoveData RemoveData failed");
      } else {
        hr = UpdateHistoryTree(HistoryPath(sCompartmentIdGlobal), 1);
        if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::RemoveData UpdateHistoryTree failed");
      }
    }
  }
  return LogExit(kOp, hr);
}

HRESULT CInternalDataStore::CreateCompartment(unsigned int dwClientProcessId, char* sBSTRCompartmentId) {
  // An existing compartment is left alone, versions included.
  return MakeCompartment("CreateCompartment", dwClientProcessId, sBSTRCompartmentId, false);
}

HRESULT CInternalDataStore::TouchCompartment(unsigned int dwClientProcessId, char* sBSTRCompartmentId) {
  // New or not, both versions move, so that readers who cache by version read again.
  return MakeCompartment("TouchCompartment", dwClientProcessId, sBSTRCompartmentId, true);
}

HRESULT CInternalDataStore::MakeCompartment(const char* kOp, unsigned int dwClientProcessId,
                                            char* sBSTRCompartmentId, bool bAlwaysUpdateVersions) {
  LogArguments(kOp, dwClientProcessId, sBSTRCompartmentId, NULL, false);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    hr = ConvertIds(kOp, sBSTRCompartmentId, NULL, sCompartmentId, NULL);
    if (SUCCEEDED(hr)) hr = CheckTree(kOp);
    if (SUCCEEDED(hr)) hr = CheckServing(kOp);
    if (SUCCEEDED(hr)) {
      const SecureString sCompartmentIdGlobal = sCompartmentId;
      unsigned long ulCompartmentVersion = 0;
      unsigned long ulContentVersion = 0;
      signed char bCached = 0;
      hr = m_Tree->IsCompartmentCached(sCompartmentIdGlobal, &ulCompartmentVersion, &ulContentVersion, &bCached, 0);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::%s IsCompartmentCached failed", kOp);
      } else {
        bool bUpdate = bAlwaysUpdateVersions;
        if (bCached == 0) {
          hr = m_Tree->CreateCompartment(sCompartmentIdGlobal, dwClientProcessId);
          if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::%s CreateCompartment failed", kOp);
          bUpdate = true;
        }
        if (bUpdate && SUCCEEDED(hr)) {
          hr = UpdateHistoryTree(HistoryPath(sCompartmentIdGlobal), -1);
          if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::%s UpdateHistoryTree failed", kOp);
        }
      }
    }
  }
  return LogExit(kOp, hr);
}

HRESULT CInternalDataStore::RemoveCompartment(unsigned int dwClientProcessId, char* sBSTRCompartmentId,
                                              signed char bRemoveVersions) {
  static const char kOp[] = "RemoveCompartment";
  LogArguments(kOp, dwClientProcessId, sBSTRCompartmentId, NULL, false);
  xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::RemoveCompartment bRemoveVersions = %d", bRemoveVersions);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    hr = ConvertIds(kOp, sBSTRCompartmentId, NULL, sCompartmentId, NULL);
    if (SUCCEEDED(hr)) hr = CheckTree(kOp);
    // No serving condition: a store that is not shared can still be cleaned.
    if (SUCCEEDED(hr)) {
      if (m_bSharedBetweenUserSessions != 0) {
        SecureString sCompartmentIdGlobal = sCompartmentId;
        hr = RemoveOneCompartment(dwClientProcessId, sCompartmentIdGlobal, bRemoveVersions);
        if (FAILED(hr))
          xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::RemoveCompartment RemoveOneCompartment failed");
      } else {
        hr = RemoveFromEverySession(dwClientProcessId, sCompartmentId, bRemoveVersions);
      }
    }
  }
  return LogExit(kOp, hr);
}

// The branch of a store that is not shared: the one place where a session id
// enters a data store path. Stops at the first failure; what was removed stays
// removed.
HRESULT CInternalDataStore::RemoveFromEverySession(unsigned int dwClientProcessId, const SecureString& sCompartmentId,
                                                   signed char bRemoveVersions) {
  std::list<SecureString> sessionIdList;
  HRESULT hr = m_Tree->GetSessionIdList(sessionIdList);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::RemoveCompartment GetSessionIdList failed");
    return hr;
  }
  for (const SecureString& sSessionId : sessionIdList) {
    SecureString sCompartmentIdGlobal = sSessionId;
    if (sCompartmentId != "/") sCompartmentIdGlobal += "/" + sCompartmentId;
    hr = RemoveOneCompartment(dwClientProcessId, sCompartmentIdGlobal, bRemoveVersions);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::RemoveCompartment RemoveOneCompartment failed");
      break;
    }
  }
  return hr;
}

HRESULT CInternalDataStore::RemoveOneCompartment(unsigned int dwClientProcessId, SecureString& sCompartmentIdGlobal,
                                                 signed char bRemoveVersions) {
  xklogLog(MSTORE_MODULE, 8,
           "CInternalDataStore::RemoveOneCompartment dwClientProcessId = %x sCompartmentIdGlobal = %s "
           "bRemoveVersions = %d",
           dwClientProcessId, sCompartmentIdGlobal.c_str(), bRemoveVersions);
  HRESULT hr = m_Tree->RemoveCompartment(sCompartmentIdGlobal, 1, dwClientProcessId);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::RemoveOneCompartment RemoveCompartment failed");
  } else {
    const SecureString sHistoryPath = HistoryPath(sCompartmentIdGlobal);
    if (bRemoveVersions != 0) {
      // Forget the history: a later compartment of the same path counts anew.
      HistoryLock historyLock;
      if (gHistoryTree != NULL) {
        hr = gHistoryTree->RemoveCompartment(sHistoryPath, 1, 0);
        if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::RemoveOneCompartment RemoveCompartment failed");
      } else {
        xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::RemoveOneCompartment gHistoryTree == NULL");
      }
    } else {
      // Keep the history and move both versions, so a reader sees the change.
      hr = UpdateHistoryTree(sHistoryPath, -1);
      if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::RemoveOneCompartment UpdateHistoryTree failed");
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::RemoveOneCompartment hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalDataStore::IsDataCached(unsigned int dwClientProcessId, char* sBSTRCompartmentId, char* sBSTRDataId,
                                         signed char* pbCached) {
  static const char kOp[] = "IsDataCached";
  LogArguments(kOp, dwClientProcessId, sBSTRCompartmentId, sBSTRDataId, true);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    SecureString sDataId;
    hr = ConvertIds(kOp, sBSTRCompartmentId, sBSTRDataId, sCompartmentId, &sDataId);
    if (SUCCEEDED(hr)) {
      if (pbCached != NULL) *pbCached = 0;
      hr = CheckTree(kOp);
    }
    if (SUCCEEDED(hr)) hr = CheckServing(kOp);
    if (SUCCEEDED(hr)) {
      const SecureString sCompartmentIdGlobal = sCompartmentId;
      hr = m_Tree->IsDataCached(sCompartmentIdGlobal, sDataId, pbCached, 0);
      if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::IsDataCached IsDataCached failed");
      if (pbCached != NULL) xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::IsDataCached *pbCached = %x", *pbCached);
    }
  }
  return LogExit(kOp, hr);
}

HRESULT CInternalDataStore::ListDataIds(unsigned int dwClientProcessId, char* sBSTRCompartmentId,
                                        tagSAFEARRAY** ppsaDataIdList) {
  static const char kOp[] = "ListDataIds";
  LogArguments(kOp, dwClientProcessId, sBSTRCompartmentId, NULL, false);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    hr = ConvertIds(kOp, sBSTRCompartmentId, NULL, sCompartmentId, NULL);
    if (SUCCEEDED(hr)) hr = CheckTree(kOp);
    if (SUCCEEDED(hr)) hr = CheckServing(kOp);
    if (SUCCEEDED(hr)) {
      const SecureString sCompartmentIdGlobal = sCompartmentId;
      hr = m_Tree->ListDataIds(sCompartmentIdGlobal, ppsaDataIdList, 0);
      if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::ListDataIds ListDataIds failed");
    }
  }
  return LogExit(kOp, hr);
}

HRESULT CInternalDataStore::ListCompartmentIds(unsigned int dwClientProcessId, char* sBSTRCompartmentId,
                                               tagSAFEARRAY** ppsCompartmentIdList) {
  static const char kOp[] = "ListCompartmentIds";
  LogArguments(kOp, dwClientProcessId, sBSTRCompartmentId, NULL, false);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    hr = ConvertIds(kOp, sBSTRCompartmentId, NULL, sCompartmentId, NULL);
    if (SUCCEEDED(hr)) hr = CheckTree(kOp);
    if (SUCCEEDED(hr)) hr = CheckServing(kOp);
    if (SUCCEEDED(hr)) {
      const SecureString sCompartmentIdGlobal = sCompartmentId;
      hr = m_Tree->ListCompartmentIds(sCompartmentIdGlobal, ppsCompartmentIdList, 0);
      if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::ListCompartmentIds ListCompartmentIds failed");
    }
  }
  return LogExit(kOp, hr);
}

HRESULT CInternalDataStore::IsCompartmentCached(unsigned int dwClientProcessId, char* sBSTRCompartmentId,
                                                unsigned long* pulCompartmentVersion,
                                                unsigned long* pulContentVersion, signed char* pbCached) {
  static const char kOp[] = "IsCompartmentCached";
  LogArguments(kOp, dwClientProcessId, sBSTRCompartmentId, NULL, false);
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    hr = ConvertIds(kOp, sBSTRCompartmentId, NULL, sCompartmentId, NULL);
    if (SUCCEEDED(hr)) {
      if (pbCached != NULL) *pbCached = 0;
      if (pulCompartmentVersion != NULL) *pulCompartmentVersion = 0;
      if (pulContentVersion != NULL) *pulContentVersion = 0;
      hr = CheckTree(kOp);
    }
    if (SUCCEEDED(hr)) hr = CheckServing(kOp);
    if (SUCCEEDED(hr)) {
      const SecureString sCompartmentIdGlobal = sCompartmentId;
      hr = m_Tree->IsCompartmentCached(sCompartmentIdGlobal, pulCompartmentVersion, pulContentVersion, pbCached, 0);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::IsCompartmentCached IsCompartmentCached failed");
      } else {
        if (pulCompartmentVersion != NULL)
          xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::IsCompartmentCached *pulCompartmentVersion = %d",
                   AsLogged(*pulCompartmentVersion));
        if (pulContentVersion != NULL)
          xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::IsCompartmentCached *pulContentVersion = %d",
                   AsLogged(*pulContentVersion));
        if (pbCached != NULL)
          xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::IsCompartmentCached *pbCached = %x", *pbCached);
      }
    }
  }
  return LogExit(kOp, hr);
}
