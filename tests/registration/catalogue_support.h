#ifndef MERROWSTORE_TESTS_REGISTRATION_CATALOGUE_SUPPORT_H
#define MERROWSTORE_TESTS_REGISTRATION_CATALOGUE_SUPPORT_H

// Writes store catalogue entries into the registry of the current sandbox.

#include <gtest/gtest.h>

#include <string>

#include "xk/registry.h"

namespace cattest {

const std::string kStoreList = "Software\\Norvane Co\\Merrowstore\\StoreList";

// Creates the catalogue key, or the sub-key `store` of it, and writes one value
// (none when name is empty).
inline void Write(const std::string& store, const std::string& name = "", unsigned int type = REG_NONE,
                  const void* data = nullptr, unsigned int size = 0) {
  HKEY key = nullptr;
  const std::string path = store.empty() ? kStoreList : kStoreList + "\\" + store;
  ASSERT_EQ(xkRegCreateKeyEx("HKEY_LOCAL_MACHINE", path.c_str(), 0, nullptr, 0, 0, nullptr, &key, nullptr), 0);
  if (!name.empty()) {
    ASSERT_EQ(xkRegSetValueEx(key, name.c_str(), 0, type, static_cast<const unsigned char*>(data), size), 0);
  }
  xkRegCloseKey(key);
}

inline void Dword(const std::string& store, const std::string& name, unsigned int value) {
  Write(store, name, REG_DWORD, &value, sizeof value);
}

inline void Text(const std::string& store, const std::string& name, const std::string& value) {
  Write(store, name, REG_SZ, value.c_str(), static_cast<unsigned int>(value.size() + 1));
}

}  // namespace cattest

#endif
