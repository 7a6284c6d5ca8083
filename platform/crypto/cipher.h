#ifndef XK_CRYPTO_CIPHER_H
#define XK_CRYPTO_CIPHER_H

#include <openssl/evp.h>

#include <array>
#include <memory>

#include "key.h"
#include "xk/crypto.h"

namespace xk {
namespace crypto {

// AES in CBC or ECB with PKCS7 or no padding, over one EVP_CIPHER_CTX that
// the object owns from Init on. Init takes a context that holds the key's
// schedule from the key's ContextPool, or makes one and puts the schedule
// into it; destruction gives it back to that pool (OpenSSL wipes the
// schedule when a context is freed). The object keeps no other copy of the
// key.
class AesCipher final : public QX::Framework::Cipher {
 public:
  AesCipher(bool cbc, bool padding, const SecureByteVector& iv);
  ~AesCipher() override;
  AesCipher(const AesCipher&) = delete;
  AesCipher& operator=(const AesCipher&) = delete;

  void Init(int direction, QX::Framework::IKey* key) override;
  void DoFinal(const SecureByteVector& input, SecureByteVector& output) override;

 private:
  // Puts the context back at the start of a message: the IV again and the
  // padding choice, keeping the key schedule.
  void Restart(const char* operation);
  // Gives the context back to the pool it came from, or frees it.
  void ReleaseContext();

  bool m_Cbc;
  bool m_Padding;
  std::array<unsigned char, 16> m_IV;
  EVP_CIPHER_CTX* m_Context = nullptr;
  // The pool m_Context goes back to, with its slot; null while m_Context
  // holds no finished set-up.
  std::shared_ptr<ContextPool> m_Pool;
  unsigned m_Slot = 0;
  bool m_Initialised = false;
  bool m_Fresh = false;  // true between Init and the first DoFinal
};

}  // namespace crypto
}  // namespace xk

#endif
