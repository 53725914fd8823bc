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

// A convolution's input: one tensor, or up to five read as their channel
// concatenation (the first one's channels, then the second's, ...), which is
// then never built. A source whose `resized_from` is n > 0 holds n x n planes
// that are read as ly_interp resizes them to the convolution's input size
// (pads 0); this takes an input size of at most kMaxResizedSize. The others
// hold planes of the input size.
struct NetSources {
  static constexpr int kMax = 5;
  static constexpr int kMaxResizedSize = 64;
  int count;
  const float *data[kMax];
  int channels[kMax];
  int resized_from[kMax];
};

// Channels [c0, c1) of `in`'s concatenation, read as convolution input of
// size x size.
inline NetSources net_sources_slice(const NetSources &in, int c0, int c1, int size) {
  NetSources out{0, {}, {}, {}};
  int first = 0;
  for (int s = 0; s < in.count; ++s) {
    const int lo = c0 > first ? c0 : first;
    const int hi = c1 < first + in.channels[s] ? c1 : first + in.channels[s];
    if (lo < hi) {
      const int side = in.resized_from[s] > 0 ? in.resized_from[s] : size;
      out.data[out.count] = in.data[s] + static_cast<size_t>(lo - first) * side * side;
      out.channels[out.count] = hi - lo;
      out.resized_from[out.count++] = in.resized_from[s];
    }
    first += in.channels[s];
  }
  return out;
}

// The size x size plane of channel c of `in`'s concatenation: a pointer into
// its source, or for a resized source `scratch` (size * size floats) with
// rows [y0, y1) made (the others are left as they were).
const float *net_source_plane(const NetSources &in, int c, int size, int y0, int y1,
                             float *scratch);

// Rows [y0, y1) of ly_interp's resize of one in_h x in_w plane to
// out_h x out_w (pads 0), written at out + y * out_w; the same arithmetic.
void net_interp_rows(const float *in, int in_h, int in_w, int out_h, int out_w, int y0, int y1,
                     float *out);

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

// The end of a residual block, in place on the shortcut: for `count` values
// of each of `channels` rows, sum = relu((0 + sum) + bn(y)), where y is a
// convolution's output and row c starts at y + c * y_row_len and at
// sum + c * sum_row_len (which do not overlap).
void net_bn_add_relu_band(const float *y, int64_t y_row_len, float *sum, int64_t sum_row_len,
                          int channels, int64_t count, const NetBn &bn);

// The two finishes above pick per call between a portable build of their
// loops (_ref) and one compiled for AVX2 (_avx2, to be called only when
// net_have_avx2()); the operations and their order are the same.
bool net_have_avx2();
void net_bn_band_ref(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                         const NetBn &bn, bool relu);
void net_bn_band_avx2(float *data, int64_t row_len, int channels, int64_t col0, int64_t col1,
                      const NetBn &bn, bool relu);
void net_bn_add_relu_band_ref(const float *y, int64_t y_row_len, float *sum,
                                  int64_t sum_row_len, int channels, int64_t count,
                                  const NetBn &bn);
void net_bn_add_relu_band_avx2(const float *y, int64_t y_row_len, float *sum,
                               int64_t sum_row_len, int channels, int64_t count,
                               const NetBn &bn);

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
