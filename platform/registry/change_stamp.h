#ifndef XK_REGISTRY_CHANGE_STAMP_H
#define XK_REGISTRY_CHANGE_STAMP_H

#include <atomic>
#include <cstdint>
#include <string>

namespace xk {
namespace registry {

// The change counter of a database file: 8 bytes at the start of the file
// "<database>-stamp" beside it, mapped shared, so that every process working
// on the database moves and reads the same counter (xk/registry_stamp.h).
using ChangeCounter = std::atomic<std::uint64_t>;

static_assert(ChangeCounter::is_always_lock_free, "the counter is shared between processes");

// The counter of the database file at `databasePath` (which exists), or
// nullptr when its stamp file cannot be created, opened for writing or mapped.
// A missing stamp file is made with the mode of the database file (and its
// group, where allowed), whatever the umask. A file that is mapped already (the
// same inode) is not mapped again, and no mapping is ever removed: a counter's
// address stays valid, and stays the counter of one file, for the life of the
// process. Not synchronised: the registry service calls it under its lock.
ChangeCounter* MapChangeCounter(const std::string& databasePath);

}  // namespace registry
}  // namespace xk

#endif
