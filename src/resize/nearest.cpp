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

// Source index of destination index d = 0, 1, 2, ... in turn, for columns
// and rows alike. (min - 1 + 2 * d * src) / (2 * dst) stays below src for
// every d < dst: the numerator is at most 2 * dst * src - 2 * src + min - 1,
// and min - 1 < 2 * src.
class SourceIndex {
 public:
  SourceIndex(int32_t src, int32_t dst)
      : num_(std::min(src, dst) - 1), step_(2 * int64_t{src}), den_(2 * int64_t{dst}) {}
  int32_t next() {
    const int64_t s = num_ / den_;
    num_ += step_;
    return static_cast<int32_t>(s);
  }

 private:
  int64_t num_;
  const int64_t step_, den_;
};

// The column table: source index times `scale` (the channel count).
void build_index_table(int32_t src, int32_t dst, int32_t scale, int32_t *out) {
  SourceIndex index(src, dst);
  for (int32_t d = 0; d < dst; ++d) out[d] = index.next() * scale;
}

void gather_row_c3(const uint8_t *src, const int32_t *cols, int32_t n, uint8_t *dst) {
  for (int32_t i = 0; i < n; ++i, dst += 3) {
    const uint8_t *p = src + cols[i];
    dst[0] = p[0];
    dst[1] = p[1];
    dst[2] = p[2];
  }
}

// How the rows of one call are gathered, chosen once: a copy when the widths
// match (the column table is the identity), three bytes a column for three
// channels, and for one the byte shuffle where the CPU has it, else the
// reference.
struct RowGather {
  const int32_t *cols;
  int32_t width, channels;
  bool same_width;
  const int32_t *bases;  // shuffle table, when `shuffle`
  const uint8_t *masks;
  bool shuffle;

  void operator()(const uint8_t *in, uint8_t *out) const {
    if (same_width) {
      std::memcpy(out, in, static_cast<size_t>(width) * channels);
    } else if (channels == 3) {
      gather_row_c3(in, cols, width, out);
#if defined(HSEG_NEAREST_HAVE_SHUFFLE)
    } else if (shuffle) {
      hseg::nearest_gather_c1_ssse3(in, cols, bases, masks, width, out);
#endif
    } else {
      hseg::nearest_gather_c1_ref(in, cols, width, out);
    }
  }
};

// Fills the work block (the column table, then for one channel the shuffle
// table of `blocks` whole blocks of 16 columns: a base and 16 mask bytes
// each) and says how rows are gathered from it.
RowGather make_row_gather(int32_t *block, int32_t blocks, int32_t src_w, int32_t dst_w,
                          int32_t channels) {
  build_index_table(src_w, dst_w, channels, block);
  RowGather g{block, dst_w, channels, src_w == dst_w, nullptr, nullptr, false};
#if defined(HSEG_NEAREST_HAVE_SHUFFLE)
  int32_t *bases = block + dst_w;
  auto *masks = reinterpret_cast<uint8_t *>(bases + blocks);
  g.shuffle = blocks > 0 && hseg::nearest_cpu_has_ssse3();
  if (g.shuffle) hseg::nearest_build_shuffle(block, dst_w, src_w, bases, masks);
  g.bases = bases;
  g.masks = masks;
#else
  (void)blocks;
#endif
  return g;
}

// Writes every destination row, copying a row that reads the same source row
// as the one before.
void resize_rows(const uint8_t *src, int32_t src_pitch, int32_t src_h, uint8_t *dst,
                 int32_t dst_pitch, int32_t dst_h, const RowGather &gather) {
  const size_t row_bytes = static_cast<size_t>(gather.width) * gather.channels;
  SourceIndex index(src_h, dst_h);
  int32_t prev_sy = -1;
  const uint8_t *prev_row = nullptr;
  for (int32_t dy = 0; dy < dst_h; ++dy) {
    const int32_t sy = index.next();
    uint8_t *out = dst + static_cast<ptrdiff_t>(dy) * dst_pitch;
    if (sy == prev_sy) {
      std::memcpy(out, prev_row, row_bytes);
    } else {
      gather(src + static_cast<ptrdiff_t>(sy) * src_pitch, out);
      prev_sy = sy;
    }
    prev_row = out;
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
  // The work block is at most 4 + 20 / 16 bytes a column (see make_row_gather).
  if (!hseg::mul2_i32_valid(src_width, channels) || !hseg::mul2_i32_valid(dst_width, channels) ||
      !hseg::mul2_i32_valid(dst_width, 6))
    return HSEG_ERR_BAD_ARGUMENT;
  if (src_pitch < src_width * channels || dst_pitch < dst_width * channels)
    return HSEG_ERR_BAD_ARGUMENT;
  if (dst_height < 1) return HSEG_OK;

  const int32_t blocks = channels == 1 ? hseg::nearest_block_count(dst_width) : 0;
  auto *block = static_cast<int32_t *>(MMemAlloc(mem, dst_width * 4 + blocks * 20));
  if (block == nullptr) return HSEG_ERR_NO_MEMORY;
  resize_rows(src, src_pitch, src_height, dst, dst_pitch, dst_height,
              make_row_gather(block, blocks, src_width, dst_width, channels));
  MMemFree(mem, block);
  return HSEG_OK;
}
