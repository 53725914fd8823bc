// Simple resizes of Image records: halving by 2x2 means, and bilinear and
// bicubic resizes of one channel through the library's resizers.
#include <cstring>

#include "hseg/resize.h"
#include "ubo_lib/toolkit.h"

namespace {

using hseg::ubo::check_image;
using hseg::ubo::row_of;

// Means of the 2x2 blocks of rows `top` and `below` (the same row at an odd
// bottom edge, then n counts it once) into one output row.
void halve_row(const uint8_t *top, const uint8_t *below, uint8_t *out, uint32_t w, uint32_t c) {
  const uint32_t rows = top == below ? 1 : 2;
  for (uint32_t x = 0; x < w; x += 2) {
    const uint32_t cols = x + 1 < w ? 2 : 1, n = rows * cols;
    for (uint32_t k = 0; k < c; ++k, ++out) {
      uint32_t sum = 0;
      for (uint32_t i = 0; i < cols; ++i) {
        sum += top[(x + i) * c + k];
        if (rows == 2) sum += below[(x + i) * c + k];
      }
      *out = static_cast<uint8_t>((sum + n / 2) / n);
    }
  }
}

void copy_rows(const Image &s, const Image &d) {
  for (uint32_t y = 0; y < s.height; ++y)
    std::memcpy(row_of(d, y), row_of(s, y), hseg::ubo::row_bytes(s));
}

// Status of a 1-channel 8-bit source and destination for the resizers,
// which take signed pitches. Equal sizes are copied here, and
// *done tells the caller so.
MRESULT check_c1_copy_same(const Image *src, const Image *dst, bool *done) {
  MRESULT s = check_image(src, 8, hseg::ubo::kOneChannel);
  if (s == HSEG_OK) s = check_image(dst, 8, hseg::ubo::kOneChannel);
  if (s != HSEG_OK) return s;
  if (src->pitch > INT32_MAX || dst->pitch > INT32_MAX) return HSEG_ERR_BAD_ARGUMENT;
  *done = src->width == dst->width && src->height == dst->height;
  if (*done) copy_rows(*src, *dst);
  return HSEG_OK;
}

}  // namespace

extern "C" {

MRESULT resize2(MHandle mem, const Image *src, Image **out) {
  if (out != nullptr) *out = nullptr;
  const MRESULT s = check_image(src, 8, hseg::ubo::kAnyChannels);
  if (s != HSEG_OK) return s;
  if (out == nullptr || src->channels > INT32_MAX) return HSEG_ERR_BAD_ARGUMENT;
  const uint32_t w = src->width, h = src->height;
  Image *img =
      createimg(mem, static_cast<int32_t>(w / 2 + w % 2), static_cast<int32_t>(h / 2 + h % 2), 8,
                static_cast<int32_t>(src->channels));
  if (img == nullptr) return HSEG_ERR_NO_MEMORY;
  for (uint32_t y = 0; y < img->height; ++y) {
    const uint8_t *top = row_of(*src, 2 * int64_t{y});
    const uint8_t *below = 2 * y + 1 < h ? row_of(*src, 2 * int64_t{y} + 1) : top;
    halve_row(top, below, row_of(*img, y), w, src->channels);
  }
  *out = img;
  return HSEG_OK;
}

MRESULT resize_C1(MHandle mem, const Image *src, Image *dst) {
  bool done = false;
  const MRESULT s = check_c1_copy_same(src, dst, &done);
  if (s != HSEG_OK || done) return s;
  return zevImageResize_BL_C1(mem, src->data, static_cast<int32_t>(src->width),
                              static_cast<int32_t>(src->height), static_cast<int32_t>(src->pitch),
                              dst->data, static_cast<int32_t>(dst->width),
                              static_cast<int32_t>(dst->height), static_cast<int32_t>(dst->pitch));
}

MRESULT resize_Cubic1(MHandle mem, const Image *src, Image *dst) {
  bool done = false;
  const MRESULT s = check_c1_copy_same(src, dst, &done);
  if (s != HSEG_OK || done) return s;
  CubicCache cache{nullptr, nullptr};
  const MRESULT r = ImageResize_Cubic_C1(
      mem, src->data, static_cast<int32_t>(src->width), static_cast<int32_t>(src->height),
      static_cast<int32_t>(src->pitch), dst->data, static_cast<int32_t>(dst->width),
      static_cast<int32_t>(dst->height), static_cast<int32_t>(dst->pitch), &cache);
  MMemFree(mem, cache.work);
  MMemFree(mem, cache.coef_tab);
  return r;
}

}  // extern "C"
