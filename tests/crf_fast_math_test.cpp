// Fast logarithm and exponentials: exact values at zero, the reduction
// thresholds and the cut-off, the accuracy of fast_exp over the range the
// inference uses, and the SSE2 form against the scalar one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "crf/fast_math.h"
#include "hseg/crf.h"

namespace {

TEST(FastMath, ValuesAtZeroThresholdsAndCutOff) {
  EXPECT_EQ(fast_exp(0.0f), 1.0f);
  EXPECT_EQ(fast_exp(-0.0f), 1.0f);
  EXPECT_GT(fast_exp(-20.0f), 0.0f);
  EXPECT_LT(fast_exp(-20.0f), 1e-8f);
  EXPECT_EQ(fast_exp(-20.5f), 0.0f);
  EXPECT_EQ(fast_exp(20.5f), 0.0f);  // the cut-off holds for either sign
  // -0.69 needs no reduction; -0.7 is halved once and squared once.
  EXPECT_EQ(fast_exp(-0.69f), very_fast_exp(0.69f));
  const float half = very_fast_exp(0.35f);
  EXPECT_EQ(fast_exp(-0.7f), half * half);
  EXPECT_EQ(fast_exp(0.7f), 1.0f / (half * half));
  EXPECT_EQ(very_fast_exp(0.0f), 1.0f);
  for (auto [x, want] : {std::pair{1.0f, 0.0f}, {2.0f, 1.0f}, {3.0f, 1.5f}, {0.25f, -2.0f}})
    EXPECT_EQ(fast_log2(x), want) << x;
  EXPECT_EQ(fast_log(2.0f), 0.6931472f);
  EXPECT_TRUE(std::isnan(fast_exp(std::nanf(""))));
}

TEST(FastMath, FastExpRelativeErrorOverTheInferenceRange) {
  double worst = 0.0;
  const int steps = 2000000;
  for (int i = 0; i <= steps; ++i) {
    const float x = -20.0f * static_cast<float>(i) / steps;
    const double exact = std::exp(static_cast<double>(x));
    worst = std::max(worst, std::fabs(fast_exp(x) - exact) / exact);
  }
  EXPECT_LT(worst, 1e-5);  // measured 5.8e-6 near -19.6: five squarings of the polynomial
}

#if defined(__SSE2__)
// Same bits as the scalar function, lane by lane: every float within 300 ulps
// of each reduction threshold, the cut-off and zero, on both sides and with
// both signs, random values, infinities, NaN, denormals and huge values.
TEST(FastMath, Sse2FastExpMatchesScalar) {
  std::vector<float> xs = {INFINITY, -INFINITY, std::nanf(""), 1e-40f, -1e-40f, 3e38f, -3e38f, 0};
  for (float c : {5.52f, 2.76f, 1.38f, 0.69f, 0.345f, 20.0f, 0.0f, 44.16f, 11.04f}) {
    float lo = c, hi = c;
    for (int i = 0; i < 300; ++i) {
      lo = std::nextafter(lo, -1e9f);
      hi = std::nextafter(hi, 1e9f);
      for (float v : {lo, hi, -lo, -hi}) xs.push_back(v);
    }
  }
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> u(-25.0f, 25.0f);
  for (int i = 0; i < 400000; ++i) xs.push_back(u(rng));
  for (size_t i = 0; i < xs.size(); i += 4) {
    float out[4];
    _mm_storeu_ps(out, hseg::crf::fast_exp_sse2(_mm_loadu_ps(&xs[i])));
    for (int l = 0; l < 4; ++l) {
      const float ref = fast_exp(xs[i + l]);
      ASSERT_EQ(std::memcmp(&out[l], &ref, 4), 0)
          << "x = " << xs[i + l] << " sse2 " << out[l] << " scalar " << ref;
    }
  }
}
#endif

}  // namespace
