// The network's own kernels: a column copy over a band of output rows, and
// the batch-norm finishes applied to a band of a convolution's output while
// it is still in cache. Each gives the same bits as the exported layer
// function it stands for (myc_forward_conv's column copy, ly_bn_frozen,
// ly_relu_float, ly_etlwise_sum); the tests compare them.
#ifndef HSEG_SRC_PIPELINE_NET_KERNELS_H_
#define HSEG_SRC_PIPELINE_NET_KERNELS_H_

#include <cstddef>
#include <cstdint>

namespace hseg {

// A square convolution over a channels x size x size input.
struct NetConvGeom {
  int channels, size;
  int kernel, stride, pad, dilation;
  int out_size;
};

// Column rows (c*kernel + kh)*kernel + kw, holding only output rows
// [row0, row1): each column row has (row1 - row0) * out_size values, and
// column (oh - row0)*out_size + ow holds input(c, oh*stride - pad +
// kh*dilation, ow*stride - pad + kw*dilation), or 0 outside the input.
void net_im2col_rows(const float *input, const NetConvGeom &g, int row0, int row1, float *col);

// Per-channel constants of a frozen batch norm: inv_std is
// (float) pow((double)(variance + eps), -0.5) with a float addition of eps.
void net_bn_inv_std(const float *variance, float eps, int channels, float *inv_std);

struct NetBn {
  const float *scale, *shift, *mean;
  const float *inv_std;
};

// Applies y = ((x - mean) * inv_std) * scale + shift, then the ReLU
// (0 < y ? y : 0) when `relu`, to columns [col0, col1) of every one of
// `channels` rows of length `row_len` in `data`.
void net_bn_band(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                 const NetBn &bn, bool relu);

// The end of a residual block on the same band: y = bn(x), then
// data = relu((0 + shortcut) + y), shortcut being a tensor of data's shape.
void net_bn_add_relu_band(float *data, const float *shortcut, int64_t row_len, int channels,
                          int64_t col0, int64_t col1, const NetBn &bn);

// data[c][i] = data[c][i] + bias[c] on the band.
void net_bias_band(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                   const float *bias);

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_KERNELS_H_
