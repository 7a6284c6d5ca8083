#ifndef MSTORE_SHELL_COMMANDS_H
#define MSTORE_SHELL_COMMANDS_H

#include <cstddef>
#include <string>
#include <vector>

#include "session.h"

namespace mstore {

using Words = std::vector<std::string>;

// Runs a command with its arguments (the words after its name) and prints its
// result. Returns false, with `error` set and nothing done, when the arguments
// cannot be used. A call the library refuses is a result, not an error.
typedef bool (*CommandFunction)(Session& session, const Words& args, std::string& error);

struct Command {
  const char* name;
  const char* usage;  // the arguments, e.g. "STORE COMPARTMENT"
  const char* summary;
  std::size_t minArgs;
  std::size_t maxArgs;
  CommandFunction run;
};

// The command of this name, or NULL.
const Command* FindCommand(const std::string& name);

// Finds the command, checks the number of arguments and runs it. False, with
// `error` set, for an unknown command or unusable arguments.
bool RunCommand(Session& session, const Words& words, std::string& error);

// The commands on the library's data client (data_commands.cc).
bool RunSet(Session& s, const Words& args, std::string& error);
bool RunGet(Session& s, const Words& args, std::string& error);
bool RunRemove(Session& s, const Words& args, std::string& error);
bool RunCreate(Session& s, const Words& args, std::string& error);
bool RunTouch(Session& s, const Words& args, std::string& error);
bool RunRemoveCompartment(Session& s, const Words& args, std::string& error);
bool RunIsCached(Session& s, const Words& args, std::string& error);
bool RunListData(Session& s, const Words& args, std::string& error);
bool RunListCompartments(Session& s, const Words& args, std::string& error);
bool RunVersions(Session& s, const Words& args, std::string& error);
bool RunFlushStore(Session& s, const Words& args, std::string& error);
bool RunFlushProduct(Session& s, const Words& args, std::string& error);
bool RunStores(Session& s, const Words& args, std::string& error);
bool RunInfo(Session& s, const Words& args, std::string& error);

// The commands on the library's PIN client, on the start-up PIN store
// (pin_commands.cc).
bool RunPinSet(Session& s, const Words& args, std::string& error);
bool RunPinGet(Session& s, const Words& args, std::string& error);
bool RunPinGetEx(Session& s, const Words& args, std::string& error);
bool RunPinProbe(Session& s, const Words& args, std::string& error);
bool RunPinProbeEx(Session& s, const Words& args, std::string& error);
bool RunPinState(Session& s, const Words& args, std::string& error);
bool RunPinRemove(Session& s, const Words& args, std::string& error);
bool RunPinRemoveCompartment(Session& s, const Words& args, std::string& error);
bool RunPinFlush(Session& s, const Words& args, std::string& error);

}  // namespace mstore

#endif
