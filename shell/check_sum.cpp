#include "shell/check_sum.h"

#include <cstring>

namespace fontrix {
namespace {

// Odd 64-bit constants with well-spread bits (from the fractional digits of well-known
// irrationals): any odd multiplier is invertible, these mix high and low bits well.
constexpr uint64_t kPrime1 = 0x9E3779B97F4A7C15ull;
constexpr uint64_t kPrime2 = 0xC2B2AE3D27D4EB4Full;
constexpr uint64_t kPrime3 = 0x165667B19E3779F9ull;

inline uint64_t Rotate(uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }

inline uint64_t Word(const unsigned char* p) {
  uint64_t w;
  std::memcpy(&w, p, sizeof w);  // little-endian machines only, as the caches' floats are
  return w;
}

// One lane's step: every bit of the word reaches every bit of the lane within two steps.
inline uint64_t Round(uint64_t lane, uint64_t word) { return Rotate(lane + word * kPrime2, 31) * kPrime1; }

// Spreads the last changes over all 64 bits.
inline uint64_t Finish(uint64_t h) {
  h ^= h >> 33;
  h *= kPrime2;
  h ^= h >> 29;
  h *= kPrime3;
  h ^= h >> 32;
  return h;
}

}  // namespace

uint64_t CheckSum(const void* bytes, size_t size, uint64_t seed) {
  const auto* p = static_cast<const unsigned char*>(bytes);
  const unsigned char* const end = p + size;
  uint64_t lanes[4] = {seed + kPrime1 + kPrime2, seed + kPrime2, seed, seed - kPrime1};
  for (; end - p >= 32; p += 32)
    for (int k = 0; k < 4; ++k) lanes[k] = Round(lanes[k], Word(p + 8 * k));
  uint64_t h = Rotate(lanes[0], 1) + Rotate(lanes[1], 7) + Rotate(lanes[2], 12) + Rotate(lanes[3], 18);
  for (uint64_t lane : lanes) h = (h ^ Round(0, lane)) * kPrime1 + kPrime3;
  h += uint64_t(size);
  for (; end - p >= 8; p += 8) h = Rotate(h ^ Round(0, Word(p)), 27) * kPrime1 + kPrime3;
  for (; p < end; ++p) h = Rotate(h ^ (uint64_t(*p) * kPrime3), 11) * kPrime1;
  return Finish(h);
}

}  // namespace fontrix
