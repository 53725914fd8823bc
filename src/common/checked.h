// Overflow-checked size arithmetic for sizes that come from a caller or a
// file. Each helper returns false instead of wrapping, so a caller can turn
// an impossible geometry into a status instead of a short allocation.
#ifndef HSEG_SRC_COMMON_CHECKED_H_
#define HSEG_SRC_COMMON_CHECKED_H_

#include <cstdint>
#include <limits>

namespace hseg {

// a * b fits in a non-negative int32 (a, b >= 0): then a * b <= INT32_MAX,
// which for b > 0 is a <= INT32_MAX / b (integer division rounds down, and
// a <= floor(M / b) <=> a * b <= M for integers).
inline bool mul2_i32_valid(int64_t a, int64_t b) {
  if (a < 0 || b < 0) return false;
  if (b == 0) return true;
  return a <= std::numeric_limits<int32_t>::max() / b;
}

// a * b + c fits in a non-negative int32 (all >= 0).
inline bool mad3_i32_valid(int64_t a, int64_t b, int64_t c) {
  if (!mul2_i32_valid(a, b) || c < 0) return false;
  return a * b <= std::numeric_limits<int32_t>::max() - c;
}

// a * b fits in size_t without wrapping (a, b unsigned).
inline bool mul2_size_valid(size_t a, size_t b) {
  return b == 0 || a <= std::numeric_limits<size_t>::max() / b;
}

}  // namespace hseg

#endif  // HSEG_SRC_COMMON_CHECKED_H_
