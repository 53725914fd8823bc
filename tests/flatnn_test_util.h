// Helpers shared by the layer-library tests: seeded random tensors, a canary
// fill that shows unwritten values, bit comparison, and a heap that fails a
// chosen allocation.
#ifndef HSEG_TESTS_FLATNN_TEST_UTIL_H_
#define HSEG_TESTS_FLATNN_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "flatnn/internal.h"

namespace flatnn_test {

constexpr float kCanary = -12345.5f;

inline std::vector<float> random_floats(std::mt19937 &rng, size_t n, float lo = -1.0f,
                                        float hi = 1.0f) {
  std::uniform_real_distribution<float> dist(lo, hi);
  std::vector<float> v(n);
  for (float &x : v) x = dist(rng);
  return v;
}

inline uint32_t bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

// Index of the first value whose bits differ, or -1.
inline int64_t first_bit_difference(const std::vector<float> &a, const std::vector<float> &b) {
  if (a.size() != b.size()) return 0;
  for (size_t i = 0; i < a.size(); ++i) {
    if (bits(a[i]) != bits(b[i])) return static_cast<int64_t>(i);
  }
  return -1;
}

// Counts allocations and live blocks; fails the fail_at-th allocation.
struct TestHeap {
  int64_t calls = 0, fail_at = 0, live = 0;
  hseg::flatnn::Heap heap() { return {alloc, release, this}; }
  static void *alloc(void *ctx, size_t bytes, bool zeroed) {
    auto *h = static_cast<TestHeap *>(ctx);
    if (++h->calls == h->fail_at) return nullptr;
    void *p = zeroed ? std::calloc(bytes, 1) : std::malloc(bytes);
    if (p != nullptr) ++h->live;
    return p;
  }
  static void release(void *ctx, void *p) {
    --static_cast<TestHeap *>(ctx)->live;
    std::free(p);
  }
};

// Runs call(heap) once to count its allocations, then once with each of them
// failing: each failing run must return 4, leave `out` as it was and leak
// nothing. Returns the number of allocations.
template <typename Call>
int64_t expect_each_alloc_failure(std::vector<float> &out, Call call) {
  TestHeap counting;
  hseg::flatnn::Heap h = counting.heap();
  EXPECT_EQ(call(h), 0u);
  EXPECT_EQ(counting.live, 0);
  for (int64_t i = 1; i <= counting.calls; ++i) {
    TestHeap failing;
    failing.fail_at = i;
    std::fill(out.begin(), out.end(), kCanary);
    h = failing.heap();
    EXPECT_EQ(call(h), 4u) << "allocation " << i << " failed";
    EXPECT_EQ(failing.live, 0) << "allocation " << i << " failed";
    const bool untouched = std::all_of(out.begin(), out.end(), [](float v) { return v == kCanary; });
    EXPECT_TRUE(untouched) << "output written when allocation " << i << " failed";
  }
  return counting.calls;
}

}  // namespace flatnn_test

#endif  // HSEG_TESTS_FLATNN_TEST_UTIL_H_
