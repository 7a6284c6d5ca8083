#ifndef MERROWSTORE_AUTHSTORE_TIMERCALLBACKFUNCTION_H
#define MERROWSTORE_AUTHSTORE_TIMERCALLBACKFUNCTION_H

#include "merrowstore/export.h"
#include "xk/oleauto.h"
#include "xk/timer.h"

class CInternalAuthStore;

// What an expiry timer needs to find its PIN again: the store (not owned),
// the caller that cached the PIN and copies of its three identifiers.
struct TimerCallbackData {
  CInternalAuthStore* pStore;
  unsigned int dwClientProcessId;
  BSTR bstrCompartmentId;
  BSTR bstrPINId;
  BSTR bstrPINSessionId;
};

// The expiry callback of one PIN's timer. The timer owns it and destroys it
// with itself; it owns its TimerCallbackData.
class MERROWSTORE_EXPORT CTimerCallbackFunction : public QX::Framework::ITimerCallbackFunction {
 public:
  // Takes pData over (may be NULL).
  explicit CTimerCallbackFunction(TimerCallbackData* pData);
  // Frees the three strings and the record.
  ~CTimerCallbackFunction() override;
  CTimerCallbackFunction(const CTimerCallbackFunction&) = delete;
  CTimerCallbackFunction& operator=(const CTimerCallbackFunction&) = delete;

  // On the timer's thread: false when the record lacks the store or an
  // identifier; otherwise removes the expired PIN
  // (RemoveExpiredPINFromPINSessionId) and returns true whatever that gave.
  bool InvokeFunction() override;

 private:
  TimerCallbackData* m_pData;
};

#endif
