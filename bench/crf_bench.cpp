// DCR_Upsampling2 at the pipeline's size (60x60 scores, 473x473 guide) with
// the pipeline's parameters, whole and broken into its parts: the two lattice
// builds, one mean-field iteration's filtering per kernel, the per-pixel
// normalisation, and the rest. Counters give the lattice point counts M and
// the peak of bytes held through MMemAlloc.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "crf/dense_crf.h"
#include "hseg/crf.h"
#include "pipeline/network.h"

// Counting allocator: replaces the library's MMemAlloc/MMemFree in this
// program to report the peak number of bytes held.
namespace {
int64_t g_live_bytes = 0;
int64_t g_peak_bytes = 0;
constexpr size_t kHeader = 16;  // keeps the block 16-byte aligned
}  // namespace

extern "C" {
void *MMemAlloc(MHandle, int32_t size) {
  if (size < 0) return nullptr;
  auto *p = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(size) + kHeader));
  if (p == nullptr) return nullptr;
  std::memcpy(p, &size, sizeof size);
  g_live_bytes += size;
  if (g_live_bytes > g_peak_bytes) g_peak_bytes = g_live_bytes;
  return p + kHeader;
}
void MMemFree(MHandle, void *ptr) {
  if (ptr == nullptr) return;
  auto *p = static_cast<unsigned char *>(ptr) - kHeader;
  int32_t size;
  std::memcpy(&size, p, sizeof size);
  g_live_bytes -= size;
  std::free(p);
}
}  // extern "C"

namespace {

constexpr int kW = hseg::kNetInputSize;
constexpr int kH = hseg::kNetInputSize;
constexpr int kCoarse = hseg::kNetScoreSize;

// A guide that looks like a portrait: a background of smooth colour fields
// (a few overlapping sinusoids per channel, like walls, furniture and light
// falloff), an elliptic "person" with a face, a shirt of another colour and
// hair, and sensor noise on everything. The coarse scores put the person a
// little to the right of where the guide has it.
struct Scene {
  std::vector<uint8_t> guide;  // BGR, pitch 3 * kW rounded up to 4
  int32_t pitch;
  std::vector<float> scores;   // 2 x 60 x 60
};

bool in_person(double x, double y) {
  const double dx = (x - 0.5) / 0.28, dy = (y - 0.62) / 0.45;
  const double hx = (x - 0.5) / 0.12, hy = (y - 0.22) / 0.14;
  return dx * dx + dy * dy < 1.0 || hx * hx + hy * hy < 1.0;
}

Scene make_scene(bool random_colours) {
  Scene s;
  s.pitch = (3 * kW + 3) / 4 * 4;
  s.guide.assign(static_cast<size_t>(s.pitch) * kH, 0);
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 6.0);
  std::uniform_int_distribution<int> any(0, 255);
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      const double u = (x + 0.5) / kW, v = (y + 0.5) / kH;
      double c[3];
      if (in_person(u, v)) {
        const bool head = v < 0.36;
        const bool hair = head && v < 0.16;
        c[0] = hair ? 30 : head ? 120 : 60 + 40 * std::sin(25 * u);
        c[1] = hair ? 35 : head ? 150 : 70 + 30 * std::sin(31 * v);
        c[2] = hair ? 45 : head ? 200 : 170 + 30 * std::cos(17 * (u + v));
      } else {
        c[0] = 128 + 70 * std::sin(6.1 * u + 1.3) + 40 * std::cos(9.7 * v) + 20 * std::sin(23 * u * v);
        c[1] = 120 + 60 * std::sin(4.3 * v + 0.4) + 45 * std::cos(7.9 * u + 2 * v);
        c[2] = 110 + 80 * std::cos(5.2 * (u - v)) + 30 * std::sin(13 * u);
      }
      uint8_t *px = &s.guide[static_cast<size_t>(y) * s.pitch + 3 * x];
      for (int k = 0; k < 3; ++k) {
        const double val = random_colours ? any(rng) : c[k] + noise(rng);
        px[k] = static_cast<uint8_t>(std::min(255.0, std::max(0.0, val)));
      }
    }
  }
  s.scores.resize(2 * kCoarse * kCoarse);
  std::uniform_real_distribution<float> jitter(-0.15f, 0.15f);
  for (int y = 0; y < kCoarse; ++y) {
    for (int x = 0; x < kCoarse; ++x) {
      float p = in_person((x + 0.5) / kCoarse - 0.02, (y + 0.5) / kCoarse) ? 0.85f : 0.15f;
      p = std::min(1.0f, std::max(0.0f, p + jitter(rng)));
      s.scores[y * kCoarse + x] = 1.0f - p;
      s.scores[kCoarse * kCoarse + y * kCoarse + x] = p;
    }
  }
  return s;
}

const Scene &scene() {
  static const Scene s = make_scene(false);
  return s;
}

// Every pixel an independent random colour: the worst case for the
// appearance lattice (almost every pixel touches its own simplex).
const Scene &noise_scene() {
  static const Scene s = make_scene(true);
  return s;
}

UpsamplingParams pipeline_params() {
  UpsamplingParams p;
  ParamUpsampling2(&p);
  p.smooth_weight = 16.0f;
  p.appear_weight = 15.0f;
  return p;
}

std::vector<float> grid_features() {
  std::vector<float> f(2 * kW * kH);
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) {
      f[2 * (y * kW + x)] = static_cast<float>(x) / 3.0f;
      f[2 * (y * kW + x) + 1] = static_cast<float>(y) / 3.0f;
    }
  return f;
}

std::vector<float> bilateral_features(const Scene &s = scene()) {
  std::vector<float> f(5 * kW * kH);
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) {
      const uint8_t *px = &s.guide[static_cast<size_t>(y) * s.pitch + 3 * x];
      float *r = &f[5 * (y * kW + x)];
      r[0] = static_cast<float>(x) / 60.0f;
      r[1] = static_cast<float>(y) / 60.0f;
      for (int c = 0; c < 3; ++c) r[2 + c] = static_cast<float>(px[c]) / 20.0f;
    }
  return f;
}

void upsampling_total(benchmark::State &state, const Scene &s) {
  const UpsamplingParams params = pipeline_params();
  std::vector<uint8_t> mask(kW * kH);
  OffscreenImage guide{}, out{};
  guide.format = HSEG_PIXFMT_BGR24;
  guide.width = kW;
  guide.height = kH;
  guide.planes[0] = const_cast<uint8_t *>(s.guide.data());
  guide.pitches[0] = s.pitch;
  out.format = HSEG_PIXFMT_GRAY;
  out.width = kW;
  out.height = kH;
  out.planes[0] = mask.data();
  out.pitches[0] = kW;
  g_peak_bytes = g_live_bytes;
  for (auto _ : state) {
    const MRESULT st = DCR_Upsampling2(nullptr, &guide, &params, s.scores.data(), kCoarse,
                                       kCoarse, &out);
    if (st != HSEG_OK) state.SkipWithError("DCR_Upsampling2 failed");
    benchmark::DoNotOptimize(mask.data());
  }
  int64_t person = 0;
  for (uint8_t v : mask) person += v != 0;
  state.counters["peak_MiB"] = static_cast<double>(g_peak_bytes) / (1 << 20);
  state.counters["person_px"] = static_cast<double>(person);
}
void BM_Upsampling2_Total(benchmark::State &state) { upsampling_total(state, scene()); }
void BM_Upsampling2_Total_RandomColours(benchmark::State &state) {
  upsampling_total(state, noise_scene());
}
BENCHMARK(BM_Upsampling2_Total)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Upsampling2_Total_RandomColours)->Unit(benchmark::kMillisecond);

void lattice_build(benchmark::State &state, const std::vector<float> &f, uint32_t d) {
  LatticeFilter filter;
  int32_t M = 0;
  for (auto _ : state) {
    if (ppil_init(nullptr, &filter, f.data(), d, kW * kH, 1, 1.0f) != HSEG_OK)
      state.SkipWithError("ppil_init failed");
    M = filter.lattice.lattice_count;
    ppil_release(&filter);
  }
  state.counters["M"] = M;
}

void BM_LatticeBuild_Smoothness(benchmark::State &state) { lattice_build(state, grid_features(), 2); }
void BM_LatticeBuild_Appearance(benchmark::State &state) {
  lattice_build(state, bilateral_features(), 5);
}
void BM_LatticeBuild_Appearance_RandomColours(benchmark::State &state) {
  lattice_build(state, bilateral_features(noise_scene()), 5);
}
BENCHMARK(BM_LatticeBuild_Smoothness)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LatticeBuild_Appearance)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LatticeBuild_Appearance_RandomColours)->Unit(benchmark::kMillisecond);

// One iteration's message of one kernel: ppil_apply over two labels.
void filter_apply(benchmark::State &state, const std::vector<float> &f, uint32_t d) {
  LatticeFilter filter;
  if (ppil_init(nullptr, &filter, f.data(), d, kW * kH, 1, 15.0f) != HSEG_OK) {
    state.SkipWithError("ppil_init failed");
    return;
  }
  std::vector<float> q(2 * kW * kH), out(2 * kW * kH, 0.0f), tmp(2 * kW * kH);
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  for (size_t i = 0; i < q.size(); i += 2) {
    q[i] = u(rng);
    q[i + 1] = 1.0f - q[i];
  }
  for (auto _ : state) {
    if (ppil_apply(&filter, out.data(), q.data(), tmp.data(), 2) != HSEG_OK)
      state.SkipWithError("ppil_apply failed");
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["M"] = filter.lattice.lattice_count;
  ppil_release(&filter);
}
void BM_IterationFilter_Smoothness(benchmark::State &state) { filter_apply(state, grid_features(), 2); }
void BM_IterationFilter_Appearance(benchmark::State &state) {
  filter_apply(state, bilateral_features(), 5);
}
BENCHMARK(BM_IterationFilter_Smoothness)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IterationFilter_Appearance)->Unit(benchmark::kMillisecond);

// The per-pixel normalisation of one iteration (two labels).
void BM_IterationNormalise(benchmark::State &state) {
  std::vector<float> t(2 * kW * kH), q(2 * kW * kH);
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(-40.0f, 40.0f);
  for (float &v : t) v = u(rng);
  for (auto _ : state) {
    hseg::crf::normalize_two_labels_sse2(t.data(), q.data(), kW * kH);
    benchmark::DoNotOptimize(q.data());
  }
}
BENCHMARK(BM_IterationNormalise)->Unit(benchmark::kMillisecond);

}  // namespace
