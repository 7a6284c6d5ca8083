// The data path of a memory data store through the exported client, with a
// store of 100 and one of 100,000 compartments, side by side with a
// std::map under a std::mutex and an in-memory SQLite table doing the same
// work. Logging is off (no sink), values are 32-byte VT_UI1 vectors and
// compartments are two levels deep: session "S<k>" holds "S<k>/C0" to
// "S<k>/C9", each with the one item "D0". The cases work on sixteen probes,
// "S<k>/C3" for sessions spread evenly over the store, taken in turn so that
// no call finds the previous call's compartment still at hand; each probe
// holds four items, "D0" to "D3". The baselines take the same keys in turn.
//
// Each store size has a version history of its own, swapped into gHistoryTree
// while its cases run, so that the history is as large as it would be in a
// process holding that store alone (all stores share one history otherwise).
//
// Loading the library reads the store catalogue from the registry: run it
// with XK_REGISTRY_PATH naming a scratch file (see docs/performance.md).

#include "bench_support.h"
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "trees/MemoryTree.h"
#include "trees/VersionHistory.h"
#include "xk/oleauto.h"

namespace {

using bench::Bstr;
using bench::Require;

using QX::DataStore::CStaticDataCacheClient;

constexpr unsigned long kValueSize = 32;
constexpr int kChildrenPerSession = 10;
constexpr int kProbeItems = 4;
constexpr int kProbes = 16;  // a power of two: Next() wraps with a mask

const std::vector<unsigned char>& PayloadBytes() {
  static const std::vector<unsigned char> bytes = [] {
    std::vector<unsigned char> b(kValueSize);
    for (unsigned long i = 0; i < kValueSize; ++i) b[i] = static_cast<unsigned char>(i * 7 + 1);
    return b;
  }();
  return bytes;
}

// The caller's 32-byte VT_UI1 vector; it stays the caller's across SetData.
SAFEARRAY* Payload() {
  static SAFEARRAY* const psa = [] {
    SAFEARRAY* p = SafeArrayCreateVector(VT_UI1, 0, kValueSize);
    Require(p != nullptr, "SafeArrayCreateVector failed");
    void* data = nullptr;
    Require(SafeArrayAccessData(p, &data) == S_OK, "SafeArrayAccessData failed");
    std::memcpy(data, PayloadBytes().data(), kValueSize);
    SafeArrayUnaccessData(p);
    return p;
  }();
  return psa;
}

std::string Compartment(int index) {
  return "S" + std::to_string(index / kChildrenPerSession) + "/C" + std::to_string(index % kChildrenPerSession);
}

// The identifiers of one probe, as BSTRs.
struct Probe {
  explicit Probe(const std::string& compartment)
      : name(compartment), compartmentId(compartment), sessionId(compartment.substr(0, compartment.find('/'))) {}
  std::string name;
  Bstr compartmentId;
  Bstr sessionId;
};

// One registered store of `n` compartments with its own version history, and
// its probes.
class Store {
 public:
  explicit Store(int n)
      : m_History(std::make_unique<CMemoryTree>(SecureString("History"))),
        m_Id("bench." + std::to_string(n)),
        m_StoreId(m_Id) {
    const int sessions = n / kChildrenPerSession;
    for (int k = 0; k < kProbes; ++k)
      m_Probes.push_back(std::make_unique<Probe>(Compartment((k * sessions / kProbes) * kChildrenPerSession + 3)));
    for (int i = 0; i < kProbeItems; ++i) m_DataIds.push_back(std::make_unique<Bstr>("D" + std::to_string(i)));
    Swap();
    Require(CStaticDataCacheClient::RegisterDataStore(m_StoreId, QX::DataStore::TypeMemory, 0, 1, Bstr("Keldara")) ==
                S_OK,
            "RegisterDataStore failed");
    CStaticDataCacheClient client;
    for (int i = 0; i < n; ++i)
      Require(client.SetData(m_StoreId, Bstr(Compartment(i)), DataId(0), Payload()) == S_OK, "SetData failed");
    for (int k = 0; k < kProbes; ++k) FillProbe(k);
    Swap();
  }

  // Exchanges this size's history with the one in gHistoryTree.
  void Swap() {
    CAbstractTree* previous = gHistoryTree;
    gHistoryTree = m_History.release();
    m_History.reset(static_cast<CMemoryTree*>(previous));
  }

  void FillProbe(int k) {
    CStaticDataCacheClient client;
    for (int i = 0; i < kProbeItems; ++i)
      Require(client.SetData(m_StoreId, ProbeId(k), DataId(i), Payload()) == S_OK, "SetData of a probe failed");
  }

  char* StoreId() const { return m_StoreId; }
  char* ProbeId(int k) const { return m_Probes[k]->compartmentId; }
  char* SessionId(int k) const { return m_Probes[k]->sessionId; }
  const std::string& ProbeName(int k) const { return m_Probes[k]->name; }
  char* DataId(int i) const { return *m_DataIds[i]; }

 private:
  // This size's history while another one is in gHistoryTree. The first swap
  // hands the registration's own history to the first store made; it goes
  // back in gHistoryTree whenever that store's cases end.
  std::unique_ptr<CMemoryTree> m_History;
  std::string m_Id;
  Bstr m_StoreId;
  std::vector<std::unique_ptr<Probe>> m_Probes;
  std::vector<std::unique_ptr<Bstr>> m_DataIds;
};

int Next(int k) { return (k + 1) & (kProbes - 1); }

Store& StoreOf(int n) {
  static std::map<int, std::unique_ptr<Store>> stores;
  auto& slot = stores[n];
  if (!slot) slot = std::make_unique<Store>(n);
  return *slot;
}

// Puts the store's history in gHistoryTree for the scope of one case.
class UseHistory {
 public:
  explicit UseHistory(Store& store) : m_Store(store) { m_Store.Swap(); }
  ~UseHistory() { m_Store.Swap(); }
  UseHistory(const UseHistory&) = delete;
  UseHistory& operator=(const UseHistory&) = delete;

 private:
  Store& m_Store;
};

// The scale baseline: one map from "compartment/data id" to the bytes, under a
// mutex, holding the same items as the store.
class MapCache {
 public:
  explicit MapCache(int n) {
    for (int i = 0; i < n; ++i) m_Items[Compartment(i) + "/D0"] = PayloadBytes();
    Store& store = StoreOf(n);
    for (int k = 0; k < kProbes; ++k)
      for (int i = 0; i < kProbeItems; ++i) m_Items[store.ProbeName(k) + "/D" + std::to_string(i)] = PayloadBytes();
  }

  bool Get(const char* compartment, const char* dataId, std::vector<unsigned char>& out) {
    std::string key = std::string(compartment) + '/' + dataId;
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Items.find(key);
    if (it == m_Items.end()) return false;
    out = it->second;
    return true;
  }

  void Set(const char* compartment, const char* dataId, const std::vector<unsigned char>& value) {
    std::string key = std::string(compartment) + '/' + dataId;
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Items[key] = value;
  }

 private:
  std::mutex m_Mutex;
  std::map<std::string, std::vector<unsigned char>> m_Items;
};

MapCache& MapOf(int n) {
  static std::map<int, std::unique_ptr<MapCache>> maps;
  auto& slot = maps[n];
  if (!slot) slot = std::make_unique<MapCache>(n);
  return *slot;
}

// The SQL baseline: an in-memory table keyed by (compartment, id) holding the
// same items, written with a prepared upsert.
class SqlCache {
 public:
  explicit SqlCache(int n) {
    Require(sqlite3_open(":memory:", &m_Db) == SQLITE_OK, "sqlite3_open failed");
    Require(sqlite3_exec(m_Db,
                         "CREATE TABLE items(compartment TEXT NOT NULL, id TEXT NOT NULL, value BLOB NOT NULL,"
                         " PRIMARY KEY(compartment, id))",
                         nullptr, nullptr, nullptr) == SQLITE_OK,
            "CREATE TABLE failed");
    Require(sqlite3_prepare_v3(m_Db,
                               "INSERT INTO items(compartment, id, value) VALUES(?1, ?2, ?3)"
                               " ON CONFLICT(compartment, id) DO UPDATE SET value = excluded.value",
                               -1, SQLITE_PREPARE_PERSISTENT, &m_Upsert, nullptr) == SQLITE_OK,
            "prepare failed");
    sqlite3_exec(m_Db, "BEGIN", nullptr, nullptr, nullptr);
    for (int i = 0; i < n; ++i) Upsert(Compartment(i).c_str(), "D0");
    Store& store = StoreOf(n);
    for (int k = 0; k < kProbes; ++k)
      for (int i = 0; i < kProbeItems; ++i) Upsert(store.ProbeName(k).c_str(), ("D" + std::to_string(i)).c_str());
    sqlite3_exec(m_Db, "COMMIT", nullptr, nullptr, nullptr);
  }
  ~SqlCache() {
    sqlite3_finalize(m_Upsert);
    sqlite3_close(m_Db);
  }
  SqlCache(const SqlCache&) = delete;
  SqlCache& operator=(const SqlCache&) = delete;

  void Upsert(const char* compartment, const char* dataId) {
    sqlite3_bind_text(m_Upsert, 1, compartment, -1, SQLITE_STATIC);
    sqlite3_bind_text(m_Upsert, 2, dataId, -1, SQLITE_STATIC);
    sqlite3_bind_blob(m_Upsert, 3, PayloadBytes().data(), kValueSize, SQLITE_STATIC);
    const int rc = sqlite3_step(m_Upsert);
    sqlite3_reset(m_Upsert);
    Require(rc == SQLITE_DONE, "upsert failed");
  }

 private:
  sqlite3* m_Db = nullptr;
  sqlite3_stmt* m_Upsert = nullptr;
};

SqlCache& SqlOf(int n) {
  static std::map<int, std::unique_ptr<SqlCache>> caches;
  auto& slot = caches[n];
  if (!slot) slot = std::make_unique<SqlCache>(n);
  return *slot;
}

int Size(const benchmark::State& state) { return static_cast<int>(state.range(0)); }

// ---- Compartment operations on the probes --------------------------------

void BM_IsCompartmentCached(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  UseHistory history(store);
  CStaticDataCacheClient client;
  int k = 0;
  for (auto _ : state) {
    unsigned long ulCompartment = 0, ulContent = 0;
    signed char bCached = 0;
    HRESULT hr = client.IsCompartmentCached(store.StoreId(), store.ProbeId(k), &ulCompartment, &ulContent, &bCached);
    if (hr != S_OK || bCached != 1) state.SkipWithError("IsCompartmentCached failed");
    benchmark::DoNotOptimize(ulContent);
    k = Next(k);
  }
}

// The session of a probe, with its ten children.
void BM_ListCompartmentIds(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  UseHistory history(store);
  CStaticDataCacheClient client;
  int k = 0;
  for (auto _ : state) {
    SAFEARRAY* psa = nullptr;
    HRESULT hr = client.ListCompartmentIds(store.StoreId(), store.SessionId(k), &psa);
    if (hr != S_OK || psa == nullptr || psa->rgsabound[0].cElements != kChildrenPerSession)
      state.SkipWithError("ListCompartmentIds failed");
    qxSafeArrayDestroy(psa, 0);
    k = Next(k);
  }
}

void BM_ListDataIds(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  UseHistory history(store);
  CStaticDataCacheClient client;
  int k = 0;
  for (auto _ : state) {
    SAFEARRAY* psa = nullptr;
    HRESULT hr = client.ListDataIds(store.StoreId(), store.ProbeId(k), &psa);
    if (hr != S_OK || psa == nullptr || psa->rgsabound[0].cElements != kProbeItems)
      state.SkipWithError("ListDataIds failed");
    qxSafeArrayDestroy(psa, 0);
    k = Next(k);
  }
}

// A removed compartment is kept (unlinked) by the tree until the store ends,
// so every removal retains about a kilobyte: the removal cases run a fixed
// number of iterations.
constexpr int kRemovals = 4000;

// The probe is put back (its four SetData) with the clock stopped; only the
// removal is timed. Stopping and restarting the clock costs something that
// lands partly in the timed region: BM_PauseResumeOnly measures it.
void BM_RemoveCompartment(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  UseHistory history(store);
  CStaticDataCacheClient client;
  int k = 0;
  for (auto _ : state) {
    state.PauseTiming();
    store.FillProbe(k);
    state.ResumeTiming();
    if (client.RemoveCompartment(store.StoreId(), store.ProbeId(k), 0) != S_OK)
      state.SkipWithError("RemoveCompartment failed");
    k = Next(k);
  }
  for (k = 0; k < kProbes; ++k) store.FillProbe(k);
}

void BM_PauseResumeOnly(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    state.ResumeTiming();
  }
}

// The cross-check without clock stops: a removal and the re-creation of the
// probe (four SetData into the new compartment), timed together.
void BM_RemoveAndRefill(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  UseHistory history(store);
  CStaticDataCacheClient client;
  int k = 0;
  for (auto _ : state) {
    if (client.RemoveCompartment(store.StoreId(), store.ProbeId(k), 0) != S_OK)
      state.SkipWithError("RemoveCompartment failed");
    store.FillProbe(k);
    k = Next(k);
  }
}

// ---- GetData against a map lookup and copy --------------------------------

void BM_ClientGetData(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  UseHistory history(store);
  CStaticDataCacheClient client;
  int k = 0;
  for (auto _ : state) {
    SAFEARRAY* psa = nullptr;
    if (client.GetData(store.StoreId(), store.ProbeId(k), store.DataId(2), &psa) != S_OK)
      state.SkipWithError("GetData failed");
    qxSafeArrayDestroy(psa, 0);
    k = Next(k);
  }
}

void BM_MapGetData(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  MapCache& map = MapOf(Size(state));
  int k = 0;
  for (auto _ : state) {
    std::vector<unsigned char> out;
    if (!map.Get(store.ProbeName(k).c_str(), "D2", out)) state.SkipWithError("lookup failed");
    benchmark::DoNotOptimize(out.data());
    k = Next(k);
  }
}

// ---- SetData into an existing compartment ----------------------------------

void BM_ClientSetData(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  UseHistory history(store);
  CStaticDataCacheClient client;
  int k = 0;
  for (auto _ : state) {
    if (client.SetData(store.StoreId(), store.ProbeId(k), store.DataId(2), Payload()) != S_OK)
      state.SkipWithError("SetData failed");
    k = Next(k);
  }
}

void BM_MapSetData(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  MapCache& map = MapOf(Size(state));
  const std::vector<unsigned char>& value = PayloadBytes();
  int k = 0;
  for (auto _ : state) {
    map.Set(store.ProbeName(k).c_str(), "D2", value);
    k = Next(k);
  }
}

void BM_SqliteUpsert(benchmark::State& state) {
  Store& store = StoreOf(Size(state));
  SqlCache& sql = SqlOf(Size(state));
  int k = 0;
  for (auto _ : state) {
    sql.Upsert(store.ProbeName(k).c_str(), "D2");
    k = Next(k);
  }
}

void Sizes(benchmark::internal::Benchmark* b) { b->Arg(100)->Arg(100000); }

BENCHMARK(BM_IsCompartmentCached)->Apply(Sizes);
BENCHMARK(BM_ListCompartmentIds)->Apply(Sizes);
BENCHMARK(BM_ListDataIds)->Apply(Sizes);
BENCHMARK(BM_RemoveCompartment)->Apply(Sizes)->Iterations(kRemovals);
BENCHMARK(BM_PauseResumeOnly)->Iterations(kRemovals);
BENCHMARK(BM_RemoveAndRefill)->Apply(Sizes)->Iterations(kRemovals);
BENCHMARK(BM_ClientGetData)->Apply(Sizes);
BENCHMARK(BM_MapGetData)->Apply(Sizes);
BENCHMARK(BM_ClientSetData)->Apply(Sizes);
BENCHMARK(BM_MapSetData)->Apply(Sizes);
BENCHMARK(BM_SqliteUpsert)->Apply(Sizes);

}  // namespace
