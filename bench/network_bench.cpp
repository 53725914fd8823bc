// The network pass on 2 threads: wall time, the time spent inside
// cblas_sgemm against everything else, a per-stage breakdown, the peak
// resident set of one pass, and the pure-GEMM lower bound (the same GEMMs
// replayed alone) with the pass's ratio to it.
//
// cblas_sgemm is interposed in this program: the definition below forwards
// to OpenBLAS's and times every call, the library's own and the layer
// library's alike.
#include <benchmark/benchmark.h>
#include <cblas.h>
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "network_test_image.h"
#include "pipeline/net_layers.h"
#include "pipeline/network.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// CPU time of the calling thread: what the pass's own code costs, less
// disturbed than wall time when the machine is shared.
double thread_cpu_seconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

struct GemmCall {
  int m, n, k, lda, ldb, ldc;
};

// What the interposed cblas_sgemm has seen.
struct GemmLog {
  double seconds = 0.0;
  double cpu_seconds = 0.0;  // of the calling thread
  double flops = 0.0;
  bool record = false;
  std::vector<GemmCall> calls;
} g_gemm;

using SgemmFn = void (*)(const enum CBLAS_ORDER, const enum CBLAS_TRANSPOSE,
                         const enum CBLAS_TRANSPOSE, const blasint, const blasint, const blasint,
                         const float, const float *, const blasint, const float *, const blasint,
                         const float, float *, const blasint);

SgemmFn real_sgemm() {
  static const SgemmFn fn = reinterpret_cast<SgemmFn>(dlsym(RTLD_NEXT, "cblas_sgemm"));
  return fn;
}

}  // namespace

extern "C" void cblas_sgemm(const enum CBLAS_ORDER order, const enum CBLAS_TRANSPOSE ta,
                            const enum CBLAS_TRANSPOSE tb, const blasint m, const blasint n,
                            const blasint k, const float alpha, const float *a, const blasint lda,
                            const float *b, const blasint ldb, const float beta, float *c,
                            const blasint ldc) {
  const Clock::time_point t0 = Clock::now();
  const double cpu0 = thread_cpu_seconds();
  real_sgemm()(order, ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
  g_gemm.cpu_seconds += thread_cpu_seconds() - cpu0;
  g_gemm.seconds += seconds_since(t0);
  g_gemm.flops += 2.0 * m * n * k;
  if (g_gemm.record) g_gemm.calls.push_back({m, n, k, lda, ldb, ldc});
}

namespace {

constexpr int kPitch = 1420;

// Resident-set high-water mark of this process, in MB; reset_peak() sets it
// back to the current resident set.
double peak_rss_mb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  return 0.0;
}
void reset_peak() { std::ofstream("/proc/self/clear_refs") << "5"; }

// Stages of the breakdown, each ending at the tensor named.
struct Stage {
  const char *name, *ends_at;
};
constexpr Stage kStages[] = {
    {"stem", "pool1"},     {"conv2", "conv2_3"}, {"conv3", "conv3_4"},
    {"conv4", "conv4_23"}, {"conv5", "conv5_3"}, {"pyramid", "conv5_3_pool6_interp"},
    {"conv5_4", "conv5_4"}, {"fc8", "fc8_zembdata"},
};
constexpr int kStageCount = sizeof kStages / sizeof *kStages;

struct StageClock {
  Clock::time_point start;
  double last_wall = 0.0, last_gemm = 0.0;
  double wall[kStageCount] = {}, gemm[kStageCount] = {};
};

void on_tap(void *user, const hseg::NetTap &t) {
  auto *s = static_cast<StageClock *>(user);
  for (int i = 0; i < kStageCount; ++i) {
    if (std::strcmp(t.name, kStages[i].ends_at) != 0) continue;
    const double wall = seconds_since(s->start);
    s->wall[i] += wall - s->last_wall;
    s->gemm[i] += g_gemm.seconds - s->last_gemm;
    s->last_wall = wall;
    s->last_gemm = g_gemm.seconds;
  }
}

const std::vector<uint8_t> &image() {
  static const std::vector<uint8_t> img = hseg_test::astronaut_bgr(kPitch);
  return img;
}

// Replays `calls` on scratch operands; returns the wall time.
double replay(const std::vector<GemmCall> &calls) {
  size_t a = 0, b = 0, c = 0;
  for (const GemmCall &g : calls) {
    a = std::max(a, static_cast<size_t>(g.m) * g.lda);
    b = std::max(b, static_cast<size_t>(g.k) * g.ldb);
    c = std::max(c, static_cast<size_t>(g.m) * g.ldc);
  }
  std::vector<float> A(a, 0.01f), B(b, 0.02f), C(c, 0.0f);
  const Clock::time_point t0 = Clock::now();
  for (const GemmCall &g : calls)
    real_sgemm()(CblasRowMajor, CblasNoTrans, CblasNoTrans, g.m, g.n, g.k, 1.0f, A.data(), g.lda,
                 B.data(), g.ldb, 0.0f, C.data(), g.ldc);
  return seconds_since(t0);
}

// The GEMMs of one fast pass, as issued.
const std::vector<GemmCall> &pass_gemms() {
  static const std::vector<GemmCall> calls = [] {
    std::vector<float> scores(hseg::kNetScoreCount);
    g_gemm.calls.clear();
    g_gemm.record = true;
    hseg::net_forward(image().data(), kPitch, scores.data(), hseg::net_linked_weights(), nullptr);
    g_gemm.record = false;
    return g_gemm.calls;
  }();
  return calls;
}

// One GEMM per convolution, over its whole output: the shapes of the plain
// route.
std::vector<GemmCall> whole_layer_gemms() {
  std::vector<GemmCall> calls;
  for (int i = 0; i < hseg::kNetLayerCount; ++i) {
    const hseg::NetLayer &l = hseg::kNetLayers[i];
    const int n = hseg::net_out_size(l) * hseg::net_out_size(l);
    const int k = l.cin * l.kernel * l.kernel;
    calls.push_back({l.cout, n, k, k, n, n});
  }
  return calls;
}

// The pure-GEMM bound of the fast pass: the best of three replays.
double gemm_bound() {
  static const double bound = [] {
    double best = 1e30;
    for (int r = 0; r < 3; ++r) best = std::min(best, replay(pass_gemms()));
    return best;
  }();
  return bound;
}

// Arg 0: the fast route; arg 1: the plain route keeping every tensor.
void BM_NetworkPass(benchmark::State &state) {
  openblas_set_num_threads(2);
  const bool plain = state.range(0) == 1;
  const double bound = plain ? 0.0 : gemm_bound();
  std::vector<float> scores(hseg::kNetScoreCount);
  StageClock stages;
  hseg::NetHooks hooks;
  hooks.tap = on_tap;
  hooks.user = &stages;
  hooks.plain = plain;
  hooks.keep_all = plain;
  double gemm = 0.0, wall = 0.0, peak = 0.0, flops = 0.0, other_cpu = 0.0;
  for (auto _ : state) {
    reset_peak();
    const double gemm0 = g_gemm.seconds, flops0 = g_gemm.flops;
    const double cpu0 = thread_cpu_seconds(), gemm_cpu0 = g_gemm.cpu_seconds;
    stages.last_wall = 0.0;
    stages.last_gemm = gemm0;
    stages.start = Clock::now();
    const MRESULT st = hseg::net_forward(image().data(), kPitch, scores.data(),
                                         hseg::net_linked_weights(), &hooks);
    const double w = seconds_since(stages.start);
    other_cpu += (thread_cpu_seconds() - cpu0) - (g_gemm.cpu_seconds - gemm_cpu0);
    if (st != HSEG_OK) state.SkipWithError("the pass failed");
    wall += w;
    gemm += g_gemm.seconds - gemm0;
    flops += g_gemm.flops - flops0;
    peak = std::max(peak, peak_rss_mb());
    state.SetIterationTime(w);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["gemm_s"] = gemm / n;
  state.counters["other_s"] = (wall - gemm) / n;
  state.counters["other_cpu_s"] = other_cpu / n;
  state.counters["gemm_share"] = gemm / wall;
  state.counters["GFLOP/s"] = flops / gemm / 1e9;
  state.counters["peak_rss_MB"] = peak;
  if (!plain) {
    state.counters["gemm_bound_s"] = bound;
    state.counters["ratio_to_bound"] = wall / n / bound;
  }
  for (int i = 0; i < kStageCount; ++i) {
    state.counters[std::string(kStages[i].name) + "_s"] = stages.wall[i] / n;
    state.counters[std::string(kStages[i].name) + "_gemm_s"] = stages.gemm[i] / n;
  }
}
BENCHMARK(BM_NetworkPass)->Arg(0)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// Arg 0: the fast pass's GEMMs as issued (its bands); arg 1: one GEMM per
// convolution over its whole output.
void BM_PureGemm(benchmark::State &state) {
  openblas_set_num_threads(2);
  const std::vector<GemmCall> calls = state.range(0) == 0 ? pass_gemms() : whole_layer_gemms();
  double flops = 0.0;
  for (const GemmCall &g : calls) flops += 2.0 * g.m * g.n * g.k;
  double total = 0.0;
  for (auto _ : state) {
    const double s = replay(calls);
    total += s;
    state.SetIterationTime(s);
  }
  state.counters["calls"] = static_cast<double>(calls.size());
  state.counters["GFLOP"] = flops / 1e9;
  state.counters["GFLOP/s"] = flops * static_cast<double>(state.iterations()) / total / 1e9;
}
BENCHMARK(BM_PureGemm)->Arg(0)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
