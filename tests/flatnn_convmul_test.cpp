// convmul: the row-major product, overwritten; a failure leaves the result alone.
#include <gtest/gtest.h>

#include <vector>

#include "hseg/flatnn.h"
#include "support/flatnn_util.h"

// A request beyond the address space must come back as a null pointer (and
// so as Eigen's std::bad_alloc) under AddressSanitizer too.
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using namespace flatnn_test;

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

}  // namespace
