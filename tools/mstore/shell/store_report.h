#ifndef MSTORE_SHELL_STORE_REPORT_H
#define MSTORE_SHELL_STORE_REPORT_H

#include <ostream>
#include <string>

#include "merrowstore/StaticDataCacheClient.h"

namespace mstore {

// One store's configuration as GetDataStoreInfo gives it:
// "memory, not encrypted, shared, product \"Keldara\"".
std::string StoreInfoText(QX::DataStore::Type type, signed char encrypted, signed char shared,
                          const char* product);

// Prints each store the library registered, one line each ("id: info"), then
// the catalogue entries it did not register. Returns 0, or 1 when the stores
// cannot be listed.
int PrintStores(QX::DataStore::CStaticDataCacheClient& client, std::ostream& out);

// Whether the library registered a store of this id.
bool StoreRegistered(QX::DataStore::CStaticDataCacheClient& client, const std::string& id);

}  // namespace mstore

#endif
