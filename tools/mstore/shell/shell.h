#ifndef MSTORE_SHELL_SHELL_H
#define MSTORE_SHELL_SHELL_H

#include <istream>

#include "session.h"

namespace mstore {

struct ShellOptions {
  bool interactive = false;  // prompt "mstore> " before each line
  bool stopOnError = false;  // stop at the first line that cannot be run
  bool echo = false;         // print each line before its result
};

// Reads lines from `in` until its end or "quit" and runs each as a command.
// Results go to the session's output, followed by the log records captured
// while the command ran; a line that cannot be run gets a message on stderr
// and the next line is read (unless stopOnError). Returns 0, or 1 if any line
// could not be run.
int RunShell(Session& session, std::istream& in, const ShellOptions& options);

}  // namespace mstore

#endif
