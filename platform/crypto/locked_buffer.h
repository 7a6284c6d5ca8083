#ifndef XK_CRYPTO_LOCKED_BUFFER_H
#define XK_CRYPTO_LOCKED_BUFFER_H

#include <cstddef>

namespace xk {
namespace crypto {

// Bytes of key material on pages of their own: mapped anonymously, locked
// into memory so they are not swapped out, left out of core dumps, and wiped
// before they are unmapped. When the pages cannot be locked (RLIMIT_MEMLOCK
// reached, say) the buffer carries on unlocked and IsLocked() says so.
// The constructor throws kCryptoOutOfMemory when no pages can be mapped.
class LockedBuffer {
 public:
  explicit LockedBuffer(std::size_t size);
  ~LockedBuffer();
  LockedBuffer(const LockedBuffer&) = delete;
  LockedBuffer& operator=(const LockedBuffer&) = delete;

  unsigned char* Data() { return m_Data; }
  const unsigned char* Data() const { return m_Data; }
  std::size_t Size() const { return m_Size; }
  bool IsLocked() const { return m_Locked; }

 private:
  unsigned char* m_Data;
  std::size_t m_Size;
  std::size_t m_MappedSize;
  bool m_Locked;
};

}  // namespace crypto
}  // namespace xk

#endif
