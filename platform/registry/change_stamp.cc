#include "change_stamp.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace xk {
namespace registry {

namespace {

struct Mapping {
  dev_t device;
  ino_t inode;
  ChangeCounter* counter;
};

// Every stamp file this process has mapped. Never destroyed, like the
// mappings: readers hold counter addresses without any lock.
std::vector<Mapping>& Mappings() {
  static auto* mappings = new std::vector<Mapping>;
  return *mappings;
}

// Opens the stamp file for reading and writing, creating it with the
// database file's mode and group when it is missing; -1 on failure.
int OpenStampFile(const std::string& path, const struct stat& database) {
  const mode_t mode = database.st_mode & 0777;
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd >= 0) {
    // open applies the umask; the stamp must be exactly as open as the
    // database, so that whoever may write the database may move the counter.
    // The group is only given where the owner may give it.
    if (fchmod(fd, mode) != 0) {
      close(fd);
      return -1;
    }
    (void)!fchown(fd, static_cast<uid_t>(-1), database.st_gid);
    return fd;
  }
  if (errno != EEXIST) return -1;
  return open(path.c_str(), O_RDWR | O_CLOEXEC);
}

}  // namespace

ChangeCounter* MapChangeCounter(const std::string& databasePath) {
  struct stat database;
  if (stat(databasePath.c_str(), &database) != 0) return nullptr;
  int fd = OpenStampFile(databasePath + "-stamp", database);
  if (fd < 0) return nullptr;
  struct stat st;
  ChangeCounter* counter = nullptr;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    for (const Mapping& known : Mappings()) {
      if (known.device == st.st_dev && known.inode == st.st_ino) counter = known.counter;
    }
    // Growing the file zero-fills only what is new, so a process that grows
    // it at the same time as another moves the counter loses nothing.
    const bool sized = st.st_size >= static_cast<off_t>(sizeof(ChangeCounter)) ||
                       ftruncate(fd, sizeof(ChangeCounter)) == 0;
    if (counter == nullptr && sized) {
      void* page = mmap(nullptr, sizeof(ChangeCounter), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (page != MAP_FAILED) {
        counter = static_cast<ChangeCounter*>(page);
        Mappings().push_back(Mapping{st.st_dev, st.st_ino, counter});
      }
    }
  }
  close(fd);
  return counter;
}

}  // namespace registry
}  // namespace xk
