#pragma once
// Vectors kept compactly in a data file: each value of a unit-length vector (or of a vector whose
// values all lie in -1..1) as a 16-bit integer, value × 32767 rounded, which keeps dot products
// to within about 1e-4 while halving the file. Shipped for faces that are not installed, where
// thousands of rows are read by every start that uses them.
//
//   bytes 0..7    "FXVEC16\n"
//   bytes 8..11   rows, little-endian uint32
//   bytes 12..15  values a row, little-endian uint32
//   bytes 16..23  the check sum (shell/check_sum.h) of the network file the vectors came from
//   bytes 24..31  the check sum of the values that follow
//   then rows × values little-endian int16; a row of zeros stands for "no vector"
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "shell/file_bytes.h"

namespace fontrix {

constexpr char kPackedVectorsMagic[8] = {'F', 'X', 'V', 'E', 'C', '1', '6', '\n'};
constexpr size_t kPackedVectorsHeaderBytes = 32;
constexpr float kPackedScale = 32767.0f;

struct PackedVectorsFileError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A file of packed vectors, mapped: rows are read where they lie.
class PackedVectors {
 public:
  uint32_t Rows() const { return rows_; }
  uint32_t Dim() const { return dim_; }
  const int16_t* Row(size_t i) const { return values_ + i * dim_; }
  /// Row `i` as floats into `out` (Dim() of them).
  void Unpack(size_t i, float* out) const;
  /// The dot product of row `i` with `query` (Dim() floats).
  float Dot(size_t i, const float* query) const;
  bool IsZero(size_t i) const;
  /// Maps `path`: throws PackedVectorsFileError naming the file when it is missing, unreadable,
  /// not of this format, cut short or longer, not of `dim` values a row (any, for 0), not made with the
  /// network whose check sum is `network`, or does not match its check sum.
  static PackedVectors Read(const std::string& path, uint32_t dim, uint64_t network);

 private:
  MappedFile file_;
  const int16_t* values_ = nullptr;
  uint32_t rows_ = 0, dim_ = 0;
};

/// The bytes of a packed vectors file holding `rows` (each `dim` floats, values in -1..1), for
/// the data's makers and the tests.
std::string PackVectors(const std::vector<float>& rows, uint32_t dim, uint64_t network);

}  // namespace fontrix

namespace fontrix {
/// The check sum of the network file `path` that packed vectors made with it carry; 0 when it
/// cannot be read.
uint64_t NetworkCheckSum(const std::string& path);
}  // namespace fontrix
