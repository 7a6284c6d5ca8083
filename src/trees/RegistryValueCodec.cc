#include "trees/RegistryValueCodec.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "common/Module.h"
#include "trees/RegistryTree.h"
#include "xk/log.h"
#include "xk/registry.h"

// Safety measure of the codec: a bound read from an array's descriptor may
// promise more bytes than the array holds (a dimension of 0 in an array of
// rows, a row whose length byte runs past the end, a first bound larger than
// the product of all bounds). The writer then reads only the bytes the array
// owns and writes zeros for the rest; the reader never reads past the value it
// was given and never writes past the array it made. Where nothing is out of
// bounds, the bytes are exactly those of the format.

namespace {

const unsigned char kTagSignedBytes = 0x0B;
const unsigned char kTagBytes = 0xBA;
const unsigned char kTagRows = 0xBB;

unsigned int Low32(unsigned long n) { return static_cast<unsigned int>(n); }

// cElements of the stored bound i (rgsabound[0] is the last given dimension);
// 0 for a bound the descriptor doesn't have.
unsigned long Bound(const SAFEARRAY* psa, unsigned int i) { return i < psa->cDims ? psa->rgsabound[i].cElements : 0; }

// The bytes the array's data block really holds: element size times every bound.
std::uint64_t OwnedBytes(const SAFEARRAY* psa) {
  std::uint64_t n = psa->cbElements;
  for (unsigned int i = 0; i < psa->cDims; ++i) {
    const std::uint64_t c = psa->rgsabound[i].cElements;
    if (c != 0 && n > UINT64_MAX / c) return UINT64_MAX;
    n *= c;
  }
  return n;
}

// A byte of the array's data, 0 past what the array owns.
unsigned char OwnedByte(const unsigned char* pData, std::uint64_t nOwned, std::uint64_t at) {
  return at < nOwned ? pData[at] : 0;
}

// Appends n bytes of the array's data from offset `from`, zeros past its end.
void AppendOwned(SecureByteVector& out, const unsigned char* pData, std::uint64_t nOwned, std::uint64_t from,
                 std::uint64_t n) {
  const std::uint64_t nPresent = from < nOwned ? std::min(n, nOwned - from) : 0;
  out.insert(out.end(), pData + from, pData + from + nPresent);
  out.insert(out.end(), n - nPresent, 0);
}

// Element i of a BSTR array, i counted along the dimension that gave the count
// (rgsabound[0], the last index); every other index at its lower bound.
HRESULT GetString(SAFEARRAY* psa, unsigned int i, BSTR& bstrElement) {
  std::vector<int> indices(std::max<unsigned int>(psa->cDims, 1));
  for (unsigned int k = 0; k + 1 < indices.size(); ++k)
    indices[k] = static_cast<int>(psa->rgsabound[indices.size() - 1 - k].lLbound);
  indices.back() = static_cast<int>(i);
  return SafeArrayGetElement(psa, indices.data(), &bstrElement);
}

HRESULT EncodeStrings(SAFEARRAY* psa, RegistryValueBytes& value, bool& bWrite) {
  const unsigned int nCount = Low32(psa->rgsabound->cElements);
  if (nCount == 0) {
    value.bNullData = true;
    bWrite = true;
    return S_OK;
  }
  if (nCount == 1) {
    BSTR pElem = NULL;
    if (FAILED(GetString(psa, 0, pElem))) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData SafeArrayGetElement failed");
      return E_FAIL;
    }
    const unsigned int nLength = SysStringByteLen(pElem);
    HRESULT hr = S_OK;
    if (nLength > kMaxRegistryValueSize) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData SysStringByteLen(pElem) > 1MB");
      hr = E_INVALIDARG;
    } else {
      value.data.assign(pElem, pElem + nLength);
      bWrite = true;
    }
    qxSysFreeString(pElem, 0);
    return hr;
  }
  // Several strings: the first pass sizes the buffer by the elements it can
  // fetch, the second copies each string and its 0; the last 0 is the zeroed
  // buffer's own.
  std::uint64_t nSize = 1;
  for (unsigned int i = 0; i < nCount; ++i) {
    BSTR pElem = NULL;
    if (FAILED(GetString(psa, i, pElem))) continue;
    nSize += static_cast<std::uint64_t>(SysStringByteLen(pElem)) + 1;
    qxSysFreeString(pElem, 0);
  }
  if (nSize > kMaxRegistryValueSize) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData SysStringByteLen(pElem) > 1MB");
    return E_INVALIDARG;
  }
  value.dwType = REG_MULTI_SZ;
  value.data.assign(nSize, 0);
  HRESULT hr = S_OK;
  std::uint64_t nOffset = 0;
  for (unsigned int i = 0; i < nCount; ++i) {
    BSTR pElem = NULL;
    hr = GetString(psa, i, pElem);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData SafeArrayGetElement failed");
      hr = E_FAIL;
      continue;
    }
    // A string that only the second pass could fetch finds no room: the copy
    // stops at the end of the buffer.
    const std::uint64_t nLength = SysStringByteLen(pElem);
    const std::uint64_t nCopied = std::min(nLength, nSize - nOffset);
    std::memcpy(value.data.data() + nOffset, pElem, nCopied);
    nOffset = std::min(nOffset + nLength + 1, nSize);
    qxSysFreeString(pElem, 0);
  }
  bWrite = true;
  return hr;
}

HRESULT EncodeBinary(SAFEARRAY* psa, VARTYPE vt, RegistryValueBytes& value, bool& bWrite) {
  const unsigned int dwElemSize = SafeArrayGetElemsize(psa);
  const unsigned int nDims = SafeArrayGetDim(psa);
  const unsigned char tag = vt == VT_I1 ? kTagSignedBytes : (nDims == 1 ? kTagBytes : kTagRows);
  void* pv = NULL;
  HRESULT hr = SafeArrayAccessData(psa, &pv);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData SafeArrayAccessData failed");
    return hr;
  }
  const unsigned char* pData = static_cast<const unsigned char*>(pv);
  const std::uint64_t nOwned = OwnedBytes(psa);
  // The size is known before the bytes are laid out, so a refused value is never built.
  std::uint64_t nSize = 0;
  if (nDims == 1) {
    const std::uint64_t nPayload = static_cast<std::uint64_t>(dwElemSize) * psa->rgsabound->cElements;
    nSize = nPayload + 2;
    if (nSize <= kMaxRegistryValueSize) {
      value.data.reserve(nSize);
      value.data.push_back(tag);
      value.data.push_back(static_cast<unsigned char>(nPayload & 0xFF));
      AppendOwned(value.data, pData, nOwned, 0, nPayload);
    }
  } else {
    // Rows of a fixed width: the first byte of a row is L, the count of bytes
    // after it that belong to the record.
    const unsigned int nRows = Low32(Bound(psa, 0));
    const std::uint64_t nWidth = Low32(Bound(psa, 1));
    for (unsigned int r = 0; r < nRows && nSize <= kMaxRegistryValueSize; ++r)
      nSize += 2u + OwnedByte(pData, nOwned, r * nWidth);
    if (nRows == 0) nSize = 2;
    if (nSize <= kMaxRegistryValueSize) {
      value.data.reserve(nSize);
      for (unsigned int r = 0; r < nRows; ++r) {
        const unsigned char nLength = OwnedByte(pData, nOwned, r * nWidth);
        value.data.push_back(tag);
        value.data.push_back(nLength);
        AppendOwned(value.data, pData, nOwned, r * nWidth + 1, nLength);
      }
      if (nRows == 0) value.data = {tag, 0};
    }
  }
  SafeArrayUnaccessData(psa);
  if (nSize > kMaxRegistryValueSize) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData nSize > 1MB");
    value.data.clear();
    return E_INVALIDARG;
  }
  bWrite = true;
  return S_OK;
}

// REG_DWORD, REG_QWORD and REG_NONE: the elements of the first bound as they
// stand in memory.
HRESULT EncodeElements(SAFEARRAY* psa, RegistryValueBytes& value, bool& bWrite) {
  const unsigned int dwElemSize = SafeArrayGetElemsize(psa);
  const std::uint64_t nSize = static_cast<std::uint64_t>(dwElemSize) * psa->rgsabound->cElements;
  if (nSize > kMaxRegistryValueSize) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData dwElemSize*psaDataValue->rgsabound->cElements > 1MB");
    return E_INVALIDARG;
  }
  void* pv = NULL;
  HRESULT hr = SafeArrayAccessData(psa, &pv);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::SetData SafeArrayAccessData failed");
    return hr;
  }
  AppendOwned(value.data, static_cast<const unsigned char*>(pv), OwnedBytes(psa), 0, nSize);
  SafeArrayUnaccessData(psa);
  bWrite = true;
  return S_OK;
}

// A new vector of nElements elements of vt holding the first bytes of pSrc
// (as many as both hold); the access's result if it fails, else the unaccess's.
HRESULT CopyIntoVector(VARTYPE vt, unsigned long nElements, const unsigned char* pSrc, std::uint64_t cbSrc,
                       SAFEARRAY*& psaDataValue) {
  SAFEARRAY* psa = SafeArrayCreateVector(vt, 0, nElements);
  psaDataValue = psa;
  void* pv = NULL;
  HRESULT hr = SafeArrayAccessData(psa, &pv);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::GetData SafeArrayAccessData failed");
    return hr;
  }
  const std::uint64_t nCapacity = static_cast<std::uint64_t>(psa->cbElements) * nElements;
  const std::uint64_t nCopied = std::min(cbSrc, nCapacity);
  if (nCopied != 0) std::memcpy(pv, pSrc, nCopied);
  return SafeArrayUnaccessData(psa);
}

// Puts one new BSTR of the given bytes at index i; the put's result.
HRESULT PutBytesAsString(SAFEARRAY* psa, int i, const unsigned char* pBytes, unsigned int nLength) {
  BSTR bstrElement = SysAllocStringByteLen(reinterpret_cast<const char*>(pBytes), nLength);
  HRESULT hr = SafeArrayPutElement(psa, &i, bstrElement);
  qxSysFreeString(bstrElement, 0);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CRegistryTree::GetData SafeArrayPutElement failed");
  return hr;
}

// Each 0 byte ends a string; a 0 right after another ends the list, and so do
// bytes after the last 0.
HRESULT DecodeStrings(const unsigned char* pData, unsigned int cbData, SAFEARRAY*& psaDataValue) {
  std::vector<std::pair<unsigned int, unsigned int>> strings;
  unsigned int nStart = 0;
  for (unsigned int i = 0; i < cbData; ++i) {
    if (pData[i] != 0) continue;
    if (i > 0 && pData[i - 1] == 0) break;
    strings.emplace_back(nStart, i - nStart);
    nStart = i + 1;
  }
  HRESULT hr = S_OK;
  if (strings.empty()) return hr;
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, strings.size());
  psaDataValue = psa;
  for (int i = 0; i < static_cast<int>(strings.size()); ++i)
    hr = PutBytesAsString(psa, i, pData + strings[i].first, strings[i].second);
  return hr;
}

HRESULT DecodeBinary(const unsigned char* pData, unsigned int cbData, SAFEARRAY*& psaDataValue) {
  // A value of one byte has no payload (nor a length byte): a zero-element vector.
  const unsigned int nPayload = cbData >= 2 ? cbData - 2 : 0;
  const unsigned char* pPayload = cbData >= 2 ? pData + 2 : pData;
  switch (pData[0]) {
    case kTagBytes: return CopyIntoVector(VT_UI1, nPayload, pPayload, nPayload, psaDataValue);
    case kTagSignedBytes: return CopyIntoVector(VT_I1, nPayload, pPayload, nPayload, psaDataValue);
    case kTagRows: return DecodeBinaryRecords(pData, cbData, psaDataValue);
    default: return S_OK;  // not a value of this format: no array
  }
}

}  // namespace

HRESULT EncodeRegistryValue(SAFEARRAY* psaDataValue, VARTYPE vt, unsigned int dwRegistryType,
                            RegistryValueBytes& value, bool& bWrite) {
  bWrite = false;
  value = RegistryValueBytes();
  value.dwType = dwRegistryType;
  if (psaDataValue == NULL) return E_INVALIDARG;
  switch (dwRegistryType) {
    case REG_SZ: return EncodeStrings(psaDataValue, value, bWrite);
    case REG_BINARY: return EncodeBinary(psaDataValue, vt, value, bWrite);
    default: return EncodeElements(psaDataValue, value, bWrite);
  }
}

HRESULT DecodeRegistryValue(unsigned int dwRegistryType, const unsigned char* pData, unsigned int cbData,
                            SAFEARRAY*& psaDataValue) {
  VARTYPE vt = VT_EMPTY;
  HRESULT hr = GetSafeArrayTypeFromRegistryType(dwRegistryType, vt);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CRegistryTree::GetData GetSafeArrayTypeFromRegistryType failed");
  if (cbData == 0) {
    // An empty value of any type: a zero-element vector of the mapped type
    // (the service makes none for an unmapped one).
    psaDataValue = SafeArrayCreateVector(vt, 0, 0);
    return hr;
  }
  if (FAILED(hr)) return hr;
  switch (dwRegistryType) {
    case REG_SZ: {
      SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, 1);
      psaDataValue = psa;
      return PutBytesAsString(psa, 0, pData, cbData);
    }
    case REG_DWORD: return CopyIntoVector(VT_UINT, cbData / 4, pData, cbData, psaDataValue);
    case REG_QWORD: return CopyIntoVector(VT_UI8, cbData / 8, pData, cbData, psaDataValue);
    case REG_NONE: return CopyIntoVector(VT_UNKNOWN, 0, pData, cbData, psaDataValue);
    case REG_MULTI_SZ: return DecodeStrings(pData, cbData, psaDataValue);
    case REG_BINARY: return DecodeBinary(pData, cbData, psaDataValue);
  }
  return hr;
}

HRESULT DecodeBinaryRecords(const unsigned char* pData, unsigned int cbData, SAFEARRAY*& psaDataValue) {
  // First walk: count the records and find the longest.
  unsigned int nRecords = 0;
  unsigned int nLongest = 1;
  for (std::uint64_t pos = 0; pos < cbData;) {
    const unsigned int nLength = pos + 1 < cbData ? pData[pos + 1] : 0;
    ++nRecords;
    nLongest = std::max(nLongest, nLength);
    pos += nLength + 2;
  }
  const unsigned int nWidth = nLongest + 1;
  const unsigned int nRows = cbData == 2 ? 0 : nRecords;
  // Given width first: the service stores the bounds reversed, so rgsabound[0]
  // holds the rows, as the writer expects.
  SAFEARRAYBOUND bounds[2] = {{nWidth, 0}, {nRows, 0}};
  SAFEARRAY* psa = SafeArrayCreate(VT_UI1, 2, bounds);
  psaDataValue = psa;
  void* pv = NULL;
  HRESULT hr = SafeArrayAccessData(psa, &pv);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::GetData SafeArrayAccessData failed");
    return hr;
  }
  unsigned char* pRows = static_cast<unsigned char*>(pv);
  std::memset(pRows, 0, static_cast<std::size_t>(nRows) * nWidth);
  // Second walk: each record's length byte and bytes at the start of its row.
  std::uint64_t pos = 0;
  for (unsigned int r = 0; r < nRows; ++r) {
    const unsigned int nLength = pos + 1 < cbData ? pData[pos + 1] : 0;
    const std::uint64_t nFrom = pos + 2;
    const std::uint64_t nPresent = nFrom < cbData ? std::min<std::uint64_t>(nLength, cbData - nFrom) : 0;
    unsigned char* pRow = pRows + static_cast<std::size_t>(r) * nWidth;
    pRow[0] = static_cast<unsigned char>(nLength);
    if (nPresent != 0) std::memcpy(pRow + 1, pData + nFrom, nPresent);
    pos += nLength + 2;
  }
  return SafeArrayUnaccessData(psa);
}
