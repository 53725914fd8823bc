// Bilinear resizers: mapping, row reuse, SIMD blend, per-format rows, checks.
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
constexpr MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;

bool untouched(const std::vector<uint8_t> &v) {
  return std::all_of(v.begin(), v.end(), [](uint8_t b) { return b == kCanary; });
}

// A picture as full-resolution Y and 4:2:0 chroma planes (cw x ch samples).
struct Picture {
  int32_t w, h;
  std::vector<uint8_t> y, u, v;
  int32_t cw() const { return (w + 1) / 2; }
  int32_t ch() const { return (h + 1) / 2; }
};

Picture random_picture(int32_t w, int32_t h, uint32_t seed) {
  std::mt19937 rng(seed);
  Picture p{w, h, std::vector<uint8_t>(size_t{1} * w * h), {}, {}};
  p.u.resize(size_t{1} * p.cw() * p.ch());
  p.v.resize(p.u.size());
  for (auto *plane : {&p.y, &p.u, &p.v})
    for (auto &b : *plane) b = static_cast<uint8_t>(rng());
  return p;
}

// Full-resolution chroma as the header documents it: a sample sits on the
// even pixel of an even row; a pixel between two takes (a + b + 1) >> 1,
// between four (a + b + c + d + 2) >> 2; the last sample repeats at the edge.
// YUY2 (one chroma row per luma row, here row y / 2 of the planes) never
// averages rows.
int32_t chroma(const Picture &p, const std::vector<uint8_t> &c, int32_t x, int32_t y, bool yuy2) {
  auto s = [&](int32_t k, int32_t j) {
    return c[std::min(j, p.ch() - 1) * p.cw() + std::min(k, p.cw() - 1)];
  };
  const int32_t k = x / 2, j = y / 2;
  const bool odd_x = x % 2 == 1, odd_y = !yuy2 && y % 2 == 1;
  if (odd_x && odd_y) return (s(k, j) + s(k + 1, j) + s(k, j + 1) + s(k + 1, j + 1) + 2) >> 2;
  if (odd_x) return (s(k, j) + s(k + 1, j) + 1) >> 1;
  if (odd_y) return (s(k, j) + s(k, j + 1) + 1) >> 1;
  return s(k, j);
}

struct Frame {
  OffscreenImage desc{};
  std::vector<uint8_t> planes[3];
};

// The picture in `format`, each plane with its own padded pitch. BGR is the
// picture converted at full resolution.
Frame make_frame(const Picture &p, uint32_t format) {
  Frame f;
  f.desc = OffscreenImage{format, p.w, p.h, {}, {}};
  auto plane = [&](int i, int32_t pitch, int32_t rows) {
    f.planes[i].assign(size_t{1} * pitch * rows, kCanary);
    f.desc.planes[i] = f.planes[i].data();
    f.desc.pitches[i] = pitch;
    return f.planes[i].data();
  };
  const int32_t cw = p.cw();
  if (format == HSEG_PIXFMT_BGR24) {
    uint8_t *d = plane(0, 3 * p.w + 2, p.h);
    for (int32_t y = 0; y < p.h; ++y)
      for (int32_t x = 0; x < p.w; ++x)
        hseg::yuv_to_bgr(p.y[y * p.w + x], chroma(p, p.u, x, y, false), chroma(p, p.v, x, y, false),
                         d + y * (3 * p.w + 2) + 3 * x);
    return f;
  }
  if (format == HSEG_PIXFMT_YUY2) {
    uint8_t *d = plane(0, 4 * cw + 4, p.h);
    for (int32_t y = 0; y < p.h; ++y)
      for (int32_t k = 0; k < cw; ++k) {
        uint8_t *g = d + y * (4 * cw + 4) + 4 * k;
        g[0] = p.y[y * p.w + 2 * k];
        g[2] = 2 * k + 1 < p.w ? p.y[y * p.w + 2 * k + 1] : 0;
        g[1] = p.u[y / 2 * cw + k];
        g[3] = p.v[y / 2 * cw + k];
      }
    return f;
  }
  uint8_t *luma = plane(0, p.w + 3, p.h);
  for (int32_t y = 0; y < p.h; ++y) std::copy_n(&p.y[y * p.w], p.w, luma + y * (p.w + 3));
  const bool planar = format == HSEG_PIXFMT_I420, u_first = format == HSEG_PIXFMT_NV12;
  uint8_t *c1 = plane(1, planar ? cw + 1 : 2 * cw + 2, p.ch());
  uint8_t *c2 = planar ? plane(2, cw + 6, p.ch()) : nullptr;
  for (int32_t j = 0; j < p.ch(); ++j)
    for (int32_t k = 0; k < cw; ++k) {
      const uint8_t u = p.u[j * cw + k], v = p.v[j * cw + k];
      if (planar) {
        c1[j * (cw + 1) + k] = u;
        c2[j * (cw + 6) + k] = v;
      } else {
        c1[j * (2 * cw + 2) + 2 * k] = u_first ? u : v;
        c1[j * (2 * cw + 2) + 2 * k + 1] = u_first ? v : u;
      }
    }
  return f;
}

const uint32_t kFormats[] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420,
                             HSEG_PIXFMT_NV21, HSEG_PIXFMT_NV12};

// Resizes with zevImageResize_BL into a padded buffer and checks the padding.
std::vector<uint8_t> resize_bl(const Frame &f, int32_t dw, int32_t dh, int32_t colour) {
  const int32_t row = (colour == 1 ? 3 : 1) * dw, pitch = row + 7;
  std::vector<uint8_t> out(size_t{1} * pitch * dh, kCanary);
  EXPECT_EQ(zevImageResize_BL(nullptr, &f.desc, out.data(), dw, dh, pitch, colour), HSEG_OK);
  std::vector<uint8_t> px;
  for (int32_t y = 0; y < dh; ++y) {
    px.insert(px.end(), &out[y * pitch], &out[y * pitch + row]);
    EXPECT_TRUE(std::all_of(&out[y * pitch + row], &out[(y + 1) * pitch],
                            [](uint8_t b) { return b == kCanary; }));
  }
  return px;
}

std::vector<uint8_t> resize_c1(const std::vector<uint8_t> &src, int32_t sw, int32_t sh, int32_t dw,
                               int32_t dh) {
  std::vector<uint8_t> out(size_t{1} * dw * dh, kCanary);
  EXPECT_EQ(zevImageResize_BL_C1(nullptr, src.data(), sw, sh, sw, out.data(), dw, dh, dw), HSEG_OK);
  return out;
}

// Worked examples. A step from 0 to 128 turns the weight into the output
// value, which shows the reading of the mapping: the product rounded to
// float, then 0.5 subtracted in float. All-double arithmetic gives 51 in the
// first case, all-float 51 in the second, the double difference rounded to
// float 96 in the third.
TEST(BilinearC1, WorkedExamples) {
  struct Case {
    int32_t src, dst, d, i0, expect;
  };
  for (const Case &c : {Case{7, 640, 82, 0, 52}, Case{7, 384, 49, 0, 52}, Case{65, 1089, 1076, 63, 97}}) {
    std::vector<uint8_t> src(c.src);
    for (int32_t x = 0; x < c.src; ++x) src[x] = x > c.i0 ? 128 : 0;
    EXPECT_EQ(resize_c1(src, c.src, 1, c.dst, 1)[c.d], c.expect) << c.src << " -> " << c.dst;
  }
  // Doubling: column 0 maps to f = -0.25 (column 0, weight 0), the last to
  // f = 3.25, the right border (a copy of the last column); rows alike.
  const std::vector<uint8_t> src = {10, 50, 90, 250};
  const std::vector<uint8_t> expect = {10, 20, 40, 60, 80, 130, 210, 250};
  EXPECT_EQ(resize_c1(src, 4, 1, 8, 1), expect);
  EXPECT_EQ(resize_c1(src, 1, 4, 1, 8), expect);
}

// A linear ramp (2 a column, 1 a row) stays within 1 of the ramp at the
// mapped position, clamped to the source as the borders replicate.
TEST(BilinearC1, RampStaysRamp) {
  const int32_t sw = 100, sh = 50;
  std::vector<uint8_t> src(sw * sh);
  for (int32_t y = 0; y < sh; ++y)
    for (int32_t x = 0; x < sw; ++x) src[y * sw + x] = static_cast<uint8_t>(2 * x + y);
  auto pos = [](int32_t s, int32_t d, int32_t i) {
    return std::min(std::max((i + 0.5) * s / d - 0.5, 0.0), s - 1.0);
  };
  for (auto [dw, dh] : {std::pair{37, 25}, {250, 143}, {333, 17}, {99, 49}, {51, 700}}) {
    const std::vector<uint8_t> out = resize_c1(src, sw, sh, dw, dh);
    for (int32_t y = 0; y < dh; ++y)
      for (int32_t x = 0; x < dw; ++x)
        ASSERT_LE(std::fabs(out[y * dw + x] - (2 * pos(sw, dw, x) + pos(sh, dh, y))), 1.0)
            << dw << "x" << dh << " at " << x << "," << y;
  }
}

// The SIMD blend against the reference, byte for byte: lengths around the
// 16-value step, misaligned pointers, outputs pre-filled differently.
TEST(BilinearRows, BlendKernelsAgree) {
#if defined(__SSE2__)
  std::mt19937 rng(5);
  std::vector<int32_t> lengths = {1, 15, 16, 17, 19, 31, 32, 33, 1920, 1921};
  for (int i = 0; i < 40; ++i) lengths.push_back(1 + rng() % 700);
  for (int32_t n : lengths)
    for (uint32_t wy : {0u, 1u, 64u, 128u, static_cast<uint32_t>(rng() % 129)}) {
      const int32_t off = rng() % 4;
      std::vector<uint32_t> r0(n + off), r1(n + off);
      for (int32_t j = 0; j < n + off; ++j) r0[j] = rng() % 32641, r1[j] = rng() % 32641;
      r0[off] = 0, r1[off] = 32640;  // the extremes
      std::vector<uint8_t> a(n + off + 8, 0x11), b(n + off + 8, 0xEE);
      hseg::bilinear_blend_ref(r0.data() + off, r1.data() + off, wy, a.data() + off, n);
      hseg::bilinear_blend_sse2(r0.data() + off, r1.data() + off, wy, b.data() + off, n);
      for (int32_t j = 0; j < n; ++j) ASSERT_EQ(a[off + j], b[off + j]) << n << " wy " << wy << " at " << j;
      for (int32_t j = n + off; j < n + off + 8; ++j) ASSERT_EQ(b[j], 0xEE) << "wrote past n";
    }
#else
  GTEST_SKIP() << "no SIMD blend in this build";
#endif
}

// Every YUV format to BGR where the mapping lands on source pixels (1:1, or
// 3:1 onto pixel 3d + 1): each output is one source pixel converted with its
// documented chroma, odd and even rows and columns and the repeated last
// sample at the right and bottom edges included.
TEST(BilinearBL, ChromaSitingPerFormat) {
  struct Case {
    int32_t sw, sh, dw, dh;
  };
  for (const Case &c : {Case{10, 12, 10, 4}, Case{12, 10, 4, 10}, Case{15, 9, 5, 3}, Case{9, 15, 9, 5}})
    for (uint32_t format : {HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21, HSEG_PIXFMT_NV12}) {
      const Picture p = random_picture(c.sw, c.sh, 100 + format);
      const std::vector<uint8_t> out = resize_bl(make_frame(p, format), c.dw, c.dh, 1);
      const int32_t fx = c.sw / c.dw, fy = c.sh / c.dh;
      for (int32_t dy = 0; dy < c.dh; ++dy)
        for (int32_t dx = 0; dx < c.dw; ++dx) {
          const int32_t x = fx * dx + fx / 2, y = fy * dy + fy / 2;
          const bool yuy2 = format == HSEG_PIXFMT_YUY2;
          uint8_t expect[3];
          hseg::yuv_to_bgr(p.y[y * p.w + x], chroma(p, p.u, x, y, yuy2), chroma(p, p.v, x, y, yuy2),
                           expect);
          for (int k = 0; k < 3; ++k)
            ASSERT_EQ(out[3 * (dy * c.dw + dx) + k], expect[k])
                << "format " << format << " " << c.sw << "x" << c.sh << " at " << dx << "," << dy;
        }
    }
}

// One picture in every format. Its chroma changes only across, so 4:2:2 and
// 4:2:0 carry the same samples and the YUV formats agree exactly; BGR,
// converted before interpolation, agrees within the conversion's rounding.
// Without chroma, grey is the same from every format.
TEST(BilinearBL, FormatsOfOnePictureAgree) {
  Picture p = random_picture(64, 48, 3);
  for (int32_t y = 0; y < p.h; ++y)
    for (int32_t x = 0; x < p.w; ++x) p.y[y * p.w + x] = static_cast<uint8_t>(60 + x + y + x * y % 7);
  for (int32_t j = 0; j < p.ch(); ++j)
    for (int32_t k = 0; k < p.cw(); ++k)
      p.u[j * p.cw() + k] = static_cast<uint8_t>(90 + 2 * k), p.v[j * p.cw() + k] = 170 - 2 * k;
  Picture grey = p;
  std::fill(grey.u.begin(), grey.u.end(), 128);
  std::fill(grey.v.begin(), grey.v.end(), 128);
  for (auto [dw, dh] : {std::pair{40, 30}, {100, 70}, {23, 91}}) {
    const std::vector<uint8_t> base = resize_bl(make_frame(p, HSEG_PIXFMT_I420), dw, dh, 1);
    const std::vector<uint8_t> grey_base = resize_bl(make_frame(grey, HSEG_PIXFMT_I420), dw, dh, 0);
    for (uint32_t format : kFormats) {
      const std::vector<uint8_t> out = resize_bl(make_frame(p, format), dw, dh, 1);
      int worst = 0;
      for (size_t i = 0; i < out.size(); ++i) worst = std::max(worst, std::abs(out[i] - base[i]));
      EXPECT_LE(worst, format == HSEG_PIXFMT_BGR24 ? 3 : 0) << "format " << format << " " << dw;
      EXPECT_EQ(resize_bl(make_frame(grey, format), dw, dh, 0), grey_base) << "format " << format;
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
    for (auto [dw, dh] : {std::pair{5, 4}, {21, 40}, {64, 3}}) {
      const Frame f = make_frame(p, format);
      const std::vector<uint8_t> colour = resize_bl(f, dw, dh, 1), grey = resize_bl(f, dw, dh, 0);
      const int g = format == HSEG_PIXFMT_BGR24 ? (13 * bgr[0] + 83 * bgr[1] + 32 * bgr[2]) >> 7 : 77;
      for (size_t i = 0; i < colour.size(); ++i) ASSERT_EQ(colour[i], bgr[i % 3]) << format;
      for (uint8_t v : grey) ASSERT_EQ(v, g) << format;
    }
  for (uint8_t v : resize_c1(std::vector<uint8_t>(21 * 13, 199), 21, 13, 50, 50)) ASSERT_EQ(v, 199);
}

// The row workers, given the tables the entry builds, give its output; a
// table reaching outside the source is refused.
TEST(BilinearWorkers, MatchTheEntryAndRefuseBadTables) {
  const Picture p = random_picture(33, 27, 21);
  const int32_t dw = 50, dh = 20;
  std::vector<uint16_t> ct(2 * dw), rt(2 * dh);
  hseg::bilinear_column_table(33, dw, ct.data());
  hseg::bilinear_row_table(27, dh, rt.data());
  std::vector<uint32_t> b0(3 * dw), b1(3 * dw);
  for (uint32_t format : kFormats)
    for (int32_t colour : {0, 1}) {
      const Frame f = make_frame(p, format);
      const int32_t pitch = (colour == 1 ? 3 : 1) * dw;
      std::vector<uint8_t> out(size_t{1} * pitch * dh, kCanary);
      ASSERT_EQ(zevImageResize_BL_Piece(&f.desc, out.data(), dw, dh, pitch, colour, ct.data(),
                                        rt.data(), b0.data(), b1.data()),
                HSEG_OK);
      EXPECT_EQ(out, resize_bl(f, dw, dh, colour)) << "format " << format << " colour " << colour;
    }
  const Frame f = make_frame(p, HSEG_PIXFMT_NV12);
  std::vector<uint8_t> grey(dw * dh, kCanary);
  ASSERT_EQ(zevResize_Bilinear_YUVPlanarToGRAY(f.desc.planes[0], f.desc.pitches[0], 27, grey.data(), dw,
                                                dw, dh, ct.data(), rt.data(), b0.data(), b1.data()),
            HSEG_OK);
  EXPECT_EQ(grey, resize_bl(f, dw, dh, 0));

  ct[2 * 5] = 32, ct[2 * 5 + 1] = 1;  // columns 32 and 33 of a 33-wide source
  std::fill(grey.begin(), grey.end(), kCanary);
  EXPECT_EQ(zevImageResize_BL_Piece(&f.desc, grey.data(), dw, dh, dw, 0, ct.data(), rt.data(),
                                    b0.data(), b1.data()),
            kBad);
  EXPECT_TRUE(untouched(grey));
}

// Bad arguments, and equal sizes, return before anything is allocated or
// written.
TEST(Bilinear, ReturnsEarlyOnBadArgumentsAndEqualSizes) {
  const Picture p = random_picture(16, 12, 2);
  std::vector<uint8_t> dst(3 * 40 * 40, kCanary), src(16 * 12, 1);
  uint8_t *d = dst.data();
  const uint8_t *s = src.data();
  hseg_test::alloc_reset();
  auto expect = [&](MRESULT got, MRESULT want, const char *what) {
    EXPECT_EQ(got, want) << what;
    EXPECT_EQ(hseg_test::alloc_calls(), 0) << what;
    EXPECT_TRUE(untouched(dst)) << what;
  };
  expect(zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, 16, 12, 16), HSEG_OK, "equal sizes");
  expect(zevImageResize_BL_C1(nullptr, nullptr, 16, 12, 16, d, 8, 8, 8), kBad, "null src");
  expect(zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, 8, 0, 8), kBad, "zero height");
  expect(zevImageResize_BL_C1(nullptr, s, 16, 12, 15, d, 8, 8, 8), kBad, "short pitch");
  expect(zevImageResize_BL_C1(nullptr, s, 65537, 1, 65537, d, 8, 1, 8), kBad, "too wide for tables");
  expect(zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, INT32_MAX / 4, 2, INT32_MAX), kBad,
         "work block overflow");

  // Source 16 x 12: rows of 48 BGR, 32 YUY2, 16 luma, 8 planar or 16
  // interleaved chroma bytes.
  struct Case {
    const char *what;
    uint32_t format;
    int null_plane, short_pitch;  // -1: none
    int32_t pitch, colour;
    MRESULT expect;
  };
  const Case cases[] = {{"equal sizes", HSEG_PIXFMT_NV21, -1, -1, 0, 1, HSEG_OK},
                        {"grey format code", HSEG_PIXFMT_GRAY, -1, -1, 0, 1, HSEG_ERR_FORMAT},
                        {"short YUY2 pitch", HSEG_PIXFMT_YUY2, -1, 0, 31, 1, kBad},
                        {"null V plane", HSEG_PIXFMT_I420, 2, -1, 0, 1, kBad},
                        {"short V pitch", HSEG_PIXFMT_I420, -1, 2, 7, 1, kBad},
                        {"short chroma pitch", HSEG_PIXFMT_NV12, -1, 1, 15, 1, kBad},
                        {"short luma pitch", HSEG_PIXFMT_NV21, -1, 0, 15, 0, kBad}};
  for (const auto &c : cases) {
    Frame f = make_frame(p, c.format == HSEG_PIXFMT_GRAY ? HSEG_PIXFMT_BGR24 : c.format);
    f.desc.format = c.format;
    if (c.null_plane >= 0) f.desc.planes[c.null_plane] = nullptr;
    if (c.short_pitch >= 0) f.desc.pitches[c.short_pitch] = c.pitch;
    const int32_t dw = c.expect == HSEG_OK ? 16 : 8, dh = c.expect == HSEG_OK ? 12 : 8;
    expect(zevImageResize_BL(nullptr, &f.desc, d, dw, dh, 48, c.colour), c.expect, c.what);
  }
  expect(zevImageResize_BL(nullptr, nullptr, d, 8, 8, 24, 1), kBad, "null descriptor");
  // Grey from 4:2:0 reads the luma only: the chroma plane may be absent.
  Frame f = make_frame(p, HSEG_PIXFMT_NV21);
  f.desc.planes[1] = nullptr;
  EXPECT_EQ(zevImageResize_BL(nullptr, &f.desc, d, 8, 8, 8, 0), HSEG_OK);
}

TEST(Bilinear, AllocationFailureWritesNothingAndLeaksNothing) {
  const Picture p = random_picture(30, 20, 4);
  for (uint32_t format : kFormats)
    for (int32_t colour : {-1, 0, 1}) {  // -1: zevImageResize_BL_C1 on the first plane
      const Frame f = make_frame(p, format);
      const int64_t n = hseg_test::for_each_alloc_failure([&](int64_t failing) {
        std::vector<uint8_t> dst(3 * 17 * 11, kCanary);
        const MRESULT s =
            colour < 0 ? zevImageResize_BL_C1(nullptr, f.desc.planes[0], 30, 20, f.desc.pitches[0],
                                              dst.data(), 17, 11, 51)
                       : zevImageResize_BL(nullptr, &f.desc, dst.data(), 17, 11, 51, colour);
        EXPECT_EQ(hseg_test::alloc_live(), 0);
        EXPECT_EQ(s, failing == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY);
        EXPECT_TRUE(failing == 0 || untouched(dst));
      });
      EXPECT_EQ(n, 1);
    }
}

}  // namespace
