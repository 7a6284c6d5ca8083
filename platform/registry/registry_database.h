#ifndef XK_REGISTRY_REGISTRY_DATABASE_H
#define XK_REGISTRY_REGISTRY_DATABASE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "change_stamp.h"
#include "sql_statement.h"

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
  // The open file's change counter (xk/registry_stamp.h), or nullptr when the
  // file is closed or its stamp could not be mapped. Every operation below
  // that writes moves it before and after its own transaction; inside a
  // batch's transaction the batch's commit moves it instead.
  ChangeCounter* Counter() const { return m_Counter; }

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

  // The transaction of a batch: opened by BeginBatch (write: with the write
  // lock, else deferred to the first read), ended by CommitBatch (which rolls
  // back when the commit fails, and fails when a failed statement has ended
  // the transaction already) or RollbackBatch. While it is open every
  // operation above runs inside it, each of its own transactions becoming a
  // savepoint.
  long BeginBatch(bool write);
  long CommitBatch();
  void RollbackBatch();
  // Whether a transaction is open on the connection.
  bool InTransaction() const;

 private:
  // What a batch's transaction has read, kept until the batch writes or ends:
  // nothing changes the file under an open transaction but the transaction
  // itself, so reading the same key, listing or value again in the batch
  // (as two-pass listings and size-then-bytes reads do) is answered from
  // here. Key ids are forgotten only when keys are deleted, listings and
  // values at every write.
  struct BatchMemo {
    bool active = false;
    bool hasKey = false;
    std::string keyPath;
    std::int64_t keyId = 0;
    std::int64_t keyParent = 0;
    bool hasList = false;
    std::string listPath;
    std::vector<ValueInfo> list;
    bool hasValue = false;
    std::string valuePath;
    std::string valueName;
    unsigned int valueType = 0;
    std::vector<unsigned char> valueBytes;
  };
  // ListValues without the memo.
  long ListValuesOf(std::string_view path, std::vector<ValueInfo>* values);
  // For the life of a write operation: the memo is emptied (key ids too with
  // `keys`) and neither used nor filled.
  class MemoPause {
   public:
    MemoPause(RegistryDatabase& db, bool keys) : m_Db(db), m_Active(db.m_Memo.active) {
      db.ForgetReads(keys);
      db.m_Memo.active = false;
    }
    ~MemoPause() { m_Db.m_Memo.active = m_Active; }
    MemoPause(const MemoPause&) = delete;
    MemoPause& operator=(const MemoPause&) = delete;

   private:
    RegistryDatabase& m_Db;
    bool m_Active;
  };
  // Moves the change counter before a write and again after it (when the
  // write's transaction, committed or not, is over); inside a batch's
  // transaction it only notes that the batch wrote.
  class ChangeNote {
   public:
    explicit ChangeNote(RegistryDatabase& db);
    ~ChangeNote();
    ChangeNote(const ChangeNote&) = delete;
    ChangeNote& operator=(const ChangeNote&) = delete;

   private:
    RegistryDatabase& m_Db;
    bool m_Moves;
  };
  void MoveCounter();

  // The memo while a batch's transaction is open, else nullptr.
  BatchMemo* Memo();
  // Forgets the listing and the value (the value's bytes are wiped); with
  // `keys`, the key id too.
  void ForgetReads(bool keys);
  // Forgets the value, wiping its bytes.
  void ForgetValue();

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
    kSavepoint,
    kRelease,
    kRollbackTo,
    kSetValueById,
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
  // A transaction that `begin` (kBeginRead or kBeginWrite) opens, or a
  // savepoint when a batch's transaction is open already.
  Transaction Tx(Sql begin);

  sqlite3* m_Db = nullptr;
  std::array<sqlite3_stmt*, kSqlCount> m_Stmts{};
  BatchMemo m_Memo;
  ChangeCounter* m_Counter = nullptr;
  bool m_BatchWrote = false;  // a write ran in the open batch's transaction
};

// Now, in 100 ns units since 1601-01-01 UTC.
std::int64_t NowFiletime();

}  // namespace registry
}  // namespace xk

#endif
