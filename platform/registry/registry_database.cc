#include "registry_database.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "database_location.h"
#include "key_path.h"
#include "sql_statement.h"
#include "xk/registry.h"

namespace xk {
namespace registry {

namespace {

// Marks a file as a registry ("xkrg") and gives the layout's version.
constexpr std::int64_t kApplicationId = 0x786B7267;
constexpr std::int64_t kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 5000;

// Keys are found by their full path with one index probe; a key's children
// are found by (parent, name), which also gives the listing order. A subtree
// is a range of paths. Values are clustered by key, in name order. Text
// compares with the BINARY collation: byte by byte, case-sensitively.
// A key's last write time is the later of keys.mtime (creation, a value
// deleted, a subkey added or removed) and the newest vals.mtime, so writing
// a value touches the value's row alone.
constexpr const char* kSchema =
    "CREATE TABLE keys(id INTEGER PRIMARY KEY, parent INTEGER, path TEXT NOT NULL UNIQUE,"
    " name TEXT NOT NULL, mtime INTEGER NOT NULL);"
    "CREATE INDEX keys_by_parent ON keys(parent, name);"
    "CREATE TABLE vals(key INTEGER NOT NULL, name TEXT NOT NULL, type INTEGER NOT NULL,"
    " data BLOB NOT NULL, mtime INTEGER NOT NULL, PRIMARY KEY(key, name)) WITHOUT ROWID;";

constexpr const char* kHives[] = {"HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG", "HKEY_CURRENT_USER",
                                  "HKEY_LOCAL_MACHINE", "HKEY_USERS"};

constexpr const char* kStatements[] = {
    // kBeginRead, kBeginWrite, kCommit, kRollback
    "BEGIN",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    // kFindKey
    "SELECT id, parent FROM keys WHERE path = ?1",
    // kInsertKey
    "INSERT INTO keys(parent, path, name, mtime) VALUES(?1, ?2, ?3, ?4)",
    // kTouchKey
    "UPDATE keys SET mtime = ?2 WHERE id = ?1",
    // kSetValue: one statement finds the key and writes the value; no row
    // changed means no key.
    "INSERT INTO vals(key, name, type, data, mtime) SELECT id, ?2, ?3, ?4, ?5 FROM keys WHERE path = ?1"
    " ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data, mtime = excluded.mtime",
    // kReadValue: no row means no key, a NULL type no value.
    "SELECT v.type, v.data FROM keys AS k LEFT JOIN vals AS v ON v.key = k.id AND v.name = ?2"
    " WHERE k.path = ?1",
    // kChildAt
    "SELECT c.name, max(c.mtime, coalesce((SELECT max(v.mtime) FROM vals AS v WHERE v.key = c.id), 0))"
    " FROM keys AS c WHERE c.parent = ?1 ORDER BY c.name LIMIT 1 OFFSET ?2",
    // kListKeys: no row means no key, one NULL name no subkeys.
    "SELECT c.name FROM keys AS k LEFT JOIN keys AS c ON c.parent = k.id WHERE k.path = ?1 ORDER BY c.name",
    // kListValues: likewise.
    "SELECT v.name, v.type, length(v.data) FROM keys AS k LEFT JOIN vals AS v ON v.key = k.id"
    " WHERE k.path = ?1 ORDER BY v.name",
    // kHasChild
    "SELECT 1 FROM keys WHERE parent = ?1 LIMIT 1",
    // kDeleteKeyValues, kDeleteKeyRow
    "DELETE FROM vals WHERE key = ?1",
    "DELETE FROM keys WHERE id = ?1",
    // kDeleteTreeValues, kDeleteTreeKeys
    "DELETE FROM vals WHERE key IN (SELECT id FROM keys WHERE path >= ?1 AND path < ?2)",
    "DELETE FROM keys WHERE path >= ?1 AND path < ?2",
    // kDeleteValue
    "DELETE FROM vals WHERE key = ?1 AND name = ?2",
    // kSavepoint, kRelease, kRollbackTo: an operation inside a batch
    "SAVEPOINT xkop",
    "RELEASE xkop",
    "ROLLBACK TO xkop",
    // kSetValueById: kSetValue for a key whose id a batch knows
    "INSERT INTO vals(key, name, type, data, mtime) VALUES(?1, ?2, ?3, ?4, ?5)"
    " ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data, mtime = excluded.mtime",
};
static_assert(std::size(kStatements) == 22, "one text per statement");

struct SchemaState {
  std::int64_t applicationId = 0;
  std::int64_t version = 0;
  std::int64_t objects = 0;
};

long ReadSchemaState(sqlite3* db, SchemaState* state) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db,
                              "SELECT (SELECT application_id FROM pragma_application_id),"
                              " (SELECT user_version FROM pragma_user_version),"
                              " (SELECT count(*) FROM sqlite_schema)",
                              -1, &stmt, nullptr);
  if (rc == SQLITE_OK) {
    rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
      state->applicationId = sqlite3_column_int64(stmt, 0);
      state->version = sqlite3_column_int64(stmt, 1);
      state->objects = sqlite3_column_int64(stmt, 2);
      rc = SQLITE_OK;
    }
  }
  sqlite3_finalize(stmt);
  return StatusFromSqlite(rc);
}

bool IsRegistry(const SchemaState& state) {
  return state.applicationId == kApplicationId && state.version == kSchemaVersion;
}

bool IsEmpty(const SchemaState& state) {
  return state.applicationId == 0 && state.version == 0 && state.objects == 0;
}

}  // namespace

std::int64_t NowFiletime() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  constexpr std::int64_t kSecondsFrom1601To1970 = 11644473600;
  return (static_cast<std::int64_t>(now.tv_sec) + kSecondsFrom1601To1970) * 10000000 + now.tv_nsec / 100;
}

long RegistryDatabase::Open(const std::string& path) {
  Close();
  long status = PrepareDatabaseFile(path);
  if (status != ERROR_SUCCESS) return status;
  // The file exists now, so no SQLITE_OPEN_CREATE; the service serialises all
  // use of the connection, so SQLite's own per-connection mutex is not needed.
  int rc = sqlite3_open_v2(path.c_str(), &m_Db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    int error = m_Db != nullptr ? sqlite3_system_errno(m_Db) : 0;
    Close();
    if ((rc & 0xFF) == SQLITE_CANTOPEN) {
      return error == EACCES || error == EPERM ? ERROR_ACCESS_DENIED : ERROR_REGISTRY_IO_FAILED;
    }
    return StatusFromSqlite(rc);
  }
  status = Configure();
  if (status == ERROR_SUCCESS) status = CheckSchema();
  if (status == ERROR_SUCCESS) status = PrepareStatements();
  if (status != ERROR_SUCCESS) Close();
  if (status == ERROR_SUCCESS) m_Counter = MapChangeCounter(path);
  return status;
}

void RegistryDatabase::Close() {
  ForgetReads(true);
  m_Memo.active = false;
  // An open batch's transaction ends here unwritten.
  m_BatchWrote = false;
  m_Counter = nullptr;
  for (sqlite3_stmt*& stmt : m_Stmts) {
    sqlite3_finalize(stmt);
    stmt = nullptr;
  }
  if (m_Db != nullptr) sqlite3_close_v2(m_Db);
  m_Db = nullptr;
}

long RegistryDatabase::Exec(const char* sql) { return StatusFromSqlite(sqlite3_exec(m_Db, sql, nullptr, nullptr, nullptr)); }

long RegistryDatabase::Configure() {
  sqlite3_extended_result_codes(m_Db, 1);
  sqlite3_busy_timeout(m_Db, kBusyTimeoutMs);
  // WAL: readers never block the writer and a writer never blocks readers; a
  // commit is one append to the log. The mode is kept in the file.
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(m_Db, "PRAGMA journal_mode=WAL", -1, &stmt, nullptr);
  if (rc == SQLITE_OK) rc = sqlite3_step(stmt);
  bool wal = rc == SQLITE_ROW && sqlite3_column_text(stmt, 0) != nullptr &&
             std::string_view(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0))) == "wal";
  sqlite3_finalize(stmt);
  if (rc != SQLITE_ROW) return StatusFromSqlite(rc);
  if (!wal) return ERROR_REGISTRY_IO_FAILED;
  // NORMAL: a commit survives the death of the process; a power loss may lose
  // the last commits but never corrupts the file.
  return Exec("PRAGMA synchronous=NORMAL");
}

long RegistryDatabase::CheckSchema() {
  SchemaState state;
  long status = ReadSchemaState(m_Db, &state);
  if (status != ERROR_SUCCESS) return status;
  if (IsRegistry(state)) return ERROR_SUCCESS;
  if (!IsEmpty(state)) return ERROR_BADDB;
  return CreateSchema();
}

long RegistryDatabase::CreateSchema() {
  long status = Exec("BEGIN IMMEDIATE");
  if (status != ERROR_SUCCESS) return status;
  // Another process may have set the file up since the first look.
  SchemaState state;
  status = ReadSchemaState(m_Db, &state);
  if (status == ERROR_SUCCESS && !IsRegistry(state)) {
    if (!IsEmpty(state)) status = ERROR_BADDB;
    if (status == ERROR_SUCCESS) status = Exec(kSchema);
    std::string setup = "PRAGMA application_id=" + std::to_string(kApplicationId) +
                        "; PRAGMA user_version=" + std::to_string(kSchemaVersion) + ";";
    std::int64_t now = NowFiletime();
    for (const char* hive : kHives) {
      setup += std::string("INSERT INTO keys(parent, path, name, mtime) VALUES(NULL, '") + hive + "', '" + hive +
               "', " + std::to_string(now) + ");";
    }
    if (status == ERROR_SUCCESS) status = Exec(setup.c_str());
  }
  if (status == ERROR_SUCCESS) status = Exec("COMMIT");
  if (status != ERROR_SUCCESS && !sqlite3_get_autocommit(m_Db)) Exec("ROLLBACK");
  return status;
}

long RegistryDatabase::PrepareStatements() {
  for (int i = 0; i < kSqlCount; ++i) {
    int rc = sqlite3_prepare_v3(m_Db, kStatements[i], -1, SQLITE_PREPARE_PERSISTENT, &m_Stmts[i], nullptr);
    if (rc != SQLITE_OK) return StatusFromSqlite(rc);
  }
  return ERROR_SUCCESS;
}

long RegistryDatabase::FindKey(std::string_view path, std::int64_t* id, std::int64_t* parent) {
  BatchMemo* memo = Memo();
  if (memo != nullptr && memo->hasKey && memo->keyPath == path) {
    *id = memo->keyId;
    if (parent != nullptr) *parent = memo->keyParent;
    return ERROR_SUCCESS;
  }
  Statement find(Stmt(kFindKey));
  find.Bind(1, path);
  int rc = find.Step();
  if (rc == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
  if (rc != SQLITE_ROW) return StatusFromSqlite(rc);
  *id = find.Int(0);
  const std::int64_t parentId = find.IsNull(1) ? 0 : find.Int(1);
  if (parent != nullptr) *parent = parentId;
  if (memo != nullptr) {
    memo->hasKey = true;
    memo->keyPath.assign(path);
    memo->keyId = *id;
    memo->keyParent = parentId;
  }
  return ERROR_SUCCESS;
}

long RegistryDatabase::TouchKey(std::int64_t id, std::int64_t now) {
  Statement touch(Stmt(kTouchKey));
  touch.Bind(1, id);
  touch.Bind(2, now);
  return touch.Run();
}

Transaction RegistryDatabase::Tx(Sql begin) {
  if (InTransaction()) return Transaction(m_Db, Stmt(kSavepoint), Stmt(kRelease), Stmt(kRollbackTo), Stmt(kRelease));
  return Transaction(m_Db, Stmt(begin), Stmt(kCommit), Stmt(kRollback));
}

bool RegistryDatabase::InTransaction() const { return m_Db != nullptr && !sqlite3_get_autocommit(m_Db); }

long RegistryDatabase::BeginBatch(bool write) {
  Statement begin(Stmt(write ? kBeginWrite : kBeginRead));
  long status = begin.Run();
  m_Memo.active = status == ERROR_SUCCESS;
  return status;
}

long RegistryDatabase::CommitBatch() {
  ForgetReads(true);
  m_Memo.active = false;
  const bool wrote = m_BatchWrote;
  m_BatchWrote = false;
  // Some failures (I/O, a full disk, no memory) end the transaction at once:
  // what the batch wrote before is lost.
  if (!InTransaction()) return ERROR_REGISTRY_IO_FAILED;
  if (wrote) MoveCounter();
  long status = Statement(Stmt(kCommit)).Run();
  if (status != ERROR_SUCCESS) RollbackBatch();
  if (wrote) MoveCounter();
  return status;
}

void RegistryDatabase::RollbackBatch() {
  ForgetReads(true);
  m_Memo.active = false;
  m_BatchWrote = false;
  if (InTransaction()) Statement(Stmt(kRollback)).Run();
}

RegistryDatabase::ChangeNote::ChangeNote(RegistryDatabase& db) : m_Db(db), m_Moves(!db.InTransaction()) {
  if (m_Moves) {
    m_Db.MoveCounter();
  } else {
    m_Db.m_BatchWrote = true;
  }
}

RegistryDatabase::ChangeNote::~ChangeNote() {
  if (m_Moves) m_Db.MoveCounter();
}

void RegistryDatabase::MoveCounter() {
  // Sequentially consistent: the move after a commit is ordered after every
  // store of the commit, so a reader that loads the new value reads the new
  // state; the move before a write is ordered before its first store.
  if (m_Counter != nullptr) m_Counter->fetch_add(1, std::memory_order_seq_cst);
}

RegistryDatabase::BatchMemo* RegistryDatabase::Memo() {
  // A failed statement may have ended the transaction under the batch.
  return m_Memo.active && InTransaction() ? &m_Memo : nullptr;
}

void RegistryDatabase::ForgetReads(bool keys) {
  if (keys) m_Memo.hasKey = false;
  m_Memo.hasList = false;
  m_Memo.list.clear();
  ForgetValue();
}

void RegistryDatabase::ForgetValue() {
  // Values may be secrets: their copies do not outlive the batch.
  if (!m_Memo.valueBytes.empty()) explicit_bzero(m_Memo.valueBytes.data(), m_Memo.valueBytes.size());
  m_Memo.hasValue = false;
  m_Memo.valueBytes.clear();
}

long RegistryDatabase::KeyExists(std::string_view path) {
  std::int64_t id = 0;
  return FindKey(path, &id, nullptr);
}

long RegistryDatabase::CreateKey(const std::string& path, std::size_t baseLength, bool* created) {
  *created = false;
  // Opening an existing key takes no write lock.
  long status = KeyExists(path);
  if (status != ERROR_FILE_NOT_FOUND) return status;

  MemoPause pause(*this, false);
  ChangeNote change(*this);
  Transaction tx = Tx(kBeginWrite);
  if ((status = tx.Begin()) != ERROR_SUCCESS) return status;
  std::int64_t parent = 0;
  if ((status = FindKey(std::string_view(path).substr(0, baseLength), &parent, nullptr)) != ERROR_SUCCESS) {
    return status;
  }
  std::int64_t now = NowFiletime();
  bool made = false;
  for (std::size_t pos = baseLength; pos < path.size();) {
    std::size_t end = path.find('\\', pos + 1);
    if (end == std::string::npos) end = path.size();
    std::string_view prefix = std::string_view(path).substr(0, end);
    std::int64_t id = 0;
    // Below a key made here nothing can exist yet.
    status = made ? ERROR_FILE_NOT_FOUND : FindKey(prefix, &id, nullptr);
    if (status == ERROR_FILE_NOT_FOUND) {
      if (!made && (status = TouchKey(parent, now)) != ERROR_SUCCESS) return status;
      Statement insert(Stmt(kInsertKey));
      insert.Bind(1, parent);
      insert.Bind(2, prefix);
      insert.Bind(3, std::string_view(path).substr(pos + 1, end - pos - 1));
      insert.Bind(4, now);
      status = insert.Run();
      id = sqlite3_last_insert_rowid(m_Db);
      made = true;
    }
    if (status != ERROR_SUCCESS) return status;
    parent = id;
    pos = end;
  }
  if ((status = tx.Commit()) != ERROR_SUCCESS) return status;
  *created = made;
  return ERROR_SUCCESS;
}

long RegistryDatabase::SetValue(std::string_view path, std::string_view name, unsigned int type,
                                const unsigned char* data, std::size_t size) {
  // Inside a batch the key's id may be known already.
  const BatchMemo* memo = Memo();
  const bool byId = memo != nullptr && memo->hasKey && memo->keyPath == path;
  const std::int64_t keyId = byId ? memo->keyId : 0;
  MemoPause pause(*this, false);
  ChangeNote change(*this);
  // A single write statement takes the write lock (waiting in the busy
  // handler) before it reads, like BEGIN IMMEDIATE, and is its own transaction.
  Statement set(Stmt(byId ? kSetValueById : kSetValue));
  if (byId) {
    set.Bind(1, keyId);
  } else {
    set.Bind(1, path);
  }
  set.Bind(2, name);
  set.Bind(3, static_cast<std::int64_t>(type));
  set.BindBlob(4, data, size);
  set.Bind(5, NowFiletime());
  long status = set.Run();
  if (status != ERROR_SUCCESS) return status;
  return sqlite3_changes(m_Db) == 0 ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS;
}

long RegistryDatabase::EnumKey(std::string_view path, unsigned int index, std::string* name,
                               std::int64_t* lastWrite) {
  Transaction tx = Tx(kBeginRead);
  long status = tx.Begin();
  std::int64_t id = 0;
  if (status == ERROR_SUCCESS) status = FindKey(path, &id, nullptr);
  if (status != ERROR_SUCCESS) return status;
  {
    Statement child(Stmt(kChildAt));
    child.Bind(1, id);
    child.Bind(2, static_cast<std::int64_t>(index));
    int rc = child.Step();
    if (rc == SQLITE_DONE) return ERROR_NO_MORE_ITEMS;
    if (rc != SQLITE_ROW) return StatusFromSqlite(rc);
    name->assign(child.Text(0));
    *lastWrite = child.Int(1);
  }
  return tx.Commit();
}

long RegistryDatabase::ReadValue(std::string_view path, std::string_view name, const ValueSink& sink) {
  BatchMemo* memo = Memo();
  if (memo != nullptr && memo->hasValue && memo->valuePath == path && memo->valueName == name) {
    sink(memo->valueType, memo->valueBytes.data(), memo->valueBytes.size());
    return ERROR_SUCCESS;
  }
  Statement read(Stmt(kReadValue));
  read.Bind(1, path);
  read.Bind(2, name);
  int rc = read.Step();
  if (rc == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
  if (rc != SQLITE_ROW) return StatusFromSqlite(rc);
  if (read.IsNull(0)) return ERROR_FILE_NOT_FOUND;
  std::size_t size = 0;
  const unsigned char* data = read.Blob(1, &size);
  const unsigned int type = static_cast<unsigned int>(read.Int(0));
  if (memo != nullptr) {
    ForgetValue();
    memo->hasValue = true;
    memo->valuePath.assign(path);
    memo->valueName.assign(name);
    memo->valueType = type;
    memo->valueBytes.assign(data, data + size);
  }
  sink(type, data, size);
  return ERROR_SUCCESS;
}

long RegistryDatabase::ListKeys(std::string_view path, std::vector<std::string>* names) {
  names->clear();
  Statement list(Stmt(kListKeys));
  list.Bind(1, path);
  int rc = list.Step();
  if (rc == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
  for (; rc == SQLITE_ROW; rc = list.Step()) {
    if (!list.IsNull(0)) names->emplace_back(list.Text(0));
  }
  return rc == SQLITE_DONE ? ERROR_SUCCESS : StatusFromSqlite(rc);
}

long RegistryDatabase::ListValues(std::string_view path, std::vector<ValueInfo>* values) {
  values->clear();
  BatchMemo* memo = Memo();
  if (memo != nullptr && memo->hasList && memo->listPath == path) {
    *values = memo->list;
    return ERROR_SUCCESS;
  }
  long status = ListValuesOf(path, values);
  if (status == ERROR_SUCCESS && memo != nullptr) {
    memo->hasList = true;
    memo->listPath.assign(path);
    memo->list = *values;
  }
  return status;
}

long RegistryDatabase::ListValuesOf(std::string_view path, std::vector<ValueInfo>* values) {
  Statement list(Stmt(kListValues));
  list.Bind(1, path);
  int rc = list.Step();
  if (rc == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
  for (; rc == SQLITE_ROW; rc = list.Step()) {
    if (list.IsNull(0)) continue;
    values->push_back(ValueInfo{std::string(list.Text(0)), static_cast<unsigned int>(list.Int(1)),
                                static_cast<unsigned int>(list.Int(2))});
  }
  return rc == SQLITE_DONE ? ERROR_SUCCESS : StatusFromSqlite(rc);
}

long RegistryDatabase::DeleteKey(std::string_view path) {
  MemoPause pause(*this, true);
  ChangeNote change(*this);
  Transaction tx = Tx(kBeginWrite);
  long status = tx.Begin();
  std::int64_t id = 0;
  std::int64_t parent = 0;
  if (status == ERROR_SUCCESS) status = FindKey(path, &id, &parent);
  if (status != ERROR_SUCCESS) return status;
  if (parent == 0) return ERROR_ACCESS_DENIED;  // a hive root
  {
    Statement child(Stmt(kHasChild));
    child.Bind(1, id);
    int rc = child.Step();
    if (rc == SQLITE_ROW) return ERROR_KEY_HAS_CHILDREN;
    if (rc != SQLITE_DONE) return StatusFromSqlite(rc);
  }
  Statement values(Stmt(kDeleteKeyValues));
  values.Bind(1, id);
  if ((status = values.Run()) != ERROR_SUCCESS) return status;
  Statement key(Stmt(kDeleteKeyRow));
  key.Bind(1, id);
  if ((status = key.Run()) != ERROR_SUCCESS) return status;
  if ((status = TouchKey(parent, NowFiletime())) != ERROR_SUCCESS) return status;
  return tx.Commit();
}

long RegistryDatabase::DeleteTree(std::string_view path) {
  MemoPause pause(*this, true);
  ChangeNote change(*this);
  Transaction tx = Tx(kBeginWrite);
  long status = tx.Begin();
  std::int64_t id = 0;
  std::int64_t parent = 0;
  if (status == ERROR_SUCCESS) status = FindKey(path, &id, &parent);
  if (status != ERROR_SUCCESS) return status;
  if (parent == 0) return ERROR_ACCESS_DENIED;  // a hive root
  std::string low;
  std::string high;
  SubtreeBounds(path, &low, &high);
  Statement treeValues(Stmt(kDeleteTreeValues));
  treeValues.Bind(1, low);
  treeValues.Bind(2, high);
  if ((status = treeValues.Run()) != ERROR_SUCCESS) return status;
  Statement treeKeys(Stmt(kDeleteTreeKeys));
  treeKeys.Bind(1, low);
  treeKeys.Bind(2, high);
  if ((status = treeKeys.Run()) != ERROR_SUCCESS) return status;
  Statement values(Stmt(kDeleteKeyValues));
  values.Bind(1, id);
  if ((status = values.Run()) != ERROR_SUCCESS) return status;
  Statement key(Stmt(kDeleteKeyRow));
  key.Bind(1, id);
  if ((status = key.Run()) != ERROR_SUCCESS) return status;
  if ((status = TouchKey(parent, NowFiletime())) != ERROR_SUCCESS) return status;
  return tx.Commit();
}

long RegistryDatabase::DeleteValue(std::string_view path, std::string_view name) {
  MemoPause pause(*this, false);
  ChangeNote change(*this);
  Transaction tx = Tx(kBeginWrite);
  long status = tx.Begin();
  std::int64_t id = 0;
  if (status == ERROR_SUCCESS) status = FindKey(path, &id, nullptr);
  if (status != ERROR_SUCCESS) return status;
  Statement erase(Stmt(kDeleteValue));
  erase.Bind(1, id);
  erase.Bind(2, name);
  if ((status = erase.Run()) != ERROR_SUCCESS) return status;
  if (sqlite3_changes(m_Db) == 0) return ERROR_FILE_NOT_FOUND;
  if ((status = TouchKey(id, NowFiletime())) != ERROR_SUCCESS) return status;
  return tx.Commit();
}

}  // namespace registry
}  // namespace xk
