// The shell commands that call the library's PIN client. The client names no
// store: every command works on the start-up PIN store. A command takes its
// fixed words first, then, in any order, NAME=VALUE parameters (passed to the
// client as AuthParameter records) and, where the client has such a form,
// --id SESSIONID, which calls the FromPINSessionId form with that PIN session
// id. Each prints one result line, as the data commands do.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "commands.h"
#include "merrowstore/StaticAuthCacheClient.h"
#include "result_text.h"
#include "scoped_values.h"
#include "store_report.h"
#include "value_text.h"

namespace mstore {
namespace {

using QX::AuthStore::AuthParameter;
using QX::AuthStore::PINState;

const char* const kParameterNames[] = {"IsACRPINAlways",    "Action",         "AllProcess", "AllSession",
                                       "CheckClientCaller", "BypassPINAlways"};

// With parameters, the client's result is that of releasing its parameter
// array, so a call the store refused comes back as S_OK with no output.
const char kNothingCameBack[] = "nothing came back (with parameters the client answers S_OK for a failed call)";

// A new VT_UI1 vector of the bytes of `text`, as the client takes a PIN and a
// PIN session id.
SAFEARRAY* BytesOf(const std::string& text) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_UI1, 0, text.size());
  void* data = nullptr;
  if (psa != nullptr && !text.empty() && SUCCEEDED(SafeArrayAccessData(psa, &data))) {
    std::memcpy(data, text.data(), text.size());
    SafeArrayUnaccessData(psa);
  }
  return psa;
}

// The bytes of a VT_UI1 vector as a text; other values as RenderValue shows them.
std::string TextOf(SAFEARRAY* psa, bool& isBytes) {
  VARTYPE vt = VT_EMPTY;
  long lower = 0, upper = -1;
  isBytes = psa != nullptr && SUCCEEDED(SafeArrayGetVartype(psa, &vt)) && vt == VT_UI1 &&
            SafeArrayGetDim(psa) == 1 && SUCCEEDED(SafeArrayGetLBound(psa, 1, &lower)) &&
            SUCCEEDED(SafeArrayGetUBound(psa, 1, &upper));
  if (!isBytes) return RenderValue(psa);
  std::string text(static_cast<std::size_t>(upper - lower + 1), '\0');
  void* data = nullptr;
  if (!text.empty() && SUCCEEDED(SafeArrayAccessData(psa, &data))) {
    std::memcpy(text.data(), data, text.size());
    SafeArrayUnaccessData(psa);
  }
  return text;
}

std::string PinText(SAFEARRAY* value) {
  bool isBytes;
  const std::string text = TextOf(value, isBytes);
  return "PIN " + (isBytes ? Quote(text) : text);
}

// A PIN session id as a word to type after --id: bare when it reads back as
// one word, quoted otherwise.
std::string SessionIdText(SAFEARRAY* id) {
  bool isBytes;
  const std::string text = TextOf(id, isBytes);
  if (!isBytes) return "PIN session id " + text;
  const bool bare = !text.empty() && text[0] != '#' && text.find_first_of(" \t\"") == std::string::npos &&
                    Quote(text) == "\"" + text + "\"";
  return "PIN session id " + (bare ? text : Quote(text));
}

// What a state output holds until the client writes it.
constexpr PINState kNoState = static_cast<PINState>(-1);

std::string StateName(int state) {
  switch (state) {
    case QX::AuthStore::PINStatePrompt: return "prompt";
    case QX::AuthStore::PINStateAvailable: return "available";
    case QX::AuthStore::PINStateConfirm: return "confirm";
    default: return "state " + std::to_string(state);
  }
}

// The words of one command: its fixed ids as BSTRs, the parameter records,
// and the PIN session id of --id as the client takes it.
class Request {
 public:
  bool Parse(const char* command, const Words& args, std::size_t fixed, bool takesId, std::string& error) {
    for (std::size_t i = 0; i < fixed; ++i) m_Fixed.push_back(std::make_unique<ScopedBstr>(args[i]));
    for (std::size_t i = fixed; i < args.size(); ++i) {
      const std::string& word = args[i];
      if (word == "--id" && takesId) {
        if (m_SessionId.get() != nullptr) {
          error = std::string(command) + " takes one --id";
          return false;
        }
        if (i + 1 == args.size() || args[i + 1].empty()) {
          error = "--id needs a PIN session id (the one pin-set printed)";
          return false;
        }
        *m_SessionId.out() = BytesOf(args[++i]);
        continue;
      }
      const std::size_t eq = word.find('=');
      if (eq == std::string::npos) {
        error = std::string(command) + " takes NAME=VALUE parameters" + (takesId ? " and --id ID" : "") +
                " after its arguments, not " + Quote(word);
        return false;
      }
      const std::string name = word.substr(0, eq);
      bool known = false;
      for (const char* n : kParameterNames) known = known || name == n;
      if (!known) {
        std::string names;
        for (const char* n : kParameterNames) names += std::string(names.empty() ? "" : " ") + n;
        error = "unknown parameter " + Quote(name) + " (parameters: " + names + ")";
        return false;
      }
      m_Texts.push_back(std::make_unique<ScopedBstr>(name));
      m_Texts.push_back(std::make_unique<ScopedBstr>(word.substr(eq + 1)));
    }
    for (std::size_t i = 0; i < m_Texts.size(); i += 2) {
      AuthParameter record{};
      record.bstrName = m_Texts[i]->get();
      record.bstrValue = m_Texts[i + 1]->get();
      m_Params.push_back(record);
    }
    return true;
  }

  char* operator[](std::size_t i) const { return m_Fixed[i]->get(); }
  bool FromSessionId() const { return m_SessionId.get() != nullptr; }
  SAFEARRAY* SessionId() const { return m_SessionId.get(); }
  bool HasParams() const { return !m_Params.empty(); }
  AuthParameter* Params() { return m_Params.empty() ? nullptr : m_Params.data(); }
  unsigned long Count() const { return m_Params.size(); }

 private:
  std::vector<std::unique_ptr<ScopedBstr>> m_Fixed;
  std::vector<std::unique_ptr<ScopedBstr>> m_Texts;  // name, value, name, value...
  std::vector<AuthParameter> m_Params;
  ScopedArray m_SessionId;
};

// The result line: the code, then on success what came back (kNothingCameBack
// when a call with parameters wrote no output), on failure its likely meaning.
void Report(Session& s, HRESULT hr, const Request& r, bool cameBack = true, const std::string& payload = "") {
  s.out << ResultText(hr);
  std::string more = payload;
  if (hr == E_INVALIDARG) {
    more = "not cached";
  } else if (hr == E_FAIL && !PinStoreRegistered(s.pins)) {
    more = "no PIN store: the start-up store did not register";
  } else if (FAILED(hr)) {
    more.clear();
  } else if (!cameBack && r.HasParams()) {
    more = kNothingCameBack;
  }
  if (!more.empty()) s.out << ": " << more;
  s.out << "\n";
}

bool ParseState(const std::string& word, PINState& state, std::string& error) {
  for (int known = 0; known <= 2; ++known) {
    if (word == StateName(known)) {
      state = static_cast<PINState>(known);
      return true;
    }
  }
  char* end = nullptr;
  const long number = std::strtol(word.c_str(), &end, 10);
  if (word.empty() || *end != '\0' || number < INT32_MIN || number > INT32_MAX) {
    error = "a PIN state is prompt, available, confirm or a number, not " + Quote(word);
    return false;
  }
  state = static_cast<PINState>(number);
  return true;
}

// pin-get and pin-get-ex: the value, the state (with `ex`) and, without --id,
// the PIN session id.
bool RunRead(Session& s, const Words& args, std::string& error, const char* command, bool ex) {
  Request r;
  if (!r.Parse(command, args, 2, true, error)) return false;
  ScopedArray value, sessionId;
  PINState state = kNoState;
  PINState* pnState = &state;
  HRESULT hr;
  if (r.FromSessionId()) {
    hr = ex ? s.pins.GetPINFromPINSessionIdEx(r[0], r[1], r.SessionId(), r.Params(), r.Count(), value.out(), pnState)
            : s.pins.GetPINFromPINSessionId(r[0], r[1], r.SessionId(), r.Params(), r.Count(), value.out());
  } else {
    hr = ex ? s.pins.GetPINEx(r[0], r[1], r.Params(), r.Count(), value.out(), sessionId.out(), pnState)
            : s.pins.GetPIN(r[0], r[1], r.Params(), r.Count(), value.out(), sessionId.out());
  }
  std::string payload = ex ? StateName(state) + ", " + PinText(value.get()) : PinText(value.get());
  if (sessionId.get() != nullptr) payload += ", " + SessionIdText(sessionId.get());
  Report(s, hr, r, value.get() != nullptr, payload);
  return true;
}

// pin-probe and pin-probe-ex: the flag, or the state with `ex`, and without
// --id the PIN session id.
bool RunProbe(Session& s, const Words& args, std::string& error, const char* command, bool ex) {
  Request r;
  if (!r.Parse(command, args, 2, true, error)) return false;
  ScopedArray sessionId;
  PINState state = kNoState;
  signed char cached = -1;
  PINState* pnState = &state;
  HRESULT hr;
  if (r.FromSessionId()) {
    hr = ex ? s.pins.IsPINCachedFromPINSessionIdEx(r[0], r[1], r.SessionId(), r.Params(), r.Count(), pnState)
            : s.pins.IsPINCachedFromPINSessionId(r[0], r[1], r.SessionId(), r.Params(), r.Count(), &cached);
  } else {
    hr = ex ? s.pins.IsPINCachedEx(r[0], r[1], r.Params(), r.Count(), sessionId.out(), pnState)
            : s.pins.IsPINCached(r[0], r[1], r.Params(), r.Count(), sessionId.out(), &cached);
  }
  std::string payload = ex ? StateName(state) : cached ? "cached" : "not cached";
  if (sessionId.get() != nullptr) payload += ", " + SessionIdText(sessionId.get());
  Report(s, hr, r, ex ? state != kNoState : cached != -1, payload);
  return true;
}

}  // namespace

bool RunPinSet(Session& s, const Words& args, std::string& error) {
  Request r;
  if (!r.Parse("pin-set", args, 3, true, error)) return false;
  ScopedArray value, sessionId;
  *value.out() = BytesOf(args[2]);
  if (r.FromSessionId()) {
    Report(s, s.pins.SetPINFromPINSessionId(r[0], r[1], r.SessionId(), value.get(), r.Params(), r.Count()), r);
    return true;
  }
  HRESULT hr = s.pins.SetPIN(r[0], r[1], value.get(), r.Params(), r.Count(), sessionId.out());
  Report(s, hr, r, sessionId.get() != nullptr, SessionIdText(sessionId.get()));
  return true;
}

bool RunPinGet(Session& s, const Words& args, std::string& error) { return RunRead(s, args, error, "pin-get", false); }

bool RunPinGetEx(Session& s, const Words& args, std::string& error) {
  return RunRead(s, args, error, "pin-get-ex", true);
}

bool RunPinProbe(Session& s, const Words& args, std::string& error) {
  return RunProbe(s, args, error, "pin-probe", false);
}

bool RunPinProbeEx(Session& s, const Words& args, std::string& error) {
  return RunProbe(s, args, error, "pin-probe-ex", true);
}

bool RunPinState(Session& s, const Words& args, std::string& error) {
  PINState state;
  Request r;
  if (!ParseState(args[2], state, error) || !r.Parse("pin-state", args, 3, true, error)) return false;
  Report(s,
         r.FromSessionId()
             ? s.pins.ChangePINStateFromPINSessionId(r[0], r[1], r.SessionId(), r.Params(), r.Count(), state)
             : s.pins.ChangePINState(r[0], r[1], r.Params(), r.Count(), state),
         r);
  return true;
}

bool RunPinRemove(Session& s, const Words& args, std::string& error) {
  Request r;
  if (!r.Parse("pin-remove", args, 2, true, error)) return false;
  Report(s,
         r.FromSessionId() ? s.pins.RemovePINFromPINSessionId(r[0], r[1], r.SessionId(), r.Params(), r.Count())
                           : s.pins.RemovePIN(r[0], r[1], r.Params(), r.Count()),
         r);
  return true;
}

bool RunPinRemoveCompartment(Session& s, const Words& args, std::string& error) {
  Request r;
  if (!r.Parse("pin-remove-compartment", args, 1, false, error)) return false;
  Report(s, s.pins.RemoveCompartment(r[0], r.Params(), r.Count()), r);
  return true;
}

bool RunPinFlush(Session& s, const Words& args, std::string& error) {
  Request r;
  if (!r.Parse("pin-flush", args, 0, false, error)) return false;
  Report(s, s.pins.FlushStore(r.Params(), r.Count()), r);
  return true;
}

}  // namespace mstore
