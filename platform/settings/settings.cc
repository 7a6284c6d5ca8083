#include "xk/settings.h"

#include <cstring>
#include <vector>

#include "xk/fault_point.h"
#include "xk/registry.h"

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

// The built-in defaults: PINs cached per user session, for 15 minutes, and a
// PIN prompt (not a confirmation) for keys that ask for the PIN on every use.
const Default kDefaults[] = {
    {"Merrowstore.Authentication.AllowPerProcess", 0},
    {"Merrowstore.Authentication.Timeout", 15},
    {"Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys", 0},
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
  XKData found;
  long rc = xk::settings::ReadRegistry(name, found);
  if (rc == ERROR_SUCCESS) {
    value = found;
    return S_OK;
  }
  bool hasDefault = xk::settings::GetDefault(name, found);
  if (hasDefault) value = found;
  if (rc != ERROR_FILE_NOT_FOUND) return E_FAIL;
  return hasDefault ? S_OK : static_cast<HRESULT>(0x80070002u);
}
