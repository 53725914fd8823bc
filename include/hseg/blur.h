/*
 * Blur library: box blur and Gaussian blur of 8-bit grey, 16-bit grey,
 * packed BGR and packed YUY2 images, whole or a band of rows at a time.
 *
 * Common to every function below:
 * - Formats (src and dst alike):
 *     HSEG_PIXFMT_GRAY    plane 0, pitch 0 >= width
 *     HSEG_PIXFMT_GRAY16  plane 0, pitch 0 >= 2 * width, 16-bit unsigned
 *                         samples in native byte order; plane 0 and pitch 0
 *                         must be even (2-byte aligned rows)
 *     HSEG_PIXFMT_BGR24   plane 0, pitch 0 >= 3 * width; the three channels
 *                         are blurred alike and independently
 *     HSEG_PIXFMT_YUY2    plane 0, pitch 0 >= 2 * width, width even. Y is
 *                         blurred as a full-width plane; U and V as planes
 *                         of width / 2 with the horizontal radius halved
 *                         (radius / 2 rounded down, sigma / 2) and the full
 *                         vertical one.
 *   dst must have src's format, width and height. Bytes between the end of a
 *   row and the next row are neither read nor written.
 * - Borders replicate the edge pixel: the image is taken as continued
 *   without end by its first and last rows and columns.
 * - One thread; integer arithmetic (the Gaussian's per-pass scaling rounds
 *   in float, the same way in every code path). Results do not depend on
 *   the CPU's instruction set: the SIMD paths give the plain path's bytes.
 * - Work memory: one block from MMemAlloc(mem, ...), returned before the call
 *   ends. Box blur: 8 bytes a sample of one row (16 to 24 past radius 1447
 *   for 8-bit samples, past 90 for 16-bit, where sums outgrow 31 bits and
 *   the plain code takes them). Gaussian: about 4 sigma + 16 rows of 2 bytes
 *   a sample. YUY2 adds three rows; a whole-image call with src and dst
 *   overlapping adds a copy of the source. No pointer is kept after a call.
 * - Statuses: HSEG_OK; HSEG_ERR_BAD_ARGUMENT for a NULL src, dst or plane,
 *   a width or height below 1, a pitch shorter than a row, an odd YUY2
 *   width, a misaligned GRAY16 plane or pitch, a dst of another size, a
 *   negative radius, a sigma that is not finite or not above 0, a negative
 *   row count or rows outside the image, or (row calls only) src and dst
 *   overlapping; HSEG_ERR_FORMAT for a format not listed above or a dst of
 *   another format; HSEG_ERR_NO_MEMORY when the work memory cannot be had
 *   (also when it would pass 2 GiB). Arguments are checked before anything
 *   is allocated; on any status but HSEG_OK nothing is written.
 */
#ifndef HSEG_BLUR_H_
#define HSEG_BLUR_H_

#include <stdint.h>

#include "hseg/pipeline.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Box blur: each output sample is the mean of the (2 radius + 1) squared
 * window around it, rounded to nearest once from the exact integer sum of
 * the window. Radius 0 copies. src == dst (the same planes) is allowed. */
HSEG_API MRESULT GB_BoxBlur(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                            int32_t radius);

/* Gaussian blur of standard deviation `sigma` (pixels), as three box passes
 * in each direction whose widths give the Gaussian's variance. Sigma above
 * 8192 is taken as 8192. src == dst (the same planes) is allowed. */
HSEG_API MRESULT GB_GaussianBlur(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                                 float sigma);

/* The same blurs for a band of rows: only rows first_row .. first_row +
 * row_count - 1 of dst are written, each byte for byte as the whole-image
 * call writes it; src rows are read as far around the band as the blur
 * reaches. Blur a tall image band by band, or give each thread its own band
 * (with its own memory context if the allocator needs one). src and dst must
 * not overlap. A row_count of 0 writes nothing and returns HSEG_OK. Each
 * call's work grows with the blur's reach (about 3 sigma or the radius in
 * rows) besides its band, so bands much thinner than that repeat work. */
HSEG_API MRESULT GB_BoxBlurRows(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                                int32_t radius, int32_t first_row, int32_t row_count);
HSEG_API MRESULT GB_GaussianBlurRows(MHandle mem, const OffscreenImage *src,
                                     OffscreenImage *dst, float sigma, int32_t first_row,
                                     int32_t row_count);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_BLUR_H_ */
