#include "safearray_lock.h"

#include <atomic>
#include <limits>

namespace xk {
namespace winext {

HRESULT AddLock(SAFEARRAY* psa) noexcept {
  std::atomic_ref<unsigned int> locks(psa->cLocks);
  unsigned int n = locks.load(std::memory_order_relaxed);
  do {
    if (n == std::numeric_limits<unsigned int>::max()) return E_UNEXPECTED;
  } while (!locks.compare_exchange_weak(n, n + 1, std::memory_order_acquire, std::memory_order_relaxed));
  return S_OK;
}

HRESULT DropLock(SAFEARRAY* psa) noexcept {
  std::atomic_ref<unsigned int> locks(psa->cLocks);
  unsigned int n = locks.load(std::memory_order_relaxed);
  do {
    if (n == 0) return E_UNEXPECTED;
  } while (!locks.compare_exchange_weak(n, n - 1, std::memory_order_release, std::memory_order_relaxed));
  return S_OK;
}

bool IsLocked(SAFEARRAY* psa) noexcept {
  return std::atomic_ref<unsigned int>(psa->cLocks).load(std::memory_order_acquire) != 0;
}

}  // namespace winext
}  // namespace xk
