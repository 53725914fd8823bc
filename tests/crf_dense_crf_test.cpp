// Dense CRF: the normalisation paths against each other, ties, one label and
// energies far apart, relaxation, the swallowed filter failure, the filter
// scratch, a two-region denoising test and the failure paths.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "crf/dense_crf.h"
#include "hseg/crf.h"
#include "support/alloc_hooks.h"
#include "support/crf_fixtures.h"

namespace {

TEST(DenseCrf, TwoLabelNormalisationPathsMatchTheReference) {
  for (uint32_t n : {1u, 3u, 4u, 5u, 8u, 37u, 1000u}) {
    std::vector<float> t = hseg_test::random_floats(2 * n, -30.0f, 30.0f, n);
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
    const std::vector<float> u = hseg_test::random_floats(M * N, 0.0f, 4.0f, M);
    Grid full(W, H, M, u), half(W, H, M, u), start(W, H, M, u), broken(W, H, M, u);
    for (Grid *g : {&full, &half, &broken})
      ASSERT_EQ(crf_add_gaussian_potts(&g->crf, 2.0f, 2.0f, 3.0f), HSEG_OK);
    ASSERT_EQ(crf_inference(&start.crf, 0, 1.0f), HSEG_OK);
    hseg_test::alloc_reset();
    ASSERT_EQ(crf_inference(&full.crf, 1, 1.0f), HSEG_OK);
    EXPECT_EQ(hseg_test::alloc_calls(), 0);
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
  const std::vector<float> u = hseg_test::random_floats(M * N, 0.0f, 4.0f, 8);
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
  const hseg_test::Disc disc{36, 22, 15};
  const int inside[3] = {200, 90, 30}, outside[3] = {40, 90, 180};
  std::vector<uint8_t> img(3 * N);
  hseg_test::paint_disc(img.data(), 3 * W, W, H, disc, inside, outside, 10, 17);
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
  EXPECT_EQ(hseg_test::alloc_live(), 0);
}

// Every allocation is taken at set-up, the growth of the filter scratch for
// scattered features included: each failure returns 4 from crf_init2d or an
// add operation (which leaves the CRF as it was), and the inference never
// meets one.
TEST(DenseCrf, FailedAllocationsReturnFourAtSetUpAndLeaveTheCrfUsable) {
  const int W = 8, H = 6;
  const std::vector<uint8_t> img(3 * W * H, 100);
  hseg_test::for_each_alloc_failure([&](int64_t fail) {
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
    EXPECT_EQ(hseg_test::alloc_live(), 0) << "failing allocation " << fail;
  });
}

}  // namespace
