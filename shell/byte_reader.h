#pragma once
// Reading a binary cache file of our own field by field: every read checks that the bytes are
// there, and a file cut short is an `Error` (the file's own error type) naming what was cut.
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace fontrix {

template <typename Error>
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : bytes_(bytes) {}
  /// The next sizeof(T) bytes as a T (native byte order, as the file was written).
  template <typename T>
  T Get(const char* what) {
    T value;
    Take(&value, sizeof value, what);
    return value;
  }
  void Take(void* out, size_t n, const char* what) {
    if (bytes_.size() - at_ < n) throw Error(std::string("cut short in ") + what);
    std::memcpy(out, bytes_.data() + at_, n);
    at_ += n;
  }
  size_t At() const { return at_; }
  size_t Left() const { return bytes_.size() - at_; }
  bool AtEnd() const { return at_ == bytes_.size(); }

 private:
  std::string_view bytes_;
  size_t at_ = 0;
};

}  // namespace fontrix
