// The 0xBB record walk: arbitrary bytes taken as the records of a two-
// dimensional VT_UI1 value (tag, length L, L bytes; records may be cut short).
// The rebuilt array is checked against a plain reading of the records, then
// written again in the registry format: writing what was read is a fixed point,
// and reading it gives the same array (except that a single empty record is
// the two bytes of a value with no rows).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "trees/RegistryValueCodec.h"
#include "xk/registry.h"

namespace {

// Rows and width of a two-dimensional VT_UI1 array, with its bytes.
struct Rows {
  unsigned long nRows = 0;
  unsigned long nWidth = 0;
  const unsigned char* pData = nullptr;
};

Rows Open(SAFEARRAY* psa) {
  VARTYPE vt = VT_EMPTY;
  void* pv = nullptr;
  if (psa == nullptr || SafeArrayGetVartype(psa, &vt) != S_OK || vt != VT_UI1 || SafeArrayGetDim(psa) != 2 ||
      SafeArrayAccessData(psa, &pv) != S_OK)
    std::abort();
  SafeArrayUnaccessData(psa);  // the data stays where it is; only the lock goes
  return {psa->rgsabound[0].cElements, psa->rgsabound[1].cElements, static_cast<const unsigned char*>(pv)};
}

SecureByteVector Encode(SAFEARRAY* psa) {
  RegistryValueBytes value;
  bool bWrite = false;
  if (EncodeRegistryValue(psa, VT_UI1, REG_BINARY, value, bWrite) != S_OK || !bWrite || value.dwType != REG_BINARY)
    std::abort();
  return value.data;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SAFEARRAY* first = nullptr;
  if (DecodeBinaryRecords(data, static_cast<unsigned int>(size), first) != S_OK) std::abort();
  const Rows rows = Open(first);

  // A plain reading of the records: count, longest, and each row's bytes.
  unsigned long nRecords = 0;
  unsigned int nLongest = 1;
  for (size_t pos = 0; pos < size; pos += 2 + (pos + 1 < size ? data[pos + 1] : 0)) {
    ++nRecords;
    nLongest = std::max<unsigned int>(nLongest, pos + 1 < size ? data[pos + 1] : 0);
  }
  if (rows.nWidth != nLongest + 1 || rows.nRows != (size == 2 ? 0 : nRecords)) std::abort();
  size_t pos = 0;
  for (unsigned long r = 0; r < rows.nRows; ++r) {
    const unsigned int nLength = pos + 1 < size ? data[pos + 1] : 0;
    const unsigned char* pRow = rows.pData + r * rows.nWidth;
    if (pRow[0] != nLength) std::abort();
    for (unsigned long k = 1; k < rows.nWidth; ++k) {
      const unsigned char expected = k <= nLength && pos + 1 + k < size ? data[pos + 1 + k] : 0;
      if (pRow[k] != expected) std::abort();
    }
    pos += 2 + nLength;
  }

  // Written again: well-formed records, a fixed point, and the same array.
  const SecureByteVector written = Encode(first);
  SAFEARRAY* second = nullptr;
  if (DecodeBinaryRecords(written.data(), static_cast<unsigned int>(written.size()), second) != S_OK) std::abort();
  if (Encode(second) != written) std::abort();
  const Rows again = Open(second);
  if (written.size() != 2 && (again.nRows != rows.nRows || again.nWidth != rows.nWidth ||
                              std::memcmp(again.pData, rows.pData, rows.nRows * rows.nWidth) != 0))
    std::abort();
  qxSafeArrayDestroy(second, 0);
  qxSafeArrayDestroy(first, 0);
  return 0;
}
