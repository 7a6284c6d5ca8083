// Shared by the registry, settings and library tests: a private registry file
// for each test, and keys and values by path below HKEY_LOCAL_MACHINE.

#ifndef TESTS_SUPPORT_REGISTRY_SUPPORT_H
#define TESTS_SUPPORT_REGISTRY_SUPPORT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "xk/registry.h"
#include "xk/testsupport.h"

namespace regtest {

inline constexpr const char* kHklm = "HKEY_LOCAL_MACHINE";

// Each test on a registry file of its own; armed faults go with the test.
class RegistryTest : public ::testing::Test {
 protected:
  xk::test::Sandbox m_Sandbox;
  xk::test::FaultInjector m_Faults;
};

// Opens the key below `base`, creating it and its missing parents.
inline HKEY Create(const char* path, unsigned int* disposition = nullptr, HKEY base = kHklm) {
  HKEY key = nullptr;
  EXPECT_EQ(xkRegCreateKeyEx(base, path, 0, nullptr, 0, 3, nullptr, &key, disposition), ERROR_SUCCESS) << path;
  return key;
}

inline long Set(HKEY key, const char* name, const std::string& bytes, unsigned int type = REG_SZ) {
  return xkRegSetValueEx(key, name, 0, type, reinterpret_cast<const unsigned char*>(bytes.data()),
                         static_cast<unsigned int>(bytes.size()));
}

// Creates the key at `path` below HKEY_LOCAL_MACHINE and writes one value.
inline void Put(const char* path, const char* name, const std::string& bytes, unsigned int type = REG_SZ) {
  HKEY key = Create(path);
  EXPECT_EQ(Set(key, name, bytes, type), ERROR_SUCCESS) << path << " " << name;
  xkRegCloseKey(key);
}

inline void PutDword(const char* path, const char* name, unsigned int value) {
  Put(path, name, std::string(reinterpret_cast<const char*>(&value), sizeof value), REG_DWORD);
}

// The text of a string value, "-" when it cannot be read. `hive` may be a handle.
inline std::string Read(const char* path, const char* name, HKEY hive = kHklm) {
  char buffer[64] = {};
  unsigned int size = sizeof buffer;
  if (qxRegReadStringValueEx(static_cast<const char*>(hive), path, name, buffer, &size, 0) != ERROR_SUCCESS) return "-";
  return buffer;
}

// The names a two-pass listing gives, in its order: `list(nullptr, &count)`
// for the count, then `list(records, &count)`.
template <typename Record, typename List>
std::vector<std::string> Listed(List list) {
  unsigned int count = 0;
  EXPECT_EQ(list(nullptr, &count), ERROR_SUCCESS);
  std::vector<Record> records(count);
  EXPECT_EQ(list(records.data(), &count), ERROR_SUCCESS);
  std::vector<std::string> names;
  for (const Record& record : records) names.emplace_back(record.szName);
  return names;
}

// The names of the key's values of the types in `mask`, and of its subkeys.
inline std::vector<std::string> ValueNames(const char* path, unsigned int mask = 0xFFFFFFFF) {
  return Listed<qxRegValue_>(
      [&](qxRegValue_* r, unsigned int* n) { return qxRegListValueNamesEx(kHklm, path, r, n, mask, 0); });
}
inline std::vector<std::string> SubKeys(const char* path) {
  return Listed<qxRegKey_>([&](qxRegKey_* r, unsigned int* n) { return qxRegListKeys(kHklm, path, r, n); });
}

inline bool Exists(const char* path) {
  HKEY key = nullptr;
  const long status = xkRegOpenKeyEx(kHklm, path, 0, 0, &key);
  if (status == ERROR_SUCCESS) xkRegCloseKey(key);
  return status == ERROR_SUCCESS;
}

}  // namespace regtest

#endif
