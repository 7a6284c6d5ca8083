#ifndef XK_REGISTRY_STATUS_H
#define XK_REGISTRY_STATUS_H

namespace xk {
namespace registry {

// The errno value that describes a registry status code: ENOENT for an absent
// key or value, EBADF for a bad handle, EIO for a storage failure, and so on.
// 0 for ERROR_SUCCESS.
int ErrnoFor(long status);

// Sets errno from `status` when it is a failure (leaves errno alone on success)
// and returns `status`.
long WithErrno(long status);

}  // namespace registry
}  // namespace xk

#endif
