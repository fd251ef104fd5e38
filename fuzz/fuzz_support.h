#pragma once
// What the file-reading fuzz targets share: a scratch folder for the files an input becomes,
// splitting an input into parts, and invariant checks that stop the run where they fail.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace fontrix::fuzz {

/// An invariant of the code under test: when it fails the input is a finding, so the process
/// stops as a sanitizer would (libFuzzer then saves the input).
#define FUZZ_CHECK(condition)                                                                \
  do {                                                                                       \
    if (!(condition)) {                                                                      \
      std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                          \
    }                                                                                        \
  } while (0)

/// One scratch folder per process under $TMPDIR (or /tmp), removed at exit. Inputs become files
/// here because the readers under test take paths.
inline const std::filesystem::path& ScratchFolder() {
  static const std::filesystem::path folder = [] {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/fontrix-fuzz-XXXXXX";
    if (!mkdtemp(pattern.data())) {
      std::perror("mkdtemp");
      std::abort();
    }
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(ScratchFolder(), ec);
    });
    return std::filesystem::path(pattern);
  }();
  return folder;
}

inline std::string ScratchPath(const std::string& name) { return (ScratchFolder() / name).string(); }

/// Replaces the file at `path` with `bytes`.
inline void WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(bytes.size()));
  if (!out.flush()) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::abort();
  }
}

/// Reads an input front to back; past its end every read gives zeros or nothing.
class InputReader {
 public:
  InputReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint16_t U16() {
    const uint16_t low = Byte();
    return uint16_t(low | Byte() << 8);
  }
  /// The next `n` bytes, fewer at the end.
  std::string_view Bytes(size_t n) {
    n = n < size_ - pos_ ? n : size_ - pos_;
    std::string_view bytes(reinterpret_cast<const char*>(data_ + pos_), n);
    pos_ += n;
    return bytes;
  }
  std::string_view Rest() { return Bytes(size_ - pos_); }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

}  // namespace fontrix::fuzz
