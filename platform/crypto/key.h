#ifndef XK_CRYPTO_KEY_H
#define XK_CRYPTO_KEY_H

#include <cstddef>

#include "locked_buffer.h"
#include "xk/crypto.h"

namespace xk {
namespace crypto {

// An AES key: its bytes in a LockedBuffer of their own and a label. It keeps
// no pointer to the algorithm, map or generator that made it.
class Key final : public QX::Framework::IKey {
 public:
  // A key of `size` bytes, all zero until the maker fills Bytes().
  Key(std::size_t size, const SecureString& label);

  std::size_t GetSize() const override;
  const SecureString& GetLabel() const override;
  SecureByteVector Export() const override;

  unsigned char* Bytes() { return m_Bytes.Data(); }
  const unsigned char* Bytes() const { return m_Bytes.Data(); }
  std::size_t Size() const { return m_Bytes.Size(); }

  // The key behind `key`, or a thrown kCryptoInvalidArgument when it is null
  // or not made by this library.
  static const Key& From(const QX::Framework::IKey* key, const char* operation);

 private:
  LockedBuffer m_Bytes;
  SecureString m_Label;
};

}  // namespace crypto
}  // namespace xk

#endif
