#pragma once
// The single process-wide instance of a cache: looked up without creating it (the exported
// suites answer "UIN?" while there is none), created by the tasks, destroyed at termination.
// Shared ownership keeps an instance alive for a caller still using it while it is destroyed.
#include <memory>
#include <mutex>

namespace fontrix {

template <typename T>
class ProcessWide {
 public:
  static std::shared_ptr<T> Get() {
    std::lock_guard<std::mutex> lock(mutex());
    return slot();
  }
  static std::shared_ptr<T> GetOrCreate() {
    std::lock_guard<std::mutex> lock(mutex());
    if (!slot()) slot() = std::make_shared<T>();
    return slot();
  }
  static void Reset() {
    std::shared_ptr<T> gone;
    std::lock_guard<std::mutex> lock(mutex());
    gone.swap(slot());
  }

 private:
  static std::mutex& mutex() {
    static std::mutex m;
    return m;
  }
  static std::shared_ptr<T>& slot() {
    static std::shared_ptr<T> s;
    return s;
  }
};

}  // namespace fontrix
