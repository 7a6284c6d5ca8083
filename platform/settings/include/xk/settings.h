#ifndef XK_SETTINGS_H
#define XK_SETTINGS_H

// The settings service: named machine-wide settings kept in the registry under
// HKEY_LOCAL_MACHINE "Software\Norvane Co\Settings", one value a setting, named
// by the full setting name. A setting that the registry does not hold takes
// its built-in default, if it has one (docs/platform.md lists them).

#include <cstdint>

#include "xk/export.h"
#include "xk/hresult.h"
#include "xk/secure_types.h"

namespace QX {
namespace Framework {

// One setting value: nothing, a number or a text.
class XK_EXPORT XKData {
 public:
  enum class Kind { kEmpty, kInt, kString };

  XKData() = default;
  explicit XKData(std::int64_t value);
  explicit XKData(const SecureString& value);

  Kind GetKind() const { return m_enKind; }
  bool IsEmpty() const { return m_enKind == Kind::kEmpty; }
  // The number; a text is read as a decimal (or 0x hex) number, 0 if it is not
  // one; empty gives 0.
  std::int64_t Int() const;
  // The text; a number is given in decimal; empty gives "".
  SecureString String() const;

 private:
  Kind m_enKind = Kind::kEmpty;
  std::int64_t m_nValue = 0;
  SecureString m_sValue;
};

}  // namespace Framework
}  // namespace QX

namespace xk {
namespace settings {

enum class Source { kRegistry, kDefault, kNone };

// The registry key that holds the settings, below HKEY_LOCAL_MACHINE.
XK_EXPORT const char* RegistryKey();
// Where GetSettingValue would take `name` from now.
XK_EXPORT Source GetSettingSource(const SecureString& name);
// The built-in default of `name`; false if it has none.
XK_EXPORT bool GetDefault(const SecureString& name, QX::Framework::XKData& value);
// Stores a setting in the registry (REG_QWORD for a number, REG_SZ for a text).
XK_EXPORT HRESULT SetSettingValue(const SecureString& name, const QX::Framework::XKData& value);
// Removes a setting from the registry, so that its default applies again.
XK_EXPORT HRESULT ResetSettingValue(const SecureString& name);

}  // namespace settings
}  // namespace xk

// Reads a setting into `value`: from the registry (REG_DWORD and REG_QWORD as
// numbers, REG_SZ as text), else its default. S_OK when a value was found;
// E_INVALIDARG for an empty name; 0x80070002 when the setting has neither a
// registry value nor a default, with `value` left empty; E_FAIL when the
// registry failed, with `value` holding the default. `reserved` must be NULL.
XK_EXPORT HRESULT GetSettingValue(const SecureString& name, QX::Framework::XKData& value, void* reserved);

#endif
