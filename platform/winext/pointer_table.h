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
  bool Contains(std::uintptr_t key) const noexcept;
  // Removes `key`; false when it was not present.
  bool Erase(std::uintptr_t key) noexcept;
  std::size_t Size() const noexcept { return m_Count; }

 private:
  std::size_t Home(std::uintptr_t key) const noexcept;
  // Slot holding `key`, or the empty slot where its probe ends.
  std::size_t Probe(std::uintptr_t key) const noexcept;
  bool Grow() noexcept;

  std::uintptr_t* m_Slots = nullptr;  // 0 marks an empty slot
  std::size_t m_Capacity = 0;         // a power of two, or 0 before first use
  unsigned m_Shift = 64;              // 64 - log2(m_Capacity)
  std::size_t m_Count = 0;
};

}  // namespace winext
}  // namespace xk

#endif
