// CInternalAuthStore: the three settings and the additional parameters of a
// request. Nothing here uses the store or takes its mutex.
#include <cstdint>
#include <cstring>
#include <string_view>

#include "authstore/InternalAuthStore.h"
#include "common/FctUtils.h"
#include "common/Module.h"
#include "xk/log.h"
#include "xk/settings.h"

namespace {

const char kAllowPerProcess[] = "Merrowstore.Authentication.AllowPerProcess";
const char kTimeout[] = "Merrowstore.Authentication.Timeout";
const char kPINAlways[] = "Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys";

// The setting's number; what the settings service returns is not looked at.
// Each name is made once: a setting is read on every PIN set and read.
std::int64_t ReadSetting(const SecureString& sName) {
  QX::Framework::XKData data;
  GetSettingValue(sName, data, nullptr);
  return data.Int();
}

const SecureString& AllowPerProcessName() {
  static const SecureString sName(kAllowPerProcess);
  return sName;
}

const SecureString& TimeoutName() {
  static const SecureString sName(kTimeout);
  return sName;
}

const SecureString& PINAlwaysName() {
  static const SecureString sName(kPINAlways);
  return sName;
}

}  // namespace

HRESULT CInternalAuthStore::GetPINCachingMode(PinCachingMode& enPinCachingMode) {
  enPinCachingMode = PinCachingPerSession;
  const std::int64_t nValue = ReadSetting(AllowPerProcessName());
  if (nValue == 1) {
    enPinCachingMode = PinCachingPerProcess;
    xklogLog(MSTORE_MODULE, 2,
             "CInternalAuthStore::GetPINCachingMode GetSettingValue(%s,...) returned Active mode = Allow per Process",
             kAllowPerProcess);
  } else if (nValue == 0) {
    enPinCachingMode = PinCachingPerSession;
    xklogLog(MSTORE_MODULE, 2,
             "CInternalAuthStore::GetPINCachingMode GetSettingValue(%s,...) returned Active mode = Allow per Session",
             kAllowPerProcess);
  }
  return S_OK;
}

HRESULT CInternalAuthStore::GetPINCachingTimeout(int& nTimeout) {
  // Read and dropped: the mode lines show in the log before the timeout.
  PinCachingMode enUnused = PinCachingPerSession;
  GetPINCachingMode(enUnused);
  nTimeout = static_cast<int>(static_cast<std::uint32_t>(ReadSetting(TimeoutName())));
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::GetPINCachingTimeout GetSettingValue(%s, ...) returned %d minutes",
           kTimeout, nTimeout);
  return S_OK;
}

HRESULT CInternalAuthStore::GetPINAlwaysCachingMode(PinAlwaysCachingMode& enPinAlwaysCachingMode) {
  enPinAlwaysCachingMode = PinAlwaysPINPrompt;
  xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::GetPINAlwaysCachingMode Reading %s ", kPINAlways);
  const std::int64_t nValue = ReadSetting(PINAlwaysName());
  if (nValue == 1) {
    enPinAlwaysCachingMode = PinAlwaysConfirmationPrompt;
    xklogLog(MSTORE_MODULE, 2,
             "CInternalAuthStore::GetPINAlwaysCachingMode GetSettingValue(%s) returned Active PIN Always mode = "
             "Confirmation Prompt",
             kPINAlways);
  } else if (nValue == 0) {
    xklogLog(MSTORE_MODULE, 2,
             "CInternalAuthStore::GetPINAlwaysCachingMode GetSettingValue(%s) returned Active PIN Always mode = PIN "
             "Prompt",
             kPINAlways);
  }
  return S_OK;
}

HRESULT CInternalAuthStore::GetAdditionalParameters(SAFEARRAY* pAdditionalParameters, SecureString& sIsACRPINAlways,
                                                    SecureString& sAction, SecureString& sAllProcess,
                                                    SecureString& sAllSession, SecureString& sCheckClientCaller,
                                                    SecureString& sBypassPINAlways) {
  sIsACRPINAlways.assign("No", 2);
  sAction.assign("None", 4);
  sAllProcess.assign("False", 5);
  sAllSession.assign("False", 5);
  sCheckClientCaller.assign("Yes", 3);
  sBypassPINAlways.assign("False", 5);
  if (pAdditionalParameters == NULL) {
    // The ordinary request without parameters, logged at the failure level.
    xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetAdditionalParameters NULL == pAdditionalParameters");
    return S_OK;
  }
  VARTYPE vt = VT_EMPTY;
  HRESULT hr = SafeArrayGetVartype(pAdditionalParameters, &vt);
  if (vt != VT_BSTR) {
    xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::GetAdditionalParameters bad VARTYPE for pAdditionalParameters");
    return hr;
  }
  SecureString* const outputs[] = {&sIsACRPINAlways, &sAction,           &sAllProcess,
                                   &sAllSession,     &sCheckClientCaller, &sBypassPINAlways};
  // The names with their lengths: a name is compared by length first.
  static constexpr std::string_view names[] = {"IsACRPINAlways", "Action",            "AllProcess",
                                               "AllSession",     "CheckClientCaller", "BypassPINAlways"};
  const unsigned long ulCount =
      pAdditionalParameters->cDims > 0 ? pAdditionalParameters->rgsabound[0].cElements : 0;
  // Name and value carry over from one pair to the next when a read fails.
  SecureString sName;
  SecureString sValue;
  for (unsigned long i = 0; i < ulCount; i += 2) {
    int nIndex = static_cast<int>(i);
    BSTR bstrName = NULL;
    if (SUCCEEDED(SafeArrayGetElement(pAdditionalParameters, &nIndex, &bstrName)) && bstrName != NULL) {
      const HRESULT hrName = BSTR2wstring(bstrName, sName);
      qxSysFreeString(bstrName, 0);
      if (FAILED(hrName)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetAdditionalParameters wrong parameter in pAdditionalParameters");
        return hrName;
      }
    }
    nIndex = static_cast<int>(i + 1);
    BSTR bstrValue = NULL;
    hr = SafeArrayGetElement(pAdditionalParameters, &nIndex, &bstrValue);
    if (SUCCEEDED(hr) && bstrValue != NULL) {
      hr = BSTR2wstring(bstrValue, sValue);
      qxSysFreeString(bstrValue, 0);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CInternalAuthStore::GetAdditionalParameters wrong parameter in pAdditionalParameters");
        return hr;
      }
    }
    xklogLog(MSTORE_MODULE, 2, "CInternalAuthStore::GetAdditionalParameters %s = %s", sName.c_str(), sValue.c_str());
    for (std::size_t k = 0; k < sizeof names / sizeof names[0]; ++k) {
      if (sName.size() == names[k].size() && std::memcmp(sName.data(), names[k].data(), names[k].size()) == 0) {
        *outputs[k] = sValue;
        break;
      }
    }
  }
  return hr;
}
