#include "library_command.h"

#include <dlfcn.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "shell/shell_entry.h"

namespace mstore {
namespace {

struct Args {
  std::string script;
  bool stopOnError = false;
  bool echo = false;
};

// In a build tree, <folder of the program>/../lib/libmstoreshell.so: the build
// puts programs in bin/ and libraries in lib/ of one folder. Installed, the
// plugin lives in the library folder's merrowstore/, MSTORE_INSTALLED_PLUGIN_DIR
// from the program's folder.
std::string PluginPath() {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return MSTORE_SHELL_LIBRARY;
  std::string folder(exe, static_cast<std::size_t>(n));
  folder.erase(folder.find_last_of('/') + 1);
  const std::string built = folder + "../lib/" + MSTORE_SHELL_LIBRARY;
  if (access(built.c_str(), F_OK) == 0) return built;
  return folder + MSTORE_INSTALLED_PLUGIN_DIR + "/" + MSTORE_SHELL_LIBRARY;
}

// Loads the plugin, and with it the store library, and runs the request. The
// plugin stays loaded until the process ends, so the library's stores are
// taken down at exit.
int RunInPlugin(MstoreShellRequest request) {
  const std::string path = PluginPath();
  void* plugin = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::cerr << "mstore: cannot load the store library: " << dlerror() << "\n";
    return 1;
  }
  auto run = reinterpret_cast<MstoreShellMainFunction>(dlsym(plugin, MSTORE_SHELL_MAIN));
  if (run == nullptr) {
    std::cerr << "mstore: " << path << " has no " << MSTORE_SHELL_MAIN << "\n";
    return 1;
  }
  request.version = kMstoreShellVersion;
  std::cout.flush();
  return run(&request);
}

}  // namespace

void AddLibraryCommands(CLI::App& root, int& status) {
  auto args = std::make_shared<Args>();

  root.add_subcommand("stores", "Load the library and show its PIN store and the data stores it registered from the catalogue")
      ->callback([&status] { status = RunInPlugin({0, kMstoreShellStores, nullptr, 0, 0}); });

  CLI::App* shell = root.add_subcommand(
      "shell", "Load the library and run data store and PIN commands from the terminal, a script or standard "
               "input (type help for the commands)");
  shell->add_option("--script", args->script, "Read the commands from this file")->check(CLI::ExistingFile);
  shell->add_flag("--stop-on-error", args->stopOnError, "Stop at the first line that cannot be run");
  shell->add_flag("--echo", args->echo, "Print each command before its result");
  shell->callback([args, &status] {
    status = RunInPlugin({0, kMstoreShellRun, args->script.empty() ? nullptr : args->script.c_str(),
                          args->stopOnError ? 1 : 0, args->echo ? 1 : 0});
  });
}

}  // namespace mstore
