#include "cipher.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <algorithm>
#include <climits>
#include <cstring>
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
  // The block cipher of the key's size, whatever the mode: the mode is done
  // here.
  const EVP_CIPHER* cipher = EvpCipherCache::Get().Find(own.Size(), false);
  if (cipher == nullptr) Throw(QX::Framework::kCryptoOperationFailed, kOperation, "AES not available from OpenSSL");
  const bool encrypt = direction == kEncrypt;
  const unsigned slot = ContextPool::Slot(false, encrypt, false);
  m_Context = own.Contexts()->Take(slot);
  if (m_Context == nullptr) {
    m_Context = EVP_CIPHER_CTX_new();
    if (m_Context == nullptr) {
      ERR_clear_error();
      Throw(QX::Framework::kCryptoOutOfMemory, kOperation, "EVP_CIPHER_CTX_new failed");
    }
    if (EVP_CipherInit_ex2(m_Context, cipher, own.Bytes(), nullptr, encrypt, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(m_Context, 0) != 1) {
      ThrowOpenSsl(kOperation, "EVP_CipherInit_ex2 failed");
    }
  }
  // Set up in full: the context may go back to the key's pool.
  m_Pool = own.Contexts();
  m_Slot = slot;
  m_Encrypt = encrypt;
  m_Initialised = true;
}

bool AesCipher::Blocks(unsigned char* out, const unsigned char* in, std::size_t length) {
  return EVP_Cipher(m_Context, out, in, static_cast<unsigned int>(length)) == static_cast<int>(length);
}

bool AesCipher::Encrypt(const SecureByteVector& input, SecureByteVector& result) {
  const std::size_t n = input.size();
  // PKCS7 always adds 1 to 16 bytes, each the count; without padding only
  // whole blocks are taken.
  const std::size_t padding = m_Padding ? kBlock - n % kBlock : 0;
  if (!m_Padding && n % kBlock != 0) return false;
  const std::size_t length = n + padding;
  result.resize(length);
  unsigned char* out = result.data();
  if (n > 0) std::memcpy(out, input.data(), n);
  std::memset(out + n, static_cast<int>(padding), padding);
  if (!m_Cbc) return length == 0 || Blocks(out, out, length);
  // CBC, in place: each plain block is XORed with the cipher block before it
  // (the IV first) and encrypted.
  const unsigned char* previous = m_IV.data();
  for (std::size_t at = 0; at < length; at += kBlock) {
    for (std::size_t i = 0; i < kBlock; ++i) out[at + i] ^= previous[i];
    if (!Blocks(out + at, out + at, kBlock)) return false;
    previous = out + at;
  }
  return true;
}

bool AesCipher::Decrypt(const SecureByteVector& input, SecureByteVector& result) {
  const std::size_t n = input.size();
  if (n % kBlock != 0 || (m_Padding && n == 0)) return false;
  result.resize(n);
  if (n > 0 && !Blocks(result.data(), input.data(), n)) return false;
  if (m_Cbc && n > 0) {
    // CBC: each decrypted block is XORed with the cipher block before it (the
    // IV first); `input` is still intact, even when it is `output`.
    unsigned char* out = result.data();
    for (std::size_t i = 0; i < kBlock; ++i) out[i] ^= m_IV[i];
    const unsigned char* in = input.data();
    for (std::size_t i = kBlock; i < n; ++i) out[i] ^= in[i - kBlock];
  }
  if (!m_Padding) return true;
  // PKCS7: the last byte p, 1 to 16, and the last p bytes all p.
  const unsigned char p = result[n - 1];
  if (p == 0 || p > kBlock) return false;
  for (std::size_t i = n - p; i < n; ++i) {
    if (result[i] != p) return false;
  }
  result.resize(n - p);
  return true;
}

void AesCipher::DoFinal(const SecureByteVector& input, SecureByteVector& output) {
  static constexpr const char* kOperation = "Cipher::DoFinal";
  Enter(kOperation);
  if (!m_Initialised) Throw(QX::Framework::kCryptoNotInitialised, kOperation, "DoFinal before Init");
  if (input.size() > static_cast<std::size_t>(INT_MAX) - 2 * kBlock) {
    Throw(QX::Framework::kCryptoInvalidArgument, kOperation, "input too long");
  }
  // The result is built aside and swapped in, so a failure leaves `output`
  // as it was and `input` may be the same vector as `output`. What a failed
  // decryption wrote aside is wiped before it is released.
  SecureByteVector result;
  Guarded(kOperation, [&] { result.reserve(input.size() + kBlock); });
  if (!(m_Encrypt ? Encrypt(input, result) : Decrypt(input, result))) {
    OPENSSL_cleanse(result.data(), result.size());
    ThrowOpenSsl(kOperation, m_Padding ? "EVP_CipherUpdate/Final failed (bad padding or length)"
                                       : "EVP_CipherUpdate/Final failed (input not a multiple of 16 bytes)");
  }
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
