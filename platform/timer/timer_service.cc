#include "timer_service.h"

#include <atomic>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

namespace xk {
namespace timer {
namespace {

// The service thread's id, once it runs; lets the waits return at once there
// instead of waiting for the thread itself. Not a thread_local: this library
// is often loaded with dlopen, and LeakSanitizer's thread walk at exit trips
// over the dynamic TLS block of a thread that a dlopened library started.
std::atomic<std::thread::id> gServiceThread{std::thread::id()};

bool OnServiceThread() { return gServiceThread.load(std::memory_order_acquire) == std::this_thread::get_id(); }

std::uint64_t MonotonicNow() {
  auto since = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

// a + b, saturated at kNever: a deadline never wraps round into the past.
std::uint64_t DeadlineAfter(std::uint64_t now, std::uint64_t duration) {
  if (now >= kNever || duration >= kNever - now) return kNever;
  return now + duration;
}

}  // namespace

TimerService& TimerService::Instance() {
  // Leaked on purpose: the thread and late users (a library unloaded after
  // this one's static destructors ran) keep a valid mutex and queue.
  static TimerService* const service = new TimerService;
  return *service;
}

bool TimerService::Start() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  if (m_Started) return true;
  try {
    // Never joined: at process exit the thread sits in its wait and the
    // kernel ends it; the service it uses is never destroyed.
    std::thread(&TimerService::Run, this).detach();
  } catch (const std::system_error&) {
    return false;
  }
  m_Started = true;
  return true;
}

void TimerService::Arm(TimerSlot* slot) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  const std::uint64_t deadline = DeadlineAfter(NowLocked(), slot->duration);
  if (slot->armed) {
    // A restart moves the timer's own queue entry: no allocation.
    DeadlineQueue::node_type entry = m_Queue.extract(slot->position);
    entry.key() = deadline;
    slot->position = m_Queue.insert(std::move(entry));
  } else {
    slot->position = m_Queue.emplace(deadline, slot);
    slot->armed = true;
  }
  // The service thread looks at the queue again by m_WakeAt on its own; only
  // an earlier deadline needs it woken. A restart, which pushes a deadline
  // back, never does.
  if (deadline < m_WakeAt) m_Wake.notify_one();
}

bool TimerService::Release(TimerSlot* slot) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  if (slot->armed) {
    m_Queue.erase(slot->position);
    slot->armed = false;
  }
  if (m_RunningSlot != slot) return false;
  m_HandedOver = slot->callback;
  m_RunningSlot = nullptr;
  return true;
}

void TimerService::WaitForRunningCallbacks() {
  if (OnServiceThread()) return;
  std::unique_lock<std::mutex> lock(m_Mutex);
  m_Idle.wait(lock, [this] { return !m_InCallback; });
}

void TimerService::UseManualClock(bool manual) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  std::uint64_t oldNow = NowLocked();
  m_Manual = manual;
  m_ManualNow = 0;
  Requeue(oldNow, NowLocked());
  m_Wake.notify_one();
}

void TimerService::AdvanceManualClock(std::uint64_t nanoseconds) {
  std::unique_lock<std::mutex> lock(m_Mutex);
  if (!m_Manual) return;
  m_ManualNow = nanoseconds > UINT64_MAX - m_ManualNow ? UINT64_MAX : m_ManualNow + nanoseconds;
  // Without a thread nothing is armed; on the service thread the due
  // callbacks run once the current one returns.
  if (!m_Started || OnServiceThread()) return;
  std::uint64_t gen = ++m_AdvanceGen;
  m_Wake.notify_one();
  m_Idle.wait(lock, [this, gen] { return m_IdleGen >= gen; });
}

std::uint64_t TimerService::Now() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return NowLocked();
}

unsigned TimerService::ArmedTimerCount() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return static_cast<unsigned>(m_Queue.size());
}

std::uint64_t TimerService::NowLocked() const { return m_Manual ? m_ManualNow : MonotonicNow(); }

void TimerService::Run() {
  gServiceThread.store(std::this_thread::get_id(), std::memory_order_release);
  std::unique_lock<std::mutex> lock(m_Mutex);
  for (;;) {
    if (!m_Queue.empty() && m_Queue.begin()->first <= NowLocked()) {
      FireFirst(lock);
      continue;
    }
    // Nothing due and no callback running: every advance so far is complete.
    if (m_IdleGen != m_AdvanceGen) {
      m_IdleGen = m_AdvanceGen;
      m_Idle.notify_all();
    }
    WaitForWork(lock);
  }
}

void TimerService::FireFirst(std::unique_lock<std::mutex>& lock) {
  TimerSlot* slot = m_Queue.begin()->second;
  m_Queue.erase(m_Queue.begin());
  slot->armed = false;
  QX::Framework::ITimerCallbackFunction* callback = slot->callback;
  // From here the callback counts as started; a timer released now hands its
  // callback object over instead of destroying it.
  m_RunningSlot = slot;
  m_InCallback = true;
  lock.unlock();
  try {
    callback->InvokeFunction();
  } catch (...) {
    // The result is not used, and an exception must not end the thread.
  }
  lock.lock();
  m_RunningSlot = nullptr;
  if (QX::Framework::ITimerCallbackFunction* orphan = std::exchange(m_HandedOver, nullptr)) {
    lock.unlock();
    delete orphan;
    lock.lock();
  }
  m_InCallback = false;
  m_Idle.notify_all();
}

void TimerService::WaitForWork(std::unique_lock<std::mutex>& lock) {
  // The manual clock moves only through calls that notify m_Wake; under it
  // every arming wakes the thread, as any deadline may be due already.
  if (m_Queue.empty() || m_Manual || m_Queue.begin()->first >= kNever) {
    m_WakeAt = m_Manual ? UINT64_MAX : kNever;
    m_Wake.wait(lock);
  } else {
    m_WakeAt = m_Queue.begin()->first;
    auto deadline = std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::nanoseconds(static_cast<std::int64_t>(m_WakeAt))));
    m_Wake.wait_until(lock, deadline);
  }
  // Awake: the queue is looked at before the next wait.
  m_WakeAt = 0;
}

void TimerService::Requeue(std::uint64_t oldNow, std::uint64_t newNow) {
  DeadlineQueue moved;
  for (auto& [deadline, slot] : m_Queue) {
    std::uint64_t remaining = deadline > oldNow ? deadline - oldNow : 0;
    std::uint64_t converted = deadline >= kNever ? kNever : DeadlineAfter(newNow, remaining);
    slot->position = moved.emplace_hint(moved.end(), converted, slot);
  }
  m_Queue.swap(moved);
}

}  // namespace timer
}  // namespace xk
