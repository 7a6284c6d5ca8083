// Batches: several calls of one thread as one transaction of the registry file.
// A second SQLite connection on the same file stands for another process: it
// sees only what has been committed.

#include <sqlite3.h>

#include <string>

#include "registry_support.h"

namespace {

using namespace regtest;

class RegistryBatchTest : public RegistryTest {
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

  // The value as the other connection sees it ("-" when absent).
  std::string Committed(const char* name, const char* path = "B") {
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(m_Other,
                                 "SELECT v.data FROM vals v JOIN keys k ON k.id = v.key"
                                 " WHERE k.path = 'HKEY_LOCAL_MACHINE\\' || ?1 AND v.name = ?2",
                                 -1, &stmt, nullptr),
              SQLITE_OK);
    sqlite3_bind_text(stmt, 1, path, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt, 2, name, -1, SQLITE_STATIC);
    std::string text = "-";
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      text.assign(static_cast<const char*>(sqlite3_column_blob(stmt, 0)), sqlite3_column_bytes(stmt, 0));
    }
    sqlite3_finalize(stmt);
    return text;
  }
  void OtherWrites(const char* name, const std::string& text) {
    const std::string sql = "INSERT INTO vals(key, name, type, data, mtime) SELECT id, '" + std::string(name) +
                            "', 1, CAST('" + text + "' AS BLOB), 0 FROM keys WHERE path = 'HKEY_LOCAL_MACHINE\\B'"
                            " ON CONFLICT(key, name) DO UPDATE SET data = excluded.data";
    ASSERT_EQ(sqlite3_exec(m_Other, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  }

  HKEY m_Key = nullptr;
  sqlite3* m_Other = nullptr;
};

TEST_F(RegistryBatchTest, WritesCommitTogetherAtTheOutermostEndOrAreLostWithAFailedCommit) {
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

TEST_F(RegistryBatchTest, AFailedBeginLeavesEachCallItsOwnTransactionAndUnmatchedEndsAreRefused) {
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

TEST_F(RegistryBatchTest, AReadBatchSeesOneStateOfTheFile) {
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

TEST_F(RegistryBatchTest, ReadsInABatchFollowItsOwnWrites) {
  xk::registry::Batch batch(XK_REG_BATCH_WRITE);
  ASSERT_EQ(batch.BeginStatus(), ERROR_SUCCESS);
  ASSERT_EQ(Set(m_Key, "v", "1"), ERROR_SUCCESS);
  EXPECT_EQ(Read("B", "v"), "1");
  ASSERT_EQ(Set(m_Key, "v", "2"), ERROR_SUCCESS);
  EXPECT_EQ(Read("B", "v"), "2");
  EXPECT_EQ(ValueNames("B").size(), 1u);
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

}  // namespace
