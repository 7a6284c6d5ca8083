#include "xk/testsupport.h"

#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "interpose.h"
#include "xk/registry.h"
#include "xk/timer_clock.h"

namespace xk {
namespace test {

// --- LogCapture --------------------------------------------------------------

LogCapture::LogCapture() : m_SavedMask(xk::log::GetLevelMask()) {
  xk::log::AddSink(this);
  xk::log::SetLevelMask(xk::log::kAllLevels);
}

LogCapture::~LogCapture() {
  xk::log::RemoveSink(this);
  xk::log::SetLevelMask(m_SavedMask);
}

void LogCapture::Write(const char* module, int level, const char* text) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_Entries.push_back(Entry{module, level, text});
}

std::vector<LogCapture::Entry> LogCapture::Entries() const {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_Entries;
}

bool LogCapture::Contains(int level, const std::string& text) const {
  std::lock_guard<std::mutex> lock(m_Mutex);
  for (const Entry& e : m_Entries)
    if (e.level == level && e.text == text) return true;
  return false;
}

std::size_t LogCapture::Count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(m_Mutex);
  std::size_t n = 0;
  for (const Entry& e : m_Entries)
    if (e.text == text) ++n;
  return n;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_Entries.clear();
}

// --- FaultInjector -----------------------------------------------------------

FaultInjector::FaultInjector() { xk::fault::Reset(); }
FaultInjector::~FaultInjector() { xk::fault::Reset(); }

void FaultInjector::FailWithCode(const char* op, long code, unsigned nth, bool persistent) {
  xk::fault::Arm(op, nth, {xk::fault::Kind::kCode, code, 0}, persistent);
}
void FaultInjector::FailWithNull(const char* op, unsigned nth, bool persistent) {
  xk::fault::Arm(op, nth, {xk::fault::Kind::kNull, 0, 0}, persistent);
}
void FaultInjector::FailWithThrow(const char* op, unsigned errorCode, unsigned nth, bool persistent) {
  xk::fault::Arm(op, nth, {xk::fault::Kind::kThrow, static_cast<long>(errorCode), 0}, persistent);
}
void FaultInjector::FailWithShortRead(const char* op, long bytes, unsigned nth, bool persistent) {
  xk::fault::Arm(op, nth, {xk::fault::Kind::kShortRead, 0, bytes}, persistent);
}
unsigned FaultInjector::Fired(const char* op) const { return xk::fault::Fired(op); }
void FaultInjector::Reset() { xk::fault::Reset(); }

// --- Sandbox -----------------------------------------------------------------

namespace {
int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }
}  // namespace

Sandbox::Sandbox() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/xktest.XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("Sandbox: mkdtemp failed");
  m_Dir = pattern;
  m_RegistryPath = m_Dir + "/registry.db";
  m_KeyFilePath = m_Dir + "/remanentstore.key";
  xkRegSetDatabasePath(m_RegistryPath.c_str());
  m_SavedKeyFileRedirect = interpose::KeyFileRedirect();
  RedirectKeyFile(m_KeyFilePath);
}

Sandbox::~Sandbox() {
  RedirectKeyFile(m_SavedKeyFileRedirect);
  xkRegSetDatabasePath(nullptr);
  nftw(m_Dir.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void Sandbox::WriteKeyFile(const std::vector<unsigned char>& bytes) const {
  FILE* f = std::fopen(m_KeyFilePath.c_str(), "wb");
  if (!f) throw std::runtime_error("Sandbox: cannot write the key file");
  if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

// --- TestClock ---------------------------------------------------------------

TestClock::TestClock(std::time_t start) {
  interpose::SetManualTime(true, start);
  xk::timer::UseManualClock(true);
}

TestClock::~TestClock() {
  xk::timer::UseManualClock(false);
  interpose::SetManualTime(false, 0);
}

std::time_t TestClock::Now() const { return interpose::ManualTime(); }

void TestClock::Advance(std::uint64_t seconds) { AdvanceMilliseconds(seconds * 1000); }

void TestClock::AdvanceMilliseconds(std::uint64_t milliseconds) {
  interpose::AddManualMilliseconds(static_cast<long long>(milliseconds));
  xk::timer::AdvanceManualClock(milliseconds * 1'000'000);
}

void TestClock::SetWallClock(std::time_t now) { interpose::SetManualTime(true, now); }

}  // namespace test
}  // namespace xk
