#include "shell/check_sum.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace fontrix {
namespace {

// Every byte counts, wherever it lies: in the four lanes, the 8-byte words after them or the
// last few bytes; a lost bit anywhere would let a damaged entry through.
TEST(CheckSum, EveryBitOfEveryLengthCounts) {
  std::vector<unsigned char> bytes(100);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 37 + 11);
  for (size_t size = 0; size <= bytes.size(); ++size) {
    const uint64_t sum = CheckSum(bytes.data(), size);
    std::set<uint64_t> seen{sum};
    for (size_t at = 0; at < size; ++at)
      for (int bit = 0; bit < 8; ++bit) {
        bytes[at] ^= static_cast<unsigned char>(1u << bit);
        EXPECT_TRUE(seen.insert(CheckSum(bytes.data(), size)).second)
            << size << " bytes, byte " << at << " bit " << bit;
        bytes[at] ^= static_cast<unsigned char>(1u << bit);
      }
    // The same bytes, one longer or shorter, are another text.
    if (size > 0) {
      EXPECT_NE(CheckSum(bytes.data(), size - 1), sum);
    }
  }
}

TEST(CheckSum, SeedsAndOrderCount) {
  const char a[] = "Serif-Book", b[] = "Serif-Bold";
  EXPECT_EQ(CheckSum(a, sizeof a), CheckSum(a, sizeof a));
  EXPECT_NE(CheckSum(a, sizeof a, 1), CheckSum(a, sizeof a, 2));
  EXPECT_NE(CheckSum(b, sizeof b, CheckSum(a, sizeof a)), CheckSum(a, sizeof a, CheckSum(b, sizeof b)));
  // Two entries that swap their values under their names differ.
  const float one[4] = {1, 0, 0, 0}, two[4] = {0, 1, 0, 0};
  EXPECT_NE(CheckSum(one, sizeof one, CheckSum(a, sizeof a)), CheckSum(two, sizeof two, CheckSum(a, sizeof a)));
  // Whole words swapped inside a block of lanes.
  uint64_t words[8] = {1, 2, 3, 4, 5, 6, 7, 8}, swapped[8] = {2, 1, 3, 4, 5, 6, 7, 8};
  EXPECT_NE(CheckSum(words, sizeof words), CheckSum(swapped, sizeof swapped));
  std::swap(swapped[0], swapped[4]);
  std::swap(words[0], words[4]);
  EXPECT_NE(CheckSum(words, sizeof words), CheckSum(swapped, sizeof swapped));
}

// The sums are kept in users' caches and shipped data, and the data's and the fuzz seeds' makers
// write them from their own copy of the rules (training/fontrix_training/check_sum.py): a change
// to either loses every cache, so both are held to values worked out once.
TEST(CheckSum, KeepsItsValues) {
  EXPECT_EQ(CheckSum("", 0), 0x385e2446a0b0d829ull);
  EXPECT_EQ(CheckSum("Serif-Book", 11), 0x6c20b39d4ada56eeull);
  std::vector<unsigned char> bytes(100);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 37 + 11);
  EXPECT_EQ(CheckSum(bytes.data(), bytes.size(), 12345), 0xff1c6afb4d8448e5ull);
}

}  // namespace
}  // namespace fontrix
