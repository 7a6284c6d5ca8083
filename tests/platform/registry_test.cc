#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "xk/fault_point.h"
#include "xk/registry.h"

namespace {

constexpr const char* kHklm = "HKEY_LOCAL_MACHINE";

// Each test gets its own registry file in a fresh temporary folder.
class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/xkreg-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    m_Dir = pattern;
    ASSERT_EQ(xkRegSetDatabasePath((m_Dir + "/registry.db").c_str()), ERROR_SUCCESS);
  }
  void TearDown() override {
    xk::fault::Reset();
    xkRegSetDatabasePath(nullptr);
    std::filesystem::remove_all(m_Dir);
  }

  HKEY Create(const char* path, unsigned int* disposition = nullptr) {
    HKEY key = nullptr;
    EXPECT_EQ(xkRegCreateKeyEx(kHklm, path, 0, nullptr, 0, 3, nullptr, &key, disposition), ERROR_SUCCESS) << path;
    return key;
  }
  void SetString(HKEY key, const char* name, const std::string& text, unsigned int type = REG_SZ) {
    ASSERT_EQ(xkRegSetValueEx(key, name, 0, type, reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<unsigned int>(text.size())),
              ERROR_SUCCESS);
  }
  std::vector<std::string> SubKeys(const char* path) {
    unsigned int count = 0;
    EXPECT_EQ(qxRegListKeys(kHklm, path, nullptr, &count), ERROR_SUCCESS);
    std::vector<qxRegKey_> records(count);
    EXPECT_EQ(qxRegListKeys(kHklm, path, records.data(), &count), ERROR_SUCCESS);
    std::vector<std::string> names;
    for (const qxRegKey_& record : records) names.emplace_back(record.szName);
    return names;
  }
  std::vector<std::string> ValueNames(const char* path, unsigned int mask = 0xFFFFFFFF) {
    unsigned int count = 0;
    EXPECT_EQ(qxRegListValueNamesEx(kHklm, path, nullptr, &count, mask, 0), ERROR_SUCCESS);
    std::vector<qxRegValue_> records(count);
    EXPECT_EQ(qxRegListValueNamesEx(kHklm, path, records.data(), &count, mask, 0), ERROR_SUCCESS);
    std::vector<std::string> names;
    for (const qxRegValue_& record : records) names.emplace_back(record.szName);
    return names;
  }
  bool Exists(const char* path) {
    HKEY key = nullptr;
    long status = xkRegOpenKeyEx(kHklm, path, 0, 0, &key);
    if (status == ERROR_SUCCESS) xkRegCloseKey(key);
    return status == ERROR_SUCCESS;
  }

  std::string m_Dir;
};

TEST_F(RegistryTest, CreateMakesMissingParentsAndReportsDisposition) {
  unsigned int disposition = 0;
  HKEY deep = Create("Software\\Vendor\\Product", &disposition);
  EXPECT_EQ(disposition, static_cast<unsigned int>(REG_CREATED_NEW_KEY));
  EXPECT_TRUE(Exists("Software"));
  EXPECT_TRUE(Exists("Software\\Vendor"));
  xkRegCloseKey(Create("Software\\Vendor", &disposition));
  EXPECT_EQ(disposition, static_cast<unsigned int>(REG_OPENED_EXISTING_KEY));

  // Relative to a handle, and the handle's own key with a NULL subkey.
  HKEY child = nullptr;
  ASSERT_EQ(xkRegCreateKeyEx(deep, "x\\y", 0, nullptr, 0, 3, nullptr, &child, &disposition), ERROR_SUCCESS);
  EXPECT_EQ(disposition, static_cast<unsigned int>(REG_CREATED_NEW_KEY));
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
  for (HKEY key : {deep, child, same}) EXPECT_EQ(xkRegCloseKey(key), ERROR_SUCCESS);
}

TEST_F(RegistryTest, DeleteKeyRefusesSubkeysAndDeleteSubKeyRemovesTheWholeSubtree) {
  // Neighbours that share the prefix "T\a" must survive the subtree's removal.
  for (const char* path : {"T\\a\\b\\c", "T\\a\\d", "T\\ab", "T\\a!", "T\\a]"}) {
    HKEY key = Create(path);
    SetString(key, "v", path);
    xkRegCloseKey(key);
  }
  EXPECT_EQ(qxRegDeleteKey(kHklm, "T\\a", 0, 0), ERROR_KEY_HAS_CHILDREN);
  EXPECT_TRUE(Exists("T\\a\\d"));
  EXPECT_EQ(qxRegDeleteKey(kHklm, "T\\a\\d", 0, 0), ERROR_SUCCESS);
  EXPECT_FALSE(Exists("T\\a\\d"));
  EXPECT_EQ(qxRegDeleteKey(kHklm, "T\\a\\d", 0, 0), ERROR_FILE_NOT_FOUND);

  EXPECT_EQ(qxRegDeleteSubKey(kHklm, "T\\a", 0, 0), ERROR_SUCCESS);
  EXPECT_FALSE(Exists("T\\a"));
  EXPECT_FALSE(Exists("T\\a\\b\\c"));
  EXPECT_EQ(SubKeys("T"), (std::vector<std::string>{"a!", "a]", "ab"}));
  EXPECT_EQ(ValueNames("T\\ab"), std::vector<std::string>{"v"});
  EXPECT_EQ(qxRegDeleteSubKey(kHklm, "T\\a", 0, 0), ERROR_FILE_NOT_FOUND);

  // Values go with their key: a recreated key is empty.
  EXPECT_EQ(qxRegDeleteKey(kHklm, "T\\ab", 0, 0), ERROR_SUCCESS);
  xkRegCloseKey(Create("T\\ab"));
  EXPECT_TRUE(ValueNames("T\\ab").empty());

  // Hive roots stay.
  EXPECT_EQ(qxRegDeleteKey(kHklm, nullptr, 0, 0), ERROR_ACCESS_DENIED);
  EXPECT_EQ(qxRegDeleteSubKey(kHklm, "", 0, 0), ERROR_ACCESS_DENIED);
}

TEST_F(RegistryTest, ListingsAndEnumerationFollowByteOrder) {
  const std::vector<std::string> sorted = {"B", "Z", "a", "a b", "ab", "abc", "b", "\xC3\xA9"};
  for (const char* name : {"b", "\xC3\xA9", "abc", "Z", "a b", "a", "B", "ab"}) {
    xkRegCloseKey(Create((std::string("K\\") + name).c_str()));
  }
  EXPECT_EQ(SubKeys("K"), sorted);

  HKEY key = nullptr;
  ASSERT_EQ(xkRegOpenKeyEx(kHklm, "K", 0, 0, &key), ERROR_SUCCESS);
  for (unsigned int i = 0; i < sorted.size(); ++i) {
    char name[251];
    unsigned int size = sizeof name;
    FILETIME written{};
    ASSERT_EQ(xkRegEnumKeyEx(key, i, name, &size, nullptr, nullptr, nullptr, &written), ERROR_SUCCESS);
    EXPECT_EQ(name, sorted[i]);
    EXPECT_EQ(size, sorted[i].size());
    EXPECT_NE(written.dwHighDateTime, 0u);
  }
  char name[251];
  unsigned int size = sizeof name;
  EXPECT_EQ(xkRegEnumKeyEx(key, static_cast<unsigned int>(sorted.size()), name, &size, nullptr, nullptr, nullptr,
                           nullptr),
            ERROR_NO_MORE_ITEMS);
  size = 3;  // "abc" needs 4 bytes with its NUL
  EXPECT_EQ(xkRegEnumKeyEx(key, 5, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
  EXPECT_EQ(size, 3u);

  for (const char* value : {"x", "X", "", "x1", "_"}) SetString(key, value, "1");
  EXPECT_EQ(ValueNames("K"), (std::vector<std::string>{"", "X", "_", "x", "x1"}));
  xkRegCloseKey(key);
}

TEST_F(RegistryTest, TwoPassListingFillsFixedRecordsUpToTheCapacity) {
  static_assert(sizeof(qxRegKey_) == 255 && sizeof(qxRegValue_) == 264);
  std::string longest(254, 'k');
  HKEY key = Create(("L\\" + longest).c_str());
  for (const char* name : {"d", "c", "b", "a"}) xkRegCloseKey(Create((std::string("L\\") + name).c_str()));
  std::string longValue(255, 'v');
  SetString(key, longValue.c_str(), "abc", REG_BINARY);
  ASSERT_EQ(xkRegSetValueEx(key, "n", 0, REG_DWORD, reinterpret_cast<const unsigned char*>("\1\0\0\0"), 4),
            ERROR_SUCCESS);

  unsigned int count = 0;
  ASSERT_EQ(qxRegListKeys(kHklm, "L", nullptr, &count), ERROR_SUCCESS);
  EXPECT_EQ(count, 5u);
  // Room for two: two records written, the third untouched, the real count back.
  std::vector<qxRegKey_> keys(3);
  std::memset(keys.data(), 0xAA, keys.size() * sizeof(qxRegKey_));
  count = 2;
  ASSERT_EQ(qxRegListKeysEx(kHklm, "L", keys.data(), &count, 0), ERROR_SUCCESS);
  EXPECT_EQ(count, 5u);
  EXPECT_STREQ(keys[0].szName, "a");
  EXPECT_STREQ(keys[1].szName, "b");
  for (std::size_t i = 2; i < sizeof(qxRegKey_); ++i) ASSERT_EQ(keys[1].szName[i], 0) << i;
  EXPECT_EQ(static_cast<unsigned char>(keys[2].szName[0]), 0xAA);
  EXPECT_EQ(SubKeys("L").back(), longest);

  std::vector<qxRegValue_> values(2);
  std::memset(values.data(), 0xAA, values.size() * sizeof(qxRegValue_));
  count = 2;
  std::string leaf = "L\\" + longest;
  ASSERT_EQ(qxRegListValueNamesEx(kHklm, leaf.c_str(), values.data(), &count, 0xFFFFFFFF, 0), ERROR_SUCCESS);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(values[0].szName, std::string("n"));
  EXPECT_EQ(values[0].dwType, static_cast<unsigned int>(REG_DWORD));
  EXPECT_EQ(values[0].cbData, 4u);
  EXPECT_EQ(values[0].szName[2], 0);
  EXPECT_EQ(values[1].szName, longValue);
  EXPECT_EQ(values[1].cbData, 3u);
  EXPECT_EQ(ValueNames(leaf.c_str(), 1u << REG_BINARY), std::vector<std::string>{longValue});
  EXPECT_TRUE(ValueNames(leaf.c_str(), 1u << REG_SZ).empty());

  count = 0;
  EXPECT_EQ(qxRegListKeys(kHklm, "L\\none", nullptr, &count), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(qxRegListValueNamesEx(kHklm, "L\\none", nullptr, &count, 0xFFFFFFFF, 0), ERROR_FILE_NOT_FOUND);
  xkRegCloseKey(key);
}

TEST_F(RegistryTest, ValuesKeepTypeAndBytesIncludingEmptyAndLargeOnes) {
  HKEY key = Create("V");
  SetString(key, "text", "hello");                          // no terminator, as the layer above writes it
  SetString(key, "dword", std::string("\x2A\0\0\0", 4), REG_DWORD);
  SetString(key, "short", std::string("\x2A\0", 2), REG_DWORD);
  ASSERT_EQ(xkRegSetValueEx(key, "empty", 0, REG_BINARY, nullptr, 0), ERROR_SUCCESS);
  ASSERT_EQ(xkRegSetValueEx(key, "bad", 0, REG_BINARY, nullptr, 4), ERROR_INVALID_PARAMETER);
  SetString(key, nullptr, "default");
  std::vector<unsigned char> big(3 << 20);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 7 + i / 251);
  ASSERT_EQ(xkRegSetValueEx(key, "big", 0, REG_BINARY, big.data(), static_cast<unsigned int>(big.size())),
            ERROR_SUCCESS);

  unsigned int type = 99;
  unsigned int size = 99;
  ASSERT_EQ(qxRegReadValueEx(kHklm, "V", "empty", &type, nullptr, &size, 0), ERROR_SUCCESS);
  EXPECT_EQ(type, static_cast<unsigned int>(REG_BINARY));
  EXPECT_EQ(size, 0u);
  std::vector<unsigned char> back(big.size());
  size = static_cast<unsigned int>(back.size()) - 1;
  EXPECT_EQ(qxRegReadValueEx(kHklm, "V", "big", &type, back.data(), &size, 0), ERROR_MORE_DATA);
  EXPECT_EQ(size, big.size());
  ASSERT_EQ(qxRegReadValueEx(kHklm, "V", "big", &type, back.data(), &size, 0), ERROR_SUCCESS);
  EXPECT_EQ(back, big);
  char text[16] = {};
  size = sizeof text;
  ASSERT_EQ(qxRegReadValueEx(kHklm, "V", "", &type, reinterpret_cast<unsigned char*>(text), &size, 0),
            ERROR_SUCCESS);
  EXPECT_EQ(std::string(text, size), "default");
  EXPECT_EQ(qxRegReadValueEx(kHklm, "V", "absent", &type, nullptr, &size, 0), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(qxRegReadValueEx(kHklm, "Nowhere", "text", &type, nullptr, &size, 0), ERROR_FILE_NOT_FOUND);

  unsigned int number = 0;
  EXPECT_EQ(qxRegReadDWORDValueEx(kHklm, "V", "dword", &number, 0), ERROR_SUCCESS);
  EXPECT_EQ(number, 42u);
  EXPECT_EQ(qxRegReadDWORDValueEx(kHklm, "V", "short", &number, 0), ERROR_INVALID_DATA);
  EXPECT_EQ(qxRegReadDWORDValueEx(kHklm, "V", "text", &number, 0), ERROR_INVALID_DATATYPE);

  size = 0;
  ASSERT_EQ(qxRegReadStringValueEx(kHklm, "V", "text", nullptr, &size, 0), ERROR_SUCCESS);
  EXPECT_EQ(size, 6u);
  char small[5];
  size = sizeof small;
  EXPECT_EQ(qxRegReadStringValueEx(kHklm, "V", "text", small, &size, 0), ERROR_MORE_DATA);
  char exact[6];
  size = sizeof exact;
  ASSERT_EQ(qxRegReadStringValueEx(kHklm, "V", "text", exact, &size, 0), ERROR_SUCCESS);
  EXPECT_STREQ(exact, "hello");
  EXPECT_EQ(qxRegReadStringValueEx(kHklm, "V", "dword", exact, &size, 0), ERROR_INVALID_DATATYPE);

  // Replacing changes the type; deleting twice reports the second as absent.
  SetString(key, "text", "x", REG_EXPAND_SZ);
  ASSERT_EQ(qxRegReadValueEx(kHklm, "V", "text", &type, nullptr, &size, 0), ERROR_SUCCESS);
  EXPECT_EQ(type, static_cast<unsigned int>(REG_EXPAND_SZ));
  EXPECT_EQ(qxRegDeleteValue(kHklm, "V", "text", 0), ERROR_SUCCESS);
  EXPECT_EQ(qxRegDeleteValue(kHklm, "V", "text", 0), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(qxRegDeleteValue(kHklm, "Nowhere", "text", 0), ERROR_FILE_NOT_FOUND);
  xkRegCloseKey(key);
}

TEST_F(RegistryTest, MalformedPathsNamesAndHivesAreRefused) {
  HKEY key = nullptr;
  // The layer above builds "...\tree\5\\" for a compartment id ending in "//".
  for (const char* path : {"tree\\5\\\\", "\\a", "a\\", "a\\\\b", "\\"}) {
    EXPECT_EQ(xkRegCreateKeyEx(kHklm, path, 0, nullptr, 0, 3, nullptr, &key, nullptr), ERROR_BAD_PATHNAME) << path;
    EXPECT_EQ(xkRegOpenKeyEx(kHklm, path, 0, 0, &key), ERROR_BAD_PATHNAME) << path;
    EXPECT_EQ(qxRegDeleteSubKey(kHklm, path, 0, 0), ERROR_BAD_PATHNAME) << path;
  }
  EXPECT_TRUE(SubKeys(nullptr).empty());  // nothing was created on the way

  std::string component(255, 'c');
  EXPECT_EQ(xkRegCreateKeyEx(kHklm, ("a\\" + component).c_str(), 0, nullptr, 0, 3, nullptr, &key, nullptr),
            ERROR_FILENAME_EXCED_RANGE);
  key = Create("a");
  std::string valueName(256, 'v');
  EXPECT_EQ(xkRegSetValueEx(key, valueName.c_str(), 0, REG_SZ, nullptr, 0), ERROR_FILENAME_EXCED_RANGE);
  xkRegCloseKey(key);

  for (const char* hive : {"hkey_local_machine", "HKEY_LOCAL_MACHINE\\a", "", "HKEY_NOPE"}) {
    errno = 0;
    EXPECT_EQ(xkRegOpenKeyEx(hive, "a", 0, 0, &key), ERROR_INVALID_HANDLE) << hive;
    EXPECT_EQ(errno, EBADF);
  }
  EXPECT_EQ(xkRegOpenKeyEx(nullptr, "a", 0, 0, &key), ERROR_INVALID_HANDLE);
  for (const char* hive : {"HKEY_CURRENT_USER", "HKEY_CLASSES_ROOT", "HKEY_USERS", "HKEY_CURRENT_CONFIG"}) {
    EXPECT_EQ(xkRegOpenKeyEx(hive, "a", 0, 0, &key), ERROR_FILE_NOT_FOUND) << "hives are separate";
  }
}

TEST_F(RegistryTest, HandlesReportDeletedKeysAndDoubleCloses) {
  HKEY key = Create("H\\k");
  SetString(key, "v", "1");
  // A handle may stand for the hive of the by-path calls (handles shared
  // between threads: registry_concurrency_test).
  unsigned int type = 0;
  unsigned int size = 0;
  EXPECT_EQ(qxRegReadValueEx(static_cast<const char*>(key), nullptr, "v", &type, nullptr, &size, 0),
            ERROR_SUCCESS);

  // Deleted by a by-path call: the handle keeps its path and says so.
  ASSERT_EQ(qxRegDeleteSubKey(kHklm, "H", 0, 0), ERROR_SUCCESS);
  EXPECT_EQ(xkRegSetValueEx(key, "v", 0, REG_SZ, nullptr, 0), ERROR_KEY_DELETED);
  char name[16];
  size = sizeof name;
  EXPECT_EQ(xkRegEnumKeyEx(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
  HKEY below = nullptr;
  EXPECT_EQ(xkRegCreateKeyEx(key, "sub", 0, nullptr, 0, 3, nullptr, &below, nullptr), ERROR_KEY_DELETED);
  EXPECT_FALSE(Exists("H\\k")) << "a deleted handle key is not brought back";
  // Created again under the same path, the key is reachable through it again.
  xkRegCloseKey(Create("H\\k"));
  EXPECT_EQ(xkRegSetValueEx(key, "v", 0, REG_SZ, nullptr, 0), ERROR_SUCCESS);

  EXPECT_EQ(xkRegCloseKey(key), ERROR_SUCCESS);
  EXPECT_EQ(xkRegCloseKey(key), ERROR_INVALID_HANDLE);
  EXPECT_EQ(xkRegSetValueEx(key, "v", 0, REG_SZ, nullptr, 0), ERROR_INVALID_HANDLE);
  EXPECT_EQ(xkRegCloseKey(kHklm), ERROR_INVALID_HANDLE);
  EXPECT_EQ(xkRegCloseKey(nullptr), ERROR_INVALID_HANDLE);
  // A new handle never reuses the closed one's value.
  HKEY next = Create("H\\k");
  EXPECT_NE(next, key);
  EXPECT_EQ(xkRegCloseKey(next), ERROR_SUCCESS);
}

TEST_F(RegistryTest, DefaultFileIsPrivateWhateverTheUmask) {
  std::string dataHome = m_Dir + "/data";
  const char* savedPath = std::getenv("XK_REGISTRY_PATH");
  std::string saved = savedPath != nullptr ? savedPath : "";
  unsetenv("XK_REGISTRY_PATH");
  setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
  ASSERT_EQ(xkRegSetDatabasePath(nullptr), ERROR_SUCCESS);
  EXPECT_EQ(std::string(xkRegGetDatabasePath()), dataHome + "/xk/registry.db");

  mode_t oldMask = umask(0277);  // would give folders 0500 and files 0400
  HKEY key = Create("P");
  SetString(key, "v", "1");
  umask(oldMask);
  struct stat st;
  for (const std::string& folder : {dataHome, dataHome + "/xk"}) {
    ASSERT_EQ(stat(folder.c_str(), &st), 0) << folder;
    EXPECT_EQ(st.st_mode & 0777, 0700u) << folder;
  }
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::string file = dataHome + "/xk/registry.db" + suffix;
    ASSERT_EQ(stat(file.c_str(), &st), 0) << file;
    EXPECT_EQ(st.st_mode & 0777, 0600u) << file;
  }
  xkRegCloseKey(key);

  setenv("XK_REGISTRY_PATH", (m_Dir + "/explicit.db").c_str(), 1);
  ASSERT_EQ(xkRegSetDatabasePath(nullptr), ERROR_SUCCESS);
  EXPECT_EQ(std::string(xkRegGetDatabasePath()), m_Dir + "/explicit.db");
  unsetenv("XDG_DATA_HOME");
  if (savedPath != nullptr) {
    setenv("XK_REGISTRY_PATH", saved.c_str(), 1);
  } else {
    unsetenv("XK_REGISTRY_PATH");
  }
}

TEST_F(RegistryTest, SwitchingFilesKeepsEachFileApartAndRefusesForeignFiles) {
  std::string first = m_Dir + "/registry.db";
  std::string second = m_Dir + "/other.db";
  HKEY key = Create("S");
  SetString(key, "v", "first");
  ASSERT_EQ(xkRegSetDatabasePath(second.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(std::string(xkRegGetDatabasePath()), second);
  EXPECT_FALSE(Exists("S"));
  EXPECT_EQ(xkRegSetValueEx(key, "v", 0, REG_SZ, nullptr, 0), ERROR_KEY_DELETED);
  ASSERT_EQ(xkRegSetDatabasePath(first.c_str()), ERROR_SUCCESS);
  char text[8];
  unsigned int size = sizeof text;
  ASSERT_EQ(qxRegReadStringValueEx(kHklm, "S", "v", text, &size, 0), ERROR_SUCCESS);
  EXPECT_STREQ(text, "first");
  xkRegCloseKey(key);

  std::string textFile = m_Dir + "/notes.txt";
  std::ofstream(textFile) << std::string(8192, 'x');
  ASSERT_EQ(xkRegSetDatabasePath(textFile.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(xkRegOpenKeyEx(kHklm, nullptr, 0, 0, &key), ERROR_BADDB);

  std::string foreign = m_Dir + "/foreign.db";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(foreign.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  ASSERT_EQ(xkRegSetDatabasePath(foreign.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(xkRegOpenKeyEx(kHklm, nullptr, 0, 0, &key), ERROR_BADDB);
}

TEST_F(RegistryTest, InjectedFaultsFailWithoutTouchingTheStore) {
  HKEY key = Create("F");
  xk::fault::Arm("xkRegSetValueEx", 1, {xk::fault::Kind::kCode, ERROR_REGISTRY_IO_FAILED, 0}, false);
  EXPECT_EQ(xkRegSetValueEx(key, "v", 0, REG_SZ, nullptr, 0), ERROR_REGISTRY_IO_FAILED);
  EXPECT_TRUE(ValueNames("F").empty());
  EXPECT_EQ(xkRegSetValueEx(key, "v", 0, REG_SZ, nullptr, 0), ERROR_SUCCESS);

  xk::fault::Arm("xkRegOpenKeyEx", 1, {xk::fault::Kind::kCode, ERROR_ACCESS_DENIED, 0}, false);
  HKEY opened = reinterpret_cast<HKEY>(0x1234);
  errno = 0;
  EXPECT_EQ(xkRegOpenKeyEx(kHklm, "F", 0, 0, &opened), ERROR_ACCESS_DENIED);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(opened, reinterpret_cast<HKEY>(0x1234));

  // Second call fails, persistently; other kinds become ERROR_REGISTRY_IO_FAILED.
  xk::fault::Arm("qxRegListValueNamesEx", 2, {xk::fault::Kind::kThrow, 4000, 0}, true);
  unsigned int count = 0;
  EXPECT_EQ(qxRegListValueNamesEx(kHklm, "F", nullptr, &count, 0xFFFFFFFF, 0), ERROR_SUCCESS);
  EXPECT_EQ(count, 1u);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(qxRegListValueNamesEx(kHklm, "F", nullptr, &count, 0xFFFFFFFF, 0), ERROR_REGISTRY_IO_FAILED);
  }
  EXPECT_EQ(xk::fault::Fired("qxRegListValueNamesEx"), 2u);

  xk::fault::Arm("qxRegDeleteSubKey", 1, {xk::fault::Kind::kCode, ERROR_REGISTRY_IO_FAILED, 0}, false);
  EXPECT_EQ(qxRegDeleteSubKey(kHklm, "F", 0, 0), ERROR_REGISTRY_IO_FAILED);
  EXPECT_TRUE(Exists("F"));
  xkRegCloseKey(key);
}

}  // namespace
