// The image toolkit: Image records and the memory services, pixel
// conversions, the SSSE3 colour rows, NV21 <-> BGR, geometry, masks, Sobel,
// resizes of Image records, matrix inversion and BMP files, on records whose
// last row ends at a guard page.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "hseg/resize.h"
#include "support/alloc_hooks.h"
#include "support/resize_images.h"
#include "hseg/imgproc.h"
#include "support/guarded.h"
#include "support/tool_run.h"
#include "ubo_lib/colour_rows.h"

namespace {

using namespace hseg_test;
using Rows = std::vector<std::vector<int>>;

// An Image record of w x h pixels of `channels` samples of `depth` bits over a
// guarded buffer, rows `pad` bytes longer than their samples, filled with
// `fill`.
class GuardedRecord {
 public:
  GuardedRecord(int w, int h, int channels = 1, int depth = 8, int pad = 0, uint8_t fill = 0xA5)
      : pitch_(w * channels * depth / 8 + pad),
        buf_(size_t(pitch_) * (h - 1) + w * channels * depth / 8, GuardedBuffer::kGuardAfter, fill),
        img_(createimg_pesudo(nullptr, buf_.data(), w, h, depth, channels, pitch_)) {}
  ~GuardedRecord() { release_img_pesudo(nullptr, &img_); }
  Image *get() const { return img_; }
  Image *operator->() const { return img_; }
  template <typename T = uint8_t>
  T *at(int x, int y) const {
    return reinterpret_cast<T *>(img_->data + size_t(y) * pitch_) + x * int(img_->channels);
  }

 private:
  int pitch_;
  GuardedBuffer buf_;
  Image *img_;
};

void fill_random(const Image *img, std::mt19937 &rng) {
  for (uint32_t y = 0; y < img->height; ++y)
    for (uint32_t i = 0; i < img->width * img->channels * img->depth / 8; ++i)
      img->data[size_t(y) * img->pitch + i] = uint8_t(rng());
}

// The samples of row y, without the padding.
std::vector<uint8_t> row_bytes(const Image *img, uint32_t y) {
  const uint8_t *p = img->data + size_t(y) * img->pitch;
  return std::vector<uint8_t>(p, p + img->width * img->channels * img->depth / 8);
}

bool same_pixels(const Image *a, const Image *b) {
  if (a->width != b->width || a->height != b->height || a->channels != b->channels) return false;
  for (uint32_t y = 0; y < a->height; ++y)
    if (row_bytes(a, y) != row_bytes(b, y)) return false;
  return true;
}

// A small 1-channel image from rows of values.
void set_rows(const Image *img, const std::vector<std::vector<int>> &rows) {
  for (size_t y = 0; y < rows.size(); ++y)
    for (size_t x = 0; x < rows[y].size(); ++x) img->data[y * img->pitch + x] = uint8_t(rows[y][x]);
}

std::vector<std::vector<int>> get_rows(const Image *img) {
  std::vector<std::vector<int>> rows(img->height);
  for (uint32_t y = 0; y < img->height; ++y)
    for (uint8_t v : row_bytes(img, y)) rows[y].push_back(v);
  return rows;
}

// ---------------------------------------------------------------------------
// Image records and memory services.
// ---------------------------------------------------------------------------

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
  const int64_t live = alloc_live();
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
  EXPECT_EQ(alloc_live(), live);
}

TEST(Image, EveryAllocationFailureReturnsNullWithoutLeaks) {
  std::vector<uint8_t> buf(64);
  Image *src = createimg_pesudo(nullptr, buf.data(), 4, 4, 8, 1, 4);
  const int64_t before = alloc_live();
  const std::pair<const char *, std::function<Image *()>> makers[] = {
      {"createimg", [] { return createimg(nullptr, 6, 5, 8, 3); }},
      {"cloneimg", [&] { return cloneimg(nullptr, src); }},
      {"createimg_pesudo", [&] { return createimg_pesudo(nullptr, buf.data(), 4, 4, 8, 1, 4); }},
  };
  for (const auto &[name, make] : makers) {
    SCOPED_TRACE(name);
    const int64_t n = for_each_alloc_failure([&](int64_t failing) {
      Image *img = make();
      EXPECT_EQ(img == nullptr, failing != 0) << "allocation " << failing << " failed";
      if (img != nullptr && img->data == buf.data()) release_img_pesudo(nullptr, &img);
      release_img(nullptr, &img);
      EXPECT_EQ(alloc_live(), before) << "allocation " << failing << " failed";
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


// ---------------------------------------------------------------------------
// Image toolkit pixel conversions: grey, int32 widening and narrowing,
// normalisation.
// ---------------------------------------------------------------------------

TEST(Pixels, GreyKeepsGreyAndFollowsBt601) {
  // Grey stays grey with both weight sets, from BGR and BGRA (alpha unread).
  GuardedRecord ramp(256, 1, 3), ramp4(256, 1, 4), grey(256, 1);
  for (int v = 0; v < 256; ++v) {
    std::memset(ramp.at(v, 0), v, 3);
    std::memset(ramp4.at(v, 0), v, 3);
    ramp4.at(v, 0)[3] = uint8_t(~v);
  }
  for (int weights : {HSEG_GRAY_BGR128, HSEG_GRAY_BT601})
    for (const GuardedRecord *src : {&ramp, &ramp4}) {
      ASSERT_EQ(img_bgr2gray(src->get(), grey.get(), weights), HSEG_OK);
      for (int v = 0; v < 256; ++v) ASSERT_EQ(*grey.at(v, 0), v) << weights;
    }
  std::mt19937 rng(3);
  GuardedRecord bgr(61, 7, 3, 8, 2), out(61, 7, 1, 8, 1);
  fill_random(bgr.get(), rng);
  ASSERT_EQ(img_bgr2gray(bgr.get(), out.get(), HSEG_GRAY_BT601), HSEG_OK);
  for (int y = 0; y < 7; ++y)
    for (int x = 0; x < 61; ++x) {
      const uint8_t *p = bgr.at(x, y);
      // Rounding, plus the 14-bit weights' own error (at most 0.011 here).
      ASSERT_LE(std::fabs(*out.at(x, y) - (0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2])), 0.512);
    }
  EXPECT_EQ(img_bgr2gray(bgr.get(), out.get(), 2), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(img_bgr2gray(out.get(), out.get(), 0), HSEG_ERR_FORMAT);
}

TEST(Pixels, Int32RoundTripAndSaturation) {
  const int32_t in[] = {INT32_MIN, -1, 0, 7, 255, 256, INT32_MAX};
  const std::vector<uint8_t> want = {0, 0, 0, 7, 255, 255, 255};
  GuardedRecord s(7, 1, 1, 32), d(7, 1), back(7, 1, 1, 32);
  std::memcpy(s.at<int32_t>(0, 0), in, sizeof in);
  ASSERT_EQ(img_s32_to_u8(s.get(), d.get()), HSEG_OK);
  EXPECT_EQ(row_bytes(d.get(), 0), want);
  ASSERT_EQ(img_u8_to_s32(d.get(), back.get()), HSEG_OK);
  EXPECT_EQ(*back.at<int32_t>(6, 0), 255);
  EXPECT_EQ(img_u8_to_s32(d.get(), d.get()), HSEG_ERR_FORMAT);
}

TEST(Pixels, NormalisationHitsItsTargets) {
  // 1, 3, 5, 7: min-max to [-1, 3]; mean 4 and population deviation sqrt(5).
  GuardedRecord src(2, 2), out(2, 2, 1, 32), flat(3, 2, 1, 8, 0, 77), f(3, 2, 1, 32);
  set_rows(src.get(), {{1, 3}, {5, 7}});
  ASSERT_EQ(img_normalize_minmax(src.get(), out.get(), -1.0f, 3.0f), HSEG_OK);
  const float minmax[] = {-1.0f, 1.0f / 3, 5.0f / 3, 3.0f};
  for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(*out.at<float>(i % 2, i / 2), minmax[i]);
  ASSERT_EQ(img_normalize_meanstd(src.get(), out.get()), HSEG_OK);
  for (int i = 0; i < 4; ++i)
    EXPECT_FLOAT_EQ(*out.at<float>(i % 2, i / 2), float((2 * i + 1 - 4) / std::sqrt(5.0)));
  // Constant images: all lo, all zero.
  ASSERT_EQ(img_normalize_minmax(flat.get(), f.get(), 0.5f, 1.0f), HSEG_OK);
  EXPECT_EQ(*f.at<float>(2, 1), 0.5f);
  ASSERT_EQ(img_normalize_meanstd(flat.get(), f.get()), HSEG_OK);
  EXPECT_EQ(*f.at<float>(2, 1), 0.0f);
  EXPECT_EQ(img_normalize_minmax(flat.get(), f.get(), NAN, 1.0f), HSEG_ERR_BAD_ARGUMENT);
}

// ---------------------------------------------------------------------------
// The SSSE3 colour row kernels give the bytes of their references: random
// widths around the 16-pixel groups, misaligned pointers, outputs filled
// with a different canary for each path so an unwritten byte shows.
// ---------------------------------------------------------------------------

#if defined(HSEG_UBO_HAVE_SSSE3)

using Bytes = std::vector<uint8_t>;

Bytes noise(size_t n, std::mt19937 &rng) {
  Bytes b(n);
  for (auto &v : b) v = uint8_t(rng());
  return b;
}

// Runs `ref` and `fast` into n-byte outputs (misaligned by off) filled with
// different canaries, one byte longer than written: the same bytes, and the
// extra byte untouched.
template <typename Ref, typename Fast>
void expect_same(size_t n, int off, Ref ref, Fast fast) {
  Bytes a(n + off + 1, 0x11), b(n + off + 1, 0xEE);
  ref(a.data() + off);
  fast(b.data() + off);
  ASSERT_TRUE(std::equal(a.begin() + off, a.end() - 1, b.begin() + off));
  ASSERT_TRUE(a.back() == 0x11 && b.back() == 0xEE);
}

TEST(ColourRows, Ssse3MatchesTheReference) {
  using namespace hseg::ubo;
  if (!__builtin_cpu_supports("ssse3")) GTEST_SKIP() << "no SSSE3";
  std::mt19937 rng(14);
  for (int32_t w : {1, 2, 15, 16, 17, 31, 32, 33, 47, 64, 65, 130}) {
    for (int off = 0; off < 4; ++off) {
      SCOPED_TRACE(testing::Message() << "width " << w << ", offset " << off);
      const int32_t cw = 2 * ((w + 1) / 2);
      const Bytes bgr = noise(3 * w + off, rng), bgr2 = noise(3 * w + off, rng);
      const Bytes y = noise(w + off, rng), vu = noise(cw + off, rng);
      const uint8_t *src = bgr.data() + off, *ys = y.data() + off, *vus = vu.data() + off;
      for (LumaWeights k : {kLuma128, kLumaBt601}) {
        expect_same(w, off, [&](uint8_t *o) { luma_row_c3_ref(src, o, w, k); },
                    [&](uint8_t *o) { luma_row_c3_ssse3(src, o, w, k); });
      }
      expect_same(3 * w, off, [&](uint8_t *o) { nv21_row_to_bgr_ref(ys, vus, o, w); },
                  [&](uint8_t *o) { nv21_row_to_bgr_ssse3(ys, vus, o, w); });
      for (const uint8_t *below : {bgr2.data() + off, static_cast<const uint8_t *>(nullptr)}) {
        expect_same(cw, off, [&](uint8_t *o) { bgr_rows_to_vu_ref(src, below, o, w); },
                    [&](uint8_t *o) { bgr_rows_to_vu_ssse3(src, below, o, w); });
      }
    }
  }
}

#endif

// ---------------------------------------------------------------------------
// NV21 <-> BGR: both directions against the formulas evaluated in double,
// and the argument checks.
// ---------------------------------------------------------------------------

// Each 14-bit shift is floor(x + 0.5) of an exactly representable value.
int round_half_up(double v) { return int(std::floor(v + 0.5)); }

TEST(Nv21, BothDirectionsMatchTheFormulasAtOddSizes) {
  std::mt19937 rng(6);
  for (auto [w, h] : {std::pair{1, 1}, {2, 2}, {5, 3}, {33, 17}, {64, 9}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    const Picture p = random_picture(rng, w, h);
    const Frame nv = make_frame(p, HSEG_PIXFMT_NV21, 1, 0);
    Frame back = make_frame(random_picture(rng, w, h), HSEG_PIXFMT_NV21, 0, 0);
    Raster bgr(w, h, 3);
    OffscreenImage bgr_d = bgr.bgr();
    ASSERT_EQ(NV212BGR(&nv.d, &bgr_d), HSEG_OK);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        int want[3];
        yuv_to_bgr_ref(p.Y(x, y), p.U(x, y), p.V(x, y), want);
        for (int k = 0; k < 3; ++k) ASSERT_EQ(bgr.at(x, y, k), want[k]) << x << "," << y;
      }

    ASSERT_EQ(BGR2NV21(&bgr_d, &back.d), HSEG_OK);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        ASSERT_EQ(back.plane[0][y * back.d.pitches[0] + x],
                  round_half_up((4899.0 * bgr.at(x, y, 2) + 9617.0 * bgr.at(x, y, 1) +
                                 1868.0 * bgr.at(x, y, 0)) / 16384));
    for (int by = 0; by < p.ch(); ++by)
      for (int bx = 0; bx < p.cw(); ++bx) {
        double m[3] = {0, 0, 0};  // B, G, R means of the block, rounded
        int n = 0;
        for (int y = 2 * by; y < std::min(h, 2 * by + 2); ++y)
          for (int x = 2 * bx; x < std::min(w, 2 * bx + 2); ++x, ++n)
            for (int k = 0; k < 3; ++k) m[k] += bgr.at(x, y, k);
        for (double &v : m) v = round_half_up(v / n);
        const int v = round_half_up((8192 * m[2] - 6860 * m[1] - 1332 * m[0]) / 16384) + 128;
        const int u = round_half_up((-2765 * m[2] - 5427 * m[1] + 8192 * m[0]) / 16384) + 128;
        const uint8_t *vu = &back.plane[1][by * back.d.pitches[1] + 2 * bx];
        ASSERT_EQ(vu[0], std::clamp(v, 0, 255)) << bx << "," << by;
        ASSERT_EQ(vu[1], std::clamp(u, 0, 255)) << bx << "," << by;
      }
  }
}

TEST(Nv21, BadArgumentsAndFormats) {
  std::mt19937 rng(7);
  const Frame nv = make_frame(random_picture(rng, 5, 3), HSEG_PIXFMT_NV21, 0, 0);
  Raster bgr(5, 3, 3), small(4, 3, 3);
  OffscreenImage out = bgr.bgr(), narrow = small.bgr(), grey = out, short_pitch = nv.d;
  grey.format = HSEG_PIXFMT_GRAY;
  short_pitch.pitches[1] = 4;  // 5 pixels need 3 chroma pairs
  EXPECT_EQ(NV212BGR(nullptr, &out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(NV212BGR(&nv.d, &narrow), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(NV212BGR(&short_pitch, &out), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(NV212BGR(&nv.d, &grey), HSEG_ERR_FORMAT);
  EXPECT_EQ(BGR2NV21(&nv.d, &out), HSEG_ERR_FORMAT);
  EXPECT_TRUE(bgr.untouched());
}

// ---------------------------------------------------------------------------
// Image toolkit geometry: rotations, flips, crops, reflective padding.
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// Image toolkit masks: logic, bounding box, rectangle and polygon filling,
// bitmaps.
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// Sobel derivatives and magnitudes against the kernels applied to a
// reflection-padded copy.
// ---------------------------------------------------------------------------

TEST(Sobel, MatchesTheKernelsOnAReflectedBorder) {
  std::mt19937 rng(11);
  const int sizes[][2] = {{1, 1}, {1, 6}, {7, 1}, {2, 2}, {33, 17}};
  for (const auto &s : sizes) {
    const int w = s[0], h = s[1];
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    GuardedRecord src(w, h, 1, 8, 1), pad(w + 2, h + 2), gx(w, h, 1, 16), gy(w, h, 1, 16, 2),
        l1(w, h, 1, 16), l2(w, h, 1, 16);
    fill_random(src.get(), rng);
    ASSERT_EQ(img_pad_reflect(src.get(), pad.get(), 1, 1, 1, 1), HSEG_OK);
    ASSERT_EQ(img_sobel(src.get(), gx.get(), 1, 0), HSEG_OK);
    ASSERT_EQ(img_sobel(src.get(), gy.get(), 0, 1), HSEG_OK);
    ASSERT_EQ(img_sobel_magnitude(src.get(), l1.get(), HSEG_NORM_L1), HSEG_OK);
    ASSERT_EQ(img_sobel_magnitude(src.get(), l2.get(), HSEG_NORM_L2), HSEG_OK);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        auto p = [&](int dx, int dy) { return int(*pad.at(x + 1 + dx, y + 1 + dy)); };
        const int ex = p(1, -1) + 2 * p(1, 0) + p(1, 1) - p(-1, -1) - 2 * p(-1, 0) - p(-1, 1);
        const int ey = p(-1, 1) + 2 * p(0, 1) + p(1, 1) - p(-1, -1) - 2 * p(0, -1) - p(1, -1);
        ASSERT_EQ(*gx.at<int16_t>(x, y), ex) << x << "," << y;
        ASSERT_EQ(*gy.at<int16_t>(x, y), ey) << x << "," << y;
        ASSERT_EQ(*l1.at<int16_t>(x, y), std::abs(ex) + std::abs(ey));
        ASSERT_EQ(*l2.at<int16_t>(x, y), std::lround(std::hypot(ex, ey)));
      }
  }
}

TEST(Sobel, ExtremesAndArguments) {
  // A 0 | 255 step: gx is 4 * 255 on both sides of it, the largest value.
  GuardedRecord step(4, 3), g(4, 3, 1, 16), mag(4, 3, 1, 16);
  set_rows(step.get(), {{0, 0, 255, 255}, {0, 0, 255, 255}, {0, 0, 255, 255}});
  ASSERT_EQ(img_sobel(step.get(), g.get(), 1, 0), HSEG_OK);
  EXPECT_EQ(*g.at<int16_t>(1, 1), 1020);
  EXPECT_EQ(*g.at<int16_t>(3, 2), 0);  // the reflected border is flat
  ASSERT_EQ(img_sobel_magnitude(step.get(), mag.get(), HSEG_NORM_L2), HSEG_OK);
  EXPECT_EQ(*mag.at<int16_t>(2, 0), 1020);

  EXPECT_EQ(img_sobel(step.get(), g.get(), 1, 1), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(img_sobel_magnitude(step.get(), step.get(), HSEG_NORM_L1), HSEG_ERR_FORMAT);
}

// ---------------------------------------------------------------------------
// Image toolkit resizes: halving by 2x2 means, and the bilinear and bicubic
// resizes of Image records.
// ---------------------------------------------------------------------------

TEST(Resize2, MeansOfBlocksClippedAtOddEdges) {
  GuardedRecord src(3, 3);
  set_rows(src.get(), {{0, 1, 9}, {2, 2, 8}, {5, 6, 255}});
  Image *out = nullptr;
  ASSERT_EQ(resize2(nullptr, src.get(), &out), HSEG_OK);
  // (5 + 2) / 4, (17 + 1) / 2, (11 + 1) / 2, 255.
  EXPECT_EQ(get_rows(out), (Rows{{1, 9}, {6, 255}}));
  release_img(nullptr, &out);

  GuardedRecord rgb(5, 1, 3);  // an odd width clips the last block in any channel
  set_rows(rgb.get(), {{0, 0, 0, 1, 2, 3, 10, 20, 30, 11, 20, 30, 7, 8, 9}});
  ASSERT_EQ(resize2(nullptr, rgb.get(), &out), HSEG_OK);
  EXPECT_EQ(get_rows(out), (Rows{{1, 1, 2, 11, 20, 30, 7, 8, 9}}));
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

// ---------------------------------------------------------------------------
// matrix_inverse: products with the inverse, in-place use, singular inputs.
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// BMP reading and writing: round trips, files from another encoder, a table
// of malformed files, and every allocation failure.
// ---------------------------------------------------------------------------

using File = std::string;

File read_file(const std::string &name) { return read_text(HSEG_BMP_DIR "/" + name); }

// Status of both readers on `bytes`: from memory (the bytes end at a guard
// page) and from a file. They must agree; the image read from memory comes
// back in *out when asked for, else nothing may be left allocated.
MRESULT load_both(const File &bytes, Image **out = nullptr) {
  const int64_t live = alloc_live();
  GuardedBuffer buf(bytes.size());
  std::copy(bytes.begin(), bytes.end(), buf.data());
  Image *from_memory = nullptr, *from_file = nullptr;
  const MRESULT s = LoadBMPFromMemory(nullptr, buf.data(), bytes.size(), &from_memory);
  const std::string path = temp_path("in.bmp");
  write_text(path, bytes);
  EXPECT_EQ(LoadBMP(nullptr, path.c_str(), &from_file), s);
  std::remove(path.c_str());
  EXPECT_EQ(from_memory == nullptr, s != HSEG_OK);
  EXPECT_TRUE(s != HSEG_OK || same_pixels(from_memory, from_file));
  release_img(nullptr, &from_file);
  if (out != nullptr) {
    *out = from_memory;
  } else {
    release_img(nullptr, &from_memory);
    EXPECT_EQ(alloc_live(), live);
  }
  return s;
}

TEST(Bmp, WriteThenReadIsIdenticalAtOddWidths) {
  std::mt19937 rng(13);
  const std::string path = temp_path("round.bmp");
  for (int c : {1, 3, 4})
    for (int w : {1, 5, 7, 13}) {
      GuardedRecord img(w, 3, c, 8, 2);
      fill_random(img.get(), rng);
      ASSERT_EQ(SaveBmp(path.c_str(), img.get()), HSEG_OK);
      const File file = read_text(path);
      ASSERT_EQ(file.size(), 54u + (c == 1 ? 1024 : 0) + 3 * ((w * c + 3) / 4 * 4));
      Image *back = nullptr;
      ASSERT_EQ(load_both(file, &back), HSEG_OK);
      EXPECT_TRUE(same_pixels(back, img.get())) << c << " channels, width " << w;
      release_img(nullptr, &back);
    }
  std::remove(path.c_str());
}

// The samples of scripts/make_bmp_samples.py: palette files index
// `colours` entries (2: black and white), the others carry rgba(x, y) in
// fields of r, g, b bits.
struct Sample {
  const char *name;
  uint32_t channels;
  int colours, r, g, b;
  bool alpha;
};

int expected(const Sample &s, int x, int y, int k) {  // k: B, G, R, A
  const int i = (x * 3 + y * 5) % std::max(s.colours, 3);
  if (s.colours == 2) return i == 0 ? 255 : 0;
  if (s.colours > 2) return (k == 0 ? i * 151 + 7 : k == 1 ? i * 23 + 40 : i * 67) & 255;
  const int rgba[4] = {(x * 37 + y * 11) & 255, (x * 5 + y * 53) & 255, (x * x + y * 29) & 255,
                       (x * 19 + y * 71) & 255};
  if (s.channels == 1) return rgba[0];
  if (k == 3) return s.alpha ? rgba[3] : 255;
  // The field's bits widened by replication.
  const int bits = k == 0 ? s.b : k == 1 ? s.g : s.r, f = rgba[2 - k] >> (8 - bits);
  int out = 0;
  for (int sh = 8 - bits; sh > -bits; sh -= bits) out |= sh >= 0 ? f << sh : f >> -sh;
  return out;
}

TEST(Bmp, ReadsFilesOfAnotherEncoder) {
  const Sample samples[] = {
      {"pal1.bmp", 3, 2, 0, 0, 0, false},         {"pal4.bmp", 3, 16, 0, 0, 0, false},
      {"pal8.bmp", 3, 256, 0, 0, 0, false},       {"grey8.bmp", 1, 0, 8, 8, 8, false},
      {"rgb24.bmp", 3, 0, 8, 8, 8, false},        {"rgb24_topdown.bmp", 3, 0, 8, 8, 8, false},
      {"rgba32.bmp", 4, 0, 8, 8, 8, true},        {"bf32_v5_rgba.bmp", 4, 0, 8, 8, 8, true},
      {"bf32_noalpha.bmp", 4, 0, 8, 8, 8, false}, {"bf565.bmp", 3, 0, 5, 6, 5, false},
      {"rgb555.bmp", 3, 0, 5, 5, 5, false},       {"bf555_v4_topdown.bmp", 3, 0, 5, 5, 5, false},
  };
  for (const Sample &s : samples) {
    SCOPED_TRACE(s.name);
    Image *img = nullptr;
    ASSERT_EQ(load_both(read_file(s.name), &img), HSEG_OK);
    ASSERT_TRUE(img->width == 7 && img->height == 5 && img->channels == s.channels);
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 7; ++x)
        for (uint32_t k = 0; k < s.channels; ++k)
          ASSERT_EQ(img->rows[y][x * s.channels + k], expected(s, x, y, k)) << x << "," << y;
    release_img(nullptr, &img);
  }
}

File patch(File b, size_t at, uint32_t value, int bytes = 4) {
  for (int i = 0; i < bytes; ++i) b.at(at + i) = char(value >> (8 * i));
  return b;
}
File patched(const char *name, size_t at, uint32_t value, int bytes = 4) {
  return patch(read_file(name), at, value, bytes);
}

// Damaged files, one for each kind of check (the fuzz target covers the
// breadth): a status, never a crash, and nothing left allocated.
TEST(Bmp, MalformedAndUnsupportedFilesGiveAStatus) {
  constexpr MRESULT kFile = HSEG_ERR_FILE, kFormat = HSEG_ERR_FORMAT;
  const File rgb = read_file("rgb24.bmp");
  const struct {
    const char *what;
    File file;
    MRESULT want;
  } cases[] = {
      {"magic", patched("rgb24.bmp", 0, 'B' | 'N' << 8, 2), kFile},
      {"width 0", patched("rgb24.bmp", 18, 0), kFile},
      {"height INT32_MIN", patched("rgb24.bmp", 22, 0x80000000u), kFile},
      {"huge width", patched("rgb24.bmp", 18, 0x7FFFFFFF), kFile},
      {"data offset past the end", patched("rgb24.bmp", 10, 0xFFFFFFF0u), kFile},
      {"data offset inside the palette", patched("pal8.bmp", 10, 54), kFile},
      {"palette count past 2^bpp", patched("pal4.bmp", 46, 17), kFile},
      {"palette past the end", patch(patched("pal4.bmp", 28, 8, 2), 46, 256), kFile},
      {"bits per pixel", patched("rgb24.bmp", 28, 7, 2), kFile},
      {"RLE8", patched("pal8.bmp", 30, 1), kFormat},
      {"compression 9", patched("rgb24.bmp", 30, 9), kFile},
      {"core header", patched("rgb24.bmp", 14, 12), kFormat},
      {"header size past the end", patched("rgb24.bmp", 14, 0xFFFFFF00u), kFile},
      {"mask zero", patched("bf565.bmp", 54, 0), kFile},
      {"mask not contiguous", patched("bf565.bmp", 62, 0x0015), kFile},
      {"alpha mask overlaps", patched("bf32_v5_rgba.bmp", 66, 0x00FF0000), kFile},
      {"last row short", rgb.substr(0, rgb.size() - 4), kFile},
      {"last row's padding missing", rgb.substr(0, rgb.size() - 3), HSEG_OK},
  };
  for (const auto &c : cases) EXPECT_EQ(load_both(c.file), c.want) << c.what;
  // Cut anywhere before the pixel data.
  for (const char *name : {"pal4.bmp", "bf32_v5_rgba.bmp", "bf565.bmp"}) {
    const File b = read_file(name);
    for (size_t n = 0; n <= uint8_t(b[10]); ++n)
      ASSERT_EQ(load_both(b.substr(0, n)), kFile) << name << " " << n;
  }
}

TEST(Bmp, EveryFailedAllocationGivesFourWithoutLeaks) {
  const std::string path = HSEG_BMP_DIR "/bf32_v5_rgba.bmp";
  const File file = read_text(path);
  const int64_t live = alloc_live();
  Image *img = nullptr;
  auto walk = [&](auto load) {
    return for_each_alloc_failure([&](int64_t i) {
      EXPECT_EQ(load(), i == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "failing " << i;
      EXPECT_EQ(img == nullptr, i != 0);
      release_img(nullptr, &img);
      EXPECT_EQ(alloc_live(), live);
    });
  };
  EXPECT_GE(walk([&] { return LoadBMP(nullptr, path.c_str(), &img); }), 1);
  EXPECT_GE(walk([&] { return LoadBMPFromMemory(nullptr, reinterpret_cast<const uint8_t *>(file.data()), file.size(), &img); }), 1);
}

TEST(Bmp, FailedWritesLeaveNothingBehind) {
  GuardedRecord img(3, 2, 3), two(3, 2, 2);
  const std::string dir = temp_path("dir");
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  // No such directory; a target that is a directory (the rename fails).
  EXPECT_EQ(SaveBmp((dir + "/missing/x.bmp").c_str(), img.get()), HSEG_ERR_FILE);
  ASSERT_EQ(mkdir((dir + "/x.bmp").c_str(), 0700), 0);
  EXPECT_EQ(SaveBmp((dir + "/x.bmp").c_str(), img.get()), HSEG_ERR_FILE);
  EXPECT_EQ(SaveBmp((dir + "/y.bmp").c_str(), two.get()), HSEG_ERR_FORMAT);
  // Only the directory made above is left.
  ASSERT_EQ(rmdir((dir + "/x.bmp").c_str()), 0);
  EXPECT_EQ(rmdir(dir.c_str()), 0) << "a file was left in " << dir;
  Image *out = nullptr;
  EXPECT_EQ(LoadBMP(nullptr, (dir + "/none.bmp").c_str(), &out), HSEG_ERR_FILE);
}

}  // namespace
