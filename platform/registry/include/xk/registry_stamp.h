#ifndef XK_REGISTRY_STAMP_H
#define XK_REGISTRY_STAMP_H

// Change detection, for readers that keep what they read from the registry.
//
// Each database file has a change counter, shared by every process that works
// on the file. Every write made through the registry service, by any process,
// moves the counter before the write and again once it is committed (a batch
// moves it around its commit). So a reader that loads the counter BEFORE it
// reads the registry may keep what it read for as long as the counter still
// holds the value it loaded: no write has been committed since. A reader that
// loads the counter after reading could keep a value that a racing write had
// already replaced.
//
// The process may switch to another database file at any moment
// (xkRegSetDatabasePath, a fork), also while a reader reads. So a reader takes
// a ChangeView before it reads, and keeps what it read only if SameFileSince
// says, after the read, that the file stayed open all along.
//
// Writes that bypass the registry service (another SQLite client on the file)
// move nothing. docs/platform.md gives the rest: the stamp file, its
// permissions, and the window a writer killed during its commit leaves.

#include <atomic>
#include <cstdint>

#include "xk/export.h"

namespace xk {
namespace registry {

// The database file this process works on, as seen before a read.
struct ChangeView {
  // The file's change counter, or nullptr when there is none to rely on: the
  // file is not open yet (it opens at the first registry call, and again after
  // xkRegSetDatabasePath or a fork), its stamp file could not be made or
  // mapped for writing, or the calling thread is in a batch (whose reads see
  // its own uncommitted writes and an older state of the file). A counter
  // stays valid for the life of the process, and no other database file ever
  // has the same address, so the address also tells which file a kept value
  // came from.
  const std::atomic<std::uint64_t>* counter = nullptr;
  // How many times the process had closed a database file.
  std::uint64_t closes = 0;
};

// The view now. Lock-free.
XK_EXPORT ChangeView CurrentChangeView() noexcept;
// Whether no database file has been closed since `view` was taken, so that
// the registry calls made in between all went to the file of view.counter.
// Lock-free.
XK_EXPORT bool SameFileSince(const ChangeView& view) noexcept;

}  // namespace registry
}  // namespace xk

#endif
