#ifndef XK_REGISTRY_SQL_STATEMENT_H
#define XK_REGISTRY_SQL_STATEMENT_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace xk {
namespace registry {

// The registry status for a failed SQLite result code: ERROR_BADDB for a file
// that is not a (sound) database, ERROR_ACCESS_DENIED for a read-only or
// forbidden file, ERROR_OUTOFMEMORY, ERROR_INVALID_PARAMETER for a value past
// SQLite's size limit, and ERROR_REGISTRY_IO_FAILED for everything else (busy
// past the timeout, I/O errors, a full disk).
long StatusFromSqlite(int rc);

// One use of a cached prepared statement: binds, steps and reads columns, and
// resets the statement when it goes out of scope. Text and blobs are bound
// without copying, so they must outlive the Statement.
class Statement {
 public:
  explicit Statement(sqlite3_stmt* stmt) : m_Stmt(stmt) {}
  ~Statement() { sqlite3_reset(m_Stmt); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void Bind(int index, std::string_view text);
  void Bind(int index, std::int64_t number);
  void BindBlob(int index, const void* data, std::size_t size);
  // SQLITE_ROW, SQLITE_DONE, or the error of a failed bind or step.
  int Step();
  // ERROR_SUCCESS once the statement has run to its end, else the failure.
  long Run();

  bool IsNull(int column) const { return sqlite3_column_type(m_Stmt, column) == SQLITE_NULL; }
  std::int64_t Int(int column) const { return sqlite3_column_int64(m_Stmt, column); }
  std::string_view Text(int column) const;
  // The bytes of a blob column; valid until the next Step or the reset.
  const unsigned char* Blob(int column, std::size_t* size) const;

 private:
  sqlite3_stmt* m_Stmt;
  int m_BindError = SQLITE_OK;
};

// One transaction over cached statements, or, inside a transaction that is
// already open (a batch), one savepoint: Begin runs `begin`, Commit `commit`,
// and a transaction left without a commit is undone by `rollback`, then by
// `release` when that is given (a savepoint stays on the stack after
// ROLLBACK TO). Rolls back in the destructor unless Commit succeeded.
class Transaction {
 public:
  Transaction(sqlite3* db, sqlite3_stmt* begin, sqlite3_stmt* commit, sqlite3_stmt* rollback,
              sqlite3_stmt* release = nullptr)
      : m_Db(db), m_Begin(begin), m_Commit(commit), m_Rollback(rollback), m_Release(release) {}
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  long Begin();
  long Commit();

 private:
  sqlite3* m_Db;
  sqlite3_stmt* m_Begin;
  sqlite3_stmt* m_Commit;
  sqlite3_stmt* m_Rollback;
  sqlite3_stmt* m_Release;
  bool m_Open = false;
};

}  // namespace registry
}  // namespace xk

#endif
