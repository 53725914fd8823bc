// The one worker and the one dispatch of the area resize, shared by the
// full-resolution and the half-sampled grids. A grid differs from the other
// only in its row readers; a reader type `Rows` supplies:
//   kFormat, kSrcStep, Acc  through the Reader base below;
//   src_end(width)          the first source offset an entry may not read;
//   shape(height, dst_h)    the vertical walk;
//   Rows(planes, width, height), sampler() and next() for area_walk; a
//   sampler yields channel 0, 1, 2 of the entry at a source offset: B, G, R
//   for BGR and Y, U, V for the YUV layouts.
#ifndef HSEG_SRC_RESIZE_AREA_WORKER_H_
#define HSEG_SRC_RESIZE_AREA_WORKER_H_

#include <type_traits>

#include "resize/area_exact.h"
#include "resize/area_table.h"
#include "resize/area_walk.h"

namespace hseg {
namespace area {

// Checks a worker call that `Rows` would read: the common arguments, then
// the source planes of its format.
template <typename Rows>
MRESULT check_rows_call(const SourcePlanes &src, const WorkerCall &c, const void *acc0,
                        const void *acc1) {
  const MRESULT s = check_worker(c, Rows::kSrcStep, acc0, acc1, Rows::src_end(c.src_width));
  if (s != HSEG_OK) return s;
  return source_planes_ok(Rows::kFormat, src, c.src_width) ? HSEG_OK : HSEG_ERR_BAD_ARGUMENT;
}

// The fixed facts of a row reader: its format, its column table's source
// step and its accumulator type.
template <uint32_t kFmt, int32_t kStep, typename AccT = uint64_t>
struct Reader {
  using Acc = AccT;
  static constexpr uint32_t kFormat = kFmt;
  static constexpr int32_t kSrcStep = kStep;
};

// Sample reads that both grids share, into s[0..2]: B, G, R of the pixel at
// byte offset o of a packed BGR row; U, V (s[1], s[2]) of the pixel at luma
// offset o from a row of V,U pairs or from the U and V rows.
inline void sample_bgr(const uint8_t *row, int32_t o, uint32_t *s) {
  s[0] = row[o];
  s[1] = row[o + 1];
  s[2] = row[o + 2];
}
inline void sample_vu_pairs(const uint8_t *vu, int32_t o, uint32_t *s) {
  const uint8_t *pair = vu + ((o | 1) - 1);  // both pixels of a pair read it
  s[1] = pair[1];
  s[2] = pair[0];
}
inline void sample_uv_rows(const uint8_t *u, const uint8_t *v, int32_t o, uint32_t *s) {
  s[1] = u[o >> 1];
  s[2] = v[o >> 1];
}

// The 4:2:0 readers of either grid, over the grid's luma walker `Luma`:
//   kStep, src_end(width), shape(height, dst_h)   as for a reader;
//   Luma(planes, width, height);
//   luma_sampler()   the Y of the entry at a luma offset, this visit;
//   next_luma()      moves to the next visit; true when the chroma row moves.
template <typename Luma>
struct Nv21Reader : Reader<HSEG_PIXFMT_NV21, Luma::kStep>, Luma {
  const uint8_t *vu;
  int32_t vu_pitch;
  Nv21Reader(const SourcePlanes &s, int32_t w, int32_t h)
      : Luma(s, w, h), vu(s.plane[1]), vu_pitch(s.pitch[1]) {}
  auto sampler() const {
    return [luma = Luma::luma_sampler(), cr = vu](int32_t o, uint32_t *s) {
      s[0] = luma(o);
      sample_vu_pairs(cr, o, s);
    };
  }
  void next() {
    if (Luma::next_luma()) vu += vu_pitch;
  }
};

template <typename Luma>
struct I420Reader : Reader<HSEG_PIXFMT_I420, Luma::kStep>, Luma {
  const uint8_t *u;
  const uint8_t *v;
  int32_t uv_pitch;
  I420Reader(const SourcePlanes &s, int32_t w, int32_t h)
      : Luma(s, w, h), u(s.plane[1]), v(s.plane[2]), uv_pitch(s.pitch[1]) {}
  auto sampler() const {
    return [luma = Luma::luma_sampler(), ur = u, vr = v](int32_t o, uint32_t *s) {
      s[0] = luma(o);
      sample_uv_rows(ur, vr, o, s);
    };
  }
  void next() {
    if (Luma::next_luma()) {
      u += uv_pitch;
      v += uv_pitch;
    }
  }
};

// One exported worker: a source height below 1 is nothing to do; otherwise
// every argument is checked before the walk writes anything.
template <Walk kWalk, typename Rows>
MRESULT area_worker(const SourcePlanes &src, const WorkerCall &c, typename Rows::Acc *row_acc,
                    typename Rows::Acc *carry_acc) {
  if (c.src_height < 1) return HSEG_OK;
  const MRESULT s = check_rows_call<Rows>(src, c, row_acc, carry_acc);
  if (s != HSEG_OK) return s;
  using Store = std::conditional_t<Rows::kFormat == HSEG_PIXFMT_BGR24, StoreBgr, StoreYuv>;
  Rows rows(src, c.src_width, c.src_height);
  area_walk<kWalk>(rows, c.table, c.entries, Store(), Rows::shape(c.src_height, c.dst_height),
                   Dest{c.dst, c.dst_pitch, c.dst_width, c.dst_height}, row_acc, carry_acc);
  return HSEG_OK;
}

// The worker call of an entry point for the reader `Rows`. A reader with
// 32-bit accumulators gets them laid over the 64-bit accumulators' space.
template <Walk kWalk, typename Rows>
MRESULT run_worker(const OffscreenImage &a, const OffscreenImage &b, const WorkBlock &w,
                   int32_t entries) {
  using Acc = typename Rows::Acc;
  const WorkerCall c{a.width,  a.height,       b.planes[0], b.pitches[0], b.width,
                     b.height, Rows::kSrcStep, 3,           w.table,      entries};
  return area_worker<kWalk, Rows>(planes_of(a), c, reinterpret_cast<Acc *>(w.row),
                                  reinterpret_cast<Acc *>(w.carry));
}

// Calls run(Tag<Reader>{}) with the reader of `Grid` (member types Bgr,
// Yuy2, Nv21, I420) for the source format; check_descriptors lets no other
// format through.
template <typename T>
struct Tag {
  using type = T;
};
template <typename Grid, typename Run>
MRESULT with_reader(uint32_t format, const Run &run) {
  switch (format) {
    case HSEG_PIXFMT_BGR24:
      return run(Tag<typename Grid::Bgr>{});
    case HSEG_PIXFMT_YUY2:
      return run(Tag<typename Grid::Yuy2>{});
    case HSEG_PIXFMT_NV21:
      return run(Tag<typename Grid::Nv21>{});
    default:
      return run(Tag<typename Grid::I420>{});
  }
}

template <Walk kWalk, typename Grid>
MRESULT dispatch(const OffscreenImage &a, const OffscreenImage &b, const WorkBlock &w,
                 int32_t entries) {
  return with_reader<Grid>(a.format, [&](auto tag) {
    return run_worker<kWalk, typename decltype(tag)::type>(a, b, w, entries);
  });
}

// The double-precision mean of `Grid` (area_exact.h) over the work block:
// the two accumulators hold its row and sum arrays, the table's space the
// column spans (24 bytes for each destination column, and the destination is
// never wider than the source).
template <typename Grid>
MRESULT dispatch_exact(const OffscreenImage &a, const OffscreenImage &b, const WorkBlock &w,
                       int32_t) {
  const double x_extent = Grid::kHalf ? 0.5 * a.width : a.width;
  const int32_t columns = Grid::kHalf ? (a.width + 1) / 2 : a.width;
  const ExactShape shape{Grid::kHalf ? (a.height + 1) / 2 : a.height,
                         Grid::kHalf ? 0.5 * a.height : a.height};
  auto *spans = reinterpret_cast<ColumnSpan *>(w.table);
  build_spans(x_extent, columns, b.width, spans);
  const Dest d{b.planes[0], b.pitches[0], b.width, b.height};
  return with_reader<Grid>(a.format, [&](auto tag) {
    using Rows = typename decltype(tag)::type;
    using Store = std::conditional_t<Rows::kFormat == HSEG_PIXFMT_BGR24, StoreBgr, StoreYuv>;
    Rows rows(planes_of(a), a.width, a.height);
    exact_walk(rows, spans, x_extent, shape, Store(), d, reinterpret_cast<double *>(w.row),
               reinterpret_cast<double *>(w.carry));
    return HSEG_OK;
  });
}

// An entry point: the resize on `Grid` (kHalf true for the half grid), with
// every fixed-point worker on the walk kWalk.
template <Walk kWalk, typename Grid>
MRESULT resize_on(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return run_area_resize(mem, src, dst, Grid::kHalf, dispatch<kWalk, Grid>,
                         dispatch_exact<Grid>);
}

}  // namespace area
}  // namespace hseg

#endif  // HSEG_SRC_RESIZE_AREA_WORKER_H_
