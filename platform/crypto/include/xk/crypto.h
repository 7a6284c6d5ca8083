#ifndef XK_CRYPTO_H
#define XK_CRYPTO_H

// The cryptography service: algorithm, parameter map, key generator, key and
// cipher objects over OpenSSL 3 EVP. Every object is made by a static Create,
// belongs to whoever called it and is released with delete. Failures are
// thrown as a new QX::Framework::IException*, which the catcher deletes.
//
// Supported: the algorithm "AES" with 16, 24 or 32-byte keys, chaining modes
// "CBC" (default) and "ECB", padding "PKCS7" (default) or "None". Key
// formats for IKey::Create: "RAW". Key bytes live in locked memory, left out of
// core dumps and wiped when the key is destroyed.

#include "xk/export.h"
#include "xk/secure_types.h"

namespace QX {
namespace Framework {

// Numeric error codes carried by IException.
enum CryptoError : unsigned int {
  kCryptoInvalidArgument = 4000,    // a NULL, a foreign object, a bad size or IV, a key format other than "RAW"
  kCryptoUnsupported = 4001,        // an algorithm, mode, padding or key type not offered
  kCryptoNotInitialised = 4002,     // Cipher::DoFinal before Init
  kCryptoOperationFailed = 4003,    // OpenSSL failed (including a bad padding on decryption)
  kCryptoRandomFailed = 4004,       // the DRBG gave no bytes
  kCryptoOutOfMemory = 4005,
};

class XK_EXPORT IException {
 public:
  virtual ~IException();
  virtual unsigned int GetErrorCode() const = 0;
  virtual const char* GetMessage() const = 0;
};

class XK_EXPORT IAlgorithmParameters {
 public:
  virtual ~IAlgorithmParameters();
  static IAlgorithmParameters* Create();
};

class XK_EXPORT IAlgorithm {
 public:
  virtual ~IAlgorithm();
  virtual const SecureString& GetName() const = 0;
  // "AES" (case as given). Throws kCryptoUnsupported for other names.
  static IAlgorithm* CreateFromFriendlyName(const SecureString& name, IAlgorithmParameters* parameters);
};

class XK_EXPORT ICryptoParserParameterMap {
 public:
  virtual ~ICryptoParserParameterMap();
  virtual void SetPadding(const SecureString& padding) = 0;
  virtual void SetChainingMode(const SecureString& mode) = 0;
  virtual void SetIV(const SecureByteVector& iv) = 0;
  virtual void SetKeyType(const SecureString& type) = 0;
  virtual void SetKeyLabel(const SecureString& label) = 0;
  virtual const SecureString& GetPadding() const = 0;
  virtual const SecureString& GetChainingMode() const = 0;
  virtual const SecureByteVector& GetIV() const = 0;
  virtual const SecureString& GetKeyType() const = 0;
  virtual const SecureString& GetKeyLabel() const = 0;
  static ICryptoParserParameterMap* Create();
};

class XK_EXPORT IKey {
 public:
  virtual ~IKey();
  virtual std::size_t GetSize() const = 0;
  virtual const SecureString& GetLabel() const = 0;
  // Copies the key bytes out (for tests and diagnostics).
  virtual SecureByteVector Export() const = 0;
  // A key of the algorithm from its bytes; `format` must be "RAW".
  static IKey* Create(IAlgorithm* algorithm, SecureString format, const SecureByteVector& bytes);
};

class XK_EXPORT KeyGenerator {
 public:
  virtual ~KeyGenerator();
  // A new key of `size` bytes drawn from the OpenSSL DRBG; it takes its label
  // from the map's key label. Throws kCryptoInvalidArgument for a size the
  // algorithm does not take.
  virtual IKey* GenerateKey(std::size_t size) = 0;
  static KeyGenerator* Create(IAlgorithm* algorithm, ICryptoParserParameterMap* map);
};

class XK_EXPORT Cipher {
 public:
  enum Direction : int { kEncrypt = 0, kDecrypt = 1 };
  virtual ~Cipher();
  // Direction 0 encrypts, 1 decrypts. The key is read here; it need not
  // outlive the cipher.
  virtual void Init(int direction, IKey* key) = 0;
  // Transforms all of `input` and replaces `output` with the result.
  virtual void DoFinal(const SecureByteVector& input, SecureByteVector& output) = 0;
  // The algorithm and map are read here; they need not outlive the cipher.
  static Cipher* Create(IAlgorithm* algorithm, ICryptoParserParameterMap* map);
};

}  // namespace Framework
}  // namespace QX

#endif
