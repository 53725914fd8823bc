// Row kernels of the bilinear resizer (see bilinear_rows.h).
#include "resize/bilinear_rows.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace hseg {

BilinearTap bilinear_tap(int32_t src, int32_t dst, int32_t d) {
  const double scale = static_cast<double>(src) / dst;
  const float f = static_cast<float>((d + 0.5) * scale) - 0.5f;
  const auto i0 = static_cast<int32_t>(f);  // toward zero
  const float t = f - static_cast<float>(i0);
  if (t < 0.0f) return {0, 0};  // f in (-1, 0): the first pixel alone
  return {i0, static_cast<int32_t>(t * 128.0f + 0.5f)};
}

void bilinear_column_table(int32_t src, int32_t dst, uint16_t *tab) {
  for (int32_t d = 0; d < dst; ++d) {
    BilinearTap t = bilinear_tap(src, dst, d);
    if (t.i0 >= src - 1) t = {src - 1, 0};  // right border: copy the last column
    tab[2 * d] = static_cast<uint16_t>(t.i0);
    tab[2 * d + 1] = static_cast<uint16_t>(t.w);
  }
}

void bilinear_row_table(int32_t src, int32_t dst, uint16_t *tab) {
  for (int32_t d = 0; d < dst; ++d) {
    BilinearTap t = bilinear_tap(src, dst, d);
    // f stays below src - 0.5, so i0 <= src - 1; the clamp only guards
    // the float rounding of extreme ratios.
    if (t.i0 > src - 1) t = {src - 1, 0};
    tab[2 * d] = static_cast<uint16_t>(t.i0);
    tab[2 * d + 1] = static_cast<uint16_t>(t.w);
  }
}

namespace {

template <int kStep>
void fill_c1(const uint8_t *row, const uint16_t *col_tab, int32_t n, uint32_t *out) {
  for (int32_t d = 0; d < n; ++d) {
    const int32_t x = col_tab[2 * d];
    const int32_t w = col_tab[2 * d + 1];
    const int32_t p0 = row[x * kStep];
    int32_t v = p0 * 128;
    if (w != 0) v += (row[(x + 1) * kStep] - p0) * w;
    out[d] = static_cast<uint32_t>(v);
  }
}

// Chroma (U and V) of full-resolution pixel x: the mean of the two samples
// around it, or between chroma rows of the four, rounded half up. On a sample
// position both taps are the same sample, and (a + a + 1) >> 1 == a; with two
// chroma rows, (a + a + b + b + 2) >> 2 == (a + b + 1) >> 1 covers pixels
// that lie between rows only.
template <bool kTwoRows>
inline void chroma_at(const YuvRow &r, int32_t x, int32_t *u, int32_t *v) {
  const int32_t k = (x >> 1) * r.c_step;
  // Without a branch: odd and even columns alternate unpredictably.
  const int32_t next = (x & 1) & static_cast<int32_t>((x >> 1) < r.last_pair);
  const int32_t k2 = k + next * r.c_step;
  if (kTwoRows) {
    *u = (r.u0[k] + r.u0[k2] + r.u1[k] + r.u1[k2] + 2) >> 2;
    *v = (r.v0[k] + r.v0[k2] + r.v1[k] + r.v1[k2] + 2) >> 2;
  } else {
    *u = (r.u0[k] + r.u0[k2] + 1) >> 1;
    *v = (r.v0[k] + r.v0[k2] + 1) >> 1;
  }
}

template <bool kTwoRows>
void fill_yuv(const YuvRow &r, const uint16_t *col_tab, int32_t n, uint32_t *out) {
  for (int32_t d = 0; d < n; ++d, out += 3) {
    const int32_t x = col_tab[2 * d];
    const int32_t w = col_tab[2 * d + 1];
    const int32_t y0 = r.y[x * r.y_step];
    int32_t u0, v0;
    chroma_at<kTwoRows>(r, x, &u0, &v0);
    int32_t y = y0 * 128, u = u0 * 128, v = v0 * 128;
    if (w != 0) {
      int32_t u1, v1;
      chroma_at<kTwoRows>(r, x + 1, &u1, &v1);
      y += (r.y[(x + 1) * r.y_step] - y0) * w;
      u += (u1 - u0) * w;
      v += (v1 - v0) * w;
    }
    out[0] = static_cast<uint32_t>(y);
    out[1] = static_cast<uint32_t>(u);
    out[2] = static_cast<uint32_t>(v);
  }
}

}  // namespace

void bilinear_fill_c1(const uint8_t *row, int32_t step, const uint16_t *col_tab, int32_t n,
                      uint32_t *out) {
  if (step == 2) {
    fill_c1<2>(row, col_tab, n, out);
  } else {
    fill_c1<1>(row, col_tab, n, out);
  }
}

void bilinear_fill_bgr(const uint8_t *row, const uint16_t *col_tab, int32_t n, uint32_t *out) {
  for (int32_t d = 0; d < n; ++d, out += 3) {
    const int32_t w = col_tab[2 * d + 1];
    const uint8_t *p = row + 3 * col_tab[2 * d];
    for (int c = 0; c < 3; ++c) {
      int32_t v = p[c] * 128;
      if (w != 0) v += (p[3 + c] - p[c]) * w;
      out[c] = static_cast<uint32_t>(v);
    }
  }
}

void bilinear_fill_yuv(const YuvRow &r, const uint16_t *col_tab, int32_t n, uint32_t *out) {
  if (r.u1 == r.u0 && r.v1 == r.v0) {
    fill_yuv<false>(r, col_tab, n, out);
  } else {
    fill_yuv<true>(r, col_tab, n, out);
  }
}

void bilinear_blend_ref(const uint32_t *r0, const uint32_t *r1, uint32_t wy, uint8_t *dst,
                        int32_t n) {
  // Unsigned arithmetic wraps in (r1 - r0) * wy, but the full sum is the
  // non-negative value of the signed formula (below 2^23), so it is exact.
  for (int32_t i = 0; i < n; ++i)
    dst[i] = static_cast<uint8_t>(((r1[i] - r0[i]) * wy + r0[i] * 128u + 8192u) >> 14);
}

#if defined(__SSE2__)
void bilinear_blend_sse2(const uint32_t *r0, const uint32_t *r1, uint32_t wy, uint8_t *dst,
                         int32_t n) {
  // Lanes pair (r0, r1) as 16-bit values and madd multiplies them by
  // (128 - wy, wy): r0 * (128 - wy) + r1 * wy == r0 * 128 + (r1 - r0) * wy.
  const __m128i weights = _mm_set1_epi32(static_cast<int32_t>((wy << 16) | (128u - wy)));
  const __m128i half = _mm_set1_epi32(8192);
  auto load = [](const uint32_t *p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
  };
  auto round = [&](__m128i pairs) {
    return _mm_srli_epi32(_mm_add_epi32(_mm_madd_epi16(pairs, weights), half), 14);
  };
  int32_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m128i a0 = _mm_packs_epi32(load(r0 + i), load(r0 + i + 4));
    const __m128i a1 = _mm_packs_epi32(load(r0 + i + 8), load(r0 + i + 12));
    const __m128i b0 = _mm_packs_epi32(load(r1 + i), load(r1 + i + 4));
    const __m128i b1 = _mm_packs_epi32(load(r1 + i + 8), load(r1 + i + 12));
    const __m128i lo = _mm_packs_epi32(round(_mm_unpacklo_epi16(a0, b0)),
                                       round(_mm_unpackhi_epi16(a0, b0)));
    const __m128i hi = _mm_packs_epi32(round(_mm_unpacklo_epi16(a1, b1)),
                                       round(_mm_unpackhi_epi16(a1, b1)));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), _mm_packus_epi16(lo, hi));
  }
  bilinear_blend_ref(r0 + i, r1 + i, wy, dst + i, n - i);
}
#endif

void bilinear_blend(const uint32_t *r0, const uint32_t *r1, uint32_t wy, uint8_t *dst,
                    int32_t n) {
#if defined(__SSE2__)
  bilinear_blend_sse2(r0, r1, wy, dst, n);
#else
  bilinear_blend_ref(r0, r1, wy, dst, n);
#endif
}

}  // namespace hseg
