#include "deepnet/parallel.h"

#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>

#include "deepnet/blas.h"

namespace deepnet {

namespace {
std::atomic<int> thread_count{0};
std::mutex arena_mutex;
std::shared_ptr<tbb::task_arena> arena;

void ensure_configured() {
  if (thread_count.load() == 0) deepnet_set_num_threads(1);
}
}  // namespace

void deepnet_set_num_threads(int n) {
  n = std::max(1, n);
  std::lock_guard<std::mutex> lock(arena_mutex);
  openblas_set_num_threads(1);
  if (n > 1 && (!arena || arena->max_concurrency() != n)) arena = std::make_shared<tbb::task_arena>(n);
  thread_count.store(n);
}

int deepnet_num_threads() {
  ensure_configured();
  return thread_count.load();
}

uint64_t deepnet_chunk_count(uint64_t count) {
  return std::max<uint64_t>(1, std::min<uint64_t>(count, static_cast<uint64_t>(deepnet_num_threads())));
}

void deepnet_parallel_chunks(uint64_t count, uint64_t chunks,
                             const std::function<void(uint64_t, uint64_t, uint64_t)>& fn) {
  chunks = std::max<uint64_t>(1, chunks);
  auto bounds = [&](uint64_t c) { return c * count / chunks; };
  std::shared_ptr<tbb::task_arena> a;
  if (chunks > 1 && deepnet_num_threads() > 1) {
    std::lock_guard<std::mutex> lock(arena_mutex);
    a = arena;
  }
  if (!a) {
    for (uint64_t c = 0; c < chunks; ++c) fn(c, bounds(c), bounds(c + 1));
    return;
  }
  a->execute([&] { tbb::parallel_for(uint64_t{0}, chunks, [&](uint64_t c) { fn(c, bounds(c), bounds(c + 1)); }); });
}

}  // namespace deepnet
