// Bicubic resizer: kernel table, mapping, row engine, cache, checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "hseg/resize.h"
#include "support/alloc_hooks.h"

namespace {

constexpr uint8_t kCanary = 0xA5;

struct Plane {
  int32_t w, h, pitch;
  std::vector<uint8_t> px;
  Plane(int32_t w_, int32_t h_, int32_t pad = 3, uint8_t fill = kCanary)
      : w(w_), h(h_), pitch(w_ + pad), px(static_cast<size_t>(w_ + pad) * h_, fill) {}
  uint8_t &at(int32_t x, int32_t y) { return px[static_cast<size_t>(y) * pitch + x]; }
  uint8_t at(int32_t x, int32_t y) const { return px[static_cast<size_t>(y) * pitch + x]; }
};

Plane random_plane(int32_t w, int32_t h, uint32_t seed) {
  std::mt19937 rng(seed);
  Plane p(w, h);
  for (auto &b : p.px) b = static_cast<uint8_t>(rng());
  return p;
}

// Owns a cache and frees it with the test's allocator.
struct Cache {
  CubicCache c{nullptr, nullptr};
  ~Cache() {
    MMemFree(nullptr, c.work);
    MMemFree(nullptr, c.coef_tab);
  }
};

MRESULT resize(const Plane &src, Plane *dst, CubicCache *cache) {
  return ImageResize_Cubic_C1(nullptr, src.px.data(), src.w, src.h, src.pitch, dst->px.data(),
                              dst->w, dst->h, dst->pitch, cache);
}

// Kernel weight as the formula gives it in double precision, rounded the
// table's way (add 0.5, truncate toward zero).
int32_t kernel_weight(double x) {
  x = std::fabs(x);
  const double k = x <= 1 ? (1.5 * x - 2.5) * x * x + 1 : ((-0.5 * x + 2.5) * x - 4) * x + 2;
  return static_cast<int32_t>(k * 1024 + 0.5);
}

TEST(CubicKernel, TableHoldsTheRoundedKernel) {
  std::vector<int32_t> tab(2050, 12345);
  ASSERT_EQ(InitCubicCoeffTab(tab.data()), HSEG_OK);
  for (int i = 0; i < 1024; ++i) {
    ASSERT_EQ(tab[2 * i], kernel_weight(i / 1024.0)) << "near " << i;
    ASSERT_EQ(tab[2 * i + 1], kernel_weight(1 + i / 1024.0)) << "far " << i;
  }
  EXPECT_EQ(tab[0], 1024);  // fraction 0: the sample itself...
  EXPECT_EQ(tab[1], 0);
  EXPECT_EQ(tab[2048], 0);  // ...and nothing from the taps at distance 1 and 2
  EXPECT_EQ(tab[2049], 0);
  EXPECT_EQ(tab[1024], 576);  // 0.5625 at distance 0.5
  EXPECT_EQ(tab[1025], -63);  // -0.0625 * 1024 + 0.5, truncated toward zero
  // The four taps of a fraction sum to 1024..1027: rounding the negative far
  // weights toward zero lifts them. This bounds the gain on flat areas.
  for (int u = 0; u <= 1024; ++u) {
    const int32_t sum = tab[2 * u] + tab[2 * u + 1] + tab[2 * (1024 - u)] + tab[2 * (1024 - u) + 1];
    ASSERT_GE(sum, 1024) << u;
    ASSERT_LE(sum, 1027) << u;
  }
  EXPECT_EQ(InitCubicCoeffTab(nullptr), HSEG_ERR_BAD_ARGUMENT);
}

// Halving lands every output pixel on a source pixel with fraction 0.
TEST(Cubic, FractionZeroTakesTheSampleItself) {
  const Plane src = random_plane(10, 12, 1);
  Plane dst(5, 6);
  Cache cache;
  ASSERT_EQ(resize(src, &dst, &cache.c), HSEG_OK);
  for (int32_t y = 0; y < 6; ++y)
    for (int32_t x = 0; x < 5; ++x) EXPECT_EQ(dst.at(x, y), src.at(2 * x, 2 * y)) << x << "," << y;
}

TEST(Cubic, SidesBelowFiveAreRefusedUnlessSizesAreEqual) {
  struct Case {
    int32_t sw, sh, dw, dh;
    MRESULT expect;
  };
  const Case cases[] = {{4, 10, 8, 10, HSEG_ERR_BAD_ARGUMENT}, {10, 10, 4, 10, HSEG_ERR_BAD_ARGUMENT},
                        {10, 4, 10, 8, HSEG_ERR_BAD_ARGUMENT}, {10, 10, 10, 4, HSEG_ERR_BAD_ARGUMENT},
                        {5, 5, 9, 9, HSEG_OK},                 {3, 2, 3, 2, HSEG_OK},
                        {1, 1, 1, 1, HSEG_OK}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh);
    const Plane src = random_plane(c.sw, c.sh, 2);
    Plane dst(c.dw, c.dh, 2);
    Cache cache;
    hseg_test::alloc_reset();
    ASSERT_EQ(resize(src, &dst, &cache.c), c.expect);
    if (c.expect != HSEG_OK) {
      EXPECT_EQ(hseg_test::alloc_calls(), 0);
      EXPECT_TRUE(std::all_of(dst.px.begin(), dst.px.end(), [](uint8_t b) { return b == kCanary; }));
    }
    if (c.sw == c.dw && c.sh == c.dh) {  // a copy, with the destination's padding untouched
      EXPECT_EQ(cache.c.work, nullptr);
      for (int32_t y = 0; y < c.dh; ++y) {
        for (int32_t x = 0; x < c.dw; ++x) EXPECT_EQ(dst.at(x, y), src.at(x, y));
        for (int32_t x = c.dw; x < dst.pitch; ++x) EXPECT_EQ(dst.at(x, y), kCanary);
      }
    }
  }
}

// The first call builds the column table; later calls reuse it as it is.
TEST(Cubic, CacheKeepsTheFirstColumnTable) {
  Cache cache;
  const Plane first = random_plane(20, 20, 3);
  Plane out(10, 10);
  ASSERT_EQ(resize(first, &out, &cache.c), HSEG_OK);
  ASSERT_NE(cache.c.work, nullptr);
  ASSERT_NE(cache.c.coef_tab, nullptr);

  // 40 -> 10 across would step 4 source columns; the cached table steps 2.
  // Rows are mapped per call (40 -> 10: every fourth row, fraction 0).
  const Plane second = random_plane(40, 40, 4);
  hseg_test::alloc_reset();
  ASSERT_EQ(resize(second, &out, &cache.c), HSEG_OK);
  EXPECT_EQ(hseg_test::alloc_calls(), 0);
  for (int32_t y = 0; y < 10; ++y)
    for (int32_t x = 0; x < 10; ++x) ASSERT_EQ(out.at(x, y), second.at(2 * x, 4 * y)) << x << "," << y;

  // A narrower destination reuses the first entries.
  const Plane third = random_plane(7, 24, 5);
  Plane narrow(6, 12);
  ASSERT_EQ(resize(third, &narrow, &cache.c), HSEG_OK);
  for (int32_t y = 0; y < 12; ++y)
    for (int32_t x = 0; x < 6; ++x)  // columns 2x clamped into the 7-wide row
      ASSERT_EQ(narrow.at(x, y), third.at(std::min(2 * x, 6), 2 * y)) << x << "," << y;

  // A wider destination than the cache was built for is refused.
  Plane wide(11, 10);
  EXPECT_EQ(resize(second, &wide, &cache.c), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_TRUE(std::all_of(wide.px.begin(), wide.px.end(), [](uint8_t b) { return b == kCanary; }));
}

// The resizer against a direct evaluation of every output pixel (taps
// clamped to the image, no row buffers), on awkward ratios.
TEST(Cubic, MatchesDirectEvaluation) {
  std::vector<int32_t> k(2050);
  InitCubicCoeffTab(k.data());
  struct Case {
    int32_t sw, sh, dw, dh;
  };
  const Case cases[] = {{20, 20, 13, 7},   {13, 7, 20, 20},   {64, 48, 5, 6},   {5, 6, 64, 48},
                        {100, 99, 99, 100}, {256, 5, 251, 9}, {21, 33, 63, 11}, {7, 70, 49, 10},
                        {480, 270, 320, 180}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh);
    const Plane src = random_plane(c.sw, c.sh, static_cast<uint32_t>(c.sw * 131 + c.dh));
    Plane dst(c.dw, c.dh, 5);
    Cache cache;
    ASSERT_EQ(resize(src, &dst, &cache.c), HSEG_OK);
    auto map = [](int32_t s, int32_t d, int32_t i, int32_t *frac) {
      const float f = static_cast<float>(i) * (static_cast<float>(s) / static_cast<float>(d));
      const auto i0 = static_cast<int32_t>(f);
      *frac = static_cast<int32_t>((f - static_cast<float>(i0)) * 1024.0f + 0.5f);
      return i0;
    };
    auto tap = [&](int32_t x, int32_t y) {
      return int64_t{src.at(std::min(std::max(x, 0), c.sw - 1), std::min(std::max(y, 0), c.sh - 1))};
    };
    auto weights = [&](int32_t f, int64_t w[4]) {
      w[0] = k[2 * f + 1], w[1] = k[2 * f], w[2] = k[2 * (1024 - f)], w[3] = k[2 * (1024 - f) + 1];
    };
    for (int32_t dy = 0; dy < c.dh; ++dy) {
      int32_t v;
      const int32_t y0 = map(c.sh, c.dh, dy, &v);
      int64_t wy[4];
      weights(v, wy);
      for (int32_t dx = 0; dx < c.dw; ++dx) {
        int32_t u;
        const int32_t x0 = map(c.sw, c.dw, dx, &u);
        int64_t wx[4];
        weights(u, wx);
        int64_t sum = 0;
        for (int j = 0; j < 4; ++j) {
          int64_t row = 0;
          for (int i = 0; i < 4; ++i) row += tap(x0 - 1 + i, y0 - 1 + j) * wx[i];
          sum += row * wy[j];
        }
        const int64_t expect = std::min<int64_t>(std::max<int64_t>((sum + 524288) >> 20, 0), 255);
        ASSERT_EQ(dst.at(dx, dy), expect) << dx << "," << dy;
      }
      for (int32_t x = c.dw; x < dst.pitch; ++x) ASSERT_EQ(dst.at(x, dy), kCanary);
    }
  }
}

// The kernel's weights sum to up to 1027/1024 per axis, so a flat area of
// value c comes out as c or, where c * 0.6% reaches half a level, c + 1.
// Below that (c <= 80) a constant stays exact and a ramp stays within 1.
TEST(Cubic, ConstantAndRamp) {
  for (auto size : {std::pair<int32_t, int32_t>{37, 23}, {200, 150}, {64, 64}}) {
    SCOPED_TRACE(testing::Message() << size.first << "x" << size.second);
    Plane out(size.first, size.second);
    for (uint8_t c : {0, 1, 80, 150, 255}) {
      Plane flat(64, 48, 3, c);
      Cache cache;
      ASSERT_EQ(resize(flat, &out, &cache.c), HSEG_OK);
      const int lift = c <= 80 ? 0 : 1;
      for (int32_t y = 0; y < out.h; ++y)
        for (int32_t x = 0; x < out.w; ++x) {
          ASSERT_GE(out.at(x, y), c);
          ASSERT_LE(out.at(x, y), std::min(c + lift, 255));
        }
    }
    // 1 per column across, 1 per row down, at most 78.
    Plane ramp(50, 30);
    for (int32_t y = 0; y < 30; ++y)
      for (int32_t x = 0; x < 50; ++x) ramp.at(x, y) = static_cast<uint8_t>(x + y);
    Cache cache;
    ASSERT_EQ(resize(ramp, &out, &cache.c), HSEG_OK);
    for (int32_t y = 0; y < out.h; ++y)
      for (int32_t x = 0; x < out.w; ++x) {
        const double fx = std::min(x * 50.0 / out.w, 49.0), fy = std::min(y * 30.0 / out.h, 29.0);
        ASSERT_LE(std::fabs(out.at(x, y) - (fx + fy)), 1.0) << x << "," << y;
      }
  }
}

// The row engine with every column bound-tested gives what the inner/border
// split gives, and refuses an inner range that would read outside the row.
TEST(CubicEngine, InnerColumnsNeedNoBoundTests) {
  const Plane src = random_plane(50, 30, 8);
  const int32_t dw = 33, dh = 41;
  std::vector<int32_t> k(2050), cols(2 * dw);
  InitCubicCoeffTab(k.data());
  int32_t first_inner = -1, first_border = 0;
  const float scale = 50.0f / dw;
  for (int32_t dx = 0; dx < dw; ++dx) {
    const float f = static_cast<float>(dx) * scale;
    cols[2 * dx] = static_cast<int32_t>(f);
    cols[2 * dx + 1] = static_cast<int32_t>((f - static_cast<float>(cols[2 * dx])) * 1024.0f + 0.5f);
    if (cols[2 * dx] > 0 && first_inner < 0) first_inner = dx;
    if (cols[2 * dx] + 2 < 50) first_border = dx + 1;
  }
  std::vector<int32_t> rows(4 * dw);
  auto run = [&](int32_t fi, int32_t fb, Plane *out) {
    return Resize_Bicubic_8u_C1(src.px.data(), 50, 30, src.pitch, out->px.data(), dw, dh,
                                out->pitch, fi, fb, cols.data(), k.data(), rows.data(),
                                rows.data() + dw, rows.data() + 2 * dw, rows.data() + 3 * dw);
  };
  Plane split(dw, dh), tested(dw, dh, 3, 0x11);
  ASSERT_EQ(run(first_inner, first_border, &split), HSEG_OK);
  ASSERT_EQ(run(0, 0, &tested), HSEG_OK);
  for (int32_t y = 0; y < dh; ++y)
    for (int32_t x = 0; x < dw; ++x) ASSERT_EQ(split.at(x, y), tested.at(x, y)) << x << "," << y;

  Plane untouched(dw, dh);
  EXPECT_EQ(run(0, first_border, &untouched), HSEG_ERR_BAD_ARGUMENT);     // x0 = 0 inside
  EXPECT_EQ(run(first_inner, dw, &untouched), HSEG_ERR_BAD_ARGUMENT);     // x0 + 2 past the row
  EXPECT_EQ(run(first_inner, dw + 1, &untouched), HSEG_ERR_BAD_ARGUMENT); // range past the table
  cols[1] = 1025;
  EXPECT_EQ(run(0, 0, &untouched), HSEG_ERR_BAD_ARGUMENT);  // fraction past the kernel table
  EXPECT_TRUE(std::all_of(untouched.px.begin(), untouched.px.end(),
                          [](uint8_t b) { return b == kCanary; }));
}

TEST(Cubic, RejectsBadArgumentsBeforeAllocating) {
  const Plane src = random_plane(16, 16, 9);
  Plane dst(8, 8);
  Cache cache;
  struct Case {
    const char *what;
    bool null_cache, null_src, null_dst;
    int32_t sw, sh, sp, dw, dh, dp;
  };
  const Case cases[] = {
      {"null cache", true, false, false, 16, 16, 19, 8, 8, 11},
      {"null source", false, true, false, 16, 16, 19, 8, 8, 11},
      {"null destination", false, false, true, 16, 16, 19, 8, 8, 11},
      {"zero source width", false, false, false, 0, 16, 19, 8, 8, 11},
      {"zero destination height", false, false, false, 16, 16, 19, 8, 0, 11},
      {"negative destination width", false, false, false, 16, 16, 19, -8, 8, 11},
      {"short source pitch", false, false, false, 16, 16, 15, 8, 8, 11},
      {"short destination pitch", false, false, false, 16, 16, 19, 8, 8, 7},
      {"work block overflow", false, false, false, 16, 16, 19, INT32_MAX / 24, 8, INT32_MAX},
  };
  for (const auto &c : cases) {
    hseg_test::alloc_reset();
    EXPECT_EQ(ImageResize_Cubic_C1(nullptr, c.null_src ? nullptr : src.px.data(), c.sw, c.sh, c.sp,
                                   c.null_dst ? nullptr : dst.px.data(), c.dw, c.dh, c.dp,
                                   c.null_cache ? nullptr : &cache.c),
              HSEG_ERR_BAD_ARGUMENT)
        << c.what;
    EXPECT_EQ(hseg_test::alloc_calls(), 0) << c.what;
    EXPECT_EQ(cache.c.work, nullptr) << c.what;
  }
  EXPECT_TRUE(std::all_of(dst.px.begin(), dst.px.end(), [](uint8_t b) { return b == kCanary; }));
}

TEST(Cubic, AllocationFailureKeepsWhatWasAllocatedAndWritesNothing) {
  const Plane src = random_plane(30, 20, 10);
  const int64_t n = hseg_test::for_each_alloc_failure([&](int64_t failing) {
    Plane dst(17, 11);
    {
      Cache cache;
      const MRESULT s = resize(src, &dst, &cache.c);
      if (failing == 0) {
        EXPECT_EQ(s, HSEG_OK);
        return;
      }
      EXPECT_EQ(s, HSEG_ERR_NO_MEMORY);
      EXPECT_EQ(cache.c.work != nullptr, failing > 1);  // the work block came first
      EXPECT_EQ(cache.c.coef_tab, nullptr);
      EXPECT_TRUE(std::all_of(dst.px.begin(), dst.px.end(), [](uint8_t b) { return b == kCanary; }));
      // The cache finishes its set-up on the next call.
      hseg_test::alloc_reset();
      EXPECT_EQ(resize(src, &dst, &cache.c), HSEG_OK);
    }
    EXPECT_EQ(hseg_test::alloc_live(), 0);
  });
  EXPECT_EQ(n, 2);
}

}  // namespace
