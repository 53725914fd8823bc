// Bilinear resizers: mapping, row kernels, per-format rows, checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "hseg/resize.h"
#include "resize/bilinear_rows.h"
#include "resize/yuv.h"
#include "support/alloc_hooks.h"

namespace {

constexpr uint8_t kCanary = 0xA5;

bool all_canary(const std::vector<uint8_t> &v) {
  return std::all_of(v.begin(), v.end(), [](uint8_t b) { return b == kCanary; });
}

// ---------------------------------------------------------------------------
// A picture given as full-resolution Y and 4:2:0 chroma planes, laid out in
// every source format. For YUY2 the chroma row of luma row y is chroma row
// y / 2, so a picture whose chroma does not change between the two rows of a
// pair has the same samples in 4:2:2 and 4:2:0.
struct Picture {
  int32_t w, h;
  std::vector<uint8_t> y, u, v;  // y: w x h; u, v: cw x ch
  int32_t cw() const { return (w + 1) / 2; }
  int32_t ch() const { return (h + 1) / 2; }
  uint8_t Y(int32_t x, int32_t yy) const { return y[static_cast<size_t>(yy) * w + x]; }
  uint8_t U(int32_t k, int32_t j) const { return u[static_cast<size_t>(j) * cw() + k]; }
  uint8_t V(int32_t k, int32_t j) const { return v[static_cast<size_t>(j) * cw() + k]; }
};

// Full-resolution chroma as the header documents it: samples sit on even
// pixels of even rows; a pixel between two takes (a + b + 1) >> 1, between
// four (a + b + c + d + 2) >> 2; the last sample repeats past the edge.
int32_t full_chroma(const Picture &p, bool is_u, int32_t x, int32_t yy, bool rows_shared) {
  auto s = [&](int32_t k, int32_t j) {
    k = std::min(k, p.cw() - 1);
    j = std::min(j, p.ch() - 1);
    return is_u ? p.U(k, j) : p.V(k, j);
  };
  const int32_t k = x / 2, j = yy / 2;
  const bool odd_x = x % 2 == 1, odd_y = !rows_shared && yy % 2 == 1;
  if (!odd_x && !odd_y) return s(k, j);
  if (odd_x && !odd_y) return (s(k, j) + s(k + 1, j) + 1) >> 1;
  if (!odd_x && odd_y) return (s(k, j) + s(k, j + 1) + 1) >> 1;
  return (s(k, j) + s(k + 1, j) + s(k, j + 1) + s(k + 1, j + 1) + 2) >> 2;
}

struct Frame {
  OffscreenImage desc{};
  std::vector<uint8_t> p0, p1, p2;
};

// Lays the picture out in `format`, with padded pitches that differ per
// plane. YUY2 takes chroma row y / 2 for luma row y. BGR is the picture
// converted at full resolution.
Frame make_frame(const Picture &p, uint32_t format) {
  Frame f;
  f.desc.format = format;
  f.desc.width = p.w;
  f.desc.height = p.h;
  const int32_t cw = p.cw(), ch = p.ch();
  auto plane = [](std::vector<uint8_t> &buf, int32_t pitch, int32_t rows) {
    buf.assign(static_cast<size_t>(pitch) * rows, kCanary);
    return buf.data();
  };
  switch (format) {
    case HSEG_PIXFMT_BGR24: {
      const int32_t pitch = 3 * p.w + 2;
      f.desc.planes[0] = plane(f.p0, pitch, p.h);
      f.desc.pitches[0] = pitch;
      for (int32_t y = 0; y < p.h; ++y)
        for (int32_t x = 0; x < p.w; ++x)
          hseg::yuv_to_bgr(p.Y(x, y), full_chroma(p, true, x, y, false),
                           full_chroma(p, false, x, y, false), &f.p0[y * pitch + 3 * x]);
      break;
    }
    case HSEG_PIXFMT_YUY2: {
      const int32_t pitch = 4 * cw + 4;
      f.desc.planes[0] = plane(f.p0, pitch, p.h);
      f.desc.pitches[0] = pitch;
      for (int32_t y = 0; y < p.h; ++y)
        for (int32_t k = 0; k < cw; ++k) {
          uint8_t *g = &f.p0[y * pitch + 4 * k];
          g[0] = p.Y(2 * k, y);
          g[1] = p.U(k, y / 2);
          g[2] = 2 * k + 1 < p.w ? p.Y(2 * k + 1, y) : 0;
          g[3] = p.V(k, y / 2);
        }
      break;
    }
    default: {
      const int32_t ypitch = p.w + 3;
      f.desc.planes[0] = plane(f.p0, ypitch, p.h);
      f.desc.pitches[0] = ypitch;
      for (int32_t y = 0; y < p.h; ++y)
        std::copy_n(&p.y[static_cast<size_t>(y) * p.w], p.w, &f.p0[y * ypitch]);
      if (format == HSEG_PIXFMT_I420) {
        const int32_t up = cw + 1, vp = cw + 6;  // each plane its own pitch
        f.desc.planes[1] = plane(f.p1, up, ch);
        f.desc.planes[2] = plane(f.p2, vp, ch);
        f.desc.pitches[1] = up;
        f.desc.pitches[2] = vp;
        for (int32_t j = 0; j < ch; ++j)
          for (int32_t k = 0; k < cw; ++k) {
            f.p1[j * up + k] = p.U(k, j);
            f.p2[j * vp + k] = p.V(k, j);
          }
      } else {
        const int32_t cp = 2 * cw + 2;
        const bool u_first = format == HSEG_PIXFMT_NV12;
        f.desc.planes[1] = plane(f.p1, cp, ch);
        f.desc.pitches[1] = cp;
        for (int32_t j = 0; j < ch; ++j)
          for (int32_t k = 0; k < cw; ++k) {
            f.p1[j * cp + 2 * k] = u_first ? p.U(k, j) : p.V(k, j);
            f.p1[j * cp + 2 * k + 1] = u_first ? p.V(k, j) : p.U(k, j);
          }
      }
    }
  }
  return f;
}

const uint32_t kFormats[] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420,
                             HSEG_PIXFMT_NV21, HSEG_PIXFMT_NV12};
const uint32_t kYuvFormats[] = {HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21,
                                HSEG_PIXFMT_NV12};

struct Out {
  int32_t w, h, pitch;
  std::vector<uint8_t> px;
  const uint8_t *at(int32_t x, int32_t y, int32_t c) const { return &px[y * pitch + c * x]; }
};

Out resize_bl(const Frame &f, int32_t dw, int32_t dh, int32_t colour, MRESULT expect = HSEG_OK) {
  const int32_t c = colour == 1 ? 3 : 1;
  Out o{dw, dh, c * dw + 7, {}};
  o.px.assign(static_cast<size_t>(o.pitch) * dh, kCanary);
  EXPECT_EQ(zevImageResize_BL(nullptr, &f.desc, o.px.data(), dw, dh, o.pitch, colour), expect);
  for (int32_t y = 0; y < dh; ++y)
    for (int32_t i = c * dw; i < o.pitch; ++i)
      EXPECT_EQ(o.px[y * o.pitch + i], kCanary) << "row padding written, row " << y;
  return o;
}

Picture random_picture(int32_t w, int32_t h, uint32_t seed) {
  std::mt19937 rng(seed);
  Picture p{w, h, {}, {}, {}};
  p.y.resize(static_cast<size_t>(w) * h);
  p.u.resize(static_cast<size_t>(p.cw()) * p.ch());
  p.v.resize(p.u.size());
  for (auto *plane : {&p.y, &p.u, &p.v})
    for (auto &b : *plane) b = static_cast<uint8_t>(rng());
  return p;
}

// ---------------------------------------------------------------------------

struct MapCase {
  int32_t src, dst, d;
  int32_t i0, w;
};

TEST(BilinearMapping, WorkedExamples) {
  const MapCase cases[] = {
      {4, 8, 0, 0, 0},    // f = -0.25: first pixel, weight 0
      {4, 8, 1, 0, 32},   // f = 0.25
      {4, 8, 7, 3, 32},   // f = 3.25 (a column there is right border)
      {3, 2, 0, 0, 32},   // f = 0.25
      {3, 2, 1, 1, 96},   // f = 1.75
      {5, 5, 3, 3, 0},    // equal sizes map onto the pixels
      {6, 2, 1, 4, 0},    // 3:1 lands on pixel 3d + 1
      // The product rounded to float before 0.5 is subtracted in float.
      // All-double arithmetic gives 51 in the first case, all-float 51 in
      // the second, and the double difference rounded to float 96 in the
      // third.
      {7, 640, 82, 0, 52},
      {7, 384, 49, 0, 52},
      {65, 1089, 1076, 63, 97},
  };
  for (const auto &c : cases) {
    const hseg::BilinearTap t = hseg::bilinear_tap(c.src, c.dst, c.d);
    EXPECT_EQ(t.i0, c.i0) << c.src << "->" << c.dst << " d " << c.d;
    EXPECT_EQ(t.w, c.w) << c.src << "->" << c.dst << " d " << c.d;
  }
  std::vector<uint16_t> cols(16);
  hseg::bilinear_column_table(4, 8, cols.data());
  EXPECT_EQ(cols[14], 3);  // the last column is a copy of source column 3
  EXPECT_EQ(cols[15], 0);
}

// The float reading of the mapping shows in the output: a step from 0 to 128
// turns the weight into the output value.
TEST(BilinearC1, WeightReadingShowsInOutput) {
  for (const auto &c : {MapCase{7, 640, 82, 0, 52}, MapCase{7, 384, 49, 0, 52},
                        MapCase{65, 1089, 1076, 63, 97}}) {
    std::vector<uint8_t> src(c.src);
    for (int32_t x = 0; x < c.src; ++x) src[x] = x > c.i0 ? 128 : 0;
    std::vector<uint8_t> dst(c.dst, kCanary);
    ASSERT_EQ(zevImageResize_BL_C1(nullptr, src.data(), c.src, 1, c.src, dst.data(), c.dst, 1,
                                   c.dst),
              HSEG_OK);
    EXPECT_EQ(dst[c.d], c.w) << c.src << " -> " << c.dst;
  }
}

TEST(BilinearC1, DoublingKeepsTheEndsAndCopiesTheRightBorder) {
  const uint8_t src[4] = {10, 50, 90, 250};
  std::vector<uint8_t> row(8, kCanary), col(8, kCanary);
  ASSERT_EQ(zevImageResize_BL_C1(nullptr, src, 4, 1, 4, row.data(), 8, 1, 8), HSEG_OK);
  ASSERT_EQ(zevImageResize_BL_C1(nullptr, src, 1, 4, 1, col.data(), 1, 8, 1), HSEG_OK);
  const uint8_t expect[8] = {10, 20, 40, 60, 80, 130, 210, 250};
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(row[i], expect[i]) << "column " << i;
    EXPECT_EQ(col[i], expect[i]) << "row " << i;
  }
}

TEST(Bilinear, EqualSizesReturnAtOnceAndWriteNothing) {
  std::vector<uint8_t> src(12 * 9, 3), dst(3 * 12 * 9, kCanary);
  hseg_test::alloc_reset();
  EXPECT_EQ(zevImageResize_BL_C1(nullptr, src.data(), 12, 9, 12, dst.data(), 12, 9, 12), HSEG_OK);
  const Frame f = make_frame(random_picture(12, 9, 1), HSEG_PIXFMT_NV21);
  EXPECT_EQ(zevImageResize_BL(nullptr, &f.desc, dst.data(), 12, 9, 36, 1), HSEG_OK);
  EXPECT_EQ(hseg_test::alloc_calls(), 0);
  EXPECT_TRUE(all_canary(dst));
}

// A linear ramp stays a linear ramp: the output is within 1 of the ramp at
// the mapped position (clamped to the source, as the borders replicate).
TEST(BilinearC1, RampStaysRamp) {
  struct Case {
    int32_t sw, sh, dw, dh;
  };
  const Case cases[] = {{100, 50, 37, 25}, {100, 50, 250, 143}, {100, 50, 333, 51},
                        {90, 50, 89, 49},  {101, 7, 51, 700},   {64, 40, 9, 192}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh);
    std::vector<uint8_t> src(static_cast<size_t>(c.sw) * c.sh);
    // Slope 2 across, 1 down: at most 2 * 100 + 49 < 256.
    for (int32_t y = 0; y < c.sh; ++y)
      for (int32_t x = 0; x < c.sw; ++x) src[y * c.sw + x] = static_cast<uint8_t>(2 * x + y);
    std::vector<uint8_t> dst(static_cast<size_t>(c.dw) * c.dh, kCanary);
    ASSERT_EQ(zevImageResize_BL_C1(nullptr, src.data(), c.sw, c.sh, c.sw, dst.data(), c.dw, c.dh,
                                   c.dw),
              HSEG_OK);
    auto pos = [](int32_t s, int32_t d, int32_t i) {
      const double f = (i + 0.5) * s / d - 0.5;
      return std::min(std::max(f, 0.0), s - 1.0);
    };
    for (int32_t dy = 0; dy < c.dh; ++dy)
      for (int32_t dx = 0; dx < c.dw; ++dx) {
        const double ideal = 2 * pos(c.sw, c.dw, dx) + pos(c.sh, c.dh, dy);
        ASSERT_LE(std::fabs(dst[dy * c.dw + dx] - ideal), 1.0) << dx << "," << dy;
      }
  }
}

TEST(BilinearC1, RampStaysRampVertically) {
  const int32_t sw = 20, sh = 110;  // at most 2 * 109 + 19
  std::vector<uint8_t> src(sw * sh);
  for (int32_t y = 0; y < sh; ++y)
    for (int32_t x = 0; x < sw; ++x) src[y * sw + x] = static_cast<uint8_t>(2 * y + x);
  for (int32_t dh : {17, 119, 121, 500}) {
    std::vector<uint8_t> dst(static_cast<size_t>(sw) * dh);
    ASSERT_EQ(zevImageResize_BL_C1(nullptr, src.data(), sw, sh, sw, dst.data(), sw, dh, sw),
              HSEG_OK);
    for (int32_t dy = 0; dy < dh; ++dy) {
      const double f = std::min(std::max((dy + 0.5) * sh / dh - 0.5, 0.0), sh - 1.0);
      for (int32_t x = 0; x < sw; ++x)
        ASSERT_LE(std::fabs(dst[dy * sw + x] - (2 * f + x)), 1.0) << "row " << dy << " of " << dh;
    }
  }
}

// zevImageResize_BL_C1 against the formula evaluated per output pixel
// without any row-buffer reuse, on awkward ratios and random content.
TEST(BilinearC1, RowReuseMatchesDirectEvaluation) {
  struct Case {
    int32_t sw, sh, dw, dh;
  };
  const Case cases[] = {{64, 64, 32, 32},  {63, 61, 21, 9},   {70, 70, 10, 10},
                        {110, 99, 100, 90}, {256, 256, 251, 251}, {31, 17, 62, 34},
                        {13, 11, 39, 33},  {7, 5, 49, 35},    {1, 1, 19, 3},
                        {40, 1, 17, 4},    {1, 40, 3, 17},    {480, 270, 1920, 1080}};
  std::mt19937 rng(11);
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh);
    const int32_t sp = c.sw + 5, dp = c.dw + 3;
    std::vector<uint8_t> src(static_cast<size_t>(sp) * c.sh);
    for (auto &b : src) b = static_cast<uint8_t>(rng());
    std::vector<uint8_t> dst(static_cast<size_t>(dp) * c.dh, kCanary);
    ASSERT_EQ(
        zevImageResize_BL_C1(nullptr, src.data(), c.sw, c.sh, sp, dst.data(), c.dw, c.dh, dp),
        HSEG_OK);
    std::vector<uint16_t> ct(2 * c.dw), rt(2 * c.dh);
    hseg::bilinear_column_table(c.sw, c.dw, ct.data());
    hseg::bilinear_row_table(c.sh, c.dh, rt.data());
    auto h = [&](int32_t y, int32_t dx) {
      const uint8_t *row = &src[static_cast<size_t>(y) * sp];
      const int32_t x = ct[2 * dx], w = ct[2 * dx + 1];
      return row[x] * 128 + (w ? (row[x + 1] - row[x]) * w : 0);
    };
    for (int32_t dy = 0; dy < c.dh; ++dy) {
      const int32_t y0 = rt[2 * dy], wy = rt[2 * dy + 1];
      const int32_t y1 = wy != 0 && y0 < c.sh - 1 ? y0 + 1 : y0;
      for (int32_t dx = 0; dx < c.dw; ++dx) {
        const int32_t r0 = h(y0, dx), r1 = h(y1, dx);
        const int32_t expect = ((r1 - r0) * wy + r0 * 128 + 8192) >> 14;
        ASSERT_EQ(dst[dy * dp + dx], expect) << dx << "," << dy;
      }
      for (int32_t i = c.dw; i < dp; ++i) ASSERT_EQ(dst[dy * dp + i], kCanary);
    }
  }
}

// The SIMD blend against the reference, byte for byte: lengths around the
// 16-value step, misaligned pointers, both outputs pre-filled differently.
TEST(BilinearRows, BlendKernelsAgree) {
#if defined(__SSE2__)
  std::mt19937 rng(5);
  std::vector<int32_t> lengths = {1, 2, 15, 16, 17, 19, 31, 32, 33, 47, 48, 100, 1920, 1921};
  for (int i = 0; i < 40; ++i) lengths.push_back(1 + static_cast<int32_t>(rng() % 700));
  for (int32_t n : lengths)
    for (uint32_t wy : {0u, 1u, 64u, 127u, 128u, static_cast<uint32_t>(rng() % 129)}) {
      const int32_t off = static_cast<int32_t>(rng() % 4);
      std::vector<uint32_t> r0(n + off), r1(n + off);
      for (int32_t j = 0; j < n + off; ++j) {
        r0[j] = rng() % 32641;
        r1[j] = rng() % 32641;
      }
      if (n > 3) r0[1] = 0, r1[1] = 32640, r0[2] = 32640, r1[2] = 0;  // extremes
      std::vector<uint8_t> a(n + off + 8, 0x11), b(n + off + 8, 0xEE);
      hseg::bilinear_blend_ref(r0.data() + off, r1.data() + off, wy, a.data() + off, n);
      hseg::bilinear_blend_sse2(r0.data() + off, r1.data() + off, wy, b.data() + off, n);
      for (int32_t j = 0; j < n; ++j)
        ASSERT_EQ(a[off + j], b[off + j]) << "n " << n << " wy " << wy << " at " << j;
      for (int32_t j = n + off; j < n + off + 8; ++j) ASSERT_EQ(b[j], 0xEE) << "wrote past n";
      for (int32_t j = 0; j < off; ++j) ASSERT_EQ(b[j], 0xEE) << "wrote before the row";
    }
#else
  GTEST_SKIP() << "no SIMD blend in this build";
#endif
}

// Each YUV format, colour output: the 3:1 shrink and the 1:1 axis land
// exactly on source pixels (weight 0), so every output pixel is one source
// pixel converted with its documented chroma, including odd rows and columns
// and the repeated last chroma sample at the right and bottom edges.
TEST(BilinearBL, ChromaSitingPerFormat) {
  struct Case {
    int32_t sw, sh, dw, dh;
    int32_t step_x, step_y;  // source pixel of output (d) is step * d + (step - 1) / 2
  };
  const Case cases[] = {{10, 12, 10, 4, 1, 3}, {12, 10, 4, 10, 3, 1}, {15, 9, 5, 3, 3, 3},
                        {9, 15, 9, 5, 1, 3}};
  for (const auto &c : cases)
    for (uint32_t format : kYuvFormats) {
      SCOPED_TRACE(testing::Message() << c.sw << "x" << c.sh << " format " << format);
      const Picture p = random_picture(c.sw, c.sh, 100 + format);
      // YUY2 carries chroma row y / 2 on luma row y and never averages rows.
      const bool shared_rows = format == HSEG_PIXFMT_YUY2;
      const Frame f = make_frame(p, format);
      const Out o = resize_bl(f, c.dw, c.dh, 1);
      for (int32_t dy = 0; dy < c.dh; ++dy)
        for (int32_t dx = 0; dx < c.dw; ++dx) {
          const int32_t x = c.step_x * dx + (c.step_x - 1) / 2;
          const int32_t y = c.step_y * dy + (c.step_y - 1) / 2;
          uint8_t expect[3];
          hseg::yuv_to_bgr(p.Y(x, y), full_chroma(p, true, x, y, shared_rows),
                           full_chroma(p, false, x, y, shared_rows), expect);
          const uint8_t *got = o.at(dx, dy, 3);
          for (int k = 0; k < 3; ++k)
            ASSERT_EQ(got[k], expect[k]) << "pixel " << dx << "," << dy << " channel " << k;
        }
    }
}

// The same picture in every format: the YUV formats agree exactly (the
// chroma changes only across, so 4:2:2 and 4:2:0 carry the same samples);
// BGR, converted before interpolation, agrees within the rounding of the
// conversion. Grey from a picture without chroma is the same everywhere.
TEST(BilinearBL, FormatsOfOnePictureAgree) {
  const int32_t w = 64, h = 48;
  Picture p = random_picture(w, h, 3);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x)
      p.y[y * w + x] = static_cast<uint8_t>(60 + x + y + ((x * y) % 7));
  for (int32_t j = 0; j < p.ch(); ++j)
    for (int32_t k = 0; k < p.cw(); ++k) {
      p.u[j * p.cw() + k] = static_cast<uint8_t>(90 + 2 * k);
      p.v[j * p.cw() + k] = static_cast<uint8_t>(170 - 2 * k);
    }
  Picture grey = p;
  std::fill(grey.u.begin(), grey.u.end(), 128);
  std::fill(grey.v.begin(), grey.v.end(), 128);

  for (auto size : {std::pair<int32_t, int32_t>{40, 30}, {100, 70}, {23, 91}}) {
    SCOPED_TRACE(testing::Message() << size.first << "x" << size.second);
    const Out base = resize_bl(make_frame(p, HSEG_PIXFMT_I420), size.first, size.second, 1);
    const Out grey_base =
        resize_bl(make_frame(grey, HSEG_PIXFMT_I420), size.first, size.second, 0);
    for (uint32_t format : kFormats) {
      SCOPED_TRACE(testing::Message() << "format " << format);
      const Out o = resize_bl(make_frame(p, format), size.first, size.second, 1);
      const int tolerance = format == HSEG_PIXFMT_BGR24 ? 3 : 0;
      int worst = 0;
      for (size_t i = 0; i < o.px.size(); ++i) worst = std::max(worst, std::abs(o.px[i] - base.px[i]));
      EXPECT_LE(worst, tolerance);
      const Out g = resize_bl(make_frame(grey, format), size.first, size.second, 0);
      EXPECT_EQ(g.px, grey_base.px);
    }
  }
}

TEST(Bilinear, ConstantStaysConstantInEveryFormat) {
  Picture p = random_picture(21, 13, 9);
  std::fill(p.y.begin(), p.y.end(), 77);
  std::fill(p.u.begin(), p.u.end(), 200);
  std::fill(p.v.begin(), p.v.end(), 60);
  uint8_t bgr[3];
  hseg::yuv_to_bgr(77, 200, 60, bgr);
  for (uint32_t format : kFormats)
    for (auto size : {std::pair<int32_t, int32_t>{5, 4}, {21, 40}, {64, 3}}) {
      SCOPED_TRACE(testing::Message() << "format " << format << " to " << size.first);
      const Frame f = make_frame(p, format);
      const Out c = resize_bl(f, size.first, size.second, 1);
      const Out g = resize_bl(f, size.first, size.second, 0);
      const int grey = format == HSEG_PIXFMT_BGR24 ? (13 * bgr[0] + 83 * bgr[1] + 32 * bgr[2]) >> 7
                                                   : 77;
      for (int32_t y = 0; y < size.second; ++y)
        for (int32_t x = 0; x < size.first; ++x) {
          for (int k = 0; k < 3; ++k) ASSERT_EQ(c.at(x, y, 3)[k], bgr[k]);
          ASSERT_EQ(*g.at(x, y, 1), grey);
        }
    }
  std::vector<uint8_t> plane(21 * 13, 199), out(50 * 50, kCanary);
  ASSERT_EQ(zevImageResize_BL_C1(nullptr, plane.data(), 21, 13, 21, out.data(), 50, 50, 50),
            HSEG_OK);
  EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](uint8_t b) { return b == 199; }));
}

// The row workers with the tables that zevImageResize_BL builds give its
// output; tables reaching outside the source are refused.
TEST(BilinearWorkers, MatchTheEntryAndRefuseBadTables) {
  const Picture p = random_picture(33, 27, 21);
  const int32_t dw = 50, dh = 20;
  std::vector<uint16_t> ct(2 * dw), rt(2 * dh);
  hseg::bilinear_column_table(33, dw, ct.data());
  hseg::bilinear_row_table(27, dh, rt.data());
  std::vector<uint32_t> b0(3 * dw), b1(3 * dw);
  for (uint32_t format : kFormats)
    for (int32_t colour : {0, 1}) {
      SCOPED_TRACE(testing::Message() << "format " << format << " colour " << colour);
      const Frame f = make_frame(p, format);
      const Out o = resize_bl(f, dw, dh, colour);
      std::vector<uint8_t> piece(o.px.size(), kCanary);
      ASSERT_EQ(zevImageResize_BL_Piece(&f.desc, piece.data(), dw, dh, o.pitch, colour, ct.data(),
                                        rt.data(), b0.data(), b1.data()),
                HSEG_OK);
      EXPECT_EQ(piece, o.px);
    }
  const Frame f = make_frame(p, HSEG_PIXFMT_NV12);
  const Out o = resize_bl(f, dw, dh, 0);
  std::vector<uint8_t> grey(o.px.size(), kCanary);
  ASSERT_EQ(zevResize_Bilinear_YUVPlanarToGRAY(f.desc.planes[0], f.desc.pitches[0], 27, grey.data(),
                                                o.pitch, dw, dh, ct.data(), rt.data(), b0.data(),
                                                b1.data()),
            HSEG_OK);
  EXPECT_EQ(grey, o.px);

  struct Bad {
    const char *what;
    int index;  // into the column table (>= 0) or the row table (< 0, -1 - index)
    uint16_t value;
  };
  const Bad bad[] = {{"column past the source", 2 * (dw - 1), 33},
                     {"second column past the source", 2 * 5, 32},  // weight of entry 5 != 0
                     {"column weight above 128", 2 * 5 + 1, 129},
                     {"row past the source", -1 - 2 * 3, 27},
                     {"row weight above 128", -1 - (2 * 3 + 1), 200}};
  for (const auto &b : bad) {
    SCOPED_TRACE(b.what);
    std::vector<uint16_t> c2 = ct, r2 = rt;
    if (b.index >= 0) {
      c2[b.index] = b.value;
      if (b.index == 2 * 5) c2[2 * 5 + 1] = 1;
    } else {
      r2[-1 - b.index] = b.value;
    }
    std::vector<uint8_t> out(o.px.size(), kCanary);
    EXPECT_EQ(zevImageResize_BL_Piece(&f.desc, out.data(), dw, dh, o.pitch, 0, c2.data(),
                                      r2.data(), b0.data(), b1.data()),
              HSEG_ERR_BAD_ARGUMENT);
    EXPECT_TRUE(all_canary(out));
  }
}

TEST(Bilinear, RejectsBadArgumentsBeforeAllocating) {
  const Picture p = random_picture(16, 12, 2);
  std::vector<uint8_t> dst(3 * 40 * 40, kCanary), src(16 * 12, 1);
  auto expect_untouched = [&](MRESULT got, MRESULT want, const char *what) {
    EXPECT_EQ(got, want) << what;
    EXPECT_EQ(hseg_test::alloc_calls(), 0) << what;
    EXPECT_TRUE(all_canary(dst)) << what;
  };
  hseg_test::alloc_reset();
  uint8_t *d = dst.data();
  const uint8_t *s = src.data();
  constexpr MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;
  expect_untouched(zevImageResize_BL_C1(nullptr, nullptr, 16, 12, 16, d, 8, 8, 8), kBad, "null src");
  expect_untouched(zevImageResize_BL_C1(nullptr, s, 16, 12, 16, nullptr, 8, 8, 8), kBad, "null dst");
  expect_untouched(zevImageResize_BL_C1(nullptr, s, 0, 12, 16, d, 8, 8, 8), kBad, "zero width");
  expect_untouched(zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, 8, 0, 8), kBad, "zero height");
  expect_untouched(zevImageResize_BL_C1(nullptr, s, 16, 12, 15, d, 8, 8, 8), kBad, "short pitch");
  expect_untouched(zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, 8, 8, 7), kBad, "short dst pitch");
  expect_untouched(zevImageResize_BL_C1(nullptr, s, 65537, 1, 65537, d, 8, 1, 8), kBad,
                   "source too wide for the tables");
  expect_untouched(zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, INT32_MAX / 4, 2, INT32_MAX),
                   kBad, "work block overflow");

  // The source is 16 x 12: rows of 48 BGR bytes, 32 YUY2 bytes, 16 luma,
  // 8 planar chroma or 16 interleaved chroma bytes.
  struct DescCase {
    const char *what;
    uint32_t format;
    int null_plane;   // -1: none
    int short_pitch;  // -1: none
    int32_t pitch;
    int32_t colour;
    MRESULT expect;
  };
  const DescCase cases[] = {
      {"grey format code", HSEG_PIXFMT_GRAY, -1, -1, 0, 1, HSEG_ERR_FORMAT},
      {"format code 0", 0, -1, -1, 0, 1, HSEG_ERR_FORMAT},
      {"null BGR plane", HSEG_PIXFMT_BGR24, 0, -1, 0, 1, kBad},
      {"short BGR pitch", HSEG_PIXFMT_BGR24, -1, 0, 47, 0, kBad},
      {"short YUY2 pitch", HSEG_PIXFMT_YUY2, -1, 0, 31, 1, kBad},
      {"null U plane", HSEG_PIXFMT_I420, 1, -1, 0, 1, kBad},
      {"null V plane", HSEG_PIXFMT_I420, 2, -1, 0, 1, kBad},
      {"short V pitch", HSEG_PIXFMT_I420, -1, 2, 7, 1, kBad},
      {"null chroma plane", HSEG_PIXFMT_NV21, 1, -1, 0, 1, kBad},
      {"short chroma pitch", HSEG_PIXFMT_NV12, -1, 1, 15, 1, kBad},
      {"short luma pitch", HSEG_PIXFMT_NV12, -1, 0, 15, 0, kBad},
  };
  for (const auto &c : cases) {
    const bool known = c.format != HSEG_PIXFMT_GRAY && c.format != 0;
    Frame f = make_frame(p, known ? c.format : HSEG_PIXFMT_BGR24);
    f.desc.format = c.format;
    if (c.null_plane >= 0) f.desc.planes[c.null_plane] = nullptr;
    if (c.short_pitch >= 0) f.desc.pitches[c.short_pitch] = c.pitch;
    expect_untouched(zevImageResize_BL(nullptr, &f.desc, d, 8, 8, 24, c.colour), c.expect, c.what);
  }
  Frame f = make_frame(p, HSEG_PIXFMT_BGR24);
  expect_untouched(zevImageResize_BL(nullptr, nullptr, d, 8, 8, 24, 1), kBad, "null descriptor");
  expect_untouched(zevImageResize_BL(nullptr, &f.desc, d, 8, 8, 23, 1), kBad, "short BGR dst pitch");
  expect_untouched(zevImageResize_BL(nullptr, &f.desc, d, -8, 8, 24, 1), kBad, "negative width");
  f.desc.height = 0;
  expect_untouched(zevImageResize_BL(nullptr, &f.desc, d, 8, 8, 24, 1), kBad, "zero source height");

  // Grey from 4:2:0 reads the luma only: chroma planes may be absent.
  Frame nv = make_frame(p, HSEG_PIXFMT_NV21);
  nv.desc.planes[1] = nullptr;
  EXPECT_EQ(zevImageResize_BL(nullptr, &nv.desc, d, 8, 8, 8, 0), HSEG_OK);
}

TEST(Bilinear, AllocationFailureWritesNothingAndLeaksNothing) {
  const Picture p = random_picture(30, 20, 4);
  for (uint32_t format : kFormats)
    for (int32_t colour : {0, 1}) {
      const Frame f = make_frame(p, format);
      hseg_test::for_each_alloc_failure([&](int64_t failing) {
        std::vector<uint8_t> dst(3 * 17 * 11, kCanary);
        const MRESULT s = zevImageResize_BL(nullptr, &f.desc, dst.data(), 17, 11, 51, colour);
        EXPECT_EQ(hseg_test::alloc_live(), 0);
        EXPECT_EQ(s, failing == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY);
        EXPECT_TRUE(failing == 0 || all_canary(dst));
      });
    }
  std::vector<uint8_t> src(30 * 20, 5);
  const int64_t n = hseg_test::for_each_alloc_failure([&](int64_t failing) {
    std::vector<uint8_t> dst(17 * 11, kCanary);
    const MRESULT s = zevImageResize_BL_C1(nullptr, src.data(), 30, 20, 30, dst.data(), 17, 11, 17);
    EXPECT_EQ(hseg_test::alloc_live(), 0);
    EXPECT_EQ(s, failing == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY);
    EXPECT_TRUE(failing == 0 || all_canary(dst));
  });
  EXPECT_EQ(n, 1);
}

}  // namespace
