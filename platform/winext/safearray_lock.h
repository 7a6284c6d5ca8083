#ifndef XK_WINEXT_SAFEARRAY_LOCK_H
#define XK_WINEXT_SAFEARRAY_LOCK_H

// The lock count of an array (cLocks). It is changed atomically, so locks
// taken and dropped on different threads never lose a count; it guards
// nothing else: a locked array cannot be destroyed, and that is all.
//
// Element access holds a lock while it copies a BSTR element (an allocation
// and a copy of any length). An element of any other type is one copy of at
// most 16 bytes: the access only checks that a lock could be taken (the
// count is below its maximum) and leaves the count alone, which spares it two
// atomic operations. Either way the count is as it was afterwards; only a
// destruction racing with the access, which is a caller error, could tell
// the difference.

#include <atomic>
#include <limits>

#include "xk/hresult.h"
#include "xk/oleauto.h"

namespace xk {
namespace winext {

// Adds one lock; E_UNEXPECTED when the count is at its maximum.
inline HRESULT AddLock(SAFEARRAY* psa) noexcept {
  std::atomic_ref<unsigned int> locks(psa->cLocks);
  unsigned int n = locks.load(std::memory_order_relaxed);
  do {
    if (n == std::numeric_limits<unsigned int>::max()) return E_UNEXPECTED;
  } while (!locks.compare_exchange_weak(n, n + 1, std::memory_order_acquire, std::memory_order_relaxed));
  return S_OK;
}

// Drops one lock; E_UNEXPECTED when none is held.
inline HRESULT DropLock(SAFEARRAY* psa) noexcept {
  std::atomic_ref<unsigned int> locks(psa->cLocks);
  unsigned int n = locks.load(std::memory_order_relaxed);
  do {
    if (n == 0) return E_UNEXPECTED;
  } while (!locks.compare_exchange_weak(n, n - 1, std::memory_order_release, std::memory_order_relaxed));
  return S_OK;
}

// True when the count is at its maximum, where AddLock would fail.
inline bool LockCountFull(SAFEARRAY* psa) noexcept {
  return std::atomic_ref<unsigned int>(psa->cLocks).load(std::memory_order_relaxed) ==
         std::numeric_limits<unsigned int>::max();
}

inline bool IsLocked(SAFEARRAY* psa) noexcept {
  return std::atomic_ref<unsigned int>(psa->cLocks).load(std::memory_order_acquire) != 0;
}

// Holds one lock of an array for a scope, as element access does.
class ScopedArrayLock {
 public:
  explicit ScopedArrayLock(SAFEARRAY* psa) noexcept : m_Array(psa), m_Status(AddLock(psa)) {}
  ~ScopedArrayLock() {
    if (SUCCEEDED(m_Status)) DropLock(m_Array);
  }
  ScopedArrayLock(const ScopedArrayLock&) = delete;
  ScopedArrayLock& operator=(const ScopedArrayLock&) = delete;

  // S_OK when the lock was taken.
  HRESULT Status() const noexcept { return m_Status; }

 private:
  SAFEARRAY* m_Array;
  HRESULT m_Status;
};

}  // namespace winext
}  // namespace xk

#endif
