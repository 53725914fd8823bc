// The example pictures as the network's 473x473 BGR input, for the network
// tests and benchmark. HSEG_EXAMPLES_DIR is set by the build.
#ifndef HSEG_TESTS_NETWORK_TEST_IMAGE_H_
#define HSEG_TESTS_NETWORK_TEST_IMAGE_H_

#include <stb/stb_image.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "hseg/resize.h"

namespace hseg_test {

// examples/<name>, resized to 473x473 by the library's bilinear resizer and
// stored as BGR rows `pitch` bytes apart; the bytes past each row hold `pad`.
// Empty when the picture cannot be read.
inline std::vector<uint8_t> example_bgr(const char *name, int pitch, uint8_t pad = 0) {
  int w = 0, h = 0, n = 0;
  unsigned char *rgb = stbi_load((std::string(HSEG_EXAMPLES_DIR) + "/" + name).c_str(), &w, &h, &n, 3);
  if (rgb == nullptr) return {};
  for (int i = 0; i < w * h; ++i) std::swap(rgb[3 * i], rgb[3 * i + 2]);
  const OffscreenImage src{HSEG_PIXFMT_BGR24, w, h, {rgb}, {3 * w}};
  std::vector<uint8_t> bgr(static_cast<size_t>(pitch) * 473, pad);
  const bool ok = zevImageResize_BL(nullptr, &src, bgr.data(), 473, 473, pitch, 1) == HSEG_OK;
  stbi_image_free(rgb);
  return ok ? bgr : std::vector<uint8_t>();
}

// The example photograph, a person: examples/astronaut.png.
inline std::vector<uint8_t> astronaut_bgr(int pitch, uint8_t pad = 0) {
  return example_bgr("astronaut.png", pitch, pad);
}

}  // namespace hseg_test

#endif  // HSEG_TESTS_NETWORK_TEST_IMAGE_H_
