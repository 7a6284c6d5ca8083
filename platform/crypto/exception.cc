#include "exception.h"

#include <openssl/err.h>

#include <utility>

namespace QX {
namespace Framework {

IException::~IException() = default;

}  // namespace Framework
}  // namespace QX

namespace xk {
namespace crypto {

CryptoException::CryptoException(unsigned int code, std::string message)
    : m_Code(code), m_Message(std::move(message)) {}

unsigned int CryptoException::GetErrorCode() const { return m_Code; }

const char* CryptoException::GetMessage() const { return m_Message.c_str(); }

void Throw(unsigned int code, const char* operation, const char* what) {
  std::string message(operation);
  message += ": ";
  message += what;
  throw static_cast<QX::Framework::IException*>(new CryptoException(code, std::move(message)));
}

void ThrowOpenSsl(const char* operation, const char* what) {
  std::string text(what);
  const unsigned long error = ERR_peek_error();
  if (error != 0) {
    char reason[256];
    ERR_error_string_n(error, reason, sizeof reason);
    text += " (";
    text += reason;
    text += ")";
  }
  ERR_clear_error();
  Throw(QX::Framework::kCryptoOperationFailed, operation, text.c_str());
}

bool ApplyFault(const char* operation, const xk::fault::Outcome& outcome, bool nullable) {
  switch (outcome.kind) {
    case xk::fault::Kind::kThrow:
    case xk::fault::Kind::kCode:
      Throw(static_cast<unsigned int>(outcome.code), operation, "injected fault");
    case xk::fault::Kind::kNull:
      if (nullable) return true;
      Throw(QX::Framework::kCryptoOutOfMemory, operation, "injected allocation failure");
    case xk::fault::Kind::kNone:
    case xk::fault::Kind::kShortRead:
      break;
  }
  return false;
}

}  // namespace crypto
}  // namespace xk
