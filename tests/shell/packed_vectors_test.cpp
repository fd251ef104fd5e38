// Vectors kept as 16-bit values: what they keep of dot products, and every way a shipped file of
// them can be wrong.
#include "shell/packed_vectors.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>

namespace fontrix {
namespace {

namespace fs = std::filesystem;

class PackedVectorsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("fontrix-packed-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Write(const std::string& bytes) {
    const std::string path = (dir_ / "vectors.bin").string();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    return path;
  }
  void ExpectRefused(const std::string& bytes, uint32_t dim, uint64_t network, const std::string& why) {
    try {
      PackedVectors::Read(Write(bytes), dim, network);
      ADD_FAILURE() << "read a file that " << why;
    } catch (const PackedVectorsFileError& e) {
      EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << e.what();
    }
  }
  fs::path dir_;
};

TEST_F(PackedVectorsTest, DotProductsOfUnitVectorsStayWithinATenThousandth) {
  constexpr uint32_t kDim = 200;
  std::mt19937 random(7);
  std::normal_distribution<float> normal;
  std::vector<float> rows(3 * kDim), query(kDim);
  for (size_t r = 0; r < 3; ++r) {
    double norm = 0;
    for (uint32_t k = 0; k < kDim; ++k) norm += std::pow(rows[r * kDim + k] = normal(random), 2);
    for (uint32_t k = 0; k < kDim; ++k) rows[r * kDim + k] /= float(std::sqrt(norm));
  }
  for (float& q : query) q = normal(random) / std::sqrt(float(kDim));
  rows.resize(4 * kDim, 0.0f);  // a fourth row of zeros: no vector
  const PackedVectors packed = PackedVectors::Read(Write(PackVectors(rows, kDim, 42)), kDim, 42);
  ASSERT_EQ(packed.Rows(), 4u);
  std::vector<float> unpacked(kDim);
  for (size_t r = 0; r < 3; ++r) {
    double exact = 0;
    for (uint32_t k = 0; k < kDim; ++k) exact += double(rows[r * kDim + k]) * query[k];
    EXPECT_NEAR(packed.Dot(r, query.data()), exact, 1e-4);
    packed.Unpack(r, unpacked.data());
    for (uint32_t k = 0; k < kDim; ++k) EXPECT_NEAR(unpacked[k], rows[r * kDim + k], 1.0 / 32767);
    EXPECT_FALSE(packed.IsZero(r));
  }
  EXPECT_TRUE(packed.IsZero(3));
  // Values beyond -1..1 are clipped, not wrapped round to the other sign.
  const PackedVectors clipped = PackedVectors::Read(Write(PackVectors({1.5f, -3.0f}, 2, 0)), 2, 0);
  clipped.Unpack(0, unpacked.data());
  EXPECT_FLOAT_EQ(unpacked[0], 1.0f);
  EXPECT_FLOAT_EQ(unpacked[1], -1.0f);
}

TEST_F(PackedVectorsTest, FilesThatCannotBeTrustedAreRefusedSayingWhy) {
  const std::string good = PackVectors(std::vector<float>(2 * 8, 0.25f), 8, 99);
  EXPECT_NO_THROW(PackedVectors::Read(Write(good), 8, 99));
  EXPECT_NO_THROW(PackedVectors::Read(Write(good), 0, 99));  // any length a row
  ExpectRefused(good, 8, 98, "another network");
  ExpectRefused(good, 16, 99, "vectors of 8 values, not 16");
  ExpectRefused(good.substr(0, good.size() - 2), 8, 99, "cut short");
  ExpectRefused(good + "xx", 8, 99, "too long");
  ExpectRefused(good.substr(0, 20), 8, 99, "not a file of packed vectors");
  ExpectRefused("FXVEC15\n" + good.substr(8), 8, 99, "not a file of packed vectors");
  std::string flipped = good;
  flipped[40] ^= 1;
  ExpectRefused(flipped, 8, 99, "check sum");
  EXPECT_THROW(PackedVectors::Read((dir_ / "absent.bin").string(), 8, 99), PackedVectorsFileError);
  EXPECT_THROW(PackedVectors::Read(dir_.string(), 8, 99), PackedVectorsFileError);  // a folder
}

}  // namespace
}  // namespace fontrix
