#ifndef MERROWSTORE_DATASTORE_INTERNALDATASTORE_H
#define MERROWSTORE_DATASTORE_INTERNALDATASTORE_H

#include <pthread.h>

#include "crypto/CommonCrypto.h"
#include "datastore/SessionAvailability.h"
#include "merrowstore/DataStoreType.h"
#include "merrowstore/export.h"
#include "trees/AbstractTree.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// One data store: a tree of compartments holding SAFEARRAY values, with the
// version counters of every compartment kept in gHistoryTree under
// "store id/compartment path".
//
// Every data operation holds m_Mutex from just after its entry log to just
// before its exit log, over tree and version calls alike; the mutex is not
// recursive, so nothing inside may re-enter a locking operation of the same
// store. Begin, End, GetStoreInfo and the availability operations take no
// store lock. The compartment path handed to the tree is the caller's
// compartment id unchanged; dwClientProcessId decides nothing.
//
// An encrypted store keeps every value as a VT_UI1 vector of ciphertext made
// by its own CommonCrypto: the tree never sees a clear value. The key is made
// by Begin: a fresh one for this process when eType is 0, the key file's for
// any other kind (the "remanent switch", m_Type != 0). A remanent store (eType
// exactly 1) keeps its tree in the registry (CRegistryTree), where other
// processes see the same data.
//
// A store serves compartments only when it was begun as shared between user
// sessions; any other store refuses every compartment operation with E_FAIL,
// except RemoveCompartment and the flushes.
//
// Results: S_OK; E_INVALIDARG for an empty identifier and for an item or
// compartment the tree does not have; E_FAIL for a store without a tree, a
// refused store, a refused configuration; other failures pass through as the
// tree or the value service gave them. Work that reached the tree is not
// rolled back when a later step fails.
class MERROWSTORE_EXPORT CInternalDataStore {
 public:
  // Empty ids and maps, no tree.
  CInternalDataStore();
  // Does not call End: the owner does, for a store whose Begin succeeded.
  ~CInternalDataStore();
  CInternalDataStore(const CInternalDataStore&) = delete;
  CInternalDataStore& operator=(const CInternalDataStore&) = delete;

  // Sets the store up: mutex, identity, flags, product, its key when
  // bEncrypted, then its tree (a registry tree for eType 1, a memory tree for
  // any other kind). A failed mutex set-up is logged and reported as S_OK with
  // the store left without a tree (it then refuses its operations with
  // E_FAIL). An empty id gives E_INVALIDARG. A failed key set-up (for a kind
  // other than 0: a missing or short key file) is returned, E_FAIL, with no
  // tree made. Takes no lock.
  HRESULT Begin(char* sBSTRStoreId, QX::DataStore::Type eType, signed char bEncrypted,
                signed char bSharedBetweenUserSessions, SecureString const& sProduct);
  // Forgets the sessions, destroys the tree. Always S_OK; takes no lock and
  // leaves the mutex initialised.
  HRESULT End();
  // Copies the configuration out. Always S_OK; takes no lock.
  HRESULT GetStoreInfo(QX::DataStore::Type& eType, signed char& bEncrypted, signed char& bSharedBetweenUserSessions,
                       SecureString& sProduct);

  // Stores a deep copy of psaDataValue, encrypted first when the store is; the
  // caller keeps its array. Raises the content version along the history path,
  // or both versions when the compartment is new. A failed version update is
  // returned, the value stays. A failed encryption is returned and the stored
  // data stays as it was; an encrypted store not shared encrypts before it
  // refuses.
  HRESULT SetData(unsigned int dwClientProcessId, char* sBSTRCompartmentId, char* sBSTRDataId,
                  tagSAFEARRAY* psaDataValue);
  // A deep copy of the stored value in *ppsaDataValue, owned by the caller;
  // with ppsaDataValue NULL nothing is delivered and the result says whether
  // the item exists (and, in an encrypted store, decrypts). An absent item
  // gives E_INVALIDARG, logged as "data not found" at the detail level; a value
  // that does not decrypt under the store's key gives CommonCrypto's code.
  // Moves no version.
  HRESULT GetData(unsigned int dwClientProcessId, char* sBSTRCompartmentId, char* sBSTRDataId,
                  tagSAFEARRAY** ppsaDataValue);
  // Removes one item and raises the content versions; an absent item gives the
  // tree's E_INVALIDARG and no version moves.
  HRESULT RemoveData(unsigned int dwClientProcessId, char* sBSTRCompartmentId, char* sBSTRDataId);
  // Creates the compartment and raises both versions; an existing compartment
  // gives S_OK and nothing changes.
  HRESULT CreateCompartment(unsigned int dwClientProcessId, char* sBSTRCompartmentId);
  // Creates the compartment if needed and raises both versions in any case.
  HRESULT TouchCompartment(unsigned int dwClientProcessId, char* sBSTRCompartmentId);
  // A shared store removes the compartment once (RemoveOneCompartment). A store
  // that is not shared is not refused: it removes "session/compartment" for
  // every session in the tree ("session" alone for the compartment "/"),
  // stopping at the first failure; an empty tree gives S_OK.
  HRESULT RemoveCompartment(unsigned int dwClientProcessId, char* sBSTRCompartmentId, signed char bRemoveVersions);
  // Removes sCompartmentIdGlobal with its subtree from the tree; then either
  // forgets its version history (bRemoveVersions) or raises both versions along
  // its history path. Must be called with m_Mutex held; takes no lock.
  HRESULT RemoveOneCompartment(unsigned int dwClientProcessId, SecureString& sCompartmentIdGlobal,
                               signed char bRemoveVersions);
  // *pbCached (optional) is cleared after the ids are converted, then receives
  // the tree's answer.
  HRESULT IsDataCached(unsigned int dwClientProcessId, char* sBSTRCompartmentId, char* sBSTRDataId,
                       signed char* pbCached);
  // The tree's listing of data ids, a new VT_BSTR vector owned by the caller.
  HRESULT ListDataIds(unsigned int dwClientProcessId, char* sBSTRCompartmentId, tagSAFEARRAY** ppsaDataIdList);
  // The tree's listing of child compartments ("/" lists the top level), a new
  // VT_BSTR vector owned by the caller.
  HRESULT ListCompartmentIds(unsigned int dwClientProcessId, char* sBSTRCompartmentId,
                             tagSAFEARRAY** ppsCompartmentIdList);
  // Whether the compartment exists, with its two versions; every output is
  // optional and cleared after the ids are converted.
  HRESULT IsCompartmentCached(unsigned int dwClientProcessId, char* sBSTRCompartmentId,
                              unsigned long* pulCompartmentVersion, unsigned long* pulContentVersion,
                              signed char* pbCached);

  // Empties the tree and removes the store's whole version history. A failed
  // tree flush is forgotten whenever gHistoryTree exists: the result is then
  // that of the history calls. Serves stores that are not shared too; the
  // session availability is kept.
  HRESULT FlushStore(unsigned int dwClientProcessId);
  // Removes the session's subtree and its history. A shared store names the
  // compartment "/", which removes nothing from a memory tree: only a store
  // that is not shared loses data here.
  HRESULT FlushStoreFromSessionId(unsigned int dwSessionId);
  // See CSessionAvailability. Both always S_OK; no store lock.
  HRESULT SetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char bAvailabled);
  HRESULT GetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char& bAvailabled);

 private:
  friend class CInternalDataStoreTestPeer;

  HRESULT ConvertIds(const char* sOperation, char* sBSTRCompartmentId, char* sBSTRDataId,
                     SecureString& sCompartmentId, SecureString* pDataId);
  HRESULT CheckTree(const char* sOperation);
  HRESULT CheckServing(const char* sOperation);
  // The shared body of CreateCompartment and TouchCompartment: the compartment
  // is created if absent, and both versions move when it was created or when
  // bAlwaysUpdateVersions asks for it.
  HRESULT MakeCompartment(const char* sOperation, unsigned int dwClientProcessId, char* sBSTRCompartmentId,
                          bool bAlwaysUpdateVersions);
  SecureString HistoryPath(const SecureString& sCompartmentIdGlobal) const;
  // Which key m_Crypto uses: the key file's for every kind but 0.
  bool RemanentSwitch() const { return m_Type != QX::DataStore::TypeMemory; }
  HRESULT ProtectValue(SAFEARRAY* psaCopy, SAFEARRAY*& psaToStore);
  HRESULT RecoverValue(SAFEARRAY* psaStored, SAFEARRAY*& psaClear);
  HRESULT RemoveFromEverySession(unsigned int dwClientProcessId, const SecureString& sCompartmentId,
                                 signed char bRemoveVersions);

  // Statically initialised so that a store whose pthread_mutex_init failed
  // still locks safely.
  pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
  CAbstractTree* m_Tree;
  SecureString m_StoreId;
  QX::DataStore::Type m_Type;
  signed char m_bEncrypted;
  signed char m_bSharedBetweenUserSessions;
  SecureString m_Product;
  // m_SessionAvailability and m_SessionTimeStamps, behind their own lock.
  CSessionAvailability m_Availability;
  // Value protection: keyed by Begin when the store is encrypted, used by
  // SetData and GetData under m_Mutex.
  CommonCrypto m_Crypto;
};

#endif
