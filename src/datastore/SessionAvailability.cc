#include "datastore/SessionAvailability.h"

#include "common/Module.h"
#include "xk/log.h"
#include "xk/registry.h"

namespace {

const char kHive[] = "HKEY_LOCAL_MACHINE";
const char kSettingsKey[] = "Software\\Norvane Co\\Merrowstore";
const char kTimeOutValue[] = "DisableTimeoutAfterEndSession";
const unsigned int kDefaultTimeOut = 15;

}  // namespace

CSessionAvailability::CSessionAvailability(const char* sClassName) : m_sClassName(sClassName) {}

HRESULT CSessionAvailability::SetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char bAvailabled) {
  xklogLog(MSTORE_MODULE, 8, "%s::SetAvailabilityStoreFromSessionId", m_sClassName);
  xklogLog(MSTORE_MODULE, 2, "%s::SetAvailabilityStoreFromSessionId dwSessionId = %d", m_sClassName,
           static_cast<int>(dwSessionId));
  xklogLog(MSTORE_MODULE, 2, "%s::SetAvailabilityStoreFromSessionId bAvailabled = %d", m_sClassName, bAvailabled);
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    m_SessionAvailability[dwSessionId] = bAvailabled;
    const long tTimeStamp = static_cast<long>(time(NULL));
    xklogLog(MSTORE_MODULE, 2, "%s::SetAvailabilityStoreFromSessionId tTimeStamp = %ld", m_sClassName, tTimeStamp);
    m_SessionTimeStamps[dwSessionId] = tTimeStamp;
  }
  xklogLog(MSTORE_MODULE, 16, "%s::SetAvailabilityStoreFromSessionId", m_sClassName);
  return S_OK;
}

// "DisableTimeoutAfterEndSession" in seconds; 0 when it can't be read.
unsigned int CSessionAvailability::ReadTimeOut() {
  unsigned int dwValue = 0;
  const int rc = qxRegReadDWORDValueEx(kHive, kSettingsKey, kTimeOutValue, &dwValue, 0);
  if (rc == 0) {
    xklogLog(MSTORE_MODULE, 2, "%s::GetAvailabilityStoreFromSessionId qxRegReadValue(%s) returned %d seconds",
             m_sClassName, kSettingsKey, static_cast<int>(dwValue));
    return dwValue;
  }
  xklogLog(MSTORE_MODULE, 2, "%s::GetAvailabilityStoreFromSessionId: qxRegReadValue failed : rc = %x", m_sClassName,
           static_cast<unsigned int>(rc));
  return 0;
}

HRESULT CSessionAvailability::GetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char& bAvailabled) {
  xklogLog(MSTORE_MODULE, 8, "%s::GetAvailabilityStoreFromSessionId dwSessionId = %d", m_sClassName,
           static_cast<int>(dwSessionId));
  signed char bAnswer = 1;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    auto itFlag = m_SessionAvailability.find(dwSessionId);
    auto itStamp = m_SessionTimeStamps.find(dwSessionId);
    // A session that nobody reported is available, and so is one whose flag is set.
    if (itFlag != m_SessionAvailability.end() && itStamp != m_SessionTimeStamps.end()) {
      bAnswer = itFlag->second;
      if (bAnswer == 0) {
        unsigned int dwTimeOut = ReadTimeOut();
        if (dwTimeOut == 0) dwTimeOut = kDefaultTimeOut;
        const long tTime1 = static_cast<long>(time(NULL));
        xklogLog(MSTORE_MODULE, 2, "%s::GetAvailabilityStoreFromSessionId: tTime1 = %ld", m_sClassName, tTime1);
        xklogLog(MSTORE_MODULE, 2, "%s::GetAvailabilityStoreFromSessionId: it1->second = %ld", m_sClassName,
                 itStamp->second);
        xklogLog(MSTORE_MODULE, 2, "%s::GetAvailabilityStoreFromSessionId: dwTimeOut = %d", m_sClassName,
                 static_cast<int>(dwTimeOut));
        // Signed 64-bit difference: a clock set back keeps the session locked out
        // until the stored moment is reached again and the timeout has passed.
        if (static_cast<long long>(tTime1) - static_cast<long long>(itStamp->second) >=
            static_cast<long long>(dwTimeOut)) {
          itFlag->second = 1;
          itStamp->second = tTime1;
          bAnswer = 1;
        }
      }
    }
  }
  bAvailabled = bAnswer;
  xklogLog(MSTORE_MODULE, 16, "%s::GetAvailabilityStoreFromSessionId bAvailabled = %d", m_sClassName, bAvailabled);
  return S_OK;
}

void CSessionAvailability::Clear() {
  std::lock_guard<std::mutex> lock(m_Lock);
  m_SessionAvailability.clear();
  m_SessionTimeStamps.clear();
}
