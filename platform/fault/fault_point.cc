#include "xk/fault_point.h"

#include <map>
#include <mutex>
#include <string>

namespace xk {
namespace fault {

std::atomic<bool> gAnyArmed{false};

namespace {

struct Armed {
  unsigned countdown = 0;  // calls left before the fault fires
  bool persistent = false;
  bool spent = false;
  unsigned fired = 0;
  Outcome outcome;
};

std::mutex& Lock() {
  static std::mutex* m = new std::mutex;
  return *m;
}

std::map<std::string, Armed, std::less<>>& Points() {
  static auto* points = new std::map<std::string, Armed, std::less<>>;
  return *points;
}

}  // namespace

Outcome CheckSlow(const char* op) noexcept {
  std::lock_guard<std::mutex> lock(Lock());
  auto it = Points().find(std::string_view(op));
  if (it == Points().end()) return Outcome{};
  Armed& a = it->second;
  if (a.spent) return Outcome{};
  if (a.countdown > 1) {
    --a.countdown;
    return Outcome{};
  }
  a.countdown = 1;
  ++a.fired;
  if (!a.persistent) a.spent = true;
  return a.outcome;
}

void Arm(const char* op, unsigned nth, Outcome outcome, bool persistent) {
  std::lock_guard<std::mutex> lock(Lock());
  Armed a;
  a.countdown = nth == 0 ? 1 : nth;
  a.persistent = persistent;
  a.outcome = outcome;
  Points()[op] = a;
  gAnyArmed.store(true, std::memory_order_relaxed);
}

void Reset() {
  std::lock_guard<std::mutex> lock(Lock());
  Points().clear();
  gAnyArmed.store(false, std::memory_order_relaxed);
}

unsigned Fired(const char* op) {
  std::lock_guard<std::mutex> lock(Lock());
  auto it = Points().find(std::string_view(op));
  return it == Points().end() ? 0 : it->second.fired;
}

}  // namespace fault
}  // namespace xk
