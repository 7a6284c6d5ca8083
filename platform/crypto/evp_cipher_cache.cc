#include "evp_cipher_cache.h"

#include <openssl/err.h>

namespace xk {
namespace crypto {

EvpCipherCache::EvpCipherCache() {
  static constexpr const char* kNames[3][2] = {
      {"AES-128-ECB", "AES-128-CBC"},
      {"AES-192-ECB", "AES-192-CBC"},
      {"AES-256-ECB", "AES-256-CBC"},
  };
  for (int size = 0; size < 3; ++size) {
    for (int cbc = 0; cbc < 2; ++cbc) m_Ciphers[size][cbc] = EVP_CIPHER_fetch(nullptr, kNames[size][cbc], nullptr);
  }
  // A missing cipher shows later as a failed Init; leave no error behind.
  ERR_clear_error();
}

const EvpCipherCache& EvpCipherCache::Get() {
  static const EvpCipherCache* const cache = new EvpCipherCache;
  return *cache;
}

const EVP_CIPHER* EvpCipherCache::Find(std::size_t keySize, bool cbc) const {
  switch (keySize) {
    case 16:
      return m_Ciphers[0][cbc];
    case 24:
      return m_Ciphers[1][cbc];
    case 32:
      return m_Ciphers[2][cbc];
    default:
      return nullptr;
  }
}

}  // namespace crypto
}  // namespace xk
