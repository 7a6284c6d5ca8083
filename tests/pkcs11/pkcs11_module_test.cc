// The PKCS#11 module in-process, in front of SoftHSM2 through the test token
// module: the forwarding, loading, and the PIN cache at each call that carries
// a user PIN.

#include <atomic>
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
// module is initialised once, with CKF_OS_LOCKING_OK, and finalised once.
TEST(PKCS11Module, ForwardsEveryEntryOfTheList) {
  World world(/*token=*/"");  // the test token module alone
  CK_FUNCTION_LIST* f = Ours();
  const unsigned long initialized = Calls(MSTORE_PKCS11_INDEX(C_Initialize));
  const unsigned long finalized = Calls(MSTORE_PKCS11_INDEX(C_Finalize));
  ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
  ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
  EXPECT_EQ(Calls(MSTORE_PKCS11_INDEX(C_Initialize)), initialized + 1);
  EXPECT_EQ(TestToken().Get<unsigned long()>("TestTokenInitializeFlags")(), CKF_OS_LOCKING_OK);
  const std::size_t own[] = {MSTORE_PKCS11_INDEX(C_Initialize), MSTORE_PKCS11_INDEX(C_Finalize),
                             MSTORE_PKCS11_INDEX(C_GetFunctionList)};
#define CHECK_ENTRY(name)                                                                         \
  if (std::find(std::begin(own), std::end(own), MSTORE_PKCS11_INDEX(name)) == std::end(own)) {     \
    EXPECT_EQ(Call<CK_##name>::With(f->name), CKR_VENDOR_DEFINED + MSTORE_PKCS11_INDEX(name)) << #name; \
  }
  MSTORE_PKCS11_FUNCTIONS(CHECK_ENTRY)
  CK_FUNCTION_LIST* list = nullptr;
  EXPECT_TRUE(f->C_GetFunctionList(&list) == CKR_OK && list == f);
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(Calls(MSTORE_PKCS11_INDEX(C_Finalize)), finalized + 1);
  EXPECT_EQ(f->C_GetSlotList(CK_TRUE, nullptr, nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
}

// A module that is missing, or whose C_Initialize fails: the client gets an
// error, a log line names the path, and the client is not counted. The
// environment names the module over the setting, which serves without it.
TEST(PKCS11Module, UnloadableTokenModules) {
  World world;
  xk::test::LogCapture log;
  ASSERT_EQ(xk::settings::SetSettingValue(SecureString("Merrowstore.PKCS11.Module"),
                                          QX::Framework::XKData(SecureString(MSTORE_TEST_TOKEN_MODULE))),
            S_OK);
  const std::string missing = world.sandbox.Dir() + "/missing.so";
  struct Case {
    const char* module;
    const char* failInitialize;
    CK_RV expected;
  } cases[] = {{missing.c_str(), "0", CKR_GENERAL_ERROR}, {MSTORE_TEST_TOKEN_MODULE, "1", CKR_DEVICE_ERROR},
               {"", "0", CKR_OK}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.module);
    setenv("MERROWSTORE_PKCS11_MODULE", c.module, 1);
    setenv("MSTORE_TEST_FAIL_INITIALIZE", c.failInitialize, 1);
    log.Clear();
    EXPECT_EQ(Ours()->C_Initialize(nullptr), c.expected);
    bool named = false;
    for (const auto& e : log.Entries()) named |= e.level == 1 && e.text.find(c.module) != std::string::npos;
    EXPECT_EQ(named, c.expected != CKR_OK);
    EXPECT_EQ(Ours()->C_Finalize(nullptr), c.expected == CKR_OK ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED);
  }
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
  EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);  // nothing cached
  EXPECT_FALSE(TokenInfo(f, s).flags & CKF_PROTECTED_AUTHENTICATION_PATH);
  ASSERT_EQ(Login(f, s, "1234"), CKR_OK);
  EXPECT_TRUE(TokenInfo(f, s).flags & CKF_PROTECTED_AUTHENTICATION_PATH);
  EXPECT_EQ(Login(f, s, "9999"), CKR_PIN_INCORRECT);  // logged in already: checked, not waved through
  EXPECT_NE(Status().find("token " + Serial(f, s) + " \"t\" pin cached expires 2023-11-14T22:28:20Z\n"),
            std::string::npos)
      << Status();
  ASSERT_EQ(f->C_SetPIN(s, (CK_UTF8CHAR_PTR) "1234", 4, (CK_UTF8CHAR_PTR) "4321", 4), CKR_OK);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);  // keeps the PIN, the new one
  EXPECT_EQ(Login(f, s, nullptr), CKR_OK);
  // C_InitPIN by the security officer, to the very PIN that is cached.
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  ASSERT_EQ(Login(f, s, "5678", CKU_SO), CKR_OK);
  ASSERT_EQ(f->C_InitPIN(s, (CK_UTF8CHAR_PTR) "4321", 4), CKR_OK);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);
  ASSERT_EQ(Login(f, s, "4321"), CKR_OK);
  SetSetting("Merrowstore.PKCS11.ForgetPINOnLogout", 1);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);
  // Expiry (15 minutes without use): the PIN goes with its timer, the login with it.
  ASSERT_EQ(Login(f, s, "4321"), CKR_OK);
  clock.Advance(899);
  EXPECT_EQ(Login(f, s, nullptr), CKR_OK);
  clock.Advance(901);
  CK_SESSION_INFO si;
  ASSERT_EQ(f->C_GetSessionInfo(s, &si), CKR_OK);
  EXPECT_EQ(si.state, CKS_RW_PUBLIC_SESSION);
  EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);
}

// A cached PIN the token refuses (changed behind the module's back) is removed
// at once: however many threads retry with a NULL PIN, the token sees it once.
TEST_F(PKCS11PINCache, ARefusedPINReachesTheTokenOnce) {
  ASSERT_EQ(Login(f, s, "1234"), CKR_OK);
  ASSERT_EQ(f->C_Logout(s), CKR_OK);
  CK_FUNCTION_LIST* token = Library(SOFTHSM2_LIBRARY).List();  // SoftHSM2's own list
  ASSERT_EQ(Login(token, s, "1234"), CKR_OK);
  ASSERT_EQ(token->C_SetPIN(s, (CK_UTF8CHAR_PTR) "1234", 4, (CK_UTF8CHAR_PTR) "1111", 4), CKR_OK);
  ASSERT_EQ(token->C_Logout(s), CKR_OK);
  const unsigned long before = Calls(MSTORE_PKCS11_INDEX(C_Login));
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) refused += Login(f, s, nullptr) == CKR_PIN_INCORRECT;
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(refused, 20);
  EXPECT_EQ(Calls(MSTORE_PKCS11_INDEX(C_Login)), before + 1);
  // A locked or expired PIN takes the cached one with it, whatever was typed.
  for (CK_RV answer : {CKR_PIN_LOCKED, CKR_PIN_EXPIRED}) {
    ASSERT_EQ(Login(f, s, "1111"), CKR_OK);
    ASSERT_EQ(f->C_Logout(s), CKR_OK);
    setenv("MSTORE_TEST_LOGIN_ANSWER", std::to_string(answer).c_str(), 1);
    EXPECT_EQ(Login(f, s, "2222"), answer);
    unsetenv("MSTORE_TEST_LOGIN_ANSWER");
    EXPECT_EQ(Login(f, s, nullptr), CKR_PIN_INCORRECT);
  }
}

// A key that asks for the PIN on every use: a user login's PIN, typed or taken
// from the cache by another client's NULL-PIN login, serves one signature;
// after it the cache says prompt, or confirm, and the module refuses either
// way, so that the program asks its user, whose PIN is then forwarded.
TEST_F(PKCS11PINCache, AnAlwaysAuthenticateKeyUnderEachPINAlwaysSetting) {
  for (int confirm : {0, 1}) {
    SCOPED_TRACE(confirm);
    SetSetting("Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys", confirm);
    xk::test::LogCapture log;
    ASSERT_EQ(Login(f, s, "1234"), CKR_OK);
    const CK_OBJECT_HANDLE key = GenerateKey(f, s, true);
    ASSERT_EQ(Login(f, s, nullptr), CKR_OK);
    EXPECT_EQ(Sign(f, s, key, nullptr), CKR_OK);
    EXPECT_EQ(Sign(f, s, key, nullptr), CKR_PIN_INCORRECT);
    EXPECT_EQ(log.Count(std::string("C_Login CKU_CONTEXT_SPECIFIC token ") + Serial(f, s) +
                        (confirm ? " PINState = confirm" : " PINState = prompt")),
              1u);
    EXPECT_EQ(Sign(f, s, key, "1234"), CKR_OK);
    ASSERT_EQ(f->C_Logout(s), CKR_OK);
  }
}

}  // namespace
