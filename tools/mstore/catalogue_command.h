#ifndef MSTORE_CATALOGUE_COMMAND_H
#define MSTORE_CATALOGUE_COMMAND_H

#include <CLI/CLI.hpp>

namespace mstore {

// "mstore catalogue": list, add and remove the data stores that the library
// creates when it loads. Works on the registry alone; the library is not
// loaded. Each subcommand stores its exit status in `status`.
void AddCatalogueCommand(CLI::App& root, int& status);

}  // namespace mstore

#endif
