// CommonCrypto's value encryption: encryptValue, DecryptValue and the string
// list rebuild. The blob is AES-128-CBC/PKCS7 over
//   description text, 0x00, flattened value bytes
// under the fixed IV; docs/crypto.md gives the format byte by byte.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "crypto/CommonCrypto.h"
#include "xk/log.h"

#if defined(__SANITIZE_ADDRESS__)
#define MSTORE_LEAK_CHECKER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(leak_sanitizer)
#define MSTORE_LEAK_CHECKER 1
#endif
#endif
#if defined(MSTORE_LEAK_CHECKER)
#include <sanitizer/lsan_interface.h>
#endif

using QX::Framework::Cipher;
using QX::Framework::IAlgorithm;
using QX::Framework::IAlgorithmParameters;
using QX::Framework::ICryptoParserParameterMap;
using QX::Framework::IException;
using QX::Framework::IKey;

namespace {

const char kMultiPrefix[] = "UI1_MULTI ";

// The bytes an array really holds: element size times every dimension, read
// from its descriptor. Copies are held to this so that no faulty size (an
// injected SafeArrayGetElemsize, a three-dimensional value read back as two)
// reaches outside an array.
std::size_t DataSize(const SAFEARRAY* psa) {
  std::size_t size = psa->cbElements;
  for (unsigned int i = 0; i < psa->cDims; ++i) {
    if (__builtin_mul_overflow(size, static_cast<std::size_t>(psa->rgsabound[i].cElements), &size)) return 0;
  }
  return size;
}

// Byte k is m_const_EntropyData[k] XOR (k + 1): the same for every value,
// so made once.
const SecureByteVector& TheIV() {
  static const SecureByteVector iv = [] {
    SecureByteVector bytes(16);
    for (int k = 0; k < 16; ++k) bytes[k] = static_cast<unsigned char>(CommonCrypto::m_const_EntropyData[k] ^ (k + 1));
    return bytes;
  }();
  return iv;
}

// The objects of one encryption or decryption, deleted in the order cipher,
// map, algorithm, parameters.
struct CipherObjects {
  IAlgorithmParameters* pParameters = NULL;
  IAlgorithm* pAlgorithm = NULL;
  ICryptoParserParameterMap* pMap = NULL;
  Cipher* pCipher = NULL;

  ~CipherObjects() { Release(); }
  void Release() {
    delete pCipher;
    delete pMap;
    delete pAlgorithm;
    delete pParameters;
    pCipher = NULL;
    pMap = NULL;
    pAlgorithm = NULL;
    pParameters = NULL;
  }
};

// A factory that answered NULL (out of memory) instead of throwing; handled
// as the library's out-of-memory failure rather than called through.
struct NullObject {};
template <typename T>
T* NotNull(T* p) {
  if (p == NULL) throw NullObject();
  return p;
}

// AES-128-CBC with PKCS7 under `iv`, direction 0 (encrypt) or 1 (decrypt).
// Failures of the cryptography library leave as a thrown IException*.
void RunCipher(CipherObjects& o, int direction, IKey* pKey, const SecureByteVector& iv, const SecureByteVector& in,
               SecureByteVector& out) {
  o.pParameters = IAlgorithmParameters::Create();
  o.pAlgorithm = IAlgorithm::CreateFromFriendlyName("AES", o.pParameters);
  o.pMap = NotNull(ICryptoParserParameterMap::Create());
  o.pMap->SetPadding("PKCS7");
  o.pMap->SetIV(iv);
  o.pMap->SetChainingMode("CBC");
  o.pCipher = NotNull(Cipher::Create(o.pAlgorithm, o.pMap));
  o.pCipher->Init(direction, pKey);
  o.pCipher->DoFinal(in, out);
}

// The caught failure of a cipher run: GetErrorCode, the mapping with its two
// log lines, deletion, then the caller's level 1 line.
HRESULT CaughtCryptoError(IException* e, const char* sLine) {
  const unsigned int code = e->GetErrorCode();
  const HRESULT hr = CommonCrypto::util_ConvertCryptoError(code);
  delete e;
  xklogLog(MSTORE_MODULE, 1, "%s", sLine);
  return hr;
}

HRESULT CaughtNullObject(const char* sLine) {
  const HRESULT hr = CommonCrypto::util_ConvertCryptoError(QX::Framework::kCryptoOutOfMemory);
  xklogLog(MSTORE_MODULE, 1, "%s", sLine);
  return hr;
}

// Access, copy the bytes in, unaccess. Bytes beyond the array's own size are
// not copied: they would land past the array. Fewer bytes leave the rest of
// its cells zero. The result is the unaccess code, or the access code when
// access failed.
HRESULT CopyInto(SAFEARRAY* psa, const unsigned char* pBytes, std::size_t nBytes, const char* sOperation) {
  void* pvData = NULL;
  HRESULT hr = SafeArrayAccessData(psa, &pvData);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "%s SafeArrayAccessData failed", sOperation);
    return hr;
  }
  const std::size_t n = std::min(nBytes, DataSize(psa));
  if (n > 0) std::memcpy(pvData, pBytes, n);
  hr = SafeArrayUnaccessData(psa);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "%s SafeArrayUnaccessData failed", sOperation);
  return hr;
}

// The string list of a VT_BSTR array: each convertible string, then 0x00;
// then one 0x00 ending the list. No string at all gives two 0x00 bytes.
// Failed fetches and NULL elements are skipped silently, strings that do not
// convert (empty BSTRs) after BSTR2wstring's own log line.
SecureByteVector FlattenStringList(SAFEARRAY* psaIn) {
  std::vector<SecureString> strings;
  const unsigned int cElements = static_cast<unsigned int>(psaIn->rgsabound[0].cElements);
  for (int i = 0; static_cast<unsigned int>(i) < cElements; ++i) {
    BSTR bstr = NULL;
    if (FAILED(SafeArrayGetElement(psaIn, &i, &bstr)) || bstr == NULL) continue;
    SecureString s;
    if (SUCCEEDED(CFctUtils::BSTR2wstring(bstr, s))) strings.push_back(s);
    qxSysFreeString(bstr, 0);
  }
  SecureByteVector list;
  for (const SecureString& s : strings) {
    list.insert(list.end(), s.begin(), s.end());
    list.push_back(0);
  }
  if (strings.empty()) list.push_back(0);
  list.push_back(0);
  return list;
}

// The data block of any other array: element size times cElements of
// rgsabound[0] below 2 dimensions, times every cElements from 2 on, when the
// bounds text ("3 4 " for stored bounds 3 and 4) is built too.
HRESULT FlattenData(SAFEARRAY* psaIn, unsigned int cbElement, unsigned int cDims, SecureByteVector& flat,
                    std::string& bounds) {
  void* pvData = NULL;
  HRESULT hr = SafeArrayAccessData(psaIn, &pvData);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::encryptValue SafeArrayAccessData failed");
    return hr;
  }
  std::size_t n = static_cast<std::size_t>(cbElement) * psaIn->rgsabound[0].cElements;
  if (cDims >= 2) {
    n = cbElement;
    for (unsigned int i = 0; i < std::min<unsigned int>(cDims, psaIn->cDims); ++i) {
      n *= psaIn->rgsabound[i].cElements;
      bounds += std::to_string(psaIn->rgsabound[i].cElements) + " ";
    }
  }
  n = std::min(n, DataSize(psaIn));
  const unsigned char* p = static_cast<const unsigned char*>(pvData);
  flat.assign(p, p + n);
  if (FAILED(SafeArrayUnaccessData(psaIn))) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::encryptValue SafeArrayUnaccessData failed");
  }
  return S_OK;
}

// The description written for a vartype; NULL for one that is not protected.
// kMultiPrefix stands for "UI1_MULTI " followed by the bounds.
const char* DescriptionOf(VARTYPE vt, unsigned int cDims) {
  switch (vt) {
    case VT_BSTR: return "BSTR";
    case VT_UNKNOWN: return "UNKNOWN";
    case VT_I1: return "I1";
    case VT_UI1: return cDims < 2 ? "UI1" : kMultiPrefix;
    case VT_I8: return "I8";
    case VT_UI8: return "UI8";
    case VT_INT: return "INT";
    case VT_UINT: return "UINT";
    default: return NULL;
  }
}

// The descriptions read back, in the order they are compared. "UI1_MULTI" is
// a prefix (the bounds follow), the others match exactly. A VT_UNKNOWN value
// is read with 4-byte elements whatever it was written with.
struct ReadDescription {
  const char* sText;
  std::size_t nLength;
  bool bPrefix;
  VARTYPE vt;
  unsigned int cbElement;
};
#define MSTORE_TEXT(text) text, sizeof(text) - 1
constexpr ReadDescription kReadOrder[] = {
    {MSTORE_TEXT("UNKNOWN"), false, VT_UNKNOWN, 4}, {MSTORE_TEXT("INT"), false, VT_INT, 4},
    {MSTORE_TEXT("I8"), false, VT_I8, 8},           {MSTORE_TEXT("UINT"), false, VT_UINT, 4},
    {MSTORE_TEXT("UI8"), false, VT_UI8, 8},         {MSTORE_TEXT("UI1"), false, VT_UI1, 1},
    {MSTORE_TEXT("UI1_MULTI"), true, VT_UI1, 1},    {MSTORE_TEXT("I1"), false, VT_I1, 1},
    {MSTORE_TEXT("BSTR"), false, VT_BSTR, 0},
};
#undef MSTORE_TEXT

// The first entry that the text matches: exactly, or as a prefix for a
// prefix entry. Lengths are compared before bytes.
const ReadDescription* FindDescription(const char* pDescrOut) {
  const std::size_t nLength = std::strlen(pDescrOut);
  for (const ReadDescription& d : kReadOrder) {
    const bool match = (d.bPrefix ? nLength >= d.nLength : nLength == d.nLength) &&
                       std::memcmp(pDescrOut, d.sText, d.nLength) == 0;
    if (match) return &d;
  }
  return NULL;
}

HRESULT ProtectValue(SAFEARRAY* psaIn, unsigned int cbElement, VARTYPE vt, unsigned int cDims, IKey* pKey,
                     SAFEARRAY*& psaOut) {
  SecureByteVector flat;
  std::string bounds;
  if (vt == VT_BSTR) {
    flat = FlattenStringList(psaIn);
  } else {
    const HRESULT hr = FlattenData(psaIn, cbElement, cDims, flat, bounds);
    if (FAILED(hr)) return hr;
  }
  const char* pDescr = DescriptionOf(vt, cDims);
  if (pDescr == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::encryptValue unsupported vt");
    return E_FAIL;
  }
  const std::string multi = std::string(kMultiPrefix) + bounds;
  if (pDescr == kMultiPrefix) {
    // This BSTR is never released: a small fixed leak per multi-dimensional
    // value. Without memory for it the text itself serves.
    BSTR bstrDescr = SysAllocString(multi.c_str());
#if defined(MSTORE_LEAK_CHECKER)
    if (bstrDescr != NULL) __lsan_ignore_object(bstrDescr);
#endif
    pDescr = bstrDescr != NULL ? bstrDescr : multi.c_str();
  }
  const SecureByteVector& iv = TheIV();
  SecureByteVector plain(pDescr, pDescr + std::strlen(pDescr) + 1);
  plain.insert(plain.end(), flat.begin(), flat.end());

  CipherObjects objects;
  SecureByteVector cipherText;
  try {
    RunCipher(objects, Cipher::kEncrypt, pKey, iv, plain, cipherText);
  } catch (IException* e) {
    return CaughtCryptoError(e, "CommonCrypto::encryptValue : Impossible to retrieve Certificate");
  } catch (const NullObject&) {
    return CaughtNullObject("CommonCrypto::encryptValue : Impossible to retrieve Certificate");
  }
  xklogLog(MSTORE_MODULE, 0, "CommonCrypto::encryptValue CryptProtectData succeed");
  SAFEARRAY* psaNew = SafeArrayCreateVector(VT_UI1, 0, cipherText.size());
  const HRESULT hr = CopyInto(psaNew, cipherText.data(), cipherText.size(), "CommonCrypto::encryptValue");
  if (SUCCEEDED(hr)) psaOut = psaNew;
  return hr;
}

// Steps after a successful decryption: split off the description, judge it,
// and build the array. `hr` is the running result (the input's unaccess code).
HRESULT ReadPlaintext(SecureByteVector& plain, HRESULT hr, SAFEARRAY*& psaOut) {
  // No bytes at all leave no description. Otherwise a 0x00 kept after the
  // bytes ends the description even when the text has no terminator of its
  // own; it then takes the whole text and the value is empty.
  const char* pDescrOut = NULL;
  // The value: the bytes after the description's 0x00, read in place.
  const unsigned char* pValue = NULL;
  std::size_t nValue = 0;
  const std::size_t plainSize = plain.size();
  if (plainSize > 0) {
    plain.push_back(0);
    pDescrOut = reinterpret_cast<const char*>(plain.data());
    const std::size_t len = std::strlen(pDescrOut);
    if (len < plainSize) {
      pValue = plain.data() + len + 1;
      nValue = plainSize - len - 1;
    }
  }
  xklogLog(MSTORE_MODULE, 0, "CommonCrypto::DecryptValue CryptUnProtectData succeed");
  if (pDescrOut == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::DecryptValue pDescrOut == NULL");
    return E_FAIL;
  }
  const ReadDescription* pFound = FindDescription(pDescrOut);
  if (pFound == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::DecryptValue *pDescrOut unknown");
    return E_FAIL;
  }
  if (pFound->vt == VT_BSTR) {
    return CommonCrypto::RebuildStringList(SecureByteVector(pValue, pValue + nValue), psaOut, hr);
  }

  SAFEARRAY* psaNew;
  if (pFound->bPrefix) {
    // Two bounds only, whatever was written; given in reverse, since
    // SafeArrayCreate stores them reversed.
    int d1 = 0;
    int d2 = 0;
    std::sscanf(pDescrOut, "UI1_MULTI %d %d", &d1, &d2);
    // The array has the cells the bounds name, whatever the number of value
    // bytes: "UI1_MULTI 4 3 0 " carries none and reads as 4 by 3 zeroes.
    SAFEARRAYBOUND bounds[2] = {{static_cast<unsigned long>(d2), 0}, {static_cast<unsigned long>(d1), 0}};
    psaNew = SafeArrayCreate(VT_UI1, 2, bounds);
  } else {
    psaNew = SafeArrayCreateVector(pFound->vt, 0, nValue / pFound->cbElement);
  }
  hr = CopyInto(psaNew, pValue, nValue, "CommonCrypto::DecryptValue");
  if (SUCCEEDED(hr)) psaOut = psaNew;
  return hr;
}

HRESULT UnprotectValue(SAFEARRAY* psaIn, unsigned int cbElement, IKey* pKey, SAFEARRAY*& psaOut) {
  void* pvData = NULL;
  HRESULT hr = SafeArrayAccessData(psaIn, &pvData);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::DecryptValue SafeArrayAccessData failed");
    return hr;
  }
  const std::size_t n =
      std::min(static_cast<std::size_t>(cbElement) * psaIn->rgsabound[0].cElements, DataSize(psaIn));
  const unsigned char* p = static_cast<const unsigned char*>(pvData);
  const SecureByteVector cipherText(p, p + n);
  hr = SafeArrayUnaccessData(psaIn);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CommonCrypto::DecryptValue SafeArrayUnaccessData failed");

  const SecureByteVector& iv = TheIV();
  CipherObjects objects;
  SecureByteVector plain;
  try {
    RunCipher(objects, Cipher::kDecrypt, pKey, iv, cipherText, plain);
  } catch (IException* e) {
    return CaughtCryptoError(e, "CommonCrypto::DecryptValue : Impossible to retrieve Certificate");
  } catch (const NullObject&) {
    return CaughtNullObject("CommonCrypto::DecryptValue : Impossible to retrieve Certificate");
  }
  hr = ReadPlaintext(plain, hr, psaOut);
  objects.Release();
  return hr;
}

}  // namespace

HRESULT CommonCrypto::encryptValue(SAFEARRAY* psaIn, SAFEARRAY*& psaOut, bool bPersistent) {
  xklogLog(MSTORE_MODULE, 0, "CommonCrypto::encryptValue");
  const unsigned int cbElement = SafeArrayGetElemsize(psaIn);
  VARTYPE vt = VT_EMPTY;
  SafeArrayGetVartype(psaIn, &vt);
  const unsigned int cDims = SafeArrayGetDim(psaIn);
  HRESULT hr = E_FAIL;
  if (m_PersistentKey == NULL && m_VolatileKey == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::encryptValue No key was set");
  } else {
    hr = ProtectValue(psaIn, cbElement, vt, cDims, bPersistent ? m_PersistentKey : m_VolatileKey, psaOut);
  }
  xklogLog(MSTORE_MODULE, 0, "CommonCrypto::encryptValue hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CommonCrypto::DecryptValue(SAFEARRAY* psaIn, SAFEARRAY*& psaOut, bool bPersistent) {
  xklogLog(MSTORE_MODULE, 0, "CommonCrypto::DecryptValue");
  const unsigned int cbElement = SafeArrayGetElemsize(psaIn);
  HRESULT hr = E_FAIL;
  if (m_PersistentKey == NULL && m_VolatileKey == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::DecryptValue No key was set");
  } else {
    hr = UnprotectValue(psaIn, cbElement, bPersistent ? m_PersistentKey : m_VolatileKey, psaOut);
  }
  xklogLog(MSTORE_MODULE, 0, "CommonCrypto::DecryptValue hr = 0x%x", static_cast<unsigned int>(hr));
  return hr;
}

HRESULT CommonCrypto::RebuildStringList(const SecureByteVector& value, SAFEARRAY*& psaOut, HRESULT hr) {
  const int n = static_cast<int>(value.size());
  // Count the elements and note their lengths: one at each 0x00, and the
  // list ends at a 0x00 followed by another. The byte just past the value
  // reads as 0x00; the walk ends there whatever it holds.
  std::vector<int> lengths;
  int start = 0;
  for (int i = 0; i < n; ++i) {
    if (value[i] != 0) continue;
    lengths.push_back(i - start);
    start = i + 1;
    const unsigned char next = i + 1 < n ? value[i + 1] : 0;
    if (next == 0) break;
  }
  if (lengths.empty()) {
    xklogLog(MSTORE_MODULE, 0, "CommonCrypto::DecryptValue nbElem = 0");
    psaOut = SafeArrayCreateVector(VT_BSTR, 0, 0);
    return hr;
  }
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, lengths.size());
  if (psa == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::DecryptValue SafeArrayCreateVector failed");
    psaOut = NULL;
    return hr;
  }
  // An empty element stays NULL and does not move the read offset, so the
  // next element is read from where the empty one began.
  int offset = 0;
  for (int index = 0; index < static_cast<int>(lengths.size()); ++index) {
    const int len = lengths[index];
    if (len <= 0) continue;
    std::unique_ptr<char[]> buffer(new char[len + 1]());
    std::memcpy(buffer.get(), value.data() + offset, static_cast<std::size_t>(len));
    BSTR bstr = SysAllocStringByteLen(buffer.get(), static_cast<unsigned int>(len));
    offset += len + 1;
    // Once a put has failed, later strings are neither put nor released.
    if (SUCCEEDED(hr)) {
      hr = SafeArrayPutElement(psa, &index, bstr);
      if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CommonCrypto::DecryptValue SafeArrayPutElement failed");
      qxSysFreeString(bstr, 0);
    }
  }
  psaOut = psa;
  return hr;
}
