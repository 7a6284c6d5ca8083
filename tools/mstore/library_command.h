#ifndef MSTORE_LIBRARY_COMMAND_H
#define MSTORE_LIBRARY_COMMAND_H

#include <CLI/CLI.hpp>

namespace mstore {

// "mstore stores" and "mstore shell": the commands that load the store
// library. They run in libmstoreshell.so, which is loaded from the lib folder
// beside the program's bin folder when one of them runs, after the options
// of `root` (registry, log) have been applied. Each stores its exit status in
// `status`; a plugin that cannot be loaded gives a message and 1.
void AddLibraryCommands(CLI::App& root, int& status);

}  // namespace mstore

#endif
