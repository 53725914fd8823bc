// What each pixel format stores: which planes it uses, how many bytes a row
// of each plane holds and how many rows each plane has. Every entry point that
// takes an OffscreenImage checks its planes through these, so the rules live
// in one place.
#ifndef HSEG_SRC_COMMON_PIXFMT_H_
#define HSEG_SRC_COMMON_PIXFMT_H_

#include <cstdint>

#include "hseg/pipeline.h"

namespace hseg {
namespace pixfmt {

// Planes the format uses (1 to 3); 0 for a code the library does not know.
inline int plane_count(uint32_t format) {
  switch (format) {
    case HSEG_PIXFMT_BGR24:
    case HSEG_PIXFMT_YUY2:
    case HSEG_PIXFMT_GRAY:
    case HSEG_PIXFMT_GRAY16:
      return 1;
    case HSEG_PIXFMT_NV21:
    case HSEG_PIXFMT_NV12:
      return 2;
    case HSEG_PIXFMT_I420:
      return 3;
    default:
      return 0;
  }
}

// Bytes of pixel data in one row of `plane` for an image `width` pixels wide
// (width >= 1); -1 for a plane the format does not use. 4:2:2 rows hold whole
// Y0 U Y1 V groups and 4:2:0 chroma rows whole samples, so an odd width
// rounds up.
inline int64_t row_bytes(uint32_t format, int plane, int64_t width) {
  if (plane < 0 || plane >= plane_count(format)) return -1;
  const int64_t chroma = (width + 1) / 2;
  switch (format) {
    case HSEG_PIXFMT_BGR24:
      return 3 * width;
    case HSEG_PIXFMT_YUY2:
      return 4 * chroma;
    case HSEG_PIXFMT_GRAY:
      return width;
    case HSEG_PIXFMT_GRAY16:
      return 2 * width;
    case HSEG_PIXFMT_NV21:
    case HSEG_PIXFMT_NV12:
      return plane == 0 ? width : 2 * chroma;  // Y, then interleaved chroma pairs
    case HSEG_PIXFMT_I420:
      return plane == 0 ? width : chroma;
    default:
      return -1;
  }
}

// Rows of `plane` for an image `height` rows high (height >= 1); -1 for a
// plane the format does not use. 4:2:0 chroma planes have ceil(height / 2).
inline int64_t plane_rows(uint32_t format, int plane, int64_t height) {
  if (plane < 0 || plane >= plane_count(format)) return -1;
  const bool half = plane > 0 && (format == HSEG_PIXFMT_NV21 || format == HSEG_PIXFMT_NV12 ||
                                  format == HSEG_PIXFMT_I420);
  return half ? (height + 1) / 2 : height;
}

// Plane `plane` of `img` is there and its pitch holds one of its rows.
// The image's format, width and height are taken as already checked.
inline bool plane_ok(const OffscreenImage &img, int plane) {
  const int64_t bytes = row_bytes(img.format, plane, img.width);
  return bytes > 0 && img.planes[plane] != nullptr && img.pitches[plane] >= bytes;
}

// Every plane of `img`'s format is there and holds its rows; false for an
// unknown format or a size below 1.
inline bool planes_ok(const OffscreenImage &img) {
  const int n = plane_count(img.format);
  if (n == 0 || img.width < 1 || img.height < 1) return false;
  for (int p = 0; p < n; ++p) {
    if (!plane_ok(img, p)) return false;
  }
  return true;
}

}  // namespace pixfmt
}  // namespace hseg

#endif  // HSEG_SRC_COMMON_PIXFMT_H_
