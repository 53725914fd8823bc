// The example pictures as the network's 473x473 BGR input, for the network
// tests and benchmark. HSEG_EXAMPLES_DIR is set by the build.
#ifndef HSEG_TESTS_NETWORK_TEST_IMAGE_H_
#define HSEG_TESTS_NETWORK_TEST_IMAGE_H_

#include <stb/stb_image.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace hseg_test {

// examples/<name>, bilinearly resampled to 473x473 and stored as BGR rows
// `pitch` bytes apart; the bytes past each row hold `pad`. Empty when the
// picture cannot be read.
inline std::vector<uint8_t> example_bgr(const char *name, int pitch, uint8_t pad = 0) {
  constexpr int kSize = 473;
  const std::string path = std::string(HSEG_EXAMPLES_DIR) + "/" + name;
  int w = 0, h = 0, n = 0;
  unsigned char *rgb = stbi_load(path.c_str(), &w, &h, &n, 3);
  if (rgb == nullptr) return {};
  std::vector<uint8_t> bgr(static_cast<size_t>(pitch) * kSize, pad);
  for (int y = 0; y < kSize; ++y) {
    const float sy = std::max(0.0f, (y + 0.5f) * h / kSize - 0.5f);
    const int y0 = std::min(h - 1, static_cast<int>(sy)), y1 = std::min(h - 1, y0 + 1);
    const float fy = sy - y0;
    for (int x = 0; x < kSize; ++x) {
      const float sx = std::max(0.0f, (x + 0.5f) * w / kSize - 0.5f);
      const int x0 = std::min(w - 1, static_cast<int>(sx)), x1 = std::min(w - 1, x0 + 1);
      const float fx = sx - x0;
      for (int k = 0; k < 3; ++k) {
        auto at = [&](int yy, int xx) { return static_cast<float>(rgb[(yy * w + xx) * 3 + k]); };
        const float v = (1 - fy) * ((1 - fx) * at(y0, x0) + fx * at(y0, x1)) +
                        fy * ((1 - fx) * at(y1, x0) + fx * at(y1, x1));
        bgr[static_cast<size_t>(y) * pitch + 3 * x + (2 - k)] =
            static_cast<uint8_t>(std::lround(std::min(255.0f, std::max(0.0f, v))));
      }
    }
  }
  stbi_image_free(rgb);
  return bgr;
}

// The example photograph, a person: examples/astronaut.png.
inline std::vector<uint8_t> astronaut_bgr(int pitch, uint8_t pad = 0) {
  return example_bgr("astronaut.png", pitch, pad);
}

}  // namespace hseg_test

#endif  // HSEG_TESTS_NETWORK_TEST_IMAGE_H_
