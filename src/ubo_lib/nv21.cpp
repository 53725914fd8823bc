// NV21 to BGR and back, full range, in 14-bit fixed point.
#include <cstddef>

#include "common/pixfmt.h"
#include "hseg/imgproc.h"
#include "ubo_lib/colour_rows.h"

namespace {

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

uint8_t *plane_row(const OffscreenImage &img, int p, int32_t y) {
  return img.planes[p] + static_cast<ptrdiff_t>(y) * img.pitches[p];
}

}  // namespace

extern "C" {

MRESULT NV212BGR(const OffscreenImage *src, OffscreenImage *dst) {
  const MRESULT s = check_pair(src, HSEG_PIXFMT_NV21, dst, HSEG_PIXFMT_BGR24);
  if (s != HSEG_OK) return s;
  const auto to_bgr = hseg::ubo::colour_rows().nv21_to_bgr;
  for (int32_t y = 0; y < src->height; ++y)
    to_bgr(plane_row(*src, 0, y), plane_row(*src, 1, y / 2), plane_row(*dst, 0, y), src->width);
  return HSEG_OK;
}

MRESULT BGR2NV21(const OffscreenImage *src, OffscreenImage *dst) {
  const MRESULT s = check_pair(src, HSEG_PIXFMT_BGR24, dst, HSEG_PIXFMT_NV21);
  if (s != HSEG_OK) return s;
  const hseg::ubo::ColourRows rows = hseg::ubo::colour_rows();
  const int32_t w = src->width, h = src->height;
  for (int32_t y = 0; y < h; y += 2) {
    const uint8_t *top = plane_row(*src, 0, y);
    const uint8_t *below = y + 1 < h ? plane_row(*src, 0, y + 1) : nullptr;
    rows.luma_c3(top, plane_row(*dst, 0, y), w, hseg::ubo::kLumaBt601);
    if (below != nullptr) rows.luma_c3(below, plane_row(*dst, 0, y + 1), w, hseg::ubo::kLumaBt601);
    rows.bgr_to_vu(top, below, plane_row(*dst, 1, y / 2), w);
  }
  return HSEG_OK;
}

}  // extern "C"
