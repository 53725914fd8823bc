// Images for the image toolkit's tests: views whose last row ends at an
// inaccessible page (so a read or write past the image faults at once),
// random filling and pixel comparison.
#ifndef HSEG_TESTS_SUPPORT_UBO_IMAGES_H_
#define HSEG_TESTS_SUPPORT_UBO_IMAGES_H_

#include <cstring>
#include <random>
#include <vector>

#include "hseg/imgproc.h"
#include "support/guarded.h"

namespace hseg_test {

// An Image record of w x h pixels of `channels` samples of `depth` bits over a
// guarded buffer, rows `pad` bytes longer than their samples, filled with
// `fill`.
class GuardedRecord {
 public:
  GuardedRecord(int w, int h, int channels = 1, int depth = 8, int pad = 0, uint8_t fill = 0xA5)
      : pitch_(w * channels * depth / 8 + pad),
        buf_(size_t(pitch_) * (h - 1) + w * channels * depth / 8, GuardedBuffer::kGuardAfter, fill),
        img_(createimg_pesudo(nullptr, buf_.data(), w, h, depth, channels, pitch_)) {}
  ~GuardedRecord() { release_img_pesudo(nullptr, &img_); }
  Image *get() const { return img_; }
  Image *operator->() const { return img_; }
  template <typename T = uint8_t>
  T *at(int x, int y) const {
    return reinterpret_cast<T *>(img_->data + size_t(y) * pitch_) + x * int(img_->channels);
  }

 private:
  int pitch_;
  GuardedBuffer buf_;
  Image *img_;
};

inline void fill_random(const Image *img, std::mt19937 &rng) {
  for (uint32_t y = 0; y < img->height; ++y)
    for (uint32_t i = 0; i < img->width * img->channels * img->depth / 8; ++i)
      img->data[size_t(y) * img->pitch + i] = uint8_t(rng());
}

// The samples of row y, without the padding.
inline std::vector<uint8_t> row_bytes(const Image *img, uint32_t y) {
  const uint8_t *p = img->data + size_t(y) * img->pitch;
  return std::vector<uint8_t>(p, p + img->width * img->channels * img->depth / 8);
}

inline bool same_pixels(const Image *a, const Image *b) {
  if (a->width != b->width || a->height != b->height || a->channels != b->channels) return false;
  for (uint32_t y = 0; y < a->height; ++y)
    if (row_bytes(a, y) != row_bytes(b, y)) return false;
  return true;
}

// A small 1-channel image from rows of values.
inline void set_rows(const Image *img, const std::vector<std::vector<int>> &rows) {
  for (size_t y = 0; y < rows.size(); ++y)
    for (size_t x = 0; x < rows[y].size(); ++x) img->data[y * img->pitch + x] = uint8_t(rows[y][x]);
}

inline std::vector<std::vector<int>> get_rows(const Image *img) {
  std::vector<std::vector<int>> rows(img->height);
  for (uint32_t y = 0; y < img->height; ++y)
    for (uint8_t v : row_bytes(img, y)) rows[y].push_back(v);
  return rows;
}

}  // namespace hseg_test

#endif  // HSEG_TESTS_SUPPORT_UBO_IMAGES_H_
