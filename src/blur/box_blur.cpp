// Box blur of one plane: the exact mean of a (2 rx + 1) x (2 ry + 1) window
// with replicated borders, rounded once from the integer window sum.
//
// A column sum per sample slides down the rows (add the row entering the
// window, remove the row leaving it); each output row is then the window
// sum along the row of column sums, taken as the difference of two prefix
// sums, and divided with rounding. Interior pixels go through the row
// kernels; the few pixels whose window leaves the row use the prefix sums
// continued past the ends (the edge sample repeated), so the time per pixel
// does not depend on the radius.
//
// Sums that could reach 2^31 (radii past about 1447 for 8-bit samples, 90
// for 16-bit) are kept in 64 or 128 bits by the same code, without SIMD.
#include <algorithm>
#include <type_traits>

#include "blur/blur_internal.h"

namespace hseg {
namespace blur {
namespace {

using u128 = unsigned __int128;

enum class BoxPath { k32, k64, k128 };

u128 window_count(int32_t rx, int32_t ry) {
  return static_cast<u128>(2 * int64_t{rx} + 1) * static_cast<u128>(2 * int64_t{ry} + 1);
}

BoxPath box_path(const PlaneView &v, int32_t rx, int32_t ry) {
  const u128 n = window_count(rx, ry);
  const u128 top = n * (v.bytes == 1 ? 255u : 65535u) + (n - 1) / 2;  // largest s + half
  if (top < (u128{1} << 31)) return BoxPath::k32;
  return top < (u128{1} << 64) ? BoxPath::k64 : BoxPath::k128;
}

template <typename T, typename Acc, typename Sum>
struct BoxBuffers {
  Acc *acc;  // column sums, one per sample
  Sum *p;    // prefix sums of a row of column sums, ch leading zeros
  T *rows;   // scratch rows for planes that are not contiguous
};

template <typename T, typename Acc, typename Sum>
BoxBuffers<T, Acc, Sum> carve(Carver &c, const PlaneView &v) {
  const int64_t n = v.samples();
  BoxBuffers<T, Acc, Sum> b;
  b.acc = c.take<Acc>(n);
  b.p = c.take<Sum>(n + v.ch);
  b.rows = reinterpret_cast<T *>(c.take<uint8_t>(plane_rows_bytes(v)));
  return b;
}

inline void vsum(const RowKernels &k, uint32_t *acc, const uint8_t *a, const uint8_t *s,
                 int32_t n) {
  k.vsum_u8(acc, a, s, n);
}
inline void vsum(const RowKernels &k, uint32_t *acc, const uint16_t *a, const uint16_t *s,
                 int32_t n) {
  k.vsum_u16(acc, a, s, n);
}
template <typename T>
void vsum(const RowKernels &, uint64_t *acc, const T *a, const T *s, int32_t n) {
  for (int32_t i = 0; i < n; ++i) acc[i] += static_cast<uint64_t>(a[i]) - s[i];
}

inline void diff_div(const RowKernels &k, const uint32_t *hi, const uint32_t *lo, int32_t n,
                     const Divisor &d, uint8_t *out) {
  k.diff_div_u8(hi, lo, n, d, out);
}
inline void diff_div(const RowKernels &k, const uint32_t *hi, const uint32_t *lo, int32_t n,
                     const Divisor &d, uint16_t *out) {
  k.diff_div_u16(hi, lo, n, d, out);
}

template <typename T, typename Acc, typename Sum>
class BoxPlane {
 public:
  BoxPlane(const RowKernels &k, const PlaneView &v, int32_t rx, int32_t ry, void *work)
      : k_(k), v_(v), rx_(rx), ry_(ry), n_(v.samples()) {
    Carver c(work);
    b_ = carve<T, Acc, Sum>(c, v);
    const u128 count = window_count(rx, ry);
    count_ = static_cast<Sum>(count);
    half_ = static_cast<Sum>((count - 1) / 2);
    if (std::is_same<Sum, uint32_t>::value) div_ = make_divisor(static_cast<uint32_t>(count));
  }

  void run(int32_t y0, int32_t y1) {
    PlaneRows<T> rows(v_, b_.rows, b_.rows + n_, b_.rows + 2 * n_);
    start_column_sums(rows, y0);
    for (int32_t y = y0; y < y1; ++y) {
      if (y > y0)
        vsum(k_, b_.acc, rows.src_row(int64_t{y} + ry_, 0), rows.src_row(int64_t{y} - ry_ - 1, 1),
             n_);
      row_means(rows.dst_row(y));
      rows.put_row(y);
    }
  }

 private:
  // Column sums of the window around row y0: the rows it covers inside the
  // plane, plus the first and last rows once more for each row it reaches
  // past them.
  void start_column_sums(const PlaneRows<T> &rows, int32_t y0) {
    std::fill(b_.acc, b_.acc + n_, Acc{0});
    const int64_t lo = int64_t{y0} - ry_, hi = int64_t{y0} + ry_, last = v_.height - 1;
    auto add = [&](int64_t y, Acc times) {
      const T *r = rows.src_row(y, 0);
      for (int32_t i = 0; i < n_; ++i) b_.acc[i] += static_cast<Acc>(r[i]) * times;
    };
    if (lo < 0) add(0, static_cast<Acc>(-lo));
    if (hi > last) add(last, static_cast<Acc>(hi - last));
    for (int64_t y = std::max<int64_t>(lo, 0); y <= std::min(hi, last); ++y) add(y, 1);
  }

  // Prefix sum of channel c up to (not including) pixel i, for any i: the
  // row's first and last samples continue it past both ends. Negative i
  // wraps in unsigned arithmetic, which the window difference undoes.
  Sum prefix(int64_t i, int32_t c) const {
    const int64_t w = v_.width;
    if (i <= 0) return static_cast<Sum>(i) * static_cast<Sum>(b_.acc[c]);
    if (i >= w)
      return b_.p[w * v_.ch + c] +
             static_cast<Sum>(i - w) * static_cast<Sum>(b_.acc[(w - 1) * v_.ch + c]);
    return b_.p[i * v_.ch + c];
  }

  void edge_means(int32_t x0, int32_t x1, T *out) const {
    for (int32_t x = x0; x < x1; ++x)
      for (int32_t c = 0; c < v_.ch; ++c) {
        const Sum s = prefix(int64_t{x} + rx_ + 1, c) - prefix(int64_t{x} - rx_, c);
        out[x * v_.ch + c] = static_cast<T>((s + half_) / count_);
      }
  }

  void row_means(T *out) {
    const int32_t ch = v_.ch, w = v_.width;
    std::fill(b_.p, b_.p + ch, Sum{0});
    if constexpr (std::is_same<Sum, uint32_t>::value) {
      k_.scan_u32(b_.acc, n_, ch, b_.p);
    } else {
      for (int32_t i = 0; i < n_; ++i) b_.p[ch + i] = b_.p[i] + b_.acc[i];
    }
    // Pixels rx .. w - 1 - rx have their whole window inside the row.
    const int32_t left = std::min(rx_, w);
    const int32_t right = std::max(left, rx_ < w ? w - rx_ : w);
    edge_means(0, left, out);
    if constexpr (std::is_same<Sum, uint32_t>::value) {
      if (right > left)
        diff_div(k_, b_.p + (2 * int64_t{rx_} + 1) * ch, b_.p, (right - left) * ch, div_,
                 out + left * ch);
    } else {
      edge_means(left, right, out);
    }
    edge_means(right, w, out);
  }

  const RowKernels &k_;
  const PlaneView &v_;
  const int32_t rx_, ry_, n_;
  BoxBuffers<T, Acc, Sum> b_;
  Sum count_, half_;
  Divisor div_{};
};

template <typename T, typename Acc, typename Sum>
void run_box(const RowKernels &k, const PlaneView &v, int32_t rx, int32_t ry, int32_t y0,
             int32_t y1, void *work) {
  BoxPlane<T, Acc, Sum>(k, v, rx, ry, work).run(y0, y1);
}

template <typename T>
void box_typed(const RowKernels &k, const PlaneView &v, int32_t rx, int32_t ry, int32_t y0,
               int32_t y1, void *work) {
  switch (box_path(v, rx, ry)) {
    case BoxPath::k32: return run_box<T, uint32_t, uint32_t>(k, v, rx, ry, y0, y1, work);
    case BoxPath::k64: return run_box<T, uint64_t, uint64_t>(k, v, rx, ry, y0, y1, work);
    case BoxPath::k128: return run_box<T, uint64_t, u128>(k, v, rx, ry, y0, y1, work);
  }
}

}  // namespace

int64_t box_work_bytes(const PlaneView &v, int32_t rx, int32_t ry) {
  Carver c(nullptr);
  switch (box_path(v, rx, ry)) {
    case BoxPath::k32: carve<uint16_t, uint32_t, uint32_t>(c, v); break;
    case BoxPath::k64: carve<uint16_t, uint64_t, uint64_t>(c, v); break;
    case BoxPath::k128: carve<uint16_t, uint64_t, u128>(c, v); break;
  }
  return c.used();
}

void box_plane(const RowKernels &k, const PlaneView &v, int32_t rx, int32_t ry, int32_t y0,
               int32_t y1, void *work) {
  if (v.bytes == 1) {
    box_typed<uint8_t>(k, v, rx, ry, y0, y1, work);
  } else {
    box_typed<uint16_t>(k, v, rx, ry, y0, y1, work);
  }
}

void copy_plane(const PlaneView &v, int32_t y0, int32_t y1) {
  for (int64_t y = y0; y < y1; ++y) {
    const uint8_t *s = v.src + y * v.src_pitch;
    uint8_t *d = v.dst + y * v.dst_pitch;
    if (s == d) continue;
    if (v.contiguous()) {
      std::memcpy(d, s, static_cast<size_t>(v.samples()) * v.bytes);
      continue;
    }
    for (int32_t x = 0; x < v.width; ++x)
      for (int32_t c = 0; c < v.ch; ++c) {
        const int64_t at = v.offset + int64_t{x} * v.pixel_step + int64_t{c} * v.chan_step;
        std::memcpy(d + at, s + at, static_cast<size_t>(v.bytes));
      }
  }
}

}  // namespace blur
}  // namespace hseg
