// Nearest-neighbour resize.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <random>
#include <vector>

#include "hseg/resize.h"
#include "resize/nearest_rows.h"
#include "support/alloc_hooks.h"

namespace {

constexpr uint8_t kCanary = 0xA5;

bool untouched(const std::vector<uint8_t> &v) {
  return std::all_of(v.begin(), v.end(), [](uint8_t b) { return b == kCanary; });
}

// The source index rule, written out in 64 bits.
int64_t nn_index(int64_t src, int64_t dst, int64_t d) {
  const int64_t s = (std::min(src, dst) - 1 + d * 2 * src) / (2 * dst);
  return s >= src ? s - 1 : s;
}

TEST(Nearest, WorkedExamplesAlongBothAxes) {
  struct Case {
    int32_t src, dst;
    std::vector<int32_t> expect;
  };
  const Case cases[] = {{4, 2, {0, 2}},               // numerators 1, 9 over 4
                        {2, 4, {0, 0, 1, 1}},         // numerators 1, 5, 9, 13 over 8
                        {5, 5, {0, 1, 2, 3, 4}},      // equal sizes: a copy
                        {3, 7, {0, 0, 1, 1, 1, 2, 2}}};  // numerators 2, 8, 14, ... over 14
  for (const auto &c : cases) {
    std::vector<uint8_t> src(c.src);
    for (int32_t i = 0; i < c.src; ++i) src[i] = static_cast<uint8_t>(10 * i + 7);
    std::vector<uint8_t> row(c.dst, kCanary), col(c.dst, kCanary);
    ASSERT_EQ(zevImageResize_NN(nullptr, src.data(), c.src, c.src, 1, row.data(), c.dst, c.dst, 1, 1),
              HSEG_OK);
    ASSERT_EQ(zevImageResize_NN(nullptr, src.data(), 1, 1, c.src, col.data(), 1, 1, c.dst, 1), HSEG_OK);
    for (int32_t d = 0; d < c.dst; ++d) {
      EXPECT_EQ(row[d], src[c.expect[d]]) << c.src << "->" << c.dst << " column " << d;
      EXPECT_EQ(col[d], src[c.expect[d]]) << c.src << "->" << c.dst << " row " << d;
    }
  }
}

// Every output pixel is the source pixel the rule names. Three-channel
// sources encode their own coordinates, so a pixel from anywhere else cannot
// pass (and a constant image can only stay constant).
TEST(Nearest, MatchesTheIndexRuleAndReadsOnlySourcePixels) {
  struct Case {
    int32_t sw, sh, dw, dh, channels;
  };
  const Case cases[] = {{473, 473, 1920, 1080, 1}, {473, 473, 100, 57, 1}, {473, 473, 474, 472, 1},
                        {640, 480, 211, 73, 3},    {7, 5, 3, 11, 3},       {1, 1, 9, 4, 3},
                        {30, 70, 60, 10, 3},       {3, 2, 1, 1, 1},
                        {70000, 1, 40000, 2, 1}};  // 2 * d * src passes 2^31
  std::mt19937 rng(7);
  for (const auto &g : cases) {
    SCOPED_TRACE(testing::Message() << g.sw << "x" << g.sh << " -> " << g.dw << "x" << g.dh);
    const int32_t c = g.channels, sp = g.sw * c + 3, dp = g.dw * c + 5;
    std::vector<uint8_t> src(static_cast<size_t>(sp) * g.sh);
    for (int32_t y = 0; y < g.sh; ++y)
      for (int32_t x = 0; x < g.sw; ++x) {
        uint8_t *p = &src[static_cast<size_t>(y) * sp + x * c];
        p[0] = c == 1 ? static_cast<uint8_t>(rng()) : static_cast<uint8_t>(x);
        if (c == 3) p[1] = static_cast<uint8_t>(y), p[2] = static_cast<uint8_t>(x >> 8 | (y >> 8) << 4);
      }
    std::vector<uint8_t> dst(static_cast<size_t>(dp) * g.dh, kCanary);
    ASSERT_EQ(zevImageResize_NN(nullptr, src.data(), sp, g.sw, g.sh, dst.data(), dp, g.dw, g.dh, c),
              HSEG_OK);
    for (int32_t dy = 0; dy < g.dh; ++dy) {
      const int64_t sy = nn_index(g.sh, g.dh, dy);
      for (int32_t dx = 0; dx < g.dw; ++dx) {
        const int64_t sx = nn_index(g.sw, g.dw, dx);
        const uint8_t *o = &dst[static_cast<size_t>(dy) * dp + dx * c];
        if (c == 1) {
          ASSERT_EQ(o[0], src[sy * sp + sx]) << dx << "," << dy;
        } else {
          ASSERT_EQ(o[0] | (o[2] & 15) << 8, sx) << dx << "," << dy;
          ASSERT_EQ(o[1] | (o[2] >> 4) << 8, sy) << dx << "," << dy;
        }
      }
      for (int32_t i = g.dw * c; i < dp; ++i) ASSERT_EQ(dst[size_t{1} * dy * dp + i], kCanary);
    }
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
  std::vector<std::pair<int32_t, int32_t>> sizes = {{473, 1920}, {473, 470}, {473, 100}, {16, 16},
                                                    {16, 17},    {15, 32},   {1, 48},    {2000, 1999}};
  for (int i = 0; i < 40; ++i) sizes.emplace_back(1 + rng() % 300, 1 + rng() % 900);
  for (const auto &[sw, dw] : sizes) {
    std::vector<int32_t> cols(dw), bases(hseg::nearest_block_count(dw));
    for (int32_t d = 0; d < dw; ++d) cols[d] = static_cast<int32_t>(nn_index(sw, dw, d));
    std::vector<uint8_t> masks(16 * bases.size()), src(sw), a(dw + 16, 0x11), b(dw + 16, 0xEE);
    hseg::nearest_build_shuffle(cols.data(), dw, sw, bases.data(), masks.data());
    for (auto &v : src) v = static_cast<uint8_t>(rng());
    hseg::nearest_gather_c1_ref(src.data(), cols.data(), dw, a.data());
    hseg::nearest_gather_c1_ssse3(src.data(), cols.data(), bases.data(), masks.data(), dw, b.data());
    for (int32_t d = 0; d < dw; ++d) ASSERT_EQ(a[d], b[d]) << sw << "->" << dw << " column " << d;
    for (int32_t d = dw; d < dw + 16; ++d) ASSERT_EQ(b[d], 0xEE) << "wrote past the row";
    EXPECT_TRUE(sw < 32 || dw < sw || bases[0] >= 0) << "an enlargement takes the shuffle";
  }
#else
  GTEST_SKIP() << "no shuffle kernel in this build";
#endif
}

TEST(Nearest, RejectsBadArgumentsBeforeAllocating) {
  struct Case {
    const char *what;
    bool null_src, null_dst;
    int32_t sp, sw, sh, dp, dw, dh, channels;
    MRESULT expect;
  };
  const MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;
  const Case cases[] = {{"null source", true, false, 8, 8, 8, 8, 8, 8, 1, kBad},
                        {"null destination", false, true, 8, 8, 8, 8, 8, 8, 1, kBad},
                        {"zero source height", false, false, 8, 8, 0, 8, 8, 8, 1, kBad},
                        {"negative destination width", false, false, 8, 8, 8, 8, -4, 8, 1, kBad},
                        {"short destination pitch", false, false, 24, 8, 8, 23, 8, 8, 3, kBad},
                        {"row bytes overflow", false, false, INT32_MAX, INT32_MAX / 2, 1, 8, 8, 8, 3, kBad},
                        {"work block overflow", false, false, 8, 8, 8, INT32_MAX, INT32_MAX / 5, 8, 1, kBad},
                        {"two channels: nothing to do", false, false, 16, 8, 8, 16, 8, 8, 2, HSEG_OK},
                        {"no destination rows: nothing to do", false, false, 8, 8, 8, 8, 8, 0, 1, HSEG_OK}};
  std::vector<uint8_t> src(64 * 8, 1);
  for (const auto &c : cases) {
    std::vector<uint8_t> dst(64 * 8, kCanary);
    hseg_test::alloc_reset();
    EXPECT_EQ(zevImageResize_NN(nullptr, c.null_src ? nullptr : src.data(), c.sp, c.sw, c.sh,
                                c.null_dst ? nullptr : dst.data(), c.dp, c.dw, c.dh, c.channels),
              c.expect)
        << c.what;
    EXPECT_EQ(hseg_test::alloc_calls(), 0) << c.what;
    EXPECT_TRUE(untouched(dst)) << c.what;
  }
}

TEST(Nearest, AllocationFailureWritesNothingAndLeaksNothing) {
  std::vector<uint8_t> src(60 * 10, 9);
  for (int32_t channels : {1, 3}) {
    const int64_t n = hseg_test::for_each_alloc_failure([&](int64_t failing) {
      std::vector<uint8_t> dst(3 * 33 * 7, kCanary);
      const MRESULT s =
          zevImageResize_NN(nullptr, src.data(), 60, 20, 10, dst.data(), 99, 33, 7, channels);
      EXPECT_EQ(hseg_test::alloc_live(), 0);
      EXPECT_EQ(s, failing == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY);
      EXPECT_TRUE(failing == 0 || untouched(dst));
    });
    EXPECT_EQ(n, 1);  // one work block
  }
}

}  // namespace
