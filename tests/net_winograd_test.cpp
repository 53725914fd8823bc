// The fast network's Winograd convolution against a direct convolution in
// double precision, on random shapes, and its filter cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "hseg/flatnn.h"
#include "pipeline/net_winograd.h"

namespace {

constexpr float kCanary = -7777.25f;
// |Winograd - exact| <= kBound * sum of |w x| over the output's taps. F(4x4,
// 3x3) in single precision stays near 1e-6 of that sum on these shapes.
constexpr double kBound = 2e-5;

struct Case {
  int channels, out_channels, size, dilation;
  int chunk_rows, chunk_channels;  // 0: as planned
  int resized_channels, resized_from;  // a second source read resized, or 0
  bool bn;
};

void run_case(const Case &c, std::mt19937 &rng) {
  SCOPED_TRACE(testing::Message() << c.channels << " -> " << c.out_channels << " channels, size " << c.size
                                  << ", dilation " << c.dilation << ", chunks " << c.chunk_rows << "/"
                                  << c.chunk_channels << ", resized " << c.resized_channels << ", bn " << c.bn);
  std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
  const int s = c.size, d = c.dilation, plane = s * s;
  std::vector<float> plain(static_cast<size_t>(c.channels - c.resized_channels) * plane);
  std::vector<float> small(static_cast<size_t>(c.resized_channels) * c.resized_from * c.resized_from);
  std::vector<float> kernel(static_cast<size_t>(c.out_channels) * c.channels * 9);
  for (auto *v : {&plain, &small, &kernel})
    for (float &x : *v) x = uni(rng);
  std::vector<float> scale(c.out_channels), shift(c.out_channels), mean(c.out_channels),
      inv_std(c.out_channels);
  for (int o = 0; o < c.out_channels; ++o) {
    scale[o] = uni(rng), shift[o] = uni(rng), mean[o] = uni(rng), inv_std[o] = 1.0f + uni(rng) / 2;
  }
  const hseg::NetBn bn{scale.data(), shift.data(), mean.data(), inv_std.data()};

  hseg::NetWinograd w = hseg::net_winograd_plan(c.channels, c.out_channels, s, d);
  if (c.chunk_rows > 0) w.chunk_rows = std::min(c.chunk_rows, w.tile_rows);
  if (c.chunk_channels > 0) w.chunk_channels = std::min(c.chunk_channels, c.channels);
  const hseg::NetSources in{c.resized_channels > 0 ? 2 : 1, {plain.data(), small.data()},
                            {c.channels - c.resized_channels, c.resized_channels}, {0, c.resized_from}};
  std::vector<float> u(size_t{hseg::kWinoPoints} * c.out_channels * c.channels);
  hseg::net_winograd_filters(kernel.data(), c.out_channels, c.channels, 0, c.out_channels, u.data());
  std::vector<float> v(w.v_floats()), m(w.m_floats()), out(static_cast<size_t>(c.out_channels) * plane, kCanary);
  hseg::net_winograd_conv(w, in, u.data(), c.bn ? &bn : nullptr, out.data(), v.data(), m.data(), 2);
  if (w.avx2) {  // the portable transforms give the same bits
    w.avx2 = false;
    std::vector<float> generic(out.size(), kCanary);
    hseg::net_winograd_conv(w, in, u.data(), c.bn ? &bn : nullptr, generic.data(), v.data(),
                            m.data(), 1);
    ASSERT_EQ(std::memcmp(generic.data(), out.data(), out.size() * sizeof(float)), 0);
  }

  // The input as the convolution reads it: the plain tensor, then the small
  // one resized with ly_interp.
  std::vector<float> up(static_cast<size_t>(c.resized_channels) * plane);
  if (c.resized_channels > 0) {
    ASSERT_EQ(ly_interp(small.data(), up.data(), 1, c.resized_channels, c.resized_from,
                        c.resized_from, 0, 0, s, s), 0u);
  }
  std::vector<double> x(plain.begin(), plain.end());
  x.insert(x.end(), up.begin(), up.end());
  for (int o = 0; o < c.out_channels; ++o)
    for (int y = 0; y < s; ++y)
      for (int xx = 0; xx < s; ++xx) {
        double sum = 0.0, abs_sum = 0.0;
        for (int ch = 0; ch < c.channels; ++ch)
          for (int kh = 0; kh < 3; ++kh)
            for (int kw = 0; kw < 3; ++kw) {
              const int iy = y + (kh - 1) * d, ix = xx + (kw - 1) * d;
              if (iy < 0 || iy >= s || ix < 0 || ix >= s) continue;
              const double p = kernel[((static_cast<size_t>(o) * c.channels + ch) * 3 + kh) * 3 + kw] *
                               x[(static_cast<size_t>(ch) * s + iy) * s + ix];
              sum += p;
              abs_sum += std::fabs(p);
            }
        double want = sum, tolerance = kBound * abs_sum + 1e-30;
        if (c.bn) {
          want = ((sum - mean[o]) * inv_std[o]) * scale[o] + shift[o];
          want = want > 0.0 ? want : 0.0;
          tolerance = tolerance * std::fabs(inv_std[o] * scale[o]) + 1e-6 * std::fabs(want);
        }
        const float got = out[(static_cast<size_t>(o) * s + y) * s + xx];
        ASSERT_LE(std::fabs(got - want), tolerance)
            << "output " << o << " at (" << xx << ", " << y << "): " << got << ", expected " << want;
      }
}

// Random shapes over channels 1-64, sizes 1-37 (partial tiles at every
// grid's edge, grids without pixels when the size is below the dilation),
// dilations 1, 2 and 4 with their pads, planned chunks and small forced ones
// (several tile-row chunks, channel chunks accumulated), a second source read
// resized as conv5_4 reads the pyramid branches, with and without the
// batch-norm finish; the AVX2 and the portable transforms alike.
TEST(NetWinograd, MatchesDirectConvolutionOnRandomShapes) {
  std::mt19937 rng(2024);
  const int dilations[] = {1, 2, 4};
  for (int k = 0; k < 48; ++k) {
    Case c{};
    c.channels = 1 + static_cast<int>(rng() % 64);
    c.out_channels = 1 + static_cast<int>(rng() % 20);
    c.size = 1 + static_cast<int>(rng() % 37);
    c.dilation = dilations[k % 3];
    if (k % 4 == 1) c.chunk_rows = 1 + static_cast<int>(rng() % 3);
    if (k % 4 == 2) c.chunk_channels = 1 + static_cast<int>(rng() % 7);
    if (k % 5 == 3 && c.channels > 1) {
      c.resized_channels = 1 + static_cast<int>(rng() % (c.channels - 1));
      c.resized_from = 1 + static_cast<int>(rng() % c.size);
    }
    c.bn = k % 2 == 1;
    run_case(c, rng);
    if (HasFatalFailure()) return;
  }
  // The network's own geometries, on few channels: the stem's 237 (one
  // chunk per tile row), conv4's 60 with dilation 2, conv5's with 4.
  for (const Case &c : {Case{3, 5, 237, 1, 1, 2, 0, 0, true}, Case{16, 4, 60, 2, 0, 5, 0, 0, false},
                        Case{8, 3, 60, 4, 0, 0, 0, 0, true}}) {
    run_case(c, rng);
    if (HasFatalFailure()) return;
  }
}

// The cache transforms the filters once, keeps one block, gives it only for
// the weights it was made for, and returns it when it dies; a refused
// allocation leaves it empty and is tried again.
TEST(NetWinograd, FilterCacheKeepsOneBlockUntilItDies) {
  static int live = 0, calls = 0, refuse = 0;
  auto alloc = [](size_t bytes) -> void * {
    ++calls;
    if (refuse > 0) return --refuse, nullptr;
    ++live;
    return std::malloc(bytes);
  };
  auto release = [](void *p, size_t) { --live, std::free(p); };
  // Weights: every tensor is the same array of 1/8 (as long as the largest).
  int64_t largest = 0;
  for (int i = 0; i < hseg::kNetTensorCount; ++i) largest = std::max(largest, hseg::net_tensor(i).count);
  const std::vector<float> eighths(static_cast<size_t>(largest), 0.125f);
  const std::vector<const float *> weights(hseg::kNetTensorCount, eighths.data());
  {
    hseg::NetFilterCache cache(alloc, release);
    refuse = 1;
    EXPECT_EQ(cache.get(weights.data(), 2), nullptr);
    EXPECT_EQ(live, 0);
    const float *block = cache.get(weights.data(), 2);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(cache.get(weights.data(), 2), block);
    EXPECT_EQ(cache.get(weights.data() + 1, 2), nullptr);  // another table
    EXPECT_EQ(live, 1);
    EXPECT_EQ(calls, 2);
  }
  EXPECT_EQ(live, 0);
}

}  // namespace
