// The resident cost of cached items: 100,000 items of 32 bytes (VT_UI1) put
// into a memory data store through the exported client, and for scale the
// same items in a std::map from "compartment/data id" to the bytes. Each case
// reads the resident set (/proc/self/statm) and the bytes in use by malloc
// (mallinfo2) before and after the fill and reports the growth per item. The
// store's figure includes the version counters that the fill leaves in the
// history (two per compartment and per session, one pair for the store).
//
// Run one case per process (--benchmark_filter), without repetitions: a
// second fill in the same process would start from memory the first one left.
// Loading the library reads the store catalogue from the registry: run it
// with XK_REGISTRY_PATH naming a scratch file (see docs/performance.md).

#include "bench_support.h"
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "merrowstore/StaticDataCacheClient.h"
#include "xk/oleauto.h"

namespace {

using bench::Bstr;

using QX::DataStore::CStaticDataCacheClient;

constexpr int kItems = 100000;
constexpr unsigned long kValueSize = 32;

struct Usage {
  long resident = 0;  // bytes
  long heap = 0;      // bytes handed out by malloc
};

Usage Now() {
  Usage usage;
  long pages = 0;
  long residentPages = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &residentPages) != 2) residentPages = 0;
    std::fclose(f);
  }
  usage.resident = residentPages * sysconf(_SC_PAGESIZE);
  usage.heap = static_cast<long>(mallinfo2().uordblks);
  return usage;
}

void Report(benchmark::State& state, const Usage& before, const Usage& after) {
  state.counters["rss_per_item"] = static_cast<double>(after.resident - before.resident) / kItems;
  state.counters["heap_per_item"] = static_cast<double>(after.heap - before.heap) / kItems;
  state.counters["rss_MB"] = static_cast<double>(after.resident - before.resident) / 1e6;
}

// Sessions "S<k>" of compartments "S<k>/C<j>", each holding `itemsPerCompartment`
// items "D0", "D1", ...: the names of item `i`.
std::string CompartmentOf(int i, int itemsPerCompartment, int compartmentsPerSession) {
  const int compartment = i / itemsPerCompartment;
  return "S" + std::to_string(compartment / compartmentsPerSession) + "/C" +
         std::to_string(compartment % compartmentsPerSession);
}

std::string DataIdOf(int i, int itemsPerCompartment) { return "D" + std::to_string(i % itemsPerCompartment); }

// The store case; the argument is the number of items per compartment
// (1: 100,000 compartments, 10: 10,000), ten compartments a session.
void BM_StoreResident(benchmark::State& state) {
  const int perCompartment = static_cast<int>(state.range(0));
  SAFEARRAY* value = SafeArrayCreateVector(VT_UI1, 0, kValueSize);
  void* data = nullptr;
  SafeArrayAccessData(value, &data);
  std::memset(data, 0x5A, kValueSize);
  SafeArrayUnaccessData(value);
  const std::string id = "memory." + std::to_string(perCompartment);
  Bstr storeId(id);
  if (CStaticDataCacheClient::RegisterDataStore(storeId, QX::DataStore::TypeMemory, 0, 1, Bstr("Keldara")) != S_OK) {
    state.SkipWithError("RegisterDataStore failed (one case per process)");
    return;
  }
  CStaticDataCacheClient client;
  for (auto _ : state) {
    const Usage before = Now();
    for (int i = 0; i < kItems; ++i) {
      Bstr compartment(CompartmentOf(i, perCompartment, 10));
      Bstr dataId(DataIdOf(i, perCompartment));
      if (client.SetData(storeId, compartment, dataId, value) != S_OK) {
        state.SkipWithError("SetData failed");
        break;
      }
    }
    Report(state, before, Now());
  }
  qxSafeArrayDestroy(value, 0);
}
BENCHMARK(BM_StoreResident)->Arg(1)->Arg(10)->Iterations(1)->Unit(benchmark::kMillisecond);

// The scale baseline, filled with the same keys.
void BM_MapResident(benchmark::State& state) {
  const int perCompartment = static_cast<int>(state.range(0));
  const std::vector<unsigned char> value(kValueSize, 0x5A);
  for (auto _ : state) {
    auto* items = new std::map<std::string, std::vector<unsigned char>>;
    const Usage before = Now();
    for (int i = 0; i < kItems; ++i)
      (*items)[CompartmentOf(i, perCompartment, 10) + "/" + DataIdOf(i, perCompartment)] = value;
    Report(state, before, Now());
    benchmark::DoNotOptimize(items);
    state.PauseTiming();
    delete items;
    state.ResumeTiming();
  }
}
BENCHMARK(BM_MapResident)->Arg(1)->Arg(10)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
