// Every resizer on buffers that end (and, in a second pass, begin) at an
// inaccessible page, rows packed: an access outside the caller's planes
// faults at once. Shrinking, enlarging, equal and 1-pixel sizes, odd sizes,
// every source format, and both regimes of the area resize.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "hseg/resize.h"
#include "support/guarded.h"

namespace {

using hseg_test::GuardedBuffer;
using hseg_test::GuardedImage;

struct Size {
  int w, h, dw, dh;
};
constexpr uint8_t kCanary = 0xA5;
const GuardedBuffer::Mode kModes[] = {GuardedBuffer::kGuardAfter, GuardedBuffer::kGuardBefore};

// A `format` picture of w x h with random bytes in every plane.
GuardedImage random_image(uint32_t format, int w, int h, GuardedBuffer::Mode mode) {
  static std::mt19937 rng(41);
  GuardedImage img(format, w, h, mode);
  for (int p = 0; p < 3 && img.desc().planes[p] != nullptr; ++p)
    for (size_t i = 0; i < img.plane(p).size(); ++i) img.desc().planes[p][i] = uint8_t(rng());
  return img;
}

bool written(const GuardedImage &dst) {
  const GuardedBuffer &b = dst.plane(0);
  for (size_t i = 0; i < b.size(); ++i)
    if (b.data()[i] != kCanary) return true;
  return false;
}

// 37x29 shrinks with both walks' fixed point, 99x70 -> 3x2 past 32:1 (the
// double-precision mean), 37x29 -> 30x20 enlarges on the half grid.
TEST(ResizeGuards, AreaResize) {
  const Size sizes[] = {{37, 29, 11, 7}, {37, 29, 37, 29}, {99, 70, 3, 2}, {37, 29, 30, 20}, {1, 1, 1, 1}};
  for (auto resize : {LumResizeToBGR, LumResizeToBGR_SP})
    for (uint32_t f : {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_NV21, HSEG_PIXFMT_I420})
      for (const Size &s : sizes)
        for (const auto mode : kModes) {
          GuardedImage src = random_image(f, s.w, s.h, mode);
          GuardedImage dst(HSEG_PIXFMT_BGR24, s.dw, s.dh, mode, kCanary);
          ASSERT_EQ(resize(nullptr, &src.desc(), &dst.desc()), HSEG_OK) << f << " " << s.w << "x" << s.h;
          EXPECT_TRUE(written(dst)) << f << " " << s.w << "x" << s.h << " -> " << s.dw << "x" << s.dh;
        }
}

const Size kScaleSizes[] = {{37, 29, 11, 7}, {37, 29, 80, 61}, {6, 5, 5, 6}, {1, 1, 5, 3}, {5, 3, 1, 1}};

TEST(ResizeGuards, NearestAndBilinearOneChannel) {
  for (const int channels : {1, 3})
    for (const Size &s : kScaleSizes)
      for (const auto mode : kModes) {
        const uint32_t f = channels == 1 ? HSEG_PIXFMT_GRAY : HSEG_PIXFMT_BGR24;
        GuardedImage src = random_image(f, s.w, s.h, mode), dst(f, s.dw, s.dh, mode, kCanary);
        const OffscreenImage &a = src.desc(), &b = dst.desc();
        ASSERT_EQ(zevImageResize_NN(nullptr, a.planes[0], a.pitches[0], s.w, s.h, b.planes[0],
                                    b.pitches[0], s.dw, s.dh, channels), HSEG_OK);
        EXPECT_TRUE(written(dst));
        if (channels == 3) continue;
        GuardedImage bl(f, s.dw, s.dh, mode, kCanary);
        ASSERT_EQ(zevImageResize_BL_C1(nullptr, a.planes[0], s.w, s.h, a.pitches[0],
                                       bl.desc().planes[0], s.dw, s.dh, bl.desc().pitches[0]),
                  HSEG_OK);
        EXPECT_TRUE(written(bl));
      }
}

TEST(ResizeGuards, BilinearEveryFormatToColourAndGrey) {
  for (uint32_t f : {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21,
                     HSEG_PIXFMT_NV12})
    for (const int colour : {1, 0})
      for (const Size &s : kScaleSizes)
        for (const auto mode : kModes) {
          GuardedImage src = random_image(f, s.w, s.h, mode);
          GuardedImage dst(colour == 1 ? HSEG_PIXFMT_BGR24 : HSEG_PIXFMT_GRAY, s.dw, s.dh, mode,
                           kCanary);
          ASSERT_EQ(zevImageResize_BL(nullptr, &src.desc(), dst.desc().planes[0], s.dw, s.dh,
                                      dst.desc().pitches[0], colour), HSEG_OK)
              << f << " colour " << colour;
          EXPECT_TRUE(written(dst));
        }
}

TEST(ResizeGuards, Bicubic) {
  const Size sizes[] = {{37, 29, 11, 7}, {37, 29, 80, 61}, {6, 5, 5, 6}, {3, 2, 3, 2}};
  for (const Size &s : sizes)
    for (const auto mode : kModes) {
      GuardedImage src = random_image(HSEG_PIXFMT_GRAY, s.w, s.h, mode);
      GuardedImage dst(HSEG_PIXFMT_GRAY, s.dw, s.dh, mode, kCanary);
      CubicCache cache{nullptr, nullptr};
      ASSERT_EQ(ImageResize_Cubic_C1(nullptr, src.desc().planes[0], s.w, s.h, src.desc().pitches[0],
                                     dst.desc().planes[0], s.dw, s.dh, dst.desc().pitches[0], &cache),
                HSEG_OK);
      EXPECT_TRUE(written(dst));
      MMemFree(nullptr, cache.work);
      MMemFree(nullptr, cache.coef_tab);
    }
}

}  // namespace
