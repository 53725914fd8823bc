#include "resize/area_table.h"

#include <cstddef>

#include "common/checked.h"

namespace hseg {
namespace area {
namespace {

// Ceiling and floor as the column geometry rounds them: n = trunc(v + 0.5)
// in double precision, then one step up (or down) when the single-precision
// difference shows n on the wrong side of v.
int32_t walk_ceil(float v) {
  const int32_t n = static_cast<int32_t>(static_cast<double>(v) + 0.5);
  return static_cast<float>(n) - v < 0.0f ? n + 1 : n;
}

int32_t walk_floor(float v) {
  const int32_t n = static_cast<int32_t>(static_cast<double>(v) + 0.5);
  return v - static_cast<float>(n) < 0.0f ? n - 1 : n;
}

// Non-negative float to a 14-bit weight, rounded half up:
// trunc(2 * v * 16384 + 1) >> 1. The entry points keep v <= 1 (a footprint
// covers at least one sample of its grid), so the cast cannot overflow.
uint32_t weight_q14(float v) { return static_cast<uint32_t>(2.0f * v * 16384.0f + 1.0f) >> 1; }

// The source formats the area resize reads.
bool area_reads(uint32_t format) {
  return format == HSEG_PIXFMT_BGR24 || format == HSEG_PIXFMT_YUY2 || format == HSEG_PIXFMT_NV21 ||
         format == HSEG_PIXFMT_I420;
}

}  // namespace

MRESULT build_column_table(const TableGeometry &g, int32_t dst_width, LumResizeEntry *table,
                           int32_t *entries) {
  int32_t n = 0;
  // Every entry goes through here: the capacity check comes first, and a
  // column past the source (or past the half grid) is refused even where
  // the footprint's own checks below let it through.
  auto add = [&](int32_t sx, int32_t dx, float v) {
    if (n >= g.capacity || sx < 0 || sx >= g.columns) return false;
    table[n].src_offset = sx * g.step;
    table[n].dst_offset = dx * 3;
    table[n].weight = weight_q14(v);
    ++n;
    return true;
  };
  for (int32_t dx = 0; dx < dst_width; ++dx) {
    const float fsx1 = static_cast<float>(dx) * g.scale_x;
    const float fsx2 = fsx1 + g.scale_x;
    const int32_t sx1 = walk_ceil(fsx1);
    const int32_t sx2 = walk_floor(fsx2);
    if (sx1 >= g.limit) return HSEG_ERR_TABLE;
    // Left edge: the part of column sx1 - 1 that the footprint covers.
    if (static_cast<float>(sx1) > fsx1 &&
        !add(sx1 - 1, dx, (static_cast<float>(sx1) - fsx1) * g.inv_area)) {
      return HSEG_ERR_TABLE;
    }
    for (int32_t sx = sx1; sx < sx2; ++sx) {
      if (!add(sx, dx, g.inv_area)) return HSEG_ERR_TABLE;
    }
    // Right edge, unless it is a sliver of float noise.
    const float rest = fsx2 - static_cast<float>(sx2);
    if (rest > 0.001f) {
      if (sx2 >= g.limit || !add(sx2, dx, rest * g.inv_area)) return HSEG_ERR_TABLE;
    }
  }
  *entries = n;
  return HSEG_OK;
}

bool work_block_bytes(int32_t src_width, int32_t dst_width, int32_t *bytes) {
  // acc = 3 * dst_width + 4; total = acc * 16 + 24 * src_width.
  if (!mad3_i32_valid(3, dst_width, 4)) return false;
  const int64_t acc = 3 * int64_t{dst_width} + 4;
  if (!mul2_i32_valid(acc, 16)) return false;
  if (!mad3_i32_valid(24, src_width, acc * 16)) return false;
  *bytes = static_cast<int32_t>(acc * 16 + 24 * int64_t{src_width});
  return true;
}

WorkBlock split_work_block(void *block, int32_t dst_width) {
  const ptrdiff_t acc = 3 * ptrdiff_t{dst_width} + 4;
  WorkBlock w;
  w.row = static_cast<uint64_t *>(block);
  w.carry = w.row + acc;
  w.table = reinterpret_cast<LumResizeEntry *>(w.carry + acc);
  return w;
}

bool source_planes_ok(uint32_t format, const SourcePlanes &src, int64_t width) {
  if (!area_reads(format)) return false;
  const int planes = pixfmt::plane_count(format);
  for (int p = 0; p < planes; ++p) {
    if (!plane_ok(src.plane[p], src.pitch[p < 1 ? 0 : 1], pixfmt::row_bytes(format, p, width))) {
      return false;
    }
  }
  return true;
}

MRESULT check_descriptors(const OffscreenImage *src, const OffscreenImage *dst) {
  if (src == nullptr || dst == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  if (!area_reads(src->format)) return HSEG_ERR_FORMAT;
  if (src->width < 1 || src->height < 1 || dst->width < 1 || dst->height < 1) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  if (!source_planes_ok(src->format, planes_of(*src), src->width) ||
      !plane_ok(dst->planes[0], dst->pitches[0], pixfmt::row_bytes(HSEG_PIXFMT_BGR24, 0, dst->width))) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  return HSEG_OK;
}

bool fixed_point_serves(const OffscreenImage &src, const OffscreenImage &dst, bool half) {
  const int64_t sw = src.width, sh = src.height, dw = dst.width, dh = dst.height;
  if (sw > 32 * dw || sh > 32 * dh) return false;
  return !half || (sw >= 2 * dw && sh >= 2 * dh);
}

MRESULT run_area_resize(MHandle mem, const OffscreenImage *src, const OffscreenImage *dst,
                        bool half, Dispatch fixed_point, Dispatch exact) {
  MRESULT s = check_descriptors(src, dst);
  if (s != HSEG_OK) return s;
  if (src->width < dst->width || src->height < dst->height) return HSEG_OK;  // only shrinks
  int32_t bytes = 0;
  if (!work_block_bytes(src->width, dst->width, &bytes)) return HSEG_ERR_BAD_ARGUMENT;
  void *block = MMemAlloc(mem, bytes);
  if (block == nullptr) return HSEG_ERR_NO_MEMORY;
  const WorkBlock work = split_work_block(block, dst->width);
  if (!fixed_point_serves(*src, *dst, half)) {
    s = exact(*src, *dst, work, 0);
    MMemFree(mem, block);
    return s;
  }

  // Source channel step; on the half grid a column is a 2x2 block, twice as
  // wide, and the table addresses its left column.
  int32_t step = src->format == HSEG_PIXFMT_BGR24 ? 3 : src->format == HSEG_PIXFMT_YUY2 ? 2 : 1;
  const float sw = static_cast<float>(src->width), dw = static_cast<float>(dst->width);
  const float sh = static_cast<float>(src->height), dh = static_cast<float>(dst->height);
  TableGeometry g;
  if (!half) {
    g = TableGeometry{sw / dw, 0.0f, src->width, src->width, step, 2 * src->width};
    g.inv_area = 1.0f / ((sh / dh) * g.scale_x);
  } else {
    g = TableGeometry{sw / dw * 0.5f, 0.0f, src->width, (src->width + 1) / 2, 2 * step,
                      2 * src->width};
    g.inv_area = 1.0f / ((0.5f * (sh / dh)) * g.scale_x);
  }
  int32_t entries = 0;
  s = build_column_table(g, dst->width, work.table, &entries);
  if (s == HSEG_OK) s = fixed_point(*src, *dst, work, entries);
  MMemFree(mem, block);
  return s;
}

MRESULT check_worker(const WorkerCall &c, int32_t expected_src_step, const void *acc0,
                     const void *acc1, int64_t src_end) {
  if (c.src_width < 1 || c.dst_width < 1 || c.dst_height < 1) return HSEG_ERR_BAD_ARGUMENT;
  if (!plane_ok(c.dst, c.dst_pitch, pixfmt::row_bytes(HSEG_PIXFMT_BGR24, 0, c.dst_width))) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  if (c.src_step != expected_src_step || c.dst_step != 3) return HSEG_ERR_BAD_ARGUMENT;
  if (acc0 == nullptr || acc1 == nullptr || c.entries < 0) return HSEG_ERR_BAD_ARGUMENT;
  if (c.entries > 0 && c.table == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  const int64_t dst_end = 3 * int64_t{c.dst_width} - 2;  // last triple starts below this
  for (int32_t i = 0; i < c.entries; ++i) {
    const LumResizeEntry &e = c.table[i];
    if (e.src_offset < 0 || e.src_offset >= src_end || e.dst_offset < 0 ||
        e.dst_offset >= dst_end) {
      return HSEG_ERR_BAD_ARGUMENT;
    }
  }
  return HSEG_OK;
}

}  // namespace area
}  // namespace hseg
