#ifndef MERROWSTORE_DATASTORE_SESSIONAVAILABILITY_H
#define MERROWSTORE_DATASTORE_SESSIONAVAILABILITY_H

#include <ctime>
#include <map>
#include <mutex>

#include "xk/hresult.h"

// The availability flag of each user session of a store, with the time of its
// last change. A session nobody reported is available; a session marked
// unavailable comes back by itself once "DisableTimeoutAfterEndSession"
// seconds (15 when the value is missing, unreadable or 0) have passed since
// the mark. The registry value is read at each query that needs it.
//
// Both maps get the same keys, and entries leave only with Clear. Every member
// takes a small private lock, so the maps may be used from several threads; it
// is never held while calling back into a store. The log texts carry the name
// of the owning class given to the constructor.
class CSessionAvailability {
 public:
  // sClassName prefixes every log text, e.g. "CInternalDataStore".
  explicit CSessionAvailability(const char* sClassName);
  CSessionAvailability(const CSessionAvailability&) = delete;
  CSessionAvailability& operator=(const CSessionAvailability&) = delete;

  // Records the flag of the session and stamps it with time(). Always S_OK.
  HRESULT SetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char bAvailabled);
  // Writes the session's availability to bAvailabled: 1 for an unknown session,
  // the flag when it is non-zero, and for a flag 0, 1 once the timeout has
  // passed (the flag is then set to 1 and restamped). Always S_OK.
  HRESULT GetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char& bAvailabled);
  // Forgets every session.
  void Clear();

 private:
  unsigned int ReadTimeOut();

  const char* m_sClassName;
  std::mutex m_Lock;
  std::map<unsigned int, signed char> m_SessionAvailability;
  std::map<unsigned int, long> m_SessionTimeStamps;
};

#endif
