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

/* Area shrink to packed BGR in one pass.
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
 *                      plane 2 = V; pitch 1 >= (width + 1) / 2. Fixed
 *                      interface behaviour: both chroma planes are stepped
 *                      with pitch 1 and pitch 2 is not read, so give them
 *                      the same pitch
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
 *                          source: nothing is allocated or written (fixed
 *                          interface behaviour: the function only shrinks);
 *   HSEG_ERR_BAD_ARGUMENT  the work block, (3 * dst width + 4) * 16 +
 *                          24 * src width bytes, does not fit in int32;
 *   HSEG_ERR_NO_MEMORY     MMemAlloc(mem, ...) failed;
 *   HSEG_ERR_TABLE         the column table would overrun or a footprint
 *                          would leave the source (only for sources wider
 *                          than about 16000 pixels, where single-precision
 *                          positions drift, e.g. 16424 to 516 columns);
 *   HSEG_OK                success.
 * On every status but the last HSEG_OK the destination is left untouched.
 *
 * Two regimes, which meet at 32 source pixels per destination pixel:
 *
 * - Source width <= 32 * destination width and source height <= 32 *
 *   destination height (every frame of up to 15136 pixels a side that Hseg
 *   shrinks to 473x473): integer fixed point through the column table
 *   below and the workers, bit for bit as they are documented. Each source
 *   pixel's weight is 16384 / (footprint area) rounded to an integer, so a
 *   mean can move by up to about area / 128 levels: a uniform picture stays
 *   within 1 level up to about 15 source pixels per destination pixel each
 *   way and is off by up to 7 levels near 32x32. Every value is saturated
 *   to 0..255 (the rounded weights can add up to more than 1). The row step
 *   is rounded to 1/1024 of a source row; where that rounding leaves the
 *   last destination rows unwritten, they are copies of the last row
 *   written, and nothing is ever written below the last destination row.
 * - Beyond 32 either way: the area mean in double precision, rounded half up
 *   (a uniform picture stays uniform; any picture is within 1 level of the
 *   exact mean; YUV means are rounded, then converted). It needs no column
 *   table, so HSEG_ERR_TABLE does not occur there.
 *
 * One work block is taken from MMemAlloc(mem, ...) and returned before the
 * call returns; no pointer is kept. Reentrant. */
HSEG_API MRESULT LumResizeToBGR(MHandle mem, const OffscreenImage *src,
                                const OffscreenImage *dst);

/* The workers behind LumResizeToBGR, one per source format; exported for
 * callers that keep their own column table. Their argument lists, one type
 * per source arrangement, are shared with the half-sampled workers below.
 * Common arguments:
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

/* One packed plane: BGR24 or YUY2. */
typedef MRESULT LumAreaPackedWorker(const uint8_t *src, int32_t src_pitch, int32_t src_width,
                                    int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                    int32_t dst_width, int32_t dst_height, int32_t src_step,
                                    int32_t dst_step, const LumResizeEntry *table,
                                    int32_t entries, uint64_t *row_acc, uint64_t *carry_acc);
/* Luma plane and one plane of interleaved chroma pairs: NV21. */
typedef MRESULT LumAreaYUV420LPWorker(const uint8_t *y, const uint8_t *vu, int32_t y_pitch,
                                      int32_t vu_pitch, int32_t src_width, int32_t src_height,
                                      uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                      int32_t dst_height, int32_t src_step, int32_t dst_step,
                                      const LumResizeEntry *table, int32_t entries,
                                      uint64_t *row_acc, uint64_t *carry_acc);
/* Luma plane and two chroma planes: I420. */
typedef MRESULT LumAreaYUV420PlanarWorker(const uint8_t *y, const uint8_t *u, const uint8_t *v,
                                          int32_t y_pitch, int32_t uv_pitch, int32_t src_width,
                                          int32_t src_height, uint8_t *dst, int32_t dst_pitch,
                                          int32_t dst_width, int32_t dst_height,
                                          int32_t src_step, int32_t dst_step,
                                          const LumResizeEntry *table, int32_t entries,
                                          uint64_t *row_acc, uint64_t *carry_acc);

/* Packed BGR source (src_step 3). */
HSEG_API LumAreaPackedWorker lumResize_Area_BGR;

/* Packed YUY2 source (src_step 2): a pixel at offset o reads Y from byte 0
 * (bit 1 of o clear) or byte 2 (set) of the 4-byte group at o & ~3, and U, V
 * from bytes 1 and 3 of that group. */
HSEG_API LumAreaPackedWorker lumResize_Area_YUY2toBGR;

/* Semi-planar NV21 source (src_step 1): Y from `y`, the V,U pair that covers
 * a pixel from chroma row y / 2 of `vu`. */
HSEG_API LumAreaYUV420LPWorker lumResize_Area_YUV420LPtoBGR;

/* Planar I420 source (src_step 1): U and V from planes `u` and `v`, both
 * stepped with `uv_pitch`. */
HSEG_API LumAreaYUV420PlanarWorker lumResize_Area_YUV420PlanartoBGR;

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
 * Arguments, checks, statuses and work block are those of LumResizeToBGR;
 * the size check still compares against the full source size, so a
 * destination larger than half the source is accepted (it is then enlarged
 * on the half grid).
 *
 * Regimes: the fixed point of the workers below, with the saturation and
 * last-row handling of LumResizeToBGR, where the source is 2 to 32 times the
 * destination in both directions (1 to 16 grid samples per destination
 * pixel); elsewhere, that is beyond 32 or below 2 either way, the area mean
 * of the half grid in double precision, as for LumResizeToBGR. */
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
HSEG_API LumAreaPackedWorker lumResize_Area_BGR_SP;
HSEG_API MRESULT lumResize_Area_YUY2toBGR_SP(const uint8_t *src, int32_t src_pitch,
                                             int32_t src_width, int32_t src_height,
                                             uint8_t *dst, int32_t dst_pitch, int32_t dst_width,
                                             int32_t dst_height, int32_t src_step,
                                             int32_t dst_step, const LumResizeEntry *table,
                                             int32_t entries, uint32_t *row_acc,
                                             uint32_t *carry_acc);
HSEG_API LumAreaYUV420LPWorker lumResize_Area_YUV420LPtoBGR_SP;
HSEG_API LumAreaYUV420PlanarWorker lumResize_Area_YUV420PlanartoBGR_SP;

/* ---- nearest, bilinear and bicubic resizers ---- */

/*
 * Common to the functions below:
 * - Sizes are in pixels, pitches in bytes; row r of an image starts at
 *   data + r * pitch. Pitches must be at least the bytes of one row (so they
 *   are never negative). Bytes between the end of a row and the next row are
 *   neither read nor written.
 * - Arguments are checked before any memory is taken: a NULL pointer that the
 *   call needs, a width or height below 1, a pitch smaller than its row, or a
 *   size whose work memory or table would not fit in 32 bits gives
 *   HSEG_ERR_BAD_ARGUMENT (2) with nothing allocated and nothing written,
 *   unless a function below says otherwise.
 * - Work memory comes from MMemAlloc with the caller's `mem` and is returned
 *   before the call ends (except the bicubic cache, which the caller owns).
 *   When MMemAlloc fails the call returns HSEG_ERR_NO_MEMORY (4) and the
 *   destination is not written.
 * - Source and destination must not overlap. No pointer is kept after a call.
 */

/* Nearest-neighbour resize of an 8-bit image with 1 or 3 interleaved
 * channels (`channels` bytes a pixel).
 *
 * Destination column dx reads source column
 *   sx = (min(src_width, dst_width) - 1 + 2 * dx * src_width) / (2 * dst_width)
 * (integer division, computed without overflow), and rows likewise with the
 * heights; fixed interface behaviour: this bias, not half a pixel. Equal
 * sizes give an exact copy.
 *
 * Work memory: one block of 4 * dst_width bytes (the column table), plus
 * 20 bytes per 16 columns for one channel (a shuffle table for enlargements).
 * Returns HSEG_OK, HSEG_ERR_NO_MEMORY when that block cannot be allocated, or
 * HSEG_ERR_BAD_ARGUMENT for NULL src or dst, src_width, src_height or
 * dst_width below 1, src_pitch below src_width * channels, dst_pitch below
 * dst_width * channels, or dst_width * 6 beyond 32 bits.
 * A channel count other than 1 or 3 writes nothing and returns HSEG_OK, and
 * so does a dst_height below 1. */
HSEG_API MRESULT zevImageResize_NN(MHandle mem, const uint8_t *src, int32_t src_pitch,
                                   int32_t src_width, int32_t src_height, uint8_t *dst,
                                   int32_t dst_pitch, int32_t dst_width, int32_t dst_height,
                                   int32_t channels);

/*
 * Bilinear family. Pixel-centre mapping with 7-bit weights: destination index
 * d maps to f = (d + 0.5) * (src / dst) - 0.5 (quotient and product in
 * double, the product rounded to float, 0.5 subtracted in float), i0 = f
 * truncated, weight = (int)((f - i0) * 128 + 0.5); an f below 0 gives
 * (0, weight 0). Columns at or past the last source column copy it. Each
 * output value is ((r1 - r0) * wy + r0 * 128 + 8192) >> 14, with r0, r1 the
 * two source rows interpolated horizontally (7 fraction bits each).
 *
 * Tables, as the row workers take them: arrays of uint16_t pairs.
 *   column table: dst_width pairs (x0, wx); the output column blends source
 *     columns x0 and x0 + 1 with weight wx/128 on x0 + 1. wx = 0 reads x0
 *     only, which is how the right border (x0 = src_width - 1) is stored.
 *   row table: dst_height pairs (y0, wy), likewise; source row y0 + 1 is used
 *     only when wy != 0 and y0 + 1 < src_height.
 * Row buffers: two arrays of uint32_t, each dst_width values for one-channel
 * output and 3 * dst_width for three.
 *
 * Sources wider or taller than 65536 pixels give HSEG_ERR_BAD_ARGUMENT (the
 * tables hold 16-bit coordinates).
 *
 * Equal sizes (fixed interface behaviour): when the destination has exactly
 * the source's width and height, every member of the family returns HSEG_OK
 * at once and writes nothing: it does not copy, and zevImageResize_BL does not convert. Use a
 * copy or the area resize for a same-size conversion.
 */

/* One 8-bit channel. Work memory: one block of (3 * dst_width + dst_height)
 * 4-byte words. Returns HSEG_OK, HSEG_ERR_BAD_ARGUMENT, HSEG_ERR_NO_MEMORY. */
HSEG_API MRESULT zevImageResize_BL_C1(MHandle mem, const uint8_t *src, int32_t src_width,
                                      int32_t src_height, int32_t src_pitch, uint8_t *dst,
                                      int32_t dst_width, int32_t dst_height, int32_t dst_pitch);

/* Resizes an offscreen image to packed BGR (colour == 1, 3 bytes a pixel,
 * dst_pitch >= 3 * dst_width) or to grey (any other colour value, 1 byte a
 * pixel, dst_pitch >= dst_width). Source formats and what they read:
 *
 *   0x201 BGR24  plane 0, pitch 0 >= 3 * width.
 *   0x501 YUY2   plane 0 (Y0 U Y1 V), pitch 0 >= 4 * ((width + 1) / 2).
 *   0x601 I420   plane 0 Y (pitch 0 >= width); plane 1 U and plane 2 V, each
 *                with its own pitch (pitches 1 and 2 >= (width + 1) / 2).
 *   0x802 NV21   plane 0 Y; plane 1 interleaved chroma pairs, V first.
 *   0x804 NV12   plane 0 Y; plane 1 interleaved chroma pairs, U first: the
 *                mirror of 0x802. For both, pitch 1 >= 2 * ((width + 1) / 2).
 * The 4:2:0 chroma planes have (height + 1) / 2 rows.
 *
 * Colour output: BGR is interpolated per channel. YUV is interpolated per
 * component at full resolution and then converted to BGR (full range: Y as it
 * is, 14-bit coefficients, clamped). The chroma of each source pixel comes
 * from the shared samples: a chroma sample sits on the luma pixel of even
 * column (and, for 4:2:0, even row) of the pixels that share it; a pixel
 * between two samples takes their mean, (a + b + 1) >> 1, and a 4:2:0 pixel
 * between four takes (a + b + c + d + 2) >> 2. Past the last sample on the
 * right or at the bottom the last one is repeated.
 *
 * Grey output: BGR gives (13 * B + 83 * G + 32 * R) >> 7 of the interpolated
 * channels; every YUV format gives the interpolated Y and reads only its luma
 * (chroma planes may then be NULL).
 *
 * Work memory: one block of (9 * dst_width + dst_height) 4-byte words.
 * Returns HSEG_OK, HSEG_ERR_BAD_ARGUMENT (also for a NULL src or a NULL plane
 * that is read), HSEG_ERR_FORMAT for any other format code, or
 * HSEG_ERR_NO_MEMORY. */
HSEG_API MRESULT zevImageResize_BL(MHandle mem, const OffscreenImage *src, uint8_t *dst,
                                   int32_t dst_width, int32_t dst_height, int32_t dst_pitch,
                                   int32_t colour);

/* Row worker of zevImageResize_BL: the whole destination from ready-made
 * tables and row buffers (layouts above), for any source format and colour
 * flag of zevImageResize_BL (grey from 4:2:0 goes through
 * zevResize_Bilinear_YUVPlanarToGRAY). Allocates nothing. The tables are
 * checked against the source size first: an entry outside the source or a
 * weight above 128 gives HSEG_ERR_BAD_ARGUMENT. Returns also what
 * zevImageResize_BL returns for the descriptor and destination (without the
 * equal-size shortcut). */
HSEG_API MRESULT zevImageResize_BL_Piece(const OffscreenImage *src, uint8_t *dst,
                                         int32_t dst_width, int32_t dst_height,
                                         int32_t dst_pitch, int32_t colour,
                                         const uint16_t *col_tab, const uint16_t *row_tab,
                                         uint32_t *buf0, uint32_t *buf1);

/* Row worker: bilinear resize of one luma plane to grey. The source width is
 * not passed: every column entry (x0, wx) must lie inside the plane (x0, and
 * x0 + 1 when wx != 0, below the plane's width), which the caller
 * guarantees; entries reaching past y_pitch, rows at or past src_height and
 * weights above 128 give HSEG_ERR_BAD_ARGUMENT. Allocates nothing. */
HSEG_API MRESULT zevResize_Bilinear_YUVPlanarToGRAY(const uint8_t *y_plane, int32_t y_pitch,
                                                    int32_t src_height, uint8_t *dst,
                                                    int32_t dst_pitch, int32_t dst_width,
                                                    int32_t dst_height, const uint16_t *col_tab,
                                                    const uint16_t *row_tab, uint32_t *buf0,
                                                    uint32_t *buf1);

/*
 * Bicubic resize of one 8-bit channel: cubic convolution kernel with
 * a = -0.5 in 10-bit fixed point, corner-aligned mapping (destination pixel
 * d starts at source position d * (src / dst)), edge replication past every
 * border (also for the rows above the first and below the last). The rounded
 * weights of the four taps sum to 1024..1027, so a flat area may come out one
 * level higher (from about level 85 up); 255 stays 255.
 */

/* Caller-owned cache. Zero both fields before the first call; the resizer
 * fills them on first use and reuses them afterwards. Free both with
 * MMemFree (same `mem`) when done; a cache may then be zeroed and used again.
 *
 * Fixed interface behaviour: the column table is built once, together with
 * the kernel table, for the first call's widths, and later calls reuse it
 * as it is: a cache serves one pair of sizes. A later call with a different
 * width is still safe (every tap is clamped to its row) but resamples with
 * the first call's column geometry; a later destination wider than the one
 * the cache was built for gives HSEG_ERR_BAD_ARGUMENT. Use one cache per
 * size pair. */
typedef struct CubicCache {
  void *work;        /* row buffers and column table, sized for one width */
  int32_t *coef_tab; /* 1025 (near, far) weight pairs, see InitCubicCoeffTab */
} CubicCache;

/* Fills `tab` with 1025 pairs of int32 weights (2050 values, 8200 bytes):
 * pair i < 1024 holds the kernel at distance t = i / 1024 (near) and at
 * 1 + t (far), scaled by 1024 and rounded; pair 1024 is (0, 0). Returns
 * HSEG_ERR_BAD_ARGUMENT for a NULL tab. */
HSEG_API MRESULT InitCubicCoeffTab(int32_t *tab);

/* Row engine. col_tab holds dst_width (x0, fraction) int32 pairs, fraction
 * in 0..1024; columns in [first_inner, first_border) are filtered without
 * bound tests, so each of them must have 1 <= x0 and x0 + 2 < src_width;
 * the other columns clamp every tap to the row. coef_tab is a table as
 * InitCubicCoeffTab fills it; the four weights any fraction selects must sum
 * to at most 2048 in magnitude, which keeps the arithmetic in 32 bits.
 * Tables that break these rules give HSEG_ERR_BAD_ARGUMENT. row0..row3 are
 * four buffers of dst_width int32 values (filtered rows may be negative).
 * Allocates nothing. */
HSEG_API MRESULT Resize_Bicubic_8u_C1(const uint8_t *src, int32_t src_width, int32_t src_height,
                                      int32_t src_pitch, uint8_t *dst, int32_t dst_width,
                                      int32_t dst_height, int32_t dst_pitch, int32_t first_inner,
                                      int32_t first_border, const int32_t *col_tab,
                                      const int32_t *coef_tab, int32_t *row0, int32_t *row1,
                                      int32_t *row2, int32_t *row3);

/* Resizes with the kernel and column tables kept in `cache`.
 * Equal sizes are copied row by row (any size of at least 1). Otherwise both
 * widths and both heights must be at least 5.
 * Returns HSEG_OK; HSEG_ERR_BAD_ARGUMENT for a NULL cache, src or dst, a side
 * below 1 (below 5 when resizing), a short pitch, a destination wider than
 * the cache was built for, or a work block (32 + 24 * dst_width bytes) that
 * does not fit in 32 bits; HSEG_ERR_NO_MEMORY when a block cannot be had (the
 * cache keeps what it got, and the destination is not written). */
HSEG_API MRESULT ImageResize_Cubic_C1(MHandle mem, const uint8_t *src, int32_t src_width,
                                      int32_t src_height, int32_t src_pitch, uint8_t *dst,
                                      int32_t dst_width, int32_t dst_height, int32_t dst_pitch,
                                      CubicCache *cache);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_RESIZE_H_ */
