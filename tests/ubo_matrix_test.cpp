// matrix_inverse: products with the inverse, in-place use, singular inputs.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <random>
#include <vector>

#include "hseg/imgproc.h"
#include "support/alloc_hooks.h"

namespace {

using Matrix = std::vector<double>;

// Random matrices made well conditioned by a dominant diagonal, with rows
// shuffled so that pivoting has work to do.
Matrix well_conditioned(int n, std::mt19937 &rng) {
  std::uniform_real_distribution<double> d(-1, 1);
  Matrix a(size_t(n) * n);
  for (double &v : a) v = d(rng);
  for (int i = 0; i < n; ++i) a[size_t(i) * n + i] += (d(rng) < 0 ? -1 : 1) * n;
  for (int i = n - 1; i > 0; --i)
    std::swap_ranges(a.begin() + i * n, a.begin() + (i + 1) * n, a.begin() + rng() % (i + 1) * n);
  return a;
}

TEST(MatrixInverse, TimesTheMatrixIsTheIdentity) {
  std::mt19937 rng(12);
  for (int n = 1; n <= 16; ++n) {
    const Matrix a = well_conditioned(n, rng);
    Matrix inv(a.size(), NAN), in_place = a;
    ASSERT_EQ(matrix_inverse(a.data(), inv.data(), n), HSEG_OK);
    ASSERT_EQ(matrix_inverse(in_place.data(), in_place.data(), n), HSEG_OK);
    EXPECT_EQ(in_place, inv);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        double ia = 0;
        for (int k = 0; k < n; ++k) ia += inv[i * n + k] * a[k * n + j];
        ASSERT_NEAR(ia, i == j, 1e-9) << n << ": " << i << "," << j;
      }
  }
}

TEST(MatrixInverse, SingularInputsGiveSevenAndLeaveTheOutputAlone) {
  const double e = DBL_EPSILON;
  const struct {
    int n;
    Matrix a;
    MRESULT want;
  } cases[] = {
      {1, {0.0}, HSEG_ERR_SINGULAR},
      {3, {1, 2, 3, 4, 5, 6, 7, 8, 9}, HSEG_ERR_SINGULAR},  // rank 2
      // Pivot 2e against the bound 2 * e * (1 + 2e); then 4e, just above it.
      {2, {1, 1, 1, 1 + 2 * e}, HSEG_ERR_SINGULAR},
      {2, {1, 1, 1, 1 + 4 * e}, HSEG_OK},
      {2, {1e300, 1, 1, 1e-300}, HSEG_ERR_SINGULAR},  // pivot far below the scale
      {2, {1e-200, 0, 0, 1e-200}, HSEG_OK},  // small but regular
      {2, {1, NAN, 0, 1}, HSEG_ERR_BAD_ARGUMENT},
  };
  for (const auto &c : cases) {
    Matrix inv(c.a.size(), 42.0);
    EXPECT_EQ(matrix_inverse(c.a.data(), inv.data(), c.n), c.want) << c.n << ": " << c.a[0];
    EXPECT_TRUE(c.want == HSEG_OK || inv == Matrix(c.a.size(), 42.0));
  }
  double one = 1;
  EXPECT_EQ(matrix_inverse(nullptr, &one, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(matrix_inverse(&one, nullptr, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(matrix_inverse(&one, &one, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(matrix_inverse(&one, &one, 1 << 16), HSEG_ERR_BAD_ARGUMENT);  // work memory past 2 GB
  hseg_test::alloc_reset();
  hseg_test::alloc_fail_at(1);
  EXPECT_EQ(matrix_inverse(&one, &one, 1), HSEG_ERR_NO_MEMORY);
  hseg_test::alloc_reset();
  EXPECT_EQ(one, 1.0);
}

}  // namespace
