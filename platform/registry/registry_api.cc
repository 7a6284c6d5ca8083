// The exported registry calls: each checks its fault point, validates its
// arguments, resolves its key under the service lock and runs one database
// operation. Failures set errno (registry_status.h).

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "handle_table.h"
#include "key_path.h"
#include "registry_database.h"
#include "registry_service.h"
#include "registry_status.h"
#include "xk/fault_point.h"
#include "xk/registry.h"

namespace {

using xk::registry::HandleTable;
using xk::registry::RegistryDatabase;
using xk::registry::RegistryService;
using Session = RegistryService::Session;

// The status an armed fault point makes its operation return, or
// ERROR_SUCCESS. A code is returned as it is (0 counts as
// ERROR_REGISTRY_IO_FAILED, as a fault must fail); every other kind of fault
// is ERROR_REGISTRY_IO_FAILED. errno becomes EIO.
long InjectedFault(const char* op) {
  xk::fault::Outcome outcome = xk::fault::Check(op);
  if (outcome.kind == xk::fault::Kind::kNone) return ERROR_SUCCESS;
  errno = EIO;
  if (outcome.kind == xk::fault::Kind::kCode && outcome.code != ERROR_SUCCESS) return outcome.code;
  return ERROR_REGISTRY_IO_FAILED;
}

// Runs `body` so that no exception leaves the library, and sets errno.
template <class Body>
long Guarded(Body&& body) noexcept {
  try {
    return xk::registry::WithErrno(body());
  } catch (const std::bad_alloc&) {
    return xk::registry::WithErrno(ERROR_OUTOFMEMORY);
  } catch (...) {
    return xk::registry::WithErrno(ERROR_REGISTRY_IO_FAILED);
  }
}

template <class Work>
long Run(Work&& work) {
  return RegistryService::Instance().Run(std::forward<Work>(work));
}

// A key named by a hive text or handle and a relative path already checked.
struct Target {
  std::string path;             // the full key path
  std::size_t baseLength = 0;   // bytes of `path` that name the hive or handle key
  bool viaHandle = false;
};

long ResolveTarget(Session& session, HKEY key, const char* subKey, Target* target) {
  if (key == nullptr) return ERROR_INVALID_HANDLE;
  switch (session.Handles().Find(key, &target->path)) {
    case HandleTable::Kind::kLive:
      target->viaHandle = true;
      break;
    case HandleTable::Kind::kStale:
      return ERROR_INVALID_HANDLE;
    case HandleTable::Kind::kForeign:
      if (!xk::registry::IsHive(static_cast<const char*>(key))) return ERROR_INVALID_HANDLE;
      target->path = static_cast<const char*>(key);
      break;
  }
  target->baseLength = target->path.size();
  xk::registry::AppendSubKey(&target->path, subKey);
  return ERROR_SUCCESS;
}

// Resolves the target and opens the database.
long Prepare(Session& session, HKEY key, const char* subKey, Target* target, RegistryDatabase** db) {
  long status = ResolveTarget(session, key, subKey, target);
  if (status != ERROR_SUCCESS) return status;
  return session.Database(db);
}

// An absent key below a handle whose own key is gone is reported as
// ERROR_KEY_DELETED.
long KeyDeletedOr(RegistryDatabase& db, const Target& target, long status) {
  if (status != ERROR_FILE_NOT_FOUND || !target.viaHandle) return status;
  long base = db.KeyExists(std::string_view(target.path).substr(0, target.baseLength));
  return base == ERROR_FILE_NOT_FOUND ? ERROR_KEY_DELETED : status;
}

// Copies `name` to a zero-filled record field of `size` bytes.
void CopyName(char* field, std::size_t size, const std::string& name) {
  std::memset(field, 0, size);
  std::memcpy(field, name.data(), name.size() < size ? name.size() : size - 1);
}

bool TypeSelected(unsigned int type, unsigned int typeMask) {
  if (typeMask == 0xFFFFFFFFu) return true;
  return type < 32 && (typeMask & (1u << type)) != 0;
}

// A whole value, for the typed reads.
struct ValueCopy {
  unsigned int type = REG_NONE;
  std::vector<unsigned char> bytes;
};

// Reads a whole value by hive (or handle), path and name.
long ReadWhole(const char* hive, const char* path, const char* valueName, ValueCopy* value) {
  std::string_view name;
  long status = xk::registry::CheckSubKey(path);
  if (status == ERROR_SUCCESS) status = xk::registry::CheckValueName(valueName, &name);
  if (status != ERROR_SUCCESS) return status;
  return Run([&](Session& session) -> long {
    Target target;
    RegistryDatabase* db = nullptr;
    long status = Prepare(session, hive, path, &target, &db);
    if (status != ERROR_SUCCESS) return status;
    status = db->ReadValue(target.path, name, [&](unsigned int type, const unsigned char* data, std::size_t size) {
      value->type = type;
      value->bytes.assign(data, data + size);
    });
    return KeyDeletedOr(*db, target, status);
  });
}

// The subkey listing of qxRegListKeys and qxRegListKeysEx.
long ListKeys(const char* hive, const char* path, qxRegKey_* records, unsigned int* count) {
  if (count == nullptr) return ERROR_INVALID_PARAMETER;
  if (long status = xk::registry::CheckSubKey(path)) return status;
  std::vector<std::string> names;
  long status = Run([&](Session& session) -> long {
    Target target;
    RegistryDatabase* db = nullptr;
    long status = Prepare(session, hive, path, &target, &db);
    if (status != ERROR_SUCCESS) return status;
    return KeyDeletedOr(*db, target, db->ListKeys(target.path, &names));
  });
  if (status != ERROR_SUCCESS) return status;
  if (records != nullptr) {
    for (std::size_t i = 0; i < names.size() && i < *count; ++i) {
      CopyName(records[i].szName, sizeof records[i].szName, names[i]);
    }
  }
  *count = static_cast<unsigned int>(names.size());
  return ERROR_SUCCESS;
}

}  // namespace

extern "C" {

const char* xkRegGetDatabasePath(void) {
  if (xk::fault::Check("xkRegGetDatabasePath").kind != xk::fault::Kind::kNone) {
    errno = EIO;
    return nullptr;
  }
  try {
    return RegistryService::Instance().DatabasePath();
  } catch (...) {
    errno = ENOMEM;
    return nullptr;
  }
}

long xkRegSetDatabasePath(const char* path) {
  if (long fault = InjectedFault("xkRegSetDatabasePath")) return fault;
  return Guarded([&]() -> long {
    if (path != nullptr && *path == '\0') return ERROR_INVALID_PARAMETER;
    RegistryService::Instance().SetDatabasePath(path);
    return ERROR_SUCCESS;
  });
}

long xkRegBeginBatch(unsigned int flags) {
  long fault = InjectedFault("xkRegBeginBatch");
  if (fault == ERROR_SUCCESS && flags != XK_REG_BATCH_READ && flags != XK_REG_BATCH_WRITE) {
    fault = ERROR_INVALID_PARAMETER;
  }
  return Guarded([&]() -> long {
    return RegistryService::Instance().BeginBatch(flags == XK_REG_BATCH_WRITE, fault);
  });
}

long xkRegCommitBatch(void) {
  long fault = InjectedFault("xkRegCommitBatch");
  return Guarded([&]() -> long { return RegistryService::Instance().CommitBatch(fault); });
}

long xkRegEndBatch(void) {
  long fault = InjectedFault("xkRegEndBatch");
  return Guarded([&]() -> long { return RegistryService::Instance().EndBatch(fault); });
}

long xkRegOpenKeyEx(HKEY hKey, const char* lpSubKey, unsigned int, unsigned int, HKEY* phkResult) {
  if (long fault = InjectedFault("xkRegOpenKeyEx")) return fault;
  return Guarded([&]() -> long {
    if (phkResult == nullptr) return ERROR_INVALID_PARAMETER;
    if (long status = xk::registry::CheckSubKey(lpSubKey)) return status;
    return Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hKey, lpSubKey, &target, &db);
      if (status == ERROR_SUCCESS) status = KeyDeletedOr(*db, target, db->KeyExists(target.path));
      if (status != ERROR_SUCCESS) return status;
      HKEY handle = session.Handles().Add(std::move(target.path));
      if (handle == nullptr) return ERROR_OUTOFMEMORY;
      *phkResult = handle;
      return ERROR_SUCCESS;
    });
  });
}

long xkRegCreateKeyEx(HKEY hKey, const char* lpSubKey, unsigned int, char*, unsigned int, unsigned int, void*,
                      HKEY* phkResult, unsigned int* lpdwDisposition) {
  if (long fault = InjectedFault("xkRegCreateKeyEx")) return fault;
  return Guarded([&]() -> long {
    if (phkResult == nullptr) return ERROR_INVALID_PARAMETER;
    if (long status = xk::registry::CheckSubKey(lpSubKey)) return status;
    return Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hKey, lpSubKey, &target, &db);
      bool created = false;
      if (status == ERROR_SUCCESS) {
        status = KeyDeletedOr(*db, target, db->CreateKey(target.path, target.baseLength, &created));
      }
      if (status != ERROR_SUCCESS) return status;
      HKEY handle = session.Handles().Add(std::move(target.path));
      if (handle == nullptr) return ERROR_OUTOFMEMORY;
      *phkResult = handle;
      if (lpdwDisposition != nullptr) *lpdwDisposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
      return ERROR_SUCCESS;
    });
  });
}

long xkRegSetValueEx(HKEY hKey, const char* lpValueName, unsigned int, unsigned int dwType,
                     const unsigned char* lpData, unsigned int cbData) {
  if (long fault = InjectedFault("xkRegSetValueEx")) return fault;
  return Guarded([&]() -> long {
    std::string_view name;
    if (long status = xk::registry::CheckValueName(lpValueName, &name)) return status;
    if (lpData == nullptr && cbData != 0) return ERROR_INVALID_PARAMETER;
    return Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hKey, nullptr, &target, &db);
      if (status != ERROR_SUCCESS) return status;
      return KeyDeletedOr(*db, target, db->SetValue(target.path, name, dwType, lpData, cbData));
    });
  });
}

long xkRegEnumKeyEx(HKEY hKey, unsigned int dwIndex, char* lpName, unsigned int* lpcName, unsigned int*,
                    char* lpClass, unsigned int* lpcClass, FILETIME* lpftLastWriteTime) {
  if (long fault = InjectedFault("xkRegEnumKeyEx")) return fault;
  return Guarded([&]() -> long {
    if (lpName == nullptr || lpcName == nullptr) return ERROR_INVALID_PARAMETER;
    std::string name;
    std::int64_t lastWrite = 0;
    long status = Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hKey, nullptr, &target, &db);
      if (status != ERROR_SUCCESS) return status;
      return KeyDeletedOr(*db, target, db->EnumKey(target.path, dwIndex, &name, &lastWrite));
    });
    if (status != ERROR_SUCCESS) return status;
    // Keys have no class: an empty one is reported.
    if (lpClass != nullptr && lpcClass != nullptr && *lpcClass > 0) lpClass[0] = '\0';
    if (lpcClass != nullptr) *lpcClass = 0;
    if (lpftLastWriteTime != nullptr) {
      lpftLastWriteTime->dwLowDateTime = static_cast<unsigned int>(lastWrite & 0xFFFFFFFF);
      lpftLastWriteTime->dwHighDateTime = static_cast<unsigned int>(static_cast<std::uint64_t>(lastWrite) >> 32);
    }
    bool fits = name.size() < *lpcName;
    *lpcName = static_cast<unsigned int>(name.size());
    if (!fits) return ERROR_MORE_DATA;
    std::memcpy(lpName, name.c_str(), name.size() + 1);
    return ERROR_SUCCESS;
  });
}

long xkRegCloseKey(HKEY hKey) {
  if (long fault = InjectedFault("xkRegCloseKey")) return fault;
  return Guarded([&]() -> long {
    return Run([&](Session& session) -> long {
      return session.Handles().Remove(hKey) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
    });
  });
}

int qxRegReadValueEx(const char* hive, const char* path, const char* valueName, unsigned int* lpType,
                     unsigned char* lpData, unsigned int* lpcbData, unsigned int) {
  if (long fault = InjectedFault("qxRegReadValueEx")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&]() -> long {
    if (lpData != nullptr && lpcbData == nullptr) return ERROR_INVALID_PARAMETER;
    std::string_view name;
    long status = xk::registry::CheckSubKey(path);
    if (status == ERROR_SUCCESS) status = xk::registry::CheckValueName(valueName, &name);
    if (status != ERROR_SUCCESS) return status;
    // The bytes go straight from the row to the caller's buffer.
    bool tooSmall = false;
    status = Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hive, path, &target, &db);
      if (status != ERROR_SUCCESS) return status;
      status = db->ReadValue(target.path, name, [&](unsigned int type, const unsigned char* data, std::size_t size) {
        if (lpType != nullptr) *lpType = type;
        if (lpData != nullptr) {
          tooSmall = size > *lpcbData;
          if (!tooSmall && size > 0) std::memcpy(lpData, data, size);
        }
        if (lpcbData != nullptr) *lpcbData = static_cast<unsigned int>(size);
      });
      return KeyDeletedOr(*db, target, status);
    });
    if (status != ERROR_SUCCESS) return status;
    return tooSmall ? ERROR_MORE_DATA : ERROR_SUCCESS;
  }));
}

int qxRegListValueNamesEx(const char* hive, const char* path, qxRegValue_* records, unsigned int* count,
                          unsigned int typeMask, unsigned int) {
  if (long fault = InjectedFault("qxRegListValueNamesEx")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&]() -> long {
    if (count == nullptr) return ERROR_INVALID_PARAMETER;
    if (long status = xk::registry::CheckSubKey(path)) return status;
    std::vector<RegistryDatabase::ValueInfo> values;
    long status = Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hive, path, &target, &db);
      if (status != ERROR_SUCCESS) return status;
      return KeyDeletedOr(*db, target, db->ListValues(target.path, &values));
    });
    if (status != ERROR_SUCCESS) return status;
    unsigned int capacity = records == nullptr ? 0 : *count;
    unsigned int selected = 0;
    for (const RegistryDatabase::ValueInfo& value : values) {
      if (!TypeSelected(value.type, typeMask)) continue;
      if (selected < capacity) {
        qxRegValue_& record = records[selected];
        CopyName(record.szName, sizeof record.szName, value.name);
        record.dwType = value.type;
        record.cbData = value.size;
      }
      ++selected;
    }
    *count = selected;
    return ERROR_SUCCESS;
  }));
}

int qxRegListKeysEx(const char* hive, const char* path, qxRegKey_* records, unsigned int* count, unsigned int) {
  if (long fault = InjectedFault("qxRegListKeysEx")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&] { return ListKeys(hive, path, records, count); }));
}

int qxRegListKeys(const char* hive, const char* path, qxRegKey_* records, unsigned int* count) {
  if (long fault = InjectedFault("qxRegListKeys")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&] { return ListKeys(hive, path, records, count); }));
}

int qxRegReadDWORDValueEx(const char* hive, const char* path, const char* valueName, unsigned int* out,
                          unsigned int) {
  if (long fault = InjectedFault("qxRegReadDWORDValueEx")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&]() -> long {
    if (out == nullptr) return ERROR_INVALID_PARAMETER;
    ValueCopy value;
    if (long status = ReadWhole(hive, path, valueName, &value)) return status;
    if (value.type != REG_DWORD) return ERROR_INVALID_DATATYPE;
    if (value.bytes.size() < sizeof(unsigned int)) return ERROR_INVALID_DATA;
    std::memcpy(out, value.bytes.data(), sizeof(unsigned int));
    return ERROR_SUCCESS;
  }));
}

int qxRegReadStringValueEx(const char* hive, const char* path, const char* valueName, char* buffer,
                           unsigned int* size, unsigned int) {
  if (long fault = InjectedFault("qxRegReadStringValueEx")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&]() -> long {
    if (size == nullptr) return ERROR_INVALID_PARAMETER;
    ValueCopy value;
    if (long status = ReadWhole(hive, path, valueName, &value)) return status;
    if (value.type != REG_SZ && value.type != REG_EXPAND_SZ) return ERROR_INVALID_DATATYPE;
    // Values written by the layer above carry no terminator; the text ends at
    // the first NUL or at the end of the value.
    const unsigned char* bytes = value.bytes.data();
    const void* nul = value.bytes.empty() ? nullptr : std::memchr(bytes, 0, value.bytes.size());
    std::size_t length = nul == nullptr ? value.bytes.size() : static_cast<const unsigned char*>(nul) - bytes;
    unsigned int needed = static_cast<unsigned int>(length + 1);
    bool fits = buffer == nullptr || *size >= needed;
    if (buffer != nullptr && fits) {
      if (length > 0) std::memcpy(buffer, bytes, length);
      buffer[length] = '\0';
    }
    *size = needed;
    return fits ? ERROR_SUCCESS : ERROR_MORE_DATA;
  }));
}

int qxRegDeleteKey(const char* hive, const char* path, unsigned int, unsigned int) {
  if (long fault = InjectedFault("qxRegDeleteKey")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&]() -> long {
    if (long status = xk::registry::CheckSubKey(path)) return status;
    return Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hive, path, &target, &db);
      if (status != ERROR_SUCCESS) return status;
      return KeyDeletedOr(*db, target, db->DeleteKey(target.path));
    });
  }));
}

int qxRegDeleteSubKey(const char* hive, const char* path, unsigned int, unsigned int) {
  if (long fault = InjectedFault("qxRegDeleteSubKey")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&]() -> long {
    if (long status = xk::registry::CheckSubKey(path)) return status;
    return Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hive, path, &target, &db);
      if (status != ERROR_SUCCESS) return status;
      return KeyDeletedOr(*db, target, db->DeleteTree(target.path));
    });
  }));
}

int qxRegDeleteValue(const char* hive, const char* path, const char* valueName, unsigned int) {
  if (long fault = InjectedFault("qxRegDeleteValue")) return static_cast<int>(fault);
  return static_cast<int>(Guarded([&]() -> long {
    std::string_view name;
    long status = xk::registry::CheckSubKey(path);
    if (status == ERROR_SUCCESS) status = xk::registry::CheckValueName(valueName, &name);
    if (status != ERROR_SUCCESS) return status;
    return Run([&](Session& session) -> long {
      Target target;
      RegistryDatabase* db = nullptr;
      long status = Prepare(session, hive, path, &target, &db);
      if (status != ERROR_SUCCESS) return status;
      return KeyDeletedOr(*db, target, db->DeleteValue(target.path, name));
    });
  }));
}

}  // extern "C"
