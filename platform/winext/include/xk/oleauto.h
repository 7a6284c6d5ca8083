#ifndef XK_OLEAUTO_H
#define XK_OLEAUTO_H

// BSTR and SAFEARRAY services with COM semantics over narrow char strings.
//
// A BSTR is a char* to NUL-terminated text made by this service; the service
// keeps its byte length ahead of it, so a BSTR may hold NUL bytes. Every
// function that takes a BSTR also accepts a plain NUL-terminated buffer that no
// allocation of this service made: its length is then strlen of it.

#include "xk/export.h"
#include "xk/hresult.h"

typedef char* BSTR;
typedef unsigned short VARTYPE;

enum VARENUM : VARTYPE {
  VT_EMPTY = 0,
  VT_NULL = 1,
  VT_I2 = 2,
  VT_I4 = 3,
  VT_R4 = 4,
  VT_R8 = 5,
  VT_CY = 6,
  VT_DATE = 7,
  VT_BSTR = 8,
  VT_DISPATCH = 9,
  VT_ERROR = 10,
  VT_BOOL = 11,
  VT_VARIANT = 12,
  VT_UNKNOWN = 13,
  VT_DECIMAL = 14,
  VT_I1 = 16,
  VT_UI1 = 17,
  VT_UI2 = 18,
  VT_UI4 = 19,
  VT_I8 = 20,
  VT_UI8 = 21,
  VT_INT = 22,
  VT_UINT = 23,
};

struct tagSAFEARRAYBOUND {
  unsigned long cElements;
  long lLbound;
};
typedef tagSAFEARRAYBOUND SAFEARRAYBOUND;

// Bits of tagSAFEARRAY::fFeatures set by this service: every array records its
// vartype, and an array of BSTR, IUnknown* or IDispatch* elements says so.
#define FADF_HAVEVARTYPE 0x0080
#define FADF_BSTR 0x0100
#define FADF_UNKNOWN 0x0200
#define FADF_DISPATCH 0x0400

// rgsabound points to cDims bounds held in the reverse of the order given to
// SafeArrayCreate: rgsabound[0] describes the last (rightmost) dimension.
struct tagSAFEARRAY {
  unsigned short cDims;
  unsigned short fFeatures;
  unsigned int cbElements;
  unsigned int cLocks;
  void* pvData;
  tagSAFEARRAYBOUND* rgsabound;
  VARTYPE vt;
};
typedef tagSAFEARRAY SAFEARRAY;

extern "C" {

// --- BSTR -------------------------------------------------------------------

// A new BSTR holding a copy of the NUL-terminated text; NULL for a NULL input or
// when memory runs out. The caller owns the result.
XK_EXPORT BSTR SysAllocString(const char* psz);
// A new BSTR of exactly `len` bytes copied from `psz` (zeroes when `psz` is
// NULL), followed by a NUL. May hold NULs.
XK_EXPORT BSTR SysAllocStringByteLen(const char* psz, unsigned int len);
// The same for a length in characters (one byte each here).
XK_EXPORT BSTR SysAllocStringLen(const char* pch, unsigned int len);
// Length in characters: the stored length of a BSTR of this service, strlen of
// any other buffer, 0 for NULL.
XK_EXPORT unsigned int SysStringLen(BSTR bstr);
// Length in bytes; equal to SysStringLen since characters are bytes.
XK_EXPORT unsigned int SysStringByteLen(BSTR bstr);
// Release a BSTR. NULL is ignored; so is a pointer this service did not make.
XK_EXPORT void SysFreeString(BSTR bstr);
// The same; `flag` 0 is the only meaning defined (plain release).
XK_EXPORT void qxSysFreeString(BSTR bstr, signed char flag);

// --- SAFEARRAY --------------------------------------------------------------

// A new array of `cDims` dimensions; bounds are stored in reverse order (see
// tagSAFEARRAY). NULL for an unsupported vartype, cDims 0 or no memory.
XK_EXPORT SAFEARRAY* SafeArrayCreate(VARTYPE vt, unsigned int cDims, SAFEARRAYBOUND* rgsabound);
// A new one-dimensional array of `cElements` zeroed elements.
XK_EXPORT SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, int lLbound, unsigned long cElements);
// Destroys the array, its data and (deep) its BSTR elements.
// DISP_E_ARRAYISLOCKED while locked; S_OK for NULL.
XK_EXPORT HRESULT SafeArrayDestroy(SAFEARRAY* psa);
// The same; `flag` 0 is the only meaning defined.
XK_EXPORT HRESULT qxSafeArrayDestroy(SAFEARRAY* psa, signed char flag);
// rgIndices holds one index per dimension, leftmost dimension first.
// For VT_BSTR, `pv` is a BSTR* that receives a new copy owned by the caller.
XK_EXPORT HRESULT SafeArrayGetElement(SAFEARRAY* psa, int* rgIndices, void* pv);
// For VT_BSTR, `pv` is the BSTR itself and the array keeps its own copy; for
// other vartypes `pv` is the address of the element.
XK_EXPORT HRESULT SafeArrayPutElement(SAFEARRAY* psa, int* rgIndices, void* pv);
// A deep copy owned by the caller; *ppsaOut is NULL on failure. A NULL psa
// copies as NULL with S_OK.
XK_EXPORT HRESULT SafeArrayCopy(SAFEARRAY* psa, SAFEARRAY** ppsaOut);
// Adds one to the lock count; a locked array cannot be destroyed.
XK_EXPORT HRESULT SafeArrayLock(SAFEARRAY* psa);
// Takes one lock away; E_UNEXPECTED when the count is already 0.
XK_EXPORT HRESULT SafeArrayUnlock(SAFEARRAY* psa);
// Locks the array and gives its contiguous data; pair with SafeArrayUnaccessData.
XK_EXPORT HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** ppvData);
// Takes the lock of SafeArrayAccessData away; E_UNEXPECTED when the count is 0.
XK_EXPORT HRESULT SafeArrayUnaccessData(SAFEARRAY* psa);
// The vartype the array was created with.
XK_EXPORT HRESULT SafeArrayGetVartype(SAFEARRAY* psa, VARTYPE* pvt);
// The number of dimensions; 0 for NULL.
XK_EXPORT unsigned int SafeArrayGetDim(SAFEARRAY* psa);
// The size of one element in bytes; 0 for NULL.
XK_EXPORT unsigned int SafeArrayGetElemsize(SAFEARRAY* psa);
// Lower and upper bound of dimension nDim, counted from 1, leftmost dimension
// first; DISP_E_BADINDEX for an nDim outside 1..cDims. The upper bound of an
// empty dimension is its lower bound minus 1.
XK_EXPORT HRESULT SafeArrayGetLBound(SAFEARRAY* psa, unsigned int nDim, long* plLbound);
XK_EXPORT HRESULT SafeArrayGetUBound(SAFEARRAY* psa, unsigned int nDim, long* plUbound);

}  // extern "C"

#endif
