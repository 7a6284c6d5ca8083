#include "crypto/CommonCrypto.h"

#include <cstdio>

#include "common/Module.h"
#include "crypto/KeyFileMask.h"
#include "xk/log.h"

using QX::Framework::IAlgorithm;
using QX::Framework::IAlgorithmParameters;
using QX::Framework::ICryptoParserParameterMap;
using QX::Framework::IException;
using QX::Framework::IKey;
using QX::Framework::KeyGenerator;

namespace {

constexpr std::size_t kKeySize = 16;

// A factory that answered NULL (out of memory) instead of throwing; handled
// as the library's out-of-memory failure rather than called through.
struct NullObject {};
template <typename T>
T* NotNull(T* p) {
  if (p == NULL) throw NullObject();
  return p;
}

}  // namespace

const unsigned char CommonCrypto::m_const_EntropyData[16] = {0x7D, 0x12, 0xE9, 0x4B, 0xA6, 0x35, 0xC8, 0x91,
                                                             0x0E, 0x5F, 0xB3, 0x6A, 0xD4, 0x27, 0x88, 0xFC};

CommonCrypto::CommonCrypto() {
  xklogLog(MSTORE_MODULE, 8, "CommonCrypto::CommonCrypto");
  m_PersistentKey = NULL;
  m_VolatileKey = NULL;
  xklogLog(MSTORE_MODULE, 16, "CommonCrypto::CommonCrypto");
}

CommonCrypto::~CommonCrypto() {
  xklogLog(MSTORE_MODULE, 8, "CommonCrypto::~CommonCrypto");
  if (m_PersistentKey != NULL) {
    delete m_PersistentKey;
    m_PersistentKey = NULL;
  }
  if (m_VolatileKey != NULL) {
    delete m_VolatileKey;
    m_VolatileKey = NULL;
  }
  xklogLog(MSTORE_MODULE, 16, "CommonCrypto::~CommonCrypto");
}

HRESULT CommonCrypto::initialize(const SecureString& name, bool bPersistent) {
  xklogLog(MSTORE_MODULE, 8, "CommonCrypto::initialize");
  SecureString sLabel = name;
  HRESULT hr;
  if (bPersistent) {
    // Built and dropped: every persistent store shares the key of the file.
    sLabel += "_AES_NVC_PERSISTENT_KEY";
    hr = CreateNewPersistentKey(sLabel);
  } else {
    sLabel += "_AES_NVC_VOLATILE_KEY";
    hr = CreateNewVolatileKey(sLabel);
  }
  xklogLog(MSTORE_MODULE, 16, "CommonCrypto::initialize");
  return hr;
}

HRESULT CommonCrypto::CreateNewVolatileKey(const SecureString& label) {
  xklogLog(MSTORE_MODULE, 8, "CommonCrypto::CreateNewVolatileKey");
  HRESULT hr = E_FAIL;
  IAlgorithmParameters* pParameters = NULL;
  IAlgorithm* pAlgorithm = NULL;
  ICryptoParserParameterMap* pMap = NULL;
  KeyGenerator* pGenerator = NULL;
  try {
    pParameters = IAlgorithmParameters::Create();
    pAlgorithm = IAlgorithm::CreateFromFriendlyName("AES", pParameters);
    pMap = NotNull(ICryptoParserParameterMap::Create());
    pMap->SetKeyType("TypeVolatile");
    pMap->SetKeyLabel(label);
    pGenerator = NotNull(KeyGenerator::Create(pAlgorithm, pMap));
    m_VolatileKey = pGenerator->GenerateKey(kKeySize);
    hr = S_OK;
  } catch (IException* e) {
    const unsigned int code = e->GetErrorCode();
    hr = util_ConvertCryptoError(code);
    delete e;
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::CreateNewVolatileKey : Impossible to generate new key");
  } catch (const NullObject&) {
    hr = util_ConvertCryptoError(QX::Framework::kCryptoOutOfMemory);
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::CreateNewVolatileKey : Impossible to generate new key");
  }
  if (pGenerator != NULL) delete pGenerator;
  if (pMap != NULL) delete pMap;
  if (pAlgorithm != NULL) delete pAlgorithm;
  if (pParameters != NULL) delete pParameters;
  xklogLog(MSTORE_MODULE, 16, "CommonCrypto::CreateNewVolatileKey");
  return hr;
}

HRESULT CommonCrypto::CreateNewPersistentKey(const SecureString& /*label*/) {
  xklogLog(MSTORE_MODULE, 8, "CommonCrypto::CreateNewPersistentKey");
  SecureByteVector key;
  HRESULT hr = GetKeyFromFile(key);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::CreateNewPersistentKey GetKeyFromFile failed");
  } else {
    IAlgorithmParameters* pParameters = NULL;
    IAlgorithm* pAlgorithm = NULL;
    try {
      pParameters = IAlgorithmParameters::Create();
      pAlgorithm = IAlgorithm::CreateFromFriendlyName("AES", pParameters);
      m_PersistentKey = IKey::Create(pAlgorithm, "RAW", key);
    } catch (IException* e) {
      const unsigned int code = e->GetErrorCode();
      hr = util_ConvertCryptoError(code);
      delete e;
      xklogLog(MSTORE_MODULE, 1, "CommonCrypto::CreateNewPersistentKey : Impossible to generate new key");
    }
    if (pAlgorithm != NULL) delete pAlgorithm;
    if (pParameters != NULL) delete pParameters;
  }
  xklogLog(MSTORE_MODULE, 16, "CommonCrypto::CreateNewPersistentKey");
  return hr;
}

HRESULT CommonCrypto::GetKeyFromFile(SecureByteVector& key) {
  xklogLog(MSTORE_MODULE, 8, "CommonCrypto::GetKeyFromFile");
  HRESULT hr = S_OK;
  FILE* pFile = std::fopen(KeyFilePath, "rb");
  if (pFile == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CommonCrypto::GetKeyFromFile : Unable to open the key file");
    hr = E_FAIL;
  } else {
    key.assign(kKeySize, 0);
    const std::size_t len = std::fread(key.data(), 1, kKeySize, pFile);
    if (len < kKeySize) {
      xklogLog(MSTORE_MODULE, 1, "CommonCrypto::GetKeyFromFile : Unable to read the complete key from file (len = %d)",
               static_cast<int>(len));
      hr = E_FAIL;
    } else {
      const SecureByteVector mask(KeyFileMask, KeyFileMask + sizeof(KeyFileMask));
      for (std::size_t i = 0; i < kKeySize; ++i) key[i] ^= mask[i % mask.size()];
    }
    std::fclose(pFile);
  }
  xklogLog(MSTORE_MODULE, 16, "CommonCrypto::GetKeyFromFile");
  return hr;
}

HRESULT CommonCrypto::util_ConvertCryptoError(unsigned int code) {
  xklogLog(MSTORE_MODULE, 8, "CommonCrypto::util_ConvertCryptoError");
  const HRESULT rv = code == QX::Framework::kCryptoInvalidArgument ? E_INVALIDARG : E_FAIL;
  xklogLog(MSTORE_MODULE, 16, "CommonCrypto::util_ConvertCryptoError: return rv = 0x%x", static_cast<unsigned int>(rv));
  return rv;
}

HRESULT EncryptValue(SAFEARRAY* psaIn, SAFEARRAY*& psaOut, signed char /*flag*/) {
  xklogLog(MSTORE_MODULE, 0, "EncryptValue");
  SafeArrayCopy(psaIn, &psaOut);
  xklogLog(MSTORE_MODULE, 0, "EncryptValue hr = 0x%x", 0u);
  return S_OK;
}

HRESULT DecryptValue(SAFEARRAY* psaIn, SAFEARRAY*& psaOut) {
  xklogLog(MSTORE_MODULE, 0, "DecryptValue");
  SafeArrayCopy(psaIn, &psaOut);
  xklogLog(MSTORE_MODULE, 0, "DecryptValue hr = 0x%x", 0u);
  return S_OK;
}
