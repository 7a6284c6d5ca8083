#ifndef MSTORE_SHELL_CAPTURED_LOG_H
#define MSTORE_SHELL_CAPTURED_LOG_H

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "xk/log.h"

namespace mstore {

// The shell's "log" command: while started, it receives the records of the
// chosen levels, which the shell prints after each command's result. Starting
// sets the log's level mask (which any --log sink shares); stopping, or
// destroying it, removes it and puts the mask back as it was before.
class CapturedLog : public xk::log::Sink {
 public:
  CapturedLog() = default;
  ~CapturedLog() override;
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  void Start(std::uint64_t levels);
  void Stop();
  bool Started() const { return m_Started; }
  std::uint64_t Levels() const { return m_Levels; }

  void Write(const char* module, int level, const char* text) override;
  // The records received since the last call, one line each: "[level] text".
  std::vector<std::string> Take();

 private:
  std::mutex m_Mutex;
  std::vector<std::string> m_Lines;
  bool m_Started = false;
  std::uint64_t m_Levels = 0;
  std::uint64_t m_SavedMask = 0;
};

}  // namespace mstore

#endif
