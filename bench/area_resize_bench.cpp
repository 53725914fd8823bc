// Area shrink of a video frame to the network's 473x473 BGR input, full and
// half-sampled, per source layout. Reports time per frame and source
// megapixels per second.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "hseg/resize.h"

namespace {

constexpr int kSide = 473;

struct Frame {
  OffscreenImage d{};
  std::vector<uint8_t> plane[3];
};

Frame make_frame(uint32_t format, int w, int h) {
  Frame f;
  f.d.format = format;
  f.d.width = w;
  f.d.height = h;
  const int cw = (w + 1) / 2, ch = (h + 1) / 2;
  auto add = [&](int i, int pitch, int rows) {
    f.d.pitches[i] = pitch;
    f.plane[i].resize(size_t(pitch) * rows);
    f.d.planes[i] = f.plane[i].data();
  };
  switch (format) {
    case HSEG_PIXFMT_BGR24: add(0, 3 * w, h); break;
    case HSEG_PIXFMT_YUY2: add(0, 4 * cw, h); break;
    case HSEG_PIXFMT_NV21: add(0, w, h); add(1, 2 * cw, ch); break;
    default: add(0, w, h); add(1, cw, ch); add(2, cw, ch); break;
  }
  std::mt19937 rng(1);
  for (auto &p : f.plane)
    for (auto &b : p) b = uint8_t(rng());
  return f;
}

template <MRESULT (*Resize)(MHandle, const OffscreenImage *, const OffscreenImage *)>
void BM_AreaResize(benchmark::State &state) {
  const uint32_t format = uint32_t(state.range(0));
  const int w = int(state.range(1)), h = int(state.range(2));
  const Frame src = make_frame(format, w, h);
  std::vector<uint8_t> out(size_t(3) * kSide * kSide);
  OffscreenImage dst{};
  dst.format = HSEG_PIXFMT_BGR24;
  dst.width = dst.height = kSide;
  dst.planes[0] = out.data();
  dst.pitches[0] = 3 * kSide;
  for (auto _ : state) {
    if (Resize(nullptr, &src.d, &dst) != HSEG_OK) {
      state.SkipWithError("resize failed");
      break;
    }
    benchmark::DoNotOptimize(out.data());
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
