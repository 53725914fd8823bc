// Nearest-neighbour resize of 8-bit images with one or three channels.
//
// Destination index d reads source index (min(src, dst) - 1 + 2 * d * src) /
// (2 * dst). The numerator grows by 2 * src per step and is kept in 64 bits:
// for large images 2 * d * src passes 2^31 long before any size does.
//
// This is the segmentation pipeline's last step (473 x 473 mask to the
// caller's size, usually an enlargement), so the row loop does the least it
// can: a destination row that reads the same source row as the previous one
// is a copy of that row, and only rows that read a new source row are
// gathered through the column table.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "common/checked.h"
#include "hseg/resize.h"

namespace {

// Source index for destination index d, written for the whole range at once.
// `scale` multiplies each index into the table (the channel count for
// columns).
void build_index_table(int32_t src, int32_t dst, int32_t scale, int32_t *out) {
  int64_t num = std::min(src, dst) - 1;
  const int64_t step = 2 * int64_t{src};
  const int64_t den = 2 * int64_t{dst};
  for (int32_t d = 0; d < dst; ++d, num += step) {
    int64_t s = num / den;
    if (s >= src) s -= 1;  // cannot happen for d < dst; kept as a guard
    out[d] = static_cast<int32_t>(s) * scale;
  }
}

void gather_row_c1(const uint8_t *src, const int32_t *cols, int32_t n, uint8_t *dst) {
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const uint8_t a = src[cols[i]];
    const uint8_t b = src[cols[i + 1]];
    const uint8_t c = src[cols[i + 2]];
    const uint8_t d = src[cols[i + 3]];
    dst[i] = a;
    dst[i + 1] = b;
    dst[i + 2] = c;
    dst[i + 3] = d;
  }
  for (; i < n; ++i) dst[i] = src[cols[i]];
}

void gather_row_c3(const uint8_t *src, const int32_t *cols, int32_t n, uint8_t *dst) {
  for (int32_t i = 0; i < n; ++i, dst += 3) {
    const uint8_t *p = src + cols[i];
    dst[0] = p[0];
    dst[1] = p[1];
    dst[2] = p[2];
  }
}

}  // namespace

extern "C" HSEG_API MRESULT zevImageResize_NN(MHandle mem, const uint8_t *src, int32_t src_pitch,
                                              int32_t src_width, int32_t src_height, uint8_t *dst,
                                              int32_t dst_pitch, int32_t dst_width,
                                              int32_t dst_height, int32_t channels) {
  if (src == nullptr || dst == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  if (src_width < 1 || src_height < 1 || dst_width < 1) return HSEG_ERR_BAD_ARGUMENT;
  if (channels != 1 && channels != 3) return HSEG_OK;  // nothing to do for other layouts
  if (!hseg::mul2_i32_valid(src_width, channels) || !hseg::mul2_i32_valid(dst_width, channels) ||
      !hseg::mul2_i32_valid(dst_width, 4))
    return HSEG_ERR_BAD_ARGUMENT;
  const int32_t src_row_bytes = src_width * channels;
  const int32_t dst_row_bytes = dst_width * channels;
  if (src_pitch < src_row_bytes || dst_pitch < dst_row_bytes) return HSEG_ERR_BAD_ARGUMENT;
  if (dst_height < 1) return HSEG_OK;

  auto *cols = static_cast<int32_t *>(MMemAlloc(mem, dst_width * 4));
  if (cols == nullptr) return HSEG_ERR_NO_MEMORY;
  build_index_table(src_width, dst_width, channels, cols);

  // Rows are walked with the same rule as columns, incrementally.
  int64_t num = std::min(src_height, dst_height) - 1;
  const int64_t step = 2 * int64_t{src_height};
  const int64_t den = 2 * int64_t{dst_height};
  const bool same_width = src_width == dst_width;  // the column table is the identity
  int64_t prev_sy = -1;
  const uint8_t *prev_row = nullptr;
  for (int32_t dy = 0; dy < dst_height; ++dy, num += step) {
    int64_t sy = num / den;
    if (sy >= src_height) sy -= 1;
    uint8_t *out = dst + static_cast<ptrdiff_t>(dy) * dst_pitch;
    if (sy == prev_sy) {
      std::memcpy(out, prev_row, static_cast<size_t>(dst_row_bytes));
    } else {
      const uint8_t *in = src + static_cast<ptrdiff_t>(sy) * src_pitch;
      if (same_width) {
        std::memcpy(out, in, static_cast<size_t>(dst_row_bytes));
      } else if (channels == 1) {
        gather_row_c1(in, cols, dst_width, out);
      } else {
        gather_row_c3(in, cols, dst_width, out);
      }
      prev_sy = sy;
    }
    prev_row = out;
  }
  MMemFree(mem, cols);
  return HSEG_OK;
}
