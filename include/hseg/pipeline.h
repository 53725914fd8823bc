/*
 * hseg: person/background segmentation of a photo or video frame.
 *
 * This header holds what every subsystem of the library shares (the memory
 * context, the status and pixel-format codes, the owned raster `Image` and
 * the non-owning `OffscreenImage` descriptor, the memory services) and the
 * segmentation pipeline itself.
 *
 * Plain C; every function has C linkage. No function keeps a pointer it was
 * given after it returns or logs. Two things outlive a call, both made at
 * their first use and released when the library is unloaded: the network's
 * thread pool (n - 1 threads with OpenBLAS on n, see the README) and the
 * fast network's transformed filters (see HsegEx). Nothing else is kept
 * between calls.
 *
 * Compatibility promises. Programs already written against this interface
 * rely on a few behaviours that would not be designed this way today; they
 * are fixed interface behaviour and will not change (each is noted again
 * where it is declared, marked "Fixed interface behaviour"):
 *   - createimg_pesudo and release_img_pesudo keep that spelling, and a view
 *     made over a NULL buffer keeps its row table on release (this header);
 *   - Hseg allocates an image of the mask's size and a view over the mask
 *     that it never reads, so a mask size that cannot be afforded fails up
 *     front with HSEG_ERR_NO_MEMORY (this header);
 *   - the layer functions ly_* return 64-bit statuses, and convmul returns
 *     nothing: on bad input it leaves the result unwritten (flatnn.h);
 *   - ly_interp aborts with its fixed assertion texts on an empty or
 *     out-of-image window, in release builds too (flatnn.h);
 *   - crf_inference reports success when a filtering step fails, keeping
 *     the old marginals for that iteration; DCR_DepthRefine builds its CRF
 *     on the default memory context and ignores its handle, its block's
 *     iterations and relaxation, and its pitches (crf.h);
 *   - the area resize, and so Hseg, steps I420's V plane with U's pitch and
 *     never reads pitch 2; it only shrinks, returning 0 without writing when
 *     asked to enlarge; the bicubic cache keeps the column table of its
 *     first call's widths (resize.h).
 */
#ifndef HSEG_PIPELINE_H_
#define HSEG_PIPELINE_H_

#include <stdint.h>

#if defined(_WIN32)
#define HSEG_API
#else
#define HSEG_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Status codes (unsigned 32-bit). Inner statuses pass up unchanged.         */
/* ------------------------------------------------------------------------ */
#define HSEG_OK 0u               /* success */
#define HSEG_ERR_BAD_ARGUMENT 2u /* bad argument */
#define HSEG_ERR_FORMAT 3u       /* unsupported pixel-format code */
#define HSEG_ERR_NO_MEMORY 4u    /* an allocation failed, or a null record */
#define HSEG_ERR_TABLE 5u        /* area-resize table overflow / key absent */
#define HSEG_ERR_FILE 6u         /* a file cannot be opened, read or written, or
                                    is malformed (image toolkit) */
#define HSEG_ERR_SINGULAR 7u     /* a singular matrix (image toolkit) */

/* Memory shortage and OpenBLAS: the network's matrix products run on
 * OpenBLAS, which ends the process (exit status 1, "malloc failed in
 * gemm_driver") when it cannot allocate its own work memory. It takes that
 * memory at its first products and keeps it, so this can strike the first
 * calls of a process (and calls that use OpenBLAS from more threads at once
 * than before). The network takes all of its own memory before its first
 * product, so a shortage seen there is reported as HSEG_ERR_NO_MEMORY; a
 * shortage that first strikes inside OpenBLAS cannot be. */

typedef uint32_t MRESULT;

/* ------------------------------------------------------------------------ */
/* Pixel-format codes                                                         */
/* ------------------------------------------------------------------------ */
#define HSEG_PIXFMT_BGR24 0x201u /* 3 bytes a pixel: blue, green, red; plane 0 */
#define HSEG_PIXFMT_YUY2 0x501u  /* packed 4:2:2, Y0 U Y1 V; plane 0 */
#define HSEG_PIXFMT_I420 0x601u  /* planar 4:2:0: Y, U, V in planes 0, 1, 2 */
#define HSEG_PIXFMT_NV21 0x802u  /* Y plane + interleaved V,U pairs (planes 0, 1) */
#define HSEG_PIXFMT_NV12 0x804u  /* Y plane + interleaved U,V pairs (planes 0, 1);
                                    accepted by the bilinear resizer only */
#define HSEG_PIXFMT_GRAY 0x701u  /* 1 byte a pixel, grey or mask; plane 0 */
#define HSEG_PIXFMT_GRAY16 0x702u /* 2 bytes a pixel, unsigned, native endian
                                     (a depth map, say); plane 0; blur only */

/* ------------------------------------------------------------------------ */
/* Memory context and memory services                                         */
/* ------------------------------------------------------------------------ */

/* Opaque memory-context value. It is handed unchanged to every allocating
 * function of the library and reaches MMemAlloc/MMemFree; the library never
 * dereferences it. Pass 0 (NULL) when you have no context of your own. */
typedef void *MHandle;

/* Allocates `size` bytes; a negative size fails. Returns NULL on failure;
 * the contents are undefined. */
HSEG_API void *MMemAlloc(MHandle handle, int32_t size);
/* Releases a block from MMemAlloc; NULL is allowed. */
HSEG_API void MMemFree(MHandle handle, void *ptr);
/* Fills `count` bytes with the low 8 bits of `value`; returns `ptr`.
 * Does nothing when ptr is NULL or count < 1. */
HSEG_API void *MMemSet(void *ptr, int32_t value, int32_t count);
/* Copies `count` non-overlapping bytes; returns `dst`. Does nothing when a
 * pointer is NULL or count < 1. */
HSEG_API void *MMemCpy(void *dst, const void *src, int32_t count);

/* ------------------------------------------------------------------------ */
/* Image records                                                              */
/* ------------------------------------------------------------------------ */

/* Owned 8-bit raster. Row i starts at data + i * pitch == rows[i].
 *
 * Pitch rule: b = width * channels * depth / 8 (truncated). If b is a multiple
 * of 4 the pitch is b, otherwise (width * channels * depth / 32) * 4 + 4: for
 * 8-bit samples the row byte count rounded up to a multiple of 4. */
typedef struct Image {
  uint32_t width;
  uint32_t height;
  uint32_t pitch;    /* bytes per row */
  uint32_t size;     /* pitch * height */
  uint32_t channels; /* samples per pixel */
  uint32_t depth;    /* bits per sample (8 throughout the library) */
  uint8_t *data;     /* first byte of row 0 */
  uint8_t **rows;    /* `height` row pointers */
} Image;

/* Non-owning view of up to four planes. Planes and pitches that the format
 * does not use may hold anything; the library does not read them. */
typedef struct OffscreenImage {
  uint32_t format; /* HSEG_PIXFMT_* */
  int32_t width;
  int32_t height;
  uint8_t *planes[4];
  int32_t pitches[4];
} OffscreenImage;

/* Creates a zeroed image that owns its data and row table. Returns NULL when
 * an allocation fails, when width or height is negative, when depth or
 * channels is below 1, or when width * channels * depth, pitch * height or
 * the row table's size does not fit in a signed 32-bit integer. A height of
 * 0 gives an image without rows. Release with release_img. */
HSEG_API Image *createimg(MHandle handle, int32_t width, int32_t height,
                          int32_t depth, int32_t channels);

/* Deep copy of `src` (its pitch is copied, not recomputed). NULL on failure
 * or when src is NULL. Release with release_img. */
HSEG_API Image *cloneimg(MHandle handle, const Image *src);

/* Creates a view over the caller's `buffer` with the caller's pitch taken as
 * given (size = height * pitch). The view owns only its row table; the buffer
 * stays the caller's and must outlive the view. Returns NULL when an
 * allocation fails or height * pitch does not fit in 32 bits. Release with
 * release_img_pesudo. Fixed interface behaviour: the name keeps its
 * spelling. */
HSEG_API Image *createimg_pesudo(MHandle handle, uint8_t *buffer, uint32_t width,
                                 uint32_t height, uint32_t depth,
                                 uint32_t channels, uint32_t pitch);

/* Releases an image from createimg/cloneimg and sets *img to NULL. A NULL
 * `img` or a NULL *img does nothing, so a second release is harmless. */
HSEG_API void release_img(MHandle handle, Image **img);

/* Releases a view from createimg_pesudo and sets *img to NULL; never frees
 * the caller's buffer. The row table is freed only when the view's data
 * pointer is non-NULL. Fixed interface behaviour: a view made over a NULL
 * buffer keeps its row table (the library never makes such views). */
HSEG_API void release_img_pesudo(MHandle handle, Image **img);

/* Zeroes `size` bytes of the image's data when img and its data are
 * non-NULL. Returns img. */
HSEG_API Image *clear_img(Image *img);

/* Network pass */

/* Side of the network's square BGR input, and of each of its score planes. */
#define HSEG_NET_INPUT_SIZE 473
#define HSEG_NET_SCORE_SIZE 60

/* Runs the segmentation network (a pyramid-pooling head on a 101-layer
 * dilated residual backbone) on one 473x473 BGR image and writes its two
 * 60x60 score planes.
 *
 * bgr:      473 rows of 473 pixels, 3 bytes a pixel in B, G, R order; row r
 *           starts at bgr + r * pitch. Read only.
 * pitch:    bytes from one row to the next, at least 1419 (= 3 * 473).
 * scores:   7200 floats: plane 0 (background), then plane 1 (person), each
 *           60x60 row-major. Written only on success, all at once at the end.
 * reserved: not used; pass 0.
 *
 * The weights are the read-only data symbols of libdeeplab_data.so (see
 * docs/weights.md); the library is linked against it, so another build of
 * that library with the same symbols can be swapped in without relinking.
 * The pass takes all its tensors and work buffers as one block of 93 MB,
 * mapped from the system (not MMemAlloc) before its first matrix product
 * and advised for transparent huge pages, and releases it at the end: a
 * process running it peaks near 370 MiB resident, the 263 MB of weights
 * included (keeping every tensor would take 1.5 GB). Where the kernel grants
 * huge pages (transparent_hugepage "madvise" or "always") a pass after the
 * first takes about 50 page faults, elsewhere about 26,000. The matrix
 * products and the work between them run on the library's pool, as many
 * threads as OpenBLAS has, with OpenBLAS held at one thread while a pass
 * runs (its thread count is set back when the last pass ends); the scores
 * do not depend on the number of threads. Calls on different buffers may
 * run at once.
 *
 * Returns HSEG_OK, HSEG_ERR_BAD_ARGUMENT when bgr or scores is NULL or pitch
 * is below 1419, HSEG_ERR_NO_MEMORY when a tensor cannot be allocated, or the
 * status of a layer that failed. On failure everything allocated is released
 * and scores is left untouched. */
HSEG_API MRESULT fr_extract_feature_deeplab_pspnet(const uint8_t *bgr, int32_t pitch,
                                                   float *scores, uint64_t reserved);

/* Segmentation entry */

/* Segments the person in `src` and writes the mask into `dst`: 255 where the
 * person is, 0 for background.
 *
 * The frame is area-averaged and colour-converted to 473x473 BGR, scored by
 * the network (two 60x60 planes), lifted to a 473x473 mask by a dense CRF
 * guided by the colour image, and resized to dst's size by nearest neighbour.
 * Most of a call's memory is the network pass's (see
 * fr_extract_feature_deeplab_pspnet) and the CRF's; Hseg itself adds about
 * 1 MB of working images and one image of dst's size. Fixed interface
 * behaviour: that image, and a view over dst, are allocated and never read,
 * so a mask size that cannot be afforded fails before any work is done.
 *
 * mem:      memory context, handed unchanged to every allocation.
 * src:      the frame, read only. Formats and the planes they read:
 *             HSEG_PIXFMT_BGR24 plane 0, pitch 0 >= 3 * width;
 *             HSEG_PIXFMT_YUY2  plane 0, pitch 0 >= 4 * ((width + 1) / 2);
 *             HSEG_PIXFMT_I420  planes 0, 1, 2: Y with pitch 0 >= width, U
 *                               and V both stepped with pitch 1 >=
 *                               (width + 1) / 2 (pitch 2 is not read, so
 *                               give both chroma planes the same pitch);
 *             HSEG_PIXFMT_NV21  planes 0, 1: Y with pitch 0 >= width, V,U
 *                               pairs with pitch 1 >= 2 * ((width + 1) / 2).
 *           Any other format code gives HSEG_ERR_FORMAT.
 *           The area resize only shrinks: a frame narrower or lower than
 *           473 pixels is not enlarged, and the network then sees a black
 *           image (the call still succeeds). Enlarge such frames first, for
 *           example with zevImageResize_BL.
 * dst:      the mask: width, height, plane 0 and pitch 0 are read (the format
 *           code is not); one byte a pixel is written through plane 0, row r
 *           at plane 0 + r * pitch 0. Bytes between rows are not touched.
 * reserved: not used; pass 0.
 * flags:    not used; pass 0.
 *
 * Returns HSEG_OK, or:
 *   HSEG_ERR_BAD_ARGUMENT  src or dst is NULL, a plane the format needs is
 *                          NULL, a width or height is below 1, or a pitch is
 *                          smaller than the row it must hold. Checked before
 *                          anything is allocated.
 *   HSEG_ERR_FORMAT        src's format code is not one of the four above.
 *   HSEG_ERR_NO_MEMORY     a working buffer could not be allocated (this
 *                          includes an image of dst's size that the call
 *                          reserves, so a dst too large to allocate fails).
 *   HSEG_ERR_TABLE         a frame geometry the area resize cannot handle.
 *   any other status of the network or the CRF, passed up unchanged.
 * On any failure the mask is left as it was: it is written only by the last
 * stage. Nothing is kept between calls; calls on different buffers may run
 * on different threads at once. */
HSEG_API MRESULT Hseg(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                      uint64_t reserved, int32_t flags);

/* Wall-clock seconds spent in each stage of one segmentation call. */
typedef struct HsegStageTimes {
  double resize;       /* area resize and colour conversion to 473x473 */
  double network;      /* network pass and coarse mask */
  double crf;          /* CRF-guided upsampling to the 473x473 mask */
  double final_resize; /* nearest-neighbour resize to dst's size */
  double total;        /* the whole call, allocation and release included */
} HsegStageTimes;

/* Hseg, also reporting how long each stage took in `times` (may be NULL).
 * Results and statuses are exactly those of Hseg. On failure the stages that
 * did not run report 0; `times` is written on every path once the arguments
 * have passed their checks. */
HSEG_API MRESULT HsegTimed(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                           uint64_t reserved, int32_t flags, HsegStageTimes *times);

/* Which network computes the scores. */
#define HSEG_NETWORK_EXACT 0u /* the Hseg arithmetic, bit for bit */
#define HSEG_NETWORK_FAST 1u  /* the same network with every stride-1 3x3
                                 convolution by Winograd minimal filtering
                                 (opt-in; see HsegEx) */

/* Options of HsegEx. Set `size` to sizeof(HsegOptions): the record may grow
 * at its end in later versions, and the library reads only the fields that
 * the caller's size covers (the first version was `size` and `network`, 8
 * bytes). Zero-fill it for the defaults. */
typedef struct HsegOptions {
  uint32_t size;          /* sizeof(HsegOptions) */
  uint32_t network;       /* HSEG_NETWORK_EXACT (default) or HSEG_NETWORK_FAST */
  HsegStageTimes *times;  /* where to report the stage times as HsegTimed
                             does, or NULL (default) */
} HsegOptions;

/* Hseg with options. A NULL `options` means all defaults, which is exactly
 * Hseg.
 *
 * The fast network takes about 0.55 of the exact network's time. Its scores
 * differ from the exact ones by about 1e-5 of their largest magnitude, and
 * the masks agree on more than 99.5% of the pixels; it is never the default.
 * Its transformed filters (643 MB, four times the 3x3 kernels they come
 * from) are made at the first fast call and kept by the process until the
 * library is unloaded; that call takes a few tenths of a second longer.
 * Calls may run at once on different threads, exact and fast alike.
 *
 * Returns HSEG_ERR_BAD_ARGUMENT for an options record whose size is smaller
 * than the first version of the record or whose network is not one of the
 * HSEG_NETWORK_* values (before anything is allocated), HSEG_ERR_NO_MEMORY
 * also when the transformed filters cannot be allocated; otherwise
 * everything Hseg returns. */
HSEG_API MRESULT HsegEx(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                        const HsegOptions *options);

/* Runs the network on the 473x473 BGR image `in` (plane 0, pitch 0) and
 * writes the 60x60 coarse mask to `out`'s plane 0 as 3600 contiguous bytes
 * (row r at offset 60 * r, whatever out's pitch): 255 where the person
 * score beats both the background score and 0, else 0. Precisely, with a the
 * background and b the person score of a cell, 255 when b > max(a, 0), where
 * a NaN a counts as 0 and a NaN b, or b equal to the threshold, gives 0.
 *
 * scores: 7200 floats that receive the two score planes (background, then
 *         person, 60x60 row-major each), or NULL to use a scratch buffer from
 *         the C heap. The mask is computed from the buffer whatever the
 *         network returned, so after a failed pass it reflects what the
 *         buffer held before.
 * mem, reserved, flags: not used.
 * Returns HSEG_ERR_BAD_ARGUMENT, before anything is read or written, unless
 * `in` is HSEG_PIXFMT_BGR24, exactly 473x473, with a plane and pitch 0 >=
 * 1419, and `out` is HSEG_PIXFMT_GRAY, at least 60x60, with a plane and
 * pitch 0 >= its width (so that it holds the 3600 bytes); otherwise the
 * network's status. */
HSEG_API MRESULT FigureNet_il(MHandle mem, const OffscreenImage *in, OffscreenImage *out,
                              uint64_t reserved, float *scores, int32_t flags);

/* Background effects */

/* A frame composited through a person mask with a blurred copy of itself or
 * with another picture: the person stays sharp, the background changes.
 *
 * Common to the functions below:
 * - frame: HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2 (even width),
 *   HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21 or HSEG_PIXFMT_GRAY, with the planes
 *   and pitches Hseg reads for them (I420: each plane with its own pitch).
 * - out: the frame's format and size; the result is written there in that
 *   format, every plane (no conversion through BGR). out may be the frame
 *   itself (the same planes); other overlaps are not allowed. Bytes between
 *   rows are not touched.
 * - mask: any size up to 65536 pixels a side, one byte a pixel through plane
 *   0 and pitch 0 (the format code is not read), 255 person, 0 background,
 *   values between blend. It
 *   is resized bilinearly to the frame and feathered by a Gaussian of
 *   max(1, min(width, height) / 256) pixels, then used as alpha:
 *   out = (frame * a + background * (255 - a) + 127) / 255 per sample, so an
 *   all-255 mask gives the frame and an all-0 mask the background, exactly.
 *   A chroma sample takes the mean alpha of the pixels it covers.
 * - Memory: one work block of about 2 bytes a pixel (plus the blurred frame
 *   when blurring), and the blur's own, all from MMemAlloc(mem, ...) and
 *   released before the call returns; nothing is kept between calls, so a
 *   video loop just calls again for each frame.
 * - Returns HSEG_OK; HSEG_ERR_BAD_ARGUMENT for NULL records, a missing plane,
 *   a size below 1 (or a mask side above 65536), a short pitch, an odd YUY2
 *   width, an out or picture of another size, or a bad effect; HSEG_ERR_FORMAT for a frame format not
 *   listed or an out or picture of another format; HSEG_ERR_NO_MEMORY when
 *   memory fails. Arguments are checked before anything is allocated; on
 *   any failure out is not written. */

/* Blurs the background: the frame blurred with GB_GaussianBlur of `sigma`
 * (pixels; chroma planes at half resolution get sigma / 2 along their
 * halved axes) behind the sharp person. sigma must be finite and above 0. */
HSEG_API MRESULT HsegBlurBackground(MHandle mem, const OffscreenImage *frame,
                                    const OffscreenImage *mask, float sigma,
                                    OffscreenImage *out);

/* Replaces the background with `picture`, which has the frame's format and
 * size. */
HSEG_API MRESULT HsegReplaceBackground(MHandle mem, const OffscreenImage *frame,
                                       const OffscreenImage *mask, const OffscreenImage *picture,
                                       OffscreenImage *out);

#define HSEG_BACKGROUND_BLUR 0u    /* blur the background by `sigma` */
#define HSEG_BACKGROUND_REPLACE 1u /* show `picture` behind the person */

/* An effect for HsegSegmentBackground. Set `size` to
 * sizeof(HsegBackgroundEffect); the record may grow at its end. */
typedef struct HsegBackgroundEffect {
  uint32_t size;
  uint32_t kind;                 /* HSEG_BACKGROUND_BLUR or _REPLACE */
  float sigma;                   /* blur: Gaussian sigma in pixels */
  const OffscreenImage *picture; /* replace: the new background */
} HsegBackgroundEffect;

/* Segments the frame with HsegEx(mem, frame, mask, options) into a 473x473
 * mask (the segmentation's own resolution) and applies `effect` through it:
 * the call most applications want, once per frame. Arguments are checked
 * before the segmentation runs; HsegEx's statuses pass up unchanged (for
 * I420 give both chroma planes the same pitch, as Hseg requires). The
 * segmentation's memory is Hseg's; the effect adds the above. */
HSEG_API MRESULT HsegSegmentBackground(MHandle mem, const OffscreenImage *frame,
                                       const HsegOptions *options,
                                       const HsegBackgroundEffect *effect,
                                       OffscreenImage *out);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_PIPELINE_H_ */
