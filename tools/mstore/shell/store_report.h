#ifndef MSTORE_SHELL_STORE_REPORT_H
#define MSTORE_SHELL_STORE_REPORT_H

#include <ostream>
#include <string>

#include "merrowstore/StaticAuthCacheClient.h"
#include "merrowstore/StaticDataCacheClient.h"

namespace mstore {

// One store's configuration as GetDataStoreInfo gives it:
// "memory, not encrypted, shared, product \"Keldara\"".
std::string StoreInfoText(QX::DataStore::Type type, signed char encrypted, signed char shared,
                          const char* product);

// The PIN store the library registers while it loads, the one the PIN
// client's operations work on.
extern const char kStartUpPinStore[];

// Prints the PIN stores ("PIN store id: volatile, encrypted, shared"), then
// each data store the library registered, one line each ("id: info"), then
// the catalogue entries it did not register. Returns 0, or 1 when the stores
// cannot be listed.
int PrintStores(QX::DataStore::CStaticDataCacheClient& client, QX::AuthStore::CStaticAuthCacheClient& pins,
                std::ostream& out);

// Whether the library registered the start-up PIN store.
bool PinStoreRegistered(QX::AuthStore::CStaticAuthCacheClient& pins);

// Whether the library registered a store of this id.
bool StoreRegistered(QX::DataStore::CStaticDataCacheClient& client, const std::string& id);

}  // namespace mstore

#endif
