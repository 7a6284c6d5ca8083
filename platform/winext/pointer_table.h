#ifndef XK_WINEXT_POINTER_TABLE_H
#define XK_WINEXT_POINTER_TABLE_H

#include <cstddef>
#include <cstdint>

namespace xk {
namespace winext {

// A set of non-null pointer values: open addressing with linear probing and
// backward-shift deletion, so no tombstones build up. Its slots come from the
// service's allocation point. It never dereferences a key. Not locked: the
// owner serialises every call.
class PointerTable {
 public:
  PointerTable() = default;
  ~PointerTable();
  PointerTable(const PointerTable&) = delete;
  PointerTable& operator=(const PointerTable&) = delete;

  // Adds `key` (non-zero, not yet present). False when the table had to grow
  // and no memory was left; the set is then unchanged.
  bool Insert(std::uintptr_t key) noexcept;
  bool Contains(std::uintptr_t key) const noexcept { return m_Count != 0 && m_Slots[Probe(key)] == key; }
  // Removes `key`; false when it was not present.
  bool Erase(std::uintptr_t key) noexcept;
  std::size_t Size() const noexcept { return m_Count; }

 private:
  std::size_t Home(std::uintptr_t key) const noexcept {
    // Fibonacci hashing: the top bits of the product are well mixed even though
    // heap pointers share their low bits.
    return static_cast<std::size_t>((static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15ull) >> m_Shift);
  }
  // Slot holding `key`, or the empty slot where its probe ends.
  std::size_t Probe(std::uintptr_t key) const noexcept {
    const std::size_t mask = m_Capacity - 1;
    std::size_t i = Home(key);
    while (m_Slots[i] != 0 && m_Slots[i] != key) i = (i + 1) & mask;
    return i;
  }
  bool Grow() noexcept;

  std::uintptr_t* m_Slots = nullptr;  // 0 marks an empty slot
  std::size_t m_Capacity = 0;         // a power of two, or 0 before first use
  unsigned m_Shift = 64;              // 64 - log2(m_Capacity)
  std::size_t m_Count = 0;
};

}  // namespace winext
}  // namespace xk

#endif
