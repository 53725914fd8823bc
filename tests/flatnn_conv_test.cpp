// Convolution layers against direct double-precision references.
#include <cblas.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "flatnn_test_util.h"
#include "hseg/flatnn.h"

namespace {

using namespace flatnn_test;
using hseg::flatnn::ConvShape;

struct Geo {
  int c, h, w, m, kh, kw, ph, pw, sh, sw, dh, dw, group;
  std::string str() const {
    std::ostringstream o;
    o << "C" << c << " " << h << "x" << w << " M" << m << " k" << kh << "x" << kw << " pad " << ph
      << "," << pw << " stride " << sh << "," << sw << " dil " << dh << "," << dw << " group "
      << group;
    return o.str();
  }
};

int floor_rule(int in, int k, int p, int s, int d) { return (in + 2 * p - ((k - 1) * d + 1)) / s + 1; }

// Direct grouped, dilated convolution with double sums; mag receives the sum
// of the magnitudes of each output's terms, which bounds any float summation
// order's error.
std::vector<float> ref_conv(const Geo &g, const std::vector<float> &in, const std::vector<float> &wt,
                            const float *bias, int oh, int ow, std::vector<double> *mag) {
  const int cg = g.c / g.group, mg = g.m / g.group;
  std::vector<float> out(static_cast<size_t>(g.m) * oh * ow);
  mag->assign(out.size(), 0.0);
  for (int m = 0; m < g.m; ++m)
    for (int y = 0; y < oh; ++y)
      for (int x = 0; x < ow; ++x) {
        double s = bias ? bias[m] : 0.0, a = bias ? std::fabs(bias[m]) : 0.0;
        for (int ci = 0; ci < cg; ++ci)
          for (int i = 0; i < g.kh; ++i)
            for (int j = 0; j < g.kw; ++j) {
              const int iy = y * g.sh - g.ph + i * g.dh, ix = x * g.sw - g.pw + j * g.dw;
              if (iy < 0 || iy >= g.h || ix < 0 || ix >= g.w) continue;
              const int c = (m / mg) * cg + ci;
              const double p = double(wt[((m * cg + ci) * g.kh + i) * g.kw + j]) *
                               in[(c * g.h + iy) * g.w + ix];
              s += p;
              a += std::fabs(p);
            }
        out[(m * oh + y) * ow + x] = static_cast<float>(s);
        (*mag)[(m * oh + y) * ow + x] = a;
      }
  return out;
}

void expect_close(const std::vector<float> &got, const std::vector<float> &want,
                  const std::vector<double> &mag, int terms) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) {
    const double tol = (terms + 2) * FLT_EPSILON * mag[i] + 1e-30;
    ASSERT_NEAR(got[i], want[i], tol) << "at " << i;
  }
}

Geo random_geo(std::mt19937 &rng, bool dilated, int max_group) {
  auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  const int dil[] = {1, 2, 4};
  Geo g;
  g.group = pick(1, max_group);
  g.c = g.group * pick(1, 3);
  g.m = g.group * pick(1, 3);
  g.h = pick(1, 13), g.w = pick(1, 13), g.kh = pick(1, 3), g.kw = pick(1, 3);
  g.ph = pick(0, 4), g.pw = pick(0, 4), g.sh = pick(1, 2), g.sw = pick(1, 2);
  g.dh = dilated ? dil[pick(0, 2)] : 1;
  g.dw = dilated ? dil[pick(0, 2)] : 1;
  return g;
}

TEST(FlatnnConv, FloorRuleSizes) {
  struct { int in, k, p, s, d, out; } cases[] = {
      {473, 3, 1, 2, 1, 237}, {119, 3, 1, 2, 1, 60}, {60, 3, 2, 1, 2, 60}, {60, 3, 4, 1, 4, 60},
      {60, 1, 0, 1, 1, 60},   {5, 3, 0, 2, 1, 2},    {4, 3, 0, 2, 1, 1},   {2, 3, 0, 2, 1, 1}};
  for (const auto &c : cases) {
    ConvShape s{1, c.in, c.in, c.k, c.k, c.p, c.p, c.s, c.s, c.d, c.d, 0, 0};
    ASSERT_TRUE(hseg::flatnn::conv_output_size(&s)) << c.in;
    EXPECT_EQ(s.out_h, c.out) << c.in << " k" << c.k << " s" << c.s;
    EXPECT_EQ(s.out_w, c.out);
  }
}

// myc_forward_conv on random geometries and on the network's first layer
// shape; a rejected geometry returns 2 and writes nothing.
TEST(FlatnnConv, ForwardConvMatchesReference) {
  std::mt19937 rng(1234);
  std::vector<Geo> geos = {{1, 473, 473, 2, 3, 3, 1, 1, 2, 2, 1, 1, 1},
                           {3, 9, 7, 2, 1, 1, 0, 0, 1, 1, 1, 1, 1}};
  for (int i = 0; i < 300; ++i) geos.push_back(random_geo(rng, true, 1));
  for (const Geo &g : geos) {
    SCOPED_TRACE(g.str());
    const int oh = floor_rule(g.h, g.kh, g.ph, g.sh, g.dh), ow = floor_rule(g.w, g.kw, g.pw, g.sw, g.dw);
    const auto in = random_floats(rng, size_t(g.c) * g.h * g.w);
    const auto wt = random_floats(rng, size_t(g.m) * g.c * g.kh * g.kw);
    const auto bias = random_floats(rng, g.m);
    if (oh < 1 || ow < 1) {
      std::vector<float> out(16, kCanary);
      EXPECT_EQ(myc_forward_conv(in.data(), out.data(), wt.data(), bias.data(), g.c, g.h, g.w, g.kh,
                                 g.kw, g.ph, g.pw, g.sh, g.sw, g.dh, g.dw, g.m), 2u);
      EXPECT_EQ(out, std::vector<float>(16, kCanary));
      continue;
    }
    std::vector<float> out(size_t(g.m) * oh * ow, kCanary), plain(out.size(), kCanary);
    ASSERT_EQ(myc_forward_conv(in.data(), out.data(), wt.data(), bias.data(), g.c, g.h, g.w, g.kh,
                               g.kw, g.ph, g.pw, g.sh, g.sw, g.dh, g.dw, g.m), 0u);
    ASSERT_EQ(myc_forward_conv(in.data(), plain.data(), wt.data(), nullptr, g.c, g.h, g.w, g.kh,
                               g.kw, g.ph, g.pw, g.sh, g.sw, g.dh, g.dw, g.m), 0u);
    std::vector<double> mag;
    expect_close(out, ref_conv(g, in, wt, bias.data(), oh, ow, &mag), mag, g.c * g.kh * g.kw);
    expect_close(plain, ref_conv(g, in, wt, nullptr, oh, ow, &mag), mag, g.c * g.kh * g.kw);
    // The bias step equals a rank-1 product of the biases with ones added on.
    const int n = oh * ow;
    const std::vector<float> ones(n, 1.0f);
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, g.m, n, 1, 1.0f, bias.data(), 1,
                ones.data(), n, 1.0f, plain.data(), n);
    EXPECT_EQ(first_bit_difference(out, plain), -1);
  }
}

TEST(FlatnnConv, GroupedConvMatchesReference) {
  std::mt19937 rng(99);
  for (int iter = 0; iter < 200; ++iter) {
    const Geo g = random_geo(rng, false, 3);
    SCOPED_TRACE(g.str());
    const int oh = floor_rule(g.h, g.kh, g.ph, g.sh, 1), ow = floor_rule(g.w, g.kw, g.pw, g.sw, 1);
    if (oh < 1 || ow < 1) continue;
    const auto in = random_floats(rng, size_t(g.c) * g.h * g.w);
    const auto wt = random_floats(rng, size_t(g.m) * (g.c / g.group) * g.kh * g.kw);
    const auto bias = random_floats(rng, g.m);
    const float *b = (iter % 2) ? bias.data() : nullptr;
    std::vector<float> out(size_t(g.m) * oh * ow, kCanary);
    ASSERT_EQ(ly_conv_float(in.data(), g.w, g.h, g.c, g.group, wt.data(), b, g.kw, g.kh, g.pw,
                            g.ph, g.sw, g.sh, out.data(), g.m), 0u);
    std::vector<double> mag;
    expect_close(out, ref_conv(g, in, wt, b, oh, ow, &mag), mag, g.c / g.group * g.kh * g.kw);
  }
}

// Deconvolution against a direct scatter, and as the adjoint of ly_conv_float:
// <conv(x), y> == <x, deconv(y)> for the same weights and geometry.
TEST(FlatnnConv, DeconvIsAdjointOfGroupedConv) {
  std::mt19937 rng(7);
  for (int iter = 0; iter < 200; ++iter) {
    const Geo g = random_geo(rng, false, 3);  // deconv from g.c channels to g.m channels
    SCOPED_TRACE(g.str());
    const int oh = (g.h - 1) * g.sh - 2 * g.ph + g.kh, ow = (g.w - 1) * g.sw - 2 * g.pw + g.kw;
    const int cg = g.c / g.group, mg = g.m / g.group;
    const auto y = random_floats(rng, size_t(g.c) * g.h * g.w);
    const auto wt = random_floats(rng, size_t(g.c) * mg * g.kh * g.kw);
    const auto bias = random_floats(rng, g.m);
    if (oh < 1 || ow < 1) {
      std::vector<float> out(4, kCanary);
      EXPECT_EQ(ly_deconv_float(y.data(), g.w, g.h, g.c, g.group, wt.data(), g.kw, g.kh, g.pw,
                                g.ph, g.sw, g.sh, out.data(), nullptr, g.m), 2u);
      continue;
    }
    std::vector<float> out(size_t(g.m) * oh * ow, kCanary);
    ASSERT_EQ(ly_deconv_float(y.data(), g.w, g.h, g.c, g.group, wt.data(), g.kw, g.kh, g.pw, g.ph,
                              g.sw, g.sh, out.data(), bias.data(), g.m), 0u);
    std::vector<double> want(out.size()), mag(out.size());
    for (size_t i = 0; i < want.size(); ++i) want[i] = bias[i / (oh * ow)], mag[i] = std::fabs(want[i]);
    for (int ci = 0; ci < g.c; ++ci)
      for (int co = 0; co < mg; ++co)
        for (int i = 0; i < g.kh; ++i)
          for (int j = 0; j < g.kw; ++j)
            for (int yy = 0; yy < g.h; ++yy)
              for (int xx = 0; xx < g.w; ++xx) {
                const int oy = yy * g.sh - g.ph + i, ox = xx * g.sw - g.pw + j;
                if (oy < 0 || oy >= oh || ox < 0 || ox >= ow) continue;
                const size_t o = ((size_t(ci / cg) * mg + co) * oh + oy) * ow + ox;
                const double p = double(wt[((ci * mg + co) * g.kh + i) * g.kw + j]) * y[(ci * g.h + yy) * g.w + xx];
                want[o] += p;
                mag[o] += std::fabs(p);
              }
    std::vector<float> wantf(want.begin(), want.end());
    expect_close(out, wantf, mag, cg * g.kh * g.kw + cg);

    // Adjoint: the convolution from g.m x oh x ow back to g.c x h x w.
    ASSERT_EQ(ly_deconv_float(y.data(), g.w, g.h, g.c, g.group, wt.data(), g.kw, g.kh, g.pw, g.ph,
                              g.sw, g.sh, out.data(), nullptr, g.m), 0u);
    const auto x = random_floats(rng, out.size());
    std::vector<float> cx(y.size(), kCanary);
    ASSERT_EQ(ly_conv_float(x.data(), ow, oh, g.m, g.group, wt.data(), nullptr, g.kw, g.kh, g.pw,
                            g.ph, g.sw, g.sh, cx.data(), g.c), 0u);
    double lhs = 0, rhs = 0, scale = 0;
    for (size_t i = 0; i < y.size(); ++i) lhs += double(cx[i]) * y[i], scale += std::fabs(cx[i] * y[i]);
    for (size_t i = 0; i < x.size(); ++i) rhs += double(x[i]) * out[i];
    EXPECT_NEAR(lhs, rhs, 1e-5 * (scale + 1));
  }
}

TEST(FlatnnConv, InnerProductMatchesReference) {
  std::mt19937 rng(5);
  for (int k : {1, 3, 64, 257})
    for (int n : {1, 2, 33}) {
      const auto in = random_floats(rng, k), wt = random_floats(rng, size_t(k) * n), b = random_floats(rng, n);
      std::vector<float> out(n, kCanary);
      ASSERT_EQ(ly_inner_product(in.data(), k, out.data(), n, wt.data(), b.data()), 0u);
      for (int j = 0; j < n; ++j) {
        double s = b[j], a = std::fabs(b[j]);
        for (int i = 0; i < k; ++i) s += double(in[i]) * wt[i * n + j], a += std::fabs(in[i] * wt[i * n + j]);
        EXPECT_NEAR(out[j], s, (k + 2) * FLT_EPSILON * a) << k << "x" << n;
      }
    }
}

// The column copy's run-splitting path writes the same bits as the
// element-by-element one, on awkward geometries, every value written.
TEST(FlatnnConv, Im2colFastPathMatchesReference) {
  std::mt19937 rng(42);
  auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  for (int iter = 0; iter < 2000; ++iter) {
    ConvShape s{pick(1, 3), pick(1, 17), pick(1, 17), pick(1, 4), pick(1, 4), pick(0, 5), pick(0, 5),
                pick(1, 3), pick(1, 3), pick(1, 4), pick(1, 4), 0, 0};
    if (!hseg::flatnn::conv_output_size(&s)) continue;
    const auto in = random_floats(rng, size_t(s.channels) * s.height * s.width);
    const size_t n = size_t(s.channels) * s.kernel_h * s.kernel_w * s.out_h * s.out_w;
    std::vector<float> ref(n, kCanary), fast(n, 777.0f);
    hseg::flatnn::im2col_ref(in.data(), s, ref.data());
    hseg::flatnn::im2col(in.data(), s, fast.data());
    ASSERT_EQ(first_bit_difference(ref, fast), -1)
        << Geo{s.channels, s.height, s.width, 1, s.kernel_h, s.kernel_w, s.pad_h, s.pad_w,
               s.stride_h, s.stride_w, s.dilation_h, s.dilation_w, 1}.str();
  }
}

TEST(FlatnnConv, RejectsBadArguments) {
  const std::vector<float> in(64, 1.0f), wt(64, 1.0f);
  std::vector<float> out(64, kCanary);
  struct { int c, h, w, kh, kw, ph, pw, sh, sw, dh, dw, m; } bad[] = {
      {1, 4, 4, 3, 3, 1, 1, 0, 1, 1, 1, 1},  {1, 4, 4, 0, 3, 1, 1, 1, 1, 1, 1, 1},
      {1, 4, 4, 3, 3, -1, 1, 1, 1, 1, 1, 1}, {1, 4, 4, 3, 3, 1, 1, 1, 1, 1, 0, 1},
      {1, 4, 4, 3, 3, 1, 1, 1, 1, 1, 1, 0},  {0, 4, 4, 3, 3, 1, 1, 1, 1, 1, 1, 1},
      {1, 4, 4, 7, 3, 0, 1, 1, 1, 1, 1, 1},  {65536, 65536, 2, 1, 1, 0, 0, 1, 1, 1, 1, 1},
      {1, 2147483647, 1, 1, 1, 1, 0, 1, 1, 1, 1, 1}};
  for (const auto &b : bad) {
    EXPECT_EQ(myc_forward_conv(in.data(), out.data(), wt.data(), nullptr, b.c, b.h, b.w, b.kh, b.kw,
                               b.ph, b.pw, b.sh, b.sw, b.dh, b.dw, b.m), 2u) << b.c << " " << b.h;
  }
  EXPECT_EQ(myc_forward_conv(in.data(), out.data(), nullptr, nullptr, 1, 4, 4, 1, 1, 0, 0, 1, 1, 1, 1, 1), 2u);
  EXPECT_EQ(ly_conv_float(in.data(), 4, 4, 3, 2, wt.data(), nullptr, 1, 1, 0, 0, 1, 1, out.data(), 2), 2u);
  EXPECT_EQ(ly_deconv_float(in.data(), 4, 4, 2, 2, wt.data(), 1, 1, 0, 0, 1, 1, out.data(), nullptr, 3), 2u);
  EXPECT_EQ(out, std::vector<float>(64, kCanary));
}

TEST(FlatnnConv, AllocationFailuresReturn4) {
  std::mt19937 rng(3);
  const auto in = random_floats(rng, 2 * 6 * 5), wt = random_floats(rng, 4 * 2 * 9), b = random_floats(rng, 4);
  std::vector<float> out(4 * 6 * 5);
  using hseg::flatnn::Heap;
  EXPECT_EQ(expect_each_alloc_failure(out, [&](const Heap &h) {
              return hseg::flatnn::forward_conv_with(h, in.data(), out.data(), wt.data(), b.data(), 2,
                                                     6, 5, 3, 3, 1, 1, 1, 1, 1, 1, 4);
            }), 1);
  EXPECT_EQ(expect_each_alloc_failure(out, [&](const Heap &h) {
              return hseg::flatnn::conv_float_with(h, in.data(), 5, 6, 2, 2, wt.data(), b.data(), 3,
                                                   3, 1, 1, 1, 1, out.data(), 4);
            }), 1);
  std::vector<float> dout(4 * 6 * 5);  // deconv 2x6x5 -> 4x6x5 with k3 p1 s1
  EXPECT_EQ(expect_each_alloc_failure(dout, [&](const Heap &h) {
              return hseg::flatnn::deconv_float_with(h, in.data(), 5, 6, 2, 1, wt.data(), 3, 3, 1, 1,
                                                     1, 1, dout.data(), b.data(), 4);
            }), 2);
}

}  // namespace
