#include "bstr_registry.h"

#include <thread>

namespace xk {
namespace winext {

void BstrRegistry::ShardLock::Wait() noexcept {
  // Spin on a plain read until the holder lets go, yielding the core now and
  // then in case the holder is waiting for it; then try to take it again.
  unsigned spins = 0;
  do {
    while (m_bHeld.load(std::memory_order_relaxed)) {
      if (++spins % 64 == 0) std::this_thread::yield();
    }
  } while (m_bHeld.exchange(true, std::memory_order_acquire));
}

bool BstrRegistry::Add(const char* bstr) noexcept {
  Shard& shard = ShardOf(bstr);
  std::lock_guard<ShardLock> lock(shard.lock);
  return shard.live.Insert(Disguise(bstr));
}

bool BstrRegistry::Remove(const char* bstr) noexcept {
  Shard& shard = ShardOf(bstr);
  std::lock_guard<ShardLock> lock(shard.lock);
  return shard.live.Erase(Disguise(bstr));
}

}  // namespace winext
}  // namespace xk
