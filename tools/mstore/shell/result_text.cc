#include "result_text.h"

#include <cstdint>
#include <cstdio>

namespace mstore {

std::string ResultText(HRESULT hr) {
  static const struct {
    HRESULT code;
    const char* name;
  } kNames[] = {
      {S_OK, "S_OK"},
      {S_FALSE, "S_FALSE"},
      {E_FAIL, "E_FAIL"},
      {E_INVALIDARG, "E_INVALIDARG"},
      {E_OUTOFMEMORY, "E_OUTOFMEMORY"},
      {E_UNEXPECTED, "E_UNEXPECTED"},
      {E_POINTER, "E_POINTER"},
      {E_NOTIMPL, "E_NOTIMPL"},
      {DISP_E_BADINDEX, "DISP_E_BADINDEX"},
      {DISP_E_ARRAYISLOCKED, "DISP_E_ARRAYISLOCKED"},
      {DISP_E_BADVARTYPE, "DISP_E_BADVARTYPE"},
  };
  if (hr == S_OK) return "S_OK";
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08x", static_cast<std::uint32_t>(hr));
  for (const auto& n : kNames)
    if (n.code == hr) return std::string(n.name) + " " + hex;
  return hex;
}

}  // namespace mstore
