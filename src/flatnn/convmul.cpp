// Row-major single-precision matrix product on Eigen.
#include <Eigen/Core>

#include <cstddef>
#include <limits>

#include "hseg/flatnn.h"

namespace {

using RowMajorMatrix = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

// a * b elements fit an Eigen index and their bytes fit size_t.
bool elements_fit(int a, int b) {
  const int64_t n = int64_t{a} * b;  // both below 2^31: no overflow
  return n <= std::numeric_limits<std::ptrdiff_t>::max() / static_cast<int64_t>(sizeof(float));
}

}  // namespace

// Fixed interface behaviour: no status; a call it cannot serve leaves
// result unwritten.
extern "C" void convmul(const float *rhs, const float *lhs, float *result, int M, int N, int K) {
  if (M < 0 || N < 0 || K < 0) return;
  if (M == 0 || N == 0) return;  // empty result: nothing to write
  if (result == nullptr || (K > 0 && (lhs == nullptr || rhs == nullptr))) return;
  if (!elements_fit(M, K) || !elements_fit(K, N) || !elements_fit(M, N)) return;
  Eigen::Map<RowMajorMatrix> out(result, M, N);
  if (K == 0) {
    out.setZero();
    return;
  }
  Eigen::Map<const RowMajorMatrix> a(lhs, M, K);
  Eigen::Map<const RowMajorMatrix> b(rhs, K, N);
  // The product goes to a temporary first: Eigen's only exception is
  // std::bad_alloc, and when it comes, result has not been touched. Nothing
  // may propagate through this C function.
  try {
    const RowMajorMatrix product = a * b;
    out = product;
  } catch (...) {
  }
}
