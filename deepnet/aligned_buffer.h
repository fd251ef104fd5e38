#pragma once
// A float array aligned for wide vector loads; owns its memory, which comes from and goes
// back to the engine's buffer pool.
#include <cstddef>
#include <cstring>
#include <utility>

#include "deepnet/buffer_pool.h"

namespace deepnet {

template <typename T>
class aligned_buffer {
 public:
  aligned_buffer() = default;
  aligned_buffer(const aligned_buffer&) = delete;
  aligned_buffer& operator=(const aligned_buffer&) = delete;
  aligned_buffer(aligned_buffer&& other) noexcept : data_(other.data_), size_(other.size_), capacity_(other.capacity_) {
    other.data_ = nullptr;
    other.size_ = other.capacity_ = 0;
  }
  aligned_buffer& operator=(aligned_buffer&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    return *this;
  }
  ~aligned_buffer() { buffer_pool_give(data_, capacity_); }

  /// Replaces the contents with `n` zeros.
  void assign_zero(size_t n) {
    resize_uninitialized(n);
    if (n) std::memset(static_cast<void*>(data_), 0, n * sizeof(T));
  }
  /// Makes room for `n` values whose contents are unspecified.
  void resize_uninitialized(size_t n) {
    if (n != size_) {
      buffer_pool_give(data_, capacity_);
      data_ = nullptr;
      size_ = capacity_ = 0;
      if (n) data_ = static_cast<T*>(buffer_pool_take(n * sizeof(T), capacity_));
      size_ = n;
    }
  }
  T* data() { return data_; }
  const T* data() const { return data_; }
  size_t size() const { return size_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }

 private:
  T* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;  ///< bytes
};

}  // namespace deepnet
