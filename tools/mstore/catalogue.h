#ifndef MSTORE_CATALOGUE_H
#define MSTORE_CATALOGUE_H

#include <optional>
#include <string>
#include <vector>

namespace mstore {

// The store catalogue: HKEY_LOCAL_MACHINE, this key, one sub-key a data store
// named by the store id. The library reads it once, while it loads.
extern const char* const kCatalogueHive;
extern const char* const kCataloguePath;
// The product of an entry that has no "Product" value.
extern const char* const kDefaultProduct;

// One value of an entry as the registry holds it.
struct StoredValue {
  bool present = false;
  unsigned int type = 0;
  std::vector<unsigned char> bytes;
};

// One catalogue entry: the four values the library reads, and the names of
// any other values, which it ignores (names match exactly, case included).
struct CatalogueEntry {
  std::string id;
  StoredValue type;
  StoredValue encrypted;
  StoredValue shared;
  StoredValue product;
  std::vector<std::string> ignored;
};

// Reads every entry, in the registry's order. Returns a registry status:
// ERROR_FILE_NOT_FOUND when the catalogue key does not exist.
long ReadCatalogue(std::vector<CatalogueEntry>& entries);

// The number the library reads from a DWORD value: nothing when the value is
// absent or not a DWORD of at least four bytes.
std::optional<unsigned int> DwordOf(const StoredValue& value);
// The text the library reads from a string value (up to its first NUL):
// nothing when the value is absent or not a string.
std::optional<std::string> TextOf(const StoredValue& value);
// A value that is there but that the library cannot read as it expects. The
// library stops reading the catalogue at the first such value.
bool Unreadable(const StoredValue& value, bool text);

// What the library makes of an entry, defaults applied: "Type" exactly 1 is
// remanent, else memory; "Encrypted" and "SharedBetweenUserSessions" are set
// only by exactly 1; a missing "Product" is kDefaultProduct.
struct EffectiveEntry {
  bool remanent;
  bool encrypted;
  bool shared;
  std::string product;
};
EffectiveEntry Effective(const CatalogueEntry& entry);

}  // namespace mstore

#endif
