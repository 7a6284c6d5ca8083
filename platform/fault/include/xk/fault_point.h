#ifndef XK_FAULT_POINT_H
#define XK_FAULT_POINT_H

#include <atomic>

#include "xk/export.h"

namespace xk {
namespace fault {

// What an armed fault point makes its operation do. Each service documents how
// it maps a kind onto its operations (docs/platform.md).
enum class Kind : int {
  kNone = 0,    // nothing armed: the operation runs normally
  kCode,        // return `code` as the operation's status or result code
  kNull,        // return a null result (allocations, factories)
  kThrow,       // throw a QX::Framework::IException* carrying `code`
  kShortRead,   // transfer only `count` bytes (fread)
};

struct Outcome {
  Kind kind = Kind::kNone;
  long code = 0;
  long count = 0;
};

// True while any fault is armed; lets Check() cost one relaxed load otherwise.
XK_EXPORT extern std::atomic<bool> gAnyArmed;

XK_EXPORT Outcome CheckSlow(const char* op) noexcept;

// Called at the entry of every operation that can be made to fail. `op` is the
// operation's public name, e.g. "SafeArrayCreateVector" or "xkRegSetValueEx".
inline Outcome Check(const char* op) noexcept {
  if (!gAnyArmed.load(std::memory_order_relaxed)) return Outcome{};
  return CheckSlow(op);
}

// Arming, for the test support library. The fault fires on the nth next call of
// `op` (n >= 1) and, when `persistent`, on every call after that too.
XK_EXPORT void Arm(const char* op, unsigned nth, Outcome outcome, bool persistent);
// Disarms every fault point and forgets the counts.
XK_EXPORT void Reset();
// How many times the fault armed on `op` has fired since it was armed.
XK_EXPORT unsigned Fired(const char* op);

}  // namespace fault
}  // namespace xk

#endif
