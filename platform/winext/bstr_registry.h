#ifndef XK_WINEXT_BSTR_REGISTRY_H
#define XK_WINEXT_BSTR_REGISTRY_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "bstr_layout.h"
#include "pointer_table.h"

namespace xk {
namespace winext {

// The set of live BSTRs that this service made. Only a pointer found here has
// a length prefix in front of it; any other pointer is a plain buffer and is
// never read before its first byte. The set is split into shards by pointer
// hash, each with its own lock, so threads working on unrelated strings
// rarely wait for each other. The one instance lives for the whole process
// and is never destroyed, so BSTRs released from other static destructors are
// still recognised.
class BstrRegistry {
 public:
  static BstrRegistry& Instance() {
    // Never destroyed: see the class comment. The pointer keeps it reachable.
    static BstrRegistry* const instance = new BstrRegistry;
    return *instance;
  }

  // Records a new BSTR; false when no memory was left to record it.
  bool Add(const char* bstr) noexcept;
  // Forgets `bstr`; false when it was not live (then nothing changes).
  bool Remove(const char* bstr) noexcept;
  // The stored byte length of a live BSTR, read under its shard's lock;
  // nothing for any other pointer. Every length query of the service comes
  // here, so it is inline.
  std::optional<std::uint32_t> LiveLength(const char* bstr) noexcept {
    Shard& shard = ShardOf(bstr);
    std::lock_guard<ShardLock> lock(shard.lock);
    if (!shard.live.Contains(Disguise(bstr))) return std::nullopt;
    return StoredLength(bstr);
  }

 private:
  static constexpr unsigned kShardBits = 6;

  // A shard's lock. It is held for a few dozen instructions at most, so a
  // waiter spins (yielding its core now and then) rather than sleeps, and an
  // uncontended taking costs one atomic exchange, against two atomic
  // operations and two calls for a mutex.
  class ShardLock {
   public:
    void lock() noexcept {
      if (m_bHeld.exchange(true, std::memory_order_acquire)) Wait();
    }
    void unlock() noexcept { m_bHeld.store(false, std::memory_order_release); }

   private:
    void Wait() noexcept;

    std::atomic<bool> m_bHeld{false};
  };

  struct Shard {
    ShardLock lock;
    PointerTable live;  // guarded by lock
  };

  BstrRegistry() = default;
  Shard& ShardOf(const char* bstr) noexcept {
    // A different multiplier from PointerTable's, so that a shard's members
    // still spread over its table.
    const auto key = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(bstr));
    return m_Shards[(key * 0xFF51AFD7ED558CCDull) >> (64 - kShardBits)];
  }
  // The tables hold each pointer inverted, so that they do not look like
  // pointers to a leak checker: a BSTR nobody released is still reported as
  // leaked. The inverse of a heap pointer is never 0, the empty-slot mark.
  static std::uintptr_t Disguise(const char* bstr) noexcept { return ~reinterpret_cast<std::uintptr_t>(bstr); }

  Shard m_Shards[1u << kShardBits];
};

}  // namespace winext
}  // namespace xk

#endif
