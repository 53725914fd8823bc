// Geometry of 8-bit images: quarter-turn rotations, flips, crops and
// reflective padding.
#include <algorithm>
#include <cstring>

#include "ubo_lib/toolkit.h"

namespace {

using hseg::ubo::check_image;
using hseg::ubo::row_of;

// Runs `body` with the pixel size as a compile-time constant, so that the
// per-pixel copies become single loads and stores.
template <typename Body>
void with_pixel_size(uint32_t channels, Body body) {
  switch (channels) {
    case 1:
      body(std::integral_constant<int, 1>());
      break;
    case 2:
      body(std::integral_constant<int, 2>());
      break;
    case 3:
      body(std::integral_constant<int, 3>());
      break;
    default:
      body(std::integral_constant<int, 4>());
      break;
  }
}

// Quarter turn, tile by tile so that the source rows a tile walks across
// stay in cache. Clockwise, dst(r, c) = src(h - 1 - c, r): a destination row
// walks up a source column; counter-clockwise, dst(r, c) = src(c, w - 1 - r):
// down one.
template <int N>
void rotate_quarter(const Image &s, const Image &d, bool clockwise) {
  constexpr int kTile = 64;
  const int32_t dw = static_cast<int32_t>(d.width), dh = static_cast<int32_t>(d.height);
  const ptrdiff_t step = clockwise ? -ptrdiff_t{s.pitch} : ptrdiff_t{s.pitch};
  for (int32_t r0 = 0; r0 < dh; r0 += kTile) {
    const int32_t r1 = std::min(r0 + kTile, dh);
    for (int32_t c0 = 0; c0 < dw; c0 += kTile) {
      const int32_t c1 = std::min(c0 + kTile, dw);
      for (int32_t r = r0; r < r1; ++r) {
        const uint8_t *in = clockwise ? row_of(s, int64_t{dw} - 1 - c0) + ptrdiff_t{r} * N
                                      : row_of(s, c0) + (ptrdiff_t{dh} - 1 - r) * N;
        uint8_t *out = row_of(d, r) + ptrdiff_t{c0} * N;
        for (int32_t c = c0; c < c1; ++c, in += step, out += N) std::memcpy(out, in, N);
      }
    }
  }
}

template <int N>
void rotate_half(const Image &s, const Image &d) {
  const int32_t w = static_cast<int32_t>(s.width), h = static_cast<int32_t>(s.height);
  for (int32_t r = 0; r < h; ++r) {
    const uint8_t *in = row_of(s, h - 1 - r) + ptrdiff_t{w - 1} * N;
    uint8_t *out = row_of(d, r);
    for (int32_t c = 0; c < w; ++c, in -= N, out += N) std::memcpy(out, in, N);
  }
}

// Flip that is safe in place: the four pixels that swap among themselves
// (rows t and b, columns i and j) are all read before any is written.
template <int N>
void flip_pixels(const Image &s, const Image &d, bool vertical, bool horizontal) {
  const int32_t w = static_cast<int32_t>(s.width), h = static_cast<int32_t>(s.height);
  for (int32_t t = 0, b = h - 1; t <= b; ++t, --b) {
    const uint8_t *st = row_of(s, t), *sb = row_of(s, b);
    uint8_t *dt = row_of(d, vertical ? b : t), *db = row_of(d, vertical ? t : b);
    for (ptrdiff_t i = 0, j = w - 1; i <= j; ++i, --j) {
      uint8_t ti[N], tj[N], bi[N], bj[N];
      std::memcpy(ti, st + i * N, N);
      std::memcpy(tj, st + j * N, N);
      std::memcpy(bi, sb + i * N, N);
      std::memcpy(bj, sb + j * N, N);
      const ptrdiff_t oi = horizontal ? j : i, oj = horizontal ? i : j;
      std::memcpy(dt + oi * N, ti, N);
      std::memcpy(dt + oj * N, tj, N);
      std::memcpy(db + oi * N, bi, N);
      std::memcpy(db + oj * N, bj, N);
    }
  }
}

bool rect_inside(const Image &img, const ImgRect &r) {
  return r.x >= 0 && r.y >= 0 && r.width >= 1 && r.height >= 1 &&
         int64_t{r.x} + r.width <= img.width && int64_t{r.y} + r.height <= img.height;
}

}  // namespace

extern "C" {

MRESULT img_rotate(const Image *src, Image *dst, int32_t degrees) {
  using hseg::ubo::kUpToFourChannels;
  MRESULT s = check_image(src, 8, kUpToFourChannels);
  if (s == HSEG_OK) s = check_image(dst, 8, kUpToFourChannels);
  if (s != HSEG_OK) return s;
  if (degrees != 90 && degrees != 180 && degrees != 270) return HSEG_ERR_BAD_ARGUMENT;
  const bool swap = degrees != 180;
  if (dst->channels != src->channels || dst->width != (swap ? src->height : src->width) ||
      dst->height != (swap ? src->width : src->height))
    return HSEG_ERR_BAD_ARGUMENT;
  with_pixel_size(src->channels, [&](auto n) {
    if (degrees == 180)
      rotate_half<n>(*src, *dst);
    else
      rotate_quarter<n>(*src, *dst, degrees == 90);
  });
  return HSEG_OK;
}

MRESULT img_flip(const Image *src, Image *dst, int32_t code) {
  const MRESULT s = hseg::ubo::check_pair(src, 8, dst, 8, hseg::ubo::kUpToFourChannels);
  if (s != HSEG_OK) return s;
  const bool vertical = code <= 0, horizontal = code != 0;
  with_pixel_size(src->channels, [&](auto n) { flip_pixels<n>(*src, *dst, vertical, horizontal); });
  return HSEG_OK;
}

MRESULT img_crop_view(MHandle mem, const Image *src, ImgRect rect, Image **out) {
  if (out != nullptr) *out = nullptr;
  if (out == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  const MRESULT s = hseg::ubo::check_image_any_depth(src, hseg::ubo::kAnyChannels);
  if (s != HSEG_OK) return s;
  if (!rect_inside(*src, rect)) return HSEG_ERR_BAD_ARGUMENT;
  uint8_t *first = row_of(*src, rect.y) + size_t{src->channels} * (src->depth / 8) * rect.x;
  *out =
      createimg_pesudo(mem, first, static_cast<uint32_t>(rect.width),
                       static_cast<uint32_t>(rect.height), src->depth, src->channels, src->pitch);
  return *out == nullptr ? HSEG_ERR_NO_MEMORY : HSEG_OK;
}

MRESULT img_crop(const Image *src, Image *dst, ImgRect rect) {
  MRESULT s = hseg::ubo::check_image_any_depth(src, hseg::ubo::kAnyChannels);
  if (s == HSEG_OK) s = check_image(dst, src->depth, hseg::ubo::kAnyChannels);
  if (s != HSEG_OK) return s;
  if (!rect_inside(*src, rect) || dst->width != static_cast<uint32_t>(rect.width) ||
      dst->height != static_cast<uint32_t>(rect.height) || dst->channels != src->channels)
    return HSEG_ERR_BAD_ARGUMENT;
  const size_t pixel = size_t{src->channels} * (src->depth / 8);
  for (int32_t r = 0; r < rect.height; ++r)
    std::memcpy(row_of(*dst, r), row_of(*src, rect.y + r) + pixel * rect.x, pixel * rect.width);
  return HSEG_OK;
}

MRESULT img_pad_reflect(const Image *src, Image *dst, int32_t top, int32_t bottom, int32_t left,
                        int32_t right) {
  using hseg::ubo::kUpToFourChannels;
  MRESULT s = check_image(src, 8, kUpToFourChannels);
  if (s == HSEG_OK) s = check_image(dst, 8, kUpToFourChannels);
  if (s != HSEG_OK) return s;
  if (top < 0 || bottom < 0 || left < 0 || right < 0 || dst->channels != src->channels ||
      int64_t{src->width} + left + right != dst->width ||
      int64_t{src->height} + top + bottom != dst->height)
    return HSEG_ERR_BAD_ARGUMENT;
  const int32_t w = static_cast<int32_t>(src->width), h = static_cast<int32_t>(src->height);
  const size_t n = src->channels;
  for (int64_t r = 0; r < dst->height; ++r) {
    const uint8_t *in = row_of(*src, hseg::ubo::reflect101(r - top, h));
    uint8_t *out = row_of(*dst, r);
    for (int32_t c = 0; c < left; ++c)
      std::memcpy(out + n * c, in + n * hseg::ubo::reflect101(int64_t{c} - left, w), n);
    std::memcpy(out + n * left, in, n * w);
    for (int32_t c = 0; c < right; ++c)
      std::memcpy(out + n * (size_t(left) + w + c), in + n * hseg::ubo::reflect101(w + c, w), n);
  }
  return HSEG_OK;
}

}  // extern "C"
