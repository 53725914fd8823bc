// Nearest, bilinear and bicubic resizers. Each benchmark reports the time of
// one call and the destination megapixels written per second ("Mpix/s").
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "hseg/resize.h"
#include "pipeline/network.h"
#include "support/frames.h"

namespace {

using hseg_bench::noise;

void set_rate(benchmark::State &state, int64_t dst_pixels) {
  state.counters["Mpix/s"] = benchmark::Counter(
      static_cast<double>(dst_pixels) * 1e-6 * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate);
}

// The pipeline's last step: its mask, an image record of the network's
// input size, to a full-HD output.
void BM_NearestMaskTo1080p(benchmark::State &state) {
  constexpr int32_t kSide = hseg::kNetInputSize;
  Image *mask = createimg(nullptr, kSide, kSide, 8, 1);
  const std::vector<uint8_t> bytes = noise(mask->size, 1);
  std::copy(bytes.begin(), bytes.end(), mask->data);
  std::vector<uint8_t> out(1920 * 1080);
  for (auto _ : state) {
    benchmark::DoNotOptimize(zevImageResize_NN(nullptr, mask->data, int32_t(mask->pitch), kSide,
                                               kSide, out.data(), 1920, 1920, 1080, 1));
    benchmark::ClobberMemory();
  }
  release_img(nullptr, &mask);
  set_rate(state, 1920 * 1080);
}
BENCHMARK(BM_NearestMaskTo1080p)->Unit(benchmark::kMicrosecond);

// 1920 x 1080 to 640 x 360, one benchmark per source format; the second
// argument is the colour flag (1 BGR, 0 grey).
void BM_BilinearFrom1080p(benchmark::State &state) {
  const auto format = static_cast<uint32_t>(state.range(0));
  const auto colour = static_cast<int32_t>(state.range(1));
  const hseg_bench::Frame src(format, 1920, 1080, 2);
  const int32_t dw = 640, dh = 360, dp = colour == 1 ? 3 * dw : dw;
  std::vector<uint8_t> out(static_cast<size_t>(dp) * dh);
  for (auto _ : state) {
    benchmark::DoNotOptimize(zevImageResize_BL(nullptr, &src.d, out.data(), dw, dh, dp, colour));
    benchmark::ClobberMemory();
  }
  set_rate(state, int64_t{dw} * dh);
}
BENCHMARK(BM_BilinearFrom1080p)
    ->ArgNames({"format", "colour"})
    ->ArgsProduct({{HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21,
                    HSEG_PIXFMT_NV12},
                   {1, 0}})
    ->Unit(benchmark::kMicrosecond);

void BM_BilinearC1From1080p(benchmark::State &state) {
  const std::vector<uint8_t> src = noise(1920 * 1080, 5);
  std::vector<uint8_t> out(640 * 360);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        zevImageResize_BL_C1(nullptr, src.data(), 1920, 1080, 1920, out.data(), 640, 360, 640));
    benchmark::ClobberMemory();
  }
  set_rate(state, 640 * 360);
}
BENCHMARK(BM_BilinearC1From1080p)->Unit(benchmark::kMicrosecond);

// 1920 x 1080 to 1280 x 720 with a warm cache (the tables are built on the
// first call only).
void BM_BicubicFrom1080p(benchmark::State &state) {
  const std::vector<uint8_t> src = noise(1920 * 1080, 6);
  std::vector<uint8_t> out(1280 * 720);
  CubicCache cache{nullptr, nullptr};
  for (auto _ : state) {
    benchmark::DoNotOptimize(ImageResize_Cubic_C1(nullptr, src.data(), 1920, 1080, 1920,
                                                  out.data(), 1280, 720, 1280, &cache));
    benchmark::ClobberMemory();
  }
  MMemFree(nullptr, cache.work);
  MMemFree(nullptr, cache.coef_tab);
  set_rate(state, 1280 * 720);
}
BENCHMARK(BM_BicubicFrom1080p)->Unit(benchmark::kMicrosecond);

}  // namespace
