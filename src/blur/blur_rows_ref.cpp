// Plain row kernels of the blur library (see blur_rows.h).
#include "blur/blur_rows.h"

namespace hseg {
namespace blur {

Divisor make_divisor(uint32_t n) {
  uint32_t k = 0;
  while ((n >> (k + 1)) != 0) ++k;  // floor(log2 n)
  const uint64_t pow = uint64_t{1} << (32 + k);
  return Divisor{n, (n - 1) / 2, static_cast<uint32_t>((pow + n - 1) / n), k};
}

namespace {

template <typename T>
void vsum(uint32_t *acc, const T *add, const T *sub, int32_t n) {
  for (int32_t i = 0; i < n; ++i) acc[i] += static_cast<uint32_t>(add[i]) - sub[i];
}

template <typename T>
void vsum_norm(uint32_t *acc, const T *add, const T *sub, int32_t n, float scale,
               uint16_t *out) {
  for (int32_t i = 0; i < n; ++i) {
    acc[i] += static_cast<uint32_t>(add[i]) - sub[i];
    out[i] = static_cast<uint16_t>(scale_round(acc[i], scale));
  }
}

template <typename T>
void scan(const T *a, int32_t n, int32_t ch, uint32_t *p) {
  for (int32_t i = 0; i < n; ++i) p[ch + i] = p[i] + a[i];
}

void diff_scan(const uint32_t *hi, const uint32_t *lo, int32_t n, int32_t ch, uint32_t *p) {
  for (int32_t i = 0; i < n; ++i) p[ch + i] = p[i] + (hi[i] - lo[i]);
}

template <typename T>
void diff_div(const uint32_t *hi, const uint32_t *lo, int32_t n, const Divisor &d, T *out) {
  for (int32_t i = 0; i < n; ++i) out[i] = static_cast<T>(divide(hi[i] - lo[i], d));
}

template <typename T>
void diff_norm(const uint32_t *hi, const uint32_t *lo, int32_t n, float scale, T *out) {
  for (int32_t i = 0; i < n; ++i) out[i] = static_cast<T>(scale_round(hi[i] - lo[i], scale));
}

}  // namespace

const RowKernels kRowKernelsRef = {
    vsum<uint8_t>,     vsum<uint16_t>,     vsum_norm<uint8_t>,  vsum_norm<uint16_t>,
    scan<uint16_t>,    scan<uint32_t>,     diff_scan,           diff_div<uint8_t>,
    diff_div<uint16_t>,
    diff_norm<uint8_t>, diff_norm<uint16_t>};

#if defined(HSEG_BLUR_HAVE_X86)
bool cpu_has_avx2() { return __builtin_cpu_supports("avx2"); }

const RowKernels &best_row_kernels() {
  return cpu_has_avx2() ? kRowKernelsAvx2 : kRowKernelsSse2;
}
#else
const RowKernels &best_row_kernels() { return kRowKernelsRef; }
#endif

}  // namespace blur
}  // namespace hseg
