#ifndef MSTORE_TESTS_PKCS11_SUPPORT_H
#define MSTORE_TESTS_PKCS11_SUPPORT_H

// A private SoftHSM2 world for each test, and the module under test loaded
// in-process with the test token module between it and SoftHSM2.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "function_list.h"
#include "xk/settings.h"
#include "xk/testsupport.h"

namespace p11test {

// One loaded library and what it exports.
struct Library {
  explicit Library(const char* path) : handle(dlopen(path, RTLD_NOW)) {
    if (handle == nullptr) throw std::runtime_error(dlerror());
  }
  template <typename F>
  F* Get(const char* name) const {
    return reinterpret_cast<F*>(dlsym(handle, name));
  }
  CK_FUNCTION_LIST* List() const {
    CK_FUNCTION_LIST* list = nullptr;
    Get<CK_RV(CK_FUNCTION_LIST**)>("C_GetFunctionList")(&list);
    return list;
  }
  void* handle;
};

inline const Library& Ourselves() {
  static Library module(MSTORE_PKCS11_LIBRARY);
  return module;
}
inline CK_FUNCTION_LIST* Ours() { return Ourselves().List(); }
inline const Library& TestToken() {
  static Library token(MSTORE_TEST_TOKEN_MODULE);
  return token;
}
// How often the test token module's entry at `index` was called.
inline unsigned long Calls(std::size_t index) {
  return TestToken().Get<unsigned long(std::size_t)>("TestTokenCalls")(index);
}
inline std::string Status() {
  auto status = Ourselves().Get<size_t(char*, size_t)>("MerrowstorePKCS11Status");
  std::string report(status(nullptr, 0), '\0');
  status(report.data(), report.size() + 1);
  return report;
}

// A shell command's output (stderr too, nothing on stdin) and wait status.
inline std::pair<std::string, int> Shell(const std::string& command) {
  FILE* pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
  std::string out;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) out += buffer;
  return {out, pclose(pipe)};
}

inline void SetSetting(const char* name, std::int64_t value) {
  ASSERT_EQ(xk::settings::SetSettingValue(SecureString(name), QX::Framework::XKData(value)), S_OK);
}

// A sandbox (registry, settings) with a SoftHSM2 token "t" (SO PIN 5678, user
// PIN `pin`) of its own, the module under test set to the test token module
// and that one to SoftHSM2 (or `token`).
struct World {
  explicit World(const char* token = SOFTHSM2_LIBRARY, const std::string& pin = "1234") {
    const std::string conf = sandbox.Dir() + "/softhsm2.conf";
    mkdir((sandbox.Dir() + "/tokens").c_str(), 0700);
    std::ofstream(conf) << "directories.tokendir = " << sandbox.Dir()
                        << "/tokens\nobjectstore.backend = file\nlog.level = ERROR\n";
    setenv("SOFTHSM2_CONF", conf.c_str(), 1);
    setenv("XK_REGISTRY_PATH", sandbox.RegistryPath().c_str(), 1);  // for the programs it starts
    setenv("MERROWSTORE_PKCS11_MODULE", MSTORE_TEST_TOKEN_MODULE, 1);
    setenv("MSTORE_TEST_TOKEN", token, 1);
    unsetenv("MSTORE_TEST_FAIL_INITIALIZE");
    if (Shell("softhsm2-util --init-token --free --label t --so-pin 5678 --pin " + pin).second != 0)
      throw std::runtime_error("softhsm2-util failed");
  }
  xk::test::Sandbox sandbox;
};

// A read-write session on the first token, from an initialised list.
inline CK_SESSION_HANDLE Open(CK_FUNCTION_LIST* f) {
  CK_SLOT_ID slots[4];
  CK_ULONG count = 4;
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  if (f->C_GetSlotList(CK_TRUE, slots, &count) != CKR_OK || count == 0 ||
      f->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session) != CKR_OK)
    throw std::runtime_error("no session");
  return session;
}

inline CK_RV Login(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, const char* pin, CK_USER_TYPE user = CKU_USER) {
  return f->C_Login(s, user, reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(pin)), pin ? std::strlen(pin) : 0);
}

inline CK_TOKEN_INFO TokenInfo(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s) {
  CK_SESSION_INFO si;
  CK_TOKEN_INFO ti;
  if (f->C_GetSessionInfo(s, &si) != CKR_OK || f->C_GetTokenInfo(si.slotID, &ti) != CKR_OK)
    throw std::runtime_error("no token information");
  return ti;
}
inline std::string Serial(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s) {
  return std::string(reinterpret_cast<const char*>(TokenInfo(f, s).serialNumber), 16);  // SoftHSM2's fill all 16
}

// A P-256 key pair on the token (logged in); returns the private key.
inline CK_OBJECT_HANDLE GenerateKey(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, bool alwaysAuthenticate) {
  static CK_BYTE p256[] = {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};
  CK_BBOOL yes = CK_TRUE, always = alwaysAuthenticate ? CK_TRUE : CK_FALSE;
  CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
  CK_ATTRIBUTE pub[] = {{CKA_EC_PARAMS, p256, sizeof p256}, {CKA_VERIFY, &yes, 1}, {CKA_TOKEN, &yes, 1}};
  CK_ATTRIBUTE priv[] = {{CKA_SIGN, &yes, 1}, {CKA_PRIVATE, &yes, 1}, {CKA_TOKEN, &yes, 1},
                         {CKA_ALWAYS_AUTHENTICATE, &always, 1}};
  CK_OBJECT_HANDLE pubKey, privKey;
  if (f->C_GenerateKeyPair(s, &mechanism, pub, 3, priv, 4, &pubKey, &privKey) != CKR_OK)
    throw std::runtime_error("no key pair");
  return privKey;
}

// Signs a digest with an ECDSA key; a NULL pin leaves the context-specific
// login to the cache, "" makes none.
inline CK_RV Sign(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE key, const char* contextPIN = "") {
  CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
  CK_BYTE digest[32] = {1, 2, 3}, signature[64];
  CK_ULONG length = sizeof signature;
  CK_RV rv = f->C_SignInit(s, &mechanism, key);
  if (rv == CKR_OK && (contextPIN == nullptr || *contextPIN != '\0')) {
    rv = Login(f, s, contextPIN, CKU_CONTEXT_SPECIFIC);
    if (rv != CKR_OK) f->C_Sign(s, digest, sizeof digest, signature, &length);  // ends the operation
  }
  return rv != CKR_OK ? rv : f->C_Sign(s, digest, sizeof digest, signature, &length);
}

}  // namespace p11test

#endif
