// Pictures and raw video frames as hseg-segment handles them: packed BGR
// pictures, raw frames whose planes lie one after the other without padding,
// whole frames read from a file or a pipe, and a background picture fitted
// to a frame and converted to its format.
#ifndef HSEG_TOOLS_FRAMES_H_
#define HSEG_TOOLS_FRAMES_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "hseg/hseg.h"

namespace hseg_tools {

struct Size {
  int32_t w = 0;
  int32_t h = 0;
  bool operator==(const Size &o) const { return w == o.w && h == o.h; }
};

inline int64_t pixels(Size s) { return int64_t{s.w} * s.h; }

// Bytes of an image of `format` and `size` with its planes packed one after
// the other, rows without padding.
int64_t frame_bytes(uint32_t format, Size size);

// Describes such an image at `data`: plane p starts where plane p - 1 ends,
// each pitch is its plane's row. I420 keeps U before V.
OffscreenImage describe_frame(uint32_t format, Size size, uint8_t *data);

// A packed BGR picture, 3 bytes a pixel, rows packed.
struct Picture {
  Size size;
  std::vector<uint8_t> bgr;
  OffscreenImage describe() { return describe_frame(HSEG_PIXFMT_BGR24, size, bgr.data()); }
};

// Raw frame formats by the names the command line uses.
struct RawFormat {
  const char *name;
  uint32_t format;
};
inline constexpr RawFormat kRawFormats[] = {
    {"yuy2", HSEG_PIXFMT_YUY2}, {"i420", HSEG_PIXFMT_I420}, {"nv21", HSEG_PIXFMT_NV21}};
const char *raw_name(uint32_t format);

enum class FrameRead {
  kFrame,  // a whole frame
  kEnd,    // the input ended before the frame's first byte
  kShort,  // the input ended inside the frame, after *got bytes
  kError,  // reading failed; errno says why
};

// Reads the next frame, frame->size() bytes, from `in`, waiting for them on
// a pipe as long as the writer keeps it open.
FrameRead read_frame(FILE *in, std::vector<uint8_t> *frame, size_t *got);

// `background` scaled to cover `size`, keeping its proportions: the largest
// centred part of it with the frame's proportions, resized to the frame (by
// area averaging where it shrinks, else bilinearly). Status of the resizer.
MRESULT cover(Picture &background, Size size, Picture *out);

// `bgr` as a frame of `format` laid out as describe_frame says, converted
// by BGR2NV21's full-range rule. YUY2 (even width) keeps the pair mean of
// each row as its chroma; I420 and NV21 take the 2x2 block mean.
MRESULT bgr_to_frame(Picture &bgr, uint32_t format, std::vector<uint8_t> *frame);

}  // namespace hseg_tools

#endif  // HSEG_TOOLS_FRAMES_H_
