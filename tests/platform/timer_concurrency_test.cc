// The timer service: firing, restart, deletion races, waiting for callbacks
// and the test clock. Every test drives the manual clock, so nothing waits
// real time; a deadlock shows as an abort after a bounded wait.

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "xk/fault_point.h"
#include "xk/testsupport.h"
#include "xk/timer.h"
#include "xk/timer_clock.h"

namespace {

using QX::Framework::ITimer;
using xk::timer::ArmedTimerCount;

struct Counts {
  std::atomic<int> invoked{0};
  std::atomic<int> destroyed{0};
};

// Counts its calls and its destruction; runs `action` in each call and
// `onDestroy` in its destructor.
struct Probe : QX::Framework::ITimerCallbackFunction {
  explicit Probe(Counts& c, std::function<void()> a = {}, std::function<void()> d = {})
      : counts(c), action(std::move(a)), onDestroy(std::move(d)) {}
  ~Probe() override {
    if (onDestroy) onDestroy();
    ++counts.destroyed;
  }
  bool InvokeFunction() override {
    ++counts.invoked;
    if (action) action();
    return true;
  }
  Counts& counts;
  std::function<void()> action, onDestroy;
};

// A bounded wait for something that only a deadlock would keep from ending.
template <typename Future>
void WaitOrDie(Future& f, const char* what) {
  if (f.wait_for(std::chrono::seconds(60)) == std::future_status::ready) return;
  std::fprintf(stderr, "%s did not finish: deadlock\n", what);
  std::abort();
}

class TimerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    xk::fault::Reset();
    ITimer::WaitForRunningCallbacks();
    EXPECT_EQ(ArmedTimerCount(), 0u);
  }
  // Moves the clock on; the calls counted by then.
  int After(const Counts& c, std::uint64_t milliseconds) {
    m_Clock.AdvanceMilliseconds(milliseconds);
    return c.invoked;
  }
  std::future<void> AdvanceOnAnotherThread(std::uint64_t seconds) {
    return std::async(std::launch::async, [this, seconds] { m_Clock.Advance(seconds); });
  }

  xk::test::TestClock m_Clock{1000};
};

TEST_F(TimerTest, FiresOncePerArmingAndRestartMovesTheDeadline) {
  Counts c;
  std::unique_ptr<ITimer> t(ITimer::CreateNewTimer(10, new Probe(c)));
  ASSERT_TRUE(t);
  EXPECT_EQ(After(c, 9999), 0);
  EXPECT_EQ(std::time(nullptr), 1009) << "time() follows the test clock";
  EXPECT_EQ(After(c, 1), 1);
  EXPECT_EQ(After(c, 100'000), 1);
  t->Restart();  // after firing: once more, 10 s from now, whatever the wall clock does
  m_Clock.SetWallClock(5);
  EXPECT_EQ(std::time(nullptr), 5);
  EXPECT_EQ(After(c, 9999), 1);
  EXPECT_EQ(After(c, 1), 2);
  t->Restart();  // before firing: the second restart replaces the first deadline
  m_Clock.Advance(6);
  t->Restart();
  EXPECT_EQ(After(c, 6000), 2);
  EXPECT_EQ(ArmedTimerCount(), 1u);
  EXPECT_EQ(After(c, 4000), 3);
  t.reset();
  EXPECT_EQ(c.destroyed, 1);

  // Deleted before firing: never fires. A 0 s timer fires at the next
  // advance. A NULL callback or a failure makes no timer (the callback is
  // destroyed); a failed restart arms nothing. Many timers of one deadline
  // fire once each.
  ITimer* deleted = ITimer::CreateNewTimer(5, new Probe(c));
  m_Clock.Advance(4);
  delete deleted;
  EXPECT_EQ(c.destroyed, 2);
  EXPECT_EQ(After(c, 100'000), 3);
  std::unique_ptr<ITimer> now(ITimer::CreateNewTimer(0, new Probe(c)));
  EXPECT_EQ(After(c, 0), 4);
  EXPECT_EQ(ITimer::CreateNewTimer(3, nullptr), nullptr);
  xk::fault::Arm("ITimer::CreateNewTimer", 1, {xk::fault::Kind::kNull, 0, 0}, false);
  EXPECT_EQ(ITimer::CreateNewTimer(1, new Probe(c)), nullptr);
  EXPECT_EQ(c.destroyed, 3);
  xk::fault::Arm("ITimer::Restart", 1, {xk::fault::Kind::kCode, -1, 0}, false);
  now->Restart();
  std::vector<std::unique_ptr<ITimer>> timers;
  for (int i = 0; i < 200; ++i) timers.emplace_back(ITimer::CreateNewTimer(3, new Probe(c)));
  EXPECT_EQ(After(c, 3000), 204);
  EXPECT_EQ(After(c, 30'000), 204);
  timers.clear();
  EXPECT_EQ(c.destroyed, 203);
}

TEST_F(TimerTest, ClockSwitchKeepsRemainingTimeWithoutOverflow) {
  Counts c;
  std::unique_ptr<ITimer> shortOne(ITimer::CreateNewTimer(10, new Probe(c)));
  m_Clock.Advance(4);
  xk::timer::UseManualClock(false);  // 6 s left, now on the monotonic clock
  std::unique_ptr<ITimer> longest(ITimer::CreateNewTimer(UINT_MAX, new Probe(c)));
  xk::timer::UseManualClock(true);
  EXPECT_EQ(After(c, 5000), 0);
  EXPECT_EQ(After(c, 1000), 1);
  EXPECT_EQ(After(c, (UINT_MAX - 8ull) * 1000), 1);  // about 136 years
  EXPECT_EQ(After(c, 2000), 2);
}

TEST_F(TimerTest, ProcessExitsCleanlyWithATimerArmed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        xk::timer::UseManualClock(false);
        Counts c;
        std::promise<void> fired;
        std::unique_ptr<ITimer> first(ITimer::CreateNewTimer(0, new Probe(c, [&] { fired.set_value(); })));
        auto f = fired.get_future();
        WaitOrDie(f, "a 0 s timer on the monotonic clock");
        ITimer::CreateNewTimer(3600, new Probe(c));  // still armed at exit
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

// Thread A holds M and deletes the timer whose callback, on the service
// thread, waits for M: the delete returns without waiting. A store's teardown
// that then waits for running callbacks finds the callback finished and its
// object destroyed.
TEST_F(TimerTest, DeleteUnderALockTheRunningCallbackWaitsForThenWaitForIt) {
  std::mutex m;
  Counts c;
  std::promise<void> entered, holding, waiting;
  int storeData = 0, callbackData = 0, destroyedUnderM = -1, seen = 0;
  ITimer* t = ITimer::CreateNewTimer(1, new Probe(c, [&] {
    entered.set_value();
    std::lock_guard<std::mutex> lock(m);
    storeData = 42;
  }, [&] { callbackData = 7; }));
  std::future<void> teardown;
  auto a = std::async(std::launch::async, [&] {
    std::lock_guard<std::mutex> lock(m);
    holding.set_value();
    entered.get_future().wait();
    t->Restart();  // armed again while its callback runs
    delete t;
    destroyedUnderM = c.destroyed;
    teardown = std::async(std::launch::async, [&] {
      waiting.set_value();
      ITimer::WaitForRunningCallbacks();
      seen = storeData + callbackData + c.destroyed;  // a race here if the object outlived the wait
    });
    waiting.get_future().wait();
  });
  holding.get_future().wait();
  auto advance = AdvanceOnAnotherThread(1);
  WaitOrDie(a, "delete under the lock");
  WaitOrDie(teardown, "WaitForRunningCallbacks");
  WaitOrDie(advance, "the callback");
  EXPECT_EQ(destroyedUnderM, 0);  // still running then: the service thread destroys it
  EXPECT_EQ(seen, 42 + 7 + 1);
  EXPECT_EQ(After(c, 100'000), 1);
}

// The callback deletes its own timer, then makes a 0 s timer that restarts
// itself twice. One advance covers them all.
TEST_F(TimerTest, CallbackDeletesItsOwnTimerAndArmsOthers) {
  Counts own, rep;
  ITimer* self = nullptr;
  ITimer* again = nullptr;
  self = ITimer::CreateNewTimer(2, new Probe(own, [&] {
    delete self;
    self = nullptr;
    ITimer::WaitForRunningCallbacks();  // returns at once on the service thread
    again = ITimer::CreateNewTimer(0, new Probe(rep, [&] {
      if (rep.invoked < 3) again->Restart();
    }));
  }));
  auto advance = AdvanceOnAnotherThread(2);
  WaitOrDie(advance, "a callback deleting its own timer");
  EXPECT_EQ(self, nullptr);
  EXPECT_EQ(own.invoked + own.destroyed, 2);
  EXPECT_EQ(rep.invoked, 3);
  delete again;
  EXPECT_EQ(rep.destroyed, 1);
}

// Callers create, restart and delete timers on several threads while the
// clock moves: every callback object is destroyed exactly once.
TEST_F(TimerTest, ConcurrentCallersAndFiring) {
  Counts c;
  std::atomic<int> created{0}, running{4};
  std::vector<std::thread> callers;
  for (int w = 0; w < 4; ++w) {
    callers.emplace_back([&, w] {
      for (int i = 0; i < 300; ++i) {
        std::unique_ptr<ITimer> t(ITimer::CreateNewTimer((i + w) % 3, new Probe(c)));
        ++created;
        if (i % 2) t->Restart();
      }
      --running;
    });
  }
  while (running > 0) m_Clock.Advance(1);
  for (auto& th : callers) th.join();
  ITimer::WaitForRunningCallbacks();
  EXPECT_EQ(c.destroyed, created);
  EXPECT_LE(c.invoked, created * 2);
}

}  // namespace
