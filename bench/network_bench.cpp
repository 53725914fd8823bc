// The network pass on 2 threads: wall time, the time spent inside
// cblas_sgemm (per lane) against everything else, a per-stage breakdown, the
// peak resident set of one pass, and the pure-GEMM lower bound (one GEMM per
// convolution, replayed alone on OpenBLAS's 2 threads) with the pass's ratio
// to it; then the table of the exact and the fast network against the bound
// (BM_NetworkTable).
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
#include <mutex>
#include <string>
#include <vector>

#include "net_measure.h"
#include "network_test_image.h"
#include "pipeline/net_arena.h"
#include "pipeline/net_layers.h"
#include "pipeline/net_winograd.h"
#include "pipeline/network.h"

namespace {

using hseg_bench::Clock;
using hseg_bench::GemmCall;
using hseg_bench::seconds_since;

// What the interposed cblas_sgemm has seen, summed over the threads that
// called it (the pass runs its products on its lanes).
struct GemmLog {
  std::mutex mutex;
  double seconds = 0.0;  // inside cblas_sgemm, summed over the threads
  double flops = 0.0;
} g_gemm;

double gemm_seconds() {
  std::lock_guard<std::mutex> lock(g_gemm.mutex);
  return g_gemm.seconds;
}

hseg_bench::SgemmFn real_sgemm() {
  static const hseg_bench::SgemmFn fn =
      reinterpret_cast<hseg_bench::SgemmFn>(dlsym(RTLD_NEXT, "cblas_sgemm"));
  return fn;
}

}  // namespace

extern "C" void cblas_sgemm(const enum CBLAS_ORDER order, const enum CBLAS_TRANSPOSE ta,
                            const enum CBLAS_TRANSPOSE tb, const blasint m, const blasint n,
                            const blasint k, const float alpha, const float *a, const blasint lda,
                            const float *b, const blasint ldb, const float beta, float *c,
                            const blasint ldc) {
  const Clock::time_point t0 = Clock::now();
  real_sgemm()(order, ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
  const double s = seconds_since(t0);
  std::lock_guard<std::mutex> lock(g_gemm.mutex);
  g_gemm.seconds += s;
  g_gemm.flops += 2.0 * m * n * k;
}

namespace {

constexpr int kPitch = 1420;

// Stages of the breakdown, each ending at the tensor named.
struct Stage {
  const char *name, *ends_at;
};
constexpr Stage kStages[] = {
    {"stem", "pool1"},     {"conv2", "conv2_3"}, {"conv3", "conv3_4"},
    {"conv4", "conv4_23"}, {"conv5", "conv5_3"}, {"pyramid", "conv5_3_pool6_conv"},
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
    const double gemm = gemm_seconds();
    s->gemm[i] += gemm - s->last_gemm;
    s->last_wall = wall;
    s->last_gemm = gemm;
  }
}

const std::vector<uint8_t> &image() {
  static const std::vector<uint8_t> img = hseg_test::astronaut_bgr(kPitch);
  return img;
}

// The pure-GEMM bound of the pass: the best of three replays of one GEMM
// per convolution.
double gemm_bound() {
  static const double bound = [] {
    hseg_bench::Replay gemms(hseg_bench::whole_layer_gemms());
    double best = 1e30;
    for (int r = 0; r < 3; ++r) best = std::min(best, gemms.run(real_sgemm()));
    return best;
  }();
  return bound;
}

// Arg 0: the exact network (the fast route); arg 1: the reference route keeping
// every tensor; arg 2: the fast network (its filters made before the clock).
void BM_NetworkPass(benchmark::State &state) {
  openblas_set_num_threads(2);
  const bool ref = state.range(0) == 1, winograd = state.range(0) == 2;
  const double bound = ref ? 0.0 : gemm_bound();
  std::vector<float> scores(hseg::kNetScoreCount);
  StageClock stages;
  hseg::NetHooks hooks;
  hooks.tap = on_tap;
  hooks.user = &stages;
  hooks.ref_route = ref;
  hooks.keep_all = ref;
  hooks.winograd = winograd;
  hooks.filters = &hseg::net_filter_cache();
  if (winograd) hseg::net_filter_cache().get(hseg::net_linked_weights(), 2);
  // The pass's products run on its lanes, as many as OpenBLAS's threads:
  // the time inside them, divided by the lanes, is their share of the wall
  // time when the lanes are evenly loaded.
  const double lanes = ref ? 1.0 : static_cast<double>(openblas_get_num_threads());
  double gemm = 0.0, wall = 0.0, peak = 0.0, flops = 0.0;
  for (auto _ : state) {
    hseg_bench::reset_peak();
    const double gemm0 = gemm_seconds(), flops0 = g_gemm.flops;
    stages.last_wall = 0.0;
    stages.last_gemm = gemm0;
    stages.start = Clock::now();
    const MRESULT st = hseg::net_forward(image().data(), kPitch, scores.data(),
                                         hseg::net_linked_weights(), &hooks);
    const double w = seconds_since(stages.start);
    if (st != HSEG_OK) state.SkipWithError("the pass failed");
    wall += w;
    gemm += (gemm_seconds() - gemm0) / lanes;
    flops += g_gemm.flops - flops0;
    peak = std::max(peak, hseg_bench::peak_rss_mib());
    state.SetIterationTime(w);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["gemm_s"] = gemm / n;
  state.counters["other_s"] = (wall - gemm) / n;
  state.counters["gemm_share"] = gemm / wall;
  state.counters["GFLOP/s"] = flops / gemm / 1e9;
  state.counters["peak_rss_MiB"] = peak;
  if (!ref) {
    state.counters["gemm_bound_s"] = bound;
    state.counters["ratio_to_bound"] = wall / n / bound;
  }
  for (int i = 0; i < kStageCount; ++i) {
    state.counters[std::string(kStages[i].name) + "_s"] = stages.wall[i] / n;
    state.counters[std::string(kStages[i].name) + "_gemm_s"] = stages.gemm[i] / lanes / n;
  }
}
BENCHMARK(BM_NetworkPass)->Arg(0)->Arg(1)->Arg(2)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// One GEMM per convolution over its whole output, on OpenBLAS's 2 threads.
void BM_PureGemm(benchmark::State &state) {
  openblas_set_num_threads(2);
  const std::vector<GemmCall> calls = hseg_bench::whole_layer_gemms();
  double flops = 0.0;
  for (const GemmCall &g : calls) flops += 2.0 * g.m * g.n * g.k;
  double total = 0.0;
  for (auto _ : state) {
    const double s = hseg_bench::replay(calls, real_sgemm());
    total += s;
    state.SetIterationTime(s);
  }
  state.counters["calls"] = static_cast<double>(calls.size());
  state.counters["GFLOP"] = flops / 1e9;
  state.counters["GFLOP/s"] = flops * static_cast<double>(state.iterations()) / total / 1e9;
}
BENCHMARK(BM_PureGemm)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The exact and the fast network's pass against the pure-GEMM replay (one
// GEMM per convolution), medians over rounds that run replay, fast and exact
// one after the other, then the ratios of the best times; the arena each pass maps and
// the page faults of one pass. Arg: rounds.
void BM_NetworkTable(benchmark::State &state) {
  openblas_set_num_threads(2);
  const int rounds = static_cast<int>(state.range(0));
  std::vector<float> scores(hseg::kNetScoreCount);
  size_t arena = 0;
  hseg::NetHooks exact;
  exact.user = &arena;
  exact.alloc = [](void *user, size_t bytes, const char *) {
    *static_cast<size_t *>(user) = bytes;
    return hseg::net_arena_map(bytes);
  };
  exact.release = [](void *user, void *p) { hseg::net_arena_unmap(p, *static_cast<size_t *>(user)); };
  hseg::NetHooks fast = exact;
  fast.winograd = true;
  fast.filters = &hseg::net_filter_cache();
  auto pass = [&](const hseg::NetHooks &hooks) {
    return hseg_bench::measure([&] {
      hseg::net_forward(image().data(), kPitch, scores.data(), hseg::net_linked_weights(), &hooks);
    });
  };
  std::vector<double> exact_s, fast_s, replay_s;
  hseg_bench::CallCost exact_cost, fast_cost;
  size_t exact_arena = 0;
  for (auto _ : state) {
    pass(exact);  // the first pass faults the weights in
    exact_cost = pass(exact);
    exact_arena = arena;
    pass(fast);  // makes the filters
    fast_cost = pass(fast);
    hseg_bench::Replay gemms(hseg_bench::whole_layer_gemms());  // after the costs above
    for (int r = 0; r < rounds; ++r) {
      replay_s.push_back(gemms.run(real_sgemm()));
      fast_s.push_back(pass(fast).seconds);  // first: see BM_HsegTable
      exact_s.push_back(pass(exact).seconds);
    }
  }
  const double e = hseg_bench::median(exact_s), q = hseg_bench::median(fast_s),
               r = hseg_bench::median(replay_s);
  std::printf("\nNetwork pass, 2 OpenBLAS threads, medians of %d rounds; load average %.2f at the "
              "end; transparent huge pages: %s\n", rounds, hseg_bench::load_average(),
              hseg_bench::huge_page_mode().c_str());
  const double be = hseg_bench::best(exact_s), bq = hseg_bench::best(fast_s);
  std::printf("%8s %8s %10s %13s %10s %18s %18s %22s\n", "exact s", "fast s", "replay s",
              "exact/replay", "fast/exact", "arena MB exact/fast", "faults exact/fast",
              "best: exact/rep fast/ex");
  std::printf("%8.3f %8.3f %10.3f %13.3f %10.3f %9.1f / %-8.1f %8ld / %-8ld %10.3f %10.3f\n\n", e,
              q, r, e / r, q / e, exact_arena / 1e6, arena / 1e6, exact_cost.faults,
              fast_cost.faults, be / hseg_bench::best(replay_s), bq / be);
  state.counters["exact_per_replay"] = e / r;
  state.counters["fast_per_exact"] = q / e;
}
// Nine rounds, as the Hseg table.
BENCHMARK(BM_NetworkTable)->Arg(9)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
