#include "authstore/TimerCallbackFunction.h"

#include "authstore/InternalAuthStore.h"

CTimerCallbackFunction::CTimerCallbackFunction(TimerCallbackData* pData) : m_pData(pData) {}

CTimerCallbackFunction::~CTimerCallbackFunction() {
  if (m_pData == NULL) return;
  qxSysFreeString(m_pData->bstrCompartmentId, 0);
  qxSysFreeString(m_pData->bstrPINId, 0);
  qxSysFreeString(m_pData->bstrPINSessionId, 0);
  delete m_pData;
  m_pData = NULL;
}

bool CTimerCallbackFunction::InvokeFunction() {
  if (m_pData == NULL || m_pData->pStore == NULL || m_pData->bstrCompartmentId == NULL ||
      m_pData->bstrPINId == NULL || m_pData->bstrPINSessionId == NULL)
    return false;
  m_pData->pStore->RemoveExpiredPINFromPINSessionId(m_pData->dwClientProcessId, m_pData->bstrCompartmentId,
                                                    m_pData->bstrPINId, m_pData->bstrPINSessionId);
  return true;
}
