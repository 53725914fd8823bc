// Area shrink of a video frame to the network's 473x473 BGR input, full and
// half-sampled, per source layout. Reports time per frame and source
// megapixels per second.
#include <benchmark/benchmark.h>

#include "hseg/resize.h"
#include "pipeline/network.h"
#include "support/frames.h"

namespace {

constexpr int32_t kSide = hseg::kNetInputSize;

template <MRESULT (*Resize)(MHandle, const OffscreenImage *, const OffscreenImage *)>
void BM_AreaResize(benchmark::State &state) {
  const uint32_t format = uint32_t(state.range(0));
  const int w = int(state.range(1)), h = int(state.range(2));
  const hseg_bench::Frame src(format, w, h, 1);
  hseg_bench::Frame out(HSEG_PIXFMT_BGR24, kSide, kSide, 0);
  for (auto _ : state) {
    if (Resize(nullptr, &src.d, &out.d) != HSEG_OK) {
      state.SkipWithError("resize failed");
      break;
    }
    benchmark::DoNotOptimize(out.planes[0].data());
    benchmark::ClobberMemory();
  }
  state.counters["MP/s"] = benchmark::Counter(double(w) * h * 1e-6,
                                              benchmark::Counter::kIsIterationInvariantRate);
}

void Args(benchmark::internal::Benchmark *b) {
  b->ArgNames({"format", "w", "h"});
  for (int64_t f : {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_NV21, HSEG_PIXFMT_I420})
    for (auto [w, h] : {std::pair<int64_t, int64_t>{1920, 1080}, {1280, 720}}) b->Args({f, w, h});
  b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_AreaResize<LumResizeToBGR>)->Name("LumResizeToBGR")->Apply(Args);
BENCHMARK(BM_AreaResize<LumResizeToBGR_SP>)->Name("LumResizeToBGR_SP")->Apply(Args);

}  // namespace
