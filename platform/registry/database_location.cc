#include "database_location.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "xk/registry.h"

namespace xk {
namespace registry {

namespace {

long StatusFromErrno(int error) {
  return error == EACCES || error == EPERM || error == EROFS ? ERROR_ACCESS_DENIED : ERROR_REGISTRY_IO_FAILED;
}

std::string HomeFolder() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') return home;
  std::vector<char> buffer(16384);
  passwd entry;
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr) {
    return found->pw_dir;
  }
  return std::string();
}

// Creates each missing folder of `folder` with mode 0700.
long MakeFolders(const std::string& folder) {
  for (std::size_t end = 1; end <= folder.size(); ++end) {
    if (end < folder.size() && folder[end] != '/') continue;
    std::string prefix = folder.substr(0, end);
    struct stat st;
    if (stat(prefix.c_str(), &st) == 0) {
      if (!S_ISDIR(st.st_mode)) return ERROR_REGISTRY_IO_FAILED;
      continue;
    }
    if (mkdir(prefix.c_str(), 0700) != 0) {
      if (errno == EEXIST) continue;
      return StatusFromErrno(errno);
    }
    // mkdir applies the umask; the folder must end up 0700 whatever it is.
    if (chmod(prefix.c_str(), 0700) != 0) return StatusFromErrno(errno);
  }
  return ERROR_SUCCESS;
}

}  // namespace

std::string DefaultDatabasePath() {
  const char* explicitPath = std::getenv("XK_REGISTRY_PATH");
  if (explicitPath != nullptr && *explicitPath != '\0') return explicitPath;
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  if (dataHome != nullptr && dataHome[0] == '/') return std::string(dataHome) + "/xk/registry.db";
  std::string home = HomeFolder();
  if (home.empty()) return std::string();
  return home + "/.local/share/xk/registry.db";
}

long PrepareDatabaseFile(const std::string& path) {
  if (path.empty()) return ERROR_ACCESS_DENIED;
  std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    long status = MakeFolders(path.substr(0, slash));
    if (status != ERROR_SUCCESS) return status;
  }
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return errno == EEXIST ? ERROR_SUCCESS : StatusFromErrno(errno);
  // open applies the umask too; SQLite gives the -wal and -shm files the
  // mode of the database file, so 0600 here keeps all three private.
  long status = fchmod(fd, 0600) == 0 ? ERROR_SUCCESS : StatusFromErrno(errno);
  close(fd);
  return status;
}

}  // namespace registry
}  // namespace xk
