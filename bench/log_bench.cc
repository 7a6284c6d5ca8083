// Cost of a log call whose level is off: the library logs at entry and exit of
// every operation, so this is paid on every call even when nobody listens.

#include <benchmark/benchmark.h>

#include "xk/log.h"
#include "xk/testsupport.h"

namespace {

class NullSink : public xk::log::Sink {
 public:
  void Write(const char*, int, const char*) override {}
};

// A sink is installed but the level is masked out.
void BM_LogLevelOff(benchmark::State& state) {
  NullSink sink;
  xk::log::AddSink(&sink);
  std::uint64_t saved = xk::log::GetLevelMask();
  xk::log::SetLevelMask(xk::log::Bit(1));
  unsigned hr = 0x80004005u;
  for (auto _ : state) {
    xklogLog("SRVMERROWSTORE", 16, "CInternalDataStore::GetData hr = 0x%x", hr);
    benchmark::ClobberMemory();
  }
  xk::log::SetLevelMask(saved);
  xk::log::RemoveSink(&sink);
}
BENCHMARK(BM_LogLevelOff);

// The same through the exported function itself, past the inline test.
void BM_LogLevelOffFunction(benchmark::State& state) {
  NullSink sink;
  xk::log::AddSink(&sink);
  std::uint64_t saved = xk::log::GetLevelMask();
  xk::log::SetLevelMask(xk::log::Bit(1));
  unsigned hr = 0x80004005u;
  for (auto _ : state) {
    (xklogLog)("SRVMERROWSTORE", 16, "CInternalDataStore::GetData hr = 0x%x", hr);
    benchmark::ClobberMemory();
  }
  xk::log::SetLevelMask(saved);
  xk::log::RemoveSink(&sink);
}
BENCHMARK(BM_LogLevelOffFunction);

// No sink at all (the production default).
void BM_LogNoSink(benchmark::State& state) {
  unsigned hr = 0;
  for (auto _ : state) {
    xklogLog("SRVMERROWSTORE", 8, "CInternalDataStore::GetData hr = 0x%x", hr);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_LogNoSink);

// For scale: a level that is on, formatted and handed to a sink that drops it.
void BM_LogLevelOnNullSink(benchmark::State& state) {
  NullSink sink;
  xk::log::AddSink(&sink);
  std::uint64_t saved = xk::log::GetLevelMask();
  xk::log::SetLevelMask(xk::log::kAllLevels);
  unsigned hr = 0;
  for (auto _ : state) xklogLog("SRVMERROWSTORE", 16, "CInternalDataStore::GetData hr = 0x%x", hr);
  xk::log::SetLevelMask(saved);
  xk::log::RemoveSink(&sink);
}
BENCHMARK(BM_LogLevelOnNullSink);

}  // namespace
