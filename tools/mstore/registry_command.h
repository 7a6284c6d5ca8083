#ifndef MSTORE_REGISTRY_COMMAND_H
#define MSTORE_REGISTRY_COMMAND_H

#include <CLI/CLI.hpp>

namespace mstore {

// "mstore registry": list, show, set, delete-value, delete-key, dump.
// Each subcommand stores its exit status in `status`.
void AddRegistryCommand(CLI::App& root, int& status);

// A registry status as text, e.g. "2 (not found)".
std::string RegistryStatusText(long status);

}  // namespace mstore

#endif
