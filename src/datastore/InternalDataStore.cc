#include "datastore/InternalDataStore.h"

#include <optional>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "common/StoreMutexLock.h"
#include "trees/MemoryTree.h"
#include "trees/RegistryTree.h"
#include "trees/VersionHistory.h"
#include "xk/log.h"
#include "xk/registry.h"

CInternalDataStore::CInternalDataStore()
    : m_Tree(NULL),
      m_Type(QX::DataStore::TypeMemory),
      m_bEncrypted(0),
      m_bSharedBetweenUserSessions(0),
      m_Availability("CInternalDataStore") {}

CInternalDataStore::~CInternalDataStore() {}

HRESULT CInternalDataStore::Begin(char* sBSTRStoreId, QX::DataStore::Type eType, signed char bEncrypted,
                                  signed char bSharedBetweenUserSessions, SecureString const& sProduct) {
  xklogLog(MSTORE_MODULE, 8, "CInternalDataStore::Begin");
  HRESULT hr = S_OK;
  SecureString sStoreId;
  CAbstractTree* pTree = NULL;

  const int rc = pthread_mutex_init(&m_Mutex, NULL);
  if (rc != 0) {
    // Reported as a success: the store is registered without id, settings or
    // tree, and refuses its operations for want of a tree.
    xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::Begin pthread_mutex_init failed with error code 0x%x",
             static_cast<unsigned int>(rc));
    goto exit;
  }
  hr = BSTR2wstring(sBSTRStoreId, sStoreId);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::Begin BSTR2wstring failed");
    goto exit;
  }
  m_StoreId = sStoreId;
  m_Type = eType;
  m_bEncrypted = bEncrypted;
  m_bSharedBetweenUserSessions = bSharedBetweenUserSessions;
  m_Product = sProduct;
  m_Tree = NULL;
  m_Availability.Clear();

  if (bEncrypted != 0) {
    // The text names a PIN store operation; it is this store's key set-up
    // that failed.
    hr = m_Crypto.initialize(m_StoreId, RemanentSwitch());
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::Begin GetPINCachingMode failed");
      goto exit;
    }
  }
  // The key asks whether the kind is not 0, the tree whether it is exactly 1:
  // any other kind (from a direct registration only; the catalogue gives 0 or
  // 1) gets the key file's key and a memory tree.
  if (m_Type == QX::DataStore::TypeRemanent) {
    // A fixed trace: nothing is tested behind it.
    xklogLog(MSTORE_MODULE, 16, "VistaOrHigher bRet = %s", "false");
    pTree = new CRegistryTree(m_StoreId, 0);
  } else {
    pTree = new CMemoryTree(m_StoreId);
  }
  m_Tree = pTree;

exit:
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::Begin hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalDataStore::End() {
  xklogLog(MSTORE_MODULE, 8, "CInternalDataStore::End");
  m_Availability.Clear();
  if (m_Tree != NULL) delete m_Tree;
  m_Tree = NULL;
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::End hr = 0x%x", 0u);
  return S_OK;
}

HRESULT CInternalDataStore::GetStoreInfo(QX::DataStore::Type& eType, signed char& bEncrypted,
                                         signed char& bSharedBetweenUserSessions, SecureString& sProduct) {
  xklogLog(MSTORE_MODULE, 8, "CInternalDataStore::GetStoreInfo");
  eType = m_Type;
  bEncrypted = m_bEncrypted;
  bSharedBetweenUserSessions = m_bSharedBetweenUserSessions;
  sProduct = m_Product;
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::GetStoreInfo hr = 0x%x", 0u);
  return S_OK;
}

// Converts the compartment id, then the data id when pDataId is given.
HRESULT CInternalDataStore::ConvertIds(const char* sOperation, char* sBSTRCompartmentId, char* sBSTRDataId,
                                       SecureString& sCompartmentId, SecureString* pDataId) {
  HRESULT hr = BSTR2wstring(sBSTRCompartmentId, sCompartmentId);
  if (SUCCEEDED(hr) && pDataId != NULL) hr = BSTR2wstring(sBSTRDataId, *pDataId);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::%s BSTR2wstring failed", sOperation);
  return hr;
}

HRESULT CInternalDataStore::CheckTree(const char* sOperation) {
  if (m_Tree != NULL) return S_OK;
  xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::%s m_Tree == NULL", sOperation);
  return E_FAIL;
}

// The serving condition: only a store shared between user sessions serves
// compartments. The text reads as if sharing were refused; it is the store
// that is not shared that gets it.
HRESULT CInternalDataStore::CheckServing(const char* sOperation) {
  if (m_bSharedBetweenUserSessions != 0) return S_OK;
  xklogLog(MSTORE_MODULE, 1,
           "CInternalDataStore::%s Shared between user sessions is not supported on this product. Please change "
           "the store configuration.",
           sOperation);
  return E_FAIL;
}

SecureString CInternalDataStore::HistoryPath(const SecureString& sCompartmentIdGlobal) const {
  return m_StoreId + "/" + sCompartmentIdGlobal;
}

HRESULT CInternalDataStore::SetData(unsigned int dwClientProcessId, char* sBSTRCompartmentId, char* sBSTRDataId,
                                    tagSAFEARRAY* psaDataValue) {
  xklogLog(MSTORE_MODULE, 8, "CInternalDataStore::SetData dwClientProcessId = %d sBSTRCompartmentId = %s sBSTRDataId = %s",
           static_cast<int>(dwClientProcessId), LogText(sBSTRCompartmentId), LogText(sBSTRDataId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    SecureString sDataId;
    SAFEARRAY* psaToStore = NULL;
    hr = ConvertIds("SetData", sBSTRCompartmentId, sBSTRDataId, sCompartmentId, &sDataId);
    if (SUCCEEDED(hr)) {
      // The store's own copy; the caller's array is never touched.
      SAFEARRAY* psaCopy = NULL;
      SafeArrayCopy(psaDataValue, &psaCopy);
      // An encrypted store protects its copy before it knows whether it can
      // serve.
      if (m_bEncrypted != 0) {
        hr = ProtectValue(psaCopy, psaToStore);
      } else {
        psaToStore = psaCopy;
      }
      if (SUCCEEDED(hr)) hr = CheckTree("SetData");
      if (SUCCEEDED(hr)) hr = CheckServing("SetData");
    }
    if (SUCCEEDED(hr)) {
      const SecureString sCompartmentIdGlobal = sCompartmentId;
      unsigned long ulCompartmentVersion = 0;
      unsigned long ulContentVersion = 0;
      signed char bCached = 0;
      // A remanent store's look at the compartment and its write are one
      // registry transaction, which the registry tree commits with the write.
      std::optional<xk::registry::Batch> batch;
      if (m_Type == QX::DataStore::TypeRemanent) batch.emplace(XK_REG_BATCH_WRITE);
      hr = m_Tree->IsCompartmentCached(sCompartmentIdGlobal, &ulCompartmentVersion, &ulContentVersion, &bCached, 0);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::SetData IsCompartmentCached failed");
      } else {
        hr = m_Tree->SetData(sCompartmentIdGlobal, sDataId, psaToStore, dwClientProcessId, m_bEncrypted);
        batch.reset();
        if (FAILED(hr)) {
          xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::SetData SetData failed");
        } else {
          // A new compartment moves both versions, an existing one its content only.
          hr = UpdateHistoryTree(HistoryPath(sCompartmentIdGlobal), bCached != 0 ? 1 : -1);
          if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::SetData UpdateHistoryTree failed");
        }
      }
    }
    if (psaToStore != NULL) {
      const HRESULT hrDestroy = qxSafeArrayDestroy(psaToStore, 0);
      if (FAILED(hrDestroy))
        xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::SetData qxSafeArrayDestroy failed hr = 0x%x",
                 static_cast<unsigned int>(hrDestroy));
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::SetData hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CInternalDataStore::GetData(unsigned int dwClientProcessId, char* sBSTRCompartmentId, char* sBSTRDataId,
                                    tagSAFEARRAY** ppsaDataValue) {
  xklogLog(MSTORE_MODULE, 8, "CInternalDataStore::GetData dwClientProcessId = %d sBSTRCompartmentId = %s sBSTRDataId = %s",
           static_cast<int>(dwClientProcessId), LogText(sBSTRCompartmentId), LogText(sBSTRDataId));
  HRESULT hr;
  {
    CStoreMutexLock lock(&m_Mutex);
    SecureString sCompartmentId;
    SecureString sDataId;
    SAFEARRAY* psaClear = NULL;
    hr = ConvertIds("GetData", sBSTRCompartmentId, sBSTRDataId, sCompartmentId, &sDataId);
    if (SUCCEEDED(hr)) hr = CheckTree("GetData");
    if (SUCCEEDED(hr)) hr = CheckServing("GetData");
    if (SUCCEEDED(hr)) {
      const SecureString sCompartmentIdGlobal = sCompartmentId;
      SAFEARRAY* psaStored = NULL;
      hr = m_Tree->GetData(sCompartmentIdGlobal, sDataId, psaStored, 0);
      if (hr == E_INVALIDARG) {
        xklogLog(MSTORE_MODULE, 2, "CInternalDataStore::GetData GetData : data not found");
      } else if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::GetData GetData failed");
      } else {
        if (m_bEncrypted != 0) {
          hr = RecoverValue(psaStored, psaClear);
        } else {
          psaClear = psaStored;
        }
        if (SUCCEEDED(hr) && ppsaDataValue != NULL) {
          hr = SafeArrayCopy(psaClear, ppsaDataValue);
          if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::GetData SafeArrayCopy failed");
        }
      }
    }
    if (psaClear != NULL) {
      const HRESULT hrDestroy = qxSafeArrayDestroy(psaClear, 0);
      if (FAILED(hrDestroy)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::GetData qxSafeArrayDestroy failed");
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CInternalDataStore::GetData hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

// Encrypts the store's copy into psaToStore and destroys the copy. On a
// failed encryption psaToStore stays NULL. A failed destruction of the copy is
// returned with psaToStore already holding the ciphertext, which the caller
// destroys with the value to store.
HRESULT CInternalDataStore::ProtectValue(SAFEARRAY* psaCopy, SAFEARRAY*& psaToStore) {
  SAFEARRAY* psaProtected = NULL;
  HRESULT hr = m_Crypto.encryptValue(psaCopy, psaProtected, RemanentSwitch());
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::SetData EncryptValue failed");
    qxSafeArrayDestroy(psaCopy, 0);
    return hr;
  }
  psaToStore = psaProtected;
  hr = qxSafeArrayDestroy(psaCopy, 0);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::SetData qxSafeArrayDestroy failed");
  return hr;
}

// Decrypts the tree's array into psaClear, the array GetData destroys at its
// end: the clear value on success, the stored array when decryption failed.
// A failed destruction of the stored array after a success is returned, with
// psaClear holding the clear value.
HRESULT CInternalDataStore::RecoverValue(SAFEARRAY* psaStored, SAFEARRAY*& psaClear) {
  SAFEARRAY* psaOut = NULL;
  HRESULT hr = m_Crypto.DecryptValue(psaStored, psaOut, RemanentSwitch());
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::GetData DecryptValue failed");
    // A string list that failed part way comes back partly filled; it is
    // nobody's, so it goes.
    if (psaOut != NULL) qxSafeArrayDestroy(psaOut, 0);
    psaClear = psaStored;
    return hr;
  }
  psaClear = psaOut;
  hr = qxSafeArrayDestroy(psaStored, 0);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CInternalDataStore::GetData qxSafeArrayDestroy failed");
  return hr;
}
