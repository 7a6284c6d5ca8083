// Replacements for C library calls that the code under test makes. They are
// found before the C library's because test programs link this library first.
// Each behaves exactly as the original until a test switches it.

#include "interpose.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

#include "xk/fault_point.h"
#include "xk/testsupport.h"

namespace xk {
namespace test {

const char* const kFixedKeyFilePath =
    "/Library/Frameworks/xk.merrowstore.framework/StoreConfiguration/remanentstore.key";

namespace interpose {
namespace {

std::atomic<bool> gManualTimeOn{false};
std::atomic<long long> gManualMs{0};  // the manual wall clock in milliseconds

struct KeyFileState {
  std::mutex mutex;
  std::string redirect;
  std::set<FILE*> streams;  // streams opened on the key file path
};

// A program that a test starts as a child finds its parent's redirect in
// XK_TEST_KEY_FILE, in force before the library's own loading reads the key.
KeyFileState& KeyFile() {
  static KeyFileState* state = [] {
    auto* fresh = new KeyFileState;
    if (const char* path = std::getenv("XK_TEST_KEY_FILE")) fresh->redirect = path;
    return fresh;
  }();
  return *state;
}

template <typename Fn>
Fn Real(const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void SetManualTime(bool on, std::time_t now) {
  gManualMs.store(static_cast<long long>(now) * 1000);
  gManualTimeOn.store(on);
}

std::time_t ManualTime() { return static_cast<std::time_t>(gManualMs.load() / 1000); }

void AddManualMilliseconds(long long milliseconds) { gManualMs.fetch_add(milliseconds); }

void SetKeyFileRedirect(const std::string& path) {
  std::lock_guard<std::mutex> lock(KeyFile().mutex);
  KeyFile().redirect = path;
}

std::string KeyFileRedirect() {
  std::lock_guard<std::mutex> lock(KeyFile().mutex);
  return KeyFile().redirect;
}

}  // namespace interpose

void RedirectKeyFile(const std::string& path) { interpose::SetKeyFileRedirect(path); }

}  // namespace test
}  // namespace xk

using namespace xk::test;
using namespace xk::test::interpose;

extern "C" {

XK_EXPORT time_t time(time_t* out) __THROW {
  time_t now;
  if (gManualTimeOn.load()) {
    now = ManualTime();
  } else {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    now = ts.tv_sec;
  }
  if (out) *out = now;
  return now;
}

// Faults "fopen" (kNull: the open fails) and "fread" (kShortRead: only
// `count` bytes arrive) apply to the key file only, so that the test
// framework's own file use does not consume the countdown.
XK_EXPORT FILE* fopen(const char* path, const char* mode) {
  static auto real = Real<FILE* (*)(const char*, const char*)>("fopen");
  bool keyFile = path && std::strcmp(path, kFixedKeyFilePath) == 0;
  std::string target;
  if (keyFile) {
    std::lock_guard<std::mutex> lock(KeyFile().mutex);
    target = KeyFile().redirect;
  }
  if (keyFile && xk::fault::Check("fopen").kind != xk::fault::Kind::kNone) {
    errno = EIO;
    return nullptr;
  }
  FILE* f = real(keyFile && !target.empty() ? target.c_str() : path, mode);
  if (keyFile && f) {
    std::lock_guard<std::mutex> lock(KeyFile().mutex);
    KeyFile().streams.insert(f);
  }
  return f;
}

XK_EXPORT size_t fread(void* buffer, size_t size, size_t count, FILE* stream) {
  static auto real = Real<size_t (*)(void*, size_t, size_t, FILE*)>("fread");
  bool keyFile;
  {
    std::lock_guard<std::mutex> lock(KeyFile().mutex);
    keyFile = KeyFile().streams.count(stream) != 0;
  }
  if (keyFile && size > 0) {
    xk::fault::Outcome o = xk::fault::Check("fread");
    if (o.kind != xk::fault::Kind::kNone) {
      size_t bytes = o.kind == xk::fault::Kind::kShortRead && o.count > 0 ? static_cast<size_t>(o.count) : 0;
      size_t items = std::min(count, bytes / size);
      return items ? real(buffer, size, items, stream) : 0;
    }
  }
  return real(buffer, size, count, stream);
}

XK_EXPORT int fclose(FILE* stream) {
  static auto real = Real<int (*)(FILE*)>("fclose");
  {
    std::lock_guard<std::mutex> lock(KeyFile().mutex);
    KeyFile().streams.erase(stream);
  }
  return real(stream);
}

}  // extern "C"
