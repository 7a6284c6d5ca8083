#ifndef XK_CRYPTO_KEY_GENERATOR_H
#define XK_CRYPTO_KEY_GENERATOR_H

#include <cstddef>

#include "xk/crypto.h"

namespace xk {
namespace crypto {

// Makes volatile AES keys from the OpenSSL private DRBG. It copies the key
// label when it is made, so the map may be deleted before GenerateKey.
class AesKeyGenerator final : public QX::Framework::KeyGenerator {
 public:
  explicit AesKeyGenerator(const SecureString& label);
  QX::Framework::IKey* GenerateKey(std::size_t size) override;

 private:
  SecureString m_Label;
};

}  // namespace crypto
}  // namespace xk

#endif
