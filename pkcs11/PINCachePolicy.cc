#include "PINCachePolicy.h"

#include <algorithm>
#include <climits>

#include "Log.h"
#include "xk/log.h"
#include "xk/settings.h"

namespace QX {
namespace PKCS11 {

using AuthStore::PINState;
using PIN = CTokenPINCache::PIN;

namespace {

bool IsPINRefusal(CK_RV rv) { return rv == CKR_PIN_INCORRECT || rv == CKR_PIN_LOCKED || rv == CKR_PIN_EXPIRED; }

// A blank-padded field of the token information, without its padding.
std::string Trimmed(const unsigned char* field, std::size_t size) {
  while (size > 0 && (field[size - 1] == ' ' || field[size - 1] == '\0')) --size;
  return std::string(reinterpret_cast<const char*>(field), size);
}

std::int64_t SettingInt(const char* name, std::int64_t fallback) {
  QX::Framework::XKData value;
  if (GetSettingValue(SecureString(name), value, nullptr) < 0 && value.IsEmpty()) return fallback;
  return value.Int();
}

// The life of a PIN timer made now, as the PIN store makes it from
// "Merrowstore.Authentication.Timeout": 0 minutes is 5 seconds, the lowest
// 32-bit number never expires (-1 here), any other number is minutes * 60 in
// 32 bits.
std::int64_t TimerSeconds() {
  const auto minutes = static_cast<std::int32_t>(SettingInt("Merrowstore.Authentication.Timeout", 15));
  if (minutes == INT32_MIN) return -1;
  if (minutes == 0) return 5;
  return static_cast<std::uint32_t>(minutes) * 60u;
}

const char* StateName(PINState state) {
  return state == AuthStore::PINStateAvailable ? "available"
         : state == AuthStore::PINStateConfirm ? "confirm"
                                               : "prompt";
}

}  // namespace

void CPINCachePolicy::TokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
  const std::string serial = Trimmed(info->serialNumber, sizeof info->serialNumber);
  {
    std::lock_guard<std::mutex> lock(m_TableMutex);
    Token& t = m_Tokens[serial];
    t.slot = slot;
    t.label = Trimmed(info->label, sizeof info->label);
  }
  if (m_Cache.IsCached(serial)) info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
}

CK_RV CPINCachePolicy::SessionToken(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, std::string* serial,
                                    CK_SESSION_INFO* sessionInfo) {
  CK_SESSION_INFO si = {};
  CK_RV rv = token->C_GetSessionInfo(session, &si);
  if (rv != CKR_OK) return rv;
  CK_TOKEN_INFO info = {};
  rv = token->C_GetTokenInfo(si.slotID, &info);
  if (rv != CKR_OK) return rv;
  *serial = Trimmed(info.serialNumber, sizeof info.serialNumber);
  if (sessionInfo != nullptr) *sessionInfo = si;
  std::lock_guard<std::mutex> lock(m_TableMutex);
  Token& t = m_Tokens[*serial];
  t.slot = si.slotID;
  t.label = Trimmed(info.label, sizeof info.label);
  return CKR_OK;
}

CK_RV CPINCachePolicy::Login(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, CK_USER_TYPE userType,
                             CK_UTF8CHAR_PTR pin, CK_ULONG pinLen) {
  std::lock_guard<std::mutex> lock(m_LoginMutex);
  if (userType == CKU_USER) return LoginUser(token, session, pin, pinLen);
  if (userType == CKU_CONTEXT_SPECIFIC && pin == nullptr) return LoginPINAlways(token, session);
  const CK_RV rv = token->C_Login(session, userType, pin, pinLen);
  std::string serial;
  if (userType == CKU_CONTEXT_SPECIFIC && IsPINRefusal(rv) && SessionToken(token, session, &serial) == CKR_OK)
    Refused(serial, rv, pin, pinLen);
  return rv;
}

CK_RV CPINCachePolicy::LoginUser(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR pin,
                                 CK_ULONG pinLen) {
  std::string serial;
  if (pin == nullptr) {
    // The program leaves the PIN to us: the cached one, or nothing.
    CK_RV rv = SessionToken(token, session, &serial);
    if (rv != CKR_OK) return rv;
    PIN cached;
    PINState state;
    if (!m_Cache.Get(serial, CTokenPINCache::Use::kLogin, &cached, &state)) {
      xklogLog(MSTORE_PKCS11_MODULE, xk::log::kDetail, "C_Login token %s no PIN cached", serial.c_str());
      return CKR_PIN_INCORRECT;
    }
    rv = token->C_Login(session, CKU_USER, const_cast<CK_UTF8CHAR_PTR>(cached.Data()), cached.Size());
    if (rv == CKR_OK || rv == CKR_USER_ALREADY_LOGGED_IN) {
      Used(serial, true);
      return CKR_OK;
    }
    if (IsPINRefusal(rv)) {
      xklogLog(MSTORE_PKCS11_MODULE, xk::log::kFailure, "C_Login token %s refused the cached PIN (0x%lx): removed",
               serial.c_str(), static_cast<unsigned long>(rv));
      Forget(serial);
    }
    return rv;
  }
  const CK_RV rv = token->C_Login(session, CKU_USER, pin, pinLen);
  if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN && !IsPINRefusal(rv)) return rv;
  const CK_RV found = SessionToken(token, session, &serial);
  if (found != CKR_OK) return rv == CKR_USER_ALREADY_LOGGED_IN ? CKR_PIN_INCORRECT : rv;
  if (IsPINRefusal(rv)) {
    Refused(serial, rv, pin, pinLen);
    return rv;
  }
  if (rv == CKR_USER_ALREADY_LOGGED_IN) {
    // Logged in for another client: the PIN is checked against the one that
    // logged in, never waved through.
    PIN cached;
    PINState state;
    if (!m_Cache.Get(serial, CTokenPINCache::Use::kLogin, &cached, &state) || !cached.Equals(pin, pinLen)) {
      xklogLog(MSTORE_PKCS11_MODULE, xk::log::kDetail, "C_Login token %s already logged in: the PIN differs",
               serial.c_str());
      return CKR_PIN_INCORRECT;
    }
  }
  Cache(serial, PIN(pin, pinLen));
  return CKR_OK;
}

CK_RV CPINCachePolicy::LoginPINAlways(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session) {
  std::string serial;
  CK_RV rv = SessionToken(token, session, &serial);
  if (rv != CKR_OK) return rv;
  PIN cached;
  PINState state;
  if (!m_Cache.Get(serial, CTokenPINCache::Use::kPINAlways, &cached, &state)) return CKR_PIN_INCORRECT;
  Used(serial, false);
  xklogLog(MSTORE_PKCS11_MODULE, xk::log::kDetail, "C_Login CKU_CONTEXT_SPECIFIC token %s PINState = %s",
           serial.c_str(), StateName(state));
  if (state != AuthStore::PINStateAvailable) return CKR_PIN_INCORRECT;
  rv = token->C_Login(session, CKU_CONTEXT_SPECIFIC, const_cast<CK_UTF8CHAR_PTR>(cached.Data()), cached.Size());
  if (IsPINRefusal(rv)) {
    xklogLog(MSTORE_PKCS11_MODULE, xk::log::kFailure, "C_Login token %s refused the cached PIN (0x%lx): removed",
             serial.c_str(), static_cast<unsigned long>(rv));
    Forget(serial);
  }
  return rv;
}

void CPINCachePolicy::Refused(const std::string& serial, CK_RV rv, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen) {
  PIN cached;
  PINState state;
  if (rv != CKR_PIN_INCORRECT ||
      (m_Cache.Get(serial, CTokenPINCache::Use::kLogin, &cached, &state) && cached.Equals(pin, pinLen))) {
    xklogLog(MSTORE_PKCS11_MODULE, xk::log::kDetail, "C_Login token %s refused the PIN (0x%lx): cached PIN removed",
             serial.c_str(), static_cast<unsigned long>(rv));
    Forget(serial);
  }
}

CK_RV CPINCachePolicy::Logout(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session) {
  std::lock_guard<std::mutex> lock(m_LoginMutex);
  std::string serial;
  const bool found = SessionToken(token, session, &serial) == CKR_OK;
  const CK_RV rv = token->C_Logout(session);
  if (rv != CKR_OK || !found) return rv;
  {
    std::lock_guard<std::mutex> table(m_TableMutex);
    m_Tokens[serial].bLoggedIn = false;
    UpdateNextCheck();
  }
  if (SettingInt("Merrowstore.PKCS11.ForgetPINOnLogout", 0) == 1) Forget(serial);
  return rv;
}

CK_RV CPINCachePolicy::SetPIN(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin,
                              CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin, CK_ULONG newLen) {
  std::lock_guard<std::mutex> lock(m_LoginMutex);
  const CK_RV rv = token->C_SetPIN(session, oldPin, oldLen, newPin, newLen);
  std::string serial;
  CK_SESSION_INFO si = {};
  if (rv != CKR_OK || newPin == nullptr || SessionToken(token, session, &serial, &si) != CKR_OK) return rv;
  // In the security officer's session the officer's own PIN changed.
  if (si.state != CKS_RW_SO_FUNCTIONS && m_Cache.IsCached(serial)) Cache(serial, PIN(newPin, newLen));
  return rv;
}

CK_RV CPINCachePolicy::InitPIN(CK_FUNCTION_LIST* token, CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR pin,
                               CK_ULONG pinLen) {
  std::lock_guard<std::mutex> lock(m_LoginMutex);
  const CK_RV rv = token->C_InitPIN(session, pin, pinLen);
  std::string serial;
  if (rv == CKR_OK && SessionToken(token, session, &serial) == CKR_OK) Forget(serial);
  return rv;
}

CK_RV CPINCachePolicy::InitToken(CK_FUNCTION_LIST* token, CK_SLOT_ID slot, CK_UTF8CHAR_PTR soPin, CK_ULONG soPinLen,
                                 CK_UTF8CHAR_PTR label) {
  std::lock_guard<std::mutex> lock(m_LoginMutex);
  CK_TOKEN_INFO info = {};
  const bool known = token->C_GetTokenInfo(slot, &info) == CKR_OK;
  const CK_RV rv = token->C_InitToken(slot, soPin, soPinLen, label);
  if (rv == CKR_OK && known) Forget(Trimmed(info.serialNumber, sizeof info.serialNumber));
  return rv;
}

void CPINCachePolicy::Cache(const std::string& serial, const PIN& pin) {
  if (!m_Cache.Set(serial, pin)) {
    xklogLog(MSTORE_PKCS11_MODULE, xk::log::kFailure, "C_Login token %s the PIN store did not cache the PIN",
             serial.c_str());
    return;
  }
  {
    // A PIN that replaces a live one keeps its timer, and the timer its life.
    std::lock_guard<std::mutex> table(m_TableMutex);
    Token& t = m_Tokens[serial];
    if (!t.bPIN || (t.llSeconds >= 0 && std::time(nullptr) >= t.deadline)) t.llSeconds = TimerSeconds();
  }
  Used(serial, true);
}

void CPINCachePolicy::Used(const std::string& serial, bool bLoggedIn) {
  std::lock_guard<std::mutex> table(m_TableMutex);
  Token& t = m_Tokens[serial];
  t.bPIN = true;
  t.bLoggedIn = t.bLoggedIn || bLoggedIn;
  if (t.llSeconds >= 0) t.deadline = std::time(nullptr) + t.llSeconds;
  UpdateNextCheck();
}

void CPINCachePolicy::Forget(const std::string& serial) {
  m_Cache.Remove(serial);
  std::lock_guard<std::mutex> table(m_TableMutex);
  m_Tokens[serial].bPIN = false;
  UpdateNextCheck();
}

void CPINCachePolicy::UpdateNextCheck() {
  std::time_t next = kNever;
  for (const auto& [serial, t] : m_Tokens) {
    if (!t.bLoggedIn) continue;
    next = std::min(next, !t.bPIN ? std::time_t{0} : t.llSeconds < 0 ? kNever : t.deadline);
  }
  m_NextCheck.store(next, std::memory_order_relaxed);
}

void CPINCachePolicy::Sweep(CK_FUNCTION_LIST* token) {
  std::lock_guard<std::mutex> lock(m_LoginMutex);
  const std::time_t now = std::time(nullptr);
  std::map<std::string, Token> due;
  {
    std::lock_guard<std::mutex> table(m_TableMutex);
    for (const auto& [serial, t] : m_Tokens)
      if (t.bLoggedIn && (!t.bPIN || (t.llSeconds >= 0 && t.deadline <= now))) due.emplace(serial, t);
  }
  for (const auto& [serial, t] : due) {
    const bool cached = t.bPIN && m_Cache.IsCached(serial);
    if (!cached) {
      // The PIN is gone: so is the login it made.
      CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
      if (token->C_OpenSession(t.slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session) == CKR_OK) {
        token->C_Logout(session);
        token->C_CloseSession(session);
      }
      xklogLog(MSTORE_PKCS11_MODULE, xk::log::kDetail, "token %s logged out: its PIN left the cache", serial.c_str());
    }
    std::lock_guard<std::mutex> table(m_TableMutex);
    Token& current = m_Tokens[serial];
    if (cached) {
      current.deadline = now + 1;  // the timer is about to fire, or was restarted elsewhere
    } else {
      current.bLoggedIn = false;
      current.bPIN = false;
    }
  }
  std::lock_guard<std::mutex> table(m_TableMutex);
  UpdateNextCheck();
}

void CPINCachePolicy::Finalized() {
  std::lock_guard<std::mutex> table(m_TableMutex);
  for (auto& [serial, t] : m_Tokens) t.bLoggedIn = false;
  UpdateNextCheck();
}

std::string CPINCachePolicy::Status() const {
  std::lock_guard<std::mutex> table(m_TableMutex);
  std::string report;
  for (const auto& [serial, t] : m_Tokens) {
    report += "token " + serial + " \"" + t.label + "\" pin ";
    if (!m_Cache.IsCached(serial)) {
      report += "none\n";
      continue;
    }
    char expires[32] = "never";
    struct tm utc;
    if (t.llSeconds >= 0 && gmtime_r(&t.deadline, &utc) != nullptr)
      std::strftime(expires, sizeof expires, "%Y-%m-%dT%H:%M:%SZ", &utc);
    report += std::string("cached expires ") + expires + "\n";
  }
  return report;
}

void CPINCachePolicy::Wipe() {
  std::lock_guard<std::mutex> lock(m_LoginMutex);
  std::lock_guard<std::mutex> table(m_TableMutex);
  for (auto& [serial, t] : m_Tokens) {
    m_Cache.RemoveCompartment(serial);
    t.bPIN = false;
  }
  UpdateNextCheck();
}

}  // namespace PKCS11
}  // namespace QX
