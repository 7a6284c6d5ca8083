#ifndef XK_REGISTRY_REGISTRY_DATABASE_H
#define XK_REGISTRY_REGISTRY_DATABASE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace xk {
namespace registry {

// One SQLite connection to a registry file and the registry's operations on
// it. Keys are named by full paths ("HKEY_LOCAL_MACHINE\a\b") that the caller
// has already checked. Each operation is one transaction; on any failure the
// file is left as it was. Every operation returns a registry status code.
//
// Not synchronised: the registry service serialises all use.
class RegistryDatabase {
 public:
  struct ValueInfo {
    std::string name;
    unsigned int type;
    unsigned int size;
  };
  // Receives a value read by ReadValue while the row is current.
  using ValueSink = std::function<void(unsigned int type, const unsigned char* data, std::size_t size)>;

  RegistryDatabase() = default;
  ~RegistryDatabase() { Close(); }
  RegistryDatabase(const RegistryDatabase&) = delete;
  RegistryDatabase& operator=(const RegistryDatabase&) = delete;

  // Opens (creating if need be) the registry file at `path` and configures the
  // connection. ERROR_BADDB if the file is not a registry database.
  long Open(const std::string& path);
  void Close();
  bool IsOpen() const { return m_Db != nullptr; }

  // ERROR_SUCCESS or ERROR_FILE_NOT_FOUND.
  long KeyExists(std::string_view path);
  // Creates `path` and its missing parents below the existing key made of the
  // first `baseLength` bytes of `path` (ERROR_FILE_NOT_FOUND if that is gone).
  long CreateKey(const std::string& path, std::size_t baseLength, bool* created);
  long SetValue(std::string_view path, std::string_view name, unsigned int type, const unsigned char* data,
                std::size_t size);
  // The subkey at `index` in byte order of the names, with its last write
  // time (100 ns units since 1601); ERROR_NO_MORE_ITEMS past the end.
  long EnumKey(std::string_view path, unsigned int index, std::string* name, std::int64_t* lastWrite);
  long ReadValue(std::string_view path, std::string_view name, const ValueSink& sink);
  long ListKeys(std::string_view path, std::vector<std::string>* names);
  long ListValues(std::string_view path, std::vector<ValueInfo>* values);
  // Deletes a key without subkeys, with its values.
  long DeleteKey(std::string_view path);
  // Deletes a key with its whole subtree.
  long DeleteTree(std::string_view path);
  long DeleteValue(std::string_view path, std::string_view name);

 private:
  enum Sql : int {
    kBeginRead,
    kBeginWrite,
    kCommit,
    kRollback,
    kFindKey,
    kInsertKey,
    kTouchKey,
    kSetValue,
    kReadValue,
    kChildAt,
    kListKeys,
    kListValues,
    kHasChild,
    kDeleteKeyValues,
    kDeleteKeyRow,
    kDeleteTreeValues,
    kDeleteTreeKeys,
    kDeleteValue,
    kSqlCount,
  };

  long Configure();
  long CheckSchema();
  long CreateSchema();
  long PrepareStatements();
  long Exec(const char* sql);
  sqlite3_stmt* Stmt(Sql id) const { return m_Stmts[id]; }
  // ERROR_SUCCESS with the key's id (and its parent's, 0 for a hive root), or
  // ERROR_FILE_NOT_FOUND.
  long FindKey(std::string_view path, std::int64_t* id, std::int64_t* parent);
  long TouchKey(std::int64_t id, std::int64_t now);

  sqlite3* m_Db = nullptr;
  std::array<sqlite3_stmt*, kSqlCount> m_Stmts{};
};

// Now, in 100 ns units since 1601-01-01 UTC.
std::int64_t NowFiletime();

}  // namespace registry
}  // namespace xk

#endif
