// Area shrink to BGR at full resolution: the entry point, its four workers
// (one per source layout) and the sampling NV21 variant.
#include <cstring>

#include "hseg/resize.h"
#include "resize/area_table.h"
#include "resize/area_walk.h"
#include "resize/yuv.h"

namespace hseg {
namespace area {
namespace {

// Destination row height in 1024ths of a source row, rounded half up.
int64_t row_step(int32_t src_height, int32_t dst_height) {
  return (int64_t{src_height} * 2048 / dst_height + 1) >> 1;
}

WalkShape full_shape(int32_t src_height, int32_t dst_height) {
  return WalkShape{src_height, row_step(src_height, dst_height), true};
}

Dest dest(uint8_t *dst, int32_t pitch, int32_t width, int32_t height) {
  return Dest{dst, pitch, width, height};
}

// One visit per source row. Each reader yields channel 0, 1, 2 of the entry
// at a source offset: B, G, R for BGR and Y, U, V for the YUV layouts.

struct BgrRows {
  const uint8_t *p;
  int32_t pitch;
  const LumResizeEntry *t;
  int32_t n;
  template <typename Acc>
  void accumulate(Acc *acc) const {
    const uint8_t *row = p;
    accumulate_entries(t, n, acc, [row](int32_t o, uint32_t *s) {
      s[0] = row[o];
      s[1] = row[o + 1];
      s[2] = row[o + 2];
    });
  }
  void next() { p += pitch; }
};

struct Yuy2Rows {
  const uint8_t *p;
  int32_t pitch;
  const LumResizeEntry *t;
  int32_t n;
  template <typename Acc>
  void accumulate(Acc *acc) const {
    const uint8_t *row = p;
    accumulate_entries(t, n, acc, [row](int32_t o, uint32_t *s) {
      const uint8_t *g = row + (o & ~3);  // Y0 U Y1 V group of the pixel
      s[0] = g[o & 2];                    // Y0 for the even pixel, Y1 for the odd
      s[1] = g[1];
      s[2] = g[3];
    });
  }
  void next() { p += pitch; }
};

struct Nv21Rows {
  const uint8_t *y;
  const uint8_t *vu;
  int32_t y_pitch;
  int32_t vu_pitch;
  const LumResizeEntry *t;
  int32_t n;
  int32_t row = 0;
  template <typename Acc>
  void accumulate(Acc *acc) const {
    const uint8_t *yr = y;
    const uint8_t *cr = vu;
    accumulate_entries(t, n, acc, [yr, cr](int32_t o, uint32_t *s) {
      const uint8_t *pair = cr + ((o | 1) - 1);  // both pixels of a pair read it
      s[0] = yr[o];
      s[1] = pair[1];  // U
      s[2] = pair[0];  // V
    });
  }
  void next() {
    y += y_pitch;
    if (row++ & 1) vu += vu_pitch;  // chroma row = source row / 2
  }
};

struct I420Rows {
  const uint8_t *y;
  const uint8_t *u;
  const uint8_t *v;
  int32_t y_pitch;
  int32_t uv_pitch;
  const LumResizeEntry *t;
  int32_t n;
  int32_t row = 0;
  template <typename Acc>
  void accumulate(Acc *acc) const {
    const uint8_t *yr = y;
    const uint8_t *ur = u;
    const uint8_t *vr = v;
    accumulate_entries(t, n, acc, [yr, ur, vr](int32_t o, uint32_t *s) {
      s[0] = yr[o];
      s[1] = ur[o >> 1];
      s[2] = vr[o >> 1];
    });
  }
  void next() {
    y += y_pitch;
    if (row++ & 1) {
      u += uv_pitch;
      v += uv_pitch;
    }
  }
};

}  // namespace
}  // namespace area
}  // namespace hseg

using hseg::area::bgr_row_bytes;
using hseg::area::check_worker;
using hseg::area::i420_chroma_row_bytes;
using hseg::area::luma_row_bytes;
using hseg::area::nv21_chroma_row_bytes;
using hseg::area::plane_ok;
using hseg::area::yuy2_row_bytes;

extern "C" {

MRESULT lumResize_Area_BGR(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                           int32_t src_height, uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                           int32_t dst_height, int32_t src_step, int32_t dst_step,
                           const LumResizeEntry *table, int32_t entries, uint64_t *row_acc,
                           uint64_t *carry_acc) {
  using namespace hseg::area;
  if (src_height < 1) return HSEG_OK;
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 3, dst_step,
                           table, entries, row_acc, carry_acc, bgr_row_bytes(src_width) - 2);
  if (s != HSEG_OK) return s;
  if (!plane_ok(src, src_pitch, bgr_row_bytes(src_width))) return HSEG_ERR_BAD_ARGUMENT;
  BgrRows rows{src, src_pitch, table, entries};
  area_walk(rows, StoreBgr(), full_shape(src_height, dst_height),
            dest(dst, dst_pitch, dst_width, dst_height), row_acc, carry_acc);
  return HSEG_OK;
}

MRESULT lumResize_Area_YUY2toBGR(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                                 int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                 int32_t dst_width, int32_t dst_height, int32_t src_step,
                                 int32_t dst_step, const LumResizeEntry *table, int32_t entries,
                                 uint64_t *row_acc, uint64_t *carry_acc) {
  using namespace hseg::area;
  if (src_height < 1) return HSEG_OK;
  // A pixel's offset is its column * 2, so offsets below 2 * width stay in
  // the row's whole groups.
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 2, dst_step,
                           table, entries, row_acc, carry_acc, 2 * int64_t{src_width});
  if (s != HSEG_OK) return s;
  if (!plane_ok(src, src_pitch, yuy2_row_bytes(src_width))) return HSEG_ERR_BAD_ARGUMENT;
  Yuy2Rows rows{src, src_pitch, table, entries};
  area_walk(rows, StoreYuv(), full_shape(src_height, dst_height),
            dest(dst, dst_pitch, dst_width, dst_height), row_acc, carry_acc);
  return HSEG_OK;
}

MRESULT lumResize_Area_YUV420LPtoBGR(const uint8_t *y, const uint8_t *vu, int32_t y_pitch,
                                     int32_t vu_pitch, int32_t src_width, int32_t src_height,
                                     uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                     int32_t dst_height, int32_t src_step, int32_t dst_step,
                                     const LumResizeEntry *table, int32_t entries,
                                     uint64_t *row_acc, uint64_t *carry_acc) {
  using namespace hseg::area;
  if (src_height < 1) return HSEG_OK;
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 1, dst_step,
                           table, entries, row_acc, carry_acc, src_width);
  if (s != HSEG_OK) return s;
  if (!plane_ok(y, y_pitch, luma_row_bytes(src_width)) ||
      !plane_ok(vu, vu_pitch, nv21_chroma_row_bytes(src_width))) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  Nv21Rows rows{y, vu, y_pitch, vu_pitch, table, entries};
  area_walk(rows, StoreYuv(), full_shape(src_height, dst_height),
            dest(dst, dst_pitch, dst_width, dst_height), row_acc, carry_acc);
  return HSEG_OK;
}

MRESULT lumResize_Area_YUV420PlanartoBGR(const uint8_t *y, const uint8_t *u, const uint8_t *v,
                                         int32_t y_pitch, int32_t uv_pitch, int32_t src_width,
                                         int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                         int32_t dst_width, int32_t dst_height, int32_t src_step,
                                         int32_t dst_step, const LumResizeEntry *table,
                                         int32_t entries, uint64_t *row_acc,
                                         uint64_t *carry_acc) {
  using namespace hseg::area;
  if (src_height < 1) return HSEG_OK;
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 1, dst_step,
                           table, entries, row_acc, carry_acc, src_width);
  if (s != HSEG_OK) return s;
  if (!plane_ok(y, y_pitch, luma_row_bytes(src_width)) ||
      !plane_ok(u, uv_pitch, i420_chroma_row_bytes(src_width)) || v == nullptr) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  I420Rows rows{y, u, v, y_pitch, uv_pitch, table, entries};
  area_walk(rows, StoreYuv(), full_shape(src_height, dst_height),
            dest(dst, dst_pitch, dst_width, dst_height), row_acc, carry_acc);
  return HSEG_OK;
}

MRESULT lumResize_Area_YUV420LPtoBGR_Fast(const uint8_t *y, const uint8_t *vu, int32_t y_pitch,
                                          int32_t vu_pitch, int32_t src_width, int32_t src_height,
                                          uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                          int32_t dst_height, int32_t src_step, int32_t dst_step,
                                          const LumResizeEntry *table, int32_t entries,
                                          uint32_t *count_acc, uint32_t *sum_acc) {
  using namespace hseg::area;
  if (src_height < 1) return HSEG_OK;
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 1, dst_step,
                           table, entries, count_acc, sum_acc, src_width);
  if (s != HSEG_OK) return s;
  if (!plane_ok(y, y_pitch, luma_row_bytes(src_width)) ||
      !plane_ok(vu, vu_pitch, nv21_chroma_row_bytes(src_width))) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  const int32_t n = 3 * dst_width;
  std::memset(count_acc, 0, sizeof(uint32_t) * size_t(n));
  std::memset(sum_acc, 0, sizeof(uint32_t) * size_t(n));
  const Dest d = dest(dst, dst_pitch, dst_width, dst_height);
  const int64_t step = row_step(src_height, dst_height);
  int32_t dy = 0;
  for (int32_t yy = 0; yy < src_height; yy += 2) {
    // Write out row dy first when this visit starts past its end.
    if (step * (int64_t{dy} + 1) <= (int64_t{yy} + 1) * 1024 || yy >= src_height - 2) {
      if (dy < dst_height) {
        uint8_t *out = d.data + int64_t{dy} * d.pitch;
        for (int32_t i = 0; i < n; i += 3) {
          const uint32_t c = count_acc[i];
          if (c == 0) {
            out[i] = out[i + 1] = out[i + 2] = 0;  // no sample fell here
          } else {
            hseg::yuv_to_bgr(static_cast<int32_t>((sum_acc[i] + c / 2) / c),
                             static_cast<int32_t>((sum_acc[i + 1] + c / 2) / c),
                             static_cast<int32_t>((sum_acc[i + 2] + c / 2) / c), out + i);
          }
        }
        ++dy;
      }
      std::memset(count_acc, 0, sizeof(uint32_t) * size_t(n));
      std::memset(sum_acc, 0, sizeof(uint32_t) * size_t(n));
    }
    const uint8_t *yr = y + int64_t{yy} * y_pitch;
    const uint8_t *cr = vu + int64_t{yy / 2} * vu_pitch;
    for (int32_t e = 0; e < entries; e += 2) {
      const int32_t o = table[e].src_offset;
      const int32_t k = table[e].dst_offset;
      const uint8_t *pair = cr + ((o | 1) - 1);
      sum_acc[k] += yr[o];
      sum_acc[k + 1] += pair[1];  // U
      sum_acc[k + 2] += pair[0];  // V
      ++count_acc[k];
    }
  }
  fill_unwritten_rows(d, dy);
  return HSEG_OK;
}

MRESULT LumResizeToBGR(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  using namespace hseg::area;
  MRESULT s = check_descriptors(src, dst);
  if (s != HSEG_OK) return s;
  if (src->width < dst->width || src->height < dst->height) return HSEG_OK;  // only shrinks
  int32_t bytes = 0;
  if (!work_block_bytes(src->width, dst->width, &bytes)) return HSEG_ERR_BAD_ARGUMENT;
  void *block = MMemAlloc(mem, bytes);
  if (block == nullptr) return HSEG_ERR_NO_MEMORY;
  const WorkBlock w = split_work_block(block, dst->width);

  const int32_t step = src->format == HSEG_PIXFMT_BGR24  ? 3
                       : src->format == HSEG_PIXFMT_YUY2 ? 2
                                                         : 1;
  const float scale_x = static_cast<float>(src->width) / static_cast<float>(dst->width);
  const float scale_y = static_cast<float>(src->height) / static_cast<float>(dst->height);
  const TableGeometry g{scale_x, 1.0f / (scale_y * scale_x), src->width, step, 2 * src->width};
  int32_t entries = 0;
  s = build_column_table(g, dst->width, w.table, &entries);
  if (s == HSEG_OK) {
    const OffscreenImage &a = *src;
    const OffscreenImage &b = *dst;
    switch (a.format) {
      case HSEG_PIXFMT_BGR24:
        s = lumResize_Area_BGR(a.planes[0], a.pitches[0], a.width, a.height, b.planes[0],
                               b.pitches[0], b.width, b.height, 3, 3, w.table, entries, w.row,
                               w.carry);
        break;
      case HSEG_PIXFMT_YUY2:
        s = lumResize_Area_YUY2toBGR(a.planes[0], a.pitches[0], a.width, a.height, b.planes[0],
                                     b.pitches[0], b.width, b.height, 2, 3, w.table, entries,
                                     w.row, w.carry);
        break;
      case HSEG_PIXFMT_NV21:
        s = lumResize_Area_YUV420LPtoBGR(a.planes[0], a.planes[1], a.pitches[0], a.pitches[1],
                                         a.width, a.height, b.planes[0], b.pitches[0], b.width,
                                         b.height, 1, 3, w.table, entries, w.row, w.carry);
        break;
      default:  // HSEG_PIXFMT_I420; check_descriptors let no other code through
        s = lumResize_Area_YUV420PlanartoBGR(a.planes[0], a.planes[1], a.planes[2],
                                             a.pitches[0], a.pitches[1], a.width, a.height,
                                             b.planes[0], b.pitches[0], b.width, b.height, 1, 3,
                                             w.table, entries, w.row, w.carry);
        break;
    }
  }
  MMemFree(mem, block);
  return s;
}

}  // extern "C"
