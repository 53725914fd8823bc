#include "pipeline/net_gemm.h"

#include <cblas.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "pipeline/net_pool.h"

namespace hseg {
namespace {

// Operands large enough to take OpenBLAS's blocked path, as the network's
// products do (small products may go to kernels that do not block K).
constexpr int kTrialM = 96, kTrialN = 96;
// Candidate depths, the one of OpenBLAS's AVX-512 kernels first; a multiple
// of the true depth passes as well.
constexpr int kCandidates[] = {320, 384, 256, 512, 192, 448, 128, 640, 768, 1024};
constexpr int kMaxCandidate = 1024;
constexpr int kTail = 64;

// Parts of a product split over the lanes, per lane: more than one, so that
// a lane that starts late or is slowed leaves its share to the others.
constexpr int kPartsPerLane = 2;
// Parts begin at multiples of this many columns: a multiple of every
// register block of OpenBLAS's single-precision kernels, so that the edge
// of the product falls in the same block as in the whole one.
constexpr int kPartAlign = 32;

std::mutex g_blas_mutex;
int g_blas_holders = 0;  // passes holding OpenBLAS at one thread
int g_blas_threads = 0;  // its thread count before the first of them

// Does a product whose K is 3 * block + kTail, split into K-slices at block
// and 2 * block, give the bits of the whole one? The odd tail checks that the
// last slice balances its end as the whole product does. a is kTrialM x K,
// b is K x kTrialN.
bool splits_exactly(int block, const float *a, const float *b, float *whole, float *split) {
  const int k = 3 * block + kTail;
  cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kTrialM, kTrialN, k, 1.0f, a, k, b,
              kTrialN, 0.0f, whole, kTrialN);
  for (int part = 0; part < 3; ++part)
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kTrialM, kTrialN,
                part < 2 ? block : block + kTail, 1.0f, a + part * block, k,
                b + static_cast<size_t>(part) * block * kTrialN, kTrialN,
                part == 0 ? 0.0f : 1.0f, split, kTrialN);
  return std::memcmp(whole, split, sizeof(float) * kTrialM * kTrialN) == 0;
}

int find_k_block() {
  constexpr size_t kMaxK = 3 * kMaxCandidate + kTail;
  constexpr size_t a_size = kTrialM * kMaxK, b_size = kMaxK * kTrialN, c_size = kTrialM * kTrialN;
  std::unique_ptr<float[]> buffer(new (std::nothrow) float[a_size + b_size + 2 * c_size]);
  if (buffer == nullptr) return 0;
  float *a = buffer.get(), *b = a + a_size, *whole = b + b_size, *split = whole + c_size;
  uint32_t state = 12345;  // values in [-1, 1) with full mantissas, so sums round
  for (size_t i = 0; i < a_size + b_size; ++i) {
    state = state * 1664525u + 1013904223u;
    a[i] = static_cast<float>(static_cast<int32_t>(state)) * (1.0f / 2147483648.0f);
  }
  for (int block : kCandidates)
    if (splits_exactly(block, a, b, whole, split)) return block;
  return 0;
}

}  // namespace

int net_gemm_k_block() {
  static const int block = find_k_block();
  return block;
}

int64_t net_gemm_k_slice_end(int64_t k0, int64_t k, int64_t rows) {
  const int64_t k1 = k0 + rows;
  return k - k1 < 2 * int64_t{net_gemm_k_block()} ? k : k1;
}

NetBlasLanes::NetBlasLanes(int lanes) {
  std::lock_guard<std::mutex> lock(g_blas_mutex);
  const int threads = g_blas_holders > 0 ? g_blas_threads : openblas_get_num_threads();
  lanes_ = lanes > 0 ? lanes : std::max(1, threads);
  serial_ = lanes_ > 1;
  if (!serial_) return;
  if (g_blas_holders++ == 0) {
    g_blas_threads = threads;
    if (threads > 1) openblas_set_num_threads(1);
  }
}

NetBlasLanes::~NetBlasLanes() {
  if (!serial_) return;
  std::lock_guard<std::mutex> lock(g_blas_mutex);
  if (--g_blas_holders == 0 && g_blas_threads > 1) openblas_set_num_threads(g_blas_threads);
}

void net_gemm(int lanes, int m, int n, int k, const float *a, int lda, const float *b, int ldb,
              float beta, float *c, int ldc) {
  const int units = (n + kPartAlign - 1) / kPartAlign;
  const double most = std::min(units, lanes * kPartsPerLane);
  const double macs = static_cast<double>(m) * n * k;
  const int parts = static_cast<int>(std::min(most, macs / kNetGemmMinPartMacs));
  if (lanes <= 1 || parts <= 1) {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1.0f, a, lda, b, ldb, beta, c,
                ldc);
    return;
  }
  net_parallel(lanes, parts, [&](int part) {
    int u0, u1;
    net_split(units, parts, part, &u0, &u1);
    const int j0 = u0 * kPartAlign, j1 = std::min(n, u1 * kPartAlign);
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, j1 - j0, k, 1.0f, a, lda, b + j0, ldb,
                beta, c + j0, ldc);
  });
}

}  // namespace hseg
