// The PIN store side by side with the Linux kernel keyring, in one run.
//
// The store is configured as the start-up PIN store: CInternalAuthStore
// begun as AuthTypeVolatile, encrypted and shared between user sessions, so a
// memory tree and a volatile key of this process. It runs in this process,
// with a client process id of 0, which a shared store never asks getsid
// about. The PIN is an 8-byte VT_UI1 vector in compartment "Reader 0", PIN
// id "PIN 1"; every request carries the parameters IsACRPINAlways "No" and
// Action "None", as the PIN client packs them. The settings are the
// defaults (a private registry with no settings in it): per-session caching,
// a 15-minute timeout, so the PIN's timer is restarted by every set and read
// and never fires during the run.
//
// The baseline is the kernel keyring through libkeyutils: this process joins
// a new anonymous session keyring once, and keeps the same 8 bytes as a
// "user" key in it.
// - GetPIN of the cached PIN (read of the four items, decryption, state
//   write, timer restart) against one keyctl_read of the key.
// - SetPIN over the cached PIN (a new PIN session id from uuid_generate and
//   uuid_unparse, encryption, the four items, timer restart) against add_key
//   replacing the key, keyctl_set_timeout and one uuid_generate +
//   uuid_unparse; uuid_generate + uuid_unparse also alone.
// - IsPINCached, the probe, for reference.
//
// Logging is off (no sink): a record that is off costs one load and a test,
// and the program refuses to run with a sink installed. Loading the library
// reads the store catalogue from the registry: run it with XK_REGISTRY_PATH
// naming a scratch file (see docs/performance.md).

#include "bench_support.h"
#include <keyutils.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "authstore/InternalAuthStore.h"
#include "benchmark/benchmark.h"
#include "crypto/CommonCrypto.h"
#include "xk/log.h"
#include "xk/oleauto.h"
#include "xk/testsupport.h"
#include "xk/timer.h"
#include "xk/timer_clock.h"

namespace {

using bench::Bstr;
using bench::Require;

constexpr char kStoreId[] = "{AEA79AF9-BECB-490a-BCCB-CD0806BA970D}";
constexpr unsigned int kPINSize = 8;
const unsigned char kPIN[kPINSize] = {'4', '7', '1', '1', '0', '8', '1', '5'};
constexpr char kKeyDescription[] = "merrowstore-bench:Reader 0/PIN 1";
constexpr unsigned int kTimeoutSeconds = 15 * 60;

// True if psa is a VT_UI1 vector holding exactly the PIN.
bool HoldsPIN(SAFEARRAY* psa) {
  if (psa == nullptr || psa->cDims != 1 || psa->rgsabound[0].cElements != kPINSize) return false;
  void* data = nullptr;
  if (SafeArrayAccessData(psa, &data) != S_OK) return false;
  const bool same = std::memcmp(data, kPIN, kPINSize) == 0;
  SafeArrayUnaccessData(psa);
  return same;
}

// The sandbox, the store with its cached PIN, and the keyring with its key.
class World {
 public:
  World() {
    Require(xk::log::gEffectiveMask.load() == 0, "logging is on: unset XK_LOG_FILE and XK_LOG_STDERR");

    m_Value = SafeArrayCreateVector(VT_UI1, 0, kPINSize);
    Require(m_Value != nullptr, "SafeArrayCreateVector failed");
    void* data = nullptr;
    Require(SafeArrayAccessData(m_Value, &data) == S_OK, "SafeArrayAccessData failed");
    std::memcpy(data, kPIN, kPINSize);
    SafeArrayUnaccessData(m_Value);

    const char* const parameters[] = {"IsACRPINAlways", "No", "Action", "None"};
    m_Parameters = SafeArrayCreateVector(VT_BSTR, 0, 4);
    Require(m_Parameters != nullptr, "SafeArrayCreateVector failed");
    for (int i = 0; i < 4; ++i) {
      Bstr text(parameters[i]);
      Require(SafeArrayPutElement(m_Parameters, &i, static_cast<char*>(text)) == S_OK, "SafeArrayPutElement failed");
    }

    Require(m_Store.Begin(Bstr(kStoreId), QX::AuthStore::AuthTypeVolatile, 1, 1) == S_OK, "Begin failed");
    Require(SetPIN() == S_OK, "SetPIN failed");
    // The PIN comes back as it went in, and its timer runs.
    SAFEARRAY* psa = nullptr;
    int nState = -1;
    Require(m_Store.GetPIN(0, m_Compartment, m_PINId, m_Parameters, &psa, nullptr, &nState) == S_OK &&
                nState == QX::AuthStore::PINStateAvailable && HoldsPIN(psa),
            "GetPIN does not give the PIN back");
    qxSafeArrayDestroy(psa, 0);
    Require(xk::timer::ArmedTimerCount() == 1, "the PIN has no running timer");
    // The same PIN protected by a key of the same kind, for the parts.
    Require(m_Crypto.initialize(SecureString("AuthBenchParts"), false) == S_OK, "the volatile key failed");
    Require(m_Crypto.encryptValue(m_Value, m_Blob, false) == S_OK, "encryptValue failed");

    Require(keyctl_join_session_keyring(nullptr) >= 0, "keyctl_join_session_keyring failed");
    Require(AddKey() >= 0, "add_key failed");
    unsigned char buffer[64];
    Require(keyctl_read(m_Key, reinterpret_cast<char*>(buffer), sizeof buffer) == long{kPINSize} &&
                std::memcmp(buffer, kPIN, kPINSize) == 0,
            "keyctl_read does not give the PIN back");
  }

  ~World() {
    m_Store.End();
    qxSafeArrayDestroy(m_Blob, 0);
    qxSafeArrayDestroy(m_Parameters, 0);
    qxSafeArrayDestroy(m_Value, 0);
  }

  // SetPIN with a new PIN session id, which the caller frees.
  HRESULT SetPIN() {
    char* bstrPINSessionId = nullptr;
    const HRESULT hr = m_Store.SetPIN(0, m_Compartment, m_PINId, m_Value, m_Parameters, &bstrPINSessionId);
    if (bstrPINSessionId == nullptr) return E_FAIL;
    qxSysFreeString(bstrPINSessionId, 0);
    return hr;
  }

  // GetPIN of the value, which the caller releases.
  HRESULT GetPIN() {
    SAFEARRAY* psa = nullptr;
    int nState = 0;
    const HRESULT hr = m_Store.GetPIN(0, m_Compartment, m_PINId, m_Parameters, &psa, nullptr, &nState);
    if (psa == nullptr) return E_FAIL;
    qxSafeArrayDestroy(psa, 0);
    return hr;
  }

  HRESULT IsPINCached() {
    int nState = 0;
    const HRESULT hr = m_Store.IsPINCached(0, m_Compartment, m_PINId, m_Parameters, nullptr, &nState);
    return nState == QX::AuthStore::PINStateAvailable ? hr : E_FAIL;
  }

  // Adds the key, or replaces the payload of the one already there.
  key_serial_t AddKey() {
    m_Key = add_key("user", kKeyDescription, kPIN, kPINSize, KEY_SPEC_SESSION_KEYRING);
    return m_Key;
  }
  key_serial_t Key() const { return m_Key; }
  CommonCrypto& Crypto() { return m_Crypto; }
  SAFEARRAY* Value() const { return m_Value; }
  SAFEARRAY* Blob() const { return m_Blob; }

 private:
  xk::test::Sandbox m_Sandbox;
  CInternalAuthStore m_Store;
  Bstr m_Compartment{"Reader 0"};
  Bstr m_PINId{"PIN 1"};
  SAFEARRAY* m_Value = nullptr;
  SAFEARRAY* m_Parameters = nullptr;
  key_serial_t m_Key = -1;
  CommonCrypto m_Crypto;
  SAFEARRAY* m_Blob = nullptr;
};

World& TheWorld() {
  static World world;
  return world;
}

// What the store makes on every SetPIN: a fresh UUID as text.
void NewUuidText(char (&text)[37]) {
  uuid_t uuid;
  uuid_generate(uuid);
  uuid_unparse(uuid, text);
}

// Target 1: reading a cached PIN.
void BM_StoreGetPIN(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) {
    if (world.GetPIN() != S_OK) {
      state.SkipWithError("GetPIN failed");
      break;
    }
  }
}
BENCHMARK(BM_StoreGetPIN);

void BM_KeyringRead(benchmark::State& state) {
  World& world = TheWorld();
  char buffer[64];
  for (auto _ : state) {
    if (keyctl_read(world.Key(), buffer, sizeof buffer) != long{kPINSize}) {
      state.SkipWithError("keyctl_read failed");
      break;
    }
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_KeyringRead);

// Target 2: caching a PIN again over the cached one.
void BM_StoreSetPIN(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) {
    if (world.SetPIN() != S_OK) {
      state.SkipWithError("SetPIN failed");
      break;
    }
  }
}
BENCHMARK(BM_StoreSetPIN);

void BM_KeyringReplacePlusUuid(benchmark::State& state) {
  World& world = TheWorld();
  char text[37];
  for (auto _ : state) {
    if (world.AddKey() < 0 || keyctl_set_timeout(world.Key(), kTimeoutSeconds) != 0) {
      state.SkipWithError("add_key or keyctl_set_timeout failed");
      break;
    }
    NewUuidText(text);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_KeyringReplacePlusUuid);

void BM_UuidGenerateUnparse(benchmark::State& state) {
  TheWorld();
  char text[37];
  for (auto _ : state) {
    NewUuidText(text);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_UuidGenerateUnparse);

// For reference: the probe, which reads and decides but writes nothing.
void BM_StoreIsPINCached(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) {
    if (world.IsPINCached() != S_OK) {
      state.SkipWithError("IsPINCached failed");
      break;
    }
  }
}
BENCHMARK(BM_StoreIsPINCached);

// The parts of a read and a write, for the profile: the protection of the
// PIN under a volatile key, the restart of a running 15-minute timer, and the
// two settings a timer set-up reads ("Merrowstore.Authentication.
// AllowPerProcess", then "Merrowstore.Authentication.Timeout").
void BM_PartDecryptValue(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) {
    SAFEARRAY* psa = nullptr;
    if (world.Crypto().DecryptValue(world.Blob(), psa, false) != S_OK || psa == nullptr) {
      state.SkipWithError("DecryptValue failed");
      break;
    }
    qxSafeArrayDestroy(psa, 0);
  }
}
BENCHMARK(BM_PartDecryptValue);

void BM_PartEncryptValue(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) {
    SAFEARRAY* psa = nullptr;
    if (world.Crypto().encryptValue(world.Value(), psa, false) != S_OK || psa == nullptr) {
      state.SkipWithError("encryptValue failed");
      break;
    }
    qxSafeArrayDestroy(psa, 0);
  }
}
BENCHMARK(BM_PartEncryptValue);

class NoCallback : public QX::Framework::ITimerCallbackFunction {
 public:
  bool InvokeFunction() override { return false; }
};

void BM_PartTimerRestart(benchmark::State& state) {
  TheWorld();
  QX::Framework::ITimer* timer = QX::Framework::ITimer::CreateNewTimer(kTimeoutSeconds, new NoCallback);
  Require(timer != nullptr, "CreateNewTimer failed");
  for (auto _ : state) timer->Restart();
  delete timer;
}
BENCHMARK(BM_PartTimerRestart);

void BM_PartTimeoutSettings(benchmark::State& state) {
  TheWorld();
  for (auto _ : state) {
    int nTimeout = 0;
    CInternalAuthStore::GetPINCachingTimeout(nTimeout);
    if (nTimeout != 15) {
      state.SkipWithError("the timeout is not the default");
      break;
    }
  }
}
BENCHMARK(BM_PartTimeoutSettings);

}  // namespace
