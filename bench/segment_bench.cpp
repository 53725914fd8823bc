// Hseg on camera-sized frames: time per call, the share of each stage, and
// the process's peak resident memory.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdint>
#include <vector>

#include "hseg/hseg.h"

namespace {

// A frame with some structure (gradients and a bright disc), so that the
// CRF's lattice has a realistic number of colour cells.
std::vector<uint8_t> make_bgr(int w, int h) {
  std::vector<uint8_t> bgr(size_t{3} * w * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t *p = &bgr[3 * (size_t{1} * y * w + x)];
      const int dx = x - w / 2, dy = y - h / 2;
      const bool disc = dx * dx + dy * dy < (h / 3) * (h / 3);
      p[0] = static_cast<uint8_t>(disc ? 60 : x * 255 / w);
      p[1] = static_cast<uint8_t>(disc ? 90 : y * 255 / h);
      p[2] = static_cast<uint8_t>(disc ? 220 : 100);
    }
  return bgr;
}

void run(benchmark::State &state, const OffscreenImage &src) {
  std::vector<uint8_t> mask(size_t{1} * src.width * src.height);
  OffscreenImage dst{};
  dst.format = HSEG_PIXFMT_GRAY;
  dst.width = src.width;
  dst.height = src.height;
  dst.planes[0] = mask.data();
  dst.pitches[0] = src.width;
  HsegStageTimes sum{};
  for (auto _ : state) {
    HsegStageTimes t{};
    if (HsegTimed(nullptr, &src, &dst, 0, 0, &t) != HSEG_OK) {
      state.SkipWithError("Hseg failed");
      return;
    }
    sum.resize += t.resize;
    sum.network += t.network;
    sum.crf += t.crf;
    sum.final_resize += t.final_resize;
    sum.total += t.total;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["resize_ms"] = 1e3 * sum.resize / n;
  state.counters["network_ms"] = 1e3 * sum.network / n;
  state.counters["crf_ms"] = 1e3 * sum.crf / n;
  state.counters["final_ms"] = 1e3 * sum.final_resize / n;
  state.counters["network_%"] = 100.0 * sum.network / sum.total;
  state.counters["crf_%"] = 100.0 * sum.crf / sum.total;
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  state.counters["peak_rss_MB"] = static_cast<double>(ru.ru_maxrss) / 1024.0;
}

void BM_Hseg_BGR_1280x720(benchmark::State &state) {
  std::vector<uint8_t> bgr = make_bgr(1280, 720);
  OffscreenImage src{};
  src.format = HSEG_PIXFMT_BGR24;
  src.width = 1280;
  src.height = 720;
  src.planes[0] = bgr.data();
  src.pitches[0] = 3 * 1280;
  run(state, src);
}

void BM_Hseg_NV21_1920x1080(benchmark::State &state) {
  const int w = 1920, h = 1080;
  std::vector<uint8_t> bgr = make_bgr(w, h);
  std::vector<uint8_t> nv21(size_t{1} * w * h * 3 / 2);
  // Luma and V,U pairs from the BGR frame (full range).
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const uint8_t *p = &bgr[3 * (size_t{1} * y * w + x)];
      const double luma = 0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2];
      nv21[size_t{1} * y * w + x] = static_cast<uint8_t>(luma + 0.5);
      if (x % 2 == 0 && y % 2 == 0) {
        uint8_t *vu = &nv21[size_t{1} * w * h + size_t{1} * (y / 2) * w + x];
        vu[0] = static_cast<uint8_t>(128.0 + (p[2] - luma) / 1.403 + 0.5);
        vu[1] = static_cast<uint8_t>(128.0 + (p[0] - luma) / 1.773 + 0.5);
      }
    }
  OffscreenImage src{};
  src.format = HSEG_PIXFMT_NV21;
  src.width = w;
  src.height = h;
  src.planes[0] = nv21.data();
  src.planes[1] = nv21.data() + size_t{1} * w * h;
  src.pitches[0] = w;
  src.pitches[1] = w;
  run(state, src);
}

}  // namespace

BENCHMARK(BM_Hseg_BGR_1280x720)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.1);
BENCHMARK(BM_Hseg_NV21_1920x1080)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.1);
