// Every resizer on buffers that end (and, in a second pass, begin) at an
// inaccessible page, rows packed: an access outside the caller's planes
// faults at once. Shrinking, enlarging, equal and 1-pixel sizes, odd sizes,
// every source format, and both regimes of the area resize.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "hseg/resize.h"
#include "support/guarded.h"

namespace {

using hseg_test::GuardedBuffer;
using hseg_test::GuardedImage;
constexpr uint8_t kCanary = 0xA5;

// One resize of a random `format` picture of w x h into a canary-filled
// `out_format` image of dw x dh, both planes guarded by `mode`. The call must
// succeed and write.
using Call = std::function<MRESULT(const OffscreenImage &src, OffscreenImage &dst)>;
void check(uint32_t format, uint32_t out_format, const int (&s)[4], const Call &call) {
  static std::mt19937 rng(41);
  for (const auto mode : {GuardedBuffer::kGuardAfter, GuardedBuffer::kGuardBefore}) {
    GuardedImage src(format, s[0], s[1], mode), dst(out_format, s[2], s[3], mode, kCanary);
    for (int p = 0; p < 3 && src.desc().planes[p] != nullptr; ++p)
      for (size_t i = 0; i < src.plane(p).size(); ++i) src.desc().planes[p][i] = uint8_t(rng());
    ASSERT_EQ(call(src.desc(), dst.desc()), HSEG_OK)
        << std::hex << format << std::dec << " " << s[0] << "x" << s[1] << " -> " << s[2] << "x" << s[3];
    const uint8_t *d = dst.desc().planes[0];
    EXPECT_TRUE(std::any_of(d, d + dst.plane(0).size(), [](uint8_t b) { return b != kCanary; }));
  }
}

// 37x29 -> 11x7 on both fixed-point walks, 99x70 -> 3x2 past 32:1 (the
// double-precision mean), 37x29 -> 30x20 enlarging on the half grid.
TEST(ResizeGuards, AreaResize) {
  const int sizes[][4] = {{37, 29, 11, 7}, {37, 29, 37, 29}, {99, 70, 3, 2}, {37, 29, 30, 20}, {1, 1, 1, 1}};
  for (auto resize : {LumResizeToBGR, LumResizeToBGR_SP})
    for (uint32_t f : {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_NV21, HSEG_PIXFMT_I420})
      for (const auto &s : sizes)
        check(f, HSEG_PIXFMT_BGR24, s, [&](const OffscreenImage &a, OffscreenImage &b) {
          return resize(nullptr, &a, &b);
        });
}

TEST(ResizeGuards, NearestBilinearAndBicubic) {
  const int sizes[][4] = {{37, 29, 11, 7}, {37, 29, 80, 61}, {6, 5, 5, 6}, {1, 1, 5, 3}, {5, 3, 1, 1}};
  const uint32_t grey = HSEG_PIXFMT_GRAY;
  for (const auto &s : sizes) {
    for (const int c : {1, 3}) {
      const uint32_t f = c == 1 ? grey : HSEG_PIXFMT_BGR24;
      check(f, f, s, [&](const OffscreenImage &a, OffscreenImage &b) {
        return zevImageResize_NN(nullptr, a.planes[0], a.pitches[0], a.width, a.height, b.planes[0],
                                 b.pitches[0], b.width, b.height, c);
      });
    }
    check(grey, grey, s, [](const OffscreenImage &a, OffscreenImage &b) {
      return zevImageResize_BL_C1(nullptr, a.planes[0], a.width, a.height, a.pitches[0], b.planes[0],
                                  b.width, b.height, b.pitches[0]);
    });
    for (uint32_t f : {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21,
                       HSEG_PIXFMT_NV12})
      for (const int colour : {1, 0})
        check(f, colour == 1 ? HSEG_PIXFMT_BGR24 : grey, s, [&](const OffscreenImage &a, OffscreenImage &b) {
          return zevImageResize_BL(nullptr, &a, b.planes[0], b.width, b.height, b.pitches[0], colour);
        });
    if (std::min({s[0], s[1], s[2], s[3]}) < 5) continue;  // bicubic needs 5 a side
    check(grey, grey, s, [](const OffscreenImage &a, OffscreenImage &b) {
      CubicCache cache{nullptr, nullptr};
      const MRESULT r = ImageResize_Cubic_C1(nullptr, a.planes[0], a.width, a.height, a.pitches[0],
                                             b.planes[0], b.width, b.height, b.pitches[0], &cache);
      MMemFree(nullptr, cache.work);
      MMemFree(nullptr, cache.coef_tab);
      return r;
    });
  }
}

}  // namespace
