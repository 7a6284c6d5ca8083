#ifndef XK_WINEXT_SAFEARRAY_LAYOUT_H
#define XK_WINEXT_SAFEARRAY_LAYOUT_H

// Where things are in a SAFEARRAY of this service. The descriptor and its
// cDims bounds are one block; the data is another, contiguous, with the
// leftmost index varying fastest: element (i, j) of an array created with
// bounds {w, h} sits at cell i + w * j. rgsabound holds the bounds in the
// reverse of the order given to SafeArrayCreate.

#include <cstddef>

#include "xk/hresult.h"
#include "xk/oleauto.h"

namespace xk {
namespace winext {

// Size in bytes of one element of `vt`; 0 for a vartype the service refuses.
unsigned int ElementSize(VARTYPE vt) noexcept;
// The fFeatures bits of a new array of `vt`.
unsigned short FeaturesOf(VARTYPE vt) noexcept;
// Size in bytes of the data of `psa` from its bounds and element size; false
// when that does not fit in size_t (every partial product is checked too).
bool DataBytes(const SAFEARRAY* psa, std::size_t* bytes) noexcept;
// Number of elements, for an array whose DataBytes succeeded.
std::size_t ElementCount(const SAFEARRAY* psa) noexcept;
// The bound of dimension `nDim`, counted from 1, leftmost first; null when
// nDim is 0 or above cDims.
SAFEARRAYBOUND* DimensionBound(SAFEARRAY* psa, unsigned int nDim) noexcept;
// Byte offset of the element named by `rgIndices` (one index per dimension,
// leftmost first); DISP_E_BADINDEX when an index lies outside its dimension.
HRESULT ElementOffset(const SAFEARRAY* psa, const int* rgIndices, std::size_t* offset) noexcept;

}  // namespace winext
}  // namespace xk

#endif
