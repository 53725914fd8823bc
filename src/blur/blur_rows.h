// Row kernels of the blur library. Every blur here is built from running
// window sums kept in exact 32-bit integers:
//
//   vsum        a column sum slides down one row: acc += add - sub
//   vsum_norm   the same, then each sum is scaled to a 16-bit sample
//   scan        prefix sums of a row of interleaved channels
//   diff_scan   prefix sums of the window sums of another prefix row
//   diff_div    window sums from two prefix rows, divided exactly (box blur)
//   diff_norm   window sums from two prefix rows, scaled (Gaussian passes)
//
// Each kernel has a plain version (the reference), an SSE2 version and an
// AVX2 version; all three give the same bytes, which the tests check.
// Sums are unsigned and wrap modulo 2^32 in prefix rows; a window sum, the
// difference of two prefixes, is exact as long as the true sum is below
// 2^31, which the drivers guarantee before choosing these kernels.
#ifndef HSEG_SRC_BLUR_BLUR_ROWS_H_
#define HSEG_SRC_BLUR_BLUR_ROWS_H_

#include <cstdint>

namespace hseg {
namespace blur {

// Exact rounded division q = (s + half) / n for s + half < 2^31 and odd
// n >= 3, as a multiply-high: with k = floor(log2 n) and m = ceil(2^(32+k) / n),
// m < 2^32 (n is not a power of two) and m * n = 2^(32+k) + e with 0 <= e < n.
// Then x * m / 2^(32+k) = x / n + x * e / (n * 2^(32+k)); the last term is
// below 1/n whenever x < 2^31 < 2^(32+k) / n, and x / n is at least 1/n below
// the next integer unless it is one, so floor(x * m / 2^(32+k)) = floor(x / n).
struct Divisor {
  uint32_t n;      // the divisor
  uint32_t half;   // (n - 1) / 2: rounds to nearest (n is odd, so no ties)
  uint32_t mul;    // m
  uint32_t shift;  // k
};
Divisor make_divisor(uint32_t n);

struct RowKernels {
  // acc[i] += add[i] - sub[i], i < n.
  void (*vsum_u8)(uint32_t *acc, const uint8_t *add, const uint8_t *sub, int32_t n);
  void (*vsum_u16)(uint32_t *acc, const uint16_t *add, const uint16_t *sub, int32_t n);
  // The same, then out[i] = (uint16_t)((float)acc[i] * scale + 0.5f).
  // acc[i] stays below 2^31 and the scaled value below 65535.5.
  void (*vsum_norm_u8)(uint32_t *acc, const uint8_t *add, const uint8_t *sub, int32_t n,
                       float scale, uint16_t *out);
  void (*vsum_norm_u16)(uint32_t *acc, const uint16_t *add, const uint16_t *sub, int32_t n,
                        float scale, uint16_t *out);
  // Prefix sums of `ch` interleaved channels (1, 2 or 3): p[0 .. ch) must
  // hold the starting sums; p[ch + i] = p[i] + a[i] for i < n.
  void (*scan_u16)(const uint16_t *a, int32_t n, int32_t ch, uint32_t *p);
  void (*scan_u32)(const uint32_t *a, int32_t n, int32_t ch, uint32_t *p);
  // Prefix sums of window sums: p[ch + i] = p[i] + (hi[i] - lo[i]).
  void (*diff_scan)(const uint32_t *hi, const uint32_t *lo, int32_t n, int32_t ch, uint32_t *p);
  // out[i] = (hi[i] - lo[i] + d.half) / d.n, i < n (exact; see Divisor).
  void (*diff_div_u8)(const uint32_t *hi, const uint32_t *lo, int32_t n, const Divisor &d,
                      uint8_t *out);
  void (*diff_div_u16)(const uint32_t *hi, const uint32_t *lo, int32_t n, const Divisor &d,
                       uint16_t *out);
  // out[i] = (T)((float)(hi[i] - lo[i]) * scale + 0.5f), i < n; the
  // difference stays below 2^31 and the scaled value below max(T) + 0.5.
  void (*diff_norm_u8)(const uint32_t *hi, const uint32_t *lo, int32_t n, float scale,
                       uint8_t *out);
  void (*diff_norm_u16)(const uint32_t *hi, const uint32_t *lo, int32_t n, float scale,
                        uint16_t *out);
};

// The plain kernels: the reference for the others.
extern const RowKernels kRowKernelsRef;
#if defined(__x86_64__) || defined(__i386__)
#define HSEG_BLUR_HAVE_X86 1
extern const RowKernels kRowKernelsSse2;
extern const RowKernels kRowKernelsAvx2;  // call only when cpu_has_avx2()
bool cpu_has_avx2();
#endif
// The fastest kernels this CPU runs.
const RowKernels &best_row_kernels();

// Scalar pieces the SIMD kernels finish their rows with.
// (int)((float)v * scale + 0.5f) for v < 2^31: the SIMD kernels convert,
// multiply, add and truncate in the same order, so they round alike.
inline int32_t scale_round(uint32_t v, float scale) {
  return static_cast<int32_t>(static_cast<float>(static_cast<int32_t>(v)) * scale + 0.5f);
}
inline uint32_t divide(uint32_t s, const Divisor &d) { return (s + d.half) / d.n; }

}  // namespace blur
}  // namespace hseg

#endif  // HSEG_SRC_BLUR_BLUR_ROWS_H_
