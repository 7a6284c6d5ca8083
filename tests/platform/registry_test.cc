// The registry service through its calls: keys and handles, deletion, listings,
// values, refused arguments, the database file and fault points.

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "../support/registry_support.h"

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

TEST_F(RegistryTest, ValuesKeepTypeAndBytesAndTypedReadsCheckThem) {
  HKEY key = Create("V");
  Set(key, "text", "hello");  // no terminator, as the layer above writes it
  Set(key, "dword", std::string("\x2A\0\0\0", 4), REG_DWORD);
  Set(key, "short", std::string("\x2A\0", 2), REG_DWORD);
  Set(key, nullptr, "default");
  ASSERT_EQ(xkRegSetValueEx(key, "empty", 0, REG_BINARY, nullptr, 0), ERROR_SUCCESS);
  EXPECT_EQ(xkRegSetValueEx(key, "bad", 0, REG_BINARY, nullptr, 4), ERROR_INVALID_PARAMETER);

  unsigned int type = 99, size = 99;
  ASSERT_EQ(qxRegReadValueEx(kHklm, "V", "empty", &type, nullptr, &size, 0), ERROR_SUCCESS);
  EXPECT_EQ(type, REG_BINARY);
  EXPECT_EQ(size, 0u);
  unsigned char bytes[5] = {};
  size = 4;  // too small: the size it needs comes back
  EXPECT_EQ(qxRegReadValueEx(kHklm, "V", "text", &type, bytes, &size, 0), ERROR_MORE_DATA);
  EXPECT_EQ(size, 5u);
  ASSERT_EQ(qxRegReadValueEx(kHklm, "V", "text", &type, bytes, &size, 0), ERROR_SUCCESS);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 5), "hello");
  EXPECT_EQ(Read("V", ""), "default");

  unsigned int number = 0;
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

  // Replacing changes the type (an expandable string reads as a string);
  // deleting twice reports the second as absent.
  Set(key, "text", "x", REG_EXPAND_SZ);
  ASSERT_EQ(qxRegReadValueEx(kHklm, "V", "text", &type, nullptr, &size, 0), ERROR_SUCCESS);
  EXPECT_EQ(type, REG_EXPAND_SZ);
  EXPECT_EQ(Read("V", "text"), "x");
  EXPECT_EQ(qxRegDeleteValue(kHklm, "V", "text", 0), ERROR_SUCCESS);
  EXPECT_EQ(qxRegDeleteValue(kHklm, "V", "text", 0), ERROR_FILE_NOT_FOUND);
  xkRegCloseKey(key);
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

  // An injected fault fails its call before it touches the file: its code, or
  // ERROR_REGISTRY_IO_FAILED for any other kind and for a code of 0.
  m_Faults.FailWithCode("xkRegSetValueEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Set(key, "v", ""), ERROR_REGISTRY_IO_FAILED);
  EXPECT_TRUE(ValueNames("a").empty());
  EXPECT_EQ(Set(key, "v", ""), ERROR_SUCCESS);
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

}  // namespace
