#include "deepnet/buffer_pool.h"

#include <cstdlib>
#include <iterator>
#include <map>
#include <mutex>
#include <new>

namespace deepnet {

namespace {

constexpr size_t kAlignment = 64;
// Blocks below this size are cheap for malloc to recycle itself; the pool takes larger ones.
constexpr size_t kPooledFrom = size_t{64} << 10;
// The pool never keeps more than this; blocks past it are freed at once.
constexpr size_t kMaxKeptBytes = size_t{512} << 20;

struct pool {
  std::mutex mutex;
  std::multimap<size_t, void*> blocks;  // by capacity
  size_t kept = 0;
};

pool& the_pool() {
  static pool* p = new pool;  // never destroyed: buffers may be given back during exit
  return *p;
}

}  // namespace

void* buffer_pool_take(size_t bytes, size_t& capacity) {
  bytes = (bytes + kAlignment - 1) / kAlignment * kAlignment;
  if (bytes >= kPooledFrom) {
    pool& p = the_pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    // The smallest kept block that fits, unless it would waste more than half of itself.
    auto it = p.blocks.lower_bound(bytes);
    if (it != p.blocks.end() && it->first / 2 <= bytes) {
      void* block = it->second;
      capacity = it->first;
      p.kept -= it->first;
      p.blocks.erase(it);
      return block;
    }
  }
  void* block = std::aligned_alloc(kAlignment, bytes);
  if (!block) throw std::bad_alloc();
  capacity = bytes;
  return block;
}

void buffer_pool_give(void* block, size_t capacity) noexcept {
  if (!block) return;
  if (capacity >= kPooledFrom) {
    pool& p = the_pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    if (p.kept + capacity <= kMaxKeptBytes) {
      try {
        p.blocks.emplace(capacity, block);
        p.kept += capacity;
        return;
      } catch (...) {
      }
    }
  }
  std::free(block);
}

void deepnet_release_cached_buffers() noexcept {
  pool& p = the_pool();
  std::lock_guard<std::mutex> lock(p.mutex);
  for (auto& [capacity, block] : p.blocks) std::free(block);
  p.blocks.clear();
  p.kept = 0;
}

size_t deepnet_cached_buffer_bytes() noexcept {
  pool& p = the_pool();
  std::lock_guard<std::mutex> lock(p.mutex);
  return p.kept;
}

}  // namespace deepnet
