#include "agent_listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace mstore {
namespace {

bool Address(const std::string& path, sockaddr_un& addr) {
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return true;
}

// Whether something answers on `path`.
bool Answers(const sockaddr_un& addr) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool answers = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return answers;
}

}  // namespace

bool AgentListener::Open(const std::string& path, std::string& error) {
  sockaddr_un addr;
  if (!Address(path, addr)) {
    error = "socket path too long: " + path;
    return false;
  }
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode) || Answers(addr)) {
      error = path + " is in use (does an agent run already?)";
      return false;
    }
    unlink(path.c_str());
  }
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // The socket is made with the umask's mode: no moment in which others may connect.
  const mode_t mask = umask(0177);
  const bool bound = fd_ >= 0 && bind(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
  umask(mask);
  if (!bound || listen(fd_, 64) != 0) {
    error = "cannot listen on " + path + ": " + std::strerror(errno);
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    if (bound) unlink(path.c_str());
    return false;
  }
  path_ = path;
  return true;
}

int AgentListener::Accept() {
  int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return -1;
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != geteuid()) {
    close(fd);
    std::cerr << "mstore agent: refused a connection of uid " << peer.uid << " (pid " << peer.pid << ") on "
              << path_ << "\n";
    return -1;
  }
  return fd;
}

void AgentListener::Close() {
  if (fd_ < 0) return;
  close(fd_);
  fd_ = -1;
  unlink(path_.c_str());
}

}  // namespace mstore
