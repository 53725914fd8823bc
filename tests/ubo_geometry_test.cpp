// Image toolkit geometry: rotations, flips, crops, reflective padding.
#include <gtest/gtest.h>

#include "support/ubo_images.h"

namespace {

using namespace hseg_test;
using Rows = std::vector<std::vector<int>>;

TEST(Geometry, SmallCasesMoveEveryPixelWhereItBelongs) {
  GuardedRecord src(3, 2), tall(2, 3), wide(3, 2);
  set_rows(src.get(), {{1, 2, 3}, {4, 5, 6}});
  ASSERT_EQ(img_rotate(src.get(), tall.get(), 90), HSEG_OK);
  EXPECT_EQ(get_rows(tall.get()), (Rows{{4, 1}, {5, 2}, {6, 3}}));
  ASSERT_EQ(img_flip(src.get(), wide.get(), HSEG_FLIP_HORIZONTAL), HSEG_OK);
  EXPECT_EQ(get_rows(wide.get()), (Rows{{3, 2, 1}, {6, 5, 4}}));
  ASSERT_EQ(img_flip(src.get(), wide.get(), HSEG_FLIP_VERTICAL), HSEG_OK);
  EXPECT_EQ(get_rows(wide.get()), (Rows{{4, 5, 6}, {1, 2, 3}}));
  // dcb|abcd|cba, and a pad longer than the row keeps reflecting.
  GuardedRecord row(4, 1), padded(10, 1), three(3, 1), long_pad(8, 1);
  set_rows(row.get(), {{1, 2, 3, 4}});
  ASSERT_EQ(img_pad_reflect(row.get(), padded.get(), 0, 0, 3, 3), HSEG_OK);
  EXPECT_EQ(get_rows(padded.get()), (Rows{{4, 3, 2, 1, 2, 3, 4, 3, 2, 1}}));
  set_rows(three.get(), {{1, 2, 3}});
  ASSERT_EQ(img_pad_reflect(three.get(), long_pad.get(), 0, 0, 5, 0), HSEG_OK);
  EXPECT_EQ(get_rows(long_pad.get()), (Rows{{2, 1, 2, 3, 2, 1, 2, 3}}));
  // Refusals write nothing.
  EXPECT_EQ(img_rotate(src.get(), tall.get(), 45), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(img_rotate(src.get(), wide.get(), 90), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(img_crop(src.get(), tall.get(), {2, 1, 2, 1}), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(img_pad_reflect(src.get(), wide.get(), 0, 0, -1, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(get_rows(tall.get()), (Rows{{4, 1}, {5, 2}, {6, 3}}));
  GuardedRecord five(3, 2, 5);
  EXPECT_EQ(img_flip(five.get(), five.get(), 0), HSEG_ERR_FORMAT);
}

TEST(Geometry, TurnsFlipsAndPaddingUndoThemselves) {
  std::mt19937 rng(1);
  const int sizes[][6] = {{1, 1, 2, 0, 3, 1},
                          {1, 5, 0, 3, 4, 0},
                          {7, 3, 6, 6, 8, 9},
                          {33, 65, 1, 1, 1, 1},
                          {64, 31, 0, 0, 0, 0}};
  for (int c : {1, 3, 4}) {
    for (const auto &s : sizes) {
      const int w = s[0], h = s[1], top = s[2], bottom = s[3], left = s[4], right = s[5];
      SCOPED_TRACE(testing::Message() << w << "x" << h << "x" << c);
      GuardedRecord src(w, h, c, 8, 3), t1(h, w, c), t2(w, h, c), t3(h, w, c), t4(w, h, c, 8, 1);
      fill_random(src.get(), rng);
      // Four quarter turns; 180 is two of them and a flip both ways.
      for (auto [in, out] : {std::pair{&src, &t1}, {&t1, &t2}, {&t2, &t3}, {&t3, &t4}})
        ASSERT_EQ(img_rotate(in->get(), out->get(), 90), HSEG_OK);
      EXPECT_TRUE(same_pixels(t4.get(), src.get()));
      ASSERT_EQ(img_rotate(src.get(), t4.get(), 180), HSEG_OK);
      EXPECT_TRUE(same_pixels(t4.get(), t2.get()));
      ASSERT_EQ(img_flip(t4.get(), t4.get(), HSEG_FLIP_BOTH), HSEG_OK);  // in place
      EXPECT_TRUE(same_pixels(t4.get(), src.get()));
      ASSERT_EQ(img_rotate(t1.get(), t4.get(), 270), HSEG_OK);
      EXPECT_TRUE(same_pixels(t4.get(), src.get()));
      for (int code : {HSEG_FLIP_VERTICAL, HSEG_FLIP_HORIZONTAL, HSEG_FLIP_BOTH}) {
        ASSERT_EQ(img_flip(src.get(), t2.get(), code), HSEG_OK);
        ASSERT_EQ(img_flip(t2.get(), t2.get(), code), HSEG_OK);
        EXPECT_TRUE(same_pixels(t2.get(), src.get())) << "flip " << code;
      }
      // Padding, then cropping by copy and by view.
      GuardedRecord pad(w + left + right, h + top + bottom, c);
      ASSERT_EQ(img_pad_reflect(src.get(), pad.get(), top, bottom, left, right), HSEG_OK);
      ASSERT_EQ(img_crop(pad.get(), t4.get(), {left, top, w, h}), HSEG_OK);
      EXPECT_TRUE(same_pixels(t4.get(), src.get()));
      Image *view = nullptr;
      ASSERT_EQ(img_crop_view(nullptr, pad.get(), {left, top, w, h}, &view), HSEG_OK);
      EXPECT_EQ(view->data, pad.at(left, top));
      EXPECT_TRUE(same_pixels(view, src.get()));
      release_img_pesudo(nullptr, &view);
    }
  }
}

}  // namespace
