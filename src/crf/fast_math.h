// Inline forms of the fast exponential, shared by the exported functions and
// the per-pixel normalisation of the CRF (which calls it in its inner loop),
// and the four-lane SSE2 form of the same computation.
#ifndef HSEG_SRC_CRF_FAST_MATH_H_
#define HSEG_SRC_CRF_FAST_MATH_H_

#include <cmath>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace hseg {
namespace crf {

// Coefficients of the degree-7 polynomial for e^-x on [0, 0.69], as stored
// in single precision (0.4999999 and 0.49999991 are the same float).
constexpr float kExpC2 = 0.49999991f;
constexpr float kExpC3 = 0.1666653f;
constexpr float kExpC4 = 0.041657347f;
constexpr float kExpC5 = 0.0083013596f;
constexpr float kExpC6 = 0.001329882f;
constexpr float kExpC7 = 0.00014131609f;

// e^-x for small non-negative x, nested (Horner) form.
inline float exp_neg_poly(float x) {
  return 1.0f -
         x * (1.0f -
              x * (kExpC2 -
                   x * (kExpC3 - x * (kExpC4 - x * (kExpC5 - x * (kExpC6 - x * kExpC7))))));
}

// e^x. Beyond |x| > 20 the result is 0 for either sign (the inference only
// passes arguments <= 0, where e^-20 ~ 2e-9 is negligible beside 1). The
// argument is brought into [0, 0.69] by exact power-of-two scalings, counting
// the squarings that undo them; the thresholds compare the float widened to
// double with double constants.
inline float fast_exp_inline(float x) {
  const bool negative = x < 0.0f;
  float a = std::fabs(x);
  if (a > 20.0f) return 0.0f;
  int k = 0;
  while (static_cast<double>(a) > 5.52) {
    a = a * 0.125f;
    k += 3;
  }
  while (static_cast<double>(a) > 2.76) {
    a = a * 0.25f;
    k += 2;
  }
  while (static_cast<double>(a) > 0.69) {
    a = a * 0.5f;
    k += 1;
  }
  float y = exp_neg_poly(a);
  for (int i = 0; i < k; ++i) y = y * y;
  return negative ? y : 1.0f / y;
}

#if defined(__SSE2__)

// The largest float not above c, for c in [lo, 2 lo) with ulp the float
// spacing there and c not a float: a > c (a float widened to double) holds
// exactly when a > float_below(c), so the reductions can compare in single
// precision.
constexpr float float_below(double c, float ulp) {
  return static_cast<double>(static_cast<float>(c)) > c ? static_cast<float>(c) - ulp
                                                         : static_cast<float>(c);
}
constexpr float kBelow552 = float_below(5.52, 0x1p-21f);  // 5.52 in [4, 8)
constexpr float kBelow276 = float_below(2.76, 0x1p-22f);  // 2.76 in [2, 4)
constexpr float kBelow069 = float_below(0.69, 0x1p-24f);  // 0.69 in [0.5, 1)

// fast_exp_inline on four lanes, with the same result in every lane. For
// |x| <= 20 the scalar loops run a bounded number of times: the 1/8 step at
// most once (20 / 8 < 5.52), the 1/4 step at most once (5.52 / 4 < 2.76) and
// the 1/2 step at most twice (2.76 / 4 = 0.69), so k <= 5; fixed masked steps
// reproduce them. Lanes with |x| > 20 are set to 0 at the end.
inline __m128 fast_exp_sse2(__m128 x) {
  const __m128 sign = _mm_set1_ps(-0.0f);
  const __m128 negative = _mm_cmplt_ps(x, _mm_setzero_ps());
  __m128 a = _mm_andnot_ps(sign, x);
  const __m128 beyond = _mm_cmpgt_ps(a, _mm_set1_ps(20.0f));
  __m128i k = _mm_setzero_si128();
  // a > 5.52: a *= 1/8, k += 3.
  __m128 m = _mm_cmpgt_ps(a, _mm_set1_ps(kBelow552));
  a = _mm_or_ps(_mm_and_ps(m, _mm_mul_ps(a, _mm_set1_ps(0.125f))), _mm_andnot_ps(m, a));
  k = _mm_add_epi32(k, _mm_and_si128(_mm_castps_si128(m), _mm_set1_epi32(3)));
  // a > 2.76: a *= 1/4, k += 2.
  m = _mm_cmpgt_ps(a, _mm_set1_ps(kBelow276));
  a = _mm_or_ps(_mm_and_ps(m, _mm_mul_ps(a, _mm_set1_ps(0.25f))), _mm_andnot_ps(m, a));
  k = _mm_add_epi32(k, _mm_and_si128(_mm_castps_si128(m), _mm_set1_epi32(2)));
  // a > 0.69: a *= 1/2, k += 1; twice.
  for (int i = 0; i < 2; ++i) {
    m = _mm_cmpgt_ps(a, _mm_set1_ps(kBelow069));
    a = _mm_or_ps(_mm_and_ps(m, _mm_mul_ps(a, _mm_set1_ps(0.5f))), _mm_andnot_ps(m, a));
    k = _mm_sub_epi32(k, _mm_castps_si128(m));  // m is -1 in the lanes that step
  }
  // Horner form of exp_neg_poly.
  __m128 y = _mm_sub_ps(_mm_set1_ps(kExpC6), _mm_mul_ps(a, _mm_set1_ps(kExpC7)));
  y = _mm_sub_ps(_mm_set1_ps(kExpC5), _mm_mul_ps(a, y));
  y = _mm_sub_ps(_mm_set1_ps(kExpC4), _mm_mul_ps(a, y));
  y = _mm_sub_ps(_mm_set1_ps(kExpC3), _mm_mul_ps(a, y));
  y = _mm_sub_ps(_mm_set1_ps(kExpC2), _mm_mul_ps(a, y));
  y = _mm_sub_ps(_mm_set1_ps(1.0f), _mm_mul_ps(a, y));
  y = _mm_sub_ps(_mm_set1_ps(1.0f), _mm_mul_ps(a, y));
  // Square back k times.
  for (int i = 0; i < 5; ++i) {
    const __m128 sq = _mm_castsi128_ps(_mm_cmpgt_epi32(k, _mm_set1_epi32(i)));
    y = _mm_or_ps(_mm_and_ps(sq, _mm_mul_ps(y, y)), _mm_andnot_ps(sq, y));
  }
  const __m128 r = _mm_or_ps(_mm_and_ps(negative, y),
                             _mm_andnot_ps(negative, _mm_div_ps(_mm_set1_ps(1.0f), y)));
  return _mm_andnot_ps(beyond, r);
}

#endif  // __SSE2__

}  // namespace crf
}  // namespace hseg

#endif  // HSEG_SRC_CRF_FAST_MATH_H_
