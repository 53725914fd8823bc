// Background effects: a full mask keeps the frame, an empty one gives the
// blurred frame or the new picture, in every frame format, in place or not,
// without touching the bytes between rows; checks and allocation failures.
// The segment-and-apply call runs through the real pipeline in the tool's
// test, where the example program must give the tool's frames.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "common/pixfmt.h"
#include "hseg/blur.h"
#include "hseg/pipeline.h"
#include "support/alloc_hooks.h"

namespace {

using namespace hseg_test;
using hseg::pixfmt::plane_count;
using hseg::pixfmt::plane_rows;
using hseg::pixfmt::row_bytes;

constexpr uint8_t kPad = 0x3C;
const uint32_t kFormats[] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420,
                             HSEG_PIXFMT_NV21, HSEG_PIXFMT_GRAY};

// A frame whose rows are followed by 5 padding bytes, each plane its own
// buffer; random samples, smooth enough that a blur changes them.
struct Frame {
  OffscreenImage d{};
  std::vector<uint8_t> p[3];
  Frame(uint32_t f, int32_t w, int32_t h, uint32_t seed) : d{f, w, h, {}, {}} {
    std::mt19937 rng(seed);
    for (int i = 0; i < plane_count(f); ++i) {
      const auto bytes = static_cast<int32_t>(row_bytes(f, i, w));
      d.pitches[i] = bytes + 5;
      p[i].assign(size_t(d.pitches[i]) * plane_rows(f, i, h), kPad);
      for (int64_t y = 0; y < plane_rows(f, i, h); ++y)
        for (int32_t x = 0; x < bytes; ++x) p[i][y * d.pitches[i] + x] = uint8_t((x * 7 + y * 3) ^ (rng() & 31));
      d.planes[i] = p[i].data();
    }
  }
  Frame(const Frame &o) : d(o.d) {
    for (int i = 0; i < 3; ++i) p[i] = o.p[i], d.planes[i] = p[i].empty() ? nullptr : p[i].data();
  }
  bool operator==(const Frame &o) const { return p[0] == o.p[0] && p[1] == o.p[1] && p[2] == o.p[2]; }
};

std::vector<uint8_t> constant_mask(int32_t w, int32_t h, uint8_t v, OffscreenImage *m) {
  std::vector<uint8_t> px(size_t(w) * h, v);
  *m = OffscreenImage{HSEG_PIXFMT_GRAY, w, h, {px.data()}, {w}};
  return px;
}

// The frame blurred plane by plane with the blur library, as the effect
// should: 4:2:0 chroma at sigma / 2, NV21's pairs as two planes.
Frame blurred(const Frame &f, float sigma) {
  Frame out = f;
  const int32_t w = f.d.width, h = f.d.height, cw = (w + 1) / 2, ch = (h + 1) / 2;
  auto gray = [](uint8_t *p, int32_t w, int32_t h, int32_t pitch) {
    return OffscreenImage{HSEG_PIXFMT_GRAY, w, h, {p}, {pitch}};
  };
  if (f.d.format != HSEG_PIXFMT_I420 && f.d.format != HSEG_PIXFMT_NV21) {
    EXPECT_EQ(GB_GaussianBlur(nullptr, &f.d, &out.d, sigma), HSEG_OK);
    return out;
  }
  OffscreenImage y = gray(out.d.planes[0], w, h, out.d.pitches[0]);
  EXPECT_EQ(GB_GaussianBlur(nullptr, &y, &y, sigma), HSEG_OK);
  for (int c = 0; c < 2; ++c) {
    std::vector<uint8_t> plane(size_t(cw) * ch);
    const bool nv = f.d.format == HSEG_PIXFMT_NV21;
    uint8_t *base = out.d.planes[nv ? 1 : 1 + c];
    const int32_t pitch = out.d.pitches[nv ? 1 : 1 + c], step = nv ? 2 : 1, off = nv ? c : 0;
    for (int32_t yy = 0; yy < ch; ++yy)
      for (int32_t x = 0; x < cw; ++x) plane[yy * cw + x] = base[yy * pitch + off + x * step];
    OffscreenImage g = gray(plane.data(), cw, ch, cw);
    EXPECT_EQ(GB_GaussianBlur(nullptr, &g, &g, sigma / 2), HSEG_OK);
    for (int32_t yy = 0; yy < ch; ++yy)
      for (int32_t x = 0; x < cw; ++x) base[yy * pitch + off + x * step] = plane[yy * cw + x];
  }
  return out;
}

// A full mask keeps the frame and an empty one gives the background, byte
// for byte, whatever the mask's size; in place gives the same; padding
// stays. Sizes include odd ones (4:2:0 chroma of a last odd row/column).
TEST(BackgroundEffects, FullMaskKeepsTheFrameEmptyMaskGivesTheBackground) {
  for (uint32_t f : kFormats)
    for (auto [w, h] : {std::pair{64, 48}, {38, 27}}) {
      if (f == HSEG_PIXFMT_YUY2 && w % 2) continue;
      SCOPED_TRACE(std::to_string(f) + " " + std::to_string(w) + "x" + std::to_string(h));
      const Frame frame(f, w, h, 1), picture(f, w, h, 2), background = blurred(frame, 5.0f);
      for (auto [mw, mh] : {std::pair{w, h}, {17, 60}}) {
        OffscreenImage full, empty;
        const auto keep = constant_mask(mw, mh, 255, &full), drop = constant_mask(mw, mh, 0, &empty);
        Frame out = picture;
        ASSERT_EQ(HsegBlurBackground(nullptr, &frame.d, &full, 5.0f, &out.d), HSEG_OK);
        EXPECT_TRUE(out == frame) << "full mask, blur";
        ASSERT_EQ(HsegReplaceBackground(nullptr, &frame.d, &full, &picture.d, &out.d), HSEG_OK);
        EXPECT_TRUE(out == frame) << "full mask, replace";
        ASSERT_EQ(HsegBlurBackground(nullptr, &frame.d, &empty, 5.0f, &out.d), HSEG_OK);
        EXPECT_TRUE(out == background) << "empty mask, blur";
        ASSERT_EQ(HsegReplaceBackground(nullptr, &frame.d, &empty, &picture.d, &out.d), HSEG_OK);
        EXPECT_TRUE(out == picture) << "empty mask, replace";
        Frame in_place = frame;
        ASSERT_EQ(HsegBlurBackground(nullptr, &in_place.d, &empty, 5.0f, &in_place.d), HSEG_OK);
        EXPECT_TRUE(in_place == background) << "in place";
      }
    }
}

// A mask with the person on the left: the left edge keeps the frame, the
// right edge is the background, and in between the result lies between the
// two (the feathered edge blends, never overshoots).
TEST(BackgroundEffects, HalfMaskBlendsBetweenFrameAndBackground) {
  const int32_t w = 96, h = 40;
  const Frame frame(HSEG_PIXFMT_BGR24, w, h, 3), picture(HSEG_PIXFMT_BGR24, w, h, 4);
  std::vector<uint8_t> m(size_t(w) * h);
  for (int32_t i = 0; i < w * h; ++i) m[i] = i % w < w / 2 ? 255 : 0;
  const OffscreenImage mask{HSEG_PIXFMT_GRAY, w, h, {m.data()}, {w}};
  Frame out = frame;
  ASSERT_EQ(HsegReplaceBackground(nullptr, &frame.d, &mask, &picture.d, &out.d), HSEG_OK);
  int blended = 0;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t i = 0; i < 3 * w; ++i) {
      const size_t at = size_t(y) * frame.d.pitches[0] + i;
      const int a = frame.p[0][at], b = picture.p[0][at], o = out.p[0][at];
      ASSERT_TRUE(i < 3 * 8 ? o == a : i >= 3 * (w - 8) ? o == b : o >= std::min(a, b) && o <= std::max(a, b))
          << "row " << y << ", byte " << i;
      blended += o != a && o != b;
    }
  EXPECT_GT(blended, 0);
}

TEST(BackgroundEffects, RejectBadArgumentsBeforeAllocating) {
  const Frame frame(HSEG_PIXFMT_NV21, 20, 10, 5);
  Frame out = frame;
  OffscreenImage mask;
  const auto px = constant_mask(8, 8, 0, &mask);
  auto with = [](OffscreenImage o, auto change) { change(o); return o; };
  const OffscreenImage f = frame.d, o = out.d;
  const OffscreenImage no_chroma = with(f, [](auto &x) { x.planes[1] = nullptr; });
  const OffscreenImage wider = with(o, [](auto &x) { x.width = 22; });
  const OffscreenImage gray = with(o, [](auto &x) { x.format = HSEG_PIXFMT_GRAY; });
  const OffscreenImage gray16 = with(f, [](auto &x) { x.format = HSEG_PIXFMT_GRAY16; });
  OffscreenImage out16 = with(o, [](auto &x) { x.format = HSEG_PIXFMT_GRAY16; });
  const OffscreenImage bad_mask = with(mask, [](auto &x) { x.pitches[0] = 7; });
  const OffscreenImage yuy2 = with(f, [](auto &x) { x.format = HSEG_PIXFMT_YUY2; x.width = 5; });
  OffscreenImage odst = o, yout = with(o, [](auto &x) { x.format = HSEG_PIXFMT_YUY2; x.width = 5; });
  HsegBackgroundEffect effect{sizeof(HsegBackgroundEffect), 7, 1.0f, nullptr};
  const MRESULT kBad = HSEG_ERR_BAD_ARGUMENT;
  alloc_reset();
  const struct { const char *what; MRESULT got, want; } cases[] = {
      {"null frame", HsegBlurBackground(nullptr, nullptr, &mask, 2, &odst), kBad},
      {"null mask", HsegBlurBackground(nullptr, &f, nullptr, 2, &odst), kBad},
      {"missing chroma", HsegBlurBackground(nullptr, &no_chroma, &mask, 2, &odst), kBad},
      {"out of another size", HsegBlurBackground(nullptr, &f, &mask, 2, const_cast<OffscreenImage *>(&wider)), kBad},
      {"out of another format", HsegBlurBackground(nullptr, &f, &mask, 2, const_cast<OffscreenImage *>(&gray)), HSEG_ERR_FORMAT},
      {"16-bit frame", HsegBlurBackground(nullptr, &gray16, &mask, 2, &out16), HSEG_ERR_FORMAT},
      {"short mask pitch", HsegBlurBackground(nullptr, &f, &bad_mask, 2, &odst), kBad},
      {"odd YUY2 width", HsegBlurBackground(nullptr, &yuy2, &mask, 2, &yout), kBad},
      {"zero sigma", HsegBlurBackground(nullptr, &f, &mask, 0, &odst), kBad},
      {"NaN sigma", HsegBlurBackground(nullptr, &f, &mask, NAN, &odst), kBad},
      {"no picture", HsegReplaceBackground(nullptr, &f, &mask, nullptr, &odst), kBad},
      {"picture of another size", HsegReplaceBackground(nullptr, &f, &mask, &wider, &odst), kBad},
      {"unknown effect", HsegSegmentBackground(nullptr, &f, nullptr, &effect, &odst), kBad},
      {"null effect", HsegSegmentBackground(nullptr, &f, nullptr, nullptr, &odst), kBad}};
  for (const auto &c : cases) EXPECT_EQ(c.got, c.want) << c.what;
  EXPECT_EQ(alloc_calls(), 0);
  EXPECT_TRUE(out == frame);
}

// Every allocation of a call failing in turn (the effect's own block and
// the blurs'): status 4, out untouched, nothing leaked.
TEST(BackgroundEffects, AllocationFailureWritesNothing) {
  for (uint32_t f : {HSEG_PIXFMT_NV21, HSEG_PIXFMT_YUY2}) {
    const Frame frame(f, 30, 12, 6), picture(f, 30, 12, 7);
    OffscreenImage mask;
    const auto px = constant_mask(9, 5, 128, &mask);
    for (bool blur : {true, false}) {
      for_each_alloc_failure([&](int64_t failing) {
        Frame out = picture;
        const MRESULT s = blur ? HsegBlurBackground(nullptr, &frame.d, &mask, 3.0f, &out.d)
                               : HsegReplaceBackground(nullptr, &frame.d, &mask, &picture.d, &out.d);
        EXPECT_EQ(s, failing == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY);
        EXPECT_EQ(alloc_live(), 0);
        EXPECT_TRUE(failing == 0 || out == picture);
      });
    }
  }
}

}  // namespace
