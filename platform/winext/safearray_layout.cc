#include "safearray_layout.h"

namespace xk {
namespace winext {

unsigned int ElementSize(VARTYPE vt) noexcept {
  switch (vt) {
    case VT_I1:
    case VT_UI1:
      return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
      return 2;
    case VT_I4:
    case VT_UI4:
    case VT_R4:
    case VT_ERROR:
    case VT_INT:
    case VT_UINT:
      return 4;
    case VT_R8:
    case VT_CY:
    case VT_DATE:
    case VT_I8:
    case VT_UI8:
      return 8;
    case VT_DECIMAL:
      return 16;
    case VT_BSTR:
      return sizeof(BSTR);
    case VT_DISPATCH:
    case VT_UNKNOWN:
      return sizeof(void*);
    default:  // VT_EMPTY, VT_NULL, VT_VARIANT and everything unknown
      return 0;
  }
}

unsigned short FeaturesOf(VARTYPE vt) noexcept {
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

bool DataBytes(const SAFEARRAY* psa, std::size_t* bytes) noexcept {
  std::size_t total = psa->cbElements;
  for (unsigned int k = 0; k < psa->cDims; ++k) {
    if (__builtin_mul_overflow(total, psa->rgsabound[k].cElements, &total)) return false;
  }
  *bytes = total;
  return true;
}

std::size_t ElementCount(const SAFEARRAY* psa) noexcept {
  std::size_t count = 1;
  for (unsigned int k = 0; k < psa->cDims; ++k) count *= psa->rgsabound[k].cElements;
  return count;
}

SAFEARRAYBOUND* DimensionBound(SAFEARRAY* psa, unsigned int nDim) noexcept {
  if (nDim == 0 || nDim > psa->cDims) return nullptr;
  return &psa->rgsabound[psa->cDims - nDim];
}

HRESULT ElementOffset(const SAFEARRAY* psa, const int* rgIndices, std::size_t* offset) noexcept {
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
