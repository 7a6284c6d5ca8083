// The per-session lock-out of a data store and its healing, on the test clock.

#include "datastore_test_support.h"
#include "xk/registry.h"

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
  void WriteTimeOut(unsigned int seconds) {
    HKEY key = nullptr;
    ASSERT_EQ(xkRegCreateKeyEx("HKEY_LOCAL_MACHINE", "Software\\Norvane Co\\Merrowstore", 0, nullptr, 0, 0, nullptr,
                               &key, nullptr), 0);
    ASSERT_EQ(xkRegSetValueEx(key, "DisableTimeoutAfterEndSession", 0, REG_DWORD,
                              reinterpret_cast<const unsigned char*>(&seconds), 4), 0);
    xkRegCloseKey(key);
  }
  std::size_t RegistryReads() {
    std::size_t n = 0;
    for (const auto& e : m_Log.Entries()) n += e.text.find("qxRegReadValue") != std::string::npos ? 1 : 0;
    return n;
  }

  Sandbox m_Sandbox;
  xk::test::TestClock m_Clock;
  LogCapture m_Log;
  CInternalDataStore m_Store;
};

}  // namespace

TEST_F(SessionAvailability, AnUnavailableSessionHealsAfterTheTimeout) {
  EXPECT_EQ(Available(4), 1);  // nobody reported it, and nothing was read
  EXPECT_EQ(RegistryReads(), 0u);
  Set(4, 0);
  EXPECT_EQ(Available(4), 0);
  EXPECT_EQ(Available(5), 1);
  m_Clock.Advance(14);
  EXPECT_EQ(Available(4), 0) << "no value in the registry: the wait is 15 seconds";
  m_Clock.Advance(1);
  EXPECT_EQ(Available(4), 1);
  const std::size_t reads = RegistryReads();
  m_Clock.SetWallClock(m_Clock.Now() - 1000);
  EXPECT_EQ(Available(4), 1);  // healed for good: nothing more is read
  EXPECT_EQ(RegistryReads(), reads);
  Set(4, 0);
  EXPECT_EQ(m_Store.FlushStore(0), S_OK);  // flushing keeps the flags
  EXPECT_EQ(Available(4), 0);
  m_Store.End();  // End forgets them
  EXPECT_EQ(Available(4), 1);
}

TEST_F(SessionAvailability, TheRegistryValueSetsTheWaitAndTheClockMayGoBack) {
  for (unsigned int seconds : {0u, 1u}) {  // 0 means 15
    WriteTimeOut(seconds);
    Set(1, 0);
    m_Clock.Advance(seconds == 0 ? 14 : 0);
    EXPECT_EQ(Available(1), 0) << seconds;
    m_Clock.Advance(1);
    EXPECT_EQ(Available(1), 1) << seconds;
  }
  // A clock set back keeps the session locked out until the stored moment has
  // come again and the wait has passed.
  WriteTimeOut(5);
  const std::time_t stamp = m_Clock.Now();
  Set(1, 0);
  for (std::time_t offset : {-100, 4, 5}) {
    m_Clock.SetWallClock(stamp + offset);
    EXPECT_EQ(Available(1), offset == 5 ? 1 : 0) << offset;
  }
  Set(1, 3);
  EXPECT_EQ(Available(1), 3);  // a non-zero flag is answered as it is
}
