// The PKCS#11 module in-process, in front of SoftHSM2 through the test token
// module: the forwarding, loading, and the PIN cache at each call that carries
// a user PIN.

#include <thread>

#include "pkcs11_test_support.h"

namespace {

using namespace p11test;

template <typename Function>
struct Call;
template <typename... Args>
struct Call<CK_RV (*)(Args...)> {
  static CK_RV With(CK_RV (*function)(Args...)) { return function(Args{}...); }
};

// Every entry reaches the same entry of the token module, which answers with
// its own position; C_Initialize and C_Finalize count clients, and the token
// module is initialised once, with CKF_OS_LOCKING_OK.
TEST(PKCS11Module, ForwardsEveryEntryOfTheList) {
  World world(/*token=*/"");  // the test token module alone: it records
  CK_FUNCTION_LIST* f = Ours();
  const unsigned long initialized = Count("TestTokenInitializeCalls");
  ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
  ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
  EXPECT_EQ(Count("TestTokenInitializeCalls"), initialized + 1);
  EXPECT_EQ(Count("TestTokenInitializeFlags"), CKF_OS_LOCKING_OK);
  const auto skip = {MSTORE_PKCS11_INDEX(C_Initialize), MSTORE_PKCS11_INDEX(C_Finalize),
                     MSTORE_PKCS11_INDEX(C_GetFunctionList)};
#define CHECK_ENTRY(name)                                                                       \
  if (std::find(skip.begin(), skip.end(), MSTORE_PKCS11_INDEX(name)) == skip.end()) {           \
    SCOPED_TRACE(#name);                                                                        \
    EXPECT_EQ(Call<CK_##name>::With(f->name), CKR_VENDOR_DEFINED + MSTORE_PKCS11_INDEX(name));  \
    EXPECT_EQ(Count("TestTokenLastCall"), MSTORE_PKCS11_INDEX(name));                           \
  }
  MSTORE_PKCS11_FUNCTIONS(CHECK_ENTRY)
  CK_FUNCTION_LIST* list = nullptr;
  EXPECT_EQ(f->C_GetFunctionList(&list), CKR_OK);
  EXPECT_EQ(list, f);
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(f->C_GetSlotList(CK_TRUE, nullptr, nullptr), CKR_VENDOR_DEFINED + MSTORE_PKCS11_INDEX(C_GetSlotList));  // the other client still works
  EXPECT_EQ(Count("TestTokenLastCall"), MSTORE_PKCS11_INDEX(C_GetSlotList));
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(Count("TestTokenLastCall"), MSTORE_PKCS11_INDEX(C_Finalize));
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(f->C_GetSlotList(CK_TRUE, nullptr, nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
}

// A module that is missing, or whose C_Initialize fails: the client gets an
// error and a log line naming the path, and can initialise once it is fixed.
TEST(PKCS11Module, UnloadableTokenModules) {
  World world;
  xk::test::LogCapture log;
  const std::string missing = world.sandbox.Dir() + "/missing.so";
  struct Case {
    const char* module;
    const char* failInitialize;
    CK_RV expected;
  } cases[] = {{missing.c_str(), "0", CKR_GENERAL_ERROR},
               {MSTORE_TEST_TOKEN_MODULE, "1", CKR_DEVICE_ERROR},
               {"", "0", CKR_GENERAL_ERROR}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.module);
    setenv("MERROWSTORE_PKCS11_MODULE", c.module, 1);
    setenv("MSTORE_TEST_FAIL_INITIALIZE", c.failInitialize, 1);
    log.Clear();
    EXPECT_EQ(Ours()->C_Initialize(nullptr), c.expected);
    bool named = false;
    for (const auto& e : log.Entries()) named |= e.level == 1 && (!*c.module || e.text.find(c.module) != std::string::npos);
    EXPECT_TRUE(named);
    EXPECT_EQ(Ours()->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  }
  // The setting names the module when the environment does not.
  unsetenv("MERROWSTORE_PKCS11_MODULE");
  unsetenv("MSTORE_TEST_FAIL_INITIALIZE");
  ASSERT_EQ(xk::settings::SetSettingValue(SecureString("Merrowstore.PKCS11.Module"),
                                          QX::Framework::XKData(SecureString(MSTORE_TEST_TOKEN_MODULE))),
            S_OK);
  ASSERT_EQ(Ours()->C_Initialize(nullptr), CKR_OK);
  EXPECT_NO_THROW(Open(Ours()));
  EXPECT_EQ(Ours()->C_Finalize(nullptr), CKR_OK);
}

struct PKCS11PINCache : ::testing::Test {
  void SetUp() override {
    ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
    s = Open(f);
  }
  void TearDown() override { EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK); }
  xk::test::TestClock clock;
  World world;
  CK_FUNCTION_LIST* f = Ours();
  CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
};

// A user PIN's round: cached by a login, it serves NULL-PIN logins, checks a
// login while logged in, follows C_SetPIN, leaves with C_InitPIN, with C_Logout
// only when told, and with its timer, taking the login with it.
TEST_F(PKCS11PINCache, AUserPINFromLoginToExpiry) {
  SetSetting("Merrowstore.Authentication.Timeout", 5);
  const unsigned long logins = Count("TestTokenLogins");
  EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);  // nothing cached: the token is not asked
  EXPECT_EQ(Count("TestTokenLogins"), logins);
  EXPECT_FALSE(TokenFlags(f, s) & CKF_PROTECTED_AUTHENTICATION_PATH);
  ASSERT_EQ(Login(f, s, "1234"), CKR_OK);
  EXPECT_TRUE(TokenFlags(f, s) & CKF_PROTECTED_AUTHENTICATION_PATH);
  EXPECT_EQ(Login(f, s, "9999"), CKR_PIN_INCORRECT);  // logged in already: checked, not waved through
  EXPECT_EQ(Login(f, s, "1234"), CKR_OK);
  EXPECT_EQ(Login(f, s, nullptr), CKR_OK);
  const std::string line = "token " + Serial(f, s) + " \"t\" pin ";
  EXPECT_NE(Status().find(line + "cached expires 2023-11-14T22:18:20Z\n"), std::string::npos) << Status();
  ASSERT_EQ(f->C_SetPIN(s, (CK_UTF8CHAR_PTR) "1234", 4, (CK_UTF8CHAR_PTR) "4321", 4), CKR_OK);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);  // keeps the PIN
  EXPECT_EQ(Login(f, s, nullptr), CKR_OK);
  EXPECT_EQ(LastPIN(), "4321");
  SetSetting("Merrowstore.PKCS11.ForgetPINOnLogout", 1);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);
  // C_InitPIN by the security officer.
  ASSERT_EQ(Login(f, s, "4321"), CKR_OK);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  SetSetting("Merrowstore.PKCS11.ForgetPINOnLogout", 0);
  ASSERT_EQ(Login(f, s, "4321"), CKR_OK);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  ASSERT_EQ(Login(f, s, "5678", CKU_SO), CKR_OK);
  ASSERT_EQ(f->C_InitPIN(s, (CK_UTF8CHAR_PTR) "1234", 4), CKR_OK);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);
  // Expiry: the PIN goes with its timer, and the login with it.
  ASSERT_EQ(Login(f, s, "1234"), CKR_OK);
  clock.Advance(299);
  EXPECT_EQ(Login(f, s, nullptr), CKR_OK);  // a read pushes expiry back
  clock.Advance(301);
  EXPECT_NE(Status().find(line + "none\n"), std::string::npos) << Status();
  CK_SESSION_INFO si;
  ASSERT_EQ(f->C_GetSessionInfo(s, &si), CKR_OK);
  EXPECT_EQ(si.state, CKS_RW_PUBLIC_SESSION);
  EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);
}

// A cached PIN the token refuses (changed behind the module's back) is removed
// at once: however many threads retry with a NULL PIN, the token sees it once.
TEST_F(PKCS11PINCache, ARefusedPINReachesTheTokenOnce) {
  ASSERT_EQ(Login(f, s, "1234"), CKR_OK);
  ASSERT_EQ(f->C_SetPIN(s, (CK_UTF8CHAR_PTR) "1234", 4, (CK_UTF8CHAR_PTR) "4321", 4), CKR_OK);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  // The PIN changes without the module: straight on SoftHSM2's own list.
  Library softhsm(SOFTHSM2_LIBRARY);
  CK_FUNCTION_LIST* token = nullptr;
  softhsm.Get<CK_RV(CK_FUNCTION_LIST**)>("C_GetFunctionList")(&token);
  ASSERT_EQ(Login(token, s, "4321"), CKR_OK);
  ASSERT_EQ(token->C_SetPIN(s, (CK_UTF8CHAR_PTR) "4321", 4, (CK_UTF8CHAR_PTR) "1111", 4), CKR_OK);
  ASSERT_EQ(token->C_Logout(s), CKR_OK);
  const unsigned long before = Count("TestTokenLogins");
  std::vector<std::thread> threads;
  std::atomic<int> refused{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) refused += Login(f, s, nullptr) == CKR_PIN_INCORRECT;
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(refused, 20);
  EXPECT_EQ(Count("TestTokenLogins"), before + 1);
  EXPECT_FALSE(TokenFlags(f, s) & CKF_PROTECTED_AUTHENTICATION_PATH);
}

// A key that asks for the PIN on every use: the login's PIN serves one
// signature; after it the cache says prompt, or confirm, and the module refuses
// either way, so that the program asks its user, whose PIN is then forwarded.
TEST_F(PKCS11PINCache, AnAlwaysAuthenticateKeyUnderEachPINAlwaysSetting) {
  for (int confirm : {0, 1}) {
    SCOPED_TRACE(confirm);
    SetSetting("Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys", confirm);
    xk::test::LogCapture log;
    ASSERT_EQ(Login(f, s, "1234"), CKR_OK);
    const CK_OBJECT_HANDLE key = GenerateKey(f, s, true);
    EXPECT_EQ(Sign(f, s, key, nullptr), CKR_OK);
    EXPECT_EQ(Sign(f, s, key, nullptr), CKR_PIN_INCORRECT);
    EXPECT_EQ(log.Count(std::string("C_Login CKU_CONTEXT_SPECIFIC token ") + Serial(f, s) +
                        (confirm ? " PINState = confirm" : " PINState = prompt")),
              1u);
    EXPECT_EQ(Sign(f, s, key, "1234"), CKR_OK);
    EXPECT_EQ(Sign(f, s, key), CKR_USER_NOT_LOGGED_IN);  // SoftHSM2 wants the login: the key is what it says
    // The PIN typed again (checked against the cached one) renews the
    // one-shot token; another client's NULL-PIN login leaves it for one
    // signature.
    ASSERT_EQ(Login(f, s, "1234"), CKR_OK);
    ASSERT_EQ(Login(f, s, nullptr), CKR_OK);
    EXPECT_EQ(Sign(f, s, key, nullptr), CKR_OK);
    EXPECT_EQ(Sign(f, s, key, nullptr), CKR_PIN_INCORRECT);
    ASSERT_EQ(f->C_Logout(s), CKR_OK);
  }
}

}  // namespace
