/*
 * Layer library: stateless layer functions over planar float tensors (CHW),
 * on OpenBLAS and Eigen.
 *
 * Tensors. A tensor of C channels, height H and width W is one contiguous
 * array of C*H*W 32-bit floats; element (c, y, x) is at x + W*(y + H*c).
 * Rows are not padded. A batch of N tensors is N*C consecutive planes. Sizes
 * are passed as separate ints; each layer computes its output size from its
 * input sizes by the formula given with it, and the caller allocates the
 * output with the same formula.
 *
 * Ownership. The caller allocates and frees every input, output and weight
 * buffer; no function keeps a pointer after it returns. Weights are read,
 * never written. Layers that need work memory take it from the C heap
 * (malloc/calloc, not MMemAlloc) and release it before returning.
 *
 * Aliasing. Output and input must not overlap unless the function says it
 * may run in place; "in place" always means the very same pointer.
 *
 * Results. Every layer returns a status as uint64_t (fixed interface
 * behaviour: 64 bits wide, unlike MRESULT, with the same codes):
 *   HSEG_OK (0)               done;
 *   HSEG_ERR_BAD_ARGUMENT (2) an argument was rejected; nothing was written;
 *   HSEG_ERR_NO_MEMORY (4)    a work buffer could not be allocated; nothing
 *                             was written.
 * Arguments are checked before any buffer is touched: a null pointer that
 * the call needs, a size that must be positive and is not (kernel, stride,
 * dilation, channel and group counts, the spatial sizes of a convolution or
 * pooling), a negative pad, an output size below 1, or a size product (any
 * tensor or work-buffer element count) above INT32_MAX gives 2. Where a count of zero
 * or less simply means "nothing to do" (the element-wise, data, copy and
 * concatenation layers, batch normalisation's count, pooling's channel count)
 * the layer returns 0 without reading or writing anything. ly_interp is the
 * one exception to status reporting: it aborts the process on an impossible
 * window (see there).
 *
 * Every function is reentrant and keeps no state; any parallelism is inside
 * the BLAS library.
 */
#ifndef HSEG_FLATNN_H_
#define HSEG_FLATNN_H_

#include <stdint.h>

#include "hseg/pipeline.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Convolution                                                                */
/* ------------------------------------------------------------------------ */

/* Convolution of a channels x height x width tensor into a
 * num_output x out_h x out_w tensor, with dilation, by one column copy
 * (im2col) and one cblas_sgemm:
 *
 *   out_h = (height + 2*pad_h - ((kernel_h - 1)*dilation_h + 1)) / stride_h + 1
 *   out_w = (width  + 2*pad_w - ((kernel_w - 1)*dilation_w + 1)) / stride_w + 1
 *
 * (integer division truncating toward zero: the floor rule, unlike pooling).
 * Padding is zero. `weight` is a row-major num_output x K matrix, K =
 * channels*kernel_h*kernel_w, each row ordered by input channel, then kernel
 * row, then kernel column. `bias` holds num_output values or is NULL; bias m
 * is added once to each of the out_h*out_w values of output plane m, after
 * the product. The output is fully overwritten. Every convolution, 1x1
 * included, goes through the column copy, so the work buffer is K*out_h*out_w
 * floats.
 *
 * Returns 0, 2 (bad argument) or 4 (column buffer not allocated). */
HSEG_API uint64_t myc_forward_conv(const float *input, float *output, const float *weight,
                                   const float *bias, int channels, int height, int width,
                                   int kernel_h, int kernel_w, int pad_h, int pad_w,
                                   int stride_h, int stride_w, int dilation_h, int dilation_w,
                                   int num_output);

/* Fully connected layer: output[n] = sum_k input[k] * weight[k*N + n]
 * (+ bias[n] when bias is not NULL), one cblas_sgemm of 1 x K by K x N.
 * `weight` is row-major K x N (input index major). Returns 0 or 2. */
HSEG_API uint64_t ly_inner_product(const float *input, int K, float *output, int N,
                                   const float *weight, const float *bias);

/* Grouped convolution without dilation:
 *
 *   out_h = (height + 2*pad_h - kernel_h) / stride_h + 1
 *   out_w = (width  + 2*pad_w - kernel_w) / stride_w + 1
 *
 * channels and num_output must both be multiples of `group`. Group g reads
 * input channels [g*channels/group, (g+1)*channels/group) and writes output
 * channels [g*num_output/group, (g+1)*num_output/group). `weight` is a
 * row-major num_output x (channels/group)*kernel_h*kernel_w matrix (row m
 * holds output channel m's kernels over the channels of its group, ordered by
 * channel, kernel row, kernel column). One cblas_sgemm per group on a shared
 * column buffer of channels*kernel_h*kernel_w x out_h*out_w floats; then bias
 * m (when bias is not NULL) is added to output plane m.
 *
 * Returns 0, 2 (bad argument) or 4 (column buffer not allocated; output
 * untouched). */
HSEG_API uint64_t ly_conv_float(const float *input, int width, int height, int channels,
                                int group, const float *weight, const float *bias,
                                int kernel_w, int kernel_h, int pad_w, int pad_h,
                                int stride_w, int stride_h, float *output, int num_output);

/* Transposed convolution ("deconvolution"), the adjoint of ly_conv_float's
 * column scheme: it maps a channels x height x width tensor to a
 * num_output x out_h x out_w tensor with
 *
 *   out_h = (height - 1)*stride_h - 2*pad_h + kernel_h
 *   out_w = (width  - 1)*stride_w - 2*pad_w + kernel_w
 *
 * and, without bias, equals the transpose of the grouped convolution from
 * num_output x out_h x out_w to channels x height x width that has the same
 * kernel, pad, stride, group and weight array. Arguments:
 *
 *    1 input       channels x height x width tensor
 *    2 width       input width
 *    3 height      input height
 *    4 channels    input channels (multiple of group)
 *    5 group       number of groups
 *    6 weight      channels x (num_output/group) x kernel_h x kernel_w floats:
 *                  row c (input channel c) holds its kernels onto the
 *                  num_output/group output channels of its group
 *    7 kernel_w    kernel width
 *    8 kernel_h    kernel height
 *    9 pad_w       columns cropped from the left and the right of the result
 *   10 pad_h       rows cropped from the top and the bottom of the result
 *   11 stride_w    horizontal upsampling step
 *   12 stride_h    vertical upsampling step
 *   13 output      num_output x out_h x out_w tensor, fully overwritten
 *   14 bias        num_output floats added to each output plane, or NULL
 *   15 num_output  output channels (multiple of group)
 *
 * Per group g, one cblas_sgemm forms the column matrix W_g^T * input_g
 * ((num_output/group)*kernel_h*kernel_w rows, height*width columns); the
 * columns are then scattered (col2im) and summed, row by row, into a zeroed
 * accumulator from calloc. Finally output = accumulator (+ bias).
 *
 * Returns 0, 2 (bad argument) or 4 (a work buffer not allocated; output
 * untouched). */
HSEG_API uint64_t ly_deconv_float(const float *input, int width, int height, int channels,
                                  int group, const float *weight, int kernel_w, int kernel_h,
                                  int pad_w, int pad_h, int stride_w, int stride_h,
                                  float *output, const float *bias, int num_output);

/* ------------------------------------------------------------------------ */
/* Batch normalisation, activations, element-wise layers                      */
/* ------------------------------------------------------------------------ */

/* Frozen batch normalisation of `count` = num*channels*spatial values:
 *
 *   inv_std[c] = (float) pow((double)(variance[c] + eps), -0.5)
 *   output = ((input - mean[c]) * inv_std[c]) * scale[c] + shift[c]
 *
 * with the float addition of eps and each of the four steps rounded to float
 * in that order. count must be a multiple of num*channels. May run in place
 * (output == input). Returns 0 or 2. */
HSEG_API uint64_t ly_bn_frozen(const float *input, float *output, int count, int num,
                               int channels, const float *scale, const float *shift,
                               const float *mean, const float *variance, float eps);

/* Rectifier over width*height*channels values: output = (0 < x) ? x : 0, so
 * -0.0 and NaN give +0.0. May run in place. Returns 0 or 2. */
HSEG_API uint64_t ly_relu_float(const float *input, float *output, int width, int height,
                                int channels);

/* Parametric rectifier over `count` values, dim = count / channels values per
 * channel: output = max(x, 0) + min(x, 0) * slope[c], c = (i / dim) % channels,
 * or slope[0] for every value when channel_shared is non-zero. count must be
 * at least channels. May run in place. Returns 0 or 2. */
HSEG_API uint64_t ly_prelu(const float *input, float *output, int count, int channels,
                           int channel_shared, const float *slope);

/* Element-wise sum over width*height*channels values, output = (0 + a) + b.
 * output may be a or b (the sum is formed value by value). Returns 0 or 2. */
HSEG_API uint64_t ly_etlwise_sum(const float *a, const float *b, int width, int height,
                                 int channels, float *output);

/* Element-wise maximum, output = (a > b) ? a : b: ties, and NaN in either
 * operand, give b. output may be a or b. Returns 0 or 2. */
HSEG_API uint64_t ly_etlwise_max(const float *a, const float *b, int width, int height,
                                 int channels, float *output);

/* ------------------------------------------------------------------------ */
/* Pooling and interpolation                                                  */
/* ------------------------------------------------------------------------ */

/* Max pooling of each of `channels` planes. Output size (single precision,
 * rounded up, unlike the convolution's floor rule):
 *
 *   pooled_h = (int) ceilf((float)(height + 2*pad_h - kernel_h) / (float)stride_h) + 1
 *   pooled_w = (int) ceilf((float)(width  + 2*pad_w - kernel_w) / (float)stride_w) + 1
 *
 * Window (ph, pw) covers rows [max(ph*stride_h - pad_h, 0),
 * min(ph*stride_h - pad_h + kernel_h, height)) and likewise columns: it is
 * clipped to the image and padding never contributes. The result starts at
 * -FLT_MAX and takes each strictly greater value, row by row, so NaNs are
 * skipped and an empty window leaves -FLT_MAX. channels < 1 returns 0 at
 * once. Returns 0 or 2. */
HSEG_API uint64_t ly_pooling_max_float(const float *input, int width, int height, int channels,
                                       float *output, int kernel_w, int kernel_h,
                                       int stride_w, int stride_h, int pad_w, int pad_h);

/* Average pooling, same sizes and windows as ly_pooling_max_float: the float
 * sum of the window (row by row) divided by
 * (float)((wend - wstart) * (hend - hstart)), the number of values inside the
 * image, not by kernel_h*kernel_w. A window with no value in the image sums
 * to 0 and is divided by that same product: NaN when an extent is 0, a
 * signed zero when the window starts past the image (negative extent). */
HSEG_API uint64_t ly_pooling_avg_float(const float *input, int width, int height, int channels,
                                       float *output, int kernel_w, int kernel_h,
                                       int stride_w, int stride_h, int pad_w, int pad_h);

/* Corner-aligned bilinear resampling of num*channels planes from
 * height_in x width_in to height_out x width_out. The source window is the
 * input cropped by -pad_beg rows and columns at the start and -pad_end at the
 * end, so pad_beg and pad_end must be 0 or negative. The first and last
 * destination rows and columns land exactly on the first and last rows and
 * columns of the window; equal window and destination sizes copy exactly; a
 * 1-row or 1-column destination takes the window's first row or column.
 *
 * An empty or out-of-image window, or a destination size below 1, is a
 * program error: the call aborts with a standard assertion failure (also in
 * release builds). Fixed interface behaviour: callers may rely on the abort
 * and on its assertion texts. Otherwise returns 0, or 2 for a null pointer, negative
 * num or channels, or a plane count above INT32_MAX. */
HSEG_API uint64_t ly_interp(const float *input, float *output, int num, int channels,
                            int height_in, int width_in, int pad_beg, int pad_end,
                            int height_out, int width_out);

/* ------------------------------------------------------------------------ */
/* Data, mean, concatenation and copy layers                                  */
/* ------------------------------------------------------------------------ */
/* Images read by the data layers: `height` rows `pitch` bytes apart (pitch at
 * least 3*width), 3 bytes a pixel; byte k of each pixel goes to output plane
 * k (B, G, R for the library's BGR images). The output is a 3 x height x width
 * tensor. A height or width below 1 returns 0 without writing. */

/* plane c = (float)byte c - mean3[c]. Returns 0 or 2. */
HSEG_API uint64_t vb_ly_data_const_mean(const uint8_t *image, int width, int height, int pitch,
                                        const float *mean3, float *output);

/* every plane = (float)byte - mean. Returns 0 or 2. */
HSEG_API uint64_t ly_data_const_mean(const uint8_t *image, int width, int height, int pitch,
                                     float *output, float mean);

/* plane c, (y, x) = (float)byte c - mean_image[x + width*(y + height*c)], with
 * a full 3 x height x width mean image. Returns 0 or 2. */
HSEG_API uint64_t ly_data(const uint8_t *image, int width, int height, int pitch,
                          const float *mean_image, float *output);

/* output[i] = ((float)input[i] - mean) * scale for `count` bytes. count < 1
 * returns 0 at once. Returns 0 or 2. */
HSEG_API uint64_t ly_data_split_mean_uchar(const uint8_t *input, float *output, int count,
                                           float mean, float scale);

/* output[i] = (input[i] - mean) * scale. May run in place. count < 1 returns
 * 0 at once. Returns 0 or 2. */
HSEG_API uint64_t ly_data_split_mean_float(const float *input, float *output, int count,
                                           float mean, float scale);

/* Appends a*b*c floats of input at output + *offset and advances *offset by
 * a*b*c, so successive calls with one offset variable concatenate channel
 * blocks. A size below 1 copies nothing and leaves *offset alone. Returns 0,
 * or 2 for a null pointer, a negative *offset, or an end beyond INT32_MAX. */
HSEG_API uint64_t ly_concat_channels_float(const float *input, int a, int b, int c,
                                           float *output, int *offset);

/* Copies count1 floats of in1, then count2 of in2, ... count5 of in5, back to
 * back into output. A count below 1 contributes nothing. Returns 0, or 2 for
 * a null pointer with a positive count, or a total above INT32_MAX. */
HSEG_API uint64_t ly_concat_5(const float *in1, int count1, const float *in2, int count2,
                              const float *in3, int count3, const float *in4, int count4,
                              const float *in5, int count5, float *output);

/* Dropout at inference: a copy of `count` floats. May run in place (then it
 * does nothing). count < 1 returns 0 at once. Returns 0 or 2. */
HSEG_API uint64_t ly_drop(const float *input, float *output, int count);

/* Identity layer: a copy of `count` floats, like ly_drop. */
HSEG_API uint64_t ly_memory(const float *input, float *output, int count);

/* Splits the n = a*b*c floats of input into halves: the first n/2 to out1,
 * the last n/2 to out2. n must be even (odd n gives 2). A size below 1 returns
 * 0 at once. Returns 0 or 2. */
HSEG_API uint64_t ly_slice_one2two_with_channel_float(const float *input, int a, int b, int c,
                                                      float *out1, float *out2);

/* ------------------------------------------------------------------------ */
/* Local response normalisation and softmax                                   */
/* ------------------------------------------------------------------------ */

/* Local response normalisation across channels, constant term 1:
 *
 *   scale(c) = 1 + alpha/local_size * sum of input^2 over the channels
 *              c - (local_size-1)/2 .. c + local_size - 1 - (local_size-1)/2
 *   output   = (float) pow((double) scale, -beta) * input
 *
 * The sum is a running window updated with cblas_saxpy (add the entering
 * channel, then subtract the leaving one). width and height only enter as
 * their product. local_size must be at least 1. May run in place. Returns 0,
 * 2 (bad argument) or 4 (a work buffer not allocated; output untouched). */
HSEG_API uint64_t ly_lrn_cross_float(const float *input, int width, int height, int channels,
                                     float *output, int local_size, float alpha, float beta);

/* Softmax over channels for each of `num` images of channels x inner values,
 * inner = count / num / channels (count must be a multiple of num*channels):
 * x - max over channels, (float) exp((double) .), divided by the channel sum
 * (cblas_sgemv). May run in place. Returns 0, 2 or 4 (a work vector not
 * allocated; output untouched). */
HSEG_API uint64_t ly_softmax(const float *input, float *output, int count, int num,
                             int channels);

/* ------------------------------------------------------------------------ */
/* Matrix-library product                                                     */
/* ------------------------------------------------------------------------ */

/* result (M x N) = lhs (M x K) * rhs (K x N), all row-major, by Eigen's
 * general matrix product. result is overwritten, never accumulated; with
 * K == 0 it is set to zeros. Note the argument order: rhs comes first.
 *
 * Fixed interface behaviour: there is no status. On a null pointer (with a
 * non-empty matrix), a negative size, a size product that overflows, or a
 * failed allocation, result is left unwritten. The product is formed in a
 * temporary first, so a failure never leaves a partial result. */
HSEG_API void convmul(const float *rhs, const float *lhs, float *result, int M, int N, int K);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_FLATNN_H_ */
