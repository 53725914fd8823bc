// Image toolkit masks: logic, bounding box, rectangle and polygon filling,
// bitmaps.
#include <gtest/gtest.h>

#include "support/alloc_hooks.h"
#include "support/ubo_images.h"

namespace {

using namespace hseg_test;
using Rows = std::vector<std::vector<int>>;

MRESULT fill_poly(const GuardedRecord &m, std::vector<ImgPoint> pts, uint8_t value = 255) {
  return img_fill_poly(nullptr, m.get(), pts.data(), int32_t(pts.size()), value);
}

TEST(Masks, LogicTreatsAnyNonZeroAsSet) {
  GuardedRecord a(4, 1), b(4, 1), out(4, 1);
  set_rows(a.get(), {{0, 0, 7, 200}});
  set_rows(b.get(), {{0, 3, 0, 9}});
  const struct {
    MRESULT (*op)(const Image *, const Image *, Image *);
    std::vector<int> want;
  } cases[] = {{img_mask_and, {0, 0, 0, 255}},
               {img_mask_or, {0, 255, 255, 255}},
               {img_mask_xor, {0, 255, 255, 0}}};
  for (const auto &c : cases) {
    ASSERT_EQ(c.op(a.get(), b.get(), out.get()), HSEG_OK);
    EXPECT_EQ(get_rows(out.get()), Rows{c.want});
  }
  ASSERT_EQ(img_mask_not(a.get(), a.get()), HSEG_OK);  // in place
  EXPECT_EQ(get_rows(a.get()), (Rows{{255, 255, 0, 0}}));
  GuardedRecord other(3, 1);
  EXPECT_EQ(img_mask_and(a.get(), other.get(), out.get()), HSEG_ERR_BAD_ARGUMENT);
}

TEST(Masks, PolygonOfARectangleFillsTheRectangle) {
  const ImgRect rects[] = {{0, 0, 9, 7},   {2, 1, 3, 4}, {-3, -2, 5, 4},
                           {6, 5, 10, 10}, {4, 4, 1, 1}, {3, 2, 0, 3}};
  for (const ImgRect &r : rects) {
    SCOPED_TRACE(testing::Message() << r.x << "," << r.y << " " << r.width << "x" << r.height);
    GuardedRecord by_rect(9, 7, 1, 8, 0, 0), by_poly(9, 7, 1, 8, 2, 0);
    ASSERT_EQ(img_fill_rect(by_rect.get(), r, 9), HSEG_OK);
    const int x1 = r.x + r.width, y1 = r.y + r.height;
    ASSERT_EQ(fill_poly(by_poly, {{r.x, r.y}, {x1, r.y}, {x1, y1}, {r.x, y1}}, 9), HSEG_OK);
    EXPECT_EQ(get_rows(by_poly.get()), get_rows(by_rect.get()));
  }
}

TEST(Masks, PolygonFillFollowsEvenOddAtPixelCentres) {
  // A square with a square hole, drawn as one path whose bridge edges cancel.
  GuardedRecord ring(10, 10, 1, 8, 0, 0);
  ASSERT_EQ(fill_poly(ring, {{1, 1}, {9, 1}, {9, 9}, {1, 9}, {1, 1}, {3, 3}, {3, 7}, {7, 7},
                            {7, 3}, {3, 3}}), HSEG_OK);
  for (int y = 0; y < 10; ++y)
    for (int x = 0; x < 10; ++x) {
      const bool outer = x >= 1 && x < 9 && y >= 1 && y < 9,
                 hole = x >= 3 && x < 7 && y >= 3 && y < 7;
      ASSERT_EQ(*ring.at(x, y), outer && !hole ? 255 : 0) << x << "," << y;
    }
  // A diagonal through pixel centres: the centre on the left edge is in,
  // the one on the right edge out, so two triangles that share it tile.
  GuardedRecord tri(4, 4, 1, 8, 0, 0);
  ASSERT_EQ(fill_poly(tri, {{0, 0}, {4, 4}, {0, 4}}, 1), HSEG_OK);
  ASSERT_EQ(fill_poly(tri, {{0, 0}, {4, 0}, {4, 4}}, 2), HSEG_OK);
  EXPECT_EQ(get_rows(tri.get()), (Rows{{2, 2, 2, 2}, {1, 2, 2, 2}, {1, 1, 2, 2}, {1, 1, 1, 2}}));

  // The ring's bounding box is its outer square; a polygon reaching far off
  // the mask clears all of it.
  ImgRect box{};
  ASSERT_EQ(img_mask_bbox(ring.get(), &box), HSEG_OK);
  EXPECT_TRUE(box.x == 1 && box.y == 1 && box.width == 8 && box.height == 8);
  ASSERT_EQ(fill_poly(ring, {{-50, -50}, {100, -50}, {100, 100}, {-50, 100}}, 0), HSEG_OK);
  ASSERT_EQ(img_mask_bbox(ring.get(), &box), HSEG_OK);
  EXPECT_TRUE(box.width == 0 && box.height == 0);

  EXPECT_EQ(fill_poly(ring, {{0, 0}, {1, 1}}), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(fill_poly(ring, {{0, 0}, {1 << 29, 1}, {0, 5}}), HSEG_ERR_BAD_ARGUMENT);
  alloc_reset();
  alloc_fail_at(1);
  EXPECT_EQ(fill_poly(ring, {{0, 0}, {5, 0}, {0, 5}}), HSEG_ERR_NO_MEMORY);
  alloc_reset();
}

TEST(Masks, BitmapRoundTripMostSignificantBitFirst) {
  std::mt19937 rng(7);
  for (int w : {1, 7, 8, 9, 30}) {
    GuardedRecord mask(w, 3), back(w, 3, 1, 8, 1);
    fill_random(mask.get(), rng);
    for (int x = 0; x < w; ++x) *mask.at(x, 1) = x == 0 ? 17 : 0;  // one bit: the first
    const int pitch = (w + 7) / 8 + 1;
    GuardedBuffer bits(size_t(pitch) * 3);
    ASSERT_EQ(img_mask_to_bitmap(mask.get(), bits.data(), pitch), HSEG_OK);
    EXPECT_EQ(bits.data()[pitch], 0x80);
    EXPECT_EQ(bits.data()[pitch - 1], 0xA5);  // the pitch's spare byte
    ASSERT_EQ(img_bitmap_to_mask(bits.data(), pitch, back.get()), HSEG_OK);
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < w; ++x) ASSERT_EQ(*back.at(x, y), *mask.at(x, y) != 0 ? 255 : 0);
    EXPECT_EQ(img_mask_to_bitmap(mask.get(), bits.data(), (w + 7) / 8 - 1), HSEG_ERR_BAD_ARGUMENT);
  }
}

}  // namespace
