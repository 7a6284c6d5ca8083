#ifndef XK_WINEXT_SAFEARRAY_LAYOUT_H
#define XK_WINEXT_SAFEARRAY_LAYOUT_H

// Where things are in a SAFEARRAY of this service. An array is one block from
// the allocation point: the descriptor, its cDims bounds right after it, then
// the contiguous data at DataOffset(cDims), with the leftmost index varying
// fastest: element (i, j) of an array created with bounds {w, h} sits at cell
// i + w * j. rgsabound holds the bounds in the reverse of the order given to
// SafeArrayCreate.
//
// Every function here runs on each element access, copy or creation, so they
// are all inline.

#include <cstddef>

#include "xk/hresult.h"
#include "xk/oleauto.h"

namespace xk {
namespace winext {

// Size in bytes of one element of `vt`; 0 for a vartype the service refuses
// (VT_EMPTY, VT_NULL, VT_VARIANT and everything unknown).
inline unsigned int ElementSize(VARTYPE vt) noexcept {
  static constexpr unsigned char kSizes[] = {
      0,                // VT_EMPTY
      0,                // VT_NULL
      2,                // VT_I2
      4,                // VT_I4
      4,                // VT_R4
      8,                // VT_R8
      8,                // VT_CY
      8,                // VT_DATE
      sizeof(BSTR),     // VT_BSTR
      sizeof(void*),    // VT_DISPATCH
      4,                // VT_ERROR
      2,                // VT_BOOL
      0,                // VT_VARIANT
      sizeof(void*),    // VT_UNKNOWN
      16,               // VT_DECIMAL
      0,                // 15: no vartype
      1,                // VT_I1
      1,                // VT_UI1
      2,                // VT_UI2
      4,                // VT_UI4
      8,                // VT_I8
      8,                // VT_UI8
      4,                // VT_INT
      4,                // VT_UINT
  };
  return vt < sizeof kSizes ? kSizes[vt] : 0;
}

// The fFeatures bits of a new array of `vt`.
inline unsigned short FeaturesOf(VARTYPE vt) noexcept {
  switch (vt) {
    case VT_BSTR:
      return FADF_HAVEVARTYPE | FADF_BSTR;
    case VT_UNKNOWN:
      return FADF_HAVEVARTYPE | FADF_UNKNOWN;
    case VT_DISPATCH:
      return FADF_HAVEVARTYPE | FADF_DISPATCH;
    default:
      return FADF_HAVEVARTYPE;
  }
}

// Size in bytes of the data of `cDims` bounds (in any order) of elements of
// `cbElements` bytes; false when that does not fit in size_t (every partial
// product is checked too).
inline bool DataBytes(unsigned int cbElements, const SAFEARRAYBOUND* bounds, unsigned int cDims,
                      std::size_t* bytes) noexcept {
  std::size_t total = cbElements;
  if (cDims == 1) {  // nearly every array: no loop
    if (__builtin_mul_overflow(total, bounds[0].cElements, &total)) return false;
    *bytes = total;
    return true;
  }
  for (unsigned int k = 0; k < cDims; ++k) {
    if (__builtin_mul_overflow(total, bounds[k].cElements, &total)) return false;
  }
  *bytes = total;
  return true;
}

// Bytes from the start of an array's block to its data: the descriptor and
// cDims bounds, rounded up so that the data suits any element type.
inline std::size_t DataOffset(unsigned int cDims) noexcept {
  constexpr std::size_t kAlign = alignof(std::max_align_t);
  return (sizeof(SAFEARRAY) + cDims * sizeof(SAFEARRAYBOUND) + kAlign - 1) & ~(kAlign - 1);
}

// Size in bytes of an array's one block, worked out from its bounds as they
// were made; for an array whose DataBytes succeeded.
inline std::size_t BlockBytes(const SAFEARRAY* psa) noexcept {
  std::size_t bytes = 0;
  DataBytes(psa->cbElements, psa->rgsabound, psa->cDims, &bytes);
  return DataOffset(psa->cDims) + bytes;
}

// Number of elements, for an array whose DataBytes succeeded.
inline std::size_t ElementCount(const SAFEARRAY* psa) noexcept {
  if (psa->cDims == 1) return psa->rgsabound[0].cElements;
  std::size_t count = 1;
  for (unsigned int k = 0; k < psa->cDims; ++k) count *= psa->rgsabound[k].cElements;
  return count;
}

// The bound of dimension `nDim`, counted from 1, leftmost first; null when
// nDim is 0 or above cDims.
inline SAFEARRAYBOUND* DimensionBound(SAFEARRAY* psa, unsigned int nDim) noexcept {
  if (nDim == 0 || nDim > psa->cDims) return nullptr;
  return &psa->rgsabound[psa->cDims - nDim];
}

// Byte offset of the element named by `rgIndices` (one index per dimension,
// leftmost first); DISP_E_BADINDEX when an index lies outside its dimension.
inline HRESULT ElementOffset(const SAFEARRAY* psa, const int* rgIndices, std::size_t* offset) noexcept {
  if (psa->cDims == 1) {  // nearly every array: no loop
    const long relative = static_cast<long>(rgIndices[0]) - psa->rgsabound[0].lLbound;
    if (relative < 0 || static_cast<unsigned long>(relative) >= psa->rgsabound[0].cElements) return DISP_E_BADINDEX;
    *offset = static_cast<std::size_t>(relative) * psa->cbElements;
    return S_OK;
  }
  std::size_t cell = 0;
  std::size_t stride = 1;
  // Index k belongs to the k-th given dimension, stored at the far end.
  for (unsigned int k = 0; k < psa->cDims; ++k) {
    const SAFEARRAYBOUND& bound = psa->rgsabound[psa->cDims - 1 - k];
    const long relative = static_cast<long>(rgIndices[k]) - bound.lLbound;
    if (relative < 0 || static_cast<unsigned long>(relative) >= bound.cElements) return DISP_E_BADINDEX;
    cell += static_cast<std::size_t>(relative) * stride;
    stride *= bound.cElements;
  }
  *offset = cell * psa->cbElements;
  return S_OK;
}

}  // namespace winext
}  // namespace xk

#endif
