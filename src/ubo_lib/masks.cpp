// Masks: bounding box, logical operations, rectangle and polygon filling,
// and 1-bit bitmaps.
#include <algorithm>
#include <cstring>

#include "ubo_lib/toolkit.h"

namespace {

using hseg::ubo::check_image;
using hseg::ubo::kOneChannel;
using hseg::ubo::row_of;

constexpr int32_t kMaxCoordinate = 1 << 28;

bool same_size(const Image &a, const Image &b) {
  return a.width == b.width && a.height == b.height;
}

// dst = 255 where op(a != 0, b != 0) holds, else 0; dst may be a or b.
template <typename Op>
MRESULT mask_logic(const Image *a, const Image *b, Image *dst, Op op) {
  MRESULT s = check_image(a, 8, kOneChannel);
  if (s == HSEG_OK) s = check_image(b, 8, kOneChannel);
  if (s == HSEG_OK) s = check_image(dst, 8, kOneChannel);
  if (s != HSEG_OK) return s;
  if (!same_size(*a, *b) || !same_size(*a, *dst)) return HSEG_ERR_BAD_ARGUMENT;
  for (uint32_t y = 0; y < a->height; ++y) {
    const uint8_t *pa = row_of(*a, y), *pb = row_of(*b, y);
    uint8_t *out = row_of(*dst, y);
    for (uint32_t x = 0; x < a->width; ++x) out[x] = op(pa[x] != 0, pb[x] != 0) ? 255 : 0;
  }
  return HSEG_OK;
}

// First pixel column whose centre lies at or right of where the edge
// (x0, y0)-(x1, y1) crosses the centre line of row y, clamped to
// [-1, width + 1]. The edge spans that line (y0 <= y + 0.5 < y1 or the
// reverse). The crossing is at x0 + (2y + 1 - 2y0)(x1 - x0) / (2(y1 - y0)),
// and the column is ceil(crossing - 0.5), computed exactly in 64 bits (the
// coordinates are within 2^28, so every product is below 2^60).
int32_t crossing_column(const ImgPoint &p, const ImgPoint &q, int32_t y, int32_t width) {
  int64_t x0 = p.x, y0 = p.y, x1 = q.x, y1 = q.y;
  if (y1 < y0) {
    std::swap(x0, x1);
    std::swap(y0, y1);
  }
  const int64_t den = 2 * (y1 - y0);
  const int64_t num = (2 * x0 - 1) * (y1 - y0) + (2 * int64_t{y} + 1 - 2 * y0) * (x1 - x0);
  // ceil(num / den) for den > 0.
  int64_t col = num / den;
  if (num % den != 0 && num > 0) ++col;
  return static_cast<int32_t>(std::clamp<int64_t>(col, -1, int64_t{width} + 1));
}

void fill_span(uint8_t *row, int32_t from, int32_t to, int32_t width, uint8_t value) {
  from = std::max(from, 0);
  to = std::min(to, width);
  if (from < to) std::memset(row + from, value, static_cast<size_t>(to - from));
}

}  // namespace

extern "C" {

MRESULT img_mask_bbox(const Image *mask, ImgRect *box) {
  const MRESULT s = check_image(mask, 8, kOneChannel);
  if (s != HSEG_OK) return s;
  if (box == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  int64_t x0 = mask->width, x1 = -1, y0 = mask->height, y1 = -1;
  for (uint32_t y = 0; y < mask->height; ++y) {
    const uint8_t *row = row_of(*mask, y);
    const uint8_t *end = row + mask->width;
    const uint8_t *first = std::find_if(row, end, [](uint8_t v) { return v != 0; });
    if (first == end) continue;
    const uint8_t *last = end - 1;
    while (*last == 0) --last;
    x0 = std::min<int64_t>(x0, first - row);
    x1 = std::max<int64_t>(x1, last - row);
    y0 = std::min<int64_t>(y0, y);
    y1 = y;
  }
  *box = x1 < 0 ? ImgRect{0, 0, 0, 0}
                : ImgRect{static_cast<int32_t>(x0), static_cast<int32_t>(y0),
                          static_cast<int32_t>(x1 - x0 + 1), static_cast<int32_t>(y1 - y0 + 1)};
  return HSEG_OK;
}

MRESULT img_mask_and(const Image *a, const Image *b, Image *dst) {
  return mask_logic(a, b, dst, [](bool p, bool q) { return p && q; });
}

MRESULT img_mask_or(const Image *a, const Image *b, Image *dst) {
  return mask_logic(a, b, dst, [](bool p, bool q) { return p || q; });
}

MRESULT img_mask_xor(const Image *a, const Image *b, Image *dst) {
  return mask_logic(a, b, dst, [](bool p, bool q) { return p != q; });
}

MRESULT img_mask_not(const Image *src, Image *dst) {
  return mask_logic(src, src, dst, [](bool p, bool) { return !p; });
}

MRESULT img_fill_rect(Image *mask, ImgRect rect, uint8_t value) {
  const MRESULT s = check_image(mask, 8, kOneChannel);
  if (s != HSEG_OK) return s;
  if (rect.width < 0 || rect.height < 0) return HSEG_ERR_BAD_ARGUMENT;
  const int64_t y0 = std::max<int64_t>(rect.y, 0);
  const int64_t y1 = std::min<int64_t>(int64_t{rect.y} + rect.height, mask->height);
  const int64_t x0 = std::clamp<int64_t>(rect.x, -1, int64_t{mask->width} + 1);
  const int64_t x1 =
      std::clamp<int64_t>(int64_t{rect.x} + rect.width, -1, int64_t{mask->width} + 1);
  const auto w = static_cast<int32_t>(mask->width);
  for (int64_t y = y0; y < y1; ++y)
    fill_span(row_of(*mask, y), static_cast<int32_t>(x0), static_cast<int32_t>(x1), w, value);
  return HSEG_OK;
}

MRESULT img_fill_poly(MHandle mem, Image *mask, const ImgPoint *points, int32_t count,
                      uint8_t value) {
  const MRESULT s = check_image(mask, 8, kOneChannel);
  if (s != HSEG_OK) return s;
  if (points == nullptr || count < 3 || count > INT32_MAX / 4) return HSEG_ERR_BAD_ARGUMENT;
  int32_t ymin = kMaxCoordinate, ymax = -kMaxCoordinate;
  for (int32_t i = 0; i < count; ++i) {
    if (points[i].x < -kMaxCoordinate || points[i].x > kMaxCoordinate ||
        points[i].y < -kMaxCoordinate || points[i].y > kMaxCoordinate)
      return HSEG_ERR_BAD_ARGUMENT;
    ymin = std::min(ymin, points[i].y);
    ymax = std::max(ymax, points[i].y);
  }
  auto *cols = static_cast<int32_t *>(MMemAlloc(mem, 4 * count));
  if (cols == nullptr) return HSEG_ERR_NO_MEMORY;
  // Row y's centre line y + 0.5 meets the polygon only for ymin <= y < ymax.
  const auto w = static_cast<int32_t>(mask->width);
  const int32_t y_end = std::min<int32_t>(ymax, static_cast<int32_t>(mask->height));
  for (int32_t y = std::max(ymin, 0); y < y_end; ++y) {
    int32_t n = 0;
    for (int32_t i = 0, j = count - 1; i < count; j = i++) {
      const ImgPoint &p = points[j], &q = points[i];
      // Half-open in y, so a vertex is counted once; the centre line never
      // passes through a vertex anyway, its coordinates being integers.
      if ((p.y <= y) != (q.y <= y)) cols[n++] = crossing_column(p, q, y, w);
    }
    std::sort(cols, cols + n);
    for (int32_t k = 0; k + 1 < n; k += 2)
      fill_span(row_of(*mask, y), cols[k], cols[k + 1], w, value);
  }
  MMemFree(mem, cols);
  return HSEG_OK;
}

MRESULT img_mask_to_bitmap(const Image *mask, uint8_t *bits, int32_t pitch) {
  const MRESULT s = check_image(mask, 8, kOneChannel);
  if (s != HSEG_OK) return s;
  const int64_t bytes = (int64_t{mask->width} + 7) / 8;
  if (bits == nullptr || pitch < bytes) return HSEG_ERR_BAD_ARGUMENT;
  for (uint32_t y = 0; y < mask->height; ++y) {
    const uint8_t *in = row_of(*mask, y);
    uint8_t *out = bits + static_cast<ptrdiff_t>(y) * pitch;
    std::memset(out, 0, static_cast<size_t>(bytes));
    for (uint32_t x = 0; x < mask->width; ++x)
      if (in[x] != 0) out[x >> 3] |= static_cast<uint8_t>(0x80u >> (x & 7));
  }
  return HSEG_OK;
}

MRESULT img_bitmap_to_mask(const uint8_t *bits, int32_t pitch, Image *mask) {
  const MRESULT s = check_image(mask, 8, kOneChannel);
  if (s != HSEG_OK) return s;
  if (bits == nullptr || pitch < (int64_t{mask->width} + 7) / 8) return HSEG_ERR_BAD_ARGUMENT;
  for (uint32_t y = 0; y < mask->height; ++y) {
    const uint8_t *in = bits + static_cast<ptrdiff_t>(y) * pitch;
    uint8_t *out = row_of(*mask, y);
    for (uint32_t x = 0; x < mask->width; ++x)
      out[x] = (in[x >> 3] >> (7 - (x & 7)) & 1) != 0 ? 255 : 0;
  }
  return HSEG_OK;
}

}  // extern "C"
