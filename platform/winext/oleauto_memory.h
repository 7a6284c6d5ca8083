#ifndef XK_WINEXT_OLEAUTO_MEMORY_H
#define XK_WINEXT_OLEAUTO_MEMORY_H

#include <cstddef>
#include <cstdlib>

#include "xk/fault_point.h"

namespace xk {
namespace winext {

// Name of the fault point inside Allocate. Arming it (kNull or kCode) makes the
// nth allocation of the service fail, wherever it falls: a BSTR, an array's
// block, an element copy, or the growth of the live-BSTR table.
inline constexpr char kAllocateFaultPoint[] = "winext.Allocate";

// Small blocks (up to kCachedBlockBytes) are kept by the thread that releases
// them, a few of each size class, and handed out again by its next
// allocations of the same class: the library makes and destroys a dozen small
// arrays in each write, and the general allocator would cost more than
// everything else those arrays do. Class k holds blocks of 16 * (k + 1)
// bytes; every cached block was allocated with its class's full size, so
// that it serves any request of that class. Builds with AddressSanitizer keep
// no cache, so that every block goes back to the sanitizer at once and a use
// after release is still caught.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kCacheBlocks = false;
#else
inline constexpr bool kCacheBlocks = true;
#endif
inline constexpr std::size_t kCachedBlockBytes = 128;
inline constexpr std::size_t kBlockClassBytes = 16;
inline constexpr std::size_t kBlockClasses = kCachedBlockBytes / kBlockClassBytes;
inline constexpr unsigned kBlocksPerClass = 8;

// The blocks one thread has released and not yet taken again: per class, a
// list linked through each block's first word. It is plain data, zero at the
// start of each thread, so that finding it costs no more than finding any
// thread-local word. The first block a thread keeps registers its cache with
// a thread key (RegisterBlockCache), whose destructor frees the blocks and
// closes the cache when the thread ends; from then on that thread's blocks go
// straight back to the allocator. The main thread's cache is never closed:
// what it holds when the process ends is still reachable from it.
struct BlockCache {
  void* heads[kBlockClasses];
  unsigned char counts[kBlockClasses];
  bool registered;
  bool closed;
};

inline constinit thread_local BlockCache tBlockCache{};

// Registers this thread's cache for its release at thread end; false when
// that is impossible (the cache is then left unused).
bool RegisterBlockCache(BlockCache& cache) noexcept;

inline constexpr std::size_t BlockClassOf(std::size_t bytes) noexcept {
  return bytes == 0 ? 0 : (bytes - 1) / kBlockClassBytes;
}

// The one allocation point of the BSTR and SAFEARRAY service: every byte the
// service hands out or keeps comes from here. Returns uninitialised memory of
// at least `bytes` bytes (a request for 0 bytes still gives a unique non-null
// block), or null when memory runs out or the fault point says so. The fault
// point is passed on every call, whether the block comes from the cache or
// not.
inline void* Allocate(std::size_t bytes) noexcept {
  const xk::fault::Outcome outcome = xk::fault::Check(kAllocateFaultPoint);
  if (outcome.kind == xk::fault::Kind::kNull || outcome.kind == xk::fault::Kind::kCode) return nullptr;
  if (kCacheBlocks && bytes <= kCachedBlockBytes) {
    const std::size_t k = BlockClassOf(bytes);
    BlockCache& cache = tBlockCache;
    if (void* block = cache.heads[k]) {
      cache.heads[k] = *static_cast<void**>(block);
      --cache.counts[k];
      return block;
    }
    return std::malloc((k + 1) * kBlockClassBytes);
  }
  return std::malloc(bytes == 0 ? 1 : bytes);
}

// Gives back a block from Allocate; `bytes` is the size it was asked with.
// Null is ignored.
inline void Release(void* block, std::size_t bytes) noexcept {
  if (block == nullptr) return;
  if (kCacheBlocks && bytes <= kCachedBlockBytes) {
    const std::size_t k = BlockClassOf(bytes);
    BlockCache& cache = tBlockCache;
    if (!cache.closed && cache.counts[k] < kBlocksPerClass && (cache.registered || RegisterBlockCache(cache))) {
      *static_cast<void**>(block) = cache.heads[k];
      cache.heads[k] = block;
      ++cache.counts[k];
      return;
    }
  }
  std::free(block);
}

}  // namespace winext
}  // namespace xk

#endif
