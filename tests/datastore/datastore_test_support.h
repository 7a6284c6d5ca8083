#ifndef MERROWSTORE_TESTS_DATASTORE_DATASTORE_TEST_SUPPORT_H
#define MERROWSTORE_TESTS_DATASTORE_DATASTORE_TEST_SUPPORT_H

// Helpers of the data store tests: registration, a store's own id, and a
// reach into a store's tree and value protection.

#include "datastore/InternalDataStore.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "registration/StaticDataStoreRegistration.h"
#include "value_support.h"

// Reaches the tree and the value protection of a store, for what the client
// cannot show.
class CInternalDataStoreTestPeer {
 public:
  static CAbstractTree*& Tree(CInternalDataStore& store) { return store.m_Tree; }
  static CommonCrypto& Crypto(CInternalDataStore& store) { return store.m_Crypto; }
};

namespace dstest {

using namespace mtest;
using QX::DataStore::CStaticDataCacheClient;

// A store id of this test alone: stores and histories of tests stay apart in
// the one process-wide map.
inline std::string StoreId(const std::string& tag = "") {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  return std::string(info->test_suite_name()) + "." + info->name() + tag;
}

inline HRESULT Register(const std::string& id, signed char bShared, const std::string& product = "Keldara",
                        QX::DataStore::Type eType = QX::DataStore::TypeMemory, signed char bEncrypted = 0) {
  return CStaticDataCacheClient::RegisterDataStore(Bstr(id), eType, bEncrypted, bShared, Bstr(product));
}

inline CInternalDataStore* Store(const std::string& id) { return gStaticDataStoreRegistration.m_Stores.at(S(id)); }

inline Strings AllPaths(CInternalDataStore& store) { return AllKeys(*CInternalDataStoreTestPeer::Tree(store)); }

// Writes and reads one item through the client.
inline HRESULT Write(const std::string& id, const std::string& comp, const std::string& data, const Strings& items) {
  SAFEARRAY* value = MakeValue(items);
  const HRESULT hr = CStaticDataCacheClient().SetData(Bstr(id), Bstr(comp), Bstr(data), value);
  SafeArrayDestroy(value);
  return hr;
}

// The value read, "<no array>" when none came.
inline Strings Read(const std::string& id, const std::string& comp, const std::string& data, HRESULT expected = S_OK) {
  SAFEARRAY* out = nullptr;
  EXPECT_EQ(CStaticDataCacheClient().GetData(Bstr(id), Bstr(comp), Bstr(data), &out), expected);
  return Take(out);
}

// Takes gHistoryTree away for one scope.
struct NoHistory {
  CAbstractTree* saved = gHistoryTree;
  NoHistory() { gHistoryTree = nullptr; }
  ~NoHistory() { gHistoryTree = saved; }
};

}  // namespace dstest

#endif
