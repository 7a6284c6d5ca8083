#ifndef XK_WINEXT_SAFEARRAY_LOCK_H
#define XK_WINEXT_SAFEARRAY_LOCK_H

// The lock count of an array (cLocks). It is changed atomically, so locks
// taken and dropped on different threads never lose a count; it guards
// nothing else: a locked array cannot be destroyed, and that is all.

#include "xk/hresult.h"
#include "xk/oleauto.h"

namespace xk {
namespace winext {

// Adds one lock; E_UNEXPECTED when the count is at its maximum.
HRESULT AddLock(SAFEARRAY* psa) noexcept;
// Drops one lock; E_UNEXPECTED when none is held.
HRESULT DropLock(SAFEARRAY* psa) noexcept;
bool IsLocked(SAFEARRAY* psa) noexcept;

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
