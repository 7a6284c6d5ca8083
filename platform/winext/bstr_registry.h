#ifndef XK_WINEXT_BSTR_REGISTRY_H
#define XK_WINEXT_BSTR_REGISTRY_H

#include <cstdint>
#include <mutex>
#include <optional>

#include "pointer_table.h"

namespace xk {
namespace winext {

// The set of live BSTRs that this service made. Only a pointer found here has
// a length prefix in front of it; any other pointer is a plain buffer and is
// never read before its first byte. The set is split into shards by pointer
// hash, each with its own mutex, so threads working on unrelated strings
// rarely wait for each other. The one instance lives for the whole process
// and is never destroyed, so BSTRs released from other static destructors are
// still recognised.
class BstrRegistry {
 public:
  static BstrRegistry& Instance();

  // Records a new BSTR; false when no memory was left to record it.
  bool Add(const char* bstr) noexcept;
  // Forgets `bstr`; false when it was not live (then nothing changes).
  bool Remove(const char* bstr) noexcept;
  // The stored byte length of a live BSTR, read under its shard's lock;
  // nothing for any other pointer.
  std::optional<std::uint32_t> LiveLength(const char* bstr) noexcept;

 private:
  static constexpr unsigned kShardBits = 6;

  struct Shard {
    std::mutex mutex;
    PointerTable live;  // guarded by mutex
  };

  BstrRegistry() = default;
  Shard& ShardOf(const char* bstr) noexcept;

  Shard m_Shards[1u << kShardBits];
};

}  // namespace winext
}  // namespace xk

#endif
