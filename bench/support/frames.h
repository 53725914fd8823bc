// Source pictures for the benchmarks: seeded noise, and frames whose planes
// are sized by the library's own pixel-format rules.
#ifndef HSEG_BENCH_SUPPORT_FRAMES_H_
#define HSEG_BENCH_SUPPORT_FRAMES_H_

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "common/pixfmt.h"
#include "hseg/pipeline.h"

namespace hseg_bench {

inline std::vector<uint8_t> noise(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> v(n);
  for (auto &b : v) b = static_cast<uint8_t>(rng());
  return v;
}

// A w x h frame of `format`, every plane filled with noise, rows exactly as
// long as their pitch. Not copyable: the descriptor points into the planes.
struct Frame {
  std::vector<uint8_t> planes[3];
  OffscreenImage d{};
  Frame(uint32_t format, int32_t w, int32_t h, uint32_t seed) {
    d.format = format;
    d.width = w;
    d.height = h;
    for (int i = 0; i < hseg::pixfmt::plane_count(format); ++i) {
      const auto row = static_cast<int32_t>(hseg::pixfmt::row_bytes(format, i, w));
      planes[i] = noise(size_t(row) * hseg::pixfmt::plane_rows(format, i, h), seed + i);
      d.planes[i] = planes[i].data();
      d.pitches[i] = row;
    }
  }
  Frame(const Frame &) = delete;
  Frame &operator=(const Frame &) = delete;
};

}  // namespace hseg_bench

#endif  // HSEG_BENCH_SUPPORT_FRAMES_H_
