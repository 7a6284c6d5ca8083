#include "TokenPINCache.h"

#include <cstring>

#include "xk/oleauto.h"

namespace QX {
namespace PKCS11 {

using AuthStore::AuthParameter;
using AuthStore::CStaticAuthCacheClient;
using AuthStore::PINState;

namespace {

// A BSTR of ours for the length of one request.
struct Text {
  explicit Text(const std::string& s) : bstr(SysAllocStringLen(s.data(), static_cast<unsigned int>(s.size()))) {}
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  ~Text() { SysFreeString(bstr); }
  BSTR bstr;
};

// One request parameter, NAME=VALUE.
struct Parameter {
  Parameter(const char* name, const char* value) : name(name), value(value), record{this->name.bstr, this->value.bstr} {}
  Text name, value;
  AuthParameter record;
};

const std::string kPINId = "CKU_USER";

// Takes the store's copy of a PIN: its bytes into *pin, the array wiped and
// destroyed.
void TakeValue(SAFEARRAY* value, CTokenPINCache::PIN* pin) {
  const unsigned long size = value->rgsabound[0].cElements;
  pin->Assign(static_cast<const unsigned char*>(value->pvData), size);
  if (size > 0) explicit_bzero(value->pvData, size);
  SafeArrayDestroy(value);
}

}  // namespace

CTokenPINCache::PIN::~PIN() {
  if (!m_Bytes.empty()) explicit_bzero(m_Bytes.data(), m_Bytes.size());
}

void CTokenPINCache::PIN::Assign(const unsigned char* data, unsigned long size) {
  if (!m_Bytes.empty()) explicit_bzero(m_Bytes.data(), m_Bytes.size());
  m_Bytes.assign(data, data + size);
}

bool CTokenPINCache::PIN::Equals(const unsigned char* data, unsigned long size) const {
  if (size != m_Bytes.size() || data == nullptr) return false;
  unsigned char diff = 0;
  for (unsigned long i = 0; i < size; ++i) diff |= static_cast<unsigned char>(m_Bytes[i] ^ data[i]);
  return diff == 0;
}

bool CTokenPINCache::Set(const std::string& serial, const PIN& pin) const {
  CStaticAuthCacheClient client;
  Text compartment(serial), pinId(kPINId);
  Parameter action("Action", "Authenticate");
  SAFEARRAY* value = SafeArrayCreateVector(VT_UI1, 0, pin.Size());
  if (value == nullptr) return false;
  if (pin.Size() > 0) std::memcpy(value->pvData, pin.Data(), pin.Size());
  SAFEARRAY* sessionId = nullptr;
  client.SetPIN(compartment.bstr, pinId.bstr, value, &action.record, 1, &sessionId);
  if (pin.Size() > 0) explicit_bzero(value->pvData, pin.Size());
  SafeArrayDestroy(value);
  // With parameters the client's result is that of their array: the session
  // id it hands out is the sign that the PIN was cached.
  if (sessionId == nullptr) return false;
  SafeArrayDestroy(sessionId);
  return true;
}

bool CTokenPINCache::Get(const std::string& serial, Use use, PIN* pin, PINState* state) const {
  CStaticAuthCacheClient client;
  Text compartment(serial), pinId(kPINId);
  Parameter parameter =
      use == Use::kPINAlways ? Parameter("IsACRPINAlways", "Yes") : Parameter("Action", "Authenticate");
  SAFEARRAY* value = nullptr;
  PINState got = AuthStore::PINStatePrompt;
  client.GetPINEx(compartment.bstr, pinId.bstr, &parameter.record, 1, &value, nullptr, &got);
  if (value == nullptr) return false;
  TakeValue(value, pin);
  *state = got;
  return true;
}

bool CTokenPINCache::IsCached(const std::string& serial) const {
  CStaticAuthCacheClient client;
  Text compartment(serial), pinId(kPINId);
  signed char cached = 0;
  return client.IsPINCached(compartment.bstr, pinId.bstr, nullptr, 0, nullptr, &cached) == S_OK && cached == 1;
}

void CTokenPINCache::Remove(const std::string& serial) const {
  CStaticAuthCacheClient client;
  Text compartment(serial), pinId(kPINId);
  client.RemovePIN(compartment.bstr, pinId.bstr, nullptr, 0);
}

void CTokenPINCache::RemoveCompartment(const std::string& serial) const {
  CStaticAuthCacheClient client;
  Text compartment(serial);
  client.RemoveCompartment(compartment.bstr, nullptr, 0);
}

}  // namespace PKCS11
}  // namespace QX
