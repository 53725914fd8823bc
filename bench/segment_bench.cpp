// Hseg on camera-sized frames: time per call, the share of each stage, and
// the process's peak resident memory; and a 200-call soak that prints the
// resident memory every 20 calls (it must stay flat).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
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

// The frame of make_bgr as NV21 (full range): the luma plane, then V,U pairs.
struct Nv21Frame {
  std::vector<uint8_t> bytes;
  OffscreenImage desc{};
};

Nv21Frame make_nv21(int w, int h) {
  const std::vector<uint8_t> bgr = make_bgr(w, h);
  Nv21Frame f;
  f.bytes.resize(size_t{1} * w * h * 3 / 2);
  std::vector<uint8_t> &nv21 = f.bytes;
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
  f.desc.format = HSEG_PIXFMT_NV21;
  f.desc.width = w;
  f.desc.height = h;
  f.desc.planes[0] = nv21.data();
  f.desc.planes[1] = nv21.data() + size_t{1} * w * h;
  f.desc.pitches[0] = w;
  f.desc.pitches[1] = w;
  return f;
}

void BM_Hseg_NV21_1920x1080(benchmark::State &state) {
  const Nv21Frame f = make_nv21(1920, 1080);
  run(state, f.desc);
}

// Resident memory of this process now, in kB.
int64_t resident_kb() {
  long pages = 0, resident = 0;
  FILE *f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  const int n = std::fscanf(f, "%ld %ld", &pages, &resident);
  std::fclose(f);
  return n == 2 ? int64_t{resident} * sysconf(_SC_PAGESIZE) / 1024 : -1;
}

// 200 calls, alternating a 1920x1080 NV21 frame with its mask at full size
// and a 1280x720 BGR frame with a 320x180 mask, so that the allocations
// differ from call to call. Prints the resident memory after every 20 calls;
// rss_growth_kB is the change from call 20 to call 200.
void BM_Hseg_Soak200(benchmark::State &state) {
  const Nv21Frame nv21 = make_nv21(1920, 1080);
  std::vector<uint8_t> bgr = make_bgr(1280, 720);
  const OffscreenImage bgr_src{HSEG_PIXFMT_BGR24, 1280, 720, {bgr.data()}, {3 * 1280}};
  std::vector<uint8_t> big(size_t{1920} * 1080), small(size_t{320} * 180);
  OffscreenImage big_dst{HSEG_PIXFMT_GRAY, 1920, 1080, {big.data()}, {1920}};
  OffscreenImage small_dst{HSEG_PIXFMT_GRAY, 320, 180, {small.data()}, {320}};
  int64_t first = 0, last = 0;
  for (auto _ : state) {
    for (int call = 1; call <= 200; ++call) {
      const bool odd = call % 2 == 1;
      if (Hseg(nullptr, odd ? &nv21.desc : &bgr_src, odd ? &big_dst : &small_dst, 0, 0) != HSEG_OK) {
        state.SkipWithError("Hseg failed");
        return;
      }
      if (call % 20 != 0) continue;
      last = resident_kb();
      if (call == 20) first = last;
      std::printf("soak: after call %3d resident %" PRId64 " kB\n", call, last);
      std::fflush(stdout);
    }
  }
  state.counters["rss_first_kB"] = static_cast<double>(first);
  state.counters["rss_last_kB"] = static_cast<double>(last);
  state.counters["rss_growth_kB"] = static_cast<double>(last - first);
}

}  // namespace

BENCHMARK(BM_Hseg_BGR_1280x720)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.1);
BENCHMARK(BM_Hseg_NV21_1920x1080)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.1);
BENCHMARK(BM_Hseg_Soak200)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);
