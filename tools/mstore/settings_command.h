#ifndef MSTORE_SETTINGS_COMMAND_H
#define MSTORE_SETTINGS_COMMAND_H

#include <CLI/CLI.hpp>

namespace mstore {

// "mstore settings": show the library's settings with their effective values
// and where each came from; set one; reset one to its default.
void AddSettingsCommand(CLI::App& root, int& status);

}  // namespace mstore

#endif
