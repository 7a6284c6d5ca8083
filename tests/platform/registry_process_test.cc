// The registry file as other processes see it: a batch's writes reach the
// file together at the batch's outermost end, writers in two processes lose
// nothing (also in batches that read before they write), and a writer killed
// while it writes leaves every committed value whole. A second SQLite
// connection on the file stands for another process where that process would
// only read or write a row.

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "../support/registry_support.h"

namespace {

using namespace regtest;

class RegistryProcessTest : public RegistryTest {
 protected:
  void SetUp() override {
    m_Key = Create("B");
    ASSERT_EQ(sqlite3_open_v2(m_Sandbox.RegistryPath().c_str(), &m_Other, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    sqlite3_busy_timeout(m_Other, 5000);
  }
  void TearDown() override {
    sqlite3_close(m_Other);
    xkRegCloseKey(m_Key);
  }

  // Runs `sql` on the other connection with ?1 and ?2 bound to `a` and `b`:
  // the first column of its first row, "-" when there is none.
  std::string OnOther(const char* sql, const char* a = "", const char* b = "") {
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(m_Other, sql, -1, &stmt, nullptr), SQLITE_OK) << sql;
    sqlite3_bind_text(stmt, 1, a, -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 2, b, -1, SQLITE_TRANSIENT);
    const int step = sqlite3_step(stmt);
    EXPECT_TRUE(step == SQLITE_ROW || step == SQLITE_DONE) << sqlite3_errmsg(m_Other);
    std::string text = "-";
    if (step == SQLITE_ROW) {
      text.assign(static_cast<const char*>(sqlite3_column_blob(stmt, 0)), sqlite3_column_bytes(stmt, 0));
    }
    sqlite3_finalize(stmt);
    return text;
  }
  // The value as the other connection sees it.
  std::string Committed(const char* name, const char* path = "B") {
    return OnOther("SELECT v.data FROM vals v JOIN keys k ON k.id = v.key"
                   " WHERE k.path = 'HKEY_LOCAL_MACHINE\\' || ?1 AND v.name = ?2", path, name);
  }
  void OtherWrites(const char* name, const char* text) {
    OnOther("INSERT INTO vals(key, name, type, data, mtime) SELECT id, ?1, 1, CAST(?2 AS BLOB), 0 FROM keys"
            " WHERE path = 'HKEY_LOCAL_MACHINE\\B' ON CONFLICT(key, name) DO UPDATE SET data = excluded.data",
            name, text);
  }
  HKEY m_Key = nullptr;
  sqlite3* m_Other = nullptr;
};

TEST_F(RegistryProcessTest, BatchWritesCommitTogetherAtTheOutermostEndOrAreLostWithAFailedCommit) {
  ASSERT_EQ(xkRegBeginBatch(XK_REG_BATCH_WRITE), ERROR_SUCCESS);
  // A key made inside the batch is a savepoint of its transaction.
  unsigned int disposition = 0;
  HKEY created = Create("B\\N", &disposition);
  EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
  EXPECT_EQ(Set(created, "a", "1"), ERROR_SUCCESS);
  ASSERT_EQ(xkRegBeginBatch(XK_REG_BATCH_READ), ERROR_SUCCESS);
  EXPECT_EQ(Set(m_Key, "b", "2"), ERROR_SUCCESS);
  // A failed call leaves the batch's other writes alone.
  HKEY bad = nullptr;
  EXPECT_EQ(xkRegCreateKeyEx(kHklm, "B\\\\bad", 0, nullptr, 0, 3, nullptr, &bad, nullptr), ERROR_BAD_PATHNAME);
  EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  EXPECT_EQ(Read("B\\N", "a") + Read("B", "b"), "12");
  EXPECT_EQ(Committed("a", "B\\N") + Committed("b"), "--");
  EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  EXPECT_EQ(Committed("a", "B\\N") + Committed("b"), "12");
  EXPECT_EQ(xkRegCloseKey(created), ERROR_SUCCESS);

  // A failed commit rolls back; the batch's later calls commit one by one.
  m_Faults.FailWithCode("xkRegCommitBatch", ERROR_REGISTRY_IO_FAILED);
  ASSERT_EQ(xkRegBeginBatch(XK_REG_BATCH_WRITE), ERROR_SUCCESS);
  EXPECT_EQ(Set(m_Key, "c", "3"), ERROR_SUCCESS);
  EXPECT_EQ(xkRegCommitBatch(), ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Set(m_Key, "d", "4"), ERROR_SUCCESS);
  EXPECT_EQ(Committed("d"), "4");
  EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  EXPECT_EQ(Read("B", "c") + Committed("c"), "--");

  // Switching files inside a batch loses its transaction, and its end says so.
  ASSERT_EQ(xkRegBeginBatch(XK_REG_BATCH_WRITE), ERROR_SUCCESS);
  EXPECT_EQ(Set(m_Key, "e", "5"), ERROR_SUCCESS);
  ASSERT_EQ(xkRegSetDatabasePath(m_Sandbox.RegistryPath().c_str()), ERROR_SUCCESS);
  EXPECT_EQ(xkRegEndBatch(), ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Read("B", "e"), "-");
}

TEST_F(RegistryProcessTest, AFailedBeginLeavesEachCallItsOwnTransactionAndUnmatchedEndsAreRefused) {
  EXPECT_EQ(xkRegEndBatch(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(xkRegCommitBatch(), ERROR_INVALID_PARAMETER);
  m_Faults.FailWithCode("xkRegBeginBatch", ERROR_REGISTRY_IO_FAILED);
  for (unsigned int flags : {XK_REG_BATCH_WRITE, 7u}) {  // an injected fault, unknown flags
    EXPECT_NE(xkRegBeginBatch(flags), ERROR_SUCCESS) << flags;
    EXPECT_EQ(Set(m_Key, "a", std::to_string(flags)), ERROR_SUCCESS);
    EXPECT_EQ(Committed("a"), std::to_string(flags));
    EXPECT_EQ(xkRegCommitBatch(), ERROR_SUCCESS);
    EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  }
  EXPECT_EQ(xkRegEndBatch(), ERROR_INVALID_PARAMETER);
}

TEST_F(RegistryProcessTest, AReadBatchSeesOneStateOfTheFile) {
  ASSERT_EQ(Set(m_Key, "v", "1"), ERROR_SUCCESS);
  {
    xk::registry::Batch batch(XK_REG_BATCH_READ);
    ASSERT_EQ(batch.BeginStatus(), ERROR_SUCCESS);
    EXPECT_EQ(Read("B", "v"), "1");
    OtherWrites("v", "2");
    OtherWrites("w", "3");
    EXPECT_EQ(ValueNames("B").size(), 1u);
    EXPECT_EQ(Read("B", "v") + Read("B", "w"), "1-");
    // Writing on top of a state another process has moved past fails.
    EXPECT_EQ(Set(m_Key, "x", "4"), ERROR_REGISTRY_IO_FAILED);
  }
  EXPECT_EQ(Read("B", "v") + Read("B", "w") + Read("B", "x"), "23-");
}

TEST_F(RegistryProcessTest, ReadsInABatchFollowItsOwnWrites) {
  xk::registry::Batch batch(XK_REG_BATCH_WRITE);
  ASSERT_EQ(batch.BeginStatus(), ERROR_SUCCESS);
  ASSERT_EQ(Set(m_Key, "v", "1"), ERROR_SUCCESS);  // values read back: the batch test
  ASSERT_EQ(Set(m_Key, "w", "3"), ERROR_SUCCESS);
  EXPECT_EQ(ValueNames("B").size(), 2u);
  EXPECT_EQ(qxRegDeleteValue(kHklm, "B", "v", 0), ERROR_SUCCESS);
  EXPECT_EQ(Read("B", "v"), "-");

  // A key deleted and made again in the batch is the new key.
  HKEY key = Create("B\\K");
  HKEY opened = nullptr;  // the batch now knows the key's id
  ASSERT_EQ(xkRegOpenKeyEx(kHklm, "B\\K", 0, 0, &opened), ERROR_SUCCESS);
  ASSERT_EQ(Set(key, "k", "old"), ERROR_SUCCESS);
  EXPECT_EQ(Read("B\\K", "k"), "old");
  ASSERT_EQ(qxRegDeleteSubKey(kHklm, "B\\K", 0, 0), ERROR_SUCCESS);
  EXPECT_EQ(Read("B\\K", "k"), "-");
  EXPECT_EQ(Set(key, "k", "lost"), ERROR_KEY_DELETED);
  HKEY again = Create("B\\K");
  EXPECT_EQ(Set(again, "k", "new"), ERROR_SUCCESS);
  EXPECT_EQ(Read("B\\K", "k"), "new");
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Committed("k", "B\\K") + Committed("w") + Committed("v"), "new3-");
  for (HKEY each : {key, opened, again}) xkRegCloseKey(each);
}

TEST_F(RegistryProcessTest, TwoProcessesWriteOneKeyAtOnce) {
  constexpr int kValues = 150;
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  pid_t children[2];
  for (int c = 0; c < 2; ++c) {
    children[c] = fork();
    ASSERT_GE(children[c], 0);
    if (children[c] == 0) {  // both start writing when the parent says so
      char byte;
      if (read(go[0], &byte, 1) != 1) _exit(2);
      for (int i = 0; i < kValues; ++i) {
        const std::string name = "c" + std::to_string(c) + "_" + std::to_string(i);
        xk::registry::Batch batch(XK_REG_BATCH_WRITE);  // reads, then writes on what it read
        Read("B", "shared");
        if (Set(m_Key, name.c_str(), name) != ERROR_SUCCESS || Set(m_Key, "shared", name) != ERROR_SUCCESS ||
            batch.Commit() != ERROR_SUCCESS)
          _exit(1);
      }
      _exit(0);
    }
  }
  ASSERT_EQ(write(go[1], "gg", 2), 2);
  for (pid_t child : children) {
    int status = -1;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  close(go[0]);
  close(go[1]);
  EXPECT_EQ(ValueNames("B").size(), 2u * kValues + 1);
  for (int c = 0; c < 2; ++c) {
    for (int i = 0; i < kValues; ++i) {
      const std::string name = "c" + std::to_string(c) + "_" + std::to_string(i);
      ASSERT_EQ(Read("B", name.c_str()), name);
    }
  }
  const std::string last = Read("B", "shared");
  EXPECT_TRUE(last == "c0_149" || last == "c1_149") << last;
  EXPECT_EQ(OnOther("PRAGMA integrity_check"), "ok");
}

// The bytes a killed writer stores under index `i`: recognisable throughout.
std::vector<unsigned char> Pattern(std::uint32_t i, std::size_t size) {
  std::vector<unsigned char> bytes(size);
  for (std::size_t k = 0; k < size; ++k) bytes[k] = static_cast<unsigned char>((i * 131 + k * 7 + k / 4096) & 0xFF);
  return bytes;
}

TEST_F(RegistryProcessTest, KilledWriterLeavesEveryCommittedValueWhole) {
  constexpr std::size_t kSize = 256 * 1024;
  int committed[2];
  ASSERT_EQ(pipe(committed), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {  // writes v0 ... v39 round and round, reporting each index once committed
    close(committed[0]);
    for (std::uint32_t i = 0;; ++i) {
      const std::vector<unsigned char> bytes = Pattern(i, kSize);
      if (xkRegSetValueEx(m_Key, ("v" + std::to_string(i % 40)).c_str(), 0, REG_BINARY, bytes.data(), kSize) !=
              ERROR_SUCCESS ||
          write(committed[1], &i, sizeof i) != sizeof i)
        _exit(1);
    }
  }
  close(committed[1]);
  std::uint32_t newest = 0, reports = 0;
  for (std::uint32_t index; read(committed[0], &index, sizeof index) == sizeof index; newest = index) {
    if (++reports == 12) kill(child, SIGKILL);
  }
  close(committed[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL && reports >= 12) << "status " << status;
  // Each value name holds its newest reported write, or the write after the
  // last report (committed before the kill but not reported).
  std::vector<unsigned char> back(kSize);
  for (std::uint32_t slot = 0; slot < 40 && slot <= newest; ++slot) {
    unsigned int size = kSize;
    ASSERT_EQ(qxRegReadValueEx(kHklm, "B", ("v" + std::to_string(slot)).c_str(), nullptr, back.data(), &size, 0),
              ERROR_SUCCESS);
    EXPECT_TRUE(size == kSize && (back == Pattern(newest - (newest - slot) % 40, kSize) ||
                                  ((newest + 1) % 40 == slot && back == Pattern(newest + 1, kSize))))
        << "v" << slot;
  }
  const std::size_t count = ValueNames("B").size();
  EXPECT_TRUE(count >= std::min<std::size_t>(reports, 40) && count <= std::min<std::size_t>(reports + 1, 40)) << count;
  EXPECT_EQ(OnOther("PRAGMA integrity_check"), "ok");
}

}  // namespace
