/*
 * Image toolkit: geometry, pixel conversions, NV21 colour, masks, simple
 * resizes, Sobel gradients, a small matrix inverse and BMP files, over the
 * library's `Image` records (see pipeline.h).
 *
 * Common to the img_ functions and the resizes below:
 * - An image argument is usable when it is non-NULL, has data, a width and a
 *   height of at least 1 and a pitch that holds one row (width * channels *
 *   depth / 8 bytes). Row r starts at data + r * pitch; the row table is not
 *   read. Bytes between the end of a row and the next row are neither read
 *   nor written. Rows of 16- and 32-bit images must be aligned to their
 *   sample size (data and pitch multiples of 2 or 4 bytes), as createimg
 *   makes them.
 * - The caller makes the destination (createimg, or a view over its own
 *   buffer) with the size, channel count and depth that the function writes;
 *   a function that makes an image itself returns it through `out` and the
 *   caller releases it with release_img (release_img_pesudo for a view).
 * - Statuses: HSEG_OK; HSEG_ERR_BAD_ARGUMENT (2) for a NULL or unusable
 *   image, a short pitch, a size mismatch between images or an argument out
 *   of its range; HSEG_ERR_FORMAT (3) for a channel count or depth that the
 *   function does not handle; HSEG_ERR_NO_MEMORY (4) when MMemAlloc fails.
 *   On any failure nothing has been written and nothing is kept.
 * - Source and destination must not overlap unless a function says so.
 * - Memory, where a function takes any, comes from MMemAlloc with `mem` and
 *   is returned before the call ends, except an image handed back in `out`.
 *   No function asserts or aborts on bad input.
 */
#ifndef HSEG_IMGPROC_H_
#define HSEG_IMGPROC_H_

#include <stddef.h>
#include <stdint.h>

#include "hseg/pipeline.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A rectangle of pixels: columns x .. x + width - 1, rows y .. y + height - 1. */
typedef struct ImgRect {
  int32_t x;
  int32_t y;
  int32_t width;
  int32_t height;
} ImgRect;

/* A point in pixel coordinates: pixel (x, y) covers [x, x + 1) x [y, y + 1). */
typedef struct ImgPoint {
  int32_t x;
  int32_t y;
} ImgPoint;

/* ---- geometry (8-bit images of 1 to 4 channels) ---- */

/* Rotates `src` clockwise by `degrees` (90, 180 or 270; anything else gives
 * 2) into `dst`, which has src's channels and src's size, with width and
 * height swapped for 90 and 270. No overlap. */
HSEG_API MRESULT img_rotate(const Image *src, Image *dst, int32_t degrees);

#define HSEG_FLIP_VERTICAL 0    /* upside down: row r goes to row h - 1 - r */
#define HSEG_FLIP_HORIZONTAL 1  /* mirror: column c goes to column w - 1 - c */
#define HSEG_FLIP_BOTH (-1)     /* both, the same as a 180-degree rotation */

/* Flips `src` into `dst` (same size and channels). As in OpenCV, `code` 0
 * flips vertically, a positive code horizontally and a negative code both
 * ways. dst may be src (in place); any other overlap is not allowed. */
HSEG_API MRESULT img_flip(const Image *src, Image *dst, int32_t code);

/* Makes in *out a view of `rect` inside `src` without copying: it shares
 * src's pixels and pitch and must not outlive src. Release it with
 * release_img_pesudo. Any channel count, depth 8, 16 or 32. `rect` must be
 * non-empty and lie inside src (2 otherwise). *out is NULL on failure. */
HSEG_API MRESULT img_crop_view(MHandle mem, const Image *src, ImgRect rect, Image **out);

/* Copies `rect` of `src` (any channel count, depth 8, 16 or 32) into `dst`,
 * which is rect.width x rect.height with src's channels and depth. `rect`
 * must be non-empty and lie inside src. */
HSEG_API MRESULT img_crop(const Image *src, Image *dst, ImgRect rect);

/* Pads `src` into `dst` by reflection without repeating the edge pixel
 * (dcb|abcd|cba, OpenCV's BORDER_REFLECT_101): dst is (left + src width +
 * right) x (top + src height + bottom) with src's channels. Amounts are
 * non-negative and may exceed the image (the reflection then repeats with
 * period 2 * (n - 1); a 1-pixel side repeats its pixel). */
HSEG_API MRESULT img_pad_reflect(const Image *src, Image *dst, int32_t top, int32_t bottom,
                                 int32_t left, int32_t right);

/* ---- pixel conversions ---- */

#define HSEG_GRAY_BGR128 0 /* (13 B + 83 G + 32 R + 64) >> 7, the weights of the
                              bilinear resizer's grey output */
#define HSEG_GRAY_BT601 1  /* (1868 B + 9617 G + 4899 R + 8192) >> 14: BT.601
                              0.114, 0.587, 0.299 in 14-bit fixed point */

/* Grey from BGR (3 channels) or BGRA (4 channels, alpha ignored) into a
 * 1-channel `dst` of the same size, with the weights `weights` names (one of
 * the HSEG_GRAY_* values, 2 otherwise), rounded to nearest. */
HSEG_API MRESULT img_bgr2gray(const Image *src, Image *dst, int32_t weights);

/* Widens every 8-bit sample of `src` to int32 in `dst` (depth 32, same size
 * and channels). */
HSEG_API MRESULT img_u8_to_s32(const Image *src, Image *dst);

/* Narrows every int32 sample of `src` (depth 32) to 8 bits in `dst` (depth 8,
 * same size and channels), saturating to 0..255. */
HSEG_API MRESULT img_s32_to_u8(const Image *src, Image *dst);

/* Min-max normalisation of an 8-bit image to floats in `dst` (depth 32, same
 * size and channels): the smallest sample of the whole image (all channels
 * together) maps to `lo`, the largest to `hi`, linearly between them; an
 * image whose samples are all equal maps to `lo`. lo and hi must be finite
 * (hi below lo reverses the range). */
HSEG_API MRESULT img_normalize_minmax(const Image *src, Image *dst, float lo, float hi);

/* Standardises an 8-bit image to floats in `dst` (depth 32, same size and
 * channels): (v - mean) / sd over all samples, with the population standard
 * deviation; an image whose samples are all equal maps to 0. */
HSEG_API MRESULT img_normalize_meanstd(const Image *src, Image *dst);

/* ---- NV21 colour (fixed signatures; descriptors as in pipeline.h) ---- */

/* NV21 (0x802: Y plane, then V,U pairs for each 2x2 block) to packed BGR
 * (0x201) of the same size. Each pixel takes the chroma pair of its 2x2
 * block as it is, and is converted full range (Y as it is) with 14-bit
 * coefficients: with u = U - 128, v = V - 128,
 *   B = (16384 Y + 29049 u + 8192) >> 14,
 *   G = (16384 Y - 11698 v - 5636 u + 8192) >> 14,
 *   R = (16384 Y + 22987 v + 8192) >> 14, each clamped to 0..255.
 * Odd sizes are allowed: the chroma plane has ceil(h / 2) rows of ceil(w / 2)
 * pairs. Pitches: Y >= w, chroma >= 2 * ceil(w / 2), BGR >= 3 * w.
 * Returns 2 for a NULL descriptor or plane, a size below 1, a short pitch or
 * different sizes, 3 when src is not 0x802 or dst not 0x201. */
HSEG_API MRESULT NV212BGR(const OffscreenImage *src, OffscreenImage *dst);

/* Packed BGR (0x201) to NV21 (0x802) of the same size, full range (JPEG/JFIF
 * BT.601): Y = (4899 R + 9617 G + 1868 B + 8192) >> 14 per pixel; for each
 * 2x2 block (fewer pixels at an odd edge) the mean B, G, R, each
 * (sum + n / 2) / n, give U = ((-2765 R - 5427 G + 8192 B + 8192) >> 14) + 128
 * and V = ((8192 R - 6860 G - 1332 B + 8192) >> 14) + 128, clamped to
 * 0..255. Sizes, pitches and statuses as for NV212BGR, formats swapped. */
HSEG_API MRESULT BGR2NV21(const OffscreenImage *src, OffscreenImage *dst);

/* ---- masks (1-channel, 8-bit; a pixel is set when it is non-zero) ---- */

/* Writes in *box the smallest rectangle holding every set pixel of `mask`,
 * or {0, 0, 0, 0} when no pixel is set. */
HSEG_API MRESULT img_mask_bbox(const Image *mask, ImgRect *box);

/* Logical operations: dst is 255 where the condition holds on the inputs'
 * set pixels and 0 elsewhere. All images have one size; dst may be an
 * input. */
HSEG_API MRESULT img_mask_and(const Image *a, const Image *b, Image *dst);
HSEG_API MRESULT img_mask_or(const Image *a, const Image *b, Image *dst);
HSEG_API MRESULT img_mask_xor(const Image *a, const Image *b, Image *dst);
HSEG_API MRESULT img_mask_not(const Image *src, Image *dst);

/* Sets the pixels of `rect` that lie inside `mask` to `value` (the rectangle
 * is clipped; an empty one changes nothing). A negative width or height
 * gives 2. */
HSEG_API MRESULT img_fill_rect(Image *mask, ImgRect rect, uint8_t value);

/* Sets to `value` every pixel of `mask` whose centre (x + 0.5, y + 0.5) lies
 * inside the closed polygon `points[0..count - 1]` by the even-odd rule (a
 * centre exactly on a non-horizontal edge counts as inside for a left edge
 * and outside for a right one, so polygons sharing an edge do not overlap).
 * The polygon may reach outside the mask and cross itself. An axis-aligned
 * rectangle (x, y) .. (x + w, y + h) fills exactly img_fill_rect's pixels.
 * count >= 3 and coordinates within +-2^28 (2 otherwise). Work memory:
 * 4 * count bytes. */
HSEG_API MRESULT img_fill_poly(MHandle mem, Image *mask, const ImgPoint *points, int32_t count,
                               uint8_t value);

/* Packs `mask` into a bitmap of 1 bit a pixel, set for set pixels: row r at
 * bits + r * pitch, pixel x in byte x / 8 at bit 7 - x % 8 (most significant
 * bit first); the unused low bits of a row's last byte are written 0. pitch
 * >= ceil(width / 8). */
HSEG_API MRESULT img_mask_to_bitmap(const Image *mask, uint8_t *bits, int32_t pitch);

/* Unpacks a bitmap laid out as img_mask_to_bitmap writes it into `mask`:
 * 255 for a set bit, 0 otherwise. */
HSEG_API MRESULT img_bitmap_to_mask(const uint8_t *bits, int32_t pitch, Image *mask);

/* ---- simple resizes (8-bit) ---- */

/* Halves `src` (any channel count) into a new image *out of ceil(w / 2) x
 * ceil(h / 2): each pixel is the rounded mean (sum + n / 2) / n of its 2x2
 * block, the block clipped at an odd edge (n = 2 or 1). *out is NULL on
 * failure. */
HSEG_API MRESULT resize2(MHandle mem, const Image *src, Image **out);

/* Bilinear resize of a 1-channel image to dst's size through
 * zevImageResize_BL_C1; equal sizes are copied. Also returns what that
 * resizer returns. */
HSEG_API MRESULT resize_C1(MHandle mem, const Image *src, Image *dst);

/* Bicubic resize of a 1-channel image to dst's size through
 * ImageResize_Cubic_C1, with a coefficient cache that the call makes and
 * frees. Equal sizes are copied; otherwise every side must be at least 5
 * (2 otherwise). Also returns what that resizer returns. */
HSEG_API MRESULT resize_Cubic1(MHandle mem, const Image *src, Image *dst);

/* ---- Sobel gradients (1-channel 8-bit in, 1-channel 16-bit signed out) ---- */

/* 3x3 Sobel derivative into `dst` (depth 16, same size, int16 samples):
 * (dx, dy) = (1, 0) for d/dx, kernel [-1 0 1; -2 0 2; -1 0 1], or (0, 1) for
 * d/dy, its transpose (other values give 2). Borders reflect without
 * repeating the edge pixel, as img_pad_reflect. Values lie in -1020..1020. */
HSEG_API MRESULT img_sobel(const Image *src, Image *dst, int32_t dx, int32_t dy);

#define HSEG_NORM_L1 1 /* |gx| + |gy|, 0..2040 */
#define HSEG_NORM_L2 2 /* sqrt(gx^2 + gy^2) rounded to nearest, 0..1443 */

/* Gradient magnitude into `dst` (depth 16, same size) from the two
 * derivatives of img_sobel, by `norm` (one of the HSEG_NORM_* values, 2
 * otherwise). */
HSEG_API MRESULT img_sobel_magnitude(const Image *src, Image *dst, int32_t norm);

/* ---- matrix inverse (fixed signature) ---- */

/* Inverts the row-major n x n matrix `a` into `inv` by Gauss-Jordan
 * elimination with partial pivoting; inv may be a. Returns 2 for a NULL
 * pointer, n < 1, a non-finite entry or a matrix too large for its work
 * memory (2 * n * n doubles from MMemAlloc with a NULL context: fixed
 * interface behaviour, there is no handle); 4 when that
 * memory cannot be had; HSEG_ERR_SINGULAR (7) when a pivot's magnitude is at
 * most n * DBL_EPSILON times the largest magnitude in `a`. inv is written
 * only on success. */
HSEG_API MRESULT matrix_inverse(const double *a, double *inv, int32_t n);

/* ---- BMP files (fixed signatures) ---- */

/* Reads a BMP file into a new image *out (release with release_img), rows
 * top first. Uncompressed 1-, 4-, 8-, 24- and 32-bit files and 16- and
 * 32-bit bit-field files, bottom-up or top-down, with info headers of 40,
 * 108 or 124 bytes. Channels of the result:
 *   8-bit whose 256-entry palette is the grey ramp (entry i = (i, i, i)): 1;
 *   other palette files (1, 4, 8 bits): 3, BGR from the palette (an index
 *     past the palette reads black);
 *   16-bit: 3, each field widened to 8 bits by bit replication (5-5-5 when
 *     the file has no masks);
 *   24-bit: 3;
 *   32-bit: 4, B, G, R, A: a plain file's fourth byte is its alpha, a
 *     bit-field file without an alpha mask gets 255.
 * Returns 2 for a NULL argument; HSEG_ERR_FILE (6) when the file cannot be
 * opened or read, or is malformed (every size, offset, palette count and
 * mask is checked against the file's length and the format's rules, before
 * anything is allocated); 3 for a compressed (RLE, JPEG, PNG) file or an
 * info header of another known kind; 4 when memory runs out. Memory: the
 * image and one file row. *out is NULL on failure. */
HSEG_API MRESULT LoadBMP(MHandle mem, const char *path, Image **out);

/* LoadBMP from `size` bytes of a file already in memory. Memory: the image
 * only. */
HSEG_API MRESULT LoadBMPFromMemory(MHandle mem, const uint8_t *data, size_t size, Image **out);

/* Writes an 8-bit image to a BMP file: 1 channel as 8-bit with the grey-ramp
 * palette, 3 channels as 24-bit, 4 channels as 32-bit B, G, R, A (40-byte
 * info header), bottom-up, rows padded to 4 bytes. The file is written to a
 * temporary name beside `path` and renamed over it, so a failed write never
 * leaves a partial file under `path`. Returns 2 for a NULL path or an
 * unusable image, 3 for another channel count or depth, 6 when the file
 * cannot be written (nothing is left behind then). */
HSEG_API MRESULT SaveBmp(const char *path, const Image *img);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_IMGPROC_H_ */
