// Convolution layers against a direct double-precision reference.
#include <cblas.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "hseg/flatnn.h"
#include "support/flatnn_util.h"

namespace {

using namespace flatnn_test;
using hseg::flatnn::ConvShape;

struct Geo {
  int c, h, w, m, kh, kw, ph, pw, sh, sw, dh, dw, group;
};

int floor_rule(int in, int k, int p, int s, int d) { return (in + 2 * p - ((k - 1) * d + 1)) / s + 1; }

// Grouped, dilated convolution summed in double. Each output must lie within
// (terms + 2) * FLT_EPSILON * (sum of |terms|): the bound for any order of
// float summation.
void expect_matches_ref(const Geo &g, const Vec &in, const Vec &wt, const float *bias, int oh,
                        int ow, const Vec &out) {
  const int cg = g.c / g.group, mg = g.m / g.group;
  for (int m = 0; m < g.m; ++m)
    for (int y = 0; y < oh; ++y)
      for (int x = 0; x < ow; ++x) {
        double s = bias ? bias[m] : 0.0, mag = std::fabs(s);
        for (int ci = 0; ci < cg; ++ci)
          for (int i = 0; i < g.kh; ++i)
            for (int j = 0; j < g.kw; ++j) {
              const int iy = y * g.sh - g.ph + i * g.dh, ix = x * g.sw - g.pw + j * g.dw;
              if (iy < 0 || iy >= g.h || ix < 0 || ix >= g.w) continue;
              const double p = double(wt[((m * cg + ci) * g.kh + i) * g.kw + j]) *
                               in[(((m / mg) * cg + ci) * g.h + iy) * g.w + ix];
              s += p, mag += std::fabs(p);
            }
        ASSERT_NEAR(out[(m * oh + y) * ow + x], s, (cg * g.kh * g.kw + 2) * FLT_EPSILON * mag)
            << "at " << m << "," << y << "," << x;
      }
}

// Even cases: myc_forward_conv with dilations 1, 2, 4; odd cases:
// ly_conv_float with 1 to 3 groups. Both on odd sizes, strides 1 and 2, pads
// 0..4, plus the network's first layer (473 -> 237 by the floor rule). A
// geometry with no output returns 2 and writes nothing.
TEST(FlatnnConv, MatchesDirectReference) {
  Rng r(1234);
  const int dil[] = {1, 2, 4};
  for (int iter = -1; iter < 400; ++iter) {
    SCOPED_TRACE(iter);
    const bool dilated = iter % 2 != 1;  // the first case (iter -1) too
    const int group = dilated ? 1 : r.pick(1, 3);
    Geo g{group * r.pick(1, 3), r.pick(1, 13), r.pick(1, 13), group * r.pick(1, 3), r.pick(1, 3),
          r.pick(1, 3), r.pick(0, 4), r.pick(0, 4), r.pick(1, 2), r.pick(1, 2),
          dilated ? dil[r.pick(0, 2)] : 1, dilated ? dil[r.pick(0, 2)] : 1, group};
    if (iter < 0) g = {1, 473, 473, 2, 3, 3, 1, 1, 2, 2, 1, 1, 1};
    const int oh = floor_rule(g.h, g.kh, g.ph, g.sh, g.dh), ow = floor_rule(g.w, g.kw, g.pw, g.sw, g.dw);
    const auto in = r.floats(size_t(g.c) * g.h * g.w), bias = r.floats(g.m);
    const auto wt = r.floats(size_t(g.m) * g.c / g.group * g.kh * g.kw);
    const bool valid = oh >= 1 && ow >= 1;
    Vec out(valid ? size_t(g.m) * oh * ow : 8, kCanary), plain(out);
    auto run = [&](const float *b, float *o) {
      return dilated ? myc_forward_conv(in.data(), o, wt.data(), b, g.c, g.h, g.w, g.kh, g.kw, g.ph,
                                        g.pw, g.sh, g.sw, g.dh, g.dw, g.m)
                     : ly_conv_float(in.data(), g.w, g.h, g.c, g.group, wt.data(), b, g.kw, g.kh,
                                     g.pw, g.ph, g.sw, g.sh, o, g.m);
    };
    ASSERT_EQ(run(bias.data(), out.data()), valid ? 0u : 2u);
    if (!valid) {
      EXPECT_EQ(out, Vec(8, kCanary));
      continue;
    }
    expect_matches_ref(g, in, wt, bias.data(), oh, ow, out);
    // The bias step is a rank-1 product of the biases with ones accumulated
    // onto the bias-free result: bit for bit.
    ASSERT_EQ(run(nullptr, plain.data()), 0u);
    const Vec ones(oh * ow, 1.0f);
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, g.m, oh * ow, 1, 1.0f, bias.data(), 1,
                ones.data(), oh * ow, 1.0f, plain.data(), oh * ow);
    EXPECT_TRUE(same_bits(out, plain));
  }
}

// The deconvolution is the adjoint of ly_conv_float with the same weights and
// geometry: <conv(x), y> == <x, deconv(y)>. The bias adds to each plane.
TEST(FlatnnConv, DeconvIsAdjointOfGroupedConv) {
  Rng r(7);
  for (int iter = 0; iter < 300; ++iter) {
    SCOPED_TRACE(iter);
    const int group = r.pick(1, 3);
    const Geo g{group * r.pick(1, 3), r.pick(1, 9), r.pick(1, 9), group * r.pick(1, 3), r.pick(1, 4),
                r.pick(1, 4), r.pick(0, 2), r.pick(0, 2), r.pick(1, 3), r.pick(1, 3), 1, 1, group};
    const int oh = (g.h - 1) * g.sh - 2 * g.ph + g.kh, ow = (g.w - 1) * g.sw - 2 * g.pw + g.kw;
    const auto y = r.floats(size_t(g.c) * g.h * g.w), bias = r.floats(g.m);
    const auto wt = r.floats(size_t(g.c) * (g.m / group) * g.kh * g.kw);
    Vec out(oh >= 1 && ow >= 1 ? size_t(g.m) * oh * ow : 1, kCanary), biased(out);
    auto deconv = [&](const float *b, float *o) {
      return ly_deconv_float(y.data(), g.w, g.h, g.c, g.group, wt.data(), g.kw, g.kh, g.pw, g.ph,
                             g.sw, g.sh, o, b, g.m);
    };
    if (oh < 1 || ow < 1) {
      EXPECT_EQ(deconv(nullptr, out.data()), 2u);
      continue;
    }
    ASSERT_EQ(deconv(nullptr, out.data()), 0u);
    ASSERT_EQ(deconv(bias.data(), biased.data()), 0u);
    for (size_t i = 0; i < out.size(); ++i) ASSERT_EQ(biased[i], out[i] + bias[i / (oh * ow)]);
    const auto x = r.floats(out.size());
    Vec cx(y.size(), kCanary);
    ASSERT_EQ(ly_conv_float(x.data(), ow, oh, g.m, g.group, wt.data(), nullptr, g.kw, g.kh, g.pw,
                            g.ph, g.sw, g.sh, cx.data(), g.c), 0u);
    double lhs = 0, rhs = 0, mag = 0;
    for (size_t i = 0; i < y.size(); ++i) lhs += double(cx[i]) * y[i], mag += std::fabs(cx[i] * y[i]);
    for (size_t i = 0; i < x.size(); ++i) rhs += double(x[i]) * out[i];
    EXPECT_NEAR(lhs, rhs, 1e-5 * (mag + 1));
  }
}

TEST(FlatnnConv, InnerProductMatchesReference) {
  Rng r(5);
  for (int k : {1, 3, 257})
    for (int n : {1, 33}) {
      const auto in = r.floats(k), wt = r.floats(size_t(k) * n), b = r.floats(n);
      Vec out(n, kCanary);
      ASSERT_EQ(ly_inner_product(in.data(), k, out.data(), n, wt.data(), b.data()), 0u);
      expect_product_near(out.data(), in.data(), wt.data(), b.data(), 1, n, k);
    }
}

// The run-splitting column copy writes the same bits as the element-by-element
// one, and every value (the two start from different canaries).
TEST(FlatnnConv, Im2colFastPathMatchesReference) {
  Rng r(42);
  for (int iter = 0; iter < 2000; ++iter) {
    ConvShape s{r.pick(1, 3), r.pick(1, 17), r.pick(1, 17), r.pick(1, 4), r.pick(1, 4), r.pick(0, 5),
                r.pick(0, 5), r.pick(1, 3), r.pick(1, 3), r.pick(1, 4), r.pick(1, 4), 0, 0};
    if (!hseg::flatnn::conv_output_size(&s)) continue;
    const auto in = r.floats(size_t(s.channels) * s.height * s.width);
    const size_t n = size_t(s.channels) * s.kernel_h * s.kernel_w * s.out_h * s.out_w;
    Vec ref(n, kCanary), fast(n, 777.0f);
    hseg::flatnn::im2col_ref(in.data(), s, ref.data());
    hseg::flatnn::im2col(in.data(), s, fast.data());
    ASSERT_TRUE(same_bits(ref, fast)) << "iteration " << iter;
  }
}

TEST(FlatnnConv, RejectsBadArgumentsAndFailsCleanly) {
  const Vec in(64, 1.0f), wt(72, 1.0f), b(4, 1.0f);
  Vec out(120, kCanary);
  // c, h, w, kh, kw, ph, pw, sh, sw, dh, dw, m: zero stride, kernel, dilation,
  // outputs, channels; negative pad; C*H*W and H + 2*pad beyond INT32_MAX.
  const int bad[][12] = {{1, 4, 4, 3, 3, 1, 1, 0, 1, 1, 1, 1},     {1, 4, 4, 0, 3, 1, 1, 1, 1, 1, 1, 1},
                         {1, 4, 4, 3, 3, -1, 1, 1, 1, 1, 1, 1},    {1, 4, 4, 3, 3, 1, 1, 1, 1, 1, 0, 1},
                         {1, 4, 4, 3, 3, 1, 1, 1, 1, 1, 1, 0},     {0, 4, 4, 3, 3, 1, 1, 1, 1, 1, 1, 1},
                         {65536, 65536, 2, 1, 1, 0, 0, 1, 1, 1, 1, 1}, {1, 2147483647, 1, 1, 1, 1, 0, 1, 1, 1, 1, 1}};
  for (const auto &a : bad) {
    EXPECT_EQ(myc_forward_conv(in.data(), out.data(), wt.data(), nullptr, a[0], a[1], a[2], a[3], a[4],
                               a[5], a[6], a[7], a[8], a[9], a[10], a[11]), 2u) << a[0] << " " << a[1];
  }
  EXPECT_EQ(ly_conv_float(in.data(), 4, 4, 3, 2, wt.data(), nullptr, 1, 1, 0, 0, 1, 1, out.data(), 2), 2u);
  EXPECT_EQ(ly_deconv_float(in.data(), 4, 4, 2, 2, wt.data(), 1, 1, 0, 0, 1, 1, out.data(), nullptr, 3), 2u);
  EXPECT_EQ(out, Vec(120, kCanary));

  // 2 x 6 x 5 input, 3x3 kernels, pad 1, to 4 x 6 x 5 (and back up for the deconvolution).
  using hseg::flatnn::Heap;
  EXPECT_GE(expect_each_alloc_failure(out, [&](const Heap &h) {
              return hseg::flatnn::forward_conv_with(h, in.data(), out.data(), wt.data(), b.data(), 2,
                                                     6, 5, 3, 3, 1, 1, 1, 1, 1, 1, 4);
            }), 1);
  EXPECT_GE(expect_each_alloc_failure(out, [&](const Heap &h) {
              return hseg::flatnn::conv_float_with(h, in.data(), 5, 6, 2, 2, wt.data(), b.data(), 3,
                                                   3, 1, 1, 1, 1, out.data(), 4);
            }), 1);
  EXPECT_GE(expect_each_alloc_failure(out, [&](const Heap &h) {
              return hseg::flatnn::deconv_float_with(h, in.data(), 5, 6, 2, 1, wt.data(), 3, 3, 1, 1,
                                                     1, 1, out.data(), b.data(), 4);
            }), 1);
}

}  // namespace
