// Dense CRF: the normalisation paths against each other, the listed edge
// cases, relaxation, the swallowed filter failure, a two-region denoising
// test and the failure paths.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "crf/dense_crf.h"
#include "hseg/crf.h"
#include "support/alloc_hooks.h"

namespace {

TEST(DenseCrf, TwoLabelNormalisationPathsMatchTheReference) {
  std::mt19937 rng(2);
  std::uniform_real_distribution<float> u(-30.0f, 30.0f);
  for (uint32_t n : {1u, 3u, 4u, 5u, 8u, 37u, 1000u}) {
    std::vector<float> t(2 * n);
    for (float &v : t) v = u(rng);
    // Ties, gaps just either side of the cut-off of 20, infinities, NaN.
    const float specials[][2] = {{1.0f, 1.0f}, {0.0f, -20.0f}, {0.0f, -20.000002f},
                                 {-5.0f, INFINITY}, {-INFINITY, 3.0f}, {std::nanf(""), 1.0f}};
    for (size_t i = 0; i < 6 && i < n; ++i) {
      t[2 * i] = specials[i][0];
      t[2 * i + 1] = specials[i][1];
    }
    std::vector<float> ref(2 * n, 9.0f), plain(2 * n, -9.0f), sse(2 * n, 5.0f), sums(n);
    hseg::crf::normalize_reference(t.data(), ref.data(), sums.data(), n, 2);
    hseg::crf::normalize_two_labels(t.data(), plain.data(), n);
    hseg::crf::normalize_two_labels_sse2(t.data(), sse.data(), n);
    EXPECT_EQ(std::memcmp(ref.data(), plain.data(), 8 * n), 0) << "n = " << n;
    EXPECT_EQ(std::memcmp(ref.data(), sse.data(), 8 * n), 0) << "n = " << n;
  }
}

// A grid CRF with the given per-pixel unaries.
struct Grid {
  DenseCrf crf;
  Grid(int w, int h, uint32_t m, const std::vector<float> &unary) {
    EXPECT_EQ(crf_init2d(nullptr, &crf, w, h, m), HSEG_OK);
    std::memcpy(crf.unary, unary.data(), unary.size() * 4);
  }
  ~Grid() { crf_release(&crf); }
};

TEST(DenseCrf, ListedEdgeCases) {
  const int W = 12, H = 9, N = W * H;
  {  // Equal unaries: 0.5 everywhere and label 0 by the tie rule.
    Grid g(W, H, 2, std::vector<float>(2 * N, 1.5f));
    ASSERT_EQ(crf_add_gaussian_potts(&g.crf, 3.0f, 3.0f, 5.0f), HSEG_OK);
    ASSERT_EQ(crf_inference(&g.crf, 3, 1.0f), HSEG_OK);
    std::vector<uint8_t> labels(N, 9);
    std::vector<float> conf(N);
    ASSERT_EQ(crf_map2du(&g.crf, labels.data(), conf.data()), HSEG_OK);
    for (int i = 0; i < N; ++i) {
      ASSERT_EQ(g.crf.marginals[2 * i], 0.5f);
      ASSERT_EQ(labels[i], 0);
      ASSERT_EQ(conf[i], 0.5f);
    }
  }
  {  // Energies more than 20 apart: the weaker label gets exactly 0, and
     // zero iterations leave the softmax of -unary.
    std::vector<float> u(2 * N);
    for (int i = 0; i < N; ++i) {
      u[2 * i] = i % 2 ? 0.0f : 20.5f;
      u[2 * i + 1] = i % 2 ? 20.5f : 0.0f;
    }
    Grid g(W, H, 2, u);
    ASSERT_EQ(crf_inference(&g.crf, 0, 1.0f), HSEG_OK);
    for (int i = 0; i < N; ++i) {
      ASSERT_EQ(g.crf.marginals[2 * i + (i % 2 ? 1 : 0)], 0.0f);
      ASSERT_EQ(g.crf.marginals[2 * i + (i % 2 ? 0 : 1)], 1.0f);
    }
  }
  {  // One label: label 0 and the marginal itself.
    Grid g(W, H, 1, std::vector<float>(N, 3.0f));
    ASSERT_EQ(crf_inference(&g.crf, 2, 1.0f), HSEG_OK);
    std::vector<uint8_t> labels(N, 9);
    std::vector<float> conf(N);
    ASSERT_EQ(crf_map2du(&g.crf, labels.data(), conf.data()), HSEG_OK);
    for (int i = 0; i < N; ++i) ASSERT_TRUE(labels[i] == 0 && conf[i] == 1.0f);
  }
}

TEST(DenseCrf, RelaxationMixesAndThreeLabelsUseThePlainPath) {
  const int W = 10, H = 8, N = W * H;
  for (uint32_t M : {2u, 3u}) {
    std::mt19937 rng(M);
    std::uniform_real_distribution<float> d(0.0f, 4.0f);
    std::vector<float> u(M * N);
    for (float &v : u) v = d(rng);
    Grid full(W, H, M, u), half(W, H, M, u), start(W, H, M, u);
    for (Grid *g : {&full, &half}) ASSERT_EQ(crf_add_gaussian_potts(&g->crf, 2.0f, 2.0f, 3.0f), HSEG_OK);
    ASSERT_EQ(crf_inference(&start.crf, 0, 1.0f), HSEG_OK);
    ASSERT_EQ(crf_inference(&full.crf, 1, 1.0f), HSEG_OK);
    ASSERT_EQ(crf_inference(&half.crf, 1, 0.25f), HSEG_OK);
    for (int k = 0; k < static_cast<int>(M) * N; ++k) {
      const float want = 0.25f * full.crf.marginals[k] + 0.75f * start.crf.marginals[k];
      ASSERT_EQ(half.crf.marginals[k], want) << "M " << M << " entry " << k;
    }
    // Marginals of a pixel sum to one.
    for (int i = 0; i < N; ++i) {
      float s = 0.0f;
      for (uint32_t l = 0; l < M; ++l) s += full.crf.marginals[i * M + l];
      ASSERT_NEAR(s, 1.0f, 1e-6f);
    }
  }
}

// Two colour regions (a disc on a background), unaries that point the
// wrong way at 30% of the pixels: the CRF with an appearance kernel must
// get far fewer pixels wrong than the unaries alone.
TEST(DenseCrf, TwoRegionsAreRecoveredFromNoisyUnaries) {
  const int W = 64, H = 48, N = W * H;
  std::vector<uint8_t> img(3 * N);
  std::vector<uint8_t> truth(N);
  std::mt19937 rng(17);
  std::uniform_int_distribution<int> jitter(-10, 10);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<float> unary(2 * N);
  int unary_wrong = 0;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const int i = y * W + x;
      truth[i] = (x - 36) * (x - 36) + (y - 22) * (y - 22) < 15 * 15;
      const int base[3] = {truth[i] ? 200 : 40, 90, truth[i] ? 30 : 180};
      for (int c = 0; c < 3; ++c) img[3 * i + c] = static_cast<uint8_t>(base[c] + jitter(rng));
      const bool flip = u(rng) < 0.3f;
      const int favoured = flip ? 1 - truth[i] : truth[i];
      const float p = 0.55f + 0.3f * u(rng);
      unary[2 * i + favoured] = -std::log(p);
      unary[2 * i + 1 - favoured] = -std::log(1.0f - p);
      unary_wrong += favoured != truth[i];
    }
  Grid g(W, H, 2, unary);
  ASSERT_EQ(crf_add_gaussian_potts(&g.crf, 3.0f, 3.0f, 3.0f), HSEG_OK);
  ASSERT_EQ(crf_add_bilateral_potts(&g.crf, img.data(), 3 * W, 20.0f, 20.0f, 13.0f, 13.0f, 13.0f,
                                    10.0f), HSEG_OK);
  ASSERT_EQ(crf_inference(&g.crf, 5, 1.0f), HSEG_OK);
  std::vector<uint8_t> labels(N);
  ASSERT_EQ(crf_map2du(&g.crf, labels.data(), nullptr), HSEG_OK);
  int crf_wrong = 0;
  for (int i = 0; i < N; ++i) crf_wrong += labels[i] != truth[i];
  RecordProperty("unary_wrong", unary_wrong);
  RecordProperty("crf_wrong", crf_wrong);
  EXPECT_GT(unary_wrong, N / 5);
  EXPECT_LT(crf_wrong * 20, unary_wrong);
}

TEST(DenseCrf, RejectsBadArguments) {
  DenseCrf crf{};
  uint8_t label;
  EXPECT_EQ(crf_init(nullptr, nullptr, 4, 2), HSEG_ERR_NO_MEMORY);
  EXPECT_EQ(crf_release(nullptr), HSEG_ERR_NO_MEMORY);
  EXPECT_EQ(crf_release(&crf), HSEG_OK);
  EXPECT_EQ(crf_init(nullptr, &crf, 0, 2), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_init(nullptr, &crf, 4, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_init(nullptr, &crf, 1u << 27, 2), HSEG_ERR_BAD_ARGUMENT);  // 2*N*M*4 > 2^31
  EXPECT_EQ(crf_init2d(nullptr, &crf, 0, 4, 2), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_init2d(nullptr, &crf, 4, 0, 2), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_init2d(nullptr, &crf, 1 << 16, 1u << 16, 2), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_inference(&crf, 1, 1.0f), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_inference(nullptr, 1, 1.0f), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_map2du(&crf, &label, nullptr), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_add_gaussian_potts(nullptr, 1, 1, 1), HSEG_ERR_BAD_ARGUMENT);

  ASSERT_EQ(crf_init(nullptr, &crf, 6, 2), HSEG_OK);  // no grid
  EXPECT_EQ(crf_add_gaussian_potts(&crf, 1, 1, 1), HSEG_ERR_BAD_ARGUMENT);
  crf_release(&crf);
  ASSERT_EQ(crf_init(nullptr, &crf, 6, 257), HSEG_OK);
  std::vector<uint8_t> labels(6);
  EXPECT_EQ(crf_map2du(&crf, labels.data(), nullptr), HSEG_ERR_BAD_ARGUMENT);
  crf_release(&crf);

  const uint8_t img[3 * 6] = {0};
  ASSERT_EQ(crf_init2d(nullptr, &crf, 3, 2, 2), HSEG_OK);
  EXPECT_EQ(crf_add_bilateral_potts(&crf, nullptr, 9, 1, 1, 1, 1, 1, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_add_bilateral_potts(&crf, img, 8, 1, 1, 1, 1, 1, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(crf_add_gaussian_potts(&crf, 0.0f, 1.0f, 1.0f), HSEG_ERR_BAD_ARGUMENT);  // x / 0
  EXPECT_EQ(crf.potential_count, 0);
  for (int p = 0; p < HSEG_CRF_MAX_POTENTIALS; ++p)
    ASSERT_EQ(crf_add_gaussian_potts(&crf, 1, 1, 1), HSEG_OK);
  EXPECT_EQ(crf_add_gaussian_potts(&crf, 1, 1, 1), HSEG_ERR_BAD_ARGUMENT);  // a ninth
  crf_release(&crf);
  EXPECT_EQ(hseg_test::alloc_live(), 0);
}

TEST(DenseCrf, FailedAllocationsReturnFourAndLeaveTheCrfUsable) {
  const int W = 8, H = 6;
  const std::vector<uint8_t> img(3 * W * H, 100);
  hseg_test::for_each_alloc_failure([&](int64_t fail) {
    DenseCrf crf;
    MRESULT st = crf_init2d(nullptr, &crf, W, H, 2);
    if (st == HSEG_OK) {
      std::fill(crf.unary, crf.unary + 2 * W * H, 1.0f);
      st = crf_add_gaussian_potts(&crf, 2, 2, 1);
      EXPECT_EQ(crf.potential_count, st == HSEG_OK ? 1 : 0);
      if (st == HSEG_OK) {
        st = crf_add_bilateral_potts(&crf, img.data(), 3 * W, 5, 5, 9, 9, 9, 1);
        EXPECT_EQ(crf.potential_count, st == HSEG_OK ? 2 : 1);
      }
    }
    EXPECT_EQ(st, fail == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "failing allocation " << fail;
    crf_release(&crf);
    EXPECT_EQ(hseg_test::alloc_live(), 0) << "failing allocation " << fail;
  });
}

// A filter that runs out of memory during inference is not reported: that
// iteration keeps the marginals it started with.
TEST(DenseCrf, InferenceSwallowsAFailedFiltering) {
  const int W = 8, H = 6, N = W * H;
  std::vector<float> u(2 * N);
  for (int i = 0; i < 2 * N; ++i) u[i] = static_cast<float>((i * 7) % 5);
  Grid start(W, H, 2, u), failed(W, H, 2, u);
  ASSERT_EQ(crf_add_gaussian_potts(&failed.crf, 2, 2, 4), HSEG_OK);
  ASSERT_EQ(crf_inference(&start.crf, 0, 1.0f), HSEG_OK);
  hseg_test::alloc_reset();
  hseg_test::alloc_fail_at(1);  // the lattice's first value buffer
  EXPECT_EQ(crf_inference(&failed.crf, 1, 1.0f), HSEG_OK);
  hseg_test::alloc_reset();
  EXPECT_EQ(std::memcmp(start.crf.marginals, failed.crf.marginals, 8 * N), 0);
}

}  // namespace
