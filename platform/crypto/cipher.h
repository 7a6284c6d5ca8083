#ifndef XK_CRYPTO_CIPHER_H
#define XK_CRYPTO_CIPHER_H

#include <openssl/evp.h>

#include <array>

#include "xk/crypto.h"

namespace xk {
namespace crypto {

// AES in CBC or ECB with PKCS7 or no padding, over one EVP_CIPHER_CTX that
// the object owns. Init puts the key schedule into the context (OpenSSL wipes
// it when the context is freed); the object keeps no other copy of the key.
class AesCipher final : public QX::Framework::Cipher {
 public:
  AesCipher(bool cbc, bool padding, const SecureByteVector& iv, EVP_CIPHER_CTX* context);
  ~AesCipher() override;
  AesCipher(const AesCipher&) = delete;
  AesCipher& operator=(const AesCipher&) = delete;

  void Init(int direction, QX::Framework::IKey* key) override;
  void DoFinal(const SecureByteVector& input, SecureByteVector& output) override;

 private:
  // Puts the context back at the start of a message: the IV again and the
  // padding choice, keeping the key schedule.
  void Restart(const char* operation);

  bool m_Cbc;
  bool m_Padding;
  std::array<unsigned char, 16> m_IV;
  EVP_CIPHER_CTX* m_Context;
  bool m_Initialised = false;
  bool m_Fresh = false;  // true between Init and the first DoFinal
};

}  // namespace crypto
}  // namespace xk

#endif
