// Fast logarithms and exponentials for the inner loop of the mean-field
// inference, where a few decimal digits suffice.
#include <cstdint>
#include <cstring>

#include "crf/fast_math.h"
#include "hseg/crf.h"

extern "C" {

float fast_log2(float x) {
  uint32_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  const int32_t exponent = static_cast<int32_t>((bits >> 23) & 255u);
  // Keep sign and mantissa, force the exponent of 1.0: m in [1, 2) for x > 0.
  const uint32_t mbits = (bits & 0x807FFFFFu) + 0x3F800000u;
  float m;
  std::memcpy(&m, &mbits, sizeof m);
  // log2 x = (E - 127) + log2 m ~ (E - 127) + (m - 1): exact at powers of two.
  return static_cast<float>(exponent - 128) + m;
}

float fast_log(float x) { return fast_log2(x) * 0.6931472f; }  // ln 2

float very_fast_exp(float x) { return hseg::crf::exp_neg_poly(x); }

float fast_exp(float x) { return hseg::crf::fast_exp_inline(x); }

}  // extern "C"
