// Cross-channel local response normalisation and channel softmax.
#include <cblas.h>

#include <cmath>
#include <cstring>

#include "hseg/flatnn.h"
#include "flatnn/internal.h"

namespace hseg {
namespace flatnn {

uint64_t lrn_cross_with(const Heap &heap, const float *input, int width, int height,
                        int channels, float *output, int local_size, float alpha, float beta) {
  int64_t plane, count, padded_count;
  if (input == nullptr || output == nullptr || width < 1 || height < 1 || channels < 1 ||
      local_size < 1 || !count_of({width, height}, &plane) ||
      !count_of({channels, plane}, &count) ||
      !count_of({int64_t{channels} + local_size - 1, plane}, &padded_count)) {
    return kBadArgument;
  }
  WorkBuffer scale_buf(heap, static_cast<size_t>(count), false);
  if (scale_buf.data() == nullptr) return kNoMemory;
  WorkBuffer padded_buf(heap, static_cast<size_t>(padded_count), true);
  if (padded_buf.data() == nullptr) return kNoMemory;
  float *scale = scale_buf.data();
  const float *padded = padded_buf.data();
  const int s = static_cast<int>(plane);
  const size_t ss = static_cast<size_t>(plane);

  // Squares, after (local_size - 1)/2 zero planes, so that padded plane
  // c + i is channel c + i - (local_size - 1)/2.
  float *squares = padded_buf.data() + static_cast<size_t>((local_size - 1) / 2) * ss;
  for (int64_t i = 0; i < count; ++i) squares[i] = input[i] * input[i];

  // Window of channel 0: 1 + aos * (padded planes 0 .. local_size-1), in order.
  // Later planes start as a copy of the one before, so only plane 0 needs the 1.
  const float aos = alpha / static_cast<float>(local_size);
  for (size_t i = 0; i < ss; ++i) scale[i] = 1.0f;
  for (int p = 0; p < local_size; ++p) cblas_saxpy(s, aos, padded + p * ss, 1, scale, 1);
  // Slide the window: copy, add the entering plane, then remove the leaving one.
  for (int c = 1; c < channels; ++c) {
    float *cur = scale + c * ss;
    std::memcpy(cur, cur - ss, ss * sizeof(float));
    cblas_saxpy(s, aos, padded + (c + local_size - 1) * ss, 1, cur, 1);
    cblas_saxpy(s, -aos, padded + (c - 1) * ss, 1, cur, 1);
  }
  const double exponent = -beta;
  for (int64_t i = 0; i < count; ++i) {
    output[i] = static_cast<float>(std::pow(static_cast<double>(scale[i]), exponent)) * input[i];
  }
  return kOk;
}

uint64_t softmax_with(const Heap &heap, const float *input, float *output, int count, int num,
                      int channels) {
  if (count < 1) return kOk;
  if (input == nullptr || output == nullptr || num < 1 || channels < 1) return kBadArgument;
  const int inner = count / num / channels;
  if (static_cast<int64_t>(inner) * num * channels != count) return kBadArgument;
  WorkBuffer per_pos(heap, static_cast<size_t>(inner), false);
  if (per_pos.data() == nullptr) return kNoMemory;
  WorkBuffer ones(heap, static_cast<size_t>(channels), false);
  if (ones.data() == nullptr) return kNoMemory;
  for (int c = 0; c < channels; ++c) ones.data()[c] = 1.0f;
  if (input != output) std::memcpy(output, input, static_cast<size_t>(count) * sizeof(float));

  float *m = per_pos.data();
  const size_t block_size = static_cast<size_t>(channels) * inner;
  for (int n = 0; n < num; ++n) {
    float *block = output + n * block_size;
    // Maximum over channels at each position, channel 0 first.
    std::memcpy(m, block, static_cast<size_t>(inner) * sizeof(float));
    for (int c = 1; c < channels; ++c) {
      const float *row = block + static_cast<size_t>(c) * inner;
      for (int k = 0; k < inner; ++k) m[k] = (m[k] < row[k]) ? row[k] : m[k];
    }
    // x - max, then exp in double rounded to float. (The subtraction is what
    // a rank-1 update with alpha -1 computes.)
    for (int c = 0; c < channels; ++c) {
      float *row = block + static_cast<size_t>(c) * inner;
      for (int k = 0; k < inner; ++k) {
        row[k] = static_cast<float>(std::exp(static_cast<double>(row[k] - m[k])));
      }
    }
    // Channel sums in the BLAS's own order of additions.
    cblas_sgemv(CblasRowMajor, CblasTrans, channels, inner, 1.0f, block, inner, ones.data(), 1,
                0.0f, m, 1);
    for (int c = 0; c < channels; ++c) {
      float *row = block + static_cast<size_t>(c) * inner;
      for (int k = 0; k < inner; ++k) row[k] = row[k] / m[k];
    }
  }
  return kOk;
}

}  // namespace flatnn
}  // namespace hseg

using namespace hseg::flatnn;

extern "C" {

uint64_t ly_lrn_cross_float(const float *input, int width, int height, int channels,
                            float *output, int local_size, float alpha, float beta) {
  return lrn_cross_with(c_heap(), input, width, height, channels, output, local_size, alpha,
                        beta);
}

uint64_t ly_softmax(const float *input, float *output, int count, int num, int channels) {
  return softmax_with(c_heap(), input, output, count, num, channels);
}

}  // extern "C"
