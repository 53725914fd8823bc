// Image toolkit geometry: rotations, flips, crops, reflective padding.
#include <gtest/gtest.h>

#include "support/alloc_hooks.h"
#include "support/ubo_images.h"

namespace {

using namespace hseg_test;
using Rows = std::vector<std::vector<int>>;

TEST(Geometry, SmallCasesMoveEveryPixelWhereItBelongs) {
  GuardedImage src(3, 2), tall(2, 3), wide(3, 2);
  set_rows(src.get(), {{1, 2, 3}, {4, 5, 6}});
  ASSERT_EQ(img_rotate(src.get(), tall.get(), 90), HSEG_OK);
  EXPECT_EQ(get_rows(tall.get()), (Rows{{4, 1}, {5, 2}, {6, 3}}));
  ASSERT_EQ(img_rotate(src.get(), tall.get(), 270), HSEG_OK);
  EXPECT_EQ(get_rows(tall.get()), (Rows{{3, 6}, {2, 5}, {1, 4}}));
  ASSERT_EQ(img_rotate(src.get(), wide.get(), 180), HSEG_OK);
  EXPECT_EQ(get_rows(wide.get()), (Rows{{6, 5, 4}, {3, 2, 1}}));
  ASSERT_EQ(img_flip(src.get(), wide.get(), HSEG_FLIP_HORIZONTAL), HSEG_OK);
  EXPECT_EQ(get_rows(wide.get()), (Rows{{3, 2, 1}, {6, 5, 4}}));
  ASSERT_EQ(img_flip(src.get(), wide.get(), HSEG_FLIP_VERTICAL), HSEG_OK);
  EXPECT_EQ(get_rows(wide.get()), (Rows{{4, 5, 6}, {1, 2, 3}}));

  // dcb|abcd|cba, and a pad longer than the row keeps reflecting.
  GuardedImage row(4, 1), padded(10, 1), three(3, 1), long_pad(8, 1);
  set_rows(row.get(), {{1, 2, 3, 4}});
  ASSERT_EQ(img_pad_reflect(row.get(), padded.get(), 0, 0, 3, 3), HSEG_OK);
  EXPECT_EQ(get_rows(padded.get()), (Rows{{4, 3, 2, 1, 2, 3, 4, 3, 2, 1}}));
  set_rows(three.get(), {{1, 2, 3}});
  ASSERT_EQ(img_pad_reflect(three.get(), long_pad.get(), 0, 0, 5, 0), HSEG_OK);
  EXPECT_EQ(get_rows(long_pad.get()), (Rows{{2, 1, 2, 3, 2, 1, 2, 3}}));
}

TEST(Geometry, TurnsAndFlipsComposeToTheIdentity) {
  std::mt19937 rng(1);
  const int sizes[][2] = {{1, 1}, {1, 5}, {7, 3}, {33, 65}, {64, 31}};
  for (int c : {1, 3, 4}) {
    for (const auto &s : sizes) {
      const int w = s[0], h = s[1];
      SCOPED_TRACE(testing::Message() << w << "x" << h << "x" << c);
      GuardedImage src(w, h, c, 8, 3), t1(h, w, c), t2(w, h, c), t3(h, w, c), t4(w, h, c, 8, 1);
      fill_random(src.get(), rng);
      ASSERT_EQ(img_rotate(src.get(), t1.get(), 90), HSEG_OK);
      ASSERT_EQ(img_rotate(t1.get(), t2.get(), 90), HSEG_OK);
      ASSERT_EQ(img_rotate(t2.get(), t3.get(), 90), HSEG_OK);
      ASSERT_EQ(img_rotate(t3.get(), t4.get(), 90), HSEG_OK);
      EXPECT_TRUE(same_pixels(t4.get(), src.get()));
      // 90 twice is 180, which is a flip both ways (done in place here).
      ASSERT_EQ(img_rotate(src.get(), t4.get(), 180), HSEG_OK);
      EXPECT_TRUE(same_pixels(t4.get(), t2.get()));
      ASSERT_EQ(img_flip(t4.get(), t4.get(), HSEG_FLIP_BOTH), HSEG_OK);
      EXPECT_TRUE(same_pixels(t4.get(), src.get()));
      ASSERT_EQ(img_rotate(t1.get(), t4.get(), 270), HSEG_OK);
      EXPECT_TRUE(same_pixels(t4.get(), src.get()));
      for (int code : {HSEG_FLIP_VERTICAL, HSEG_FLIP_HORIZONTAL, HSEG_FLIP_BOTH}) {
        ASSERT_EQ(img_flip(src.get(), t2.get(), code), HSEG_OK);
        ASSERT_EQ(img_flip(t2.get(), t2.get(), code), HSEG_OK);
        EXPECT_TRUE(same_pixels(t2.get(), src.get())) << "flip " << code;
      }
    }
  }
}

TEST(Geometry, PaddingThenCroppingGivesTheOriginal) {
  std::mt19937 rng(2);
  const int cases[][6] = {{1, 1, 2, 0, 3, 1}, {5, 4, 0, 3, 4, 0}, {9, 7, 6, 6, 8, 9}, {16, 2, 1, 1, 1, 1}};
  for (int c : {1, 3}) {
    for (const auto &k : cases) {
      const int w = k[0], h = k[1], top = k[2], bottom = k[3], left = k[4], right = k[5];
      GuardedImage src(w, h, c), pad(w + left + right, h + top + bottom, c), out(w, h, c);
      fill_random(src.get(), rng);
      ASSERT_EQ(img_pad_reflect(src.get(), pad.get(), top, bottom, left, right), HSEG_OK);
      const ImgRect r{left, top, w, h};
      ASSERT_EQ(img_crop(pad.get(), r, out.get()), HSEG_OK);
      EXPECT_TRUE(same_pixels(out.get(), src.get()));
      Image *view = nullptr;
      ASSERT_EQ(img_crop_view(nullptr, pad.get(), r, &view), HSEG_OK);
      EXPECT_EQ(view->data, pad.at(left, top));
      EXPECT_TRUE(same_pixels(view, src.get()));
      release_img_pesudo(nullptr, &view);
    }
  }
}

TEST(Geometry, BadArgumentsAreRefusedWithoutWriting) {
  GuardedImage src(4, 3), dst(3, 4), same(4, 3), two(4, 3, 2), five(4, 3, 5), deep(4, 3, 1, 16);
  Image *view = nullptr;
  const struct { MRESULT got, want; } cases[] = {
      {img_rotate(src.get(), dst.get(), 45), HSEG_ERR_BAD_ARGUMENT},
      {img_rotate(src.get(), same.get(), 90), HSEG_ERR_BAD_ARGUMENT},
      {img_rotate(nullptr, dst.get(), 90), HSEG_ERR_BAD_ARGUMENT},
      {img_rotate(five.get(), dst.get(), 90), HSEG_ERR_FORMAT},
      {img_flip(src.get(), two.get(), 0), HSEG_ERR_BAD_ARGUMENT},
      {img_flip(deep.get(), deep.get(), 0), HSEG_ERR_FORMAT},
      {img_crop(src.get(), {2, 1, 3, 2}, dst.get()), HSEG_ERR_BAD_ARGUMENT},
      {img_crop_view(nullptr, src.get(), {0, 0, 0, 1}, &view), HSEG_ERR_BAD_ARGUMENT},
      {img_crop_view(nullptr, src.get(), {-1, 0, 2, 1}, &view), HSEG_ERR_BAD_ARGUMENT},
      {img_pad_reflect(src.get(), same.get(), 0, 0, -1, 1), HSEG_ERR_BAD_ARGUMENT},
      {img_pad_reflect(src.get(), same.get(), 1, 0, 0, 0), HSEG_ERR_BAD_ARGUMENT},
  };
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].got, cases[i].want) << "case " << i;
  EXPECT_EQ(view, nullptr);
  for (const GuardedImage *g : {&dst, &same, &two})
    for (uint32_t y = 0; y < (*g)->height; ++y)
      for (uint8_t b : row_bytes(g->get(), y)) ASSERT_EQ(b, 0xA5);
  // A view whose record cannot be had.
  alloc_reset();
  alloc_fail_at(1);
  EXPECT_EQ(img_crop_view(nullptr, src.get(), {0, 0, 1, 1}, &view), HSEG_ERR_NO_MEMORY);
  alloc_reset();
}

}  // namespace
