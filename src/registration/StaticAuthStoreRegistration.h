#ifndef MERROWSTORE_REGISTRATION_STATICAUTHSTOREREGISTRATION_H
#define MERROWSTORE_REGISTRATION_STATICAUTHSTOREREGISTRATION_H

#include <map>

#include "authstore/InternalAuthStore.h"
#include "merrowstore/export.h"
#include "xk/secure_types.h"

namespace QX {
namespace AuthStore {

// The owner of every PIN store. Its one instance, gStaticAuthStoreRegistration,
// is built while the library loads, before the data stores: the constructor
// registers the default PIN store "{AEA79AF9-BECB-490a-BCCB-CD0806BA970D}"
// (volatile, encrypted, shared between user sessions) through
// CStaticAuthCacheClient::RegisterAuthStore and reads no catalogue. A failed
// registration stops nothing: the library stays loaded without a PIN store
// and every PIN operation of the client then fails with E_FAIL. The
// destructor, after the data stores' at unload or process exit, ends and
// frees every store in id order. Neither takes a lock: no client call may run
// during either.
class MERROWSTORE_EXPORT StaticAuthStoreRegistration {
 public:
  StaticAuthStoreRegistration();
  virtual ~StaticAuthStoreRegistration();
  StaticAuthStoreRegistration(const StaticAuthStoreRegistration&) = delete;
  StaticAuthStoreRegistration& operator=(const StaticAuthStoreRegistration&) = delete;

  // Every registered PIN store by id, in byte order; the stores are owned
  // here. It changes only in RegisterAuthStore and in the destructor, and has
  // no lock.
  std::map<SecureString, CInternalAuthStore*> m_Stores;
};

}  // namespace AuthStore
}  // namespace QX

// The PIN store registration, the first object the library builds and the last
// it tears down (see LoadOrder.cc).
extern MERROWSTORE_EXPORT QX::AuthStore::StaticAuthStoreRegistration gStaticAuthStoreRegistration;

#endif
