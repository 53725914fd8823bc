// What the network and segmentation benchmarks measure beside the library:
// the pure-GEMM bound of the pass (its products replayed alone on scratch
// operands), the process's peak resident set over one call, and page faults.
#ifndef HSEG_BENCH_NET_MEASURE_H_
#define HSEG_BENCH_NET_MEASURE_H_

#include <cblas.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pipeline/net_layers.h"

namespace hseg_bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

struct GemmCall {
  int m, n, k, lda, ldb, ldc;
};

using SgemmFn = void (*)(const enum CBLAS_ORDER, const enum CBLAS_TRANSPOSE,
                         const enum CBLAS_TRANSPOSE, const blasint, const blasint, const blasint,
                         const float, const float *, const blasint, const float *, const blasint,
                         const float, float *, const blasint);

// One GEMM per convolution over its whole output, as the layer function
// myc_forward_conv issues them: the bound the pass is measured against.
inline std::vector<GemmCall> whole_layer_gemms() {
  std::vector<GemmCall> calls;
  for (const hseg::NetLayer &l : hseg::kNetLayers) {
    const int n = hseg::net_out_size(l) * hseg::net_out_size(l);
    const int k = l.cin * l.kernel * l.kernel;
    calls.push_back({l.cout, n, k, k, n, n});
  }
  return calls;
}

// Replays `calls` on scratch operands; returns the wall time of the
// products. A table that replays between the calls it times keeps one
// Replay for all its rounds, so that the 600 MB of operands are not
// allocated and freed between them. OpenBLAS's workers poll for work for
// about a tenth of a second after a product: run() waits that out before it
// returns, so that they do not take a core from the call timed next.
class Replay {
 public:
  explicit Replay(std::vector<GemmCall> calls) : calls_(std::move(calls)) {
    size_t a = 0, b = 0, c = 0;
    for (const GemmCall &g : calls_) {
      a = std::max(a, static_cast<size_t>(g.m) * g.lda);
      b = std::max(b, static_cast<size_t>(g.k) * g.ldb);
      c = std::max(c, static_cast<size_t>(g.m) * g.ldc);
    }
    a_.assign(a, 0.01f);
    b_.assign(b, 0.02f);
    c_.assign(c, 0.0f);
  }
  double run(SgemmFn sgemm = cblas_sgemm) {
    const Clock::time_point t0 = Clock::now();
    for (const GemmCall &g : calls_)
      sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, g.m, g.n, g.k, 1.0f, a_.data(), g.lda,
            b_.data(), g.ldb, 0.0f, c_.data(), g.ldc);
    const double seconds = seconds_since(t0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return seconds;
  }

 private:
  std::vector<GemmCall> calls_;
  std::vector<float> a_, b_, c_;
};

inline double replay(const std::vector<GemmCall> &calls, SgemmFn sgemm = cblas_sgemm) {
  return Replay(calls).run(sgemm);
}

// The process's resident-set high-water mark, in MiB; reset_peak() sets it
// back to the current resident set.
inline double peak_rss_mib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  return 0.0;
}
inline void reset_peak() { std::ofstream("/proc/self/clear_refs") << "5"; }

// Minor and major page faults of the process so far.
inline long page_faults() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_minflt + ru.ru_majflt;
}

// One call's wall time, page faults and peak resident set.
struct CallCost {
  double seconds = 0.0;
  long faults = 0;
  double peak_mib = 0.0;
};
template <typename F>
CallCost measure(F call) {
  reset_peak();
  const long f0 = page_faults();
  const Clock::time_point t0 = Clock::now();
  call();
  CallCost c;
  c.seconds = seconds_since(t0);
  c.faults = page_faults() - f0;
  c.peak_mib = peak_rss_mib();
  return c;
}

inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}
// The best of the rounds: on a shared machine other work only ever adds
// time, so ratios of the best times come closest to a quiet machine's.
inline double best(const std::vector<double> &v) {
  return v.empty() ? 0.0 : *std::min_element(v.begin(), v.end());
}

// "madvise", "always" or "never": the kernel's transparent huge page mode.
inline std::string huge_page_mode() {
  std::ifstream f("/sys/kernel/mm/transparent_hugepage/enabled");
  std::string line;
  std::getline(f, line);
  const size_t a = line.find('['), b = line.find(']');
  return a != std::string::npos && b > a ? line.substr(a + 1, b - a - 1) : "unavailable";
}

inline double load_average() {
  std::ifstream f("/proc/loadavg");
  double one = 0.0;
  f >> one;
  return one;
}

}  // namespace hseg_bench

#endif  // HSEG_BENCH_NET_MEASURE_H_
