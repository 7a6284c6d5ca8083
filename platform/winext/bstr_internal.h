#ifndef XK_WINEXT_BSTR_INTERNAL_H
#define XK_WINEXT_BSTR_INTERNAL_H

// BSTR work shared with the SAFEARRAY half of the service. These pass no
// fault point of a public function; only the allocation point can fail them.

#include "xk/oleauto.h"

namespace xk {
namespace winext {

// A new BSTR of `len` bytes copied from `src` (zeroes when `src` is null),
// or null when memory runs out.
BSTR NewBstr(const char* src, unsigned int len) noexcept;
// The stored length of a live BSTR of this service, strlen of any other
// buffer, 0 for null.
unsigned int BstrByteLength(const char* bstr) noexcept;
// Releases a live BSTR of this service; null and other pointers are ignored.
void FreeBstr(BSTR bstr) noexcept;

}  // namespace winext
}  // namespace xk

#endif
