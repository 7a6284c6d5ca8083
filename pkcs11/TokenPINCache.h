#ifndef MERROWSTORE_PKCS11_TOKENPINCACHE_H
#define MERROWSTORE_PKCS11_TOKENPINCACHE_H

#include <string>
#include <vector>

#include "merrowstore/StaticAuthCacheClient.h"

namespace QX {
namespace PKCS11 {

// A token's user PIN in the start-up PIN store, through the exported PIN
// client: compartment = the token's serial number, PIN id "CKU_USER". Holds no
// state; every call is one request to the store, which does its own locking.
class CTokenPINCache {
 public:
  // A PIN's bytes, wiped when they go.
  class PIN {
   public:
    PIN() = default;
    PIN(const unsigned char* data, unsigned long size) : m_Bytes(data, data + size) {}
    PIN(const PIN&) = delete;
    PIN& operator=(const PIN&) = delete;
    ~PIN();
    const unsigned char* Data() const { return m_Bytes.data(); }
    unsigned long Size() const { return static_cast<unsigned long>(m_Bytes.size()); }
    void Assign(const unsigned char* data, unsigned long size);
    // Compares in time that depends on the lengths only.
    bool Equals(const unsigned char* data, unsigned long size) const;

   private:
    std::vector<unsigned char> m_Bytes;
  };

  // What a read is for; each asks the store as the PIN store's table wants it.
  enum class Use {
    // A user login, with the cached PIN or checking a typed one against it:
    // Action=Authenticate. A login authenticates to the token, it is no use by
    // a key that asks for the PIN on every use, so the one-shot token stays as
    // it is for the signature that follows.
    kLogin,
    kPINAlways,  // a key that asks for the PIN on every use: IsACRPINAlways=Yes
  };

  // Caches pin with Action=Authenticate (the token just accepted it, so one use
  // by a key that asks for the PIN on every use may follow). False if the
  // store refused.
  bool Set(const std::string& serial, const PIN& pin) const;
  // Reads the cached PIN into *pin and what to do with it into *state; false
  // (pin and state untouched) when none is cached. A read restarts the PIN's
  // expiry timer.
  bool Get(const std::string& serial, Use use, PIN* pin, AuthStore::PINState* state) const;
  // Whether a PIN is cached, without touching its timer or its token.
  bool IsCached(const std::string& serial) const;
  // Removes the token's PIN; a PIN that is not there is no failure.
  void Remove(const std::string& serial) const;
  // Removes the token's compartment with everything in it.
  void RemoveCompartment(const std::string& serial) const;
};

}  // namespace PKCS11
}  // namespace QX

#endif
