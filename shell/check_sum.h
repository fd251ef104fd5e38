#pragma once
// The check sum the caches keep beside their entries to find damage: a name kept with another
// font's values, a record cut or edited. It reads 8 bytes at a time in four independent lanes,
// so checking the megabytes of a cache costs little beside reading them; FNV-1a, a byte at a
// time through one multiply, was the larger part of loading a cache of thousands of fonts.
// Not for anything a stranger chooses: it is no defence against deliberate collisions.
#include <cstddef>
#include <cstdint>

namespace fontrix {

/// The sum of `size` bytes at `bytes`, starting from `seed`: CheckSum(b, n, CheckSum(a, m))
/// sums a and then b (a different value from the sum of their concatenation).
uint64_t CheckSum(const void* bytes, size_t size, uint64_t seed = 0);

}  // namespace fontrix
