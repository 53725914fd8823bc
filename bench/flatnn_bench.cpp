// Layer-library benchmarks: myc_forward_conv on the network's dominant shapes
// beside a bare cblas_sgemm of the same M, N, K (the gap is the column copy
// and the bias), the two column copies, and frozen batch norm.
#include <benchmark/benchmark.h>
#include <cblas.h>

#include <random>
#include <vector>

#include "flatnn/internal.h"
#include "hseg/flatnn.h"

namespace {

struct Shape {
  const char *name;
  int c, size, m, k, pad, stride, dilation;
};

const Shape kShapes[] = {
    {"conv1_1_3x3_s2/3to64@473", 3, 473, 64, 3, 1, 2, 1},
    {"conv4_1x1_reduce/1024to256@60", 1024, 60, 256, 1, 0, 1, 1},
    {"conv4_3x3_d2/256to256@60", 256, 60, 256, 3, 2, 1, 2},
    {"conv4_1x1_increase/256to1024@60", 256, 60, 1024, 1, 0, 1, 1},
    {"conv5_4_3x3/4096to512@60", 4096, 60, 512, 3, 1, 1, 1},
};

int out_size(const Shape &s) {
  return (s.size + 2 * s.pad - ((s.k - 1) * s.dilation + 1)) / s.stride + 1;
}

std::vector<float> random_vector(size_t n) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float &x : v) x = dist(rng);
  return v;
}

void set_flops(benchmark::State &state, double m, double n, double k) {
  state.counters["GFLOP"] = benchmark::Counter(2.0 * m * n * k * 1e-9,
                                                 benchmark::Counter::kIsIterationInvariantRate);
  state.counters["M"] = m, state.counters["N"] = n, state.counters["K"] = k;
}

void BM_Conv(benchmark::State &state, Shape s) {
  const int out = out_size(s);
  const auto in = random_vector(size_t(s.c) * s.size * s.size);
  const auto wt = random_vector(size_t(s.m) * s.c * s.k * s.k);
  std::vector<float> output(size_t(s.m) * out * out);
  for (auto _ : state) {
    myc_forward_conv(in.data(), output.data(), wt.data(), nullptr, s.c, s.size, s.size, s.k, s.k,
                     s.pad, s.pad, s.stride, s.stride, s.dilation, s.dilation, s.m);
    benchmark::DoNotOptimize(output.data());
  }
  set_flops(state, s.m, double(out) * out, double(s.c) * s.k * s.k);
}

void BM_Gemm(benchmark::State &state, Shape s) {
  const int out = out_size(s), m = s.m, n = out * out, k = s.c * s.k * s.k;
  const auto a = random_vector(size_t(m) * k), b = random_vector(size_t(k) * n);
  std::vector<float> c(size_t(m) * n);
  for (auto _ : state) {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1.0f, a.data(), k, b.data(), n,
                0.0f, c.data(), n);
    benchmark::DoNotOptimize(c.data());
  }
  set_flops(state, m, n, k);
}

// The column copy's reference or fast path, as given.
template <void (*Im2col)(const float *, const hseg::flatnn::ConvShape &, float *)>
void BM_Im2col(benchmark::State &state, Shape s) {
  hseg::flatnn::ConvShape cs{s.c, s.size, s.size, s.k, s.k, s.pad, s.pad,
                             s.stride, s.stride, s.dilation, s.dilation, 0, 0};
  hseg::flatnn::conv_output_size(&cs);
  const auto in = random_vector(size_t(s.c) * s.size * s.size);
  std::vector<float> col(size_t(s.c) * s.k * s.k * cs.out_h * cs.out_w);
  for (auto _ : state) {
    Im2col(in.data(), cs, col.data());
    benchmark::DoNotOptimize(col.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(col.size() * sizeof(float)));
}

void BM_BnFrozen(benchmark::State &state) {
  const int ch = 1024, spatial = 60 * 60;
  auto data = random_vector(size_t(ch) * spatial);
  auto scale = random_vector(ch), shift = random_vector(ch), mean = random_vector(ch), var = random_vector(ch);
  for (float &v : var) v = v * v + 0.5f;
  for (auto _ : state) {
    ly_bn_frozen(data.data(), data.data(), ch * spatial, 1, ch, scale.data(), shift.data(),
                 mean.data(), var.data(), 1e-5f);
    benchmark::DoNotOptimize(data.data());
  }
}

int register_all() {
  for (const Shape &s : kShapes) {
    benchmark::RegisterBenchmark((std::string("BM_Conv/") + s.name).c_str(), BM_Conv, s)
        ->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark((std::string("BM_Gemm/") + s.name).c_str(), BM_Gemm, s)
        ->Unit(benchmark::kMillisecond)->UseRealTime();
  }
  for (const Shape &s : {kShapes[0], kShapes[1], kShapes[2]}) {
    benchmark::RegisterBenchmark((std::string("BM_Im2colRef/") + s.name).c_str(),
                                 BM_Im2col<hseg::flatnn::im2col_ref>, s)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string("BM_Im2col/") + s.name).c_str(),
                                 BM_Im2col<hseg::flatnn::im2col>, s)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::RegisterBenchmark("BM_BnFrozen/1024x60x60", BM_BnFrozen)->Unit(benchmark::kMillisecond);
  return 0;
}
const int registered = register_all();

}  // namespace
