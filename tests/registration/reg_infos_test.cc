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
  Text("s1", "Product", "Acme");  // (read whole: the load test's catalogue)

  // Each sub-key is listed twice: a failed first listing gives no entry, a
  // failed second one an entry with the defaults. A failed read gives the
  // store being read no entry; the product is read in two steps, its size and
  // then its text.
  const struct { const char* op; unsigned nth; std::vector<std::string> kept; } faults[] = {
      {"qxRegListKeysEx", 1, {}},
      {"qxRegListKeysEx", 2, {}},
      {"qxRegListValueNamesEx", 1, {}},
      {"qxRegListValueNamesEx", 2, {"s1 0 0 0 Keldara"}},
      {"qxRegListValueNamesEx", 3, {"s1 1 1 1 Acme"}},
      {"qxRegReadDWORDValueEx", 1, {}},
      {"qxRegReadDWORDValueEx", 2, {}},
      {"qxRegReadStringValueEx", 1, {}},
      {"qxRegReadStringValueEx", 2, {}},
  };
  for (const auto& f : faults) {
    xk::test::FaultInjector injector;
    injector.FailWithCode(f.op, ERROR_REGISTRY_IO_FAILED, f.nth);
    EXPECT_EQ(Read(E_FAIL), f.kept) << f.op << " " << f.nth;
    EXPECT_EQ(injector.Fired(f.op), 1u) << f.op << " " << f.nth;
  }
}
