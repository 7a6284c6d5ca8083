// The exported PIN client: the road every PIN operation shares, a PIN round on
// the default store, and the operations over the store map.

#include "merrowstore/StaticAuthCacheClient.h"

#include <functional>

#include "../authstore/authstore_test_support.h"
#include "registration/StaticAuthStoreRegistration.h"
#include "xk/testsupport.h"

namespace {

using namespace atest;
using namespace QX::AuthStore;
using StoreMap = std::map<SecureString, CInternalAuthStore*>;

const char kDefaultId[] = "{AEA79AF9-BECB-490a-BCCB-CD0806BA970D}";

// Puts another store map in place for the life of the scope.
class SwappedMap {
 public:
  explicit SwappedMap(StoreMap stores) : m_Other(std::move(stores)) { m_Other.swap(Map()); }
  ~SwappedMap() { m_Other.swap(Map()); }
  static StoreMap& Map() { return gStaticAuthStoreRegistration.m_Stores; }

 private:
  StoreMap m_Other;
};

// AuthParameter records whose BSTRs live as long as the object.
class Records {
 public:
  Records(std::initializer_list<std::pair<const char*, const char*>> params) {
    for (const auto& [name, value] : params) m_Records.push_back({SysAllocString(name), SysAllocString(value)});
  }
  ~Records() {
    for (AuthParameter& r : m_Records) SysFreeString(r.bstrName), SysFreeString(r.bstrValue);
  }
  operator AuthParameter*() { return m_Records.data(); }

 private:
  std::vector<AuthParameter> m_Records;
};

// Every output a call of the table can write, set to marks first.
struct Outputs {
  SAFEARRAY* value = reinterpret_cast<SAFEARRAY*>(1);
  SAFEARRAY* sid = reinterpret_cast<SAFEARRAY*>(1);
  PINState state = static_cast<PINState>(7);
  signed char cached = 7;
  bool Untouched() const { return value == sid && sid == reinterpret_cast<SAFEARRAY*>(1) && state == 7 && cached == 7; }
};

struct Op {
  std::string name;
  std::string storeOp;  // as the failure text names it
  std::function<HRESULT(CStaticAuthCacheClient&, AuthParameter*, unsigned long, Outputs&)> call;
};

std::vector<Op> AllOps(char* c, char* p, SAFEARRAY* sid, SAFEARRAY* pin) {
  using K = CStaticAuthCacheClient;
  using A = AuthParameter*;
  using N = unsigned long;
  return {
      {"SetPIN", "SetPIN", [=](K& k, A a, N n, Outputs& o) { return k.SetPIN(c, p, pin, a, n, &o.sid); }},
      {"SetPINFromPINSessionId", "SetPINFromPINSessionId",
       [=](K& k, A a, N n, Outputs&) { return k.SetPINFromPINSessionId(c, p, sid, pin, a, n); }},
      {"GetPIN", "GetPIN", [=](K& k, A a, N n, Outputs& o) { return k.GetPIN(c, p, a, n, &o.value, &o.sid); }},
      {"GetPINEx", "GetPIN",
       [=](K& k, A a, N n, Outputs& o) { return k.GetPINEx(c, p, a, n, &o.value, &o.sid, &o.state); }},
      {"GetPINFromPINSessionId", "GetPINFromPINSessionId",
       [=](K& k, A a, N n, Outputs& o) { return k.GetPINFromPINSessionId(c, p, sid, a, n, &o.value); }},
      {"GetPINFromPINSessionIdEx", "GetPINFromPINSessionId",
       [=](K& k, A a, N n, Outputs& o) { return k.GetPINFromPINSessionIdEx(c, p, sid, a, n, &o.value, &o.state); }},
      {"IsPINCached", "IsPINCached", [=](K& k, A a, N n, Outputs& o) { return k.IsPINCached(c, p, a, n, &o.sid, &o.cached); }},
      {"IsPINCachedEx", "IsPINCached",
       [=](K& k, A a, N n, Outputs& o) { return k.IsPINCachedEx(c, p, a, n, &o.sid, &o.state); }},
      {"IsPINCachedFromPINSessionId", "IsPINCachedFromPINSessionId",
       [=](K& k, A a, N n, Outputs& o) { return k.IsPINCachedFromPINSessionId(c, p, sid, a, n, &o.cached); }},
      {"IsPINCachedFromPINSessionIdEx", "IsPINCachedFromPINSessionId",
       [=](K& k, A a, N n, Outputs& o) { return k.IsPINCachedFromPINSessionIdEx(c, p, sid, a, n, &o.state); }},
      {"RemovePIN", "RemovePIN", [=](K& k, A a, N n, Outputs&) { return k.RemovePIN(c, p, a, n); }},
      {"RemovePINFromPINSessionId", "RemovePINFromPINSessionId",
       [=](K& k, A a, N n, Outputs&) { return k.RemovePINFromPINSessionId(c, p, sid, a, n); }},
      {"RemoveCompartment", "RemoveCompartment", [=](K& k, A a, N n, Outputs&) { return k.RemoveCompartment(c, a, n); }},
      {"FlushStore", "FlushStore", [=](K& k, A a, N n, Outputs&) { return k.FlushStore(a, n); }},
      {"ChangePINState", "ChangePINState",
       [=](K& k, A a, N n, Outputs&) { return k.ChangePINState(c, p, a, n, PINStateAvailable); }},
      {"ChangePINStateFromPINSessionId", "ChangePINStateFromPINSessionIde",
       [=](K& k, A a, N n, Outputs&) { return k.ChangePINStateFromPINSessionId(c, p, sid, a, n, PINStateAvailable); }},
  };
}

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(hr));
  return text;
}

// Without parameters a failing store call is the result; with parameters the
// destruction of their array is, and no output is written either way. A
// missing or NULL default store fails every operation before any array exists.
TEST(AuthClient, EveryPINOperationMasksAStoreFailureOnlyWhenParametersWerePassed) {
  xk::test::LogCapture log;
  CStaticAuthCacheClient client;
  Bstr c(""), p("sign");  // no compartment, and a store never begun: every request is refused
  Array sid(MakePIN("some-session-id")), pin(MakePIN("1234"));
  Records params{{"Action", "Authenticate"}};
  CInternalAuthStore treeless;
  for (Op& op : AllOps(c, p, sid, pin)) {
    SCOPED_TRACE(op.name);
    Outputs out;
    {
      SwappedMap failing({{S(kDefaultId), &treeless}});
      const HRESULT hr = op.call(client, nullptr, 5, out);  // a count without records is ignored
      EXPECT_LT(hr, 0);
      EXPECT_TRUE(log.Contains(1, "CStaticAuthCacheClient::" + op.name + ": " + op.storeOp + " failed hr = " + Hex(hr)));
      EXPECT_EQ(op.call(client, params, 1, out), S_OK);
    }
    for (auto& [stores, text] : {std::pair<StoreMap, std::string>{{}, " Didn't find this id"},
                                 {{{S(kDefaultId), nullptr}}, " pInternalAuthStore is NULL"}}) {
      SwappedMap broken(stores);
      EXPECT_EQ(op.call(client, params, 1, out), E_FAIL);
      EXPECT_TRUE(log.Contains(1, "CStaticAuthCacheClient::" + op.name + text));
    }
    EXPECT_TRUE(out.Untouched());
  }
}

TEST(AuthClient, APINRoundOnTheDefaultStore) {
  xk::test::Sandbox sandbox;
  xk::test::LogCapture log;
  CStaticAuthCacheClient client;
  Bstr c("card"), p("sign");
  const std::string value("1\0" "234", 5);
  Array pin(MakePIN(value));
  Records authenticate{{"Action", "Authenticate"}}, pinAlways{{"IsACRPINAlways", "Yes"}};
  SAFEARRAY* psa = nullptr;
  ASSERT_EQ(client.SetPIN(c, p, pin, authenticate, 1, &psa), S_OK);
  Array sid(psa);
  ASSERT_EQ(sid.psa->vt, VT_UI1);
  ASSERT_EQ(sid.psa->rgsabound[0].cElements, 36u);

  // The card's verification serves one use by a PIN-always key; a probe
  // spends nothing, a read does.
  signed char cached = 0;
  PINState state = PINStatePrompt;
  EXPECT_EQ(client.IsPINCached(c, p, pinAlways, 1, nullptr, &cached), S_OK);
  EXPECT_EQ(cached, 1);
  SAFEARRAY* sidOut = nullptr;
  ASSERT_EQ(client.GetPINEx(c, p, pinAlways, 1, &psa, &sidOut, &state), S_OK);
  EXPECT_EQ(Take(psa), value);
  EXPECT_EQ(Take(sidOut), std::string(static_cast<char*>(sid.psa->pvData), 36));
  EXPECT_EQ(state, PINStateAvailable);
  // Spent, with confirmation asked for: only the Ex form tells it from a prompt.
  SetSetting("Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys", 1);
  EXPECT_EQ(client.IsPINCachedEx(c, p, pinAlways, 1, nullptr, &state), S_OK);
  EXPECT_EQ(state, PINStateConfirm);
  EXPECT_EQ(client.IsPINCached(c, p, pinAlways, 1, nullptr, &cached), S_OK);
  EXPECT_EQ(cached, 0);

  // By the PIN session id.
  EXPECT_EQ(client.ChangePINStateFromPINSessionId(c, p, sid, nullptr, 0, PINStateAvailable), S_OK);
  EXPECT_EQ(client.IsPINCachedFromPINSessionIdEx(c, p, sid, pinAlways, 1, &state), S_OK);
  EXPECT_EQ(state, PINStateAvailable);
  ASSERT_EQ(client.GetPINFromPINSessionId(c, p, sid, nullptr, 0, &psa), S_OK);
  EXPECT_EQ(Take(psa), value);
  Array empty(SafeArrayCreateVector(VT_UI1, 0, 0));
  log.Clear();
  EXPECT_EQ(client.GetPINFromPINSessionId(c, p, empty, nullptr, 0, &psa), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "CStaticAuthCacheClient::GetPINFromPINSessionId GetBSTRFromSafeArrayBytes failed"));
  EXPECT_EQ(log.Count("CInternalAuthStore::GetPINFromPINSessionId"), 0u);
  EXPECT_EQ(client.GetPINFromPINSessionId(c, p, empty, pinAlways, 1, &psa), S_OK);  // parameters come first

  // Records counted 0 fail before any array exists, so the failure shows.
  EXPECT_EQ(client.RemovePIN(c, p, authenticate, 0), E_FAIL);
  EXPECT_EQ(client.RemovePINFromPINSessionId(c, p, sid, nullptr, 0), S_OK);
  EXPECT_EQ(client.IsPINCachedEx(c, p, nullptr, 0, nullptr, &state), E_INVALIDARG);
}

TEST(AuthClient, RegisterListDescribeAndFlushStores) {
  xk::test::LogCapture log;
  CStaticAuthCacheClient client;
  SwappedMap own({});
  EXPECT_EQ(client.FlushAuthStores(), S_OK);
  EXPECT_EQ(client.ListAuthStoreIds(nullptr), S_OK);
  for (const char* id : {"B", "A"}) ASSERT_EQ(CStaticAuthCacheClient::RegisterAuthStore(Bstr(id), AuthTypeVolatile, 0, 1), S_OK);
  CInternalAuthStore* first = SwappedMap::Map()[S("A")];
  EXPECT_EQ(CStaticAuthCacheClient::RegisterAuthStore(Bstr("A"), AuthTypeRemanent, 1, 0), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "CStaticAuthCacheClient::RegisterAuthStore This DataStore id already exist !"));
  EXPECT_EQ(SwappedMap::Map()[S("A")], first);
  AuthType type = AuthTypeRemanent;
  signed char encrypted = 7, shared = 7;
  EXPECT_EQ(client.GetAuthStoreInfo(Bstr("A"), &type, &encrypted, &shared), S_OK);
  EXPECT_EQ((std::vector<int>{type, encrypted, shared}), (std::vector<int>{AuthTypeVolatile, 0, 1}));
  EXPECT_EQ(client.GetAuthStoreInfo(Bstr("Z"), &type, &encrypted, &shared), E_FAIL);
  EXPECT_TRUE(log.Contains(1, "CStaticAuthCacheClient::GetAuthStoreInfo Didn't find IDataStore with this id"));
  SAFEARRAY* ids = nullptr;
  ASSERT_EQ(client.ListAuthStoreIds(&ids), S_OK);
  ASSERT_EQ(ids->rgsabound[0].cElements, 2u);
  std::vector<std::string> listed;
  for (int i = 0; i < 2; ++i) {
    BSTR id = nullptr;
    SafeArrayGetElement(ids, &i, &id);
    listed.emplace_back(id);
    SysFreeString(id);
  }
  SafeArrayDestroy(ids);
  EXPECT_EQ(listed, (std::vector<std::string>{"A", "B"}));

  for (auto& [id, store] : SwappedMap::Map()) Set(*store, 0, "c", "p", "1");
  EXPECT_EQ(client.FlushAuthStores(), S_OK);
  for (auto& [id, store] : SwappedMap::Map()) {
    EXPECT_EQ(Get(*store, 0, "c", "p").hr, E_INVALIDARG);
    Ender()(store);
  }
}

}  // namespace
