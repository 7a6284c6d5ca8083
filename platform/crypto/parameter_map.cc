#include "parameter_map.h"

#include <typeinfo>

#include "exception.h"

namespace xk {
namespace crypto {

ParameterMap::ParameterMap() : m_Padding("PKCS7"), m_ChainingMode("CBC"), m_KeyType("TypeVolatile") {}

void ParameterMap::SetPadding(const SecureString& padding) {
  static constexpr const char* kOperation = "ICryptoParserParameterMap::SetPadding";
  Enter(kOperation);
  Guarded(kOperation, [&] { m_Padding = padding; });
}

void ParameterMap::SetChainingMode(const SecureString& mode) {
  static constexpr const char* kOperation = "ICryptoParserParameterMap::SetChainingMode";
  Enter(kOperation);
  Guarded(kOperation, [&] { m_ChainingMode = mode; });
}

void ParameterMap::SetIV(const SecureByteVector& iv) {
  static constexpr const char* kOperation = "ICryptoParserParameterMap::SetIV";
  Enter(kOperation);
  Guarded(kOperation, [&] { m_IV = iv; });
}

void ParameterMap::SetKeyType(const SecureString& type) {
  static constexpr const char* kOperation = "ICryptoParserParameterMap::SetKeyType";
  Enter(kOperation);
  Guarded(kOperation, [&] { m_KeyType = type; });
}

void ParameterMap::SetKeyLabel(const SecureString& label) {
  static constexpr const char* kOperation = "ICryptoParserParameterMap::SetKeyLabel";
  Enter(kOperation);
  Guarded(kOperation, [&] { m_KeyLabel = label; });
}

const SecureString& ParameterMap::GetPadding() const {
  Enter("ICryptoParserParameterMap::GetPadding");
  return m_Padding;
}

const SecureString& ParameterMap::GetChainingMode() const {
  Enter("ICryptoParserParameterMap::GetChainingMode");
  return m_ChainingMode;
}

const SecureByteVector& ParameterMap::GetIV() const {
  Enter("ICryptoParserParameterMap::GetIV");
  return m_IV;
}

const SecureString& ParameterMap::GetKeyType() const {
  Enter("ICryptoParserParameterMap::GetKeyType");
  return m_KeyType;
}

const SecureString& ParameterMap::GetKeyLabel() const {
  Enter("ICryptoParserParameterMap::GetKeyLabel");
  return m_KeyLabel;
}

const ParameterMap& ParameterMap::From(const QX::Framework::ICryptoParserParameterMap* map, const char* operation) {
  if (map == nullptr) Throw(QX::Framework::kCryptoInvalidArgument, operation, "NULL parameter map");
  // The class is final: an object of this library has exactly its type,
  // which a type comparison tells more cheaply than a cast search.
  if (typeid(*map) != typeid(ParameterMap)) {
    Throw(QX::Framework::kCryptoInvalidArgument, operation, "parameter map not made by this library");
  }
  return static_cast<const ParameterMap&>(*map);
}

}  // namespace crypto
}  // namespace xk

namespace QX {
namespace Framework {

ICryptoParserParameterMap::~ICryptoParserParameterMap() = default;

ICryptoParserParameterMap* ICryptoParserParameterMap::Create() {
  static constexpr const char* kOperation = "ICryptoParserParameterMap::Create";
  if (xk::crypto::EnterFactory(kOperation)) return nullptr;
  return xk::crypto::Guarded(kOperation, [] { return new xk::crypto::ParameterMap; });
}

}  // namespace Framework
}  // namespace QX
