// The registry service through its calls: keys and handles, deletion, listings,
// values, refused arguments, the database file and fault points. Then the
// registry file as other processes see it: a batch's writes reach the file
// together at the batch's outermost end, writers in two processes lose
// nothing (also in batches that read before they write), and a writer killed
// while it writes leaves every committed value whole. A second SQLite
// connection on the file stands for another process where that process would
// only read or write a row. Last, the settings kept in the registry.

#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "../support/registry_support.h"
#include "xk/settings.h"

namespace {

using namespace regtest;
using Names = std::vector<std::string>;

TEST_F(RegistryTest, CreateOpenAndHandlesThatOutliveTheirKey) {
  unsigned int disposition = 0;
  HKEY deep = Create("Software\\Vendor\\Product", &disposition);
  EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
  xkRegCloseKey(Create("Software\\Vendor", &disposition));
  EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
  // Relative to a handle, and the handle's own key with a NULL subkey.
  xkRegCloseKey(Create("x\\y", nullptr, deep));
  EXPECT_TRUE(Exists("Software\\Vendor\\Product\\x\\y"));
  HKEY same = nullptr;
  ASSERT_EQ(xkRegOpenKeyEx(deep, nullptr, 0, 0, &same), ERROR_SUCCESS);
  EXPECT_NE(same, deep);
  // An absent key: the out handle is left alone and errno says why.
  HKEY untouched = reinterpret_cast<HKEY>(0x1234);
  errno = 0;
  EXPECT_EQ(xkRegOpenKeyEx(kHklm, "Software\\Nobody", 0, 0, &untouched), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(untouched, reinterpret_cast<HKEY>(0x1234));
  for (HKEY key : {deep, same}) EXPECT_EQ(xkRegCloseKey(key), ERROR_SUCCESS);

  // A handle stands for the hive of the by-path calls; its key deleted by
  // one, it keeps its path and says so, and reaches the key made again.
  HKEY key = Create("H\\k");
  ASSERT_EQ(Set(key, "v", "1"), ERROR_SUCCESS);
  EXPECT_EQ(Read(nullptr, "v", key), "1");
  ASSERT_EQ(qxRegDeleteSubKey(kHklm, "H", 0, 0), ERROR_SUCCESS);
  EXPECT_EQ(Set(key, "v", ""), ERROR_KEY_DELETED);
  char name[16];
  unsigned int size = sizeof name;
  EXPECT_EQ(xkRegEnumKeyEx(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
  HKEY below = nullptr;
  EXPECT_EQ(xkRegCreateKeyEx(key, "sub", 0, nullptr, 0, 3, nullptr, &below, nullptr), ERROR_KEY_DELETED);
  EXPECT_FALSE(Exists("H\\k")) << "a deleted handle key is not brought back";
  xkRegCloseKey(Create("H\\k"));
  EXPECT_EQ(Set(key, "v", ""), ERROR_SUCCESS);
  EXPECT_EQ(xkRegCloseKey(key), ERROR_SUCCESS);
  for (HKEY dead : {key, HKEY{kHklm}, HKEY{}}) EXPECT_EQ(xkRegCloseKey(dead), ERROR_INVALID_HANDLE);
  EXPECT_EQ(Set(key, "v", ""), ERROR_INVALID_HANDLE);
  HKEY next = Create("H\\k");
  EXPECT_NE(next, key) << "a new handle never reuses a closed one's value";
  xkRegCloseKey(next);
}

TEST_F(RegistryTest, DeleteKeyRefusesSubkeysAndDeleteSubKeyTakesTheSubtreeOnly) {
  // Neighbours sharing the prefix "T\a" ('!' and ']' sort either side of '\') survive.
  for (const char* path : {"T\\a\\b\\c", "T\\a\\d", "T\\ab", "T\\a!", "T\\a]"}) Put(path, "v", path);
  EXPECT_EQ(qxRegDeleteKey(kHklm, "T\\a", 0, 0), ERROR_KEY_HAS_CHILDREN);
  EXPECT_EQ(qxRegDeleteKey(kHklm, "T\\a\\d", 0, 0), ERROR_SUCCESS);
  EXPECT_EQ(qxRegDeleteKey(kHklm, "T\\a\\d", 0, 0), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(qxRegDeleteSubKey(kHklm, "T\\a", 0, 0), ERROR_SUCCESS);
  EXPECT_FALSE(Exists("T\\a\\b\\c"));
  EXPECT_EQ(SubKeys("T"), (Names{"a!", "a]", "ab"}));
  EXPECT_EQ(Read("T\\a]", "v") + Read("T\\a!", "v"), "T\\a]T\\a!");
  EXPECT_EQ(qxRegDeleteSubKey(kHklm, "T\\a", 0, 0), ERROR_FILE_NOT_FOUND);
  // Values go with their key: a recreated key is empty. Hive roots stay.
  EXPECT_EQ(qxRegDeleteKey(kHklm, "T\\ab", 0, 0), ERROR_SUCCESS);
  xkRegCloseKey(Create("T\\ab"));
  EXPECT_TRUE(ValueNames("T\\ab").empty());
  EXPECT_EQ(qxRegDeleteKey(kHklm, nullptr, 0, 0), ERROR_ACCESS_DENIED);
  EXPECT_EQ(qxRegDeleteSubKey(kHklm, "", 0, 0), ERROR_ACCESS_DENIED);
}

TEST_F(RegistryTest, ListingsFollowByteOrderAndFillRecordsUpToTheCapacity) {
  const std::string longest(254, 'k');
  const Names sorted = {"B", "Z", "a", "a b", "ab", "abc", "b", longest, "\xC3\xA9"};
  for (const std::string& name : Names{"b", "\xC3\xA9", "abc", "Z", longest, "a b", "a", "B", "ab"})
    xkRegCloseKey(Create(("K\\" + name).c_str()));
  EXPECT_EQ(SubKeys("K"), sorted);
  // By index (in the order the registry tree's walk shows), with the time of
  // the last write; a buffer too small for "abc" and its NUL gets its size.
  HKEY key = Create("K");
  char name[255];
  unsigned int size = sizeof name;
  FILETIME written{};
  ASSERT_EQ(xkRegEnumKeyEx(key, 0, name, &size, nullptr, nullptr, nullptr, &written), ERROR_SUCCESS);
  EXPECT_NE(written.dwHighDateTime, 0u);
  size = 3;
  EXPECT_EQ(xkRegEnumKeyEx(key, 5, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
  EXPECT_EQ(size, 3u);
  // Room for two: two records written whole, the third untouched, the real count back.
  std::vector<qxRegKey_> keys(3);
  std::memset(keys.data(), 0xAA, keys.size() * sizeof(qxRegKey_));
  unsigned int count = 2;
  ASSERT_EQ(qxRegListKeysEx(kHklm, "K", keys.data(), &count, 0), ERROR_SUCCESS);
  EXPECT_EQ(count, sorted.size());
  EXPECT_EQ(std::string(keys[1].szName, sizeof keys[1].szName), "Z" + std::string(254, '\0'));
  EXPECT_EQ(static_cast<unsigned char>(keys[2].szName[0]), 0xAA);

  // Values: byte order, selection by type, names of up to 255 bytes, sizes.
  const std::string longValue(255, 'v');
  for (const char* value : {"x", "X", "", "_"}) Set(key, value, "1");
  ASSERT_EQ(Set(key, longValue.c_str(), "abc", REG_BINARY), ERROR_SUCCESS);
  ASSERT_EQ(Set(key, "n", std::string("\1\0\0\0", 4), REG_DWORD), ERROR_SUCCESS);
  EXPECT_EQ(ValueNames("K"), (Names{"", "X", "_", "n", longValue, "x"}));
  std::vector<qxRegValue_> values(2);
  count = 2;
  ASSERT_EQ(qxRegListValueNamesEx(kHklm, "K", values.data(), &count, (1u << REG_BINARY) | (1u << REG_DWORD), 0),
            ERROR_SUCCESS);
  const auto record = [](const qxRegValue_& r) {
    return std::string(r.szName) + "/" + std::to_string(r.dwType) + "/" + std::to_string(r.cbData);
  };
  EXPECT_EQ(Names({std::to_string(count), record(values[0]), record(values[1])}),
            Names({"2", "n/4/4", longValue + "/3/3"}));
  xkRegCloseKey(key);
}

// (Types and bytes as written, values written by others, a replaced type and
// absent values are the registry tree's value tests.)
TEST_F(RegistryTest, TypedReadsCheckTypeAndSizeAndBuffersTooSmallGetTheSize) {
  HKEY key = Create("V");
  Set(key, "text", "hello");  // no terminator, as the layer above writes it
  Set(key, "dword", std::string("\x2A\0\0\0", 4), REG_DWORD);
  Set(key, "short", std::string("\x2A\0", 2), REG_DWORD);
  Set(key, "expand", "x", REG_EXPAND_SZ);  // read as a string
  Set(key, nullptr, "default");
  xkRegCloseKey(key);
  unsigned int number = 0, type = 99, size = 4;
  unsigned char bytes[5] = {};
  EXPECT_EQ(qxRegReadValueEx(kHklm, "V", "text", &type, bytes, &size, 0), ERROR_MORE_DATA);
  EXPECT_EQ(size, 5u);
  EXPECT_EQ(qxRegReadDWORDValueEx(kHklm, "V", "dword", &number, 0), ERROR_SUCCESS);
  EXPECT_EQ(number, 42u);
  EXPECT_EQ(qxRegReadDWORDValueEx(kHklm, "V", "short", &number, 0), ERROR_INVALID_DATA);
  EXPECT_EQ(qxRegReadDWORDValueEx(kHklm, "V", "text", &number, 0), ERROR_INVALID_DATATYPE);
  // A string read: the size it needs with the NUL, too small, exact, another type.
  char text[6];
  size = 0;
  ASSERT_EQ(qxRegReadStringValueEx(kHklm, "V", "text", nullptr, &size, 0), ERROR_SUCCESS);
  EXPECT_EQ(size, 6u);
  size = 5;
  EXPECT_EQ(qxRegReadStringValueEx(kHklm, "V", "text", text, &size, 0), ERROR_MORE_DATA);
  size = 6;
  ASSERT_EQ(qxRegReadStringValueEx(kHklm, "V", "text", text, &size, 0), ERROR_SUCCESS);
  EXPECT_STREQ(text, "hello");
  EXPECT_EQ(qxRegReadStringValueEx(kHklm, "V", "dword", text, &size, 0), ERROR_INVALID_DATATYPE);
  EXPECT_EQ(Read("V", "expand") + Read("V", ""), "xdefault");
}

TEST_F(RegistryTest, MalformedPathsLongNamesUnknownHivesAbsentItemsAndInjectedFaults) {
  HKEY key = nullptr;
  // The layer above builds "...\tree\5\\" for a compartment id ending in "//".
  for (const char* path : {"tree\\5\\\\", "\\a", "a\\", "a\\\\b", "\\"}) {
    EXPECT_EQ(xkRegCreateKeyEx(kHklm, path, 0, nullptr, 0, 3, nullptr, &key, nullptr), ERROR_BAD_PATHNAME) << path;
    EXPECT_EQ(xkRegOpenKeyEx(kHklm, path, 0, 0, &key), ERROR_BAD_PATHNAME) << path;
    EXPECT_EQ(qxRegDeleteSubKey(kHklm, path, 0, 0), ERROR_BAD_PATHNAME) << path;
  }
  EXPECT_TRUE(SubKeys(nullptr).empty());  // nothing was created on the way
  const std::string tooLong = "a\\" + std::string(255, 'c');
  EXPECT_EQ(xkRegCreateKeyEx(kHklm, tooLong.c_str(), 0, nullptr, 0, 3, nullptr, &key, nullptr),
            ERROR_FILENAME_EXCED_RANGE);
  key = Create("a");
  EXPECT_EQ(Set(key, std::string(256, 'v').c_str(), ""), ERROR_FILENAME_EXCED_RANGE);
  for (const char* hive : {"hkey_local_machine", "HKEY_LOCAL_MACHINE\\a", "", "HKEY_NOPE", static_cast<const char*>(nullptr)}) {
    errno = 0;
    HKEY opened = nullptr;
    EXPECT_EQ(xkRegOpenKeyEx(hive, "a", 0, 0, &opened), ERROR_INVALID_HANDLE) << hive;
    EXPECT_EQ(errno, EBADF);
  }
  EXPECT_EQ(xkRegOpenKeyEx("HKEY_CURRENT_USER", "a", 0, 0, &key), ERROR_FILE_NOT_FOUND) << "hives are separate";
  unsigned int type = 0, size = 0, count = 0;
  EXPECT_EQ(qxRegReadValueEx(kHklm, "a", "absent", &type, nullptr, &size, 0), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(qxRegReadValueEx(kHklm, "Nowhere", "v", &type, nullptr, &size, 0), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(qxRegListValueNamesEx(kHklm, "Nowhere", nullptr, &count, 0xFFFFFFFF, 0), ERROR_FILE_NOT_FOUND);

  // An injected fault fails its call (before it touches the file: the
  // registry tree's failed writes): its code, or ERROR_REGISTRY_IO_FAILED for
  // any other kind and for a code of 0.
  m_Faults.FailWithCode("xkRegOpenKeyEx", ERROR_ACCESS_DENIED);
  HKEY opened = reinterpret_cast<HKEY>(0x1234);
  errno = 0;
  EXPECT_EQ(xkRegOpenKeyEx(kHklm, "a", 0, 0, &opened), ERROR_ACCESS_DENIED);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(opened, reinterpret_cast<HKEY>(0x1234));
  m_Faults.FailWithThrow("qxRegListValueNamesEx", 4000);
  EXPECT_EQ(qxRegListValueNamesEx(kHklm, "a", nullptr, &count, 0xFFFFFFFF, 0), ERROR_REGISTRY_IO_FAILED);
  m_Faults.FailWithCode("qxRegDeleteSubKey", ERROR_SUCCESS);
  EXPECT_EQ(qxRegDeleteSubKey(kHklm, "a", 0, 0), ERROR_REGISTRY_IO_FAILED);
  xkRegCloseKey(key);
}

TEST_F(RegistryTest, DatabaseFilePrivateWhateverTheUmaskSwitchedAtWillAndNeverAForeignFile) {
  const std::string dir = m_Sandbox.Dir(), dataHome = dir + "/data";
  const std::string saved = std::getenv("XK_REGISTRY_PATH") != nullptr ? std::getenv("XK_REGISTRY_PATH") : "";
  unsetenv("XK_REGISTRY_PATH");
  setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
  ASSERT_EQ(xkRegSetDatabasePath(nullptr), ERROR_SUCCESS);
  EXPECT_EQ(std::string(xkRegGetDatabasePath()), dataHome + "/xk/registry.db");
  const mode_t oldMask = umask(0277);  // would give folders 0500 and files 0400
  Put("P", "v", "1");
  umask(oldMask);
  const std::string file = dataHome + "/xk/registry.db";
  for (const std::string& path : {dataHome, dataHome + "/xk", file, file + "-wal", file + "-shm"}) {
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_mode & 0777, S_ISDIR(st.st_mode) ? 0700u : 0600u) << path;
  }
  unsetenv("XDG_DATA_HOME");  // (XK_REGISTRY_PATH is how the load test's child finds its registry)
  saved.empty() ? unsetenv("XK_REGISTRY_PATH") : setenv("XK_REGISTRY_PATH", saved.c_str(), 1);

  // A handle does not follow its key to another file (files kept apart are
  // the settings test's).
  ASSERT_EQ(xkRegSetDatabasePath(m_Sandbox.RegistryPath().c_str()), ERROR_SUCCESS);
  HKEY key = Create("S");
  ASSERT_EQ(xkRegSetDatabasePath((dir + "/other.db").c_str()), ERROR_SUCCESS);
  EXPECT_EQ(Set(key, "v", ""), ERROR_KEY_DELETED);
  xkRegCloseKey(key);

  // Not a registry: a text file, or another program's SQLite database.
  const std::string text = m_Sandbox.Dir() + "/notes.txt", foreign = m_Sandbox.Dir() + "/foreign.db";
  std::ofstream(text) << std::string(8192, 'x');
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(foreign.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  for (const std::string& file : {text, foreign}) {
    ASSERT_EQ(xkRegSetDatabasePath(file.c_str()), ERROR_SUCCESS);
    EXPECT_EQ(xkRegOpenKeyEx(kHklm, nullptr, 0, 0, &key), ERROR_BADDB) << file;
  }
}

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

TEST_F(RegistryProcessTest, BatchWritesCommitTogetherAtTheOutermostEndOrAreLostWithAFailedCommitOrBegin) {
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

  // A failed begin leaves each call its own transaction; unmatched ends are refused.
  EXPECT_EQ(xkRegEndBatch(), ERROR_INVALID_PARAMETER);
  m_Faults.FailWithCode("xkRegBeginBatch", ERROR_REGISTRY_IO_FAILED);
  for (unsigned int flags : {XK_REG_BATCH_WRITE, 7u}) {  // an injected fault, unknown flags
    EXPECT_NE(xkRegBeginBatch(flags), ERROR_SUCCESS) << flags;
    EXPECT_EQ(Set(m_Key, "a", std::to_string(flags)), ERROR_SUCCESS);
    EXPECT_EQ(Committed("a"), std::to_string(flags));
    EXPECT_EQ(xkRegCommitBatch(), ERROR_SUCCESS);  // each begin still wants its end
    EXPECT_EQ(xkRegEndBatch(), ERROR_SUCCESS);
  }
  EXPECT_EQ(xkRegCommitBatch(), ERROR_INVALID_PARAMETER);
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
  EXPECT_EQ(Committed("k", "B\\K") + Committed("v"), "new-");
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

namespace {

using QX::Framework::XKData;
using xk::settings::Source;

const SecureString kAllowPerProcess("Merrowstore.Authentication.AllowPerProcess");
const SecureString kTimeout("Merrowstore.Authentication.Timeout");
const SecureString kPinAlways("Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys");

std::int64_t Read(const SecureString& name, HRESULT expected = S_OK) {
  XKData value;
  EXPECT_EQ(GetSettingValue(name, value, nullptr), expected) << name.c_str();
  return value.Int();
}

using Settings = regtest::RegistryTest;

TEST_F(Settings, RegistryTypesAreReadAsNumbersOrText) {
  // Numbers (a DWORD unsigned: the "never expires" timeout has the lowest
  // int32 as its low 32 bits); texts read as numbers (decimal or 0x hex, else
  // 0); a type no setting has, or a number too short, gives the default with
  // a failure.
  const struct { unsigned int type; std::string bytes; HRESULT status; std::int64_t number; } kCases[] = {
      {REG_DWORD, std::string("\x2A\0\0\0", 4), S_OK, 42},
      {REG_DWORD, std::string("\0\0\0\x80", 4), S_OK, 0x80000000},
      {REG_QWORD, std::string("\xF9\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8), S_OK, -7},
      {REG_SZ, "0x10", S_OK, 16},
      {REG_EXPAND_SZ, "-5", S_OK, -5},
      {REG_SZ, "12abc", S_OK, 0},
      {REG_SZ, "", S_OK, 0},
      {REG_BINARY, "\x01\x02", E_FAIL, 15},
      {REG_DWORD, std::string("\x03\0", 2), E_FAIL, 15},
      {REG_QWORD, std::string("\x03\0\0\0", 4), E_FAIL, 15},
  };
  for (const auto& c : kCases) {
    Put(xk::settings::RegistryKey(), kTimeout.c_str(), c.bytes, c.type);
    EXPECT_EQ(Read(kTimeout, c.status), c.number) << "type " << c.type << " " << c.bytes;
  }
  ASSERT_EQ(xk::settings::SetSettingValue(kPinAlways, XKData(SecureString("1"))), S_OK);  // kept as text
  XKData value;
  ASSERT_EQ(GetSettingValue(kPinAlways, value, nullptr), S_OK);
  EXPECT_EQ(value.GetKind(), XKData::Kind::kString);
  EXPECT_EQ(XKData(std::int64_t{-42}).String(), "-42");
}

TEST_F(Settings, UnknownNamesBadArgumentsAndInjectedFaults) {
  XKData value(std::int64_t{99});
  EXPECT_EQ(GetSettingValue(SecureString("No.Such.Setting"), value, nullptr), static_cast<HRESULT>(0x80070002u));
  EXPECT_EQ(value.Int(), 99);  // left as it was
  // Names are exact: a differently cased name is another setting.
  EXPECT_EQ(xk::settings::GetSettingSource(SecureString("merrowstore.authentication.timeout")), Source::kNone);
  EXPECT_EQ(GetSettingValue(SecureString(), value, nullptr), E_INVALIDARG);
  int reserved = 0;
  EXPECT_EQ(GetSettingValue(kTimeout, value, &reserved), E_INVALIDARG);
  EXPECT_EQ(xk::settings::SetSettingValue(kTimeout, XKData()), E_INVALIDARG);
  EXPECT_EQ(value.Int(), 99);

  EXPECT_EQ(Read(kTimeout), 15);  // kept, yet the faults below reach the next reads
  m_Faults.FailWithCode("GetSettingValue", E_OUTOFMEMORY);
  EXPECT_EQ(GetSettingValue(kTimeout, value, nullptr), E_OUTOFMEMORY);
  EXPECT_EQ(value.Int(), 99);
  // A registry that fails to read still yields the default, with a failure code.
  m_Faults.FailWithCode("qxRegReadValueEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Read(kTimeout, E_FAIL), 15);
  EXPECT_EQ(Read(kTimeout), 15);
}

// Defaults until the registry holds a value. Answers are kept between reads,
// yet every change reaches the next read: another process's, this process's
// through the registry calls, a batch's own, a switch of file, a reset.
TEST_F(Settings, DefaultsUntilTheRegistryHoldsAValueAndEveryChangeReachesTheNextRead) {
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  pid_t child = fork();  // another process, through the settings calls, once this one has kept its answer
  if (child == 0) {
    char c;
    _exit(read(go[0], &c, 1) == 1 && xk::settings::SetSettingValue(kTimeout, XKData(std::int64_t{30})) == S_OK ? 0 : 1);
  }
  EXPECT_EQ(Read(kAllowPerProcess) + Read(kPinAlways), 0);
  EXPECT_EQ(Read(kTimeout), 15);
  EXPECT_EQ(Read(kTimeout), 15);
  EXPECT_EQ(xk::settings::GetSettingSource(kTimeout), Source::kDefault);
  ASSERT_EQ(write(go[1], "g", 1), 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(Read(kTimeout), 30);
  EXPECT_EQ(xk::settings::GetSettingSource(kTimeout), Source::kRegistry);
  EXPECT_EQ(Read(kAllowPerProcess), 0);  // the others keep their defaults
  ASSERT_EQ(xk::settings::SetSettingValue(kAllowPerProcess, XKData(SecureString("7"))), S_OK);
  EXPECT_EQ(Read(kAllowPerProcess), 7);
  PutDword(xk::settings::RegistryKey(), kTimeout.c_str(), 45);  // this process, through the registry calls
  EXPECT_EQ(Read(kTimeout), 45);
  {
    xk::registry::Batch batch(XK_REG_BATCH_WRITE);  // a batch reads its own writes
    ASSERT_EQ(xk::settings::SetSettingValue(kTimeout, XKData(std::int64_t{60})), S_OK);
    EXPECT_EQ(Read(kTimeout), 60);
  }
  EXPECT_EQ(Read(kTimeout), 60);
  const std::string other = m_Sandbox.Dir() + "/other.db";  // another database file
  ASSERT_EQ(xkRegSetDatabasePath(other.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(Read(kTimeout), 15);
  ASSERT_EQ(xkRegSetDatabasePath(m_Sandbox.RegistryPath().c_str()), ERROR_SUCCESS);
  EXPECT_EQ(Read(kTimeout), 60);
  ASSERT_EQ(xk::settings::ResetSettingValue(kTimeout), S_OK);
  EXPECT_EQ(Read(kTimeout), 15);
  EXPECT_EQ(xk::settings::ResetSettingValue(kTimeout), S_OK);  // nothing left to remove
}

}  // namespace
