// Box and Gaussian blur of a 1920x1080 frame, grey and BGR, with OpenCV's
// single-threaded GaussianBlur and blur timed beside them in the same run
// where OpenCV is installed. Each benchmark reports the time of one call and
// megapixels per second ("Mpix/s").
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "hseg/blur.h"

#if defined(HSEG_HAVE_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int32_t kW = 1920, kH = 1080;

struct Frame {
  std::vector<uint8_t> src, dst;
  OffscreenImage s{}, d{};
  explicit Frame(int channels) : src(size_t{kW} * kH * channels), dst(src.size()) {
    std::mt19937 rng(1);
    for (auto &v : src) v = static_cast<uint8_t>(rng());
    const uint32_t f = channels == 3 ? HSEG_PIXFMT_BGR24 : HSEG_PIXFMT_GRAY;
    s = {f, kW, kH, {src.data()}, {kW * channels}};
    d = {f, kW, kH, {dst.data()}, {kW * channels}};
  }
};

void set_rate(benchmark::State &state) {
  state.counters["Mpix/s"] = benchmark::Counter(
      double{kW} * kH * 1e-6 * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate);
}

// Arguments: channels (1 or 3), sigma.
void BM_GaussianBlur(benchmark::State &state) {
  Frame f(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        GB_GaussianBlur(nullptr, &f.s, &f.d, static_cast<float>(state.range(1))));
    benchmark::ClobberMemory();
  }
  set_rate(state);
}
BENCHMARK(BM_GaussianBlur)->ArgsProduct({{1, 3}, {2, 8}})->Unit(benchmark::kMillisecond);

// Arguments: channels, radius.
void BM_BoxBlur(benchmark::State &state) {
  Frame f(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        GB_BoxBlur(nullptr, &f.s, &f.d, static_cast<int32_t>(state.range(1))));
    benchmark::ClobberMemory();
  }
  set_rate(state);
}
BENCHMARK(BM_BoxBlur)->ArgsProduct({{1, 3}, {8}})->Unit(benchmark::kMillisecond);

#if defined(HSEG_HAVE_OPENCV)
void BM_OpenCV_GaussianBlur(benchmark::State &state) {
  cv::setNumThreads(1);
  const int type = state.range(0) == 3 ? CV_8UC3 : CV_8UC1;
  cv::Mat src(kH, kW, type), dst;
  cv::randu(src, 0, 256);
  const double sigma = static_cast<double>(state.range(1));
  for (auto _ : state) {
    cv::GaussianBlur(src, dst, cv::Size(0, 0), sigma, sigma, cv::BORDER_REPLICATE);
    benchmark::ClobberMemory();
  }
  set_rate(state);
}
BENCHMARK(BM_OpenCV_GaussianBlur)->ArgsProduct({{1, 3}, {2, 8}})->Unit(benchmark::kMillisecond);

void BM_OpenCV_Blur(benchmark::State &state) {
  cv::setNumThreads(1);
  const int type = state.range(0) == 3 ? CV_8UC3 : CV_8UC1;
  cv::Mat src(kH, kW, type), dst;
  cv::randu(src, 0, 256);
  const int w = 2 * static_cast<int>(state.range(1)) + 1;
  for (auto _ : state) {
    cv::blur(src, dst, cv::Size(w, w), cv::Point(-1, -1), cv::BORDER_REPLICATE);
    benchmark::ClobberMemory();
  }
  set_rate(state);
}
BENCHMARK(BM_OpenCV_Blur)->ArgsProduct({{1, 3}, {8}})->Unit(benchmark::kMillisecond);
#endif

}  // namespace
