#include "deepnet/parallel.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace deepnet {

namespace {

// A fixed set of worker threads that, with the calling thread, run the chunks of one parallel
// region at a time. Chunks are handed out through an atomic counter. A caller that finds the
// workers busy with another thread's region runs its own chunks alone rather than wait. The
// caller leaves its region only when every chunk has run and no worker still holds the region.
class worker_pool {
 public:
  ~worker_pool() { resize(0); }

  void resize(int workers) {
    std::lock_guard<std::mutex> busy(region_mutex_);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    for (auto& t : threads_) t.join();
    threads_.clear();
    stopping_ = false;
    for (int i = 0; i < workers; ++i) threads_.emplace_back([this] { work(); });
  }

  void run(uint64_t chunks, const std::function<void(uint64_t)>& fn) {
    std::unique_lock<std::mutex> busy(region_mutex_, std::try_to_lock);
    if (!busy.owns_lock() || threads_.empty()) {
      for (uint64_t c = 0; c < chunks; ++c) fn(c);
      return;
    }
    region r{fn, chunks};
    {
      std::lock_guard<std::mutex> lock(mutex_);
      current_ = &r;
      ++generation_;
    }
    wake_.notify_all();
    take_chunks(r);
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [&] { return r.completed == chunks && holders_ == 0; });
    current_ = nullptr;
  }

 private:
  struct region {
    const std::function<void(uint64_t)>& fn;
    const uint64_t chunks;
    std::atomic<uint64_t> next{0};
    uint64_t completed = 0;  // guarded by mutex_
  };

  void take_chunks(region& r) {
    uint64_t ran = 0;
    for (uint64_t c; (c = r.next.fetch_add(1)) < r.chunks; ++ran) r.fn(c);
    std::lock_guard<std::mutex> lock(mutex_);
    r.completed += ran;
    if (r.completed == r.chunks) done_.notify_all();
  }

  void work() {
    uint64_t seen = 0;
    for (;;) {
      region* r;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [&] { return stopping_ || generation_ != seen; });
        if (stopping_) return;
        seen = generation_;
        r = current_;
        if (!r) continue;
        ++holders_;
      }
      take_chunks(*r);
      std::lock_guard<std::mutex> lock(mutex_);
      --holders_;
      done_.notify_all();
    }
  }

  std::mutex region_mutex_;  // one parallel region at a time
  std::mutex mutex_;         // guards everything below
  std::condition_variable wake_, done_;
  std::vector<std::thread> threads_;
  region* current_ = nullptr;
  uint64_t generation_ = 0;
  int holders_ = 0;  // workers inside take_chunks of current_
  bool stopping_ = false;
};

std::atomic<int> thread_count{0};
std::mutex config_mutex;

worker_pool& pool() {
  static worker_pool p;
  return p;
}

}  // namespace

void deepnet_set_num_threads(int n) {
  n = std::max(1, n);
  std::lock_guard<std::mutex> lock(config_mutex);
  if (thread_count.load() != n) pool().resize(n - 1);
  thread_count.store(n);
}

int deepnet_num_threads() {
  if (thread_count.load() == 0) deepnet_set_num_threads(1);
  return thread_count.load();
}

uint64_t deepnet_chunk_count(uint64_t count) {
  return std::max<uint64_t>(1, std::min<uint64_t>(count, static_cast<uint64_t>(deepnet_num_threads())));
}

void deepnet_parallel_chunks(uint64_t count, uint64_t chunks,
                             const std::function<void(uint64_t, uint64_t, uint64_t)>& fn) {
  chunks = std::max<uint64_t>(1, chunks);
  auto run_chunk = [&](uint64_t c) { fn(c, c * count / chunks, (c + 1) * count / chunks); };
  if (chunks == 1 || deepnet_num_threads() == 1) {
    for (uint64_t c = 0; c < chunks; ++c) run_chunk(c);
    return;
  }
  pool().run(chunks, run_chunk);
}

}  // namespace deepnet
