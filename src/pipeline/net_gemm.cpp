#include "pipeline/net_gemm.h"

#include <cblas.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

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

}  // namespace hseg
