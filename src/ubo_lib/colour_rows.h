// Row kernels of the toolkit's colour conversions (grey from BGR, NV21 to
// BGR and back), exposed for the tests.
//
// Each has a plain reference and, on CPUs with SSSE3, a kernel that does
// sixteen pixels at a time with byte shuffles and gives the same bytes; the
// columns past the last whole group of sixteen go through the reference.
#ifndef HSEG_SRC_UBO_LIB_COLOUR_ROWS_H_
#define HSEG_SRC_UBO_LIB_COLOUR_ROWS_H_

#include <cstdint>

namespace hseg {
namespace ubo {

// Luma weights for blue, green and red that sum to 1 << shift; the result
// is rounded to nearest.
struct LumaWeights {
  int32_t b, g, r, shift;
};
constexpr LumaWeights kLuma128 = {13, 83, 32, 7};
// BT.601 in 14-bit fixed point: 1868 == 0.114 * 16384, 9617 == 0.587 *
// 16384, 4899 == 0.299 * 16384.
constexpr LumaWeights kLumaBt601 = {1868, 9617, 4899, 14};

// out[x] = luma of pixel x of a row of `channels` (3 or 4) bytes a pixel,
// blue first.
void luma_row_ref(const uint8_t *src, int32_t channels, uint8_t *out, int32_t w, LumaWeights k);

// BGR of a row of w pixels from its Y row and its row of V,U pairs (one pair
// for two pixels; full range, 14-bit coefficients, clamped).
void nv21_row_to_bgr_ref(const uint8_t *y, const uint8_t *vu, uint8_t *bgr, int32_t w);

// V,U pairs of one row of 2x2 blocks from BGR rows `top` and `below` (null
// at an odd bottom edge): the block means (sum + n / 2) / n give
// U = ((-2765 R - 5427 G + 8192 B + 8192) >> 14) + 128 and
// V = ((8192 R - 6860 G - 1332 B + 8192) >> 14) + 128, clamped.
void bgr_rows_to_vu_ref(const uint8_t *top, const uint8_t *below, uint8_t *vu, int32_t w);

// luma_row_ref for three channels.
void luma_row_c3_ref(const uint8_t *bgr, uint8_t *out, int32_t w, LumaWeights k);

#if defined(__x86_64__) || defined(__i386__)
#define HSEG_UBO_HAVE_SSSE3 1
// The same bytes as the references.
void luma_row_c3_ssse3(const uint8_t *bgr, uint8_t *out, int32_t w, LumaWeights k);
void nv21_row_to_bgr_ssse3(const uint8_t *y, const uint8_t *vu, uint8_t *bgr, int32_t w);
void bgr_rows_to_vu_ssse3(const uint8_t *top, const uint8_t *below, uint8_t *vu, int32_t w);
#endif

// The kernels for this CPU: the SSSE3 ones where it has SSSE3, else the
// references. Chosen per call; the library keeps no global state.
struct ColourRows {
  void (*luma_c3)(const uint8_t *bgr, uint8_t *out, int32_t w, LumaWeights k);
  void (*nv21_to_bgr)(const uint8_t *y, const uint8_t *vu, uint8_t *bgr, int32_t w);
  void (*bgr_to_vu)(const uint8_t *top, const uint8_t *below, uint8_t *vu, int32_t w);
};
ColourRows colour_rows();

}  // namespace ubo
}  // namespace hseg

#endif  // HSEG_SRC_UBO_LIB_COLOUR_ROWS_H_
