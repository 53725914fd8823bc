// Inverse of a small dense matrix by Gauss-Jordan elimination with partial
// pivoting.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "common/checked.h"
#include "hseg/imgproc.h"

namespace {

// Reduces the augmented n x 2n matrix [A | I] in `m` to [I | A^-1]. Returns
// false when a pivot's magnitude is at most `tol`.
bool gauss_jordan(double *m, int32_t n, double tol) {
  const int32_t cols = 2 * n;
  for (int32_t k = 0; k < n; ++k) {
    int32_t p = k;
    for (int32_t i = k + 1; i < n; ++i)
      if (std::fabs(m[i * cols + k]) > std::fabs(m[p * cols + k])) p = i;
    double *pivot_row = m + k * cols;
    if (!(std::fabs(m[p * cols + k]) > tol)) return false;
    if (p != k) std::swap_ranges(pivot_row, pivot_row + cols, m + p * cols);
    // Columns left of k are already zero in the pivot row.
    const double pivot = pivot_row[k];
    for (int32_t j = k; j < cols; ++j) pivot_row[j] /= pivot;
    for (int32_t i = 0; i < n; ++i) {
      double *row = m + i * cols;
      const double f = row[k];
      if (i == k || f == 0.0) continue;
      for (int32_t j = k; j < cols; ++j) row[j] -= f * pivot_row[j];
    }
  }
  return true;
}

}  // namespace

extern "C" {

MRESULT matrix_inverse(const double *a, double *inv, int32_t n) {
  if (a == nullptr || inv == nullptr || n < 1 ||
      !hseg::mul2_i32_valid(int64_t{n} * n, 2 * sizeof(double)))
    return HSEG_ERR_BAD_ARGUMENT;
  const int64_t count = int64_t{n} * n;
  double largest = 0.0;
  for (int64_t i = 0; i < count; ++i) {
    if (!std::isfinite(a[i])) return HSEG_ERR_BAD_ARGUMENT;
    largest = std::max(largest, std::fabs(a[i]));
  }
  auto *m =
      static_cast<double *>(MMemAlloc(nullptr, static_cast<int32_t>(count * 2 * sizeof(double))));
  if (m == nullptr) return HSEG_ERR_NO_MEMORY;
  for (int32_t i = 0; i < n; ++i) {
    double *row = m + int64_t{i} * 2 * n;
    std::memcpy(row, a + int64_t{i} * n, n * sizeof(double));
    std::fill(row + n, row + 2 * n, 0.0);
    row[n + i] = 1.0;
  }
  const bool ok = gauss_jordan(m, n, n * DBL_EPSILON * largest);
  if (ok)
    for (int32_t i = 0; i < n; ++i)
      std::memcpy(inv + int64_t{i} * n, m + int64_t{i} * 2 * n + n, n * sizeof(double));
  MMemFree(nullptr, m);
  return ok ? HSEG_OK : HSEG_ERR_SINGULAR;
}

}  // extern "C"
