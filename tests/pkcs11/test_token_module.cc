// A PKCS#11 module for the tests only, put behind the module under test.
// With MSTORE_TEST_TOKEN naming a module, it forwards every call there and
// counts what the tests need to see (C_Initialize with its flags, C_Login with
// its PIN); without it, every entry only records its position and answers
// CKR_VENDOR_DEFINED + position (C_Initialize and C_Finalize answer CKR_OK).
// MSTORE_TEST_FAIL_INITIALIZE=1 makes C_Initialize fail with
// CKR_DEVICE_ERROR.

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "function_list.h"

#define TEST_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

std::atomic<unsigned long> gLastCall{~0ul}, gInitializeCalls{0}, gInitializeFlags{0}, gLogins{0};
std::mutex gPINMutex;
std::string gLastPIN;
std::atomic<CK_FUNCTION_LIST*> gToken{nullptr};

template <std::size_t kIndex, auto Member, typename Function>
struct Entry;
template <std::size_t kIndex, auto Member, typename... Args>
struct Entry<kIndex, Member, CK_RV (*)(Args...)> {
  static CK_RV Call(Args... args) {
    gLastCall = kIndex;
    if (CK_FUNCTION_LIST* token = gToken.load()) return (token->*Member)(args...);
    return CKR_VENDOR_DEFINED + kIndex;
  }
};

CK_RV Initialize(void* initArgs) {
  gLastCall = MSTORE_PKCS11_INDEX(C_Initialize);
  ++gInitializeCalls;
  gInitializeFlags = initArgs ? static_cast<CK_C_INITIALIZE_ARGS*>(initArgs)->flags : 0;
  const char* fail = std::getenv("MSTORE_TEST_FAIL_INITIALIZE");
  if (fail != nullptr && std::strcmp(fail, "1") == 0) return CKR_DEVICE_ERROR;
  const char* path = std::getenv("MSTORE_TEST_TOKEN");
  if (path == nullptr || *path == '\0') return CKR_OK;
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);  // kept for the life of the process
  auto getList = library ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList")) : nullptr;
  CK_FUNCTION_LIST* token = nullptr;
  if (getList == nullptr || getList(&token) != CKR_OK) return CKR_GENERAL_ERROR;
  const CK_RV rv = token->C_Initialize(initArgs);
  if (rv == CKR_OK) gToken = token;
  return rv;
}

CK_RV Finalize(void* reserved) {
  gLastCall = MSTORE_PKCS11_INDEX(C_Finalize);
  CK_FUNCTION_LIST* token = gToken.exchange(nullptr);
  return token ? token->C_Finalize(reserved) : CKR_OK;
}

CK_RV Login(CK_SESSION_HANDLE session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen) {
  ++gLogins;
  {
    std::lock_guard<std::mutex> lock(gPINMutex);
    gLastPIN.assign(pin ? reinterpret_cast<const char*>(pin) : "", pin ? pinLen : 0);
  }
  return Entry<MSTORE_PKCS11_INDEX(C_Login), &CK_FUNCTION_LIST::C_Login, CK_C_Login>::Call(session, userType, pin,
                                                                                         pinLen);
}

#define ENTRY(name) &Entry<MSTORE_PKCS11_INDEX(name), &CK_FUNCTION_LIST::name, CK_##name>::Call,
CK_FUNCTION_LIST gList = {{2, 40}, MSTORE_PKCS11_FUNCTIONS(ENTRY)};

}  // namespace

TEST_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  static const bool patched = [] {
    gList.C_Initialize = &Initialize;
    gList.C_Finalize = &Finalize;
    gList.C_Login = &Login;
    return true;
  }();
  (void)patched;
  *list = &gList;
  return CKR_OK;
}

TEST_EXPORT unsigned long TestTokenLastCall() { return gLastCall; }
TEST_EXPORT unsigned long TestTokenInitializeCalls() { return gInitializeCalls; }
TEST_EXPORT unsigned long TestTokenInitializeFlags() { return gInitializeFlags; }
TEST_EXPORT unsigned long TestTokenLogins() { return gLogins; }
// The last PIN C_Login was given, copied into buffer (NUL-terminated, cut).
TEST_EXPORT void TestTokenLastPIN(char* buffer, size_t size) {
  std::lock_guard<std::mutex> lock(gPINMutex);
  std::snprintf(buffer, size, "%s", gLastPIN.c_str());
}
