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
// gathered, one-channel rows with a byte shuffle where the CPU has one (see
// nearest_rows.h).
#include <algorithm>
#include <cstddef>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <tmmintrin.h>
#endif

#include "common/checked.h"
#include "hseg/resize.h"
#include "resize/nearest_rows.h"

namespace hseg {

void nearest_gather_c1_ref(const uint8_t *src, const int32_t *cols, int32_t n, uint8_t *dst) {
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

void nearest_build_shuffle(const int32_t *cols, int32_t n, int32_t src_w, int32_t *bases,
                           uint8_t *masks) {
  for (int32_t b = 0; b < nearest_block_count(n); ++b) {
    const int32_t *c = cols + 16 * b;
    const int32_t base = c[0];
    // Columns never decrease, so the block spans c[0] .. c[15].
    const bool fits = c[15] - base < 16 && base + 16 <= src_w;
    bases[b] = fits ? base : -1;
    for (int j = 0; j < 16; ++j) masks[16 * b + j] = fits ? static_cast<uint8_t>(c[j] - base) : 0;
  }
}

#if defined(HSEG_NEAREST_HAVE_SHUFFLE)
bool nearest_cpu_has_ssse3() { return __builtin_cpu_supports("ssse3"); }

__attribute__((target("ssse3"))) void nearest_gather_c1_ssse3(const uint8_t *src,
                                                              const int32_t *cols,
                                                              const int32_t *bases,
                                                              const uint8_t *masks, int32_t n,
                                                              uint8_t *dst) {
  const int32_t blocks = nearest_block_count(n);
  for (int32_t b = 0; b < blocks; ++b) {
    if (bases[b] < 0) {
      nearest_gather_c1_ref(src, cols + 16 * b, 16, dst + 16 * b);
      continue;
    }
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + bases[b]));
    const __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i *>(masks + 16 * b));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 16 * b), _mm_shuffle_epi8(v, m));
  }
  nearest_gather_c1_ref(src, cols + 16 * blocks, n - 16 * blocks, dst + 16 * blocks);
}
#endif

}  // namespace hseg

namespace {

// Source index for destination index d, written for the whole range at once.
// `scale` multiplies each index into the table (the channel count for
// columns). The index stays below src for every d < dst: the numerator is at
// most 2 * dst * src - 2 * src + min - 1, and min - 1 < 2 * src.
void build_index_table(int32_t src, int32_t dst, int32_t scale, int32_t *out) {
  int64_t num = std::min(src, dst) - 1;
  const int64_t step = 2 * int64_t{src};
  const int64_t den = 2 * int64_t{dst};
  for (int32_t d = 0; d < dst; ++d, num += step) out[d] = static_cast<int32_t>(num / den) * scale;
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
  // The work block is at most 4 + 20 / 16 bytes a column (below).
  if (!hseg::mul2_i32_valid(src_width, channels) || !hseg::mul2_i32_valid(dst_width, channels) ||
      !hseg::mul2_i32_valid(dst_width, 6))
    return HSEG_ERR_BAD_ARGUMENT;
  const int32_t src_row_bytes = src_width * channels;
  const int32_t dst_row_bytes = dst_width * channels;
  if (src_pitch < src_row_bytes || dst_pitch < dst_row_bytes) return HSEG_ERR_BAD_ARGUMENT;
  if (dst_height < 1) return HSEG_OK;

  // One block: the column table, then for one channel the shuffle table
  // (a base and 16 mask bytes per whole block of 16 columns).
  const int32_t blocks = channels == 1 ? hseg::nearest_block_count(dst_width) : 0;
  auto *cols = static_cast<int32_t *>(MMemAlloc(mem, dst_width * 4 + blocks * 20));
  if (cols == nullptr) return HSEG_ERR_NO_MEMORY;
  build_index_table(src_width, dst_width, channels, cols);

  // How a one-channel row is gathered, chosen once for the call.
  auto gather_c1 = [&](const uint8_t *in, uint8_t *out) {
    hseg::nearest_gather_c1_ref(in, cols, dst_width, out);
  };
#if defined(HSEG_NEAREST_HAVE_SHUFFLE)
  int32_t *bases = cols + dst_width;
  auto *masks = reinterpret_cast<uint8_t *>(bases + blocks);
  const bool shuffle = blocks > 0 && hseg::nearest_cpu_has_ssse3();
  if (shuffle) hseg::nearest_build_shuffle(cols, dst_width, src_width, bases, masks);
  auto gather_shuffled = [&](const uint8_t *in, uint8_t *out) {
    if (shuffle) {
      hseg::nearest_gather_c1_ssse3(in, cols, bases, masks, dst_width, out);
    } else {
      gather_c1(in, out);
    }
  };
#else
  auto &gather_shuffled = gather_c1;
#endif

  // Rows are walked with the same rule as columns, incrementally.
  int64_t num = std::min(src_height, dst_height) - 1;
  const int64_t step = 2 * int64_t{src_height};
  const int64_t den = 2 * int64_t{dst_height};
  const bool same_width = src_width == dst_width;  // the column table is the identity
  int64_t prev_sy = -1;
  const uint8_t *prev_row = nullptr;
  for (int32_t dy = 0; dy < dst_height; ++dy, num += step) {
    const int64_t sy = num / den;
    uint8_t *out = dst + static_cast<ptrdiff_t>(dy) * dst_pitch;
    if (sy == prev_sy) {
      std::memcpy(out, prev_row, static_cast<size_t>(dst_row_bytes));
    } else {
      const uint8_t *in = src + static_cast<ptrdiff_t>(sy) * src_pitch;
      if (same_width) {
        std::memcpy(out, in, static_cast<size_t>(dst_row_bytes));
      } else if (channels == 1) {
        gather_shuffled(in, out);
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
