#include "deepnet/buffer_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace deepnet {
namespace {

TEST(BufferPool, LargeBlocksAreReusedSmallAndOversizedAreNot) {
  deepnet_release_cached_buffers();
  size_t capacity = 0;
  void* big = buffer_pool_take(1 << 20, capacity);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(big) % 64, 0u);
  EXPECT_GE(capacity, size_t{1} << 20);
  buffer_pool_give(big, capacity);
  EXPECT_EQ(deepnet_cached_buffer_bytes(), capacity);

  // A request of more than twice its size would waste the kept block: it gets a new one.
  size_t small_capacity = 0;
  void* other = buffer_pool_take(300 << 10, small_capacity);
  EXPECT_NE(other, big);
  buffer_pool_give(other, small_capacity);

  size_t again = 0;
  EXPECT_EQ(buffer_pool_take(900 << 10, again), big);  // fits, reused without a new allocation
  EXPECT_EQ(again, capacity);
  buffer_pool_give(big, again);

  void* tiny = buffer_pool_take(100, again);  // below the pooled size: malloc's own business
  buffer_pool_give(tiny, again);
  EXPECT_EQ(deepnet_cached_buffer_bytes(), capacity + small_capacity);
  deepnet_release_cached_buffers();
  EXPECT_EQ(deepnet_cached_buffer_bytes(), 0u);
}

TEST(BufferPool, KeepsABoundedAmount) {
  deepnet_release_cached_buffers();
  std::vector<std::pair<void*, size_t>> blocks;
  for (int i = 0; i < 40; ++i) {
    size_t capacity;
    blocks.emplace_back(buffer_pool_take(size_t{32} << 20, capacity), capacity);
  }
  for (auto& [block, capacity] : blocks) buffer_pool_give(block, capacity);
  EXPECT_LE(deepnet_cached_buffer_bytes(), size_t{512} << 20);
  EXPECT_GT(deepnet_cached_buffer_bytes(), 0u);
  deepnet_release_cached_buffers();
}

}  // namespace
}  // namespace deepnet
