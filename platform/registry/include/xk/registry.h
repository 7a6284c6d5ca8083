#ifndef XK_REGISTRY_H
#define XK_REGISTRY_H

// The registry service: a persistent, hierarchical store of typed values kept
// in one SQLite database that several processes share.
//
// Keys are named by a hive text ("HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER",
// "HKEY_CLASSES_ROOT", "HKEY_USERS", "HKEY_CURRENT_CONFIG") and a path of
// components separated by single backslashes. Names are compared byte by byte,
// case-sensitively, and listed in that order. An empty component (a leading,
// trailing or doubled backslash) is refused with ERROR_BAD_PATHNAME. A key
// name component holds 1 to 254 bytes and a value name 0 to 255 bytes, so that
// each fits its listing record with its terminator.
//
// Every call is one SQLite transaction: a value is written whole or not at all,
// also when the writing process dies. Status codes are Windows-style: 0 is
// success, anything else is a failure.

#include "xk/export.h"

// The first argument of the xkReg* calls: either a hive text or a handle made
// by xkRegOpenKeyEx / xkRegCreateKeyEx.
typedef const void* HKEY;

struct FILETIME {
  unsigned int dwLowDateTime;   // 100 ns intervals since 1601-01-01 UTC
  unsigned int dwHighDateTime;
};

// Listing records. Each begins with the NUL-terminated name.
struct qxRegKey_ {
  char szName[255];
};
struct qxRegValue_ {
  char szName[256];
  unsigned int dwType;
  unsigned int cbData;
};
static_assert(sizeof(qxRegKey_) == 255, "key record is 255 bytes");
static_assert(sizeof(qxRegValue_) == 264, "value record is 264 bytes");

enum : unsigned int {
  REG_NONE = 0,
  REG_SZ = 1,
  REG_EXPAND_SZ = 2,
  REG_BINARY = 3,
  REG_DWORD = 4,
  REG_MULTI_SZ = 7,
  REG_QWORD = 11,
};

enum : unsigned int {
  REG_CREATED_NEW_KEY = 1,
  REG_OPENED_EXISTING_KEY = 2,
};

enum : long {
  ERROR_SUCCESS = 0,
  ERROR_FILE_NOT_FOUND = 2,       // no such key or value
  ERROR_ACCESS_DENIED = 5,        // the database file cannot be opened or written
  ERROR_INVALID_HANDLE = 6,       // neither a hive text nor a live handle
  ERROR_INVALID_DATA = 13,        // a typed read of a value too short for its type
  ERROR_OUTOFMEMORY = 14,
  ERROR_INVALID_PARAMETER = 87,   // a NULL where an argument is required
  ERROR_BAD_PATHNAME = 161,       // an empty path component
  ERROR_FILENAME_EXCED_RANGE = 206,  // a name longer than its limit
  ERROR_MORE_DATA = 234,          // the buffer is too small; the size is set
  ERROR_NO_MORE_ITEMS = 259,
  ERROR_BADDB = 1009,             // the database file is not a registry
  ERROR_REGISTRY_IO_FAILED = 1016,  // SQLite failed (busy past the timeout, I/O)
  ERROR_KEY_DELETED = 1018,       // the key of an open handle was deleted
  ERROR_KEY_HAS_CHILDREN = 1020,  // qxRegDeleteKey on a key with subkeys
  ERROR_INVALID_DATATYPE = 1804,  // a typed read of a value of another type
};

extern "C" {

// --- Configuration ----------------------------------------------------------

// The database file of this process. Unless set here, it is $XK_REGISTRY_PATH
// if that is set, else $XDG_DATA_HOME/xk/registry.db, else
// $HOME/.local/share/xk/registry.db. Missing folders are created with mode 0700
// and the file with mode 0600.
XK_EXPORT const char* xkRegGetDatabasePath(void);
// Switches this process to another database file (NULL: back to the default).
// Open handles keep their key paths and are resolved in the new file.
XK_EXPORT long xkRegSetDatabasePath(const char* path);

// --- Keys and handles -------------------------------------------------------

// Opens an existing key below hKey. ERROR_FILE_NOT_FOUND (errno ENOENT) if it
// is absent. *phkResult is written only on success.
XK_EXPORT long xkRegOpenKeyEx(HKEY hKey, const char* lpSubKey, unsigned int ulOptions,
                              unsigned int samDesired, HKEY* phkResult);
// Opens a key below hKey, creating it and its missing parents in one
// transaction. *lpdwDisposition (optional) tells which happened.
XK_EXPORT long xkRegCreateKeyEx(HKEY hKey, const char* lpSubKey, unsigned int Reserved, char* lpClass,
                                unsigned int dwOptions, unsigned int samDesired, void* lpSecurityAttributes,
                                HKEY* phkResult, unsigned int* lpdwDisposition);
// Creates or replaces a value of the open key (NULL or "" names the default
// value). lpData may be NULL with cbData 0.
XK_EXPORT long xkRegSetValueEx(HKEY hKey, const char* lpValueName, unsigned int Reserved, unsigned int dwType,
                               const unsigned char* lpData, unsigned int cbData);
// The name of the subkey at dwIndex in listing order. *lpcName is the buffer
// size in bytes on entry and the name's length without its NUL on return;
// ERROR_MORE_DATA if the buffer is too small, ERROR_NO_MORE_ITEMS past the end.
// lpftLastWriteTime (optional) receives the subkey's last write time.
XK_EXPORT long xkRegEnumKeyEx(HKEY hKey, unsigned int dwIndex, char* lpName, unsigned int* lpcName,
                              unsigned int* lpReserved, char* lpClass, unsigned int* lpcClass,
                              FILETIME* lpftLastWriteTime);
// Closes a handle. ERROR_INVALID_HANDLE for anything that is not a live handle.
XK_EXPORT long xkRegCloseKey(HKEY hKey);

// --- Reading and listing by path --------------------------------------------

// With lpData NULL, reports the type and size of the value. With a buffer of
// *lpcbData bytes, fills it; ERROR_MORE_DATA (and the size) if it is too small.
XK_EXPORT int qxRegReadValueEx(const char* hive, const char* path, const char* valueName, unsigned int* lpType,
                               unsigned char* lpData, unsigned int* lpcbData, unsigned int flags);
// Value names of a key in listing order. With records NULL, *count receives the
// number of values. Otherwise *count is the capacity on entry; at most that
// many records are written and *count receives the number of values the key
// has now, which a caller compares with the capacity to see growth.
// typeMask selects values by type (bit 1 << type); 0xFFFFFFFF takes all.
XK_EXPORT int qxRegListValueNamesEx(const char* hive, const char* path, qxRegValue_* records,
                                    unsigned int* count, unsigned int typeMask, unsigned int flags);
// The same for subkeys.
XK_EXPORT int qxRegListKeys(const char* hive, const char* path, qxRegKey_* records, unsigned int* count);
XK_EXPORT int qxRegListKeysEx(const char* hive, const char* path, qxRegKey_* records, unsigned int* count,
                              unsigned int flags);
// The first four bytes of a REG_DWORD value; ERROR_INVALID_DATATYPE for any
// other type, ERROR_INVALID_DATA (13) when it is
// shorter than four bytes.
XK_EXPORT int qxRegReadDWORDValueEx(const char* hive, const char* path, const char* valueName, unsigned int* out,
                                    unsigned int flags);
// The text of a REG_SZ or REG_EXPAND_SZ value up to its first NUL, terminated.
// With buffer NULL, *size receives the size needed, NUL included.
XK_EXPORT int qxRegReadStringValueEx(const char* hive, const char* path, const char* valueName, char* buffer,
                                     unsigned int* size, unsigned int flags);

// --- Deleting ---------------------------------------------------------------

// Deletes a key and its values; ERROR_KEY_HAS_CHILDREN if it has subkeys.
XK_EXPORT int qxRegDeleteKey(const char* hive, const char* path, unsigned int reserved, unsigned int flags);
// Deletes a key with all its subkeys and values.
XK_EXPORT int qxRegDeleteSubKey(const char* hive, const char* path, unsigned int reserved, unsigned int flags);
// Deletes one value; ERROR_FILE_NOT_FOUND if the key or value is absent.
XK_EXPORT int qxRegDeleteValue(const char* hive, const char* path, const char* valueName, unsigned int flags);

// --- Batches ----------------------------------------------------------------
//
// A batch makes the calls one thread makes between xkRegBeginBatch and
// xkRegEndBatch a single SQLite transaction: its reads see one state of the
// file, its writes are committed together, and the file locking of a
// transaction is paid once instead of once per call. While a thread is in a
// batch it has the registry of its process to itself: the calls of other
// threads wait until the batch ends. Batches nest; only the outermost one
// opens and ends a transaction. Every call keeps its own status and fault
// point inside a batch.
//
// flags of xkRegBeginBatch: XK_REG_BATCH_READ for a batch that only reads
// (its transaction starts with its first read), XK_REG_BATCH_WRITE for one
// that may write (the write lock is taken at once, waiting up to the busy
// timeout). A write in a read batch fails with ERROR_REGISTRY_IO_FAILED if
// another process has written since the batch's first read.
#define XK_REG_BATCH_READ 0u
#define XK_REG_BATCH_WRITE 1u

// Enters a batch. The thread is in the batch whatever the status: on
// ERROR_SUCCESS its calls share one transaction; on a failure (the file could
// not be opened or locked, ERROR_INVALID_PARAMETER for unknown flags) each
// call runs as its own transaction, as outside a batch. Each xkRegBeginBatch
// is matched by one xkRegEndBatch on the same thread.
XK_EXPORT long xkRegBeginBatch(unsigned int flags);
// Commits what the thread's batch has done so far; the batch's later calls
// each run as their own transaction. ERROR_SUCCESS when there is nothing to
// commit; on a failure the batch's uncommitted writes are rolled back and lost.
// Also a failure when the batch's transaction was lost before (the database
// file was switched or closed for a fork while the batch was open).
// ERROR_INVALID_PARAMETER if the thread is in no batch.
XK_EXPORT long xkRegCommitBatch(void);
// Leaves the thread's batch; leaving the outermost one commits as
// xkRegCommitBatch does, and the thread is out of the batch whatever the
// status. ERROR_INVALID_PARAMETER if the thread is in no batch.
XK_EXPORT long xkRegEndBatch(void);

}  // extern "C"

namespace xk {
namespace registry {

// A batch for the life of a scope: entered by the constructor, left by the
// destructor (whose commit status is lost: call Commit to see it).
class Batch {
 public:
  explicit Batch(unsigned int flags) : m_BeginStatus(xkRegBeginBatch(flags)) {}
  ~Batch() { xkRegEndBatch(); }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  // xkRegBeginBatch's status.
  long BeginStatus() const { return m_BeginStatus; }
  // xkRegCommitBatch.
  long Commit() { return xkRegCommitBatch(); }

 private:
  long m_BeginStatus;
};

}  // namespace registry
}  // namespace xk

#endif
