// Argument checks and small helpers shared by the image toolkit's families.
#ifndef HSEG_SRC_UBO_LIB_TOOLKIT_H_
#define HSEG_SRC_UBO_LIB_TOOLKIT_H_

#include <climits>
#include <cstddef>
#include <cstdint>

#include "hseg/imgproc.h"

namespace hseg {
namespace ubo {

// Channel sets for check_image: bit c stands for c channels.
constexpr uint32_t kAnyChannels = ~1u;
constexpr uint32_t kOneChannel = 1u << 1;
constexpr uint32_t kUpToFourChannels = 0x1Eu;  // 1, 2, 3 or 4

// Bytes of one row's samples; the caller has checked that they fit.
inline size_t row_bytes(const Image &img) {
  return size_t{img.width} * img.channels * (img.depth / 8);
}

// Status of an image argument: 2 when it is missing, empty, misaligned for
// its sample size or its pitch cannot hold a row; 3 when its depth is not
// `depth` (8, 16 or 32) or its channel count is not in `channels`.
inline MRESULT check_image(const Image *img, uint32_t depth, uint32_t channels) {
  if (img == nullptr || img->data == nullptr || img->width < 1 || img->height < 1 ||
      img->width > INT32_MAX || img->height > INT32_MAX)
    return HSEG_ERR_BAD_ARGUMENT;
  if (img->depth != depth || img->channels >= 32 || (channels >> img->channels & 1u) == 0)
    return HSEG_ERR_FORMAT;
  const uint64_t bytes = uint64_t{img->width} * img->channels * (depth / 8);
  const uintptr_t align = depth / 8 - 1;
  if (bytes > img->pitch || (img->pitch & align) != 0 ||
      (reinterpret_cast<uintptr_t>(img->data) & align) != 0)
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

// check_image for an image of depth 8, 16 or 32, whichever it has.
inline MRESULT check_image_any_depth(const Image *img, uint32_t channels) {
  if (img != nullptr && img->depth != 8 && img->depth != 16 && img->depth != 32)
    return HSEG_ERR_FORMAT;
  return check_image(img, img == nullptr ? 8 : img->depth, channels);
}

// Status of a source/destination pair: each as check_image says, then 2
// unless both have the same size and the same channel count.
inline MRESULT check_pair(const Image *src, uint32_t src_depth, const Image *dst,
                          uint32_t dst_depth, uint32_t channels) {
  MRESULT s = check_image(src, src_depth, channels);
  if (s == HSEG_OK) s = check_image(dst, dst_depth, channels);
  if (s != HSEG_OK) return s;
  if (src->width != dst->width || src->height != dst->height || src->channels != dst->channels)
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

template <typename T = uint8_t>
inline T *row_of(const Image &img, int64_t y) {
  return reinterpret_cast<T *>(img.data + static_cast<ptrdiff_t>(y) * img.pitch);
}

// Index of the sample that reflection without repeating the edge puts at
// position i of a line of n samples (n >= 1): ..., 2, 1 | 0, 1, ..., n - 1 |
// n - 2, ...; the pattern repeats with period 2 * (n - 1).
inline int32_t reflect101(int64_t i, int32_t n) {
  if (n == 1) return 0;
  const int64_t period = 2 * int64_t{n - 1};
  i %= period;
  if (i < 0) i += period;
  return static_cast<int32_t>(i < n ? i : period - i);
}

}  // namespace ubo
}  // namespace hseg

#endif  // HSEG_SRC_UBO_LIB_TOOLKIT_H_
