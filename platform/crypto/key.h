#ifndef XK_CRYPTO_KEY_H
#define XK_CRYPTO_KEY_H

#include <openssl/evp.h>

#include <atomic>
#include <cstddef>
#include <memory>

#include "locked_buffer.h"
#include "xk/crypto.h"

namespace xk {
namespace crypto {

// Cipher contexts that already hold one key's schedule, kept between the
// ciphers that use the key: a cipher takes one at Init instead of setting a
// new context up (allocation, provider context, key expansion, parameter
// queries), and gives it back when it is destroyed. One context is kept for
// each combination of mode, direction and padding. The key and every cipher
// that took a context share the pool, so a cipher may outlive its key: once
// the key is gone the pool is closed, its contexts are freed (OpenSSL wipes
// the key schedule) and contexts given back later are freed at once. Each
// slot is one atomic pointer: taking and giving back lock nothing.
class ContextPool {
 public:
  ContextPool() = default;
  ~ContextPool();
  ContextPool(const ContextPool&) = delete;
  ContextPool& operator=(const ContextPool&) = delete;

  static unsigned Slot(bool cbc, bool encrypt, bool padding) {
    return (cbc ? 4u : 0u) | (encrypt ? 2u : 0u) | (padding ? 1u : 0u);
  }
  // The context kept in `slot`, now the caller's; nullptr when there is none.
  EVP_CIPHER_CTX* Take(unsigned slot);
  // Keeps `context` for `slot`, or frees it when the slot is taken or the
  // pool is closed.
  void GiveBack(unsigned slot, EVP_CIPHER_CTX* context);
  // Frees every kept context and keeps none from now on.
  void Close();

 private:
  static constexpr unsigned kSlots = 8;
  std::atomic<bool> m_Closed{false};
  std::atomic<EVP_CIPHER_CTX*> m_Contexts[kSlots] = {};
};

// An AES key: its bytes in a LockedBuffer of their own and a label. It keeps
// no pointer to the algorithm, map or generator that made it.
class Key final : public QX::Framework::IKey {
 public:
  // A key of `size` bytes, all zero until the maker fills Bytes(). The bytes
  // are final once the maker hands the key out: contexts made from them are
  // kept (Contexts()).
  Key(std::size_t size, const SecureString& label);
  // Closes the pool of contexts.
  ~Key() override;

  std::size_t GetSize() const override;
  const SecureString& GetLabel() const override;
  SecureByteVector Export() const override;

  unsigned char* Bytes() { return m_Bytes.Data(); }
  const unsigned char* Bytes() const { return m_Bytes.Data(); }
  std::size_t Size() const { return m_Bytes.Size(); }
  // The contexts prepared with this key, shared with the ciphers using them.
  const std::shared_ptr<ContextPool>& Contexts() const { return m_Contexts; }

  // The key behind `key`, or a thrown kCryptoInvalidArgument when it is null
  // or not made by this library.
  static const Key& From(const QX::Framework::IKey* key, const char* operation);

 private:
  LockedBuffer m_Bytes;
  SecureString m_Label;
  std::shared_ptr<ContextPool> m_Contexts;
};

}  // namespace crypto
}  // namespace xk

#endif
