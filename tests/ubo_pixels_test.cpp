// Image toolkit pixel conversions: grey, int32 widening and narrowing,
// normalisation.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>

#include "support/ubo_images.h"

namespace {

using namespace hseg_test;

TEST(Pixels, GreyKeepsGreyAndFollowsBt601) {
  GuardedImage ramp(256, 1, 3), ramp4(256, 1, 4), grey(256, 1);
  for (int v = 0; v < 256; ++v)
    for (int k = 0; k < 4; ++k) {
      if (k < 3) ramp.at(v, 0)[k] = uint8_t(v);
      ramp4.at(v, 0)[k] = uint8_t(k < 3 ? v : 255 - v);  // alpha is not read
    }
  for (int weights : {HSEG_GRAY_BGR128, HSEG_GRAY_BT601})
    for (const GuardedImage *src : {&ramp, &ramp4}) {
      ASSERT_EQ(img_bgr2gray(src->get(), grey.get(), weights), HSEG_OK);
      for (int v = 0; v < 256; ++v) ASSERT_EQ(*grey.at(v, 0), v) << weights;
    }

  std::mt19937 rng(3);
  GuardedImage bgr(61, 7, 3, 8, 2), out(61, 7, 1, 8, 1);
  fill_random(bgr.get(), rng);
  ASSERT_EQ(img_bgr2gray(bgr.get(), out.get(), HSEG_GRAY_BT601), HSEG_OK);
  for (int y = 0; y < 7; ++y)
    for (int x = 0; x < 61; ++x) {
      const uint8_t *p = bgr.at(x, y);
      const double exact = 0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2];
      // Rounding, plus the 14-bit weights' own error (at most 0.011 here).
      ASSERT_LE(std::fabs(*out.at(x, y) - exact), 0.512) << x << "," << y;
    }
  ASSERT_EQ(img_bgr2gray(bgr.get(), out.get(), HSEG_GRAY_BGR128), HSEG_OK);
  const uint8_t *p = bgr.at(5, 3);
  EXPECT_EQ(*out.at(5, 3), (13 * p[0] + 83 * p[1] + 32 * p[2] + 64) >> 7);
  EXPECT_EQ(img_bgr2gray(bgr.get(), out.get(), 2), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(img_bgr2gray(out.get(), out.get(), 0), HSEG_ERR_FORMAT);
}

TEST(Pixels, Int32RoundTripAndSaturation) {
  std::mt19937 rng(4);
  GuardedImage bytes(9, 4, 3, 8, 1), wide(9, 4, 3, 32), back(9, 4, 3);
  fill_random(bytes.get(), rng);
  ASSERT_EQ(img_u8_to_s32(bytes.get(), wide.get()), HSEG_OK);
  EXPECT_EQ(*wide.at<int32_t>(8, 3), *bytes.at(8, 3));
  ASSERT_EQ(img_s32_to_u8(wide.get(), back.get()), HSEG_OK);
  EXPECT_TRUE(same_pixels(back.get(), bytes.get()));

  const int32_t in[] = {INT32_MIN, -1, 0, 7, 255, 256, INT32_MAX};
  const uint8_t want[] = {0, 0, 0, 7, 255, 255, 255};
  GuardedImage s(7, 1, 1, 32), d(7, 1);
  std::memcpy(s.at<int32_t>(0, 0), in, sizeof in);
  ASSERT_EQ(img_s32_to_u8(s.get(), d.get()), HSEG_OK);
  EXPECT_EQ(row_bytes(d.get(), 0), std::vector<uint8_t>(want, want + 7));
  EXPECT_EQ(img_u8_to_s32(bytes.get(), back.get()), HSEG_ERR_FORMAT);
}

TEST(Pixels, NormalisationHitsItsTargets) {
  std::mt19937 rng(5);
  GuardedImage src(13, 5, 3), out(13, 5, 3, 32);
  for (uint32_t y = 0; y < 5; ++y)
    for (int i = 0; i < 39; ++i) src.at(0, y)[i] = uint8_t(20 + rng() % 181);
  src.at(0, 0)[0] = 20, src.at(12, 4)[2] = 200;

  ASSERT_EQ(img_normalize_minmax(src.get(), out.get(), -1.0f, 3.0f), HSEG_OK);
  double sum = 0, sum2 = 0;
  for (uint32_t y = 0; y < 5; ++y)
    for (int i = 0; i < 39; ++i) {
      const float v = out.at<float>(0, y)[i];
      EXPECT_NEAR(v, -1.0 + (src.at(0, y)[i] - 20) * 4.0 / 180, 1e-6);
    }
  EXPECT_EQ(out.at<float>(0, 0)[0], -1.0f);
  EXPECT_EQ(out.at<float>(12, 4)[2], 3.0f);

  ASSERT_EQ(img_normalize_meanstd(src.get(), out.get()), HSEG_OK);
  for (uint32_t y = 0; y < 5; ++y)
    for (int i = 0; i < 39; ++i) {
      sum += out.at<float>(0, y)[i];
      sum2 += out.at<float>(0, y)[i] * out.at<float>(0, y)[i];
    }
  EXPECT_NEAR(sum / 195, 0.0, 1e-6);
  EXPECT_NEAR(sum2 / 195, 1.0, 1e-5);

  // Constant images: all lo, all zero.
  GuardedImage flat(3, 2, 1, 8, 0, 77), f(3, 2, 1, 32);
  ASSERT_EQ(img_normalize_minmax(flat.get(), f.get(), 0.5f, 1.0f), HSEG_OK);
  EXPECT_EQ(*f.at<float>(2, 1), 0.5f);
  ASSERT_EQ(img_normalize_meanstd(flat.get(), f.get()), HSEG_OK);
  EXPECT_EQ(*f.at<float>(2, 1), 0.0f);
  EXPECT_EQ(img_normalize_minmax(flat.get(), f.get(), NAN, 1.0f), HSEG_ERR_BAD_ARGUMENT);
}

}  // namespace
