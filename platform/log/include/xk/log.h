#ifndef XK_LOG_H
#define XK_LOG_H

// The log service: printf-style records with a module name and a level, sent
// to every installed sink. A level is on when bit `level` of the level mask is
// set (levels 0 to 63). When a level is off, or no sink is installed, a call
// returns before formatting anything.
//
// At load the service reads XK_LOG_LEVELS (a level list, see ParseLevels),
// XK_LOG_FILE (a file sink, appended to, created with mode 0600) and
// XK_LOG_STDERR=1 (a stderr sink). Without them nothing is written anywhere.

#include <atomic>
#include <cstdint>

#include "xk/export.h"

extern "C" {
XK_EXPORT void xklogLog(const char* module, int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
}

namespace xk {
namespace log {

// Bit `level` is set when a record of that level would reach a sink: the level
// mask while at least one sink is installed, else 0.
XK_EXPORT extern std::atomic<std::uint64_t> gEffectiveMask;

inline bool IsOn(int level) {
  return static_cast<unsigned>(level) < 64 &&
         ((gEffectiveMask.load(std::memory_order_relaxed) >> level) & 1u) != 0;
}

}  // namespace log
}  // namespace xk

// Callers test the level inline, so a record that is off costs one load and
// one test: no call, no argument evaluated, nothing formatted. The function
// itself stays callable as (xklogLog)(...) and tests the level again.
#define xklogLog(module, level, ...) \
  (xk::log::IsOn(level) ? (xklogLog)((module), (level), __VA_ARGS__) : static_cast<void>(0))

namespace xk {
namespace log {

// The levels the library uses.
constexpr int kTrace = 0;
constexpr int kFailure = 1;
constexpr int kDetail = 2;
constexpr int kEntry = 8;
constexpr int kExit = 16;

constexpr std::uint64_t Bit(int level) { return std::uint64_t{1} << level; }
constexpr std::uint64_t kAllLevels = ~std::uint64_t{0};
constexpr std::uint64_t kDefaultLevels = Bit(kFailure);

// A destination of formatted records. Write is called with the service's sink
// lock held, so a sink sees one record at a time and must not log itself.
class XK_EXPORT Sink {
 public:
  virtual ~Sink();
  virtual void Write(const char* module, int level, const char* text) = 0;
};

XK_EXPORT void SetLevelMask(std::uint64_t mask);
XK_EXPORT std::uint64_t GetLevelMask();
// Parses "all", "none", or a comma-separated list of level numbers and the
// names trace (0), failure (1), detail (2), entry (8), exit (16).
// Returns false, leaving *mask as it was, on anything else.
XK_EXPORT bool ParseLevels(const char* text, std::uint64_t* mask);

// Sinks are not owned by the service; remove one before destroying it.
XK_EXPORT void AddSink(Sink* sink);
XK_EXPORT void RemoveSink(Sink* sink);
// Built-in sinks. Lines read "YYYY-mm-ddTHH:MM:SS.mmm pid tid MODULE [level] text".
XK_EXPORT void SetStderrSink(bool on);
// Appends to `path` (NULL closes the file sink). False if it cannot be opened.
XK_EXPORT bool SetFileSink(const char* path);

}  // namespace log
}  // namespace xk

#endif
