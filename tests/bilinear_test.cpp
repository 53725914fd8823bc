// Bilinear resizers: mapping, row reuse, SIMD blend, per-format rows, checks.
#include <gtest/gtest.h>

#include <climits>

#include "resize/bilinear_rows.h"
#include "support/alloc_hooks.h"
#include "support/resize_images.h"

namespace {

using namespace hseg_test;
constexpr MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;
const uint32_t kFormats[] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420,
                             HSEG_PIXFMT_NV21, HSEG_PIXFMT_NV12};

// Full-resolution chroma as the header documents it: a sample sits on the
// even pixel of an even row; a pixel between two takes (a + b + 1) >> 1,
// between four (a + b + c + d + 2) >> 2; the last sample repeats at the edge.
// YUY2 (one chroma row per luma row, here row y / 2 of the planes) never
// averages rows.
int chroma(const Picture &p, const std::vector<uint8_t> &c, int x, int y, bool yuy2) {
  auto s = [&](int k, int j) {
    return c[std::min(j, p.ch() - 1) * p.cw() + std::min(k, p.cw() - 1)];
  };
  const int k = x / 2, j = y / 2;
  const bool odd_x = x % 2 == 1, odd_y = !yuy2 && y % 2 == 1;
  if (odd_x && odd_y) return (s(k, j) + s(k + 1, j) + s(k, j + 1) + s(k + 1, j + 1) + 2) >> 2;
  if (odd_x) return (s(k, j) + s(k + 1, j) + 1) >> 1;
  if (odd_y) return (s(k, j) + s(k, j + 1) + 1) >> 1;
  return s(k, j);
}

// One pixel converted with its documented chroma.
void expected_bgr(const Picture &p, int x, int y, bool yuy2, int out[3]) {
  yuv_to_bgr_ref(p.Y(x, y), chroma(p, p.u, x, y, yuy2), chroma(p, p.v, x, y, yuy2), out);
}

// The picture in `format`, its BGR pixels the YUV ones converted at full
// resolution; U and V planes with different pitches.
Frame frame(Picture p, uint32_t format) {
  for (int i = 0; i < p.w * p.h; ++i) {
    int e[3];
    expected_bgr(p, i % p.w, i / p.w, false, e);
    std::copy(e, e + 3, &p.bgr[3 * i]);
  }
  return make_frame(p, format, 2, 6);
}

// Resizes with zevImageResize_BL into a padded raster, checks the padding
// and returns the pixels.
std::vector<uint8_t> resize_bl(const Frame &f, int32_t dw, int32_t dh, int32_t colour) {
  Raster out(dw, dh, colour == 1 ? 3 : 1, 7);
  EXPECT_EQ(zevImageResize_BL(nullptr, &f.d, out.px.data(), dw, dh, out.pitch, colour), HSEG_OK);
  EXPECT_TRUE(out.padding_untouched());
  return out.packed();
}

std::vector<uint8_t> resize_c1(const std::vector<uint8_t> &src, int sw, int sh, int dw, int dh) {
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
  const struct { int32_t src, dst, d, i0, expect; } cases[] = {
      {7, 640, 82, 0, 52}, {7, 384, 49, 0, 52}, {65, 1089, 1076, 63, 97}};
  for (const auto &c : cases) {
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
// mapped position, clamped to the source as the borders replicate; a
// constant stays constant.
TEST(BilinearC1, RampStaysRampAndConstantStaysConstant) {
  const int32_t sw = 100, sh = 50;
  std::vector<uint8_t> src(sw * sh);
  for (int32_t i = 0; i < sw * sh; ++i) src[i] = static_cast<uint8_t>(2 * (i % sw) + i / sw);
  auto pos = [](int32_t s, int32_t d, int32_t i) {
    return std::min(std::max((i + 0.5) * s / d - 0.5, 0.0), s - 1.0);
  };
  for (auto [dw, dh] : {std::pair{37, 25}, {250, 143}, {333, 17}, {99, 49}, {51, 700}}) {
    const std::vector<uint8_t> out = resize_c1(src, sw, sh, dw, dh);
    for (int32_t y = 0; y < dh; ++y)
      for (int32_t x = 0; x < dw; ++x)
        ASSERT_LE(std::fabs(out[y * dw + x] - (2 * pos(sw, dw, x) + pos(sh, dh, y))), 1.0)
            << dw << "x" << dh << " at " << x << "," << y;
    for (uint8_t v : resize_c1(std::vector<uint8_t>(sw * sh, 199), sw, sh, dw, dh))
      ASSERT_EQ(v, 199);
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
      for (int32_t j = 0; j < n; ++j)
        ASSERT_EQ(a[off + j], b[off + j]) << n << " wy " << wy << " at " << j;
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
  std::mt19937 rng(100);
  const struct { int32_t sw, sh, dw, dh; } cases[] = {
      {10, 12, 10, 4}, {12, 10, 4, 10}, {15, 9, 5, 3}, {9, 15, 9, 5}};
  for (const auto &c : cases)
    for (uint32_t f : {HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21, HSEG_PIXFMT_NV12}) {
      const Picture p = random_picture(rng, c.sw, c.sh);
      const std::vector<uint8_t> out = resize_bl(frame(p, f), c.dw, c.dh, 1);
      const int32_t fx = c.sw / c.dw, fy = c.sh / c.dh;
      for (int32_t i = 0; i < c.dw * c.dh; ++i) {
        int e[3];
        const int x = fx * (i % c.dw) + fx / 2, y = fy * (i / c.dw) + fy / 2;
        expected_bgr(p, x, y, f == HSEG_PIXFMT_YUY2, e);
        for (int k = 0; k < 3; ++k)
          ASSERT_EQ(out[3 * i + k], e[k]) << "format " << f << " " << c.sw << "x" << c.sh;
      }
    }
}

// One picture in every format. Its chroma changes only across, so 4:2:2 and
// 4:2:0 carry the same samples and the YUV formats agree exactly; BGR,
// converted before interpolation, agrees within the conversion's rounding.
// Without chroma, grey is the same from every format. A constant picture
// (odd-sized) stays constant in every format, in colour and in grey.
TEST(BilinearBL, FormatsOfOnePictureAgree) {
  std::mt19937 rng(3);
  Picture p = random_picture(rng, 64, 48), grey = p, flat = random_picture(rng, 21, 13);
  for (int i = 0; i < 64 * 48; ++i) p.y[i] = uint8_t(60 + i % 64 + i / 64 + i % 64 * (i / 64) % 7);
  for (int i = 0; i < 32 * 24; ++i) p.u[i] = uint8_t(90 + i % 32 * 2), p.v[i] = 170 - i % 32 * 2;
  grey.y = p.y, grey.u.assign(grey.u.size(), 128), grey.v.assign(grey.v.size(), 128);
  flat.y.assign(flat.y.size(), 77), flat.u.assign(flat.u.size(), 200);
  flat.v.assign(flat.v.size(), 60);
  int bgr[3];
  yuv_to_bgr_ref(77, 200, 60, bgr);
  for (auto [dw, dh] : {std::pair{40, 30}, {100, 70}, {23, 91}, {5, 4}}) {
    const std::vector<uint8_t> base = resize_bl(frame(p, HSEG_PIXFMT_I420), dw, dh, 1);
    const std::vector<uint8_t> grey_base = resize_bl(frame(grey, HSEG_PIXFMT_I420), dw, dh, 0);
    for (uint32_t f : kFormats) {
      const std::vector<uint8_t> out = resize_bl(frame(p, f), dw, dh, 1);
      int worst = 0;
      for (size_t i = 0; i < out.size(); ++i) worst = std::max(worst, std::abs(out[i] - base[i]));
      EXPECT_LE(worst, f == HSEG_PIXFMT_BGR24 ? 3 : 0) << "format " << f << " " << dw;
      EXPECT_EQ(resize_bl(frame(grey, f), dw, dh, 0), grey_base) << "format " << f;
      const std::vector<uint8_t> colour = resize_bl(frame(flat, f), dw, dh, 1);
      const int g = f == HSEG_PIXFMT_BGR24 ? (13 * bgr[0] + 83 * bgr[1] + 32 * bgr[2]) >> 7 : 77;
      for (size_t i = 0; i < colour.size(); ++i) ASSERT_EQ(colour[i], bgr[i % 3]) << f;
      for (uint8_t v : resize_bl(frame(flat, f), dw, dh, 0)) ASSERT_EQ(v, g) << f;
    }
  }
}

// The row workers, given the tables the entry builds, give its output; a
// table reaching outside the source is refused.
TEST(BilinearWorkers, MatchTheEntryAndRefuseBadTables) {
  std::mt19937 rng(21);
  const Frame f = frame(random_picture(rng, 33, 27), HSEG_PIXFMT_NV12);
  const int32_t dw = 50, dh = 20;
  std::vector<uint16_t> ct(2 * dw), rt(2 * dh);
  hseg::bilinear_column_table(33, dw, ct.data());
  hseg::bilinear_row_table(27, dh, rt.data());
  std::vector<uint32_t> b0(3 * dw), b1(3 * dw);
  std::vector<uint8_t> out(3 * dw * dh, kCanary), grey(dw * dh, kCanary);
  ASSERT_EQ(zevImageResize_BL_Piece(&f.d, out.data(), dw, dh, 3 * dw, 1, ct.data(), rt.data(),
                                    b0.data(), b1.data()), HSEG_OK);
  EXPECT_EQ(out, resize_bl(f, dw, dh, 1));
  ASSERT_EQ(zevResize_Bilinear_YUVPlanarToGRAY(f.d.planes[0], f.d.pitches[0], 27, grey.data(), dw,
                                               dw, dh, ct.data(), rt.data(), b0.data(), b1.data()),
            HSEG_OK);
  EXPECT_EQ(grey, resize_bl(f, dw, dh, 0));
  ct[2 * 5] = 32, ct[2 * 5 + 1] = 1;  // columns 32 and 33 of a 33-wide source
  grey.assign(grey.size(), kCanary);
  EXPECT_EQ(zevImageResize_BL_Piece(&f.d, grey.data(), dw, dh, dw, 0, ct.data(), rt.data(),
                                    b0.data(), b1.data()), kBad);
  EXPECT_TRUE(untouched(grey));
}

// Bad arguments, and equal sizes, return before anything is allocated or
// written. Source 16 x 12: rows of 48 BGR, 32 YUY2, 16 luma, 8 planar or 16
// interleaved chroma bytes.
TEST(Bilinear, ReturnsEarlyOnBadArgumentsAndEqualSizes) {
  std::mt19937 rng(2);
  const Picture p = random_picture(rng, 16, 12);
  std::vector<uint8_t> dst(3 * 40 * 40, kCanary), src(16 * 12, 1);
  uint8_t *d = dst.data();
  const uint8_t *s = src.data();
  using Spoil = void (*)(OffscreenImage &);
  auto bl = [&](uint32_t format, Spoil spoil, int32_t dw, int32_t dh, int32_t colour) {
    Frame f = frame(p, format);
    spoil(f.d);
    return zevImageResize_BL(nullptr, &f.d, d, dw, dh, 48, colour);
  };
  alloc_reset();
  const struct { const char *what; MRESULT got, want; } cases[] = {
      {"C1 equal sizes", zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, 16, 12, 16), HSEG_OK},
      {"C1 null src", zevImageResize_BL_C1(nullptr, nullptr, 16, 12, 16, d, 8, 8, 8), kBad},
      {"C1 zero height", zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, 8, 0, 8), kBad},
      {"C1 short pitch", zevImageResize_BL_C1(nullptr, s, 16, 12, 15, d, 8, 8, 8), kBad},
      {"C1 too wide", zevImageResize_BL_C1(nullptr, s, 65537, 1, 65537, d, 8, 1, 8), kBad},
      {"C1 work block overflow",
       zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, INT32_MAX / 4, 2, INT32_MAX), kBad},
      {"equal sizes", bl(HSEG_PIXFMT_NV21, [](auto &) {}, 16, 12, 1), HSEG_OK},
      {"grey format code",
       bl(HSEG_PIXFMT_BGR24, [](auto &i) { i.format = HSEG_PIXFMT_GRAY; }, 8, 8, 1),
       HSEG_ERR_FORMAT},
      {"short YUY2 pitch", bl(HSEG_PIXFMT_YUY2, [](auto &i) { i.pitches[0] = 31; }, 8, 8, 1), kBad},
      {"null V plane", bl(HSEG_PIXFMT_I420, [](auto &i) { i.planes[2] = nullptr; }, 8, 8, 1), kBad},
      {"short V pitch", bl(HSEG_PIXFMT_I420, [](auto &i) { i.pitches[2] = 7; }, 8, 8, 1), kBad},
      {"short chroma pitch", bl(HSEG_PIXFMT_NV12, [](auto &i) { i.pitches[1] = 15; }, 8, 8, 1),
       kBad},
      {"short luma pitch", bl(HSEG_PIXFMT_NV21, [](auto &i) { i.pitches[0] = 15; }, 8, 8, 0), kBad},
      {"null descriptor", zevImageResize_BL(nullptr, nullptr, d, 8, 8, 24, 1), kBad}};
  for (const auto &c : cases) EXPECT_EQ(c.got, c.want) << c.what;
  EXPECT_EQ(alloc_calls(), 0);
  EXPECT_TRUE(untouched(dst));
  // Grey from 4:2:0 reads the luma only: the chroma plane may be absent.
  EXPECT_EQ(bl(HSEG_PIXFMT_NV21, [](auto &i) { i.planes[1] = nullptr; }, 8, 8, 0), HSEG_OK);
}

TEST(Bilinear, AllocationFailureWritesNothingAndLeaksNothing) {
  std::mt19937 rng(4);
  const Picture p = random_picture(rng, 30, 20);
  for (uint32_t format : kFormats)
    for (int32_t colour : {-1, 0, 1}) {  // -1: zevImageResize_BL_C1 on the first plane
      const Frame f = frame(p, format);
      expect_clean_alloc_failures(3 * 17 * 11, [&](uint8_t *dst) {
        return colour < 0 ? zevImageResize_BL_C1(nullptr, f.d.planes[0], 30, 20, f.d.pitches[0],
                                                 dst, 17, 11, 51)
                          : zevImageResize_BL(nullptr, &f.d, dst, 17, 11, 51, colour);
      });
    }
}

}  // namespace
