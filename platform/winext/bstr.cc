// The BSTR half of the service: length-prefixed narrow strings. See
// bstr_layout.h for the block layout and bstr_registry.h for how a BSTR of
// this service is told apart from a plain buffer.

#include <cstring>

#include "bstr_internal.h"
#include "bstr_layout.h"
#include "bstr_registry.h"
#include "oleauto_fault.h"
#include "oleauto_memory.h"
#include "xk/oleauto.h"

namespace xk {
namespace winext {

BSTR NewBstr(const char* src, unsigned int len) noexcept {
  void* block = Allocate(kBstrPrefixBytes + static_cast<std::size_t>(len) + 1);
  if (block == nullptr) return nullptr;
  BSTR bstr = BstrFromBlock(block);
  StoreLength(bstr, len);
  if (src != nullptr) {
    std::memcpy(bstr, src, len);
  } else {
    std::memset(bstr, 0, len);
  }
  bstr[len] = '\0';
  if (!BstrRegistry::Instance().Add(bstr)) {
    Release(block, kBstrPrefixBytes + static_cast<std::size_t>(len) + 1);
    return nullptr;
  }
  return bstr;
}

unsigned int BstrByteLength(const char* bstr) noexcept {
  if (bstr == nullptr) return 0;
  if (auto stored = BstrRegistry::Instance().LiveLength(bstr)) return *stored;
  return static_cast<unsigned int>(std::strlen(bstr));
}

void FreeBstr(BSTR bstr) noexcept {
  if (bstr == nullptr || !BstrRegistry::Instance().Remove(bstr)) return;
  Release(BlockFromBstr(bstr), kBstrPrefixBytes + StoredLength(bstr) + 1);
}

}  // namespace winext
}  // namespace xk

using namespace xk::winext;

extern "C" {

BSTR SysAllocString(const char* psz) {
  if (AllocationFaulted("SysAllocString") || psz == nullptr) return nullptr;
  return NewBstr(psz, static_cast<unsigned int>(std::strlen(psz)));
}

BSTR SysAllocStringByteLen(const char* psz, unsigned int len) {
  if (AllocationFaulted("SysAllocStringByteLen")) return nullptr;
  return NewBstr(psz, len);
}

BSTR SysAllocStringLen(const char* pch, unsigned int len) {
  if (AllocationFaulted("SysAllocStringLen")) return nullptr;
  return NewBstr(pch, len);
}

unsigned int SysStringLen(BSTR bstr) {
  unsigned int faulted;
  if (CountFaulted("SysStringLen", &faulted)) return faulted;
  return BstrByteLength(bstr);
}

unsigned int SysStringByteLen(BSTR bstr) {
  unsigned int faulted;
  if (CountFaulted("SysStringByteLen", &faulted)) return faulted;
  return BstrByteLength(bstr);
}

void SysFreeString(BSTR bstr) {
  ReleaseChecked("SysFreeString");
  FreeBstr(bstr);
}

void qxSysFreeString(BSTR bstr, signed char /*flag*/) {
  ReleaseChecked("qxSysFreeString");
  FreeBstr(bstr);
}

}  // extern "C"
