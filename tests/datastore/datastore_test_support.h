#ifndef MERROWSTORE_TESTS_DATASTORE_DATASTORE_TEST_SUPPORT_H
#define MERROWSTORE_TESTS_DATASTORE_DATASTORE_TEST_SUPPORT_H

// Helpers of the data store tests: BSTR and value holders, version reads and a
// reach into a store's tree.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "datastore/InternalDataStore.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "registration/StaticDataStoreRegistration.h"
#include "trees/VersionHistory.h"
#include "xk/oleauto.h"

// Reaches the tree and the value protection of a store, for what the client
// cannot show.
class CInternalDataStoreTestPeer {
 public:
  static CAbstractTree*& Tree(CInternalDataStore& store) { return store.m_Tree; }
  static CommonCrypto& Crypto(CInternalDataStore& store) { return store.m_Crypto; }
};

namespace dstest {

using QX::DataStore::CStaticDataCacheClient;
typedef std::pair<unsigned long, unsigned long> V;  // {compartment, content}

// A BSTR that frees itself; converts to the char* the client takes.
class Bstr {
 public:
  explicit Bstr(const std::string& s) : m_b(SysAllocStringByteLen(s.data(), static_cast<unsigned>(s.size()))) {}
  ~Bstr() { SysFreeString(m_b); }
  Bstr(const Bstr&) = delete;
  operator char*() const { return m_b; }

 private:
  BSTR m_b;
};

inline SecureString S(const std::string& s) { return SecureString(s.data(), s.size()); }

// A VT_BSTR vector of `items`; the caller destroys it.
inline SAFEARRAY* MakeValue(const std::vector<std::string>& items) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, items.size());
  for (int i = 0; i < static_cast<int>(items.size()); ++i) SafeArrayPutElement(psa, &i, static_cast<char*>(Bstr(items[i])));
  return psa;
}

// Reads and destroys a VT_BSTR vector ("<null>" for an empty slot).
inline std::vector<std::string> Take(SAFEARRAY* psa) {
  std::vector<std::string> out;
  for (int i = 0; psa != nullptr && i < static_cast<int>(psa->rgsabound->cElements); ++i) {
    BSTR b = nullptr;
    SafeArrayGetElement(psa, &i, &b);
    out.push_back(b == nullptr ? "<null>" : std::string(b, SysStringByteLen(b)));
    SysFreeString(b);
  }
  if (psa != nullptr) SafeArrayDestroy(psa);
  return out;
}

// The bytes of a VT_UI1 vector, which is destroyed.
inline std::string TakeBytes(SAFEARRAY* psa) {
  std::string out;
  if (psa == nullptr) return out;
  EXPECT_EQ(psa->vt, VT_UI1);
  out.assign(static_cast<const char*>(psa->pvData), psa->rgsabound[0].cElements);
  SafeArrayDestroy(psa);
  return out;
}

// A key file's 16 bytes; different seeds give different keys.
inline std::vector<unsigned char> KeyFile(unsigned char seed) {
  std::vector<unsigned char> bytes(16);
  for (int i = 0; i < 16; ++i) bytes[i] = static_cast<unsigned char>(seed * 31 + i * 7);
  return bytes;
}

inline V VersionsOf(const std::string& global) {
  V v(99, 99);
  EXPECT_EQ(GetVersion(S(global), &v.first, &v.second), S_OK);
  return v;
}

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

inline std::vector<std::string> AllPaths(CInternalDataStore& store) {
  SAFEARRAY* psa = nullptr;
  EXPECT_EQ(CInternalDataStoreTestPeer::Tree(store)->ListAllCompartmentIds(&psa), S_OK);
  return Take(psa);
}

// Takes gHistoryTree away for one scope.
struct NoHistory {
  CAbstractTree* saved = gHistoryTree;
  NoHistory() { gHistoryTree = nullptr; }
  ~NoHistory() { gHistoryTree = saved; }
};

}  // namespace dstest

#endif
