#include "deepnet/parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace deepnet {
namespace {

// Every sample lands in exactly one chunk, chunks are contiguous and in order, and regions
// started from several threads at once (two queries on two threads) all complete.
TEST(Parallel, ChunksCoverTheBatchOnceFromManyThreads) {
  deepnet_set_num_threads(2);
  std::vector<std::thread> callers;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t)
    callers.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round) {
        const uint64_t count = 1 + (round + t) % 11, chunks = 1 + round % 3;
        std::vector<std::atomic<int>> hits(count);
        std::vector<std::pair<uint64_t, uint64_t>> bounds(chunks);
        deepnet_parallel_chunks(count, chunks, [&](uint64_t c, uint64_t first, uint64_t last) {
          bounds[c] = {first, last};
          for (uint64_t i = first; i < last; ++i) hits[i]++;
        });
        for (auto& h : hits) failures += h.load() != 1;
        for (uint64_t c = 0; c < chunks; ++c) failures += bounds[c].first != (c == 0 ? 0 : bounds[c - 1].second);
        failures += bounds.back().second != count;
      }
    });
  for (auto& t : callers) t.join();
  EXPECT_EQ(failures.load(), 0);
  deepnet_set_num_threads(1);
  EXPECT_EQ(deepnet_chunk_count(10), 1u);
}

}  // namespace
}  // namespace deepnet
