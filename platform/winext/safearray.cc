// The SAFEARRAY half of the service. See safearray_layout.h for where the
// bounds and elements live and safearray_lock.h for the lock count.

#include <cstring>

#include "bstr_internal.h"
#include "oleauto_fault.h"
#include "oleauto_memory.h"
#include "safearray_layout.h"
#include "safearray_lock.h"
#include "xk/oleauto.h"

namespace xk {
namespace winext {
namespace {

constexpr unsigned int kMaxDims = 0xFFFF;  // cDims is an unsigned short

// Copies `bytes` bytes between cells or data blocks. The sizes of one
// element (and so of the library's one-element counters) are copied without a
// call to memcpy.
inline void CopyBytes(void* to, const void* from, std::size_t bytes) noexcept {
  switch (bytes) {
    case 1:
      std::memcpy(to, from, 1);
      break;
    case 2:
      std::memcpy(to, from, 2);
      break;
    case 4:
      std::memcpy(to, from, 4);
      break;
    case 8:
      std::memcpy(to, from, 8);
      break;
    case 16:
      std::memcpy(to, from, 16);
      break;
    default:
      std::memcpy(to, from, bytes);
      break;
  }
}

// Zeroes `bytes` bytes, the sizes of one element without a call to memset.
inline void ZeroBytes(void* to, std::size_t bytes) noexcept {
  switch (bytes) {
    case 1:
      std::memset(to, 0, 1);
      break;
    case 2:
      std::memset(to, 0, 2);
      break;
    case 4:
      std::memset(to, 0, 4);
      break;
    case 8:
      std::memset(to, 0, 8);
      break;
    case 16:
      std::memset(to, 0, 16);
      break;
    default:
      std::memset(to, 0, bytes);
      break;
  }
}

// A new array of `cDims` dimensions of `vt` in one block: the descriptor, room
// for its bounds (left for the caller to fill, in stored order) and data of
// `dataBytes` bytes, left uninitialised. Unlocked.
inline SAFEARRAY* NewArray(VARTYPE vt, unsigned int cDims, std::size_t dataBytes) noexcept {
  const std::size_t offset = DataOffset(cDims);
  std::size_t total;
  if (__builtin_add_overflow(offset, dataBytes, &total)) return nullptr;
  void* block = Allocate(total);
  if (block == nullptr) return nullptr;
  auto* psa = static_cast<SAFEARRAY*>(block);
  psa->cDims = static_cast<unsigned short>(cDims);
  psa->fFeatures = FeaturesOf(vt);
  psa->cbElements = ElementSize(vt);
  psa->cLocks = 0;
  psa->pvData = static_cast<char*>(block) + offset;
  psa->rgsabound = reinterpret_cast<SAFEARRAYBOUND*>(static_cast<char*>(block) + sizeof(SAFEARRAY));
  psa->vt = vt;
  return psa;
}

BSTR* BstrCells(const SAFEARRAY* psa) noexcept { return static_cast<BSTR*>(psa->pvData); }

// Releases the array whatever its lock count: element BSTRs, then the one
// block of descriptor and data.
void FreeArray(SAFEARRAY* psa) noexcept {
  if (psa->vt == VT_BSTR) {
    const std::size_t count = ElementCount(psa);
    for (std::size_t i = 0; i < count; ++i) FreeBstr(BstrCells(psa)[i]);
  }
  Release(psa, BlockBytes(psa));
}

// A copy of a BSTR element that keeps its embedded NULs; null stays null.
// False when memory ran out.
bool CopyBstr(const char* from, BSTR* to) noexcept {
  *to = from == nullptr ? nullptr : NewBstr(from, BstrByteLength(from));
  return from == nullptr || *to != nullptr;
}

// Fills the uninitialised data of `dst` (same shape as `src`) with a deep
// copy of the elements of `src`. False when memory ran out part way; the
// copies made so far are in `dst` (the cells after them NULL) and go with it.
bool CopyElements(const SAFEARRAY* src, SAFEARRAY* dst, std::size_t dataBytes) noexcept {
  if (src->vt != VT_BSTR) {
    CopyBytes(dst->pvData, src->pvData, dataBytes);
    return true;
  }
  std::memset(dst->pvData, 0, dataBytes);
  const std::size_t count = ElementCount(src);
  for (std::size_t i = 0; i < count; ++i) {
    if (!CopyBstr(BstrCells(src)[i], &BstrCells(dst)[i])) return false;
  }
  return true;
}

SAFEARRAY* CreateArray(VARTYPE vt, unsigned int cDims, const SAFEARRAYBOUND* given) noexcept {
  const unsigned int cbElements = ElementSize(vt);
  if (cbElements == 0 || cDims == 0 || cDims > kMaxDims || given == nullptr) return nullptr;
  std::size_t dataBytes;
  if (!DataBytes(cbElements, given, cDims, &dataBytes)) return nullptr;
  SAFEARRAY* psa = NewArray(vt, cDims, dataBytes);
  if (psa == nullptr) return nullptr;
  for (unsigned int k = 0; k < cDims; ++k) psa->rgsabound[cDims - 1 - k] = given[k];
  ZeroBytes(psa->pvData, dataBytes);
  return psa;
}

HRESULT DestroyArray(SAFEARRAY* psa) noexcept {
  if (psa == nullptr) return S_OK;
  if (IsLocked(psa)) return DISP_E_ARRAYISLOCKED;
  FreeArray(psa);
  return S_OK;
}

// A NULL array copies as a NULL array (*ppsaOut already NULL): it is the
// valid empty value.
HRESULT CopyArray(SAFEARRAY* psa, SAFEARRAY** ppsaOut) noexcept {
  if (psa == nullptr) return S_OK;
  if (ElementSize(psa->vt) == 0) return DISP_E_BADVARTYPE;  // only a hand-made descriptor
  std::size_t dataBytes;
  if (!DataBytes(psa->cbElements, psa->rgsabound, psa->cDims, &dataBytes)) return E_OUTOFMEMORY;
  SAFEARRAY* copy = NewArray(psa->vt, psa->cDims, dataBytes);
  if (copy == nullptr) return E_OUTOFMEMORY;
  if (psa->cDims == 1)
    copy->rgsabound[0] = psa->rgsabound[0];
  else
    std::memcpy(copy->rgsabound, psa->rgsabound, psa->cDims * sizeof(SAFEARRAYBOUND));
  copy->fFeatures = psa->fFeatures;
  if (!CopyElements(psa, copy, dataBytes)) {
    FreeArray(copy);
    return E_OUTOFMEMORY;
  }
  *ppsaOut = copy;
  return S_OK;
}

// The element cell that `rgIndices` names.
inline __attribute__((always_inline)) HRESULT LocateElement(SAFEARRAY* psa, const int* rgIndices,
                                                            char** cell) noexcept {
  if (psa == nullptr || rgIndices == nullptr) return E_INVALIDARG;
  std::size_t offset;
  const HRESULT hr = ElementOffset(psa, rgIndices, &offset);
  if (FAILED(hr)) return hr;
  *cell = static_cast<char*>(psa->pvData) + offset;
  return S_OK;
}

HRESULT GetElement(SAFEARRAY* psa, const int* rgIndices, void* pv) noexcept {
  if (pv == nullptr) return E_INVALIDARG;
  char* cell;
  const HRESULT hr = LocateElement(psa, rgIndices, &cell);
  if (FAILED(hr)) return hr;
  if (psa->vt != VT_BSTR) {
    if (LockCountFull(psa)) return E_UNEXPECTED;
    CopyBytes(pv, cell, psa->cbElements);
    return S_OK;
  }
  ScopedArrayLock lock(psa);
  if (FAILED(lock.Status())) return lock.Status();
  BSTR copy;
  if (!CopyBstr(*reinterpret_cast<BSTR*>(cell), &copy)) return E_OUTOFMEMORY;
  *static_cast<BSTR*>(pv) = copy;
  return S_OK;
}

HRESULT PutElement(SAFEARRAY* psa, const int* rgIndices, void* pv) noexcept {
  char* cell;
  const HRESULT hr = LocateElement(psa, rgIndices, &cell);
  if (FAILED(hr)) return hr;
  // A null BSTR is a value (the empty string); any other null is refused.
  if (pv == nullptr && psa->vt != VT_BSTR) return E_INVALIDARG;
  if (psa->vt != VT_BSTR) {
    if (LockCountFull(psa)) return E_UNEXPECTED;
    CopyBytes(cell, pv, psa->cbElements);
    return S_OK;
  }
  ScopedArrayLock lock(psa);
  if (FAILED(lock.Status())) return lock.Status();
  BSTR copy;
  if (!CopyBstr(static_cast<const char*>(pv), &copy)) return E_OUTOFMEMORY;
  BSTR* slot = reinterpret_cast<BSTR*>(cell);
  FreeBstr(*slot);
  *slot = copy;
  return S_OK;
}

HRESULT GetBound(SAFEARRAY* psa, unsigned int nDim, long* out, bool upper) noexcept {
  if (psa == nullptr || out == nullptr) return E_INVALIDARG;
  const SAFEARRAYBOUND* bound = DimensionBound(psa, nDim);
  if (bound == nullptr) return DISP_E_BADINDEX;
  *out = upper ? bound->lLbound + static_cast<long>(bound->cElements) - 1 : bound->lLbound;
  return S_OK;
}

}  // namespace
}  // namespace winext
}  // namespace xk

using namespace xk::winext;

extern "C" {

SAFEARRAY* SafeArrayCreate(VARTYPE vt, unsigned int cDims, SAFEARRAYBOUND* rgsabound) {
  if (AllocationFaulted("SafeArrayCreate")) return nullptr;
  return CreateArray(vt, cDims, rgsabound);
}

SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, int lLbound, unsigned long cElements) {
  if (AllocationFaulted("SafeArrayCreateVector")) return nullptr;
  const SAFEARRAYBOUND bound{cElements, lLbound};
  return CreateArray(vt, 1, &bound);
}

HRESULT SafeArrayDestroy(SAFEARRAY* psa) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayDestroy", &hr)) return hr;
  return DestroyArray(psa);
}

HRESULT qxSafeArrayDestroy(SAFEARRAY* psa, signed char /*flag*/) {
  HRESULT hr;
  if (HresultFaulted("qxSafeArrayDestroy", &hr)) return hr;
  return DestroyArray(psa);
}

HRESULT SafeArrayGetElement(SAFEARRAY* psa, int* rgIndices, void* pv) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayGetElement", &hr)) return hr;
  return GetElement(psa, rgIndices, pv);
}

HRESULT SafeArrayPutElement(SAFEARRAY* psa, int* rgIndices, void* pv) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayPutElement", &hr)) return hr;
  return PutElement(psa, rgIndices, pv);
}

HRESULT SafeArrayCopy(SAFEARRAY* psa, SAFEARRAY** ppsaOut) {
  HRESULT hr;
  const bool faulted = HresultFaulted("SafeArrayCopy", &hr);
  if (ppsaOut == nullptr) return faulted ? hr : E_INVALIDARG;
  *ppsaOut = nullptr;  // on every failure, an armed fault's included
  if (faulted) return hr;
  return CopyArray(psa, ppsaOut);
}

HRESULT SafeArrayLock(SAFEARRAY* psa) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayLock", &hr)) return hr;
  return psa == nullptr ? E_INVALIDARG : AddLock(psa);
}

HRESULT SafeArrayUnlock(SAFEARRAY* psa) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayUnlock", &hr)) return hr;
  return psa == nullptr ? E_INVALIDARG : DropLock(psa);
}

HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** ppvData) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayAccessData", &hr)) return hr;
  if (ppvData == nullptr) return E_INVALIDARG;
  *ppvData = nullptr;
  if (psa == nullptr) return E_INVALIDARG;
  hr = AddLock(psa);
  if (SUCCEEDED(hr)) *ppvData = psa->pvData;
  return hr;
}

HRESULT SafeArrayUnaccessData(SAFEARRAY* psa) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayUnaccessData", &hr)) return hr;
  return psa == nullptr ? E_INVALIDARG : DropLock(psa);
}

HRESULT SafeArrayGetVartype(SAFEARRAY* psa, VARTYPE* pvt) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayGetVartype", &hr)) return hr;
  if (psa == nullptr || pvt == nullptr) return E_INVALIDARG;
  *pvt = psa->vt;
  return S_OK;
}

unsigned int SafeArrayGetDim(SAFEARRAY* psa) {
  unsigned int faulted;
  if (CountFaulted("SafeArrayGetDim", &faulted)) return faulted;
  return psa == nullptr ? 0 : psa->cDims;
}

unsigned int SafeArrayGetElemsize(SAFEARRAY* psa) {
  unsigned int faulted;
  if (CountFaulted("SafeArrayGetElemsize", &faulted)) return faulted;
  return psa == nullptr ? 0 : psa->cbElements;
}

HRESULT SafeArrayGetLBound(SAFEARRAY* psa, unsigned int nDim, long* plLbound) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayGetLBound", &hr)) return hr;
  return GetBound(psa, nDim, plLbound, false);
}

HRESULT SafeArrayGetUBound(SAFEARRAY* psa, unsigned int nDim, long* plUbound) {
  HRESULT hr;
  if (HresultFaulted("SafeArrayGetUBound", &hr)) return hr;
  return GetBound(psa, nDim, plUbound, true);
}

}  // extern "C"
