// NV21 to BGR and back, full range, in 14-bit fixed point.
#include "common/pixfmt.h"
#include "resize/yuv.h"
#include "ubo_lib/toolkit.h"

namespace {

// Chroma from the mean B, G, R of a block (JPEG/JFIF BT.601, full range).
constexpr int32_t kUfromR = -2765;  // == -0.168736 * 16384
constexpr int32_t kUfromG = -5427;  // == -0.331264 * 16384
constexpr int32_t kUfromB = 8192;   // == 0.5 * 16384
constexpr int32_t kVfromR = 8192;   // == 0.5 * 16384
constexpr int32_t kVfromG = -6860;  // == -0.418688 * 16384
constexpr int32_t kVfromB = -1332;  // == -0.081312 * 16384

// Status of a conversion between `src` of format `from` and `dst` of format
// `to`: both described, their planes present with long enough pitches, and
// the same size.
MRESULT check_pair(const OffscreenImage *src, uint32_t from, const OffscreenImage *dst,
                   uint32_t to) {
  if (src == nullptr || dst == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  if (src->format != from || dst->format != to) return HSEG_ERR_FORMAT;
  if (!hseg::pixfmt::planes_ok(*src) || !hseg::pixfmt::planes_ok(*dst) ||
      src->width != dst->width || src->height != dst->height)
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

const uint8_t *plane_row(const OffscreenImage &img, int p, int32_t y) {
  return img.planes[p] + static_cast<ptrdiff_t>(y) * img.pitches[p];
}

// One row of BGR from a Y row and its chroma row: both pixels of a pair
// share the chroma terms.
void nv21_row_to_bgr(const uint8_t *y, const uint8_t *vu, uint8_t *bgr, int32_t w) {
  using namespace hseg;
  for (int32_t x = 0; x < w; x += 2, vu += 2) {
    const int32_t v = vu[0] - 128, u = vu[1] - 128;
    const int32_t b = kYuvUtoB * u + kYuvRound, g = kYuvVtoG * v + kYuvUtoG * u + kYuvRound,
                  r = kYuvVtoR * v + kYuvRound;
    for (int32_t k = x; k < x + 2 && k < w; ++k, bgr += 3) {
      const int32_t yy = y[k] * 16384;
      bgr[0] = clamp_u8((yy + b) >> 14);
      bgr[1] = clamp_u8((yy + g) >> 14);
      bgr[2] = clamp_u8((yy + r) >> 14);
    }
  }
}

// Luma of one BGR row.
void bgr_row_to_y(const uint8_t *bgr, uint8_t *y, int32_t w) {
  using namespace hseg::ubo;
  for (int32_t x = 0; x < w; ++x, bgr += 3)
    y[x] = static_cast<uint8_t>((kLumaR * bgr[2] + kLumaG * bgr[1] + kLumaB * bgr[0] + 8192) >> 14);
}

// Chroma pairs of one block row from its top BGR row and the row below
// (`below` is null at an odd bottom edge).
void bgr_rows_to_vu(const uint8_t *top, const uint8_t *below, uint8_t *vu, int32_t w) {
  for (int32_t x = 0; x < w; x += 2, vu += 2) {
    const int32_t cols = x + 1 < w ? 2 : 1;
    const int32_t n = cols * (below != nullptr ? 2 : 1);
    int32_t sum[3] = {0, 0, 0};
    for (int32_t c = 0; c < 3; ++c) {
      for (int32_t k = 0; k < cols; ++k) {
        sum[c] += top[3 * (x + k) + c];
        if (below != nullptr) sum[c] += below[3 * (x + k) + c];
      }
      sum[c] = (sum[c] + n / 2) / n;
    }
    const int32_t b = sum[0], g = sum[1], r = sum[2];
    vu[0] = hseg::clamp_u8(((kVfromR * r + kVfromG * g + kVfromB * b + 8192) >> 14) + 128);
    vu[1] = hseg::clamp_u8(((kUfromR * r + kUfromG * g + kUfromB * b + 8192) >> 14) + 128);
  }
}

}  // namespace

extern "C" {

MRESULT NV212BGR(const OffscreenImage *src, OffscreenImage *dst) {
  const MRESULT s = check_pair(src, HSEG_PIXFMT_NV21, dst, HSEG_PIXFMT_BGR24);
  if (s != HSEG_OK) return s;
  for (int32_t y = 0; y < src->height; ++y)
    nv21_row_to_bgr(plane_row(*src, 0, y), plane_row(*src, 1, y / 2),
                    dst->planes[0] + static_cast<ptrdiff_t>(y) * dst->pitches[0], src->width);
  return HSEG_OK;
}

MRESULT BGR2NV21(const OffscreenImage *src, OffscreenImage *dst) {
  const MRESULT s = check_pair(src, HSEG_PIXFMT_BGR24, dst, HSEG_PIXFMT_NV21);
  if (s != HSEG_OK) return s;
  const int32_t w = src->width, h = src->height;
  for (int32_t y = 0; y < h; y += 2) {
    const uint8_t *top = plane_row(*src, 0, y);
    const uint8_t *below = y + 1 < h ? plane_row(*src, 0, y + 1) : nullptr;
    bgr_row_to_y(top, dst->planes[0] + static_cast<ptrdiff_t>(y) * dst->pitches[0], w);
    if (below != nullptr)
      bgr_row_to_y(below, dst->planes[0] + static_cast<ptrdiff_t>(y + 1) * dst->pitches[0], w);
    bgr_rows_to_vu(top, below, dst->planes[1] + static_cast<ptrdiff_t>(y / 2) * dst->pitches[1], w);
  }
  return HSEG_OK;
}

}  // extern "C"
