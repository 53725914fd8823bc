// CRF-guided upsampling and refinement: the 8.8 lift of the unary (step 32
// from 60 to 473, the zero guard, the spare row), the mask following a
// colour edge, the failure paths and argument checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "crf/upsampling.h"
#include "hseg/crf.h"
#include "support/alloc_hooks.h"
#include "support/crf_fixtures.h"
#include "support/guarded.h"

namespace {

struct Lift {
  static constexpr int kS = 60, kW = 473, kPlane = kS * kS;
  std::vector<float> scores, coarse, unary;
  Lift()
      : scores(hseg_test::random_floats(2 * kPlane, 0.01f, 0.98f, 4)),
        coarse(2 * kPlane + kS + 1, -1.0f),
        unary(2 * kW * kW, -1.0f) {}
  void run() { hseg::crf::lift_unary(scores.data(), kS, kS, kW, kW, coarse.data(), unary.data()); }
  float at(int label, int x, int y) const { return unary[2 * (y * kW + x) + label]; }
};

// Output 8a falls on coarse sample a with zero fraction, up to 472 -> 59.
// Negative and NaN scores count as probability 0. A zero unary at a coarse
// sample zeroes every output whose four samples include it (whatever their
// weights), and only those:
// output (x, y) of label L samples columns x/8, x/8 + 1 of the flat rows
// 60L + y/8 and 60L + y/8 + 1, where row 120 is the spare copy of row 119.
TEST(Upsampling, LiftStepsBy32From60To473WithTheZeroGuard) {
  constexpr int kS = Lift::kS, kPlane = Lift::kPlane;
  struct Zero {
    int plane, cx, cy;
  };
  // Interior; plane 1's last row (read again through the spare row); plane
  // 1's first row (also plane 0's row below its last).
  const Zero zeros[] = {{1, 10, 20}, {1, 5, 59}, {1, 3, 0}};
  Lift l;
  l.scores[5] = -3.0f;
  l.scores[6] = std::nanf("");
  // A score whose unary -ln(p + 0.00001) is exactly zero.
  for (const Zero &z : zeros) l.scores[z.plane * kPlane + z.cy * kS + z.cx] = 1.0f - 0.00001f;
  l.run();
  EXPECT_EQ(l.coarse[5], 11.512925f);  // probability 0
  EXPECT_EQ(l.coarse[6], 11.512925f);
  EXPECT_EQ(l.coarse[7], static_cast<float>(-std::log(static_cast<double>(l.scores[7] + 0.00001f))));
  // The spare row repeats plane 1's last row, then its first value: outputs
  // of the last rows read it with weight 0, where only the zero guard sees it.
  for (int x = 0; x < kS; ++x) EXPECT_EQ(l.coarse[2 * kPlane + x], l.coarse[2 * kPlane - kS + x]);
  EXPECT_EQ(l.coarse[2 * kPlane + kS], l.coarse[2 * kPlane - kS]);
  for (int label = 0; label < 2; ++label)
    for (int y = 0; y < Lift::kW; ++y)
      for (int x = 0; x < Lift::kW; ++x) {
        bool hit = false;
        const int r = label * kS + y / 8;
        for (const Zero &z : zeros) {
          const int zr = z.plane * kS + z.cy;
          hit |= (x / 8 == z.cx || x / 8 + 1 == z.cx) &&
                 (r == zr || r + 1 == zr || (zr == 2 * kS - 1 && r + 1 == 2 * kS));
        }
        ASSERT_EQ(l.at(label, x, y) == 0.0f, hit) << label << ": " << x << ", " << y;
        if (!hit && x % 8 == 0 && y % 8 == 0) {
          ASSERT_EQ(l.at(label, x, y), l.coarse[label * kPlane + y / 8 * kS + x / 8]) << x << ", " << y;
        }
      }
}

// A BGR guide and a grey mask of w x h, both with padded rows; the mask's
// bytes start at 77 so that writes outside the image show.
struct Images {
  int W, H;
  std::vector<uint8_t> guide, mask;
  OffscreenImage g{HSEG_PIXFMT_BGR24, 0, 0, {}, {}}, out{HSEG_PIXFMT_GRAY, 0, 0, {}, {}};
  Images(int w, int h)
      : W(w), H(h), guide(static_cast<size_t>(3 * w + 4) * h), mask(static_cast<size_t>(w + 3) * h, 77) {
    g.width = out.width = w;
    g.height = out.height = h;
    g.planes[0] = guide.data();
    g.pitches[0] = 3 * w + 4;
    out.planes[0] = mask.data();
    out.pitches[0] = w + 3;
  }
  uint8_t mask_at(int x, int y) const { return mask[static_cast<size_t>(y) * out.pitches[0] + x]; }
};

UpsamplingParams pipeline_params() {
  UpsamplingParams p;
  EXPECT_EQ(ParamUpsampling2(&p), &p);
  p.smooth_weight = 16.0f;
  p.appear_weight = 15.0f;
  return p;
}

// The guide has a colour disc; the coarse scores put the person in a disc
// shifted by a few pixels. The mask must follow the colour edge.
TEST(Upsampling, MaskFollowsTheColourEdgeNotTheCoarseBoundary) {
  const int W = 96, H = 96, S = 12;
  Images im(W, H);
  const hseg_test::Disc colour_disc{48, 48, 28}, coarse_disc{53, 48, 31};  // 5 px right, larger
  const int inside[3] = {60, 110, 210}, outside[3] = {190, 150, 70};
  hseg_test::paint_disc(im.guide.data(), im.g.pitches[0], W, H, colour_disc, inside, outside, 8, 8);
  // Coarse cell centres inside the coarse disc favour the person.
  std::vector<float> scores(2 * S * S);
  for (int i = 0; i < S * S; ++i) {
    const float p = coarse_disc.contains((i % S) * 8 + 4, (i / S) * 8 + 4) ? 0.8f : 0.2f;
    scores[i] = 1.0f - p;
    scores[S * S + i] = p;
  }
  const UpsamplingParams params = pipeline_params();
  ASSERT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), S, S, &im.out), HSEG_OK);
  int wrong = 0, coarse_wrong = 0;  // pixels on the wrong side of the colour edge
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W + 3; ++x) {
      const uint8_t m = im.mask_at(x, y);
      if (x >= W) {  // the pitch padding is not written
        ASSERT_EQ(m, 77);
        continue;
      }
      ASSERT_TRUE(m == 0 || m == 255);
      wrong += (m == 255) != colour_disc.contains(x, y);
      coarse_wrong += coarse_disc.contains(x / 8 * 8 + 4, y / 8 * 8 + 4) != colour_disc.contains(x, y);
    }
  EXPECT_GT(coarse_wrong, 300);
  EXPECT_LT(wrong * 10, coarse_wrong) << wrong << " against " << coarse_wrong << " coarse";
}

// The CRF takes all its memory at set-up: every failed allocation, the last
// ones included, gives 4 with the mask untouched and nothing leaked.
TEST(Upsampling, EveryFailedAllocationIsReportedWithoutLeaks) {
  const int W = 24, H = 20, S = 6;
  std::vector<float> scores(2 * S * S);
  for (size_t i = 0; i < scores.size(); ++i) scores[i] = (i % 7) / 7.0f;
  UpsamplingParams params = pipeline_params();
  params.iterations = 2;
  hseg_test::for_each_alloc_failure([&](int64_t fail) {
    Images im(W, H);
    for (size_t i = 0; i < im.guide.size(); ++i) im.guide[i] = static_cast<uint8_t>(i * 37);
    const MRESULT st = DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), S, S, &im.out);
    EXPECT_EQ(st, fail == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "failing allocation " << fail;
    EXPECT_EQ(fail != 0, std::all_of(im.mask.begin(), im.mask.end(), [](uint8_t v) { return v == 77; }))
        << "failing allocation " << fail;
    EXPECT_EQ(hseg_test::alloc_live(), 0) << "failing allocation " << fail;
  });
}

// A coarse grid wider or taller than the guide is refused: the lift's steps
// would read only its first columns or rows (100x100 scores with the person
// on the right lifted to 40x40 gave all background).
TEST(Upsampling, RejectsBadArguments) {
  const int S = 4;
  std::vector<float> scores(2 * 17 * 13, 0.5f);
  const UpsamplingParams params = pipeline_params();
  struct Case {
    const char *what;
    void (*edit)(Images &);
    MRESULT want;
    uint32_t sw = S;
    int32_t sh = S;
  };
  const int32_t kHuge = 1 << 16;  // 2 * kHuge * kHuge floats overflow a 32-bit byte count
  const Case cases[] = {
      {"zero width", [](Images &m) { m.g.width = m.out.width = 0; }, HSEG_ERR_BAD_ARGUMENT},
      {"negative height", [](Images &m) { m.g.height = m.out.height = -3; }, HSEG_ERR_BAD_ARGUMENT},
      {"output narrower", [](Images &m) { m.out.width -= 1; }, HSEG_ERR_BAD_ARGUMENT},
      {"output shorter", [](Images &m) { m.out.height -= 1; }, HSEG_ERR_BAD_ARGUMENT},
      {"guide pitch", [](Images &m) { m.g.pitches[0] = 3 * m.W - 1; }, HSEG_ERR_BAD_ARGUMENT},
      {"output pitch", [](Images &m) { m.out.pitches[0] = m.W - 1; }, HSEG_ERR_BAD_ARGUMENT},
      {"grey guide", [](Images &m) { m.g.format = HSEG_PIXFMT_GRAY; }, HSEG_ERR_FORMAT},
      {"BGR output", [](Images &m) { m.out.format = HSEG_PIXFMT_BGR24; }, HSEG_ERR_FORMAT},
      {"coarse wider than the guide", [](Images &) {}, HSEG_ERR_BAD_ARGUMENT, 17, S},
      {"coarse taller than the guide", [](Images &) {}, HSEG_ERR_BAD_ARGUMENT, S, 13},
      {"2 * sw * sh overflows", [](Images &m) {
         m.g.width = m.out.width = m.g.height = m.out.height = 1 << 16;
         m.g.pitches[0] = 3 << 16, m.out.pitches[0] = 1 << 16;
       }, HSEG_ERR_BAD_ARGUMENT, kHuge, kHuge},
  };
  for (const Case &c : cases) {
    Images im(16, 12);
    c.edit(im);
    EXPECT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), c.sw, c.sh, &im.out), c.want)
        << c.what;
    for (uint8_t v : im.mask) ASSERT_EQ(v, 77) << c.what;  // nothing written on failure
  }
  EXPECT_EQ(hseg_test::alloc_live(), 0);
}

// Guide, scores and mask each end (or begin) at an inaccessible page, rows
// packed: the pipeline's sizes, odd ones, and a coarse grid as large as the
// guide. Every call must succeed without touching memory outside them.
TEST(Upsampling, StaysInsideGuardedBuffers) {
  using hseg_test::GuardedBuffer;
  using hseg_test::GuardedImage;
  const struct { int W, H, sw, sh; } cases[] = {{473, 473, 60, 60}, {37, 29, 7, 5}, {9, 6, 9, 6}};
  UpsamplingParams params = pipeline_params();
  params.iterations = 2;
  for (const auto &c : cases) {
    for (const auto mode : {GuardedBuffer::kGuardAfter, GuardedBuffer::kGuardBefore}) {
      GuardedImage guide(HSEG_PIXFMT_BGR24, c.W, c.H, mode), mask(HSEG_PIXFMT_GRAY, c.W, c.H, mode);
      for (int i = 0; i < 3 * c.W * c.H; ++i) guide.desc().planes[0][i] = uint8_t(i % 3 * (i / 3 % 7));
      const std::vector<float> values = hseg_test::random_floats(size_t(2) * c.sw * c.sh, 0.0f, 1.0f, 5);
      GuardedBuffer scores(values.size() * sizeof(float), mode);
      std::memcpy(scores.data(), values.data(), scores.size());
      EXPECT_EQ(DCR_Upsampling2(nullptr, &guide.desc(), &params, reinterpret_cast<float *>(scores.data()),
                                c.sw, c.sh, &mask.desc()), HSEG_OK) << c.W << "x" << c.H;
      const uint8_t *m = mask.desc().planes[0];
      EXPECT_TRUE(std::all_of(m, m + c.W * c.H, [](uint8_t v) { return v == 0 || v == 255; }));
    }
  }
}

// With two labels a pixel whose confidence c is below one half loses its
// label on the unary alone; a confident stray label flips only through the
// smoothness kernel.
TEST(DepthRefine, KeepsConfidentLabelsAndSmoothsUnsureOnes) {
  const int W = 20, H = 16, N = W * H;
  Images im(W, H);
  std::fill(im.guide.begin(), im.guide.end(), 128);
  std::vector<uint8_t> labels(N), conf(N, 230), out(N, 1), one(N, 42);
  for (int i = 0; i < N; ++i) labels[i] = (i % W) < W / 2 ? 10 : 200;
  labels[3 * W + 3] = 200;  // c = 0.16: the unary alone flips it
  conf[3 * W + 3] = 40;
  labels[8 * W + 4] = 200;  // c = 0.6: only the smoothness kernel flips it
  conf[8 * W + 4] = 153;
  auto desc = [&](uint8_t *p) { return OffscreenImage{HSEG_PIXFMT_GRAY, W, H, {p}, {}}; };
  OffscreenImage l = desc(labels.data()), c = desc(conf.data()), o = desc(out.data());
  UpsamplingParams params;
  ParamUpsampling2(&params);
  params.smooth_weight = params.appear_weight = 0.0f;
  ASSERT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &l, &c, &o), HSEG_OK);
  for (int i = 0; i < N; ++i) ASSERT_EQ(out[i], i == 3 * W + 3 ? 10 : labels[i]) << "pixel " << i;
  ParamUpsampling2(&params);
  ASSERT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &l, &c, &o), HSEG_OK);
  EXPECT_EQ(out[3 * W + 3], 10);
  EXPECT_EQ(out[8 * W + 4], 10);
  EXPECT_EQ(out[8 * W + 15], 200);
  EXPECT_EQ(hseg_test::alloc_live(), 0);

  OffscreenImage single = desc(one.data());  // one label: nothing to share 1 - c with
  EXPECT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &single, &c, &o), HSEG_ERR_BAD_ARGUMENT);
  c.width = W - 1;
  EXPECT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &l, &c, &o), HSEG_ERR_BAD_ARGUMENT);
}

}  // namespace
