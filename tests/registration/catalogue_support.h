#ifndef MERROWSTORE_TESTS_REGISTRATION_CATALOGUE_SUPPORT_H
#define MERROWSTORE_TESTS_REGISTRATION_CATALOGUE_SUPPORT_H

// Writes store catalogue entries into the registry of the current sandbox.

#include "registry_support.h"

namespace cattest {

const std::string kStoreList = "Software\\Norvane Co\\Merrowstore\\StoreList";

// The catalogue key, or its sub-key `store`.
inline std::string Path(const std::string& store) { return store.empty() ? kStoreList : kStoreList + "\\" + store; }

// Creates the key of `store` without values.
inline void Write(const std::string& store) { xkRegCloseKey(regtest::Create(Path(store).c_str())); }

inline void Dword(const std::string& store, const std::string& name, unsigned int value) {
  regtest::PutDword(Path(store).c_str(), name.c_str(), value);
}

// A REG_SZ value with its terminating NUL.
inline void Text(const std::string& store, const std::string& name, const std::string& value) {
  regtest::Put(Path(store).c_str(), name.c_str(), std::string(value.c_str(), value.size() + 1));
}

}  // namespace cattest

#endif
