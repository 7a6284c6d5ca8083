#ifndef MERROWSTORE_REGISTRATION_STATICDATASTOREREGISTRATION_H
#define MERROWSTORE_REGISTRATION_STATICDATASTOREREGISTRATION_H

#include <list>
#include <map>

#include "datastore/InternalDataStore.h"
#include "merrowstore/DataStoreType.h"
#include "merrowstore/export.h"
#include "xk/hresult.h"
#include "xk/secure_types.h"

namespace QX {
namespace DataStore {

// The owner of every data store. Its one instance, gStaticDataStoreRegistration,
// is built while the library loads: the constructor creates gHistoryTree if it
// does not exist yet, reads the store catalogue from the registry and registers
// each store through CStaticDataCacheClient::RegisterDataStore. No failure of
// the catalogue stops the load; a store that can't be read or set up is simply
// missing. The destructor, at unload or process exit, ends and frees every
// store; gHistoryTree stays. Neither takes a lock: no client call may run
// during either.
class MERROWSTORE_EXPORT StaticDataStoreRegistration {
 public:
  StaticDataStoreRegistration();
  virtual ~StaticDataStoreRegistration();
  StaticDataStoreRegistration(const StaticDataStoreRegistration&) = delete;
  StaticDataStoreRegistration& operator=(const StaticDataStoreRegistration&) = delete;

  // Every registered store by id, in byte order; the stores are owned here. It
  // changes only in RegisterDataStore and in the destructor, and has no lock.
  std::map<SecureString, CInternalDataStore*> m_Stores;
};

// One catalogue entry. The two BSTRs are owned by the entry and released by
// ClearRegInfos.
struct _regInfos {
  char* sBSTRStoreId;
  Type eType;
  signed char bEncrypted;
  signed char bSharedBetweenUserSessions;
  char* sBSTRProduct;
};

// Reads the store catalogue into regInfos: the key
// "Software\Norvane Co\Merrowstore\StoreList" of HKEY_LOCAL_MACHINE, one
// sub-key a store. The list is emptied first, without releasing anything:
// pass an empty list. In each sub-key "Type",
// "Encrypted" and "SharedBetweenUserSessions" (DWORDs, exactly 1 sets them)
// and "Product" (a string, "Keldara" when absent) are read; names match
// exactly and other values are ignored. The first failure ends the walk with
// E_FAIL, and the entries read before it stay in the list. A missing key gives
// E_FAIL and no entry; a key without sub-keys gives S_OK and no entry. Logs
// failures only.
MERROWSTORE_EXPORT HRESULT GetRegInfos(std::list<_regInfos>& regInfos);

// Releases the strings of every entry and empties the list.
MERROWSTORE_EXPORT void ClearRegInfos(std::list<_regInfos>& regInfos);

}  // namespace DataStore
}  // namespace QX

// The data store registration, built after the PIN store registration and
// before anything can call a client (see LoadOrder.cc).
extern MERROWSTORE_EXPORT QX::DataStore::StaticDataStoreRegistration gStaticDataStoreRegistration;

// One word, zero at load. Nothing in the library reads or writes it.
extern MERROWSTORE_EXPORT unsigned int gStoreDebug;

#endif
