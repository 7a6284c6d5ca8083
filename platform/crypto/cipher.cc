#include "cipher.h"

#include <openssl/err.h>

#include <algorithm>
#include <climits>
#include <memory>

#include "algorithm.h"
#include "evp_cipher_cache.h"
#include "exception.h"
#include "key.h"
#include "parameter_map.h"

namespace xk {
namespace crypto {

namespace {

constexpr std::size_t kBlock = 16;

}  // namespace

AesCipher::AesCipher(bool cbc, bool padding, const SecureByteVector& iv) : m_Cbc(cbc), m_Padding(padding), m_IV{} {
  std::copy(iv.begin(), iv.end(), m_IV.begin());
}

AesCipher::~AesCipher() { ReleaseContext(); }

void AesCipher::ReleaseContext() {
  if (m_Pool) {
    m_Pool->GiveBack(m_Slot, m_Context);
    m_Pool.reset();
  } else {
    EVP_CIPHER_CTX_free(m_Context);
  }
  m_Context = nullptr;
}

void AesCipher::Init(int direction, QX::Framework::IKey* key) {
  static constexpr const char* kOperation = "Cipher::Init";
  Enter(kOperation);
  if (direction != kEncrypt && direction != kDecrypt) {
    Throw(QX::Framework::kCryptoInvalidArgument, kOperation, "direction not 0 (encrypt) or 1 (decrypt)");
  }
  const Key& own = Key::From(key, kOperation);
  // A failed Init leaves the cipher uninitialised, whatever it was before.
  m_Initialised = false;
  ReleaseContext();
  const EVP_CIPHER* cipher = EvpCipherCache::Get().Find(own.Size(), m_Cbc);
  if (cipher == nullptr) Throw(QX::Framework::kCryptoOperationFailed, kOperation, "AES not available from OpenSSL");
  const unsigned slot = ContextPool::Slot(m_Cbc, direction == kEncrypt, m_Padding);
  m_Context = own.Contexts()->Take(slot);
  if (m_Context != nullptr) {
    // The key schedule, direction and padding are in place: the IV and the
    // state of a new message are all that is set.
    if (EVP_CipherInit_ex2(m_Context, nullptr, nullptr, m_Cbc ? m_IV.data() : nullptr, -1, nullptr) != 1) {
      ThrowOpenSsl(kOperation, "EVP_CipherInit_ex2 failed");
    }
  } else {
    m_Context = EVP_CIPHER_CTX_new();
    if (m_Context == nullptr) {
      ERR_clear_error();
      Throw(QX::Framework::kCryptoOutOfMemory, kOperation, "EVP_CIPHER_CTX_new failed");
    }
    if (EVP_CipherInit_ex2(m_Context, cipher, own.Bytes(), m_Cbc ? m_IV.data() : nullptr, direction == kEncrypt,
                           nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(m_Context, m_Padding) != 1) {
      ThrowOpenSsl(kOperation, "EVP_CipherInit_ex2 failed");
    }
  }
  // Set up in full: the context may go back to the key's pool.
  m_Pool = own.Contexts();
  m_Slot = slot;
  m_Initialised = true;
  m_Fresh = true;
}

void AesCipher::Restart(const char* operation) {
  if (EVP_CipherInit_ex2(m_Context, nullptr, nullptr, m_Cbc ? m_IV.data() : nullptr, -1, nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(m_Context, m_Padding) != 1) {
    ThrowOpenSsl(operation, "EVP_CipherInit_ex2 failed");
  }
}

void AesCipher::DoFinal(const SecureByteVector& input, SecureByteVector& output) {
  static constexpr const char* kOperation = "Cipher::DoFinal";
  Enter(kOperation);
  if (!m_Initialised) Throw(QX::Framework::kCryptoNotInitialised, kOperation, "DoFinal before Init");
  if (input.size() > static_cast<std::size_t>(INT_MAX) - 2 * kBlock) {
    Throw(QX::Framework::kCryptoInvalidArgument, kOperation, "input too long");
  }
  if (!m_Fresh) Restart(kOperation);
  m_Fresh = false;
  // The result is built aside and swapped in, so a failure leaves `output`
  // as it was and `input` may be the same vector as `output`. What a failed
  // decryption wrote aside is wiped before it is released.
  SecureByteVector result = Guarded(kOperation, [&] { return SecureByteVector(input.size() + kBlock); });
  int written = 0;
  int last = 0;
  if (EVP_CipherUpdate(m_Context, result.data(), &written, input.data(), static_cast<int>(input.size())) != 1 ||
      EVP_CipherFinal_ex(m_Context, result.data() + written, &last) != 1) {
    OPENSSL_cleanse(result.data(), result.size());
    ThrowOpenSsl(kOperation, m_Padding ? "EVP_CipherUpdate/Final failed (bad padding or length)"
                                       : "EVP_CipherUpdate/Final failed (input not a multiple of 16 bytes)");
  }
  result.resize(static_cast<std::size_t>(written + last));
  output.swap(result);
}

}  // namespace crypto
}  // namespace xk

namespace QX {
namespace Framework {

Cipher::~Cipher() = default;

Cipher* Cipher::Create(IAlgorithm* algorithm, ICryptoParserParameterMap* map) {
  static constexpr const char* kOperation = "Cipher::Create";
  if (xk::crypto::EnterFactory(kOperation)) return nullptr;
  xk::crypto::Algorithm::From(algorithm, kOperation);
  const xk::crypto::ParameterMap& parameters = xk::crypto::ParameterMap::From(map, kOperation);
  // Names compare byte by byte: "cbc" and "pkcs7" are not offered.
  const SecureString& mode = parameters.ChainingMode();
  const bool cbc = mode == "CBC";
  if (!cbc && mode != "ECB") xk::crypto::Throw(kCryptoUnsupported, kOperation, "chaining mode not offered");
  const SecureString& padding = parameters.Padding();
  const bool pkcs7 = padding == "PKCS7";
  if (!pkcs7 && padding != "None") xk::crypto::Throw(kCryptoUnsupported, kOperation, "padding not offered");
  // CBC takes exactly one block of IV and never makes one up; ECB takes none.
  const SecureByteVector& iv = parameters.IV();
  if (cbc && iv.size() != xk::crypto::kBlock) xk::crypto::Throw(kCryptoInvalidArgument, kOperation, "CBC needs a 16-byte IV");
  if (!cbc && !iv.empty()) xk::crypto::Throw(kCryptoInvalidArgument, kOperation, "ECB takes no IV");
  // The context comes at Init, from the key.
  return xk::crypto::Guarded(kOperation, [&] { return new xk::crypto::AesCipher(cbc, pkcs7, iv); });
}

}  // namespace Framework
}  // namespace QX
