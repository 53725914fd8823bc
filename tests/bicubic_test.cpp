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
constexpr MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;

struct Plane {
  int32_t w, h, pitch;
  std::vector<uint8_t> px;
  Plane(int32_t w_, int32_t h_, uint8_t fill = kCanary)
      : w(w_), h(h_), pitch(w_ + 3), px(size_t{1} * (w_ + 3) * h_, fill) {}
  uint8_t &at(int32_t x, int32_t y) { return px[size_t{1} * y * pitch + x]; }
  bool untouched() const {
    return std::all_of(px.begin(), px.end(), [](uint8_t b) { return b == kCanary; });
  }
};

Plane random_plane(int32_t w, int32_t h, uint32_t seed) {
  std::mt19937 rng(seed);
  Plane p(w, h);
  for (auto &b : p.px) b = static_cast<uint8_t>(rng());
  return p;
}

// A cache freed with the test's allocator when it goes out of scope.
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

TEST(CubicKernel, TableHoldsTheRoundedKernel) {
  std::vector<int32_t> tab(2050, 12345);
  ASSERT_EQ(InitCubicCoeffTab(tab.data()), HSEG_OK);
  // The kernel in double precision, rounded the table's way (add 0.5,
  // truncate toward zero).
  auto weight = [](double x) {
    const double k = x <= 1 ? (1.5 * x - 2.5) * x * x + 1 : ((-0.5 * x + 2.5) * x - 4) * x + 2;
    return static_cast<int32_t>(k * 1024 + 0.5);
  };
  for (int i = 0; i < 1024; ++i) {
    ASSERT_EQ(tab[2 * i], weight(i / 1024.0)) << "near " << i;
    ASSERT_EQ(tab[2 * i + 1], weight(1 + i / 1024.0)) << "far " << i;
  }
  // Fraction 0 takes the sample itself, nothing from distances 1 and 2.
  EXPECT_TRUE(tab[0] == 1024 && tab[1] == 0 && tab[2048] == 0 && tab[2049] == 0);
  EXPECT_EQ(tab[1025], -63);  // -0.0625 at distance 1.5: -64 + 0.5 truncated toward zero
  // The four taps of a fraction sum to 1024..1027 (the negative far weights
  // round up), which bounds the gain on flat areas.
  for (int u = 0; u <= 1024; ++u) {
    const int32_t sum = tab[2 * u] + tab[2 * u + 1] + tab[2 * (1024 - u)] + tab[2 * (1024 - u) + 1];
    ASSERT_TRUE(sum >= 1024 && sum <= 1027) << u << ": " << sum;
  }
  EXPECT_EQ(InitCubicCoeffTab(nullptr), kBad);
}

// Halving lands every output pixel on a source pixel with fraction 0.
TEST(Cubic, FractionZeroTakesTheSampleItself) {
  Plane src = random_plane(10, 12, 1), dst(5, 6);
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
  const Case cases[] = {{4, 10, 8, 10, kBad},  {10, 10, 4, 10, kBad}, {10, 4, 10, 8, kBad},
                        {10, 10, 10, 4, kBad}, {5, 5, 9, 9, HSEG_OK}, {3, 2, 3, 2, HSEG_OK}};
  for (const auto &c : cases) {
    Plane src = random_plane(c.sw, c.sh, 2), dst(c.dw, c.dh);
    Cache cache;
    hseg_test::alloc_reset();
    ASSERT_EQ(resize(src, &dst, &cache.c), c.expect) << c.sw << "x" << c.sh << "->" << c.dw;
    EXPECT_TRUE(c.expect == HSEG_OK || (dst.untouched() && hseg_test::alloc_calls() == 0));
    if (c.sw == c.dw && c.sh == c.dh) {  // a copy; the destination's padding untouched
      EXPECT_EQ(cache.c.work, nullptr);
      for (int32_t y = 0; y < c.dh; ++y)
        for (int32_t x = 0; x < dst.pitch; ++x) EXPECT_EQ(dst.at(x, y), x < c.dw ? src.at(x, y) : kCanary);
    }
  }
}

// The first call builds the column table; later calls reuse it as it is and
// map rows afresh. A wider destination than it was built for is refused.
TEST(Cubic, CacheKeepsTheFirstColumnTable) {
  Cache cache;
  Plane first = random_plane(20, 20, 3), out(10, 10);
  ASSERT_EQ(resize(first, &out, &cache.c), HSEG_OK);
  // 40 -> 10 across would step 4 columns; the cached table steps 2.
  Plane second = random_plane(40, 40, 4);
  hseg_test::alloc_reset();
  ASSERT_EQ(resize(second, &out, &cache.c), HSEG_OK);
  EXPECT_EQ(hseg_test::alloc_calls(), 0);
  for (int32_t y = 0; y < 10; ++y)
    for (int32_t x = 0; x < 10; ++x) ASSERT_EQ(out.at(x, y), second.at(2 * x, 4 * y)) << x << "," << y;
  // A narrower destination takes the first entries, clamped into its row.
  Plane third = random_plane(7, 24, 5), narrow(6, 12);
  ASSERT_EQ(resize(third, &narrow, &cache.c), HSEG_OK);
  for (int32_t y = 0; y < 12; ++y)
    for (int32_t x = 0; x < 6; ++x) ASSERT_EQ(narrow.at(x, y), third.at(std::min(2 * x, 6), 2 * y));
  Plane wide(11, 10);
  EXPECT_EQ(resize(second, &wide, &cache.c), kBad);
  EXPECT_TRUE(wide.untouched());
}

// The weights sum to up to 1027/1024 per axis, so a flat area of value c
// comes out as c, or c + 1 where 0.6% of c reaches half a level; up to 80 a
// constant stays exact and a ramp within 1.
TEST(Cubic, ConstantAndRamp) {
  Plane ramp(50, 30);
  for (int32_t y = 0; y < 30; ++y)
    for (int32_t x = 0; x < 50; ++x) ramp.at(x, y) = static_cast<uint8_t>(x + y);
  for (auto [dw, dh] : {std::pair{37, 23}, {200, 150}, {64, 64}}) {
    Plane out(dw, dh);
    for (uint8_t c : {0, 80, 150, 255}) {
      Cache cache;
      ASSERT_EQ(resize(Plane(64, 48, c), &out, &cache.c), HSEG_OK);
      for (int32_t y = 0; y < dh; ++y)
        for (int32_t x = 0; x < dw; ++x)
          ASSERT_TRUE(out.at(x, y) >= c && out.at(x, y) <= std::min(c + (c > 80), 255)) << int{c};
    }
    Cache cache;
    ASSERT_EQ(resize(ramp, &out, &cache.c), HSEG_OK);
    for (int32_t y = 0; y < dh; ++y)
      for (int32_t x = 0; x < dw; ++x) {
        const double ideal = std::min(x * 50.0 / dw, 49.0) + std::min(y * 30.0 / dh, 29.0);
        ASSERT_LE(std::fabs(out.at(x, y) - ideal), 1.0) << dw << "x" << dh << " at " << x << "," << y;
      }
  }
}

// The row engine refuses an inner range that would read outside the row.
TEST(CubicEngine, RefusesInnerColumnsThatNeedBoundTests) {
  Plane src = random_plane(50, 30, 8), out(20, 10);
  std::vector<int32_t> k(2050), cols(40), rows(80);
  InitCubicCoeffTab(k.data());
  for (int32_t dx = 0; dx < 20; ++dx) cols[2 * dx] = dx * 5 / 2, cols[2 * dx + 1] = dx % 2 ? 512 : 0;
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

TEST(Cubic, RejectsBadArgumentsBeforeAllocating) {
  Plane src = random_plane(16, 16, 9), dst(8, 8);
  Cache cache;
  struct Case {
    const char *what;
    bool null_cache, null_src;
    int32_t sw, sp, dw, dh, dp;
  };
  const Case cases[] = {{"null cache", true, false, 16, 19, 8, 8, 11},
                        {"null source", false, true, 16, 19, 8, 8, 11},
                        {"zero source width", false, false, 0, 19, 8, 8, 11},
                        {"zero destination height", false, false, 16, 19, 8, 0, 11},
                        {"short source pitch", false, false, 16, 15, 8, 8, 11},
                        {"work block overflow", false, false, 16, 19, INT32_MAX / 24, 8, INT32_MAX}};
  for (const auto &c : cases) {
    hseg_test::alloc_reset();
    EXPECT_EQ(ImageResize_Cubic_C1(nullptr, c.null_src ? nullptr : src.px.data(), c.sw, 16, c.sp,
                                   dst.px.data(), c.dw, c.dh, c.dp, c.null_cache ? nullptr : &cache.c),
              kBad)
        << c.what;
    EXPECT_EQ(hseg_test::alloc_calls(), 0) << c.what;
  }
  EXPECT_TRUE(dst.untouched());
}

// Failing the work block or the kernel table: status 4, nothing written,
// the cache keeps what it got and completes on the next call, no leak.
TEST(Cubic, AllocationFailureKeepsWhatWasAllocated) {
  Plane src = random_plane(30, 20, 10);
  const int64_t n = hseg_test::for_each_alloc_failure([&](int64_t failing) {
    {
      Plane dst(17, 11);
      Cache cache;
      const MRESULT s = resize(src, &dst, &cache.c);
      if (failing > 0) {
        EXPECT_EQ(s, HSEG_ERR_NO_MEMORY);
        EXPECT_EQ(cache.c.work != nullptr, failing > 1);  // the work block comes first
        EXPECT_EQ(cache.c.coef_tab, nullptr);
        EXPECT_TRUE(dst.untouched());
        hseg_test::alloc_reset();
      }
      EXPECT_EQ(resize(src, &dst, &cache.c), HSEG_OK);
    }
    EXPECT_EQ(hseg_test::alloc_live(), 0);
  });
  EXPECT_EQ(n, 2);
}

}  // namespace
