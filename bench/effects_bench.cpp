// Background effects on a 1280x720 frame with a given 473x473 mask (the
// segmentation's own size): time per frame, per frame format.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "hseg/pipeline.h"
#include "pipeline/network.h"
#include "support/frames.h"

namespace {

constexpr int32_t kW = 1280, kH = 720, kMask = hseg::kNetInputSize;
using hseg_bench::Frame;

// A person-shaped blob: an ellipse in the middle of the mask.
std::vector<uint8_t> blob_mask() {
  std::vector<uint8_t> m(size_t(kMask) * kMask);
  for (int y = 0; y < kMask; ++y)
    for (int x = 0; x < kMask; ++x) {
      const double dx = (x - kMask / 2.0) / (kMask * 0.25), dy = (y - kMask * 0.6) / (kMask * 0.45);
      m[size_t(y) * kMask + x] = dx * dx + dy * dy < 1.0 ? 255 : 0;
    }
  return m;
}

// Arguments: frame format, effect (0 blur sigma 12, 1 replace).
void BM_BackgroundEffect720p(benchmark::State &state) {
  const auto format = static_cast<uint32_t>(state.range(0));
  const Frame frame(format, kW, kH, 1), picture(format, kW, kH, 2);
  Frame out(format, kW, kH, 3);
  std::vector<uint8_t> m = blob_mask();
  const OffscreenImage mask{HSEG_PIXFMT_GRAY, kMask, kMask, {m.data()}, {kMask}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        state.range(1) == 0 ? HsegBlurBackground(nullptr, &frame.d, &mask, 12.0f, &out.d)
                            : HsegReplaceBackground(nullptr, &frame.d, &mask, &picture.d, &out.d));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_BackgroundEffect720p)
    ->ArgsProduct({{HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21},
                   {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
