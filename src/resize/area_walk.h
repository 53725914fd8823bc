// The vertical walk of the area resize, shared by the full-resolution and
// the half-sampled workers, and the two ways of storing a BGR pixel.
//
// The walk visits source rows (or row pairs) in order. Each visit is one row
// of the walk's grid, 1024 units high; a destination row is `step` units
// high (10 fraction bits, rounded). A visit that lies wholly inside the
// current destination row adds its weighted samples to the carry. A visit
// that reaches the row's end closes it: the part of the visit beyond the end
// (f units) is carried, unrounded up to 14 fraction bits, into the next
// destination row. The accumulators hold weights with 14 fraction bits, so
// closing rounds from 14 fraction bits (f == 0) or from 24 (the carry scaled
// by 1024 plus the visit scaled by 1024 - f).
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

// Runs the walk. `rows` supplies the visits:
//   rows.accumulate(acc)  adds the current visit's weighted samples to acc,
//   rows.next()           moves to the next visit.
// `store` writes one pixel from its three rounded channel values.
// Acc is uint64_t, or uint32_t where the sums are known to fit; the closing
// arithmetic is done in 64 bits either way.
template <typename Acc, typename Rows, typename Store>
void area_walk(Rows &rows, const Store &store, const WalkShape &shape, const Dest &d, Acc *row,
               Acc *carry) {
  const int32_t n = 3 * d.width;
  std::memset(row, 0, sizeof(Acc) * size_t(n));
  std::memset(carry, 0, sizeof(Acc) * size_t(n));
  int32_t dy = 0;
  for (int32_t v = 0; v < shape.visits && dy < d.height; ++v, rows.next()) {
    const int64_t end = (int64_t{v} + 1) * 1024;
    const int64_t limit = shape.step * (int64_t{dy} + 1);
    const bool forced = shape.close_last && v == shape.visits - 1;
    if (limit > end && !forced) {
      rows.accumulate(carry);  // the whole visit lies inside row dy
      continue;
    }
    const uint64_t f = end > limit ? static_cast<uint64_t>(end - limit) : 0;
    uint8_t *out = d.data + int64_t{dy} * d.pitch;
    if (f == 0) {
      rows.accumulate(carry);
      for (int32_t i = 0; i < n; i += 3) {
        store(out + i, round_q14(carry[i]), round_q14(carry[i + 1]), round_q14(carry[i + 2]));
        carry[i] = carry[i + 1] = carry[i + 2] = 0;
      }
    } else {
      rows.accumulate(row);
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

// Adds the weighted samples of one visit, one run of entries per destination
// pixel: `sample(offset, s)` fetches the three channel values of the entry
// at `offset` into s[0..2]. Runs are summed in locals and stored once.
template <typename Acc, typename Sample>
inline void accumulate_entries(const LumResizeEntry *t, int32_t n, Acc *acc, const Sample &sample) {
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

}  // namespace area
}  // namespace hseg

#endif  // HSEG_SRC_RESIZE_AREA_WALK_H_
