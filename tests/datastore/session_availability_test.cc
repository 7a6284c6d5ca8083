// The per-session lock-out of a data store and its healing, on the test clock.

#include "datastore_test_support.h"
#include "registry_support.h"

using namespace dstest;

namespace {

class SessionAvailability : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(m_Store.Begin(Bstr(StoreId()), QX::DataStore::TypeMemory, 0, 1, S("P")), S_OK); }
  void TearDown() override { m_Store.End(); }
  int Available(unsigned int session) {
    signed char b = 9;
    EXPECT_EQ(m_Store.GetAvailabilityStoreFromSessionId(session, b), S_OK);
    return b;
  }
  void Set(unsigned int session, signed char flag) {
    ASSERT_EQ(m_Store.SetAvailabilityStoreFromSessionId(session, flag), S_OK);
  }
  Sandbox m_Sandbox;
  xk::test::TestClock m_Clock;
  CInternalDataStore m_Store;
};

}  // namespace

TEST_F(SessionAvailability, AnUnavailableSessionHealsAfterTheWait) {
  EXPECT_EQ(Available(4), 1);  // nobody reported it
  Set(4, 0);
  EXPECT_EQ(Available(5), 1);
  m_Clock.Advance(14);
  EXPECT_EQ(Available(4), 0) << "no value in the registry: the wait is 15 seconds";
  m_Clock.Advance(1);
  EXPECT_EQ(Available(4), 1);
  m_Clock.SetWallClock(m_Clock.Now() - 1000);
  EXPECT_EQ(Available(4), 1);  // healed for good

  // The registry value sets the wait, 0 meaning 15. A clock set back keeps the
  // session locked out until the stored moment has come again and the wait
  // has passed.
  for (const unsigned int seconds : {0u, 5u}) {
    regtest::PutDword("Software\\Norvane Co\\Merrowstore", "DisableTimeoutAfterEndSession", seconds);
    const std::time_t stamp = m_Clock.Now(), wait = seconds == 0 ? 15 : seconds;
    Set(1, 0);
    for (const std::time_t offset : {std::time_t{-100}, wait - 1, wait}) {
      m_Clock.SetWallClock(stamp + offset);
      EXPECT_EQ(Available(1), offset == wait ? 1 : 0) << seconds << " " << offset;
    }
  }
  Set(1, 3);
  EXPECT_EQ(Available(1), 3);  // a non-zero flag is answered as it is
  Set(4, 0);
  EXPECT_EQ(m_Store.FlushStore(0), S_OK);  // flushing keeps the flags
  EXPECT_EQ(Available(4), 0);
  m_Store.End();  // End forgets them
  EXPECT_EQ(Available(4), 1);
}
