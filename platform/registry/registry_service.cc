#include "registry_service.h"

#include <pthread.h>

#include <atomic>

#include "database_location.h"
#include "xk/registry.h"
#include "xk/registry_stamp.h"

namespace xk {
namespace registry {

namespace {

std::atomic<RegistryService*> gService{nullptr};

// How deep the calling thread is in batches; only the thread holding the
// service's mutex for a batch has a depth above 0.
thread_local unsigned int tBatchDepth = 0;

}  // namespace

RegistryService& RegistryService::Instance() {
  // Never destroyed: other libraries may still use the registry while the
  // process exits.
  static RegistryService* service = [] {
    auto* created = new RegistryService;
    gService.store(created);
    pthread_atfork(&RegistryService::BeforeFork, &RegistryService::AfterFork, &RegistryService::AfterFork);
    return created;
  }();
  return *service;
}

void RegistryService::BeforeFork() {
  RegistryService* service = gService.load();
  if (service == nullptr) return;
  service->m_Mutex.lock();
  service->CloseDatabase();
}

void RegistryService::AfterFork() {
  RegistryService* service = gService.load();
  if (service != nullptr) service->m_Mutex.unlock();
}

long RegistryService::Session::Database(RegistryDatabase** database) {
  RegistryDatabase& db = m_Service.m_Database;
  if (!db.IsOpen()) {
    long status = db.Open(m_Service.PathLocked());
    if (status != ERROR_SUCCESS) return status;
    m_Service.m_Current.store(db.Counter(), std::memory_order_release);
  }
  *database = &db;
  return ERROR_SUCCESS;
}

const std::string* RegistryService::Intern(const std::string& path) {
  for (const std::string& known : m_Paths) {
    if (known == path) return &known;
  }
  return &m_Paths.emplace_back(path);
}

const std::string& RegistryService::PathLocked() {
  if (m_Path == nullptr) m_Path = Intern(DefaultDatabasePath());
  return *m_Path;
}

const char* RegistryService::DatabasePath() {
  std::lock_guard<xk::ReentrantMutex> lock(m_Mutex);
  return PathLocked().c_str();
}

void RegistryService::SetDatabasePath(const char* path) {
  std::lock_guard<xk::ReentrantMutex> lock(m_Mutex);
  CloseDatabase();
  m_Path = path == nullptr ? nullptr : Intern(path);
}

void RegistryService::CloseDatabase() {
  // From here the next file may be another one: nothing read from this one
  // may be taken for it.
  m_Current.store(nullptr, std::memory_order_release);
  m_Closes.fetch_add(1, std::memory_order_acq_rel);
  if (m_BatchOpen) {
    m_BatchOpen = false;
    m_BatchLost = true;
  }
  m_Database.Close();
}

long RegistryService::BeginBatch(bool write, long fault) {
  m_Mutex.lock();
  if (++tBatchDepth > 1) return fault;
  m_BatchLost = false;
  if (fault != ERROR_SUCCESS) return fault;
  Session session(*this);
  RegistryDatabase* db = nullptr;
  long status = session.Database(&db);
  if (status == ERROR_SUCCESS) status = db->BeginBatch(write);
  m_BatchOpen = status == ERROR_SUCCESS;
  return status;
}

long RegistryService::FinishBatch(long fault) {
  if (m_BatchLost) {
    m_BatchLost = false;
    return ERROR_REGISTRY_IO_FAILED;
  }
  if (!m_BatchOpen) return fault;
  m_BatchOpen = false;
  if (fault == ERROR_SUCCESS) return m_Database.CommitBatch();
  m_Database.RollbackBatch();
  return fault;
}

long RegistryService::CommitBatch(long fault) {
  if (tBatchDepth == 0) return ERROR_INVALID_PARAMETER;
  // The thread holds the mutex already.
  return FinishBatch(fault);
}

long RegistryService::EndBatch(long fault) {
  if (tBatchDepth == 0) return ERROR_INVALID_PARAMETER;
  // Gives back the hold BeginBatch took, whatever happens below.
  std::unique_lock<xk::ReentrantMutex> hold(m_Mutex, std::adopt_lock);
  if (--tBatchDepth > 0) return fault;
  return FinishBatch(fault);
}

ChangeView CurrentChangeView() noexcept {
  ChangeView view;
  // A thread in a batch reads its own uncommitted writes and an older state
  // of the file: nothing it reads may be kept under the current count.
  RegistryService* service = gService.load(std::memory_order_acquire);
  if (service == nullptr || tBatchDepth != 0) return view;
  // The closes first: a close between the two loads shows in SameFileSince.
  view.closes = service->Closes();
  view.counter = service->CurrentCounter();
  return view;
}

bool SameFileSince(const ChangeView& view) noexcept {
  RegistryService* service = gService.load(std::memory_order_acquire);
  return service != nullptr && service->Closes() == view.closes;
}

}  // namespace registry
}  // namespace xk
