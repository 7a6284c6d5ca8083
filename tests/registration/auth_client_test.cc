// The exported PIN client: the road its sixteen PIN operations share, a PIN
// round on the default store, and the operations over the store map.

#include "merrowstore/StaticAuthCacheClient.h"

#include <functional>

#include "../authstore/authstore_test_support.h"
#include "registration/StaticAuthStoreRegistration.h"
#include "xk/testsupport.h"

namespace {

using namespace atest;
using namespace QX::AuthStore;
using StoreMap = std::map<SecureString, CInternalAuthStore*>;

// Puts another PIN store map in place for the life of the scope.
struct SwappedMap {
  explicit SwappedMap(StoreMap stores) : other(std::move(stores)) { other.swap(Map()); }
  ~SwappedMap() { other.swap(Map()); }
  static StoreMap& Map() { return gStaticAuthStoreRegistration.m_Stores; }
  StoreMap other;
};

SAFEARRAY* const kMark = reinterpret_cast<SAFEARRAY*>(1);
struct Outputs {  // what a call may write, set to marks
  SAFEARRAY *value = kMark, *sid = kMark;
  PINState state = static_cast<PINState>(7);
  signed char cached = 7;
};
using Call = std::function<HRESULT(CStaticAuthCacheClient&, AuthParameter*, unsigned long, Outputs&)>;
// One operation called with the client k, parameters a, count n and outputs o.
#define OP(...)                                                                                               \
  {#__VA_ARGS__, [&](CStaticAuthCacheClient& k, AuthParameter* a, unsigned long n, [[maybe_unused]] Outputs& o) { \
     return k.__VA_ARGS__;                                                                                    \
   }}

char kAction[] = "Action", kAuthenticate[] = "Authenticate", kAlways[] = "IsACRPINAlways", kYes[] = "Yes";
AuthParameter authenticate[] = {{kAction, kAuthenticate}}, pinAlways[] = {{kAlways, kYes}};
const SecureString kDefaultId("{AEA79AF9-BECB-490a-BCCB-CD0806BA970D}");

// Without parameters a store's refusal is the result; with parameters the
// destruction of their array is. A missing or NULL default store fails every
// operation before any array exists. No failure writes an output.
TEST(AuthClient, EveryPINOperationMasksAStoreFailureOnlyWhenParametersWerePassed) {
  CStaticAuthCacheClient client;
  Bstr c(""), p("sign");  // no compartment, and a store never begun: every request is refused
  Array sid(MakePIN("some-session-id")), pin(MakePIN("1234"));
  CInternalAuthStore refusing;
  const std::pair<std::string, Call> ops[] = {
      OP(SetPIN(c, p, pin, a, n, &o.sid)),
      OP(SetPINFromPINSessionId(c, p, sid, pin, a, n)),
      OP(GetPIN(c, p, a, n, &o.value, &o.sid)),
      OP(GetPINEx(c, p, a, n, &o.value, &o.sid, &o.state)),
      OP(GetPINFromPINSessionId(c, p, sid, a, n, &o.value)),
      OP(GetPINFromPINSessionIdEx(c, p, sid, a, n, &o.value, &o.state)),
      OP(IsPINCached(c, p, a, n, &o.sid, &o.cached)),
      OP(IsPINCachedEx(c, p, a, n, &o.sid, &o.state)),
      OP(IsPINCachedFromPINSessionId(c, p, sid, a, n, &o.cached)),
      OP(IsPINCachedFromPINSessionIdEx(c, p, sid, a, n, &o.state)),
      OP(RemovePIN(c, p, a, n)),
      OP(RemovePINFromPINSessionId(c, p, sid, a, n)),
      OP(RemoveCompartment(c, a, n)),
      OP(FlushStore(a, n)),
      OP(ChangePINState(c, p, a, n, PINStateAvailable)),
      OP(ChangePINStateFromPINSessionId(c, p, sid, a, n, PINStateAvailable)),
  };
  for (const auto& [name, call] : ops) {
    SCOPED_TRACE(name);
    Outputs out;
    {
      SwappedMap failing({{kDefaultId, &refusing}});
      EXPECT_LT(call(client, nullptr, 5, out), 0);  // a count without records is ignored
      EXPECT_EQ(call(client, authenticate, 1, out), S_OK);
    }
    for (const StoreMap& stores : {StoreMap{}, StoreMap{{kDefaultId, nullptr}}}) {
      SwappedMap missing(stores);
      EXPECT_EQ(call(client, authenticate, 1, out), E_FAIL);
    }
    EXPECT_TRUE(out.value == kMark && out.sid == kMark && out.state == 7 && out.cached == 7);
  }
}

TEST(AuthClient, APINRoundOnTheDefaultStore) {
  xk::test::Sandbox sandbox;
  xk::test::LogCapture log;
  CStaticAuthCacheClient client;
  Bstr c("card"), p("sign");
  const std::string value("1\0" "234", 5);
  Array pin(MakePIN(value)), empty(SafeArrayCreateVector(VT_UI1, 0, 0));
  SAFEARRAY *psa = nullptr, *sidOut = nullptr;
  ASSERT_EQ(client.SetPIN(c, p, pin, authenticate, 1, &psa), S_OK);
  Array sid(psa);
  ASSERT_EQ(sid.psa->rgsabound[0].cElements, 36u);
  // The card's verification serves one use by a PIN-always key.
  PINState state = PINStatePrompt;
  ASSERT_EQ(client.GetPINEx(c, p, pinAlways, 1, &psa, &sidOut, &state), S_OK);
  EXPECT_EQ(Take(psa), value);
  EXPECT_EQ(Take(sidOut), std::string(static_cast<char*>(sid.psa->pvData), 36));
  EXPECT_EQ(state, PINStateAvailable);
  // Spent, with confirmation asked for: only the Ex form tells it from a prompt.
  SetSetting("Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys", 1);
  EXPECT_EQ(client.IsPINCachedEx(c, p, pinAlways, 1, nullptr, &state), S_OK);
  EXPECT_EQ(state, PINStateConfirm);
  // By the PIN session id; an empty one fails before the store is asked,
  // after the parameters.
  EXPECT_EQ(client.ChangePINStateFromPINSessionId(c, p, sid, nullptr, 0, PINStateAvailable), S_OK);
  EXPECT_EQ(client.IsPINCachedFromPINSessionIdEx(c, p, sid, pinAlways, 1, &state), S_OK);
  EXPECT_EQ(state, PINStateAvailable);
  ASSERT_EQ(client.GetPINFromPINSessionId(c, p, sid, nullptr, 0, &psa), S_OK);
  EXPECT_EQ(Take(psa), value);
  log.Clear();
  EXPECT_EQ(client.GetPINFromPINSessionId(c, p, empty, nullptr, 0, &psa), E_FAIL);
  EXPECT_EQ(client.GetPINFromPINSessionId(c, p, empty, pinAlways, 1, &psa), S_OK);
  EXPECT_EQ(log.Count("CInternalAuthStore::GetPINFromPINSessionId"), 0u);
  // Records counted 0 fail before any array exists, so the failure shows.
  EXPECT_EQ(client.RemovePIN(c, p, authenticate, 0), E_FAIL);
  EXPECT_EQ(client.RemovePINFromPINSessionId(c, p, sid, nullptr, 0), S_OK);
  EXPECT_EQ(client.IsPINCachedEx(c, p, nullptr, 0, nullptr, &state), E_INVALIDARG);
}

TEST(AuthClient, RegisterListDescribeAndFlushStores) {
  CStaticAuthCacheClient client;
  SwappedMap own({});
  EXPECT_EQ(client.FlushAuthStores(), S_OK);
  EXPECT_EQ(client.ListAuthStoreIds(nullptr), S_OK);
  for (const char* id : {"B", "A"}) ASSERT_EQ(client.RegisterAuthStore(Bstr(id), AuthTypeVolatile, 0, 1), S_OK);
  CInternalAuthStore* first = SwappedMap::Map()[S("A")];
  EXPECT_EQ(client.RegisterAuthStore(Bstr("A"), AuthTypeRemanent, 1, 0), E_FAIL);
  EXPECT_EQ(SwappedMap::Map()[S("A")], first);
  AuthType type = AuthTypeRemanent;
  signed char encrypted = 7, shared = 7;
  EXPECT_EQ(client.GetAuthStoreInfo(Bstr("A"), &type, &encrypted, &shared), S_OK);
  EXPECT_EQ((std::vector<int>{type, encrypted, shared}), (std::vector<int>{AuthTypeVolatile, 0, 1}));
  EXPECT_EQ(client.GetAuthStoreInfo(Bstr("Z"), &type, &encrypted, &shared), E_FAIL);
  SAFEARRAY* ids = nullptr;
  ASSERT_EQ(client.ListAuthStoreIds(&ids), S_OK);
  EXPECT_EQ(mtest::Take(ids), mtest::Strings({"A", "B"}));
  for (auto& [id, store] : SwappedMap::Map()) Set(*store, 0, "c", "p", "1");
  EXPECT_EQ(client.FlushAuthStores(), S_OK);
  for (auto& [id, store] : SwappedMap::Map()) {
    EXPECT_EQ(Get(*store, 0, "c", "p").hr, E_INVALIDARG);
    Ender()(store);
  }
}

}  // namespace
