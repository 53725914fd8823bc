// Internal interface of the layer library: the work-memory hook, argument
// helpers, and the kernels that have a faster path beside a plain one (the
// tests call both directly).
#ifndef HSEG_SRC_FLATNN_INTERNAL_H_
#define HSEG_SRC_FLATNN_INTERNAL_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>

namespace hseg {
namespace flatnn {

// Fixed interface behaviour: the layers' statuses are 64 bits wide.
constexpr uint64_t kOk = 0;
constexpr uint64_t kBadArgument = 2;
constexpr uint64_t kNoMemory = 4;

// Where the layers take their work buffers. The exported functions use the C
// heap; the tests pass a heap that fails a chosen allocation to walk the
// failure paths without interposing malloc.
struct Heap {
  void *(*alloc)(void *ctx, size_t bytes, bool zeroed);
  void (*release)(void *ctx, void *ptr);
  void *ctx;
};

// malloc/calloc/free.
const Heap &c_heap();

// A float work buffer owned for the length of one call.
class WorkBuffer {
 public:
  // count floats, zeroed when asked; data() is null when the heap refused.
  WorkBuffer(const Heap &heap, size_t count, bool zeroed)
      : heap_(heap), data_(static_cast<float *>(heap.alloc(heap.ctx, count * sizeof(float), zeroed))) {}
  ~WorkBuffer() {
    if (data_ != nullptr) heap_.release(heap_.ctx, data_);
  }
  WorkBuffer(const WorkBuffer &) = delete;
  WorkBuffer &operator=(const WorkBuffer &) = delete;
  float *data() const { return data_; }

 private:
  const Heap &heap_;
  float *data_;
};

constexpr int64_t kMaxCount = std::numeric_limits<int32_t>::max();

// Product of sizes as an element count. False when a factor is negative or
// the product exceeds INT32_MAX; each partial product is checked before the
// next multiplication, so no step can overflow int64 (both factors are below
// 2^31 and 2^31 * 2^31 < 2^63).
inline bool count_of(std::initializer_list<int64_t> factors, int64_t *count) {
  int64_t n = 1;
  for (int64_t f : factors) {
    if (f < 0 || f > kMaxCount) return false;
    n *= f;
    if (n > kMaxCount) return false;
  }
  *count = n;
  return true;
}

// Element count of a layer without a kernel: 0 ("nothing to do") when a size
// is below 1, false when the product exceeds INT32_MAX.
inline bool plain_count(std::initializer_list<int64_t> sizes, int64_t *count) {
  for (int64_t f : sizes) {
    if (f < 1) {
      *count = 0;
      return true;
    }
  }
  return count_of(sizes, count);
}

// Geometry of one convolution, output size included, all validated.
struct ConvShape {
  int channels, height, width;
  int kernel_h, kernel_w, pad_h, pad_w, stride_h, stride_w, dilation_h, dilation_w;
  int out_h, out_w;
};

// Fills the output size of `s` with the floor rule
//   out = (in + 2*pad - ((kernel - 1)*dilation + 1)) / stride + 1
// (truncating division). False when a size is not positive, a pad is
// negative, an intermediate leaves int32, or the output would be empty.
bool conv_output_size(ConvShape *s);

// Output columns [*lo, *hi) of a row of `out` columns whose input column
// ow*stride + x0 lies inside a row of `size`: ceil(-x0/stride) <= ow <=
// (size - 1 - x0)/stride, clipped to [0, out); an empty run has lo == hi.
// stride >= 1.
inline void inside_columns(int64_t x0, int64_t stride, int64_t size, int64_t out, int64_t *lo,
                           int64_t *hi) {
  const int64_t l = x0 >= 0 ? 0 : (-x0 + stride - 1) / stride;
  const int64_t h = size - 1 - x0 < 0 ? 0 : (size - 1 - x0) / stride + 1;
  *lo = std::min(l, out);
  *hi = std::max(*lo, std::min(h, out));
}

// Pooled size along one axis: ceil((in + 2*pad - kernel) / stride) + 1, the
// quotient formed in single precision. -1 when the geometry is rejected (a
// size or stride below 1, a negative pad, a result outside 1..INT32_MAX).
int64_t pool_output_size(int in, int kernel, int stride, int pad);

// Column copy (im2col). Row (c*kernel_h + kh)*kernel_w + kw, column
// oh*out_w + ow holds input(c, oh*stride_h - pad_h + kh*dilation_h,
// ow*stride_w - pad_w + kw*dilation_w), or 0 outside the input.
// im2col_ref tests every element; im2col computes the in-image run of each
// row once and copies it (memcpy at stride 1). Both write the same bits.
void im2col_ref(const float *input, const ConvShape &s, float *col);
void im2col(const float *input, const ConvShape &s, float *col);

// Versions of the allocating layers that take their work memory from `heap`.
uint64_t forward_conv_with(const Heap &heap, const float *input, float *output,
                           const float *weight, const float *bias, int channels, int height,
                           int width, int kernel_h, int kernel_w, int pad_h, int pad_w,
                           int stride_h, int stride_w, int dilation_h, int dilation_w,
                           int num_output);
uint64_t conv_float_with(const Heap &heap, const float *input, int width, int height,
                         int channels, int group, const float *weight, const float *bias,
                         int kernel_w, int kernel_h, int pad_w, int pad_h, int stride_w,
                         int stride_h, float *output, int num_output);
uint64_t deconv_float_with(const Heap &heap, const float *input, int width, int height,
                           int channels, int group, const float *weight, int kernel_w,
                           int kernel_h, int pad_w, int pad_h, int stride_w, int stride_h,
                           float *output, const float *bias, int num_output);
uint64_t lrn_cross_with(const Heap &heap, const float *input, int width, int height,
                        int channels, float *output, int local_size, float alpha, float beta);
uint64_t softmax_with(const Heap &heap, const float *input, float *output, int count, int num,
                      int channels);

}  // namespace flatnn
}  // namespace hseg

#endif  // HSEG_SRC_FLATNN_INTERNAL_H_
