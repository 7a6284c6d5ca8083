#ifndef XK_CRYPTO_EVP_CIPHER_CACHE_H
#define XK_CRYPTO_EVP_CIPHER_CACHE_H

#include <openssl/evp.h>

#include <cstddef>

namespace xk {
namespace crypto {

// The AES cipher implementations, fetched from the default library context
// once per process and shared by every cipher object: an implicit fetch on
// each initialisation would cost a method-store lookup per value. Fetched
// ciphers are immutable, so any thread may use them. The cache is never
// destroyed: a cipher used by another library's static destructor at exit
// still finds it.
class EvpCipherCache {
 public:
  // The process-wide cache, fetched on first use (thread-safe).
  static const EvpCipherCache& Get();

  // AES-128/192/256 in CBC or ECB for a key of `keySize` bytes; nullptr when
  // the size is not an AES size or the provider had no such cipher.
  const EVP_CIPHER* Find(std::size_t keySize, bool cbc) const;

  EvpCipherCache(const EvpCipherCache&) = delete;
  EvpCipherCache& operator=(const EvpCipherCache&) = delete;

 private:
  EvpCipherCache();

  // Indexed by [key size class: 128, 192, 256][0 for ECB, 1 for CBC].
  EVP_CIPHER* m_Ciphers[3][2];
};

}  // namespace crypto
}  // namespace xk

#endif
