// The area mean in double precision, for the geometries where the
// fixed-point walk loses its accuracy: a destination pixel that spans more
// than 32 source pixels in a direction (its 14-bit per-pixel weight keeps
// too few bits), and on the half grid a destination pixel smaller than one
// grid sample (the fixed-point walk closes at most one destination row per
// visit and its column table assumes footprints of at least one column).
//
// Every destination pixel is the mean of the grid rectangle it covers,
// [dx * sx, (dx + 1) * sx) x [dy * sy, (dy + 1) * sy) with sx, sy the grid
// extents over the destination size, each grid sample weighted by the area it
// shares with the rectangle; the mean is rounded half up. The grid and its
// samples are those of the row readers (area_worker.h), so both grids and
// every layout go through here with the samples the fixed-point walk reads.
#ifndef HSEG_SRC_RESIZE_AREA_EXACT_H_
#define HSEG_SRC_RESIZE_AREA_EXACT_H_

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "resize/area_walk.h"

namespace hseg {
namespace area {

// The grid columns of one destination column: `first` with weight
// `first_weight`, whole columns between, and `last` with `last_weight` when
// last > first. Weights are the covered fractions of a column.
struct ColumnSpan {
  int32_t first;
  int32_t last;
  double first_weight;
  double last_weight;
};

// Spans of `dst_width` destination columns over a grid `extent` columns wide
// (the source width, or half of it on the half grid), whose samples lie in
// columns 0 .. columns - 1.
inline void build_spans(double extent, int32_t columns, int32_t dst_width, ColumnSpan *spans) {
  const double scale = extent / dst_width;
  for (int32_t dx = 0; dx < dst_width; ++dx) {
    const double x0 = dx * scale;
    const double x1 = dx + 1 == dst_width ? extent : (dx + 1) * scale;
    ColumnSpan &s = spans[dx];
    s.first = static_cast<int32_t>(x0);
    s.last = std::min(static_cast<int32_t>(std::ceil(x1)) - 1, columns - 1);
    s.last = std::max(s.last, s.first);
    s.first_weight = std::min(x1, s.first + 1.0) - x0;
    s.last_weight = x1 - s.last;
  }
}

// Adds one grid row (the reader's current visit) to `row`, 3 values per
// destination column: the partial columns weighted, the whole ones summed
// exactly.
template <typename Sample>
void add_grid_row(const Sample &sample, int32_t step, const ColumnSpan *spans, int32_t dst_width,
                  double *row) {
  for (int32_t dx = 0; dx < dst_width; ++dx) {
    const ColumnSpan &sp = spans[dx];
    uint32_t s[3];
    double acc[3];
    sample(sp.first * step, s);
    for (int k = 0; k < 3; ++k) acc[k] = sp.first_weight * s[k];
    uint64_t whole[3] = {0, 0, 0};
    for (int32_t c = sp.first + 1; c < sp.last; ++c) {
      sample(c * step, s);
      for (int k = 0; k < 3; ++k) whole[k] += s[k];
    }
    if (sp.last > sp.first) {
      sample(sp.last * step, s);
      for (int k = 0; k < 3; ++k) acc[k] += sp.last_weight * s[k];
    }
    for (int k = 0; k < 3; ++k) row[3 * dx + k] = acc[k] + static_cast<double>(whole[k]);
  }
}

// The vertical geometry: `visits` grid rows, `extent` of them covered (the
// last one only partly on the half grid of an odd height).
struct ExactShape {
  int32_t visits;
  double extent;
};

// Runs the mean over `rows` (a row reader, as for area_walk) into `d`, with
// `spans` from build_spans over the grid columns. `row` and `sum` are work
// arrays of 3 * d.width doubles. A visit adds its share to every destination
// row it overlaps and writes each row that ends inside it.
template <typename Rows, typename Store>
void exact_walk(Rows &rows, const ColumnSpan *spans, double x_extent, const ExactShape &shape,
                const Store &store, const Dest &d, double *row, double *sum) {
  const int32_t n = 3 * d.width;
  const double scale_y = shape.extent / d.height;
  const double inv_area = 1.0 / (x_extent / d.width * scale_y);
  std::fill(sum, sum + n, 0.0);
  int32_t dy = 0;
  for (int32_t v = 0; v < shape.visits && dy < d.height; ++v, rows.next()) {
    add_grid_row(rows.sampler(), Rows::kSrcStep, spans, d.width, row);
    const bool last_visit = v + 1 == shape.visits;
    while (dy < d.height) {
      const double y0 = dy * scale_y;
      const double y1 = dy + 1 == d.height ? shape.extent : (dy + 1) * scale_y;
      const double share = std::min(y1, v + 1.0) - std::max(y0, static_cast<double>(v));
      if (share > 0) {
        for (int32_t i = 0; i < n; ++i) sum[i] += share * row[i];
      }
      if (y1 > v + 1.0 && !last_visit) break;  // the row goes on into the next visit
      uint8_t *out = d.data + int64_t{dy} * d.pitch;
      for (int32_t i = 0; i < n; i += 3) {
        uint64_t c[3];
        for (int k = 0; k < 3; ++k) {
          const double mean = sum[i + k] * inv_area;
          c[k] = mean > 0 ? static_cast<uint64_t>(std::floor(mean + 0.5)) : 0;
          sum[i + k] = 0;
        }
        store(out + i, c[0], c[1], c[2]);
      }
      ++dy;
    }
  }
}

}  // namespace area
}  // namespace hseg

#endif  // HSEG_SRC_RESIZE_AREA_EXACT_H_
