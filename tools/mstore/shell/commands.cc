#include "commands.h"

#include <algorithm>
#include <cstdint>
#include <iomanip>

#include "value_text.h"
#include "xk/log.h"

namespace mstore {
namespace {

constexpr std::size_t kAny = ~std::size_t{0};

bool RunHelp(Session& s, const Words& args, std::string& error);
bool RunLog(Session& s, const Words& args, std::string& error);

bool RunEcho(Session& s, const Words& args, std::string&) {
  for (std::size_t i = 0; i < args.size(); ++i) s.out << (i ? " " : "") << args[i];
  s.out << "\n";
  return true;
}

bool RunQuit(Session& s, const Words&, std::string&) {
  s.quit = true;
  return true;
}

const Command kCommands[] = {
    {"set", "STORE COMPARTMENT DATA KIND [VALUE...]", "store a value (kinds below)", 4, kAny, RunSet},
    {"get", "STORE COMPARTMENT DATA", "read a value", 3, 3, RunGet},
    {"remove", "STORE COMPARTMENT DATA", "remove a value", 3, 3, RunRemove},
    {"is-cached", "STORE COMPARTMENT DATA", "whether the compartment holds the value", 3, 3, RunIsCached},
    {"create", "STORE COMPARTMENT", "create a compartment (an existing one is left alone)", 2, 2, RunCreate},
    {"touch", "STORE COMPARTMENT", "create a compartment, or raise the versions of an existing one", 2, 2,
     RunTouch},
    {"remove-compartment", "STORE COMPARTMENT [--with-versions]",
     "remove a compartment and its subtree; with --with-versions its version history goes too", 2, 3,
     RunRemoveCompartment},
    {"list-data", "STORE COMPARTMENT", "the data ids of a compartment", 2, 2, RunListData},
    {"list-compartments", "STORE [COMPARTMENT]", "the child compartments (default \"/\": the top level)", 1, 2,
     RunListCompartments},
    {"versions", "STORE COMPARTMENT", "whether the compartment exists, and its two version counters", 2, 2,
     RunVersions},
    {"flush-store", "STORE", "empty a store and forget its versions", 1, 1, RunFlushStore},
    {"flush-product", "PRODUCT", "flush every store of a product", 1, 1, RunFlushProduct},
    {"pin-set", "COMPARTMENT PIN-ID PIN [--id ID] [NAME=VALUE...]",
     "cache a PIN (the bytes of the word) and print the PIN session id it got; --id: under that id", 3, kAny,
     RunPinSet},
    {"pin-get", "COMPARTMENT PIN-ID [--id ID] [NAME=VALUE...]", "read a PIN and its PIN session id (spends the token)",
     2, kAny, RunPinGet},
    {"pin-get-ex", "COMPARTMENT PIN-ID [--id ID] [NAME=VALUE...]",
     "read a PIN with what the caller must do: available, prompt or confirm", 2, kAny, RunPinGetEx},
    {"pin-probe", "COMPARTMENT PIN-ID [--id ID] [NAME=VALUE...]",
     "whether a PIN may be used as cached (a PIN that calls for prompt or confirm reads as not cached)", 2, kAny,
     RunPinProbe},
    {"pin-probe-ex", "COMPARTMENT PIN-ID [--id ID] [NAME=VALUE...]",
     "the state a read would give, without spending the token or delaying expiry", 2, kAny, RunPinProbeEx},
    {"pin-state", "COMPARTMENT PIN-ID STATE [--id ID] [NAME=VALUE...]",
     "set a PIN's token: available, or prompt (confirm and other numbers also spend it)", 3, kAny, RunPinState},
    {"pin-remove", "COMPARTMENT PIN-ID [--id ID] [NAME=VALUE...]", "remove a PIN", 2, kAny, RunPinRemove},
    {"pin-remove-compartment", "COMPARTMENT [NAME=VALUE...]", "remove a compartment with its PINs", 1, kAny,
     RunPinRemoveCompartment},
    {"pin-flush", "[NAME=VALUE...]", "remove every PIN and its timer", 0, kAny, RunPinFlush},
    {"stores", "", "the PIN stores, the registered data stores, and catalogue entries that did not register", 0, 0,
     RunStores},
    {"info", "STORE", "a store's configuration", 1, 1, RunInfo},
    {"log", "[on|off|LEVELS]",
     "print the library's log after each result: on (failure, detail), off, or levels such as 1,2,8,16 or all", 0,
     1, RunLog},
    {"echo", "[TEXT...]", "print the text", 0, kAny, RunEcho},
    {"help", "[COMMAND]", "this list, or one command", 0, 1, RunHelp},
    {"quit", "", "stop reading commands (also: exit, end of input)", 0, 0, RunQuit},
    {"exit", "", "the same as quit", 0, 0, RunQuit},
};

std::string Usage(const Command& c) { return std::string(c.name) + (*c.usage ? " " : "") + c.usage; }

bool RunHelp(Session& s, const Words& args, std::string& error) {
  if (args.size() == 1) {
    const Command* c = FindCommand(args[0]);
    if (c == nullptr) {
      error = "no command " + Quote(args[0]);
      return false;
    }
    s.out << Usage(*c) << "\n  " << c->summary << "\n";
    return true;
  }
  std::size_t width = 0;
  for (const Command& c : kCommands) width = std::max(width, Usage(c).size());
  for (const Command& c : kCommands)
    s.out << "  " << std::left << std::setw(static_cast<int>(width + 2)) << Usage(c) << c.summary << "\n";
  s.out << "Value kinds: " << ValueKinds() << ", e.g. set S C D text \"a b\" c, set S C D bytes 00ff10,\n"
        << "set S C D uint 1 2 3. Words in double quotes may hold blanks (\"\" is an empty word);\n"
        << "'#' starts a comment. Results: S_OK, or a failure code with its meaning.\n"
        << "The pin- commands work on the start-up PIN store; a PIN is kept as the bytes of its word.\n"
        << "--id ID calls the FromPINSessionId form with a PIN session id that pin-set printed.\n"
        << "Parameters: IsACRPINAlways=Yes|No Action=None|Authenticate|ChangeAuthenticator\n"
        << "AllProcess=True|False AllSession=True|False BypassPINAlways=True|False CheckClientCaller=...\n"
        << "With parameters the client answers S_OK for a failed call: \"nothing came back\" tells.\n";
  return true;
}

std::string LevelsText(std::uint64_t mask) {
  if (mask == xk::log::kAllLevels) return "all";
  std::string text;
  for (int level = 0; level < 64; ++level)
    if ((mask >> level) & 1u) text += (text.empty() ? "" : ",") + std::to_string(level);
  return text.empty() ? "none" : text;
}

bool RunLog(Session& s, const Words& args, std::string& error) {
  if (!args.empty()) {
    std::uint64_t mask = xk::log::Bit(xk::log::kFailure) | xk::log::Bit(xk::log::kDetail);
    if (args[0] == "off") {
      s.log.Stop();
    } else if (args[0] == "on" || xk::log::ParseLevels(args[0].c_str(), &mask)) {
      s.log.Start(mask);
    } else {
      error = "log takes on, off, or a level list such as 1,2 or failure,detail,entry,exit,trace or all, not " +
              Quote(args[0]);
      return false;
    }
  }
  s.out << "log " << (s.log.Started() ? "levels " + LevelsText(s.log.Levels()) + " after each result" : "off")
        << "\n";
  return true;
}

}  // namespace

const Command* FindCommand(const std::string& name) {
  for (const Command& c : kCommands)
    if (name == c.name) return &c;
  return nullptr;
}

bool RunCommand(Session& session, const Words& words, std::string& error) {
  const Command* c = FindCommand(words[0]);
  if (c == nullptr) {
    error = "unknown command " + Quote(words[0]) + " (help lists the commands)";
    return false;
  }
  const std::size_t n = words.size() - 1;
  if (n < c->minArgs || n > c->maxArgs) {
    error = "usage: " + Usage(*c);
    return false;
  }
  return c->run(session, Words(words.begin() + 1, words.end()), error);
}

}  // namespace mstore
