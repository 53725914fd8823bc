// The SSSE3 colour row kernels give the bytes of their references: random
// widths around the 16-pixel groups, misaligned pointers, outputs filled
// with a different canary for each path so an unwritten byte shows.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "ubo_lib/colour_rows.h"

#if defined(HSEG_UBO_HAVE_SSSE3)
namespace {

using namespace hseg::ubo;
using Bytes = std::vector<uint8_t>;

Bytes noise(size_t n, std::mt19937 &rng) {
  Bytes b(n);
  for (auto &v : b) v = uint8_t(rng());
  return b;
}

TEST(ColourRows, Ssse3MatchesTheReference) {
  if (!__builtin_cpu_supports("ssse3")) GTEST_SKIP() << "no SSSE3";
  std::mt19937 rng(14);
  for (int32_t w : {1, 2, 15, 16, 17, 31, 32, 33, 47, 64, 65, 130}) {
    for (int off = 0; off < 4; ++off) {
      SCOPED_TRACE(testing::Message() << "width " << w << ", offset " << off);
      const int32_t cw = 2 * ((w + 1) / 2);
      const Bytes bgr = noise(3 * w + off, rng), bgr2 = noise(3 * w + off, rng);
      const Bytes y = noise(w + off, rng), vu = noise(cw + off, rng);
      for (LumaWeights k : {kLuma128, kLumaBt601}) {
        Bytes a(w + off + 1, 0x11), b(w + off + 1, 0xEE);
        luma_row_c3_ref(bgr.data() + off, a.data() + off, w, k);
        luma_row_c3_ssse3(bgr.data() + off, b.data() + off, w, k);
        ASSERT_TRUE(std::equal(a.begin() + off, a.end() - 1, b.begin() + off))
            << "luma " << k.shift;
        ASSERT_TRUE(a.back() == 0x11 && b.back() == 0xEE);
      }
      Bytes a(3 * w + off + 1, 0x11), b(3 * w + off + 1, 0xEE);
      nv21_row_to_bgr_ref(y.data() + off, vu.data() + off, a.data() + off, w);
      nv21_row_to_bgr_ssse3(y.data() + off, vu.data() + off, b.data() + off, w);
      ASSERT_TRUE(std::equal(a.begin() + off, a.end() - 1, b.begin() + off)) << "to BGR";
      ASSERT_TRUE(a.back() == 0x11 && b.back() == 0xEE);
      for (const uint8_t *below : {bgr2.data() + off, static_cast<const uint8_t *>(nullptr)}) {
        Bytes c(cw + off + 1, 0x11), d(cw + off + 1, 0xEE);
        bgr_rows_to_vu_ref(bgr.data() + off, below, c.data() + off, w);
        bgr_rows_to_vu_ssse3(bgr.data() + off, below, d.data() + off, w);
        ASSERT_TRUE(std::equal(c.begin() + off, c.end() - 1, d.begin() + off)) << "to VU";
        ASSERT_TRUE(c.back() == 0x11 && d.back() == 0xEE);
      }
    }
  }
}

}  // namespace
#endif
