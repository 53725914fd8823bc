// Batch normalisation, activations, element-wise, pooling, interpolation,
// data, LRN and softmax layers against plain references.
#include <cblas.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "flatnn_test_util.h"
#include "hseg/flatnn.h"

namespace {

using namespace flatnn_test;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// ---- batch normalisation, activations, element-wise ----

// Frozen batch norm as a count-sized spread of each per-channel vector by two
// rank-1 products, applied by element loops.
std::vector<float> bn_by_spreading(const std::vector<float> &in, int num, int ch, const float *scale,
                                   const float *shift, const float *mean, const float *var, float eps) {
  const int count = static_cast<int>(in.size()), spatial = count / num / ch;
  std::vector<float> ones_n(num, 1.0f), ones_s(spatial, 1.0f), mat(num * ch), spread(count), out(in);
  auto spread_vec = [&](const float *v, float alpha) {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, num, ch, 1, 1.0f, ones_n.data(), 1, v, ch,
                0.0f, mat.data(), ch);
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, num * ch, spatial, 1, alpha, mat.data(), 1,
                ones_s.data(), spatial, 0.0f, spread.data(), spatial);
  };
  spread_vec(mean, -1.0f);
  for (int i = 0; i < count; ++i) out[i] = out[i] + spread[i];
  std::vector<float> inv(var, var + ch);
  for (float &v : inv) v = static_cast<float>(std::pow(static_cast<double>(v + eps), -0.5));
  spread_vec(inv.data(), 1.0f);
  for (int i = 0; i < count; ++i) out[i] = out[i] * spread[i];
  spread_vec(scale, 1.0f);
  for (int i = 0; i < count; ++i) out[i] = out[i] * spread[i];
  spread_vec(shift, 1.0f);
  for (int i = 0; i < count; ++i) out[i] = out[i] + spread[i];
  return out;
}

TEST(FlatnnNorm, BatchNormKeepsTheOrderOfRounding) {
  std::mt19937 rng(11);
  const float eps = 1e-5f;
  for (int num : {1, 2})
    for (int ch : {1, 3, 17})
      for (int spatial : {1, 7, 64}) {
        SCOPED_TRACE(testing::Message() << num << "x" << ch << "x" << spatial);
        auto in = random_floats(rng, size_t(num) * ch * spatial, -50.0f, 50.0f);
        const auto scale = random_floats(rng, ch, -3.0f, 3.0f), shift = random_floats(rng, ch, -3.0f, 3.0f);
        const auto mean = random_floats(rng, ch, -5.0f, 5.0f), var = random_floats(rng, ch, 0.0f, 9.0f);
        const int count = static_cast<int>(in.size());
        std::vector<float> out(in.size(), kCanary);
        ASSERT_EQ(ly_bn_frozen(in.data(), out.data(), count, num, ch, scale.data(), shift.data(),
                               mean.data(), var.data(), eps), 0u);
        EXPECT_EQ(first_bit_difference(out, bn_by_spreading(in, num, ch, scale.data(), shift.data(),
                                                            mean.data(), var.data(), eps)), -1);
        // The scalar formula, also on special values, and in place.
        in[0] = -0.0f, in[in.size() / 2] = kInf, in.back() = 3e38f;
        std::vector<float> want(in.size());
        for (size_t i = 0; i < in.size(); ++i) {
          const int c = static_cast<int>(i / spatial) % ch;
          const float r = static_cast<float>(std::pow(static_cast<double>(var[c] + eps), -0.5));
          want[i] = ((in[i] - mean[c]) * r) * scale[c] + shift[c];
        }
        ASSERT_EQ(ly_bn_frozen(in.data(), out.data(), count, num, ch, scale.data(), shift.data(),
                               mean.data(), var.data(), eps), 0u);
        EXPECT_EQ(first_bit_difference(out, want), -1);
        ASSERT_EQ(ly_bn_frozen(in.data(), in.data(), count, num, ch, scale.data(), shift.data(),
                               mean.data(), var.data(), eps), 0u);
        EXPECT_EQ(first_bit_difference(in, want), -1);
      }
  // Unit scale, zero shift and mean, variance 1 - eps: the identity.
  std::vector<float> in = random_floats(rng, 30), out(30);
  const float one = 1.0f, zero = 0.0f, v = 1.0f - eps;
  ASSERT_EQ(ly_bn_frozen(in.data(), out.data(), 30, 1, 1, &one, &zero, &zero, &v, eps), 0u);
  for (int i = 0; i < 30; ++i) EXPECT_NEAR(out[i], in[i], 2 * FLT_EPSILON * std::fabs(in[i]));
  EXPECT_EQ(ly_bn_frozen(in.data(), out.data(), 30, 4, 1, &one, &zero, &zero, &v, eps), 2u);
  EXPECT_EQ(ly_bn_frozen(in.data(), out.data(), 30, 0, 1, &one, &zero, &zero, &v, eps), 2u);
}

TEST(FlatnnNorm, ReluAndMaxOnSpecialValues) {
  const float denorm = std::numeric_limits<float>::denorm_min();
  const std::vector<float> x = {-0.0f, 0.0f, kNaN, -kNaN, 1.5f, -1.5f, kInf, -kInf, denorm, -denorm};
  const std::vector<float> relu = {0.0f, 0.0f, 0.0f, 0.0f, 1.5f, 0.0f, kInf, 0.0f, denorm, 0.0f};
  std::vector<float> out(x.size(), kCanary), inplace(x);
  ASSERT_EQ(ly_relu_float(x.data(), out.data(), 5, 2, 1), 0u);
  ASSERT_EQ(ly_relu_float(inplace.data(), inplace.data(), 1, 1, 10), 0u);
  EXPECT_EQ(first_bit_difference(out, relu), -1);
  EXPECT_EQ(first_bit_difference(inplace, relu), -1);
  // Maximum: ties and NaN in either operand give b.
  const std::vector<float> a = {1.0f, 0.0f, -0.0f, kNaN, 1.0f, 2.0f, 1.0f};
  const std::vector<float> b = {1.0f, -0.0f, 0.0f, 1.0f, kNaN, 1.0f, 2.0f};
  const std::vector<float> mx = {1.0f, -0.0f, 0.0f, 1.0f, kNaN, 2.0f, 2.0f};
  out.assign(a.size(), kCanary);
  ASSERT_EQ(ly_etlwise_max(a.data(), b.data(), 7, 1, 1, out.data()), 0u);
  EXPECT_EQ(first_bit_difference(out, mx), -1);
}

TEST(FlatnnNorm, SumIsZeroPlusAThenB) {
  std::mt19937 rng(8);
  auto a = random_floats(rng, 1000), b = random_floats(rng, 1000);
  a[0] = -0.0f, b[0] = -0.0f, a[1] = kInf, b[1] = -kInf;
  std::vector<float> want(1000, 0.0f), out(1000, kCanary);
  cblas_saxpy(1000, 1.0f, a.data(), 1, want.data(), 1);
  cblas_saxpy(1000, 1.0f, b.data(), 1, want.data(), 1);
  ASSERT_EQ(ly_etlwise_sum(a.data(), b.data(), 10, 20, 5, out.data()), 0u);
  EXPECT_EQ(first_bit_difference(out, want), -1);
  EXPECT_EQ(bits(out[0]), bits(0.0f));  // (0 + -0) + -0 is +0
  ASSERT_EQ(ly_etlwise_sum(a.data(), a.data(), 1000, 1, 1, out.data()), 0u);
  for (int i = 2; i < 1000; ++i) ASSERT_EQ(out[i], 2 * a[i]);
  ASSERT_EQ(ly_etlwise_sum(a.data(), b.data(), 1000, 1, 1, a.data()), 0u);  // aliasing a
  EXPECT_EQ(first_bit_difference(a, want), -1);
}

TEST(FlatnnNorm, PreluPerChannelAndShared) {
  const std::vector<float> x = {-2.0f, 3.0f, -1.0f, -4.0f, 0.5f, -0.0f};
  const float slope[2] = {0.5f, -2.0f};
  std::vector<float> out(6, kCanary);
  ASSERT_EQ(ly_prelu(x.data(), out.data(), 6, 2, 0, slope), 0u);
  EXPECT_EQ(out, (std::vector<float>{-1.0f, 3.0f, -0.5f, 8.0f, 0.5f, 0.0f}));
  ASSERT_EQ(ly_prelu(x.data(), out.data(), 6, 2, 1, slope), 0u);
  EXPECT_EQ(out, (std::vector<float>{-1.0f, 3.0f, -0.5f, -2.0f, 0.5f, 0.0f}));
  EXPECT_EQ(ly_prelu(x.data(), out.data(), 1, 2, 0, slope), 2u);
}

// ---- pooling and interpolation ----

TEST(FlatnnPool, MatchesReferenceAndCeilSizes) {
  // Ceil rule: the size written is exactly pooled_h x pooled_w.
  struct { int in, k, s, p, out; } sizes[] = {
      {237, 3, 2, 1, 119}, {60, 60, 60, 0, 1}, {60, 30, 30, 0, 2}, {60, 20, 20, 0, 3},
      {60, 10, 10, 0, 6},  {5, 2, 2, 0, 3},    {6, 3, 2, 1, 4}};
  for (const auto &c : sizes) {
    std::vector<float> in(size_t(c.in) * c.in, 1.0f), out(size_t(c.out) * c.out + 1, kCanary);
    ASSERT_EQ(ly_pooling_max_float(in.data(), c.in, c.in, 1, out.data(), c.k, c.k, c.s, c.s, c.p, c.p), 0u);
    EXPECT_EQ(out[out.size() - 2], 1.0f) << c.in;
    EXPECT_EQ(out.back(), kCanary) << c.in;
  }
  std::mt19937 rng(21);
  auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  for (int iter = 0; iter < 300; ++iter) {
    const int c = pick(1, 3), h = pick(1, 13), w = pick(1, 13), kh = pick(1, 4), kw = pick(1, 4);
    const int sh = pick(1, 3), sw = pick(1, 3), ph = pick(0, kh - 1), pw = pick(0, kw - 1);
    const int oh = int(std::ceil(float(h + 2 * ph - kh) / sh)) + 1, ow = int(std::ceil(float(w + 2 * pw - kw) / sw)) + 1;
    SCOPED_TRACE(testing::Message() << c << "x" << h << "x" << w << " k" << kh << "x" << kw << " s" << sh << "," << sw << " p" << ph << "," << pw);
    if (oh < 1 || ow < 1) continue;
    const auto in = random_floats(rng, size_t(c) * h * w);
    std::vector<float> mx(size_t(c) * oh * ow, kCanary), avg(mx);
    ASSERT_EQ(ly_pooling_max_float(in.data(), w, h, c, mx.data(), kw, kh, sw, sh, pw, ph), 0u);
    ASSERT_EQ(ly_pooling_avg_float(in.data(), w, h, c, avg.data(), kw, kh, sw, sh, pw, ph), 0u);
    for (int ch = 0; ch < c; ++ch)
      for (int y = 0; y < oh; ++y)
        for (int x = 0; x < ow; ++x) {
          float m = -FLT_MAX;
          double s = 0;
          int n = 0;
          for (int i = 0; i < kh; ++i)
            for (int j = 0; j < kw; ++j) {
              const int iy = y * sh - ph + i, ix = x * sw - pw + j;
              if (iy < 0 || iy >= h || ix < 0 || ix >= w) continue;
              m = std::max(m, in[(ch * h + iy) * w + ix]), s += in[(ch * h + iy) * w + ix], ++n;
            }
          const size_t o = (size_t(ch) * oh + y) * ow + x;
          ASSERT_EQ(mx[o], m) << y << "," << x;
          if (n == 0) continue;  // a window wholly past the image
          ASSERT_NEAR(avg[o], s / n, 1e-6) << y << "," << x;
        }
  }
  // A border window is divided by its in-image count; an empty max window stays -FLT_MAX.
  std::vector<float> img(16), out(9, kCanary);
  for (int i = 0; i < 16; ++i) img[i] = float(i + 1);
  ASSERT_EQ(ly_pooling_avg_float(img.data(), 4, 4, 1, out.data(), 3, 3, 2, 2, 1, 1), 0u);
  EXPECT_EQ(out, (std::vector<float>{3.5f, 5, 6, 9.5f, 11, 12, 13.5f, 15, 16}));
  ASSERT_EQ(ly_pooling_max_float(img.data(), 4, 4, 1, out.data(), 1, 1, 3, 3, 0, 2), 0u);
  EXPECT_EQ(out[0], -FLT_MAX);
  EXPECT_EQ(ly_pooling_max_float(img.data(), 4, 4, 1, out.data(), 1, 1, 0, 3, 0, 0), 2u);
}

TEST(FlatnnInterp, MatchesBilinearReference) {
  std::mt19937 rng(31);
  auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  for (int iter = 0; iter < 300; ++iter) {
    const int num = pick(1, 2), ch = pick(1, 3), hin = pick(1, 9), win = pick(1, 9);
    const int beg = -pick(0, 2), end = -pick(0, 2), hout = pick(1, 12), wout = pick(1, 12);
    const int h1 = hin + beg + end, w1 = win + beg + end;
    if (h1 < 1 || w1 < 1) continue;
    SCOPED_TRACE(testing::Message() << hin << "x" << win << " pads " << beg << "," << end << " -> " << hout << "x" << wout);
    const auto in = random_floats(rng, size_t(num) * ch * hin * win);
    std::vector<float> out(size_t(num) * ch * hout * wout, kCanary);
    ASSERT_EQ(ly_interp(in.data(), out.data(), num, ch, hin, win, beg, end, hout, wout), 0u);
    for (int p = 0; p < num * ch; ++p)
      for (int y = 0; y < hout; ++y)
        for (int x = 0; x < wout; ++x) {
          const double sy = hout > 1 ? double(y) * (h1 - 1) / (hout - 1) : 0.0;
          const double sx = wout > 1 ? double(x) * (w1 - 1) / (wout - 1) : 0.0;
          const int y0 = std::min(int(sy), h1 - 1), x0 = std::min(int(sx), w1 - 1);
          const int y1 = std::min(y0 + 1, h1 - 1), x1 = std::min(x0 + 1, w1 - 1);
          auto at = [&](int yy, int xx) { return double(in[(size_t(p) * hin + yy - beg) * win + xx - beg]); };
          const double ly = sy - y0, lx = sx - x0;
          const double want = (1 - ly) * ((1 - lx) * at(y0, x0) + lx * at(y0, x1)) +
                              ly * ((1 - lx) * at(y1, x0) + lx * at(y1, x1));
          const float got = out[(size_t(p) * hout + y) * wout + x];
          ASSERT_NEAR(got, want, 1e-5) << y << "," << x;
          // Equal sizes, a 1x1 destination and a 1x1 source copy exactly.
          if ((h1 == hout && w1 == wout) || (hout == 1 && wout == 1)) {
            ASSERT_EQ(got, float(at(y0, x0)));
          }
          if (h1 == 1 && w1 == 1) {
            ASSERT_EQ(got, float(at(0, 0)));
          }
        }
  }
}

TEST(FlatnnInterpDeathTest, ImpossibleWindowsAbortWithTheirTexts) {
  const std::vector<float> in(16, 1.0f);
  std::vector<float> out(64);
  EXPECT_DEATH(ly_interp(in.data(), out.data(), 1, 1, 4, 4, 1, 0, 8, 8),
               "flatnn:731: vb_cpu_interp2: Assertion `x1 >= 0 && y1 >= 0 && height1 > 0 && width1 > 0 "
               "&& x2 >= 0 && y2 >= 0 && height2 > 0 && width2 > 0' failed");
  EXPECT_DEATH(ly_interp(in.data(), out.data(), 1, 1, 4, 4, 0, 0, 0, 8), "flatnn:731");
  EXPECT_DEATH(ly_interp(in.data(), out.data(), 1, 1, 4, 4, 0, 1, 8, 8),
               "flatnn:732: vb_cpu_interp2: Assertion `Width1 >= width1 \\+ x1 && Height1 >= height1 "
               "\\+ y1 && Width2 >= width2 \\+ x2 && Height2 >= height2 \\+ y2' failed");
}

// ---- data, concatenation, copies ----

TEST(FlatnnData, ImageToPlanesHonoursPitch) {
  const int w = 5, h = 3, pitch = 3 * w + 4;
  std::mt19937 rng(4);
  std::vector<uint8_t> img(size_t(pitch) * h);
  for (auto &v : img) v = static_cast<uint8_t>(rng());
  for (int y = 0; y < h; ++y) std::fill_n(img.begin() + y * pitch + 3 * w, 4, 0xEE);  // row tails
  const float mean3[3] = {104.008f, 116.669f, 122.675f};
  const auto mean_img = random_floats(rng, 3 * w * h, 0.0f, 255.0f);
  for (int layer = 0; layer < 3; ++layer) {
    std::vector<float> out(3 * w * h + 1, kCanary);
    uint64_t st = 0;
    if (layer == 0) st = vb_ly_data_const_mean(img.data(), w, h, pitch, mean3, out.data());
    if (layer == 1) st = ly_data_const_mean(img.data(), w, h, pitch, out.data(), 100.5f);
    if (layer == 2) st = ly_data(img.data(), w, h, pitch, mean_img.data(), out.data());
    ASSERT_EQ(st, 0u);
    for (int k = 0; k < 3; ++k)
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const int i = (k * h + y) * w + x;
          const float m = layer == 0 ? mean3[k] : layer == 1 ? 100.5f : mean_img[i];
          ASSERT_EQ(out[i], float(img[y * pitch + 3 * x + k]) - m) << layer << " " << i;
        }
    EXPECT_EQ(out.back(), kCanary);
  }
  std::vector<float> out(4, kCanary);
  EXPECT_EQ(ly_data_const_mean(img.data(), w, 0, pitch, out.data(), 0.0f), 0u);
  EXPECT_EQ(ly_data_const_mean(img.data(), w, h, 3 * w - 1, out.data(), 0.0f), 2u);
  EXPECT_EQ(out, std::vector<float>(4, kCanary));
  const uint8_t bytes[3] = {0, 10, 255};
  ASSERT_EQ(ly_data_split_mean_uchar(bytes, out.data(), 3, 10.0f, 0.5f), 0u);
  EXPECT_EQ(out, (std::vector<float>{-5.0f, 0.0f, 122.5f, kCanary}));
  ASSERT_EQ(ly_data_split_mean_float(out.data(), out.data(), 3, 1.0f, 2.0f), 0u);
  EXPECT_EQ(out, (std::vector<float>{-12.0f, -2.0f, 243.0f, kCanary}));
}

TEST(FlatnnData, ConcatSliceAndCopies) {
  std::vector<float> src(40);
  for (size_t i = 0; i < src.size(); ++i) src[i] = float(i);
  std::vector<float> out(16, kCanary);
  int offset = 0;
  ASSERT_EQ(ly_concat_channels_float(src.data(), 1, 2, 3, out.data(), &offset), 0u);
  ASSERT_EQ(ly_concat_channels_float(src.data() + 20, 2, 1, 1, out.data(), &offset), 0u);
  ASSERT_EQ(ly_concat_channels_float(src.data() + 30, 1, 0, 5, out.data(), &offset), 0u);
  ASSERT_EQ(ly_concat_channels_float(src.data() + 30, 1, 1, 5, out.data(), &offset), 0u);
  EXPECT_EQ(offset, 13);
  EXPECT_EQ(out, (std::vector<float>{0, 1, 2, 3, 4, 5, 20, 21, 30, 31, 32, 33, 34, kCanary, kCanary, kCanary}));
  offset = 2147483646;
  EXPECT_EQ(ly_concat_channels_float(src.data(), 1, 1, 2, out.data(), &offset), 2u);

  out.assign(16, kCanary);
  ASSERT_EQ(ly_concat_5(src.data(), 2, src.data() + 10, 0, src.data() + 20, 3, nullptr, -1,
                        src.data() + 30, 1, out.data()), 0u);
  EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + 7), (std::vector<float>{0, 1, 20, 21, 22, 30, kCanary}));
  EXPECT_EQ(ly_concat_5(src.data(), 2, nullptr, 1, src.data(), 1, src.data(), 1, src.data(), 1, out.data()), 2u);

  std::vector<float> a(4, kCanary), b(4, kCanary);
  ASSERT_EQ(ly_slice_one2two_with_channel_float(src.data(), 2, 2, 2, a.data(), b.data()), 0u);
  EXPECT_EQ(a, (std::vector<float>{0, 1, 2, 3}));
  EXPECT_EQ(b, (std::vector<float>{4, 5, 6, 7}));
  EXPECT_EQ(ly_slice_one2two_with_channel_float(src.data(), 1, 1, 3, a.data(), b.data()), 2u);

  std::vector<float> copy(40, kCanary);
  ASSERT_EQ(ly_drop(src.data(), copy.data(), 40), 0u);
  EXPECT_EQ(copy, src);
  ASSERT_EQ(ly_drop(copy.data(), copy.data(), 40), 0u);
  copy.assign(40, kCanary);
  ASSERT_EQ(ly_memory(src.data(), copy.data(), 40), 0u);
  EXPECT_EQ(copy, src);
  EXPECT_EQ(ly_memory(src.data(), nullptr, 40), 2u);
}

// ---- LRN and softmax ----

TEST(FlatnnLrn, MatchesReferenceAndFailsCleanly) {
  std::mt19937 rng(17);
  for (int local : {1, 2, 3, 5})
    for (int ch : {1, 2, 6}) {
      const int w = 3, h = 5, s = w * h;
      const float alpha = 0.37f, beta = 0.75f;
      const auto in = random_floats(rng, size_t(ch) * s, -3.0f, 3.0f);
      std::vector<float> out(in.size(), kCanary);
      ASSERT_EQ(ly_lrn_cross_float(in.data(), w, h, ch, out.data(), local, alpha, beta), 0u);
      for (int c = 0; c < ch; ++c)
        for (int i = 0; i < s; ++i) {
          double sum = 0;
          for (int k = c - (local - 1) / 2; k < c - (local - 1) / 2 + local; ++k)
            if (k >= 0 && k < ch) sum += double(in[k * s + i]) * in[k * s + i];
          const double want = std::pow(1.0 + alpha / local * sum, -beta) * in[c * s + i];
          ASSERT_NEAR(out[c * s + i], want, 1e-5 * (std::fabs(want) + 1)) << local << " " << ch << " " << c;
        }
      std::vector<float> inplace(in);
      ASSERT_EQ(ly_lrn_cross_float(inplace.data(), w, h, ch, inplace.data(), local, alpha, beta), 0u);
      EXPECT_EQ(first_bit_difference(inplace, out), -1);
      ASSERT_EQ(ly_lrn_cross_float(in.data(), w, h, ch, out.data(), local, 0.0f, beta), 0u);
      EXPECT_EQ(out, in);  // alpha 0: scale 1
    }
  const auto in = random_floats(rng, 4 * 6);
  std::vector<float> out(in.size());
  EXPECT_EQ(expect_each_alloc_failure(out, [&](const hseg::flatnn::Heap &heap) {
              return hseg::flatnn::lrn_cross_with(heap, in.data(), 2, 3, 4, out.data(), 3, 1e-4f, 0.75f);
            }), 2);
  EXPECT_EQ(ly_lrn_cross_float(in.data(), 2, 3, 4, out.data(), 0, 1e-4f, 0.75f), 2u);
}

TEST(FlatnnSoftmax, KeepsBlasSumsAndEdgeValues) {
  std::mt19937 rng(23);
  for (int num : {1, 3})
    for (int ch : {1, 2, 5})
      for (int inner : {1, 9}) {
        const int count = num * ch * inner;
        const auto in = random_floats(rng, count, -20.0f, 20.0f);
        std::vector<float> out(count, kCanary);
        ASSERT_EQ(ly_softmax(in.data(), out.data(), count, num, ch), 0u);
        // The same steps with a rank-1 update for the subtraction.
        std::vector<float> want(in), m(inner), ones(ch, 1.0f);
        for (int n = 0; n < num; ++n) {
          float *blk = want.data() + n * ch * inner;
          for (int k = 0; k < inner; ++k) {
            m[k] = blk[k];
            for (int c = 1; c < ch; ++c) m[k] = std::max(m[k], blk[c * inner + k]);
          }
          cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, ch, inner, 1, -1.0f, ones.data(), 1,
                      m.data(), inner, 1.0f, blk, inner);
          for (int i = 0; i < ch * inner; ++i) blk[i] = float(std::exp(double(blk[i])));
          cblas_sgemv(CblasRowMajor, CblasTrans, ch, inner, 1.0f, blk, inner, ones.data(), 1, 0.0f, m.data(), 1);
          for (int i = 0; i < ch * inner; ++i) blk[i] = blk[i] / m[i % inner];
        }
        EXPECT_EQ(first_bit_difference(out, want), -1) << num << " " << ch << " " << inner;
        for (int n = 0; n < num; ++n)
          for (int k = 0; k < inner; ++k) {
            double z = 0, mx = -1e30;
            for (int c = 0; c < ch; ++c) mx = std::max(mx, double(in[(n * ch + c) * inner + k]));
            for (int c = 0; c < ch; ++c) z += std::exp(in[(n * ch + c) * inner + k] - mx);
            for (int c = 0; c < ch; ++c)
              ASSERT_NEAR(out[(n * ch + c) * inner + k], std::exp(in[(n * ch + c) * inner + k] - mx) / z, 1e-6);
          }
      }
  // One channel gives 1 everywhere, equal values give exactly 1/C; in place.
  std::vector<float> v(12, 3.25f);
  ASSERT_EQ(ly_softmax(v.data(), v.data(), 12, 1, 1), 0u);
  EXPECT_EQ(v, std::vector<float>(12, 1.0f));
  v.assign(12, -7.5f);
  ASSERT_EQ(ly_softmax(v.data(), v.data(), 12, 2, 3), 0u);
  EXPECT_EQ(v, std::vector<float>(12, 1.0f / 3.0f));
  EXPECT_EQ(ly_softmax(v.data(), v.data(), 12, 5, 1), 2u);
  std::vector<float> out(12);
  EXPECT_EQ(expect_each_alloc_failure(out, [&](const hseg::flatnn::Heap &heap) {
              return hseg::flatnn::softmax_with(heap, v.data(), out.data(), 12, 2, 3);
            }), 2);
}

}  // namespace
