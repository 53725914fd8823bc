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

// Runs `ref` and `fast` into n-byte outputs (misaligned by off) filled with
// different canaries, one byte longer than written: the same bytes, and the
// extra byte untouched.
template <typename Ref, typename Fast>
void expect_same(size_t n, int off, Ref ref, Fast fast) {
  Bytes a(n + off + 1, 0x11), b(n + off + 1, 0xEE);
  ref(a.data() + off);
  fast(b.data() + off);
  ASSERT_TRUE(std::equal(a.begin() + off, a.end() - 1, b.begin() + off));
  ASSERT_TRUE(a.back() == 0x11 && b.back() == 0xEE);
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
      const uint8_t *src = bgr.data() + off, *ys = y.data() + off, *vus = vu.data() + off;
      for (LumaWeights k : {kLuma128, kLumaBt601}) {
        expect_same(w, off, [&](uint8_t *o) { luma_row_c3_ref(src, o, w, k); },
                    [&](uint8_t *o) { luma_row_c3_ssse3(src, o, w, k); });
      }
      expect_same(3 * w, off, [&](uint8_t *o) { nv21_row_to_bgr_ref(ys, vus, o, w); },
                  [&](uint8_t *o) { nv21_row_to_bgr_ssse3(ys, vus, o, w); });
      for (const uint8_t *below : {bgr2.data() + off, static_cast<const uint8_t *>(nullptr)}) {
        expect_same(cw, off, [&](uint8_t *o) { bgr_rows_to_vu_ref(src, below, o, w); },
                    [&](uint8_t *o) { bgr_rows_to_vu_ssse3(src, below, o, w); });
      }
    }
  }
}

}  // namespace
#endif
