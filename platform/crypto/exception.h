#ifndef XK_CRYPTO_EXCEPTION_H
#define XK_CRYPTO_EXCEPTION_H

#include <new>
#include <string>

#include "xk/crypto.h"
#include "xk/fault_point.h"

namespace xk {
namespace crypto {

// The one IException the service throws: a CryptoError code and a text that
// names the operation and what went wrong.
class CryptoException final : public QX::Framework::IException {
 public:
  CryptoException(unsigned int code, std::string message);
  unsigned int GetErrorCode() const override;
  const char* GetMessage() const override;

 private:
  unsigned int m_Code;
  std::string m_Message;
};

// Throws a new CryptoException with the text "<operation>: <what>".
[[noreturn]] void Throw(unsigned int code, const char* operation, const char* what);

// Throws kCryptoOperationFailed with the first OpenSSL error queued on this
// thread appended to `what`, and empties that queue so that nothing is left
// behind for the next OpenSSL user of the thread.
[[noreturn]] void ThrowOpenSsl(const char* operation, const char* what);

// Carries out an armed fault outcome. kThrow and kCode throw the armed code;
// kNull makes a factory return nullptr (true) and any other operation throw
// kCryptoOutOfMemory; kShortRead means nothing here (false).
bool ApplyFault(const char* operation, const xk::fault::Outcome& outcome, bool nullable);

// Entry of an operation without a pointer result.
inline void Enter(const char* operation) {
  const xk::fault::Outcome outcome = xk::fault::Check(operation);
  if (outcome.kind != xk::fault::Kind::kNone) ApplyFault(operation, outcome, false);
}

// Entry of a factory: true when an armed fault asks it to return nullptr.
inline bool EnterFactory(const char* operation) {
  const xk::fault::Outcome outcome = xk::fault::Check(operation);
  return outcome.kind != xk::fault::Kind::kNone && ApplyFault(operation, outcome, true);
}

// Runs `body` and turns an allocation failure inside it into
// kCryptoOutOfMemory, so that callers only ever see IException pointers.
template <typename Body>
decltype(auto) Guarded(const char* operation, Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    Throw(QX::Framework::kCryptoOutOfMemory, operation, "out of memory");
  }
}

}  // namespace crypto
}  // namespace xk

#endif
