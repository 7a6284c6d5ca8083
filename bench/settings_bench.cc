// A settings read through GetSettingValue when nothing changed (the answer
// kept from the last read), side by side with a read after a change (the
// registry read again) and with the two registry reads every GetSettingValue
// made before answers were kept.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "xk/registry.h"
#include "xk/settings.h"
#include "xk/testsupport.h"

namespace {

using QX::Framework::XKData;

const SecureString kTimeout("Merrowstore.Authentication.Timeout");

// One private registry, with the timeout set, for the whole program.
const xk::test::Sandbox& World() {
  static auto* sandbox = [] {
    auto* made = new xk::test::Sandbox;
    if (xk::settings::SetSettingValue(kTimeout, XKData(std::int64_t{30})) != S_OK) std::abort();
    return made;
  }();
  return *sandbox;
}

// The database's change counter, mapped as another process maps it.
std::atomic<std::uint64_t>* StampOf(const std::string& database) {
  int fd = open((database + "-stamp").c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) std::abort();
  void* page = mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (page == MAP_FAILED) std::abort();
  return static_cast<std::atomic<std::uint64_t>*>(page);
}

void Read(benchmark::State& state) {
  XKData value;
  if (GetSettingValue(kTimeout, value, nullptr) != S_OK || value.Int() != 30) state.SkipWithError("wrong value");
  benchmark::DoNotOptimize(value);
}

// Nothing changed since this thread's last read.
void BM_SettingUnchanged(benchmark::State& state) {
  World();
  for (auto _ : state) Read(state);
}
BENCHMARK(BM_SettingUnchanged)->Threads(1)->Threads(2);

// Another process has written since the last read: the counter moved, so the
// registry is read again and the answer kept anew.
void BM_SettingAfterChange(benchmark::State& state) {
  std::atomic<std::uint64_t>* stamp = StampOf(World().RegistryPath());
  for (auto _ : state) {
    stamp->fetch_add(1);
    Read(state);
  }
}
BENCHMARK(BM_SettingAfterChange);

// What GetSettingValue did on every call before: the value's size, then its
// bytes, each one registry call and one read transaction.
void BM_RegistryReadOfASetting(benchmark::State& state) {
  World();
  const char* key = xk::settings::RegistryKey();
  for (auto _ : state) {
    unsigned int type = 0, size = 0;
    if (qxRegReadValueEx("HKEY_LOCAL_MACHINE", key, kTimeout.c_str(), &type, nullptr, &size, 0) != ERROR_SUCCESS) {
      state.SkipWithError("no value");
    }
    std::vector<unsigned char> bytes(size);
    if (qxRegReadValueEx("HKEY_LOCAL_MACHINE", key, kTimeout.c_str(), &type, bytes.data(), &size, 0) !=
        ERROR_SUCCESS) {
      state.SkipWithError("no value");
    }
    benchmark::DoNotOptimize(bytes.data());
  }
}
BENCHMARK(BM_RegistryReadOfASetting);

}  // namespace
