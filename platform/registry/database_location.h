#ifndef XK_REGISTRY_DATABASE_LOCATION_H
#define XK_REGISTRY_DATABASE_LOCATION_H

#include <string>

namespace xk {
namespace registry {

// The default database file, read from the environment now:
// $XK_REGISTRY_PATH if set and not empty, else $XDG_DATA_HOME/xk/registry.db
// if XDG_DATA_HOME is an absolute path, else $HOME/.local/share/xk/registry.db
// (HOME from the password database when unset). Empty if none of them is known.
std::string DefaultDatabasePath();

// Makes sure the database file exists: creates its missing folders with mode
// 0700 and the file itself with mode 0600, whatever the umask. An existing
// file or folder keeps its mode. ERROR_ACCESS_DENIED when refused by
// permissions, ERROR_REGISTRY_IO_FAILED for other failures.
long PrepareDatabaseFile(const std::string& path);

}  // namespace registry
}  // namespace xk

#endif
