// Frozen batch normalisation, rectifiers and element-wise sum and maximum.
#include <cmath>

#include "hseg/flatnn.h"
#include "flatnn/internal.h"

using namespace hseg::flatnn;

namespace {

// Applies op(a[i], b[i]) over width * height * channels elements. Output may
// alias either input: each element is read before it is written.
template <typename Op>
uint64_t elementwise(const float *a, const float *b, int width, int height, int channels,
                     float *output, Op op) {
  int64_t n;
  if (!plain_count({width, height, channels}, &n)) return kBadArgument;
  if (n == 0) return kOk;
  if (a == nullptr || b == nullptr || output == nullptr) return kBadArgument;
  for (int64_t i = 0; i < n; ++i) output[i] = op(a[i], b[i]);
  return kOk;
}

}  // namespace

extern "C" {

// The per-channel values are applied by direct loops over each plane rather
// than spread over a count-sized tensor by rank-1 products: a product with
// 1.0 is exact, so both give the same operands to the same four roundings,
// and this way needs no work memory.
uint64_t ly_bn_frozen(const float *input, float *output, int count, int num, int channels,
                      const float *scale, const float *shift, const float *mean,
                      const float *variance, float eps) {
  if (count < 1) return kOk;
  if (input == nullptr || output == nullptr || scale == nullptr || shift == nullptr ||
      mean == nullptr || variance == nullptr || num < 1 || channels < 1) {
    return kBadArgument;
  }
  const int spatial = count / num / channels;
  if (static_cast<int64_t>(spatial) * num * channels != count) return kBadArgument;
  const float *src = input;
  float *dst = output;
  for (int n = 0; n < num; ++n) {
    for (int c = 0; c < channels; ++c) {
      const float v = variance[c] + eps;  // float addition, then pow in double
      const float inv_std = static_cast<float>(std::pow(static_cast<double>(v), -0.5));
      const float m = mean[c], s = scale[c], b = shift[c];
      for (int i = 0; i < spatial; ++i) {
        const float centred = src[i] - m;
        const float normed = centred * inv_std;
        const float scaled = normed * s;
        dst[i] = scaled + b;
      }
      src += spatial;
      dst += spatial;
    }
  }
  return kOk;
}

uint64_t ly_relu_float(const float *input, float *output, int width, int height,
                       int channels) {
  int64_t n;
  if (!plain_count({width, height, channels}, &n)) return kBadArgument;
  if (n == 0) return kOk;
  if (input == nullptr || output == nullptr) return kBadArgument;
  for (int64_t i = 0; i < n; ++i) {
    const float x = input[i];
    output[i] = (0.0f < x) ? x : 0.0f;
  }
  return kOk;
}

uint64_t ly_prelu(const float *input, float *output, int count, int channels,
                  int channel_shared, const float *slope) {
  if (count < 1) return kOk;
  if (input == nullptr || output == nullptr || slope == nullptr || channels < 1 ||
      count < channels) {
    return kBadArgument;
  }
  const int dim = count / channels;
  const int div = channel_shared ? channels : 1;
  for (int i = 0; i < count; ++i) {
    const float x = input[i];
    const int c = (i / dim) % channels / div;
    const float pos = (0.0f < x) ? x : 0.0f;
    const float neg = (x < 0.0f) ? x : 0.0f;
    output[i] = pos + neg * slope[c];
  }
  return kOk;
}

// (0 + a) + b, element by element: the same two roundings as zeroing the
// output and accumulating a, then b, with unit-alpha AXPYs, in one pass.
uint64_t ly_etlwise_sum(const float *a, const float *b, int width, int height, int channels,
                        float *output) {
  return elementwise(a, b, width, height, channels, output,
                     [](float x, float y) { return (0.0f + x) + y; });
}

// Ties and a NaN in a give b.
uint64_t ly_etlwise_max(const float *a, const float *b, int width, int height, int channels,
                        float *output) {
  return elementwise(a, b, width, height, channels, output,
                     [](float x, float y) { return (x > y) ? x : y; });
}

}  // extern "C"
