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

// A convolution's input: one tensor, or up to five of the same size read as
// their channel concatenation (the first one's channels, then the second's,
// ...), which is then never built.
struct NetSources {
  static constexpr int kMax = 5;
  int count;
  const float *data[kMax];
  int channels[kMax];
};

// Column rows (c*kernel + kh)*kernel + kw, holding only output rows
// [row0, row1): each column row has (row1 - row0) * out_size values, and
// column (oh - row0)*out_size + ow holds input(c, oh*stride - pad +
// kh*dilation, ow*stride - pad + kw*dilation), or 0 outside the input.
// net_im2col_rows_ref writes one output row at a time; net_im2col_rows
// moves a whole band of a stride-1 "same" convolution (output as large as the
// input) with one copy per column row while the band is at most 8 MB, and
// uses the former otherwise.
void net_im2col_rows(const NetSources &in, const NetConvGeom &g, int row0, int row1, float *col);
void net_im2col_rows_ref(const NetSources &in, const NetConvGeom &g, int row0, int row1,
                         float *col);

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
// data = relu((0 + shortcut) + y), shortcut being a tensor of data's shape
// that does not overlap it.
void net_bn_add_relu_band(float *data, const float *shortcut, int64_t row_len, int channels,
                          int64_t col0, int64_t col1, const NetBn &bn);

// The two finishes above pick per call between a portable build of their
// loops (_generic) and one compiled for AVX2 (_avx2, to be called only when
// net_have_avx2()); the operations and their order are the same.
bool net_have_avx2();
void net_bn_band_generic(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                         const NetBn &bn, bool relu);
void net_bn_band_avx2(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                      const NetBn &bn, bool relu);
void net_bn_add_relu_band_generic(float *data, const float *shortcut, int64_t row_len,
                                  int channels, int64_t col0, int64_t col1, const NetBn &bn);
void net_bn_add_relu_band_avx2(float *data, const float *shortcut, int64_t row_len,
                               int channels, int64_t col0, int64_t col1, const NetBn &bn);

// Average pooling of `channels` planes of size x size over windows of
// window x window that tile the plane (size a multiple of window, stride =
// window, no padding): each result is the float sum of its window in row
// order divided by window*window, as ly_pooling_avg_float computes it. Eight
// channels are summed side by side, so the eight sums advance together
// instead of one long chain of dependent additions.
void net_avg_pool_tiled(const float *input, int channels, int size, int window, float *output);

// data[c][i] = data[c][i] + bias[c] on the band.
void net_bias_band(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                   const float *bias);

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_KERNELS_H_
