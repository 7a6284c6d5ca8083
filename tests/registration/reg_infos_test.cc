// Reading the store catalogue in process, with the registry's failures
// injected. What a real load makes of odd and unreadable entries is in
// registration_load_test.

#include "catalogue_support.h"
#include "registration/StaticDataStoreRegistration.h"
#include "xk/testsupport.h"

using namespace cattest;
using QX::DataStore::_regInfos;

namespace {

// "id type encrypted shared product" for each entry.
std::vector<std::string> Read(HRESULT expected) {
  std::list<_regInfos> entries;
  EXPECT_EQ(QX::DataStore::GetRegInfos(entries), expected);
  std::vector<std::string> out;
  for (const _regInfos& e : entries)
    out.push_back(std::string(e.sBSTRStoreId) + " " + std::to_string(e.eType) + " " + std::to_string(e.bEncrypted) +
                  " " + std::to_string(e.bSharedBetweenUserSessions) + " " + e.sBSTRProduct);
  QX::DataStore::ClearRegInfos(entries);
  EXPECT_TRUE(entries.empty());
  return out;
}

}  // namespace

TEST(RegInfos, TheFirstFailureEndsTheWalkAndKeepsWhatWasRead) {
  xk::test::Sandbox sandbox;
  Write("");
  EXPECT_TRUE(Read(S_OK).empty());  // a catalogue without stores
  for (const char* store : {"s1", "s2", "s3"}) Dword(store, "SharedBetweenUserSessions", 1);
  Dword("s1", "Type", 1);
  Dword("s1", "Encrypted", 1);
  Text("s1", "Product", "Acme");
  EXPECT_EQ(Read(S_OK), (std::vector<std::string>{"s1 1 1 1 Acme", "s2 0 0 1 Keldara", "s3 0 0 1 Keldara"}));

  xk::test::FaultInjector faults;
  xk::test::LogCapture log;
  const long kIo = ERROR_REGISTRY_IO_FAILED;
  for (unsigned nth : {1u, 2u}) {
    faults.FailWithCode("qxRegListKeysEx", kIo, nth);
    EXPECT_TRUE(Read(E_FAIL).empty()) << nth;
  }
  // Each sub-key is listed twice: a failed first listing gives no entry, a
  // failed second one an entry with the defaults.
  faults.FailWithCode("qxRegListValueNamesEx", kIo, 1);
  EXPECT_TRUE(Read(E_FAIL).empty());
  EXPECT_TRUE(log.Contains(1, "GetRegInfos qxRegListValueNames failed rc = 3f8"));
  faults.FailWithCode("qxRegListValueNamesEx", kIo, 2);
  EXPECT_EQ(Read(E_FAIL), std::vector<std::string>{"s1 0 0 0 Keldara"});
  faults.FailWithCode("qxRegListValueNamesEx", kIo, 3);
  EXPECT_EQ(Read(E_FAIL), std::vector<std::string>{"s1 1 1 1 Acme"});
  // A failed read gives the store being read no entry; the product is read in
  // two steps, its size and then its text.
  for (const char* op : {"qxRegReadDWORDValueEx", "qxRegReadStringValueEx"}) {
    for (unsigned nth : {1u, 2u}) {
      faults.FailWithCode(op, kIo, nth);
      EXPECT_TRUE(Read(E_FAIL).empty()) << op << nth;
    }
  }
  EXPECT_TRUE(log.Contains(1, "GetRegInfos qxRegRead failed rc = 3f8"));
}
