// Background effects: a frame composited with a blurred copy of itself, or
// with another picture, through a person mask used as alpha.
//
// The mask (any size) is enlarged bilinearly to the frame and feathered by a
// small Gaussian, so its edge is a soft ramp rather than stair steps. Every
// plane of the frame is then mixed sample by sample,
//   out = (frame * a + background * (255 - a) + 127) / 255,
// a = 255 keeping the frame exactly and a = 0 giving the background exactly.
// Chroma samples that cover several pixels (YUY2, I420, NV21) take the
// rounded mean of those pixels' alphas. The background blur runs on the
// frame's own planes, so the output keeps the frame's format with no
// conversion through BGR.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

#include "common/pixfmt.h"
#include "hseg/blur.h"
#include "hseg/pipeline.h"
#include "hseg/resize.h"
#include "pipeline/network.h"

namespace hseg {
namespace {

// Feathering: a Gaussian of about 1/256 of the frame's shorter side (2.8
// pixels at 720p), at least 1 pixel.
float feather_sigma(int32_t w, int32_t h) {
  return std::max(1.0f, static_cast<float>(std::min(w, h)) / 256.0f);
}

bool frame_format_ok(uint32_t f) {
  return f == HSEG_PIXFMT_BGR24 || f == HSEG_PIXFMT_YUY2 || f == HSEG_PIXFMT_I420 ||
         f == HSEG_PIXFMT_NV21 || f == HSEG_PIXFMT_GRAY;
}

// Same format and size, every plane present and holding its rows.
MRESULT check_like(const OffscreenImage *frame, const OffscreenImage *other) {
  if (other == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  if (other->format != frame->format) return HSEG_ERR_FORMAT;
  if (other->width != frame->width || other->height != frame->height ||
      !pixfmt::planes_ok(*other))
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

MRESULT check_frame(const OffscreenImage *frame, const OffscreenImage *out) {
  if (frame == nullptr || out == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  if (!frame_format_ok(frame->format)) return HSEG_ERR_FORMAT;
  if (!pixfmt::planes_ok(*frame)) return HSEG_ERR_BAD_ARGUMENT;
  if (frame->format == HSEG_PIXFMT_YUY2 && frame->width % 2 != 0) return HSEG_ERR_BAD_ARGUMENT;
  return check_like(frame, out);
}

// The bilinear resizer takes sources of up to 65536 pixels a side.
constexpr int32_t kMaxMaskSide = 65536;

OffscreenImage gray(uint8_t *data, int32_t w, int32_t h, int32_t pitch) {
  OffscreenImage g{};
  g.format = HSEG_PIXFMT_GRAY;
  g.width = w;
  g.height = h;
  g.planes[0] = data;
  g.pitches[0] = pitch;
  return g;
}

// The mask is read as one grey plane whatever its format code says.
MRESULT check_mask(const OffscreenImage *mask) {
  if (mask == nullptr || mask->width > kMaxMaskSide || mask->height > kMaxMaskSide)
    return HSEG_ERR_BAD_ARGUMENT;
  const OffscreenImage g = gray(mask->planes[0], mask->width, mask->height, mask->pitches[0]);
  return pixfmt::planes_ok(g) ? HSEG_OK : HSEG_ERR_BAD_ARGUMENT;
}

MRESULT check_effect(const OffscreenImage *frame, const HsegBackgroundEffect *e) {
  if (e == nullptr || e->size < sizeof(HsegBackgroundEffect)) return HSEG_ERR_BAD_ARGUMENT;
  if (e->kind == HSEG_BACKGROUND_BLUR)
    return std::isfinite(e->sigma) && e->sigma > 0.0f ? HSEG_OK : HSEG_ERR_BAD_ARGUMENT;
  if (e->kind == HSEG_BACKGROUND_REPLACE) return check_like(frame, e->picture);
  return HSEG_ERR_BAD_ARGUMENT;
}

struct BlockDeleter {
  MHandle mem;
  void operator()(uint8_t *p) const { MMemFree(mem, p); }
};
using Block = std::unique_ptr<uint8_t, BlockDeleter>;

// One channel of a frame as the mixing sees it: sample (x, y) at
// planes[p] + y * pitch + offset + x * step in frame, background and
// output alike (the background may lay it out differently, see below),
// covering sx x sy pixels. BGR is one channel of three samples a pixel
// (spp), stepped by 1.
struct Channel {
  int plane, offset, step, sx, sy, spp;
};

// The channels of each format. YUY2 chroma covers two pixels of a row,
// 4:2:0 chroma a 2x2 block.
int channels_of(uint32_t format, Channel ch[3]) {
  switch (format) {
    case HSEG_PIXFMT_BGR24:
      ch[0] = {0, 0, 1, 1, 1, 3};
      return 1;
    case HSEG_PIXFMT_YUY2:
      ch[0] = {0, 0, 2, 1, 1, 1};
      ch[1] = {0, 1, 4, 2, 1, 1};
      ch[2] = {0, 3, 4, 2, 1, 1};
      return 3;
    case HSEG_PIXFMT_I420:
      ch[0] = {0, 0, 1, 1, 1, 1};
      ch[1] = {1, 0, 1, 2, 2, 1};
      ch[2] = {2, 0, 1, 2, 2, 1};
      return 3;
    case HSEG_PIXFMT_NV21:
      ch[0] = {0, 0, 1, 1, 1, 1};
      ch[1] = {1, 0, 2, 2, 2, 1};
      ch[2] = {1, 1, 2, 2, 2, 1};
      return 3;
    default:
      ch[0] = {0, 0, 1, 1, 1, 1};
      return 1;
  }
}

// Where a channel's samples lie in one image.
struct Samples {
  const uint8_t *base;
  int64_t pitch;
  int step;
};
Samples samples_of(const OffscreenImage &img, const Channel &c) {
  return {img.planes[c.plane] + c.offset, img.pitches[c.plane], c.step};
}

// Alpha of each sample of a row of samples covering sx x sy pixels: the
// rounded mean of the feathered mask over them, clipped to the frame.
// Pixel-sized samples read the mask row itself.
const uint8_t *alpha_row(const uint8_t *alpha, int32_t w, int32_t h, int32_t sx, int32_t sy,
                         int32_t cy, uint8_t *arow) {
  const uint8_t *a0 = alpha + int64_t{cy} * sy * w;
  if (sx == 1 && sy == 1) return a0;
  const uint8_t *a1 = cy * sy + 1 < h ? a0 + w : a0;  // a last odd row counts once
  const int32_t cw = (w + 1) / 2;
  for (int32_t cx = 0; cx < cw; ++cx) {
    const int32_t x0 = 2 * cx, x1 = std::min(w - 1, x0 + 1);  // likewise a last odd column
    const uint32_t sum = sy == 2 ? a0[x0] + a0[x1] + a1[x0] + a1[x1] : 2u * (a0[x0] + a0[x1]);
    arow[cx] = static_cast<uint8_t>((sum + 2) / 4);
  }
  return arow;
}

// Mixes one row of a channel: n alphas, each for spp samples.
// (v + 127) / 255 for v <= 255 * 255 is (t + (t >> 8)) >> 8 with t = v + 128
// (checked for every v); t stays below 2^16, so the loops vectorize in
// 16-bit lanes.
inline uint8_t mix(uint32_t f, uint32_t b, uint32_t a) {
  const uint32_t t = f * a + b * (255u - a) + 128u;
  return static_cast<uint8_t>((t + (t >> 8)) >> 8);
}
template <int kSpp>
void mix_row_packed(const uint8_t *f, const uint8_t *b, const uint8_t *a, int32_t n, uint8_t *o) {
  for (int32_t i = 0; i < n; ++i)
    for (int k = 0; k < kSpp; ++k) o[kSpp * i + k] = mix(f[kSpp * i + k], b[kSpp * i + k], a[i]);
}
void mix_row(const Channel &c, const uint8_t *f, int fstep, const uint8_t *b, int bstep,
             const uint8_t *a, int32_t n, uint8_t *o) {
  if (fstep == 1 && bstep == 1 && c.step == 1) {
    if (c.spp == 3) return mix_row_packed<3>(f, b, a, n, o);
    return mix_row_packed<1>(f, b, a, n, o);
  }
  for (int32_t i = 0; i < n; ++i) o[i * c.step] = mix(f[i * fstep], b[i * bstep], a[i]);
}

// Mixes every channel of the frame, a row of alphas at a time for the
// channels that share it.
void mix_frame(const OffscreenImage &frame, const Channel *ch, const Samples *bg, int n,
               const uint8_t *alpha, OffscreenImage *out, uint8_t *arow) {
  const int32_t w = frame.width, h = frame.height;
  for (int sub = 1; sub <= 2; ++sub) {  // pixel-sized channels, then chroma
    int first = -1;
    for (int i = 0; i < n && first < 0; ++i)
      if ((ch[i].sx == 1) == (sub == 1)) first = i;
    if (first < 0) continue;
    const int32_t sx = ch[first].sx, sy = ch[first].sy;
    const int32_t cw = (w + sx - 1) / sx, rows = (h + sy - 1) / sy;
    for (int32_t cy = 0; cy < rows; ++cy) {
      const uint8_t *a = alpha_row(alpha, w, h, sx, sy, cy, arow);
      for (int i = first; i < n; ++i) {
        const Channel &c = ch[i];
        if (c.sx != sx) continue;
        const Samples fg = samples_of(frame, c);
        uint8_t *o = out->planes[c.plane] + int64_t{cy} * out->pitches[c.plane] + c.offset;
        mix_row(c, fg.base + cy * fg.pitch, fg.step, bg[i].base + cy * bg[i].pitch, bg[i].step, a,
                cw, o);
      }
    }
  }
}

// The mask enlarged (or shrunk) to the frame and feathered: `alpha`, one
// byte a pixel, rows `w` apart. `spare` is a second buffer of that size.
MRESULT make_alpha(MHandle mem, const OffscreenImage &mask, int32_t w, int32_t h, uint8_t *spare,
                   uint8_t *alpha) {
  if (mask.width == w && mask.height == h) {
    for (int32_t y = 0; y < h; ++y)
      std::memcpy(spare + int64_t{y} * w, mask.planes[0] + int64_t{y} * mask.pitches[0],
                  static_cast<size_t>(w));
  } else {
    const MRESULT s = zevImageResize_BL_C1(mem, mask.planes[0], mask.width, mask.height,
                                           mask.pitches[0], spare, w, h, w);
    if (s != HSEG_OK) return s;
  }
  const OffscreenImage from = gray(spare, w, h, w);
  OffscreenImage to = gray(alpha, w, h, w);
  return GB_GaussianBlur(mem, &from, &to, feather_sigma(w, h));
}

// Sides of one 4:2:0 chroma plane as I420 keeps it. An NV21 frame's V,U
// pairs are blurred as two such planes.
int32_t chroma_width(int32_t w) {
  return static_cast<int32_t>(pixfmt::row_bytes(HSEG_PIXFMT_I420, 1, w));
}
int32_t chroma_height(int32_t h) {
  return static_cast<int32_t>(pixfmt::plane_rows(HSEG_PIXFMT_I420, 1, h));
}

// The blurred frame, planes packed, in `bg` (laid out as bg_desc says). An
// NV21 frame's V,U pairs are split into two planes in `scratch` (half a
// frame's pixels) and blurred from there into plane 1 of bg_desc, V above U.
MRESULT blur_frame(MHandle mem, const OffscreenImage &frame, float sigma, uint8_t *scratch,
                   uint8_t *bg, OffscreenImage *bg_desc) {
  const int32_t w = frame.width, h = frame.height;
  *bg_desc = frame;
  const int planes = pixfmt::plane_count(frame.format);
  uint8_t *p = bg;
  for (int i = 0; i < planes; ++i) {
    const int32_t bytes = static_cast<int32_t>(pixfmt::row_bytes(frame.format, i, w));
    bg_desc->planes[i] = p;
    bg_desc->pitches[i] = bytes;
    p += int64_t{bytes} * pixfmt::plane_rows(frame.format, i, h);
  }
  if (frame.format != HSEG_PIXFMT_I420 && frame.format != HSEG_PIXFMT_NV21)
    return GB_GaussianBlur(mem, &frame, bg_desc, sigma);

  OffscreenImage y = gray(frame.planes[0], w, h, frame.pitches[0]);
  OffscreenImage by = gray(bg_desc->planes[0], w, h, bg_desc->pitches[0]);
  MRESULT s = GB_GaussianBlur(mem, &y, &by, sigma);
  const int32_t cw = chroma_width(w), chh = chroma_height(h);
  const float csigma = sigma / 2;  // chroma is at half resolution both ways
  if (frame.format == HSEG_PIXFMT_I420) {
    for (int i = 1; i < 3 && s == HSEG_OK; ++i) {
      OffscreenImage c = gray(frame.planes[i], cw, chh, frame.pitches[i]);
      OffscreenImage bc = gray(bg_desc->planes[i], cw, chh, bg_desc->pitches[i]);
      s = GB_GaussianBlur(mem, &c, &bc, csigma);
    }
    return s;
  }
  const int64_t chroma = int64_t{cw} * chh;
  for (int32_t cy = 0; cy < chh; ++cy) {
    const uint8_t *vu = frame.planes[1] + int64_t{cy} * frame.pitches[1];
    for (int32_t cx = 0; cx < cw; ++cx) {
      scratch[cy * cw + cx] = vu[2 * cx];
      scratch[chroma + cy * cw + cx] = vu[2 * cx + 1];
    }
  }
  for (int i = 0; i < 2 && s == HSEG_OK; ++i) {
    const OffscreenImage c = gray(scratch + i * chroma, cw, chh, cw);
    OffscreenImage bc = gray(bg_desc->planes[1] + i * chroma, cw, chh, cw);
    s = GB_GaussianBlur(mem, &c, &bc, csigma);
  }
  return s;
}

// Bytes of the blurred frame's packed planes.
int64_t frame_bytes(const OffscreenImage &f) {
  int64_t total = 0;
  for (int i = 0; i < pixfmt::plane_count(f.format); ++i)
    total += pixfmt::row_bytes(f.format, i, f.width) * pixfmt::plane_rows(f.format, i, f.height);
  return total;
}

MRESULT apply(MHandle mem, const OffscreenImage &frame, const OffscreenImage &mask,
              const HsegBackgroundEffect &e, OffscreenImage *out) {
  const int32_t w = frame.width, h = frame.height;
  const int64_t pixels = int64_t{w} * h;
  const bool blur = e.kind == HSEG_BACKGROUND_BLUR;
  // Work block: alpha, the resized mask, a row of chroma alphas, and the
  // blurred frame when blurring.
  const int64_t bytes = 2 * pixels + w + (blur ? frame_bytes(frame) : 0);
  if (bytes > INT32_MAX) return HSEG_ERR_NO_MEMORY;
  Block block(static_cast<uint8_t *>(MMemAlloc(mem, static_cast<int32_t>(bytes))),
              BlockDeleter{mem});
  if (block == nullptr) return HSEG_ERR_NO_MEMORY;
  uint8_t *alpha = block.get(), *spare = alpha + pixels;
  uint8_t *arow = spare + pixels;
  MRESULT s = make_alpha(mem, mask, w, h, spare, alpha);
  if (s != HSEG_OK) return s;

  OffscreenImage bg = blur ? OffscreenImage{} : *e.picture;
  if (blur) {
    s = blur_frame(mem, frame, e.sigma, spare, arow + w, &bg);  // the resized mask is spent
    if (s != HSEG_OK) return s;
  }
  Channel ch[3];
  Samples b[3];
  const int n = channels_of(frame.format, ch);
  for (int i = 0; i < n; ++i) {
    b[i] = samples_of(bg, ch[i]);
    if (blur && frame.format == HSEG_PIXFMT_NV21 && ch[i].plane == 1) {
      // The blurred chroma is in two planes: V, then U.
      const int32_t cw = chroma_width(w);
      b[i] = {bg.planes[1] + (ch[i].offset == 0 ? 0 : int64_t{cw} * chroma_height(h)), cw, 1};
    }
  }
  mix_frame(frame, ch, b, n, alpha, out, arow);
  return HSEG_OK;
}

// The effect record the two direct entries stand for.
HsegBackgroundEffect effect_of(uint32_t kind, float sigma, const OffscreenImage *picture) {
  HsegBackgroundEffect e{};
  e.size = sizeof e;
  e.kind = kind;
  e.sigma = sigma;
  e.picture = picture;
  return e;
}

MRESULT effect_entry(MHandle mem, const OffscreenImage *frame, const OffscreenImage *mask,
                     const HsegBackgroundEffect &e, OffscreenImage *out) {
  MRESULT s = check_frame(frame, out);
  if (s == HSEG_OK) s = check_mask(mask);
  if (s == HSEG_OK) s = check_effect(frame, &e);
  if (s != HSEG_OK) return s;
  return apply(mem, *frame, *mask, e, out);
}

}  // namespace
}  // namespace hseg

extern "C" {

HSEG_API MRESULT HsegBlurBackground(MHandle mem, const OffscreenImage *frame,
                                    const OffscreenImage *mask, float sigma,
                                    OffscreenImage *out) {
  return hseg::effect_entry(mem, frame, mask, hseg::effect_of(HSEG_BACKGROUND_BLUR, sigma, nullptr),
                           out);
}

HSEG_API MRESULT HsegReplaceBackground(MHandle mem, const OffscreenImage *frame,
                                       const OffscreenImage *mask, const OffscreenImage *picture,
                                       OffscreenImage *out) {
  return hseg::effect_entry(mem, frame, mask,
                           hseg::effect_of(HSEG_BACKGROUND_REPLACE, 0.0f, picture), out);
}

HSEG_API MRESULT HsegSegmentBackground(MHandle mem, const OffscreenImage *frame,
                                       const HsegOptions *options,
                                       const HsegBackgroundEffect *effect, OffscreenImage *out) {
  // The mask at the segmentation's own resolution, the network's input side.
  constexpr int32_t kMaskSide = hseg::kNetInputSize;
  MRESULT s = hseg::check_frame(frame, out);
  if (s == HSEG_OK) s = hseg::check_effect(frame, effect);
  if (s != HSEG_OK) return s;
  hseg::Block mask(static_cast<uint8_t *>(MMemAlloc(mem, kMaskSide * kMaskSide)),
                   hseg::BlockDeleter{mem});
  if (mask == nullptr) return HSEG_ERR_NO_MEMORY;
  OffscreenImage m = hseg::gray(mask.get(), kMaskSide, kMaskSide, kMaskSide);
  s = HsegEx(mem, frame, &m, options);
  if (s != HSEG_OK) return s;
  return hseg::apply(mem, *frame, m, *effect, out);
}

}  // extern "C"
