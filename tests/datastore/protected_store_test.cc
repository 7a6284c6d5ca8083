// Encrypted and remanent stores in one process: which key and which tree each
// kind gets, what the tree really holds, and the failures of protection and
// recovery. A value read back by another process under the key file's key is
// the remanent PIN store's test (the same key and tree), one in the clear the
// load test's and mstore's.

#include <filesystem>
#include <typeinfo>

#include "datastore_test_support.h"
#include "trees/MemoryTree.h"
#include "trees/RegistryTree.h"

using namespace dstest;

namespace {

// The value a store's tree holds, as it lies there.
SAFEARRAY* Raw(const std::string& id, const std::string& comp, const std::string& data) {
  SAFEARRAY* psa = nullptr;
  EXPECT_EQ(CInternalDataStoreTestPeer::Tree(*Store(id))->GetData(S(comp), S(data), psa, 0), S_OK);
  return psa;
}

}  // namespace

TEST(ProtectedStore, EachKindGetsItsKeyAndItsTree) {
  Sandbox sandbox;
  struct Row {
    int type;
    signed char encrypted;
    bool keyFile;
    HRESULT hr;
    std::string kinds;  // the tree ("memory", "registry", "none") and the key ("volatile", "persistent", "none")
  };
  // (Clear stores of both kinds, and a remanent encrypted one without a key
  // file, are what the load test registers from its catalogue.)
  const Row rows[] = {
      {0, 1, false, S_OK, "memory volatile"}, {1, 1, true, S_OK, "registry persistent"},
      {2, 1, false, E_FAIL, "none none"},     {2, 1, true, S_OK, "memory persistent"},
  };
  for (const Row& row : rows) {
    const std::string what = std::to_string(&row - rows);
    SCOPED_TRACE("row " + what);
    std::filesystem::remove(sandbox.KeyFilePath());
    if (row.keyFile) sandbox.WriteKeyFile(Bytes(16, 7));
    CInternalDataStore store;
    const auto eType = static_cast<QX::DataStore::Type>(row.type);
    EXPECT_EQ(store.Begin(Bstr(StoreId(what)), eType, row.encrypted, 1, S("P")), row.hr);
    CAbstractTree* tree = CInternalDataStoreTestPeer::Tree(store);
    const CommonCrypto& crypto = CInternalDataStoreTestPeer::Crypto(store);
    const char* treeKind = tree == nullptr                          ? "none"
                           : typeid(*tree) == typeid(CMemoryTree)   ? "memory"
                           : typeid(*tree) == typeid(CRegistryTree) ? "registry"
                                                                    : "other";
    const char* keyKind = crypto.VolatileKey() ? "volatile" : crypto.PersistentKey() ? "persistent" : "none";
    EXPECT_EQ(std::string(treeKind) + " " + keyKind, row.kinds);
    store.End();
  }

  // A key that cannot be generated fails an encrypted memory store the same way.
  FaultInjector faults;
  faults.FailWithThrow("KeyGenerator::GenerateKey", 4003);
  CInternalDataStore store;
  EXPECT_EQ(store.Begin(Bstr(StoreId("gen")), QX::DataStore::TypeMemory, 1, 1, S("P")), E_FAIL);
  EXPECT_EQ(CInternalDataStoreTestPeer::Tree(store), nullptr);
}

TEST(ProtectedStore, AnEncryptedStoreHoldsOnlyCiphertextAndHandsBackTheClearValue) {
  Sandbox sandbox;
  const std::string id = StoreId();
  ASSERT_EQ(Register(id, 1, "P", QX::DataStore::TypeMemory, 1), S_OK);
  ASSERT_EQ(Write(id, "s/c", "item", {"alpha", "beta"}), S_OK);

  // The tree holds a blob that the store's own key turns back into the value.
  SAFEARRAY* stored = Raw(id, "s/c", "item");
  ASSERT_NE(stored, nullptr);
  SAFEARRAY* clear = nullptr;
  ASSERT_EQ(CInternalDataStoreTestPeer::Crypto(*Store(id)).DecryptValue(stored, clear, false), S_OK);
  EXPECT_EQ(Take(clear), (Strings{"alpha", "beta"}));
  const std::string blob = TakeBytes(stored);
  EXPECT_EQ(blob.size() % 16, 0u);
  EXPECT_EQ(blob.find("alpha"), std::string::npos);

  EXPECT_EQ(Read(id, "s/c", "item"), (Strings{"alpha", "beta"}));

  // A blob that does not decrypt fails even the test of existence, and stays.
  SAFEARRAY* garbage = SafeArrayCreateVector(VT_UI1, 0, 16);
  ASSERT_EQ(CInternalDataStoreTestPeer::Tree(*Store(id))->SetData(S("s/c"), S("bad"), garbage, 0, 1), S_OK);
  SafeArrayDestroy(garbage);
  EXPECT_EQ(CStaticDataCacheClient().GetData(Bstr(id), Bstr("s/c"), Bstr("bad"), nullptr), E_FAIL);
  EXPECT_EQ(TakeBytes(Raw(id, "s/c", "bad")), std::string(16, '\0'));

  // A store that is not shared encrypts its copy before it refuses: a failed
  // encryption is the answer.
  ASSERT_EQ(Register(id + "U", 0, "P", QX::DataStore::TypeMemory, 1), S_OK);
  FaultInjector faults;
  faults.FailWithThrow("Cipher::DoFinal", 4000);
  EXPECT_EQ(Write(id + "U", "c", "d", {"v"}), E_INVALIDARG);
}

TEST(ProtectedStore, FailedProtectionOrRecoveryFailsTheCallAndKeepsTheData) {
  Sandbox sandbox;
  sandbox.WriteKeyFile(Bytes(16, 7));
  const std::string id = StoreId();
  for (const QX::DataStore::Type eType : {QX::DataStore::TypeMemory, QX::DataStore::TypeRemanent}) {
    const std::string sid = id + std::to_string(eType);
    ASSERT_EQ(Register(sid, 1, "P", eType, 1), S_OK);
    ASSERT_EQ(Write(sid, "c", "d", {"old"}), S_OK);
    const V versions = Versions(sid + "/c");
    FaultInjector faults;
    // The cryptography library's invalid argument maps to E_INVALIDARG, all else to E_FAIL.
    for (const auto& [code, hr] : {std::pair<unsigned, HRESULT>{4003, E_FAIL}, {4000, E_INVALIDARG}}) {
      faults.FailWithThrow("Cipher::DoFinal", code);
      EXPECT_EQ(Write(sid, "c", "d", {"new"}), hr) << sid;
      faults.Reset();
    }
    faults.FailWithThrow("Cipher::DoFinal", 4003);
    EXPECT_EQ(Read(sid, "c", "d", E_FAIL), Strings{"<no array>"});
    EXPECT_EQ(Read(sid, "c", "d"), Strings{"old"});
    EXPECT_EQ(Versions(sid + "/c"), versions);

    // The first destruction of each call is that of the store's own array
    // beside the crypto: the copy before it is stored, the blob after it is
    // read. Each failed destruction leaves that array behind.
    faults.Reset();
    {
      LeakAllowedScope leaks;
      faults.FailWithCode("qxSafeArrayDestroy", E_OUTOFMEMORY);
      EXPECT_EQ(Write(sid, "c", "d", {"new"}), E_OUTOFMEMORY);
      faults.FailWithCode("qxSafeArrayDestroy", E_OUTOFMEMORY);
      EXPECT_EQ(Read(sid, "c", "d", E_OUTOFMEMORY), Strings{"<no array>"});
    }
    EXPECT_EQ(Read(sid, "c", "d"), Strings{"old"});
    EXPECT_EQ(Versions(sid + "/c"), versions);
  }
}
