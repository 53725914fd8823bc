// Pieces shared by the full and the half-sampled area resize: the column
// table, the checks of caller arguments and the work-block layout.
#ifndef HSEG_SRC_RESIZE_AREA_TABLE_H_
#define HSEG_SRC_RESIZE_AREA_TABLE_H_

#include <cstdint>

#include "common/pixfmt.h"
#include "hseg/resize.h"

namespace hseg {
namespace area {

// Horizontal geometry of one call. A footprint that starts at or past
// `limit` (the source width), or ends in a partial column there, is refused;
// independently, no entry may address a column at or past `columns` (the
// source width, or the half grid's (width + 1) / 2 for the half-sampled
// resize), so nothing outside a row is ever read. `step` turns a column
// into a byte offset; `capacity` is the number of entries the work block
// holds (twice the source width).
struct TableGeometry {
  float scale_x;   // source columns per destination column
  float inv_area;  // 1 / (scale_x * scale_y): weight of a whole source pixel
  int32_t limit;
  int32_t columns;
  int32_t step;
  int32_t capacity;
};

// Fills `table` for `dst_width` destination columns and stores the number
// of entries. Returns HSEG_OK, or HSEG_ERR_TABLE when the table would
// overrun or a footprint leaves the source as described above.
MRESULT build_column_table(const TableGeometry &g, int32_t dst_width, LumResizeEntry *table,
                           int32_t *entries);

// The resize's work block: two accumulators of 3 * dst_width + 4 64-bit
// values, then 2 * src_width table entries of 12 bytes. Returns false when
// its size, (3 * dst_width + 4) * 16 + 24 * src_width, does not fit in int32.
bool work_block_bytes(int32_t src_width, int32_t dst_width, int32_t *bytes);

struct WorkBlock {
  uint64_t *row;   // 3 * dst_width + 4 values
  uint64_t *carry; // 3 * dst_width + 4 values
  LumResizeEntry *table;  // 2 * src_width entries
};
WorkBlock split_work_block(void *block, int32_t dst_width);

// Checks the two descriptors of an entry point. Returns HSEG_ERR_BAD_ARGUMENT
// for a null descriptor, HSEG_ERR_FORMAT for a source format that the area
// resize does not read, HSEG_ERR_BAD_ARGUMENT for a size below 1, a null
// plane of the format or a pitch smaller than a row of the plane it steps
// (source_planes_ok); HSEG_OK else.
MRESULT check_descriptors(const OffscreenImage *src, const OffscreenImage *dst);

// The source planes as the workers read them: plane 0 with pitch 0, plane 1
// with pitch 1, and I420's V (plane 2) stepped with pitch 1 as well.
// Fixed interface behaviour: the I420 workers take one chroma pitch, so V is
// always stepped with U's pitch; callers give both chroma planes the same
// pitch.
struct SourcePlanes {
  const uint8_t *plane[3];
  int32_t pitch[2];
};

inline SourcePlanes planes_of(const OffscreenImage &img) {
  return SourcePlanes{{img.planes[0], img.planes[1], img.planes[2]},
                      {img.pitches[0], img.pitches[1]}};
}

// True when every plane of `format` is non-null and the pitch it is stepped
// with holds a row of `width` pixels; false also for a format the area
// resize does not read.
bool source_planes_ok(uint32_t format, const SourcePlanes &src, int64_t width);

// What every worker gets from its caller apart from the source planes and
// the accumulators.
struct WorkerCall {
  int32_t src_width;
  int32_t src_height;
  uint8_t *dst;
  int32_t dst_pitch;
  int32_t dst_width;
  int32_t dst_height;
  int32_t src_step;
  int32_t dst_step;
  const LumResizeEntry *table;
  int32_t entries;
};

// Checks a worker call apart from the source planes: sizes, destination,
// steps, accumulators and that every table entry reads at a source offset
// below `src_end` and writes a triple inside the destination row. Returns
// HSEG_OK or HSEG_ERR_BAD_ARGUMENT.
MRESULT check_worker(const WorkerCall &c, int32_t expected_src_step, const void *acc0,
                     const void *acc1, int64_t src_end);

// The worker call of an entry point: the fixed-point walk once the table is
// built, or the double-precision mean (which ignores `entries`).
using Dispatch = MRESULT (*)(const OffscreenImage &src, const OffscreenImage &dst,
                             const WorkBlock &work, int32_t entries);

// Whether the fixed-point walk serves this geometry: a destination pixel
// spans at most 32 source pixels in each direction (up to there the rounded
// 14-bit weight of a source pixel, 16384 / footprint area, is at least 16)
// and, on the half grid, at least 2 (one grid sample).
bool fixed_point_serves(const OffscreenImage &src, const OffscreenImage &dst, bool half);

// Runs an entry point: checks the descriptors, returns HSEG_OK at once when
// the destination is larger than the source, takes the work block from
// MMemAlloc(mem, ...), and then either builds the column table (on the half
// grid when `half`) and calls `fixed_point`, or calls `exact`; then returns
// the block.
MRESULT run_area_resize(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst,
                        bool half, Dispatch fixed_point, Dispatch exact);

// LumResizeToBGR and LumResizeToBGR_SP with every worker on the reference walk:
// the reference for the fused one.
MRESULT resize_to_bgr_ref(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst);
MRESULT resize_to_bgr_sp_ref(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst);

// A plane is usable when it is non-null and its pitch holds a row.
inline bool plane_ok(const uint8_t *plane, int32_t pitch, int64_t row_bytes) {
  return plane != nullptr && pitch >= row_bytes;
}

}  // namespace area
}  // namespace hseg

#endif  // HSEG_SRC_RESIZE_AREA_TABLE_H_
