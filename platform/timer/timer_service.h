#ifndef XK_TIMER_SERVICE_H
#define XK_TIMER_SERVICE_H

// The one service thread of the timer service, its deadline queue and its
// clock. Internal to the timer library.

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

#include "xk/timer.h"

namespace xk {
namespace timer {

// A deadline in nanoseconds on the service's clock; kNever and above means the
// timer is armed but will not come due in the life of the process.
inline constexpr std::uint64_t kNever = static_cast<std::uint64_t>(INT64_MAX);

struct TimerSlot;
using DeadlineQueue = std::multimap<std::uint64_t, TimerSlot*>;

// What the service knows of one timer. Lives inside the timer object.
// `duration` and `callback` are fixed when the timer is made; `armed` and
// `position` are guarded by the service mutex.
struct TimerSlot {
  std::uint64_t duration = 0;  // nanoseconds, from the seconds it was made with
  QX::Framework::ITimerCallbackFunction* callback = nullptr;  // owned by the timer
  bool armed = false;
  DeadlineQueue::iterator position;  // valid while armed
};

class TimerService {
 public:
  // The process-wide service. It is never destroyed: timers may be deleted
  // and callbacks may run after this library's static destructors.
  static TimerService& Instance();

  TimerService(const TimerService&) = delete;
  TimerService& operator=(const TimerService&) = delete;

  // Starts the service thread unless it runs already. False if it cannot be
  // started (a later call tries again).
  bool Start();
  // Puts `slot` into the queue at now + its duration, moving it if it is
  // queued already.
  void Arm(TimerSlot* slot);
  // Takes `slot` out of the queue for good. True if its callback is running
  // right now: the service thread then destroys the callback object once
  // InvokeFunction returns, and the caller must not. Never waits.
  bool Release(TimerSlot* slot);
  // Blocks until the service thread is inside no callback; at once on the
  // service thread itself.
  void WaitForRunningCallbacks();

  void UseManualClock(bool manual);
  void AdvanceManualClock(std::uint64_t nanoseconds);
  std::uint64_t Now();
  unsigned ArmedTimerCount();

 private:
  TimerService() = default;
  ~TimerService() = default;

  std::uint64_t NowLocked() const;
  void Run();
  // Runs the callback at the head of the queue. Called and returns with the
  // lock held; releases it around InvokeFunction.
  void FireFirst(std::unique_lock<std::mutex>& lock);
  void WaitForWork(std::unique_lock<std::mutex>& lock);
  // Moves every deadline from one clock to another, keeping the time left.
  void Requeue(std::uint64_t oldNow, std::uint64_t newNow);

  std::mutex m_Mutex;
  std::condition_variable m_Wake;   // the service thread waits here for work
  std::condition_variable m_Idle;   // waiters for callbacks and manual advances
  DeadlineQueue m_Queue;
  bool m_Started = false;
  bool m_Manual = false;
  std::uint64_t m_ManualNow = 0;
  // AdvanceManualClock bumps m_AdvanceGen; the service thread copies it into
  // m_IdleGen once nothing is due any more and no callback runs.
  std::uint64_t m_AdvanceGen = 0;
  std::uint64_t m_IdleGen = 0;
  // When the service thread looks at the queue next without being woken: 0
  // while it is awake (it looks before it waits again), the head's deadline
  // while it waits for it, kNever (UINT64_MAX under the manual clock) while it
  // waits for a notification only.
  std::uint64_t m_WakeAt = 0;
  bool m_InCallback = false;
  TimerSlot* m_RunningSlot = nullptr;  // the timer whose callback runs, if alive
  QX::Framework::ITimerCallbackFunction* m_HandedOver = nullptr;
};

}  // namespace timer
}  // namespace xk

#endif
