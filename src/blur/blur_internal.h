// Shared pieces of the blur drivers: how one plane of samples is laid out,
// and the per-plane box and Gaussian drivers that the entry points call.
#ifndef HSEG_SRC_BLUR_BLUR_INTERNAL_H_
#define HSEG_SRC_BLUR_BLUR_INTERNAL_H_

#include <cstdint>
#include <cstring>

#include "blur/blur_rows.h"

namespace hseg {
namespace blur {

// One plane of `ch` interleaved channels: sample (x, c) of row y lies at
// base + y * pitch + offset + x * pixel_step + c * chan_step, `bytes` wide
// (1, or 2 for native-endian 16-bit samples, whose rows are then 2-aligned).
// A plane whose samples follow each other in memory is read and written in
// place; any other (the Y or the U,V samples of YUY2, always bytes) goes
// through a contiguous row of scratch.
struct PlaneView {
  const uint8_t *src;
  int64_t src_pitch;
  uint8_t *dst;
  int64_t dst_pitch;
  int32_t width, height, ch, bytes;
  int32_t offset, pixel_step, chan_step;

  int32_t samples() const { return width * ch; }
  bool contiguous() const {
    return offset == 0 && chan_step == bytes && pixel_step == ch * bytes;
  }
};

// Reads and writes the rows of a plane as contiguous samples of type T.
template <typename T>
class PlaneRows {
 public:
  PlaneRows(const PlaneView &v, T *scratch_a, T *scratch_b, T *scratch_out)
      : v_(v), scratch_{scratch_a, scratch_b}, out_(scratch_out) {}

  // Row y clamped to the plane (replicated borders). `slot` 0 or 1 picks
  // the scratch row, so two rows can be held at once.
  const T *src_row(int64_t y, int slot) const {
    y = y < 0 ? 0 : (y >= v_.height ? v_.height - 1 : y);
    const uint8_t *row = v_.src + y * v_.src_pitch;
    if (v_.contiguous()) return reinterpret_cast<const T *>(row);
    T *s = scratch_[slot];
    const uint8_t *p = row + v_.offset;
    const int32_t step = v_.pixel_step, cs = v_.chan_step;
    if (v_.ch == 1) {
      for (int32_t x = 0; x < v_.width; ++x) s[x] = p[x * step];
    } else {  // the U,V pairs of YUY2
      for (int32_t x = 0; x < v_.width; ++x) s[2 * x] = p[x * step], s[2 * x + 1] = p[x * step + cs];
    }
    return s;
  }
  // Where output row y is to be written; then call put_row(y).
  T *dst_row(int64_t y) const {
    return v_.contiguous() ? reinterpret_cast<T *>(v_.dst + y * v_.dst_pitch) : out_;
  }
  void put_row(int64_t y) const {
    if (v_.contiguous()) return;
    uint8_t *p = v_.dst + y * v_.dst_pitch + v_.offset;
    const int32_t step = v_.pixel_step, cs = v_.chan_step;
    if (v_.ch == 1) {
      for (int32_t x = 0; x < v_.width; ++x) p[x * step] = static_cast<uint8_t>(out_[x]);
    } else {
      for (int32_t x = 0; x < v_.width; ++x) {
        p[x * step] = static_cast<uint8_t>(out_[2 * x]);
        p[x * step + cs] = static_cast<uint8_t>(out_[2 * x + 1]);
      }
    }
  }

 private:
  const PlaneView &v_;
  T *scratch_[2];
  T *out_;
};

// Bytes of scratch PlaneRows needs for a plane.
inline int64_t plane_rows_bytes(const PlaneView &v) {
  return v.contiguous() ? 0 : 3 * int64_t{v.samples()} * v.bytes;
}

// Box blur of rows [y0, y1) of a plane with a (2 rx + 1) x (2 ry + 1)
// window. `work` holds box_work_bytes(v, rx, ry) bytes, aligned as
// MMemAlloc aligns (16 bytes).
int64_t box_work_bytes(const PlaneView &v, int32_t rx, int32_t ry);
void box_plane(const RowKernels &k, const PlaneView &v, int32_t rx, int32_t ry, int32_t y0,
               int32_t y1, void *work);

// Box radii of the three passes that approximate a Gaussian of `sigma`.
struct GaussRadii {
  int32_t r[3];
};
GaussRadii gauss_radii(double sigma);
int64_t gauss_work_bytes(const PlaneView &v, const GaussRadii &gx, const GaussRadii &gy);
void gauss_plane(const RowKernels &k, const PlaneView &v, const GaussRadii &gx,
                 const GaussRadii &gy, int32_t y0, int32_t y1, void *work);

// Copies rows [y0, y1) of the plane unchanged.
void copy_plane(const PlaneView &v, int32_t y0, int32_t y1);

// Carves consecutive arrays out of one work block, each starting a multiple
// of 32 bytes after the block (so as aligned as the block); with a null base
// it only counts the bytes.
class Carver {
 public:
  explicit Carver(void *base) : base_(static_cast<uint8_t *>(base)) {}
  template <typename T>
  T *take(int64_t count) {
    T *p = base_ == nullptr ? nullptr : reinterpret_cast<T *>(base_ + used_);
    used_ += (count * static_cast<int64_t>(sizeof(T)) + 31) / 32 * 32;
    return p;
  }
  int64_t used() const { return used_; }

 private:
  uint8_t *base_;
  int64_t used_ = 0;
};

}  // namespace blur
}  // namespace hseg

#endif  // HSEG_SRC_BLUR_BLUR_INTERNAL_H_
