#include "settings_command.h"

#include <iomanip>
#include <iostream>
#include <memory>
#include <string>

#include "xk/settings.h"

using QX::Framework::XKData;

namespace mstore {
namespace {

const char* const kSettings[] = {
    "Merrowstore.Authentication.AllowPerProcess",
    "Merrowstore.Authentication.Timeout",
    "Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys",
    // The PKCS#11 module: the token's module it forwards to, and whether a
    // logout forgets the token's cached PIN.
    "Merrowstore.PKCS11.Module",
    "Merrowstore.PKCS11.ForgetPINOnLogout",
};

struct Args {
  std::string name;
  std::string value;
  bool text = false;
};

bool Known(const std::string& name) {
  for (const char* s : kSettings)
    if (name == s) return true;
  return false;
}

const char* SourceText(xk::settings::Source source) {
  switch (source) {
    case xk::settings::Source::kRegistry: return "registry";
    case xk::settings::Source::kDefault: return "default";
    case xk::settings::Source::kNone: break;
  }
  return "unset";
}

int RunShow() {
  int status = 0;
  for (const char* name : kSettings) {
    SecureString key(name);
    XKData value;
    HRESULT hr = GetSettingValue(key, value, nullptr);
    std::cout << std::left << std::setw(68) << name;
    // A setting with no default (the PKCS#11 module's token module) is unset
    // until it is set: no error.
    if (hr < 0 && xk::settings::GetSettingSource(key) == xk::settings::Source::kNone) {
      std::cout << std::setw(12) << "" << "(unset)\n";
      continue;
    }
    if (hr < 0) {
      std::cout << "error 0x" << std::hex << static_cast<std::uint32_t>(hr) << std::dec << "\n";
      status = 1;
      continue;
    }
    std::string text = value.String().c_str();
    if (text.size() >= 12) text += ' ';  // a module path is longer than the column
    std::cout << std::setw(12) << text << "(" << SourceText(xk::settings::GetSettingSource(key)) << ")\n";
  }
  std::cout << "registry key: HKEY_LOCAL_MACHINE\\" << xk::settings::RegistryKey() << "\n";
  return status;
}

int RunSet(const Args& a) {
  if (!Known(a.name)) {
    std::cerr << "mstore: unknown setting: " << a.name << "\n";
    return 2;
  }
  XKData value;
  if (a.text) {
    value = XKData(SecureString(a.value.c_str()));
  } else {
    XKData probe{SecureString(a.value.c_str())};
    if (probe.Int() == 0 && a.value != "0" && a.value != "0x0") {
      std::cerr << "mstore: not a number: " << a.value << " (use --text to store a text)\n";
      return 2;
    }
    value = XKData(probe.Int());
  }
  HRESULT hr = xk::settings::SetSettingValue(SecureString(a.name.c_str()), value);
  if (hr < 0) {
    std::cerr << "mstore: cannot store " << a.name << "\n";
    return 1;
  }
  return 0;
}

int RunReset(const Args& a) {
  if (!Known(a.name)) {
    std::cerr << "mstore: unknown setting: " << a.name << "\n";
    return 2;
  }
  return xk::settings::ResetSettingValue(SecureString(a.name.c_str())) < 0 ? 1 : 0;
}

}  // namespace

void AddSettingsCommand(CLI::App& root, int& status) {
  CLI::App* cmd = root.add_subcommand("settings", "Show and change the library's settings");
  cmd->require_subcommand(1);
  auto args = std::make_shared<Args>();

  cmd->add_subcommand("show", "Show each setting, its effective value and where it comes from")
      ->callback([&status] { status = RunShow(); });

  CLI::App* set = cmd->add_subcommand("set", "Store a setting in the registry");
  set->add_option("name", args->name, "Setting name")->required();
  set->add_option("value", args->value, "Value (a number unless --text)")->required();
  set->add_flag("--text", args->text, "Store the value as a text");
  set->callback([args, &status] { status = RunSet(*args); });

  CLI::App* reset = cmd->add_subcommand("reset", "Remove a setting from the registry so its default applies");
  reset->add_option("name", args->name, "Setting name")->required();
  reset->callback([args, &status] { status = RunReset(*args); });
}

}  // namespace mstore
