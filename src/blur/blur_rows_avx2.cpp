// AVX2 row kernels of the blur library: eight 32-bit lanes. This file is
// compiled with AVX2 enabled; its kernels run only where the CPU has it.
#include "blur/blur_rows.h"

#if defined(HSEG_BLUR_HAVE_X86)
#include <immintrin.h>

namespace hseg {
namespace blur {
namespace {

using R = __m256i;

struct V {
  static constexpr int kLanes = 8;
  static R load(const uint32_t *p) { return _mm256_loadu_si256(reinterpret_cast<const R *>(p)); }
  static void store(uint32_t *p, R v) { _mm256_storeu_si256(reinterpret_cast<R *>(p), v); }
  static R load8(const uint8_t *p) {
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)));
  }
  static R load16(const uint16_t *p) {
    return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)));
  }
  static __m128i pack16(R v) {
    return _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  }
  static void store8(uint8_t *p, R v) {
    const __m128i w = pack16(v);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(p), _mm_packus_epi16(w, w));
  }
  static void store16(uint16_t *p, R v) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(p), pack16(v));
  }
  static R add(R a, R b) { return _mm256_add_epi32(a, b); }
  static R sub(R a, R b) { return _mm256_sub_epi32(a, b); }
  static R set1(uint32_t v) { return _mm256_set1_epi32(static_cast<int32_t>(v)); }
  static R scale_round(R v, float scale) {
    const __m256 f = _mm256_mul_ps(_mm256_cvtepi32_ps(v), _mm256_set1_ps(scale));
    return _mm256_cvttps_epi32(_mm256_add_ps(f, _mm256_set1_ps(0.5f)));
  }
  static R mulhi_shift(R x, R m, uint32_t k) {
    const R even = _mm256_srli_epi64(_mm256_mul_epu32(x, m), 32);
    const R odd = _mm256_mul_epu32(_mm256_srli_epi64(x, 32), m);
    const R hi = _mm256_blend_epi32(even, odd, 0xAA);
    return _mm256_srl_epi32(hi, _mm_cvtsi32_si128(static_cast<int32_t>(k)));
  }
  template <int S>
  static R shift_lanes(R v) {
    // Lane j takes lane j - S; lanes below S are cleared.
    const R idx = _mm256_setr_epi32(0 - S, 1 - S, 2 - S, 3 - S, 4 - S, 5 - S, 6 - S, 7 - S);
    const R keep = _mm256_cmpgt_epi32(idx, _mm256_set1_epi32(-1));
    return _mm256_and_si256(_mm256_permutevar8x32_epi32(v, idx), keep);
  }
  template <int CH>
  static R carry(R v) {
    const R idx = _mm256_setr_epi32(8 - CH + 0 % CH, 8 - CH + 1 % CH, 8 - CH + 2 % CH,
                                    8 - CH + 3 % CH, 8 - CH + 4 % CH, 8 - CH + 5 % CH,
                                    8 - CH + 6 % CH, 8 - CH + 7 % CH);
    return _mm256_permutevar8x32_epi32(v, idx);
  }
};

#include "blur/blur_rows_simd.h"

}  // namespace

const RowKernels kRowKernelsAvx2 = kTable;

}  // namespace blur
}  // namespace hseg
#endif
