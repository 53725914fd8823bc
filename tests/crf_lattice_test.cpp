// Permutohedral lattice and lattice filter: the structural edge cases, the
// specialised paths against the plain ones bit for bit, and the filter
// against an exact Gaussian computed by brute force.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "crf/permutohedral.h"
#include "hseg/crf.h"
#include "support/alloc_hooks.h"
#include "support/crf_fixtures.h"

namespace {

using hseg_test::random_floats;

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
  EXPECT_EQ(hseg_test::alloc_live(), 0);
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
    hseg_test::for_each_alloc_failure([&](int64_t fail) {
      LatticeFilter filter;
      const MRESULT st = ppil_init(nullptr, &filter, f.data(), 2, n, 1, 1.0f);
      EXPECT_EQ(st, fail == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "n " << n << " fail " << fail;
      ppil_release(&filter);
      EXPECT_EQ(hseg_test::alloc_live(), 0) << "n " << n << " fail " << fail;
    });
  }
}

}  // namespace
