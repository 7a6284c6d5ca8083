// Several processes on one registry file: concurrent writers, and a writer
// killed while it writes.

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <algorithm>
#include <string>
#include <vector>

#include "registry_support.h"

namespace {

using namespace regtest;

// PRAGMA integrity_check of the file, on a connection of its own.
std::string IntegrityCheck(const std::string& file) {
  sqlite3* db = nullptr;
  std::string result = "cannot open";
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &stmt, nullptr) == SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    result = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return result;
}

using RegistryProcessTest = RegistryTest;

// The bytes a killed writer stores under index `i`: recognisable throughout.
std::vector<unsigned char> Pattern(std::uint32_t i, std::size_t size) {
  std::vector<unsigned char> bytes(size);
  for (std::size_t k = 0; k < size; ++k) bytes[k] = static_cast<unsigned char>((i * 131 + k * 7 + k / 4096) & 0xFF);
  return bytes;
}

TEST_F(RegistryProcessTest, TwoProcessesWriteOneKeyAtOnce) {
  constexpr int kValues = 150;
  HKEY key = Create("Shared\\Key");
  int ready[2];
  int go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  pid_t children[2];
  for (int c = 0; c < 2; ++c) {
    children[c] = fork();
    ASSERT_GE(children[c], 0);
    if (children[c] == 0) {
      // Both children start writing when the parent has seen both ready.
      char byte = 'r';
      if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 1) _exit(2);
      for (int i = 0; i < kValues; ++i) {
        std::string name = "c" + std::to_string(c) + "_" + std::to_string(i);
        std::string shared = "child " + std::to_string(c) + " step " + std::to_string(i);
        if (Set(key, name.c_str(), name) != ERROR_SUCCESS || Set(key, "shared", shared) != ERROR_SUCCESS) _exit(1);
      }
      _exit(0);
    }
  }
  char byte;
  for (int c = 0; c < 2; ++c) ASSERT_EQ(read(ready[0], &byte, 1), 1);
  ASSERT_EQ(write(go[1], "gg", 2), 2);
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer failed, status " << status;
  }
  for (int fd : {ready[0], ready[1], go[0], go[1]}) close(fd);

  EXPECT_EQ(ValueNames("Shared\\Key").size(), 2u * kValues + 1);
  for (int c = 0; c < 2; ++c) {
    for (int i = 0; i < kValues; ++i) {
      std::string name = "c" + std::to_string(c) + "_" + std::to_string(i);
      ASSERT_EQ(Read(nullptr, name.c_str(), key), name);
    }
  }
  std::string last = Read(nullptr, "shared", key);
  EXPECT_TRUE(last == "child 0 step 149" || last == "child 1 step 149") << last;
  EXPECT_EQ(IntegrityCheck(m_Sandbox.RegistryPath()), "ok");
  xkRegCloseKey(key);
}

TEST_F(RegistryProcessTest, KilledWriterLeavesEveryCommittedValueWhole) {
  constexpr std::size_t kSize = 256 * 1024;
  constexpr std::uint32_t kKillAfter = 12;
  HKEY key = Create("Crash");
  int committed[2];
  ASSERT_EQ(pipe(committed), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(committed[0]);
    for (std::uint32_t i = 0;; ++i) {
      std::vector<unsigned char> bytes = Pattern(i, kSize);
      std::string name = "v" + std::to_string(i % 40);
      if (xkRegSetValueEx(key, name.c_str(), 0, REG_BINARY, bytes.data(), kSize) != ERROR_SUCCESS) _exit(1);
      if (write(committed[1], &i, sizeof i) != sizeof i) _exit(2);
    }
  }
  close(committed[1]);
  // Each reported index is a committed write.
  std::vector<std::uint32_t> reported;
  std::uint32_t index;
  while (read(committed[0], &index, sizeof index) == sizeof index) {
    reported.push_back(index);
    if (reported.size() == kKillAfter) {
      ASSERT_EQ(kill(child, SIGKILL), 0);
    }
  }
  close(committed[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
  ASSERT_GE(reported.size(), kKillAfter);

  // The writer went 0, 1, 2, ... in order, so each value name must hold its
  // newest reported write, or the write after the last report (committed
  // before the kill but not reported).
  std::uint32_t newest = reported.back();
  std::vector<unsigned char> back(kSize);
  for (std::uint32_t slot = 0; slot < 40 && slot <= newest; ++slot) {
    std::uint32_t expected = newest - (newest - slot) % 40;
    std::string name = "v" + std::to_string(slot);
    unsigned int size = kSize;
    ASSERT_EQ(qxRegReadValueEx(kHklm, "Crash", name.c_str(), nullptr, back.data(), &size, 0), ERROR_SUCCESS);
    ASSERT_EQ(size, kSize);
    bool whole = back == Pattern(expected, kSize) || ((newest + 1) % 40 == slot && back == Pattern(newest + 1, kSize));
    EXPECT_TRUE(whole) << name << " does not hold write " << expected;
  }
  const std::size_t count = ValueNames("Crash").size();
  EXPECT_GE(count, std::min<std::size_t>(reported.size(), 40));
  EXPECT_LE(count, std::min<std::size_t>(reported.size() + 1, 40));
  EXPECT_EQ(IntegrityCheck(m_Sandbox.RegistryPath()), "ok");
  xkRegCloseKey(key);
}

}  // namespace
