#ifndef MERROWSTORE_BENCH_SUPPORT_H
#define MERROWSTORE_BENCH_SUPPORT_H

// What the benchmark programs share: a stop on a failed set-up step, and the
// BSTR identifiers a middleware passes.

#include <errno.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "xk/oleauto.h"

namespace bench {

// A set-up step that failed leaves nothing worth measuring: say which, stop.
inline void Require(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what);
    std::abort();
  }
}

// A BSTR made by the value service, as the middleware passes identifiers.
class Bstr {
 public:
  explicit Bstr(std::string_view s) : m_b(SysAllocStringByteLen(s.data(), static_cast<unsigned>(s.size()))) {}
  ~Bstr() { SysFreeString(m_b); }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  operator char*() const { return m_b; }

 private:
  BSTR m_b;
};

}  // namespace bench

#endif
