#ifndef XK_WINEXT_OLEAUTO_FAULT_H
#define XK_WINEXT_OLEAUTO_FAULT_H

// How an armed fault point acts on each shape of function of the service.
// kThrow and kShortRead have no meaning for these C functions and are ignored
// (the function runs normally); the release functions ignore every kind.

#include "xk/fault_point.h"
#include "xk/hresult.h"

namespace xk {
namespace winext {

// Allocating functions with a pointer result: kNull and kCode both fail as out
// of memory. True when the function must return null at once.
inline bool AllocationFaulted(const char* op) noexcept {
  const xk::fault::Outcome o = xk::fault::Check(op);
  return o.kind == xk::fault::Kind::kNull || o.kind == xk::fault::Kind::kCode;
}

// Functions with an HRESULT: kCode returns the armed code, kNull returns
// E_OUTOFMEMORY, in both cases before anything is done. True when *hr is the
// function's result.
inline bool HresultFaulted(const char* op, HRESULT* hr) noexcept {
  const xk::fault::Outcome o = xk::fault::Check(op);
  if (o.kind == xk::fault::Kind::kCode) {
    *hr = static_cast<HRESULT>(o.code);
    return true;
  }
  if (o.kind == xk::fault::Kind::kNull) {
    *hr = E_OUTOFMEMORY;
    return true;
  }
  return false;
}

// Functions with an unsigned count: kCode returns the armed code cast to
// unsigned, kNull returns 0. True when *value is the function's result.
inline bool CountFaulted(const char* op, unsigned int* value) noexcept {
  const xk::fault::Outcome o = xk::fault::Check(op);
  if (o.kind == xk::fault::Kind::kCode) {
    *value = static_cast<unsigned int>(o.code);
    return true;
  }
  if (o.kind == xk::fault::Kind::kNull) {
    *value = 0;
    return true;
  }
  return false;
}

// Release functions: the call is counted (so a test sees it fire) and then
// carried out; a release has no failure to report.
inline void ReleaseChecked(const char* op) noexcept { (void)xk::fault::Check(op); }

}  // namespace winext
}  // namespace xk

#endif
