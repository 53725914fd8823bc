// Half-sampled area shrink to BGR: the source is taken one sample per 2x2
// block, and that half-resolution grid is area-averaged exactly like the
// full-resolution resize. Blocks that reach past an odd width or height are
// clamped to the image: the missing column or row repeats the last one.
#include "hseg/resize.h"
#include "resize/area_worker.h"

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

// One plane stepped a row pair a visit; the bottom row of the last pair of
// an odd height is the top row again.
struct PlanePairs {
  const uint8_t *p;
  int32_t pitch;
  int32_t width;
  int32_t height;
  int32_t y = 0;
  PlanePairs(const SourcePlanes &s, int32_t w, int32_t h)
      : p(s.plane[0]), pitch(s.pitch[0]), width(w), height(h) {}
  const uint8_t *below() const { return y + 1 < height ? p + pitch : p; }
  void next() {
    p += 2 * int64_t{pitch};
    y += 2;
  }
};

// The top-left pixel of each block; the odd rows are not read.
struct BgrBlocks : Reader<HSEG_PIXFMT_BGR24, 6>, PlanePairs {
  using PlanePairs::PlanePairs;
  static int64_t src_end(int32_t width) {
    return pixfmt::row_bytes(HSEG_PIXFMT_BGR24, 0, width) - 2;
  }
  static WalkShape shape(int32_t h, int32_t dh) {
    return {half_visits(h), bgr_half_step(h, dh), h % 2 == 1};
  }
  auto sampler() const {
    return [row = p](int32_t o, uint32_t *s) { sample_bgr(row, o, s); };
  }
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
// second pixel lies past an odd width). The sums fit in 32 bits.
struct Yuy2Blocks : Reader<HSEG_PIXFMT_YUY2, 4, uint32_t>, PlanePairs {
  using PlanePairs::PlanePairs;
  // A block reads a whole 4-byte group at its offset.
  static int64_t src_end(int32_t width) {
    return pixfmt::row_bytes(HSEG_PIXFMT_YUY2, 0, width) - 3;
  }
  static WalkShape shape(int32_t h, int32_t dh) {
    return {half_visits(h), yuv_half_step(h, dh), true};
  }
  auto sampler() const {
    return [top = p, bottom = below(), w = width](int32_t o, uint32_t *s) {
      const uint32_t m = average_bytes_down(load_group(top + o), load_group(bottom + o));
      const uint32_t y0 = m & 0xFF;
      const uint32_t y1 = (o >> 1) + 1 < w ? (m >> 16) & 0xFF : y0;
      s[0] = (y0 + y1 + 1) >> 1;
      s[1] = (m >> 8) & 0xFF;
      s[2] = m >> 24;
    };
  }
};

// The luma of the 4:2:0 layouts, one row pair a visit, and a chroma row
// each. Y is the mean of the block's four lumas, rounded down; the right
// column repeats the left one past an odd width.
struct LumaPairs : PlanePairs {
  static constexpr int32_t kStep = 2;
  static int64_t src_end(int32_t width) { return width; }
  static WalkShape shape(int32_t h, int32_t dh) {
    return {half_visits(h), yuv_half_step(h, dh), h % 2 == 0};
  }
  using PlanePairs::PlanePairs;
  auto luma_sampler() const {
    return [top = p, bottom = below(), w = width](int32_t o) {
      const int32_t o1 = o + 1 < w ? o + 1 : o;
      return (uint32_t{top[o]} + top[o1] + bottom[o] + bottom[o1]) >> 2;
    };
  }
  bool next_luma() {
    PlanePairs::next();
    return true;
  }
};

struct HalfGrid {
  static constexpr bool kHalf = true;
  using Bgr = BgrBlocks;
  using Yuy2 = Yuy2Blocks;
  using Nv21 = Nv21Reader<LumaPairs>;
  using I420 = I420Reader<LumaPairs>;
};

}  // namespace

MRESULT resize_to_bgr_sp_ref(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return resize_on<Walk::kPlain, HalfGrid>(mem, src, dst);
}

}  // namespace area
}  // namespace hseg

using hseg::area::area_worker;
using hseg::area::SourcePlanes;
using hseg::area::Walk;

extern "C" {

MRESULT LumResizeToBGR_SP(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst) {
  return hseg::area::resize_on<Walk::kFused, hseg::area::HalfGrid>(mem, src, dst);
}

MRESULT lumResize_Area_BGR_SP(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                              int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                              int32_t dst_width, int32_t dst_height, int32_t src_step,
                              int32_t dst_step, const LumResizeEntry *table, int32_t entries,
                              uint64_t *row_acc, uint64_t *carry_acc) {
  return area_worker<Walk::kFused, hseg::area::BgrBlocks>(
      SourcePlanes{{src}, {src_pitch}},
      {src_width, src_height, dst, dst_pitch, dst_width, dst_height, src_step, dst_step, table,
       entries},
      row_acc, carry_acc);
}

MRESULT lumResize_Area_YUY2toBGR_SP(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                                    int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                    int32_t dst_width, int32_t dst_height, int32_t src_step,
                                    int32_t dst_step, const LumResizeEntry *table, int32_t entries,
                                    uint32_t *row_acc, uint32_t *carry_acc) {
  return area_worker<Walk::kFused, hseg::area::Yuy2Blocks>(
      SourcePlanes{{src}, {src_pitch}},
      {src_width, src_height, dst, dst_pitch, dst_width, dst_height, src_step, dst_step, table,
       entries},
      row_acc, carry_acc);
}

MRESULT lumResize_Area_YUV420LPtoBGR_SP(const uint8_t *y, const uint8_t *vu, int32_t y_pitch,
                                        int32_t vu_pitch, int32_t src_width, int32_t src_height,
                                        uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                        int32_t dst_height, int32_t src_step, int32_t dst_step,
                                        const LumResizeEntry *table, int32_t entries,
                                        uint64_t *row_acc, uint64_t *carry_acc) {
  return area_worker<Walk::kFused, hseg::area::HalfGrid::Nv21>(
      SourcePlanes{{y, vu}, {y_pitch, vu_pitch}},
      {src_width, src_height, dst, dst_pitch, dst_width, dst_height, src_step, dst_step, table,
       entries},
      row_acc, carry_acc);
}

MRESULT lumResize_Area_YUV420PlanartoBGR_SP(const uint8_t *y, const uint8_t *u, const uint8_t *v,
                                            int32_t y_pitch, int32_t uv_pitch, int32_t src_width,
                                            int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                            int32_t dst_width, int32_t dst_height, int32_t src_step,
                                            int32_t dst_step, const LumResizeEntry *table,
                                            int32_t entries, uint64_t *row_acc,
                                            uint64_t *carry_acc) {
  return area_worker<Walk::kFused, hseg::area::HalfGrid::I420>(
      SourcePlanes{{y, u, v}, {y_pitch, uv_pitch}},
      {src_width, src_height, dst, dst_pitch, dst_width, dst_height, src_step, dst_step, table,
       entries},
      row_acc, carry_acc);
}

}  // extern "C"
