#include "xk/log.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace xk {
namespace log {

std::atomic<std::uint64_t> gEffectiveMask{0};

Sink::~Sink() = default;

namespace {

// Writes whole lines to a file descriptor it may own.
class FdSink : public Sink {
 public:
  FdSink(int fd, bool owned) : m_Fd(fd), m_Owned(owned) {}
  ~FdSink() override {
    if (m_Owned) close(m_Fd);
  }
  void Write(const char* module, int level, const char* text) override {
    char stamp[64];
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tm parts;
    localtime_r(&ts.tv_sec, &parts);
    std::size_t n = std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(stamp + n, sizeof stamp - n, ".%03ld", ts.tv_nsec / 1000000);
    std::string line = std::string(stamp) + " " + std::to_string(getpid()) + " " +
                       std::to_string(static_cast<long>(syscall(SYS_gettid))) + " " + module + " [" +
                       std::to_string(level) + "] " + text + "\n";
    const char* p = line.data();
    std::size_t left = line.size();
    while (left > 0) {
      ssize_t w = ::write(m_Fd, p, left);
      if (w <= 0) break;
      p += w;
      left -= static_cast<std::size_t>(w);
    }
  }

 private:
  int m_Fd;
  bool m_Owned;
};

struct State {
  std::mutex mutex;             // guards sinks and the owned built-in sinks
  std::vector<Sink*> sinks;
  FdSink* stderrSink = nullptr;
  FdSink* fileSink = nullptr;
  std::uint64_t levels = kDefaultLevels;
};

State& GetState() {
  // Never destroyed: records may arrive from static destructors of other libraries.
  static State* state = new State;
  return *state;
}

void Publish(State& s) {
  gEffectiveMask.store(s.sinks.empty() ? 0 : s.levels, std::memory_order_relaxed);
}

void ReplaceBuiltin(State& s, FdSink*& slot, FdSink* replacement) {
  if (slot) {
    s.sinks.erase(std::remove(s.sinks.begin(), s.sinks.end(), slot), s.sinks.end());
    delete slot;
  }
  slot = replacement;
  if (slot) s.sinks.push_back(slot);
  Publish(s);
}

std::string Trim(std::string t) {
  while (!t.empty() && std::isspace(static_cast<unsigned char>(t.back()))) t.pop_back();
  std::size_t b = 0;
  while (b < t.size() && std::isspace(static_cast<unsigned char>(t[b]))) ++b;
  return t.substr(b);
}

// Reads the environment once, when the library is loaded.
struct EnvironmentSetup {
  EnvironmentSetup() {
    if (const char* levels = std::getenv("XK_LOG_LEVELS")) {
      std::uint64_t mask;
      if (ParseLevels(levels, &mask)) SetLevelMask(mask);
    }
    if (const char* file = std::getenv("XK_LOG_FILE"); file && *file) SetFileSink(file);
    if (const char* err = std::getenv("XK_LOG_STDERR"); err && std::strcmp(err, "1") == 0) SetStderrSink(true);
  }
} gEnvironmentSetup;

}  // namespace

void SetLevelMask(std::uint64_t mask) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.levels = mask;
  Publish(s);
}

std::uint64_t GetLevelMask() {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.levels;
}

bool ParseLevels(const char* text, std::uint64_t* mask) {
  if (!text || !mask) return false;
  static const struct {
    const char* name;
    int level;
  } kNames[] = {{"trace", kTrace}, {"failure", kFailure}, {"detail", kDetail}, {"entry", kEntry}, {"exit", kExit}};
  std::string all = Trim(text);
  if (all == "all") {
    *mask = kAllLevels;
    return true;
  }
  if (all == "none") {
    *mask = 0;
    return true;
  }
  std::uint64_t result = 0;
  std::size_t start = 0;
  while (true) {
    std::size_t comma = all.find(',', start);
    std::string item = Trim(all.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    if (item.empty()) return false;
    int level = -1;
    for (const auto& n : kNames)
      if (item == n.name) level = n.level;
    if (level < 0) {
      char* end = nullptr;
      long v = std::strtol(item.c_str(), &end, 10);
      if (*end != '\0' || v < 0 || v > 63) return false;
      level = static_cast<int>(v);
    }
    result |= Bit(level);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  *mask = result;
  return true;
}

void AddSink(Sink* sink) {
  if (!sink) return;
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.sinks.push_back(sink);
  Publish(s);
}

void RemoveSink(Sink* sink) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.sinks.erase(std::remove(s.sinks.begin(), s.sinks.end(), sink), s.sinks.end());
  Publish(s);
}

void SetStderrSink(bool on) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  ReplaceBuiltin(s, s.stderrSink, on ? new FdSink(STDERR_FILENO, false) : nullptr);
}

bool SetFileSink(const char* path) {
  int fd = -1;
  if (path) {
    fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return false;
  }
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  ReplaceBuiltin(s, s.fileSink, fd >= 0 ? new FdSink(fd, true) : nullptr);
  return true;
}

}  // namespace log
}  // namespace xk

using namespace xk::log;

extern "C" void(xklogLog)(const char* module, int level, const char* format, ...) {
  if (level < 0 || level > 63) return;
  if (!(gEffectiveMask.load(std::memory_order_relaxed) & Bit(level))) return;
  if (!format) return;

  char small[512];
  std::vector<char> large;
  const char* text = small;
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int n = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (n >= static_cast<int>(sizeof small)) {
    large.resize(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(large.data(), large.size(), format, again);
    text = large.data();
  } else if (n < 0) {
    text = format;
  }
  va_end(again);

  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!(s.levels & Bit(level))) return;
  for (Sink* sink : s.sinks) sink->Write(module ? module : "", level, text);
}
