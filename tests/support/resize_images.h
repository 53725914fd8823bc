// Pictures, source descriptors and canary-filled destinations shared by the
// resizer, toolkit and segmentation tests, with an independent YUV-to-BGR
// reference and the nearest-neighbour index rule.
#ifndef HSEG_TESTS_SUPPORT_RESIZE_IMAGES_H_
#define HSEG_TESTS_SUPPORT_RESIZE_IMAGES_H_

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "hseg/resize.h"
#include "support/alloc_hooks.h"

namespace hseg_test {

constexpr uint8_t kCanary = 0xA5;

inline bool untouched(const std::vector<uint8_t> &v) {
  return std::all_of(v.begin(), v.end(), [](uint8_t b) { return b == kCanary; });
}

// Runs call(dst), dst `bytes` canary-filled bytes, once and then with each of
// its allocations failing: 0, then 4 with dst untouched; nothing leaks.
template <typename F>
void expect_clean_alloc_failures(size_t bytes, F call) {
  const int64_t live = alloc_live();
  EXPECT_GE(for_each_alloc_failure([&](int64_t failing) {
              std::vector<uint8_t> dst(bytes, kCanary);
              EXPECT_EQ(call(dst.data()), failing ? HSEG_ERR_NO_MEMORY : HSEG_OK) << failing;
              EXPECT_TRUE(!failing || untouched(dst)) << failing;
              EXPECT_EQ(alloc_live(), live) << failing;
            }), 1);
}

// The nearest-neighbour source index of destination index d, written out in
// 64 bits.
inline int64_t nn_index(int64_t src, int64_t dst, int64_t d) {
  return (std::min(src, dst) - 1 + d * 2 * src) / (2 * dst);
}

// A logical picture: BGR pixels and, independently, Y per pixel with one U, V
// pair per 2x2 block, so that every YUV layout carries the same chroma.
struct Picture {
  int w, h;
  std::vector<uint8_t> bgr, y, u, v;
  int cw() const { return (w + 1) / 2; }
  int ch() const { return (h + 1) / 2; }
  int Y(int x, int r) const { return y[size_t(r) * w + x]; }
  int U(int x, int r) const { return u[size_t(r / 2) * cw() + x / 2]; }
  int V(int x, int r) const { return v[size_t(r / 2) * cw() + x / 2]; }
};

inline Picture random_picture(std::mt19937 &rng, int w, int h, int lo = 0, int hi = 255) {
  std::uniform_int_distribution<int> d(lo, hi);
  Picture p{w, h, std::vector<uint8_t>(size_t(3) * w * h), std::vector<uint8_t>(size_t(w) * h),
            {}, {}};
  p.u.resize(size_t(p.cw()) * p.ch());
  p.v.resize(p.u.size());
  for (auto *plane : {&p.bgr, &p.y, &p.u, &p.v})
    for (auto &b : *plane) b = uint8_t(d(rng));
  return p;
}

// Full-range conversion in double: the 14-bit formula's shifts are
// floor(x + 0.5) of exactly representable values, then clamped.
inline void yuv_to_bgr_ref(int y, int u, int v, int out[3]) {
  const double uu = u - 128, vv = v - 128;
  const double c[3] = {y + 29049.0 / 16384 * uu, y - (11698.0 * vv + 5636.0 * uu) / 16384,
                       y + 22987.0 / 16384 * vv};
  for (int k = 0; k < 3; ++k) out[k] = std::clamp(int(std::floor(c[k] + 0.5)), 0, 255);
}

// The picture in one source layout (BGR24, YUY2, NV21, NV12 or I420). Rows
// are padded by `pad` bytes (the V plane's by `v_pad`), and no plane holds a
// byte after its last row, so a read past it trips the address sanitizer.
// Past an odd width a YUY2 group's second luma is 255.
struct Frame {
  OffscreenImage d{};
  std::vector<uint8_t> plane[3];
  uint8_t *make(int i, int row_bytes, int rows, int pad) {
    d.pitches[i] = row_bytes + pad;
    plane[i].assign(size_t(d.pitches[i]) * (rows - 1) + row_bytes, 0xEE);
    return d.planes[i] = plane[i].data();
  }
};

inline Frame make_frame(const Picture &p, uint32_t format, int pad, int v_pad) {
  Frame f;
  f.d.format = format, f.d.width = p.w, f.d.height = p.h;
  const int cw = p.cw();
  if (format == HSEG_PIXFMT_BGR24) {
    uint8_t *b = f.make(0, 3 * p.w, p.h, pad);
    for (int r = 0; r < p.h; ++r) std::memcpy(b + r * f.d.pitches[0], &p.bgr[3 * r * p.w], 3 * p.w);
  } else if (format == HSEG_PIXFMT_YUY2) {
    uint8_t *b = f.make(0, 4 * cw, p.h, pad);
    for (int r = 0; r < p.h; ++r)
      for (int x = 0; x < p.w; x += 2) {
        uint8_t *g = b + r * f.d.pitches[0] + 2 * x;
        g[0] = uint8_t(p.Y(x, r)), g[1] = uint8_t(p.U(x, r)), g[3] = uint8_t(p.V(x, r));
        g[2] = x + 1 < p.w ? uint8_t(p.Y(x + 1, r)) : 255;
      }
  } else {
    uint8_t *luma = f.make(0, p.w, p.h, pad);
    for (int r = 0; r < p.h; ++r) std::memcpy(luma + r * f.d.pitches[0], &p.y[r * p.w], p.w);
    const bool planar = format == HSEG_PIXFMT_I420, u_first = format == HSEG_PIXFMT_NV12;
    uint8_t *c1 = f.make(1, planar ? cw : 2 * cw, p.ch(), pad);
    uint8_t *c2 = planar ? f.make(2, cw, p.ch(), v_pad) : nullptr;
    for (int r = 0; r < p.ch(); ++r)
      for (int k = 0; k < cw; ++k) {
        const uint8_t u = p.u[r * cw + k], v = p.v[r * cw + k];
        uint8_t *c = c1 + r * f.d.pitches[1] + (planar ? k : 2 * k);
        if (planar) c[0] = u, c2[r * f.d.pitches[2] + k] = v;
        else c[0] = u_first ? u : v, c[1] = u_first ? v : u;
      }
  }
  return f;
}

// A destination of w x h pixels of c bytes, filled with `fill`, rows `pad`
// bytes apart; nothing follows the last row.
struct Raster {
  int w, h, c, pitch;
  std::vector<uint8_t> px;
  Raster(int w_, int h_, int c_ = 1, int pad = 3, uint8_t fill = kCanary)
      : w(w_), h(h_), c(c_), pitch(w_ * c_ + pad), px(size_t(pitch) * (h_ - 1) + w_ * c_, fill) {}
  uint8_t *row(int r) { return &px[size_t(r) * pitch]; }
  const uint8_t *row(int r) const { return &px[size_t(r) * pitch]; }
  uint8_t &at(int x, int r, int k = 0) { return row(r)[x * c + k]; }
  uint8_t at(int x, int r, int k = 0) const { return row(r)[x * c + k]; }
  bool untouched() const { return hseg_test::untouched(px); }
  bool padding_untouched() const {
    for (size_t i = 0; i < px.size(); ++i)
      if (int(i % pitch) >= w * c && px[i] != kCanary) return false;
    return true;
  }
  std::vector<uint8_t> packed() const {  // the pixels without the padding
    std::vector<uint8_t> out;
    for (int r = 0; r < h; ++r) out.insert(out.end(), row(r), row(r) + w * c);
    return out;
  }
  OffscreenImage bgr() { return OffscreenImage{HSEG_PIXFMT_BGR24, w, h, {px.data()}, {pitch}}; }
};

inline Raster random_raster(std::mt19937 &rng, int w, int h, int c = 1, int pad = 3) {
  Raster r(w, h, c, pad);
  for (auto &b : r.px) b = uint8_t(rng());
  return r;
}

}  // namespace hseg_test

#endif  // HSEG_TESTS_SUPPORT_RESIZE_IMAGES_H_
