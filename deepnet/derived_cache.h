#pragma once
// Data a layer model derives from its weights for one way of running (weights transformed or
// packed for one instruction set's kernels), made when a network first needs it and shared by
// every network built from the model after: a query builds its network afresh, and deriving
// again each time would cost as much as a forward pass. Copies start empty, as the weights
// copied with them may then change; the weights must not change after the first use.
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace deepnet {

template <typename T>
class derived_cache {
 public:
  derived_cache() = default;
  derived_cache(const derived_cache&) {}
  derived_cache& operator=(const derived_cache&) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
    return *this;
  }
  /// The first entry `matches` accepts, or a new one from `make`.
  std::shared_ptr<const T> get(const std::function<bool(const T&)>& matches,
                               const std::function<std::shared_ptr<const T>()>& make) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& e : entries_)
      if (matches(*e)) return e;
    entries_.push_back(make());
    return entries_.back();
  }

 private:
  mutable std::mutex mutex_;
  mutable std::vector<std::shared_ptr<const T>> entries_;
};

}  // namespace deepnet
