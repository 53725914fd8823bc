// Pixel conversions: grey from BGR, 8-bit to int32 and back, and
// normalisation to floats.
#include <algorithm>
#include <cmath>

#include "ubo_lib/colour_rows.h"
#include "ubo_lib/toolkit.h"

namespace {

using hseg::ubo::check_pair;
using hseg::ubo::row_of;

// out = f(in) for every sample of `s` into the same place of `d` (same size
// and channels), In and Out the two sample types.
template <typename In, typename Out, typename F>
void map_samples(const Image &s, const Image &d, F f) {
  const size_t n = size_t{s.width} * s.channels;
  for (uint32_t y = 0; y < s.height; ++y) {
    const In *in = row_of<In>(s, y);
    Out *out = row_of<Out>(d, y);
    for (size_t i = 0; i < n; ++i) out[i] = f(in[i]);
  }
}

// How many samples of each value the image holds.
void histogram(const Image &s, uint64_t (&count)[256]) {
  std::fill(count, count + 256, 0);
  const size_t n = size_t{s.width} * s.channels;
  for (uint32_t y = 0; y < s.height; ++y) {
    const uint8_t *in = row_of(s, y);
    for (size_t i = 0; i < n; ++i) ++count[in[i]];
  }
}

}  // namespace

extern "C" {

MRESULT img_bgr2gray(const Image *src, Image *dst, int32_t weights) {
  MRESULT s = hseg::ubo::check_image(src, 8, 1u << 3 | 1u << 4);
  if (s == HSEG_OK) s = hseg::ubo::check_image(dst, 8, hseg::ubo::kOneChannel);
  if (s != HSEG_OK) return s;
  if (src->width != dst->width || src->height != dst->height ||
      (weights != HSEG_GRAY_BGR128 && weights != HSEG_GRAY_BT601))
    return HSEG_ERR_BAD_ARGUMENT;
  using namespace hseg::ubo;
  const LumaWeights k = weights == HSEG_GRAY_BT601 ? kLumaBt601 : kLuma128;
  const auto luma_c3 = colour_rows().luma_c3;
  const auto w = static_cast<int32_t>(src->width);
  for (uint32_t y = 0; y < src->height; ++y) {
    if (src->channels == 3)
      luma_c3(row_of(*src, y), row_of(*dst, y), w, k);
    else
      luma_row_ref(row_of(*src, y), 4, row_of(*dst, y), w, k);
  }
  return HSEG_OK;
}

MRESULT img_u8_to_s32(const Image *src, Image *dst) {
  const MRESULT s = check_pair(src, 8, dst, 32, hseg::ubo::kAnyChannels);
  if (s != HSEG_OK) return s;
  map_samples<uint8_t, int32_t>(*src, *dst, [](uint8_t v) { return int32_t{v}; });
  return HSEG_OK;
}

MRESULT img_s32_to_u8(const Image *src, Image *dst) {
  const MRESULT s = check_pair(src, 32, dst, 8, hseg::ubo::kAnyChannels);
  if (s != HSEG_OK) return s;
  map_samples<int32_t, uint8_t>(
      *src, *dst, [](int32_t v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); });
  return HSEG_OK;
}

MRESULT img_normalize_minmax(const Image *src, Image *dst, float lo, float hi) {
  const MRESULT s = check_pair(src, 8, dst, 32, hseg::ubo::kAnyChannels);
  if (s != HSEG_OK) return s;
  if (!std::isfinite(lo) || !std::isfinite(hi)) return HSEG_ERR_BAD_ARGUMENT;
  uint64_t count[256];
  histogram(*src, count);
  int vmin = 0, vmax = 255;
  while (count[vmin] == 0) ++vmin;  // the image has at least one sample
  while (count[vmax] == 0) --vmax;
  // Each of the 256 values maps once, in double, so min and max land exactly
  // on lo and hi.
  const double scale = vmax > vmin ? (double{hi} - lo) / (vmax - vmin) : 0.0;
  float table[256];
  for (int v = 0; v < 256; ++v)
    table[v] = v == vmax && vmax > vmin ? hi : static_cast<float>(lo + (v - vmin) * scale);
  map_samples<uint8_t, float>(*src, *dst, [&table](uint8_t v) { return table[v]; });
  return HSEG_OK;
}

MRESULT img_normalize_meanstd(const Image *src, Image *dst) {
  const MRESULT s = check_pair(src, 8, dst, 32, hseg::ubo::kAnyChannels);
  if (s != HSEG_OK) return s;
  uint64_t count[256];
  histogram(*src, count);
  // Exact integer sums (below 2^39 and 2^47 for any image an Image can
  // hold); n^2 * variance = n * sum2 - sum^2 is exact in 128 bits.
  uint64_t n = 0, sum = 0, sum2 = 0;
  for (uint64_t v = 0; v < 256; ++v) {
    n += count[v];
    sum += v * count[v];
    sum2 += v * v * count[v];
  }
  const unsigned __int128 n2var =
      static_cast<unsigned __int128>(n) * sum2 - static_cast<unsigned __int128>(sum) * sum;
  const double mean = static_cast<double>(sum) / n;
  const double sd = std::sqrt(static_cast<double>(n2var)) / n;
  const double inv_sd = n2var > 0 ? 1.0 / sd : 0.0;
  float table[256];
  for (int v = 0; v < 256; ++v) table[v] = static_cast<float>((v - mean) * inv_sd);
  map_samples<uint8_t, float>(*src, *dst, [&table](uint8_t v) { return table[v]; });
  return HSEG_OK;
}

}  // extern "C"
