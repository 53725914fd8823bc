// Max and average pooling with ceil-rule sizes and windows clipped to the
// image, and corner-aligned bilinear interpolation.

// ly_interp's window checks abort in every build, so the assertion machinery
// is declared whatever NDEBUG says.
#undef NDEBUG
#include <assert.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "hseg/flatnn.h"
#include "flatnn/internal.h"

using namespace hseg::flatnn;

namespace {

// Clipped window [start, end) along one axis for output position p. `end`
// may fall below `start` when the window begins past the image.
struct Window {
  int64_t start, end;
};
Window window_at(int64_t p, int stride, int pad, int kernel, int in) {
  const int64_t start = p * stride - pad;
  return Window{std::max<int64_t>(start, 0), std::min<int64_t>(start + kernel, in)};
}

template <bool kMax>
uint64_t pool(const float *input, int width, int height, int channels, float *output,
              int kernel_w, int kernel_h, int stride_w, int stride_h, int pad_w, int pad_h) {
  if (channels < 1) return kOk;
  const int64_t pooled_h = pool_output_size(height, kernel_h, stride_h, pad_h);
  const int64_t pooled_w = pool_output_size(width, kernel_w, stride_w, pad_w);
  int64_t in_count, out_count;
  if (input == nullptr || output == nullptr || pooled_h < 1 || pooled_w < 1 ||
      !count_of({channels, height, width}, &in_count) ||
      !count_of({channels, pooled_h, pooled_w}, &out_count)) {
    return kBadArgument;
  }
  const float *plane = input;
  float *dst = output;
  for (int c = 0; c < channels; ++c) {
    for (int64_t ph = 0; ph < pooled_h; ++ph) {
      const Window wh = window_at(ph, stride_h, pad_h, kernel_h, height);
      for (int64_t pw = 0; pw < pooled_w; ++pw) {
        const Window ww = window_at(pw, stride_w, pad_w, kernel_w, width);
        float acc = kMax ? -FLT_MAX : 0.0f;
        for (int64_t h = wh.start; h < wh.end; ++h) {
          const float *row = plane + h * width;
          for (int64_t w = ww.start; w < ww.end; ++w) {
            if (kMax) {
              if (row[w] > acc) acc = row[w];
            } else {
              acc += row[w];
            }
          }
        }
        // The divisor counts only the values inside the image.
        if (!kMax) acc /= static_cast<float>((ww.end - ww.start) * (wh.end - wh.start));
        *dst++ = acc;
      }
    }
    plane += static_cast<size_t>(height) * width;
  }
  return kOk;
}

[[noreturn]] void interp_check_failed(const char *expr, unsigned line) {
#if defined(__GLIBC__)
  __assert_fail(expr, "./src/flatnn", line, "vb_cpu_interp2");
#else
  (void)expr;
  (void)line;
  std::abort();
#endif
}

// Where destination index d of an interpolated axis reads the source window
// of `size` samples: the lower sample, the step to the upper one (0 on the
// last sample), and the two weights, in single precision.
struct InterpTap {
  int index;
  int step;
  float lambda1;  // weight of the upper sample
  float lambda0;  // weight of the lower sample
};

inline InterpTap interp_tap(float ratio, int d, int64_t size) {
  const float r = ratio * static_cast<float>(d);
  // The clamp only acts on windows over 2^24 samples, where float ratios can
  // round onto the sample after the last.
  const int i = std::min(static_cast<int>(r), static_cast<int>(size - 1));
  const float l1 = r - static_cast<float>(i);
  return {i, (i < size - 1) ? 1 : 0, l1, 1.0f - l1};
}

// Source window (x1, y1, width1, height1) inside a Width1 x Height1 image,
// formed in int64 so that no pad value can overflow the checks. The
// destination window is always the whole output, at (0, 0).
struct InterpWindow {
  int64_t x1, y1, width1, height1, Width1, Height1;
};
InterpWindow interp_window(int height_in, int width_in, int pad_beg, int pad_end) {
  return {-int64_t{pad_beg},
          -int64_t{pad_beg},
          int64_t{width_in} + pad_beg + pad_end,
          int64_t{height_in} + pad_beg + pad_end,
          width_in,
          height_in};
}

// The two window checks, which abort with these exact texts and lines.
// Fixed interface behaviour: callers may rely on the abort and its texts.
void check_interp_window(const InterpWindow &w, int height_out, int width_out) {
  const int64_t x2 = 0, y2 = 0, height2 = height_out, width2 = width_out;
  const int64_t Height2 = height_out, Width2 = width_out;
  if (!(w.x1 >= 0 && w.y1 >= 0 && w.height1 > 0 && w.width1 > 0 && x2 >= 0 && y2 >= 0 &&
        height2 > 0 && width2 > 0)) {
    interp_check_failed(
        "x1 >= 0 && y1 >= 0 && height1 > 0 && width1 > 0 && x2 >= 0 && y2 >= 0 && "
        "height2 > 0 && width2 > 0",
        731);
  }
  if (!(w.Width1 >= w.width1 + w.x1 && w.Height1 >= w.height1 + w.y1 && Width2 >= width2 + x2 &&
        Height2 >= height2 + y2)) {
    interp_check_failed(
        "Width1 >= width1 + x1 && Height1 >= height1 + y1 && Width2 >= width2 + x2 && "
        "Height2 >= height2 + y2",
        732);
  }
}

// One plane: the window copied when it already has the output's size,
// otherwise interpolated with ratios that put the first and last output
// rows and columns exactly on the window's first and last ones.
void interp_plane(const float *src, const InterpWindow &win, int height_out, int width_out,
                  float *dst) {
  if (win.height1 == height_out && win.width1 == width_out) {
    const float *from = src + win.y1 * win.Width1 + win.x1;
    for (int h2 = 0; h2 < height_out; ++h2) {
      std::memcpy(dst + static_cast<size_t>(h2) * width_out, from + h2 * win.Width1,
                  static_cast<size_t>(width_out) * sizeof(float));
    }
    return;
  }
  const float rheight = (height_out != 1) ? static_cast<float>(win.height1 - 1) /
                                                static_cast<float>(height_out - 1)
                                          : 0.0f;
  const float rwidth = (width_out != 1) ? static_cast<float>(win.width1 - 1) /
                                              static_cast<float>(width_out - 1)
                                        : 0.0f;
  for (int h2 = 0; h2 < height_out; ++h2) {
    const InterpTap h = interp_tap(rheight, h2, win.height1);
    for (int w2 = 0; w2 < width_out; ++w2) {
      const InterpTap w = interp_tap(rwidth, w2, win.width1);
      const float *q = src + (win.y1 + h.index) * win.Width1 + (win.x1 + w.index);
      const int64_t down = h.step * win.Width1;
      *dst++ = (q[down + w.step] * w.lambda1 + q[down] * w.lambda0) * h.lambda1 +
               (q[w.step] * w.lambda1 + q[0] * w.lambda0) * h.lambda0;
    }
  }
}

}  // namespace

namespace hseg {
namespace flatnn {

int64_t pool_output_size(int in, int kernel, int stride, int pad) {
  if (in < 1 || kernel < 1 || stride < 1 || pad < 0) return -1;
  if (int64_t{in} + 2 * int64_t{pad} > kMaxCount) return -1;
  const int span = in + 2 * pad - kernel;
  // |span| < 2^31, so the rounded-up quotient converts to int64 safely.
  const int64_t out =
      static_cast<int64_t>(std::ceil(static_cast<float>(span) / static_cast<float>(stride))) + 1;
  return (out >= 1 && out <= kMaxCount) ? out : -1;
}

}  // namespace flatnn
}  // namespace hseg

extern "C" {

uint64_t ly_pooling_max_float(const float *input, int width, int height, int channels,
                              float *output, int kernel_w, int kernel_h, int stride_w,
                              int stride_h, int pad_w, int pad_h) {
  return pool<true>(input, width, height, channels, output, kernel_w, kernel_h, stride_w,
                    stride_h, pad_w, pad_h);
}

uint64_t ly_pooling_avg_float(const float *input, int width, int height, int channels,
                              float *output, int kernel_w, int kernel_h, int stride_w,
                              int stride_h, int pad_w, int pad_h) {
  return pool<false>(input, width, height, channels, output, kernel_w, kernel_h, stride_w,
                     stride_h, pad_w, pad_h);
}

uint64_t ly_interp(const float *input, float *output, int num, int channels, int height_in,
                   int width_in, int pad_beg, int pad_end, int height_out, int width_out) {
  const InterpWindow win = interp_window(height_in, width_in, pad_beg, pad_end);
  check_interp_window(win, height_out, width_out);
  int64_t planes, in_count, out_count;
  if (input == nullptr || output == nullptr || !count_of({num, channels}, &planes) ||
      !count_of({planes, win.Height1, win.Width1}, &in_count) ||
      !count_of({planes, height_out, width_out}, &out_count)) {
    return kBadArgument;
  }
  const size_t in_plane = static_cast<size_t>(win.Height1 * win.Width1);
  const size_t out_plane = static_cast<size_t>(height_out) * width_out;
  for (int64_t p = 0; p < planes; ++p) {
    interp_plane(input + p * in_plane, win, height_out, width_out, output + p * out_plane);
  }
  return kOk;
}

}  // extern "C"
