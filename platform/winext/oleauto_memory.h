#ifndef XK_WINEXT_OLEAUTO_MEMORY_H
#define XK_WINEXT_OLEAUTO_MEMORY_H

#include <cstddef>

namespace xk {
namespace winext {

// Name of the fault point inside Allocate. Arming it (kNull or kCode) makes the
// nth allocation of the service fail, wherever it falls: a BSTR, an array's
// descriptor or data, an element copy, or the growth of the live-BSTR table.
inline constexpr char kAllocateFaultPoint[] = "winext.Allocate";

// The one allocation point of the BSTR and SAFEARRAY service: every byte the
// service hands out or keeps comes from here. Returns uninitialised memory of
// at least `bytes` bytes (a request for 0 bytes still gives a unique non-null
// block), or null when memory runs out or the fault point says so.
void* Allocate(std::size_t bytes) noexcept;

// Gives back a block from Allocate. Null is ignored.
void Release(void* block) noexcept;

}  // namespace winext
}  // namespace xk

#endif
