#include "keyfile_command.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "crypto/KeyFileMask.h"

namespace mstore {
namespace {

struct Args {
  std::string path = KeyFilePath;
  bool force = false;
};

std::string Why() { return std::strerror(errno); }

// Creates the missing folders of `path` (mode 0755: the file guards itself).
bool MakeParents(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
      std::cerr << "mstore: cannot create " << dir << ": " << Why() << "\n";
      return false;
    }
  }
  return true;
}

int RunInit(const Args& a) {
  if (!MakeParents(a.path)) return 1;
  unsigned char bytes[16];
  if (RAND_priv_bytes(bytes, sizeof bytes) != 1) {
    std::cerr << "mstore: the random generator gave no bytes\n";
    return 1;
  }
  for (std::size_t i = 0; i < sizeof bytes; ++i) bytes[i] ^= KeyFileMask[i];

  // Write a private temporary file beside the target, then move it in place,
  // so a reader never sees a partial key and the mode is right from the start.
  std::string temp = a.path + ".new";
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    std::cerr << "mstore: cannot create " << temp << ": " << Why() << "\n";
    OPENSSL_cleanse(bytes, sizeof bytes);
    return 1;
  }
  bool ok = fchmod(fd, 0600) == 0 && write(fd, bytes, sizeof bytes) == static_cast<ssize_t>(sizeof bytes) &&
            fsync(fd) == 0;
  OPENSSL_cleanse(bytes, sizeof bytes);
  ok = close(fd) == 0 && ok;
  if (ok && !a.force) {
    // link() refuses to replace an existing file, unlike rename().
    ok = link(temp.c_str(), a.path.c_str()) == 0;
    if (!ok && errno == EEXIST) {
      unlink(temp.c_str());
      std::cerr << "mstore: " << a.path << " exists; use --force to replace it (values protected with the old "
                << "key become unreadable)\n";
      return 1;
    }
    unlink(temp.c_str());
  } else if (ok) {
    ok = rename(temp.c_str(), a.path.c_str()) == 0;
  }
  if (!ok) {
    std::cerr << "mstore: cannot write " << a.path << ": " << Why() << "\n";
    unlink(temp.c_str());
    return 1;
  }
  std::cout << "key file written: " << a.path << " (16 bytes, mode 0600)\n";
  return 0;
}

int RunCheck(const Args& a) {
  struct stat st;
  if (stat(a.path.c_str(), &st) != 0) {
    std::cout << "no key file at " << a.path << ": " << Why() << "\n";
    return 1;
  }
  if (!S_ISREG(st.st_mode)) {
    std::cout << a.path << " is not a regular file\n";
    return 1;
  }
  int fd = open(a.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    std::cout << a.path << " cannot be read: " << Why() << "\n";
    return 1;
  }
  unsigned char bytes[16];
  ssize_t n = read(fd, bytes, sizeof bytes);
  close(fd);
  OPENSSL_cleanse(bytes, sizeof bytes);
  if (n < 16) {
    std::cout << a.path << " holds " << (n < 0 ? 0 : n) << " bytes; a key needs 16\n";
    return 1;
  }
  std::cout << "usable key file: " << a.path << " (" << st.st_size << " bytes";
  if (st.st_size > 16) std::cout << ", only the first 16 are read";
  std::cout << ")\n";
  if (st.st_mode & 077) std::cout << "warning: other users may read it (mode 0" << std::oct << (st.st_mode & 0777)
                                  << std::dec << "); chmod 600 is advised\n";
  return 0;
}

}  // namespace

void AddKeyFileCommand(CLI::App& root, int& status) {
  CLI::App* cmd = root.add_subcommand("keyfile", "Provision or check the key file of persistent-key stores");
  cmd->require_subcommand(1);
  auto args = std::make_shared<Args>();

  CLI::App* init = cmd->add_subcommand("init", "Write a new key file: 16 random bytes, masked, mode 0600");
  init->add_option("--path", args->path, "Where to write it")->capture_default_str();
  init->add_flag("--force", args->force, "Replace an existing key file");
  init->callback([args, &status] { status = RunInit(*args); });

  CLI::App* check = cmd->add_subcommand("check", "Say whether a usable key file is present");
  check->add_option("--path", args->path, "Where to look")->capture_default_str();
  check->callback([args, &status] { status = RunCheck(*args); });
}

}  // namespace mstore
