#pragma once
// How far a cache's update has come through the current font list.
#include <atomic>
#include <cstdint>

namespace fontrix {

struct CacheProgress {
  std::atomic<uint32_t> done{0};   ///< fonts of the list the cache has handled
  std::atomic<uint32_t> total{0};  ///< fonts of the list it has to handle
  // What the last update did: fonts found in the cache, fonts computed, fonts unusable.
  std::atomic<uint32_t> matched{0}, computed{0}, unusable{0};

  void Start(uint32_t fonts) {
    done.store(0);
    total.store(fonts);
    matched.store(0);
    computed.store(0);
    unusable.store(0);
  }
  void Finish() { done.store(total.load()); }
};

}  // namespace fontrix
