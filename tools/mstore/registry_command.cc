#include "registry_command.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "registry_value.h"
#include "xk/registry.h"

namespace mstore {
namespace {

struct Args {
  std::string key;
  std::string name;
  std::string type = "sz";
  std::vector<std::string> data;
  bool recursive = false;
};

int Fail(const std::string& what, long status) {
  std::cerr << "mstore: " << what << ": " << RegistryStatusText(status) << "\n";
  return 1;
}

bool Parse(const std::string& text, KeyName& key) {
  if (ParseKeyName(text, key)) return true;
  std::cerr << "mstore: not a key name (it must start with a hive such as HKEY_LOCAL_MACHINE): " << text << "\n";
  return false;
}

// Subkey names of a key, in the registry's order.
long ListKeys(const KeyName& key, std::vector<std::string>& names) {
  unsigned int count = 0;
  int rc = qxRegListKeys(key.hive.c_str(), key.path.c_str(), nullptr, &count);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<qxRegKey_> records(count);
  unsigned int filled = count;
  rc = qxRegListKeys(key.hive.c_str(), key.path.c_str(), records.data(), &filled);
  if (rc != ERROR_SUCCESS) return rc;
  names.clear();
  for (unsigned int i = 0; i < std::min(count, filled); ++i) names.emplace_back(records[i].szName);
  return ERROR_SUCCESS;
}

long ListValues(const KeyName& key, std::vector<qxRegValue_>& values) {
  unsigned int count = 0;
  int rc = qxRegListValueNamesEx(key.hive.c_str(), key.path.c_str(), nullptr, &count, 0xFFFFFFFF, 0);
  if (rc != ERROR_SUCCESS) return rc;
  values.assign(count, qxRegValue_{});
  unsigned int filled = count;
  rc = qxRegListValueNamesEx(key.hive.c_str(), key.path.c_str(), values.data(), &filled, 0xFFFFFFFF, 0);
  if (rc != ERROR_SUCCESS) return rc;
  values.resize(std::min(count, filled));
  return ERROR_SUCCESS;
}

long ReadValue(const KeyName& key, const char* name, unsigned int& type, std::vector<unsigned char>& bytes) {
  unsigned int size = 0;
  int rc = qxRegReadValueEx(key.hive.c_str(), key.path.c_str(), name, &type, nullptr, &size, 0);
  if (rc != ERROR_SUCCESS) return rc;
  bytes.assign(size, 0);
  rc = qxRegReadValueEx(key.hive.c_str(), key.path.c_str(), name, &type, bytes.data(), &size, 0);
  bytes.resize(size);
  return rc;
}

std::string FullName(const KeyName& key) { return key.path.empty() ? key.hive : key.hive + "\\" + key.path; }

// Prints the values of one key, one line each: name, type, size, rendering.
long PrintValues(const KeyName& key, const std::string& indent) {
  std::vector<qxRegValue_> values;
  long rc = ListValues(key, values);
  if (rc != ERROR_SUCCESS) return rc;
  for (const qxRegValue_& v : values) {
    unsigned int type = 0;
    std::vector<unsigned char> bytes;
    rc = ReadValue(key, v.szName, type, bytes);
    if (rc != ERROR_SUCCESS) return rc;
    std::cout << indent << (v.szName[0] ? v.szName : "(default)") << "  " << TypeName(type) << "  "
              << bytes.size() << " bytes  " << RenderValue(type, bytes);
    if (IsRemanentStoreKey(key)) {
      std::string stored = RenderStoredArray(type, bytes);
      std::cout << "  -> " << (stored.empty() ? "no array" : stored);
    }
    std::cout << "\n";
  }
  return ERROR_SUCCESS;
}

long Dump(const KeyName& key, int depth) {
  std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
  std::cout << indent << "[" << FullName(key) << "]\n";
  long rc = PrintValues(key, indent + "  ");
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string> children;
  rc = ListKeys(key, children);
  if (rc != ERROR_SUCCESS) return rc;
  for (const std::string& child : children) {
    KeyName sub{key.hive, key.path.empty() ? child : key.path + "\\" + child};
    rc = Dump(sub, depth + 1);
    if (rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

int RunList(const Args& a) {
  KeyName key;
  if (!Parse(a.key, key)) return 2;
  std::vector<std::string> names;
  long rc = ListKeys(key, names);
  if (rc != ERROR_SUCCESS) return Fail("cannot list " + a.key, rc);
  for (const std::string& n : names) std::cout << n << "\n";
  return 0;
}

int RunShow(const Args& a) {
  KeyName key;
  if (!Parse(a.key, key)) return 2;
  long rc = PrintValues(key, "");
  return rc == ERROR_SUCCESS ? 0 : Fail("cannot show " + a.key, rc);
}

int RunSet(const Args& a) {
  KeyName key;
  if (!Parse(a.key, key)) return 2;
  unsigned int type;
  if (!ParseTypeName(a.type, type)) {
    std::cerr << "mstore: unknown value type: " << a.type << "\n";
    return 2;
  }
  std::vector<unsigned char> bytes;
  std::string error;
  if (!EncodeValue(type, a.data, bytes, error)) {
    std::cerr << "mstore: " << error << "\n";
    return 2;
  }
  HKEY handle = nullptr;
  long rc = xkRegCreateKeyEx(key.hive.c_str(), key.path.c_str(), 0, nullptr, 0, 3, nullptr, &handle, nullptr);
  if (rc != ERROR_SUCCESS) return Fail("cannot create " + a.key, rc);
  rc = xkRegSetValueEx(handle, a.name.c_str(), 0, type, bytes.empty() ? nullptr : bytes.data(),
                       static_cast<unsigned int>(bytes.size()));
  xkRegCloseKey(handle);
  return rc == ERROR_SUCCESS ? 0 : Fail("cannot set " + a.name, rc);
}

int RunDeleteValue(const Args& a) {
  KeyName key;
  if (!Parse(a.key, key)) return 2;
  int rc = qxRegDeleteValue(key.hive.c_str(), key.path.c_str(), a.name.c_str(), 0);
  return rc == ERROR_SUCCESS ? 0 : Fail("cannot delete " + a.name, rc);
}

int RunDeleteKey(const Args& a) {
  KeyName key;
  if (!Parse(a.key, key)) return 2;
  int rc = a.recursive ? qxRegDeleteSubKey(key.hive.c_str(), key.path.c_str(), 0, 0)
                       : qxRegDeleteKey(key.hive.c_str(), key.path.c_str(), 0, 0);
  if (rc == ERROR_KEY_HAS_CHILDREN) std::cerr << "mstore: the key has subkeys; use --recursive\n";
  return rc == ERROR_SUCCESS ? 0 : Fail("cannot delete " + a.key, rc);
}

int RunDump(const Args& a) {
  KeyName key;
  if (!Parse(a.key, key)) return 2;
  long rc = Dump(key, 0);
  return rc == ERROR_SUCCESS ? 0 : Fail("cannot dump " + a.key, rc);
}

}  // namespace

std::string RegistryStatusText(long status) {
  const char* what = "failure";
  switch (status) {
    case ERROR_SUCCESS: what = "success"; break;
    case ERROR_FILE_NOT_FOUND: what = "not found"; break;
    case ERROR_ACCESS_DENIED: what = "access denied"; break;
    case ERROR_INVALID_HANDLE: what = "invalid hive or handle"; break;
    case ERROR_INVALID_DATA: what = "value too short for its type"; break;
    case ERROR_OUTOFMEMORY: what = "out of memory"; break;
    case ERROR_INVALID_PARAMETER: what = "invalid parameter"; break;
    case ERROR_BAD_PATHNAME: what = "empty path component"; break;
    case ERROR_FILENAME_EXCED_RANGE: what = "name too long"; break;
    case ERROR_MORE_DATA: what = "buffer too small"; break;
    case ERROR_NO_MORE_ITEMS: what = "no more items"; break;
    case ERROR_BADDB: what = "not a registry database"; break;
    case ERROR_REGISTRY_IO_FAILED: what = "database failure"; break;
    case ERROR_KEY_DELETED: what = "key deleted"; break;
    case ERROR_KEY_HAS_CHILDREN: what = "key has subkeys"; break;
    case ERROR_INVALID_DATATYPE: what = "wrong value type"; break;
    default: break;
  }
  return std::to_string(status) + " (" + what + ")";
}

void AddRegistryCommand(CLI::App& root, int& status) {
  CLI::App* reg = root.add_subcommand("registry", "Read and change the registry database");
  reg->require_subcommand(1);
  auto args = std::make_shared<Args>();
  const std::string keyHelp = "Full key name, e.g. 'HKEY_LOCAL_MACHINE\\Software\\Norvane Co'";

  CLI::App* list = reg->add_subcommand("list", "List the subkeys of a key");
  list->add_option("key", args->key, keyHelp)->required();
  list->callback([args, &status] { status = RunList(*args); });

  CLI::App* show = reg->add_subcommand("show", "Show the values of a key with their types");
  show->add_option("key", args->key, keyHelp)->required();
  show->callback([args, &status] { status = RunShow(*args); });

  CLI::App* set = reg->add_subcommand("set", "Set a typed value, creating the key and its parents");
  set->add_option("key", args->key, keyHelp)->required();
  set->add_option("name", args->name, "Value name ('' for the default value)")->required();
  set->add_option("data", args->data,
                  "The value: one text (sz), texts (multi_sz), numbers (dword, qword; several make an "
                  "array), hex bytes (binary, none)");
  set->add_option("-t,--type", args->type, "none, sz, expand_sz, binary, dword, multi_sz or qword")
      ->capture_default_str();
  set->callback([args, &status] { status = RunSet(*args); });

  CLI::App* delValue = reg->add_subcommand("delete-value", "Delete one value");
  delValue->add_option("key", args->key, keyHelp)->required();
  delValue->add_option("name", args->name, "Value name")->required();
  delValue->callback([args, &status] { status = RunDeleteValue(*args); });

  CLI::App* delKey = reg->add_subcommand("delete-key", "Delete a key and its values");
  delKey->add_option("key", args->key, keyHelp)->required();
  delKey->add_flag("-r,--recursive", args->recursive, "Also delete every subkey");
  delKey->callback([args, &status] { status = RunDeleteKey(*args); });

  CLI::App* dump = reg->add_subcommand("dump", "Print a key, its values and its whole subtree");
  dump->add_option("key", args->key, keyHelp)->required();
  dump->callback([args, &status] { status = RunDump(*args); });
}

}  // namespace mstore
