#pragma once
// How far a cache's update has come through the current font list.
#include <atomic>
#include <cstdint>

namespace fontrix {

struct CacheProgress {
  std::atomic<uint32_t> done{0};   ///< fonts of the list the cache has handled
  std::atomic<uint32_t> total{0};  ///< fonts of the list it has to handle
  // Since the cache was created: fonts of the current list that were already in its files,
  // fonts computed, fonts found unusable.
  std::atomic<uint32_t> matched{0}, computed{0}, unusable{0};

  /// A new update over `fonts` fonts.
  void Start(uint32_t fonts) {
    done.store(0);
    total.store(fonts);
  }
  void Finish() { done.store(total.load()); }
};

}  // namespace fontrix
