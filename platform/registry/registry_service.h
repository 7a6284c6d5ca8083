#ifndef XK_REGISTRY_REGISTRY_SERVICE_H
#define XK_REGISTRY_REGISTRY_SERVICE_H

#include <atomic>
#include <deque>
#include <mutex>
#include <string>

#include "handle_table.h"
#include "registry_database.h"
#include "xk/reentrant_mutex.h"

namespace xk {
namespace registry {

// The registry of this process: the chosen database file, its one connection
// (opened on first use) and the open handles, all behind one mutex, so that
// calls from many threads are serialised. A thread in a batch holds the mutex
// from the batch's beginning to its end (the mutex is recursive, so that the
// thread's calls in between take it again), and the connection's transaction
// is the batch's.
//
// Across fork() the connection is closed first (an SQLite connection must
// never be used on both sides of a fork); both processes reopen the file at
// their next call, and the child keeps the parent's handles.
class RegistryService {
 public:
  // The state one call works on, valid while the service's lock is held.
  class Session {
   public:
    HandleTable& Handles() { return m_Service.m_Handles; }
    // The open database, opening the chosen file on first use.
    long Database(RegistryDatabase** database);

   private:
    friend class RegistryService;
    explicit Session(RegistryService& service) : m_Service(service) {}
    RegistryService& m_Service;
  };

  static RegistryService& Instance();

  // Runs `work(Session&)` under the lock and returns its status.
  template <class Work>
  long Run(Work&& work) {
    std::lock_guard<xk::ReentrantMutex> lock(m_Mutex);
    Session session(*this);
    return work(session);
  }

  // The batch calls of the calling thread (xk/registry.h). `fault` is the
  // status of an armed fault point (ERROR_SUCCESS when none): BeginBatch then
  // enters without a transaction, CommitBatch and EndBatch roll back.
  long BeginBatch(bool write, long fault);
  long CommitBatch(long fault);
  long EndBatch(long fault);

  // The chosen file; the text stays valid for the life of the process.
  const char* DatabasePath();
  // Chooses another file (nullptr: the default, read again from the
  // environment) and closes the connection.
  void SetDatabasePath(const char* path);
  // The open file's change counter, nullptr while no file is open, and the
  // number of closes so far (xk/registry_stamp.h). Lock-free.
  const ChangeCounter* CurrentCounter() const { return m_Current.load(std::memory_order_acquire); }
  std::uint64_t Closes() const { return m_Closes.load(std::memory_order_acquire); }

 private:
  RegistryService() = default;
  static void BeforeFork();
  static void AfterFork();

  // Closes the connection; the transaction of an open batch is lost.
  void CloseDatabase();
  // Ends the batch's transaction: commits it, or rolls it back on a fault.
  long FinishBatch(long fault);

  // Interns `path` so that its text is never freed.
  const std::string* Intern(const std::string& path);
  const std::string& PathLocked();

  xk::ReentrantMutex m_Mutex;
  RegistryDatabase m_Database;     // guarded by m_Mutex
  bool m_BatchOpen = false;        // guarded by m_Mutex; the batch's transaction is open
  bool m_BatchLost = false;        // guarded by m_Mutex; ... was lost by a close
  HandleTable m_Handles;           // guarded by m_Mutex
  const std::string* m_Path = nullptr;  // guarded by m_Mutex; nullptr: default not read yet
  std::deque<std::string> m_Paths;      // guarded by m_Mutex; every path ever chosen
  // m_Database.Counter() while the connection is open, else nullptr; written
  // under m_Mutex, read without it.
  std::atomic<const ChangeCounter*> m_Current{nullptr};
  std::atomic<std::uint64_t> m_Closes{0};  // written under m_Mutex, read without it
};

}  // namespace registry
}  // namespace xk

#endif
