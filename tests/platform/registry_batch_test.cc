// Batches: several calls of one thread as one transaction of the registry file.
// A second SQLite connection on the same file stands for another process: it
// sees only what has been committed.

#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "gtest/gtest.h"
#include "xk/fault_point.h"
#include "xk/registry.h"

namespace {

constexpr const char* kHklm = "HKEY_LOCAL_MACHINE";

class RegistryBatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/xkreg-batch-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    m_Dir = pattern;
    m_File = m_Dir + "/registry.db";
    ASSERT_EQ(xkRegSetDatabasePath(m_File.c_str()), ERROR_SUCCESS);
    ASSERT_EQ(xkRegCreateKeyEx(kHklm, "B", 0, nullptr, 0, 3, nullptr, &m_Key, nullptr), ERROR_SUCCESS);
    ASSERT_EQ(sqlite3_open_v2(m_File.c_str(), &m_Other, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    sqlite3_busy_timeout(m_Other, 5000);
  }
  void TearDown() override {
    xk::fault::Reset();
    sqlite3_close(m_Other);
    xkRegCloseKey(m_Key);
    xkRegSetDatabasePath(nullptr);
    std::filesystem::remove_all(m_Dir);
  }

  long Set(const char* name, const std::string& text, HKEY key = nullptr) {
    return xkRegSetValueEx(key != nullptr ? key : m_Key, name, 0, REG_SZ,
                           reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()));
  }
  // The value as this process reads it ("-" when absent).
  std::string Read(const char* name, const char* path = "B") {
    char buffer[64] = {};
    unsigned int size = sizeof buffer;
    if (qxRegReadStringValueEx(kHklm, path, name, buffer, &size, 0) != ERROR_SUCCESS) return "-";
    return buffer;
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

  std::string m_Dir;
  std::string m_File;
  HKEY m_Key = nullptr;
  sqlite3* m_Other = nullptr;
};

TEST_F(RegistryBatchTest, WritesCommitTogetherAtTheOutermostEndOrAreLostWithAFailedCommit) {
  ASSERT_EQ(xkRegBeginBatch(XK_REG_BATCH_WRITE), ERROR_SUCCESS);
  HKEY created = nullptr;
  unsigned int disposition = 0;
  // A key made inside the batch is a savepoint of its transaction.
  ASSERT_EQ(xkRegCreateKeyEx(kHklm, "B\\N", 0, nullptr, 0, 3, nullptr, &created, &disposition), ERROR_SUCCESS);
  EXPECT_EQ(disposition, static_cast<unsigned int>(REG_CREATED_NEW_KEY));
  EXPECT_EQ(Set("a", "1", created), ERROR_SUCCESS);
  ASSERT_EQ(xkRegBeginBatch(XK_REG_BATCH_READ), ERROR_SUCCESS);
  EXPECT_EQ(Set("b", "2"), ERROR_SUCCESS);
  // A failed call leaves the batch's other writes alone.
  EXPECT_EQ(xkRegCreateKeyEx(kHklm, "B\\\\bad", 0, nullptr, 0, 3, nullptr, &created, nullptr), ERROR_BAD_PATHNAME);
  EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  EXPECT_EQ(Read("a", "B\\N") + Read("b"), "12");
  EXPECT_EQ(Committed("a", "B\\N") + Committed("b"), "--");
  EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  EXPECT_EQ(Committed("a", "B\\N") + Committed("b"), "12");
  EXPECT_EQ(xkRegCloseKey(created), ERROR_SUCCESS);

  // A failed commit rolls back; the batch's later calls commit one by one.
  xk::fault::Arm("xkRegCommitBatch", 1, {xk::fault::Kind::kCode, ERROR_REGISTRY_IO_FAILED}, false);
  ASSERT_EQ(xkRegBeginBatch(XK_REG_BATCH_WRITE), ERROR_SUCCESS);
  EXPECT_EQ(Set("c", "3"), ERROR_SUCCESS);
  EXPECT_EQ(xkRegCommitBatch(), ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Set("d", "4"), ERROR_SUCCESS);
  EXPECT_EQ(Committed("d"), "4");
  EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  EXPECT_EQ(Read("c") + Committed("c"), "--");
  xk::fault::Reset();

  // Switching files inside a batch loses its transaction, and its end says so.
  ASSERT_EQ(xkRegBeginBatch(XK_REG_BATCH_WRITE), ERROR_SUCCESS);
  EXPECT_EQ(Set("e", "5"), ERROR_SUCCESS);
  ASSERT_EQ(xkRegSetDatabasePath(m_File.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(xkRegEndBatch(), ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Read("e"), "-");
}

TEST_F(RegistryBatchTest, AFailedBeginLeavesEachCallItsOwnTransactionAndUnmatchedEndsAreRefused) {
  EXPECT_EQ(xkRegEndBatch(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(xkRegCommitBatch(), ERROR_INVALID_PARAMETER);

  xk::fault::Arm("xkRegBeginBatch", 1, {xk::fault::Kind::kCode, ERROR_REGISTRY_IO_FAILED}, false);
  EXPECT_EQ(xkRegBeginBatch(XK_REG_BATCH_WRITE), ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Set("a", "1"), ERROR_SUCCESS);
  EXPECT_EQ(Committed("a"), "1");
  EXPECT_EQ(xkRegCommitBatch(), ERROR_SUCCESS);
  EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  xk::fault::Reset();

  EXPECT_EQ(xkRegBeginBatch(7), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(Set("b", "2"), ERROR_SUCCESS);
  EXPECT_EQ(Committed("b"), "2");
  EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  EXPECT_EQ(xkRegEndBatch(), ERROR_INVALID_PARAMETER);
}

TEST_F(RegistryBatchTest, AReadBatchSeesOneStateOfTheFile) {
  ASSERT_EQ(Set("v", "1"), ERROR_SUCCESS);
  {
    xk::registry::Batch batch(XK_REG_BATCH_READ);
    ASSERT_EQ(batch.BeginStatus(), ERROR_SUCCESS);
    EXPECT_EQ(Read("v"), "1");
    OtherWrites("v", "2");
    OtherWrites("w", "3");
    unsigned int count = 0;
    EXPECT_EQ(qxRegListValueNamesEx(kHklm, "B", nullptr, &count, 0xFFFFFFFF, 0), ERROR_SUCCESS);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(Read("v") + Read("w"), "1-");
    // Writing on top of a state another process has moved past fails.
    EXPECT_EQ(Set("x", "4"), ERROR_REGISTRY_IO_FAILED);
  }
  EXPECT_EQ(Read("v") + Read("w") + Read("x"), "23-");
}

TEST_F(RegistryBatchTest, ReadsInABatchFollowItsOwnWrites) {
  xk::registry::Batch batch(XK_REG_BATCH_WRITE);
  ASSERT_EQ(batch.BeginStatus(), ERROR_SUCCESS);
  ASSERT_EQ(Set("v", "1"), ERROR_SUCCESS);
  EXPECT_EQ(Read("v"), "1");
  ASSERT_EQ(Set("v", "2"), ERROR_SUCCESS);
  EXPECT_EQ(Read("v"), "2");
  unsigned int count = 0;
  EXPECT_EQ(qxRegListValueNamesEx(kHklm, "B", nullptr, &count, 0xFFFFFFFF, 0), ERROR_SUCCESS);
  EXPECT_EQ(count, 1u);
  ASSERT_EQ(Set("w", "3"), ERROR_SUCCESS);
  EXPECT_EQ(qxRegListValueNamesEx(kHklm, "B", nullptr, &count, 0xFFFFFFFF, 0), ERROR_SUCCESS);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(qxRegDeleteValue(kHklm, "B", "v", 0), ERROR_SUCCESS);
  EXPECT_EQ(Read("v"), "-");

  // A key deleted and made again in the batch is the new key.
  HKEY key = nullptr;
  ASSERT_EQ(xkRegCreateKeyEx(kHklm, "B\\K", 0, nullptr, 0, 3, nullptr, &key, nullptr), ERROR_SUCCESS);
  HKEY opened = nullptr;  // the batch now knows the key's id
  ASSERT_EQ(xkRegOpenKeyEx(kHklm, "B\\K", 0, 0, &opened), ERROR_SUCCESS);
  ASSERT_EQ(Set("k", "old", key), ERROR_SUCCESS);
  EXPECT_EQ(Read("k", "B\\K"), "old");
  ASSERT_EQ(qxRegDeleteSubKey(kHklm, "B\\K", 0, 0), ERROR_SUCCESS);
  EXPECT_EQ(Read("k", "B\\K"), "-");
  EXPECT_EQ(Set("k", "lost", key), ERROR_KEY_DELETED);
  HKEY again = nullptr;
  ASSERT_EQ(xkRegCreateKeyEx(kHklm, "B\\K", 0, nullptr, 0, 3, nullptr, &again, nullptr), ERROR_SUCCESS);
  EXPECT_EQ(Set("k", "new", again), ERROR_SUCCESS);
  EXPECT_EQ(Read("k", "B\\K"), "new");
  EXPECT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_EQ(Committed("k", "B\\K") + Committed("w") + Committed("v"), "new3-");
  xkRegCloseKey(key);
  xkRegCloseKey(opened);
  xkRegCloseKey(again);
}

}  // namespace
