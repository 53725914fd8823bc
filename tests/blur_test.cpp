// Blur library: box blur against an exact window mean, Gaussian against an
// exact Gaussian, bands against whole images, SIMD kernels against the plain
// ones, and the checks, allocation failures and guard pages of the entries.
#include <gtest/gtest.h>
#include <stb/stb_image.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "blur/blur_rows.h"
#include "hseg/blur.h"
#include "support/alloc_hooks.h"
#include "support/guarded.h"

namespace {

using namespace hseg_test;
using u128 = unsigned __int128;

constexpr uint8_t kPad = 0xC3;
const uint32_t kFormats[] = {HSEG_PIXFMT_GRAY, HSEG_PIXFMT_GRAY16, HSEG_PIXFMT_BGR24,
                             HSEG_PIXFMT_YUY2};

int bytes_per_pixel(uint32_t f) {
  return f == HSEG_PIXFMT_GRAY ? 1 : f == HSEG_PIXFMT_BGR24 ? 3 : 2;
}

// An image with `extra` padding bytes after every row, filled with kPad.
struct Picture {
  uint32_t format;
  int32_t w, h, pitch;
  std::vector<uint8_t> px;
  Picture(uint32_t f, int32_t width, int32_t height, int32_t extra = 6)
      : format(f), w(width), h(height),
        pitch(width * bytes_per_pixel(f) + (f == HSEG_PIXFMT_GRAY16 ? extra / 2 * 2 : extra)),
        px(static_cast<size_t>(pitch) * height + 2, kPad) {}
  // Samples (x, c) of row y as the format lays them out; 16-bit samples
  // start 2 bytes into the buffer so they stay aligned.
  uint8_t *row(int32_t y) { return px.data() + (format == HSEG_PIXFMT_GRAY16 ? 2 : 0) + y * pitch; }
  OffscreenImage desc() { return OffscreenImage{format, w, h, {row(0)}, {pitch}}; }
  int row_bytes() const { return w * bytes_per_pixel(format); }
  bool padding_is(uint8_t v) {
    for (int32_t y = 0; y < h; ++y)
      for (int32_t i = row_bytes(); i < pitch; ++i)
        if (row(y)[i] != v) return false;
    return true;
  }
  bool rows_equal(Picture &o, int32_t y0, int32_t y1) {
    for (int32_t y = y0; y < y1; ++y)
      if (std::memcmp(row(y), o.row(y), row_bytes()) != 0) return false;
    return true;
  }
};

Picture random_picture(std::mt19937 &rng, uint32_t f, int32_t w, int32_t h) {
  Picture p(f, w, h);
  for (int32_t y = 0; y < h; ++y)
    for (int i = 0; i < p.row_bytes(); ++i) p.row(y)[i] = static_cast<uint8_t>(rng());
  return p;
}

// One plane of a picture as (width, channels, sample accessor), the way the
// blur sees it: YUY2 gives Y, then U,V at half width.
struct PlaneRef {
  int32_t w, ch, step, offset, chan_step, bytes;
  bool half_x;
};
std::vector<PlaneRef> planes_of(const Picture &p) {
  switch (p.format) {
    case HSEG_PIXFMT_YUY2: return {{p.w, 1, 2, 0, 1, 1, false}, {p.w / 2, 2, 4, 1, 2, 1, true}};
    case HSEG_PIXFMT_BGR24: return {{p.w, 3, 3, 0, 1, 1, false}};
    case HSEG_PIXFMT_GRAY16: return {{p.w, 1, 2, 0, 2, 2, false}};
    default: return {{p.w, 1, 1, 0, 1, 1, false}};
  }
}
uint32_t sample(Picture &p, const PlaneRef &pl, int32_t x, int32_t y, int32_t c) {
  const uint8_t *s = p.row(y) + pl.offset + x * pl.step + c * pl.chan_step;
  if (pl.bytes == 1) return *s;
  uint16_t v;
  std::memcpy(&v, s, 2);
  return v;
}

// How many positions of the window [i - r, i + r] land on index j once
// clamped to [0, n).
int64_t hits(int64_t i, int64_t r, int64_t j, int64_t n) {
  const int64_t lo = i - r, hi = i + r;
  if (n == 1) return 2 * r + 1;
  if (j == 0) return lo <= 0 ? std::min<int64_t>(hi, 0) - lo + 1 : 0;
  if (j == n - 1) return hi >= n - 1 ? hi - std::max(lo, n - 1) + 1 : 0;
  return lo <= j && j <= hi;
}

// The exact window mean, written as the weight of every source sample.
void box_ref(Picture &src, Picture &dst, int32_t r) {
  for (const PlaneRef &pl : planes_of(src)) {
    const int64_t rx = pl.half_x ? r / 2 : r, ry = r;
    const u128 n = u128(2 * rx + 1) * u128(2 * ry + 1);
    for (int32_t y = 0; y < src.h; ++y)
      for (int32_t x = 0; x < pl.w; ++x)
        for (int32_t c = 0; c < pl.ch; ++c) {
          u128 s = 0;
          for (int32_t j = 0; j < src.h; ++j) {
            const int64_t wy = hits(y, ry, j, src.h);
            for (int32_t i = 0; wy != 0 && i < pl.w; ++i)
              s += u128(wy) * hits(x, rx, i, pl.w) * sample(src, pl, i, j, c);
          }
          const auto v = static_cast<uint16_t>((s + (n - 1) / 2) / n);
          uint8_t *d = dst.row(y) + pl.offset + x * pl.step + c * pl.chan_step;
          if (pl.bytes == 1) *d = static_cast<uint8_t>(v);
          else std::memcpy(d, &v, 2);
        }
  }
}

// Every format, sizes from 1x1 to odd and wide, radii from 0 past the image
// (1500 and 100 take the wide sums for 8- and 16-bit samples, INT32_MAX the
// largest window); in place too.
TEST(BoxBlur, EqualsTheExactWindowMean) {
  std::mt19937 rng(11);
  const struct { int32_t w, h; std::vector<int32_t> radii; } cases[] = {
      {1, 1, {0, 1, 3}}, {2, 1, {1, 2}}, {2, 5, {1, 4}}, {9, 7, {1, 2, 3, 6, 40, INT32_MAX}},
      {38, 13, {0, 1, 5, 17, 100}}, {70, 23, {2, 8, 1500}}, {130, 9, {3, 64}}};
  for (uint32_t f : kFormats)
    for (const auto &c : cases) {
      const int32_t w = f == HSEG_PIXFMT_YUY2 ? (c.w + 1) / 2 * 2 : c.w;
      for (int32_t r : c.radii) {
        SCOPED_TRACE(testing::Message() << std::hex << f << std::dec << " " << w << "x" << c.h
                                        << " r " << r);
        Picture src = random_picture(rng, f, w, c.h), want = src, got(f, w, c.h);
        box_ref(src, want, r);
        OffscreenImage s = src.desc(), d = got.desc();
        ASSERT_EQ(GB_BoxBlur(nullptr, &s, &d, r), HSEG_OK);
        EXPECT_TRUE(got.rows_equal(want, 0, c.h));
        EXPECT_TRUE(got.padding_is(kPad));
        ASSERT_EQ(GB_BoxBlur(nullptr, &s, &s, r), HSEG_OK);  // in place
        EXPECT_TRUE(src.rows_equal(want, 0, c.h));
      }
    }
}

// The picture blurred by a sampled Gaussian in double precision, with the
// image continued by its edge pixels; channels are interleaved.
std::vector<double> exact_gaussian(const std::vector<uint8_t> &img, int w, int h, int ch,
                                   double sigma) {
  const int r = static_cast<int>(std::ceil(6 * sigma));
  std::vector<double> k(2 * r + 1);
  double total = 0;
  for (int i = -r; i <= r; ++i) total += k[i + r] = std::exp(-i * i / (2 * sigma * sigma));
  for (double &v : k) v /= total;
  auto clamp = [](int v, int n) { return std::min(n - 1, std::max(0, v)); };
  auto pass = [&](const auto &in, bool vertical) {
    std::vector<double> out(in.size());
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int c = 0; c < ch; ++c)
          for (int i = -r; i <= r; ++i)
            out[(y * w + x) * ch + c] += k[i + r] * in[((vertical ? clamp(y + i, h) : y) * w +
                                                        (vertical ? x : clamp(x + i, w))) * ch + c];
    return out;
  };
  return pass(pass(img, false), true);
}

// The example photograph (512x512) against the exact Gaussian: mean
// absolute difference at most 1.3 levels and 99.9th percentile at most 16.
TEST(GaussianBlur, StaysCloseToTheExactGaussian) {
  int w = 0, h = 0, n = 0;
  const std::string path = std::string(HSEG_EXAMPLES_DIR) + "/astronaut.png";
  unsigned char *rgb = stbi_load(path.c_str(), &w, &h, &n, 3);
  ASSERT_NE(rgb, nullptr) << path;
  const std::vector<uint8_t> img(rgb, rgb + 3 * w * h);
  stbi_image_free(rgb);
  for (float sigma : {1.0f, 2.0f, 8.0f, 32.0f}) {
    const std::vector<double> want = exact_gaussian(img, w, h, 3, sigma);
    std::vector<uint8_t> got(img.size());
    OffscreenImage s{HSEG_PIXFMT_BGR24, w, h, {const_cast<uint8_t *>(img.data())}, {3 * w}};
    OffscreenImage d{HSEG_PIXFMT_BGR24, w, h, {got.data()}, {3 * w}};
    ASSERT_EQ(GB_GaussianBlur(nullptr, &s, &d, sigma), HSEG_OK);
    std::vector<int> diff(img.size());
    double sum = 0;
    for (size_t i = 0; i < img.size(); ++i)
      sum += diff[i] = std::abs(got[i] - static_cast<int>(std::lround(want[i])));
    std::sort(diff.begin(), diff.end());
    const double mean = sum / diff.size();
    const int p999 = diff[diff.size() * 999 / 1000];
    EXPECT_LE(mean, 1.3) << "sigma " << sigma;
    EXPECT_LE(p999, 16) << "sigma " << sigma;
  }
}

// Bands of random heights (1 included) give the whole call's rows, in
// every format, for both blurs.
TEST(BlurRows, BandsEqualTheWholeImage) {
  std::mt19937 rng(5);
  for (uint32_t f : kFormats)
    for (auto [w, h] : {std::pair{6, 1}, {2, 9}, {47 * 2, 61}, {130, 37}}) {
      Picture src = random_picture(rng, f, w, h);
      for (float blur : {0.0f, 1.0f, 3.0f, 7.5f}) {
        SCOPED_TRACE(testing::Message() << std::hex << f << std::dec << " " << w << "x" << h
                                        << " blur " << blur);
        for (bool gaussian : {false, true}) {
          if (gaussian && blur == 0.0f) continue;
          const auto radius = static_cast<int32_t>(blur);
          Picture whole(f, w, h), bands(f, w, h, 9);
          OffscreenImage s = src.desc(), d = whole.desc(), b = bands.desc();
          ASSERT_EQ(gaussian ? GB_GaussianBlur(nullptr, &s, &d, blur)
                             : GB_BoxBlur(nullptr, &s, &d, radius), HSEG_OK);
          for (int32_t y = 0; y < h;) {
            const int32_t count = std::min<int32_t>(h - y, rng() % 3 == 0 ? 1 : 1 + rng() % 9);
            ASSERT_EQ(gaussian ? GB_GaussianBlurRows(nullptr, &s, &b, blur, y, count)
                               : GB_BoxBlurRows(nullptr, &s, &b, radius, y, count), HSEG_OK);
            EXPECT_TRUE(bands.rows_equal(whole, y, y + count)) << "band at " << y;
            EXPECT_TRUE(y + count == h || bands.row(y + count)[0] == kPad) << "wrote below";
            y += count;
          }
          EXPECT_TRUE(bands.padding_is(kPad));
        }
      }
    }
}

// Each SIMD kernel against the plain one, byte for byte: lengths around
// the vector widths and random ones, inputs and outputs shifted off
// alignment, outputs pre-filled differently so an unwritten value shows.
TEST(BlurRowKernels, SimdEqualsPlain) {
#if defined(HSEG_BLUR_HAVE_X86)
  using hseg::blur::RowKernels;
  std::vector<std::pair<const char *, const RowKernels *>> tables = {
      {"SSE2", &hseg::blur::kRowKernelsSse2}};
  if (hseg::blur::cpu_has_avx2()) tables.push_back({"AVX2", &hseg::blur::kRowKernelsAvx2});
  std::mt19937 rng(9);
  std::vector<int32_t> lengths = {1, 3, 4, 5, 7, 8, 9, 15, 16, 17, 24, 33, 64, 255};
  for (int i = 0; i < 20; ++i) lengths.push_back(1 + rng() % 700);
  for (const auto &[isa, k] : tables)
    for (int32_t n : lengths) {
      const int o = static_cast<int>(rng() % 4);  // elements off a vector boundary
      SCOPED_TRACE(std::string(isa) + " n " + std::to_string(n) + " offset " + std::to_string(o));
      const size_t len = n + o + 11;
      const uint32_t count = 3 + 2 * (rng() % 20000);  // a window size
      const hseg::blur::Divisor d = hseg::blur::make_divisor(count);
      std::vector<uint8_t> a8(len), s8(len);
      std::vector<uint16_t> a16(len), s16(len);
      std::vector<uint32_t> acc(len), hi(len), lo(len), hi16(len);
      for (size_t i = 0; i < len; ++i) {
        a8[i] = uint8_t(rng()), s8[i] = uint8_t(rng()), a16[i] = uint16_t(rng());
        s16[i] = uint16_t(rng()), acc[i] = rng() >> 2, lo[i] = rng();
        hi[i] = lo[i] + rng() % (count * 255u + 1);  // window sums of 8-bit samples
        hi16[i] = lo[i] + rng() % (count * 3000u);
      }
      // Runs `call` with the plain kernels into `x` and the SIMD ones into
      // `y` (y pre-filled with its last value); equal inside [o, o + n),
      // y untouched outside (with `all`, every element must match).
      auto check = [&](const char *what, auto x, auto call, bool all = false) {
        auto y = x;
        std::fill(x.begin(), x.end(), 0x11), std::fill(y.begin(), y.end(), 0xEE);
        if (all) y = x;
        call(hseg::blur::kRowKernelsRef, x.data() + o), call(*k, y.data() + o);
        for (size_t i = 0; i < len; ++i) {
          const bool inside = all || (i >= size_t(o) && i < size_t(o + n));
          ASSERT_EQ(inside ? x[i] : 0xEE, y[i]) << what << " at " << i;
        }
      };
      const std::vector<uint8_t> b8(len);
      const std::vector<uint16_t> b16(len);
      const float sc = 65535.0f / (1u << 31);
      for (int ch = 1; ch <= 3; ++ch) {
        check("scan_u16", acc, [&](auto &t, uint32_t *p) { t.scan_u16(a16.data() + o, n, ch, p); }, true);
        check("scan_u32", acc, [&](auto &t, uint32_t *p) { t.scan_u32(acc.data() + o, n, ch, p); }, true);
        check("diff_scan", acc, [&](auto &t, uint32_t *p) {
          t.diff_scan(acc.data() + o + 2, lo.data() + o, n, ch, p); }, true);
      }
      for (bool wide : {false, true}) {
        check("vsum", acc, [&](auto &t, uint32_t *a) {
          if (wide) t.vsum_u16(a, a16.data() + o, s16.data() + o, n);
          else t.vsum_u8(a, a8.data() + o, s8.data() + o, n);
        }, true);
        check("vsum_norm", b16, [&](auto &t, uint16_t *out) {
          std::vector<uint32_t> a = acc;
          if (wide) t.vsum_norm_u16(a.data() + o, a16.data() + o, s16.data() + o, n, sc, out);
          else t.vsum_norm_u8(a.data() + o, a8.data() + o, s8.data() + o, n, sc, out);
        });
      }
      check("diff_div_u8", b8, [&](auto &t, uint8_t *out) { t.diff_div_u8(hi.data() + o, lo.data() + o, n, d, out); });
      check("diff_div_u16", b16, [&](auto &t, uint16_t *out) { t.diff_div_u16(hi16.data() + o, lo.data() + o, n, d, out); });
      check("diff_norm_u16", b16, [&](auto &t, uint16_t *out) { t.diff_norm_u16(hi16.data() + o, lo.data() + o, n, 1.0f / count, out); });
      check("diff_norm_u8", b8, [&](auto &t, uint8_t *out) { t.diff_norm_u8(hi16.data() + o, lo.data() + o, n, 0.08f / count, out); });
    }
#else
  GTEST_SKIP() << "no SIMD kernels in this build";
#endif
}

// The division by multiplication is exact for every sum the box blur can
// form: checked against plain division at the ends of the range and on
// random sums for random odd window sizes.
TEST(BlurRowKernels, DivisorIsExact) {
  std::mt19937 rng(4);
  for (int i = 0; i < 2000; ++i) {
    const uint32_t n = i < 1000 ? 3 + 2 * (rng() % 500) : 3 + 2 * (rng() % (1u << 22));
    const hseg::blur::Divisor d = hseg::blur::make_divisor(n);
    const uint32_t top = (1u << 31) - 1 - d.half;
    for (uint32_t s : {0u, 1u, d.half, n - 1, n, n + d.half, top, top - n, uint32_t(rng() % top)}) {
      const uint64_t want = (uint64_t{s} + d.half) / n;
      const uint64_t got = ((uint64_t{s} + d.half) * d.mul) >> (32 + d.shift);
      ASSERT_EQ(got, want) << s << " / " << n;
    }
  }
}

// Every bad argument, checked before anything is allocated or written.
TEST(BlurEntries, RejectBadArguments) {
  Picture a(HSEG_PIXFMT_BGR24, 8, 6), b(HSEG_PIXFMT_BGR24, 8, 6);
  for (int32_t y = 0; y < 6; ++y) std::memset(b.row(y), 0x5A, b.row_bytes());
  const OffscreenImage s = a.desc(), d = b.desc();
  auto with = [](OffscreenImage o, auto change) { change(o); return o; };
  const MRESULT kBad = HSEG_ERR_BAD_ARGUMENT, kFmt = HSEG_ERR_FORMAT;
  Picture g16(HSEG_PIXFMT_GRAY16, 8, 6);
  const OffscreenImage odd16 = with(g16.desc(), [](OffscreenImage &o) { o.planes[0] += 1; });
  const struct {
    const char *what;
    OffscreenImage src, dst;
    MRESULT want;
  } cases[] = {
      {"zero width", with(s, [](auto &o) { o.width = 0; }), d, kBad},
      {"null source plane", with(s, [](auto &o) { o.planes[0] = nullptr; }), d, kBad},
      {"short pitch", s, with(d, [](auto &o) { o.pitches[0] = 23; }), kBad},
      {"other size", s, with(d, [](auto &o) { o.width = 7; }), kBad},
      {"odd YUY2 width", with(s, [](auto &o) { o.format = HSEG_PIXFMT_YUY2; o.width = 7; }),
       with(d, [](auto &o) { o.format = HSEG_PIXFMT_YUY2; o.width = 7; }), kBad},
      {"misaligned 16-bit plane", odd16, with(d, [](auto &o) { o.format = HSEG_PIXFMT_GRAY16; }), kBad},
      {"other format", s, with(d, [](auto &o) { o.format = HSEG_PIXFMT_GRAY; }), kFmt},
      {"unknown format", with(s, [](auto &o) { o.format = HSEG_PIXFMT_I420; }),
       with(d, [](auto &o) { o.format = HSEG_PIXFMT_I420; }), kFmt}};
  alloc_reset();
  for (const auto &c : cases) {
    OffscreenImage dst = c.dst;
    EXPECT_EQ(GB_BoxBlur(nullptr, &c.src, &dst, 2), c.want) << c.what;
    EXPECT_EQ(GB_GaussianBlurRows(nullptr, &c.src, &dst, 2.0f, 0, 1), c.want) << c.what;
  }
  OffscreenImage dst = d;
  const struct { const char *what; MRESULT got, want; } calls[] = {
      {"null source", GB_BoxBlur(nullptr, nullptr, &dst, 1), kBad},
      {"null destination", GB_GaussianBlur(nullptr, &s, nullptr, 1.0f), kBad},
      {"negative radius", GB_BoxBlur(nullptr, &s, &dst, -1), kBad},
      {"zero sigma", GB_GaussianBlur(nullptr, &s, &dst, 0.0f), kBad},
      {"NaN sigma", GB_GaussianBlur(nullptr, &s, &dst, NAN), kBad},
      {"negative row count", GB_BoxBlurRows(nullptr, &s, &dst, 1, 0, -1), kBad},
      {"negative first row", GB_BoxBlurRows(nullptr, &s, &dst, 1, -1, 2), kBad},
      {"rows past the end", GB_GaussianBlurRows(nullptr, &s, &dst, 1.0f, 4, 3), kBad},
      {"band in place", GB_BoxBlurRows(nullptr, &s, const_cast<OffscreenImage *>(&s), 1, 0, 1), kBad},
      {"no rows", GB_BoxBlurRows(nullptr, &s, &dst, 1, 6, 0), HSEG_OK}};
  for (const auto &c : calls) EXPECT_EQ(c.got, c.want) << c.what;
  EXPECT_EQ(alloc_calls(), 0);
  for (int32_t y = 0; y < 6; ++y)
    for (int i = 0; i < b.row_bytes(); ++i) ASSERT_EQ(b.row(y)[i], 0x5A);
}

// Failing each allocation in turn: status 4, nothing written, nothing
// leaked; whole, banded and in-place calls.
TEST(BlurEntries, AllocationFailureWritesNothing) {
  std::mt19937 rng(2);
  for (uint32_t f : {HSEG_PIXFMT_YUY2, HSEG_PIXFMT_GRAY16}) {
    const Picture src = random_picture(rng, f, 20, 9);
    Picture blank(f, 20, 9);
    for (int32_t y = 0; y < 9; ++y) std::memset(blank.row(y), 0x77, blank.row_bytes());
    for (int mode = 0; mode < 6; ++mode) {
      for_each_alloc_failure([&](int64_t failing) {
        Picture in = src, out = blank;
        OffscreenImage s = in.desc(), d = mode >= 4 ? in.desc() : out.desc();
        const MRESULT got = mode == 0 ? GB_BoxBlur(nullptr, &s, &d, 3)
                            : mode == 1 ? GB_GaussianBlur(nullptr, &s, &d, 2.5f)
                            : mode == 2 ? GB_BoxBlurRows(nullptr, &s, &d, 3, 2, 4)
                            : mode == 3 ? GB_GaussianBlurRows(nullptr, &s, &d, 2.5f, 2, 4)
                            : mode == 4 ? GB_BoxBlur(nullptr, &s, &d, 3)
                                        : GB_GaussianBlur(nullptr, &s, &d, 2.5f);
        EXPECT_EQ(got, failing == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "mode " << mode;
        EXPECT_EQ(alloc_live(), 0);
        if (failing != 0) {
          EXPECT_TRUE(mode >= 4 ? in.rows_equal(const_cast<Picture &>(src), 0, 9)
                                : out.rows_equal(blank, 0, 9) && out.padding_is(kPad));
        }
      });
    }
  }
}

// Rows exactly as long as their pitch, against an inaccessible page after
// (and before) the planes: any read or write outside them faults.
TEST(BlurEntries, StayInsideTheirPlanes) {
  std::mt19937 rng(8);
  for (uint32_t f : kFormats)
    for (auto mode : {GuardedBuffer::kGuardAfter, GuardedBuffer::kGuardBefore}) {
      const int32_t w = 34, h = 11, row = w * bytes_per_pixel(f);
      GuardedBuffer in(static_cast<size_t>(row) * h, mode), out(static_cast<size_t>(row) * h, mode);
      for (size_t i = 0; i < in.size(); ++i) in.data()[i] = static_cast<uint8_t>(rng());
      OffscreenImage s{f, w, h, {in.data()}, {row}}, d{f, w, h, {out.data()}, {row}};
      EXPECT_EQ(GB_BoxBlur(nullptr, &s, &d, 5), HSEG_OK) << f;
      EXPECT_EQ(GB_GaussianBlur(nullptr, &s, &d, 3.0f), HSEG_OK) << f;
      EXPECT_EQ(GB_BoxBlurRows(nullptr, &s, &d, 40, h - 1, 1), HSEG_OK) << f;
      EXPECT_EQ(GB_GaussianBlurRows(nullptr, &s, &d, 9.0f, 0, 2), HSEG_OK) << f;
      EXPECT_EQ(GB_GaussianBlur(nullptr, &s, &s, 1.5f), HSEG_OK) << f;
    }
}

}  // namespace
