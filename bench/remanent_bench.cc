// The remanent and encrypted data paths of the store library through the
// exported client, each beside the least work that could do the same job:
//
// - a remanent SetData against one prepared raw SQLite upsert of the same
//   bytes, as its own transaction, on a file of its own with the registry's
//   layout, journal mode, synchronous setting and busy timeout;
// - a remanent GetData against one prepared raw SQLite select of those bytes;
// - an encrypted memory store's GetData against a clear memory store's GetData
//   followed by one bare EVP AES-128-CBC decryption of the same 48-byte blob
//   with a fresh context and the cipher fetched once (EVP_CIPHER_fetch at
//   start-up), as a program that decrypts many values does it.
//
// Logging is off (no sink), the value is a 32-byte VT_UI1 vector under data id
// "D1" of compartment "S1/C1". Everything runs in a sandbox: a private
// registry file and a private key file. Loading the library reads the store
// catalogue before the sandbox exists: run it with XK_REGISTRY_PATH naming a
// scratch file (see docs/performance.md).

#include "bench_support.h"
#include <openssl/evp.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "xk/oleauto.h"
#include "xk/registry.h"
#include "xk/testsupport.h"

namespace {

using bench::Bstr;
using bench::Require;

using QX::DataStore::CStaticDataCacheClient;

constexpr const char* kHklm = "HKEY_LOCAL_MACHINE";
constexpr const char* kRemanentRoot = "Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\";
constexpr unsigned int kValueSize = 32;
constexpr std::size_t kBlobSize = 48;

// The store key, and the mask the key file is written under (docs/crypto.md).
const unsigned char kKey[16] = {0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe,
                                0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
const unsigned char kKeyFileMask[16] = {0x5A, 0xC3, 0x17, 0x8E, 0x64, 0xB9, 0x02, 0xD7,
                                        0x3F, 0xA1, 0x9C, 0x48, 0xE5, 0x70, 0x2B, 0xF6};
// The IV every protected value is written with.
const unsigned char kIv[16] = {0x7C, 0x10, 0xEA, 0x4F, 0xA3, 0x33, 0xCF, 0x99,
                               0x07, 0x55, 0xB8, 0x66, 0xD9, 0x29, 0x87, 0xEC};

std::int64_t Now() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (static_cast<std::int64_t>(now.tv_sec) + 11644473600) * 10000000 + now.tv_nsec / 100;
}

std::vector<unsigned char> Bytes(SAFEARRAY* psa) {
  void* data = nullptr;
  Require(SafeArrayAccessData(psa, &data) == S_OK, "SafeArrayAccessData failed");
  std::vector<unsigned char> bytes(static_cast<unsigned char*>(data),
                                   static_cast<unsigned char*>(data) + psa->rgsabound[0].cElements);
  SafeArrayUnaccessData(psa);
  return bytes;
}

// AES-128-CBC fetched once from the default provider. EVP_aes_128_cbc()
// instead makes OpenSSL 3 look the cipher up again at every Init.
const EVP_CIPHER* FetchedAes() {
  static EVP_CIPHER* const cipher = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
  Require(cipher != nullptr, "EVP_CIPHER_fetch failed");
  return cipher;
}

// AES-128-CBC with PKCS7 padding under kKey and kIv, one fresh context per
// call, as the baseline of a decryption: the cipher fetched once, or
// EVP_aes_128_cbc() for the figure of a lookup per call. Returns the output
// length, or -1.
int RawCipher(bool encrypt, const unsigned char* in, int length, unsigned char* out,
              const EVP_CIPHER* cipher = FetchedAes()) {
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  int written = 0;
  int last = 0;
  const int ok = encrypt ? EVP_EncryptInit_ex(context, cipher, nullptr, kKey, kIv) &&
                               EVP_EncryptUpdate(context, out, &written, in, length) &&
                               EVP_EncryptFinal_ex(context, out + written, &last)
                         : EVP_DecryptInit_ex(context, cipher, nullptr, kKey, kIv) &&
                               EVP_DecryptUpdate(context, out, &written, in, length) &&
                               EVP_DecryptFinal_ex(context, out + written, &last);
  EVP_CIPHER_CTX_free(context);
  return ok ? written + last : -1;
}

// The sandbox, the four stores (remanent and memory, clear and encrypted), the
// value, and a raw SQLite connection on a file of its own.
class World {
 public:
  World() {
    std::vector<unsigned char> keyFile(16);
    for (int i = 0; i < 16; ++i) keyFile[i] = kKey[i] ^ kKeyFileMask[i];
    m_Sandbox.WriteKeyFile(keyFile);

    Register("RbRemanent", QX::DataStore::TypeRemanent, 0);
    Register("RbRemanentEnc", QX::DataStore::TypeRemanent, 1);
    Register("RbMemory", QX::DataStore::TypeMemory, 0);
    Register("RbMemoryEnc", QX::DataStore::TypeMemory, 1);

    m_Value = SafeArrayCreateVector(VT_UI1, 0, kValueSize);
    Require(m_Value != nullptr, "SafeArrayCreateVector failed");
    void* data = nullptr;
    Require(SafeArrayAccessData(m_Value, &data) == S_OK, "SafeArrayAccessData failed");
    for (unsigned int i = 0; i < kValueSize; ++i)
      static_cast<unsigned char*>(data)[i] = static_cast<unsigned char>(i * 7 + 1);
    SafeArrayUnaccessData(m_Value);
    for (const char* store : {"RbRemanent", "RbRemanentEnc", "RbMemory", "RbMemoryEnc"})
      Require(Set(Bstr(store)) == S_OK, "SetData failed");

    // The bytes the remanent store keeps (a tag byte and a length byte, then
    // the value), and the blob the encrypted one keeps in the same format: the
    // blob rebuilt here must be the store's own.
    m_Stored = ReadStored("RbRemanent", m_StoredType);
    unsigned int blobType = 0;
    const std::vector<unsigned char> stored = ReadStored("RbRemanentEnc", blobType);
    MakeBlob();
    Require(stored.size() == kBlobSize + 2 && std::equal(m_Blob.begin(), m_Blob.end(), stored.begin() + 2),
            "the encrypted store keeps another blob than the one rebuilt here");

    OpenRaw();
  }

  ~World() {
    sqlite3_finalize(m_Upsert);
    sqlite3_finalize(m_Select);
    sqlite3_close(m_Raw);
    qxSafeArrayDestroy(m_Value, 0);
  }

  // One GetData; the value read is released at once.
  HRESULT Get(char* store) {
    SAFEARRAY* psa = nullptr;
    const HRESULT hr = m_Client.GetData(store, m_Compartment, m_DataId, &psa);
    if (psa != nullptr) qxSafeArrayDestroy(psa, 0);
    return hr;
  }
  HRESULT Set(char* store) { return m_Client.SetData(store, m_Compartment, m_DataId, m_Value); }

  void RawUpsert() {
    sqlite3_bind_int64(m_Upsert, 1, m_RawKey);
    sqlite3_bind_text(m_Upsert, 2, "D1", 2, SQLITE_STATIC);
    sqlite3_bind_int64(m_Upsert, 3, m_StoredType);
    sqlite3_bind_blob(m_Upsert, 4, m_Stored.data(), static_cast<int>(m_Stored.size()), SQLITE_STATIC);
    sqlite3_bind_int64(m_Upsert, 5, Now());
    const int rc = sqlite3_step(m_Upsert);
    sqlite3_reset(m_Upsert);
    Require(rc == SQLITE_DONE, "raw upsert failed");
  }

  // Selects the value into buffer; returns its size.
  std::size_t RawSelect(unsigned char* buffer, std::size_t capacity) {
    sqlite3_bind_int64(m_Select, 1, m_RawKey);
    sqlite3_bind_text(m_Select, 2, "D1", 2, SQLITE_STATIC);
    Require(sqlite3_step(m_Select) == SQLITE_ROW, "raw select found nothing");
    const std::size_t size = static_cast<std::size_t>(sqlite3_column_bytes(m_Select, 1));
    const void* data = sqlite3_column_blob(m_Select, 1);
    if (size <= capacity) std::memcpy(buffer, data, size);
    sqlite3_reset(m_Select);
    return size;
  }

  const std::vector<unsigned char>& Blob() const { return m_Blob; }
  const std::vector<unsigned char>& Stored() const { return m_Stored; }
  unsigned int StoredType() const { return m_StoredType; }
  std::size_t StoredSize() const { return m_Stored.size(); }
  // The registry key of a remanent store's compartment "S1/C1".
  static std::string CompartmentKey(const char* store) { return std::string(kRemanentRoot) + store + "\\S1\\C1"; }

 private:
  void Register(const char* id, QX::DataStore::Type type, signed char encrypted) {
    Require(CStaticDataCacheClient::RegisterDataStore(Bstr(id), type, encrypted, 1, Bstr("Keldara")) == S_OK,
            "RegisterDataStore failed");
  }

  static std::vector<unsigned char> ReadStored(const char* store, unsigned int& type) {
    const std::string key = CompartmentKey(store);
    unsigned char buffer[256];
    unsigned int size = sizeof buffer;
    Require(qxRegReadValueEx(kHklm, key.c_str(), "D1", &type, buffer, &size, 0) == ERROR_SUCCESS,
            "the remanent value is not in the registry");
    return std::vector<unsigned char>(buffer, buffer + size);
  }

  // "UI1", 00, the value, encrypted as the store does it.
  void MakeBlob() {
    const std::vector<unsigned char> value = Bytes(m_Value);
    std::vector<unsigned char> plain = {'U', 'I', '1', 0};
    plain.insert(plain.end(), value.begin(), value.end());
    m_Blob.resize(plain.size() + 16);
    const int length = RawCipher(true, plain.data(), static_cast<int>(plain.size()), m_Blob.data());
    Require(length == static_cast<int>(kBlobSize), "the blob is not 48 bytes");
    m_Blob.resize(kBlobSize);
  }

  // A second file, laid out by the registry with the same key path, then used
  // through a raw connection with the registry's pragmas.
  void OpenRaw() {
    const std::string rawFile = m_Sandbox.Dir() + "/raw.db";
    const std::string key = CompartmentKey("RbRemanent");
    Require(xkRegSetDatabasePath(rawFile.c_str()) == ERROR_SUCCESS, "xkRegSetDatabasePath failed");
    HKEY hKey = nullptr;
    Require(xkRegCreateKeyEx(kHklm, key.c_str(), 0, nullptr, 0, 3, nullptr, &hKey, nullptr) == ERROR_SUCCESS,
            "xkRegCreateKeyEx failed");
    xkRegCloseKey(hKey);
    Require(xkRegSetDatabasePath(m_Sandbox.RegistryPath().c_str()) == ERROR_SUCCESS, "xkRegSetDatabasePath failed");

    Require(sqlite3_open_v2(rawFile.c_str(), &m_Raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) == SQLITE_OK,
            "sqlite3_open_v2 failed");
    sqlite3_busy_timeout(m_Raw, 5000);
    Require(sqlite3_exec(m_Raw, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr) ==
                SQLITE_OK,
            "pragmas failed");
    sqlite3_stmt* find = Prepare("SELECT id FROM keys WHERE path = ?1");
    const std::string path = std::string(kHklm) + "\\" + key;
    sqlite3_bind_text(find, 1, path.c_str(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
    Require(sqlite3_step(find) == SQLITE_ROW, "the raw key is missing");
    m_RawKey = sqlite3_column_int64(find, 0);
    sqlite3_finalize(find);
    m_Upsert = Prepare(
        "INSERT INTO vals(key, name, type, data, mtime) VALUES(?1, ?2, ?3, ?4, ?5)"
        " ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data, mtime = excluded.mtime");
    m_Select = Prepare("SELECT type, data FROM vals WHERE key = ?1 AND name = ?2");
    RawUpsert();
  }

  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    Require(sqlite3_prepare_v3(m_Raw, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) == SQLITE_OK,
            "prepare failed");
    return stmt;
  }

  xk::test::Sandbox m_Sandbox;
  CStaticDataCacheClient m_Client;
  Bstr m_Compartment{"S1/C1"};
  Bstr m_DataId{"D1"};
  SAFEARRAY* m_Value = nullptr;
  std::vector<unsigned char> m_Stored;
  unsigned int m_StoredType = 0;
  std::vector<unsigned char> m_Blob;
  sqlite3* m_Raw = nullptr;
  sqlite3_stmt* m_Upsert = nullptr;
  sqlite3_stmt* m_Select = nullptr;
  std::int64_t m_RawKey = 0;
};

World& TheWorld() {
  static World world;
  return world;
}

void SetLoop(benchmark::State& state, const char* id) {
  World& world = TheWorld();
  Bstr store(id);
  for (auto _ : state) {
    if (world.Set(store) != S_OK) {
      state.SkipWithError("SetData failed");
      break;
    }
  }
}

void GetLoop(benchmark::State& state, const char* id) {
  World& world = TheWorld();
  Bstr store(id);
  for (auto _ : state) {
    if (world.Get(store) != S_OK) {
      state.SkipWithError("GetData failed");
      break;
    }
  }
}

// Target 1: the remanent write and its raw baseline.
void BM_RemanentSetData(benchmark::State& state) { SetLoop(state, "RbRemanent"); }
BENCHMARK(BM_RemanentSetData);

void BM_RawUpsert(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) world.RawUpsert();
}
BENCHMARK(BM_RawUpsert);

// Target 2: the remanent read and its raw baseline.
void BM_RemanentGetData(benchmark::State& state) { GetLoop(state, "RbRemanent"); }
BENCHMARK(BM_RemanentGetData);

void BM_RawSelect(benchmark::State& state) {
  World& world = TheWorld();
  unsigned char buffer[256];
  for (auto _ : state) {
    if (world.RawSelect(buffer, sizeof buffer) != world.StoredSize()) {
      state.SkipWithError("raw select gave another size");
      break;
    }
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_RawSelect);

// Target 3: the encrypted memory read against a clear read plus one bare
// decryption of the same blob, done in the same iteration.
void BM_EncryptedMemoryGetData(benchmark::State& state) { GetLoop(state, "RbMemoryEnc"); }
BENCHMARK(BM_EncryptedMemoryGetData);

void BM_MemoryGetDataPlusRawDecrypt(benchmark::State& state) {
  World& world = TheWorld();
  Bstr store("RbMemory");
  const std::vector<unsigned char>& blob = world.Blob();
  unsigned char plain[kBlobSize + 16];
  for (auto _ : state) {
    if (world.Get(store) != S_OK ||
        RawCipher(false, blob.data(), static_cast<int>(blob.size()), plain) != static_cast<int>(4 + kValueSize)) {
      state.SkipWithError("clear read or decryption failed");
      break;
    }
    benchmark::DoNotOptimize(plain);
  }
}
BENCHMARK(BM_MemoryGetDataPlusRawDecrypt);

// The parts of the baseline of target 3, and the encrypted remanent store, for
// the profile.
void BM_MemoryGetData(benchmark::State& state) { GetLoop(state, "RbMemory"); }
BENCHMARK(BM_MemoryGetData);

void RawDecryptLoop(benchmark::State& state, const EVP_CIPHER* cipher) {
  const std::vector<unsigned char>& blob = TheWorld().Blob();
  unsigned char plain[kBlobSize + 16];
  for (auto _ : state) {
    if (RawCipher(false, blob.data(), static_cast<int>(blob.size()), plain, cipher) !=
        static_cast<int>(4 + kValueSize)) {
      state.SkipWithError("decryption failed");
      break;
    }
    benchmark::DoNotOptimize(plain);
  }
}

void BM_RawDecrypt48(benchmark::State& state) { RawDecryptLoop(state, FetchedAes()); }
BENCHMARK(BM_RawDecrypt48);

// The same with EVP_aes_128_cbc(), the cipher looked up at every Init: not a
// floor, only the figure of that lookup.
void BM_RawDecrypt48LookupPerCall(benchmark::State& state) { RawDecryptLoop(state, EVP_aes_128_cbc()); }
BENCHMARK(BM_RawDecrypt48LookupPerCall);

void BM_EncryptedRemanentSetData(benchmark::State& state) { SetLoop(state, "RbRemanentEnc"); }
BENCHMARK(BM_EncryptedRemanentSetData);

void BM_EncryptedRemanentGetData(benchmark::State& state) { GetLoop(state, "RbRemanentEnc"); }
BENCHMARK(BM_EncryptedRemanentGetData);

// The registry calls a remanent SetData and GetData are made of, on the
// clear store's compartment key, for the profile: SetData opens the key
// (xkRegCreateKeyEx of an existing key), writes the value on the handle and
// closes it; GetData lists the key's value names twice (count, then records)
// and reads the value twice (size, then bytes).
void BM_RegOpenKey(benchmark::State& state) {
  TheWorld();
  const std::string key = World::CompartmentKey("RbRemanent");
  for (auto _ : state) {
    HKEY hKey = nullptr;
    if (xkRegCreateKeyEx(kHklm, key.c_str(), 0, nullptr, 0, 3, nullptr, &hKey, nullptr) != ERROR_SUCCESS ||
        xkRegCloseKey(hKey) != ERROR_SUCCESS) {
      state.SkipWithError("open or close failed");
      break;
    }
  }
}
BENCHMARK(BM_RegOpenKey);

void BM_RegSetValue(benchmark::State& state) {
  World& world = TheWorld();
  const std::string key = World::CompartmentKey("RbRemanent");
  HKEY hKey = nullptr;
  Require(xkRegCreateKeyEx(kHklm, key.c_str(), 0, nullptr, 0, 3, nullptr, &hKey, nullptr) == ERROR_SUCCESS,
          "xkRegCreateKeyEx failed");
  const std::vector<unsigned char>& stored = world.Stored();
  for (auto _ : state) {
    if (xkRegSetValueEx(hKey, "D1", 0, world.StoredType(), stored.data(), static_cast<unsigned int>(stored.size())) !=
        ERROR_SUCCESS) {
      state.SkipWithError("xkRegSetValueEx failed");
      break;
    }
  }
  xkRegCloseKey(hKey);
}
BENCHMARK(BM_RegSetValue);

void BM_RegListValuesTwice(benchmark::State& state) {
  TheWorld();
  const std::string key = World::CompartmentKey("RbRemanent");
  qxRegValue_ records[4];
  for (auto _ : state) {
    unsigned int count = 0;
    unsigned int capacity = 4;
    if (qxRegListValueNamesEx(kHklm, key.c_str(), nullptr, &count, 0xFFFFFFFF, 0) != 0 || count != 1 ||
        qxRegListValueNamesEx(kHklm, key.c_str(), records, &capacity, 0xFFFFFFFF, 0) != 0) {
      state.SkipWithError("listing failed");
      break;
    }
    benchmark::DoNotOptimize(records);
  }
}
BENCHMARK(BM_RegListValuesTwice);

void BM_RegReadValueTwice(benchmark::State& state) {
  World& world = TheWorld();
  const std::string key = World::CompartmentKey("RbRemanent");
  unsigned char buffer[256];
  for (auto _ : state) {
    unsigned int type = 0;
    unsigned int size = 0;
    if (qxRegReadValueEx(kHklm, key.c_str(), "D1", &type, nullptr, &size, 0) != 0 || size != world.StoredSize() ||
        qxRegReadValueEx(kHklm, key.c_str(), "D1", &type, buffer, &size, 0) != 0) {
      state.SkipWithError("read failed");
      break;
    }
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_RegReadValueTwice);

}  // namespace
