// Image records: the owned raster `Image` and views over a caller's buffer.
#include <cstring>

#include "common/checked.h"
#include "hseg/pipeline.h"

namespace {

// Bytes per row for the record's pitch rule, or -1 when the bit count of a
// row does not fit in int32. The rule rounds the row's byte count up to a
// multiple of 4 (for 8-bit samples).
int32_t image_pitch(int32_t width, int32_t channels, int32_t depth) {
  if (!hseg::mul2_i32_valid(width, channels) ||
      !hseg::mul2_i32_valid(int64_t{width} * channels, depth))
    return -1;
  const int32_t bits = width * channels * depth;
  const int32_t bytes = bits / 8;
  if (bytes % 4 == 0) return bytes;
  if (bits / 32 > (INT32_MAX - 4) / 4) return -1;
  return (bits / 32) * 4 + 4;
}

// Allocates and fills a row table of `height` pointers `pitch` bytes apart.
// Returns null on failure; height 0 yields an allocation of 0 bytes.
uint8_t **make_rows(MHandle handle, uint8_t *data, uint32_t height, uint32_t pitch) {
  if (!hseg::mul2_i32_valid(height, sizeof(uint8_t *))) return nullptr;
  auto **rows = static_cast<uint8_t **>(
      MMemAlloc(handle, static_cast<int32_t>(height * sizeof(uint8_t *))));
  if (rows == nullptr) return nullptr;
  for (uint32_t i = 0; i < height; ++i)
    rows[i] = data == nullptr ? nullptr : data + static_cast<size_t>(i) * pitch;
  return rows;
}

Image *new_record(MHandle handle) {
  auto *img = static_cast<Image *>(MMemAlloc(handle, sizeof(Image)));
  if (img != nullptr) std::memset(img, 0, sizeof(Image));
  return img;
}

void free_owned(MHandle handle, Image *img) {
  MMemFree(handle, img->data);
  MMemFree(handle, img->rows);
  MMemFree(handle, img);
}

}  // namespace

extern "C" {

Image *createimg(MHandle handle, int32_t width, int32_t height, int32_t depth,
                 int32_t channels) {
  if (width < 0 || height < 0 || depth < 1 || channels < 1) return nullptr;
  const int32_t pitch = image_pitch(width, channels, depth);
  if (pitch < 0 || !hseg::mul2_i32_valid(pitch, height)) return nullptr;

  Image *img = new_record(handle);
  if (img == nullptr) return nullptr;
  img->width = static_cast<uint32_t>(width);
  img->height = static_cast<uint32_t>(height);
  img->depth = static_cast<uint32_t>(depth);
  img->channels = static_cast<uint32_t>(channels);
  img->pitch = static_cast<uint32_t>(pitch);
  img->size = static_cast<uint32_t>(pitch * height);

  img->data = static_cast<uint8_t *>(MMemAlloc(handle, static_cast<int32_t>(img->size)));
  if (img->data == nullptr) {
    free_owned(handle, img);
    return nullptr;
  }
  img->rows = make_rows(handle, img->data, img->height, img->pitch);
  if (img->rows == nullptr) {
    free_owned(handle, img);
    return nullptr;
  }
  std::memset(img->data, 0, img->size);
  return img;
}

Image *cloneimg(MHandle handle, const Image *src) {
  if (src == nullptr || src->size > static_cast<uint32_t>(INT32_MAX) ||
      (src->size > 0 && src->data == nullptr))
    return nullptr;
  Image *img = new_record(handle);
  if (img == nullptr) return nullptr;
  img->width = src->width;
  img->height = src->height;
  img->pitch = src->pitch;
  img->size = src->size;
  img->channels = src->channels;
  img->depth = src->depth;

  img->data = static_cast<uint8_t *>(MMemAlloc(handle, static_cast<int32_t>(img->size)));
  if (img->data == nullptr) {
    free_owned(handle, img);
    return nullptr;
  }
  if (img->size > 0) std::memcpy(img->data, src->data, img->size);
  img->rows = make_rows(handle, img->data, img->height, img->pitch);
  if (img->rows == nullptr) {
    free_owned(handle, img);
    return nullptr;
  }
  return img;
}

// Fixed interface behaviour: the names createimg_pesudo and
// release_img_pesudo keep their spelling.
Image *createimg_pesudo(MHandle handle, uint8_t *buffer, uint32_t width, uint32_t height,
                        uint32_t depth, uint32_t channels, uint32_t pitch) {
  if (!hseg::mul2_size_valid(height, pitch) || uint64_t{height} * pitch > UINT32_MAX)
    return nullptr;
  Image *img = new_record(handle);
  if (img == nullptr) return nullptr;
  img->width = width;
  img->height = height;
  img->depth = depth;
  img->channels = channels;
  img->pitch = pitch;
  img->size = height * pitch;
  img->data = buffer;
  img->rows = make_rows(handle, buffer, height, pitch);
  if (img->rows == nullptr) {
    // A view without its row table is of no use to anyone: fail cleanly.
    MMemFree(handle, img);
    return nullptr;
  }
  return img;
}

void release_img(MHandle handle, Image **img) {
  if (img == nullptr || *img == nullptr) return;
  free_owned(handle, *img);
  *img = nullptr;
}

void release_img_pesudo(MHandle handle, Image **img) {
  if (img == nullptr || *img == nullptr) return;
  Image *view = *img;
  // The row table goes with a view over a real buffer only; a view over a
  // null buffer keeps it.
  if (view->data != nullptr) MMemFree(handle, view->rows);
  MMemFree(handle, view);
  *img = nullptr;
}

Image *clear_img(Image *img) {
  if (img != nullptr && img->data != nullptr) std::memset(img->data, 0, img->size);
  return img;
}

}  // extern "C"
