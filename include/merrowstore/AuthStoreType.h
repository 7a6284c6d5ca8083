#ifndef MERROWSTORE_AUTHSTORETYPE_H
#define MERROWSTORE_AUTHSTORETYPE_H

// The enumerations of the PIN store. Their values are fixed: they cross the
// exported interface. Each has a 32-bit underlying type, so any number a
// caller passes is a valid value of the enumeration.

namespace QX {
namespace AuthStore {

// Where a PIN store keeps its PINs, and which key protects them.
enum AuthType : int {
  // A memory tree; an encrypted store makes a key of its own for this process.
  AuthTypeVolatile = 0,
  // A registry tree; an encrypted store uses the key of the key file. Any
  // other value also selects the key file's key, but a memory tree.
  AuthTypeRemanent = 1,
};

// What the caller of a PIN read has to do next.
enum PINState : int {
  // Prompt the user for the PIN. As a stored token state: "unavailable".
  PINStatePrompt = 0,
  // Use the cached PIN. As a stored token state: "available".
  PINStateAvailable = 1,
  // Ask the user for a confirmation only. Never stored.
  PINStateConfirm = 2,
};

}  // namespace AuthStore
}  // namespace QX

// Whether a PIN is private to one client process or shared by its session
// (setting "Merrowstore.Authentication.AllowPerProcess").
enum PinCachingMode : int {
  PinCachingPerProcess = 0,
  PinCachingPerSession = 1,
};

// What a spent PIN-always token calls for (setting
// "Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys").
enum PinAlwaysCachingMode : int {
  PinAlwaysPINPrompt = 0,
  PinAlwaysConfirmationPrompt = 1,
};

#endif
