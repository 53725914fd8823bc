// Splitting a matrix product over its inner dimension without changing a bit.
//
// OpenBLAS sums every element of C = A * B over K in blocks of a fixed depth
// (its GEMM "Q", chosen per CPU; 320 for single precision on AVX-512 cores),
// each block in registers from zero, and adds each block's sum to C in turn;
// where less than two whole blocks remain at the end of K, the rest is cut
// into two near-equal blocks. A product split over K at multiples of the depth,
// the parts after the first with beta = 1, therefore gives exactly the bits
// of the whole product, and needs only a K-slice of B at a time. The depth is
// not part of OpenBLAS's interface, so it is found by trial.
#ifndef HSEG_SRC_PIPELINE_NET_GEMM_H_
#define HSEG_SRC_PIPELINE_NET_GEMM_H_

#include <cstdint>

namespace hseg {

// A K-slice size `block` at whose multiples a cblas_sgemm (row major, no
// transposes) may be split, the last split at least 2 * block before the end
// of K, with the bits of the whole product: the first of a list of likely
// depths for which a product split in three matches the whole one on
// pseudo-random operands. 0 when none matches (or the 2.4 MB of operands of
// the trial cannot be had): products are then not split. Found at the first
// call and kept for the process; thread-safe.
int net_gemm_k_block();

// The end of the K-slice that begins at the split point k0 of a product of
// depth k cut in slices of `rows`, a multiple of net_gemm_k_block(): k0 +
// rows, or k where less than two blocks would be left after it.
int64_t net_gemm_k_slice_end(int64_t k0, int64_t k, int64_t rows);

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_GEMM_H_
