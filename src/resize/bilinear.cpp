// Bilinear resizers: argument checks, tables, the walk over destination rows
// with row-buffer reuse, and the per-format rows of zevImageResize_BL.
#include <algorithm>
#include <cstddef>
#include <utility>

#include "common/checked.h"
#include "common/pixfmt.h"
#include "hseg/resize.h"
#include "resize/bilinear_rows.h"
#include "resize/yuv.h"

namespace {

using hseg::YuvRow;

// Table entries are 16-bit source coordinates.
constexpr int32_t kMaxSourceSide = 65536;

// Visits every destination row with source rows y0 and y1 interpolated into
// two row buffers. A buffer is refilled only when it does not already hold
// the row: when y0 is the previous y1 the buffers swap, so an enlargement
// interpolates each source row once. When y1 == y0 (weight 0, or the last
// source row) the second row is the first one and wy is passed as 0, which
// gives the same value as the formula with r1 == r0.
template <typename Fill, typename Emit>
void walk_rows(int32_t src_h, int32_t dst_h, const uint16_t *row_tab, uint32_t *b0, uint32_t *b1,
               Fill fill, Emit emit) {
  int32_t held0 = -1, held1 = -1;
  for (int32_t dy = 0; dy < dst_h; ++dy) {
    const int32_t y0 = row_tab[2 * dy];
    const uint32_t wy = row_tab[2 * dy + 1];
    const int32_t y1 = (wy != 0 && y0 < src_h - 1) ? y0 + 1 : y0;
    if (held0 != y0) {
      if (held1 == y0) {
        std::swap(b0, b1);
        std::swap(held0, held1);
      } else {
        fill(y0, b0);
        held0 = y0;
      }
    }
    if (y1 == y0) {
      emit(dy, b0, b0, 0u);
      continue;
    }
    if (held1 != y1) {
      fill(y1, b1);
      held1 = y1;
    }
    emit(dy, b0, b1, wy);
  }
}

// Checks a source descriptor for the planes that the given output reads:
// grey output reads the luma (or BGR) plane alone.
MRESULT check_source(const OffscreenImage *s, bool colour) {
  if (s == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  switch (s->format) {
    case HSEG_PIXFMT_BGR24:
    case HSEG_PIXFMT_YUY2:
    case HSEG_PIXFMT_I420:
    case HSEG_PIXFMT_NV21:
    case HSEG_PIXFMT_NV12:
      break;
    default:
      return HSEG_ERR_FORMAT;
  }
  const int32_t w = s->width, h = s->height;
  if (w < 1 || h < 1 || w > kMaxSourceSide || h > kMaxSourceSide) return HSEG_ERR_BAD_ARGUMENT;
  const bool ok = colour ? hseg::pixfmt::planes_ok(*s) : hseg::pixfmt::plane_ok(*s, 0);
  return ok ? HSEG_OK : HSEG_ERR_BAD_ARGUMENT;
}

MRESULT check_destination(const uint8_t *dst, int32_t dst_w, int32_t dst_h, int32_t dst_pitch,
                          int32_t channels) {
  if (dst == nullptr || dst_w < 1 || dst_h < 1) return HSEG_ERR_BAD_ARGUMENT;
  if (!hseg::mul2_i32_valid(dst_w, channels) || dst_pitch < dst_w * channels)
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

// Every entry inside the source, every weight at most 128.
bool tables_fit(int32_t src_w, int32_t src_h, int32_t dst_w, int32_t dst_h,
                const uint16_t *col_tab, const uint16_t *row_tab) {
  for (int32_t d = 0; d < dst_w; ++d) {
    const int32_t x = col_tab[2 * d], w = col_tab[2 * d + 1];
    if (w > 128 || x + (w != 0 ? 1 : 0) >= src_w) return false;
  }
  for (int32_t d = 0; d < dst_h; ++d)
    if (row_tab[2 * d] >= src_h || row_tab[2 * d + 1] > 128) return false;
  return true;
}

void gray_rows(const uint8_t *plane, int32_t pitch, int32_t step, int32_t src_h, uint8_t *dst,
               int32_t dst_pitch, int32_t dst_w, int32_t dst_h, const uint16_t *col_tab,
               const uint16_t *row_tab, uint32_t *b0, uint32_t *b1) {
  walk_rows(
      src_h, dst_h, row_tab, b0, b1,
      [&](int32_t y, uint32_t *buf) {
        hseg::bilinear_fill_c1(plane + static_cast<ptrdiff_t>(y) * pitch, step, col_tab, dst_w,
                               buf);
      },
      [&](int32_t dy, const uint32_t *r0, const uint32_t *r1, uint32_t wy) {
        hseg::bilinear_blend(r0, r1, wy, dst + static_cast<ptrdiff_t>(dy) * dst_pitch, dst_w);
      });
}

// Source row y of a YUV image at full resolution (see YuvRow).
YuvRow yuv_row(const OffscreenImage &s, int32_t y) {
  const uint8_t *const *p = s.planes;
  const int32_t *pitch = s.pitches;
  YuvRow r{};
  r.last_pair = (s.width + 1) / 2 - 1;
  if (s.format == HSEG_PIXFMT_YUY2) {
    const uint8_t *row = p[0] + static_cast<ptrdiff_t>(y) * pitch[0];
    r.y = row;
    r.y_step = 2;
    r.u0 = r.u1 = row + 1;
    r.v0 = r.v1 = row + 3;
    r.c_step = 4;
    return r;
  }
  // 4:2:0: chroma row j sits on luma row 2j; an odd luma row lies between
  // chroma rows j and j + 1 (the last chroma row repeats at the bottom).
  const int32_t j0 = y >> 1;
  const int64_t chroma_rows = hseg::pixfmt::plane_rows(s.format, 1, s.height);
  const int32_t j1 = ((y & 1) != 0 && j0 < chroma_rows - 1) ? j0 + 1 : j0;
  r.y = p[0] + static_cast<ptrdiff_t>(y) * pitch[0];
  r.y_step = 1;
  if (s.format == HSEG_PIXFMT_I420) {
    r.u0 = p[1] + static_cast<ptrdiff_t>(j0) * pitch[1];
    r.u1 = p[1] + static_cast<ptrdiff_t>(j1) * pitch[1];
    r.v0 = p[2] + static_cast<ptrdiff_t>(j0) * pitch[2];
    r.v1 = p[2] + static_cast<ptrdiff_t>(j1) * pitch[2];
    r.c_step = 1;
  } else {
    const uint8_t *c0 = p[1] + static_cast<ptrdiff_t>(j0) * pitch[1];
    const uint8_t *c1 = p[1] + static_cast<ptrdiff_t>(j1) * pitch[1];
    const int32_t u = s.format == HSEG_PIXFMT_NV12 ? 0 : 1;  // NV21 keeps V first
    r.u0 = c0 + u;
    r.u1 = c1 + u;
    r.v0 = c0 + (1 - u);
    r.v1 = c1 + (1 - u);
    r.c_step = 2;
  }
  return r;
}

// The rows of zevImageResize_BL for a checked source, destination and tables.
void bl_rows(const OffscreenImage &s, uint8_t *dst, int32_t dst_w, int32_t dst_h,
             int32_t dst_pitch, bool colour, const uint16_t *col_tab, const uint16_t *row_tab,
             uint32_t *b0, uint32_t *b1) {
  auto out_row = [&](int32_t dy) { return dst + static_cast<ptrdiff_t>(dy) * dst_pitch; };
  if (!colour && s.format != HSEG_PIXFMT_BGR24) {
    // Grey from YUV is the luma alone.
    const int32_t step = s.format == HSEG_PIXFMT_YUY2 ? 2 : 1;
    gray_rows(s.planes[0], s.pitches[0], step, s.height, dst, dst_pitch, dst_w, dst_h, col_tab,
              row_tab, b0, b1);
    return;
  }
  if (s.format == HSEG_PIXFMT_BGR24) {
    auto fill = [&](int32_t y, uint32_t *buf) {
      hseg::bilinear_fill_bgr(s.planes[0] + static_cast<ptrdiff_t>(y) * s.pitches[0], col_tab,
                              dst_w, buf);
    };
    if (colour) {
      walk_rows(s.height, dst_h, row_tab, b0, b1, fill,
                [&](int32_t dy, const uint32_t *r0, const uint32_t *r1, uint32_t wy) {
                  hseg::bilinear_blend(r0, r1, wy, out_row(dy), 3 * dst_w);
                });
      return;
    }
    walk_rows(s.height, dst_h, row_tab, b0, b1, fill,
              [&](int32_t dy, const uint32_t *r0, const uint32_t *r1, uint32_t wy) {
                // Each channel is blended to 8 bits, a chunk of pixels at
                // a time, then reduced with weights 13/128, 83/128, 32/128
                // (sum 128) for blue, green, red.
                constexpr int32_t kChunk = 64;
                uint8_t bgr[3 * kChunk];
                uint8_t *out = out_row(dy);
                for (int32_t x = 0; x < dst_w; x += kChunk) {
                  const int32_t n = std::min(kChunk, dst_w - x);
                  hseg::bilinear_blend(r0 + 3 * x, r1 + 3 * x, wy, bgr, 3 * n);
                  for (int32_t i = 0; i < n; ++i)
                    out[x + i] = static_cast<uint8_t>(
                        (13 * bgr[3 * i] + 83 * bgr[3 * i + 1] + 32 * bgr[3 * i + 2]) >> 7);
                }
              });
    return;
  }
  // YUV to BGR: Y, U and V are interpolated as three channels into the
  // destination row, then each triple is converted in place.
  walk_rows(
      s.height, dst_h, row_tab, b0, b1,
      [&](int32_t y, uint32_t *buf) { hseg::bilinear_fill_yuv(yuv_row(s, y), col_tab, dst_w, buf); },
      [&](int32_t dy, const uint32_t *r0, const uint32_t *r1, uint32_t wy) {
        uint8_t *out = out_row(dy);
        hseg::bilinear_blend(r0, r1, wy, out, 3 * dst_w);
        for (int32_t i = 0; i < dst_w; ++i, out += 3) hseg::yuv_to_bgr(out[0], out[1], out[2], out);
      });
}

}  // namespace

extern "C" {

HSEG_API MRESULT zevResize_Bilinear_YUVPlanarToGRAY(const uint8_t *y_plane, int32_t y_pitch,
                                                    int32_t src_height, uint8_t *dst,
                                                    int32_t dst_pitch, int32_t dst_width,
                                                    int32_t dst_height, const uint16_t *col_tab,
                                                    const uint16_t *row_tab, uint32_t *buf0,
                                                    uint32_t *buf1) {
  if (y_plane == nullptr || col_tab == nullptr || row_tab == nullptr || buf0 == nullptr ||
      buf1 == nullptr || src_height < 1 || y_pitch < 1)
    return HSEG_ERR_BAD_ARGUMENT;
  const MRESULT s = check_destination(dst, dst_width, dst_height, dst_pitch, 1);
  if (s != HSEG_OK) return s;
  // The plane's width is not known here: the pitch bounds the columns.
  if (!tables_fit(y_pitch, src_height, dst_width, dst_height, col_tab, row_tab))
    return HSEG_ERR_BAD_ARGUMENT;
  gray_rows(y_plane, y_pitch, 1, src_height, dst, dst_pitch, dst_width, dst_height, col_tab,
            row_tab, buf0, buf1);
  return HSEG_OK;
}

HSEG_API MRESULT zevImageResize_BL_Piece(const OffscreenImage *src, uint8_t *dst,
                                         int32_t dst_width, int32_t dst_height,
                                         int32_t dst_pitch, int32_t colour,
                                         const uint16_t *col_tab, const uint16_t *row_tab,
                                         uint32_t *buf0, uint32_t *buf1) {
  const bool bgr_out = colour == 1;
  MRESULT s = check_source(src, bgr_out);
  if (s != HSEG_OK) return s;
  s = check_destination(dst, dst_width, dst_height, dst_pitch, bgr_out ? 3 : 1);
  if (s != HSEG_OK) return s;
  if (col_tab == nullptr || row_tab == nullptr || buf0 == nullptr || buf1 == nullptr ||
      !tables_fit(src->width, src->height, dst_width, dst_height, col_tab, row_tab))
    return HSEG_ERR_BAD_ARGUMENT;
  bl_rows(*src, dst, dst_width, dst_height, dst_pitch, bgr_out, col_tab, row_tab, buf0, buf1);
  return HSEG_OK;
}

HSEG_API MRESULT zevImageResize_BL_C1(MHandle mem, const uint8_t *src, int32_t src_width,
                                      int32_t src_height, int32_t src_pitch, uint8_t *dst,
                                      int32_t dst_width, int32_t dst_height, int32_t dst_pitch) {
  if (src == nullptr || src_width < 1 || src_height < 1 || src_width > kMaxSourceSide ||
      src_height > kMaxSourceSide || src_pitch < src_width)
    return HSEG_ERR_BAD_ARGUMENT;
  const MRESULT s = check_destination(dst, dst_width, dst_height, dst_pitch, 1);
  if (s != HSEG_OK) return s;
  // Two row buffers, the column table and the row table, one word an entry.
  if (!hseg::mad3_i32_valid(dst_width, 3, dst_height) ||
      !hseg::mul2_i32_valid(3 * dst_width + dst_height, 4))
    return HSEG_ERR_BAD_ARGUMENT;
  if (src_width == dst_width && src_height == dst_height) return HSEG_OK;

  auto *block = static_cast<uint32_t *>(MMemAlloc(mem, (3 * dst_width + dst_height) * 4));
  if (block == nullptr) return HSEG_ERR_NO_MEMORY;
  uint32_t *b0 = block;
  uint32_t *b1 = b0 + dst_width;
  auto *col_tab = reinterpret_cast<uint16_t *>(b1 + dst_width);
  auto *row_tab = col_tab + 2 * dst_width;
  hseg::bilinear_row_table(src_height, dst_height, row_tab);
  hseg::bilinear_column_table(src_width, dst_width, col_tab);
  gray_rows(src, src_pitch, 1, src_height, dst, dst_pitch, dst_width, dst_height, col_tab,
            row_tab, b0, b1);
  MMemFree(mem, block);
  return HSEG_OK;
}

HSEG_API MRESULT zevImageResize_BL(MHandle mem, const OffscreenImage *src, uint8_t *dst,
                                   int32_t dst_width, int32_t dst_height, int32_t dst_pitch,
                                   int32_t colour) {
  const bool bgr_out = colour == 1;
  MRESULT s = check_source(src, bgr_out);
  if (s != HSEG_OK) return s;
  s = check_destination(dst, dst_width, dst_height, dst_pitch, bgr_out ? 3 : 1);
  if (s != HSEG_OK) return s;
  if (!hseg::mad3_i32_valid(dst_width, 9, dst_height) ||
      !hseg::mul2_i32_valid(9 * dst_width + dst_height, 4))
    return HSEG_ERR_BAD_ARGUMENT;
  if (src->width == dst_width && src->height == dst_height) return HSEG_OK;

  // Two row buffers of three values a pixel, the column table in a region
  // sized for three words a pixel (it uses one), the row table.
  auto *block = static_cast<uint32_t *>(MMemAlloc(mem, (9 * dst_width + dst_height) * 4));
  if (block == nullptr) return HSEG_ERR_NO_MEMORY;
  uint32_t *b0 = block;
  uint32_t *b1 = b0 + 3 * dst_width;
  auto *col_tab = reinterpret_cast<uint16_t *>(b1 + 3 * dst_width);
  auto *row_tab = reinterpret_cast<uint16_t *>(b1 + 6 * dst_width);
  hseg::bilinear_row_table(src->height, dst_height, row_tab);
  hseg::bilinear_column_table(src->width, dst_width, col_tab);
  bl_rows(*src, dst, dst_width, dst_height, dst_pitch, bgr_out, col_tab, row_tab, b0, b1);
  MMemFree(mem, block);
  return HSEG_OK;
}

}  // extern "C"
