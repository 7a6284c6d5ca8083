// A middleware's use of Merrowstore, built against the installed package.
//
// The card verifies the user's PIN once; the middleware caches it, and before
// each signature asks the cache instead of the user. Beside it the middleware
// keeps the card's certificate in a data store, and reads the compartment's
// version counters to know when its own copy is stale.
#include <cstring>
#include <iostream>
#include <string>

#include "merrowstore/StaticAuthCacheClient.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "xk/oleauto.h"

namespace {

using namespace QX::AuthStore;
using QX::DataStore::CStaticDataCacheClient;

char kCard[] = "card-0042";
char kStore[] = "MiddlewareCache";
char kProduct[] = "Middleware";

SAFEARRAY* Bytes(const std::string& text) {
  SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, text.size());
  if (array != nullptr && !text.empty()) std::memcpy(array->pvData, text.data(), text.size());
  return array;
}

std::string Text(SAFEARRAY* array) {
  return array == nullptr ? "" : std::string(static_cast<char*>(array->pvData), array->rgsabound[0].cElements);
}

// The card has just accepted the PIN: cache it with a fresh one-shot token.
bool PINVerifiedByCard(const std::string& pin) {
  CStaticAuthCacheClient client;
  BSTR card = SysAllocString(kCard), pinId = SysAllocString("user-pin");
  AuthParameter action = {SysAllocString("Action"), SysAllocString("Authenticate")};
  SAFEARRAY* value = Bytes(pin);
  SAFEARRAY* sessionId = nullptr;
  client.SetPIN(card, pinId, value, &action, 1, &sessionId);
  const bool cached = sessionId != nullptr;  // with parameters, the outputs tell
  SafeArrayDestroy(sessionId);
  SafeArrayDestroy(value);
  SysFreeString(action.bstrName), SysFreeString(action.bstrValue), SysFreeString(card), SysFreeString(pinId);
  return cached;
}

// Before a signature: "available" means sign with the cached PIN; otherwise
// the user must be asked (for the PIN, or for a confirmation).
const char* PINForSignature(bool pinOnEveryUse, std::string& pin) {
  CStaticAuthCacheClient client;
  BSTR card = SysAllocString(kCard), pinId = SysAllocString("user-pin");
  AuthParameter acr = {SysAllocString("IsACRPINAlways"), SysAllocString(pinOnEveryUse ? "Yes" : "No")};
  SAFEARRAY* value = nullptr;
  PINState state = PINStatePrompt;
  client.GetPINEx(card, pinId, &acr, 1, &value, nullptr, &state);
  if (value == nullptr) state = PINStatePrompt;  // nothing cached
  pin = Text(value);
  SafeArrayDestroy(value);
  SysFreeString(acr.bstrName), SysFreeString(acr.bstrValue), SysFreeString(card), SysFreeString(pinId);
  return state == PINStateAvailable ? "available" : state == PINStateConfirm ? "confirm" : "prompt";
}

// The compartment's content version: it moves whenever an item under it changes.
unsigned long ContentVersion(CStaticDataCacheClient& client) {
  unsigned long compartment = 0, content = 0;
  signed char cached = 0;
  client.IsCompartmentCached(kStore, kCard, &compartment, &content, &cached);
  return content;
}

}  // namespace

int main() {
  // A shared memory store of the middleware's own (stores can also come from
  // the registry catalogue that the library reads when it loads).
  if (FAILED(CStaticDataCacheClient::RegisterDataStore(kStore, QX::DataStore::TypeMemory, 0, 1, kProduct))) {
    std::cerr << "cannot register the data store\n";
    return 1;
  }
  if (!PINVerifiedByCard("123456")) {
    std::cerr << "cannot cache the PIN\n";
    return 1;
  }
  std::string pin;
  // The verification's token serves one signature by a key that asks for the
  // PIN on every use; the next such signature must ask the user again. An
  // ordinary key keeps using the cached PIN until it expires.
  std::cout << "PIN-always key: " << PINForSignature(true, pin) << " (" << pin << ")\n";
  std::cout << "PIN-always key again: " << PINForSignature(true, pin) << "\n";
  std::cout << "ordinary key: " << PINForSignature(false, pin) << "\n";

  CStaticDataCacheClient data;
  char certificateId[] = "certificate";
  SAFEARRAY* certificate = Bytes("30 82 01 0a ...");
  const unsigned long before = ContentVersion(data);
  HRESULT hr = data.SetData(kStore, kCard, certificateId, certificate);
  SafeArrayDestroy(certificate);
  const unsigned long after = ContentVersion(data);
  SAFEARRAY* read = nullptr;
  if (SUCCEEDED(hr)) hr = data.GetData(kStore, kCard, certificateId, &read);
  std::cout << "certificate: " << Text(read) << ", content version " << before << " -> " << after << "\n";
  SafeArrayDestroy(read);
  return SUCCEEDED(hr) && after != before ? 0 : 1;
}
