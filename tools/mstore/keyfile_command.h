#ifndef MSTORE_KEYFILE_COMMAND_H
#define MSTORE_KEYFILE_COMMAND_H

#include <CLI/CLI.hpp>

namespace mstore {

// "mstore keyfile": provisions the key file of the stores with a persistent
// key (init) and says whether a usable one is present (check).
void AddKeyFileCommand(CLI::App& root, int& status);

}  // namespace mstore

#endif
