// Image toolkit resizes: halving by 2x2 means, and the bilinear and bicubic
// resizes of Image records.
#include <gtest/gtest.h>

#include "hseg/resize.h"
#include "support/alloc_hooks.h"
#include "support/ubo_images.h"

namespace {

using namespace hseg_test;

TEST(Resize2, MeansOfBlocksClippedAtOddEdges) {
  GuardedRecord src(3, 3);
  set_rows(src.get(), {{0, 1, 9}, {2, 2, 8}, {5, 6, 255}});
  Image *out = nullptr;
  ASSERT_EQ(resize2(nullptr, src.get(), &out), HSEG_OK);
  // (5 + 2) / 4, (17 + 1) / 2, (11 + 1) / 2, 255.
  EXPECT_EQ(get_rows(out), (std::vector<std::vector<int>>{{1, 9}, {6, 255}}));
  release_img(nullptr, &out);

  GuardedRecord rgb(5, 1, 3);  // an odd width clips the last block in any channel
  set_rows(rgb.get(), {{0, 0, 0, 1, 2, 3, 10, 20, 30, 11, 20, 30, 7, 8, 9}});
  ASSERT_EQ(resize2(nullptr, rgb.get(), &out), HSEG_OK);
  EXPECT_EQ(get_rows(out), (std::vector<std::vector<int>>{{1, 1, 2, 11, 20, 30, 7, 8, 9}}));
  release_img(nullptr, &out);
}

TEST(Resize, BilinearAndBicubicGoThroughTheResizersAndCopyEqualSizes) {
  std::mt19937 rng(9);
  GuardedRecord src(23, 17, 1, 8, 3), a(40, 9), b(40, 9, 1, 8, 1), same(23, 17);
  fill_random(src.get(), rng);
  ASSERT_EQ(resize_C1(nullptr, src.get(), a.get()), HSEG_OK);
  ASSERT_EQ(zevImageResize_BL_C1(nullptr, src->data, 23, 17, int32_t(src->pitch), b->data, 40, 9,
                                 int32_t(b->pitch)),
            HSEG_OK);
  EXPECT_TRUE(same_pixels(a.get(), b.get()));

  CubicCache cache{nullptr, nullptr};
  ASSERT_EQ(resize_Cubic1(nullptr, src.get(), a.get()), HSEG_OK);
  ASSERT_EQ(ImageResize_Cubic_C1(nullptr, src->data, 23, 17, int32_t(src->pitch), b->data, 40, 9,
                                 int32_t(b->pitch), &cache),
            HSEG_OK);
  MMemFree(nullptr, cache.work);
  MMemFree(nullptr, cache.coef_tab);
  EXPECT_TRUE(same_pixels(a.get(), b.get()));

  for (auto fn : {resize_C1, resize_Cubic1}) {
    GuardedRecord copy(23, 17);
    ASSERT_EQ(fn(nullptr, src.get(), copy.get()), HSEG_OK);
    EXPECT_TRUE(same_pixels(copy.get(), src.get()));
  }
  GuardedRecord tiny(4, 9), rgb(40, 9, 3);
  EXPECT_EQ(resize_Cubic1(nullptr, src.get(), tiny.get()), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(resize_C1(nullptr, src.get(), rgb.get()), HSEG_ERR_FORMAT);
}

TEST(Resize, EveryFailedAllocationGivesFourWithoutLeaks) {
  std::mt19937 rng(10);
  GuardedRecord src(31, 12), dst(17, 40);
  fill_random(src.get(), rng);
  const int64_t live = alloc_live();
  Image *out = nullptr;
  auto check = [&](const char *name, auto call) {
    const int64_t n = for_each_alloc_failure([&](int64_t i) {
      EXPECT_EQ(call(), i == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << name << " failing " << i;
      release_img(nullptr, &out);
      EXPECT_EQ(alloc_live(), live) << name << " failing " << i;
    });
    EXPECT_GE(n, 1) << name;
  };
  check("resize2", [&] { return resize2(nullptr, src.get(), &out); });
  check("resize_C1", [&] { return resize_C1(nullptr, src.get(), dst.get()); });
  check("resize_Cubic1", [&] { return resize_Cubic1(nullptr, src.get(), dst.get()); });
}

}  // namespace
