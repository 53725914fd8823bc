// Nearest-neighbour resize.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <random>
#include <vector>

#include "hseg/resize.h"
#include "support/alloc_hooks.h"

namespace {

constexpr uint8_t kCanary = 0xA5;

// The source index rule, written out in 64 bits.
int64_t nn_index(int64_t src, int64_t dst, int64_t d) {
  const int64_t s = (std::min(src, dst) - 1 + d * 2 * src) / (2 * dst);
  return s >= src ? s - 1 : s;
}

struct Worked {
  int32_t src, dst;
  std::vector<int32_t> expect;
};

TEST(Nearest, WorkedExamplesAlongBothAxes) {
  const Worked cases[] = {
      {4, 2, {0, 2}},              // numerators 1, 9 over 4
      {2, 4, {0, 0, 1, 1}},        // numerators 1, 5, 9, 13 over 8
      {5, 5, {0, 1, 2, 3, 4}},     // equal sizes: a copy
      {3, 7, {0, 0, 1, 1, 1, 2, 2}},  // numerators 2, 8, 14, ... over 14
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.src << " -> " << c.dst);
    std::vector<uint8_t> src(c.src);
    for (int32_t i = 0; i < c.src; ++i) src[i] = static_cast<uint8_t>(10 * i + 7);
    std::vector<uint8_t> dst(c.dst, kCanary);
    // One row: the column rule.
    ASSERT_EQ(zevImageResize_NN(nullptr, src.data(), c.src, c.src, 1, dst.data(), c.dst, c.dst, 1,
                                1),
              HSEG_OK);
    for (int32_t d = 0; d < c.dst; ++d) EXPECT_EQ(dst[d], src[c.expect[d]]) << "column " << d;
    // One column: the row rule.
    std::fill(dst.begin(), dst.end(), kCanary);
    ASSERT_EQ(zevImageResize_NN(nullptr, src.data(), 1, 1, c.src, dst.data(), 1, 1, c.dst, 1),
              HSEG_OK);
    for (int32_t d = 0; d < c.dst; ++d) EXPECT_EQ(dst[d], src[c.expect[d]]) << "row " << d;
  }
}

struct Geometry {
  int32_t sw, sh, dw, dh, channels;
};

// Every output pixel is the source pixel the rule names. Three-channel
// sources encode their own coordinates, so a pixel from anywhere else (or an
// unwritten one) cannot pass.
TEST(Nearest, MatchesTheIndexRuleAndReadsOnlySourcePixels) {
  const Geometry cases[] = {
      {473, 473, 1920, 1080, 1}, {473, 473, 100, 57, 1}, {473, 473, 473, 473, 1},
      {473, 473, 474, 472, 1},   {640, 480, 211, 73, 3}, {7, 5, 3, 11, 3},
      {1, 1, 9, 4, 3},           {256, 200, 251, 199, 1}, {30, 70, 60, 10, 3},
      {70, 30, 10, 210, 1},      {11, 7, 77, 49, 3},     {3, 2, 1, 1, 1},
  };
  std::mt19937 rng(7);
  for (const auto &g : cases) {
    SCOPED_TRACE(testing::Message() << g.sw << "x" << g.sh << " -> " << g.dw << "x" << g.dh
                                    << " c" << g.channels);
    const int32_t sp = g.sw * g.channels + 3, dp = g.dw * g.channels + 5;
    std::vector<uint8_t> src(static_cast<size_t>(sp) * g.sh);
    for (int32_t y = 0; y < g.sh; ++y)
      for (int32_t x = 0; x < g.sw; ++x) {
        uint8_t *p = &src[static_cast<size_t>(y) * sp + x * g.channels];
        if (g.channels == 1) {
          p[0] = static_cast<uint8_t>(rng());
        } else {
          p[0] = static_cast<uint8_t>(x);
          p[1] = static_cast<uint8_t>(y);
          p[2] = static_cast<uint8_t>((x >> 8) | ((y >> 8) << 4));
        }
      }
    std::vector<uint8_t> dst(static_cast<size_t>(dp) * g.dh, kCanary);
    ASSERT_EQ(zevImageResize_NN(nullptr, src.data(), sp, g.sw, g.sh, dst.data(), dp, g.dw, g.dh,
                                g.channels),
              HSEG_OK);
    for (int32_t dy = 0; dy < g.dh; ++dy) {
      const int64_t sy = nn_index(g.sh, g.dh, dy);
      for (int32_t dx = 0; dx < g.dw; ++dx) {
        const int64_t sx = nn_index(g.sw, g.dw, dx);
        const uint8_t *o = &dst[static_cast<size_t>(dy) * dp + dx * g.channels];
        if (g.channels == 3) {
          const int32_t x = o[0] | ((o[2] & 15) << 8), y = o[1] | ((o[2] >> 4) << 8);
          ASSERT_TRUE(x < g.sw && y < g.sh) << "pixel " << dx << "," << dy << " not from the source";
          ASSERT_EQ(x, sx) << "pixel " << dx << "," << dy;
          ASSERT_EQ(y, sy) << "pixel " << dx << "," << dy;
        } else {
          ASSERT_EQ(o[0], src[sy * sp + sx]) << "pixel " << dx << "," << dy;
        }
      }
      for (int32_t i = g.dw * g.channels; i < dp; ++i)
        ASSERT_EQ(dst[static_cast<size_t>(dy) * dp + i], kCanary) << "row padding " << dy;
    }
  }
}

// 2 * d * src passes 2^31 here; the rule must still hold.
TEST(Nearest, WideImagesDoNotOverflowTheNumerator) {
  const int32_t sw = 70000, dw = 40000;
  std::vector<uint8_t> src(sw);
  for (int32_t x = 0; x < sw; ++x) src[x] = static_cast<uint8_t>(x * 31 + (x >> 8));
  std::vector<uint8_t> dst(2 * dw, kCanary);
  ASSERT_EQ(zevImageResize_NN(nullptr, src.data(), sw, sw, 1, dst.data(), dw, dw, 2, 1), HSEG_OK);
  for (int32_t y = 0; y < 2; ++y)
    for (int32_t dx = 0; dx < dw; ++dx)
      ASSERT_EQ(dst[y * dw + dx], src[nn_index(sw, dw, dx)]) << dx;
}

TEST(Nearest, ConstantStaysConstant) {
  std::vector<uint8_t> src(3 * 9 * 13);
  for (size_t i = 0; i < src.size(); i += 3) src[i] = 17, src[i + 1] = 200, src[i + 2] = 90;
  std::vector<uint8_t> dst(3 * 31 * 5, kCanary);
  ASSERT_EQ(zevImageResize_NN(nullptr, src.data(), 27, 9, 13, dst.data(), 93, 31, 5, 3), HSEG_OK);
  for (size_t i = 0; i < dst.size(); i += 3) {
    ASSERT_EQ(dst[i], 17);
    ASSERT_EQ(dst[i + 1], 200);
    ASSERT_EQ(dst[i + 2], 90);
  }
}

struct BadCall {
  const char *what;
  bool null_src, null_dst;
  int32_t sp, sw, sh, dp, dw, dh, channels;
  MRESULT expect;
};

TEST(Nearest, RejectsBadArgumentsBeforeAllocating) {
  const BadCall cases[] = {
      {"null source", true, false, 8, 8, 8, 8, 8, 8, 1, HSEG_ERR_BAD_ARGUMENT},
      {"null destination", false, true, 8, 8, 8, 8, 8, 8, 1, HSEG_ERR_BAD_ARGUMENT},
      {"zero source width", false, false, 8, 0, 8, 8, 8, 8, 1, HSEG_ERR_BAD_ARGUMENT},
      {"zero source height", false, false, 8, 8, 0, 8, 8, 8, 1, HSEG_ERR_BAD_ARGUMENT},
      {"zero destination width", false, false, 8, 8, 8, 8, 0, 8, 1, HSEG_ERR_BAD_ARGUMENT},
      {"negative destination width", false, false, 8, 8, 8, 8, -4, 8, 1, HSEG_ERR_BAD_ARGUMENT},
      {"short source pitch", false, false, 7, 8, 8, 8, 8, 8, 1, HSEG_ERR_BAD_ARGUMENT},
      {"short destination pitch", false, false, 24, 8, 8, 23, 8, 8, 3, HSEG_ERR_BAD_ARGUMENT},
      {"negative pitch", false, false, -8, 8, 8, 8, 8, 8, 1, HSEG_ERR_BAD_ARGUMENT},
      {"row bytes overflow", false, false, INT32_MAX, INT32_MAX / 2, 1, 8, 8, 8, 3,
       HSEG_ERR_BAD_ARGUMENT},
      {"table bytes overflow", false, false, 8, 8, 8, INT32_MAX, INT32_MAX / 3, 8, 1,
       HSEG_ERR_BAD_ARGUMENT},
      {"two channels", false, false, 16, 8, 8, 16, 8, 8, 2, HSEG_OK},
      {"zero channels", false, false, 8, 8, 8, 8, 8, 8, 0, HSEG_OK},
      {"zero destination height", false, false, 8, 8, 8, 8, 8, 0, 1, HSEG_OK},
  };
  std::vector<uint8_t> src(64 * 8, 1);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> dst(64 * 8, kCanary);
    hseg_test::alloc_reset();
    EXPECT_EQ(zevImageResize_NN(nullptr, c.null_src ? nullptr : src.data(), c.sp, c.sw, c.sh,
                                c.null_dst ? nullptr : dst.data(), c.dp, c.dw, c.dh, c.channels),
              c.expect);
    EXPECT_EQ(hseg_test::alloc_calls(), 0);
    EXPECT_TRUE(std::all_of(dst.begin(), dst.end(), [](uint8_t b) { return b == kCanary; }));
  }
}

TEST(Nearest, AllocationFailureWritesNothingAndLeaksNothing) {
  std::vector<uint8_t> src(20 * 10, 9);
  for (int channels : {1, 3}) {
    const int64_t n = hseg_test::for_each_alloc_failure([&](int64_t failing) {
      std::vector<uint8_t> dst(3 * 33 * 7, kCanary);
      const MRESULT s = zevImageResize_NN(nullptr, src.data(), 20, 20 / channels, 10, dst.data(),
                                          3 * 33, 33, 7, channels);
      EXPECT_EQ(hseg_test::alloc_live(), 0);
      if (failing == 0) {
        EXPECT_EQ(s, HSEG_OK);
        return;
      }
      EXPECT_EQ(s, HSEG_ERR_NO_MEMORY);
      EXPECT_TRUE(std::all_of(dst.begin(), dst.end(), [](uint8_t b) { return b == kCanary; }));
    });
    EXPECT_EQ(n, 1);  // the column table
  }
}

}  // namespace
