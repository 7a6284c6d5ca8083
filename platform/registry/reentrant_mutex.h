#ifndef XK_REGISTRY_REENTRANT_MUTEX_H
#define XK_REGISTRY_REENTRANT_MUTEX_H

#include <atomic>
#include <mutex>
#include <thread>

namespace xk {
namespace registry {

// A mutex its holder may lock again (each lock matched by one unlock). Unlike
// std::recursive_mutex it can be released in the child of a fork by the
// thread that forked, which keeps the identity of its parent thread: the
// registry locks it before fork() and unlocks it on both sides.
class ReentrantMutex {
 public:
  void lock() {
    const std::thread::id self = std::this_thread::get_id();
    if (m_Owner.load(std::memory_order_relaxed) != self) {
      m_Mutex.lock();
      m_Owner.store(self, std::memory_order_relaxed);
    }
    ++m_Depth;
  }

  void unlock() {
    if (--m_Depth == 0) {
      m_Owner.store(std::thread::id(), std::memory_order_relaxed);
      m_Mutex.unlock();
    }
  }

 private:
  std::mutex m_Mutex;
  // Only the holder stores its own id here, so another thread never reads
  // its own id by mistake.
  std::atomic<std::thread::id> m_Owner{};
  unsigned int m_Depth = 0;  // guarded by m_Mutex
};

}  // namespace registry
}  // namespace xk

#endif
