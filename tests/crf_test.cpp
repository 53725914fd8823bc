// The lattice filter and CRF: the hash table, the fast exponentials, the
// permutohedral lattice and its filter, the dense CRF and the CRF-guided
// upsampling and refinement; fast paths against their references bit for
// bit, the filter against an exact Gaussian, the CRF on pictures, argument
// checks, allocation failures and guard pages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "crf/dense_crf.h"
#include "crf/fast_math.h"
#include "crf/permutohedral.h"
#include "crf/upsampling.h"
#include "hseg/crf.h"
#include "support/alloc_hooks.h"
#include "support/guarded.h"

namespace {

using namespace hseg_test;

// Inputs: random float arrays and a noisy picture of a coloured disc on a
// background of another colour. n floats drawn uniformly from [lo, hi):
std::vector<float> random_floats(size_t n, float lo, float hi, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(lo, hi);
  std::vector<float> v(n);
  for (float &x : v) x = u(rng);
  return v;
}

struct Disc {
  double cx, cy, r;
  bool contains(double x, double y) const {
    return (x - cx) * (x - cx) + (y - cy) * (y - cy) < r * r;
  }
};

// Fills a w x h BGR picture (rows `pitch` bytes apart): colour `in` inside
// the disc, `out` outside, every byte jittered by up to +-noise.
void paint_disc(uint8_t *bgr, int pitch, int w, int h, const Disc &disc, const int in[3],
                const int out[3], int noise, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> jitter(-noise, noise);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int *base = disc.contains(x, y) ? in : out;
      uint8_t *px = bgr + static_cast<size_t>(y) * pitch + 3 * x;
      for (int c = 0; c < 3; ++c) px[c] = static_cast<uint8_t>(base[c] + jitter(rng));
    }
}

// ---------------------------------------------------------------------------
// Lattice hash table: insertion-ordered indices across grows, reset, lookups
// without insertion, failure paths.
// ---------------------------------------------------------------------------

TEST(LatticeHash, IndicesFollowFirstInsertionAcrossGrows) {
  LatticeHash t;
  ASSERT_EQ(phash_init(nullptr, &t, 3, 1), HSEG_OK);
  std::mt19937 rng(1);
  std::uniform_int_distribution<int> comp(-40, 40);
  std::vector<std::vector<int16_t>> keys;
  uint32_t idx = 0;
  for (int i = 0; i < 500; ++i) {
    std::vector<int16_t> k = {static_cast<int16_t>(comp(rng)), static_cast<int16_t>(comp(rng)),
                              static_cast<int16_t>(comp(rng))};
    ASSERT_EQ(phash_find(&t, k.data(), 1, &idx), HSEG_OK);
    if (idx == keys.size()) keys.push_back(k);
    ASSERT_LT(idx, keys.size());
    EXPECT_EQ(keys[idx], k) << "insertion " << i;
  }
  // Every key, looked up again with or without create, keeps its index.
  for (size_t e = 0; e < keys.size(); ++e)
    for (int create : {0, 1}) {
      ASSERT_EQ(phash_find(&t, keys[e].data(), create, &idx), HSEG_OK);
      EXPECT_EQ(idx, e);
    }
  EXPECT_EQ(t.filled, keys.size());
  EXPECT_EQ(phash_release(&t), HSEG_OK);
  EXPECT_EQ(t.slots, nullptr);
}

TEST(LatticeHash, MissesResetAndBadArguments) {
  LatticeHash t{};
  const int16_t a[2] = {1, 2}, b[2] = {2, 1};
  uint32_t idx = 0;
  EXPECT_EQ(phash_release(&t), HSEG_OK);  // never set up
  EXPECT_EQ(phash_reset(&t), HSEG_ERR_NO_MEMORY);
  EXPECT_EQ(phash_find(&t, a, 1, &idx), HSEG_ERR_NO_MEMORY);
  EXPECT_EQ(phash_init(nullptr, &t, 1, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(phash_init(nullptr, &t, 1, 0x40000000u), HSEG_ERR_BAD_ARGUMENT);  // slots overflow
  EXPECT_EQ(phash_init(nullptr, &t, 100000, 100000), HSEG_ERR_BAD_ARGUMENT);  // keys overflow
  ASSERT_EQ(phash_init(nullptr, &t, 2, 4), HSEG_OK);
  EXPECT_EQ(phash_find(&t, nullptr, 1, &idx), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(phash_find(&t, a, 0, &idx), HSEG_ERR_TABLE);
  EXPECT_EQ(idx, 0xFFFFFFFFu);
  EXPECT_EQ(t.filled, 0u);
  ASSERT_EQ(phash_find(&t, a, 1, &idx), HSEG_OK);
  ASSERT_EQ(phash_find(&t, b, 1, &idx), HSEG_OK);
  EXPECT_EQ(idx, 1u);
  ASSERT_EQ(phash_reset(&t), HSEG_OK);
  EXPECT_EQ(phash_find(&t, a, 0, &idx), HSEG_ERR_TABLE);
  ASSERT_EQ(phash_find(&t, b, 1, &idx), HSEG_OK);
  EXPECT_EQ(idx, 0u);
  phash_release(&t);
  EXPECT_EQ(alloc_live(), 0);
}

TEST(LatticeHash, FailedAllocationsReturnFourAndLeakNothing) {
  // Init, then enough insertions for several grows; any failing allocation
  // gives 4, and release afterwards frees everything.
  for_each_alloc_failure([](int64_t fail) {
    LatticeHash t;
    MRESULT st = phash_init(nullptr, &t, 2, 1);
    for (int16_t i = 0; i < 20 && st == HSEG_OK; ++i) {
      const int16_t k[2] = {i, static_cast<int16_t>(-i)};
      uint32_t idx = 0;
      st = phash_find(&t, k, 1, &idx);
    }
    EXPECT_EQ(st, fail == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "failing allocation " << fail;
    phash_release(&t);
    EXPECT_EQ(alloc_live(), 0) << "failing allocation " << fail;
  });
}

// ---------------------------------------------------------------------------
// Fast logarithm and exponentials: exact values at zero, the reduction
// thresholds and the cut-off, the accuracy of fast_exp over the range the
// inference uses, and the SSE2 form against the scalar one.
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// Permutohedral lattice and lattice filter: the structural edge cases, the
// specialised paths against the plain ones bit for bit, and the filter
// against an exact Gaussian computed by brute force.
// ---------------------------------------------------------------------------

TEST(Lattice, OnePointTouchesOneSimplex) {
  const float f[2] = {0.3f, 1.7f};
  PermutohedralLattice lat;
  ASSERT_EQ(permhd_init(nullptr, &lat, f, 2, 1), HSEG_OK);
  EXPECT_EQ(lat.lattice_count, 3);
  EXPECT_NEAR(lat.weights[0] + lat.weights[1] + lat.weights[2], 1.0f, 1e-6f);
  permhd_release(&lat);
  EXPECT_EQ(lat.offsets, nullptr);

  // All-zero features: every rank comparison ties, so rank[i] = i, p = 0 and
  // the whole weight sits on vertex 0, whose key is the origin.
  const float zero[5] = {0, 0, 0, 0, 0};
  ASSERT_EQ(permhd_init(nullptr, &lat, zero, 5, 1), HSEG_OK);
  EXPECT_EQ(lat.weights[0], 1.0f);
  for (int r = 1; r <= 5; ++r) EXPECT_EQ(lat.weights[r], 0.0f) << r;
  permhd_release(&lat);
}

// The specialised build (d = 2, 5) and the generic one reuse a previous
// point's indices and prefetch; the plain reference must give the same
// record bit for bit. Grid points (ties in the ranks, halves in the
// rounding) and a repeated point, which must share its vertices, are mixed
// into random ones. The filtering
// kernels (fixed sizes, SSE2, the slice fused with the lattice filter's
// accumulation) must match the plain loops the same way.
TEST(Lattice, FastPathsMatchTheReference) {
  for (uint32_t d : {1u, 2u, 3u, 5u, 7u, 9u}) {
    for (uint32_t n : {1u, 17u, 300u}) {
      std::vector<float> f = random_floats(n * d, 0.0f, 6.0f, d * 100 + n);
      for (size_t i = 0; i < f.size(); i += 3) f[i] = std::round(f[i] * 2.0f) * 0.5f;
      if (n > 4) std::memcpy(&f[d], &f[0], d * 4);
      SCOPED_TRACE(testing::Message() << "d = " << d << " n = " << n);
      PermutohedralLattice fast, ref;
      ASSERT_EQ(permhd_init(nullptr, &fast, f.data(), d, n), HSEG_OK);
      ASSERT_EQ(hseg::crf::lattice_init_ref(nullptr, &ref, f.data(), d, n), HSEG_OK);
      ASSERT_EQ(fast.lattice_count, ref.lattice_count);
      const size_t v = static_cast<size_t>(n) * (d + 1);
      const uint32_t M = static_cast<uint32_t>(ref.lattice_count);
      EXPECT_EQ(std::memcmp(fast.offsets, ref.offsets, v * 4), 0);
      if (n > 4) { EXPECT_EQ(std::memcmp(ref.offsets, ref.offsets + d + 1, (d + 1) * 4), 0); }
      EXPECT_EQ(std::memcmp(fast.weights, ref.weights, v * 4), 0);
      EXPECT_EQ(std::memcmp(fast.neighbours, ref.neighbours, static_cast<size_t>(M) * (d + 1) * 8), 0);
      // Neighbour pairs are symmetric: the plus neighbour's minus is us.
      for (uint32_t j = 0; j <= d; ++j)
        for (uint32_t i = 0; i < M; ++i) {
          const uint32_t plus = ref.neighbours[2 * (j * M + i) + 1];
          if (plus != 0xFFFFFFFFu) { ASSERT_EQ(ref.neighbours[2 * (j * M + plus)], i); }
        }
      // Every value count (eleven takes the fused slice in more than one
      // piece), offsets and sizes, in place or not.
      LatticeFilter filter;
      ASSERT_EQ(ppil_init(nullptr, &filter, f.data(), d, n, 1, 3.5f), HSEG_OK);
      for (uint32_t vd : {1u, 2u, 3u, 11u}) {
        const std::vector<float> in = random_floats(n * vd, -1.0f, 1.0f, d + n + vd);
        const uint32_t off = n > 2 ? 1 : 0;
        const int32_t cnt = n > 2 ? static_cast<int32_t>(n - 2) : -1;
        std::vector<float> a(in.size(), 7.0f), b(in.size(), -7.0f), c = in;
        ASSERT_EQ(permhd_compute(&fast, a.data(), in.data(), vd, off, 0, cnt, -1), HSEG_OK);
        ASSERT_EQ(hseg::crf::lattice_compute_ref(&ref, b.data(), in.data(), vd, off, 0, cnt, -1),
                  HSEG_OK);
        EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * 4), 0) << "vd = " << vd;
        ASSERT_EQ(permhd_compute(&fast, c.data(), c.data(), vd, 0, 0, -1, -1), HSEG_OK);
        ASSERT_EQ(permhd_compute(&ref, b.data(), in.data(), vd, 0, 0, -1, -1), HSEG_OK);
        EXPECT_EQ(std::memcmp(c.data(), b.data(), c.size() * 4), 0) << "in place, vd = " << vd;
        // ppil_apply against the plain compute, then out += (weight * norm) * value.
        std::vector<float> acc = random_floats(in.size(), -2.0f, 2.0f, vd), want = acc;
        ASSERT_EQ(ppil_apply(&filter, acc.data(), in.data(), c.data(), vd), HSEG_OK);
        ASSERT_EQ(
            hseg::crf::lattice_compute_ref(&filter.lattice, b.data(), in.data(), vd, 0, 0, -1, -1),
            HSEG_OK);
        for (size_t i = 0; i < b.size(); ++i) want[i] += filter.weight * filter.norm[i / vd] * b[i];
        EXPECT_EQ(std::memcmp(acc.data(), want.data(), acc.size() * 4), 0) << "fused, vd = " << vd;
      }
      ppil_release(&filter);
      permhd_release(&fast);
      permhd_release(&ref);
    }
  }
}

// Mean absolute difference between the lattice output and the exact
// normalised Gaussian filter sum_j k_ij v_j / sum_j k_ij with
// k_ij = exp(-|fi - fj|^2 / (2 sigma^2)), by brute force.
double filter_error(const std::vector<float> &f, uint32_t d, const std::vector<float> &v,
                    const std::vector<float> &lattice_out, double sigma) {
  const size_t n = v.size();
  double err = 0.0;
  for (size_t i = 0; i < n; ++i) {
    double num = 0.0, den = 0.0;
    for (size_t j = 0; j < n; ++j) {
      double d2 = 0.0;
      for (uint32_t c = 0; c < d; ++c) d2 += std::pow(f[i * d + c] - f[j * d + c], 2.0);
      const double k = std::exp(-d2 / (2.0 * sigma * sigma));
      num += k * v[j];
      den += k;
    }
    err += std::fabs(num / den - lattice_out[i]);
  }
  return err / static_cast<double>(n);
}

// Features in units of the standard deviation. The lattice is an
// approximation; it must be close to the right Gaussian and much closer to
// it than to one of half or double the width.
TEST(LatticeFilter, ApproximatesTheExactGaussian) {
  struct Case {
    uint32_t d, n;
    float extent;
    double tolerance;  // mean absolute error, values in [0, 1]
  };
  for (const Case &c : {Case{2, 400, 8.0f, 0.03}, Case{5, 300, 4.0f, 0.04}}) {
    SCOPED_TRACE(testing::Message() << "d = " << c.d);
    const std::vector<float> f = random_floats(c.n * c.d, 0.0f, c.extent, 9 + c.d);
    std::vector<float> v(c.n), out(c.n, 0.0f), tmp(c.n);
    for (uint32_t i = 0; i < c.n; ++i) v[i] = 0.5f + 0.5f * std::sin(f[i * c.d] * 0.9f);
    LatticeFilter filter;
    ASSERT_EQ(ppil_init(nullptr, &filter, f.data(), c.d, c.n, 1, 1.0f), HSEG_OK);
    ASSERT_EQ(ppil_apply(&filter, out.data(), v.data(), tmp.data(), 1), HSEG_OK);
    const double right = filter_error(f, c.d, v, out, 1.0);
    EXPECT_LT(right, c.tolerance);
    EXPECT_LT(right * 2.0, filter_error(f, c.d, v, out, 0.5));
    EXPECT_LT(right * 2.0, filter_error(f, c.d, v, out, 2.0));
    ppil_release(&filter);
  }
}

TEST(LatticeFilter, ConstantComesBackTimesTheWeight) {
  const int W = 60, H = 40, N = W * H;
  std::vector<float> f(2 * N);
  for (int i = 0; i < N; ++i) {
    f[2 * i] = (i % W) / 3.0f;
    f[2 * i + 1] = (i / W) / 3.0f;
  }
  LatticeFilter filter;
  ASSERT_EQ(ppil_init(nullptr, &filter, f.data(), 2, N, 1, 16.0f), HSEG_OK);
  std::vector<float> in(2 * N), out(2 * N, 0.0f), tmp(2 * N);
  for (int i = 0; i < 2 * N; ++i) in[i] = i % 2 ? 0.75f : 0.25f;
  ASSERT_EQ(ppil_apply(&filter, out.data(), in.data(), tmp.data(), 2), HSEG_OK);
  for (int i = 0; i < 2 * N; ++i) ASSERT_NEAR(out[i], 16.0f * in[i], 1e-4f) << i;
  ppil_release(&filter);

  // Normalisation 0: one factor for all points, N over the summed response.
  LatticeFilter per_point;
  ASSERT_EQ(ppil_init(nullptr, &filter, f.data(), 2, N, 0, 1.0f), HSEG_OK);
  ASSERT_EQ(ppil_init(nullptr, &per_point, f.data(), 2, N, 1, 1.0f), HSEG_OK);
  float sum = 0.0f;
  for (int i = 0; i < N; ++i) sum += 1.0f / per_point.norm[i];
  for (int i = 0; i < N; ++i) ASSERT_NEAR(filter.norm[i], N / sum, 1e-4f * filter.norm[0]);
  ppil_release(&per_point);
  ppil_release(&filter);
}

TEST(Lattice, RejectsBadArguments) {
  const float ok[2] = {1.0f, 2.0f};
  const float huge[2] = {1e6f, 0.0f}, nan[2] = {std::nanf(""), 0.0f}, inf[2] = {INFINITY, 0.0f};
  PermutohedralLattice lat;
  EXPECT_EQ(permhd_init(nullptr, &lat, ok, 0, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(permhd_init(nullptr, &lat, ok, HSEG_LATTICE_MAX_DIM + 1, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(permhd_init(nullptr, &lat, ok, 2, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(permhd_init(nullptr, &lat, ok, 2, 0x10000000u), HSEG_ERR_BAD_ARGUMENT);
  for (const float *f : {huge, nan, inf}) {
    EXPECT_EQ(permhd_init(nullptr, &lat, f, 2, 1), HSEG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(hseg::crf::lattice_init_ref(nullptr, &lat, f, 2, 1), HSEG_ERR_BAD_ARGUMENT);
  }
  EXPECT_EQ(alloc_live(), 0);
  // Largest coordinates the key range allows still build.
  const float edge[2] = {5000.0f, -5000.0f};
  ASSERT_EQ(permhd_init(nullptr, &lat, edge, 2, 1), HSEG_OK);
  permhd_release(&lat);

  // Offsets and sizes against N = 2.
  float out[2];
  ASSERT_EQ(permhd_init(nullptr, &lat, ok, 1, 2), HSEG_OK);
  EXPECT_EQ(permhd_compute(&lat, out, ok, 1, 3, 0, -1, -1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(permhd_compute(&lat, out, ok, 1, 1, 0, 2, -1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(permhd_compute(&lat, out, ok, 1, 0, 0, -2, -1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(permhd_compute(&lat, out, ok, 0, 0, 0, -1, -1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(permhd_compute(&lat, out, ok, 1, 0, 1, -1, -1), HSEG_OK);  // one row out
  permhd_release(&lat);
  PermutohedralLattice unset{};
  EXPECT_EQ(permhd_compute(&unset, out, ok, 1, 0, 0, -1, -1), HSEG_ERR_BAD_ARGUMENT);
}

TEST(LatticeFilter, FailedAllocationsReturnFourAndLeakNothing) {
  // One point in d = 2 fills the hash table exactly, so the neighbour
  // lookups grow it: those allocations are walked too, on top of the others.
  for (uint32_t n : {1u, 50u}) {
    const std::vector<float> f = random_floats(2 * n, 0.0f, 3.0f, n);
    for_each_alloc_failure([&](int64_t fail) {
      LatticeFilter filter;
      const MRESULT st = ppil_init(nullptr, &filter, f.data(), 2, n, 1, 1.0f);
      EXPECT_EQ(st, fail == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "n " << n << " fail " << fail;
      ppil_release(&filter);
      EXPECT_EQ(alloc_live(), 0) << "n " << n << " fail " << fail;
    });
  }
}

// ---------------------------------------------------------------------------
// Dense CRF: the normalisation paths against each other, ties, one label and
// energies far apart, relaxation, the swallowed filter failure, the filter
// scratch, a two-region denoising test and the failure paths.
// ---------------------------------------------------------------------------

TEST(DenseCrf, TwoLabelNormalisationPathsMatchTheReference) {
  for (uint32_t n : {1u, 3u, 4u, 5u, 8u, 37u, 1000u}) {
    std::vector<float> t = random_floats(2 * n, -30.0f, 30.0f, n);
    // Ties, gaps just either side of the cut-off of 20, infinities, NaN.
    const float specials[][2] = {{1.0f, 1.0f}, {0.0f, -20.0f}, {0.0f, -20.000002f},
                                 {-5.0f, INFINITY}, {-INFINITY, 3.0f}, {std::nanf(""), 1.0f}};
    for (size_t i = 0; i < 6 && i < n; ++i) {
      t[2 * i] = specials[i][0];
      t[2 * i + 1] = specials[i][1];
    }
    std::vector<float> ref(2 * n, 9.0f), plain(2 * n, -9.0f), sse(2 * n, 5.0f), sums(n);
    hseg::crf::normalize_ref(t.data(), ref.data(), sums.data(), n, 2);
    hseg::crf::normalize_two_labels(t.data(), plain.data(), n);
    hseg::crf::normalize_two_labels_sse2(t.data(), sse.data(), n);
    EXPECT_EQ(std::memcmp(ref.data(), plain.data(), 8 * n), 0) << "n = " << n;
    EXPECT_EQ(std::memcmp(ref.data(), sse.data(), 8 * n), 0) << "n = " << n;
  }
}

// A grid CRF with the given per-pixel unaries.
struct Grid {
  DenseCrf crf;
  std::vector<uint8_t> labels;
  std::vector<float> conf;
  Grid(int w, int h, uint32_t m, const std::vector<float> &unary) : labels(w * h, 9), conf(w * h) {
    EXPECT_EQ(crf_init2d(nullptr, &crf, w, h, m), HSEG_OK);
    std::memcpy(crf.unary, unary.data(), unary.size() * 4);
  }
  ~Grid() { crf_release(&crf); }
  void map() { ASSERT_EQ(crf_map2du(&crf, labels.data(), conf.data()), HSEG_OK); }
};

TEST(DenseCrf, EqualUnariesOneLabelAndEnergiesFarApart) {
  const int W = 12, H = 9, N = W * H;
  // Equal unaries: 0.5 everywhere and label 0 by the tie rule. One label:
  // label 0 and the marginal 1.
  for (uint32_t M : {2u, 1u}) {
    Grid g(W, H, M, std::vector<float>(M * N, 1.5f));
    ASSERT_EQ(crf_add_gaussian_potts(&g.crf, 3.0f, 3.0f, 5.0f), HSEG_OK);
    ASSERT_EQ(crf_inference(&g.crf, 3, 1.0f), HSEG_OK);
    g.map();
    const float want = 1.0f / M;
    for (int i = 0; i < N; ++i) {
      ASSERT_EQ(g.crf.marginals[M * i], want) << "M " << M;
      ASSERT_TRUE(g.labels[i] == 0 && g.conf[i] == want) << "M " << M;
    }
  }
  // Energies more than 20 apart: the weaker label gets exactly 0, and zero
  // iterations leave the softmax of -unary.
  std::vector<float> u(2 * N, 0.0f);
  for (int i = 0; i < N; ++i) u[2 * i + i % 2] = 20.5f;
  Grid g(W, H, 2, u);
  ASSERT_EQ(crf_inference(&g.crf, 0, 1.0f), HSEG_OK);
  for (int i = 0; i < N; ++i) {
    ASSERT_EQ(g.crf.marginals[2 * i + i % 2], 0.0f);
    ASSERT_EQ(g.crf.marginals[2 * i + 1 - i % 2], 1.0f);
  }
}

// Relaxation r mixes r of the update with 1 - r of the previous marginals.
// The inference takes no memory, so it cannot run out; a potential that
// cannot filter (a record edited by hand) makes its iteration keep the
// marginals it started with, unreported. Three labels take the plain paths.
TEST(DenseCrf, RelaxationNoAllocationAndASwallowedFailedFiltering) {
  const int W = 10, H = 8, N = W * H;
  for (uint32_t M : {2u, 3u}) {
    const std::vector<float> u = random_floats(M * N, 0.0f, 4.0f, M);
    Grid full(W, H, M, u), half(W, H, M, u), start(W, H, M, u), broken(W, H, M, u);
    for (Grid *g : {&full, &half, &broken})
      ASSERT_EQ(crf_add_gaussian_potts(&g->crf, 2.0f, 2.0f, 3.0f), HSEG_OK);
    ASSERT_EQ(crf_inference(&start.crf, 0, 1.0f), HSEG_OK);
    alloc_reset();
    ASSERT_EQ(crf_inference(&full.crf, 1, 1.0f), HSEG_OK);
    EXPECT_EQ(alloc_calls(), 0);
    ASSERT_EQ(crf_inference(&half.crf, 1, 0.25f), HSEG_OK);
    broken.crf.potentials[broken.crf.potential_count++] = LatticeFilter{};  // never built
    EXPECT_EQ(crf_inference(&broken.crf, 1, 1.0f), HSEG_OK);
    EXPECT_EQ(std::memcmp(start.crf.marginals, broken.crf.marginals, 4 * M * N), 0);
    for (uint32_t k = 0; k < M * N; ++k) {
      const float want = 0.25f * full.crf.marginals[k] + 0.75f * start.crf.marginals[k];
      ASSERT_EQ(half.crf.marginals[k], want) << "M " << M << " entry " << k;
    }
    for (int i = 0; i < N; ++i) {  // marginals of a pixel sum to one
      float s = 0.0f;
      for (uint32_t l = 0; l < M; ++l) s += full.crf.marginals[i * M + l];
      ASSERT_NEAR(s, 1.0f, 1e-6f);
    }
  }
}

// Features far apart (a spatial deviation of 0.05 pixels) touch about three
// lattice points a pixel, so the lattice's value buffers outgrow the 2 * N *
// M floats of the filter scratch: the add operation grows it, and an
// iteration gives the bits of the allocating filter (ppil_apply) followed by
// the normalisation.
TEST(DenseCrf, ScratchGrowsForScatteredFeatures) {
  const int W = 9, H = 7, N = W * H;
  const uint32_t M = 3;
  const std::vector<float> u = random_floats(M * N, 0.0f, 4.0f, 8);
  Grid g(W, H, M, u);
  ASSERT_EQ(crf_add_gaussian_potts(&g.crf, 0.05f, 0.05f, 2.0f), HSEG_OK);
  ASSERT_GT(g.crf.potentials[0].lattice.lattice_count, N);
  std::vector<float> q(M * N), next(M * N), tmp(M * N), sums(N);
  for (int k = 0; k < int(M) * N; ++k) next[k] = -u[k];
  hseg::crf::normalize_ref(next.data(), q.data(), sums.data(), N, M);
  for (int k = 0; k < int(M) * N; ++k) next[k] = -u[k];
  ASSERT_EQ(ppil_apply(&g.crf.potentials[0], next.data(), q.data(), tmp.data(), M), HSEG_OK);
  hseg::crf::normalize_ref(next.data(), q.data(), sums.data(), N, M);
  ASSERT_EQ(crf_inference(&g.crf, 1, 1.0f), HSEG_OK);
  EXPECT_EQ(std::memcmp(q.data(), g.crf.marginals, 4 * M * N), 0);
}

// Two colour regions (a disc on a background), unaries that point the
// wrong way at 30% of the pixels: the CRF with an appearance kernel must
// get far fewer pixels wrong than the unaries alone.
TEST(DenseCrf, TwoRegionsAreRecoveredFromNoisyUnaries) {
  const int W = 64, H = 48, N = W * H;
  const Disc disc{36, 22, 15};
  const int inside[3] = {200, 90, 30}, outside[3] = {40, 90, 180};
  std::vector<uint8_t> img(3 * N);
  paint_disc(img.data(), 3 * W, W, H, disc, inside, outside, 10, 17);
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<float> unary(2 * N);
  int unary_wrong = 0;
  for (int i = 0; i < N; ++i) {
    const int truth = disc.contains(i % W, i / W);
    const int favoured = u(rng) < 0.3f ? 1 - truth : truth;
    const float p = 0.55f + 0.3f * u(rng);
    unary[2 * i + favoured] = -std::log(p);
    unary[2 * i + 1 - favoured] = -std::log(1.0f - p);
    unary_wrong += favoured != truth;
  }
  Grid g(W, H, 2, unary);
  ASSERT_EQ(crf_add_gaussian_potts(&g.crf, 3.0f, 3.0f, 3.0f), HSEG_OK);
  ASSERT_EQ(crf_add_bilateral_potts(&g.crf, img.data(), 3 * W, 20.0f, 20.0f, 13.0f, 13.0f, 13.0f,
                                    10.0f), HSEG_OK);
  ASSERT_EQ(crf_inference(&g.crf, 5, 1.0f), HSEG_OK);
  g.map();
  int crf_wrong = 0;
  for (int i = 0; i < N; ++i) crf_wrong += g.labels[i] != disc.contains(i % W, i / W);
  EXPECT_GT(unary_wrong, N / 5);
  EXPECT_LT(crf_wrong * 20, unary_wrong) << crf_wrong << " against " << unary_wrong << " unary";
}

TEST(DenseCrf, RejectsBadArguments) {
  DenseCrf crf{};
  EXPECT_EQ(crf_release(&crf), HSEG_OK);  // never set up
  EXPECT_EQ(crf_init(nullptr, &crf, 1u << 27, 2), HSEG_ERR_BAD_ARGUMENT);  // 2*N*M*4 > 2^31
  EXPECT_EQ(crf_init2d(nullptr, &crf, 1 << 16, 1u << 16, 2), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_inference(&crf, 1, 1.0f), HSEG_ERR_BAD_ARGUMENT);

  ASSERT_EQ(crf_init(nullptr, &crf, 6, 2), HSEG_OK);  // no grid
  EXPECT_EQ(crf_add_gaussian_potts(&crf, 1, 1, 1), HSEG_ERR_BAD_ARGUMENT);
  crf_release(&crf);
  ASSERT_EQ(crf_init(nullptr, &crf, 6, 257), HSEG_OK);  // labels do not fit a byte
  std::vector<uint8_t> labels(6);
  EXPECT_EQ(crf_map2du(&crf, labels.data(), nullptr), HSEG_ERR_BAD_ARGUMENT);
  crf_release(&crf);

  const uint8_t img[3 * 6] = {0};
  ASSERT_EQ(crf_init2d(nullptr, &crf, 3, 2, 2), HSEG_OK);
  EXPECT_EQ(crf_add_bilateral_potts(&crf, img, 8, 1, 1, 1, 1, 1, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_add_gaussian_potts(&crf, 0.0f, 1.0f, 1.0f), HSEG_ERR_BAD_ARGUMENT);  // x / 0
  EXPECT_EQ(crf.potential_count, 0);
  for (int p = 0; p < HSEG_CRF_MAX_POTENTIALS; ++p)
    ASSERT_EQ(crf_add_gaussian_potts(&crf, 1, 1, 1), HSEG_OK);
  EXPECT_EQ(crf_add_gaussian_potts(&crf, 1, 1, 1), HSEG_ERR_BAD_ARGUMENT);  // a ninth
  crf_release(&crf);
  EXPECT_EQ(alloc_live(), 0);
}

// Every allocation is taken at set-up, the growth of the filter scratch for
// scattered features included: each failure returns 4 from crf_init2d or an
// add operation (which leaves the CRF as it was), and the inference never
// meets one.
TEST(DenseCrf, FailedAllocationsReturnFourAtSetUpAndLeaveTheCrfUsable) {
  const int W = 8, H = 6;
  const std::vector<uint8_t> img(3 * W * H, 100);
  for_each_alloc_failure([&](int64_t fail) {
    DenseCrf crf;
    MRESULT st = crf_init2d(nullptr, &crf, W, H, 2);
    if (st == HSEG_OK) std::fill(crf.unary, crf.unary + 2 * W * H, 1.0f);
    for (int k = 0; k < 3 && st == HSEG_OK; ++k) {
      st = k == 1 ? crf_add_bilateral_potts(&crf, img.data(), 3 * W, 5, 5, 9, 9, 9, 1)
                  : crf_add_gaussian_potts(&crf, k ? 0.05f : 2.0f, k ? 0.05f : 2.0f, 1);
      EXPECT_EQ(crf.potential_count, k + (st == HSEG_OK));
    }
    if (st == HSEG_OK) { EXPECT_EQ(crf_inference(&crf, 2, 1.0f), HSEG_OK); }
    EXPECT_EQ(st, fail == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "failing allocation " << fail;
    crf_release(&crf);
    EXPECT_EQ(alloc_live(), 0) << "failing allocation " << fail;
  });
}

// ---------------------------------------------------------------------------
// CRF-guided upsampling and refinement: the 8.8 lift of the unary (step 32
// from 60 to 473, the zero guard, the spare row), the mask following a
// colour edge, the failure paths and argument checks.
// ---------------------------------------------------------------------------

struct Lift {
  static constexpr int kS = 60, kW = 473, kPlane = kS * kS;
  std::vector<float> scores, coarse, unary;
  Lift()
      : scores(random_floats(2 * kPlane, 0.01f, 0.98f, 4)),
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
  const Disc colour_disc{48, 48, 28}, coarse_disc{53, 48, 31};  // 5 px right, larger
  const int inside[3] = {60, 110, 210}, outside[3] = {190, 150, 70};
  paint_disc(im.guide.data(), im.g.pitches[0], W, H, colour_disc, inside, outside, 8, 8);
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
  for_each_alloc_failure([&](int64_t fail) {
    Images im(W, H);
    for (size_t i = 0; i < im.guide.size(); ++i) im.guide[i] = static_cast<uint8_t>(i * 37);
    const MRESULT st = DCR_Upsampling2(nullptr, &im.g, &params, scores.data(), S, S, &im.out);
    EXPECT_EQ(st, fail == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "failing allocation " << fail;
    EXPECT_EQ(fail != 0, std::all_of(im.mask.begin(), im.mask.end(), [](uint8_t v) { return v == 77; }))
        << "failing allocation " << fail;
    EXPECT_EQ(alloc_live(), 0) << "failing allocation " << fail;
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
  EXPECT_EQ(alloc_live(), 0);
}

// Guide, scores and mask each end (or begin) at an inaccessible page, rows
// packed: the pipeline's sizes, odd ones, and a coarse grid as large as the
// guide. Every call must succeed without touching memory outside them.
TEST(Upsampling, StaysInsideGuardedBuffers) {
  const struct { int W, H, sw, sh; } cases[] = {{473, 473, 60, 60}, {37, 29, 7, 5}, {9, 6, 9, 6}};
  UpsamplingParams params = pipeline_params();
  params.iterations = 2;
  for (const auto &c : cases) {
    for (const auto mode : {GuardedBuffer::kGuardAfter, GuardedBuffer::kGuardBefore}) {
      GuardedImage guide(HSEG_PIXFMT_BGR24, c.W, c.H, mode), mask(HSEG_PIXFMT_GRAY, c.W, c.H, mode);
      for (int i = 0; i < 3 * c.W * c.H; ++i) guide.desc().planes[0][i] = uint8_t(i % 3 * (i / 3 % 7));
      const std::vector<float> values = random_floats(size_t(2) * c.sw * c.sh, 0.0f, 1.0f, 5);
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
  EXPECT_EQ(alloc_live(), 0);

  OffscreenImage single = desc(one.data());  // one label: nothing to share 1 - c with
  EXPECT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &single, &c, &o), HSEG_ERR_BAD_ARGUMENT);
  c.width = W - 1;
  EXPECT_EQ(DCR_DepthRefine(nullptr, &params, &im.g, &l, &c, &o), HSEG_ERR_BAD_ARGUMENT);
}

}  // namespace
