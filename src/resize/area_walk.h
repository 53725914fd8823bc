// The vertical walk of the area resize, shared by the full-resolution and
// the half-sampled workers, and the two ways of storing a BGR pixel.
//
// The walk visits source rows (or row pairs) in order. Each visit is one row
// of the walk's grid, 1024 units high; a destination row is `step` units
// high (10 fraction bits, rounded). A visit that lies wholly inside the
// current destination row adds its weighted samples to the carry. A visit
// that reaches the row's end closes it: the part of the visit beyond the end
// (f units) goes on into the next destination row as its carry, rounded to
// the accumulators' 14 fraction bits. Closing rounds an output value from 14
// fraction bits (f == 0) or from 24 (the carry scaled by 1024 plus the visit
// scaled by 1024 - f). The last destination rows that the walk leaves
// unclosed are filled afterwards, and it never writes below the last row.
#ifndef HSEG_SRC_RESIZE_AREA_WALK_H_
#define HSEG_SRC_RESIZE_AREA_WALK_H_

#include <cstdint>
#include <cstring>

#include "hseg/resize.h"
#include "resize/yuv.h"

namespace hseg {
namespace area {

// Round-half-up shifts of the walk: by 14 and 24 fraction bits for output
// values, by 10 for the carried share.
inline uint64_t round_q14(uint64_t v) { return ((v >> 13) + 1) >> 1; }
inline uint64_t round_q24(uint64_t v) { return ((v >> 23) + 1) >> 1; }
inline uint64_t round_q10(uint64_t v) { return ((v >> 9) + 1) >> 1; }

// Stores an averaged BGR pixel, saturated: at large shrink ratios the rounded
// weights can add up to more than 1, and 311 must stay white, not wrap.
struct StoreBgr {
  void operator()(uint8_t *px, uint64_t b, uint64_t g, uint64_t r) const {
    px[0] = static_cast<uint8_t>(b > 255 ? 255 : b);
    px[1] = static_cast<uint8_t>(g > 255 ? 255 : g);
    px[2] = static_cast<uint8_t>(r > 255 ? 255 : r);
  }
};

// Converts averaged Y, U, V to BGR. The averages go in unclamped (the
// conversion clamps its results); they are only capped at 32767, far above
// anything a table from the entry points produces, to keep the 14-bit
// products inside int32 for any caller's table.
struct StoreYuv {
  static int32_t cap(uint64_t v) { return static_cast<int32_t>(v > 32767 ? 32767 : v); }
  void operator()(uint8_t *px, uint64_t y, uint64_t u, uint64_t v) const {
    yuv_to_bgr(cap(y), cap(u), cap(v), px);
  }
};

// Shape of one walk: `visits` rows of the walk's grid, destination rows of
// `step` units; `close_last` forces the last visit to close the current row.
struct WalkShape {
  int32_t visits;
  int64_t step;
  bool close_last;
};

struct Dest {
  uint8_t *data;
  int32_t pitch;
  int32_t width;
  int32_t height;
};

// Fills the destination rows below the last row written with copies of it.
// The walk closes at most one destination row per visit, so a rounded row
// step can leave the last row (or, on the half grid, several) unclosed.
inline void fill_unwritten_rows(const Dest &d, int32_t written) {
  if (written < 1) return;
  const uint8_t *last = d.data + int64_t{written - 1} * d.pitch;
  for (int32_t r = written; r < d.height; ++r) {
    std::memcpy(d.data + int64_t{r} * d.pitch, last, 3 * size_t(d.width));
  }
}

// Adds the weighted samples of one visit: `sample(offset, s)` fetches the
// three channel values of the entry at `offset` into s[0..2].
//
// Plain form: every entry adds to its accumulator triple.
template <typename Acc, typename Sample>
void add_entries_ref(const LumResizeEntry *t, int32_t n, Acc *acc, const Sample &sample) {
  for (int32_t i = 0; i < n; ++i) {
    uint32_t s[3];
    sample(t[i].src_offset, s);
    const uint64_t w = t[i].weight;
    Acc *a = acc + t[i].dst_offset;
    a[0] += static_cast<Acc>(s[0] * w);
    a[1] += static_cast<Acc>(s[1] * w);
    a[2] += static_cast<Acc>(s[2] * w);
  }
}

// Fused form: a run of entries that share a destination pixel is summed in
// locals and stored once, which keeps the accumulators out of the
// dependency chain. Same sums (exact, or modulo 2^32 for 32-bit Acc).
template <typename Acc, typename Sample>
void add_entries_in_runs(const LumResizeEntry *t, int32_t n, Acc *acc, const Sample &sample) {
  for (int32_t i = 0; i < n;) {
    const int32_t d = t[i].dst_offset;
    uint64_t s0 = 0, s1 = 0, s2 = 0;
    do {
      uint32_t s[3];
      sample(t[i].src_offset, s);
      const uint64_t w = t[i].weight;
      s0 += s[0] * w;
      s1 += s[1] * w;
      s2 += s[2] * w;
    } while (++i < n && t[i].dst_offset == d);
    acc[d] += static_cast<Acc>(s0);
    acc[d + 1] += static_cast<Acc>(s1);
    acc[d + 2] += static_cast<Acc>(s2);
  }
}

// Which walk a worker runs. kPlain adds every visit to the row accumulator
// entry by entry and then moves it into the carry, as the walk reads; kFused
// sums runs of entries in locals and adds a visit that does not need its own
// share straight into the carry. Both give the same bytes; kPlain is the
// reference that the tests hold kFused to.
enum class Walk { kFused, kPlain };

// Runs the walk over `rows`, which supplies the visits:
//   rows.sampler()  the sample function of the current visit,
//   rows.next()     moves to the next visit.
// `store` writes one pixel from its three rounded channel values.
// Acc is uint64_t, or uint32_t where the sums are known to fit; the closing
// arithmetic is done in 64 bits either way.
template <Walk kWalk, typename Acc, typename Rows, typename Store>
void area_walk(Rows &rows, const LumResizeEntry *table, int32_t entries, const Store &store,
               const WalkShape &shape, const Dest &d, Acc *row, Acc *carry) {
  const int32_t n = 3 * d.width;
  std::memset(row, 0, sizeof(Acc) * size_t(n));
  std::memset(carry, 0, sizeof(Acc) * size_t(n));
  int32_t dy = 0;
  for (int32_t v = 0; v < shape.visits && dy < d.height; ++v, rows.next()) {
    const int64_t end = (int64_t{v} + 1) * 1024;
    const int64_t limit = shape.step * (int64_t{dy} + 1);
    const bool closes = limit <= end || (shape.close_last && v == shape.visits - 1);
    const uint64_t f = end > limit ? static_cast<uint64_t>(end - limit) : 0;
    if constexpr (kWalk == Walk::kPlain) {
      add_entries_ref(table, entries, row, rows.sampler());
      if (!closes) {  // the whole visit lies inside row dy
        for (int32_t i = 0; i < n; ++i) {
          carry[i] += row[i];
          row[i] = 0;
        }
        continue;
      }
    } else {
      // Only a visit that splits (f > 0) needs its own accumulator; any other
      // visit would be added to the carry anyway.
      add_entries_in_runs(table, entries, closes && f > 0 ? row : carry, rows.sampler());
      if (!closes) continue;
    }
    uint8_t *out = d.data + int64_t{dy} * d.pitch;
    if (f == 0) {
      for (int32_t i = 0; i < n; i += 3) {
        uint64_t c[3];
        for (int k = 0; k < 3; ++k) {
          c[k] = round_q14(uint64_t{carry[i + k]} + row[i + k]);
          carry[i + k] = row[i + k] = 0;
        }
        store(out + i, c[0], c[1], c[2]);
      }
    } else {
      for (int32_t i = 0; i < n; i += 3) {
        uint64_t c[3];
        for (int k = 0; k < 3; ++k) {
          const uint64_t r = row[i + k];
          c[k] = round_q24(uint64_t{carry[i + k]} * 1024 + r * (1024 - f));
          carry[i + k] = static_cast<Acc>(round_q10(r * f));
          row[i + k] = 0;
        }
        store(out + i, c[0], c[1], c[2]);
      }
    }
    ++dy;
  }
  fill_unwritten_rows(d, dy);
}

}  // namespace area
}  // namespace hseg

#endif  // HSEG_SRC_RESIZE_AREA_WALK_H_
