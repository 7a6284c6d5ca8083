#ifndef XK_CRYPTO_PARAMETER_MAP_H
#define XK_CRYPTO_PARAMETER_MAP_H

#include "xk/crypto.h"

namespace xk {
namespace crypto {

// Values that ciphers and key generators read when they are made. The map
// stores whatever it is given; the objects made from it judge the values.
// A fresh map holds padding "PKCS7", chaining mode "CBC", key type
// "TypeVolatile", and an empty IV and key label.
class ParameterMap final : public QX::Framework::ICryptoParserParameterMap {
 public:
  ParameterMap();

  void SetPadding(const SecureString& padding) override;
  void SetChainingMode(const SecureString& mode) override;
  void SetIV(const SecureByteVector& iv) override;
  void SetKeyType(const SecureString& type) override;
  void SetKeyLabel(const SecureString& label) override;
  const SecureString& GetPadding() const override;
  const SecureString& GetChainingMode() const override;
  const SecureByteVector& GetIV() const override;
  const SecureString& GetKeyType() const override;
  const SecureString& GetKeyLabel() const override;

  // The map behind `map`, or a thrown kCryptoInvalidArgument when it is null
  // or not made by this library.
  static const ParameterMap& From(const QX::Framework::ICryptoParserParameterMap* map, const char* operation);

  // Reads for the objects made from the map; they pass no fault point.
  const SecureString& Padding() const { return m_Padding; }
  const SecureString& ChainingMode() const { return m_ChainingMode; }
  const SecureByteVector& IV() const { return m_IV; }
  const SecureString& KeyType() const { return m_KeyType; }
  const SecureString& KeyLabel() const { return m_KeyLabel; }

 private:
  SecureString m_Padding;
  SecureString m_ChainingMode;
  SecureByteVector m_IV;
  SecureString m_KeyType;
  SecureString m_KeyLabel;
};

}  // namespace crypto
}  // namespace xk

#endif
