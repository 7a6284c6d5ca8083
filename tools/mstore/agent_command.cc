#include "agent_command.h"

#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "agent_folder.h"
#include "agent_listener.h"
#include "agent_module.h"
#include "agent_server.h"
#include "xk/registry.h"

namespace mstore {
namespace {

constexpr char kModuleFile[] = "libmerrowstore-pkcs11.so";
constexpr char kPKCS11Socket[] = "pkcs11";
constexpr char kControlSocket[] = "control";

struct Args {
  std::string dir;
  std::string module;
  bool status = false;
};

// The Merrowstore module beside the platform libraries mstore runs with (the
// store library's folder): lib/ of a build tree, the library folder of an
// installation, or its pkcs11/ subfolder.
std::string DefaultModule() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&xkRegSetDatabasePath), &info) == 0 || info.dli_fname == nullptr)
    return kModuleFile;
  std::string folder(info.dli_fname);
  folder.erase(folder.find_last_of('/') + 1);
  const std::string beside = folder + kModuleFile;
  const std::string sub = folder + "pkcs11/" + kModuleFile;
  return access(beside.c_str(), F_OK) != 0 && access(sub.c_str(), F_OK) == 0 ? sub : beside;
}

// --dir, else $XDG_RUNTIME_DIR/merrowstore; made absolute, since clients
// elsewhere use the socket's path.
bool Folder(const Args& a, std::string& dir) {
  dir = a.dir;
  if (dir.empty()) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime == '\0') {
      std::cerr << "mstore agent: XDG_RUNTIME_DIR is not set: give the socket folder with --dir\n";
      return false;
    }
    dir = std::string(runtime) + "/merrowstore";
  }
  if (dir[0] != '/') {
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr) return false;
    dir = std::string(cwd) + "/" + dir;
  }
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return true;
}

// Writes all of `text`; the control peer gets a second to take it.
void Answer(int fd, const std::string& text) {
  timeval limit{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  for (std::size_t done = 0; done < text.size();) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
}

int RunStatus(const std::string& dir) {
  const std::string path = dir + "/" + kControlSocket;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (path.size() >= sizeof addr.sun_path || fd < 0) return 1;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    std::cerr << "mstore agent: no agent answers on " << path << ": " << std::strerror(errno) << "\n";
    close(fd);
    return 1;
  }
  std::string report;
  char buf[4096];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) report.append(buf, static_cast<std::size_t>(n));
  close(fd);
  std::cout << report;
  return 0;
}

int RunAgent(const std::string& dir, const std::string& modulePath) {
  // SIGTERM and SIGINT are read from a descriptor by the main loop: blocked
  // here, before any thread starts, so that every thread inherits the mask.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  // A client gone while its answer is written must not end the agent.
  signal(SIGPIPE, SIG_IGN);
  const int signals = signalfd(-1, &stops, SFD_CLOEXEC);

  std::string error;
  AgentFolder folder;
  AgentModule module;
  AgentListener pkcs11, control;
  const std::string socket = dir + "/" + kPKCS11Socket;
  if (signals < 0 || !folder.Make(dir, error) || !module.Load(modulePath, error) || !pkcs11.Open(socket, error) ||
      !control.Open(dir + "/" + kControlSocket, error)) {
    std::cerr << "mstore agent: " << (error.empty() ? std::strerror(errno) : error) << "\n";
    pkcs11.Close();
    module.Stop();
    folder.Remove();
    return 1;
  }
  std::cout << "P11_KIT_SERVER_ADDRESS=unix:path=" << socket << "; export P11_KIT_SERVER_ADDRESS;" << std::endl;

  AgentServer server(module.Functions());
  for (bool running = true; running;) {
    pollfd fds[3] = {{signals, POLLIN, 0}, {pkcs11.Fd(), POLLIN, 0}, {control.Fd(), POLLIN, 0}};
    if (poll(fds, 3, 1000) < 0 && errno != EINTR) break;
    if (fds[0].revents & POLLIN) running = false;
    if (running && (fds[1].revents & POLLIN)) {
      const int fd = pkcs11.Accept();
      if (fd >= 0) server.Serve(fd);
    }
    if (running && (fds[2].revents & POLLIN)) {
      const int fd = control.Accept();
      if (fd >= 0) {
        const std::string report = module.Status();
        Answer(fd, report.empty() ? "no token seen yet\n" : report);
        close(fd);
      }
    }
    server.Reap();
  }
  pkcs11.Close();
  control.Close();
  server.Stop();
  module.Stop();
  folder.Remove();
  close(signals);
  return 0;
}

}  // namespace

void AddAgentCommand(CLI::App& root, int& status) {
  auto args = std::make_shared<Args>();
  CLI::App* cmd = root.add_subcommand(
      "agent", "Serve a PKCS#11 module (by default the Merrowstore module) to this user's programs through "
               "p11-kit's client module, so that a PIN typed once serves every program of the session");
  cmd->add_option("--dir", args->dir, "Socket folder, made with mode 0700 (default: $XDG_RUNTIME_DIR/merrowstore)");
  cmd->add_option("--module", args->module, "The PKCS#11 module to serve (default: " + DefaultModule() + ")");
  cmd->add_flag("--status", args->status,
                "Show the running agent's tokens, which have a cached PIN and when it expires, then exit");
  cmd->callback([args, &status] {
    std::string dir;
    if (!Folder(*args, dir)) {
      status = 2;
      return;
    }
    status = args->status ? RunStatus(dir) : RunAgent(dir, args->module.empty() ? DefaultModule() : args->module);
  });
}

}  // namespace mstore
