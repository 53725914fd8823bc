// Lattice hash table: insertion-ordered indices across grows, reset, lookups
// without insertion, failure paths.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "hseg/crf.h"
#include "support/alloc_hooks.h"

namespace {

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
  EXPECT_EQ(hseg_test::alloc_live(), 0);
}

TEST(LatticeHash, FailedAllocationsReturnFourAndLeakNothing) {
  // Init, then enough insertions for several grows; any failing allocation
  // gives 4, and release afterwards frees everything.
  hseg_test::for_each_alloc_failure([](int64_t fail) {
    LatticeHash t;
    MRESULT st = phash_init(nullptr, &t, 2, 1);
    for (int16_t i = 0; i < 20 && st == HSEG_OK; ++i) {
      const int16_t k[2] = {i, static_cast<int16_t>(-i)};
      uint32_t idx = 0;
      st = phash_find(&t, k, 1, &idx);
    }
    EXPECT_EQ(st, fail == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "failing allocation " << fail;
    phash_release(&t);
    EXPECT_EQ(hseg_test::alloc_live(), 0) << "failing allocation " << fail;
  });
}

}  // namespace
