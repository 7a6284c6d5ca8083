#include "captured_log.h"

#include <cstring>

namespace mstore {

CapturedLog::~CapturedLog() { Stop(); }

void CapturedLog::Start(std::uint64_t levels) {
  if (!m_Started) {
    m_SavedMask = xk::log::GetLevelMask();
    xk::log::AddSink(this);
    m_Started = true;
  }
  m_Levels = levels;
  xk::log::SetLevelMask(levels);
}

void CapturedLog::Stop() {
  if (!m_Started) return;
  xk::log::RemoveSink(this);
  xk::log::SetLevelMask(m_SavedMask);
  m_Started = false;
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_Lines.clear();
}

void CapturedLog::Write(const char* module, int level, const char* text) {
  std::string line = "[" + std::to_string(level) + "] ";
  // Every record of the library carries the same module; others name theirs.
  if (std::strcmp(module, "SRVMERROWSTORE") != 0) line += std::string(module) + ": ";
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_Lines.push_back(line + text);
}

std::vector<std::string> CapturedLog::Take() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  std::vector<std::string> lines;
  lines.swap(m_Lines);
  return lines;
}

}  // namespace mstore
