#include "handle_table.h"

#include <sys/mman.h>

#include <utility>

namespace xk {
namespace registry {

HandleTable::HandleTable() {
  // Address space only: PROT_NONE and MAP_NORESERVE commit no memory. The
  // smaller sizes are for processes with a limited address space.
  for (std::size_t span : {std::size_t{1} << 36, std::size_t{1} << 32, std::size_t{1} << 24}) {
    void* p = mmap(nullptr, span, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p != MAP_FAILED) {
      m_Base = reinterpret_cast<std::uintptr_t>(p);
      m_Span = span;
      return;
    }
  }
}

const void* HandleTable::Add(std::string path) {
  if (m_Span < 2) return nullptr;
  // Offsets run from 1 to m_Span - 1 and wrap around, skipping live handles.
  for (std::size_t tries = 0; tries <= m_Live.size(); ++tries) {
    m_Next = m_Next + 1 < m_Span ? m_Next + 1 : 1;
    std::uintptr_t address = m_Base + m_Next;
    if (m_Live.try_emplace(address, std::move(path)).second) return reinterpret_cast<const void*>(address);
  }
  return nullptr;
}

HandleTable::Kind HandleTable::Find(const void* handle, std::string* path) const {
  std::uintptr_t address = reinterpret_cast<std::uintptr_t>(handle);
  if (!InRange(address)) return Kind::kForeign;
  auto it = m_Live.find(address);
  if (it == m_Live.end()) return Kind::kStale;
  *path = it->second;
  return Kind::kLive;
}

bool HandleTable::Remove(const void* handle) {
  std::uintptr_t address = reinterpret_cast<std::uintptr_t>(handle);
  return InRange(address) && m_Live.erase(address) == 1;
}

}  // namespace registry
}  // namespace xk
