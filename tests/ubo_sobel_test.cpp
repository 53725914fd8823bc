// Sobel derivatives and magnitudes against the kernels applied to a
// reflection-padded copy.
#include <gtest/gtest.h>

#include <cmath>

#include "support/ubo_images.h"

namespace {

using namespace hseg_test;

TEST(Sobel, MatchesTheKernelsOnAReflectedBorder) {
  std::mt19937 rng(11);
  const int sizes[][2] = {{1, 1}, {1, 6}, {7, 1}, {2, 2}, {33, 17}};
  for (const auto &s : sizes) {
    const int w = s[0], h = s[1];
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    GuardedRecord src(w, h, 1, 8, 1), pad(w + 2, h + 2), gx(w, h, 1, 16), gy(w, h, 1, 16, 2),
        l1(w, h, 1, 16), l2(w, h, 1, 16);
    fill_random(src.get(), rng);
    ASSERT_EQ(img_pad_reflect(src.get(), pad.get(), 1, 1, 1, 1), HSEG_OK);
    ASSERT_EQ(img_sobel(src.get(), gx.get(), 1, 0), HSEG_OK);
    ASSERT_EQ(img_sobel(src.get(), gy.get(), 0, 1), HSEG_OK);
    ASSERT_EQ(img_sobel_magnitude(src.get(), l1.get(), HSEG_NORM_L1), HSEG_OK);
    ASSERT_EQ(img_sobel_magnitude(src.get(), l2.get(), HSEG_NORM_L2), HSEG_OK);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        auto p = [&](int dx, int dy) { return int(*pad.at(x + 1 + dx, y + 1 + dy)); };
        const int ex = p(1, -1) + 2 * p(1, 0) + p(1, 1) - p(-1, -1) - 2 * p(-1, 0) - p(-1, 1);
        const int ey = p(-1, 1) + 2 * p(0, 1) + p(1, 1) - p(-1, -1) - 2 * p(0, -1) - p(1, -1);
        ASSERT_EQ(*gx.at<int16_t>(x, y), ex) << x << "," << y;
        ASSERT_EQ(*gy.at<int16_t>(x, y), ey) << x << "," << y;
        ASSERT_EQ(*l1.at<int16_t>(x, y), std::abs(ex) + std::abs(ey));
        ASSERT_EQ(*l2.at<int16_t>(x, y), std::lround(std::hypot(ex, ey)));
      }
  }
}

TEST(Sobel, ExtremesAndArguments) {
  // A 0 | 255 step: gx is 4 * 255 on both sides of it, the largest value.
  GuardedRecord step(4, 3), g(4, 3, 1, 16), mag(4, 3, 1, 16);
  set_rows(step.get(), {{0, 0, 255, 255}, {0, 0, 255, 255}, {0, 0, 255, 255}});
  ASSERT_EQ(img_sobel(step.get(), g.get(), 1, 0), HSEG_OK);
  EXPECT_EQ(*g.at<int16_t>(1, 1), 1020);
  EXPECT_EQ(*g.at<int16_t>(3, 2), 0);  // the reflected border is flat
  ASSERT_EQ(img_sobel_magnitude(step.get(), mag.get(), HSEG_NORM_L2), HSEG_OK);
  EXPECT_EQ(*mag.at<int16_t>(2, 0), 1020);

  EXPECT_EQ(img_sobel(step.get(), g.get(), 1, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(img_sobel_magnitude(step.get(), step.get(), HSEG_NORM_L1), HSEG_ERR_FORMAT);
}

}  // namespace
