#include "frames.h"

#include <cstring>

#include "common/pixfmt.h"

namespace hseg_tools {

using hseg::pixfmt::plane_count;
using hseg::pixfmt::plane_rows;
using hseg::pixfmt::row_bytes;

int64_t frame_bytes(uint32_t format, Size size) {
  int64_t bytes = 0;
  for (int p = 0; p < plane_count(format); ++p)
    bytes += row_bytes(format, p, size.w) * plane_rows(format, p, size.h);
  return bytes;
}

OffscreenImage describe_frame(uint32_t format, Size size, uint8_t *data) {
  OffscreenImage d{};
  d.format = format;
  d.width = size.w;
  d.height = size.h;
  for (int p = 0; p < plane_count(format); ++p) {
    d.planes[p] = data;
    d.pitches[p] = static_cast<int32_t>(row_bytes(format, p, size.w));
    data += d.pitches[p] * plane_rows(format, p, size.h);
  }
  return d;
}

const char *raw_name(uint32_t format) {
  for (const RawFormat &f : kRawFormats)
    if (f.format == format) return f.name;
  return "?";
}

FrameRead read_frame(FILE *in, std::vector<uint8_t> *frame, size_t *got) {
  *got = std::fread(frame->data(), 1, frame->size(), in);
  if (*got == frame->size()) return FrameRead::kFrame;
  if (std::ferror(in) != 0) return FrameRead::kError;
  return *got == 0 ? FrameRead::kEnd : FrameRead::kShort;
}

MRESULT cover(Picture &background, Size size, Picture *out) {
  const Size from = background.size;
  // The part kept: full height and a centred width of from.h * size.w /
  // size.h when the picture is wider than the frame, else the reverse.
  Size part = from;
  if (int64_t{from.w} * size.h > int64_t{from.h} * size.w)
    part.w = static_cast<int32_t>((int64_t{from.h} * size.w + size.h / 2) / size.h);
  else
    part.h = static_cast<int32_t>((int64_t{from.w} * size.h + size.w / 2) / size.w);
  part.w = part.w < 1 ? 1 : part.w;
  part.h = part.h < 1 ? 1 : part.h;
  OffscreenImage src = background.describe();
  src.width = part.w;
  src.height = part.h;
  src.planes[0] += size_t{1} * ((from.h - part.h) / 2) * src.pitches[0] +
                   size_t{3} * ((from.w - part.w) / 2);
  out->size = size;
  out->bgr.resize(static_cast<size_t>(frame_bytes(HSEG_PIXFMT_BGR24, size)));
  OffscreenImage dst = out->describe();
  if (part.w >= size.w && part.h >= size.h) {
    const MRESULT s = LumResizeToBGR(nullptr, &src, &dst);
    if (s != HSEG_ERR_TABLE) return s;  // a table error only for sources wider than ~16000
  }
  return zevImageResize_BL(nullptr, &src, dst.planes[0], size.w, size.h, dst.pitches[0], 1);
}

MRESULT bgr_to_frame(Picture &bgr, uint32_t format, std::vector<uint8_t> *frame) {
  const Size size = bgr.size;
  // YUY2 chroma comes from the picture with every row doubled: each 2x2
  // block then holds one row's pixel pair twice, and the block mean,
  // (2a + 2b + 2) / 4, is the pair's, (a + b + 1) / 2.
  const bool yuy2 = format == HSEG_PIXFMT_YUY2;
  Picture doubled;
  if (yuy2) {
    doubled.size = Size{size.w, 2 * size.h};
    const size_t row = size_t{3} * size.w;
    doubled.bgr.resize(2 * row * size.h);
    for (int32_t y = 0; y < 2 * size.h; ++y)
      std::memcpy(&doubled.bgr[row * y], &bgr.bgr[row * (y / 2)], row);
  }
  Picture &src = yuy2 ? doubled : bgr;
  std::vector<uint8_t> nv21(static_cast<size_t>(frame_bytes(HSEG_PIXFMT_NV21, src.size)));
  const OffscreenImage in = src.describe();
  OffscreenImage yvu = describe_frame(HSEG_PIXFMT_NV21, src.size, nv21.data());
  const MRESULT s = BGR2NV21(&in, &yvu);
  if (s != HSEG_OK || format == HSEG_PIXFMT_NV21) {
    frame->swap(nv21);
    return s;
  }
  frame->resize(static_cast<size_t>(frame_bytes(format, size)));
  const OffscreenImage f = describe_frame(format, size, frame->data());
  const int32_t pairs = (size.w + 1) / 2;
  for (int32_t y = 0; y < (yuy2 ? size.h : (size.h + 1) / 2); ++y) {
    const uint8_t *vu = yvu.planes[1] + size_t{1} * y * yvu.pitches[1];
    for (int32_t k = 0; k < pairs; ++k) {
      if (yuy2) {
        const uint8_t *luma = yvu.planes[0] + size_t{2} * y * yvu.pitches[0] + 2 * k;
        uint8_t *o = f.planes[0] + size_t{1} * y * f.pitches[0] + 4 * k;
        o[0] = luma[0];
        o[1] = vu[2 * k + 1];
        o[2] = luma[1];
        o[3] = vu[2 * k];
      } else {  // I420
        f.planes[1][size_t{1} * y * f.pitches[1] + k] = vu[2 * k + 1];
        f.planes[2][size_t{1} * y * f.pitches[2] + k] = vu[2 * k];
      }
    }
  }
  if (!yuy2) std::memcpy(f.planes[0], yvu.planes[0], size_t{1} * size.w * size.h);
  return HSEG_OK;
}

}  // namespace hseg_tools
