#ifndef MERROWSTORE_TESTS_AUTHSTORE_AUTHSTORE_TEST_SUPPORT_H
#define MERROWSTORE_TESTS_AUTHSTORE_AUTHSTORE_TEST_SUPPORT_H

// Helpers of the PIN store tests: BSTR and array holders, a begun store that
// ends itself, children in sessions of their own, and a reach into a store's
// tree and maps.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../support/value_support.h"
#include "authstore/InternalAuthStore.h"
#include "xk/settings.h"

class CInternalAuthStoreTestPeer {
 public:
  static CAbstractTree* Tree(CInternalAuthStore& s) { return s.m_Tree; }
  static std::size_t Timers(CInternalAuthStore& s) { return s.m_Timers.size(); }
  static std::size_t ExpiredTimers(CInternalAuthStore& s) { return s.m_ExpiredTimers.size(); }
  static std::map<SecureString, SecureString>& PINSessionIds(CInternalAuthStore& s) { return s.m_PINSessionIds; }
  static pthread_mutex_t* Mutex(CInternalAuthStore& s) { return &s.m_Mutex; }
};

namespace atest {

using Peer = CInternalAuthStoreTestPeer;
using Params = std::vector<std::pair<std::string, std::string>>;

using mtest::Bstr;
using mtest::S;

// An array destroyed at the end of the scope.
struct Array {
  SAFEARRAY* psa = nullptr;
  Array() = default;
  explicit Array(SAFEARRAY* p) : psa(p) {}
  ~Array() { SafeArrayDestroy(psa); }
  Array(const Array&) = delete;
  operator SAFEARRAY*() const { return psa; }
};

// The parameter array of a request: name, value, name, value... (NULL for none).
inline SAFEARRAY* MakeParams(const Params& params) {
  if (params.empty()) return nullptr;
  std::vector<std::string> texts;
  for (const auto& p : params) {
    texts.push_back(p.first);
    texts.push_back(p.second);
  }
  return mtest::MakeValue(texts);
}

// A PIN value: the bytes as a VT_UI1 vector.
inline SAFEARRAY* MakePIN(const std::string& pin) {
  return mtest::Make(VT_UI1, {pin.size()}, mtest::Bytes(pin.begin(), pin.end()));
}

// The bytes of a VT_UI1 vector, or the element 0 of a VT_BSTR one; destroys it.
inline std::string Take(SAFEARRAY* psa) {
  if (psa == nullptr || psa->vt != VT_BSTR) return psa == nullptr ? "<null>" : mtest::TakeBytes(psa);
  const mtest::Strings items = mtest::Take(psa);
  return items.empty() || items[0] == "<null>" ? "<empty>" : items[0];
}

inline std::string Dec(unsigned v) { return std::to_string(v); }

// A stored item of a PIN as text ("<missing>" when the tree has none).
inline std::string Item(CInternalAuthStore& store, const std::string& path, const std::string& id) {
  SAFEARRAY* psa = nullptr;
  if (Peer::Tree(store)->GetData(S(path), S(id), psa, 0) != S_OK) return "<missing>";
  return Take(psa);
}

// The PIN values at `paths`, separated by spaces.
inline std::string Pins(CInternalAuthStore& store, const std::vector<std::string>& paths) {
  std::string out;
  for (const std::string& path : paths) out += (out.empty() ? "" : " ") + Item(store, path, "PINValue");
  return out;
}

inline void SetSetting(const char* name, std::int64_t value) {
  ASSERT_EQ(xk::settings::SetSettingValue(S(name), QX::Framework::XKData(value)), S_OK);
}

struct Ender {
  void operator()(CInternalAuthStore* s) const {
    s->End();
    delete s;
  }
};
using StorePtr = std::unique_ptr<CInternalAuthStore, Ender>;

// A begun store, ended and deleted at the end of the scope.
inline StorePtr Begin(const std::string& id, signed char bShared, signed char bEncrypted = 0,
                      QX::AuthStore::AuthType type = QX::AuthStore::AuthTypeVolatile) {
  StorePtr store(new CInternalAuthStore);
  EXPECT_EQ(store->Begin(Bstr(id), type, bEncrypted, bShared), S_OK);
  return store;
}

// Caches `pin`; returns the PIN session id ("" when none came back).
inline std::string Set(CInternalAuthStore& store, unsigned pid, const std::string& comp, const std::string& pinId,
                       const std::string& pin, const Params& params = {}, HRESULT expect = S_OK) {
  Array value(MakePIN(pin));
  Array psaParams(MakeParams(params));
  char* id = nullptr;
  EXPECT_EQ(store.SetPIN(pid, Bstr(comp), Bstr(pinId), value, psaParams, &id), expect);
  std::string out = id != nullptr ? std::string(id) : "";
  SysFreeString(id);
  return out;
}

struct Read {
  HRESULT hr;
  int state;
  std::string value;
};

// A GetPIN (or, with probe, an IsPINCached) and what it gave.
inline Read Get(CInternalAuthStore& store, unsigned pid, const std::string& comp, const std::string& pinId,
                const Params& params = {}, bool probe = false) {
  Array psaParams(MakeParams(params));
  Read r{S_OK, -1, "<none>"};
  if (probe) {
    r.hr = store.IsPINCached(pid, Bstr(comp), Bstr(pinId), psaParams, nullptr, &r.state);
  } else {
    SAFEARRAY* value = nullptr;
    r.hr = store.GetPIN(pid, Bstr(comp), Bstr(pinId), psaParams, &value, nullptr, &r.state);
    if (value != nullptr) r.value = Take(value);
  }
  return r;
}

// A child process that waits until it is killed, in a session of its own
// (getsid gives its pid) or in ours.
class Child {
 public:
  explicit Child(bool ownSession) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    m_Pid = fork();
    if (m_Pid == 0) {
      if (ownSession) setsid();
      char c = 0;
      if (write(fds[1], &c, 1) != 1) _exit(1);
      pause();
      _exit(0);
    }
    char c;
    EXPECT_EQ(read(fds[0], &c, 1), 1);  // the child has its session now
    close(fds[0]);
    close(fds[1]);
  }
  ~Child() {
    kill(m_Pid, SIGKILL);
    waitpid(m_Pid, nullptr, 0);
  }
  unsigned Pid() const { return static_cast<unsigned>(m_Pid); }

 private:
  pid_t m_Pid;
};

using mtest::InChild;  // the child shares the registry file and the key file redirect

}  // namespace atest

#endif
