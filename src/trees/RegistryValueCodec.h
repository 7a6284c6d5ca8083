#ifndef MERROWSTORE_TREES_REGISTRYVALUECODEC_H
#define MERROWSTORE_TREES_REGISTRYVALUECODEC_H

// The registry value format of the remanent tree: how a SAFEARRAY becomes the
// typed bytes of one registry value and back. Other programs read and write
// these bytes, so the layout is fixed (docs/registry-tree.md):
//
//   VT_BSTR, 0 elements    REG_SZ, no bytes (written with a null pointer)
//   VT_BSTR, 1 element     REG_SZ, the string's bytes, no terminator
//   VT_BSTR, 2+ elements   REG_MULTI_SZ, each string and a 0, then one more 0
//   VT_I1, VT_UI1          REG_BINARY, records: tag, low 8 bits of the length,
//                          bytes. Tag 0x0B for VT_I1, 0xBA for a VT_UI1 vector,
//                          0xBB for a VT_UI1 array of rows (one record a row)
//   VT_INT, VT_UINT        REG_DWORD, the elements as they stand in memory
//   VT_I8, VT_UI8          REG_QWORD, likewise
//   VT_UNKNOWN             REG_NONE, likewise
//
// Log texts are those of CRegistryTree::SetData and CRegistryTree::GetData, in
// whose name the codec works.

#include "merrowstore/export.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// The largest value the tree writes, in bytes.
constexpr unsigned long kMaxRegistryValueSize = 1048576;

// One value ready for xkRegSetValueEx.
struct RegistryValueBytes {
  unsigned int dwType = 0;
  SecureByteVector data;
  // Written with a null pointer and length 0 (an empty VT_BSTR vector).
  bool bNullData = false;
};

// Encodes psaDataValue, whose element type is vt and maps to dwRegistryType
// (GetRegistryTypeFromSafeArrayType), into value. bWrite says whether the value
// is to be written: false after a size check over 1 MB (E_INVALIDARG) or a
// failed element fetch or data access. A list of several BSTRs is written even
// when some element could not be fetched; the result is then that of the last
// fetch. Reads only memory the array owns: where a bound promises more data
// than the array holds, the missing bytes are written as zeros.
MERROWSTORE_EXPORT HRESULT EncodeRegistryValue(SAFEARRAY* psaDataValue, VARTYPE vt, unsigned int dwRegistryType,
                                               RegistryValueBytes& value, bool& bWrite);

// Decodes cbData bytes of a value of dwRegistryType into a new array stored in
// psaDataValue, owned by the caller. An empty value becomes a zero-element
// vector of the mapped element type. E_FAIL for a registry type that maps to no
// element type. Success with psaDataValue untouched for a REG_BINARY value with
// an unknown first byte and for a REG_MULTI_SZ value without a 0 byte. Never
// reads outside pData[0, cbData).
MERROWSTORE_EXPORT HRESULT DecodeRegistryValue(unsigned int dwRegistryType, const unsigned char* pData,
                                               unsigned int cbData, SAFEARRAY*& psaDataValue);

// Rebuilds a two-dimensional VT_UI1 array from a walk of 0xBB records (pData
// starts with the first record's tag): one row a record, the row width the
// largest length byte (at least 1) plus one, each row its record's length byte
// and bytes, zero-filled. A value of exactly 2 bytes gives no rows. A record
// cut short by the end of the value keeps the bytes that are there (a missing
// length byte counts as 0). Stores the new array (NULL if it could not be made)
// in psaDataValue, owned by the caller, and answers the result of the data
// access.
MERROWSTORE_EXPORT HRESULT DecodeBinaryRecords(const unsigned char* pData, unsigned int cbData,
                                               SAFEARRAY*& psaDataValue);

#endif
