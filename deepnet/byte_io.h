#pragma once
// Little-endian reading and writing of model data. The reader is bounded: every read checks
// the remaining bytes first, so a truncated or corrupt buffer raises an error instead of
// reading past its end.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace deepnet {

/// Reads little-endian values from [pos, end); throws std::runtime_error naming `context`
/// when a value would cross `end`.
class byte_reader {
 public:
  byte_reader(const uint8_t* begin, const uint8_t* end, const char* context)
      : pos_(begin), end_(end), context_(context) {}

  uint32_t u32() { return load<uint32_t>(); }
  int32_t i32() { return static_cast<int32_t>(load<uint32_t>()); }
  uint64_t u64() { return load<uint64_t>(); }
  float f32() {
    uint32_t bits = u32();
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }
  std::string bytes(uint64_t n) {
    require(n);
    std::string s(reinterpret_cast<const char*>(pos_), static_cast<size_t>(n));
    pos_ += n;
    return s;
  }
  void skip(uint64_t n) {
    require(n);
    pos_ += n;
  }
  /// Reads `n` f32 values; the count is checked against the buffer before anything is
  /// allocated, so a corrupt count cannot ask for gigabytes.
  void floats(std::vector<float>& out, uint64_t n) {
    if (n > remaining() / 4) fail();
    out.resize(static_cast<size_t>(n));
    for (auto& v : out) v = f32();
  }
  uint64_t remaining() const { return static_cast<uint64_t>(end_ - pos_); }
  const uint8_t* position() const { return pos_; }
  [[noreturn]] void fail() const { throw std::runtime_error(std::string(context_) + ": model data ends too early"); }

 private:
  void require(uint64_t n) const {
    if (n > remaining()) fail();
  }
  template <typename T>
  T load() {
    require(sizeof(T));
    T v = 0;
    for (size_t i = 0; i < sizeof(T); ++i) v |= static_cast<T>(pos_[i]) << (8 * i);
    pos_ += sizeof(T);
    return v;
  }

  const uint8_t* pos_;
  const uint8_t* end_;
  const char* context_;
};

/// Appends little-endian values to a growing byte vector.
class byte_writer {
 public:
  explicit byte_writer(std::vector<uint8_t>& out) : out_(out) {}
  void u32(uint32_t v) { store(v); }
  void i32(int32_t v) { store(static_cast<uint32_t>(v)); }
  void u64(uint64_t v) { store(v); }
  void f32(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    store(bits);
  }
  void bytes(const std::string& s) { out_.insert(out_.end(), s.begin(), s.end()); }
  void floats(const std::vector<float>& values) {
    for (float v : values) f32(v);
  }
  size_t size() const { return out_.size(); }
  /// Overwrites a 64-bit word written earlier at byte offset `at`.
  void patch_u64(size_t at, uint64_t v) {
    for (size_t i = 0; i < 8; ++i) out_[at + i] = static_cast<uint8_t>(v >> (8 * i));
  }

 private:
  template <typename T>
  void store(T v) {
    for (size_t i = 0; i < sizeof(T); ++i) out_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  std::vector<uint8_t>& out_;
};

}  // namespace deepnet
