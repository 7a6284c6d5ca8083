#include "agent_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mstore {

bool AgentFolder::Make(const std::string& path, std::string& error) {
  path_ = path;
  if (mkdir(path.c_str(), 0700) == 0) {
    made_ = true;
    // The umask may have taken bits away, never added any; say it anyway.
    if (chmod(path.c_str(), 0700) == 0) return true;
  } else if (errno == EEXIST) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
      error = "cannot read " + path + ": " + std::strerror(errno);
      return false;
    }
    if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
      error = path + " is not a folder of this user";
      return false;
    }
    if ((st.st_mode & 07777) == 0700 || chmod(path.c_str(), 0700) == 0) return true;
  }
  error = "cannot make " + path + " a folder of mode 0700: " + std::strerror(errno);
  return false;
}

void AgentFolder::Remove() {
  if (made_ && rmdir(path_.c_str()) == 0) made_ = false;
}

}  // namespace mstore
