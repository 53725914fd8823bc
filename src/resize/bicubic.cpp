// Bicubic resize of one 8-bit channel: cubic convolution (a = -0.5) in 10-bit
// fixed point, corner-aligned mapping, edge replication past every border.
//
// The kernel table and the column table live in a caller-owned cache. The
// work block starts with a small header that records the geometry the column
// table was built for, so that a later call can tell whether its width fits
// the block and whether the stored inner column range still applies.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "common/checked.h"
#include "hseg/resize.h"

namespace {

constexpr int32_t kKernelPairs = 1025;
constexpr int32_t kKernelBytes = kKernelPairs * 2 * 4;  // 8200
constexpr int32_t kMinResizeSide = 5;
// Largest sum of the four taps' weights in magnitude that the row engine
// accepts (2.0). It keeps all arithmetic in 32 bits: a filtered row value is
// at most 255 * 2048 in magnitude and an output sum 255 * 2048^2 + 2^19,
// below 2^31. The cubic kernel's taps sum to at most about 1.25 in magnitude.
constexpr int64_t kMaxTapMagnitude = 2048;

// Header of the cache's work block, followed by four row buffers of
// `capacity` int32 values and a column table of `capacity` (x0, fraction)
// int32 pairs: 32 + 24 * capacity bytes.
struct WorkHeader {
  int32_t capacity;      // destination width the block was sized for
  int32_t built_src_w;   // widths the column table was built for
  int32_t built_dst_w;
  int32_t first_inner;   // inner column range of that build
  int32_t first_border;
  int32_t reserved[3];
};
static_assert(sizeof(WorkHeader) == 32, "the header keeps the buffers 16-byte aligned");

inline int32_t clamp_index(int32_t i, int32_t last) { return i < 0 ? 0 : (i > last ? last : i); }

// Horizontal cubic filter of one source row into `out` (10 fraction bits).
// Columns in [first_inner, first_border) read x0 - 1 .. x0 + 2 directly; the
// others replicate the edge by clamping every tap to the row.
void filter_row(const uint8_t *row, int32_t src_w, int32_t dst_w, int32_t first_inner,
                int32_t first_border, const int32_t *col_tab, const int32_t *k, int32_t *out) {
  const int32_t last = src_w - 1;
  auto border = [&](int32_t dx) {
    const int32_t x = col_tab[2 * dx], u = col_tab[2 * dx + 1];
    out[dx] = row[clamp_index(x - 1, last)] * k[2 * u + 1] + row[clamp_index(x, last)] * k[2 * u] +
              row[clamp_index(x + 1, last)] * k[2 * (1024 - u)] +
              row[clamp_index(x + 2, last)] * k[2 * (1024 - u) + 1];
  };
  for (int32_t dx = 0; dx < first_inner; ++dx) border(dx);
  for (int32_t dx = first_inner; dx < first_border; ++dx) {
    const int32_t u = col_tab[2 * dx + 1];
    const uint8_t *p = row + col_tab[2 * dx];
    out[dx] = p[-1] * k[2 * u + 1] + p[0] * k[2 * u] + p[1] * k[2 * (1024 - u)] +
              p[2] * k[2 * (1024 - u) + 1];
  }
  for (int32_t dx = std::max(first_inner, first_border); dx < dst_w; ++dx) border(dx);
}

uint8_t clamp_u8(int32_t v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Every fraction's four taps within kMaxTapMagnitude.
bool kernel_is_bounded(const int32_t *k) {
  for (int32_t u = 0; u <= 1024; ++u) {
    int64_t sum = 0;
    for (int32_t i : {2 * u, 2 * u + 1, 2 * (1024 - u), 2 * (1024 - u) + 1})
      sum += k[i] < 0 ? -int64_t{k[i]} : int64_t{k[i]};
    if (sum > kMaxTapMagnitude) return false;
  }
  return true;
}

// The inner column range, the kernel and the column table of a
// Resize_Bicubic_8u_C1 call keep every tap inside the row and every sum in
// 32 bits.
bool tables_ok(int32_t src_w, int32_t dst_w, int32_t first_inner, int32_t first_border,
               const int32_t *col_tab, const int32_t *k) {
  if (first_inner < 0 || first_inner > dst_w || first_border < 0 || first_border > dst_w ||
      !kernel_is_bounded(k))
    return false;
  for (int32_t dx = 0; dx < dst_w; ++dx) {
    const int32_t x = col_tab[2 * dx], u = col_tab[2 * dx + 1];
    if (u < 0 || u > 1024) return false;
    if (dx >= first_inner && dx < first_border && (x < 1 || x >= src_w - 2)) return false;
  }
  return true;
}

// Four buffers of horizontally filtered source rows, and which (clamped)
// source row each one holds. Rows y0 - 1 .. y0 + 2 are looked up among them,
// and only rows that none holds are filtered, into a buffer no row needs.
class RowCache {
 public:
  RowCache(int32_t *r0, int32_t *r1, int32_t *r2, int32_t *r3) : bufs_{r0, r1, r2, r3} {}

  // Points r[i] at source row clamp(y0 - 1 + i), calling filter(y, buffer)
  // for each row no buffer holds yet.
  template <typename Filter>
  void fetch(int32_t y0, int32_t last_row, const int32_t *r[4], Filter filter) {
    int32_t need[4];
    bool used[4] = {false, false, false, false};
    for (int i = 0; i < 4; ++i) {
      need[i] = clamp_index(y0 - 1 + i, last_row);
      r[i] = nullptr;
      for (int j = 0; j < 4; ++j)
        if (held_[j] == need[i]) {
          r[i] = bufs_[j];
          used[j] = true;
        }
    }
    for (int i = 0; i < 4; ++i) {
      if (r[i] != nullptr) continue;
      int j = 0;
      while (used[j]) ++j;  // at most four distinct rows for four buffers
      filter(need[i], bufs_[j]);
      held_[j] = need[i];
      used[j] = true;
      for (int i2 = i; i2 < 4; ++i2)
        if (need[i2] == need[i]) r[i2] = bufs_[j];
    }
  }

 private:
  int32_t *bufs_[4];
  int32_t held_[4] = {-1, -1, -1, -1};
};

// Vertical cubic filter of four filtered rows at fraction v (10 bits) into
// one output row: 20 fraction bits in all, rounded half up and clamped.
// Kept out of line: inlined into the row loop with the horizontal filter,
// GCC's code for the whole ran about 6% slower.
__attribute__((noinline)) void vertical_filter(const int32_t *const r[4], const int32_t *k,
                                               int32_t v, uint8_t *out, int32_t dst_w) {
  const int32_t w0 = k[2 * v + 1], w1 = k[2 * v], w2 = k[2 * (1024 - v)],
                w3 = k[2 * (1024 - v) + 1];
  const int32_t *r0 = r[0], *r1 = r[1], *r2 = r[2], *r3 = r[3];
  for (int32_t dx = 0; dx < dst_w; ++dx) {
    const int32_t sum = r0[dx] * w0 + r1[dx] * w1 + r2[dx] * w2 + r3[dx] * w3;
    out[dx] = clamp_u8((sum + 524288) >> 20);
  }
}

// Corner-aligned column table; returns the inner range through the pointers.
void build_column_table(int32_t src_w, int32_t dst_w, int32_t *col_tab, int32_t *first_inner,
                        int32_t *first_border) {
  const float scale = static_cast<float>(src_w) / static_cast<float>(dst_w);
  int32_t inner = dst_w, border = 0;
  for (int32_t dx = 0; dx < dst_w; ++dx) {
    const float f = static_cast<float>(dx) * scale;
    const auto x0 = static_cast<int32_t>(f);
    const auto frac = static_cast<int32_t>((f - static_cast<float>(x0)) * 1024.0f + 0.5f);
    col_tab[2 * dx] = std::min(std::max(x0, -2), src_w);
    col_tab[2 * dx + 1] = frac;
    if (x0 > 0 && inner == dst_w) inner = dx;
    if (x0 + 2 < src_w) border = dx + 1;
  }
  // x0 never decreases, so the inner columns are one run; an empty run
  // leaves every column to the bound-tested filter.
  *first_inner = inner;
  *first_border = std::max(border, inner);
}

}  // namespace

extern "C" {

HSEG_API MRESULT InitCubicCoeffTab(int32_t *tab) {
  if (tab == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  // Cubic convolution kernel with a = -0.5, scaled by 1024 (== 1.0):
  //   |x| <= 1:     1.5|x|^3 - 2.5|x|^2 + 1
  //   1 < |x| < 2: -0.5|x|^3 + 2.5|x|^2 - 4|x| + 2
  // Pair i holds the kernel at t = i / 1024 (near) and at t + 1 (far),
  // rounded by adding 0.5 and truncating toward zero.
  for (int32_t i = 0; i < 1024; ++i) {
    const float t = static_cast<float>(i) * 0.0009765625f;
    const float s = t + 1.0f;
    tab[2 * i] = static_cast<int32_t>(((1.5f * t - 2.5f) * t * t + 1.0f) * 1024.0f + 0.5f);
    tab[2 * i + 1] =
        static_cast<int32_t>((((-0.5f * s + 2.5f) * s - 4.0f) * s + 2.0f) * 1024.0f + 0.5f);
  }
  // A fraction of 0 looks up pair 1024 for the taps at distances 1 and 2.
  tab[2048] = 0;
  tab[2049] = 0;
  return HSEG_OK;
}

HSEG_API MRESULT Resize_Bicubic_8u_C1(const uint8_t *src, int32_t src_width, int32_t src_height,
                                      int32_t src_pitch, uint8_t *dst, int32_t dst_width,
                                      int32_t dst_height, int32_t dst_pitch, int32_t first_inner,
                                      int32_t first_border, const int32_t *col_tab,
                                      const int32_t *coef_tab, int32_t *row0, int32_t *row1,
                                      int32_t *row2, int32_t *row3) {
  if (src == nullptr || dst == nullptr || col_tab == nullptr || coef_tab == nullptr ||
      row0 == nullptr || row1 == nullptr || row2 == nullptr || row3 == nullptr)
    return HSEG_ERR_BAD_ARGUMENT;
  if (src_width < 1 || src_height < 1 || dst_width < 1 || dst_height < 1 ||
      src_pitch < src_width || dst_pitch < dst_width)
    return HSEG_ERR_BAD_ARGUMENT;
  if (!tables_ok(src_width, dst_width, first_inner, first_border, col_tab, coef_tab))
    return HSEG_ERR_BAD_ARGUMENT;

  RowCache rows(row0, row1, row2, row3);
  const float scale_y = static_cast<float>(src_height) / static_cast<float>(dst_height);
  for (int32_t dy = 0; dy < dst_height; ++dy) {
    const float fy = static_cast<float>(dy) * scale_y;
    const auto y0 = static_cast<int32_t>(fy);
    const auto v = static_cast<int32_t>((fy - static_cast<float>(y0)) * 1024.0f + 0.5f);
    const int32_t *r[4];
    rows.fetch(y0, src_height - 1, r, [&](int32_t y, int32_t *buf) {
      filter_row(src + static_cast<ptrdiff_t>(y) * src_pitch, src_width, dst_width, first_inner,
                 first_border, col_tab, coef_tab, buf);
    });
    vertical_filter(r, coef_tab, v, dst + static_cast<ptrdiff_t>(dy) * dst_pitch, dst_width);
  }
  return HSEG_OK;
}

HSEG_API MRESULT ImageResize_Cubic_C1(MHandle mem, const uint8_t *src, int32_t src_width,
                                      int32_t src_height, int32_t src_pitch, uint8_t *dst,
                                      int32_t dst_width, int32_t dst_height, int32_t dst_pitch,
                                      CubicCache *cache) {
  if (cache == nullptr || src == nullptr || dst == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  if (src_width < 1 || src_height < 1 || dst_width < 1 || dst_height < 1 ||
      src_pitch < src_width || dst_pitch < dst_width)
    return HSEG_ERR_BAD_ARGUMENT;
  if (src_width == dst_width && src_height == dst_height) {
    for (int32_t y = 0; y < dst_height; ++y)
      MMemCpy(dst + static_cast<ptrdiff_t>(y) * dst_pitch,
              src + static_cast<ptrdiff_t>(y) * src_pitch, dst_width);
    return HSEG_OK;
  }
  if (std::min(src_width, dst_width) < kMinResizeSide ||
      std::min(src_height, dst_height) < kMinResizeSide)
    return HSEG_ERR_BAD_ARGUMENT;
  if (!hseg::mad3_i32_valid(dst_width, 24, sizeof(WorkHeader))) return HSEG_ERR_BAD_ARGUMENT;
  // A block too small for this width, or a table built for a narrower
  // destination that this call would reuse, would be read past its end.
  auto *head = static_cast<WorkHeader *>(cache->work);
  if (head != nullptr && (dst_width > head->capacity ||
                          (cache->coef_tab != nullptr && dst_width > head->built_dst_w)))
    return HSEG_ERR_BAD_ARGUMENT;

  bool rebuild = false;
  if (head == nullptr) {
    head = static_cast<WorkHeader *>(
        MMemAlloc(mem, static_cast<int32_t>(sizeof(WorkHeader)) + 24 * dst_width));
    if (head == nullptr) return HSEG_ERR_NO_MEMORY;
    std::memset(head, 0, sizeof(WorkHeader));
    head->capacity = dst_width;
    cache->work = head;
    rebuild = true;  // a new block holds no column table yet
  }
  if (cache->coef_tab == nullptr) {
    auto *k = static_cast<int32_t *>(MMemAlloc(mem, kKernelBytes));
    if (k == nullptr) return HSEG_ERR_NO_MEMORY;
    InitCubicCoeffTab(k);
    cache->coef_tab = k;
    rebuild = true;
  }

  const int32_t cap = head->capacity;
  auto *rows = reinterpret_cast<int32_t *>(head + 1);
  int32_t *col_tab = rows + 4 * cap;
  if (rebuild) {
    build_column_table(src_width, dst_width, col_tab, &head->first_inner, &head->first_border);
    head->built_src_w = src_width;
    head->built_dst_w = dst_width;
  }
  // The stored inner range is valid only for the widths it was built for;
  // any other call filters every column with clamped taps.
  const bool same_geometry = head->built_src_w == src_width && head->built_dst_w == dst_width;
  const int32_t first_inner = same_geometry ? head->first_inner : 0;
  const int32_t first_border = same_geometry ? head->first_border : 0;
  return Resize_Bicubic_8u_C1(src, src_width, src_height, src_pitch, dst, dst_width, dst_height,
                              dst_pitch, first_inner, first_border, col_tab, cache->coef_tab,
                              rows, rows + cap, rows + 2 * cap, rows + 3 * cap);
}

}  // extern "C"
