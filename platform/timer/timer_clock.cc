#include "xk/timer_clock.h"

#include "timer_service.h"

namespace xk {
namespace timer {

void UseManualClock(bool manual) { TimerService::Instance().UseManualClock(manual); }

void AdvanceManualClock(std::uint64_t nanoseconds) { TimerService::Instance().AdvanceManualClock(nanoseconds); }

std::uint64_t Now() { return TimerService::Instance().Now(); }

unsigned ArmedTimerCount() { return TimerService::Instance().ArmedTimerCount(); }

}  // namespace timer
}  // namespace xk
