#ifndef MERROWSTORE_COMMON_STOREMUTEXLOCK_H
#define MERROWSTORE_COMMON_STOREMUTEXLOCK_H

#include <pthread.h>

// Holds a store's mutex for one scope. Each store operation opens the scope
// right after its entry log and closes it before its exit log, so every path
// unlocks.
class CStoreMutexLock {
 public:
  explicit CStoreMutexLock(pthread_mutex_t* pMutex) : m_pMutex(pMutex) { pthread_mutex_lock(m_pMutex); }
  ~CStoreMutexLock() { pthread_mutex_unlock(m_pMutex); }
  CStoreMutexLock(const CStoreMutexLock&) = delete;
  CStoreMutexLock& operator=(const CStoreMutexLock&) = delete;

 private:
  pthread_mutex_t* m_pMutex;
};

// What the log shows for an identifier that may be NULL.
inline const char* LogText(const char* s) { return s != nullptr ? s : "(null)"; }

#endif
