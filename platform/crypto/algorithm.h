#ifndef XK_CRYPTO_ALGORITHM_H
#define XK_CRYPTO_ALGORITHM_H

#include <cstddef>

#include "xk/crypto.h"

namespace xk {
namespace crypto {

// The one algorithm on offer, AES. Keys, generators and ciphers made from it
// copy what they need, so it may be deleted as soon as they exist.
class Algorithm final : public QX::Framework::IAlgorithm {
 public:
  Algorithm();
  const SecureString& GetName() const override;

  // True for the AES key sizes in bytes: 16, 24 and 32.
  static bool TakesKeySize(std::size_t size) { return size == 16 || size == 24 || size == 32; }

  // The algorithm behind `algorithm`, or a thrown kCryptoInvalidArgument when
  // it is null or not made by this library.
  static const Algorithm& From(const QX::Framework::IAlgorithm* algorithm, const char* operation);

 private:
  SecureString m_Name;
};

}  // namespace crypto
}  // namespace xk

#endif
