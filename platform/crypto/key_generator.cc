#include "key_generator.h"

#include <openssl/err.h>
#include <openssl/rand.h>

#include <memory>

#include "algorithm.h"
#include "exception.h"
#include "key.h"
#include "parameter_map.h"

namespace xk {
namespace crypto {

AesKeyGenerator::AesKeyGenerator(const SecureString& label) : m_Label(label) {}

QX::Framework::IKey* AesKeyGenerator::GenerateKey(std::size_t size) {
  static constexpr const char* kOperation = "KeyGenerator::GenerateKey";
  if (EnterFactory(kOperation)) return nullptr;
  if (!Algorithm::TakesKeySize(size)) Throw(QX::Framework::kCryptoInvalidArgument, kOperation, "key size not 16, 24 or 32 bytes");
  auto key = Guarded(kOperation, [&] { return std::make_unique<Key>(size, m_Label); });
  // The random bytes go straight into the locked pages and nowhere else.
  if (RAND_priv_bytes(key->Bytes(), static_cast<int>(size)) != 1) {
    ERR_clear_error();
    Throw(QX::Framework::kCryptoRandomFailed, kOperation, "the DRBG gave no bytes");
  }
  return key.release();
}

}  // namespace crypto
}  // namespace xk

namespace QX {
namespace Framework {

KeyGenerator::~KeyGenerator() = default;

KeyGenerator* KeyGenerator::Create(IAlgorithm* algorithm, ICryptoParserParameterMap* map) {
  static constexpr const char* kOperation = "KeyGenerator::Create";
  if (xk::crypto::EnterFactory(kOperation)) return nullptr;
  xk::crypto::Algorithm::From(algorithm, kOperation);
  const xk::crypto::ParameterMap& parameters = xk::crypto::ParameterMap::From(map, kOperation);
  // Generated keys live only in this process's memory: volatile is the one
  // key type on offer.
  if (parameters.KeyType() != "TypeVolatile") xk::crypto::Throw(kCryptoUnsupported, kOperation, "key type not offered");
  return xk::crypto::Guarded(kOperation, [&] { return new xk::crypto::AesKeyGenerator(parameters.KeyLabel()); });
}

}  // namespace Framework
}  // namespace QX
