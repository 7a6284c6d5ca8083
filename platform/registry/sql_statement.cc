#include "sql_statement.h"

#include "xk/registry.h"

namespace xk {
namespace registry {

long StatusFromSqlite(int rc) {
  switch (rc & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return ERROR_SUCCESS;
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return ERROR_BADDB;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return ERROR_ACCESS_DENIED;
    case SQLITE_NOMEM:
      return ERROR_OUTOFMEMORY;
    case SQLITE_TOOBIG:
      return ERROR_INVALID_PARAMETER;
    default:
      return ERROR_REGISTRY_IO_FAILED;
  }
}

void Statement::Bind(int index, std::string_view text) {
  // An empty view may have no data pointer, which SQLite would bind as NULL.
  const char* data = text.data() != nullptr ? text.data() : "";
  int rc = sqlite3_bind_text64(m_Stmt, index, data, text.size(), SQLITE_STATIC, SQLITE_UTF8);
  if (m_BindError == SQLITE_OK) m_BindError = rc;
}

void Statement::Bind(int index, std::int64_t number) {
  int rc = sqlite3_bind_int64(m_Stmt, index, number);
  if (m_BindError == SQLITE_OK) m_BindError = rc;
}

void Statement::BindBlob(int index, const void* data, std::size_t size) {
  // A zero-length value is an empty blob, never NULL.
  int rc = size == 0 ? sqlite3_bind_zeroblob(m_Stmt, index, 0)
                     : sqlite3_bind_blob64(m_Stmt, index, data, size, SQLITE_STATIC);
  if (m_BindError == SQLITE_OK) m_BindError = rc;
}

int Statement::Step() {
  if (m_BindError != SQLITE_OK) return m_BindError;
  return sqlite3_step(m_Stmt);
}

long Statement::Run() {
  int rc = Step();
  return rc == SQLITE_DONE || rc == SQLITE_ROW ? ERROR_SUCCESS : StatusFromSqlite(rc);
}

std::string_view Statement::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(m_Stmt, column);
  int size = sqlite3_column_bytes(m_Stmt, column);
  return text == nullptr ? std::string_view() : std::string_view(reinterpret_cast<const char*>(text), size);
}

const unsigned char* Statement::Blob(int column, std::size_t* size) const {
  const void* blob = sqlite3_column_blob(m_Stmt, column);
  *size = static_cast<std::size_t>(sqlite3_column_bytes(m_Stmt, column));
  return static_cast<const unsigned char*>(blob);
}

Transaction::~Transaction() {
  // Some failures (I/O, a full disk, no memory) end the transaction already.
  if (m_Open && !sqlite3_get_autocommit(m_Db)) {
    sqlite3_step(m_Rollback);
    sqlite3_reset(m_Rollback);
    if (m_Release != nullptr && !sqlite3_get_autocommit(m_Db)) {
      sqlite3_step(m_Release);
      sqlite3_reset(m_Release);
    }
  }
}

long Transaction::Begin() {
  int rc = sqlite3_step(m_Begin);
  sqlite3_reset(m_Begin);
  if (rc != SQLITE_DONE) return StatusFromSqlite(rc);
  m_Open = true;
  return ERROR_SUCCESS;
}

long Transaction::Commit() {
  int rc = sqlite3_step(m_Commit);
  sqlite3_reset(m_Commit);
  if (rc != SQLITE_DONE) return StatusFromSqlite(rc);
  m_Open = false;
  return ERROR_SUCCESS;
}

}  // namespace registry
}  // namespace xk
