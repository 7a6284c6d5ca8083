#ifndef XK_TIMER_H
#define XK_TIMER_H

// The timer service: one-shot timers served by one service thread, the only
// thread of the service. Deadlines are taken on the monotonic clock, so a
// change of the wall clock neither shortens nor stretches a timer.

#include "xk/export.h"

namespace QX {
namespace Framework {

class XK_EXPORT ITimerCallbackFunction {
 public:
  virtual ~ITimerCallbackFunction();
  // Runs on the service thread, once per arming. The result is not used.
  virtual bool InvokeFunction() = 0;
};

class XK_EXPORT ITimer {
 public:
  // Disarms the timer and destroys its callback object. After it returns no
  // callback of this timer starts. It never waits for a callback that is
  // already running: that callback finishes on the service thread, which then
  // destroys the callback object. So it may be called while holding a lock
  // that the running callback waits for.
  virtual ~ITimer();
  // Re-arms the timer with the duration it was made with, counted from now,
  // whether or not it has fired.
  virtual void Restart() = 0;

  // Makes and starts a timer that calls `callback` once, `seconds` from now.
  // The timer takes the callback over, also on failure. NULL for a NULL
  // callback or when the service cannot run (the callback is then destroyed).
  static ITimer* CreateNewTimer(unsigned int seconds, ITimerCallbackFunction* callback);

  // Blocks until no callback is running on the service thread (returns at once
  // when called from the service thread). With every timer of an object
  // deleted first, nothing of that object runs once this returns. Must not be
  // called while holding a lock that a callback may wait for.
  static void WaitForRunningCallbacks();
};

}  // namespace Framework
}  // namespace QX

#endif
