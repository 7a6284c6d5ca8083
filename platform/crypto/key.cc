#include "key.h"

#include <cstring>
#include <memory>
#include <typeinfo>

#include "algorithm.h"
#include "exception.h"

namespace xk {
namespace crypto {

ContextPool::~ContextPool() { Close(); }

EVP_CIPHER_CTX* ContextPool::Take(unsigned slot) { return m_Contexts[slot].exchange(nullptr); }

void ContextPool::GiveBack(unsigned slot, EVP_CIPHER_CTX* context) {
  EVP_CIPHER_CTX* empty = nullptr;
  if (m_Contexts[slot].compare_exchange_strong(empty, context)) {
    // Kept, unless Close ran meanwhile: whoever of the two takes the context
    // out of the slot again frees it. (All operations are sequentially
    // consistent: Close either sees the context in the slot or is seen here.)
    if (!m_Closed.load()) return;
    context = m_Contexts[slot].exchange(nullptr);
  }
  EVP_CIPHER_CTX_free(context);
}

void ContextPool::Close() {
  m_Closed.store(true);
  for (std::atomic<EVP_CIPHER_CTX*>& slot : m_Contexts) EVP_CIPHER_CTX_free(slot.exchange(nullptr));
}

Key::Key(std::size_t size, const SecureString& label)
    : m_Bytes(size), m_Label(label), m_Contexts(std::make_shared<ContextPool>()) {}

Key::~Key() { m_Contexts->Close(); }

std::size_t Key::GetSize() const {
  Enter("IKey::GetSize");
  return m_Bytes.Size();
}

const SecureString& Key::GetLabel() const {
  Enter("IKey::GetLabel");
  return m_Label;
}

SecureByteVector Key::Export() const {
  static constexpr const char* kOperation = "IKey::Export";
  Enter(kOperation);
  return Guarded(kOperation, [this] { return SecureByteVector(m_Bytes.Data(), m_Bytes.Data() + m_Bytes.Size()); });
}

const Key& Key::From(const QX::Framework::IKey* key, const char* operation) {
  if (key == nullptr) Throw(QX::Framework::kCryptoInvalidArgument, operation, "NULL key");
  // The class is final: an object of this library has exactly its type,
  // which a type comparison tells more cheaply than a cast search.
  if (typeid(*key) != typeid(Key)) {
    Throw(QX::Framework::kCryptoInvalidArgument, operation, "key not made by this library");
  }
  return static_cast<const Key&>(*key);
}

}  // namespace crypto
}  // namespace xk

namespace QX {
namespace Framework {

IKey::~IKey() = default;

IKey* IKey::Create(IAlgorithm* algorithm, SecureString format, const SecureByteVector& bytes) {
  static constexpr const char* kOperation = "IKey::Create";
  if (xk::crypto::EnterFactory(kOperation)) return nullptr;
  xk::crypto::Algorithm::From(algorithm, kOperation);
  // "RAW" is the only format: the key bytes as they stand.
  if (format != "RAW") xk::crypto::Throw(kCryptoInvalidArgument, kOperation, "unknown key format");
  if (!xk::crypto::Algorithm::TakesKeySize(bytes.size())) {
    xk::crypto::Throw(kCryptoInvalidArgument, kOperation, "key size not 16, 24 or 32 bytes");
  }
  return xk::crypto::Guarded(kOperation, [&] {
    auto key = std::make_unique<xk::crypto::Key>(bytes.size(), SecureString());
    std::memcpy(key->Bytes(), bytes.data(), bytes.size());
    return key.release();
  });
}

}  // namespace Framework
}  // namespace QX
