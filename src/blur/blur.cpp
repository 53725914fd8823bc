// Entry points of the blur library: argument checks, the planes each format
// is blurred as, the work block, and the dispatch to the fastest kernels.
#include <algorithm>
#include <cmath>
#include <limits>

#include "blur/blur_internal.h"
#include "common/pixfmt.h"
#include "hseg/blur.h"

namespace hseg {
namespace blur {
namespace {

constexpr float kMaxSigma = 8192.0f;

// What to blur with: a box radius or a Gaussian sigma.
struct Blur {
  bool gaussian;
  int32_t radius;
  float sigma;
};

bool format_ok(uint32_t f) {
  return f == HSEG_PIXFMT_GRAY || f == HSEG_PIXFMT_GRAY16 || f == HSEG_PIXFMT_BGR24 ||
         f == HSEG_PIXFMT_YUY2;
}

bool aligned16(const OffscreenImage &img) {
  return img.format != HSEG_PIXFMT_GRAY16 ||
         ((reinterpret_cast<uintptr_t>(img.planes[0]) | static_cast<uint32_t>(img.pitches[0])) &
          1u) == 0;
}

// The bytes plane 0 of `img` spans, first to last.
struct Span {
  uintptr_t begin, end;
};
Span span_of(const OffscreenImage &img) {
  const auto b = reinterpret_cast<uintptr_t>(img.planes[0]);
  const int64_t len = int64_t{img.pitches[0]} * (img.height - 1) +
                      pixfmt::row_bytes(img.format, 0, img.width);
  return {b, b + static_cast<uintptr_t>(len)};
}
bool overlap(const OffscreenImage &a, const OffscreenImage &b) {
  const Span x = span_of(a), y = span_of(b);
  return x.begin < y.end && y.begin < x.end;
}

MRESULT check(const OffscreenImage *src, const OffscreenImage *dst, const Blur &blur) {
  if (src == nullptr || dst == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  if (!format_ok(src->format) || dst->format != src->format) return HSEG_ERR_FORMAT;
  if (!pixfmt::planes_ok(*src) || !pixfmt::planes_ok(*dst)) return HSEG_ERR_BAD_ARGUMENT;
  if (dst->width != src->width || dst->height != src->height) return HSEG_ERR_BAD_ARGUMENT;
  if (src->format == HSEG_PIXFMT_YUY2 && src->width % 2 != 0) return HSEG_ERR_BAD_ARGUMENT;
  if (!aligned16(*src) || !aligned16(*dst)) return HSEG_ERR_BAD_ARGUMENT;
  if (blur.gaussian ? !(std::isfinite(blur.sigma) && blur.sigma > 0.0f) : blur.radius < 0)
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

// A plane and the blur it gets: radii (box) or pass radii (Gaussian) along
// each axis.
struct PlaneJob {
  PlaneView view;
  int32_t rx, ry;
  GaussRadii gx, gy;
};

PlaneView view_of(const OffscreenImage &src, const OffscreenImage &dst, int32_t width,
                  int32_t ch, int32_t bytes, int32_t offset, int32_t pixel_step,
                  int32_t chan_step) {
  return PlaneView{src.planes[0], src.pitches[0], dst.planes[0], dst.pitches[0], width,
                   src.height,    ch,             bytes,         offset,        pixel_step,
                   chan_step};
}

// The planes of a format: one for the packed and grey formats; Y, then the
// U,V pairs (a two-channel plane of half width) for YUY2.
int plane_jobs(const OffscreenImage &src, const OffscreenImage &dst, const Blur &blur,
               PlaneJob jobs[2]) {
  const double sigma = std::min(blur.sigma, kMaxSigma);
  auto set = [&](PlaneJob &j, PlaneView v, bool half_x) {
    j.view = v;
    j.rx = half_x ? blur.radius / 2 : blur.radius;
    j.ry = blur.radius;
    if (blur.gaussian) {
      j.gx = gauss_radii(half_x ? sigma / 2 : sigma);
      j.gy = gauss_radii(sigma);
    }
  };
  switch (src.format) {
    case HSEG_PIXFMT_YUY2:
      set(jobs[0], view_of(src, dst, src.width, 1, 1, 0, 2, 1), false);
      set(jobs[1], view_of(src, dst, src.width / 2, 2, 1, 1, 4, 2), true);
      return 2;
    case HSEG_PIXFMT_BGR24:
      set(jobs[0], view_of(src, dst, src.width, 3, 1, 0, 3, 1), false);
      return 1;
    case HSEG_PIXFMT_GRAY16:
      set(jobs[0], view_of(src, dst, src.width, 1, 2, 0, 2, 2), false);
      return 1;
    default:
      set(jobs[0], view_of(src, dst, src.width, 1, 1, 0, 1, 1), false);
      return 1;
  }
}

bool is_copy(const PlaneJob &j, const Blur &blur) {
  if (!blur.gaussian) return j.rx == 0 && j.ry == 0;
  for (int i = 0; i < 3; ++i)
    if (j.gx.r[i] != 0 || j.gy.r[i] != 0) return false;
  return true;
}

int64_t work_bytes(const PlaneJob &j, const Blur &blur) {
  if (is_copy(j, blur)) return 0;
  return blur.gaussian ? gauss_work_bytes(j.view, j.gx, j.gy)
                       : box_work_bytes(j.view, j.rx, j.ry);
}

MRESULT run(MHandle mem, const OffscreenImage *src, OffscreenImage *dst, const Blur &blur,
            int32_t first_row, int32_t row_count, bool whole) {
  const MRESULT s = check(src, dst, blur);
  if (s != HSEG_OK) return s;
  if (row_count < 0 || first_row < 0 || first_row > src->height ||
      row_count > src->height - first_row)
    return HSEG_ERR_BAD_ARGUMENT;
  const bool in_place = overlap(*src, *dst);
  if (in_place && !whole) return HSEG_ERR_BAD_ARGUMENT;
  if (row_count == 0) return HSEG_OK;

  PlaneJob jobs[2];
  const int planes = plane_jobs(*src, *dst, blur, jobs);
  int64_t bytes = 0;
  for (int i = 0; i < planes; ++i) bytes = std::max(bytes, work_bytes(jobs[i], blur));
  // A source that the output overlaps is read from a copy, rows packed.
  const int64_t row = pixfmt::row_bytes(src->format, 0, src->width);
  const int64_t copy = in_place ? (row * src->height + 31) / 32 * 32 : 0;
  if (bytes + copy == 0) {
    for (int i = 0; i < planes; ++i) copy_plane(jobs[i].view, first_row, first_row + row_count);
    return HSEG_OK;
  }
  if (bytes + copy > std::numeric_limits<int32_t>::max()) return HSEG_ERR_NO_MEMORY;
  uint8_t *block = static_cast<uint8_t *>(MMemAlloc(mem, static_cast<int32_t>(bytes + copy)));
  if (block == nullptr) return HSEG_ERR_NO_MEMORY;
  if (in_place) {
    for (int64_t y = 0; y < src->height; ++y)
      std::memcpy(block + bytes + y * row, src->planes[0] + y * src->pitches[0],
                  static_cast<size_t>(row));
    for (int i = 0; i < planes; ++i) {
      jobs[i].view.src = block + bytes;
      jobs[i].view.src_pitch = row;
    }
  }
  const RowKernels &k = best_row_kernels();
  for (int i = 0; i < planes; ++i) {
    const PlaneJob &j = jobs[i];
    if (is_copy(j, blur)) {
      copy_plane(j.view, first_row, first_row + row_count);
    } else if (blur.gaussian) {
      gauss_plane(k, j.view, j.gx, j.gy, first_row, first_row + row_count, block);
    } else {
      box_plane(k, j.view, j.rx, j.ry, first_row, first_row + row_count, block);
    }
  }
  MMemFree(mem, block);
  return HSEG_OK;
}

}  // namespace
}  // namespace blur
}  // namespace hseg

extern "C" {

HSEG_API MRESULT GB_BoxBlur(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                            int32_t radius) {
  const int32_t h = src != nullptr ? src->height : 0;
  return hseg::blur::run(mem, src, dst, {false, radius, 0.0f}, 0, h, true);
}

HSEG_API MRESULT GB_GaussianBlur(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                                 float sigma) {
  const int32_t h = src != nullptr ? src->height : 0;
  return hseg::blur::run(mem, src, dst, {true, 0, sigma}, 0, h, true);
}

HSEG_API MRESULT GB_BoxBlurRows(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                                int32_t radius, int32_t first_row, int32_t row_count) {
  return hseg::blur::run(mem, src, dst, {false, radius, 0.0f}, first_row, row_count, false);
}

HSEG_API MRESULT GB_GaussianBlurRows(MHandle mem, const OffscreenImage *src,
                                     OffscreenImage *dst, float sigma, int32_t first_row,
                                     int32_t row_count) {
  return hseg::blur::run(mem, src, dst, {true, 0, sigma}, first_row, row_count, false);
}

}  // extern "C"
