#include "registry_status.h"

#include <cerrno>

#include "xk/registry.h"

namespace xk {
namespace registry {

int ErrnoFor(long status) {
  switch (status) {
    case ERROR_SUCCESS:
      return 0;
    case ERROR_FILE_NOT_FOUND:
      return ENOENT;
    case ERROR_ACCESS_DENIED:
      return EACCES;
    case ERROR_INVALID_HANDLE:
      return EBADF;
    case ERROR_OUTOFMEMORY:
      return ENOMEM;
    case ERROR_FILENAME_EXCED_RANGE:
      return ENAMETOOLONG;
    case ERROR_MORE_DATA:
      return ERANGE;
    case ERROR_NO_MORE_ITEMS:
      return ENOENT;
    case ERROR_KEY_DELETED:
      return ESTALE;
    case ERROR_KEY_HAS_CHILDREN:
      return ENOTEMPTY;
    case ERROR_INVALID_DATA:
    case ERROR_INVALID_DATATYPE:
    case ERROR_INVALID_PARAMETER:
    case ERROR_BAD_PATHNAME:
    case ERROR_BADDB:
      return EINVAL;
    default:
      return EIO;
  }
}

long WithErrno(long status) {
  if (status != ERROR_SUCCESS) errno = ErrnoFor(status);
  return status;
}

}  // namespace registry
}  // namespace xk
