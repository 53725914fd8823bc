// Area resize to BGR, full and half-sampled, against independent references.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "hseg/resize.h"
#include "resize/area_table.h"
#include "support/alloc_hooks.h"

namespace {

using Resize = MRESULT (*)(MHandle, const OffscreenImage *, const OffscreenImage *);
const uint32_t kFormats[] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_NV21,
                             HSEG_PIXFMT_I420};
const uint32_t kYuvFormats[] = {HSEG_PIXFMT_YUY2, HSEG_PIXFMT_NV21, HSEG_PIXFMT_I420};
constexpr uint8_t kCanary = 0xA5;

// A logical picture: BGR pixels, and independently Y per pixel with U, V per
// 2x2 block, so that all three YUV layouts carry the same chroma.
struct Picture {
  int w, h;
  std::vector<uint8_t> bgr, y, u, v;
  int cw() const { return (w + 1) / 2; }
  int Y(int x, int r) const { return y[size_t(r) * w + x]; }
  int U(int x, int r) const { return u[size_t(r / 2) * cw() + x / 2]; }
  int V(int x, int r) const { return v[size_t(r / 2) * cw() + x / 2]; }
};

Picture random_picture(std::mt19937 &rng, int w, int h, int lo = 0, int hi = 255) {
  std::uniform_int_distribution<int> d(lo, hi);
  Picture p{w, h, {}, {}, {}, {}};
  const size_t c = size_t(p.cw()) * ((h + 1) / 2);
  for (auto *pl : {&p.bgr, &p.y, &p.u, &p.v}) {
    pl->resize(pl == &p.bgr ? size_t(3) * w * h : pl == &p.y ? size_t(w) * h : c);
    for (auto &b : *pl) b = uint8_t(d(rng));
  }
  return p;
}

// Source planes are sized exactly (no padding after the last row) so that a
// read past them trips the sanitizer build; rows are padded by `pad` bytes.
struct Source {
  OffscreenImage d{};
  std::vector<uint8_t> plane[3];
  uint8_t *make(int i, int row_bytes, int rows, int pad) {
    d.pitches[i] = row_bytes + pad;
    plane[i].assign(size_t(d.pitches[i]) * (rows - 1) + row_bytes, 0xEE);
    return d.planes[i] = plane[i].data();
  }
};

Source describe(const Picture &p, uint32_t format, int pad) {
  Source s;
  s.d.format = format;
  s.d.width = p.w;
  s.d.height = p.h;
  const int cw = p.cw(), ch = (p.h + 1) / 2;
  if (format == HSEG_PIXFMT_BGR24) {
    uint8_t *b = s.make(0, 3 * p.w, p.h, pad);
    for (int r = 0; r < p.h; ++r) std::memcpy(b + r * s.d.pitches[0], &p.bgr[3 * r * p.w], 3 * p.w);
    return s;
  }
  if (format == HSEG_PIXFMT_YUY2) {
    uint8_t *b = s.make(0, 4 * cw, p.h, pad);
    for (int r = 0; r < p.h; ++r) {
      for (int x = 0; x < p.w; x += 2) {
        uint8_t *g = b + r * s.d.pitches[0] + 2 * x;
        g[0] = uint8_t(p.Y(x, r));
        g[1] = uint8_t(p.U(x, r));
        g[2] = x + 1 < p.w ? uint8_t(p.Y(x + 1, r)) : 255;  // past an odd width
        g[3] = uint8_t(p.V(x, r));
      }
    }
    return s;
  }
  uint8_t *yp = s.make(0, p.w, p.h, pad);
  for (int r = 0; r < p.h; ++r) std::memcpy(yp + r * s.d.pitches[0], &p.y[size_t(r) * p.w], p.w);
  if (format == HSEG_PIXFMT_NV21) {
    uint8_t *c = s.make(1, 2 * cw, ch, pad);
    for (int r = 0; r < ch; ++r) {
      for (int x = 0; x < cw; ++x) {
        c[r * s.d.pitches[1] + 2 * x] = p.v[r * cw + x];
        c[r * s.d.pitches[1] + 2 * x + 1] = p.u[r * cw + x];
      }
    }
    return s;
  }
  uint8_t *u = s.make(1, cw, ch, pad);
  uint8_t *v = s.make(2, cw, ch, pad);  // laid out with the U pitch ...
  s.d.pitches[2] = 9999;                // ... which is the one that is read
  for (int r = 0; r < ch; ++r) {
    std::memcpy(u + r * s.d.pitches[1], &p.u[r * cw], cw);
    std::memcpy(v + r * s.d.pitches[1], &p.v[r * cw], cw);
  }
  return s;
}

// A BGR destination filled with the canary; the last row is exact.
struct Target {
  OffscreenImage d{};
  std::vector<uint8_t> buf;
  Target(int w, int h, int pad = 0, uint8_t fill = kCanary) {
    d.format = HSEG_PIXFMT_BGR24;
    d.width = w;
    d.height = h;
    d.pitches[0] = 3 * w + pad;
    buf.assign(size_t(d.pitches[0]) * (h - 1) + 3 * w, fill);
    d.planes[0] = buf.data();
  }
  const uint8_t *px(int x, int r) const { return &buf[size_t(r) * d.pitches[0] + 3 * x]; }
  bool untouched() const {
    return std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == kCanary; });
  }
  bool padding_untouched() const {
    for (size_t i = 0; i < buf.size(); ++i) {
      if (int(i % d.pitches[0]) >= 3 * d.width && buf[i] != kCanary) return false;
    }
    return true;
  }
};

// Full-range conversion in double: the shifts of the 14-bit formula are
// floor(x + 0.5) of exactly representable values.
void convert(int y, int u, int v, int out[3]) {
  const double uu = u - 128, vv = v - 128;
  const double c[3] = {y + 29049.0 / 16384 * uu, y - (11698.0 * vv + 5636.0 * uu) / 16384,
                       y + 22987.0 / 16384 * vv};
  for (int k = 0; k < 3; ++k) out[k] = std::clamp(int(std::floor(c[k] + 0.5)), 0, 255);
}

// Channel planes on the walk's grid: the picture itself (`half` false) or
// one sample per 2x2 block, clamped to the picture, by the layout's rule.
struct Grid {
  int w, h;
  std::vector<double> c[3];
};

Grid grid_of(const Picture &p, uint32_t format, bool half) {
  Grid g{half ? p.cw() : p.w, half ? (p.h + 1) / 2 : p.h, {}};
  for (auto &c : g.c) c.resize(size_t(g.w) * g.h);
  for (int r = 0; r < g.h; ++r) {
    for (int x = 0; x < g.w; ++x) {
      const int sx = half ? 2 * x : x, sr = half ? 2 * r : r;
      const int x1 = std::min(sx + 1, p.w - 1), r1 = std::min(sr + 1, p.h - 1);
      int s[3];
      if (format == HSEG_PIXFMT_BGR24) {
        for (int k = 0; k < 3; ++k) s[k] = p.bgr[3 * (size_t(sr) * p.w + sx) + k];
      } else {
        s[0] = p.Y(sx, sr);
        if (half && format == HSEG_PIXFMT_YUY2) {  // rows averaged down, then columns rounded
          s[0] = ((p.Y(sx, sr) + p.Y(sx, r1)) / 2 + (p.Y(x1, sr) + p.Y(x1, r1)) / 2 + 1) / 2;
        } else if (half) {
          s[0] = (p.Y(sx, sr) + p.Y(x1, sr) + p.Y(sx, r1) + p.Y(x1, r1)) / 4;
        }
        s[1] = p.U(sx, sr);
        s[2] = p.V(sx, sr);
      }
      for (int k = 0; k < 3; ++k) g.c[k][size_t(r) * g.w + x] = s[k];
    }
  }
  return g;
}

// Footprints, in 1024ths of a grid row, of the destination rows the walk
// writes: `step` units each, closed where they end; the first row that ends
// past the grid gets the rest of it when the last visit closes a row and that
// visit is not taken already. Rows after these repeat the last one.
std::vector<std::pair<int64_t, int64_t>> plan_rows(int64_t step, int visits, int dh,
                                                   bool close_last) {
  std::vector<std::pair<int64_t, int64_t>> rows;
  const int64_t total = int64_t{visits} * 1024;
  int64_t lo = 0;
  for (int dy = 0; dy < dh; ++dy, lo += step) {
    if (lo + step <= total) {
      rows.push_back({lo, lo + step});
    } else {
      if (close_last && lo <= total - 1024) rows.push_back({lo, total});
      break;
    }
  }
  return rows;
}

// Double-precision area means of every destination pixel (3 per pixel).
std::vector<double> reference(const Grid &g, int dw, int dh, double sx, double sy,
                              int64_t step, bool close_last) {
  const auto rows = plan_rows(step, g.h, dh, close_last);
  std::vector<double> out(size_t(3) * dw * dh);
  for (int dy = 0; dy < dh; ++dy) {
    const auto [lo, hi] = rows[std::min<size_t>(dy, rows.size() - 1)];
    for (int dx = 0; dx < dw; ++dx) {
      const double x0 = dx * sx, x1 = std::min((dx + 1) * sx, double(g.w));
      double acc[3] = {0, 0, 0};
      for (int64_t r = lo / 1024; r < (hi + 1023) / 1024; ++r) {
        const double oy = (std::min(hi, (r + 1) * 1024) - std::max(lo, r * 1024)) / 1024.0;
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

// Every output pixel within 1 of the reference: for YUV, the conversion of
// some Y, U, V each within 1 of the reference means.
void expect_near_reference(const Target &t, const std::vector<double> &ref, bool yuv) {
  const int dw = t.d.width;
  for (int dy = 0; dy < t.d.height; ++dy) {
    for (int dx = 0; dx < dw; ++dx) {
      const double *m = &ref[3 * (size_t(dy) * dw + dx)];
      const uint8_t *o = t.px(dx, dy);
      bool ok = true;
      if (!yuv) {
        for (int k = 0; k < 3; ++k) ok = ok && std::fabs(o[k] - std::min(m[k], 255.0)) <= 1.0;
      } else {
        ok = false;
        for (int a = int(std::ceil(m[0] - 1)); a <= int(m[0] + 1) && !ok; ++a)
          for (int b = int(std::ceil(m[1] - 1)); b <= int(m[1] + 1) && !ok; ++b)
            for (int c = int(std::ceil(m[2] - 1)); c <= int(m[2] + 1) && !ok; ++c) {
              int e[3];
              convert(a, b, c, e);
              ok = e[0] == o[0] && e[1] == o[1] && e[2] == o[2];
            }
      }
      ASSERT_TRUE(ok) << "pixel " << dx << "," << dy << " is " << int(o[0]) << "," << int(o[1])
                      << "," << int(o[2]) << ", means " << m[0] << "," << m[1] << "," << m[2];
    }
  }
}

// Checks a full-resolution (`half` false) or half-sampled resize of `p`.
void check_against_reference(const Picture &p, uint32_t format, int dw, int dh, bool half,
                             int pad) {
  SCOPED_TRACE(testing::Message() << std::hex << "format 0x" << format << std::dec << " " << p.w
                                  << "x" << p.h << " -> " << dw << "x" << dh << " pad " << pad
                                  << (half ? " SP" : ""));
  Source s = describe(p, format, pad);
  Target t(dw, dh, pad);
  ASSERT_EQ((half ? LumResizeToBGR_SP : LumResizeToBGR)(nullptr, &s.d, &t.d), HSEG_OK);
  EXPECT_TRUE(t.padding_untouched());
  const Grid g = grid_of(p, format, half);
  const double f = half ? 0.5 : 1.0;
  const int64_t full = (int64_t{p.h} * 2048 / dh + 1) >> 1;
  const int64_t step = !half ? full
                       : format == HSEG_PIXFMT_BGR24 ? full / 2
                                                     : (int64_t{p.h} * 2048 / dh + 3) >> 2;
  const bool close_last = !half || format == HSEG_PIXFMT_YUY2 ||
                          (format == HSEG_PIXFMT_BGR24) == (p.h % 2 == 1);
  expect_near_reference(
      t, reference(g, dw, dh, f * p.w / dw, f * p.h / dh, step, close_last),
      format != HSEG_PIXFMT_BGR24);
}

TEST(AreaResize, MatchesDoubleAreaReferenceOnRandomPictures) {
  std::mt19937 rng(20240611);
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 1 + int(rng() % 90), h = 1 + int(rng() % 90);
    const int dw = std::max(1, w / 6) + int(rng() % (w - std::max(1, w / 6) + 1));
    const int dh = std::max(1, h / 6) + int(rng() % (h - std::max(1, h / 6) + 1));
    const Picture p = random_picture(rng, w, h);
    for (uint32_t f : kFormats) check_against_reference(p, f, dw, dh, false, int(rng() % 5));
  }
}

TEST(AreaResizeSp, MatchesHalfGridReferenceOnRandomPictures) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 2 + int(rng() % 90), h = 2 + int(rng() % 90);  // odd sizes included
    const int dw = std::max(1, w / 12) + int(rng() % (w / 2 - std::max(1, w / 12) + 1));
    const int dh = std::max(1, h / 12) + int(rng() % (h / 2 - std::max(1, h / 12) + 1));
    const Picture p = random_picture(rng, w, h);
    for (uint32_t f : kFormats) check_against_reference(p, f, dw, dh, true, int(rng() % 5));
  }
}

// The walk's last rows: closed by the last source row (1000 -> 473, step
// 2165 overshoots by 45/1024), copied where the rounded step leaves the last
// row unclosed (56 -> 55, 500 -> 473), never written past (2053 -> 2052),
// and at the half grid's forced-close rules for both parities.
TEST(AreaResize, ClosesOrCopiesTheLastRowsAndStopsAtTheEnd) {
  std::mt19937 rng(3);
  const struct { int h, dh; bool half; } cases[] = {
      {1000, 473, false}, {56, 55, false}, {500, 473, false}, {537, 473, false},
      {2053, 2052, false}, {200, 97, true}, {201, 97, true}, {1000, 473, true}};
  for (const auto &c : cases) {
    const Picture p = random_picture(rng, 9, c.h);
    for (uint32_t f : kFormats) check_against_reference(p, f, 4, c.dh, c.half, 1);
  }
}

TEST(AreaResize, EqualSizeIsTheIdentityOrThePerPixelConversion) {
  std::mt19937 rng(11);
  for (const auto &[w, h] : {std::pair{1, 1}, {2, 2}, {7, 5}, {16, 9}, {33, 20}}) {
    const Picture p = random_picture(rng, w, h);
    for (uint32_t f : kFormats) {
      SCOPED_TRACE(testing::Message() << w << "x" << h << " format " << f);
      Source s = describe(p, f, 3);
      Target t(w, h, 2);
      ASSERT_EQ(LumResizeToBGR(nullptr, &s.d, &t.d), HSEG_OK);
      for (int r = 0; r < h; ++r) {
        for (int x = 0; x < w; ++x) {
          int e[3];
          if (f == HSEG_PIXFMT_BGR24) {
            for (int k = 0; k < 3; ++k) e[k] = p.bgr[3 * (r * w + x) + k];
          } else {
            convert(p.Y(x, r), p.U(x, r), p.V(x, r), e);
          }
          const uint8_t *o = t.px(x, r);
          ASSERT_TRUE(o[0] == e[0] && o[1] == e[1] && o[2] == e[2]) << "pixel " << x << "," << r;
        }
      }
    }
  }
}

// Exact block means: halving at full resolution rounds the 2x2 mean half up;
// halving on the half grid is the plain per-block sample of each layout.
TEST(AreaResize, HalvingGivesExactBlockValues) {
  std::mt19937 rng(5);
  for (const auto &[w, h] : {std::pair{2, 2}, {10, 6}, {64, 38}}) {
    const Picture p = random_picture(rng, w, h);
    Source s = describe(p, HSEG_PIXFMT_BGR24, 1);
    Target t(w / 2, h / 2);
    ASSERT_EQ(LumResizeToBGR(nullptr, &s.d, &t.d), HSEG_OK);
    for (int r = 0; r < h / 2; ++r)
      for (int x = 0; x < w / 2; ++x)
        for (int k = 0; k < 3; ++k) {
          auto at = [&](int dx, int dr) { return p.bgr[3 * ((2 * r + dr) * w + 2 * x + dx) + k]; };
          ASSERT_EQ(t.px(x, r)[k], (at(0, 0) + at(1, 0) + at(0, 1) + at(1, 1) + 2) / 4);
        }
    for (uint32_t f : kFormats) {  // 2w x 2h -> w x h on the half grid is 1:1
      const Picture q = random_picture(rng, 2 * w, 2 * h);
      Source sq = describe(q, f, 0);
      Target tq(w, h);
      ASSERT_EQ(LumResizeToBGR_SP(nullptr, &sq.d, &tq.d), HSEG_OK);
      const Grid g = grid_of(q, f, true);
      for (int i = 0; i < w * h; ++i) {
        int e[3] = {int(g.c[0][i]), int(g.c[1][i]), int(g.c[2][i])};
        if (f != HSEG_PIXFMT_BGR24) convert(e[0], e[1], e[2], e);
        for (int k = 0; k < 3; ++k) ASSERT_EQ(tq.buf[3 * i + k], e[k]) << "format " << f;
      }
    }
  }
}

TEST(AreaResize, YuvLayoutsOfOnePictureAgree) {
  std::mt19937 rng(13);
  for (int trial = 0; trial < 20; ++trial) {
    const int w = 1 + int(rng() % 70), h = 1 + int(rng() % 70);
    const int dw = 1 + int(rng() % w), dh = 1 + int(rng() % h);
    const Picture p = random_picture(rng, w, h);
    std::vector<uint8_t> first;
    for (uint32_t f : kYuvFormats) {
      Source s = describe(p, f, int(rng() % 4));
      Target t(dw, dh);
      ASSERT_EQ(LumResizeToBGR(nullptr, &s.d, &t.d), HSEG_OK);
      if (first.empty()) first = t.buf;
      ASSERT_EQ(t.buf, first) << "format " << f << ", " << w << "x" << h << " -> " << dw << "x"
                              << dh;
    }
  }
}

// Rounded 14-bit weights add up to more than 1 at 100:1; white stays white.
TEST(AreaResize, SaturatesAveragesAboveWhite) {
  std::mt19937 rng(1);
  Picture p = random_picture(rng, 1000, 1000, 255, 255);
  std::fill(p.u.begin(), p.u.end(), 128);
  std::fill(p.v.begin(), p.v.end(), 128);
  for (Resize resize : {LumResizeToBGR, LumResizeToBGR_SP}) {
    for (uint32_t f : kFormats) {
      Source s = describe(p, f, 0);
      Target t(10, 10);
      ASSERT_EQ(resize(nullptr, &s.d, &t.d), HSEG_OK);
      EXPECT_TRUE(std::all_of(t.buf.begin(), t.buf.end(), [](uint8_t b) { return b == 255; }))
          << "format " << f;
    }
  }
}

// Arguments are refused before anything is allocated or written.
TEST(AreaResize, RefusesBadArgumentsAndEnlargementWithoutWorking) {
  std::mt19937 rng(17);
  const Picture p = random_picture(rng, 8, 6);
  struct Pair {
    OffscreenImage &s, &d;
  };
  const struct {
    const char *what;
    void (*spoil)(Pair);
    MRESULT status;
  } cases[] = {
      {"grey source", [](Pair a) { a.s.format = HSEG_PIXFMT_GRAY; }, 3},
      {"NV12 source", [](Pair a) { a.s.format = HSEG_PIXFMT_NV12; }, 3},
      {"source width 0", [](Pair a) { a.s.width = 0; }, 2},
      {"source height -1", [](Pair a) { a.s.height = -1; }, 2},
      {"destination height 0", [](Pair a) { a.d.height = 0; }, 2},
      {"null source plane", [](Pair a) { a.s.planes[0] = nullptr; }, 2},
      {"null destination", [](Pair a) { a.d.planes[0] = nullptr; }, 2},
      {"short source pitch", [](Pair a) { a.s.pitches[0] -= 5; }, 2},
      {"negative pitch", [](Pair a) { a.s.pitches[0] = -100; }, 2},
      {"short destination pitch", [](Pair a) { a.d.pitches[0] = 3 * a.d.width - 1; }, 2},
      {"wider destination", [](Pair a) { a.d.pitches[0] = 3 * (a.d.width = a.s.width + 1); }, 0},
      {"taller destination", [](Pair a) { a.d.height = a.s.height + 1; }, 0},
      {"work block past int32", [](Pair a) {
         a.s.width = a.d.width = 1 << 29;  // (3 * 2^29 + 4) * 16 bytes
         a.s.pitches[0] = a.s.pitches[1] = a.d.pitches[0] = 0x7FFFFFFF;
       }, 2},
  };
  for (Resize resize : {LumResizeToBGR, LumResizeToBGR_SP}) {
    for (uint32_t f : kFormats) {
      for (const auto &c : cases) {
        Source s = describe(p, f, 2);
        Target t(4, 6, 3);
        c.spoil(Pair{s.d, t.d});
        hseg_test::alloc_reset();
        EXPECT_EQ(resize(nullptr, &s.d, &t.d), c.status) << c.what << ", format " << f;
        EXPECT_EQ(hseg_test::alloc_calls(), 0) << c.what;
        EXPECT_TRUE(t.untouched()) << c.what;
      }
      Source s = describe(p, f, 0);
      Target t(4, 3);
      EXPECT_EQ(resize(nullptr, nullptr, &t.d), HSEG_ERR_BAD_ARGUMENT);
      EXPECT_EQ(resize(nullptr, &s.d, nullptr), HSEG_ERR_BAD_ARGUMENT);
    }
  }
}

TEST(AreaResize, FailedAllocationLeavesNothingBehind) {
  std::mt19937 rng(19);
  const Picture p = random_picture(rng, 30, 20);
  for (Resize resize : {LumResizeToBGR, LumResizeToBGR_SP}) {
    for (uint32_t f : kFormats) {
      Source s = describe(p, f, 1);
      const int64_t live = hseg_test::alloc_live();
      const int64_t n = hseg_test::for_each_alloc_failure([&](int64_t failing) {
        Target t(11, 7, 2);
        const MRESULT st = resize(nullptr, &s.d, &t.d);
        EXPECT_EQ(st, failing ? HSEG_ERR_NO_MEMORY : HSEG_OK);
        if (failing) {
          EXPECT_TRUE(t.untouched());
        }
        EXPECT_EQ(hseg_test::alloc_live(), live);
      });
      EXPECT_EQ(n, 1);
    }
  }
}

}  // namespace

// Single-precision column positions drift on very wide sources: the table
// refuses the geometry before anything is written, and frees its block.
TEST(AreaResize, RefusesAColumnTableThatWouldOverrun) {
  std::mt19937 rng(23);
  const Picture p = random_picture(rng, 32768, 1);
  for (Resize resize : {LumResizeToBGR, LumResizeToBGR_SP}) {
    Source s = describe(p, HSEG_PIXFMT_BGR24, 0);
    Target t(1000, 1);  // the last footprint ends 0.004 (half grid: 0.002) past the end
    const int64_t live = hseg_test::alloc_live();
    EXPECT_EQ(resize(nullptr, &s.d, &t.d), HSEG_ERR_TABLE);
    EXPECT_TRUE(t.untouched());
    EXPECT_EQ(hseg_test::alloc_live(), live);
  }
}

// The workers guard their own arguments: with a valid 2:1 BGR call as the
// base, each spoiled argument returns 2 and writes nothing; a source height
// of 0 returns 0 and writes nothing.
TEST(AreaWorkers, RefuseArgumentsTheyCannotServe) {
  std::vector<uint8_t> src(3 * 8 * 4, 100);
  std::vector<LumResizeEntry> table;
  for (int x = 0; x < 8; ++x) table.push_back({3 * x, 3 * (x / 2), 4096});  // 1/4
  std::vector<uint64_t> row(3 * 4), carry(3 * 4);
  struct Args {
    const uint8_t *src = nullptr;
    int32_t src_pitch = 24, sw = 8, sh = 4, dst_pitch = 12, dw = 4, dh = 2, sstep = 3, dstep = 3;
    std::vector<LumResizeEntry> t;
    uint64_t *row = nullptr;
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
      {"null accumulator", [](Args &a) { a.row = nullptr; }, 2},
  };
  for (const auto &c : cases) {
    Args a;
    a.src = src.data();
    a.t = table;
    a.row = row.data();
    c.spoil(a);
    std::vector<uint8_t> dst(24, kCanary);
    EXPECT_EQ(lumResize_Area_BGR(a.src, a.src_pitch, a.sw, a.sh, dst.data(), a.dst_pitch, a.dw,
                                 a.dh, a.sstep, a.dstep, a.t.data(), int32_t(a.t.size()), a.row,
                                 carry.data()),
              c.status)
        << c.what;
    const bool written = std::count(dst.begin(), dst.end(), 100) == 24;
    EXPECT_EQ(written, c.status == HSEG_OK && a.sh > 0) << c.what;
  }
}

// The sampling NV21 variant at 2:1 takes the top-left luma of each block
// with the block's chroma pair; its last visit is never written out, so the
// last row repeats the one above. At 1:1 a row is written at the start of
// the visit after it (row 0 before any sample) and every second column gets
// no sample: those pixels are black.
TEST(AreaWorkers, FastNv21SamplesEverySecondRowAndEntry) {
  std::mt19937 rng(29);
  const int w = 12, h = 8;
  const Picture p = random_picture(rng, w, h);
  Source s = describe(p, HSEG_PIXFMT_NV21, 1);
  std::vector<uint32_t> counts(3 * w), sums(3 * w);
  for (const int scale : {2, 1}) {
    std::vector<LumResizeEntry> table;
    for (int x = 0; x < w; ++x) table.push_back({x, 3 * (x / scale), 16384u / scale});
    Target t(w / scale, h / scale);
    ASSERT_EQ(lumResize_Area_YUV420LPtoBGR_Fast(
                  s.d.planes[0], s.d.planes[1], s.d.pitches[0], s.d.pitches[1], w, h, t.d.planes[0],
                  t.d.pitches[0], t.d.width, t.d.height, 1, 3, table.data(), int32_t(table.size()),
                  counts.data(), sums.data()),
              HSEG_OK);
    for (int r = 0; r < t.d.height; ++r) {
      for (int x = 0; x < t.d.width; ++x) {
        const int sx = x * scale;
        const int sr = scale == 2 ? 2 * std::min(r, t.d.height - 2) : 2 * (std::min(r, 3) - 1);
        int e[3] = {0, 0, 0};
        if (sr >= 0 && sx % 2 == 0) convert(p.Y(sx, sr), p.U(sx, sr), p.V(sx, sr), e);
        const uint8_t *o = t.px(x, r);
        ASSERT_TRUE(o[0] == e[0] && o[1] == e[1] && o[2] == e[2])
            << "scale " << scale << " pixel " << x << "," << r;
      }
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
  const uint8_t column[5] = {14, 107, 216, 231, 247};
  Picture p{1, 5, {}, {}, {}, {}};
  for (uint8_t c : column) p.bgr.resize(p.bgr.size() + 3, c);
  Source s = describe(p, HSEG_PIXFMT_BGR24, 0);
  Target t(1, 3);
  ASSERT_EQ(LumResizeToBGR(nullptr, &s.d, &t.d), HSEG_OK);
  EXPECT_EQ(t.buf, std::vector<uint8_t>({51, 51, 51, 197, 197, 197, 241, 241, 241}));
}

// The fused walk (runs summed in locals, visits added straight to the carry)
// against the plain one, byte for byte, on random pictures, sizes, pitches
// and ratios, including odd sizes and enlargement on the half grid. The two
// destinations start from different fillings so that an unwritten byte shows.
TEST(AreaResize, FusedWalkEqualsPlainWalk) {
  std::mt19937 rng(31);
  const struct { Resize fused, plain; } walks[] = {
      {LumResizeToBGR, hseg::area::resize_to_bgr_plain},
      {LumResizeToBGR_SP, hseg::area::resize_to_bgr_sp_plain}};
  for (int trial = 0; trial < 40; ++trial) {
    const int w = 1 + int(rng() % 150), h = 1 + int(rng() % 150);
    const int dw = 1 + int(rng() % w), dh = 1 + int(rng() % h);
    const Picture p = random_picture(rng, w, h);
    for (uint32_t f : kFormats) {
      const Source s = describe(p, f, int(rng() % 7));
      const int pad = int(rng() % 5);
      for (const auto &walk : walks) {
        Target a(dw, dh, pad, 0x00), b(dw, dh, pad, 0xFF);
        ASSERT_EQ(walk.fused(nullptr, &s.d, &a.d), HSEG_OK);
        ASSERT_EQ(walk.plain(nullptr, &s.d, &b.d), HSEG_OK);
        for (int r = 0; r < dh; ++r) {
          ASSERT_EQ(0, std::memcmp(a.px(0, r), b.px(0, r), 3 * size_t(dw)))
              << "row " << r << ", format " << f << ", " << w << "x" << h << " -> " << dw << "x"
              << dh << (walk.fused == LumResizeToBGR_SP ? " SP" : "");
        }
      }
    }
  }
}
