// Bicubic resizer: kernel table, mapping, row engine, cache, checks.
#include <gtest/gtest.h>

#include <climits>

#include "support/alloc_hooks.h"
#include "support/resize_images.h"

namespace {

using namespace hseg_test;
constexpr MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;

// A cache freed with the test's allocator when it goes out of scope.
struct Cache {
  CubicCache c{nullptr, nullptr};
  ~Cache() {
    MMemFree(nullptr, c.work);
    MMemFree(nullptr, c.coef_tab);
  }
};

MRESULT resize(const Raster &src, Raster *dst, CubicCache *cache) {
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

TEST(Cubic, SidesBelowFiveAreRefusedUnlessSizesAreEqual) {
  std::mt19937 rng(2);
  const struct { int32_t sw, sh, dw, dh; MRESULT expect; } cases[] = {
      {4, 10, 8, 10, kBad}, {10, 10, 4, 10, kBad}, {10, 4, 10, 8, kBad},
      {10, 10, 10, 4, kBad}, {5, 5, 9, 9, HSEG_OK}, {3, 2, 3, 2, HSEG_OK}};
  for (const auto &c : cases) {
    Raster src = random_raster(rng, c.sw, c.sh), dst(c.dw, c.dh);
    Cache cache;
    alloc_reset();
    ASSERT_EQ(resize(src, &dst, &cache.c), c.expect) << c.sw << "x" << c.sh << "->" << c.dw;
    EXPECT_TRUE(c.expect == HSEG_OK || (dst.untouched() && alloc_calls() == 0));
    if (c.sw == c.dw && c.sh == c.dh) {  // a copy; the destination's padding untouched
      EXPECT_EQ(cache.c.work, nullptr);
      EXPECT_EQ(dst.packed(), src.packed());
      EXPECT_TRUE(dst.padding_untouched());
    }
  }
}

// The first call builds the column table; later calls reuse it as it is and
// map rows afresh. A wider destination than it was built for is refused.
// Every output here lands on a source pixel with fraction 0, which takes the
// sample itself.
TEST(Cubic, CacheKeepsTheFirstColumnTable) {
  std::mt19937 rng(3);
  Cache cache;
  Raster first = random_raster(rng, 20, 20), out(10, 10);
  ASSERT_EQ(resize(first, &out, &cache.c), HSEG_OK);
  // 40 -> 10 across would step 4 columns; the cached table steps 2.
  Raster second = random_raster(rng, 40, 40);
  alloc_reset();
  ASSERT_EQ(resize(second, &out, &cache.c), HSEG_OK);
  EXPECT_EQ(alloc_calls(), 0);
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(out.at(i % 10, i / 10), second.at(i % 10 * 2, i / 10 * 4)) << i;
  // A narrower destination takes the first entries, clamped into its row.
  Raster third = random_raster(rng, 7, 24), narrow(6, 12);
  ASSERT_EQ(resize(third, &narrow, &cache.c), HSEG_OK);
  for (int i = 0; i < 72; ++i)
    ASSERT_EQ(narrow.at(i % 6, i / 6), third.at(std::min(i % 6 * 2, 6), i / 6 * 2));
  Raster wide(11, 10);
  EXPECT_EQ(resize(second, &wide, &cache.c), kBad);
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
      ASSERT_EQ(resize(Raster(64, 48, 1, 3, c), &out, &cache.c), HSEG_OK);
      for (uint8_t v : out.packed())
        ASSERT_TRUE(v >= c && v <= std::min(c + (c > 80), 255)) << int{c};
    }
    Cache cache;
    ASSERT_EQ(resize(ramp, &out, &cache.c), HSEG_OK);
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

TEST(Cubic, RejectsBadArgumentsBeforeAllocating) {
  std::mt19937 rng(9);
  Raster src = random_raster(rng, 16, 16), dst(8, 8);
  const uint8_t *s = src.px.data();
  uint8_t *d = dst.px.data();
  Cache cache;
  CubicCache *c = &cache.c;
  alloc_reset();
  const struct { const char *what; MRESULT got; } cases[] = {
      {"null cache", ImageResize_Cubic_C1(nullptr, s, 16, 16, 19, d, 8, 8, 11, nullptr)},
      {"null source", ImageResize_Cubic_C1(nullptr, nullptr, 16, 16, 19, d, 8, 8, 11, c)},
      {"zero source width", ImageResize_Cubic_C1(nullptr, s, 0, 16, 19, d, 8, 8, 11, c)},
      {"zero destination height", ImageResize_Cubic_C1(nullptr, s, 16, 16, 19, d, 8, 0, 11, c)},
      {"short source pitch", ImageResize_Cubic_C1(nullptr, s, 16, 16, 15, d, 8, 8, 11, c)},
      {"work block overflow",
       ImageResize_Cubic_C1(nullptr, s, 16, 16, 19, d, INT32_MAX / 24, 8, INT32_MAX, c)}};
  for (const auto &b : cases) EXPECT_EQ(b.got, kBad) << b.what;
  EXPECT_TRUE(alloc_calls() == 0 && dst.untouched());
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
      const MRESULT s = resize(src, &dst, &cache.c);
      if (failing > 0) {
        EXPECT_EQ(s, HSEG_ERR_NO_MEMORY);
        EXPECT_TRUE(dst.untouched());
        alloc_reset();
      }
      EXPECT_EQ(resize(src, &dst, &cache.c), HSEG_OK);
    }
    EXPECT_EQ(alloc_live(), 0);
  });
  EXPECT_GE(n, 1);
}

}  // namespace
