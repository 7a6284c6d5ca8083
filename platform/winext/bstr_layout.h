#ifndef XK_WINEXT_BSTR_LAYOUT_H
#define XK_WINEXT_BSTR_LAYOUT_H

// A BSTR of this service is one block from the allocation point:
//
//   [ uint32 byte length n ][ n bytes of text, NULs allowed ][ NUL ]
//                           ^ the BSTR points here
//
// The prefix is read only for pointers found in the live-BSTR registry.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace xk {
namespace winext {

inline constexpr std::size_t kBstrPrefixBytes = sizeof(std::uint32_t);

inline char* BstrFromBlock(void* block) noexcept { return static_cast<char*>(block) + kBstrPrefixBytes; }
inline void* BlockFromBstr(char* bstr) noexcept { return bstr - kBstrPrefixBytes; }

inline std::uint32_t StoredLength(const char* bstr) noexcept {
  std::uint32_t n;
  std::memcpy(&n, bstr - kBstrPrefixBytes, sizeof n);
  return n;
}

inline void StoreLength(char* bstr, std::uint32_t n) noexcept {
  std::memcpy(bstr - kBstrPrefixBytes, &n, sizeof n);
}

}  // namespace winext
}  // namespace xk

#endif
