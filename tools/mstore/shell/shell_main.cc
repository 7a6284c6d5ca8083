// The entry point of libmstoreshell.so (see shell_entry.h).

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "shell.h"
#include "shell_entry.h"
#include "store_report.h"
#include "xk/export.h"

extern "C" XK_EXPORT int MstoreShellMain(const MstoreShellRequest* request) {
  if (request == nullptr || request->version != kMstoreShellVersion) {
    std::cerr << "mstore: " << MSTORE_SHELL_LIBRARY << " does not belong to this mstore\n";
    return 1;
  }
  mstore::Session session(std::cout);
  if (request->command == kMstoreShellStores) return mstore::PrintStores(session.client, session.pins, std::cout);

  mstore::ShellOptions options;
  options.stopOnError = request->stopOnError != 0;
  options.echo = request->echo != 0;
  if (request->script == nullptr) {
    options.interactive = isatty(STDIN_FILENO) != 0;
    return mstore::RunShell(session, std::cin, options);
  }
  std::ifstream script(request->script);
  if (!script) {
    std::cerr << "mstore: cannot read " << request->script << ": " << std::strerror(errno) << "\n";
    return 1;
  }
  return mstore::RunShell(session, script, options);
}
