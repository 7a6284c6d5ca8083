#include "oleauto_memory.h"

#include <pthread.h>

namespace xk {
namespace winext {

namespace {

// The thread key's destructor: frees the blocks of an ending thread's cache
// and closes it.
void CloseBlockCache(void* value) {
  auto* cache = static_cast<BlockCache*>(value);
  for (std::size_t k = 0; k < kBlockClasses; ++k) {
    while (void* block = cache->heads[k]) {
      cache->heads[k] = *static_cast<void**>(block);
      std::free(block);
    }
    cache->counts[k] = 0;
  }
  cache->closed = true;
}

}  // namespace

bool RegisterBlockCache(BlockCache& cache) noexcept {
  // Made once, never deleted.
  static pthread_key_t key;
  static const bool made = pthread_key_create(&key, CloseBlockCache) == 0;
  if (!made || pthread_setspecific(key, &cache) != 0) return false;
  cache.registered = true;
  return true;
}

}  // namespace winext
}  // namespace xk
