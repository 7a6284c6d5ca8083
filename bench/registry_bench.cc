// The registry's write and read of a small value, side by side with raw
// SQLite statements doing the same work on a file of the same layout, journal
// mode and synchronous setting.

#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include "benchmark/benchmark.h"
#include "xk/registry.h"

namespace {

constexpr const char* kHklm = "HKEY_LOCAL_MACHINE";
constexpr unsigned int kValueSize = 32;

std::int64_t Now() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (static_cast<std::int64_t>(now.tv_sec) + 11644473600) * 10000000 + now.tv_nsec / 100;
}

// Two registry files in a temporary folder: one used through the registry,
// one (laid out by the registry, then closed by it) through a raw connection.
class BenchFiles {
 public:
  BenchFiles() {
    char pattern[] = "/tmp/xkreg-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    m_Dir = pattern;
    std::string rawFile = m_Dir + "/raw.db";
    Check(xkRegSetDatabasePath(rawFile.c_str()) == ERROR_SUCCESS);
    Check(xkRegCreateKeyEx(kHklm, "Bench", 0, nullptr, 0, 3, nullptr, &m_Key, nullptr) == ERROR_SUCCESS);
    Check(xkRegCloseKey(m_Key) == ERROR_SUCCESS);
    Check(xkRegSetDatabasePath((m_Dir + "/registry.db").c_str()) == ERROR_SUCCESS);
    Check(xkRegCreateKeyEx(kHklm, "Bench", 0, nullptr, 0, 3, nullptr, &m_Key, nullptr) == ERROR_SUCCESS);

    Check(sqlite3_open_v2(rawFile.c_str(), &m_Raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) ==
          SQLITE_OK);
    sqlite3_busy_timeout(m_Raw, 5000);
    Check(sqlite3_exec(m_Raw, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr) ==
          SQLITE_OK);
    sqlite3_stmt* find = Prepare("SELECT id FROM keys WHERE path = 'HKEY_LOCAL_MACHINE\\Bench'");
    Check(sqlite3_step(find) == SQLITE_ROW);
    m_RawKey = sqlite3_column_int64(find, 0);
    sqlite3_finalize(find);
    m_Upsert = Prepare(
        "INSERT INTO vals(key, name, type, data, mtime) VALUES(?1, ?2, ?3, ?4, ?5)"
        " ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data, mtime = excluded.mtime");
    m_Select = Prepare("SELECT type, data FROM vals WHERE key = ?1 AND name = ?2");
  }
  ~BenchFiles() {
    sqlite3_finalize(m_Upsert);
    sqlite3_finalize(m_Select);
    sqlite3_close(m_Raw);
    xkRegCloseKey(m_Key);
    xkRegSetDatabasePath(nullptr);
    std::filesystem::remove_all(m_Dir);
  }

  HKEY Key() const { return m_Key; }
  sqlite3_stmt* Upsert() const { return m_Upsert; }
  sqlite3_stmt* Select() const { return m_Select; }
  std::int64_t RawKey() const { return m_RawKey; }

 private:
  static void Check(bool ok) {
    if (!ok) std::abort();
  }
  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    Check(sqlite3_prepare_v3(m_Raw, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) == SQLITE_OK);
    return stmt;
  }

  std::string m_Dir;
  HKEY m_Key = nullptr;
  sqlite3* m_Raw = nullptr;
  sqlite3_stmt* m_Upsert = nullptr;
  sqlite3_stmt* m_Select = nullptr;
  std::int64_t m_RawKey = 0;
};

BenchFiles& Files() {
  static BenchFiles files;
  return files;
}

unsigned char* Payload() {
  static unsigned char bytes[kValueSize] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                            17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
  return bytes;
}

void RawUpsert(const BenchFiles& files) {
  sqlite3_stmt* s = files.Upsert();
  sqlite3_bind_int64(s, 1, files.RawKey());
  sqlite3_bind_text(s, 2, "value", 5, SQLITE_STATIC);
  sqlite3_bind_int64(s, 3, REG_BINARY);
  sqlite3_bind_blob(s, 4, Payload(), kValueSize, SQLITE_STATIC);
  sqlite3_bind_int64(s, 5, Now());
  int rc = sqlite3_step(s);
  sqlite3_reset(s);
  if (rc != SQLITE_DONE) std::abort();
}

void BM_RegistrySetValue(benchmark::State& state) {
  BenchFiles& files = Files();
  for (auto _ : state) {
    if (xkRegSetValueEx(files.Key(), "value", 0, REG_BINARY, Payload(), kValueSize) != ERROR_SUCCESS) {
      state.SkipWithError("xkRegSetValueEx failed");
      break;
    }
  }
}
BENCHMARK(BM_RegistrySetValue);

void BM_RawSetValue(benchmark::State& state) {
  BenchFiles& files = Files();
  for (auto _ : state) RawUpsert(files);
}
BENCHMARK(BM_RawSetValue);

void BM_RegistryReadValue(benchmark::State& state) {
  BenchFiles& files = Files();
  xkRegSetValueEx(files.Key(), "value", 0, REG_BINARY, Payload(), kValueSize);
  unsigned char buffer[64];
  for (auto _ : state) {
    unsigned int type = 0;
    unsigned int size = sizeof buffer;
    if (qxRegReadValueEx(kHklm, "Bench", "value", &type, buffer, &size, 0) != ERROR_SUCCESS) {
      state.SkipWithError("qxRegReadValueEx failed");
      break;
    }
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_RegistryReadValue);

void BM_RawReadValue(benchmark::State& state) {
  BenchFiles& files = Files();
  RawUpsert(files);
  unsigned char buffer[64];
  sqlite3_stmt* s = files.Select();
  for (auto _ : state) {
    sqlite3_bind_int64(s, 1, files.RawKey());
    sqlite3_bind_text(s, 2, "value", 5, SQLITE_STATIC);
    if (sqlite3_step(s) != SQLITE_ROW) std::abort();
    unsigned int type = static_cast<unsigned int>(sqlite3_column_int64(s, 0));
    const void* data = sqlite3_column_blob(s, 1);
    std::size_t size = static_cast<std::size_t>(sqlite3_column_bytes(s, 1));
    if (size <= sizeof buffer) std::memcpy(buffer, data, size);
    sqlite3_reset(s);
    benchmark::DoNotOptimize(type);
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_RawReadValue);

}  // namespace
