// Nearest-neighbour resize.
#include <gtest/gtest.h>

#include <climits>

#include "resize/nearest_rows.h"
#include "support/alloc_hooks.h"
#include "support/resize_images.h"

namespace {

using namespace hseg_test;

// The source index rule, written out in 64 bits.
int64_t nn_index(int64_t src, int64_t dst, int64_t d) {
  return (std::min(src, dst) - 1 + d * 2 * src) / (2 * dst);
}

// Every output pixel is the source pixel the rule names. The rule's worked
// examples: 4 -> 2 reads 0, 2 (numerators 1, 9 over 4); 2 -> 4 reads 0, 0,
// 1, 1 (1, 5, 9, 13 over 8); equal sizes copy; 3 -> 7 reads 0, 0, 1, 1, 1,
// 2, 2 (2, 8, 14, ... over 14); the table runs them along both axes.
// Three-channel sources encode their own coordinates, so a pixel from
// anywhere else cannot pass (and a constant image can only stay constant).
TEST(Nearest, MatchesTheIndexRuleAndReadsOnlySourcePixels) {
  const struct { int src; std::vector<int64_t> index; } worked[] = {
      {4, {0, 2}}, {2, {0, 0, 1, 1}}, {5, {0, 1, 2, 3, 4}}, {3, {0, 0, 1, 1, 1, 2, 2}}};
  for (const auto &w : worked)
    for (size_t d = 0; d < w.index.size(); ++d)
      EXPECT_EQ(nn_index(w.src, w.index.size(), d), w.index[d]) << w.src << " -> " << d;
  const struct { int32_t sw, sh, dw, dh, c; } cases[] = {
      {4, 2, 2, 4, 1}, {2, 4, 4, 2, 3}, {5, 3, 5, 7, 1}, {3, 5, 7, 5, 3}, {1, 1, 9, 4, 3},
      {473, 473, 1920, 1080, 1}, {473, 473, 100, 57, 1}, {640, 480, 211, 73, 3},
      {473, 473, 474, 472, 1}, {2, 3, 3, 2, 3},  // a numerator lands on 2 * dst * k
      {70000, 1, 40000, 2, 1}};                  // 2 * d * src passes 2^31
  std::mt19937 rng(7);
  for (const auto &g : cases) {
    SCOPED_TRACE(testing::Message() << g.sw << "x" << g.sh << " -> " << g.dw << "x" << g.dh);
    Raster src = random_raster(rng, g.sw, g.sh, g.c), dst(g.dw, g.dh, g.c, 5);
    for (int32_t y = 0; y < g.sh && g.c == 3; ++y)
      for (int32_t x = 0; x < g.sw; ++x) {
        uint8_t *p = &src.at(x, y);
        p[0] = uint8_t(x), p[1] = uint8_t(y), p[2] = uint8_t(x >> 8 | (y >> 8) << 4);
      }
    ASSERT_EQ(zevImageResize_NN(nullptr, src.px.data(), src.pitch, g.sw, g.sh, dst.px.data(),
                                dst.pitch, g.dw, g.dh, g.c), HSEG_OK);
    for (int32_t dy = 0; dy < g.dh; ++dy) {
      const int64_t sy = nn_index(g.sh, g.dh, dy);
      for (int32_t dx = 0; dx < g.dw; ++dx) {
        const int64_t sx = nn_index(g.sw, g.dw, dx);
        if (g.c == 1) {
          ASSERT_EQ(dst.at(dx, dy), src.at(sx, sy)) << dx << "," << dy;
        } else {
          ASSERT_EQ(dst.at(dx, dy, 0) | (dst.at(dx, dy, 2) & 15) << 8, sx) << dx << "," << dy;
          ASSERT_EQ(dst.at(dx, dy, 1) | (dst.at(dx, dy, 2) >> 4) << 8, sy) << dx << "," << dy;
        }
      }
    }
    EXPECT_TRUE(dst.padding_untouched());
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
  std::vector<std::pair<int32_t, int32_t>> sizes = {
      {473, 1920}, {473, 470}, {473, 100}, {16, 16}, {16, 17}, {15, 32}, {1, 48}, {2000, 1999}};
  for (int i = 0; i < 40; ++i) sizes.emplace_back(1 + rng() % 300, 1 + rng() % 900);
  for (const auto &[sw, dw] : sizes) {
    std::vector<int32_t> cols(dw), bases(hseg::nearest_block_count(dw));
    for (int32_t d = 0; d < dw; ++d) cols[d] = static_cast<int32_t>(nn_index(sw, dw, d));
    std::vector<uint8_t> masks(16 * bases.size()), src(sw), a(dw + 16, 0x11), b(dw + 16, 0xEE);
    hseg::nearest_build_shuffle(cols.data(), dw, sw, bases.data(), masks.data());
    for (auto &v : src) v = static_cast<uint8_t>(rng());
    hseg::nearest_gather_c1_ref(src.data(), cols.data(), dw, a.data());
    hseg::nearest_gather_c1_ssse3(src.data(), cols.data(), bases.data(), masks.data(), dw,
                                  b.data());
    for (int32_t d = 0; d < dw; ++d) ASSERT_EQ(a[d], b[d]) << sw << "->" << dw << " column " << d;
    for (int32_t d = dw; d < dw + 16; ++d) ASSERT_EQ(b[d], 0xEE) << "wrote past the row";
    EXPECT_TRUE(sw < 32 || dw < sw || bases[0] >= 0) << "an enlargement takes the shuffle";
  }
#else
  GTEST_SKIP() << "no shuffle kernel in this build";
#endif
}

// Checked before anything is allocated or written; two channels and no
// destination rows are nothing to do.
TEST(Nearest, RejectsBadArgumentsBeforeAllocating) {
  const MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;
  std::vector<uint8_t> src(64 * 8, 1), dst(64 * 8, kCanary);
  const uint8_t *s = src.data();
  uint8_t *d = dst.data();
  const int32_t big = INT32_MAX;
  alloc_reset();
  const struct { const char *what; MRESULT got, want; } cases[] = {
      {"null source", zevImageResize_NN(nullptr, nullptr, 8, 8, 8, d, 8, 8, 8, 1), kBad},
      {"null destination", zevImageResize_NN(nullptr, s, 8, 8, 8, nullptr, 8, 8, 8, 1), kBad},
      {"zero source height", zevImageResize_NN(nullptr, s, 8, 8, 0, d, 8, 8, 8, 1), kBad},
      {"negative destination width", zevImageResize_NN(nullptr, s, 8, 8, 8, d, 8, -4, 8, 1), kBad},
      {"short destination pitch", zevImageResize_NN(nullptr, s, 24, 8, 8, d, 23, 8, 8, 3), kBad},
      {"row bytes overflow", zevImageResize_NN(nullptr, s, big, big / 2, 1, d, 8, 8, 8, 3), kBad},
      {"work block overflow", zevImageResize_NN(nullptr, s, 8, 8, 8, d, big, big / 5, 8, 1), kBad},
      {"two channels", zevImageResize_NN(nullptr, s, 16, 8, 8, d, 16, 8, 8, 2), HSEG_OK},
      {"no destination rows", zevImageResize_NN(nullptr, s, 8, 8, 8, d, 8, 8, 0, 1), HSEG_OK}};
  for (const auto &c : cases) EXPECT_EQ(c.got, c.want) << c.what;
  EXPECT_EQ(alloc_calls(), 0);
  EXPECT_TRUE(untouched(dst));
}

TEST(Nearest, AllocationFailureWritesNothingAndLeaksNothing) {
  std::vector<uint8_t> src(60 * 10, 9);
  for (int32_t channels : {1, 3})
    expect_clean_alloc_failures(3 * 33 * 7, [&](uint8_t *dst) {
      return zevImageResize_NN(nullptr, src.data(), 60, 20, 10, dst, 99, 33, 7, channels);
    });
}

}  // namespace
