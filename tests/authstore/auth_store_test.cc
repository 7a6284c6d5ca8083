// The PIN store through its own members: the PIN-always table, read against
// probe, scoping by session and process, PIN session ids, the lock-out
// window, every removal form and the clean-up rule; PIN expiry on the test
// clock.
#include "authstore_test_support.h"
#include "xk/testsupport.h"

using namespace atest;

namespace {

const char kPINAlwaysSetting[] = "Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys";
const unsigned kMe = static_cast<unsigned>(getpid());
const std::string kMySession = Dec(static_cast<unsigned>(getsid(0)));
const unsigned kNoProcess = 2147483000u;
const char kTimeout[] = "Merrowstore.Authentication.Timeout";

class AuthStoreTest : public ::testing::Test {
 protected:
  bool Cached(CInternalAuthStore& store, const std::string& pin) {
    return Get(store, kMe, "c", pin, {}, true).hr == S_OK;
  }
  xk::test::Sandbox sandbox;
  xk::test::TestClock clock;
};

TEST_F(AuthStoreTest, PINAlwaysTableForReadAndProbe) {
  struct Row {
    const char* stored;  // Action of the SetPIN: "Authenticate" leaves the token available
    const char* bypass;
    const char* acr;     // IsACRPINAlways of the read
    const char* action;  // Action of the read
    int state;           // read, PIN prompt mode; the probe says the same for "Yes" and "No", else 0
    const char* after;
  } rows[] = {
      {"None", "False", "Yes", "None", 0, "unavailable"},
      {"None", "True", "Yes", "None", 1, "unavailable"},
      {"Authenticate", "False", "Yes", "Authenticate", 1, "available"},
      {"Authenticate", "False", "Yes", "ChangeAuthenticator", 1, "available"},
      {"Authenticate", "False", "Yes", "None", 1, "unavailable"},
      {"Authenticate", "False", "No", "Authenticate", 1, "available"},
      {"None", "False", "No", "Authenticate", 1, "unavailable"},
      {"Authenticate", "False", "No", "None", 1, "unavailable"},
      {"Authenticate", "False", "yes", "None", 1, "available"},
      {"None", "False", "yes", "None", 1, "unavailable"},
  };
  for (int mode : {0, 1}) {
    SetSetting(kPINAlwaysSetting, mode);
    StorePtr store = Begin("Table", 1, 1);
    for (const Row& r : rows) {
      SCOPED_TRACE(std::string(r.stored) + " " + r.bypass + " " + r.acr + " " + r.action + " mode " + Dec(mode));
      Set(*store, kMe, "c", "p", "1234", {{"Action", r.stored}, {"BypassPINAlways", r.bypass}});
      const int expected = r.state == 0 && mode == 1 ? 2 : r.state;
      const Read probe = Get(*store, kMe, "c", "p", {{"IsACRPINAlways", r.acr}}, true);
      EXPECT_EQ(probe.hr, S_OK);
      EXPECT_EQ(probe.state, std::string(r.acr) == "yes" ? 0 : expected);
      const Read read = Get(*store, kMe, "c", "p", {{"IsACRPINAlways", r.acr}, {"Action", r.action}});
      EXPECT_EQ(read.hr, S_OK);
      EXPECT_EQ(read.state, expected);
      EXPECT_EQ(read.value, "1234");  // whatever the state says
      EXPECT_EQ(Item(*store, "c/p", "PINAlwaysState"), r.after);
    }
  }
}

// (The stored value's ciphertext is the remanent store's test.)
TEST_F(AuthStoreTest, SetPINRecordsTokenBypassAndId) {
  StorePtr store = Begin("Set", 1, 1);
  const std::string id1 = Set(*store, kMe, "c", "p", "1234", {{"Action", "Authenticate"}, {"BypassPINAlways", "true"}});
  EXPECT_EQ(Item(*store, "c/p", "PINSessionId"), id1);
  EXPECT_EQ(Item(*store, "c/p", "PINBypassPINAlwaysState"), "False");  // "true" is not "True"
  // "ChangeAuthenticator" carries an available token over, and a spent one.
  const std::string id2 = Set(*store, kMe, "c", "p", "5678", {{"Action", "ChangeAuthenticator"}});
  EXPECT_NE(id2, id1);
  EXPECT_EQ(Item(*store, "c/p", "PINAlwaysState"), "available");
  Set(*store, kMe, "c", "p", "5678");
  Set(*store, kMe, "c", "p", "5678", {{"Action", "ChangeAuthenticator"}});
  EXPECT_EQ(Item(*store, "c/p", "PINAlwaysState"), "unavailable");
  // A shared store records no PIN session id.
  EXPECT_TRUE(Peer::PINSessionIds(*store).empty());
}

TEST_F(AuthStoreTest, ScopingBySessionAndProcess) {
  Child otherSession(true);
  Child sameSession(false);
  struct Row {
    signed char shared;
    int perProcess;
    std::string path;  // of a PIN cached by this process
    bool seenBySameSession, seenByOtherSession;
  } rows[] = {
      {0, 0, kMySession + "/c/p", true, false},
      {0, 1, kMySession + "/c/p/" + Dec(kMe), false, false},
      {1, 0, "c/p", true, true},
      {1, 1, "c/p/" + Dec(kMe), false, false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.path);
    SetSetting("Merrowstore.Authentication.AllowPerProcess", r.perProcess);
    StorePtr store = Begin("Scope", r.shared);
    Set(*store, kMe, "c", "p", "1234");
    EXPECT_EQ(Item(*store, r.path, "PINValue"), "1234");
    EXPECT_EQ(Get(*store, sameSession.Pid(), "c", "p", {}, true).hr == S_OK, r.seenBySameSession);
    EXPECT_EQ(Get(*store, otherSession.Pid(), "c", "p", {}, true).hr == S_OK, r.seenByOtherSession);
    // The caller 0: refused by a store that is not shared, the segment "0" otherwise.
    Set(*store, 0, "c", "q", "1", {}, r.shared ? S_OK : E_FAIL);
    if (r.shared) {
      EXPECT_EQ(Item(*store, r.perProcess ? "c/q/0" : "c/q", "PINValue"), "1");
    }
  }
}

TEST_F(AuthStoreTest, PINSessionIdReachesThePINFromAnotherSession) {
  Child otherSession(true);
  StorePtr store = Begin("Ids", 0);
  const std::string id = Set(*store, kMe, "c", "p", "1234", {{"Action", "Authenticate"}});
  EXPECT_EQ(Get(*store, otherSession.Pid(), "c", "p").hr, E_INVALIDARG);
  int state = -1;
  SAFEARRAY* value = nullptr;
  Bstr bstrId(id);
  EXPECT_EQ(store->GetPINFromPINSessionId(otherSession.Pid(), Bstr("c"), Bstr("p"), bstrId, nullptr, &value, &state),
            S_OK);
  EXPECT_EQ(Take(value), "1234");
  EXPECT_STREQ(static_cast<char*>(bstrId), id.c_str());  // the caller's handle is untouched
  EXPECT_EQ(store->ChangePINStateFromPINSessionId(otherSession.Pid(), Bstr("c"), Bstr("p"), bstrId, nullptr, 1), S_OK);
  EXPECT_EQ(Item(*store, kMySession + "/c/p", "PINAlwaysState"), "available");
  // An unknown id: the empty session, no failure.
  xk::test::LogCapture log;
  Array pin(MakePIN("9"));
  EXPECT_EQ(store->SetPINFromPINSessionId(kMe, Bstr("c"), Bstr("p"), Bstr("nope"), pin, nullptr), S_OK);
  EXPECT_TRUE(log.Contains(1, "CInternalAuthStore::SetInternalPIN sPINSessionId not found"));
  EXPECT_EQ(Item(*store, "/c/p", "PINSessionId"), "nope");
}

// The PIN store asks its session availability first (the wait itself is the
// data store's test): a locked-out session is refused until it has passed.
TEST_F(AuthStoreTest, LockedOutSessionPassesAgainAfterTheTimeout) {
  StorePtr store = Begin("Lockout", 0);
  store->SetAvailabilityStoreFromSessionId(static_cast<unsigned>(getsid(0)), 0);
  clock.Advance(14);
  Set(*store, kMe, "c", "p", "1", {}, E_FAIL);
  clock.Advance(1);
  Set(*store, kMe, "c", "p", "1");
}

TEST_F(AuthStoreTest, RemovalForms) {
  Child otherSession(true);
  const std::string sOther = Dec(otherSession.Pid());
  SetSetting("Merrowstore.Authentication.AllowPerProcess", 1);
  StorePtr store = Begin("Remove", 0);
  // Not cached: the tree's answer reaches the caller.
  SAFEARRAY* none = nullptr;
  EXPECT_EQ(store->RemovePIN(kMe, Bstr("c"), Bstr("p"), nullptr), E_INVALIDARG);
  // AllProcess: every process of the caller's session, from the tree only.
  Set(*store, kMe, "c", "p", "1");
  Set(*store, kNoProcess, "c", "p", "2");  // getsid fails: the session 4294967295
  Child sameSession(false);
  Set(*store, sameSession.Pid(), "c", "p", "3");
  Array allProcess(MakeParams({{"AllProcess", "True"}}));
  EXPECT_EQ(store->RemovePIN(kMe, Bstr("c"), Bstr("p"), allProcess), S_OK);
  EXPECT_EQ(Pins(*store, {kMySession + "/c/p/" + Dec(kMe), kMySession + "/c/p/" + Dec(sameSession.Pid()),
                          "4294967295/c/p/" + Dec(kNoProcess)}), "<missing> <missing> 2");
  EXPECT_EQ(Peer::Timers(*store), 3u);  // left to fire
  // AllSession: the PIN of every session known by a PIN session id.
  Set(*store, kMe, "c", "p", "1");
  Set(*store, otherSession.Pid(), "c", "p", "2");
  Array allSession(MakeParams({{"AllSession", "True"}}));
  EXPECT_EQ(store->RemovePIN(kMe, Bstr("c"), Bstr("p"), allSession), S_OK);
  EXPECT_EQ(Pins(*store, {kMySession + "/c/p/" + Dec(kMe), sOther + "/c/p/" + Dec(kMe), sOther + "/c/p/" + sOther}),
            "<missing> <missing> 2");  // the last another process segment
  // RemoveCompartment: the caller's session, or every known session.
  Set(*store, kMe, "c", "q", "1");
  EXPECT_EQ(store->RemoveCompartment(otherSession.Pid(), Bstr("c"), nullptr), S_OK);
  EXPECT_EQ(Item(*store, kMySession + "/c/q/" + Dec(kMe), "PINValue"), "1");
  Set(*store, otherSession.Pid(), "c", "p", "2");
  EXPECT_EQ(store->RemoveCompartment(kMe, Bstr("c"), allSession), S_OK);
  EXPECT_EQ(Pins(*store, {kMySession + "/c/q/" + Dec(kMe), sOther + "/c/p/" + sOther,
                          "4294967295/c/p/" + Dec(kNoProcess)}), "<missing> <missing> <missing>");
  // The PIN session id form.
  const std::string id = Set(*store, kMe, "c", "p", "1");
  EXPECT_EQ(store->RemovePINFromPINSessionId(otherSession.Pid(), Bstr("c"), Bstr("p"), Bstr(id), nullptr), E_INVALIDARG);
  EXPECT_EQ(store->RemovePINFromPINSessionId(kMe, Bstr("c"), Bstr("p"), Bstr(id), nullptr), S_OK);
  EXPECT_EQ(Peer::PINSessionIds(*store).count(S(id)), 0u);
  // "session//" matches no ordinary PIN of a memory tree; MoveStore carries them.
  Set(*store, kMe, "c", "p", "1");
  EXPECT_EQ(store->FlushStoreFromSessionId(static_cast<unsigned>(getsid(0))), S_OK);
  EXPECT_EQ(store->MoveStore(static_cast<unsigned>(getsid(0)), 77), S_OK);
  EXPECT_EQ(Item(*store, "77/c/p/" + Dec(kMe), "PINValue"), "1");
  // FlushStore with parameters deletes every timer; the PIN session ids stay.
  EXPECT_EQ(store->FlushStore(kMe, none), S_OK);
  EXPECT_EQ(Peer::Timers(*store), 0u);
  EXPECT_TRUE(mtest::AllKeys(*Peer::Tree(*store)).empty());
  EXPECT_FALSE(Peer::PINSessionIds(*store).empty());
  Array odd(SafeArrayCreateVector(VT_BSTR, 0, 1));
  Set(*store, kMe, "c", "p", "1");
  EXPECT_EQ(store->FlushStore(kMe, odd), DISP_E_BADINDEX);  // an odd count does not parse: nothing goes
  EXPECT_EQ(Item(*store, kMySession + "/c/p/" + Dec(kMe), "PINValue"), "1");
  EXPECT_EQ(store->FlushStore(kMe), S_OK);
  EXPECT_TRUE(mtest::AllKeys(*Peer::Tree(*store)).empty());
  EXPECT_EQ(Peer::Timers(*store), 1u);
}

TEST_F(AuthStoreTest, CleanUpRuleHidesFailuresOnceAnArrayIsHeld) {
  StorePtr store = Begin("CleanUp", 1);
  xk::test::LogCapture log;
  {
    // Before the value is held, a failure reaches the caller.
    xk::test::FaultInjector faults;
    faults.FailWithCode("SafeArrayCopy", E_OUTOFMEMORY);
    Set(*store, kMe, "c", "p", "1", {}, E_OUTOFMEMORY);
  }
  {
    // After it, the failed state vector is reported as success.
    xk::test::FaultInjector faults;
    faults.FailWithCode("SafeArrayPutElement", E_FAIL);
    Set(*store, kMe, "c", "p", "1");
    EXPECT_TRUE(log.Contains(1, "CInternalAuthStore::SetInternalPIN SafeArrayPutElement failed"));
    EXPECT_EQ(Item(*store, "c/p", "PINValue"), "1");
    EXPECT_EQ(Item(*store, "c/p", "PINAlwaysState"), "<missing>");  // not rolled back, not finished
  }
  {
    // A failed destruction is what the caller gets, and its array is lost.
    mtest::LeakAllowedScope lost;
    xk::test::FaultInjector faults;
    // The last of the four (value, state, bypass, id) decides.
    faults.FailWithCode("qxSafeArrayDestroy", E_OUTOFMEMORY, 4);
    Set(*store, kMe, "c", "r", "1", {}, E_OUTOFMEMORY);
    EXPECT_TRUE(log.Contains(1, "CInternalAuthStore::SetInternalPIN qxSafeArrayDestroy failed"));
  }
  // A read whose parameters do not parse: 0, the state as far as it got, no value.
  Array odd(SafeArrayCreateVector(VT_BSTR, 0, 3));
  int state = -1;
  SAFEARRAY* value = nullptr;
  EXPECT_EQ(store->GetPIN(kMe, Bstr("c"), Bstr("r"), odd, &value, nullptr, &state), S_OK);
  EXPECT_EQ(state, 0);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(store->GetPIN(kMe, Bstr("c"), Bstr("p"), nullptr, nullptr, nullptr, nullptr), E_INVALIDARG);
}

// The six parameters as parsed, then the result: defaults without BSTR
// parameters, the last of repeated names, unknown names skipped; with an odd
// count the last name takes the previous value, and the read fails.
TEST_F(AuthStoreTest, AdditionalParametersCarryOverAndDefault) {
  const auto parse = [](SAFEARRAY* psa) {
    SecureString o[6];
    const HRESULT hr = CInternalAuthStore::GetAdditionalParameters(psa, o[0], o[1], o[2], o[3], o[4], o[5]);
    std::string out;
    for (const SecureString& each : o) out += std::string(each.c_str()) + " ";
    return out + std::to_string(hr);
  };
  Array bytes(MakePIN("ab")), odd(mtest::MakeValue({"AllProcess", "True", "BypassPINAlways"}));
  Array repeated(MakeParams({{"Action", "Authenticate"}, {"Unknown", "x"}, {"Action", "ChangeAuthenticator"},
                             {"AllSession", "True"}, {"IsACRPINAlways", "yes"}}));
  EXPECT_EQ(parse(nullptr), "No None False False Yes False 0");
  EXPECT_EQ(parse(bytes), "No None False False Yes False 0");
  EXPECT_EQ(parse(repeated), "yes ChangeAuthenticator False True Yes False 0");
  EXPECT_EQ(parse(odd), "No None True False Yes True " + std::to_string(DISP_E_BADINDEX));
}

// PIN expiry on the test clock: durations, restarts, parked timers, and
// timers that fire for a PIN that is gone or has moved.
using AuthStoreExpiryTest = AuthStoreTest;

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
