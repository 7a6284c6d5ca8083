#ifndef MSTORE_SHELL_SESSION_H
#define MSTORE_SHELL_SESSION_H

#include <ostream>

#include "captured_log.h"
#include "merrowstore/StaticAuthCacheClient.h"
#include "merrowstore/StaticDataCacheClient.h"

namespace mstore {

// What the shell's commands share while one mstore process runs: the data
// client and the PIN client (whose stores live as long as the process), where
// results go, the log capture, and whether "quit" was given.
struct Session {
  explicit Session(std::ostream& output) : out(output) {}

  QX::DataStore::CStaticDataCacheClient client;
  QX::AuthStore::CStaticAuthCacheClient pins;
  std::ostream& out;
  CapturedLog log;
  bool quit = false;
};

}  // namespace mstore

#endif
