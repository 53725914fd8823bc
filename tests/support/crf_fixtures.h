// Inputs shared by the CRF tests: random float arrays and a noisy picture of
// a coloured disc on a background of another colour.
#ifndef HSEG_TESTS_SUPPORT_CRF_FIXTURES_H_
#define HSEG_TESTS_SUPPORT_CRF_FIXTURES_H_

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace hseg_test {

// n floats drawn uniformly from [lo, hi).
inline std::vector<float> random_floats(size_t n, float lo, float hi, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(lo, hi);
  std::vector<float> v(n);
  for (float &x : v) x = u(rng);
  return v;
}

struct Disc {
  double cx, cy, r;
  bool contains(double x, double y) const {
    return (x - cx) * (x - cx) + (y - cy) * (y - cy) < r * r;
  }
};

// Fills a w x h BGR picture (rows `pitch` bytes apart): colour `in` inside
// the disc, `out` outside, every byte jittered by up to +-noise.
inline void paint_disc(uint8_t *bgr, int pitch, int w, int h, const Disc &disc, const int in[3],
                       const int out[3], int noise, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> jitter(-noise, noise);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int *base = disc.contains(x, y) ? in : out;
      uint8_t *px = bgr + static_cast<size_t>(y) * pitch + 3 * x;
      for (int c = 0; c < 3; ++c) px[c] = static_cast<uint8_t>(base[c] + jitter(rng));
    }
}

}  // namespace hseg_test

#endif  // HSEG_TESTS_SUPPORT_CRF_FIXTURES_H_
