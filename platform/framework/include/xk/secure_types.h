#ifndef XK_SECURE_TYPES_H
#define XK_SECURE_TYPES_H

#include <memory>
#include <string>
#include <vector>

namespace QX {
namespace Framework {

// The allocator of the framework's "secure" containers. Despite its name it is
// the plain allocator: memory comes from operator new, goes back to operator
// delete, and nothing is wiped on release, reassignment or growth. Callers
// that need wiped memory must not rely on these containers for it.
template <typename T>
class secallocator : public std::allocator<T> {
 public:
  using value_type = T;
  template <typename U>
  struct rebind {
    using other = secallocator<U>;
  };

  secallocator() noexcept = default;
  secallocator(const secallocator&) noexcept = default;
  template <typename U>
  secallocator(const secallocator<U>&) noexcept {}
  secallocator& operator=(const secallocator&) noexcept = default;
  ~secallocator() = default;

  T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T))); }
  void deallocate(T* p, std::size_t) noexcept { ::operator delete(p); }
};

template <typename T, typename U>
bool operator==(const secallocator<T>&, const secallocator<U>&) noexcept {
  return true;
}

}  // namespace Framework
}  // namespace QX

// Identifiers and paths: bytes with no encoding, compared byte by byte.
typedef std::basic_string<char, std::char_traits<char>, QX::Framework::secallocator<char>> SecureString;
// Key material and cipher buffers.
typedef std::vector<unsigned char, QX::Framework::secallocator<unsigned char>> SecureByteVector;

#endif
