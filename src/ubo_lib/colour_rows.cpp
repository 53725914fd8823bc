// Row kernels of grey from BGR, NV21 to BGR and BGR to NV21: the plain
// references, and SSSE3 kernels that give the same bytes.
#include "ubo_lib/colour_rows.h"

#include "resize/yuv.h"

#if defined(HSEG_UBO_HAVE_SSSE3)
#include <immintrin.h>
#endif

namespace hseg {
namespace ubo {

namespace {

// Chroma from the mean B, G, R of a block (JPEG/JFIF BT.601, full range).
constexpr int32_t kUfromR = -2765;  // == -0.168736 * 16384
constexpr int32_t kUfromG = -5427;  // == -0.331264 * 16384
constexpr int32_t kUfromB = 8192;   // == 0.5 * 16384
constexpr int32_t kVfromR = 8192;   // == 0.5 * 16384
constexpr int32_t kVfromG = -6860;  // == -0.418688 * 16384
constexpr int32_t kVfromB = -1332;  // == -0.081312 * 16384

}  // namespace

void luma_row_ref(const uint8_t *src, int32_t channels, uint8_t *out, int32_t w, LumaWeights k) {
  const int32_t half = 1 << (k.shift - 1);
  for (int32_t x = 0; x < w; ++x, src += channels)
    out[x] = static_cast<uint8_t>((k.b * src[0] + k.g * src[1] + k.r * src[2] + half) >> k.shift);
}

void luma_row_c3_ref(const uint8_t *bgr, uint8_t *out, int32_t w, LumaWeights k) {
  luma_row_ref(bgr, 3, out, w, k);
}

void nv21_row_to_bgr_ref(const uint8_t *y, const uint8_t *vu, uint8_t *bgr, int32_t w) {
  for (int32_t x = 0; x < w; ++x, bgr += 3) yuv_to_bgr(y[x], vu[(x & ~1) + 1], vu[x & ~1], bgr);
}

void bgr_rows_to_vu_ref(const uint8_t *top, const uint8_t *below, uint8_t *vu, int32_t w) {
  for (int32_t x = 0; x < w; x += 2, vu += 2) {
    const int32_t cols = x + 1 < w ? 2 : 1;
    const int32_t n = cols * (below != nullptr ? 2 : 1);
    int32_t mean[3];
    for (int32_t c = 0; c < 3; ++c) {
      int32_t sum = 0;
      for (int32_t k = 0; k < cols; ++k)
        sum += top[3 * (x + k) + c] + (below != nullptr ? below[3 * (x + k) + c] : 0);
      mean[c] = (sum + n / 2) / n;
    }
    const int32_t b = mean[0], g = mean[1], r = mean[2];
    // Arithmetic shifts, as in yuv.h.
    vu[0] = clamp_u8(((kVfromR * r + kVfromG * g + kVfromB * b + 8192) >> 14) + 128);
    vu[1] = clamp_u8(((kUfromR * r + kUfromG * g + kUfromB * b + 8192) >> 14) + 128);
  }
}

ColourRows colour_rows() {
#if defined(HSEG_UBO_HAVE_SSSE3)
  if (__builtin_cpu_supports("ssse3"))
    return {luma_row_c3_ssse3, nv21_row_to_bgr_ssse3, bgr_rows_to_vu_ssse3};
#endif
  return {luma_row_c3_ref, nv21_row_to_bgr_ref, bgr_rows_to_vu_ref};
}

#if defined(HSEG_UBO_HAVE_SSSE3)

namespace {

// Byte shuffles between 16 packed BGR pixels (three registers) and one
// register per channel. split[k][r] gathers channel k's bytes held by
// register r; join[k][r] places channel k's bytes into output register r.
// -128 (top bit set) makes the shuffle write 0.
struct ShuffleMasks {
  alignas(16) int8_t split[3][3][16];
  alignas(16) int8_t join[3][3][16];
};

constexpr ShuffleMasks make_masks() {
  ShuffleMasks s{};
  for (int k = 0; k < 3; ++k)
    for (int r = 0; r < 3; ++r)
      for (int j = 0; j < 16; ++j) {
        const int from = 3 * j + k;  // pixel j's channel k in the packed row
        s.split[k][r][j] = static_cast<int8_t>(from / 16 == r ? from % 16 : -128);
        const int to = 16 * r + j;  // byte j of output register r
        s.join[k][r][j] = static_cast<int8_t>(to % 3 == k ? to / 3 : -128);
      }
  return s;
}
constexpr ShuffleMasks kMasks = make_masks();

__attribute__((target("ssse3"))) inline __m128i mask(const int8_t (&m)[16]) {
  return _mm_load_si128(reinterpret_cast<const __m128i *>(m));
}

__attribute__((target("ssse3"))) inline void split3(const uint8_t *p, __m128i ch[3]) {
  const __m128i in[3] = {_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 32))};
  for (int k = 0; k < 3; ++k)
    ch[k] = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(in[0], mask(kMasks.split[k][0])),
                                      _mm_shuffle_epi8(in[1], mask(kMasks.split[k][1]))),
                         _mm_shuffle_epi8(in[2], mask(kMasks.split[k][2])));
}

__attribute__((target("ssse3"))) inline void join3(const __m128i ch[3], uint8_t *p) {
  for (int r = 0; r < 3; ++r)
    _mm_storeu_si128(reinterpret_cast<__m128i *>(p + 16 * r),
                     _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(ch[0], mask(kMasks.join[0][r])),
                                               _mm_shuffle_epi8(ch[1], mask(kMasks.join[1][r]))),
                                  _mm_shuffle_epi8(ch[2], mask(kMasks.join[2][r]))));
}

// Two int16 weights per 32-bit lane: `lo` for the even element, `hi` for the
// odd one, as _mm_madd_epi16 pairs them.
__attribute__((target("ssse3"))) inline __m128i weight_pair(int32_t lo, int32_t hi) {
  return _mm_set1_epi32(
      static_cast<int32_t>(static_cast<uint32_t>(hi) << 16 | static_cast<uint16_t>(lo)));
}

// Sums of the products of two madd pairs, shifted right arithmetically by
// `shift` (a count register).
__attribute__((target("ssse3"))) inline __m128i dot2(__m128i a, __m128i wa, __m128i b, __m128i wb,
                                                     __m128i shift) {
  return _mm_sra_epi32(_mm_add_epi32(_mm_madd_epi16(a, wa), _mm_madd_epi16(b, wb)), shift);
}

}  // namespace

__attribute__((target("ssse3"))) void luma_row_c3_ssse3(const uint8_t *bgr, uint8_t *out, int32_t w,
                                                        LumaWeights k) {
  const __m128i wbg = weight_pair(k.b, k.g), wr = weight_pair(k.r, 1 << (k.shift - 1));
  const __m128i zero = _mm_setzero_si128(), one = _mm_set1_epi8(1);
  const __m128i shift = _mm_cvtsi32_si128(k.shift);
  int32_t x = 0;
  for (; x + 16 <= w; x += 16) {
    __m128i ch[3];
    split3(bgr + 3 * x, ch);
    // (b, g) and (r, 1) byte pairs, 8 pixels each, widened 4 pixels at a time.
    const __m128i bg[2] = {_mm_unpacklo_epi8(ch[0], ch[1]), _mm_unpackhi_epi8(ch[0], ch[1])};
    const __m128i r1[2] = {_mm_unpacklo_epi8(ch[2], one), _mm_unpackhi_epi8(ch[2], one)};
    __m128i sum[4];
    for (int h = 0; h < 2; ++h) {
      sum[2 * h] =
          dot2(_mm_unpacklo_epi8(bg[h], zero), wbg, _mm_unpacklo_epi8(r1[h], zero), wr, shift);
      sum[2 * h + 1] =
          dot2(_mm_unpackhi_epi8(bg[h], zero), wbg, _mm_unpackhi_epi8(r1[h], zero), wr, shift);
    }
    _mm_storeu_si128(
        reinterpret_cast<__m128i *>(out + x),
        _mm_packus_epi16(_mm_packs_epi32(sum[0], sum[1]), _mm_packs_epi32(sum[2], sum[3])));
  }
  luma_row_ref(bgr + 3 * x, 3, out + x, w - x, k);
}

// With Y scaled by 2^14, (Y * 16384 + c) >> 14 == Y + (c >> 14): the chroma
// terms are shifted once per pair, and each pixel adds them to its Y with
// 16-bit saturation, which clamps exactly as the reference does.
__attribute__((target("ssse3"))) void nv21_row_to_bgr_ssse3(const uint8_t *y, const uint8_t *vu,
                                                            uint8_t *bgr, int32_t w) {
  const __m128i zero = _mm_setzero_si128(), bias = _mm_set1_epi16(128);
  const __m128i round = _mm_set1_epi32(kYuvRound), shift = _mm_cvtsi32_si128(14);
  // Weights of the (v, u) pairs for blue, green and red.
  const __m128i weights[3] = {weight_pair(0, kYuvUtoB), weight_pair(kYuvVtoG, kYuvUtoG),
                              weight_pair(kYuvVtoR, 0)};
  int32_t x = 0;
  for (; x + 16 <= w; x += 16) {
    const __m128i luma = _mm_loadu_si128(reinterpret_cast<const __m128i *>(y + x));
    const __m128i pairs = _mm_loadu_si128(reinterpret_cast<const __m128i *>(vu + x));
    const __m128i vu_lo = _mm_sub_epi16(_mm_unpacklo_epi8(pairs, zero), bias);
    const __m128i vu_hi = _mm_sub_epi16(_mm_unpackhi_epi8(pairs, zero), bias);
    const __m128i y_lo = _mm_unpacklo_epi8(luma, zero), y_hi = _mm_unpackhi_epi8(luma, zero);
    __m128i ch[3];
    for (int k = 0; k < 3; ++k) {
      const __m128i d = _mm_packs_epi32(
          _mm_sra_epi32(_mm_add_epi32(_mm_madd_epi16(vu_lo, weights[k]), round), shift),
          _mm_sra_epi32(_mm_add_epi32(_mm_madd_epi16(vu_hi, weights[k]), round), shift));
      ch[k] = _mm_packus_epi16(_mm_add_epi16(y_lo, _mm_unpacklo_epi16(d, d)),
                               _mm_add_epi16(y_hi, _mm_unpackhi_epi16(d, d)));
    }
    join3(ch, bgr + 3 * x);
  }
  nv21_row_to_bgr_ref(y + x, vu + x, bgr + 3 * x, w - x);
}

__attribute__((target("ssse3"))) void bgr_rows_to_vu_ssse3(const uint8_t *top, const uint8_t *below,
                                                           uint8_t *vu, int32_t w) {
  const __m128i ones = _mm_set1_epi8(1), two = _mm_set1_epi16(2), one16 = _mm_set1_epi16(1);
  const __m128i bias = _mm_set1_epi16(128), shift = _mm_cvtsi32_si128(14);
  const __m128i u_rg = weight_pair(kUfromR, kUfromG), u_b = weight_pair(kUfromB, 8192);
  const __m128i v_rg = weight_pair(kVfromR, kVfromG), v_b = weight_pair(kVfromB, 8192);
  int32_t x = 0;
  for (; below != nullptr && x + 16 <= w; x += 16) {
    __m128i t[3], b[3], mean[3];
    split3(top + 3 * x, t);
    split3(below + 3 * x, b);
    for (int k = 0; k < 3; ++k)  // 8 blocks: (sum of 4 + 2) >> 2
      mean[k] = _mm_srli_epi16(
          _mm_add_epi16(_mm_add_epi16(_mm_maddubs_epi16(t[k], ones), _mm_maddubs_epi16(b[k], ones)),
                        two),
          2);
    const __m128i rg[2] = {_mm_unpacklo_epi16(mean[2], mean[1]),
                           _mm_unpackhi_epi16(mean[2], mean[1])};
    const __m128i b1[2] = {_mm_unpacklo_epi16(mean[0], one16), _mm_unpackhi_epi16(mean[0], one16)};
    const __m128i u = _mm_add_epi16(
        _mm_packs_epi32(dot2(rg[0], u_rg, b1[0], u_b, shift), dot2(rg[1], u_rg, b1[1], u_b, shift)),
        bias);
    const __m128i v = _mm_add_epi16(
        _mm_packs_epi32(dot2(rg[0], v_rg, b1[0], v_b, shift), dot2(rg[1], v_rg, b1[1], v_b, shift)),
        bias);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(vu + x),
                     _mm_unpacklo_epi8(_mm_packus_epi16(v, v), _mm_packus_epi16(u, u)));
  }
  bgr_rows_to_vu_ref(top + 3 * x, below != nullptr ? below + 3 * x : nullptr, vu + x, w - x);
}

#endif  // HSEG_UBO_HAVE_SSSE3

}  // namespace ubo
}  // namespace hseg
