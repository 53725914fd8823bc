// Row kernels of the nearest-neighbour resizer, exposed for the tests.
//
// One-channel rows are gathered through the column table (the reference) or,
// on CPUs with SSSE3, sixteen columns at a time with a byte shuffle: when the
// sixteen source bytes a block reads lie within sixteen bytes of the row, one
// load and one shuffle produce the block. That holds for every block of an
// enlargement, which is what the pipeline's mask resize usually is.
#ifndef HSEG_SRC_RESIZE_NEAREST_ROWS_H_
#define HSEG_SRC_RESIZE_NEAREST_ROWS_H_

#include <cstdint>

namespace hseg {

// dst[i] = src[cols[i]] for i < n.
void nearest_gather_c1_ref(const uint8_t *src, const int32_t *cols, int32_t n, uint8_t *dst);

// Shuffle table of the n / 16 whole blocks of a row of n columns: bases[b]
// is the first source byte block b reads, or -1 when the block's bytes do not
// fit one 16-byte load inside a row of src_w bytes; masks[16 * b + j] is
// column 16 * b + j's byte within that load.
inline int32_t nearest_block_count(int32_t n) { return n / 16; }
void nearest_build_shuffle(const int32_t *cols, int32_t n, int32_t src_w, int32_t *bases,
                           uint8_t *masks);

#if defined(__x86_64__) || defined(__i386__)
#define HSEG_NEAREST_HAVE_SHUFFLE 1
// True when the CPU runs the shuffle kernel (checked per call: the library
// keeps no global state of its own).
bool nearest_cpu_has_ssse3();
// The same bytes as nearest_gather_c1_ref; blocks with base -1 and the last
// n % 16 columns go through the reference.
void nearest_gather_c1_ssse3(const uint8_t *src, const int32_t *cols, const int32_t *bases,
                             const uint8_t *masks, int32_t n, uint8_t *dst);
#endif

}  // namespace hseg

#endif  // HSEG_SRC_RESIZE_NEAREST_ROWS_H_
