#ifndef MERROWSTORE_DATASTORETYPE_H
#define MERROWSTORE_DATASTORETYPE_H

namespace QX {
namespace DataStore {

// The kind of a data store, a 32-bit value. The underlying type is fixed so
// that any number a caller passes (the catalogue yields only 0 and 1, a direct
// registration may pass more) is a valid value of the enumeration.
enum Type : int {
  // Values live in a memory tree and are lost when the process ends.
  TypeMemory = 0,
  // Values live in a registry tree, under persistent registry keys.
  TypeRemanent = 1,
};

}  // namespace DataStore
}  // namespace QX

#endif
