#ifndef XK_REENTRANT_MUTEX_H
#define XK_REENTRANT_MUTEX_H

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace xk {

// A mutex that its holder may lock again, each lock matched by one unlock;
// exclusive for every other thread. Only a thread's outermost lock touches the
// underlying mutex: a nested one costs a comparison of thread ids. It is
// constant-initialised and trivially destructible, so a global one is usable
// before and after every other static object. Unlike std::recursive_mutex it
// can be released in the child of a fork by the thread that forked, which
// keeps its parent thread's pthread_t.
//
// m_Owner holds the holder, or 0 (no thread's pthread_t is 0: it is the
// address of the thread's descriptor). A thread finds itself there only while
// it holds the mutex, because it writes 0 back before letting go.
class ReentrantMutex {
 public:
  constexpr ReentrantMutex() = default;
  ReentrantMutex(const ReentrantMutex&) = delete;
  ReentrantMutex& operator=(const ReentrantMutex&) = delete;

  void lock() {
    const pthread_t self = pthread_self();
    if (m_Owner.load(std::memory_order_relaxed) == self) {
      ++m_Depth;
      return;
    }
    m_Mutex.lock();
    m_Owner.store(self, std::memory_order_relaxed);
    m_Depth = 1;
  }

  void unlock() {
    if (--m_Depth != 0) return;
    m_Owner.store(0, std::memory_order_relaxed);
    m_Mutex.unlock();
  }

 private:
  std::mutex m_Mutex;
  std::atomic<pthread_t> m_Owner{0};
  unsigned int m_Depth = 0;  // guarded by m_Mutex
};

}  // namespace xk

#endif
