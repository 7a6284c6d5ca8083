// Threads set, read, probe and remove the PINs of one store while its 5 s
// expiry timers fire; then the store is ended while a callback waits for its
// mutex, and deleted. Nothing of it may run afterwards.

#include <atomic>
#include <thread>

#include "authstore_test_support.h"
#include "xk/testsupport.h"
#include "xk/timer_clock.h"

using namespace atest;

TEST(AuthStoreConcurrency, PINsChangedWhileTimersFireThenEndedWhileACallbackWaits) {
  const unsigned kThreads = 4, kRounds = 300, kMe = static_cast<unsigned>(getpid());
  xk::test::Sandbox sandbox;
  xk::test::TestClock clock;
  SetSetting("Merrowstore.Authentication.Timeout", 0);
  StorePtr owner = Begin("Stress", 0, 1);
  CInternalAuthStore& store = *owner;
  std::atomic<bool> done{false};
  auto worker = [&](unsigned t) {
    std::string id;  // the PIN session id this thread got last
    for (unsigned r = 0; r < kRounds; ++r) {
      // Two compartments of three PINs shared by all threads; a value names its PIN.
      const std::string comp = "c" + Dec(r % 2), pin = "p" + Dec((r + t) % 3), where = comp + "/" + pin + "#";
      const Bstr c(comp), p(pin), i(id);
      SAFEARRAY* value = nullptr;
      Read g{S_OK, 1, where};  // what the call gave back
      switch ((r * 7 + t * 3) % 13) {
        case 0: case 1: case 2: case 3: id = Set(store, kMe, comp, pin, where + Dec(t)); break;
        case 4: case 5: g = Get(store, kMe, comp, pin); break;
        case 6: g = Get(store, kMe, comp, pin, {}, true), g.value = where; break;
        case 7:
          g.hr = store.GetPINFromPINSessionId(kMe, c, p, i, nullptr, &value, &g.state);
          g.value = Take(value);
          break;
        case 8: g.hr = store.IsPINCachedFromPINSessionId(kMe, c, p, i, nullptr, &g.state); break;
        case 9: g.hr = store.ChangePINState(kMe, c, p, nullptr, 1); break;
        case 10: g.hr = store.RemovePIN(kMe, c, p, nullptr); break;
        case 11: g.hr = store.RemovePINFromPINSessionId(kMe, c, p, i, nullptr); break;
        default:  // now and then a compartment or the whole store goes
          if (r % 5 == 0) g.hr = store.RemoveCompartment(kMe, c, nullptr);
          if (r % 30 == 0) g.hr = r % 60 == 0 ? store.FlushStore(kMe, nullptr) : store.FlushStore(kMe);
      }
      EXPECT_TRUE(g.hr == S_OK || g.hr == E_INVALIDARG) << std::hex << g.hr;
      // A read that succeeds gives its PIN's value, decrypted, and state 1.
      EXPECT_TRUE(g.hr != S_OK || (g.value.rfind(where, 0) == 0 && g.state == 1)) << g.value << " " << g.state;
    }
  };
  std::thread advancer([&] { while (!done) clock.AdvanceMilliseconds(500); });
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < kThreads; ++t) workers.emplace_back(worker, t);
  for (std::thread& w : workers) w.join();
  done = true;
  advancer.join();

  // Whatever the threads left, one more timeout takes every PIN.
  clock.Advance(5);
  for (const char* comp : {"c0", "c1"})
    for (const char* pin : {"p0", "p1", "p2"}) EXPECT_EQ(Get(store, kMe, comp, pin, {}, true).hr, E_INVALIDARG);

  // End with timers due while the first callback waits for the store's mutex.
  for (const char* pin : {"p0", "p1", "p2"}) Set(store, kMe, "c0", pin, "due");
  xk::test::LogCapture log;
  pthread_mutex_lock(Peer::Mutex(store));
  std::thread firing([&] { clock.Advance(5); });
  while (log.Count("CInternalAuthStore::RemoveExpiredPINFromPINSessionId") == 0) std::this_thread::yield();
  std::thread ending([&] { EXPECT_EQ(store.End(), S_OK); });
  pthread_mutex_unlock(Peer::Mutex(store));
  ending.join();
  EXPECT_EQ(Peer::Tree(store), nullptr);
  EXPECT_EQ(Peer::Timers(store) + Peer::ExpiredTimers(store) + Peer::PINSessionIds(store).size(), 0u);
  // Deleted at once, while due callbacks may still be on their way: none of
  // them may reach it, now or later.
  delete owner.release();
  firing.join();
  EXPECT_EQ(xk::timer::ArmedTimerCount(), 0u);
  log.Clear();
  clock.Advance(600);
  for (const auto& entry : log.Entries()) ADD_FAILURE() << entry.text;
}
