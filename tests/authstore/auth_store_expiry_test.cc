// PIN expiry on the test clock: durations, restarts, parked timers, and
// timers that fire for a PIN that is gone or has moved.
#include "authstore_test_support.h"
#include "xk/testsupport.h"

using namespace atest;

namespace {

const char kTimeout[] = "Merrowstore.Authentication.Timeout";
const unsigned kMe = static_cast<unsigned>(getpid());

class AuthStoreExpiryTest : public ::testing::Test {
 protected:
  bool Cached(CInternalAuthStore& store, const std::string& pin) {
    return Get(store, kMe, "c", pin, {}, true).hr == S_OK;
  }
  xk::test::Sandbox sandbox;
  xk::test::TestClock clock;
};

TEST_F(AuthStoreExpiryTest, ZeroMinutesIsFiveSecondsRestartedByReadsNotByProbes) {
  SetSetting(kTimeout, 0);
  StorePtr store = Begin("Zero", 1);
  Set(*store, kMe, "c", "p", "1");
  clock.Advance(4);
  EXPECT_EQ(Get(*store, kMe, "c", "p").value, "1");  // restarts the 5 s
  clock.Advance(4);
  EXPECT_EQ(store->ChangePINState(kMe, Bstr("c"), Bstr("p"), nullptr, 1), S_OK);  // so does a state change
  clock.Advance(4);
  EXPECT_TRUE(Cached(*store, "p"));  // a probe does not
  clock.Advance(1);
  EXPECT_FALSE(Cached(*store, "p"));
  // The fired timer waits for the next caller that sets a timer.
  EXPECT_EQ(Peer::Timers(*store), 0u);
  EXPECT_EQ(Peer::ExpiredTimers(*store), 1u);
  Set(*store, kMe, "c", "q", "1");
  EXPECT_EQ(Peer::ExpiredTimers(*store), 0u);
}

TEST_F(AuthStoreExpiryTest, LowestValueNeverExpiresAndASettingReachesOnlyNewTimers) {
  SetSetting(kTimeout, -2147483648LL);
  StorePtr store = Begin("Never", 1);
  Set(*store, kMe, "c", "never", "1");
  EXPECT_EQ(Peer::Timers(*store), 0u);
  SetSetting(kTimeout, 1);
  Set(*store, kMe, "c", "old", "1");
  SetSetting(kTimeout, 2);
  EXPECT_EQ(Get(*store, kMe, "c", "old").hr, S_OK);  // restarted with its 60 s
  Set(*store, kMe, "c", "new", "1");
  clock.Advance(60);
  EXPECT_FALSE(Cached(*store, "old"));
  EXPECT_TRUE(Cached(*store, "new"));
  clock.Advance(60);
  EXPECT_FALSE(Cached(*store, "new"));
  clock.Advance(1000000);
  EXPECT_TRUE(Cached(*store, "never"));
}

TEST_F(AuthStoreExpiryTest, TimerOfARemovedOrMovedPIN) {
  SetSetting(kTimeout, 1);
  StorePtr store = Begin("Gone", 0);
  xk::test::LogCapture log;
  // A plain RemoveCompartment leaves the timer: it fires, fails and stays.
  Set(*store, kMe, "c", "p", "1");
  EXPECT_EQ(store->RemoveCompartment(kMe, Bstr("c"), nullptr), S_OK);
  EXPECT_EQ(Peer::Timers(*store), 1u);
  clock.Advance(60);
  EXPECT_TRUE(log.Contains(1, "CInternalAuthStore::RemoveExpiredPINFromPINSessionId RemoveInternalPIN failed"));
  EXPECT_EQ(Peer::Timers(*store), 1u);
  EXPECT_EQ(Peer::ExpiredTimers(*store), 0u);
  // A new PIN at that path restarts that timer, which still carries the old
  // PIN session id; both ids lead to this session.
  Set(*store, kMe, "c", "p", "2");
  EXPECT_EQ(Peer::Timers(*store), 1u);
  // A moved PIN is reached at its new path through its PIN session id; its
  // timer's key no longer matches, so the timer stays.
  EXPECT_EQ(store->MoveStore(static_cast<unsigned>(getsid(0)), 77), S_OK);
  EXPECT_EQ(Item(*store, "77/c/p", "PINValue"), "2");
  clock.Advance(60);
  EXPECT_EQ(Item(*store, "77/c/p", "PINValue"), "<missing>");
  EXPECT_EQ(Peer::Timers(*store), 1u);
  EXPECT_EQ(Peer::ExpiredTimers(*store), 0u);
}

}  // namespace
