#include "registry_service.h"

#include <pthread.h>

#include <atomic>

#include "database_location.h"
#include "xk/registry.h"

namespace xk {
namespace registry {

namespace {

std::atomic<RegistryService*> gService{nullptr};

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
  service->m_Database.Close();
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
  std::lock_guard<std::mutex> lock(m_Mutex);
  return PathLocked().c_str();
}

void RegistryService::SetDatabasePath(const char* path) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_Database.Close();
  m_Path = path == nullptr ? nullptr : Intern(path);
}

}  // namespace registry
}  // namespace xk
