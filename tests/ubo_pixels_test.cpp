// Image toolkit pixel conversions: grey, int32 widening and narrowing,
// normalisation.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>

#include "support/ubo_images.h"

namespace {

using namespace hseg_test;

TEST(Pixels, GreyKeepsGreyAndFollowsBt601) {
  // Grey stays grey with both weight sets, from BGR and BGRA (alpha unread).
  GuardedRecord ramp(256, 1, 3), ramp4(256, 1, 4), grey(256, 1);
  for (int v = 0; v < 256; ++v) {
    std::memset(ramp.at(v, 0), v, 3);
    std::memset(ramp4.at(v, 0), v, 3);
    ramp4.at(v, 0)[3] = uint8_t(~v);
  }
  for (int weights : {HSEG_GRAY_BGR128, HSEG_GRAY_BT601})
    for (const GuardedRecord *src : {&ramp, &ramp4}) {
      ASSERT_EQ(img_bgr2gray(src->get(), grey.get(), weights), HSEG_OK);
      for (int v = 0; v < 256; ++v) ASSERT_EQ(*grey.at(v, 0), v) << weights;
    }
  std::mt19937 rng(3);
  GuardedRecord bgr(61, 7, 3, 8, 2), out(61, 7, 1, 8, 1);
  fill_random(bgr.get(), rng);
  ASSERT_EQ(img_bgr2gray(bgr.get(), out.get(), HSEG_GRAY_BT601), HSEG_OK);
  for (int y = 0; y < 7; ++y)
    for (int x = 0; x < 61; ++x) {
      const uint8_t *p = bgr.at(x, y);
      // Rounding, plus the 14-bit weights' own error (at most 0.011 here).
      ASSERT_LE(std::fabs(*out.at(x, y) - (0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2])), 0.512);
    }
  EXPECT_EQ(img_bgr2gray(bgr.get(), out.get(), 2), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(img_bgr2gray(out.get(), out.get(), 0), HSEG_ERR_FORMAT);
}

TEST(Pixels, Int32RoundTripAndSaturation) {
  const int32_t in[] = {INT32_MIN, -1, 0, 7, 255, 256, INT32_MAX};
  const std::vector<uint8_t> want = {0, 0, 0, 7, 255, 255, 255};
  GuardedRecord s(7, 1, 1, 32), d(7, 1), back(7, 1, 1, 32);
  std::memcpy(s.at<int32_t>(0, 0), in, sizeof in);
  ASSERT_EQ(img_s32_to_u8(s.get(), d.get()), HSEG_OK);
  EXPECT_EQ(row_bytes(d.get(), 0), want);
  ASSERT_EQ(img_u8_to_s32(d.get(), back.get()), HSEG_OK);
  EXPECT_EQ(*back.at<int32_t>(6, 0), 255);
  EXPECT_EQ(img_u8_to_s32(d.get(), d.get()), HSEG_ERR_FORMAT);
}

TEST(Pixels, NormalisationHitsItsTargets) {
  // 1, 3, 5, 7: min-max to [-1, 3]; mean 4 and population deviation sqrt(5).
  GuardedRecord src(2, 2), out(2, 2, 1, 32), flat(3, 2, 1, 8, 0, 77), f(3, 2, 1, 32);
  set_rows(src.get(), {{1, 3}, {5, 7}});
  ASSERT_EQ(img_normalize_minmax(src.get(), out.get(), -1.0f, 3.0f), HSEG_OK);
  const float minmax[] = {-1.0f, 1.0f / 3, 5.0f / 3, 3.0f};
  for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(*out.at<float>(i % 2, i / 2), minmax[i]);
  ASSERT_EQ(img_normalize_meanstd(src.get(), out.get()), HSEG_OK);
  for (int i = 0; i < 4; ++i)
    EXPECT_FLOAT_EQ(*out.at<float>(i % 2, i / 2), float((2 * i + 1 - 4) / std::sqrt(5.0)));
  // Constant images: all lo, all zero.
  ASSERT_EQ(img_normalize_minmax(flat.get(), f.get(), 0.5f, 1.0f), HSEG_OK);
  EXPECT_EQ(*f.at<float>(2, 1), 0.5f);
  ASSERT_EQ(img_normalize_meanstd(flat.get(), f.get()), HSEG_OK);
  EXPECT_EQ(*f.at<float>(2, 1), 0.0f);
  EXPECT_EQ(img_normalize_minmax(flat.get(), f.get(), NAN, 1.0f), HSEG_ERR_BAD_ARGUMENT);
}

}  // namespace
