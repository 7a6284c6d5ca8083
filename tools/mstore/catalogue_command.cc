#include "catalogue_command.h"

#include <cerrno>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <memory>
#include <string>

#include "catalogue.h"
#include "registry_command.h"
#include "registry_value.h"
#include "xk/registry.h"

namespace mstore {
namespace {

struct Args {
  std::string id;
  std::string type = "memory";
  bool encrypted = false;
  bool shared = false;  // the default all the same
  bool notShared = false;
  std::string product;
  bool hasProduct = false;
};

std::string EntryPath(const std::string& id) { return std::string(kCataloguePath) + "\\" + id; }

// One row of "catalogue list": the value's name, what is stored, and what the
// library makes of it.
void PrintRow(const char* name, const StoredValue& value, bool text, const std::string& meaning) {
  std::string stored = "(absent)";
  if (value.present) {
    if (Unreadable(value, text))
      stored = RenderValue(value.type, value.bytes) + " (" + TypeName(value.type) + ")";
    else if (text)
      stored = RenderValue(REG_SZ, value.bytes);
    else
      stored = std::to_string(*DwordOf(value));
  }
  std::string what = meaning;
  if (!value.present) what = "default: " + meaning;
  if (Unreadable(value, text)) what = "unreadable: the library stops reading the catalogue here";
  std::cout << "  " << std::left << std::setw(27) << name;
  if (what.empty())
    std::cout << stored;
  else
    std::cout << std::setw(12) << stored << " " << what;
  std::cout << "\n";
}

int RunList() {
  std::vector<CatalogueEntry> entries;
  long rc = ReadCatalogue(entries);
  const std::string where = std::string(kCatalogueHive) + "\\" + kCataloguePath;
  if (rc == ERROR_FILE_NOT_FOUND || (rc == ERROR_SUCCESS && entries.empty())) {
    std::cout << "the catalogue is empty (" << where << ")\n";
    return 0;
  }
  if (rc != ERROR_SUCCESS) {
    std::cerr << "mstore: cannot read " << where << ": " << RegistryStatusText(rc) << "\n";
    return 1;
  }
  for (const CatalogueEntry& e : entries) {
    const EffectiveEntry eff = Effective(e);
    std::cout << e.id << "\n";
    PrintRow("Type", e.type, false, eff.remanent ? "remanent" : "memory");
    PrintRow("Encrypted", e.encrypted, false, eff.encrypted ? "encrypted" : "not encrypted");
    PrintRow("SharedBetweenUserSessions", e.shared, false,
             eff.shared ? "shared" : "not shared: the store refuses data operations");
    PrintRow("Product", e.product, true,
             e.product.present ? "" : RenderValue(REG_SZ, {eff.product.begin(), eff.product.end()}));
    for (const std::string& name : e.ignored) std::cout << "  " << name << " (ignored)\n";
  }
  return 0;
}

bool ParseType(const std::string& text, unsigned int& type) {
  if (text == "memory") {
    type = 0;
  } else if (text == "remanent") {
    type = 1;
  } else {
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || errno != 0 || *end != '\0' || v > 0xFFFFFFFFull) return false;
    type = static_cast<unsigned int>(v);
  }
  return true;
}

long SetDword(HKEY key, const char* name, unsigned int value) {
  unsigned char bytes[4];
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
  return xkRegSetValueEx(key, name, 0, REG_DWORD, bytes, 4);
}

int RunAdd(const Args& a) {
  unsigned int type;
  if (!ParseType(a.type, type)) {
    std::cerr << "mstore: --type takes memory, remanent or a 32-bit number, not: " << a.type << "\n";
    return 2;
  }
  if (a.id.empty() || a.id.find('\\') != std::string::npos) {
    std::cerr << "mstore: a store id is a non-empty name without backslashes\n";
    return 2;
  }
  const std::string path = EntryPath(a.id);
  HKEY key = nullptr;
  if (xkRegOpenKeyEx(kCatalogueHive, path.c_str(), 0, 0, &key) == ERROR_SUCCESS) {
    xkRegCloseKey(key);
    std::cerr << "mstore: " << a.id << " is already in the catalogue (remove it first)\n";
    return 1;
  }
  long rc = xkRegCreateKeyEx(kCatalogueHive, path.c_str(), 0, nullptr, 0, 3, nullptr, &key, nullptr);
  if (rc != ERROR_SUCCESS) {
    std::cerr << "mstore: cannot create " << path << ": " << RegistryStatusText(rc) << "\n";
    return 1;
  }
  rc = SetDword(key, "Type", type);
  if (rc == ERROR_SUCCESS) rc = SetDword(key, "Encrypted", a.encrypted ? 1 : 0);
  if (rc == ERROR_SUCCESS) rc = SetDword(key, "SharedBetweenUserSessions", a.notShared ? 0 : 1);
  if (rc == ERROR_SUCCESS && a.hasProduct)
    rc = xkRegSetValueEx(key, "Product", 0, REG_SZ, reinterpret_cast<const unsigned char*>(a.product.data()),
                         static_cast<unsigned int>(a.product.size()));
  xkRegCloseKey(key);
  if (rc != ERROR_SUCCESS) {
    std::cerr << "mstore: cannot write " << a.id << ": " << RegistryStatusText(rc) << "\n";
    return 1;
  }
  return 0;
}

int RunRemove(const Args& a) {
  if (a.id.empty() || a.id.find('\\') != std::string::npos) {
    std::cerr << "mstore: a store id is a non-empty name without backslashes\n";
    return 2;
  }
  int rc = qxRegDeleteSubKey(kCatalogueHive, EntryPath(a.id).c_str(), 0, 0);
  if (rc == ERROR_FILE_NOT_FOUND) {
    std::cerr << "mstore: " << a.id << " is not in the catalogue\n";
    return 1;
  }
  if (rc != ERROR_SUCCESS) {
    std::cerr << "mstore: cannot remove " << a.id << ": " << RegistryStatusText(rc) << "\n";
    return 1;
  }
  return 0;
}

}  // namespace

void AddCatalogueCommand(CLI::App& root, int& status) {
  CLI::App* cmd = root.add_subcommand(
      "catalogue", "The data stores the library creates when it loads (changes apply to processes started later)");
  cmd->require_subcommand(1);
  auto args = std::make_shared<Args>();

  cmd->add_subcommand("list", "Show each entry with its values as stored and what the library makes of them")
      ->callback([&status] { status = RunList(); });

  CLI::App* add = cmd->add_subcommand("add", "Add a data store");
  add->add_option("id", args->id, "Store id")->required();
  add->add_option("--type", args->type, "memory (0), remanent (1) or any number")->capture_default_str();
  add->add_flag("--encrypted", args->encrypted, "Hold the values encrypted");
  CLI::Option* shared = add->add_flag("--shared", args->shared,
                                      "Shared between user sessions (the default: only such a store serves)");
  add->add_flag("--not-shared", args->notShared, "Not shared: the library registers it, but it serves no data")
      ->excludes(shared);
  add->add_option("--product", args->product, "Product name (absent: \"Keldara\")");
  add->callback([args, add, &status] {
    args->hasProduct = add->count("--product") > 0;
    status = RunAdd(*args);
  });

  CLI::App* remove = cmd->add_subcommand("remove", "Remove a data store from the catalogue");
  remove->add_option("id", args->id, "Store id")->required();
  remove->callback([args, &status] { status = RunRemove(*args); });
}

}  // namespace mstore
