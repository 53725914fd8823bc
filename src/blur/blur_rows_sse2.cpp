// SSE2 row kernels of the blur library: four 32-bit lanes.
#include "blur/blur_rows.h"

#if defined(HSEG_BLUR_HAVE_X86)
#include <emmintrin.h>

#include <cstring>

namespace hseg {
namespace blur {
namespace {

using R = __m128i;

struct V {
  static constexpr int kLanes = 4;
  static R load(const uint32_t *p) { return _mm_loadu_si128(reinterpret_cast<const R *>(p)); }
  static void store(uint32_t *p, R v) { _mm_storeu_si128(reinterpret_cast<R *>(p), v); }
  static R load8(const uint8_t *p) {
    int32_t w;
    std::memcpy(&w, p, 4);
    const R z = _mm_setzero_si128();
    return _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(w), z), z);
  }
  static R load16(const uint16_t *p) {
    return _mm_unpacklo_epi16(_mm_loadl_epi64(reinterpret_cast<const R *>(p)),
                              _mm_setzero_si128());
  }
  static void store8(uint8_t *p, R v) {
    const R b = _mm_packus_epi16(_mm_packs_epi32(v, v), v);
    const int32_t w = _mm_cvtsi128_si32(b);
    std::memcpy(p, &w, 4);
  }
  static void store16(uint16_t *p, R v) {
    // No unsigned 32-to-16 pack in SSE2: bias into the signed range, pack,
    // and take the bias off again in 16 bits.
    const R bias32 = _mm_set1_epi32(32768);
    const R bias16 = _mm_set1_epi16(-32768);
    const R w = _mm_add_epi16(_mm_packs_epi32(_mm_sub_epi32(v, bias32), v), bias16);
    _mm_storel_epi64(reinterpret_cast<R *>(p), w);
  }
  static R add(R a, R b) { return _mm_add_epi32(a, b); }
  static R sub(R a, R b) { return _mm_sub_epi32(a, b); }
  static R set1(uint32_t v) { return _mm_set1_epi32(static_cast<int32_t>(v)); }
  static R scale_round(R v, float scale) {
    const __m128 f = _mm_mul_ps(_mm_cvtepi32_ps(v), _mm_set1_ps(scale));
    return _mm_cvttps_epi32(_mm_add_ps(f, _mm_set1_ps(0.5f)));
  }
  static R mulhi_shift(R x, R m, uint32_t k) {
    const R even = _mm_srli_epi64(_mm_mul_epu32(x, m), 32);
    const R odd = _mm_mul_epu32(_mm_srli_epi64(x, 32), m);
    const R hi = _mm_or_si128(even, _mm_and_si128(odd, _mm_set_epi32(-1, 0, -1, 0)));
    return _mm_srl_epi32(hi, _mm_cvtsi32_si128(static_cast<int32_t>(k)));
  }
  template <int S>
  static R shift_lanes(R v) {
    return _mm_slli_si128(v, 4 * S);
  }
  template <int CH>
  static R carry(R v) {
    // Lane j takes lane 4 - CH + j % CH.
    if (CH == 1) return _mm_shuffle_epi32(v, _MM_SHUFFLE(3, 3, 3, 3));
    if (CH == 2) return _mm_shuffle_epi32(v, _MM_SHUFFLE(3, 2, 3, 2));
    return _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 3, 2, 1));
  }
};

#include "blur/blur_rows_simd.h"

}  // namespace

const RowKernels kRowKernelsSse2 = kTable;

}  // namespace blur
}  // namespace hseg
#endif
