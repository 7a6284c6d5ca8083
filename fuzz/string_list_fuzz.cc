// The string list rebuild of DecryptValue on arbitrary value bytes. Besides
// staying inside the bytes, it must always give a VT_BSTR vector with no more
// elements than the value has 0x00 bytes, none longer than the value.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "crypto/CommonCrypto.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const SecureByteVector value(data, data + size);
  SAFEARRAY* out = nullptr;
  if (CommonCrypto::RebuildStringList(value, out, S_OK) != S_OK || out == nullptr) std::abort();
  VARTYPE vt = VT_EMPTY;
  SafeArrayGetVartype(out, &vt);
  const unsigned long count = out->rgsabound[0].cElements;
  if (vt != VT_BSTR || SafeArrayGetDim(out) != 1 ||
      count > static_cast<unsigned long>(std::count(value.begin(), value.end(), 0)))
    std::abort();
  for (int i = 0; static_cast<unsigned long>(i) < count; ++i) {
    BSTR element = nullptr;
    if (SafeArrayGetElement(out, &i, &element) != S_OK || SysStringByteLen(element) > size) std::abort();
    SysFreeString(element);
  }
  qxSafeArrayDestroy(out, 0);
  return 0;
}
