// The network pass: a pyramid-pooling head on a 101-layer dilated residual
// backbone, from a 473x473 BGR image to two 60x60 score planes.
//
// The graph comes from the layer table (net_layers.cpp): the stem's three
// convolutions, then the 33 bottleneck blocks (reduce, 3x3, increase, and a
// projection shortcut in each stage's first block), four pyramid branches on
// the last block's output, their concatenation, conv5_4 and the classifier.
//
// Two routes give the same bits. The plain route calls the exported layer
// functions one layer at a time. The fast route, the default, runs a 1x1
// stride-1 convolution as one GEMM straight on its input, and any other
// convolution in bands of output rows: one GEMM per band on a band-sized
// column copy. Batch norm, ReLU and the residual sum follow in one pass over
// each band (the block's sum lands in the increase convolution's output), and
// conv5_4's column copy reads conv5_3 and the pyramid branches where they lie
// instead of a concatenation. Every float operation is the one the plain
// route performs, in the same order: OpenBLAS computes each output element
// over the whole K in the same order whatever the number of columns it is
// given, and the finishes repeat ly_bn_frozen, ly_etlwise_sum and
// ly_relu_float element by element.
//
// Tensors are released after their last use; the scores do not depend on it.
#include "pipeline/network.h"

#include <cblas.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hseg/flatnn.h"
#include "pipeline/net_kernels.h"
#include "pipeline/net_layers.h"

namespace hseg {
namespace {

constexpr float kBnEps = 1e-5f;  // float bits 0x3727C5AC
// Per-channel means taken off the B, G and R bytes.
constexpr float kMeanBgr[3] = {104.008f, 116.669f, 122.675f};
constexpr int kFeatureSize = 60;
constexpr int kConcatChannels = 4096;
constexpr int kMaxChannels = 2048;  // widest batch-normalised output

// Band sizes of the fast route. OpenBLAS runs these products markedly faster
// on 1800 columns than on a few hundred, so a band has at least
// kMinBandColumns columns, or more rows when its column copy still fits in
// kBandBytes (the stem's wide rows); but a column copy never takes more than
// kMaxBandBytes (conv5_4's 36864-row copy gets 14 rows of 60 columns).
constexpr int64_t kMinBandColumns = 1800;
constexpr int64_t kBandBytes = int64_t{8} << 20;
constexpr int64_t kMaxBandBytes = int64_t{128} << 20;

// At most this many blocks are held at once (the 156 tensors with keep_all;
// a handful otherwise).
constexpr int kMaxHeld = 160;

enum class Finish { kBnRelu, kBn, kBnAddRelu, kBias };

struct Tensor {
  float *data = nullptr;
  int c = 0, h = 0, w = 0;
  int64_t count() const { return int64_t{c} * h * w; }
};

// Pooling output size, rounded up as the pooling layers compute it.
int pool_out(int in, int kernel, int stride, int pad) {
  return static_cast<int>(std::ceil(static_cast<float>(in + 2 * pad - kernel) /
                                    static_cast<float>(stride))) + 1;
}

// A 1x1 stride-1 convolution multiplies its input as it lies.
bool is_direct(const NetLayer &l) { return l.kernel == 1 && l.stride == 1 && l.pad == 0; }

// Output rows per band of a convolution in the fast route. A direct one runs
// as one GEMM: its finish then streams through whole planes, which is faster
// than many short runs.
int64_t band_rows(const NetLayer &l) {
  const int64_t out = net_out_size(l);
  if (is_direct(l)) return out;
  const int64_t row_bytes = int64_t{l.cin} * l.kernel * l.kernel * out * int64_t{sizeof(float)};
  int64_t rows = std::max((kMinBandColumns + out - 1) / out, kBandBytes / row_bytes);
  rows = std::max<int64_t>(1, std::min(rows, kMaxBandBytes / row_bytes));
  return std::min(rows, out);
}

// Bytes of the largest band's column copy: one buffer of this size serves
// every convolution of the pass.
size_t column_bytes() {
  int64_t most = 0;
  for (const NetLayer &l : kNetLayers) {
    if (is_direct(l)) continue;
    const int64_t k = int64_t{l.cin} * l.kernel * l.kernel;
    most = std::max(most, k * band_rows(l) * net_out_size(l));
  }
  return static_cast<size_t>(most) * sizeof(float);
}

void *default_alloc(void *, size_t bytes, const char *) { return std::malloc(bytes); }
void default_release(void *, void *ptr) { std::free(ptr); }

class Pass {
 public:
  Pass(const float *const *weights, const NetHooks *hooks) : weights_(weights) {
    if (hooks != nullptr) hooks_ = *hooks;
    if (hooks_.conv_output != nullptr) hooks_.plain = true;
    if (hooks_.alloc == nullptr || hooks_.release == nullptr) {
      hooks_.alloc = default_alloc;
      hooks_.release = default_release;
    }
  }
  ~Pass() {
    for (int i = 0; i < held_count_; ++i)
      if (held_[i] != nullptr) hooks_.release(hooks_.user, held_[i]);
  }
  Pass(const Pass &) = delete;
  Pass &operator=(const Pass &) = delete;

  MRESULT run(const uint8_t *bgr, int32_t pitch, float *scores);

 private:
  MRESULT make(const char *what, int c, int h, int w, Tensor *t);
  float *columns();
  void drop(Tensor *t);
  void show(const char *name, const Tensor &t) const {
    if (hooks_.tap != nullptr) hooks_.tap(hooks_.user, NetTap{name, t.data, t.c, t.h, t.w});
  }
  const float *weight(int layer, int part) const {
    return weights_[net_first_tensor(layer) + part];
  }

  MRESULT conv(int layer, const Tensor &in, const char *name, Finish finish,
               const Tensor *shortcut, Tensor *out) {
    return conv(layer, &in, 1, name, finish, shortcut, out);
  }
  MRESULT conv(int layer, const Tensor *in, int inputs, const char *name, Finish finish,
               const Tensor *shortcut, Tensor *out);
  MRESULT conv_plain(int layer, const Tensor &in, Finish finish, const Tensor &out);
  MRESULT conv_banded(int layer, const Tensor *in, int inputs, Finish finish,
                      const Tensor *shortcut, const Tensor &out);
  MRESULT block(int *layer, Tensor *x);
  MRESULT pyramid(int *layer, Tensor *x, Tensor parts[NetSources::kMax], int *count);

  const float *const *weights_;
  NetHooks hooks_;
  void *held_[kMaxHeld] = {};
  int held_count_ = 0;
  float *columns_ = nullptr;
};

// Allocates a c x h x w tensor and holds it until drop() or the end.
MRESULT Pass::make(const char *what, int c, int h, int w, Tensor *t) {
  *t = Tensor{};
  int slot = 0;  // the first free slot: released tensors leave theirs
  while (slot < held_count_ && held_[slot] != nullptr) ++slot;
  if (slot == kMaxHeld) return HSEG_ERR_NO_MEMORY;
  const size_t bytes = static_cast<size_t>(c) * h * w * sizeof(float);
  void *p = hooks_.alloc(hooks_.user, bytes, what);
  if (p == nullptr) return HSEG_ERR_NO_MEMORY;
  held_[slot] = p;
  held_count_ = std::max(held_count_, slot + 1);
  *t = Tensor{static_cast<float *>(p), c, h, w};
  return HSEG_OK;
}

// The column buffer, allocated at its first use for the largest band of the
// pass and reused by every convolution after it; its pages are touched only
// as far as each band needs. Held like a tensor, released at the end.
float *Pass::columns() {
  if (columns_ == nullptr) {
    Tensor t;
    const size_t floats = column_bytes() / sizeof(float);
    if (make("columns", 1, 1, static_cast<int>(floats), &t) != HSEG_OK) return nullptr;
    columns_ = t.data;
  }
  return columns_;
}

// Releases a tensor after its last use (unless every tensor is kept).
void Pass::drop(Tensor *t) {
  if (t->data == nullptr) return;
  if (!hooks_.keep_all) {
    for (int i = held_count_ - 1; i >= 0; --i) {
      if (held_[i] == t->data) {
        hooks_.release(hooks_.user, held_[i]);
        held_[i] = nullptr;
        break;
      }
    }
  }
  *t = Tensor{};
}

// One convolution with what follows it, into a new tensor named `name`. The
// input is `inputs` tensors read as their channel concatenation (one in the
// plain route).
MRESULT Pass::conv(int layer, const Tensor *in, int inputs, const char *name, Finish finish,
                   const Tensor *shortcut, Tensor *out) {
  const NetLayer &l = kNetLayers[layer];
  const int size = net_out_size(l);
  MRESULT st = make(name, l.cout, size, size, out);
  if (st != HSEG_OK) return st;
  return hooks_.plain ? conv_plain(layer, in[0], finish, *out)
                      : conv_banded(layer, in, inputs, finish, shortcut, *out);
}

MRESULT Pass::conv_plain(int layer, const Tensor &in, Finish finish, const Tensor &out) {
  const NetLayer &l = kNetLayers[layer];
  const float *bias = finish == Finish::kBias ? weight(layer, 1) : nullptr;
  uint64_t st = myc_forward_conv(in.data, out.data, weight(layer, 0), bias, l.cin, in.h, in.w,
                                 l.kernel, l.kernel, l.pad, l.pad, l.stride, l.stride,
                                 l.dilation, l.dilation, l.cout);
  if (st == HSEG_OK && finish != Finish::kBias && hooks_.conv_output != nullptr)
    hooks_.conv_output(hooks_.user, layer, out.data, out.c, out.h, out.w);
  if (st == HSEG_OK && finish != Finish::kBias) {
    st = ly_bn_frozen(out.data, out.data, static_cast<int>(out.count()), 1, l.cout,
                      weight(layer, 1), weight(layer, 2), weight(layer, 3), weight(layer, 4),
                      kBnEps);
  }
  if (st == HSEG_OK && finish == Finish::kBnRelu)
    st = ly_relu_float(out.data, out.data, out.w, out.h, out.c);
  return static_cast<MRESULT>(st);
}

MRESULT Pass::conv_banded(int layer, const Tensor *in, int inputs, Finish finish,
                          const Tensor *shortcut, const Tensor &out) {
  const NetLayer &l = kNetLayers[layer];
  if (l.cout > kMaxChannels) return HSEG_ERR_BAD_ARGUMENT;  // not in the table
  const NetConvGeom g{l.cin, in[0].h, l.kernel, l.stride, l.pad, l.dilation, out.h};
  NetSources sources{inputs, {}, {}};
  for (int i = 0; i < inputs; ++i) {
    sources.data[i] = in[i].data;
    sources.channels[i] = in[i].c;
  }
  const int64_t n = int64_t{out.h} * out.w;
  const int64_t k = int64_t{l.cin} * l.kernel * l.kernel;
  const bool direct = is_direct(l);
  const int64_t rows = band_rows(l);
  float *col = nullptr;
  if (!direct) {
    col = columns();
    if (col == nullptr) return HSEG_ERR_NO_MEMORY;
  }
  float inv_std[kMaxChannels];
  NetBn bn{};
  if (finish != Finish::kBias) {
    net_bn_inv_std(weight(layer, 4), kBnEps, l.cout, inv_std);
    bn = NetBn{weight(layer, 1), weight(layer, 2), weight(layer, 3), inv_std};
  }
  for (int row0 = 0; row0 < out.h; row0 += static_cast<int>(rows)) {
    const int row1 = static_cast<int>(std::min<int64_t>(out.h, row0 + rows));
    const int64_t col0 = int64_t{row0} * out.w, col1 = int64_t{row1} * out.w;
    const float *b = in[0].data + col0;
    int64_t ldb = n;
    if (!direct) {
      net_im2col_rows(sources, g, row0, row1, col);
      b = col;
      ldb = col1 - col0;
    }
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, l.cout, static_cast<int>(col1 - col0),
                static_cast<int>(k), 1.0f, weight(layer, 0), static_cast<int>(k), b,
                static_cast<int>(ldb), 0.0f, out.data + col0, static_cast<int>(n));
    switch (finish) {
      case Finish::kBnRelu:
      case Finish::kBn:
        net_bn_band(out.data, n, l.cout, col0, col1, bn, finish == Finish::kBnRelu);
        break;
      case Finish::kBnAddRelu:
        net_bn_add_relu_band(out.data, shortcut->data, n, l.cout, col0, col1, bn);
        break;
      case Finish::kBias:
        net_bias_band(out.data, n, l.cout, col0, col1, weight(layer, 1));
        break;
    }
  }
  return HSEG_OK;
}

// One bottleneck block from *layer (its reduce layer) on *x, which it
// replaces by the block's output. Advances *layer past the block.
MRESULT Pass::block(int *layer, Tensor *x) {
  const int i = *layer;
  const bool projected = i + 3 < kNetLayerCount && kNetLayers[i + 3].role == NetRole::kProj;
  *layer = i + (projected ? 4 : 3);
  // The block's name is its reduce layer's without "_1x1_reduce".
  char name[32];
  std::snprintf(name, sizeof name, "%.*s", static_cast<int>(std::strlen(kNetLayers[i].name) - 11),
                kNetLayers[i].name);

  Tensor reduce, mid, increase, proj, sum;
  MRESULT st = conv(i, *x, kNetLayers[i].name, Finish::kBnRelu, nullptr, &reduce);
  if (st == HSEG_OK) st = conv(i + 1, reduce, kNetLayers[i + 1].name, Finish::kBnRelu, nullptr, &mid);
  drop(&reduce);
  if (st != HSEG_OK) return st;

  if (hooks_.plain) {
    // increase, projection, sum = (0 + shortcut) + increase, ReLU.
    st = conv(i + 2, mid, kNetLayers[i + 2].name, Finish::kBn, nullptr, &increase);
    drop(&mid);
    if (st == HSEG_OK && projected)
      st = conv(i + 3, *x, kNetLayers[i + 3].name, Finish::kBn, nullptr, &proj);
    if (st == HSEG_OK) st = make(name, increase.c, increase.h, increase.w, &sum);
    const Tensor &shortcut = projected ? proj : *x;
    if (st == HSEG_OK)
      st = static_cast<MRESULT>(ly_etlwise_sum(shortcut.data, increase.data, sum.w, sum.h,
                                               sum.c, sum.data));
    if (st == HSEG_OK) st = static_cast<MRESULT>(ly_relu_float(sum.data, sum.data, sum.w, sum.h, sum.c));
  } else {
    // The projection first, so that the increase can finish the block in one
    // pass over its bands: the block's output is the increase's buffer.
    if (projected) st = conv(i + 3, *x, kNetLayers[i + 3].name, Finish::kBn, nullptr, &proj);
    const Tensor &shortcut = projected ? proj : *x;
    if (st == HSEG_OK) st = conv(i + 2, mid, name, Finish::kBnAddRelu, &shortcut, &sum);
    drop(&mid);
  }
  drop(&increase);
  drop(&proj);
  drop(x);
  *x = sum;
  if (st == HSEG_OK) show(name, *x);
  return st;
}

// The four pyramid branches on the conv5_3 output *x, in table order (bins
// 1, 2, 3, 6). conv5_4 reads conv5_3 and then the branches in the reverse
// order, pool6 first: in the plain route that concatenation is built and
// returned as the one part; the fast route returns the five parts, which its
// column copy reads as one. *x passes into `parts`.
MRESULT Pass::pyramid(int *layer, Tensor *x, Tensor parts[NetSources::kMax], int *count) {
  constexpr int kBranches = 4;
  const int first = *layer;
  *layer = first + kBranches;
  Tensor branch[kBranches];
  MRESULT st = HSEG_OK;
  for (int b = 0; b < kBranches && st == HSEG_OK; ++b) {
    const NetLayer &l = kNetLayers[first + b];
    const int bins = l.in_size, window = kFeatureSize / bins;
    char name[40];
    std::snprintf(name, sizeof name, "conv5_3_pool%d", bins);
    Tensor pooled, reduced;
    st = make(name, x->c, pool_out(x->h, window, window, 0), pool_out(x->w, window, window, 0),
              &pooled);
    if (st == HSEG_OK && hooks_.plain)
      st = static_cast<MRESULT>(ly_pooling_avg_float(x->data, x->w, x->h, x->c, pooled.data,
                                                     window, window, window, window, 0, 0));
    else if (st == HSEG_OK)
      net_avg_pool_tiled(x->data, x->c, x->h, window, pooled.data);
    if (st == HSEG_OK) st = conv(first + b, pooled, l.name, Finish::kBnRelu, nullptr, &reduced);
    drop(&pooled);
    std::snprintf(name, sizeof name, "conv5_3_pool%d_interp", bins);
    if (st == HSEG_OK) st = make(name, reduced.c, kFeatureSize, kFeatureSize, &branch[b]);
    if (st == HSEG_OK)
      st = static_cast<MRESULT>(ly_interp(reduced.data, branch[b].data, 1, reduced.c, reduced.h,
                                          reduced.w, 0, 0, kFeatureSize, kFeatureSize));
    drop(&reduced);
    if (st == HSEG_OK) show(name, branch[b]);
  }
  parts[0] = *x;
  for (int b = 0; b < kBranches; ++b) parts[1 + b] = branch[kBranches - 1 - b];
  *count = 1 + kBranches;
  *x = Tensor{};
  if (st != HSEG_OK || !hooks_.plain) return st;

  Tensor concat;
  st = make("conv5_3_concat", kConcatChannels, kFeatureSize, kFeatureSize, &concat);
  if (st == HSEG_OK)
    st = static_cast<MRESULT>(ly_concat_5(
        parts[0].data, static_cast<int>(parts[0].count()), parts[1].data,
        static_cast<int>(parts[1].count()), parts[2].data, static_cast<int>(parts[2].count()),
        parts[3].data, static_cast<int>(parts[3].count()), parts[4].data,
        static_cast<int>(parts[4].count()), concat.data));
  for (int i = 0; i < *count; ++i) drop(&parts[i]);
  parts[0] = concat;
  *count = 1;
  if (st == HSEG_OK) show("conv5_3_concat", concat);
  return st;
}

MRESULT Pass::run(const uint8_t *bgr, int32_t pitch, float *scores) {
  Tensor x;
  MRESULT st = make("data", 3, kNetInputSize, kNetInputSize, &x);
  if (st == HSEG_OK)
    st = static_cast<MRESULT>(
        vb_ly_data_const_mean(bgr, kNetInputSize, kNetInputSize, pitch, kMeanBgr, x.data));
  if (st != HSEG_OK) return st;
  show("data", x);

  int layer = 0;
  for (; kNetLayers[layer].role == NetRole::kStem; ++layer) {
    Tensor y;
    st = conv(layer, x, kNetLayers[layer].name, Finish::kBnRelu, nullptr, &y);
    drop(&x);
    x = y;
    if (st != HSEG_OK) return st;
    show(kNetLayers[layer].name, x);
  }

  Tensor pooled;
  st = make("pool1", x.c, pool_out(x.h, 3, 2, 1), pool_out(x.w, 3, 2, 1), &pooled);
  if (st == HSEG_OK)
    st = static_cast<MRESULT>(ly_pooling_max_float(x.data, x.w, x.h, x.c, pooled.data, 3, 3, 2, 2, 1, 1));
  drop(&x);
  x = pooled;
  if (st != HSEG_OK) return st;
  show("pool1", x);

  while (kNetLayers[layer].role == NetRole::kReduce) {
    st = block(&layer, &x);
    if (st != HSEG_OK) return st;
  }

  Tensor parts[NetSources::kMax];
  int count = 0;
  st = pyramid(&layer, &x, parts, &count);
  Tensor head;
  if (st == HSEG_OK)
    st = conv(layer, parts, count, kNetLayers[layer].name, Finish::kBnRelu, nullptr, &head);
  for (Tensor &t : parts) drop(&t);
  if (st != HSEG_OK) return st;
  show(kNetLayers[layer].name, head);
  ++layer;
  // Dropout is a copy onto itself at inference; only the plain route calls it.
  if (hooks_.plain) {
    st = static_cast<MRESULT>(ly_drop(head.data, head.data, static_cast<int>(head.count())));
    if (st != HSEG_OK) return st;
  }

  Tensor out;
  st = conv(layer, head, kNetLayers[layer].name, Finish::kBias, nullptr, &out);
  drop(&head);
  if (st != HSEG_OK) return st;
  show(kNetLayers[layer].name, out);
  std::memcpy(scores, out.data, kNetScoreCount * sizeof(float));
  drop(&out);
  return HSEG_OK;
}

}  // namespace

MRESULT net_forward(const uint8_t *bgr, int32_t pitch, float *scores,
                    const float *const *weights, const NetHooks *hooks) {
  if (bgr == nullptr || scores == nullptr || weights == nullptr ||
      pitch < 3 * kNetInputSize) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  for (int i = 0; i < kNetTensorCount; ++i)
    if (weights[i] == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  Pass pass(weights, hooks);
  return pass.run(bgr, pitch, scores);
}

}  // namespace hseg
