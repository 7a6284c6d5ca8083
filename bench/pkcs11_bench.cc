// The PKCS#11 module in-process against SoftHSM2 (softhsm2) on its own, side
// by side in one process on one token: an ECDSA P-256 signature (C_SignInit +
// C_Sign), and a login (C_Login + C_Logout) with the PIN given against one with
// a NULL PIN that the module answers from the PIN cache.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include "xk/testsupport.h"

namespace {

const char kSoftHSM2[] = "/usr/lib/softhsm/libsofthsm2.so";

CK_FUNCTION_LIST* List(const char* path) {
  void* library = dlopen(path, RTLD_NOW);
  auto get = library ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList")) : nullptr;
  CK_FUNCTION_LIST* list = nullptr;
  if (get == nullptr || get(&list) != CKR_OK) throw std::runtime_error(std::string("cannot load ") + path);
  return list;
}

void Check(CK_RV rv, const char* what) {
  if (rv != CKR_OK) throw std::runtime_error(std::string(what) + " failed: " + std::to_string(rv));
}

// A SoftHSM2 token of its own with a P-256 key, reached both ways.
struct World {
  World() {
    const std::string tokens = sandbox.Dir() + "/tokens", conf = sandbox.Dir() + "/softhsm2.conf";
    mkdir(tokens.c_str(), 0700);
    std::ofstream(conf) << "directories.tokendir = " << tokens << "\nobjectstore.backend = file\nlog.level = ERROR\n";
    setenv("SOFTHSM2_CONF", conf.c_str(), 1);
    setenv("MERROWSTORE_PKCS11_MODULE", kSoftHSM2, 1);
    if (std::system("softhsm2-util --init-token --free --label bench --so-pin 5678 --pin 1234 >/dev/null") != 0)
      throw std::runtime_error("softhsm2-util failed");
    direct = List(kSoftHSM2);
    module = List(MSTORE_PKCS11_LIBRARY);
    Check(direct->C_Initialize(nullptr), "C_Initialize");
    Check(module->C_Initialize(nullptr), "C_Initialize through the module");
    CK_SLOT_ID slots[4];
    CK_ULONG count = 4;
    Check(direct->C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");  // the token first, then a free slot
    const CK_SLOT_ID slot = slots[0];
    Check(direct->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &signer), "C_OpenSession");
    Check(direct->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &loginSession),
          "C_OpenSession");
    Check(module->C_Login(signer, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4), "C_Login");  // caches the PIN
    static CK_BYTE p256[] = {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};
    CK_BBOOL yes = CK_TRUE;
    CK_MECHANISM generate = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_ATTRIBUTE pub[] = {{CKA_EC_PARAMS, p256, sizeof p256}};
    CK_ATTRIBUTE priv[] = {{CKA_SIGN, &yes, 1}, {CKA_PRIVATE, &yes, 1}};
    CK_OBJECT_HANDLE publicKey;
    Check(direct->C_GenerateKeyPair(signer, &generate, pub, 1, priv, 2, &publicKey, &key), "C_GenerateKeyPair");
  }
  xk::test::Sandbox sandbox;
  CK_FUNCTION_LIST* direct = nullptr;
  CK_FUNCTION_LIST* module = nullptr;
  CK_SESSION_HANDLE signer = 0, loginSession = 0;
  CK_OBJECT_HANDLE key = 0;
};

World& TheWorld() {
  static World* world = new World;
  return *world;
}

void Sign(benchmark::State& state, bool throughModule) {
  World& w = TheWorld();
  CK_FUNCTION_LIST* f = throughModule ? w.module : w.direct;
  CK_MECHANISM ecdsa = {CKM_ECDSA, nullptr, 0};
  CK_BYTE digest[32] = {1, 2, 3}, signature[64];
  for (auto _ : state) {
    CK_ULONG length = sizeof signature;
    Check(f->C_SignInit(w.signer, &ecdsa, w.key), "C_SignInit");
    Check(f->C_Sign(w.signer, digest, sizeof digest, signature, &length), "C_Sign");
    benchmark::DoNotOptimize(signature);
  }
}
void BM_SignDirect(benchmark::State& state) { Sign(state, false); }
void BM_SignThroughModule(benchmark::State& state) { Sign(state, true); }

// Log-in and log-out through the module, on a token nobody else keeps
// logged in: the signer's session logs out first.
void Login(benchmark::State& state, bool cachedPIN) {
  World& w = TheWorld();
  Check(w.module->C_Logout(w.signer), "C_Logout");
  CK_UTF8CHAR_PTR pin = cachedPIN ? nullptr : (CK_UTF8CHAR_PTR) "1234";
  for (auto _ : state) {
    Check(w.module->C_Login(w.loginSession, CKU_USER, pin, pin ? 4 : 0), "C_Login");
    Check(w.module->C_Logout(w.loginSession), "C_Logout");
  }
  Check(w.module->C_Login(w.signer, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4), "C_Login");
}
void BM_LoginPINGiven(benchmark::State& state) { Login(state, false); }
void BM_LoginCachedPIN(benchmark::State& state) { Login(state, true); }

BENCHMARK(BM_SignDirect);
BENCHMARK(BM_SignThroughModule);
BENCHMARK(BM_LoginPINGiven);
BENCHMARK(BM_LoginCachedPIN);

}  // namespace
