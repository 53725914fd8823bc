// Splitting a matrix product without changing a bit: over its inner
// dimension, and over its columns across the pass's lanes.
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

// Multiply-adds that a part of a product split over its columns (a band of
// the pass, or a part of net_gemm) has at least. OpenBLAS sends products of up to 100^3 of them to kernels that
// sum K in one run instead of in blocks (on AVX-512 cores), which would round
// a small part differently from the whole product.
inline constexpr double kNetGemmMinPartMacs = 8.0 * (1 << 20);

// While a pass holds one of these with more than one lane, OpenBLAS runs
// every product on the thread that calls it, and the pass runs its products
// on its own lanes, a band's product on each or one product in parts with
// net_gemm: the same lanes then do the products and the work between them.
// OpenBLAS's own workers would otherwise poll for work for about a tenth of
// a second after each product, taking a core from the lanes' work between
// products, and a product handed to them waits for them to wake. OpenBLAS's
// thread count is process-wide: the first holder saves it and sets 1, the
// last one out restores it, so passes may overlap. A program that changes
// it while a pass runs has its change undone when the last pass ends.
class NetBlasLanes {
 public:
  // `lanes` threads for the pass, 0 for as many as OpenBLAS has (counted
  // before any pass set it to 1).
  explicit NetBlasLanes(int lanes);
  ~NetBlasLanes();
  NetBlasLanes(const NetBlasLanes &) = delete;
  NetBlasLanes &operator=(const NetBlasLanes &) = delete;
  int lanes() const { return lanes_; }

 private:
  int lanes_;
  bool serial_;  // holds OpenBLAS at one thread
};

// C = A * B + beta * C (row major, no transposes, alpha 1) on `lanes` lanes
// of the pool: in parts of C's columns cut at multiples of 32, none of fewer
// than kNetGemmMinPartMacs,
// so that each element is computed by the same kernel over the same K
// blocks as in the whole product. One cblas_sgemm when lanes is 1 or the
// product is too small to split.
void net_gemm(int lanes, int m, int n, int k, const float *a, int lda, const float *b, int ldb,
              float beta, float *c, int ldc);

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_GEMM_H_
