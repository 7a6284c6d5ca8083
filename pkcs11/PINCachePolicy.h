#ifndef MERROWSTORE_PKCS11_PINCACHEPOLICY_H
#define MERROWSTORE_PKCS11_PINCACHEPOLICY_H

#include <p11-kit/pkcs11.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <string>

#include "TokenPINCache.h"

namespace QX {
namespace PKCS11 {

// Where the PIN cache meets the token: the calls of the function list that
// carry, change or need a user PIN, each given the token module's function
// list to call. One compartment per token (its serial number, trailing blanks
// trimmed) in the start-up PIN store.
//
// Logins, PIN changes and the expiry sweep are serialised by one lock held
// across the store's read and the token's answer, so a cached PIN the token
// refuses reaches the token once, however many threads retry. The table of
// tokens seen has a lock of its own, taken under (never around) the first.
class CPINCachePolicy {
 public:
  CPINCachePolicy() = default;
  CPINCachePolicy(const CPINCachePolicy&) = delete;
  CPINCachePolicy& operator=(const CPINCachePolicy&) = delete;

  // After the token module's C_GetTokenInfo succeeded: notes the token and,
  // while its PIN is cached, adds CKF_PROTECTED_AUTHENTICATION_PATH to
  // info->flags.
  void TokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info);

  // C_Login. CKU_USER with a PIN: the token decides; accepted, the PIN is
  // cached with Action=Authenticate; CKR_USER_ALREADY_LOGGED_IN becomes CKR_OK
  // if the PIN equals the cached one, else CKR_PIN_INCORRECT. CKU_USER with a
  // NULL PIN: the cached PIN is given to the token (CKR_PIN_INCORRECT, the
  // token not asked, when none is cached). CKU_CONTEXT_SPECIFIC with a NULL
  // PIN: the store is asked with IsACRPINAlways=Yes; only PINStateAvailable
  // logs in, prompt and confirm give CKR_PIN_INCORRECT so that the program
  // asks its user. Any PIN the token refuses (CKR_PIN_INCORRECT, CKR_PIN_LOCKED,
  // CKR_PIN_EXPIRED) that is the cached one is removed at once; a locked or
  // expired PIN removes the cached one whatever was typed. Other user types are
  // forwarded untouched.
  CK_RV Login(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin,
              CK_ULONG pinLen);
  // C_Logout. The cached PIN stays unless "Merrowstore.PKCS11.ForgetPINOnLogout"
  // is 1.
  CK_RV Logout(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session);
  // C_SetPIN. On success the new PIN replaces a cached user PIN (not when the
  // session is the security officer's, whose own PIN changed).
  CK_RV SetPIN(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen,
               CK_UTF8CHAR_PTR newPin, CK_ULONG newLen);
  // C_InitPIN and C_InitToken: on success the token's cached PIN is removed.
  CK_RV InitPIN(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
  CK_RV InitToken(CK_FUNCTION_LIST* token, CK_SLOT_ID slot, CK_UTF8CHAR_PTR soPin, CK_ULONG soPinLen,
                  CK_UTF8CHAR_PTR label);

  // Called before every call that opens a session or starts an operation: a
  // token we logged in whose PIN has left the cache (expired, wiped) is
  // logged out, so that nothing signs once the PIN is gone. Costs a clock
  // read and an atomic load until some PIN may have expired.
  void LogOutExpired(CK_FUNCTION_LIST* token) {
    if (std::time(nullptr) >= m_NextCheck.load(std::memory_order_relaxed)) Sweep(token);
  }
  // The token module was finalised: no token is logged in any more.
  void Finalized();

  // The report of MerrowstorePKCS11Status: one line per token seen, never a PIN.
  std::string Status() const;
  // Removes every token's compartment from the PIN store; tokens we logged in
  // are logged out at the next call.
  void Wipe();

 private:
  struct Token {
    CK_SLOT_ID slot = 0;
    std::string label;
    bool bLoggedIn = false;         // by a login through us
    bool bPIN = false;              // cached by us and not known gone
    std::int64_t llSeconds = -1;    // the PIN's timer duration; -1: never expires
    std::time_t deadline = 0;       // when the PIN expires unless used (bPIN, llSeconds >= 0)
  };
  static constexpr std::time_t kNever = INT64_MAX;

  // The token behind a session: its serial into *serial, noted in the table.
  CK_RV SessionToken(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, std::string* serial,
                     CK_SESSION_INFO* sessionInfo = nullptr);
  CK_RV LoginUser(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
  CK_RV LoginPINAlways(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session);
  // After a PIN refusal: removes the cached PIN if it was the one refused, or
  // whatever it is for a locked or expired PIN.
  void Refused(const std::string& serial, CK_RV rv, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
  void Cache(const std::string& serial, const CTokenPINCache::PIN& pin);
  void Forget(const std::string& serial);
  // The PIN was just read or set: its timer restarted.
  void Used(const std::string& serial, bool bLoggedIn);
  void Sweep(CK_FUNCTION_LIST* token);
  void UpdateNextCheck();  // m_TableMutex held

  CTokenPINCache m_Cache;
  std::mutex m_LoginMutex;
  mutable std::mutex m_TableMutex;
  std::map<std::string, Token> m_Tokens;  // by serial; guarded by m_TableMutex
  std::atomic<std::time_t> m_NextCheck{kNever};
};

}  // namespace PKCS11
}  // namespace QX

#endif
