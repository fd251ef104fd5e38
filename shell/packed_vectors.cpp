#include "shell/packed_vectors.h"

#include <cmath>
#include <cstring>

#include "shell/check_sum.h"

namespace fontrix {

namespace {

template <typename T>
T LittleEndianAt(const unsigned char* at) {
  T value = 0;
  for (size_t k = 0; k < sizeof(T); ++k) value |= T(at[k]) << (8 * k);
  return value;
}

template <typename T>
void AppendLittleEndian(std::string& out, T value) {
  for (size_t k = 0; k < sizeof(T); ++k) out.push_back(char((value >> (8 * k)) & 0xFF));
}

}  // namespace

void PackedVectors::Unpack(size_t i, float* out) const {
  const int16_t* row = Row(i);
  for (uint32_t k = 0; k < dim_; ++k) out[k] = float(row[k]) / kPackedScale;
}

float PackedVectors::Dot(size_t i, const float* query) const {
  const int16_t* row = Row(i);
  float sum = 0;
  for (uint32_t k = 0; k < dim_; ++k) sum += float(row[k]) * query[k];
  return sum / kPackedScale;
}

bool PackedVectors::IsZero(size_t i) const {
  const int16_t* row = Row(i);
  for (uint32_t k = 0; k < dim_; ++k)
    if (row[k] != 0) return false;
  return true;
}

PackedVectors PackedVectors::Read(const std::string& path, uint32_t dim, uint64_t network) {
  PackedVectors packed;
  std::string why;
  const FileState state = packed.file_.Map(path, why);
  if (state == FileState::kMissing) throw PackedVectorsFileError(path + " is missing");
  if (state == FileState::kUnreadable) throw PackedVectorsFileError(why);
  const auto* bytes = static_cast<const unsigned char*>(packed.file_.Data());
  const size_t size = packed.file_.Size();
  if (size < kPackedVectorsHeaderBytes || std::memcmp(bytes, kPackedVectorsMagic, sizeof kPackedVectorsMagic) != 0)
    throw PackedVectorsFileError(path + " is not a file of packed vectors");
  packed.rows_ = LittleEndianAt<uint32_t>(bytes + 8);
  packed.dim_ = LittleEndianAt<uint32_t>(bytes + 12);
  if (dim != 0 && packed.dim_ != dim)
    throw PackedVectorsFileError(path + " holds vectors of " + std::to_string(packed.dim_) + " values, not " +
                                 std::to_string(dim));
  if (LittleEndianAt<uint64_t>(bytes + 16) != network)
    throw PackedVectorsFileError(path + " was made with another network than the one installed");
  const uint64_t payload = uint64_t(packed.rows_) * packed.dim_ * sizeof(int16_t);
  if (size - kPackedVectorsHeaderBytes != payload)
    throw PackedVectorsFileError(
        path + (size - kPackedVectorsHeaderBytes < payload ? " is cut short" : " is too long") + ": " +
        std::to_string(packed.rows_) + " rows need " + std::to_string(payload + kPackedVectorsHeaderBytes) +
        " bytes, it has " + std::to_string(size));
  if (CheckSum(bytes + kPackedVectorsHeaderBytes, payload) != LittleEndianAt<uint64_t>(bytes + 24))
    throw PackedVectorsFileError(path + " does not match its check sum: it is damaged");
  packed.values_ = reinterpret_cast<const int16_t*>(bytes + kPackedVectorsHeaderBytes);
  return packed;
}

std::string PackVectors(const std::vector<float>& rows, uint32_t dim, uint64_t network) {
  std::string values;
  values.reserve(rows.size() * sizeof(int16_t));
  for (float v : rows) {
    const long q = std::lround(std::fmax(-1.0f, std::fmin(1.0f, v)) * kPackedScale);
    AppendLittleEndian(values, uint16_t(int16_t(q)));
  }
  std::string out(kPackedVectorsMagic, sizeof kPackedVectorsMagic);
  AppendLittleEndian(out, uint32_t(dim ? rows.size() / dim : 0));
  AppendLittleEndian(out, dim);
  AppendLittleEndian(out, network);
  AppendLittleEndian(out, CheckSum(values.data(), values.size()));
  return out + values;
}

}  // namespace fontrix

namespace fontrix {

uint64_t NetworkCheckSum(const std::string& path) {
  MappedFile file;
  std::string why;
  return file.Map(path, why) == FileState::kRead ? CheckSum(file.Data(), file.Size()) : 0;
}

}  // namespace fontrix
