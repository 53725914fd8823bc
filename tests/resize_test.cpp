// Nearest, bilinear and bicubic resizers: mappings, SIMD rows against their
// references, per-format chroma, the bicubic cache, argument checks and
// allocation failures; then every resizer on buffers that end (and, in a
// second pass, begin) at an inaccessible page.
#include <gtest/gtest.h>

#include <climits>
#include <functional>

#include "resize/bilinear_rows.h"
#include "resize/nearest_rows.h"
#include "support/guarded.h"
#include "support/resize_images.h"

namespace {

using namespace hseg_test;
constexpr MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;
const uint32_t kFormats[] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420,
                             HSEG_PIXFMT_NV21, HSEG_PIXFMT_NV12};

// ---------------------------------------------------------------------------
// Nearest neighbour
// ---------------------------------------------------------------------------

// Every output pixel is the source pixel the rule names. The rule's worked
// examples: 4 -> 2 reads 0, 2 (numerators 1, 9 over 4); 2 -> 4 reads 0, 0,
// 1, 1 (1, 5, 9, 13 over 8); equal sizes copy; 3 -> 7 reads 0, 0, 1, 1, 1,
// 2, 2 (2, 8, 14, ... over 14); the table runs them along both axes.
// Three-channel sources encode their own coordinates, so a pixel from
// anywhere else cannot pass (and a constant image can only stay constant).
TEST(Nearest, MatchesTheIndexRuleAndReadsOnlySourcePixels) {
  const struct { int src; std::vector<int64_t> index; } worked[] = {
      {4, {0, 2}}, {2, {0, 0, 1, 1}}, {5, {0, 1, 2, 3, 4}}, {3, {0, 0, 1, 1, 1, 2, 2}}};
  for (const auto &w : worked)
    for (size_t d = 0; d < w.index.size(); ++d)
      EXPECT_EQ(nn_index(w.src, w.index.size(), d), w.index[d]) << w.src << " -> " << d;
  const struct { int32_t sw, sh, dw, dh, c; } cases[] = {
      {4, 2, 2, 4, 1}, {2, 4, 4, 2, 3}, {5, 3, 5, 7, 1}, {3, 5, 7, 5, 3}, {1, 1, 9, 4, 3},
      {473, 473, 1920, 1080, 1}, {473, 473, 100, 57, 1}, {640, 480, 211, 73, 3},
      {473, 473, 474, 472, 1}, {2, 3, 3, 2, 3},  // a numerator lands on 2 * dst * k
      {70000, 1, 40000, 2, 1}};                  // 2 * d * src passes 2^31
  std::mt19937 rng(7);
  for (const auto &g : cases) {
    SCOPED_TRACE(testing::Message() << g.sw << "x" << g.sh << " -> " << g.dw << "x" << g.dh);
    Raster src = random_raster(rng, g.sw, g.sh, g.c), dst(g.dw, g.dh, g.c, 5);
    for (int32_t y = 0; y < g.sh && g.c == 3; ++y)
      for (int32_t x = 0; x < g.sw; ++x) {
        uint8_t *p = &src.at(x, y);
        p[0] = uint8_t(x), p[1] = uint8_t(y), p[2] = uint8_t(x >> 8 | (y >> 8) << 4);
      }
    ASSERT_EQ(zevImageResize_NN(nullptr, src.px.data(), src.pitch, g.sw, g.sh, dst.px.data(),
                                dst.pitch, g.dw, g.dh, g.c), HSEG_OK);
    for (int32_t dy = 0; dy < g.dh; ++dy) {
      const int64_t sy = nn_index(g.sh, g.dh, dy);
      for (int32_t dx = 0; dx < g.dw; ++dx) {
        const int64_t sx = nn_index(g.sw, g.dw, dx);
        if (g.c == 1) {
          ASSERT_EQ(dst.at(dx, dy), src.at(sx, sy)) << dx << "," << dy;
        } else {
          ASSERT_EQ(dst.at(dx, dy, 0) | (dst.at(dx, dy, 2) & 15) << 8, sx) << dx << "," << dy;
          ASSERT_EQ(dst.at(dx, dy, 1) | (dst.at(dx, dy, 2) >> 4) << 8, sy) << dx << "," << dy;
        }
      }
    }
    EXPECT_TRUE(dst.padding_untouched());
  }
}

// The shuffle kernel against the reference gather, byte for byte: widths
// around the 16-column block, enlargements and reductions, a source row
// exactly as long as it must be (a load past it shows under the address
// sanitizer), outputs pre-filled differently so an unwritten byte shows.
TEST(NearestRows, ShuffleGatherMatchesReference) {
#if defined(HSEG_NEAREST_HAVE_SHUFFLE)
  if (!hseg::nearest_cpu_has_ssse3()) GTEST_SKIP() << "no SSSE3 on this CPU";
  std::mt19937 rng(3);
  std::vector<std::pair<int32_t, int32_t>> sizes = {
      {473, 1920}, {473, 470}, {473, 100}, {16, 16}, {16, 17}, {15, 32}, {1, 48}, {2000, 1999}};
  for (int i = 0; i < 40; ++i) sizes.emplace_back(1 + rng() % 300, 1 + rng() % 900);
  for (const auto &[sw, dw] : sizes) {
    std::vector<int32_t> cols(dw), bases(hseg::nearest_block_count(dw));
    for (int32_t d = 0; d < dw; ++d) cols[d] = static_cast<int32_t>(nn_index(sw, dw, d));
    std::vector<uint8_t> masks(16 * bases.size()), src(sw), a(dw + 16, 0x11), b(dw + 16, 0xEE);
    hseg::nearest_build_shuffle(cols.data(), dw, sw, bases.data(), masks.data());
    for (auto &v : src) v = static_cast<uint8_t>(rng());
    hseg::nearest_gather_c1_ref(src.data(), cols.data(), dw, a.data());
    hseg::nearest_gather_c1_ssse3(src.data(), cols.data(), bases.data(), masks.data(), dw,
                                  b.data());
    for (int32_t d = 0; d < dw; ++d) ASSERT_EQ(a[d], b[d]) << sw << "->" << dw << " column " << d;
    for (int32_t d = dw; d < dw + 16; ++d) ASSERT_EQ(b[d], 0xEE) << "wrote past the row";
    EXPECT_TRUE(sw < 32 || dw < sw || bases[0] >= 0) << "an enlargement takes the shuffle";
  }
#else
  GTEST_SKIP() << "no shuffle kernel in this build";
#endif
}

// ---------------------------------------------------------------------------
// Bilinear
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// Bicubic
// ---------------------------------------------------------------------------

// A cache freed with the test's allocator when it goes out of scope.
struct Cache {
  CubicCache c{nullptr, nullptr};
  ~Cache() {
    MMemFree(nullptr, c.work);
    MMemFree(nullptr, c.coef_tab);
  }
};

MRESULT cubic(const Raster &src, Raster *dst, CubicCache *cache) {
  return ImageResize_Cubic_C1(nullptr, src.px.data(), src.w, src.h, src.pitch, dst->px.data(),
                              dst->w, dst->h, dst->pitch, cache);
}

TEST(CubicKernel, TableHoldsTheRoundedKernel) {
  std::vector<int32_t> tab(2050, 12345);
  ASSERT_EQ(InitCubicCoeffTab(tab.data()), HSEG_OK);
  // The kernel in double precision, rounded the table's way (add 0.5,
  // truncate toward zero).
  auto weight = [](double x) {
    const double k = x <= 1 ? (1.5 * x - 2.5) * x * x + 1 : ((-0.5 * x + 2.5) * x - 4) * x + 2;
    return static_cast<int32_t>(k * 1024 + 0.5);
  };
  for (int i = 0; i <= 1024; ++i) {  // pair 1024 is (0, 0)
    ASSERT_EQ(tab[2 * i], weight(i / 1024.0)) << "near " << i;
    ASSERT_EQ(tab[2 * i + 1], weight(1 + i / 1024.0)) << "far " << i;
  }
  EXPECT_EQ(InitCubicCoeffTab(nullptr), kBad);
}

// Five pixels a side suffice; at equal sizes any size is a copy, made
// without a cache, and the destination's padding is left alone.
TEST(Cubic, FiveASideSufficeAndEqualSizesCopy) {
  std::mt19937 rng(2);
  Raster five = random_raster(rng, 5, 5), out(9, 9), tiny = random_raster(rng, 3, 2), copy(3, 2);
  Cache a, b;
  EXPECT_EQ(cubic(five, &out, &a.c), HSEG_OK);
  ASSERT_EQ(cubic(tiny, &copy, &b.c), HSEG_OK);
  EXPECT_EQ(b.c.work, nullptr);
  EXPECT_EQ(copy.packed(), tiny.packed());
  EXPECT_TRUE(copy.padding_untouched());
}

// The first call builds the column table; later calls reuse it as it is and
// map rows afresh. A wider destination than it was built for is refused.
// Every output here lands on a source pixel with fraction 0, which takes the
// sample itself.
TEST(Cubic, CacheKeepsTheFirstColumnTable) {
  std::mt19937 rng(3);
  Cache cache;
  Raster first = random_raster(rng, 20, 20), out(10, 10);
  ASSERT_EQ(cubic(first, &out, &cache.c), HSEG_OK);
  // 40 -> 10 across would step 4 columns; the cached table steps 2.
  Raster second = random_raster(rng, 40, 40);
  alloc_reset();
  ASSERT_EQ(cubic(second, &out, &cache.c), HSEG_OK);
  EXPECT_EQ(alloc_calls(), 0);
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(out.at(i % 10, i / 10), second.at(i % 10 * 2, i / 10 * 4)) << i;
  // A narrower destination takes the first entries, clamped into its row.
  Raster third = random_raster(rng, 7, 24), narrow(6, 12);
  ASSERT_EQ(cubic(third, &narrow, &cache.c), HSEG_OK);
  for (int i = 0; i < 72; ++i)
    ASSERT_EQ(narrow.at(i % 6, i / 6), third.at(std::min(i % 6 * 2, 6), i / 6 * 2));
  Raster wide(11, 10);
  EXPECT_EQ(cubic(second, &wide, &cache.c), kBad);
  EXPECT_TRUE(wide.untouched());
}

// The weights sum to up to 1027/1024 per axis, so a flat area of value c
// comes out as c, or c + 1 where 0.6% of c reaches half a level; up to 80 a
// constant stays exact and a ramp within 1.
TEST(Cubic, ConstantAndRamp) {
  Raster ramp(50, 30);
  for (int i = 0; i < 50 * 30; ++i) ramp.at(i % 50, i / 50) = uint8_t(i % 50 + i / 50);
  for (auto [dw, dh] : {std::pair{37, 23}, {200, 150}, {64, 64}}) {
    Raster out(dw, dh);
    for (uint8_t c : {0, 80, 150, 255}) {
      Cache cache;
      ASSERT_EQ(cubic(Raster(64, 48, 1, 3, c), &out, &cache.c), HSEG_OK);
      for (uint8_t v : out.packed())
        ASSERT_TRUE(v >= c && v <= std::min(c + (c > 80), 255)) << int{c};
    }
    Cache cache;
    ASSERT_EQ(cubic(ramp, &out, &cache.c), HSEG_OK);
    for (int i = 0; i < dw * dh; ++i) {
      const double ideal = std::min(i % dw * 50.0 / dw, 49.0) + std::min(i / dw * 30.0 / dh, 29.0);
      ASSERT_LE(std::fabs(out.at(i % dw, i / dw) - ideal), 1.0) << dw << "x" << dh << " at " << i;
    }
  }
}

// The row engine refuses an inner range that would read outside the row.
TEST(CubicEngine, RefusesInnerColumnsThatNeedBoundTests) {
  std::mt19937 rng(8);
  Raster src = random_raster(rng, 50, 30), out(20, 10);
  std::vector<int32_t> k(2050), cols(40), rows(80);
  InitCubicCoeffTab(k.data());
  for (int dx = 0; dx < 20; ++dx) cols[2 * dx] = dx * 5 / 2, cols[2 * dx + 1] = dx % 2 ? 512 : 0;
  cols[38] = 48;  // the last column reads up to 50, past the row
  auto run = [&](int32_t first_inner, int32_t first_border) {
    return Resize_Bicubic_8u_C1(src.px.data(), 50, 30, src.pitch, out.px.data(), 20, 10, out.pitch,
                                first_inner, first_border, cols.data(), k.data(), rows.data(),
                                rows.data() + 20, rows.data() + 40, rows.data() + 60);
  };
  EXPECT_EQ(run(0, 19), kBad);  // column 0 has x0 = 0
  EXPECT_EQ(run(1, 20), kBad);  // column 19 has x0 + 2 = 50
  EXPECT_EQ(run(1, 21), kBad);  // the range runs past the table
  k[2 * 512] = 2000;            // fraction 512's taps now sum past 2048
  EXPECT_EQ(run(1, 19), kBad);
  k[2 * 512] = 576;
  EXPECT_TRUE(out.untouched());
  EXPECT_EQ(run(1, 19), HSEG_OK);
}

// Failing the work block or the kernel table: status 4, nothing written,
// the cache keeps what it got and completes on the next call, no leak.
TEST(Cubic, AllocationFailureKeepsWhatWasAllocated) {
  std::mt19937 rng(10);
  Raster src = random_raster(rng, 30, 20);
  const int64_t n = for_each_alloc_failure([&](int64_t failing) {
    {
      Raster dst(17, 11);
      Cache cache;
      const MRESULT s = cubic(src, &dst, &cache.c);
      if (failing > 0) {
        EXPECT_EQ(s, HSEG_ERR_NO_MEMORY);
        EXPECT_TRUE(dst.untouched());
        alloc_reset();
      }
      EXPECT_EQ(cubic(src, &dst, &cache.c), HSEG_OK);
    }
    EXPECT_EQ(alloc_live(), 0);
  });
  EXPECT_GE(n, 1);
}

// ---------------------------------------------------------------------------
// The three entries together
// ---------------------------------------------------------------------------

// Bad arguments, and calls with nothing to do, return before anything is
// allocated or written: for the nearest resize two channels and no
// destination rows, for the bilinear equal sizes; the bicubic resize refuses
// sides below five unless the sizes are equal. Bilinear sources are 16 x
// 12: rows of 48 BGR, 32 YUY2, 16 luma, 8 planar or 16 interleaved chroma
// bytes. Rows name the resizer: NN, C1 (bilinear, one channel), BL
// (bilinear, any format), BC (bicubic).
TEST(Resizers, ReturnEarlyOnBadArguments) {
  std::mt19937 rng(2);
  const Picture p = random_picture(rng, 16, 12);
  std::vector<uint8_t> dst(3 * 40 * 40, kCanary), src(64 * 16, 1);
  uint8_t *d = dst.data();
  const uint8_t *s = src.data();
  const int32_t big = INT32_MAX;
  auto bl = [&](uint32_t format, void (*spoil)(OffscreenImage &), int32_t dw, int32_t dh,
                int32_t colour) {
    Frame f = frame(p, format);
    spoil(f.d);
    return zevImageResize_BL(nullptr, &f.d, d, dw, dh, 48, colour);
  };
  CubicCache c{nullptr, nullptr};
  alloc_reset();
  const struct { const char *what; MRESULT got, want; } cases[] = {
      {"NN null source", zevImageResize_NN(nullptr, nullptr, 8, 8, 8, d, 8, 8, 8, 1), kBad},
      {"NN null destination", zevImageResize_NN(nullptr, s, 8, 8, 8, nullptr, 8, 8, 8, 1), kBad},
      {"NN zero source height", zevImageResize_NN(nullptr, s, 8, 8, 0, d, 8, 8, 8, 1), kBad},
      {"NN negative dst width", zevImageResize_NN(nullptr, s, 8, 8, 8, d, 8, -4, 8, 1), kBad},
      {"NN short destination pitch", zevImageResize_NN(nullptr, s, 24, 8, 8, d, 23, 8, 8, 3), kBad},
      {"NN row overflow", zevImageResize_NN(nullptr, s, big, big / 2, 1, d, 8, 8, 8, 3), kBad},
      {"NN block overflow", zevImageResize_NN(nullptr, s, 8, 8, 8, d, big, big / 5, 8, 1), kBad},
      {"NN two channels", zevImageResize_NN(nullptr, s, 16, 8, 8, d, 16, 8, 8, 2), HSEG_OK},
      {"NN no destination rows", zevImageResize_NN(nullptr, s, 8, 8, 8, d, 8, 8, 0, 1), HSEG_OK},
      {"C1 equal sizes", zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, 16, 12, 16), HSEG_OK},
      {"C1 null src", zevImageResize_BL_C1(nullptr, nullptr, 16, 12, 16, d, 8, 8, 8), kBad},
      {"C1 zero height", zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, 8, 0, 8), kBad},
      {"C1 short pitch", zevImageResize_BL_C1(nullptr, s, 16, 12, 15, d, 8, 8, 8), kBad},
      {"C1 too wide", zevImageResize_BL_C1(nullptr, s, 65537, 1, 65537, d, 8, 1, 8), kBad},
      {"C1 work block overflow",
       zevImageResize_BL_C1(nullptr, s, 16, 12, 16, d, INT32_MAX / 4, 2, INT32_MAX), kBad},
      {"BL equal sizes", bl(HSEG_PIXFMT_NV21, [](auto &) {}, 16, 12, 1), HSEG_OK},
      {"BL grey format code",
       bl(HSEG_PIXFMT_BGR24, [](auto &i) { i.format = HSEG_PIXFMT_GRAY; }, 8, 8, 1),
       HSEG_ERR_FORMAT},
      {"BL YUY2 pitch", bl(HSEG_PIXFMT_YUY2, [](auto &i) { i.pitches[0] = 31; }, 8, 8, 1), kBad},
      {"BL V null", bl(HSEG_PIXFMT_I420, [](auto &i) { i.planes[2] = nullptr; }, 8, 8, 1), kBad},
      {"BL V pitch", bl(HSEG_PIXFMT_I420, [](auto &i) { i.pitches[2] = 7; }, 8, 8, 1), kBad},
      {"BL chroma pitch", bl(HSEG_PIXFMT_NV12, [](auto &i) { i.pitches[1] = 15; }, 8, 8, 1),
       kBad},
      {"BL luma pitch", bl(HSEG_PIXFMT_NV21, [](auto &i) { i.pitches[0] = 15; }, 8, 8, 0), kBad},
      {"BL null descriptor", zevImageResize_BL(nullptr, nullptr, d, 8, 8, 24, 1), kBad},
      {"BC 4 wide", ImageResize_Cubic_C1(nullptr, s, 4, 10, 7, d, 8, 10, 11, &c), kBad},
      {"BC to 4 wide", ImageResize_Cubic_C1(nullptr, s, 10, 10, 13, d, 4, 10, 7, &c), kBad},
      {"BC 4 high", ImageResize_Cubic_C1(nullptr, s, 10, 4, 13, d, 10, 8, 13, &c), kBad},
      {"BC to 4 high", ImageResize_Cubic_C1(nullptr, s, 10, 10, 13, d, 10, 4, 13, &c), kBad},
      {"BC null cache", ImageResize_Cubic_C1(nullptr, s, 16, 16, 19, d, 8, 8, 11, nullptr), kBad},
      {"BC null source", ImageResize_Cubic_C1(nullptr, nullptr, 16, 16, 19, d, 8, 8, 11, &c), kBad},
      {"BC zero source width", ImageResize_Cubic_C1(nullptr, s, 0, 16, 19, d, 8, 8, 11, &c), kBad},
      {"BC zero destination height",
       ImageResize_Cubic_C1(nullptr, s, 16, 16, 19, d, 8, 0, 11, &c), kBad},
      {"BC short pitch", ImageResize_Cubic_C1(nullptr, s, 16, 16, 15, d, 8, 8, 11, &c), kBad},
      {"BC work block overflow",
       ImageResize_Cubic_C1(nullptr, s, 16, 16, 19, d, INT32_MAX / 24, 8, INT32_MAX, &c), kBad}};
  for (const auto &k : cases) EXPECT_EQ(k.got, k.want) << k.what;
  EXPECT_EQ(alloc_calls(), 0);
  EXPECT_TRUE(untouched(dst));
  // Grey from 4:2:0 reads the luma only: the chroma plane may be absent.
  EXPECT_EQ(bl(HSEG_PIXFMT_NV21, [](auto &i) { i.planes[1] = nullptr; }, 8, 8, 0), HSEG_OK);
}

TEST(Resizers, AllocationFailureWritesNothingAndLeaksNothing) {
  std::mt19937 rng(4);
  const Picture p = random_picture(rng, 30, 20);
  for (int32_t channels : {1, 3})  // the nearest resize of a 20 or 60 bytes wide source
    expect_clean_alloc_failures(3 * 33 * 7, [&](uint8_t *dst) {
      return zevImageResize_NN(nullptr, p.bgr.data(), 60, 20, 10, dst, 99, 33, 7, channels);
    });
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

// ---------------------------------------------------------------------------
// Guard pages: rows packed, an access outside the caller's planes faults at
// once. Shrinking, enlarging, equal and 1-pixel sizes, odd sizes, every
// source format, and both regimes of the area resize.
// ---------------------------------------------------------------------------

// One resize of a random `format` picture of s[0] x s[1] into a canary-filled
// `out_format` image of s[2] x s[3], both planes guarded by each mode in
// turn. The call must succeed and write.
using Call = std::function<MRESULT(const OffscreenImage &src, OffscreenImage &dst)>;
void check_guarded(uint32_t format, uint32_t out_format, const int (&s)[4], const Call &call) {
  static std::mt19937 rng(41);
  for (const auto mode : {GuardedBuffer::kGuardAfter, GuardedBuffer::kGuardBefore}) {
    GuardedImage src(format, s[0], s[1], mode), dst(out_format, s[2], s[3], mode, kCanary);
    for (int p = 0; p < 3 && src.desc().planes[p] != nullptr; ++p)
      for (size_t i = 0; i < src.plane(p).size(); ++i) src.desc().planes[p][i] = uint8_t(rng());
    ASSERT_EQ(call(src.desc(), dst.desc()), HSEG_OK)
        << std::hex << format << std::dec << " " << s[0] << "x" << s[1] << " -> " << s[2] << "x" << s[3];
    const uint8_t *d = dst.desc().planes[0];
    EXPECT_TRUE(std::any_of(d, d + dst.plane(0).size(), [](uint8_t b) { return b != kCanary; }));
  }
}

// 37x29 -> 11x7 on both fixed-point walks, 99x70 -> 3x2 past 32:1 (the
// double-precision mean), 37x29 -> 30x20 enlarging on the half grid.
TEST(ResizeGuards, AreaResize) {
  const int sizes[][4] = {{37, 29, 11, 7}, {37, 29, 37, 29}, {99, 70, 3, 2}, {37, 29, 30, 20}, {1, 1, 1, 1}};
  for (auto resize : {LumResizeToBGR, LumResizeToBGR_SP})
    for (uint32_t f : {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_NV21, HSEG_PIXFMT_I420})
      for (const auto &s : sizes)
        check_guarded(f, HSEG_PIXFMT_BGR24, s, [&](const OffscreenImage &a, OffscreenImage &b) {
          return resize(nullptr, &a, &b);
        });
}

TEST(ResizeGuards, NearestBilinearAndBicubic) {
  const int sizes[][4] = {{37, 29, 11, 7}, {37, 29, 80, 61}, {6, 5, 5, 6}, {1, 1, 5, 3}, {5, 3, 1, 1}};
  const uint32_t grey = HSEG_PIXFMT_GRAY;
  for (const auto &s : sizes) {
    for (const int c : {1, 3}) {
      const uint32_t f = c == 1 ? grey : HSEG_PIXFMT_BGR24;
      check_guarded(f, f, s, [&](const OffscreenImage &a, OffscreenImage &b) {
        return zevImageResize_NN(nullptr, a.planes[0], a.pitches[0], a.width, a.height, b.planes[0],
                                 b.pitches[0], b.width, b.height, c);
      });
    }
    check_guarded(grey, grey, s, [](const OffscreenImage &a, OffscreenImage &b) {
      return zevImageResize_BL_C1(nullptr, a.planes[0], a.width, a.height, a.pitches[0], b.planes[0],
                                  b.width, b.height, b.pitches[0]);
    });
    for (uint32_t f : kFormats)
      for (const int colour : {1, 0})
        check_guarded(f, colour == 1 ? HSEG_PIXFMT_BGR24 : grey, s,
                      [&](const OffscreenImage &a, OffscreenImage &b) {
                        return zevImageResize_BL(nullptr, &a, b.planes[0], b.width, b.height,
                                                 b.pitches[0], colour);
                      });
    if (std::min({s[0], s[1], s[2], s[3]}) < 5) continue;  // bicubic needs 5 a side
    check_guarded(grey, grey, s, [](const OffscreenImage &a, OffscreenImage &b) {
      Cache cache;
      return ImageResize_Cubic_C1(nullptr, a.planes[0], a.width, a.height, a.pitches[0],
                                  b.planes[0], b.width, b.height, b.pitches[0], &cache.c);
    });
  }
}

}  // namespace
