// Full-range YUV to BGR in 14-bit fixed point, shared by the resizers.
//
// With u = U - 128 and v = V - 128, Y taken as it is (full range):
//   blue  = Y + 1.773 u
//   green = Y - 0.714 v - 0.344 u
//   red   = Y + 1.403 v
// each rounded half up from 14 fraction bits and clamped to 0..255.
#ifndef HSEG_SRC_RESIZE_YUV_H_
#define HSEG_SRC_RESIZE_YUV_H_

#include <cstdint>

namespace hseg {

constexpr int32_t kYuvUtoB = 29049;   // == 1.773 * 16384
constexpr int32_t kYuvVtoR = 22987;   // == 1.403 * 16384
constexpr int32_t kYuvVtoG = -11698;  // == -0.714 * 16384
constexpr int32_t kYuvUtoG = -5636;   // == -0.344 * 16384
constexpr int32_t kYuvRound = 8192;   // half of 1 << 14

inline uint8_t clamp_u8(int32_t v) {
  return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

// Converts one pixel; y, u, v are the 8-bit samples (u, v still offset by 128).
// Writes blue, green, red to bgr[0..2].
inline void yuv_to_bgr(int32_t y, int32_t u, int32_t v, uint8_t *bgr) {
  const int32_t yy = y * 16384 + kYuvRound;
  u -= 128;
  v -= 128;
  // Shifts of negative values are arithmetic on every target the library
  // supports (and defined from C++20); they round toward minus infinity.
  bgr[0] = clamp_u8((yy + kYuvUtoB * u) >> 14);
  bgr[1] = clamp_u8((yy + kYuvVtoG * v + kYuvUtoG * u) >> 14);
  bgr[2] = clamp_u8((yy + kYuvVtoR * v) >> 14);
}

}  // namespace hseg

#endif  // HSEG_SRC_RESIZE_YUV_H_
