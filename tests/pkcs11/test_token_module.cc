// A PKCS#11 module for the tests only, put behind the module under test. It
// counts the calls of each entry (and keeps C_Initialize's flags); with
// MSTORE_TEST_TOKEN naming a module it forwards every call there, without it
// every entry answers CKR_VENDOR_DEFINED + its position (C_Initialize and
// C_Finalize answer CKR_OK).
// MSTORE_TEST_FAIL_INITIALIZE=1 makes C_Initialize fail with
// CKR_DEVICE_ERROR; MSTORE_TEST_LOGIN_ANSWER=<code> makes every C_Login answer
// that code without asking the token.

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>

#include "function_list.h"

#define TEST_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

std::atomic<unsigned long> gCalls[MSTORE_PKCS11_INDEX(C_WaitForSlotEvent) + 1], gInitializeFlags{0};
std::atomic<CK_FUNCTION_LIST*> gToken{nullptr};

template <std::size_t kIndex, auto Member, typename Function>
struct Entry;
template <std::size_t kIndex, auto Member, typename... Args>
struct Entry<kIndex, Member, CK_RV (*)(Args...)> {
  static CK_RV Call(Args... args) {
    ++gCalls[kIndex];
    if (CK_FUNCTION_LIST* token = gToken.load()) return (token->*Member)(args...);
    return CKR_VENDOR_DEFINED + kIndex;
  }
};

CK_RV Initialize(void* initArgs) {
  ++gCalls[MSTORE_PKCS11_INDEX(C_Initialize)];
  gInitializeFlags = initArgs ? static_cast<CK_C_INITIALIZE_ARGS*>(initArgs)->flags : 0;
  const char* fail = std::getenv("MSTORE_TEST_FAIL_INITIALIZE");
  if (fail != nullptr && *fail == '1') return CKR_DEVICE_ERROR;
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

CK_RV Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen) {
  ++gCalls[MSTORE_PKCS11_INDEX(C_Login)];
  const char* answer = std::getenv("MSTORE_TEST_LOGIN_ANSWER");
  if (answer != nullptr && *answer != '\0') return std::strtoul(answer, nullptr, 0);
  CK_FUNCTION_LIST* token = gToken.load();
  return token ? token->C_Login(session, user, pin, pinLen) : CKR_VENDOR_DEFINED + MSTORE_PKCS11_INDEX(C_Login);
}

CK_RV Finalize(void* reserved) {
  ++gCalls[MSTORE_PKCS11_INDEX(C_Finalize)];
  CK_FUNCTION_LIST* token = gToken.exchange(nullptr);
  return token ? token->C_Finalize(reserved) : CKR_OK;
}

#define ENTRY(name) &Entry<MSTORE_PKCS11_INDEX(name), &CK_FUNCTION_LIST::name, CK_##name>::Call,
CK_FUNCTION_LIST gList = {{2, 40}, MSTORE_PKCS11_FUNCTIONS(ENTRY)};
[[maybe_unused]] const bool gPatched =
    (gList.C_Initialize = &Initialize, gList.C_Finalize = &Finalize, gList.C_Login = &Login, true);

}  // namespace

TEST_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  *list = &gList;
  return CKR_OK;
}

TEST_EXPORT unsigned long TestTokenCalls(std::size_t index) { return gCalls[index]; }
TEST_EXPORT unsigned long TestTokenInitializeFlags() { return gInitializeFlags; }
