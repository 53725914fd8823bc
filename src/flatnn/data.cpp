// Data layers (packed 3-byte pixels to planar floats with a mean taken off),
// scalar normalisation, concatenation, slicing and copies.
#include <cstring>

#include "hseg/flatnn.h"
#include "flatnn/internal.h"

using namespace hseg::flatnn;

namespace {

// Checks shared by the data layers. Sets *nothing when there is nothing to do.
uint64_t check_image(const uint8_t *image, int width, int height, int pitch, const void *mean,
                     const float *output, bool *nothing) {
  *nothing = width < 1 || height < 1;
  if (*nothing) return kOk;
  int64_t count;
  if (image == nullptr || mean == nullptr || output == nullptr ||
      !count_of({3, width, height}, &count) || int64_t{pitch} < 3 * int64_t{width}) {
    return kBadArgument;
  }
  return kOk;
}

// Walks the image row by row, pixel by pixel, and writes byte k of pixel
// (y, x) minus mean(k, i) to plane k, where i = y*width + x.
template <typename Mean>
void split_planes(const uint8_t *image, int width, int height, int pitch, Mean mean,
                  float *output) {
  const size_t plane = static_cast<size_t>(width) * height;
  float *p0 = output, *p1 = output + plane, *p2 = output + 2 * plane;
  for (int y = 0; y < height; ++y) {
    const uint8_t *row = image + static_cast<size_t>(y) * pitch;
    const size_t base = static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      const size_t i = base + x;
      p0[i] = static_cast<float>(row[3 * x]) - mean(0, i);
      p1[i] = static_cast<float>(row[3 * x + 1]) - mean(1, i);
      p2[i] = static_cast<float>(row[3 * x + 2]) - mean(2, i);
    }
  }
}

// A copy of count floats; nothing to do when the two are the same buffer.
uint64_t copy_floats(const float *input, float *output, int count) {
  if (count < 1) return kOk;
  if (input == nullptr || output == nullptr) return kBadArgument;
  if (input != output) std::memmove(output, input, static_cast<size_t>(count) * sizeof(float));
  return kOk;
}

}  // namespace

extern "C" {

uint64_t vb_ly_data_const_mean(const uint8_t *image, int width, int height, int pitch,
                               const float *mean3, float *output) {
  bool nothing;
  const uint64_t st = check_image(image, width, height, pitch, mean3, output, &nothing);
  if (st != kOk || nothing) return st;
  const float m[3] = {mean3[0], mean3[1], mean3[2]};
  split_planes(image, width, height, pitch, [&m](int k, size_t) { return m[k]; }, output);
  return kOk;
}

uint64_t ly_data_const_mean(const uint8_t *image, int width, int height, int pitch,
                            float *output, float mean) {
  bool nothing;
  const uint64_t st = check_image(image, width, height, pitch, &mean, output, &nothing);
  if (st != kOk || nothing) return st;
  split_planes(image, width, height, pitch, [mean](int, size_t) { return mean; }, output);
  return kOk;
}

uint64_t ly_data(const uint8_t *image, int width, int height, int pitch,
                 const float *mean_image, float *output) {
  bool nothing;
  const uint64_t st = check_image(image, width, height, pitch, mean_image, output, &nothing);
  if (st != kOk || nothing) return st;
  const size_t plane = static_cast<size_t>(width) * height;
  split_planes(image, width, height, pitch,
               [mean_image, plane](int k, size_t i) { return mean_image[k * plane + i]; },
               output);
  return kOk;
}

uint64_t ly_data_split_mean_uchar(const uint8_t *input, float *output, int count, float mean,
                                  float scale) {
  if (count < 1) return kOk;
  if (input == nullptr || output == nullptr) return kBadArgument;
  for (int i = 0; i < count; ++i) output[i] = (static_cast<float>(input[i]) - mean) * scale;
  return kOk;
}

uint64_t ly_data_split_mean_float(const float *input, float *output, int count, float mean,
                                  float scale) {
  if (count < 1) return kOk;
  if (input == nullptr || output == nullptr) return kBadArgument;
  for (int i = 0; i < count; ++i) output[i] = (input[i] - mean) * scale;
  return kOk;
}

uint64_t ly_concat_channels_float(const float *input, int a, int b, int c, float *output,
                                  int *offset) {
  int64_t n;
  if (!plain_count({a, b, c}, &n)) return kBadArgument;
  if (n == 0) return kOk;
  if (input == nullptr || output == nullptr || offset == nullptr || *offset < 0 ||
      *offset + n > kMaxCount) {
    return kBadArgument;
  }
  std::memcpy(output + *offset, input, static_cast<size_t>(n) * sizeof(float));
  *offset += static_cast<int>(n);
  return kOk;
}

uint64_t ly_concat_5(const float *in1, int count1, const float *in2, int count2,
                     const float *in3, int count3, const float *in4, int count4,
                     const float *in5, int count5, float *output) {
  const float *in[5] = {in1, in2, in3, in4, in5};
  const int count[5] = {count1, count2, count3, count4, count5};
  int64_t total = 0;
  for (int i = 0; i < 5; ++i) {
    if (count[i] < 1) continue;
    if (in[i] == nullptr) return kBadArgument;
    total += count[i];
  }
  if (total == 0) return kOk;
  if (output == nullptr || total > kMaxCount) return kBadArgument;
  for (int i = 0; i < 5; ++i) {
    if (count[i] < 1) continue;
    std::memcpy(output, in[i], static_cast<size_t>(count[i]) * sizeof(float));
    output += count[i];
  }
  return kOk;
}

uint64_t ly_drop(const float *input, float *output, int count) {
  return copy_floats(input, output, count);
}

uint64_t ly_memory(const float *input, float *output, int count) {
  return copy_floats(input, output, count);
}

uint64_t ly_slice_one2two_with_channel_float(const float *input, int a, int b, int c,
                                             float *out1, float *out2) {
  int64_t n;
  if (!plain_count({a, b, c}, &n)) return kBadArgument;
  if (n == 0) return kOk;
  if (input == nullptr || out1 == nullptr || out2 == nullptr || n % 2 != 0) {
    return kBadArgument;
  }
  const size_t half = static_cast<size_t>(n / 2);
  std::memcpy(out1, input, half * sizeof(float));
  std::memcpy(out2, input + half, half * sizeof(float));
  return kOk;
}

}  // extern "C"
