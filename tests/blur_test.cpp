// Blur library: box blur against an exact window mean, Gaussian against an
// exact Gaussian, bands against whole images, SIMD kernels against the plain
// ones, and the checks, allocation failures and guard pages of the entries.
#include <gtest/gtest.h>
#include <stb/stb_image.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "blur/blur_rows.h"
#include "hseg/blur.h"
#include "support/alloc_hooks.h"
#include "support/guarded.h"

namespace {

using namespace hseg_test;
using u128 = unsigned __int128;

constexpr uint8_t kPad = 0xC3;
const uint32_t kFormats[] = {HSEG_PIXFMT_GRAY, HSEG_PIXFMT_GRAY16, HSEG_PIXFMT_BGR24,
                             HSEG_PIXFMT_YUY2};

int bytes_per_pixel(uint32_t f) {
  return f == HSEG_PIXFMT_GRAY ? 1 : f == HSEG_PIXFMT_BGR24 ? 3 : 2;
}

// An image with `extra` padding bytes after every row, filled with kPad.
struct Picture {
  uint32_t format;
  int32_t w, h, pitch;
  std::vector<uint8_t> px;
  Picture(uint32_t f, int32_t width, int32_t height, int32_t extra = 6)
      : format(f), w(width), h(height), pitch(width * bytes_per_pixel(f) + extra),
        px(static_cast<size_t>(pitch) * height + 2, kPad) {}
  // Samples (x, c) of row y as the format lays them out; 16-bit samples
  // start 2 bytes into the buffer so they stay aligned.
  uint8_t *row(int32_t y) { return px.data() + (format == HSEG_PIXFMT_GRAY16 ? 2 : 0) + y * pitch; }
  OffscreenImage desc() {
    OffscreenImage o{};
    o.format = format;
    o.width = w;
    o.height = h;
    o.planes[0] = row(0);
    o.pitches[0] = pitch;
    return o;
  }
  int row_bytes() const { return w * bytes_per_pixel(format); }
  bool padding_is(uint8_t v) {
    for (int32_t y = 0; y < h; ++y)
      for (int32_t i = row_bytes(); i < pitch; ++i)
        if (row(y)[i] != v) return false;
    return true;
  }
  bool rows_equal(Picture &o, int32_t y0, int32_t y1) {
    for (int32_t y = y0; y < y1; ++y)
      if (std::memcmp(row(y), o.row(y), row_bytes()) != 0) return false;
    return true;
  }
};

Picture random_picture(std::mt19937 &rng, uint32_t f, int32_t w, int32_t h) {
  Picture p(f, w, h);
  for (int32_t y = 0; y < h; ++y)
    for (int i = 0; i < p.row_bytes(); ++i) p.row(y)[i] = static_cast<uint8_t>(rng());
  return p;
}

// One plane of a picture as (width, channels, sample accessor), the way the
// blur sees it: YUY2 gives Y, then U,V at half width.
struct PlaneRef {
  int32_t w, ch, step, offset, chan_step, bytes;
  bool half_x;
};
std::vector<PlaneRef> planes_of(const Picture &p) {
  switch (p.format) {
    case HSEG_PIXFMT_YUY2: return {{p.w, 1, 2, 0, 1, 1, false}, {p.w / 2, 2, 4, 1, 2, 1, true}};
    case HSEG_PIXFMT_BGR24: return {{p.w, 3, 3, 0, 1, 1, false}};
    case HSEG_PIXFMT_GRAY16: return {{p.w, 1, 2, 0, 2, 2, false}};
    default: return {{p.w, 1, 1, 0, 1, 1, false}};
  }
}
uint32_t sample(Picture &p, const PlaneRef &pl, int32_t x, int32_t y, int32_t c) {
  const uint8_t *s = p.row(y) + pl.offset + x * pl.step + c * pl.chan_step;
  if (pl.bytes == 1) return *s;
  uint16_t v;
  std::memcpy(&v, s, 2);
  return v;
}

// How many positions of the window [i - r, i + r] land on index j once
// clamped to [0, n).
int64_t hits(int64_t i, int64_t r, int64_t j, int64_t n) {
  const int64_t lo = i - r, hi = i + r;
  if (n == 1) return 2 * r + 1;
  if (j == 0) return lo <= 0 ? std::min<int64_t>(hi, 0) - lo + 1 : 0;
  if (j == n - 1) return hi >= n - 1 ? hi - std::max(lo, n - 1) + 1 : 0;
  return lo <= j && j <= hi;
}

// The exact window mean, written as the weight of every source sample.
void box_reference(Picture &src, Picture &dst, int32_t r) {
  for (const PlaneRef &pl : planes_of(src)) {
    const int64_t rx = pl.half_x ? r / 2 : r, ry = r;
    const u128 n = u128(2 * rx + 1) * u128(2 * ry + 1);
    for (int32_t y = 0; y < src.h; ++y)
      for (int32_t x = 0; x < pl.w; ++x)
        for (int32_t c = 0; c < pl.ch; ++c) {
          u128 s = 0;
          for (int32_t j = 0; j < src.h; ++j) {
            const int64_t wy = hits(y, ry, j, src.h);
            for (int32_t i = 0; wy != 0 && i < pl.w; ++i)
              s += u128(wy * hits(x, rx, i, pl.w)) * sample(src, pl, i, j, c);
          }
          const auto v = static_cast<uint16_t>((s + (n - 1) / 2) / n);
          uint8_t *d = dst.row(y) + pl.offset + x * pl.step + c * pl.chan_step;
          if (pl.bytes == 1) *d = static_cast<uint8_t>(v);
          else std::memcpy(d, &v, 2);
        }
  }
}

std::string name(uint32_t f) {
  return f == HSEG_PIXFMT_GRAY ? "GRAY" : f == HSEG_PIXFMT_GRAY16 ? "GRAY16"
         : f == HSEG_PIXFMT_BGR24 ? "BGR24" : "YUY2";
}

// Every format, sizes from 1x1 to odd and wide, radii from 0 past the image
// (1500 and 100 take the wide sums for 8- and 16-bit samples); in place too.
TEST(BoxBlur, EqualsTheExactWindowMean) {
  std::mt19937 rng(11);
  const struct { int32_t w, h; std::vector<int32_t> radii; } cases[] = {
      {1, 1, {0, 1, 3}}, {2, 1, {1, 2}}, {2, 5, {1, 4}}, {9, 7, {1, 2, 3, 6, 40}},
      {38, 13, {0, 1, 5, 17, 100}}, {70, 23, {2, 8, 1500}}, {130, 9, {3, 64}}};
  for (uint32_t f : kFormats)
    for (const auto &c : cases) {
      const int32_t w = f == HSEG_PIXFMT_YUY2 ? (c.w + 1) / 2 * 2 : c.w;
      for (int32_t r : c.radii) {
        SCOPED_TRACE(name(f) + " " + std::to_string(w) + "x" + std::to_string(c.h) + " r " +
                     std::to_string(r));
        Picture src = random_picture(rng, f, w, c.h), want = src, got(f, w, c.h);
        box_reference(src, want, r);
        OffscreenImage s = src.desc(), d = got.desc();
        ASSERT_EQ(GB_BoxBlur(nullptr, &s, &d, r), HSEG_OK);
        EXPECT_TRUE(got.rows_equal(want, 0, c.h));
        EXPECT_TRUE(got.padding_is(kPad));
        ASSERT_EQ(GB_BoxBlur(nullptr, &s, &s, r), HSEG_OK);  // in place
        EXPECT_TRUE(src.rows_equal(want, 0, c.h));
      }
    }
  // A constant picture stays constant, whatever the radius.
  for (uint32_t f : kFormats)
    for (int32_t r : {1, 7, 300, 2000}) {
      Picture p(f, 40, 30), q(f, 40, 30);
      for (int32_t y = 0; y < 30; ++y) std::memset(p.row(y), 0xE7, p.row_bytes());
      OffscreenImage s = p.desc(), d = q.desc();
      ASSERT_EQ(GB_BoxBlur(nullptr, &s, &d, r), HSEG_OK);
      EXPECT_TRUE(q.rows_equal(p, 0, 30)) << name(f) << " r " << r;
    }
}

}  // namespace
