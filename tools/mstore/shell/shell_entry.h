#ifndef MSTORE_SHELL_SHELL_ENTRY_H
#define MSTORE_SHELL_SHELL_ENTRY_H

// The one entry point of libmstoreshell.so, the part of mstore that runs with
// the store library loaded. The library reads its catalogue while it loads, so
// mstore loads this plugin (and with it the library) with dlopen only after it
// has chosen the registry database and the log; both share the one copy of
// the platform libraries in the process.

extern "C" {

enum MstoreShellCommand {
  kMstoreShellStores = 1,  // print the stores the library registered
  kMstoreShellRun = 2,     // read and run shell commands
};

struct MstoreShellRequest {
  int version;          // kMstoreShellVersion
  int command;          // a MstoreShellCommand
  const char* script;   // kMstoreShellRun: the file to read, or NULL for standard input
  int stopOnError;      // kMstoreShellRun: stop at the first line that cannot be run
  int echo;             // kMstoreShellRun: print each command before its result
};

// Runs the request and returns the process's exit status: 0, or 1 when the
// request could not be done (for the shell: when some line could not be run).
typedef int (*MstoreShellMainFunction)(const MstoreShellRequest* request);

}  // extern "C"

#define MSTORE_SHELL_MAIN "MstoreShellMain"
#define MSTORE_SHELL_LIBRARY "libmstoreshell.so"
constexpr int kMstoreShellVersion = 1;

#endif
