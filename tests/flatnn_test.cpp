// The layer library against plain references: convolutions against a direct
// double-precision sum, the deconvolution as their adjoint, the column copy's
// fast path bit for bit, the row-major product; batch norm, activations,
// element-wise, pooling, interpolation, data, LRN and softmax layers; and
// their argument checks and allocation failures.
#include <cblas.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "flatnn/internal.h"
#include "hseg/flatnn.h"

// A request beyond the address space must come back as a null pointer (and
// so as Eigen's std::bad_alloc) under AddressSanitizer too.
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

// A seeded random source, a canary that shows unwritten values, bit
// comparison, a double-precision product reference, and a heap that fails a
// chosen allocation.
using Vec = std::vector<float>;
constexpr float kCanary = -12345.5f;

struct Rng {
  std::mt19937 gen;
  explicit Rng(unsigned seed) : gen(seed) {}
  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); }
  Vec floats(size_t n, float lo = -1.0f, float hi = 1.0f) {
    std::uniform_real_distribution<float> dist(lo, hi);
    Vec v(n);
    for (float &x : v) x = dist(gen);
    return v;
  }
};

bool same_bits(const Vec &a, const Vec &b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// got (M x N) against bias[n] + A (M x K) * B (K x N), row-major, summed in
// double; the tolerance bounds any order of float summation.
void expect_product_near(const float *got, const float *a, const float *b, const float *bias,
                         int m, int n, int k) {
  for (int i = 0; i < m * n; ++i) {
    double s = bias ? bias[i % n] : 0.0, mag = std::fabs(s);
    for (int j = 0; j < k; ++j) {
      const double p = double(a[i / n * k + j]) * b[j * n + i % n];
      s += p, mag += std::fabs(p);
    }
    ASSERT_NEAR(got[i], s, (k + 2) * FLT_EPSILON * mag) << m << "x" << n << "x" << k << " at " << i;
  }
}

// Counts allocations and live blocks; fails the fail_at-th allocation.
struct TestHeap {
  int64_t calls = 0, fail_at = 0, live = 0;
  hseg::flatnn::Heap heap() { return {alloc, release, this}; }
  static void *alloc(void *ctx, size_t bytes, bool zeroed) {
    auto *h = static_cast<TestHeap *>(ctx);
    if (++h->calls == h->fail_at) return nullptr;
    ++h->live;
    return zeroed ? std::calloc(bytes, 1) : std::malloc(bytes);
  }
  static void release(void *ctx, void *p) { --static_cast<TestHeap *>(ctx)->live, std::free(p); }
};

// Runs call(heap) once to count its allocations, then once with each of them
// failing: each failing run must return 4, leave `out` alone and leak
// nothing. Returns the number of allocations.
template <typename Call>
int64_t expect_each_alloc_failure(Vec &out, Call call) {
  TestHeap counting;
  EXPECT_EQ(call(counting.heap()), 0u);
  for (int64_t i = 1; i <= counting.calls; ++i) {
    TestHeap failing;
    failing.fail_at = i;
    std::fill(out.begin(), out.end(), kCanary);
    EXPECT_EQ(call(failing.heap()), 4u) << "allocation " << i;
    EXPECT_EQ(failing.live, 0) << "allocation " << i;
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float v) { return v == kCanary; }));
  }
  return counting.calls;
}

using hseg::flatnn::ConvShape;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

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

TEST(FlatnnConvmul, RowMajorProductOverwritesResult) {
  Rng r(2);
  const int shapes[][3] = {{1, 1, 1}, {3, 5, 7}, {7, 3, 5}, {64, 33, 129}, {2, 300, 1}, {5, 4, 0}};
  for (const auto &s : shapes) {
    const int M = s[0], N = s[1], K = s[2];
    const auto lhs = r.floats(size_t(M) * K), rhs = r.floats(size_t(K) * N);
    Vec result(size_t(M) * N, kCanary);
    convmul(rhs.data(), lhs.data(), result.data(), M, N, K);
    expect_product_near(result.data(), lhs.data(), rhs.data(), nullptr, M, N, K);
  }
}

TEST(FlatnnConvmul, FailureLeavesResultUnwritten) {
  Vec a(6, 1.0f), result(6, kCanary);
  convmul(a.data(), a.data(), result.data(), -1, 2, 3);
  convmul(a.data(), nullptr, result.data(), 2, 3, 2);
  // M x N = 2^46 floats, beyond the address space: the temporary cannot be
  // had and the product gives up before touching result.
  const int big = 1 << 23;
  Vec lhs(big, 1.0f), rhs(big, 1.0f);
  convmul(rhs.data(), lhs.data(), result.data(), big, big, 1);
  EXPECT_EQ(result, Vec(6, kCanary));
}

// The scalar formula in its order of rounding, bit for bit, out of place and
// in place, with -0, infinity and a value whose centring overflows.
TEST(FlatnnNorm, BatchNormKeepsTheOrderOfRounding) {
  Rng r(11);
  const float eps = 1e-5f;
  for (int num : {1, 2})
    for (int ch : {1, 3, 17})
      for (int spatial : {1, 7, 64}) {
        Vec in = r.floats(size_t(num) * ch * spatial, -50.0f, 50.0f);
        const Vec scale = r.floats(ch, -3, 3), shift = r.floats(ch, -3, 3), mean = r.floats(ch, -5, 5);
        const Vec var = r.floats(ch, 0, 9);
        in[0] = -0.0f, in[in.size() / 2] = kInf, in.back() = 3e38f;
        Vec want(in.size()), out(in.size(), kCanary);
        for (size_t i = 0; i < in.size(); ++i) {
          const int c = int(i / spatial) % ch;
          const float inv_std = float(std::pow(double(var[c] + eps), -0.5));
          want[i] = ((in[i] - mean[c]) * inv_std) * scale[c] + shift[c];
        }
        auto bn = [&](const float *src, float *dst) {
          return ly_bn_frozen(src, dst, int(in.size()), num, ch, scale.data(), shift.data(),
                              mean.data(), var.data(), eps);
        };
        ASSERT_EQ(bn(in.data(), out.data()), 0u);
        EXPECT_TRUE(same_bits(out, want)) << num << "x" << ch << "x" << spatial;
        ASSERT_EQ(bn(in.data(), in.data()), 0u);
        EXPECT_TRUE(same_bits(in, want)) << num << "x" << ch << "x" << spatial;
      }
  Vec in(30), out(30);
  const float one = 1;  // 30 values are not a whole number of 4 x 1 channel blocks
  EXPECT_EQ(ly_bn_frozen(in.data(), out.data(), 30, 4, 1, &one, &one, &one, &one, eps), 2u);
}

TEST(FlatnnNorm, ActivationsAndElementwiseOnSpecialValues) {
  const float dn = std::numeric_limits<float>::denorm_min();
  Vec x = {-0.0f, 0.0f, kNaN, -kNaN, 1.5f, -1.5f, kInf, -kInf, dn, -dn}, out(10, kCanary);
  const Vec relu = {0.0f, 0.0f, 0.0f, 0.0f, 1.5f, 0.0f, kInf, 0.0f, dn, 0.0f};
  ASSERT_EQ(ly_relu_float(x.data(), out.data(), 5, 2, 1), 0u);
  EXPECT_TRUE(same_bits(out, relu));
  ASSERT_EQ(ly_relu_float(x.data(), x.data(), 1, 1, 10), 0u);
  EXPECT_TRUE(same_bits(x, relu));
  // Maximum: ties and NaN in either operand give b.
  const Vec a = {1, 0.0f, -0.0f, kNaN, 1, 2, 1}, b = {1, -0.0f, 0.0f, 1, kNaN, 1, 2};
  ASSERT_EQ(ly_etlwise_max(a.data(), b.data(), 7, 1, 1, out.data()), 0u);
  EXPECT_TRUE(same_bits(Vec(out.begin(), out.begin() + 7), {1, -0.0f, 0.0f, 1, kNaN, 2, 2}));
  // Sum: (0 + a) + b, which turns -0 + -0 into +0; the output may alias a.
  Rng r(8);
  Vec p = r.floats(1000), q = r.floats(1000), want(1000), sum(1000, kCanary);
  p[0] = q[0] = -0.0f, p[1] = kInf, q[1] = -kInf;
  for (int i = 0; i < 1000; ++i) want[i] = (0.0f + p[i]) + q[i];
  ASSERT_EQ(ly_etlwise_sum(p.data(), q.data(), 10, 20, 5, sum.data()), 0u);
  EXPECT_TRUE(same_bits(sum, want));
  ASSERT_EQ(ly_etlwise_sum(p.data(), q.data(), 1000, 1, 1, p.data()), 0u);
  EXPECT_TRUE(same_bits(p, want));
  // PReLU, per channel and shared.
  const Vec y = {-2, 3, -1, -4, 0.5f, -0.0f};
  const float slope[2] = {0.5f, -2.0f};
  ASSERT_EQ(ly_prelu(y.data(), out.data(), 6, 2, 0, slope), 0u);
  EXPECT_EQ(Vec(out.begin(), out.begin() + 6), (Vec{-1, 3, -0.5f, 8, 0.5f, 0}));
  ASSERT_EQ(ly_prelu(y.data(), out.data(), 6, 2, 1, slope), 0u);
  EXPECT_EQ(Vec(out.begin(), out.begin() + 6), (Vec{-1, 3, -0.5f, -2, 0.5f, 0}));
}

// Ceil sizes, windows clipped to the image (pads up to kernel - 1, so border
// windows), the average divided by the in-image count.
TEST(FlatnnPool, MatchesReferenceWithCeilSizes) {
  Rng r(21);
  for (int iter = 0; iter < 300; ++iter) {
    SCOPED_TRACE(iter);
    const int c = r.pick(1, 3), h = r.pick(1, 13), w = r.pick(1, 13), kh = r.pick(1, 4), kw = r.pick(1, 4);
    const int sh = r.pick(1, 3), sw = r.pick(1, 3), ph = r.pick(0, kh - 1), pw = r.pick(0, kw - 1);
    const int oh = int(std::ceil(float(h + 2 * ph - kh) / sh)) + 1, ow = int(std::ceil(float(w + 2 * pw - kw) / sw)) + 1;
    if (oh < 1 || ow < 1) continue;
    const Vec in = r.floats(size_t(c) * h * w);
    Vec mx(size_t(c) * oh * ow, kCanary), avg(mx);
    ASSERT_EQ(ly_pooling_max_float(in.data(), w, h, c, mx.data(), kw, kh, sw, sh, pw, ph), 0u);
    ASSERT_EQ(ly_pooling_avg_float(in.data(), w, h, c, avg.data(), kw, kh, sw, sh, pw, ph), 0u);
    for (size_t o = 0; o < mx.size(); ++o) {
      const int ch = int(o / (oh * ow)), y = int(o / ow % oh), x = int(o % ow);
      float m = -FLT_MAX;
      double s = 0, n = 0;
      for (int i = 0; i < kh; ++i)
        for (int j = 0; j < kw; ++j) {
          const int iy = y * sh - ph + i, ix = x * sw - pw + j;
          if (iy < 0 || iy >= h || ix < 0 || ix >= w) continue;
          const float v = in[(ch * h + iy) * w + ix];
          m = std::max(m, v), s += v, n += 1;
        }
      ASSERT_EQ(mx[o], m) << c << "x" << h << "x" << w << " k" << kh << "x" << kw << " at " << o;
      if (n > 0) {
        ASSERT_NEAR(avg[o], s / n, 1e-6) << c << "x" << h << "x" << w << " at " << o;
      }
    }
  }
  // A max window wholly in the padding stays -FLT_MAX; stride 0 is refused.
  Vec in(16, 1.0f), out(8, kCanary);
  ASSERT_EQ(ly_pooling_max_float(in.data(), 4, 4, 1, out.data(), 1, 1, 3, 3, 0, 2), 0u);
  EXPECT_EQ(out[0], -FLT_MAX);
  EXPECT_EQ(ly_pooling_max_float(in.data(), 4, 4, 1, out.data(), 1, 1, 0, 3, 0, 0), 2u);
}

TEST(FlatnnInterp, MatchesBilinearReference) {
  Rng r(31);
  for (int iter = 0; iter < 300; ++iter) {
    const int num = r.pick(1, 2), ch = r.pick(1, 3), hin = r.pick(1, 9), win = r.pick(1, 9);
    const int beg = -r.pick(0, 2), end = -r.pick(0, 2), hout = r.pick(1, 12), wout = r.pick(1, 12);
    const int h1 = hin + beg + end, w1 = win + beg + end;
    if (h1 < 1 || w1 < 1) continue;
    SCOPED_TRACE(::testing::Message() << hin << "x" << win << " pads " << beg << "," << end
                                      << " -> " << hout << "x" << wout);
    const Vec in = r.floats(size_t(num) * ch * hin * win);
    Vec out(size_t(num) * ch * hout * wout, kCanary);
    ASSERT_EQ(ly_interp(in.data(), out.data(), num, ch, hin, win, beg, end, hout, wout), 0u);
    // Equal sizes, a 1x1 destination and a 1x1 source copy exactly.
    const bool copies = (h1 == hout && w1 == wout) || (hout == 1 && wout == 1) || (h1 == 1 && w1 == 1);
    for (size_t o = 0; o < out.size(); ++o) {
      const int p = int(o / (hout * wout)), y = int(o / wout % hout), x = int(o % wout);
      const double sy = hout > 1 ? double(y) * (h1 - 1) / (hout - 1) : 0.0;
      const double sx = wout > 1 ? double(x) * (w1 - 1) / (wout - 1) : 0.0;
      const int y0 = std::min(int(sy), h1 - 1), x0 = std::min(int(sx), w1 - 1);
      const int y1 = std::min(y0 + 1, h1 - 1), x1 = std::min(x0 + 1, w1 - 1);
      auto at = [&](int yy, int xx) { return double(in[(size_t(p) * hin + yy - beg) * win + xx - beg]); };
      const double ly = sy - y0, lx = sx - x0;
      const double want = (1 - ly) * ((1 - lx) * at(y0, x0) + lx * at(y0, x1)) + ly * ((1 - lx) * at(y1, x0) + lx * at(y1, x1));
      ASSERT_NEAR(out[o], want, 1e-5) << "at " << o;
      if (copies) {
        ASSERT_EQ(out[o], float(at(y0, x0))) << "at " << o;
      }
    }
  }
}

TEST(FlatnnInterpDeathTest, ImpossibleWindowsAbortWithTheirTexts) {
  const Vec in(16, 1.0f);
  Vec out(64);
  EXPECT_DEATH(ly_interp(in.data(), out.data(), 1, 1, 4, 4, 1, 0, 8, 8),
               "flatnn:731: vb_cpu_interp2: Assertion `x1 >= 0 && y1 >= 0 && height1 > 0 && width1 > 0 "
               "&& x2 >= 0 && y2 >= 0 && height2 > 0 && width2 > 0' failed");
  EXPECT_DEATH(ly_interp(in.data(), out.data(), 1, 1, 4, 4, 0, 0, 0, 8), "flatnn:731");
  EXPECT_DEATH(ly_interp(in.data(), out.data(), 1, 1, 4, 4, 0, 1, 8, 8),
               "flatnn:732: vb_cpu_interp2: Assertion `Width1 >= width1 \\+ x1 && Height1 >= height1 "
               "\\+ y1 && Width2 >= width2 \\+ x2 && Height2 >= height2 \\+ y2' failed");
}

TEST(FlatnnData, ImageLayersAndCopies) {
  const int w = 5, h = 3, pitch = 3 * w + 4;  // 4 tail bytes per row, never read
  Rng r(4);
  std::vector<uint8_t> img(size_t(pitch) * h);
  for (auto &v : img) v = uint8_t(r.gen());
  const float mean3[3] = {104.008f, 116.669f, 122.675f};
  const Vec mean_img = r.floats(3 * w * h, 0, 255);
  for (int layer = 0; layer < 3; ++layer) {
    Vec out(3 * w * h + 1, kCanary);
    ASSERT_EQ(layer == 0   ? vb_ly_data_const_mean(img.data(), w, h, pitch, mean3, out.data())
              : layer == 1 ? ly_data_const_mean(img.data(), w, h, pitch, out.data(), 100.5f)
                           : ly_data(img.data(), w, h, pitch, mean_img.data(), out.data()), 0u);
    for (int i = 0; i < 3 * w * h; ++i) {
      const int k = i / (w * h), y = i / w % h, x = i % w;
      const float m = layer == 0 ? mean3[k] : layer == 1 ? 100.5f : mean_img[i];
      ASSERT_EQ(out[i], float(img[y * pitch + 3 * x + k]) - m) << layer << " " << i;
    }
    EXPECT_EQ(out.back(), kCanary);
  }
  Vec out(4, kCanary);
  EXPECT_EQ(ly_data_const_mean(img.data(), w, h, 3 * w - 1, out.data(), 0), 2u);  // pitch too short
  const uint8_t bytes[3] = {0, 10, 255};
  ASSERT_EQ(ly_data_split_mean_uchar(bytes, out.data(), 3, 10.0f, 0.5f), 0u);
  ASSERT_EQ(ly_data_split_mean_float(out.data(), out.data(), 3, 1.0f, 2.0f), 0u);
  EXPECT_EQ(out, (Vec{-12, -2, 243, kCanary}));

  Vec src(40), dst(16, kCanary);
  for (size_t i = 0; i < src.size(); ++i) src[i] = float(i);
  int offset = 0;  // successive appends, one skipped (a size of 0)
  const int appends[][4] = {{0, 1, 2, 3}, {20, 2, 1, 1}, {30, 1, 0, 5}, {30, 1, 1, 5}};
  for (const auto &c : appends)
    ASSERT_EQ(ly_concat_channels_float(src.data() + c[0], c[1], c[2], c[3], dst.data(), &offset), 0u);
  EXPECT_EQ(offset, 13);
  EXPECT_EQ(dst, (Vec{0, 1, 2, 3, 4, 5, 20, 21, 30, 31, 32, 33, 34, kCanary, kCanary, kCanary}));
  dst.assign(8, kCanary);
  ASSERT_EQ(ly_concat_5(src.data(), 2, src.data() + 10, 0, src.data() + 20, 3, nullptr, -1, src.data() + 30, 1, dst.data()), 0u);
  EXPECT_EQ(dst, (Vec{0, 1, 20, 21, 22, 30, kCanary, kCanary}));
  Vec a(4, kCanary), b(4, kCanary);
  ASSERT_EQ(ly_slice_one2two_with_channel_float(src.data(), 2, 2, 2, a.data(), b.data()), 0u);
  EXPECT_EQ(a, (Vec{0, 1, 2, 3}));
  EXPECT_EQ(b, (Vec{4, 5, 6, 7}));
  EXPECT_EQ(ly_slice_one2two_with_channel_float(src.data(), 1, 1, 3, a.data(), b.data()), 2u);
  for (auto copy : {ly_drop, ly_memory}) {
    Vec c(40, kCanary);
    ASSERT_EQ(copy(src.data(), c.data(), 40), 0u);
    ASSERT_EQ(copy(c.data(), c.data(), 40), 0u);
    EXPECT_EQ(c, src);
  }
}

TEST(FlatnnLrn, MatchesReferenceAndFailsCleanly) {
  Rng r(17);
  const int w = 3, h = 5, s = w * h;
  const float alpha = 0.37f, beta = 0.75f;
  for (int local : {1, 2, 3, 5})
    for (int ch : {1, 2, 6}) {
      const Vec in = r.floats(size_t(ch) * s, -3, 3);
      Vec out(in.size(), kCanary), inplace(in);
      ASSERT_EQ(ly_lrn_cross_float(in.data(), w, h, ch, out.data(), local, alpha, beta), 0u);
      for (int i = 0; i < ch * s; ++i) {
        double sum = 0;
        for (int k = i / s - (local - 1) / 2, n = 0; n < local; ++k, ++n)
          if (k >= 0 && k < ch) sum += double(in[k * s + i % s]) * in[k * s + i % s];
        const double want = std::pow(1.0 + alpha / local * sum, -beta) * in[i];
        ASSERT_NEAR(out[i], want, 1e-5 * (std::fabs(want) + 1)) << local << " " << ch << " " << i;
      }
      ASSERT_EQ(ly_lrn_cross_float(inplace.data(), w, h, ch, inplace.data(), local, alpha, beta), 0u);
      EXPECT_TRUE(same_bits(inplace, out));
    }
  const Vec in = r.floats(24);
  Vec out(24);
  EXPECT_GE(expect_each_alloc_failure(out, [&](const hseg::flatnn::Heap &heap) {
              return hseg::flatnn::lrn_cross_with(heap, in.data(), 2, 3, 4, out.data(), 3, 1e-4f, 0.75f);
            }), 1);
  EXPECT_EQ(ly_lrn_cross_float(in.data(), 2, 3, 4, out.data(), 0, 1e-4f, 0.75f), 2u);
}

TEST(FlatnnSoftmax, MatchesReferenceInAndOutOfPlace) {
  Rng r(23);
  for (int num : {1, 3})
    for (int ch : {1, 2, 5})
      for (int inner : {1, 9}) {
        const int count = num * ch * inner;
        const Vec in = r.floats(count, -100, 100);  // exp overflows floats without the max
        Vec out(count, kCanary), inplace(in);
        ASSERT_EQ(ly_softmax(in.data(), out.data(), count, num, ch), 0u);
        for (int i = 0; i < count; ++i) {
          const int base = i / (ch * inner) * ch * inner + i % inner;
          double mx = -1e30, z = 0;
          for (int c = 0; c < ch; ++c) mx = std::max(mx, double(in[base + c * inner]));
          for (int c = 0; c < ch; ++c) z += std::exp(in[base + c * inner] - mx);
          ASSERT_NEAR(out[i], std::exp(in[i] - mx) / z, 1e-6) << num << " " << ch << " " << inner;
        }
        ASSERT_EQ(ly_softmax(inplace.data(), inplace.data(), count, num, ch), 0u);
        EXPECT_TRUE(same_bits(inplace, out)) << num << " " << ch << " " << inner;
      }
  const Vec v = r.floats(12);
  Vec out(12);
  EXPECT_EQ(ly_softmax(v.data(), out.data(), 12, 5, 1), 2u);
  EXPECT_GE(expect_each_alloc_failure(out, [&](const hseg::flatnn::Heap &heap) {
              return hseg::flatnn::softmax_with(heap, v.data(), out.data(), 12, 2, 3);
            }), 1);
}

}  // namespace
