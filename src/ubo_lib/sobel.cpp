// 3x3 Sobel derivatives and gradient magnitude, 8-bit in, int16 out, with
// borders reflected without repeating the edge pixel.
#include <cmath>
#include <cstdlib>

#include "ubo_lib/toolkit.h"

namespace {

using hseg::ubo::row_of;

struct SobelX {
  static int16_t out(int32_t gx, int32_t) { return static_cast<int16_t>(gx); }
};
struct SobelY {
  static int16_t out(int32_t, int32_t gy) { return static_cast<int16_t>(gy); }
};
struct NormL1 {
  static int16_t out(int32_t gx, int32_t gy) {
    return static_cast<int16_t>(std::abs(gx) + std::abs(gy));
  }
};
struct NormL2 {
  // The root of an integer is never exactly halfway between two integers,
  // and double is far more precise than that gap, so this rounds exactly.
  static int16_t out(int32_t gx, int32_t gy) {
    return static_cast<int16_t>(std::sqrt(static_cast<double>(gx * gx + gy * gy)) + 0.5);
  }
};

// Pixel x of one output row from the rows above (a), at (b) and below (c),
// with l and r the columns left and right of x (reflected at the edges).
template <typename Op>
inline int16_t sobel_at(const uint8_t *a, const uint8_t *b, const uint8_t *c, int32_t l, int32_t x,
                        int32_t r) {
  const int32_t gx = (a[r] - a[l]) + 2 * (b[r] - b[l]) + (c[r] - c[l]);
  const int32_t gy = (c[l] + 2 * c[x] + c[r]) - (a[l] + 2 * a[x] + a[r]);
  return Op::out(gx, gy);
}

template <typename Op>
void sobel_image(const Image &s, const Image &d) {
  const auto w = static_cast<int32_t>(s.width), h = static_cast<int32_t>(s.height);
  for (int32_t y = 0; y < h; ++y) {
    const uint8_t *a = row_of(s, hseg::ubo::reflect101(y - 1, h)), *b = row_of(s, y),
                  *c = row_of(s, hseg::ubo::reflect101(y + 1, h));
    int16_t *out = row_of<int16_t>(d, y);
    const int32_t last = w - 1, inner_l = w > 1 ? 1 : 0, inner_r = w > 1 ? w - 2 : 0;
    out[0] = sobel_at<Op>(a, b, c, inner_l, 0, inner_l);
    for (int32_t x = 1; x < last; ++x) out[x] = sobel_at<Op>(a, b, c, x - 1, x, x + 1);
    if (last > 0) out[last] = sobel_at<Op>(a, b, c, inner_r, last, inner_r);
  }
}

MRESULT check_sobel(const Image *src, const Image *dst) {
  return hseg::ubo::check_pair(src, 8, dst, 16, hseg::ubo::kOneChannel);
}

}  // namespace

extern "C" {

MRESULT img_sobel(const Image *src, Image *dst, int32_t dx, int32_t dy) {
  const MRESULT s = check_sobel(src, dst);
  if (s != HSEG_OK) return s;
  if (dx == 1 && dy == 0)
    sobel_image<SobelX>(*src, *dst);
  else if (dx == 0 && dy == 1)
    sobel_image<SobelY>(*src, *dst);
  else
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

MRESULT img_sobel_magnitude(const Image *src, Image *dst, int32_t norm) {
  const MRESULT s = check_sobel(src, dst);
  if (s != HSEG_OK) return s;
  if (norm == HSEG_NORM_L1)
    sobel_image<NormL1>(*src, *dst);
  else if (norm == HSEG_NORM_L2)
    sobel_image<NormL2>(*src, *dst);
  else
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

}  // extern "C"
