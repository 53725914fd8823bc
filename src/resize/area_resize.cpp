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

// One visit per source row. Each sampler yields channel 0, 1, 2 of the entry
// at a source offset: B, G, R for BGR and Y, U, V for the YUV layouts.

struct BgrRows {
  const uint8_t *p;
  int32_t pitch;
  auto sampler() const {
    return [row = p](int32_t o, uint32_t *s) {
      s[0] = row[o];
      s[1] = row[o + 1];
      s[2] = row[o + 2];
    };
  }
  void next() { p += pitch; }
};

struct Yuy2Rows {
  const uint8_t *p;
  int32_t pitch;
  auto sampler() const {
    return [row = p](int32_t o, uint32_t *s) {
      const uint8_t *g = row + (o & ~3);  // Y0 U Y1 V group of the pixel
      s[0] = g[o & 2];                    // Y0 for the even pixel, Y1 for the odd
      s[1] = g[1];
      s[2] = g[3];
    };
  }
  void next() { p += pitch; }
};

struct Nv21Rows {
  const uint8_t *y;
  const uint8_t *vu;
  int32_t y_pitch;
  int32_t vu_pitch;
  int32_t row = 0;
  auto sampler() const {
    return [yr = y, cr = vu](int32_t o, uint32_t *s) {
      const uint8_t *pair = cr + ((o | 1) - 1);  // both pixels of a pair read it
      s[0] = yr[o];
      s[1] = pair[1];  // U
      s[2] = pair[0];  // V
    };
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
  int32_t row = 0;
  auto sampler() const {
    return [yr = y, ur = u, vr = v](int32_t o, uint32_t *s) {
      s[0] = yr[o];
      s[1] = ur[o >> 1];
      s[2] = vr[o >> 1];
    };
  }
  void next() {
    y += y_pitch;
    if (row++ & 1) {
      u += uv_pitch;
      v += uv_pitch;
    }
  }
};

template <Walk kWalk>
MRESULT bgr_worker(const uint8_t *src, int32_t src_pitch, int32_t src_width, int32_t src_height,
                   uint8_t *dst, int32_t dst_pitch, int32_t dst_width, int32_t dst_height,
                   int32_t src_step, int32_t dst_step, const LumResizeEntry *table,
                   int32_t entries, uint64_t *row_acc, uint64_t *carry_acc) {
  if (src_height < 1) return HSEG_OK;
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 3, dst_step,
                           table, entries, row_acc, carry_acc, bgr_row_bytes(src_width) - 2);
  if (s != HSEG_OK) return s;
  if (!plane_ok(src, src_pitch, bgr_row_bytes(src_width))) return HSEG_ERR_BAD_ARGUMENT;
  BgrRows rows{src, src_pitch};
  area_walk<kWalk>(rows, table, entries, StoreBgr(), full_shape(src_height, dst_height),
                   Dest{dst, dst_pitch, dst_width, dst_height}, row_acc, carry_acc);
  return HSEG_OK;
}

template <Walk kWalk>
MRESULT yuy2_worker(const uint8_t *src, int32_t src_pitch, int32_t src_width, int32_t src_height,
                    uint8_t *dst, int32_t dst_pitch, int32_t dst_width, int32_t dst_height,
                    int32_t src_step, int32_t dst_step, const LumResizeEntry *table,
                    int32_t entries, uint64_t *row_acc, uint64_t *carry_acc) {
  if (src_height < 1) return HSEG_OK;
  // A pixel's offset is its column * 2, so offsets below 2 * width stay in
  // the row's whole groups.
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 2, dst_step,
                           table, entries, row_acc, carry_acc, 2 * int64_t{src_width});
  if (s != HSEG_OK) return s;
  if (!plane_ok(src, src_pitch, yuy2_row_bytes(src_width))) return HSEG_ERR_BAD_ARGUMENT;
  Yuy2Rows rows{src, src_pitch};
  area_walk<kWalk>(rows, table, entries, StoreYuv(), full_shape(src_height, dst_height),
                   Dest{dst, dst_pitch, dst_width, dst_height}, row_acc, carry_acc);
  return HSEG_OK;
}

template <Walk kWalk>
MRESULT nv21_worker(const uint8_t *y, const uint8_t *vu, int32_t y_pitch, int32_t vu_pitch,
                    int32_t src_width, int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                    int32_t dst_width, int32_t dst_height, int32_t src_step, int32_t dst_step,
                    const LumResizeEntry *table, int32_t entries, uint64_t *row_acc,
                    uint64_t *carry_acc) {
  if (src_height < 1) return HSEG_OK;
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 1, dst_step,
                           table, entries, row_acc, carry_acc, src_width);
  if (s != HSEG_OK) return s;
  if (!plane_ok(y, y_pitch, luma_row_bytes(src_width)) ||
      !plane_ok(vu, vu_pitch, nv21_chroma_row_bytes(src_width))) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  Nv21Rows rows{y, vu, y_pitch, vu_pitch};
  area_walk<kWalk>(rows, table, entries, StoreYuv(), full_shape(src_height, dst_height),
                   Dest{dst, dst_pitch, dst_width, dst_height}, row_acc, carry_acc);
  return HSEG_OK;
}

template <Walk kWalk>
MRESULT i420_worker(const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t y_pitch,
                    int32_t uv_pitch, int32_t src_width, int32_t src_height, uint8_t *dst,
                    int32_t dst_pitch, int32_t dst_width, int32_t dst_height, int32_t src_step,
                    int32_t dst_step, const LumResizeEntry *table, int32_t entries,
                    uint64_t *row_acc, uint64_t *carry_acc) {
  if (src_height < 1) return HSEG_OK;
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 1, dst_step,
                           table, entries, row_acc, carry_acc, src_width);
  if (s != HSEG_OK) return s;
  if (!plane_ok(y, y_pitch, luma_row_bytes(src_width)) ||
      !plane_ok(u, uv_pitch, i420_chroma_row_bytes(src_width)) || v == nullptr) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  I420Rows rows{y, u, v, y_pitch, uv_pitch};
  area_walk<kWalk>(rows, table, entries, StoreYuv(), full_shape(src_height, dst_height),
                   Dest{dst, dst_pitch, dst_width, dst_height}, row_acc, carry_acc);
  return HSEG_OK;
}

template <Walk kWalk>
MRESULT dispatch(const OffscreenImage &a, const OffscreenImage &b, const WorkBlock &w,
                 int32_t entries) {
  switch (a.format) {
    case HSEG_PIXFMT_BGR24:
      return bgr_worker<kWalk>(a.planes[0], a.pitches[0], a.width, a.height, b.planes[0],
                               b.pitches[0], b.width, b.height, 3, 3, w.table, entries, w.row,
                               w.carry);
    case HSEG_PIXFMT_YUY2:
      return yuy2_worker<kWalk>(a.planes[0], a.pitches[0], a.width, a.height, b.planes[0],
                                b.pitches[0], b.width, b.height, 2, 3, w.table, entries, w.row,
                                w.carry);
    case HSEG_PIXFMT_NV21:
      return nv21_worker<kWalk>(a.planes[0], a.planes[1], a.pitches[0], a.pitches[1], a.width,
                                a.height, b.planes[0], b.pitches[0], b.width, b.height, 1, 3,
                                w.table, entries, w.row, w.carry);
    default:  // HSEG_PIXFMT_I420; the descriptor check lets no other code through
      return i420_worker<kWalk>(a.planes[0], a.planes[1], a.planes[2], a.pitches[0],
                                a.pitches[1], a.width, a.height, b.planes[0], b.pitches[0],
                                b.width, b.height, 1, 3, w.table, entries, w.row, w.carry);
  }
}

}  // namespace

MRESULT resize_to_bgr_plain(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return run_area_resize(mem, src, dst, false, dispatch<Walk::kPlain>);
}

}  // namespace area
}  // namespace hseg

using hseg::area::Walk;

extern "C" {

MRESULT LumResizeToBGR(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return hseg::area::run_area_resize(mem, src, dst, false, hseg::area::dispatch<Walk::kFused>);
}

MRESULT lumResize_Area_BGR(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                           int32_t src_height, uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                           int32_t dst_height, int32_t src_step, int32_t dst_step,
                           const LumResizeEntry *table, int32_t entries, uint64_t *row_acc,
                           uint64_t *carry_acc) {
  return hseg::area::bgr_worker<Walk::kFused>(src, src_pitch, src_width, src_height, dst,
                                              dst_pitch, dst_width, dst_height, src_step,
                                              dst_step, table, entries, row_acc, carry_acc);
}

MRESULT lumResize_Area_YUY2toBGR(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                                 int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                 int32_t dst_width, int32_t dst_height, int32_t src_step,
                                 int32_t dst_step, const LumResizeEntry *table, int32_t entries,
                                 uint64_t *row_acc, uint64_t *carry_acc) {
  return hseg::area::yuy2_worker<Walk::kFused>(src, src_pitch, src_width, src_height, dst,
                                               dst_pitch, dst_width, dst_height, src_step,
                                               dst_step, table, entries, row_acc, carry_acc);
}

MRESULT lumResize_Area_YUV420LPtoBGR(const uint8_t *y, const uint8_t *vu, int32_t y_pitch,
                                     int32_t vu_pitch, int32_t src_width, int32_t src_height,
                                     uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                     int32_t dst_height, int32_t src_step, int32_t dst_step,
                                     const LumResizeEntry *table, int32_t entries,
                                     uint64_t *row_acc, uint64_t *carry_acc) {
  return hseg::area::nv21_worker<Walk::kFused>(y, vu, y_pitch, vu_pitch, src_width, src_height,
                                               dst, dst_pitch, dst_width, dst_height, src_step,
                                               dst_step, table, entries, row_acc, carry_acc);
}

MRESULT lumResize_Area_YUV420PlanartoBGR(const uint8_t *y, const uint8_t *u, const uint8_t *v,
                                         int32_t y_pitch, int32_t uv_pitch, int32_t src_width,
                                         int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                         int32_t dst_width, int32_t dst_height, int32_t src_step,
                                         int32_t dst_step, const LumResizeEntry *table,
                                         int32_t entries, uint64_t *row_acc,
                                         uint64_t *carry_acc) {
  return hseg::area::i420_worker<Walk::kFused>(y, u, v, y_pitch, uv_pitch, src_width,
                                               src_height, dst, dst_pitch, dst_width,
                                               dst_height, src_step, dst_step, table, entries,
                                               row_acc, carry_acc);
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
  const Dest d{dst, dst_pitch, dst_width, dst_height};
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

}  // extern "C"
