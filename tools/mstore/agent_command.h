#ifndef MSTORE_AGENT_COMMAND_H
#define MSTORE_AGENT_COMMAND_H

#include <CLI/CLI.hpp>

namespace mstore {

// "mstore agent": a long-running process that loads a PKCS#11 module once
// (by default the Merrowstore module, lib/libmerrowstore-pkcs11.so beside the
// program's bin folder) and serves it to the programs of its user on the
// socket `pkcs11` of its folder, p11-kit's client module speaking to it; the
// socket `control` of the same folder answers "mstore agent --status" with
// the module's report. SIGTERM or SIGINT stop it: connections ended, PINs
// wiped, module finalised, sockets (and the folder if it made it) removed.
void AddAgentCommand(CLI::App& root, int& status);

}  // namespace mstore

#endif
