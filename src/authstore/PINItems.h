#ifndef MERROWSTORE_AUTHSTORE_PINITEMS_H
#define MERROWSTORE_AUTHSTORE_PINITEMS_H

#include "xk/secure_types.h"

// The data ids of the four items of a cached PIN, each made once.
namespace PINItems {

inline const SecureString& Value() {
  static const SecureString sId("PINValue");
  return sId;
}
inline const SecureString& AlwaysState() {
  static const SecureString sId("PINAlwaysState");
  return sId;
}
inline const SecureString& BypassAlwaysState() {
  static const SecureString sId("PINBypassPINAlwaysState");
  return sId;
}
inline const SecureString& SessionId() {
  static const SecureString sId("PINSessionId");
  return sId;
}

}  // namespace PINItems

#endif
