// Remanent stores across processes: a forked child writes through its own
// stores, and this process, which had not registered them, reads. The child
// shares the sandbox (registry file and key file) but nothing in memory that
// matters: the store map and the keys are made after the fork.

#include "datastore_test_support.h"

using namespace dstest;
using QX::DataStore::TypeRemanent;
using std::to_string;

TEST(RemanentStoreProcess, ValuesWrittenInOneProcessAreReadInAnotherUnderTheSameKey) {
  Sandbox sandbox;
  sandbox.WriteKeyFile(KeyFile(1));
  const std::string plain = StoreId("C"), vault = StoreId("E");
  EXPECT_EQ(InChild([&] {
              std::string report;
              for (const auto& [id, bEncrypted] : {std::pair{plain, 0}, std::pair{vault, 1}}) {
                report += to_string(Register(id, 1, "P", TypeRemanent, static_cast<signed char>(bEncrypted))) + " ";
                report += to_string(Write(id, "s/c", "d", {"kept", id})) + " ";
              }
              return report;
            }),
            "0 0 0 0 ");
  // A key file changed between processes fails the read in the next process
  // and keeps the value: with the first key back, this process reads it below.
  sandbox.WriteKeyFile(KeyFile(2));
  EXPECT_EQ(InChild([&] {
              const HRESULT hrRegister = Register(vault, 1, "P", TypeRemanent, 1);
              SAFEARRAY* out = nullptr;
              const HRESULT hrRead = CStaticDataCacheClient().GetData(Bstr(vault), Bstr("s/c"), Bstr("d"), &out);
              return to_string(hrRegister) + " " + to_string(hrRead) + " " + to_string(out == nullptr);
            }),
            "0 " + to_string(E_FAIL) + " 1");
  sandbox.WriteKeyFile(KeyFile(1));
  for (const std::string& id : {plain, vault}) {
    ASSERT_EQ(gStaticDataStoreRegistration.m_Stores.count(S(id)), 0u);
    ASSERT_EQ(Register(id, 1, "P", TypeRemanent, id == vault ? 1 : 0), S_OK);
    EXPECT_EQ(Read(id, "s/c", "d"), (Strings{"kept", id}));
  }
}
