// CRF-guided upsampling and refinement: the 8.8 lift of the unary (step 32
// from 60 to 473, the zero guard, the spare row), the mask following a
// colour edge, the failure paths and argument checks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "crf/upsampling.h"
#include "hseg/crf.h"
#include "support/alloc_hooks.h"

namespace {

// A score whose unary -ln(p + 0.00001) is exactly zero.
float zero_unary_score() {
  const float p = 1.0f - 0.00001f;
  EXPECT_EQ(p + 0.00001f, 1.0f);
  return p;
}

struct Lift {
  static constexpr int kS = 60, kW = 473, kPlane = kS * kS;
  std::vector<float> scores, coarse, unary;
  Lift() : scores(2 * kPlane), coarse(2 * kPlane + kS + 1, -1.0f), unary(2 * kW * kW, -1.0f) {
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> u(0.01f, 0.98f);
    for (float &s : scores) s = u(rng);
  }
  void run() { hseg::crf::lift_unary(scores.data(), kS, kS, kW, kW, coarse.data(), unary.data()); }
  float at(int label, int x, int y) const { return unary[2 * (y * kW + x) + label]; }
};

TEST(Upsampling, LiftStepsBy32From60To473) {
  Lift l;
  l.scores[5] = -3.0f;
  l.scores[6] = std::nanf("");
  l.run();
  EXPECT_EQ(l.coarse[5], 11.512925f);  // probability 0
  EXPECT_EQ(l.coarse[6], 11.512925f);
  EXPECT_EQ(l.coarse[7], static_cast<float>(-std::log(static_cast<double>(l.scores[7] + 0.00001f))));
  // Output 8a falls on coarse a with zero fraction, up to 472 -> 59.
  for (int label = 0; label < 2; ++label)
    for (int b = 0; b < Lift::kS; ++b)
      for (int a = 0; a < Lift::kS; ++a)
        ASSERT_EQ(l.at(label, 8 * a, 8 * b), l.coarse[label * Lift::kPlane + b * Lift::kS + a])
            << label << " " << a << " " << b;
  // The spare row repeats plane 1's last row, then its first value.
  for (int x = 0; x < Lift::kS; ++x)
    EXPECT_EQ(l.coarse[2 * Lift::kPlane + x], l.coarse[2 * Lift::kPlane - Lift::kS + x]);
  EXPECT_EQ(l.coarse[2 * Lift::kPlane + Lift::kS], l.coarse[2 * Lift::kPlane - Lift::kS]);
}

// A zero unary at a coarse sample zeroes every output whose four samples
// include it, and only those. Output i samples coarse columns i/8 and i/8+1.
TEST(Upsampling, ZeroGuardIncludingTheLastRows) {
  struct Case {
    int plane_of_zero, cx, cy;  // coarse cell holding the zero
    int label;                  // output plane that must see it
    int row_of_zero;            // coarse row as the output rows see it
  };
  const Case cases[] = {
      {1, 10, 20, 1, 20},  // interior
      {1, 5, 59, 1, 59},   // last row of plane 1: read again via the spare row
      {1, 3, 0, 0, 60},    // plane 1's first row is plane 0's row below its last
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "zero at plane " << c.plane_of_zero << " (" << c.cx
                                    << ", " << c.cy << ")");
    Lift l;
    l.scores[c.plane_of_zero * Lift::kPlane + c.cy * Lift::kS + c.cx] = zero_unary_score();
    l.run();
    for (int y = 0; y < Lift::kW; ++y)
      for (int x = 0; x < Lift::kW; ++x) {
        const bool hit = (x / 8 == c.cx || x / 8 + 1 == c.cx) &&
                         (y / 8 == c.row_of_zero || y / 8 + 1 == c.row_of_zero ||
                          (c.row_of_zero == 59 && y / 8 + 1 == 60));
        ASSERT_EQ(l.at(c.label, x, y) == 0.0f, hit) << "pixel " << x << ", " << y;
      }
  }
}

struct Images {
  int W, H;
  std::vector<uint8_t> guide, mask;
  OffscreenImage g{}, out{};
  Images(int w, int h) : W(w), H(h), guide(static_cast<size_t>(3 * w + 4) * h), mask(static_cast<size_t>(w + 3) * h, 77) {
    g.format = HSEG_PIXFMT_BGR24;
    g.width = w;
    g.height = h;
    g.planes[0] = guide.data();
    g.pitches[0] = 3 * w + 4;
    out.format = HSEG_PIXFMT_GRAY;
    out.width = w;
    out.height = h;
    out.planes[0] = mask.data();
    out.pitches[0] = w + 3;
  }
  uint8_t *pixel(int x, int y) { return &guide[static_cast<size_t>(y) * g.pitches[0] + 3 * x]; }
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
  std::mt19937 rng(8);
  std::uniform_int_distribution<int> noise(-8, 8);
  auto in_colour_disc = [](double x, double y) {
    return (x - 48) * (x - 48) + (y - 48) * (y - 48) < 28.0 * 28.0;
  };
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const bool in = in_colour_disc(x, y);
      const int base[3] = {in ? 60 : 190, in ? 110 : 150, in ? 210 : 70};
      for (int c = 0; c < 3; ++c) im.pixel(x, y)[c] = static_cast<uint8_t>(base[c] + noise(rng));
    }
  std::vector<float> scores(2 * S * S);
  int coarse_wrong = 0;
  for (int cy = 0; cy < S; ++cy)
    for (int cx = 0; cx < S; ++cx) {
      // Coarse disc 5 px to the right of the colour disc, 3 px larger.
      const double fx = cx * 8.0 + 4 - 5, fy = cy * 8.0 + 4;
      const float p = (fx - 48) * (fx - 48) + (fy - 48) * (fy - 48) < 31.0 * 31.0 ? 0.8f : 0.2f;
      scores[cy * S + cx] = 1.0f - p;
      scores[S * S + cy * S + cx] = p;
    }
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const double fx = (x / 8) * 8.0 + 4 - 5, fy = (y / 8) * 8.0 + 4;
      const bool coarse = (fx - 48) * (fx - 48) + (fy - 48) * (fy - 48) < 31.0 * 31.0;
      coarse_wrong += coarse != in_colour_disc(x, y);
    }
  const UpsamplingParams params = pipeline_params();
  ASSERT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), S, S, &im.out), HSEG_OK);
  int wrong = 0;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const uint8_t m = im.mask_at(x, y);
      ASSERT_TRUE(m == 0 || m == 255);
      wrong += (m == 255) != in_colour_disc(x, y);
    }
  for (int y = 0; y < H; ++y)  // the pitch padding is not written
    for (int x = W; x < W + 3; ++x) ASSERT_EQ(im.mask_at(x, y), 77);
  RecordProperty("coarse_wrong", coarse_wrong);
  RecordProperty("crf_wrong", wrong);
  EXPECT_GT(coarse_wrong, 300);
  EXPECT_LT(wrong * 10, coarse_wrong);
}

TEST(Upsampling, EveryFailedAllocationIsReportedOrSwallowedWithoutLeaks) {
  const int W = 24, H = 20, S = 6, iterations = 2;
  Images im(W, H);
  for (size_t i = 0; i < im.guide.size(); ++i) im.guide[i] = static_cast<uint8_t>(i * 37);
  std::vector<float> scores(2 * S * S);
  for (size_t i = 0; i < scores.size(); ++i) scores[i] = (i % 7) / 7.0f;
  UpsamplingParams params = pipeline_params();
  params.iterations = iterations;
  int64_t total = 0;
  total = hseg_test::for_each_alloc_failure([&](int64_t fail) {
    const MRESULT st = DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), S, S, &im.out);
    // The last allocations are the lattice buffers of the inference (two per
    // potential and iteration), whose failure the inference does not report.
    const int64_t in_inference = 2 * 2 * iterations;
    const bool reported = fail > 0 && fail <= total - in_inference;
    if (fail == 0) total = hseg_test::alloc_calls();
    EXPECT_EQ(st, reported ? HSEG_ERR_NO_MEMORY : HSEG_OK) << "failing allocation " << fail;
    EXPECT_EQ(hseg_test::alloc_live(), 0) << "failing allocation " << fail;
  });
  EXPECT_GT(total, 8 + 2 * 2 * iterations);
}

TEST(Upsampling, RejectsBadArguments) {
  const int S = 4;
  std::vector<float> scores(2 * S * S, 0.5f);
  const UpsamplingParams params = pipeline_params();
  struct Case {
    const char *what;
    void (*edit)(Images &);
    MRESULT want;
  };
  const Case cases[] = {
      {"null guide plane", [](Images &m) { m.g.planes[0] = nullptr; }, HSEG_ERR_BAD_ARGUMENT},
      {"null output plane", [](Images &m) { m.out.planes[0] = nullptr; }, HSEG_ERR_BAD_ARGUMENT},
      {"zero width", [](Images &m) { m.g.width = m.out.width = 0; }, HSEG_ERR_BAD_ARGUMENT},
      {"negative height", [](Images &m) { m.g.height = m.out.height = -3; }, HSEG_ERR_BAD_ARGUMENT},
      {"output narrower", [](Images &m) { m.out.width -= 1; }, HSEG_ERR_BAD_ARGUMENT},
      {"output shorter", [](Images &m) { m.out.height -= 1; }, HSEG_ERR_BAD_ARGUMENT},
      {"guide pitch", [](Images &m) { m.g.pitches[0] = 3 * m.W - 1; }, HSEG_ERR_BAD_ARGUMENT},
      {"output pitch", [](Images &m) { m.out.pitches[0] = m.W - 1; }, HSEG_ERR_BAD_ARGUMENT},
      {"grey guide", [](Images &m) { m.g.format = HSEG_PIXFMT_GRAY; }, HSEG_ERR_FORMAT},
      {"BGR output", [](Images &m) { m.out.format = HSEG_PIXFMT_BGR24; }, HSEG_ERR_FORMAT},
  };
  for (const Case &c : cases) {
    Images im(16, 12);
    c.edit(im);
    EXPECT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), S, S, &im.out), c.want)
        << c.what;
  }
  Images im(16, 12);
  EXPECT_EQ(DCR_Upsampling2(nullptr, nullptr, &params, scores.data(), S, S, &im.out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(DCR_Upsampling2(nullptr, &im.g, nullptr, scores.data(), S, S, &im.out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, nullptr, S, S, &im.out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), S, S, nullptr), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), 0, S, &im.out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), S, 0, &im.out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), 1u << 20, 1 << 12, &im.out),
            HSEG_ERR_BAD_ARGUMENT);  // 2 * sw * sh overflows
  EXPECT_EQ(ParamUpsampling2(nullptr), nullptr);
  EXPECT_EQ(hseg_test::alloc_live(), 0);
  for (uint8_t v : im.mask) ASSERT_EQ(v, 77);  // nothing written on failure
}

TEST(DepthRefine, KeepsConfidentLabelsAndSmoothsUnsureOnes) {
  const int W = 20, H = 16, N = W * H;
  Images im(W, H);
  std::fill(im.guide.begin(), im.guide.end(), 128);
  std::vector<uint8_t> labels(N), conf(N, 230), out(N, 1);
  for (int i = 0; i < N; ++i) labels[i] = (i % W) < W / 2 ? 10 : 200;
  labels[3 * W + 3] = 200;  // c = 0.16 < r: the unary alone flips it
  conf[3 * W + 3] = 40;
  labels[8 * W + 4] = 200;  // c = 0.6 > r: only the smoothness kernel flips it
  conf[8 * W + 4] = 153;
  auto desc = [&](uint8_t *p) {
    OffscreenImage d{};
    d.format = HSEG_PIXFMT_GRAY;
    d.width = W;
    d.height = H;
    d.planes[0] = p;
    return d;
  };
  OffscreenImage l = desc(labels.data()), c = desc(conf.data()), o = desc(out.data());
  UpsamplingParams params;
  ParamUpsampling2(&params);
  params.smooth_weight = 0.0f;
  params.appear_weight = 0.0f;
  ASSERT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &l, &c, &o), HSEG_OK);
  for (int i = 0; i < N; ++i) {
    const uint8_t want = i == 3 * W + 3 ? 10 : labels[i];
    ASSERT_EQ(out[i], want) << "pixel " << i;
  }
  ParamUpsampling2(&params);
  ASSERT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &l, &c, &o), HSEG_OK);
  EXPECT_EQ(out[3 * W + 3], 10);
  EXPECT_EQ(out[8 * W + 4], 10);
  EXPECT_EQ(out[8 * W + 15], 200);
  EXPECT_EQ(hseg_test::alloc_live(), 0);

  std::vector<uint8_t> one(N, 42);  // a single label: nothing to share 1 - c with
  OffscreenImage single = desc(one.data());
  EXPECT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &single, &c, &o), HSEG_ERR_BAD_ARGUMENT);
  OffscreenImage small = desc(conf.data());
  small.width = W - 1;
  EXPECT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &l, &small, &o), HSEG_ERR_BAD_ARGUMENT);
  OffscreenImage bgr = desc(out.data());
  bgr.format = HSEG_PIXFMT_BGR24;
  EXPECT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &l, &c, &bgr), HSEG_ERR_FORMAT);
  EXPECT_EQ(DCR_DepthRefine(nullptr, nullptr, &im.g, &l, &c, &o), HSEG_ERR_BAD_ARGUMENT);
}

}  // namespace
