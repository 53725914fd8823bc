// Gaussian blur of one plane as three box passes down the columns and three
// along the rows.
//
// Pass widths. A box of odd width w = 2r + 1 has variance
//   sum_{k=-r..r} k^2 / w = r (r + 1) / 3 = (w^2 - 1) / 12,
// and variances add when filters are applied one after another. Take the
// ideal common width w_i = sqrt(12 sigma^2 / 3 + 1), the odd width wl at or
// below it and wu = wl + 2, and give m passes width wl and 3 - m width wu:
//   m (wl^2 - 1) / 12 + (3 - m) (wu^2 - 1) / 12 = sigma^2
//   <=> m = (3 wl^2 + 12 wl + 9 - 12 sigma^2) / (4 wl + 4),
// rounded to the nearest whole number of passes; the variance is then off by
// at most (wl + 1) / 6 (a fraction of a pixel in sigma beyond sigma 1).
//
// Borders. The result is that of the image continued by its edge rows and
// columns: every pass runs over the continued image, so the later passes
// see the earlier passes' output past the edge (clamping each pass to the
// image instead would stretch the edge and shift the result there).
//
// Arithmetic. Window sums are exact integers; each pass divides its sums
// by its width in float, rounding to a 16-bit intermediate that carries 8
// fraction bits for 8-bit samples (16-bit samples keep none), except that
// along a row narrow passes chain their exact sums and divide once (see
// blur_row_exact). Every value
// depends only on its position, never on where the call started, so any
// strip of rows comes out byte for byte as in the whole image.
//
// Vertical passes keep rings of their last 2r + 2 output rows; horizontal
// passes run on one row continued by the sum of the radii at both ends.
#include <algorithm>
#include <cmath>

#include "blur/blur_internal.h"

namespace hseg {
namespace blur {
namespace {

struct GaussBuffers {
  uint32_t *acc[3];  // running column sums of the three vertical passes
  uint16_t *ring1;   // the last 2 ry[1] + 2 rows of the first pass
  uint16_t *ring2;   // the last 2 ry[2] + 2 rows of the second pass
  uint16_t *zero;    // a row of zeros: what leaves a window still filling
  uint16_t *col;     // one row after the vertical passes
  uint16_t *ext[2];  // a row continued past its ends, and the next pass's
  uint32_t *p[2];    // prefix sums along the continued row, and the next pass's
  uint8_t *rows;     // scratch rows for planes that are not contiguous
};

int64_t radius_sum(const GaussRadii &g) { return int64_t{g.r[0]} + g.r[1] + g.r[2]; }

GaussBuffers carve_gauss(Carver &c, const PlaneView &v, const GaussRadii &gx,
                         const GaussRadii &gy) {
  const int64_t n = v.samples();
  const int64_t ext = (v.width + 2 * radius_sum(gx)) * int64_t{v.ch};
  GaussBuffers b;
  for (auto &a : b.acc) a = c.take<uint32_t>(n);
  b.ring1 = c.take<uint16_t>((2 * int64_t{gy.r[1]} + 2) * n);
  b.ring2 = c.take<uint16_t>((2 * int64_t{gy.r[2]} + 2) * n);
  b.zero = c.take<uint16_t>(n);
  b.col = c.take<uint16_t>(n);
  b.ext[0] = c.take<uint16_t>(ext);
  b.ext[1] = c.take<uint16_t>(ext);
  b.p[0] = c.take<uint32_t>(ext + v.ch);
  b.p[1] = c.take<uint32_t>(ext + v.ch);
  b.rows = c.take<uint8_t>(plane_rows_bytes(v));
  return b;
}

inline void vsum_norm(const RowKernels &k, uint32_t *acc, const uint8_t *a, const uint8_t *s,
                      int32_t n, float scale, uint16_t *out) {
  k.vsum_norm_u8(acc, a, s, n, scale, out);
}
inline void vsum_norm(const RowKernels &k, uint32_t *acc, const uint16_t *a, const uint16_t *s,
                      int32_t n, float scale, uint16_t *out) {
  k.vsum_norm_u16(acc, a, s, n, scale, out);
}
inline void diff_norm(const RowKernels &k, const uint32_t *hi, const uint32_t *lo, int32_t n,
                      float scale, uint8_t *out) {
  k.diff_norm_u8(hi, lo, n, scale, out);
}
inline void diff_norm(const RowKernels &k, const uint32_t *hi, const uint32_t *lo, int32_t n,
                      float scale, uint16_t *out) {
  k.diff_norm_u16(hi, lo, n, scale, out);
}

float inverse(int64_t w, double extra = 1.0) { return static_cast<float>(extra / w); }
int64_t width_of(int32_t r) { return 2 * int64_t{r} + 1; }

template <typename T>
class GaussPlane {
 public:
  GaussPlane(const RowKernels &k, const PlaneView &v, const GaussRadii &gx,
             const GaussRadii &gy, void *work)
      : k_(k), v_(v), gx_(gx), gy_(gy), n_(v.samples()) {
    Carver c(work);
    b_ = carve_gauss(c, v, gx, gy);
    // 8-bit samples gain 8 fraction bits in the first pass and drop them
    // in the last.
    const double gain = v.bytes == 1 ? 256.0 : 1.0;
    vscale_[0] = inverse(width_of(gy.r[0]), gain);
    vscale_[1] = inverse(width_of(gy.r[1]));
    vscale_[2] = inverse(width_of(gy.r[2]));
    hscale_[0] = inverse(width_of(gx.r[0]));
    hscale_[1] = inverse(width_of(gx.r[1]));
    hscale_[2] = inverse(width_of(gx.r[2]), 1.0 / gain);
    const int64_t product = width_of(gx.r[0]) * width_of(gx.r[1]) * width_of(gx.r[2]);
    exact_rows_ = product < 32768;  // 65535 * product < 2^31
    hscale_exact_ = inverse(product, 1.0 / gain);
  }

  // Output row y needs second-pass rows y - ry[2] .. y + ry[2], which need
  // first-pass rows ry[1] further out, which need source rows ry[0] further.
  // Each pass's window fills up before it emits its first row.
  void run(int32_t y0, int32_t y1) {
    PlaneRows<T> rows(v_, reinterpret_cast<T *>(b_.rows), reinterpret_cast<T *>(b_.rows) + n_,
                      reinterpret_cast<T *>(b_.rows) + 2 * n_);
    const int64_t r0 = gy_.r[0], r1 = gy_.r[1], r2 = gy_.r[2];
    const int64_t t2_first = y0 - r2, t1_first = t2_first - r1, t1_end = y1 + r2 + r1;
    const int64_t size1 = 2 * r1 + 2, size2 = 2 * r2 + 2;
    const T *zero_t = reinterpret_cast<const T *>(b_.zero);
    std::fill(b_.zero, b_.zero + n_, uint16_t{0});
    for (auto *a : b_.acc) std::fill(a, a + n_, 0u);
    for (int64_t y = t1_first - r0; y < t1_first + r0; ++y)
      vsum_t(b_.acc[0], rows.src_row(y, 0), zero_t);

    for (int64_t t1 = t1_first; t1 < t1_end; ++t1) {
      // Pass 1 makes row t1; pass 2 row t2 = t1 - r1 once its window is
      // full, pass 3 row y = t2 - r2 once its window is.
      const int64_t t2 = t1 - r1, y = t2 - r2;
      const int phase = t1 < t1_first + 2 * r1 ? 1 : t2 < t2_first + 2 * r2 ? 2 : 3;
      Step s;
      s.add0 = rows.src_row(t1 + r0, 0);
      s.leave0 = t1 == t1_first ? zero_t : rows.src_row(t1 - r0 - 1, 1);
      s.row1 = b_.ring1 + (t1 - t1_first) % size1 * n_;
      s.leave1 = t1 - 2 * r1 - 1 >= t1_first
                     ? b_.ring1 + (t1 - 2 * r1 - 1 - t1_first) % size1 * n_
                     : b_.zero;
      s.row2 = b_.ring2 + (t2 - t2_first) % size2 * n_;
      s.leave2 = t2 - 2 * r2 - 1 >= t2_first
                     ? b_.ring2 + (t2 - 2 * r2 - 1 - t2_first) % size2 * n_
                     : b_.zero;
      column_step(s, phase);
      if (phase == 3) {
        blur_row(rows.dst_row(y));
        rows.put_row(y);
      }
    }
  }

 private:
  void vsum_t(uint32_t *acc, const uint8_t *a, const uint8_t *s) { k_.vsum_u8(acc, a, s, n_); }
  void vsum_t(uint32_t *acc, const uint16_t *a, const uint16_t *s) {
    k_.vsum_u16(acc, a, s, n_);
  }

  // The rows one step of the vertical passes reads and writes.
  struct Step {
    const T *add0, *leave0;  // source rows entering and leaving pass 1's window
    uint16_t *row1;          // pass 1's new row
    const uint16_t *leave1;  // the pass-1 row leaving pass 2's window
    uint16_t *row2;          // pass 2's new row (phases 2 and 3)
    const uint16_t *leave2;  // the pass-2 row leaving pass 3's window
  };

  // One step of the three vertical passes, block by block of columns so
  // that a block's sums and rows stay in the first-level cache from pass to
  // pass. Phase 1: pass 2 is still filling its window; phase 2: pass 3 is;
  // phase 3: every pass emits, pass 3 into b_.col.
  void column_step(const Step &s, int phase) {
    constexpr int32_t kBlock = 1024;
    uint32_t *const *acc = b_.acc;
    for (int32_t i = 0; i < n_; i += kBlock) {
      const int32_t m = std::min(kBlock, n_ - i);
      vsum_norm(k_, acc[0] + i, s.add0 + i, s.leave0 + i, m, vscale_[0], s.row1 + i);
      if (phase == 1) {
        k_.vsum_u16(acc[1] + i, s.row1 + i, s.leave1 + i, m);
        continue;
      }
      k_.vsum_norm_u16(acc[1] + i, s.row1 + i, s.leave1 + i, m, vscale_[1], s.row2 + i);
      if (phase == 2) {
        k_.vsum_u16(acc[2] + i, s.row2 + i, s.leave2 + i, m);
        continue;
      }
      k_.vsum_norm_u16(acc[2] + i, s.row2 + i, s.leave2 + i, m, vscale_[2], b_.col + i);
    }
  }

  // The three horizontal passes over b_.col, continued at both ends.
  void blur_row(T *out) {
    const int32_t ch = v_.ch, w = v_.width;
    const int64_t pad = radius_sum(gx_);
    uint16_t *e = b_.ext[0];
    for (int64_t i = 0; i < pad; ++i) std::copy(b_.col, b_.col + ch, e + i * ch);
    std::copy(b_.col, b_.col + n_, e + pad * ch);
    for (int64_t i = pad + w; i < w + 2 * pad; ++i)
      std::copy(b_.col + (w - 1) * ch, b_.col + n_, e + i * ch);
    const int64_t len = w + 2 * pad;  // pixels in the continued row
    std::fill(b_.p[0], b_.p[0] + ch, 0u);
    k_.scan_u16(e, static_cast<int32_t>(len * ch), ch, b_.p[0]);
    if (exact_rows_) {
      blur_row_exact(len, out);
    } else {
      blur_row_scaled(len, out);
    }
  }

  // Each pass's window sums scaled back to 16 bits before the next pass.
  void blur_row_scaled(int64_t len, T *out) {
    const int32_t ch = v_.ch;
    for (int pass = 0; pass < 3; ++pass) {
      const int64_t r = gx_.r[pass];
      if (pass > 0) {
        std::fill(b_.p[0], b_.p[0] + ch, 0u);
        k_.scan_u16(b_.ext[pass & 1], static_cast<int32_t>(len * ch), ch, b_.p[0]);
      }
      len -= 2 * r;
      const uint32_t *hi = b_.p[0] + (2 * r + 1) * ch;
      const int32_t count = static_cast<int32_t>(len * ch);
      if (pass < 2) {
        diff_norm(k_, hi, b_.p[0], count, hscale_[pass], b_.ext[(pass + 1) & 1]);
      } else {
        diff_norm(k_, hi, b_.p[0], count, hscale_[pass], out);
      }
    }
  }

  // When the sums of all three passes stay below 2^31 (pass widths whose
  // product is below 32768, sigma up to about 15), the passes chain exact
  // window sums, prefix of window sums of prefix, and scale once.
  void blur_row_exact(int64_t len, T *out) {
    const int32_t ch = v_.ch;
    for (int pass = 0; pass < 2; ++pass) {
      const int64_t r = gx_.r[pass];
      len -= 2 * r;
      uint32_t *from = b_.p[pass & 1], *to = b_.p[(pass + 1) & 1];
      std::fill(to, to + ch, 0u);
      k_.diff_scan(from + (2 * r + 1) * ch, from, static_cast<int32_t>(len * ch), ch, to);
    }
    const int64_t r = gx_.r[2];
    diff_norm(k_, b_.p[0] + (2 * r + 1) * ch, b_.p[0], static_cast<int32_t>((len - 2 * r) * ch),
              hscale_exact_, out);
  }

  const RowKernels &k_;
  const PlaneView &v_;
  const GaussRadii gx_, gy_;
  const int32_t n_;
  GaussBuffers b_;
  float vscale_[3], hscale_[3], hscale_exact_;
  bool exact_rows_;
};

}  // namespace

GaussRadii gauss_radii(double sigma) {
  const double var = sigma * sigma;
  double wl = std::floor(std::sqrt(4.0 * var + 1.0));
  if (std::fmod(wl, 2.0) == 0.0) wl -= 1.0;
  const double m = std::round((3 * wl * wl + 12 * wl + 9 - 12 * var) / (4 * wl + 4));
  const int passes_l = static_cast<int>(std::min(3.0, std::max(0.0, m)));
  GaussRadii g;
  for (int i = 0; i < 3; ++i) {
    const double w = i < passes_l ? wl : wl + 2;
    g.r[i] = static_cast<int32_t>((w - 1) / 2);
  }
  return g;
}

int64_t gauss_work_bytes(const PlaneView &v, const GaussRadii &gx, const GaussRadii &gy) {
  Carver c(nullptr);
  carve_gauss(c, v, gx, gy);
  return c.used();
}

void gauss_plane(const RowKernels &k, const PlaneView &v, const GaussRadii &gx,
                 const GaussRadii &gy, int32_t y0, int32_t y1, void *work) {
  if (v.bytes == 1) {
    GaussPlane<uint8_t>(k, v, gx, gy, work).run(y0, y1);
  } else {
    GaussPlane<uint16_t>(k, v, gx, gy, work).run(y0, y1);
  }
}

}  // namespace blur
}  // namespace hseg
