#include "xk/settings.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <vector>

#include "xk/fault_point.h"
#include "xk/registry.h"
#include "xk/registry_stamp.h"

using QX::Framework::XKData;

namespace xk {
namespace settings {
namespace {

const char kHive[] = "HKEY_LOCAL_MACHINE";
const char kKey[] = "Software\\Norvane Co\\Settings";

struct Default {
  const char* name;
  std::int64_t value;
};

// The built-in defaults: PINs cached per user session, for 15 minutes, a PIN
// prompt (not a confirmation) for keys that ask for the PIN on every use, and
// a PKCS#11 logout that keeps the token's cached PIN. The PKCS#11 module's
// token module has no default.
const Default kDefaults[] = {
    {"Merrowstore.Authentication.AllowPerProcess", 0},
    {"Merrowstore.Authentication.Timeout", 15},
    {"Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys", 0},
    {"Merrowstore.PKCS11.ForgetPINOnLogout", 0},
};

// Reads the registry value of `name`. Returns ERROR_SUCCESS with `value` set,
// ERROR_FILE_NOT_FOUND when the registry has no such setting, or another
// registry status (also for a value of a type that is not a setting).
long ReadRegistry(const SecureString& name, XKData& value) {
  unsigned int type = 0, size = 0;
  long rc = qxRegReadValueEx(kHive, kKey, name.c_str(), &type, nullptr, &size, 0);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<unsigned char> bytes(size);
  rc = qxRegReadValueEx(kHive, kKey, name.c_str(), &type, bytes.data(), &size, 0);
  if (rc != ERROR_SUCCESS) return rc;
  bytes.resize(size);
  switch (type) {
    case REG_DWORD: {
      if (bytes.size() < 4) return ERROR_INVALID_DATA;
      std::uint32_t v;
      std::memcpy(&v, bytes.data(), 4);
      value = XKData(static_cast<std::int64_t>(v));
      return ERROR_SUCCESS;
    }
    case REG_QWORD: {
      if (bytes.size() < 8) return ERROR_INVALID_DATA;
      std::int64_t v;
      std::memcpy(&v, bytes.data(), 8);
      value = XKData(v);
      return ERROR_SUCCESS;
    }
    case REG_SZ:
    case REG_EXPAND_SZ: {
      std::size_t len = 0;
      while (len < bytes.size() && bytes[len] != 0) ++len;
      value = XKData(SecureString(reinterpret_cast<const char*>(bytes.data()), len));
      return ERROR_SUCCESS;
    }
    default:
      return ERROR_INVALID_DATATYPE;
  }
}

// Whether a registry answer is the file's to give, so that it holds as long as
// the file is unchanged: a value, no value, or a value no setting can have. A
// failure of the registry itself (busy, I/O, a value that grew between the
// size and the read) is not kept.
bool Keepable(long rc) {
  return rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND || rc == ERROR_INVALID_DATA ||
         rc == ERROR_INVALID_DATATYPE;
}

// One answer of GetSettingValue, kept by the thread that read it.
struct Kept {
  const std::atomic<std::uint64_t>* counter = nullptr;  // the database file's; nullptr: slot free
  std::uint64_t stamp = 0;  // the counter, loaded before the registry was read
  SecureString name;
  HRESULT hr = S_OK;
  bool assigns = false;  // whether the answer writes `value`
  XKData value;
};

// Each thread keeps its own answers, so keeping one costs no lock and no
// thread ever sees another's half-written entry. A handful of slots holds the
// library's three settings; past that the oldest slot is taken over.
struct ThreadKept {
  static constexpr std::size_t kSlots = 8;
  Kept slots[kSlots];
  std::size_t next = 0;

  // The slot of `name` from the file of `counter`, or a slot to fill (freed).
  Kept& SlotFor(const std::atomic<std::uint64_t>* counter, const SecureString& name) {
    for (Kept& slot : slots) {
      if (slot.counter == counter && slot.name == name) return slot;
    }
    Kept& slot = slots[next];
    next = (next + 1) % kSlots;
    slot.counter = nullptr;
    return slot;
  }
};

thread_local ThreadKept tKept;

}  // namespace

const char* RegistryKey() { return kKey; }

bool GetDefault(const SecureString& name, XKData& value) {
  for (const Default& d : kDefaults) {
    if (name == d.name) {
      value = XKData(d.value);
      return true;
    }
  }
  return false;
}

Source GetSettingSource(const SecureString& name) {
  XKData ignored;
  if (ReadRegistry(name, ignored) == ERROR_SUCCESS) return Source::kRegistry;
  return GetDefault(name, ignored) ? Source::kDefault : Source::kNone;
}

HRESULT SetSettingValue(const SecureString& name, const XKData& value) {
  if (name.empty() || value.IsEmpty()) return E_INVALIDARG;
  HKEY key = nullptr;
  if (xkRegCreateKeyEx(kHive, kKey, 0, nullptr, 0, 3, nullptr, &key, nullptr) != ERROR_SUCCESS) return E_FAIL;
  long rc;
  if (value.GetKind() == XKData::Kind::kInt) {
    std::int64_t v = value.Int();
    rc = xkRegSetValueEx(key, name.c_str(), 0, REG_QWORD, reinterpret_cast<const unsigned char*>(&v), sizeof v);
  } else {
    SecureString text = value.String();
    rc = xkRegSetValueEx(key, name.c_str(), 0, REG_SZ, reinterpret_cast<const unsigned char*>(text.data()),
                         static_cast<unsigned int>(text.size()));
  }
  xkRegCloseKey(key);
  return rc == ERROR_SUCCESS ? S_OK : E_FAIL;
}

HRESULT ResetSettingValue(const SecureString& name) {
  int rc = qxRegDeleteValue(kHive, kKey, name.c_str(), 0);
  return rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND ? S_OK : E_FAIL;
}

}  // namespace settings
}  // namespace xk

HRESULT GetSettingValue(const SecureString& name, XKData& value, void* reserved) {
  xk::fault::Outcome fault = xk::fault::Check("GetSettingValue");
  if (fault.kind != xk::fault::Kind::kNone) return static_cast<HRESULT>(fault.code ? fault.code : E_FAIL);
  if (name.empty() || reserved != nullptr) return E_INVALIDARG;
  // An answer is kept with the database file's change counter as it was
  // BEFORE the registry was read, and given again while the counter still
  // holds that value; a write that races with the read has moved it by then.
  // Nothing is kept or given while a fault is armed, so that a fault armed on
  // a registry call reaches the read, call for call, as without keeping.
  xk::registry::ChangeView view;
  if (!xk::fault::gAnyArmed.load(std::memory_order_relaxed)) view = xk::registry::CurrentChangeView();
  const std::atomic<std::uint64_t>* counter = view.counter;
  xk::settings::Kept* slot = nullptr;
  std::uint64_t stamp = 0;
  if (counter != nullptr) {
    stamp = counter->load(std::memory_order_acquire);
    slot = &xk::settings::tKept.SlotFor(counter, name);
    if (slot->counter == counter && slot->stamp == stamp) {
      if (slot->assigns) value = slot->value;
      return slot->hr;
    }
  }
  XKData found;
  long rc = xk::settings::ReadRegistry(name, found);
  HRESULT hr = S_OK;
  bool assigns = true;
  if (rc != ERROR_SUCCESS) {
    assigns = xk::settings::GetDefault(name, found);
    if (rc != ERROR_FILE_NOT_FOUND) {
      hr = E_FAIL;
    } else if (!assigns) {
      hr = static_cast<HRESULT>(0x80070002u);
    }
  }
  if (assigns) value = found;
  // A switch to another file during the read may have sent it elsewhere.
  if (slot != nullptr && xk::settings::Keepable(rc) && xk::registry::SameFileSince(view)) {
    slot->counter = counter;
    slot->stamp = stamp;
    slot->name = name;
    slot->hr = hr;
    slot->assigns = assigns;
    slot->value = found;
  }
  return hr;
}
