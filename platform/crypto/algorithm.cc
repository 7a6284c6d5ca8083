#include "algorithm.h"

#include <typeinfo>

#include "exception.h"

namespace xk {
namespace crypto {

namespace {
constexpr const char* kAes = "AES";
}  // namespace

Algorithm::Algorithm() : m_Name(kAes) {}

const SecureString& Algorithm::GetName() const {
  Enter("IAlgorithm::GetName");
  return m_Name;
}

const Algorithm& Algorithm::From(const QX::Framework::IAlgorithm* algorithm, const char* operation) {
  if (algorithm == nullptr) Throw(QX::Framework::kCryptoInvalidArgument, operation, "NULL algorithm");
  // The class is final: an object of this library has exactly its type,
  // which a type comparison tells more cheaply than a cast search.
  if (typeid(*algorithm) != typeid(Algorithm)) {
    Throw(QX::Framework::kCryptoInvalidArgument, operation, "algorithm not made by this library");
  }
  return static_cast<const Algorithm&>(*algorithm);
}

}  // namespace crypto
}  // namespace xk

namespace QX {
namespace Framework {

IAlgorithm::~IAlgorithm() = default;

IAlgorithm* IAlgorithm::CreateFromFriendlyName(const SecureString& name, IAlgorithmParameters* parameters) {
  static constexpr const char* kOperation = "IAlgorithm::CreateFromFriendlyName";
  if (xk::crypto::EnterFactory(kOperation)) return nullptr;
  if (parameters == nullptr) xk::crypto::Throw(kCryptoInvalidArgument, kOperation, "NULL parameters");
  // Names compare byte by byte: "aes" is not "AES".
  if (name != xk::crypto::kAes) xk::crypto::Throw(kCryptoUnsupported, kOperation, "algorithm not offered");
  return xk::crypto::Guarded(kOperation, [] { return new xk::crypto::Algorithm; });
}

}  // namespace Framework
}  // namespace QX
