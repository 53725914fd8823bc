#include "pipeline/net_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "flatnn/internal.h"

namespace hseg {

namespace {

// Calls body(plane) for every input channel in order, with its size x size
// plane, of which rows [y0, y1) are what output rows [row0, row1) read.
template <typename Body>
void for_each_plane(const NetSources &in, const NetConvGeom &g, int row0, int row1, Body body) {
  const int y0 = std::max(0, row0 * g.stride - g.pad);
  const int y1 = std::min(g.size, (row1 - 1) * g.stride - g.pad + (g.kernel - 1) * g.dilation + 1);
  float scratch[NetSources::kMaxResizedSize * NetSources::kMaxResizedSize];
  for (int c = 0; c < g.channels; ++c) body(net_source_plane(in, c, g.size, y0, y1, scratch));
}

// Output columns [*lo, *hi) whose input column ow*stride + x0 lies in
// [0, size), by the layer library's rule.
void inside_columns(int x0, int stride, int size, int out, int *lo, int *hi) {
  int64_t l = 0, h = 0;
  flatnn::inside_columns(x0, stride, size, out, &l, &h);
  *lo = static_cast<int>(l);
  *hi = static_cast<int>(h);
}

// Stride 1 with the output as large as the input ("same" padding): a column
// row is the input plane shifted by y0 = kh*dilation - pad rows and x0 =
// kw*dilation - pad columns, and since input and column rows have the same
// length, its inside rows are one contiguous run of the plane. One copy moves
// them; then the columns that fall outside the input (which the copy filled
// from the neighbouring rows) are set to zero.
void im2col_rows_same(const NetSources &in, const NetConvGeom &g, int row0, int row1,
                      float *col) {
  const int w = g.size;
  const size_t band = static_cast<size_t>(row1 - row0) * w;
  for_each_plane(in, g, row0, row1, [&](const float *src_plane) {
    for (int kh = 0; kh < g.kernel; ++kh) {
      const int y0 = kh * g.dilation - g.pad;  // ih = oh + y0
      const int a = std::min(row1, std::max(row0, -y0));
      const int b = std::max(a, std::min(row1, w - y0));
      for (int kw = 0; kw < g.kernel; ++kw, col += band) {
        const int x0 = kw * g.dilation - g.pad;
        int lo, hi;
        inside_columns(x0, 1, w, w, &lo, &hi);
        if (hi == lo) {
          std::memset(col, 0, band * sizeof(float));
          continue;
        }
        std::memset(col, 0, static_cast<size_t>(a - row0) * w * sizeof(float));
        float *dst = col + static_cast<size_t>(a - row0) * w;
        if (b > a) {
          const float *src = src_plane + static_cast<size_t>(a + y0) * w + (lo + x0);
          std::memcpy(dst + lo, src,
                      (static_cast<size_t>(b - a - 1) * w + (hi - lo)) * sizeof(float));
          for (int r = 0; r < b - a; ++r, dst += w) {
            std::fill(dst, dst + lo, 0.0f);
            std::fill(dst + hi, dst + w, 0.0f);
          }
        }
        std::memset(dst, 0, static_cast<size_t>(row1 - b) * w * sizeof(float));
      }
    }
  });
}

// The finishes' loops, compiled once portably and once for AVX2.
template <bool kRelu>
inline __attribute__((always_inline)) void bn_band(float *data, int64_t row_len, int channels,
                                                   int64_t col0, int64_t col1, const NetBn &bn) {
  for (int c = 0; c < channels; ++c) {
    float *__restrict p = data + c * row_len;
    const float m = bn.mean[c], r = bn.inv_std[c], s = bn.scale[c], b = bn.shift[c];
    for (int64_t i = col0; i < col1; ++i) {
      const float y = ((p[i] - m) * r) * s + b;
      p[i] = kRelu ? (0.0f < y ? y : 0.0f) : y;
    }
  }
}

inline __attribute__((always_inline)) void bn_add_relu_band(const float *y, int64_t y_row_len,
                                                            float *sum, int64_t sum_row_len,
                                                            int channels, int64_t count,
                                                            const NetBn &bn) {
  for (int c = 0; c < channels; ++c) {
    const float *__restrict p = y + c * y_row_len;
    float *__restrict q = sum + c * sum_row_len;
    const float m = bn.mean[c], r = bn.inv_std[c], s = bn.scale[c], b = bn.shift[c];
    for (int64_t i = 0; i < count; ++i) {
      const float v = ((p[i] - m) * r) * s + b;
      const float total = (0.0f + q[i]) + v;
      q[i] = 0.0f < total ? total : 0.0f;
    }
  }
}

}  // namespace

void net_im2col_rows_ref(const NetSources &in, const NetConvGeom &g, int row0, int row1,
                         float *col) {
  const int ow_n = g.out_size;
  const size_t band = static_cast<size_t>(row1 - row0) * ow_n;
  for_each_plane(in, g, row0, row1, [&](const float *src_plane) {
    for (int kh = 0; kh < g.kernel; ++kh) {
      for (int kw = 0; kw < g.kernel; ++kw, col += band) {
        const int x0 = kw * g.dilation - g.pad;
        int lo, hi;
        inside_columns(x0, g.stride, g.size, ow_n, &lo, &hi);
        float *dst = col;
        for (int oh = row0; oh < row1; ++oh, dst += ow_n) {
          const int ih = oh * g.stride - g.pad + kh * g.dilation;
          if (ih < 0 || ih >= g.size) {
            std::memset(dst, 0, ow_n * sizeof(float));
            continue;
          }
          const float *row = src_plane + static_cast<size_t>(ih) * g.size;
          std::fill(dst, dst + lo, 0.0f);
          if (g.stride == 1) {
            std::memcpy(dst + lo, row + (x0 + lo), (hi - lo) * sizeof(float));
          } else {
            for (int ow = lo; ow < hi; ++ow) dst[ow] = row[x0 + ow * g.stride];
          }
          std::fill(dst + hi, dst + ow_n, 0.0f);
        }
      }
    }
  });
}

// The one-copy kernel wins while the band stays in cache (the stem, stages
// 2 and 3: 10 to 30% faster); on larger bands the row-by-row kernel is faster
// (conv4 to conv5_4: 30 to 40%), measured on a Zen 4.
constexpr size_t kSameBandBytes = size_t{8} << 20;

void net_im2col_rows(const NetSources &in, const NetConvGeom &g, int row0, int row1, float *col) {
  const size_t bytes = static_cast<size_t>(g.channels) * g.kernel * g.kernel * (row1 - row0) *
                       g.out_size * sizeof(float);
  if (g.stride == 1 && g.out_size == g.size && bytes <= kSameBandBytes)
    im2col_rows_same(in, g, row0, row1, col);
  else
    net_im2col_rows_ref(in, g, row0, row1, col);
}

const float *net_source_plane(const NetSources &in, int c, int size, int y0, int y1,
                             float *scratch) {
  int s = 0;
  while (s + 1 < in.count && c >= in.channels[s]) c -= in.channels[s++];
  const int n = in.resized_from[s];
  if (n == 0) return in.data[s] + static_cast<size_t>(c) * size * size;
  net_interp_rows(in.data[s] + static_cast<size_t>(c) * n * n, n, n, size, size, y0,
                  std::max(y0, y1), scratch);
  return scratch;
}

void net_interp_rows(const float *in, int in_h, int in_w, int out_h, int out_w, int y0, int y1,
                     float *out) {
  if (in_h == out_h && in_w == out_w) {
    std::memcpy(out + static_cast<size_t>(y0) * out_w, in + static_cast<size_t>(y0) * in_w,
                static_cast<size_t>(y1 - y0) * out_w * sizeof(float));
    return;
  }
  // The sample below destination d and the weights of it and the next one,
  // as ly_interp forms them.
  struct Tap {
    int index, step;
    float lambda1, lambda0;
  };
  auto tap = [](float ratio, int d, int size) {
    const float r = ratio * static_cast<float>(d);
    const int i = std::min(static_cast<int>(r), size - 1);
    const float l1 = r - static_cast<float>(i);
    return Tap{i, i < size - 1 ? 1 : 0, l1, 1.0f - l1};
  };
  const float rh = out_h != 1 ? static_cast<float>(in_h - 1) / static_cast<float>(out_h - 1) : 0.0f;
  const float rw = out_w != 1 ? static_cast<float>(in_w - 1) / static_cast<float>(out_w - 1) : 0.0f;
  for (int y = y0; y < y1; ++y) {
    const Tap h = tap(rh, y, in_h);
    float *dst = out + static_cast<size_t>(y) * out_w;
    for (int x = 0; x < out_w; ++x) {
      const Tap w = tap(rw, x, in_w);
      const float *q = in + static_cast<size_t>(h.index) * in_w + w.index;
      const int down = h.step * in_w;
      dst[x] = (q[down + w.step] * w.lambda1 + q[down] * w.lambda0) * h.lambda1 +
               (q[w.step] * w.lambda1 + q[0] * w.lambda0) * h.lambda0;
    }
  }
}

void net_bn_inv_std(const float *variance, float eps, int channels, float *inv_std) {
  for (int c = 0; c < channels; ++c) {
    const float v = variance[c] + eps;
    inv_std[c] = static_cast<float>(std::pow(static_cast<double>(v), -0.5));
  }
}

bool net_have_avx2() { return __builtin_cpu_supports("avx2"); }

void net_bn_band_ref(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                         const NetBn &bn, bool relu) {
  if (relu)
    bn_band<true>(data, row_len, channels, col0, col1, bn);
  else
    bn_band<false>(data, row_len, channels, col0, col1, bn);
}

__attribute__((target("avx2"))) void net_bn_band_avx2(float *data, int64_t row_len,
                                                      int channels, int64_t col0, int64_t col1,
                                                      const NetBn &bn, bool relu) {
  if (relu)
    bn_band<true>(data, row_len, channels, col0, col1, bn);
  else
    bn_band<false>(data, row_len, channels, col0, col1, bn);
}

void net_bn_band(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                 const NetBn &bn, bool relu) {
  if (net_have_avx2())
    net_bn_band_avx2(data, row_len, channels, col0, col1, bn, relu);
  else
    net_bn_band_ref(data, row_len, channels, col0, col1, bn, relu);
}

void net_bn_add_relu_band_ref(const float *y, int64_t y_row_len, float *sum,
                                  int64_t sum_row_len, int channels, int64_t count,
                                  const NetBn &bn) {
  bn_add_relu_band(y, y_row_len, sum, sum_row_len, channels, count, bn);
}

__attribute__((target("avx2"))) void net_bn_add_relu_band_avx2(const float *y, int64_t y_row_len,
                                                               float *sum, int64_t sum_row_len,
                                                               int channels, int64_t count,
                                                               const NetBn &bn) {
  bn_add_relu_band(y, y_row_len, sum, sum_row_len, channels, count, bn);
}

void net_bn_add_relu_band(const float *y, int64_t y_row_len, float *sum, int64_t sum_row_len,
                          int channels, int64_t count, const NetBn &bn) {
  if (net_have_avx2())
    net_bn_add_relu_band_avx2(y, y_row_len, sum, sum_row_len, channels, count, bn);
  else
    net_bn_add_relu_band_ref(y, y_row_len, sum, sum_row_len, channels, count, bn);
}

void net_avg_pool_tiled(const float *input, int channels, int size, int window, float *output) {
  constexpr int kLanes = 8;
  const int bins = size / window;
  const size_t plane = static_cast<size_t>(size) * size;
  const size_t out_plane = static_cast<size_t>(bins) * bins;
  const float count = static_cast<float>(window * window);
  for (int c0 = 0; c0 < channels; c0 += kLanes) {
    const int lanes = std::min(kLanes, channels - c0);
    const float *src = input + c0 * plane;
    float *dst = output + c0 * out_plane;
    for (int by = 0; by < bins; ++by) {
      for (int bx = 0; bx < bins; ++bx) {
        float acc[kLanes] = {};
        for (int y = by * window; y < (by + 1) * window; ++y) {
          const float *row = src + static_cast<size_t>(y) * size;
          for (int x = bx * window; x < (bx + 1) * window; ++x)
            for (int j = 0; j < lanes; ++j) acc[j] += row[j * plane + x];
        }
        for (int j = 0; j < lanes; ++j) dst[j * out_plane + by * bins + bx] = acc[j] / count;
      }
    }
  }
}

void net_bias_band(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                   const float *bias) {
  for (int c = 0; c < channels; ++c) {
    float *p = data + c * row_len;
    const float b = bias[c];
    for (int64_t i = col0; i < col1; ++i) p[i] = p[i] + b;
  }
}

}  // namespace hseg
