#include "registration/StaticAuthStoreRegistration.h"

#include "common/Module.h"
#include "merrowstore/StaticAuthCacheClient.h"
#include "xk/log.h"

namespace QX {
namespace AuthStore {

namespace {

// The default PIN store, the one the PIN client's operations act on.
const char kDefaultStoreId[] = "{AEA79AF9-BECB-490a-BCCB-CD0806BA970D}";

}  // namespace

StaticAuthStoreRegistration::StaticAuthStoreRegistration() {
  xklogLog(MSTORE_MODULE, 8, "StaticAuthStoreRegistration::StaticAuthStoreRegistration");
  BSTR bstrStoreId = SysAllocString(kDefaultStoreId);
  try {
    // The result is not looked at: the client's lines have logged a failure,
    // and the library goes on loading without the store.
    CStaticAuthCacheClient::RegisterAuthStore(bstrStoreId, AuthTypeVolatile, 1, 1);
  } catch (...) {
    qxSysFreeString(bstrStoreId, 0);
    m_Stores.clear();
    throw;
  }
  qxSysFreeString(bstrStoreId, 0);
  xklogLog(MSTORE_MODULE, 16, "StaticAuthStoreRegistration::StaticAuthStoreRegistration");
}

StaticAuthStoreRegistration::~StaticAuthStoreRegistration() {
  xklogLog(MSTORE_MODULE, 8, "StaticAuthStoreRegistration::~StaticAuthStoreRegistration");
  // End deletes the timers and the tree; deleting the store then releases
  // its maps and, with its CommonCrypto, its key. The mutex stays.
  for (auto& entry : m_Stores) {
    if (entry.second == NULL) continue;
    entry.second->End();
    delete entry.second;
  }
  m_Stores.clear();
  xklogLog(MSTORE_MODULE, 16, "StaticAuthStoreRegistration::~StaticAuthStoreRegistration");
}

}  // namespace AuthStore
}  // namespace QX
