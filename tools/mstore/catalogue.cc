#include "catalogue.h"

#include <algorithm>
#include <cstring>

#include "xk/registry.h"

namespace mstore {

const char* const kCatalogueHive = "HKEY_LOCAL_MACHINE";
const char* const kCataloguePath = "Software\\Norvane Co\\Merrowstore\\StoreList";
const char* const kDefaultProduct = "Keldara";

namespace {

long ListSubKeys(const std::string& path, std::vector<std::string>& names) {
  unsigned int count = 0;
  int rc = qxRegListKeys(kCatalogueHive, path.c_str(), nullptr, &count);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<qxRegKey_> records(count);
  unsigned int filled = count;
  rc = qxRegListKeys(kCatalogueHive, path.c_str(), records.data(), &filled);
  if (rc != ERROR_SUCCESS) return rc;
  for (unsigned int i = 0; i < std::min(count, filled); ++i) names.emplace_back(records[i].szName);
  return ERROR_SUCCESS;
}

long ListValueNames(const std::string& path, std::vector<std::string>& names) {
  unsigned int count = 0;
  int rc = qxRegListValueNamesEx(kCatalogueHive, path.c_str(), nullptr, &count, 0xFFFFFFFF, 0);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<qxRegValue_> records(count);
  unsigned int filled = count;
  rc = qxRegListValueNamesEx(kCatalogueHive, path.c_str(), records.data(), &filled, 0xFFFFFFFF, 0);
  if (rc != ERROR_SUCCESS) return rc;
  for (unsigned int i = 0; i < std::min(count, filled); ++i) names.emplace_back(records[i].szName);
  return ERROR_SUCCESS;
}

long ReadStored(const std::string& path, const std::string& name, StoredValue& value) {
  unsigned int size = 0;
  int rc = qxRegReadValueEx(kCatalogueHive, path.c_str(), name.c_str(), &value.type, nullptr, &size, 0);
  if (rc != ERROR_SUCCESS) return rc;
  value.bytes.assign(size, 0);
  rc = qxRegReadValueEx(kCatalogueHive, path.c_str(), name.c_str(), &value.type, value.bytes.data(), &size, 0);
  if (rc != ERROR_SUCCESS) return rc;
  value.bytes.resize(size);
  value.present = true;
  return ERROR_SUCCESS;
}

}  // namespace

long ReadCatalogue(std::vector<CatalogueEntry>& entries) {
  entries.clear();
  std::vector<std::string> ids;
  long rc = ListSubKeys(kCataloguePath, ids);
  if (rc != ERROR_SUCCESS) return rc;
  for (const std::string& id : ids) {
    CatalogueEntry entry;
    entry.id = id;
    const std::string path = std::string(kCataloguePath) + "\\" + id;
    std::vector<std::string> names;
    rc = ListValueNames(path, names);
    if (rc != ERROR_SUCCESS) return rc;
    for (const std::string& name : names) {
      StoredValue* slot = name == "Type"                        ? &entry.type
                          : name == "Encrypted"                 ? &entry.encrypted
                          : name == "SharedBetweenUserSessions" ? &entry.shared
                          : name == "Product"                   ? &entry.product
                                                                : nullptr;
      if (slot == nullptr) {
        entry.ignored.push_back(name);
        continue;
      }
      rc = ReadStored(path, name, *slot);
      if (rc != ERROR_SUCCESS) return rc;
    }
    entries.push_back(std::move(entry));
  }
  return ERROR_SUCCESS;
}

std::optional<unsigned int> DwordOf(const StoredValue& value) {
  if (!value.present || value.type != REG_DWORD || value.bytes.size() < 4) return std::nullopt;
  unsigned int number;
  std::memcpy(&number, value.bytes.data(), sizeof number);
  return number;
}

std::optional<std::string> TextOf(const StoredValue& value) {
  if (!value.present || (value.type != REG_SZ && value.type != REG_EXPAND_SZ)) return std::nullopt;
  const auto nul = std::find(value.bytes.begin(), value.bytes.end(), 0);
  return std::string(value.bytes.begin(), nul);
}

bool Unreadable(const StoredValue& value, bool text) {
  return value.present && !(text ? TextOf(value).has_value() : DwordOf(value).has_value());
}

EffectiveEntry Effective(const CatalogueEntry& entry) {
  return EffectiveEntry{DwordOf(entry.type) == 1u, DwordOf(entry.encrypted) == 1u, DwordOf(entry.shared) == 1u,
                        TextOf(entry.product).value_or(kDefaultProduct)};
}

}  // namespace mstore
