#ifndef XK_TESTSUPPORT_H
#define XK_TESTSUPPORT_H

// Test support for code built on the platform services. Linked into test
// programs only, never into production code. Linking it also interposes
// time(), fopen() and fread() for the whole test program: they behave as the C
// library's until a TestClock, a key file redirect or an armed fault says
// otherwise.

#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "xk/export.h"
#include "xk/fault_point.h"
#include "xk/log.h"

namespace xk {
namespace test {

// Records every log record while it lives, whatever the level mask said
// before (it turns every level on and restores the mask afterwards).
class XK_EXPORT LogCapture : public xk::log::Sink {
 public:
  struct Entry {
    std::string module;
    int level;
    std::string text;
  };

  LogCapture();
  ~LogCapture() override;
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void Write(const char* module, int level, const char* text) override;
  std::vector<Entry> Entries() const;
  // True if some record has exactly this level and text.
  bool Contains(int level, const std::string& text) const;
  // Number of records with exactly this text, at any level.
  std::size_t Count(const std::string& text) const;
  void Clear();

 private:
  mutable std::mutex m_Mutex;
  std::vector<Entry> m_Entries;
  std::uint64_t m_SavedMask;
};

// Arms fault points (see xk/fault_point.h for the operation names) and disarms
// them all when it goes out of scope.
class XK_EXPORT FaultInjector {
 public:
  FaultInjector();
  ~FaultInjector();
  FaultInjector(const FaultInjector&) = delete;
  FaultInjector& operator=(const FaultInjector&) = delete;

  // Fails the nth next call of `op` (n >= 1); with `persistent`, every call
  // from then on too.
  void FailWithCode(const char* op, long code, unsigned nth = 1, bool persistent = false);
  void FailWithNull(const char* op, unsigned nth = 1, bool persistent = false);
  void FailWithThrow(const char* op, unsigned errorCode, unsigned nth = 1, bool persistent = false);
  void FailWithShortRead(const char* op, long bytes, unsigned nth = 1, bool persistent = false);
  unsigned Fired(const char* op) const;
  void Reset();
};

// A private world for one test: a fresh temporary folder holding the registry
// database (so settings are private too) and the redirected key file path.
// Everything is put back and removed when it goes out of scope.
class XK_EXPORT Sandbox {
 public:
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& Dir() const { return m_Dir; }
  const std::string& RegistryPath() const { return m_RegistryPath; }
  // Where fopen of the fixed key file path lands while this sandbox lives.
  const std::string& KeyFilePath() const { return m_KeyFilePath; }
  // Writes `bytes` to KeyFilePath().
  void WriteKeyFile(const std::vector<unsigned char>& bytes) const;

 private:
  std::string m_Dir;
  std::string m_RegistryPath;
  std::string m_KeyFilePath;
  std::string m_SavedRegistryPath;
  std::string m_SavedKeyFileRedirect;  // put back when the sandbox goes
};

// The fixed key file path of the library; fopen of it is redirected by a
// Sandbox or by RedirectKeyFile.
XK_EXPORT extern const char* const kFixedKeyFilePath;
// Redirects fopen of kFixedKeyFilePath to `path` (empty: no redirect). A
// program started with XK_TEST_KEY_FILE set begins with that redirect, so a
// test can hand its sandbox's key file to a child process.
XK_EXPORT void RedirectKeyFile(const std::string& path);

// Drives time() and the timer service while it lives: time() returns a
// manual wall clock and timers run on a manual monotonic clock, both moved
// only by Advance.
class XK_EXPORT TestClock {
 public:
  explicit TestClock(std::time_t start = 1'700'000'000);
  ~TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  std::time_t Now() const;
  // Moves both clocks forward and returns once every timer callback due by
  // then has run.
  void Advance(std::uint64_t seconds);
  void AdvanceMilliseconds(std::uint64_t milliseconds);
  // Moves only the wall clock (time()), in either direction: timers must not
  // notice.
  void SetWallClock(std::time_t now);
};

}  // namespace test
}  // namespace xk

#endif
