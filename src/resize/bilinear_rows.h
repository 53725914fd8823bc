// Row kernels of the bilinear resizer: the pixel-centre mapping, horizontal
// interpolation of one source row into a row buffer, and the vertical blend of
// two row buffers into 8-bit output.
//
// Fixed point: weights have 7 fraction bits (128 = 1.0). A row buffer value
// is p(x0) * 128 + (p(x0 + 1) - p(x0)) * wx, at most 255 * 128 = 32640, so it
// fits a signed 16-bit lane, which the SIMD blend relies on.
#ifndef HSEG_SRC_RESIZE_BILINEAR_ROWS_H_
#define HSEG_SRC_RESIZE_BILINEAR_ROWS_H_

#include <cstdint>

namespace hseg {

// One destination index mapped onto the source axis.
struct BilinearTap {
  int32_t i0;  // first source index
  int32_t w;   // share of i0 + 1, 0..128
};

// f = (d + 0.5) * (src / dst) - 0.5: quotient and product in double, the
// product rounded to float, then 0.5 subtracted in float. i0 = f truncated
// and w = (int)((f - i0) * 128 + 0.5); f below 0 gives (0, 0). No clamping.
BilinearTap bilinear_tap(int32_t src, int32_t dst, int32_t d);

// Column table: dst pairs (x0, wx); taps at or past the last source column
// become (src - 1, 0), the right border.
void bilinear_column_table(int32_t src, int32_t dst, uint16_t *tab);
// Row table: dst pairs (y0, wy) as mapped (y0 never exceeds src - 1).
void bilinear_row_table(int32_t src, int32_t dst, uint16_t *tab);

// Horizontal interpolation of a one-channel row whose samples are `step`
// bytes apart (1 for a plane, 2 for the luma of packed 4:2:2).
void bilinear_fill_c1(const uint8_t *row, int32_t step, const uint16_t *col_tab, int32_t n,
                      uint32_t *out);
// Horizontal interpolation of a packed BGR row into n value triples.
void bilinear_fill_bgr(const uint8_t *row, const uint16_t *col_tab, int32_t n, uint32_t *out);

// One source row of a YUV image seen at full resolution. The chroma of pixel
// x comes from pair k = x / 2 and, for odd x, also from pair k + 1 (k when k
// is the last pair); chroma rows c0 and c1 are averaged the same way (c1 ==
// c0 on rows that sit on a chroma row). Chroma sample k of a row is at byte
// k * c_step from its row pointer.
struct YuvRow {
  const uint8_t *y;
  int32_t y_step;
  const uint8_t *u0, *u1, *v0, *v1;
  int32_t c_step;
  int32_t last_pair;
};
// Horizontal interpolation into n (Y, U, V) triples.
void bilinear_fill_yuv(const YuvRow &row, const uint16_t *col_tab, int32_t n, uint32_t *out);

// dst[i] = ((r1[i] - r0[i]) * wy + r0[i] * 128 + 8192) >> 14 for i < n, with
// wy in 0..128 and the row values in 0..32640 (as the fills make them).
// The reference formula, value by value.
void bilinear_blend_ref(const uint32_t *r0, const uint32_t *r1, uint32_t wy, uint8_t *dst,
                        int32_t n);
#if defined(__SSE2__)
// Sixteen values a step as r0 * (128 - wy) + r1 * wy in 16-bit lanes (the
// same integer), the rest through the reference. Identical output.
void bilinear_blend_sse2(const uint32_t *r0, const uint32_t *r1, uint32_t wy, uint8_t *dst,
                         int32_t n);
#endif
// The fastest of the above for this build.
void bilinear_blend(const uint32_t *r0, const uint32_t *r1, uint32_t wy, uint8_t *dst,
                    int32_t n);

}  // namespace hseg

#endif  // HSEG_SRC_RESIZE_BILINEAR_ROWS_H_
