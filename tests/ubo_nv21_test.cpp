// NV21 <-> BGR: both directions against the formulas evaluated in double,
// and the argument checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "hseg/imgproc.h"
#include "support/resize_images.h"

namespace {

using namespace hseg_test;

// Each 14-bit shift is floor(x + 0.5) of an exactly representable value.
int round_half_up(double v) { return int(std::floor(v + 0.5)); }

TEST(Nv21, BothDirectionsMatchTheFormulasAtOddSizes) {
  std::mt19937 rng(6);
  for (auto [w, h] : {std::pair{1, 1}, {2, 2}, {5, 3}, {33, 17}, {64, 9}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    const Picture p = random_picture(rng, w, h);
    const Frame nv = make_frame(p, HSEG_PIXFMT_NV21, 1, 0);
    Frame back = make_frame(random_picture(rng, w, h), HSEG_PIXFMT_NV21, 0, 0);
    Raster bgr(w, h, 3);
    OffscreenImage bgr_d = bgr.bgr();
    ASSERT_EQ(NV212BGR(&nv.d, &bgr_d), HSEG_OK);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        int want[3];
        yuv_to_bgr_ref(p.Y(x, y), p.U(x, y), p.V(x, y), want);
        for (int k = 0; k < 3; ++k) ASSERT_EQ(bgr.at(x, y, k), want[k]) << x << "," << y;
      }

    ASSERT_EQ(BGR2NV21(&bgr_d, &back.d), HSEG_OK);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        ASSERT_EQ(back.plane[0][y * back.d.pitches[0] + x],
                  round_half_up((4899.0 * bgr.at(x, y, 2) + 9617.0 * bgr.at(x, y, 1) +
                                 1868.0 * bgr.at(x, y, 0)) / 16384));
    for (int by = 0; by < p.ch(); ++by)
      for (int bx = 0; bx < p.cw(); ++bx) {
        double m[3] = {0, 0, 0};  // B, G, R means of the block, rounded
        int n = 0;
        for (int y = 2 * by; y < std::min(h, 2 * by + 2); ++y)
          for (int x = 2 * bx; x < std::min(w, 2 * bx + 2); ++x, ++n)
            for (int k = 0; k < 3; ++k) m[k] += bgr.at(x, y, k);
        for (double &v : m) v = round_half_up(v / n);
        const int v = round_half_up((8192 * m[2] - 6860 * m[1] - 1332 * m[0]) / 16384) + 128;
        const int u = round_half_up((-2765 * m[2] - 5427 * m[1] + 8192 * m[0]) / 16384) + 128;
        const uint8_t *vu = &back.plane[1][by * back.d.pitches[1] + 2 * bx];
        ASSERT_EQ(vu[0], std::clamp(v, 0, 255)) << bx << "," << by;
        ASSERT_EQ(vu[1], std::clamp(u, 0, 255)) << bx << "," << by;
      }
  }
}

TEST(Nv21, BadArgumentsAndFormats) {
  std::mt19937 rng(7);
  const Frame nv = make_frame(random_picture(rng, 5, 3), HSEG_PIXFMT_NV21, 0, 0);
  Raster bgr(5, 3, 3), small(4, 3, 3);
  OffscreenImage out = bgr.bgr(), narrow = small.bgr(), grey = out, short_pitch = nv.d;
  grey.format = HSEG_PIXFMT_GRAY;
  short_pitch.pitches[1] = 4;  // 5 pixels need 3 chroma pairs
  EXPECT_EQ(NV212BGR(nullptr, &out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(NV212BGR(&nv.d, &narrow), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(NV212BGR(&short_pitch, &out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(NV212BGR(&nv.d, &grey), HSEG_ERR_FORMAT);
  EXPECT_EQ(BGR2NV21(&nv.d, &out), HSEG_ERR_FORMAT);
  EXPECT_TRUE(bgr.untouched());
}

}  // namespace
