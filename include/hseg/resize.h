/*
 * Resizing and colour conversion: area resize to BGR (full and half-sampled), nearest-neighbour, bilinear and bicubic resizers.
 */
#ifndef HSEG_RESIZE_H_
#define HSEG_RESIZE_H_

#include <stdint.h>

#include "hseg/pipeline.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- area resize to BGR (full and half-sampled) ---- */

/* Area shrink to packed BGR in one pass, in integer fixed point.
 *
 * Every destination pixel is the mean of the source rectangle it covers,
 * with fractional weights for the source pixels cut by its edges. The three
 * YUV layouts are averaged in Y, U, V and converted to BGR after averaging
 * (full range, Y taken as it is). Accepted source formats and the planes and
 * pitches read:
 *
 *   HSEG_PIXFMT_BGR24  plane 0 / pitch 0, at least 3 * width bytes a row
 *   HSEG_PIXFMT_YUY2   plane 0 / pitch 0, Y0 U Y1 V, at least
 *                      4 * ((width + 1) / 2) bytes a row
 *   HSEG_PIXFMT_NV21   plane 0 = Y (pitch 0, >= width), plane 1 = V,U pairs
 *                      (pitch 1, >= 2 * ((width + 1) / 2)), (height + 1) / 2
 *                      chroma rows
 *   HSEG_PIXFMT_I420   plane 0 = Y (pitch 0, >= width), plane 1 = U,
 *                      plane 2 = V; both chroma planes are stepped with
 *                      pitch 1 (>= (width + 1) / 2), pitch 2 is not read, so
 *                      give both chroma planes the same pitch
 *
 * The destination is always written as packed BGR (3 bytes a pixel, blue,
 * green, red) to plane 0 with pitch 0; its format code is not read.
 *
 * Column table: the horizontal geometry, built once per call. Entry i adds
 * (sample at src_offset of a source row) * weight to the accumulator triple
 * at dst_offset (destination column * 3). Weights are unsigned fixed point
 * with 14 fraction bits (16384 == 1.0), already divided by the area of the
 * destination pixel's footprint. Entries are in increasing order of
 * destination column, and within a column in increasing source column. */
typedef struct LumResizeEntry {
  int32_t src_offset; /* source column * channel step (bytes into a row) */
  int32_t dst_offset; /* destination column * 3 */
  uint32_t weight;    /* 14 fraction bits */
} LumResizeEntry;

/* Shrinks `src` into the BGR image `dst`.
 *
 * Returns, checking in this order:
 *   HSEG_ERR_BAD_ARGUMENT  src or dst is NULL;
 *   HSEG_ERR_FORMAT        the source format is none of the four above;
 *   HSEG_ERR_BAD_ARGUMENT  a width or height (source or destination) is
 *                          below 1, a plane that the format reads is NULL, or
 *                          a pitch is smaller than a row of its plane;
 *   HSEG_OK                the destination is wider or taller than the
 *                          source: nothing is allocated or written (the
 *                          function only shrinks);
 *   HSEG_ERR_BAD_ARGUMENT  the work block, (3 * dst width + 4) * 16 +
 *                          24 * src width bytes, does not fit in int32;
 *   HSEG_ERR_NO_MEMORY     MMemAlloc(mem, ...) failed;
 *   HSEG_ERR_TABLE         the column table would overrun or a footprint
 *                          would leave the source (only for sources wider
 *                          than about 16000 pixels, where single-precision
 *                          positions drift, e.g. 16021 to 16020 columns);
 *   HSEG_OK                success.
 * On every status but the last HSEG_OK the destination is left untouched.
 *
 * Output: every value is saturated to 0..255 (at very large shrink ratios
 * the rounded weights can add up to more than 1). The row step is rounded to
 * 1/1024 of a source row; where that rounding leaves the last destination
 * rows unwritten, they are copies of the last row written, and nothing is
 * ever written below the last destination row.
 *
 * One work block is taken from MMemAlloc(mem, ...) and returned before the
 * call returns; no pointer is kept. Reentrant. */
HSEG_API MRESULT LumResizeToBGR(MHandle mem, const OffscreenImage *src,
                                const OffscreenImage *dst);

/* The workers behind LumResizeToBGR, one per source format; exported for
 * callers that keep their own column table. Common arguments:
 *   src_width, src_height    source size; dst_width, dst_height the
 *                            destination's (all >= 1, except that a source
 *                            height below 1 returns HSEG_OK at once);
 *   dst, dst_pitch           packed BGR output, dst_pitch >= 3 * dst_width;
 *   src_step                 the table's source channel step: 3 for BGR, 2
 *                            for YUY2, 1 for the 4:2:0 layouts;
 *   dst_step                 3;
 *   table, entries           the column table (entries >= 0); every entry
 *                            must address a sample inside a source row and a
 *                            triple inside the destination row;
 *   row_acc, carry_acc       work arrays of at least 3 * dst_width values
 *                            each; their contents on entry do not matter.
 * The vertical step is ((src_height * 2048) / dst_height + 1) >> 1, in 1024ths
 * of a source row. Returns HSEG_OK, or HSEG_ERR_BAD_ARGUMENT (nothing
 * written) for a NULL pointer, a size below 1, a pitch smaller than a row, a
 * step other than the one named, or an entry outside those bounds. */
HSEG_API MRESULT lumResize_Area_BGR(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                                    int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                    int32_t dst_width, int32_t dst_height, int32_t src_step,
                                    int32_t dst_step, const LumResizeEntry *table,
                                    int32_t entries, uint64_t *row_acc, uint64_t *carry_acc);

/* Packed YUY2 source (src_step 2): a pixel at offset o reads Y from byte 0
 * (bit 1 of o clear) or byte 2 (set) of the 4-byte group at o & ~3, and U, V
 * from bytes 1 and 3 of that group. */
HSEG_API MRESULT lumResize_Area_YUY2toBGR(const uint8_t *src, int32_t src_pitch,
                                          int32_t src_width, int32_t src_height, uint8_t *dst,
                                          int32_t dst_pitch, int32_t dst_width,
                                          int32_t dst_height, int32_t src_step,
                                          int32_t dst_step, const LumResizeEntry *table,
                                          int32_t entries, uint64_t *row_acc,
                                          uint64_t *carry_acc);

/* Semi-planar NV21 source (src_step 1): Y from `y`, the V,U pair that covers
 * a pixel from chroma row y / 2 of `vu`. */
HSEG_API MRESULT lumResize_Area_YUV420LPtoBGR(const uint8_t *y, const uint8_t *vu,
                                              int32_t y_pitch, int32_t vu_pitch,
                                              int32_t src_width, int32_t src_height,
                                              uint8_t *dst, int32_t dst_pitch,
                                              int32_t dst_width, int32_t dst_height,
                                              int32_t src_step, int32_t dst_step,
                                              const LumResizeEntry *table, int32_t entries,
                                              uint64_t *row_acc, uint64_t *carry_acc);

/* Planar I420 source (src_step 1): U and V from planes `u` and `v`, both
 * stepped with `uv_pitch`. */
HSEG_API MRESULT lumResize_Area_YUV420PlanartoBGR(
    const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t y_pitch, int32_t uv_pitch,
    int32_t src_width, int32_t src_height, uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
    int32_t dst_height, int32_t src_step, int32_t dst_step, const LumResizeEntry *table,
    int32_t entries, uint64_t *row_acc, uint64_t *carry_acc);

/* A coarser NV21 shrink that samples instead of averaging (not used by
 * LumResizeToBGR): it visits every second source row and every second table
 * entry, adds the samples unweighted and writes each value as the rounded
 * mean (sum + count / 2) / count. `count_acc` holds a sample count at each
 * triple's first element, `sum_acc` the three sums; both need 3 * dst_width
 * values. A destination row is written out at the start of the visit that
 * passes its end, so the rows of the last visit are not written: the last
 * destination rows are copies of the last row written. A destination pixel
 * that received no sample (possible when the shrink is below 2 in either
 * direction) is written black. Arguments and statuses as for
 * lumResize_Area_YUV420LPtoBGR. */
HSEG_API MRESULT lumResize_Area_YUV420LPtoBGR_Fast(
    const uint8_t *y, const uint8_t *vu, int32_t y_pitch, int32_t vu_pitch, int32_t src_width,
    int32_t src_height, uint8_t *dst, int32_t dst_pitch, int32_t dst_width, int32_t dst_height,
    int32_t src_step, int32_t dst_step, const LumResizeEntry *table, int32_t entries,
    uint32_t *count_acc, uint32_t *sum_acc);

/* Half-sampled area shrink: LumResizeToBGR with a quarter of the weighted
 * accumulations. The source is first taken at half resolution, one sample
 * per 2x2 block, and that grid of (width + 1) / 2 by (height + 1) / 2
 * samples is area-averaged to the destination. The sample of a block:
 *   BGR24  its top-left pixel;
 *   YUY2   the block's two 4-byte groups averaged byte by byte (rounded
 *          down), Y = (Y0 + Y1 + 1) >> 1 of that, U and V from it;
 *   NV21, I420  Y = (sum of the 4 luma samples) >> 2, the one chroma pair.
 * For odd widths or heights the last blocks reach past the image; they are
 * clamped to it (the missing column or row repeats the last one), so nothing
 * outside the caller's planes is read.
 *
 * Arguments, checks, statuses, work block, saturation and last-row handling
 * are those of LumResizeToBGR; the size check still compares against the
 * full source size, so a destination larger than half the source is
 * accepted (it is then enlarged on the half grid). */
HSEG_API MRESULT LumResizeToBGR_SP(MHandle mem, const OffscreenImage *src,
                                   const OffscreenImage *dst);

/* The workers behind LumResizeToBGR_SP, with the argument lists of the
 * full-resolution workers of the same format. Their tables address the left
 * column of a block: src_step is 6 for BGR, 4 for YUY2 and 2 for the 4:2:0
 * layouts. Rows are visited two at a time. The row step on the half grid is
 * (((src_height * 2048) / dst_height + 1) >> 1) / 2 for BGR and
 * ((src_height * 2048) / dst_height + 3) >> 2 for the YUV layouts (two
 * roundings of the same quantity, kept as they are). The YUY2 worker keeps
 * 32-bit accumulators. */
HSEG_API MRESULT lumResize_Area_BGR_SP(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                                       int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                       int32_t dst_width, int32_t dst_height, int32_t src_step,
                                       int32_t dst_step, const LumResizeEntry *table,
                                       int32_t entries, uint64_t *row_acc,
                                       uint64_t *carry_acc);
HSEG_API MRESULT lumResize_Area_YUY2toBGR_SP(const uint8_t *src, int32_t src_pitch,
                                             int32_t src_width, int32_t src_height,
                                             uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                             int32_t dst_height, int32_t src_step,
                                             int32_t dst_step, const LumResizeEntry *table,
                                             int32_t entries, uint32_t *row_acc,
                                             uint32_t *carry_acc);
HSEG_API MRESULT lumResize_Area_YUV420LPtoBGR_SP(const uint8_t *y, const uint8_t *vu,
                                                 int32_t y_pitch, int32_t vu_pitch,
                                                 int32_t src_width, int32_t src_height,
                                                 uint8_t *dst, int32_t dst_pitch,
                                                 int32_t dst_width, int32_t dst_height,
                                                 int32_t src_step, int32_t dst_step,
                                                 const LumResizeEntry *table, int32_t entries,
                                                 uint64_t *row_acc, uint64_t *carry_acc);
HSEG_API MRESULT lumResize_Area_YUV420PlanartoBGR_SP(
    const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t y_pitch, int32_t uv_pitch,
    int32_t src_width, int32_t src_height, uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
    int32_t dst_height, int32_t src_step, int32_t dst_step, const LumResizeEntry *table,
    int32_t entries, uint64_t *row_acc, uint64_t *carry_acc);

/* ---- end of area resize ---- */

/* ---- nearest, bilinear and bicubic resizers ---- */

/* ---- end of nearest, bilinear and bicubic resizers ---- */

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_RESIZE_H_ */
