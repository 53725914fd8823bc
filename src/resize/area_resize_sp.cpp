// Half-sampled area shrink to BGR: the source is taken one sample per 2x2
// block, and that half-resolution grid is area-averaged exactly like the
// full-resolution resize. Blocks that reach past an odd width or height are
// clamped to the image: the missing column or row repeats the last one.
#include "hseg/resize.h"
#include "resize/area_table.h"
#include "resize/area_walk.h"

namespace hseg {
namespace area {
namespace {

// One visit per row pair y, y + 1 (y even); the walk's grid is the half grid.
int32_t half_visits(int32_t src_height) { return (src_height + 1) / 2; }

// Destination row heights on the half grid. The BGR worker halves the
// rounded full-grid step; the YUV workers round the quarter directly. The two
// can differ by one unit; both are kept.
int64_t bgr_half_step(int32_t src_height, int32_t dst_height) {
  return ((int64_t{src_height} * 2048 / dst_height + 1) >> 1) / 2;
}
int64_t yuv_half_step(int32_t src_height, int32_t dst_height) {
  return (int64_t{src_height} * 2048 / dst_height + 3) >> 2;
}

// The forced closes of the last visit (y = the last even row): the BGR worker
// closes at y == height - 1, which it visits only for an odd height; the YUY2
// worker at height - 1 or - 2, so always; the 4:2:0 workers at height - 2,
// visited only for an even height.
WalkShape bgr_shape(int32_t h, int32_t dh) {
  return {half_visits(h), bgr_half_step(h, dh), h % 2 == 1};
}
WalkShape yuy2_shape(int32_t h, int32_t dh) {
  return {half_visits(h), yuv_half_step(h, dh), true};
}
WalkShape yuv420_shape(int32_t h, int32_t dh) {
  return {half_visits(h), yuv_half_step(h, dh), h % 2 == 0};
}

// The row below `row`, or `row` itself on the last row of an odd height.
const uint8_t *row_below(const uint8_t *row, int32_t y, int32_t height, int32_t pitch) {
  return y + 1 < height ? row + pitch : row;
}

// The top-left pixel of each block; the odd rows are not read.
struct BgrBlocks {
  const uint8_t *p;
  int32_t pitch;
  auto sampler() const {
    return [row = p](int32_t o, uint32_t *s) {
      s[0] = row[o];
      s[1] = row[o + 1];
      s[2] = row[o + 2];
    };
  }
  void next() { p += 2 * int64_t{pitch}; }
};

// Byte-wise mean of two packed words, each byte rounded down: the common bits
// plus half the differing ones, with the low bit of every byte cleared first
// so that nothing shifts into the byte below.
inline uint32_t average_bytes_down(uint32_t a, uint32_t b) {
  return (a & b) + (((a ^ b) & 0xFEFEFEFEu) >> 1);
}

inline uint32_t load_group(const uint8_t *g) {
  return uint32_t{g[0]} | uint32_t{g[1]} << 8 | uint32_t{g[2]} << 16 | uint32_t{g[3]} << 24;
}

// The Y0 U Y1 V group of the top row averaged with the one below it; Y is
// the rounded mean of the two averaged lumas (Y0 twice when the group's
// second pixel lies past an odd width).
struct Yuy2Blocks {
  const uint8_t *p;
  int32_t pitch;
  int32_t width;
  int32_t height;
  int32_t y = 0;
  auto sampler() const {
    return [top = p, bottom = row_below(p, y, height, pitch), w = width](int32_t o, uint32_t *s) {
      const uint32_t m = average_bytes_down(load_group(top + o), load_group(bottom + o));
      const uint32_t y0 = m & 0xFF;
      const uint32_t y1 = (o >> 1) + 1 < w ? (m >> 16) & 0xFF : y0;
      s[0] = (y0 + y1 + 1) >> 1;
      s[1] = (m >> 8) & 0xFF;
      s[2] = m >> 24;
    };
  }
  void next() {
    p += 2 * int64_t{pitch};
    y += 2;
  }
};

// Sum of the block's four lumas, rounded down; the right column repeats the
// left one past an odd width.
inline uint32_t luma_block(const uint8_t *top, const uint8_t *bottom, int32_t o, int32_t width) {
  const int32_t o1 = o + 1 < width ? o + 1 : o;
  return (uint32_t{top[o]} + top[o1] + bottom[o] + bottom[o1]) >> 2;
}

struct Nv21Blocks {
  const uint8_t *y;
  const uint8_t *vu;
  int32_t y_pitch;
  int32_t vu_pitch;
  int32_t width;
  int32_t height;
  int32_t row = 0;
  auto sampler() const {
    return [top = y, bottom = row_below(y, row, height, y_pitch), cr = vu, w = width](
               int32_t o, uint32_t *s) {
      const uint8_t *pair = cr + ((o | 1) - 1);
      s[0] = luma_block(top, bottom, o, w);
      s[1] = pair[1];  // U
      s[2] = pair[0];  // V
    };
  }
  void next() {
    y += 2 * int64_t{y_pitch};
    vu += vu_pitch;
    row += 2;
  }
};

struct I420Blocks {
  const uint8_t *y;
  const uint8_t *u;
  const uint8_t *v;
  int32_t y_pitch;
  int32_t uv_pitch;
  int32_t width;
  int32_t height;
  int32_t row = 0;
  auto sampler() const {
    return [top = y, bottom = row_below(y, row, height, y_pitch), ur = u, vr = v, w = width](
               int32_t o, uint32_t *s) {
      s[0] = luma_block(top, bottom, o, w);
      s[1] = ur[o >> 1];
      s[2] = vr[o >> 1];
    };
  }
  void next() {
    y += 2 * int64_t{y_pitch};
    u += uv_pitch;
    v += uv_pitch;
    row += 2;
  }
};

template <Walk kWalk>
MRESULT bgr_worker(const uint8_t *src, int32_t src_pitch, int32_t src_width, int32_t src_height,
                   uint8_t *dst, int32_t dst_pitch, int32_t dst_width, int32_t dst_height,
                   int32_t src_step, int32_t dst_step, const LumResizeEntry *table,
                   int32_t entries, uint64_t *row_acc, uint64_t *carry_acc) {
  if (src_height < 1) return HSEG_OK;
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 6, dst_step,
                           table, entries, row_acc, carry_acc, bgr_row_bytes(src_width) - 2);
  if (s != HSEG_OK) return s;
  if (!plane_ok(src, src_pitch, bgr_row_bytes(src_width))) return HSEG_ERR_BAD_ARGUMENT;
  BgrBlocks rows{src, src_pitch};
  area_walk<kWalk>(rows, table, entries, StoreBgr(), bgr_shape(src_height, dst_height),
                   Dest{dst, dst_pitch, dst_width, dst_height}, row_acc, carry_acc);
  return HSEG_OK;
}

template <Walk kWalk>
MRESULT yuy2_worker(const uint8_t *src, int32_t src_pitch, int32_t src_width, int32_t src_height,
                    uint8_t *dst, int32_t dst_pitch, int32_t dst_width, int32_t dst_height,
                    int32_t src_step, int32_t dst_step, const LumResizeEntry *table,
                    int32_t entries, uint32_t *row_acc, uint32_t *carry_acc) {
  if (src_height < 1) return HSEG_OK;
  // A block reads a whole 4-byte group at its offset.
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 4, dst_step,
                           table, entries, row_acc, carry_acc, yuy2_row_bytes(src_width) - 3);
  if (s != HSEG_OK) return s;
  if (!plane_ok(src, src_pitch, yuy2_row_bytes(src_width))) return HSEG_ERR_BAD_ARGUMENT;
  Yuy2Blocks rows{src, src_pitch, src_width, src_height};
  area_walk<kWalk>(rows, table, entries, StoreYuv(), yuy2_shape(src_height, dst_height),
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
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 2, dst_step,
                           table, entries, row_acc, carry_acc, src_width);
  if (s != HSEG_OK) return s;
  if (!plane_ok(y, y_pitch, luma_row_bytes(src_width)) ||
      !plane_ok(vu, vu_pitch, nv21_chroma_row_bytes(src_width))) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  Nv21Blocks rows{y, vu, y_pitch, vu_pitch, src_width, src_height};
  area_walk<kWalk>(rows, table, entries, StoreYuv(), yuv420_shape(src_height, dst_height),
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
  MRESULT s = check_worker(src_width, dst_width, dst_height, dst, dst_pitch, src_step, 2, dst_step,
                           table, entries, row_acc, carry_acc, src_width);
  if (s != HSEG_OK) return s;
  if (!plane_ok(y, y_pitch, luma_row_bytes(src_width)) ||
      !plane_ok(u, uv_pitch, i420_chroma_row_bytes(src_width)) || v == nullptr) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  I420Blocks rows{y, u, v, y_pitch, uv_pitch, src_width, src_height};
  area_walk<kWalk>(rows, table, entries, StoreYuv(), yuv420_shape(src_height, dst_height),
                   Dest{dst, dst_pitch, dst_width, dst_height}, row_acc, carry_acc);
  return HSEG_OK;
}

template <Walk kWalk>
MRESULT dispatch(const OffscreenImage &a, const OffscreenImage &b, const WorkBlock &w,
                 int32_t entries) {
  switch (a.format) {
    case HSEG_PIXFMT_BGR24:
      return bgr_worker<kWalk>(a.planes[0], a.pitches[0], a.width, a.height, b.planes[0],
                               b.pitches[0], b.width, b.height, 6, 3, w.table, entries, w.row,
                               w.carry);
    case HSEG_PIXFMT_YUY2:
      // 32-bit sums, laid over the space of the 64-bit accumulators.
      return yuy2_worker<kWalk>(a.planes[0], a.pitches[0], a.width, a.height, b.planes[0],
                                b.pitches[0], b.width, b.height, 4, 3, w.table, entries,
                                reinterpret_cast<uint32_t *>(w.row),
                                reinterpret_cast<uint32_t *>(w.carry));
    case HSEG_PIXFMT_NV21:
      return nv21_worker<kWalk>(a.planes[0], a.planes[1], a.pitches[0], a.pitches[1], a.width,
                                a.height, b.planes[0], b.pitches[0], b.width, b.height, 2, 3,
                                w.table, entries, w.row, w.carry);
    default:  // HSEG_PIXFMT_I420; the descriptor check lets no other code through
      return i420_worker<kWalk>(a.planes[0], a.planes[1], a.planes[2], a.pitches[0],
                                a.pitches[1], a.width, a.height, b.planes[0], b.pitches[0],
                                b.width, b.height, 2, 3, w.table, entries, w.row, w.carry);
  }
}

}  // namespace

MRESULT resize_to_bgr_sp_plain(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return run_area_resize(mem, src, dst, true, dispatch<Walk::kPlain>);
}

}  // namespace area
}  // namespace hseg

using hseg::area::Walk;

extern "C" {

MRESULT LumResizeToBGR_SP(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return hseg::area::run_area_resize(mem, src, dst, true, hseg::area::dispatch<Walk::kFused>);
}

MRESULT lumResize_Area_BGR_SP(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                              int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                              int32_t dst_width, int32_t dst_height, int32_t src_step,
                              int32_t dst_step, const LumResizeEntry *table, int32_t entries,
                              uint64_t *row_acc, uint64_t *carry_acc) {
  return hseg::area::bgr_worker<Walk::kFused>(src, src_pitch, src_width, src_height, dst,
                                              dst_pitch, dst_width, dst_height, src_step,
                                              dst_step, table, entries, row_acc, carry_acc);
}

MRESULT lumResize_Area_YUY2toBGR_SP(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                                    int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                    int32_t dst_width, int32_t dst_height, int32_t src_step,
                                    int32_t dst_step, const LumResizeEntry *table,
                                    int32_t entries, uint32_t *row_acc, uint32_t *carry_acc) {
  return hseg::area::yuy2_worker<Walk::kFused>(src, src_pitch, src_width, src_height, dst,
                                               dst_pitch, dst_width, dst_height, src_step,
                                               dst_step, table, entries, row_acc, carry_acc);
}

MRESULT lumResize_Area_YUV420LPtoBGR_SP(const uint8_t *y, const uint8_t *vu, int32_t y_pitch,
                                        int32_t vu_pitch, int32_t src_width, int32_t src_height,
                                        uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                        int32_t dst_height, int32_t src_step, int32_t dst_step,
                                        const LumResizeEntry *table, int32_t entries,
                                        uint64_t *row_acc, uint64_t *carry_acc) {
  return hseg::area::nv21_worker<Walk::kFused>(y, vu, y_pitch, vu_pitch, src_width, src_height,
                                               dst, dst_pitch, dst_width, dst_height, src_step,
                                               dst_step, table, entries, row_acc, carry_acc);
}

MRESULT lumResize_Area_YUV420PlanartoBGR_SP(const uint8_t *y, const uint8_t *u, const uint8_t *v,
                                            int32_t y_pitch, int32_t uv_pitch, int32_t src_width,
                                            int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                            int32_t dst_width, int32_t dst_height,
                                            int32_t src_step, int32_t dst_step,
                                            const LumResizeEntry *table, int32_t entries,
                                            uint64_t *row_acc, uint64_t *carry_acc) {
  return hseg::area::i420_worker<Walk::kFused>(y, u, v, y_pitch, uv_pitch, src_width,
                                               src_height, dst, dst_pitch, dst_width,
                                               dst_height, src_step, dst_step, table, entries,
                                               row_acc, carry_acc);
}

}  // extern "C"
