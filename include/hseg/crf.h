/*
 * Dense CRF refinement: lattice hash table, permutohedral lattice, lattice
 * filter, fast exponentials, dense CRF and the CRF-guided upsampling.
 *
 * Records are plain structures, usually on the caller's stack, set up and torn
 * down by paired init and release functions. A release function accepts a
 * record that was never set up (zero-filled) or was already released, and
 * must be called after a failed set-up too. All memory goes through
 * MMemAlloc/MMemFree with the memory context stored in the record (or given
 * to the call). No function keeps a pointer to its arguments after it
 * returns, except that a record keeps its own arrays.
 *
 * Statuses: 0 success; 2 bad argument (documented per function: null
 * pointers, sizes below 1, size products that do not fit, lattice
 * coordinates outside the 16-bit key range, mismatched image sizes); 3 an
 * image descriptor with the wrong pixel-format code; 4 out of memory, or a
 * null record given to a set-up or release function; 5 a key absent from the
 * lattice hash table.
 */
#ifndef HSEG_CRF_H_
#define HSEG_CRF_H_

#include <stdint.h>

#include "hseg/pipeline.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================== */
/* Lattice hash table                                                        */
/* ======================================================================== */

/* Maps a key of `key_length` 16-bit components to a dense entry index 0, 1,
 * 2, ... given out in order of first insertion. Open addressing with linear
 * probing; the slots hold entry indices and the keys live in one array
 * indexed by entry (entry e at keys[e * key_length]).
 *
 * Hash: h = 0; for each component c (sign-extended to 32 bits),
 * h = (h + c) * 1664525 modulo 2^32; home slot h % slot_count. Before every
 * lookup the table doubles when 2 * filled >= slot_count, so it is never
 * more than half full and `keys` has room for slot_count / 2 + 10 keys. */
typedef struct LatticeHash {
  MHandle handle;
  uint32_t key_length; /* 16-bit components per key */
  uint32_t filled;     /* entries inserted; the next entry gets this index */
  uint32_t slot_count;
  int16_t *keys;       /* entry e: keys[e * key_length .. + key_length - 1] */
  int32_t *slots;      /* -1 = empty, otherwise an entry index */
} LatticeHash;

/* Sets up an empty table with 2 * capacity slots. Status 4 when `table` is
 * null or an allocation fails (the table is then released); 2 when capacity
 * is 0 or the slot table or key array would not fit in a signed 32-bit byte
 * count. Release with phash_release in any case. */
HSEG_API MRESULT phash_init(MHandle handle, LatticeHash *table, uint32_t key_length,
                            uint32_t capacity);

/* Frees both arrays and zeroes the record. 4 for a null table, else 0. */
HSEG_API MRESULT phash_release(LatticeHash *table);

/* Forgets every entry (filled = 0, all slots empty); the key array is kept.
 * 4 when the table has no slot table (null or never set up). */
HSEG_API MRESULT phash_reset(LatticeHash *table);

/* Looks `key` up (key_length components). Found: *out_index = its entry
 * index, status 0. Absent with create != 0: inserted as entry `filled`,
 * *out_index = that index, status 0. Absent with create == 0: *out_index =
 * 0xFFFFFFFF and status 5, nothing changes. Status 4 when the table is null,
 * has no arrays (never set up, or left unusable by a failed grow) or must
 * grow and cannot; 2 when key or out_index is null. */
HSEG_API MRESULT phash_find(LatticeHash *table, const int16_t *key, uint32_t create,
                            uint32_t *out_index);

/* Doubles the slot count and rehashes; entry indices do not change. Called
 * by phash_find. On a failed allocation it frees the old arrays, leaves the
 * record holding the new (possibly null) arrays and returns 4: the table is
 * then unusable and must be released. When the doubled table would not fit
 * 32-bit byte counts it returns 4 and leaves the table as it was. */
HSEG_API MRESULT phash_grow(LatticeHash *table);

/* ======================================================================== */
/* Permutohedral lattice                                                     */
/* ======================================================================== */

/* Largest feature dimension d that the lattice accepts. */
#define HSEG_LATTICE_MAX_DIM 16

/* Gaussian filtering of N points with d features in time linear in N: each
 * point is splatted onto the d + 1 vertices of its enclosing simplex of the
 * permutohedral lattice, the lattice is blurred with (0.5, 1, 0.5) along its
 * d + 1 directions, and the result is sliced back at the points. */
typedef struct PermutohedralLattice {
  MHandle handle;
  uint32_t *offsets;    /* N * (d + 1): lattice point of vertex r of point k at k*(d+1)+r */
  float *weights;       /* N * (d + 1): barycentric weight of that vertex */
  uint32_t *neighbours; /* (d + 1) * M pairs: pair j*M+i = (minus, plus) neighbour of
                           lattice point i along direction j, 0xFFFFFFFF if absent */
  int32_t point_count;   /* N */
  int32_t lattice_count; /* M, distinct lattice points touched */
  int32_t dim;           /* d */
} PermutohedralLattice;

/* Builds the lattice over `features`, N rows of d floats. Features are
 * positions already divided by their standard deviations.
 * Status 0; 4 for a null lattice or a failed allocation (everything is freed
 * and the record cleared); 2 when features is null, d is outside
 * 1 .. HSEG_LATTICE_MAX_DIM, N is 0 or above INT32_MAX, N * (d + 1) entries
 * do not fit the 32-bit sizes of the arrays, or a feature is not finite or so
 * large that a lattice coordinate (or a neighbour's) leaves the signed 16-bit
 * key range (features of a few thousand standard deviations: about 3500
 * for d = 5 and 10000 for d = 2 when all features are equal). */
HSEG_API MRESULT permhd_init(MHandle handle, PermutohedralLattice *lattice,
                             const float *features, uint32_t d, uint32_t N);

/* Filters vd values per point: splats input rows in_offset .. in_offset +
 * in_size - 1 (read from in[0 ..]), blurs, and slices output rows out_offset
 * .. out_offset + out_size - 1 into out[0 ..]. A size of -1 means up to the
 * last point. `out` may equal `in` (every input is read before any output is
 * written). Allocates two buffers of (M + 2) * vd floats for the call.
 * Status 0; 4 on a failed allocation; 2 when lattice, in or out is null, the
 * lattice is not built, vd is 0, (M + 2) * vd floats do not fit a 32-bit byte
 * count, or a row range leaves 0 .. N - 1. */
HSEG_API MRESULT permhd_compute(const PermutohedralLattice *lattice, float *out,
                                const float *in, uint32_t vd, uint32_t in_offset,
                                uint32_t out_offset, int32_t in_size, int32_t out_size);

/* Frees the arrays and zeroes the record; 0 (4 for a null lattice). */
HSEG_API MRESULT permhd_release(PermutohedralLattice *lattice);

/* ======================================================================== */
/* Lattice filter and fast exponentials                                      */
/* ======================================================================== */

/* A normalised, weighted Gaussian kernel over one lattice: one per pairwise
 * potential of the CRF. */
typedef struct LatticeFilter {
  MHandle handle;
  PermutohedralLattice lattice;
  uint32_t point_count; /* N */
  float weight;         /* Potts weight */
  float *norm;          /* N per-point normalisation factors */
} LatticeFilter;

/* Builds the lattice over `features` (N rows of d floats) and the per-point
 * normalisation: the lattice filters a vector of ones; with normalisation != 0
 * norm[i] = 1 / (filtered[i] + 1e-20), with 0 every norm is N / (sum of the
 * filtered values). Status 0; 4 for a null filter or a failed allocation;
 * otherwise the lattice's status. A partly built filter is not freed here:
 * call ppil_release in any case. */
HSEG_API MRESULT ppil_init(MHandle handle, LatticeFilter *filter, const float *features,
                           uint32_t d, uint32_t N, uint32_t normalisation, float weight);

/* Adds weight * norm[i] * (filtered in)[i*vd + c] to out[i*vd + c] for all
 * N points; out is accumulated into, never assigned. tmp is the caller's
 * scratch of N * vd floats. Status 0, the lattice's status, or 2 when a
 * pointer is null or the filter is not built. */
HSEG_API MRESULT ppil_apply(const LatticeFilter *filter, float *out, const float *in,
                            float *tmp, uint32_t vd);

/* Releases the lattice and norm and zeroes the record; 0 (4 for null). */
HSEG_API MRESULT ppil_release(LatticeFilter *filter);

/* Piecewise-linear log2, exact at powers of two: (E - 128) + m with E the
 * exponent field and m the mantissa taken as a number in [1, 2). */
HSEG_API float fast_log2(float x);
/* fast_log2(x) * ln 2. */
HSEG_API float fast_log(float x);
/* Degree-7 polynomial for e^-x on small non-negative x (|x| <= 0.69). */
HSEG_API float very_fast_exp(float x);
/* About e^x: 0 when |x| > 20 (for either sign), otherwise the argument is
 * halved into [0, 0.69] by up to a few exact power-of-two scalings, the
 * polynomial is evaluated and squared back. Worst relative error over
 * [-20, 0] is about 6e-6 (near -19.6, after five squarings). */
HSEG_API float fast_exp(float x);

/* ======================================================================== */
/* Dense CRF                                                                 */
/* ======================================================================== */

/* Most pairwise potentials a CRF holds. */
#define HSEG_CRF_MAX_POTENTIALS 8

/* Fully connected CRF over N pixels with M labels, Potts potentials on
 * Gaussian kernels, mean-field inference. Arrays of N * M floats are
 * pixel-major: label l of pixel i at i*M + l. Pixel i of a 2-D grid is
 * (i % width, i / width). */
typedef struct DenseCrf {
  MHandle handle;
  int32_t pixel_count; /* N */
  int32_t label_count; /* M */
  int32_t width;       /* grid size, set by crf_init2d (0 after crf_init) */
  int32_t height;
  float *unary;            /* N*M energies, filled by the caller */
  float *additional_unary; /* N*M, zeroed at init, subtracted with the unary */
  float *marginals;        /* N*M, current Q */
  float *next;             /* N*M, per-iteration accumulator */
  float *filter_scratch;   /* 2*N*M floats, or more: the work buffers of the
                              potentials' filtering, sized by the add
                              operations so that the inference takes none */
  LatticeFilter potentials[HSEG_CRF_MAX_POTENTIALS];
  int32_t potential_count;
  float *pixel_scratch;    /* N + 10, per-pixel scratch of the normalisation */
} DenseCrf;

/* Sets up a CRF of N pixels and M labels (unary left for the caller to fill).
 * Status 0; 4 for a null crf or a failed allocation (the CRF is released);
 * 2 when N or M is 0, N exceeds INT32_MAX or 2 * N * M floats do not fit a
 * 32-bit byte count. Release with crf_release in any case. */
HSEG_API MRESULT crf_init(MHandle handle, DenseCrf *crf, uint64_t N, uint32_t M);

/* crf_init over a width x height grid. 2 also when width or height is below
 * 1 or width * height overflows. */
HSEG_API MRESULT crf_init2d(MHandle handle, DenseCrf *crf, int32_t width, uint32_t height,
                            uint32_t M);

/* Adds a smoothness potential: features (x / sx, y / sy) per pixel, Potts
 * weight `weight`. Needs a grid CRF (crf_init2d). The potential's filter and
 * everything its filtering will need in the inference are allocated here:
 * features far apart (tiny sx, sy) touch more lattice points than there are
 * pixels, and the filter scratch then grows to hold their work buffers.
 * Status 0; 4 on a failed allocation; 2 for a null or non-grid CRF, a ninth
 * potential, or features outside the lattice's range (sx or sy zero, not
 * finite, or tiny); else the filter's status. On failure the CRF is left as
 * it was. */
HSEG_API MRESULT crf_add_gaussian_potts(DenseCrf *crf, float sx, float sy, float weight);

/* Adds an appearance potential: features (x / sx, y / sy, b0 / s0, b1 / s1,
 * b2 / s2) where b0, b1, b2 are the three bytes of pixel (x, y) at
 * image + y * pitch + 3 * x (blue, green, red for a BGR image). Status as for
 * crf_add_gaussian_potts; 2 also when image is null or pitch < 3 * width. */
HSEG_API MRESULT crf_add_bilateral_potts(DenseCrf *crf, const uint8_t *image, int32_t pitch,
                                         float sx, float sy, float s0, float s1, float s2,
                                         float weight);

/* Mean-field inference from the unary: `iterations` updates (none when
 * below 1, leaving the softmax of -unary), each mixing the new marginals
 * with the old by `relaxation` (1.0 replaces them). It takes no memory (the
 * set-up took it all), so it cannot run out. A potential whose filtering
 * fails all the same (a record edited by hand) makes that iteration keep
 * the old marginals; this is not reported (fixed interface behaviour: such
 * a failure never changes the status). Status 0; 2 for a null or unset
 * CRF. */
HSEG_API MRESULT crf_inference(DenseCrf *crf, int32_t iterations, float relaxation);

/* Writes per pixel the label with the largest marginal (the first on ties)
 * and, when confidence is non-null, that marginal. Status 0; 2 for a null or
 * unset CRF, null labels, or more than 256 labels. */
HSEG_API MRESULT crf_map2du(const DenseCrf *crf, uint8_t *labels, float *confidence);

/* Frees every array, releases the potentials and zeroes the record; 0 (4 for
 * a null crf). */
HSEG_API MRESULT crf_release(DenseCrf *crf);

/* ======================================================================== */
/* CRF-guided upsampling and refinement                                      */
/* ======================================================================== */

/* Parameters of DCR_Upsampling2 and DCR_DepthRefine, fields in this order. */
typedef struct UpsamplingParams {
  float smooth_sx;     /* 3.0: smoothness kernel, spatial std dev in x (pixels) */
  float smooth_sy;     /* 3.0 */
  float smooth_weight; /* 3.0: Potts weight of the smoothness kernel */
  float appear_sx;     /* 60.0: appearance kernel, spatial std dev in x */
  float appear_sy;     /* 60.0 */
  float colour_s0;     /* 20.0: std dev of the first byte (blue) */
  float colour_s1;     /* 20.0: second byte (green) */
  float colour_s2;     /* 20.0: third byte (red) */
  float appear_weight; /* 8.0: Potts weight of the appearance kernel */
  int32_t iterations;  /* 10: mean-field iterations */
  float relaxation;    /* 1.0: mixing factor of each update */
} UpsamplingParams;

/* Fills `params` with the defaults above and returns it (NULL for NULL). */
HSEG_API UpsamplingParams *ParamUpsampling2(UpsamplingParams *params);

/* Lifts two coarse score planes to a binary mask of the guide's size that
 * follows the guide's edges.
 *
 * scores: 2 * sw * sh floats, plane 0 (background) then plane 1 (person),
 * row-major; probabilities or non-negative scores (negative and NaN count as
 * probability 0). guide: BGR (format 0x201), plane 0 and pitch 0 read.
 * output: one byte per pixel (format 0x701) of the guide's width and height,
 * written through plane 0 and pitch 0: 255 where the person label wins, 0
 * elsewhere.
 *
 * The unary -ln(p + 0.00001) is lifted bilinearly in 8.8 fixed point; a
 * lifted value is 0 when any of its four coarse samples is exactly 0. The
 * samples below the last coarse row of plane 1 come from one spare row that
 * repeats that last row (and one value past it that repeats the row's first
 * value), so the bottom output rows are decided by real scores.
 *
 * The lift only enlarges: the coarse grid may be at most as wide and as
 * tall as the guide (sw <= guide width, sh <= guide height).
 *
 * Status 0; 4 on a failed allocation; 2 for null pointers or planes, sizes
 * below 1, output size different from the guide's, a guide pitch below
 * 3 * width or an output pitch below width, a coarse grid wider or taller
 * than the guide, coarse sizes whose planes do not fit 32-bit byte counts or
 * whose 8.8 steps would reach past them; 3 when
 * the guide is not 0x201 or the output not 0x701; otherwise the first
 * failing CRF status. The output is written only on success. */
HSEG_API MRESULT DCR_Upsampling2(MHandle handle, const OffscreenImage *guide,
                                 const UpsamplingParams *params, const float *scores,
                                 uint32_t sw, int32_t sh, OffscreenImage *output);

/* Cleans up a label image (up to 256 distinct byte values) along the guide's
 * edges with a dense CRF whose unary comes from a per-pixel confidence:
 * with c = confidence / 255 raised to at least 1/12, the pixel's own label
 * gets -ln(c) and every other label -ln((1 - c) / (M - 1)). Adds the
 * smoothness kernel when smooth_weight > 0 and the appearance kernel when
 * appear_weight > 0, then runs 10 iterations with relaxation 1 (the block's
 * iterations and relaxation are not read). The CRF is built on the default
 * memory context (0), not on `handle`. Fixed interface behaviour: `handle`,
 * the block's iterations and relaxation, and the label, confidence and
 * output pitches are not used.
 *
 * guide: BGR (0x201), plane 0 and pitch 0. labels, confidence, output:
 * one-byte descriptors (0x701) of the guide's size whose plane 0 is read or
 * written as tightly packed rows (stride = width, pitch ignored).
 * Status 0; 2 for null pointers or planes, sizes below 1 or overflowing,
 * sizes different from the guide's, a guide pitch below 3 * width, or a label
 * image with fewer than two distinct values; 3 for wrong format codes; 4 on
 * a failed allocation; otherwise the first failing CRF status. */
HSEG_API MRESULT DCR_DepthRefine(MHandle handle, const UpsamplingParams *params,
                                 const OffscreenImage *guide, const OffscreenImage *labels,
                                 const OffscreenImage *confidence, OffscreenImage *output);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_CRF_H_ */
