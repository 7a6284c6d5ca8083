#ifndef MSTORE_AGENT_SERVER_H
#define MSTORE_AGENT_SERVER_H

#include <p11-kit/pkcs11.h>

#include <atomic>
#include <list>
#include <memory>
#include <thread>

namespace mstore {

// Serves each PKCS#11 connection in a thread of its own with p11-kit's RPC
// server, all on one module. The server owns the connections' descriptors:
// a thread only reads and writes its own, so the descriptor is closed after
// the thread has been joined, never under it.
class AgentServer {
 public:
  explicit AgentServer(CK_FUNCTION_LIST* module) : module_(module) {}
  AgentServer(const AgentServer&) = delete;
  AgentServer& operator=(const AgentServer&) = delete;
  ~AgentServer() { Stop(); }

  // Takes `fd` over and serves it.
  void Serve(int fd);
  // Joins the threads of connections that have ended.
  void Reap();
  // Ends every connection (a call in progress finishes first) and joins its thread.
  void Stop();
  std::size_t Open() const { return connections_.size(); }

 private:
  struct Connection {
    int fd;
    std::atomic<bool> done{false};
    std::thread thread;
  };
  void Close(Connection& c);

  CK_FUNCTION_LIST* module_;
  std::list<std::unique_ptr<Connection>> connections_;
};

}  // namespace mstore

#endif
