#ifndef XK_TIMER_CLOCK_H
#define XK_TIMER_CLOCK_H

// The timer service's clock, for tests: a manual clock replaces the monotonic
// clock and moves only when told. Production code never calls these.

#include <cstdint>

#include "xk/export.h"

namespace xk {
namespace timer {

// Switches the service to a manual clock starting at 0 (true) or back to the
// monotonic clock (false). Armed timers keep their remaining time.
XK_EXPORT void UseManualClock(bool manual);
// Moves the manual clock forward, then blocks until the service thread has
// started and finished every callback due by the new time. Must not be called
// while holding a lock that such a callback waits for.
XK_EXPORT void AdvanceManualClock(std::uint64_t nanoseconds);
// The service's current time in nanoseconds (manual or monotonic).
XK_EXPORT std::uint64_t Now();
// Number of timers armed and not yet fired.
XK_EXPORT unsigned ArmedTimerCount();

}  // namespace timer
}  // namespace xk

#endif
