// Convolution layers: column copy (im2col) + one single-precision GEMM, the
// fully connected layer, the grouped convolution and its adjoint.
#include <cblas.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hseg/flatnn.h"
#include "flatnn/internal.h"

namespace hseg {
namespace flatnn {
namespace {

void *c_alloc(void * /*ctx*/, size_t bytes, bool zeroed) {
  return zeroed ? std::calloc(bytes, 1) : std::malloc(bytes);
}
void c_release(void * /*ctx*/, void *ptr) { std::free(ptr); }

// Adds bias[m] to each of the `plane` values of output plane m. Bit for bit
// what a rank-1 product of the biases with a vector of ones, accumulated onto
// the output, computes (each product with 1.0 is exact; one rounded addition).
void add_bias(const float *bias, int num_output, size_t plane, float *output) {
  for (int m = 0; m < num_output; ++m) {
    const float b = bias[m];
    float *dst = output + static_cast<size_t>(m) * plane;
    for (size_t i = 0; i < plane; ++i) dst[i] = dst[i] + b;
  }
}

// Output size along one axis; -1 when the geometry is rejected.
int64_t conv_axis(int64_t in, int64_t kernel, int64_t pad, int64_t stride, int64_t dilation) {
  if (in < 1 || kernel < 1 || pad < 0 || stride < 1 || dilation < 1) return -1;
  const int64_t padded = in + 2 * pad;
  const int64_t extent = (kernel - 1) * dilation + 1;
  if (padded > kMaxCount || extent > kMaxCount) return -1;
  const int64_t out = (padded - extent) / stride + 1;  // truncates toward zero
  return out >= 1 ? out : -1;
}

// col2im of a deconvolution, accumulated: row (m*kernel_h + i)*kernel_w + j,
// column y*width + x of `col` adds to plane m of `acc` at (y*stride_h -
// pad_h + i, x*stride_w - pad_w + j) when that lies in its out_h x out_w.
// `s` holds the input size (height, width), the output size and the channel
// count m of one group.
void col2im_add(const float *col, const ConvShape &s, float *acc) {
  const size_t out_plane = static_cast<size_t>(s.out_h) * s.out_w;
  for (int m = 0; m < s.channels; ++m) {
    float *plane = acc + static_cast<size_t>(m) * out_plane;
    for (int i = 0; i < s.kernel_h; ++i) {
      for (int j = 0; j < s.kernel_w; ++j) {
        for (int y = 0; y < s.height; ++y, col += s.width) {
          const int64_t oy = int64_t{y} * s.stride_h - s.pad_h + i;
          if (oy < 0 || oy >= s.out_h) continue;
          float *dst_row = plane + static_cast<size_t>(oy) * s.out_w;
          for (int x = 0; x < s.width; ++x) {
            const int64_t ox = int64_t{x} * s.stride_w - s.pad_w + j;
            if (ox >= 0 && ox < s.out_w) dst_row[ox] += col[x];
          }
        }
      }
    }
  }
}

}  // namespace

const Heap &c_heap() {
  static constexpr Heap heap{c_alloc, c_release, nullptr};
  return heap;
}

bool conv_output_size(ConvShape *s) {
  if (s->channels < 1) return false;
  const int64_t oh = conv_axis(s->height, s->kernel_h, s->pad_h, s->stride_h, s->dilation_h);
  const int64_t ow = conv_axis(s->width, s->kernel_w, s->pad_w, s->stride_w, s->dilation_w);
  if (oh < 1 || ow < 1) return false;
  s->out_h = static_cast<int>(oh);
  s->out_w = static_cast<int>(ow);
  return true;
}

void im2col_ref(const float *input, const ConvShape &s, float *col) {
  for (int c = 0; c < s.channels; ++c) {
    const float *plane = input + static_cast<size_t>(c) * s.height * s.width;
    for (int kh = 0; kh < s.kernel_h; ++kh) {
      for (int kw = 0; kw < s.kernel_w; ++kw) {
        for (int oh = 0; oh < s.out_h; ++oh) {
          const int ih = oh * s.stride_h - s.pad_h + kh * s.dilation_h;
          if (static_cast<unsigned>(ih) >= static_cast<unsigned>(s.height)) {
            for (int ow = 0; ow < s.out_w; ++ow) *col++ = 0.0f;
            continue;
          }
          const float *row = plane + static_cast<size_t>(ih) * s.width;
          for (int ow = 0; ow < s.out_w; ++ow) {
            const int iw = ow * s.stride_w - s.pad_w + kw * s.dilation_w;
            *col++ = static_cast<unsigned>(iw) < static_cast<unsigned>(s.width) ? row[iw] : 0.0f;
          }
        }
      }
    }
  }
}

void im2col(const float *input, const ConvShape &s, float *col) {
  const size_t out_w = static_cast<size_t>(s.out_w);
  for (int c = 0; c < s.channels; ++c) {
    const float *plane = input + static_cast<size_t>(c) * s.height * s.width;
    for (int kh = 0; kh < s.kernel_h; ++kh) {
      for (int kw = 0; kw < s.kernel_w; ++kw) {
        // Columns [lo, hi) read inside the row.
        const int64_t x0 = static_cast<int64_t>(kw) * s.dilation_w - s.pad_w;
        const int64_t sw = s.stride_w;
        int64_t lo, hi;
        inside_columns(x0, sw, s.width, s.out_w, &lo, &hi);
        for (int oh = 0; oh < s.out_h; ++oh, col += out_w) {
          const int ih = oh * s.stride_h - s.pad_h + kh * s.dilation_h;
          if (static_cast<unsigned>(ih) >= static_cast<unsigned>(s.height)) {
            std::memset(col, 0, out_w * sizeof(float));
            continue;
          }
          const float *row = plane + static_cast<size_t>(ih) * s.width;
          std::memset(col, 0, static_cast<size_t>(lo) * sizeof(float));
          if (hi == lo) {
            // no column of this kernel offset lands inside the row
          } else if (sw == 1) {
            std::memcpy(col + lo, row + (x0 + lo), static_cast<size_t>(hi - lo) * sizeof(float));
          } else {
            const float *src = row + (x0 + lo * sw);
            for (int64_t ow = lo; ow < hi; ++ow, src += sw) col[ow] = *src;
          }
          std::memset(col + hi, 0, static_cast<size_t>(s.out_w - hi) * sizeof(float));
        }
      }
    }
  }
}

uint64_t forward_conv_with(const Heap &heap, const float *input, float *output,
                           const float *weight, const float *bias, int channels, int height,
                           int width, int kernel_h, int kernel_w, int pad_h, int pad_w,
                           int stride_h, int stride_w, int dilation_h, int dilation_w,
                           int num_output) {
  ConvShape s{channels, height, width, kernel_h, kernel_w, pad_h, pad_w,
              stride_h, stride_w, dilation_h, dilation_w, 0, 0};
  int64_t k, n, col_count, in_count, out_count, w_count;
  if (input == nullptr || output == nullptr || weight == nullptr || num_output < 1 ||
      !conv_output_size(&s) || !count_of({channels, kernel_h, kernel_w}, &k) ||
      !count_of({s.out_h, s.out_w}, &n) || !count_of({k, n}, &col_count) ||
      !count_of({channels, height, width}, &in_count) ||
      !count_of({num_output, n}, &out_count) || !count_of({num_output, k}, &w_count)) {
    return kBadArgument;
  }
  WorkBuffer col(heap, static_cast<size_t>(col_count), false);
  if (col.data() == nullptr) return kNoMemory;
  im2col(input, s, col.data());
  cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, num_output, static_cast<int>(n),
              static_cast<int>(k), 1.0f, weight, static_cast<int>(k), col.data(),
              static_cast<int>(n), 0.0f, output, static_cast<int>(n));
  // Each bias covers its own output plane (out_h*out_w values).
  if (bias != nullptr) add_bias(bias, num_output, static_cast<size_t>(n), output);
  return kOk;
}

uint64_t conv_float_with(const Heap &heap, const float *input, int width, int height,
                         int channels, int group, const float *weight, const float *bias,
                         int kernel_w, int kernel_h, int pad_w, int pad_h, int stride_w,
                         int stride_h, float *output, int num_output) {
  ConvShape s{channels, height, width, kernel_h, kernel_w, pad_h, pad_w,
              stride_h, stride_w, 1, 1, 0, 0};
  int64_t k, n, col_count, in_count, out_count, w_count;
  if (input == nullptr || output == nullptr || weight == nullptr || num_output < 1 ||
      group < 1 || !conv_output_size(&s) || channels % group != 0 || num_output % group != 0 ||
      !count_of({channels, kernel_h, kernel_w}, &k) || !count_of({s.out_h, s.out_w}, &n) ||
      !count_of({k, n}, &col_count) || !count_of({channels, height, width}, &in_count) ||
      !count_of({num_output, n}, &out_count) || !count_of({num_output, k / group}, &w_count)) {
    return kBadArgument;
  }
  WorkBuffer col(heap, static_cast<size_t>(col_count), false);
  if (col.data() == nullptr) return kNoMemory;
  im2col(input, s, col.data());
  // The column rows of a group's input channels are contiguous (rows are
  // channel-major), so each group is one product on a slice of the buffer.
  const int m_g = num_output / group;
  const int k_g = static_cast<int>(k / group);
  const int nn = static_cast<int>(n);
  for (int g = 0; g < group; ++g) {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m_g, nn, k_g, 1.0f,
                weight + static_cast<size_t>(g) * m_g * k_g, k_g,
                col.data() + static_cast<size_t>(g) * k_g * nn, nn, 0.0f,
                output + static_cast<size_t>(g) * m_g * nn, nn);
  }
  if (bias != nullptr) add_bias(bias, num_output, static_cast<size_t>(n), output);
  return kOk;
}

uint64_t deconv_float_with(const Heap &heap, const float *input, int width, int height,
                           int channels, int group, const float *weight, int kernel_w,
                           int kernel_h, int pad_w, int pad_h, int stride_w, int stride_h,
                           float *output, const float *bias, int num_output) {
  if (input == nullptr || output == nullptr || weight == nullptr || width < 1 || height < 1 ||
      channels < 1 || group < 1 || num_output < 1 || kernel_w < 1 || kernel_h < 1 ||
      pad_w < 0 || pad_h < 0 || stride_w < 1 || stride_h < 1 || channels % group != 0 ||
      num_output % group != 0) {
    return kBadArgument;
  }
  // The convolution this is the adjoint of maps out_h x out_w back to height x width.
  const int64_t out_h64 = (int64_t{height} - 1) * stride_h - 2 * int64_t{pad_h} + kernel_h;
  const int64_t out_w64 = (int64_t{width} - 1) * stride_w - 2 * int64_t{pad_w} + kernel_w;
  int64_t n, out_plane, k_g, col_count, in_count, out_count, w_count;
  if (out_h64 < 1 || out_w64 < 1 || !count_of({out_h64, out_w64}, &out_plane) ||
      !count_of({height, width}, &n) || !count_of({num_output / group, kernel_h, kernel_w}, &k_g) ||
      !count_of({k_g, n}, &col_count) || !count_of({channels, n}, &in_count) ||
      !count_of({num_output, out_plane}, &out_count) || !count_of({channels, k_g}, &w_count)) {
    return kBadArgument;
  }
  // Each group's m_g output channels, as the adjoint maps them.
  const ConvShape s{num_output / group, height, width, kernel_h, kernel_w, pad_h, pad_w,
                    stride_h, stride_w, 1, 1, static_cast<int>(out_h64),
                    static_cast<int>(out_w64)};
  WorkBuffer col(heap, static_cast<size_t>(col_count), false);
  if (col.data() == nullptr) return kNoMemory;
  WorkBuffer acc(heap, static_cast<size_t>(out_count), true);
  if (acc.data() == nullptr) return kNoMemory;

  const int c_g = channels / group, m_g = s.channels;
  const int kg = static_cast<int>(k_g), nn = static_cast<int>(n);
  for (int g = 0; g < group; ++g) {
    // col = W_g^T * input_g: (m_g*kernel_h*kernel_w) x (height*width).
    cblas_sgemm(CblasRowMajor, CblasTrans, CblasNoTrans, kg, nn, c_g, 1.0f,
                weight + static_cast<size_t>(g) * c_g * kg, kg,
                input + static_cast<size_t>(g) * c_g * nn, nn, 0.0f, col.data(), nn);
    col2im_add(col.data(), s, acc.data() + static_cast<size_t>(g) * m_g * out_plane);
  }
  std::memcpy(output, acc.data(), static_cast<size_t>(out_count) * sizeof(float));
  if (bias != nullptr) add_bias(bias, num_output, static_cast<size_t>(out_plane), output);
  return kOk;
}

}  // namespace flatnn
}  // namespace hseg

using namespace hseg::flatnn;

extern "C" {

uint64_t myc_forward_conv(const float *input, float *output, const float *weight,
                          const float *bias, int channels, int height, int width, int kernel_h,
                          int kernel_w, int pad_h, int pad_w, int stride_h, int stride_w,
                          int dilation_h, int dilation_w, int num_output) {
  return forward_conv_with(c_heap(), input, output, weight, bias, channels, height, width,
                           kernel_h, kernel_w, pad_h, pad_w, stride_h, stride_w, dilation_h,
                           dilation_w, num_output);
}

uint64_t ly_inner_product(const float *input, int K, float *output, int N, const float *weight,
                          const float *bias) {
  int64_t w_count;
  if (input == nullptr || output == nullptr || weight == nullptr || K < 1 || N < 1 ||
      !count_of({K, N}, &w_count)) {
    return kBadArgument;
  }
  cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, 1, N, K, 1.0f, input, K, weight, N,
              0.0f, output, N);
  // bias[n] onto output[n]: N planes of one value each.
  if (bias != nullptr) add_bias(bias, N, 1, output);
  return kOk;
}

uint64_t ly_conv_float(const float *input, int width, int height, int channels, int group,
                       const float *weight, const float *bias, int kernel_w, int kernel_h,
                       int pad_w, int pad_h, int stride_w, int stride_h, float *output,
                       int num_output) {
  return conv_float_with(c_heap(), input, width, height, channels, group, weight, bias,
                         kernel_w, kernel_h, pad_w, pad_h, stride_w, stride_h, output,
                         num_output);
}

uint64_t ly_deconv_float(const float *input, int width, int height, int channels, int group,
                         const float *weight, int kernel_w, int kernel_h, int pad_w, int pad_h,
                         int stride_w, int stride_h, float *output, const float *bias,
                         int num_output) {
  return deconv_float_with(c_heap(), input, width, height, channels, group, weight, kernel_w,
                           kernel_h, pad_w, pad_h, stride_w, stride_h, output, bias,
                           num_output);
}

}  // extern "C"
