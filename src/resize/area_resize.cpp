// Area shrink to BGR at full resolution: the entry point, its four workers
// (one per source layout) and the sampling NV21 variant.
#include <cstring>

#include "hseg/resize.h"
#include "resize/area_worker.h"
#include "resize/yuv.h"

namespace hseg {
namespace area {
namespace {

// Destination row height in 1024ths of a source row, rounded half up.
int64_t row_step(int32_t src_height, int32_t dst_height) {
  return (int64_t{src_height} * 2048 / dst_height + 1) >> 1;
}

// One visit per source row, and the last one closes the current row.
struct FullShape {
  static WalkShape shape(int32_t src_height, int32_t dst_height) {
    return WalkShape{src_height, row_step(src_height, dst_height), true};
  }
};

// One plane stepped a row a visit: the packed layouts, and the luma of the
// 4:2:0 ones.
struct PlaneRows : FullShape {
  const uint8_t *p;
  int32_t pitch;
  PlaneRows(const SourcePlanes &s, int32_t, int32_t) : p(s.plane[0]), pitch(s.pitch[0]) {}
  void next() { p += pitch; }
};

struct BgrRows : Reader<HSEG_PIXFMT_BGR24, 3>, PlaneRows {
  using PlaneRows::PlaneRows;
  static int64_t src_end(int32_t width) {
    return pixfmt::row_bytes(HSEG_PIXFMT_BGR24, 0, width) - 2;
  }
  auto sampler() const {
    return [row = p](int32_t o, uint32_t *s) { sample_bgr(row, o, s); };
  }
};

struct Yuy2Rows : Reader<HSEG_PIXFMT_YUY2, 2>, PlaneRows {
  using PlaneRows::PlaneRows;
  // A pixel's offset is its column * 2, so offsets below 2 * width stay in
  // the row's whole groups.
  static int64_t src_end(int32_t width) { return 2 * int64_t{width}; }
  auto sampler() const {
    return [row = p](int32_t o, uint32_t *s) {
      const uint8_t *g = row + (o & ~3);  // Y0 U Y1 V group of the pixel
      s[0] = g[o & 2];                    // Y0 for the even pixel, Y1 for the odd
      s[1] = g[1];
      s[2] = g[3];
    };
  }
};

// The luma of the 4:2:0 layouts, one row a visit; the chroma row is the
// source row / 2.
struct LumaRows : PlaneRows {
  static constexpr int32_t kStep = 1;
  static int64_t src_end(int32_t width) { return width; }
  int32_t row = 0;
  using PlaneRows::PlaneRows;
  auto luma_sampler() const {
    return [luma = p](int32_t o) { return uint32_t{luma[o]}; };
  }
  bool next_luma() {
    PlaneRows::next();
    return (row++ & 1) != 0;
  }
};

using Nv21Rows = Nv21Reader<LumaRows>;

struct FullGrid {
  static constexpr bool kHalf = false;
  using Bgr = BgrRows;
  using Yuy2 = Yuy2Rows;
  using Nv21 = Nv21Rows;
  using I420 = I420Reader<LumaRows>;
};

}  // namespace

MRESULT resize_to_bgr_ref(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return resize_on<Walk::kPlain, FullGrid>(mem, src, dst);
}

}  // namespace area
}  // namespace hseg

using hseg::area::area_worker;
using hseg::area::SourcePlanes;
using hseg::area::Walk;

extern "C" {

MRESULT LumResizeToBGR(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return hseg::area::resize_on<Walk::kFused, hseg::area::FullGrid>(mem, src, dst);
}

MRESULT lumResize_Area_BGR(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                           int32_t src_height, uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                           int32_t dst_height, int32_t src_step, int32_t dst_step,
                           const LumResizeEntry *table, int32_t entries, uint64_t *row_acc,
                           uint64_t *carry_acc) {
  return area_worker<Walk::kFused, hseg::area::BgrRows>(
      SourcePlanes{{src}, {src_pitch}},
      {src_width, src_height, dst, dst_pitch, dst_width, dst_height, src_step, dst_step, table,
       entries},
      row_acc, carry_acc);
}

MRESULT lumResize_Area_YUY2toBGR(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                                 int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                 int32_t dst_width, int32_t dst_height, int32_t src_step,
                                 int32_t dst_step, const LumResizeEntry *table, int32_t entries,
                                 uint64_t *row_acc, uint64_t *carry_acc) {
  return area_worker<Walk::kFused, hseg::area::Yuy2Rows>(
      SourcePlanes{{src}, {src_pitch}},
      {src_width, src_height, dst, dst_pitch, dst_width, dst_height, src_step, dst_step, table,
       entries},
      row_acc, carry_acc);
}

MRESULT lumResize_Area_YUV420LPtoBGR(const uint8_t *y, const uint8_t *vu, int32_t y_pitch,
                                     int32_t vu_pitch, int32_t src_width, int32_t src_height,
                                     uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                     int32_t dst_height, int32_t src_step, int32_t dst_step,
                                     const LumResizeEntry *table, int32_t entries,
                                     uint64_t *row_acc, uint64_t *carry_acc) {
  return area_worker<Walk::kFused, hseg::area::Nv21Rows>(
      SourcePlanes{{y, vu}, {y_pitch, vu_pitch}},
      {src_width, src_height, dst, dst_pitch, dst_width, dst_height, src_step, dst_step, table,
       entries},
      row_acc, carry_acc);
}

MRESULT lumResize_Area_YUV420PlanartoBGR(const uint8_t *y, const uint8_t *u, const uint8_t *v,
                                         int32_t y_pitch, int32_t uv_pitch, int32_t src_width,
                                         int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                         int32_t dst_width, int32_t dst_height, int32_t src_step,
                                         int32_t dst_step, const LumResizeEntry *table,
                                         int32_t entries, uint64_t *row_acc, uint64_t *carry_acc) {
  return area_worker<Walk::kFused, hseg::area::FullGrid::I420>(
      SourcePlanes{{y, u, v}, {y_pitch, uv_pitch}},
      {src_width, src_height, dst, dst_pitch, dst_width, dst_height, src_step, dst_step, table,
       entries},
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
  const MRESULT s = check_rows_call<Nv21Rows>(SourcePlanes{{y, vu}, {y_pitch, vu_pitch}},
                                              {src_width, src_height, dst, dst_pitch, dst_width,
                                               dst_height, src_step, dst_step, table, entries},
                                              count_acc, sum_acc);
  if (s != HSEG_OK) return s;
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
