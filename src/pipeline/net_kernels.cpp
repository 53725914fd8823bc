#include "pipeline/net_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace hseg {

void net_im2col_rows(const float *input, const NetConvGeom &g, int row0, int row1, float *col) {
  const int ow_n = g.out_size;
  const size_t band = static_cast<size_t>(row1 - row0) * ow_n;
  const size_t plane = static_cast<size_t>(g.size) * g.size;
  for (int c = 0; c < g.channels; ++c) {
    const float *src_plane = input + c * plane;
    for (int kh = 0; kh < g.kernel; ++kh) {
      for (int kw = 0; kw < g.kernel; ++kw, col += band) {
        // Output columns [lo, hi) read inside the row: iw = x0 + ow*stride is
        // in [0, size) exactly for ceil(-x0 / stride) <= ow <= (size-1-x0) / stride.
        const int x0 = kw * g.dilation - g.pad;
        int lo = x0 >= 0 ? 0 : (-x0 + g.stride - 1) / g.stride;
        int hi = g.size - 1 - x0 < 0 ? 0 : (g.size - 1 - x0) / g.stride + 1;
        lo = std::min(lo, ow_n);
        hi = std::max(lo, std::min(hi, ow_n));
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
  }
}

void net_bn_inv_std(const float *variance, float eps, int channels, float *inv_std) {
  for (int c = 0; c < channels; ++c) {
    const float v = variance[c] + eps;
    inv_std[c] = static_cast<float>(std::pow(static_cast<double>(v), -0.5));
  }
}

void net_bn_band(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                 const NetBn &bn, bool relu) {
  for (int c = 0; c < channels; ++c) {
    float *p = data + c * row_len;
    const float m = bn.mean[c], r = bn.inv_std[c], s = bn.scale[c], b = bn.shift[c];
    if (relu) {
      for (int64_t i = col0; i < col1; ++i) {
        const float y = ((p[i] - m) * r) * s + b;
        p[i] = 0.0f < y ? y : 0.0f;
      }
    } else {
      for (int64_t i = col0; i < col1; ++i) p[i] = ((p[i] - m) * r) * s + b;
    }
  }
}

void net_bn_add_relu_band(float *data, const float *shortcut, int64_t row_len, int channels,
                          int64_t col0, int64_t col1, const NetBn &bn) {
  for (int c = 0; c < channels; ++c) {
    float *p = data + c * row_len;
    const float *q = shortcut + c * row_len;
    const float m = bn.mean[c], r = bn.inv_std[c], s = bn.scale[c], b = bn.shift[c];
    for (int64_t i = col0; i < col1; ++i) {
      const float y = ((p[i] - m) * r) * s + b;
      const float sum = (0.0f + q[i]) + y;
      p[i] = 0.0f < sum ? sum : 0.0f;
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
