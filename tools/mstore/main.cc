// mstore: the administration and diagnostic tool of the store library.

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "agent_command.h"
#include "catalogue_command.h"
#include "keyfile_command.h"
#include "library_command.h"
#include "registry_command.h"
#include "settings_command.h"
#include "xk/log.h"
#include "xk/registry.h"

int main(int argc, char** argv) {
  CLI::App app{"mstore: administration of the store library's registry, settings, catalogue and stores"};
  app.require_subcommand(1);
  std::string registryPath;
  std::string logLevels;
  app.add_option("--registry", registryPath, "Registry database file (default: see docs/platform.md)");
  app.add_option("--log", logLevels, "Show the log on stderr for these levels: all, or a list of 0,1,2,8,16 "
                                     "or trace,failure,detail,entry,exit");

  int status = 0;
  app.parse_complete_callback([&] {
    if (!registryPath.empty() && xkRegSetDatabasePath(registryPath.c_str()) != ERROR_SUCCESS)
      throw CLI::ValidationError("--registry", "cannot use " + registryPath);
    if (!logLevels.empty()) {
      std::uint64_t mask;
      if (!xk::log::ParseLevels(logLevels.c_str(), &mask))
        throw CLI::ValidationError("--log", "not a level list: " + logLevels);
      xk::log::SetLevelMask(mask);
      xk::log::SetStderrSink(true);
    }
  });
  mstore::AddRegistryCommand(app, status);
  mstore::AddSettingsCommand(app, status);
  mstore::AddCatalogueCommand(app, status);
  mstore::AddLibraryCommands(app, status);
  mstore::AddKeyFileCommand(app, status);
  mstore::AddAgentCommand(app, status);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  return status;
}
