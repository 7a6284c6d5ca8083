#include "bstr_registry.h"

#include "bstr_layout.h"

namespace xk {
namespace winext {

namespace {

// The tables hold each pointer inverted, so that they do not look like
// pointers to a leak checker: a BSTR nobody released is still reported as
// leaked. The inverse of a heap pointer is never 0, the empty-slot mark.
std::uintptr_t Disguise(const char* bstr) noexcept { return ~reinterpret_cast<std::uintptr_t>(bstr); }

}  // namespace

BstrRegistry& BstrRegistry::Instance() {
  // Never destroyed: see the class comment. The pointer keeps it reachable.
  static BstrRegistry* const instance = new BstrRegistry;
  return *instance;
}

BstrRegistry::Shard& BstrRegistry::ShardOf(const char* bstr) noexcept {
  // A different multiplier from PointerTable's, so that a shard's members
  // still spread over its table.
  const auto key = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(bstr));
  return m_Shards[(key * 0xFF51AFD7ED558CCDull) >> (64 - kShardBits)];
}

bool BstrRegistry::Add(const char* bstr) noexcept {
  Shard& shard = ShardOf(bstr);
  std::lock_guard<std::mutex> lock(shard.mutex);
  return shard.live.Insert(Disguise(bstr));
}

bool BstrRegistry::Remove(const char* bstr) noexcept {
  Shard& shard = ShardOf(bstr);
  std::lock_guard<std::mutex> lock(shard.mutex);
  return shard.live.Erase(Disguise(bstr));
}

std::optional<std::uint32_t> BstrRegistry::LiveLength(const char* bstr) noexcept {
  Shard& shard = ShardOf(bstr);
  std::lock_guard<std::mutex> lock(shard.mutex);
  if (!shard.live.Contains(Disguise(bstr))) return std::nullopt;
  return StoredLength(bstr);
}

}  // namespace winext
}  // namespace xk
