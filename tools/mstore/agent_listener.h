#ifndef MSTORE_AGENT_LISTENER_H
#define MSTORE_AGENT_LISTENER_H

#include <string>

namespace mstore {

// A Unix stream socket the agent listens on. Accept() hands out only peers
// whose SO_PEERCRED uid is the agent's own: any other peer is closed at once,
// before a byte it sent is read.
class AgentListener {
 public:
  AgentListener() = default;
  AgentListener(const AgentListener&) = delete;
  AgentListener& operator=(const AgentListener&) = delete;
  ~AgentListener() { Close(); }

  // Binds `path` (mode 0600). A socket left there by an agent that is gone
  // is replaced; one that still answers is refused.
  bool Open(const std::string& path, std::string& error);
  int Fd() const { return fd_; }
  // The accepted connection of a peer of our uid, or -1.
  int Accept();
  // Stops listening and removes the socket.
  void Close();

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace mstore

#endif
