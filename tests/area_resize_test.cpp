// Area resize to BGR, full and half-sampled, against independent references.
#include <gtest/gtest.h>

#include <utility>

#include "resize/area_table.h"
#include "support/alloc_hooks.h"
#include "support/resize_images.h"

namespace {

using namespace hseg_test;
using Resize = MRESULT (*)(MHandle, const OffscreenImage *, const OffscreenImage *);
const uint32_t kFormats[] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_NV21,
                             HSEG_PIXFMT_I420};

// Both I420 chroma planes are stepped with pitch 1: pitch 2 is spoiled to
// show that it is neither read nor checked.
Frame describe(const Picture &p, uint32_t format, int pad) {
  Frame f = make_frame(p, format, pad, pad);
  f.d.pitches[2] = -1;
  return f;
}

// Resizes into a raster filled with `fill`; the status must be HSEG_OK.
Raster run(Resize resize, const Frame &s, int dw, int dh, int pad = 0, uint8_t fill = kCanary) {
  Raster t(dw, dh, 3, pad, fill);
  const OffscreenImage d = t.bgr();
  EXPECT_EQ(resize(nullptr, &s.d, &d), HSEG_OK);
  return t;
}

// Channel planes on the walk's grid: the picture itself (`half` false) or
// one sample per 2x2 block, clamped to the picture, by the layout's rule.
struct Grid {
  int w, h;
  std::vector<double> c[3];
};

Grid grid_of(const Picture &p, uint32_t format, bool half) {
  Grid g{half ? p.cw() : p.w, half ? p.ch() : p.h, {}};
  for (auto &c : g.c) c.resize(size_t(g.w) * g.h);
  for (int r = 0; r < g.h; ++r) {
    for (int x = 0; x < g.w; ++x) {
      const int sx = half ? 2 * x : x, sr = half ? 2 * r : r;
      const int x1 = std::min(sx + 1, p.w - 1), r1 = std::min(sr + 1, p.h - 1);
      int s[3] = {p.Y(sx, sr), p.U(sx, sr), p.V(sx, sr)};
      if (format == HSEG_PIXFMT_BGR24) {
        for (int k = 0; k < 3; ++k) s[k] = p.bgr[3 * (size_t(sr) * p.w + sx) + k];
      } else if (half && format == HSEG_PIXFMT_YUY2) {  // rows averaged down, columns rounded
        s[0] = ((p.Y(sx, sr) + p.Y(sx, r1)) / 2 + (p.Y(x1, sr) + p.Y(x1, r1)) / 2 + 1) / 2;
      } else if (half) {
        s[0] = (p.Y(sx, sr) + p.Y(x1, sr) + p.Y(sx, r1) + p.Y(x1, r1)) / 4;
      }
      for (int k = 0; k < 3; ++k) g.c[k][size_t(r) * g.w + x] = s[k];
    }
  }
  return g;
}

// Vertical footprints [lo, hi), in grid rows, of the destination rows.
using Rows = std::vector<std::pair<double, double>>;

// The fixed-point walk's rows: `step` 1024ths each, closed where they end;
// the first row that ends past the grid gets the rest of it when the last
// visit closes a row and that visit is not taken already. Rows after these
// repeat the last one.
Rows walk_rows(int64_t step, int visits, int dh, bool close_last) {
  Rows rows;
  const int64_t total = int64_t{visits} * 1024;
  for (int64_t dy = 0, lo = 0; dy < dh; ++dy, lo += step) {
    if (lo + step <= total) {
      rows.push_back({lo / 1024.0, (lo + step) / 1024.0});
    } else {
      if (close_last && lo <= total - 1024) rows.push_back({lo / 1024.0, visits});
      break;
    }
  }
  while (int(rows.size()) < dh) rows.push_back(rows.back());
  return rows;
}

// The exact rows of a grid `extent` rows high.
Rows exact_rows(double extent, int dh) {
  Rows rows;
  for (int dy = 0; dy < dh; ++dy) rows.push_back({dy * extent / dh, (dy + 1) * extent / dh});
  return rows;
}

// Double-precision area means of every destination pixel (3 per pixel).
std::vector<double> reference(const Grid &g, int dw, double sx, double sy, const Rows &rows) {
  const int dh = int(rows.size());
  std::vector<double> out(size_t(3) * dw * dh);
  for (int dy = 0; dy < dh; ++dy) {
    const auto [lo, hi] = rows[dy];
    for (int dx = 0; dx < dw; ++dx) {
      const double x0 = dx * sx, x1 = std::min((dx + 1) * sx, double(g.w));
      double acc[3] = {0, 0, 0};
      for (int r = int(lo); r < int(std::ceil(hi)); ++r) {
        const double oy = std::min(hi, r + 1.0) - std::max(lo, double(r));
        for (int x = int(x0); x < int(std::ceil(x1)); ++x) {
          const double o = (std::min(x1, x + 1.0) - std::max(x0, double(x))) * oy;
          for (int k = 0; k < 3; ++k) acc[k] += o * g.c[k][size_t(r) * g.w + x];
        }
      }
      for (int k = 0; k < 3; ++k) out[3 * (size_t(dy) * dw + dx) + k] = acc[k] / (sx * sy);
    }
  }
  return out;
}

// Every output pixel within `tol` of the reference: for YUV, the conversion
// of some Y, U, V each within `tol` of the reference means.
void expect_near_ref(const Raster &t, const std::vector<double> &ref, bool yuv, double tol) {
  for (int i = 0; i < t.w * t.h; ++i) {
    const double *m = &ref[3 * size_t(i)];
    const uint8_t *o = t.row(i / t.w) + 3 * (i % t.w);
    bool ok = !yuv;
    for (int k = 0; k < 3 && !yuv; ++k) ok = ok && std::fabs(o[k] - std::min(m[k], 255.0)) <= tol;
    for (int a = int(std::ceil(m[0] - tol)); yuv && a <= int(m[0] + tol) && !ok; ++a)
      for (int b = int(std::ceil(m[1] - tol)); b <= int(m[1] + tol) && !ok; ++b)
        for (int c = int(std::ceil(m[2] - tol)); c <= int(m[2] + tol) && !ok; ++c) {
          int e[3];
          yuv_to_bgr_ref(a, b, c, e);
          ok = e[0] == o[0] && e[1] == o[1] && e[2] == o[2];
        }
    ASSERT_TRUE(ok) << "pixel " << i % t.w << "," << i / t.w << " is " << int(o[0]) << ","
                    << int(o[1]) << "," << int(o[2]) << ", means " << m[0] << "," << m[1] << ","
                    << m[2];
  }
}

// Checks a full-resolution (`half` false) or half-sampled resize of `p`
// against the references, within `tol` of the means, and returns its pixels.
std::vector<uint8_t> check_against_ref(const Picture &p, uint32_t format, int dw, int dh, bool half,
                                       int pad, double tol) {
  SCOPED_TRACE(testing::Message() << "format " << format << " " << p.w << "x" << p.h << " -> "
                                  << dw << "x" << dh << " pad " << pad << (half ? " SP" : ""));
  const Frame s = describe(p, format, pad);
  const Raster t = run(half ? LumResizeToBGR_SP : LumResizeToBGR, s, dw, dh, pad);
  EXPECT_TRUE(t.padding_untouched());
  // The fused walk (runs summed in locals, visits added straight to the
  // carry) gives the plain walk's bytes, written over another filling.
  const Resize plain = half ? hseg::area::resize_to_bgr_sp_ref : hseg::area::resize_to_bgr_ref;
  EXPECT_EQ(t.packed(), run(plain, s, dw, dh, pad, 0xFF).packed());
  // The fixed-point walk serves at most 32 source pixels per destination
  // pixel each way, and on the half grid at least 2; the exact mean the rest.
  const bool fixed = p.w <= 32 * dw && p.h <= 32 * dh && (!half || (p.w >= 2 * dw && p.h >= 2 * dh));
  const int64_t full = (int64_t{p.h} * 2048 / dh + 1) >> 1;
  const int64_t step = !half                        ? full
                       : format == HSEG_PIXFMT_BGR24 ? full / 2
                                                     : (int64_t{p.h} * 2048 / dh + 3) >> 2;
  const bool close_last =
      !half || format == HSEG_PIXFMT_YUY2 || (format == HSEG_PIXFMT_BGR24) == (p.h % 2 == 1);
  const double f = half ? 0.5 : 1.0;
  const Grid g = grid_of(p, format, half);
  const Rows rows = fixed ? walk_rows(step, g.h, dh, close_last) : exact_rows(f * p.h, dh);
  expect_near_ref(t, reference(g, dw, f * p.w / dw, f * p.h / dh, rows),
                  format != HSEG_PIXFMT_BGR24, tol);
  return t.packed();
}

// Every layout of `p` against the references; at full resolution the three
// YUV layouts of one picture carry the same samples and must agree exactly.
void check_layouts(const Picture &p, int dw, int dh, bool half, int pad, double tol = 1) {
  std::vector<uint8_t> out[4];
  for (int i = 0; i < 4; ++i) out[i] = check_against_ref(p, kFormats[i], dw, dh, half, pad, tol);
  EXPECT_TRUE(half || (out[1] == out[2] && out[2] == out[3])) << p.w << "x" << p.h;
}

// Random pictures, sizes, ratios and pitches, odd sizes included on the half
// grid: within 1 of the double-precision means, and the plain walk's bytes.
TEST(AreaResize, MatchesDoubleAreaReferenceAndYuvLayoutsAgree) {
  std::mt19937 rng(20240611);
  auto pick = [&](int n) {  // a destination side between n / 6 and n
    const int lo = std::max(1, n / 6);
    return lo + int(rng() % (n - lo + 1));
  };
  for (const bool half : {false, true}) {
    for (int trial = 0; trial < 60; ++trial) {
      const int w = 1 + half + int(rng() % 90), h = 1 + half + int(rng() % 90);
      const int dw = pick(half ? w / 2 : w), dh = pick(half ? h / 2 : h);
      check_layouts(random_picture(rng, w, h), dw, dh, half, int(rng() % 5));
    }
  }
}

// Each case on a random picture and on a white one, which must stay white.
// The walk's last rows: closed by the last source row (1000 -> 473, step
// 2165 overshoots by 45/1024), copied where the rounded step leaves the last
// row unclosed (56 -> 55, 500 -> 473), never written past (2053 -> 2052),
// and at the half grid's forced-close rules for both parities. At 31.25:1
// (15:1 on the half grid) the rounded 14-bit weights add up to more than 1:
// white only, as a random picture strays past the reference's tolerance.
// Past 32 source pixels per destination pixel, and on the half grid below 2,
// the resize is the exact area mean (the 14-bit weights made a uniform 200
// into 195 at 640x480 -> 16x12, black at 1920x1080 -> 2x2; the half grid
// saturated every other column at 640x480 -> 600x400). Past 32 one way only,
// odd sizes, and random shapes too.
TEST(AreaResize, LastRowsSaturationLargeRatiosAndHalfGridEnlargement) {
  std::mt19937 rng(37);
  struct Case { int w, h, dw, dh; bool half, random = true; };
  std::vector<Case> cases = {
      {9, 1000, 4, 473, false},   {9, 56, 4, 55, false},      {9, 500, 4, 473, false},
      {9, 537, 4, 473, false},    {9, 2053, 4, 2052, false},  {9, 200, 4, 97, true},
      {9, 201, 4, 97, true},      {9, 1000, 4, 473, true},    {640, 480, 16, 12, false},
      {1920, 1080, 2, 2, false},  {182, 182, 1, 1, false},    {199, 40, 6, 40, false},
      {40, 199, 40, 6, false},    {99, 70, 3, 2, true},       {640, 480, 600, 400, true},
      {63, 9, 40, 4, true},       {9, 63, 4, 40, true},       {65, 47, 33, 24, true},
      {1000, 1000, 32, 32, false, false},                     {960, 960, 32, 32, true, false}};
  for (int trial = 0; trial < 10; ++trial) {
    const int w = 2 + int(rng() % 120), h = 2 + int(rng() % 120);
    cases.push_back({w, h, w / 2 + 1 + int(rng() % (w - w / 2)), 1 + int(rng() % h), true});
    cases.push_back({w + 66, h, 1 + int(rng() % 2), 1 + int(rng() % h), false});
  }
  for (const auto &c : cases) {
    for (const bool white : {true, false}) {
      if (!white && !c.random) continue;
      Picture p = random_picture(rng, c.w, c.h, white ? 255 : 0, 255);
      if (white) p.u.assign(p.u.size(), 128), p.v.assign(p.v.size(), 128);
      check_layouts(p, c.dw, c.dh, c.half, int(rng() % 3));
    }
  }
}

// Exact results: at equal size BGR is the identity and YUV the per-pixel
// conversion; 2w x 2h to w x h on the half grid is each layout's per-block
// sample (the references' means are those values); halving BGR at full
// resolution rounds the 2x2 mean half up.
TEST(AreaResize, EqualSizeAndHalvingGiveExactValues) {
  std::mt19937 rng(11);
  for (const auto &[w, h] : {std::pair{1, 1}, {2, 2}, {7, 5}, {16, 9}, {33, 20}}) {
    for (const bool half : {false, true})
      check_layouts(random_picture(rng, half ? 2 * w : w, half ? 2 * h : h), w, h, half, 2, 0.0);
    const Picture p = random_picture(rng, 2 * w, 2 * h);
    const Raster t = run(LumResizeToBGR, describe(p, HSEG_PIXFMT_BGR24, 1), w, h);
    for (int i = 0; i < 3 * w * h; ++i) {
      const int x = i / 3 % w, r = i / (3 * w), k = i % 3;
      auto at = [&](int dx, int dr) { return p.bgr[3 * ((2 * r + dr) * 2 * w + 2 * x + dx) + k]; };
      ASSERT_EQ(t.at(x, r, k), (at(0, 0) + at(1, 0) + at(0, 1) + at(1, 1) + 2) / 4);
    }
  }
}

// Arguments are refused before anything is allocated or written.
TEST(AreaResize, RefusesBadArgumentsAndEnlargementWithoutWorking) {
  std::mt19937 rng(17);
  const Picture p = random_picture(rng, 8, 6);
  using Spoil = void (*)(OffscreenImage &s, OffscreenImage &d);
  const struct { const char *what; Spoil spoil; MRESULT status; } cases[] = {
      {"grey source", [](auto &s, auto &) { s.format = HSEG_PIXFMT_GRAY; }, 3},
      {"source width 0", [](auto &s, auto &) { s.width = 0; }, 2},
      {"source height -1", [](auto &s, auto &) { s.height = -1; }, 2},
      {"destination height 0", [](auto &, auto &d) { d.height = 0; }, 2},
      {"null source plane", [](auto &s, auto &) { s.planes[0] = nullptr; }, 2},
      {"null destination", [](auto &, auto &d) { d.planes[0] = nullptr; }, 2},
      {"last pitch a byte short (I420: the chroma pitch that steps U and V)",
       [](auto &s, auto &) {  // the frame's rows carry 2 bytes of padding
         const int k = s.format == HSEG_PIXFMT_I420 || s.format == HSEG_PIXFMT_NV21;
         s.pitches[k] -= 3;
       }, 2},
      {"negative pitch", [](auto &s, auto &) { s.pitches[0] = -100; }, 2},
      {"short destination pitch", [](auto &, auto &d) { d.pitches[0] = 3 * d.width - 1; }, 2},
      {"wider destination",
       [](auto &s, auto &d) { d.width = s.width + 1, d.pitches[0] = 3 * d.width; }, 0},
      {"taller destination", [](auto &s, auto &d) { d.height = s.height + 1; }, 0},
      {"work block past int32", [](auto &s, auto &d) {  // (3 * 2^29 + 4) * 16 bytes
         s.width = d.width = 1 << 29;
         s.pitches[0] = s.pitches[1] = d.pitches[0] = 0x7FFFFFFF;
       }, 2}};
  for (Resize resize : {LumResizeToBGR, LumResizeToBGR_SP}) {
    for (uint32_t f : kFormats) {
      for (const auto &c : cases) {
        Frame s = describe(p, f, 2);
        Raster t(4, 6, 3, 3);
        OffscreenImage d = t.bgr();
        c.spoil(s.d, d);
        alloc_reset();
        EXPECT_EQ(resize(nullptr, &s.d, &d), c.status) << c.what << ", format " << f;
        EXPECT_TRUE(alloc_calls() == 0 && t.untouched()) << c.what;
      }
      const Frame s = describe(p, f, 0);
      Raster t(4, 3, 3);
      const OffscreenImage d = t.bgr();
      EXPECT_EQ(resize(nullptr, nullptr, &d), HSEG_ERR_BAD_ARGUMENT);
      EXPECT_EQ(resize(nullptr, &s.d, nullptr), HSEG_ERR_BAD_ARGUMENT);
    }
  }
}

// Failures past the argument checks write nothing and leak nothing: a
// failed allocation (status 4), and a column table that would overrun
// (single-precision column positions drift on very wide sources: 16424 to
// 516 columns, 32802 to 1026 on the half grid, both within 32:1).
TEST(AreaResize, FailuresLeaveNothingBehind) {
  std::mt19937 rng(19);
  const Picture p = random_picture(rng, 30, 20);
  const int64_t live = alloc_live();
  for (Resize resize : {LumResizeToBGR, LumResizeToBGR_SP}) {
    for (uint32_t f : kFormats) {
      const Frame s = describe(p, f, 1);
      expect_clean_alloc_failures(35 * 7, [&](uint8_t *dst) {
        const OffscreenImage d{HSEG_PIXFMT_BGR24, 11, 7, {dst}, {35}};
        return resize(nullptr, &s.d, &d);
      });
    }
    const bool half = resize == LumResizeToBGR_SP;
    const Picture wide = random_picture(rng, half ? 32802 : 16424, 2);
    const Frame s = describe(wide, HSEG_PIXFMT_BGR24, 0);
    Raster t(half ? 1026 : 516, 1, 3);
    const OffscreenImage d = t.bgr();
    EXPECT_EQ(resize(nullptr, &s.d, &d), HSEG_ERR_TABLE);
    EXPECT_TRUE(t.untouched() && alloc_live() == live);
  }
}

// The workers guard their own arguments: with a valid 2:1 BGR call as the
// base, each spoiled argument returns 2 and writes nothing; a source height
// of 0 returns 0 and writes nothing.
TEST(AreaWorkers, RefuseArgumentsTheyCannotServe) {
  std::vector<uint8_t> src(3 * 8 * 4, 100);
  std::vector<uint64_t> row(3 * 4), carry(3 * 4);
  struct Args {
    const uint8_t *src;
    uint64_t *row;
    std::vector<LumResizeEntry> t;
    int32_t src_pitch = 24, sh = 4, dh = 2, sstep = 3, dstep = 3;
  };
  const struct { const char *what; void (*spoil)(Args &); MRESULT status; } cases[] = {
      {"valid", [](Args &) {}, HSEG_OK},
      {"source height 0", [](Args &a) { a.sh = 0; }, HSEG_OK},
      {"null source", [](Args &a) { a.src = nullptr; }, 2},
      {"short pitch", [](Args &a) { a.src_pitch = 23; }, 2},
      {"destination height 0", [](Args &a) { a.dh = 0; }, 2},
      {"channel step 2", [](Args &a) { a.sstep = 2; }, 2},
      {"destination step 4", [](Args &a) { a.dstep = 4; }, 2},
      {"entry past the row", [](Args &a) { a.t.back().src_offset = 22; }, 2},
      {"entry past the destination", [](Args &a) { a.t.back().dst_offset = 10; }, 2},
      {"null accumulator", [](Args &a) { a.row = nullptr; }, 2}};
  for (const auto &c : cases) {
    Args a{src.data(), row.data(), {}};
    for (int x = 0; x < 8; ++x) a.t.push_back({3 * x, 3 * (x / 2), 4096});  // 1/4 each
    c.spoil(a);
    std::vector<uint8_t> dst(24, kCanary);
    EXPECT_EQ(lumResize_Area_BGR(a.src, a.src_pitch, 8, a.sh, dst.data(), 12, 4, a.dh, a.sstep,
                                 a.dstep, a.t.data(), int32_t(a.t.size()), a.row, carry.data()),
              c.status) << c.what;
    EXPECT_EQ(std::count(dst.begin(), dst.end(), 100) == 24, c.status == HSEG_OK && a.sh > 0)
        << c.what;
  }
}

// The sampling NV21 variant visits every second source row and takes every
// second table entry: at 2:1 across that is the top-left pixel of each
// block, at 1:1 every second column gets no sample and is black. A row is
// written out at the start of the visit that passes its end, and at the
// start of the last visit, whose samples are never written: 8 -> 4 holds
// the visits of rows 0, 2, 4 (and a copy), 8 -> 8 none (black), then 0, 2, 4
// (and copies), 10 -> 3 the rounded mean of 0 and 2, then 4 and 6.
TEST(AreaWorkers, FastNv21SamplesEverySecondRowAndEntry) {
  std::mt19937 rng(29);
  const int w = 12;
  const struct { int h, dh, scale; std::vector<std::vector<int>> rows; } cases[] = {
      {8, 4, 2, {{0}, {2}, {4}, {4}}},
      {8, 8, 1, {{}, {0}, {2}, {4}, {4}, {4}, {4}, {4}}},
      {10, 3, 2, {{0, 2}, {4}, {6}}}};
  std::vector<uint32_t> counts(3 * w), sums(3 * w);
  for (const auto &c : cases) {
    const Picture p = random_picture(rng, w, c.h);
    const Frame s = describe(p, HSEG_PIXFMT_NV21, 1);
    std::vector<LumResizeEntry> table;
    for (int x = 0; x < w; ++x) table.push_back({x, 3 * (x / c.scale), 16384u / c.scale});
    Raster t(w / c.scale, c.dh, 3, 0);
    ASSERT_EQ(lumResize_Area_YUV420LPtoBGR_Fast(
                  s.d.planes[0], s.d.planes[1], s.d.pitches[0], s.d.pitches[1], w, c.h,
                  t.px.data(), t.pitch, t.w, t.h, 1, 3, table.data(), int32_t(table.size()),
                  counts.data(), sums.data()), HSEG_OK);
    for (int i = 0; i < t.w * t.h; ++i) {
      const int sx = i % t.w * c.scale, n = int(c.rows[i / t.w].size());
      int e[3] = {0, 0, 0}, sum[3] = {0, 0, 0};
      for (int sr : c.rows[i / t.w])
        sum[0] += p.Y(sx, sr), sum[1] += p.U(sx, sr), sum[2] += p.V(sx, sr);
      if (n > 0 && sx % 2 == 0)
        yuv_to_bgr_ref((sum[0] + n / 2) / n, (sum[1] + n / 2) / n, (sum[2] + n / 2) / n, e);
      for (int k = 0; k < 3; ++k) ASSERT_EQ(t.at(i % t.w, i / t.w, k), e[k]) << c.h << " " << i;
    }
  }
}

// A column of 5 grey pixels to 3, worked by hand from the fixed-point rules:
// weight r(1 / (5/3)) = 9830, row step (5 * 2048 / 3 + 1) >> 1 = 1707.
//   y0: 14 * 9830 = 137620 is carried (1707 > 1024).
//   y1: 107 * 9830 = 1051810; f = 2048 - 1707 = 341;
//       out0 = round24(137620 * 1024 + 1051810 * 683) = 51,
//       carry = round10(1051810 * 341) = 350261 (350260.95 rounded up).
//   y2: carry += 216 * 9830 -> 2473541.
//   y3: f = 4096 - 3414 = 682; out1 = round24(2473541 * 1024 + 2270730 * 342)
//       = 197, carry = round10(2270730 * 682) = 1512342 (1512341.66).
//   y4: closes the last row: (1512342 + 2428010) / 16384 = 240.5 -> 241.
// Truncating the carried share instead would give 240.
TEST(AreaResize, WorkedExampleRoundsLikeTheFormulas) {
  Picture p{1, 5, {}, {}, {}, {}};
  for (uint8_t c : {14, 107, 216, 231, 247}) p.bgr.resize(p.bgr.size() + 3, c);
  EXPECT_EQ(run(LumResizeToBGR, describe(p, HSEG_PIXFMT_BGR24, 0), 1, 3).px,
            std::vector<uint8_t>({51, 51, 51, 197, 197, 197, 241, 241, 241}));
}

}  // namespace
