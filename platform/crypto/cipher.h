#ifndef XK_CRYPTO_CIPHER_H
#define XK_CRYPTO_CIPHER_H

#include <openssl/evp.h>

#include <array>
#include <memory>

#include "key.h"
#include "xk/crypto.h"

namespace xk {
namespace crypto {

// AES in CBC or ECB with PKCS7 or no padding. OpenSSL transforms the blocks,
// through one AES-ECB EVP_CIPHER_CTX without padding that the object owns
// from Init on; the CBC chaining from the IV and the PKCS7 padding are done
// here, so a context holds no state between messages and never has to be
// set up again: each DoFinal starts from the IV. Init takes a context that
// holds the key's schedule from the key's ContextPool, or makes one and puts
// the schedule into it; destruction gives it back to that pool (OpenSSL
// wipes the schedule when a context is freed). The object keeps no other
// copy of the key.
class AesCipher final : public QX::Framework::Cipher {
 public:
  AesCipher(bool cbc, bool padding, const SecureByteVector& iv);
  ~AesCipher() override;
  AesCipher(const AesCipher&) = delete;
  AesCipher& operator=(const AesCipher&) = delete;

  void Init(int direction, QX::Framework::IKey* key) override;
  void DoFinal(const SecureByteVector& input, SecureByteVector& output) override;

 private:
  // Gives the context back to the pool it came from, or frees it.
  void ReleaseContext();
  // Whole blocks through the context: `length` is a multiple of 16.
  bool Blocks(unsigned char* out, const unsigned char* in, std::size_t length);
  // The transformations of DoFinal, into `result` (sized by the caller);
  // false for an input the mode and padding refuse.
  bool Encrypt(const SecureByteVector& input, SecureByteVector& result);
  bool Decrypt(const SecureByteVector& input, SecureByteVector& result);

  bool m_Cbc;
  bool m_Padding;
  std::array<unsigned char, 16> m_IV;
  EVP_CIPHER_CTX* m_Context = nullptr;
  // The pool m_Context goes back to, with its slot; null while m_Context
  // holds no finished set-up.
  std::shared_ptr<ContextPool> m_Pool;
  unsigned m_Slot = 0;
  bool m_Encrypt = false;
  bool m_Initialised = false;
};

}  // namespace crypto
}  // namespace xk

#endif
