#include "oleauto_memory.h"

#include <cstdlib>

#include "xk/fault_point.h"

namespace xk {
namespace winext {

void* Allocate(std::size_t bytes) noexcept {
  const xk::fault::Outcome outcome = xk::fault::Check(kAllocateFaultPoint);
  if (outcome.kind == xk::fault::Kind::kNull || outcome.kind == xk::fault::Kind::kCode) return nullptr;
  return std::malloc(bytes == 0 ? 1 : bytes);
}

void Release(void* block) noexcept { std::free(block); }

}  // namespace winext
}  // namespace xk
