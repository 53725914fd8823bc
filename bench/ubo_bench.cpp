// Image toolkit on full-HD frames: rotation by 90 degrees, grey from BGR,
// NV21 to BGR and back, Sobel magnitude. Each benchmark reports the time of
// one call and the megapixels converted per second ("Mpix/s"); with OpenCV
// at hand, the BM_OpenCV_* twins time the same operation in the same run.
#include <benchmark/benchmark.h>

#include <random>

#include "hseg/imgproc.h"

#ifdef HSEG_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kW = 1920, kH = 1080;

struct Owned {
  Image *img;
  Owned(int w, int h, int c, int depth = 8) : img(createimg(nullptr, w, h, depth, c)) {
    std::mt19937 rng(uint32_t(w * 31 + c));
    for (uint32_t i = 0; i < img->size; ++i) img->data[i] = uint8_t(rng());
  }
  ~Owned() { release_img(nullptr, &img); }
};

OffscreenImage describe(Image *img, uint32_t format) {
  OffscreenImage d{};
  d.format = format, d.width = int32_t(img->width), d.height = int32_t(img->height);
  d.planes[0] = img->data, d.pitches[0] = int32_t(img->pitch);
  return d;
}

// NV21 of the frame in one buffer: the Y plane, then the chroma rows.
struct Nv21 {
  Owned buf{kW, kH * 3 / 2, 1};
  OffscreenImage d{};
  Nv21() {
    d = describe(buf.img, HSEG_PIXFMT_NV21);
    d.height = kH;
    d.planes[1] = buf.img->data + size_t(kW) * kH, d.pitches[1] = kW;
  }
};

void set_rate(benchmark::State &state) {
  state.counters["Mpix/s"] = benchmark::Counter(double(kW) * kH * 1e-6 * double(state.iterations()),
                                                benchmark::Counter::kIsRate);
}

void BM_Rotate90(benchmark::State &state) {
  const int c = int(state.range(0));
  Owned src(kW, kH, c), dst(kH, kW, c);
  for (auto _ : state) benchmark::DoNotOptimize(img_rotate(src.img, dst.img, 90));
  set_rate(state);
}
BENCHMARK(BM_Rotate90)->ArgName("channels")->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

void BM_GreyFromBgr(benchmark::State &state) {
  Owned src(kW, kH, 3), dst(kW, kH, 1);
  for (auto _ : state)
    benchmark::DoNotOptimize(img_bgr2gray(src.img, dst.img, int32_t(state.range(0))));
  set_rate(state);
}
BENCHMARK(BM_GreyFromBgr)->ArgName("bt601")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_Nv21ToBgr(benchmark::State &state) {
  Nv21 nv;
  Owned bgr(kW, kH, 3);
  OffscreenImage dst = describe(bgr.img, HSEG_PIXFMT_BGR24);
  for (auto _ : state) benchmark::DoNotOptimize(NV212BGR(&nv.d, &dst));
  set_rate(state);
}
BENCHMARK(BM_Nv21ToBgr)->Unit(benchmark::kMillisecond);

void BM_BgrToNv21(benchmark::State &state) {
  Nv21 nv;
  Owned bgr(kW, kH, 3);
  OffscreenImage src = describe(bgr.img, HSEG_PIXFMT_BGR24);
  for (auto _ : state) benchmark::DoNotOptimize(BGR2NV21(&src, &nv.d));
  set_rate(state);
}
BENCHMARK(BM_BgrToNv21)->Unit(benchmark::kMillisecond);

void BM_SobelMagnitude(benchmark::State &state) {
  Owned src(kW, kH, 1), dst(kW, kH, 1, 16);
  for (auto _ : state)
    benchmark::DoNotOptimize(img_sobel_magnitude(src.img, dst.img, int32_t(state.range(0))));
  set_rate(state);
}
BENCHMARK(BM_SobelMagnitude)
    ->ArgName("norm")
    ->Arg(HSEG_NORM_L1)
    ->Arg(HSEG_NORM_L2)
    ->Unit(benchmark::kMillisecond);

#ifdef HSEG_HAVE_OPENCV
// OpenCV runs on one thread, as the library does, so that both CPU times
// count all the work.
cv::Mat noise(int rows, int cols, int type) {
  cv::setNumThreads(1);
  cv::Mat m(rows, cols, type);
  cv::randu(m, 0, 256);
  return m;
}

void BM_OpenCV_Rotate90(benchmark::State &state) {
  const cv::Mat src = noise(kH, kW, state.range(0) == 1 ? CV_8UC1 : CV_8UC3);
  cv::Mat dst;
  for (auto _ : state) cv::rotate(src, dst, cv::ROTATE_90_CLOCKWISE);
  set_rate(state);
}
BENCHMARK(BM_OpenCV_Rotate90)->ArgName("channels")->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

void BM_OpenCV_GreyFromBgr(benchmark::State &state) {
  const cv::Mat src = noise(kH, kW, CV_8UC3);
  cv::Mat dst;
  for (auto _ : state) cv::cvtColor(src, dst, cv::COLOR_BGR2GRAY);
  set_rate(state);
}
BENCHMARK(BM_OpenCV_GreyFromBgr)->Unit(benchmark::kMillisecond);

void BM_OpenCV_Nv21ToBgr(benchmark::State &state) {
  const cv::Mat src = noise(kH * 3 / 2, kW, CV_8UC1);
  cv::Mat dst;
  for (auto _ : state) cv::cvtColor(src, dst, cv::COLOR_YUV2BGR_NV21);
  set_rate(state);
}
BENCHMARK(BM_OpenCV_Nv21ToBgr)->Unit(benchmark::kMillisecond);

// This OpenCV has no BGR to NV21; BGR to I420 does the same work (luma per
// pixel, chroma per 2x2 block) into planar chroma.
void BM_OpenCV_BgrToI420(benchmark::State &state) {
  const cv::Mat src = noise(kH, kW, CV_8UC3);
  cv::Mat dst;
  for (auto _ : state) cv::cvtColor(src, dst, cv::COLOR_BGR2YUV_I420);
  set_rate(state);
}
BENCHMARK(BM_OpenCV_BgrToI420)->Unit(benchmark::kMillisecond);

// Both 3x3 derivatives in one pass (reflect-101 borders, 16-bit), then the
// magnitude: |gx| + |gy| in 16 bits, or the Euclidean one through floats.
void BM_OpenCV_SobelMagnitude(benchmark::State &state) {
  const cv::Mat src = noise(kH, kW, CV_8UC1);
  cv::Mat gx, gy, fx, fy, mag, out;
  for (auto _ : state) {
    cv::spatialGradient(src, gx, gy);
    if (state.range(0) == HSEG_NORM_L1) {
      cv::add(cv::abs(gx), cv::abs(gy), out);
    } else {
      gx.convertTo(fx, CV_32F);
      gy.convertTo(fy, CV_32F);
      cv::magnitude(fx, fy, mag);
      mag.convertTo(out, CV_16S);
    }
  }
  set_rate(state);
}
BENCHMARK(BM_OpenCV_SobelMagnitude)
    ->ArgName("norm")
    ->Arg(HSEG_NORM_L1)
    ->Arg(HSEG_NORM_L2)
    ->Unit(benchmark::kMillisecond);
#endif

}  // namespace
