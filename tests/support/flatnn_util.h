// Helpers shared by the layer-library tests: a seeded random source, a canary
// that shows unwritten values, bit comparison, a double-precision product
// reference, and a heap that fails a chosen allocation.
#ifndef HSEG_TESTS_SUPPORT_FLATNN_UTIL_H_
#define HSEG_TESTS_SUPPORT_FLATNN_UTIL_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "flatnn/internal.h"

namespace flatnn_test {

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

inline bool same_bits(const Vec &a, const Vec &b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// got (M x N) against bias[n] + A (M x K) * B (K x N), row-major, summed in
// double; the tolerance bounds any order of float summation.
inline void expect_product_near(const float *got, const float *a, const float *b,
                                const float *bias, int m, int n, int k) {
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

}  // namespace flatnn_test

#endif  // HSEG_TESTS_SUPPORT_FLATNN_UTIL_H_
