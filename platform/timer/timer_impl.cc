#include "timer_impl.h"

#include <new>

#include "xk/fault_point.h"

namespace xk {
namespace timer {

TimerImpl::TimerImpl(unsigned int seconds, QX::Framework::ITimerCallbackFunction* callback) {
  // Up to 2^32 - 1 seconds, about 136 years: the product fits in 64 bits.
  m_Slot.duration = static_cast<std::uint64_t>(seconds) * 1'000'000'000u;
  m_Slot.callback = callback;
}

TimerImpl::~TimerImpl() {
  // Release never waits: it may run under a lock that the running callback
  // is waiting for, or inside this timer's own callback.
  if (!TimerService::Instance().Release(&m_Slot)) delete m_Slot.callback;
}

void TimerImpl::Restart() {
  if (xk::fault::Check("ITimer::Restart").kind != xk::fault::Kind::kNone) return;
  Arm();
}

void TimerImpl::Arm() { TimerService::Instance().Arm(&m_Slot); }

}  // namespace timer
}  // namespace xk

namespace QX {
namespace Framework {

ITimerCallbackFunction::~ITimerCallbackFunction() = default;

ITimer::~ITimer() = default;

ITimer* ITimer::CreateNewTimer(unsigned int seconds, ITimerCallbackFunction* callback) {
  if (xk::fault::Check("ITimer::CreateNewTimer").kind != xk::fault::Kind::kNone || !callback ||
      !xk::timer::TimerService::Instance().Start()) {
    delete callback;
    return nullptr;
  }
  auto* timer = new (std::nothrow) xk::timer::TimerImpl(seconds, callback);
  if (!timer) {
    delete callback;
    return nullptr;
  }
  timer->Arm();
  return timer;
}

void ITimer::WaitForRunningCallbacks() { xk::timer::TimerService::Instance().WaitForRunningCallbacks(); }

}  // namespace Framework
}  // namespace QX
