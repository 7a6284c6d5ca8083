#include "agent_server.h"

#include <sys/socket.h>
#include <unistd.h>

#define P11_KIT_FUTURE_UNSTABLE_API
#include <p11-kit/remote.h>

namespace mstore {

void AgentServer::Serve(int fd) {
  auto c = std::make_unique<Connection>();
  c->fd = fd;
  Connection* raw = c.get();
  c->thread = std::thread([this, raw] {
    p11_kit_remote_serve_module(module_, raw->fd, raw->fd);
    raw->done = true;
  });
  connections_.push_back(std::move(c));
}

void AgentServer::Close(Connection& c) {
  c.thread.join();
  close(c.fd);
}

void AgentServer::Reap() {
  for (auto it = connections_.begin(); it != connections_.end();) {
    if ((*it)->done) {
      Close(**it);
      it = connections_.erase(it);
    } else {
      ++it;
    }
  }
}

void AgentServer::Stop() {
  // A thread waiting for its client's next call reads the end of the stream.
  for (auto& c : connections_) shutdown(c->fd, SHUT_RDWR);
  for (auto& c : connections_) Close(*c);
  connections_.clear();
}

}  // namespace mstore
