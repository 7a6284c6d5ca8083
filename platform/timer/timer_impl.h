#ifndef XK_TIMER_IMPL_H
#define XK_TIMER_IMPL_H

// The timer object that ITimer::CreateNewTimer hands out. Internal to the
// timer library.

#include "timer_service.h"
#include "xk/timer.h"

namespace xk {
namespace timer {

class TimerImpl final : public QX::Framework::ITimer {
 public:
  // Takes `callback` over; the timer is not armed until Restart.
  TimerImpl(unsigned int seconds, QX::Framework::ITimerCallbackFunction* callback);
  // Disarms, then destroys the callback object unless its InvokeFunction is
  // running at this moment, in which case the service thread destroys it
  // when it returns.
  ~TimerImpl() override;
  TimerImpl(const TimerImpl&) = delete;
  TimerImpl& operator=(const TimerImpl&) = delete;

  void Restart() override;
  // Arms the timer from now, as Restart does, without passing its fault point.
  void Arm();

 private:
  TimerSlot m_Slot;
};

}  // namespace timer
}  // namespace xk

#endif
