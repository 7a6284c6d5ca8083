#include "pointer_table.h"

#include <cstring>

#include "oleauto_memory.h"

namespace xk {
namespace winext {

namespace {
constexpr std::size_t kInitialCapacity = 16;
}  // namespace

PointerTable::~PointerTable() { Release(m_Slots, m_Capacity * sizeof(std::uintptr_t)); }

bool PointerTable::Grow() noexcept {
  const std::size_t capacity = m_Capacity == 0 ? kInitialCapacity : m_Capacity * 2;
  auto* slots = static_cast<std::uintptr_t*>(Allocate(capacity * sizeof(std::uintptr_t)));
  if (slots == nullptr) return false;
  std::memset(slots, 0, capacity * sizeof(std::uintptr_t));
  std::uintptr_t* old = m_Slots;
  const std::size_t oldCapacity = m_Capacity;
  m_Slots = slots;
  m_Capacity = capacity;
  m_Shift = 64 - static_cast<unsigned>(__builtin_ctzll(capacity));
  for (std::size_t i = 0; i < oldCapacity; ++i) {
    if (old[i] != 0) m_Slots[Probe(old[i])] = old[i];
  }
  Release(old, oldCapacity * sizeof(std::uintptr_t));
  return true;
}

bool PointerTable::Insert(std::uintptr_t key) noexcept {
  // Keep the load at or below three quarters so probes stay short.
  if ((m_Count + 1) * 4 > m_Capacity * 3 && !Grow()) return false;
  m_Slots[Probe(key)] = key;
  ++m_Count;
  return true;
}

bool PointerTable::Erase(std::uintptr_t key) noexcept {
  if (m_Count == 0) return false;
  const std::size_t mask = m_Capacity - 1;
  std::size_t hole = Probe(key);
  if (m_Slots[hole] != key) return false;
  // Backward shift: pull later members of the probe run into the hole unless
  // their home lies cyclically after the hole (they would become unreachable).
  for (std::size_t j = (hole + 1) & mask; m_Slots[j] != 0; j = (j + 1) & mask) {
    const std::size_t home = Home(m_Slots[j]);
    const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
    if (stays) continue;
    m_Slots[hole] = m_Slots[j];
    hole = j;
  }
  m_Slots[hole] = 0;
  --m_Count;
  return true;
}

}  // namespace winext
}  // namespace xk
