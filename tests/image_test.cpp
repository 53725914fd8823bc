// Image records and memory services.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#include "hseg/pipeline.h"
#include "support/alloc_hooks.h"

namespace {

struct PitchCase {
  int32_t width, height, depth, channels;
  uint32_t pitch, size;
};

TEST(Image, PitchRuleRoundsRowBytesUpToFour) {
  const PitchCase cases[] = {
      {5, 2, 8, 3, 16, 32},      // 15 bytes -> 16
      {60, 60, 8, 1, 60, 3600},  // already a multiple of 4
      {3, 1, 16, 1, 8, 8},       // 6 bytes -> 8
      {0, 3, 8, 1, 0, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " d" << c.depth
                                    << " c" << c.channels);
    Image *img = createimg(nullptr, c.width, c.height, c.depth, c.channels);
    ASSERT_NE(img, nullptr);
    EXPECT_TRUE(img->pitch == c.pitch && img->size == c.size);
    for (uint32_t i = 0; i < img->size; ++i) ASSERT_EQ(img->data[i], 0) << "byte " << i;
    for (int32_t r = 0; r < c.height; ++r) EXPECT_EQ(img->rows[r], img->data + r * c.pitch);
    release_img(nullptr, &img);
    EXPECT_EQ(img, nullptr);
  }
}

TEST(Image, RejectsImpossibleGeometry) {
  EXPECT_EQ(createimg(nullptr, -1, 4, 8, 1), nullptr);
  EXPECT_EQ(createimg(nullptr, 4, -1, 8, 1), nullptr);
  EXPECT_EQ(createimg(nullptr, 4, 4, 0, 1), nullptr);
  EXPECT_EQ(createimg(nullptr, 4, 4, 8, 0), nullptr);
  EXPECT_EQ(createimg(nullptr, 1 << 28, 1, 8, 3), nullptr);      // row bits overflow
  EXPECT_EQ(createimg(nullptr, 1 << 16, 1 << 16, 8, 1), nullptr);  // size overflow
  EXPECT_EQ(createimg_pesudo(nullptr, nullptr, 1, 1 << 20, 8, 1, 1 << 20), nullptr);
  // Releases accept null and are idempotent.
  Image *img = nullptr;
  release_img(nullptr, &img);
  release_img(nullptr, nullptr);
  release_img_pesudo(nullptr, nullptr);
  EXPECT_EQ(clear_img(nullptr), nullptr);
}

TEST(Image, ViewKeepsCallerPitchAndBuffer) {
  const int64_t live = hseg_test::alloc_live();
  std::vector<uint8_t> buf(10 * 7, 0xAB);
  Image *view = createimg_pesudo(nullptr, buf.data(), 9, 7, 8, 1, 10);
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(view->pitch, 10u);  // not rounded to a multiple of 4
  EXPECT_EQ(view->rows[6], buf.data() + 60);

  // A clone of a view is owned and keeps the view's unrounded pitch.
  Image *copy = cloneimg(nullptr, view);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->rows[3], copy->data + 30);
  EXPECT_EQ(std::memcmp(copy->data, buf.data(), buf.size()), 0);

  clear_img(copy);
  for (uint32_t i = 0; i < copy->size; ++i) ASSERT_EQ(copy->data[i], 0);
  release_img_pesudo(nullptr, &view);
  EXPECT_EQ(view, nullptr);
  EXPECT_EQ(buf[0], 0xAB);  // the caller's buffer is untouched
  release_img(nullptr, &copy);

  // Releasing a view over a null buffer frees the record and leaves its row
  // table to the caller.
  view = createimg_pesudo(nullptr, nullptr, 4, 3, 8, 1, 4);
  ASSERT_NE(view, nullptr);
  uint8_t **rows = view->rows;
  release_img_pesudo(nullptr, &view);
  MMemFree(nullptr, rows);
  EXPECT_EQ(hseg_test::alloc_live(), live);
}

TEST(Image, EveryAllocationFailureReturnsNullWithoutLeaks) {
  std::vector<uint8_t> buf(64);
  Image *src = createimg_pesudo(nullptr, buf.data(), 4, 4, 8, 1, 4);
  const int64_t before = hseg_test::alloc_live();
  const std::pair<const char *, std::function<Image *()>> makers[] = {
      {"createimg", [] { return createimg(nullptr, 6, 5, 8, 3); }},
      {"cloneimg", [&] { return cloneimg(nullptr, src); }},
      {"createimg_pesudo", [&] { return createimg_pesudo(nullptr, buf.data(), 4, 4, 8, 1, 4); }},
  };
  for (const auto &[name, make] : makers) {
    SCOPED_TRACE(name);
    const int64_t n = hseg_test::for_each_alloc_failure([&](int64_t failing) {
      Image *img = make();
      EXPECT_EQ(img == nullptr, failing != 0) << "allocation " << failing << " failed";
      if (img != nullptr && img->data == buf.data()) release_img_pesudo(nullptr, &img);
      release_img(nullptr, &img);
      EXPECT_EQ(hseg_test::alloc_live(), before) << "allocation " << failing << " failed";
    });
    EXPECT_GE(n, 1);
  }
  release_img_pesudo(nullptr, &src);
}

// MMemAlloc and MMemFree are the test's counting allocator here; the
// library's own are checked from C, where the shared library is linked.
TEST(Memory, ServicesHandleEdgeArguments) {
  uint8_t b[4] = {1, 2, 3, 4};
  EXPECT_EQ(MMemSet(b, 0x1FF, 2), b);  // low 8 bits only
  MMemSet(b, 7, -1);                   // nothing
  EXPECT_TRUE(b[0] == 0xFF && b[1] == 0xFF && b[2] == 3);
  uint8_t c[4] = {9, 9, 9, 9};
  EXPECT_EQ(MMemCpy(c, b, 3), c);
  EXPECT_EQ(MMemCpy(c, nullptr, 3), c);
  EXPECT_TRUE(c[2] == 3 && c[3] == 9);
}

}  // namespace
