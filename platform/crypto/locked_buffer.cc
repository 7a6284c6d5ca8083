#include "locked_buffer.h"

#include <openssl/crypto.h>
#include <sys/mman.h>
#include <unistd.h>

#include "exception.h"

namespace xk {
namespace crypto {

namespace {

std::size_t PageSize() {
  static const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

}  // namespace

LockedBuffer::LockedBuffer(std::size_t size) : m_Data(nullptr), m_Size(size), m_MappedSize(0), m_Locked(false) {
  const std::size_t page = PageSize();
  m_MappedSize = size == 0 ? page : (size + page - 1) / page * page;
  void* pages = mmap(nullptr, m_MappedSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) Throw(QX::Framework::kCryptoOutOfMemory, "LockedBuffer", "mmap failed");
  m_Data = static_cast<unsigned char*>(pages);
  m_Locked = mlock(pages, m_MappedSize) == 0;
  // Without MADV_DONTDUMP (an old kernel) the key would appear in a core
  // dump; the buffer is still usable, so this is not a failure.
  (void)madvise(pages, m_MappedSize, MADV_DONTDUMP);
}

LockedBuffer::~LockedBuffer() {
  OPENSSL_cleanse(m_Data, m_MappedSize);
  if (m_Locked) munlock(m_Data, m_MappedSize);
  munmap(m_Data, m_MappedSize);
}

}  // namespace crypto
}  // namespace xk
