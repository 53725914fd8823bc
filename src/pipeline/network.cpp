// The network pass: a pyramid-pooling head on a 101-layer dilated residual
// backbone, from a 473x473 BGR image to two 60x60 score planes.
//
// The graph comes from the layer table (net_layers.cpp): the stem's three
// convolutions, then the 33 bottleneck blocks (reduce, 3x3, increase, and a
// projection shortcut in each stage's first block), four pyramid branches on
// the last block's output, their concatenation, conv5_4 and the classifier.
//
// Two routes give the same bits. The reference route calls the exported layer
// functions one layer at a time. The fast route, the default, runs every
// convolution in bands of output rows, each band a task of the thread pool
// that makes the band's column copy (none for a 1x1 stride-1 convolution,
// which multiplies its input as it lies), multiplies it in one GEMM on the
// lane's own thread and finishes it: batch norm, ReLU and the residual sum in
// one pass over the band (the block's sum lands in its shortcut, in place).
// conv5_4, whose whole copy would take 531 MB, goes in bands over K that add
// to its output, its column copy reading conv5_3 and the pyramid branches
// where they lie, resizing the branches' rows as it needs them, instead of a
// concatenation. Every float operation is the one the reference route
// performs, in the same order: OpenBLAS computes each output element over
// the whole K in the same order whatever the number of columns it is given
// (above a size, net_gemm.h), or the K-slices at multiples of its K-block,
// and the finishes repeat ly_bn_frozen, ly_etlwise_sum and ly_relu_float
// element by element.
//
// The fast network (NetHooks::winograd) is the fast route with its stride-1
// 3x3 convolutions by Winograd minimal filtering (net_winograd.h); its scores
// differ from the exact ones in their rounding.
//
// The fast route takes all its memory as one arena before its first matrix
// product (sized by a dry run of the same pass, see net_arena.h) and releases
// each tensor to it after its last use. While it runs with more than one
// lane, OpenBLAS runs on one thread (net_gemm.h) and the pool's lanes do both
// the products and the work between them; the work that is not in bands
// (pooling, conv5_4's copy and finish) is split by channel. The arithmetic
// of each element is unchanged, so the scores do not depend on the number of
// lanes.
#include "pipeline/network.h"

#include <cblas.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "flatnn/internal.h"
#include "hseg/flatnn.h"
#include "pipeline/net_arena.h"
#include "pipeline/net_gemm.h"
#include "pipeline/net_kernels.h"
#include "pipeline/net_layers.h"
#include "pipeline/net_pool.h"
#include "pipeline/net_winograd.h"

namespace hseg {
namespace {

constexpr float kBnEps = 1e-5f;  // float bits 0x3727C5AC
// Per-channel means taken off the B, G and R bytes.
constexpr float kMeanBgr[3] = {104.008f, 116.669f, 122.675f};
constexpr int kConcatChannels = 4096;
constexpr int kMaxChannels = 2048;  // widest batch-normalised output

// Bands of the fast route. A convolution runs in bands of output rows, each
// a task of the pool that makes the band's column copy in its lane's share
// of the column buffer, multiplies it on the lane's thread and finishes it,
// one step after the other while the band is still in cache; a lane's copy
// and finish then overlap another lane's product. A convolution has about
// kBandsPerLane bands per lane, each with a column copy of at most
// kLaneBandBytes and a product of at least kNetGemmMinPartMacs multiply-adds
// (net_gemm.h). One band per lane ran the pass 2% faster than two and 5%
// faster than four: each band's product packs the whole kernel again.
//
// A convolution whose bands would then have fewer than kMinBandColumns
// columns (conv5_4: 36864 column rows, 8.8 MB per output row) goes in bands
// over K instead, each all the output's columns and about kDepthBandBytes of
// column rows, accumulated in place (net_gemm.h): its 75 MB kernel is then
// packed once, as in one whole product, and its column copy held a slice at
// a time. Where OpenBLAS cannot be split over K exactly, it goes in bands of
// one output row.
constexpr int kBandsPerLane = 1;
constexpr int64_t kLaneBandBytes = int64_t{16} << 20;
constexpr int64_t kMinBandColumns = 300;
constexpr int64_t kDepthBandBytes = int64_t{24} << 20;

// At most this many blocks are held at once by the reference route (the 156
// tensors with keep_all; a handful otherwise).
constexpr int kMaxHeld = 160;

// Channel ranges per lane handed to the pool: a few, so that a lane slowed
// by another process leaves its share to the others.
constexpr int kTasksPerLane = 4;

enum class Finish { kBnRelu, kBn, kBnAddRelu, kBias };

struct Tensor {
  float *data = nullptr;
  int c = 0, h = 0, w = 0;
  int64_t count() const { return int64_t{c} * h * w; }
};

// Pooling output size, the pooling layers' own rule (the network's sizes are
// all valid, so it is never -1 here).
int pool_out(int in, int kernel, int stride, int pad) {
  return static_cast<int>(flatnn::pool_output_size(in, kernel, stride, pad));
}

// A 1x1 stride-1 convolution multiplies its input as it lies.
bool is_direct(const NetLayer &l) { return l.kernel == 1 && l.stride == 1 && l.pad == 0; }

// Output rows per band of a convolution in the fast route on `lanes` lanes.
int64_t band_rows(const NetLayer &l, int lanes) {
  const int64_t out = net_out_size(l), k = int64_t{l.cin} * l.kernel * l.kernel;
  const int64_t bands = int64_t{lanes} * kBandsPerLane;
  int64_t rows = (out + bands - 1) / bands;
  const int64_t row_bytes = k * out * int64_t{sizeof(float)};
  if (!is_direct(l)) rows = std::min(rows, std::max<int64_t>(1, kLaneBandBytes / row_bytes));
  const double row_macs = static_cast<double>(l.cout) * static_cast<double>(k * out);
  rows = std::max(rows, static_cast<int64_t>(std::ceil(kNetGemmMinPartMacs / row_macs)));
  return std::min(rows, out);
}

// Column rows per band over K (a multiple of OpenBLAS's K-block), or 0 for a
// convolution that goes in bands of output rows.
int64_t depth_band_rows(const NetLayer &l) {
  if (is_direct(l) || l.role == NetRole::kIncrease) return 0;
  const int64_t out = net_out_size(l), k = int64_t{l.cin} * l.kernel * l.kernel;
  if (kLaneBandBytes / (k * out * int64_t{sizeof(float)}) * out >= kMinBandColumns) return 0;
  const int64_t block = net_gemm_k_block();
  if (block == 0) return 0;
  return block * std::max<int64_t>(1, kDepthBandBytes / (block * out * out * int64_t{sizeof(float)}));
}

// Calls visit(k0, k1, c0, c1) for every band over K of layer l in slices of
// `rows`: column rows [k0, k1), which input channels [c0, c1) hold.
template <typename Visit>
void for_each_depth_band(const NetLayer &l, int64_t rows, Visit visit) {
  const int area = l.kernel * l.kernel;
  const int64_t k = int64_t{l.cin} * area;
  for (int64_t k0 = 0, k1; k0 < k; k0 = k1) {
    k1 = net_gemm_k_slice_end(k0, k, rows);
    visit(k0, k1, static_cast<int>(k0 / area), static_cast<int>((k1 + area - 1) / area));
  }
}

// Floats of the column copy of the widest band over K of layer l.
int64_t depth_band_floats(const NetLayer &l, int64_t rows) {
  int widest = 0;
  for_each_depth_band(l, rows, [&](int64_t, int64_t, int c0, int c1) {
    widest = std::max(widest, c1 - c0);
  });
  return int64_t{widest} * l.kernel * l.kernel * net_out_size(l) * net_out_size(l);
}

void *default_alloc(void *, size_t bytes, const char *) { return std::malloc(bytes); }
void default_release(void *, void *ptr) { std::free(ptr); }

// Offsets a batch norm's arrays to start at channel c0.
NetBn bn_from(const NetBn &bn, int c0) {
  return NetBn{bn.scale + c0, bn.shift + c0, bn.mean + c0, bn.inv_std + c0};
}

// One pass. The reference route takes every tensor through the hooks; the fast
// route takes them from `arena`. A dry pass (fast route only) allocates what
// the real one would and computes nothing.
class Pass {
 public:
  Pass(const float *const *weights, const NetHooks &hooks, NetArena *arena, bool dry, int lanes,
       const float *filters = nullptr)
      : weights_(weights), hooks_(hooks), arena_(arena), dry_(dry), filters_(filters),
        lanes_(lanes) {}
  ~Pass() {
    for (int i = 0; i < held_count_; ++i)
      if (held_[i] != nullptr) hooks_.release(hooks_.user, held_[i]);
  }
  Pass(const Pass &) = delete;
  Pass &operator=(const Pass &) = delete;

  MRESULT run(const uint8_t *bgr, int32_t pitch, float *scores);

 private:
  MRESULT make(const char *what, int c, int h, int w, Tensor *t, bool scratch = false);
  void drop(Tensor *t);
  void show(const char *name, const Tensor &t) const {
    if (hooks_.tap != nullptr && !dry_) hooks_.tap(hooks_.user, NetTap{name, t.data, t.c, t.h, t.w});
  }
  // Calls body(c0, c1) on ranges that split [0, channels), over the lanes.
  template <typename Body>
  void by_channels(int channels, const Body &body) const {
    const int tasks = std::min(channels, lanes_ * kTasksPerLane);
    net_parallel(lanes_, tasks, [&](int task) {
      int c0, c1;
      net_split(channels, tasks, task, &c0, &c1);
      if (c0 < c1) body(c0, c1);
    });
  }
  void im2col(const NetSources &in, const NetConvGeom &g, int row0, int row1, float *col) const;
  void finish(int layer, Finish finish, const NetBn &bn, const float *product,
              const Tensor &out, int64_t col0, int64_t col1) const;
  void finish_channels(int layer, Finish finish, const NetBn &bn, const float *product,
                       const Tensor &out, int64_t col0, int64_t col1, int c0, int c1) const;
  const float *weight(int layer, int part) const {
    return weights_[net_first_tensor(layer) + part];
  }

  MRESULT conv(int layer, const Tensor &in, const char *name, Finish finish, Tensor *out,
               bool scratch = false) {
    return conv(layer, &in, 1, name, finish, out, scratch);
  }
  MRESULT conv(int layer, const Tensor *in, int inputs, const char *name, Finish finish,
               Tensor *out, bool scratch = false);
  MRESULT conv_ref(int layer, const Tensor &in, Finish finish, const Tensor &out);
  MRESULT conv_banded(int layer, const Tensor *in, int inputs, Finish finish, const Tensor &out);
  MRESULT conv_winograd(int layer, const NetSources &sources, const Tensor &out);
  void run_bands(int layer, const NetSources &sources, Finish finish, float *col,
                 float *product, const Tensor &out);
  void run_depth_bands(int layer, const NetSources &sources, Finish finish, int64_t rows,
                       float *col, const Tensor &out);
  NetBn batch_norm(int layer, Finish finish, float *inv_std) const;
  MRESULT block(int *layer, Tensor *x);
  MRESULT max_pool(const Tensor &in, const Tensor &out) const;
  MRESULT pyramid(int *layer, Tensor *x, Tensor parts[NetSources::kMax], int *count);

  const float *const *weights_;
  NetHooks hooks_;
  NetArena *arena_;
  bool dry_;
  const float *filters_;  // the Winograd filters (the fast network), else null
  int lanes_;
  void *held_[kMaxHeld] = {};
  int held_count_ = 0;
};

// Allocates a c x h x w tensor and holds it until drop() or the end. The
// arena places `scratch` tensors (short-lived work buffers) at its top.
MRESULT Pass::make(const char *what, int c, int h, int w, Tensor *t, bool scratch) {
  *t = Tensor{};
  const size_t bytes = static_cast<size_t>(c) * h * w * sizeof(float);
  void *p = nullptr;
  if (arena_ != nullptr) {
    p = arena_->take(bytes, scratch);  // sized by the dry run: fails only past kMaxBlocks
    if (p == nullptr) return HSEG_ERR_NO_MEMORY;
  } else {
    int slot = 0;  // the first free slot: released tensors leave theirs
    while (slot < held_count_ && held_[slot] != nullptr) ++slot;
    if (slot == kMaxHeld) return HSEG_ERR_NO_MEMORY;
    p = hooks_.alloc(hooks_.user, bytes, what);
    if (p == nullptr) return HSEG_ERR_NO_MEMORY;
    held_[slot] = p;
    held_count_ = std::max(held_count_, slot + 1);
  }
  *t = Tensor{static_cast<float *>(p), c, h, w};
  return HSEG_OK;
}

// Releases a tensor after its last use (unless every tensor is kept).
void Pass::drop(Tensor *t) {
  if (t->data == nullptr) return;
  if (arena_ != nullptr) {
    arena_->give(t->data);
  } else if (!hooks_.keep_all) {
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
// reference route).
MRESULT Pass::conv(int layer, const Tensor *in, int inputs, const char *name, Finish finish,
                   Tensor *out, bool scratch) {
  const NetLayer &l = kNetLayers[layer];
  const int size = net_out_size(l);
  MRESULT st = make(name, l.cout, size, size, out, scratch);
  if (st != HSEG_OK) return st;
  return hooks_.ref_route ? conv_ref(layer, in[0], finish, *out)
                      : conv_banded(layer, in, inputs, finish, *out);
}

MRESULT Pass::conv_ref(int layer, const Tensor &in, Finish finish, const Tensor &out) {
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

// The band's column copy, split by input channel over the lanes.
void Pass::im2col(const NetSources &in, const NetConvGeom &g, int row0, int row1,
                  float *col) const {
  const size_t rows_per_channel = static_cast<size_t>(g.kernel) * g.kernel;
  const size_t band = static_cast<size_t>(row1 - row0) * g.out_size;
  by_channels(g.channels, [&](int c0, int c1) {
    NetConvGeom part = g;
    part.channels = c1 - c0;
    net_im2col_rows(net_sources_slice(in, c0, c1, g.size), part, row0, row1,
                    col + c0 * rows_per_channel * band);
  });
}

// What follows the matrix product, on channels [c0, c1) and columns
// [col0, col1) of `out`. The product is in `out`, except for the end of a
// residual block, where it is in `product` (the band's columns only) and
// `out` holds the shortcut.
void Pass::finish_channels(int layer, Finish finish, const NetBn &bn, const float *product,
                           const Tensor &out, int64_t col0, int64_t col1, int c0, int c1) const {
  const int64_t n = out.count() / out.c, band = col1 - col0;
  float *data = out.data + c0 * n;
  switch (finish) {
    case Finish::kBnRelu:
    case Finish::kBn:
      net_bn_band(data, n, c1 - c0, col0, col1, bn_from(bn, c0), finish == Finish::kBnRelu);
      break;
    case Finish::kBnAddRelu:
      net_bn_add_relu_band(product + c0 * band, band, data + col0, n, c1 - c0, band,
                           bn_from(bn, c0));
      break;
    case Finish::kBias:
      net_bias_band(data, n, c1 - c0, col0, col1, weight(layer, 1) + c0);
      break;
  }
}

// finish_channels on every channel, split by channel over the lanes.
void Pass::finish(int layer, Finish finish, const NetBn &bn, const float *product,
                  const Tensor &out, int64_t col0, int64_t col1) const {
  by_channels(out.c, [&](int c0, int c1) {
    finish_channels(layer, finish, bn, product, out, col0, col1, c0, c1);
  });
}

// A convolution in bands of output rows. For kBnAddRelu, `out` is the
// block's shortcut, which the finish turns into the block's output in place;
// the product of each band then goes to a band-sized buffer first.
MRESULT Pass::conv_banded(int layer, const Tensor *in, int inputs, Finish finish,
                          const Tensor &out) {
  const NetLayer &l = kNetLayers[layer];
  if (l.cout > kMaxChannels) return HSEG_ERR_BAD_ARGUMENT;  // not in the table
  NetSources sources{inputs, {}, {}, {}};
  for (int i = 0; i < inputs; ++i) {
    sources.data[i] = in[i].data;
    sources.channels[i] = in[i].c;
    sources.resized_from[i] = in[i].h == in[0].h ? 0 : in[i].h;  // a pyramid branch
  }
  if (hooks_.winograd && net_winograd_layer(l)) return conv_winograd(layer, sources, out);
  // Each lane has its share of the column copy and of the product buffer.
  const int64_t lane_band = band_rows(l, lanes_) * out.w * lanes_;
  const int64_t depth = finish == Finish::kBnAddRelu ? 0 : depth_band_rows(l);
  Tensor columns, product;  // a 1x1 convolution reads its input as it lies
  MRESULT st = HSEG_OK;
  if (!is_direct(l))
    st = make("columns", 1, 1,
              static_cast<int>(depth > 0 ? depth_band_floats(l, depth)
                                         : int64_t{l.cin} * l.kernel * l.kernel * lane_band),
              &columns, true);
  if (st == HSEG_OK && finish == Finish::kBnAddRelu)
    st = make("product", l.cout, 1, static_cast<int>(lane_band), &product, true);
  if (st == HSEG_OK && !dry_ && depth > 0)
    run_depth_bands(layer, sources, finish, depth, columns.data, out);
  else if (st == HSEG_OK && !dry_)
    run_bands(layer, sources, finish, columns.data, product.data, out);
  drop(&product);
  drop(&columns);
  return st;
}

// A stride-1 3x3 convolution of the fast network, batch norm and ReLU
// (every such layer has them), by Winograd minimal filtering.
MRESULT Pass::conv_winograd(int layer, const NetSources &sources, const Tensor &out) {
  const NetLayer &l = kNetLayers[layer];
  const NetWinograd w = net_winograd_plan(l.cin, l.cout, l.in_size, l.dilation);
  Tensor v, m;
  MRESULT st = make("winograd_v", 1, 1, static_cast<int>(w.v_floats()), &v, true);
  if (st == HSEG_OK) st = make("winograd_m", 1, 1, static_cast<int>(w.m_floats()), &m, true);
  if (st == HSEG_OK && !dry_) {
    float inv_std[kMaxChannels];
    const NetBn bn = batch_norm(layer, Finish::kBnRelu, inv_std);
    net_winograd_conv(w, sources, filters_ + NetFilterCache::offset(layer), &bn, out.data,
                      v.data, m.data, lanes_);
  }
  drop(&m);
  drop(&v);
  return st;
}

// The bands of conv_banded, each a task of the pool: column copy (unless
// `col` is null) into the lane's share of `col`, one GEMM into `out` or the
// lane's share of `product`, finish.
void Pass::run_bands(int layer, const NetSources &sources, Finish finish, float *col,
                     float *product, const Tensor &out) {
  const NetLayer &l = kNetLayers[layer];
  const NetConvGeom g{l.cin, l.in_size, l.kernel, l.stride, l.pad, l.dilation, out.h};
  const int64_t n = int64_t{out.h} * out.w;
  const int64_t k = int64_t{l.cin} * l.kernel * l.kernel;
  const int64_t rows = band_rows(l, lanes_), band = rows * out.w;
  const int bands = static_cast<int>((out.h + rows - 1) / rows);
  float inv_std[kMaxChannels];
  const NetBn bn = batch_norm(layer, finish, inv_std);
  net_parallel(lanes_, bands, [&](int task, int lane) {
    const int row0 = static_cast<int>(task * rows);
    const int row1 = static_cast<int>(std::min<int64_t>(out.h, row0 + rows));
    const int64_t col0 = int64_t{row0} * out.w, col1 = int64_t{row1} * out.w;
    const float *b = sources.data[0] + col0;
    int64_t ldb = n;
    if (col != nullptr) {
      float *own = col + lane * k * band;
      net_im2col_rows(sources, g, row0, row1, own);
      b = own;
      ldb = col1 - col0;
    }
    float *own_product = product != nullptr ? product + lane * l.cout * band : nullptr;
    float *c = own_product != nullptr ? own_product : out.data + col0;
    const int64_t ldc = own_product != nullptr ? col1 - col0 : n;
    // One thread's product: OpenBLAS runs on one thread while lanes_ > 1.
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, l.cout, static_cast<int>(col1 - col0),
                static_cast<int>(k), 1.0f, weight(layer, 0), static_cast<int>(k), b,
                static_cast<int>(ldb), 0.0f, c, static_cast<int>(ldc));
    finish_channels(layer, finish, bn, own_product, out, col0, col1, 0, out.c);
  });
}

// The bands over K of conv_banded: for each, the column copy of the input
// channels that hold its column rows, one GEMM that adds its part of the
// product to `out` (the first sets it), then the finish on the whole output.
void Pass::run_depth_bands(int layer, const NetSources &sources, Finish finish, int64_t rows,
                           float *col, const Tensor &out) {
  const NetLayer &l = kNetLayers[layer];
  const int area = l.kernel * l.kernel;
  const int64_t n = int64_t{out.h} * out.w, k = int64_t{l.cin} * area;
  for_each_depth_band(l, rows, [&](int64_t k0, int64_t k1, int c0, int c1) {
    const NetConvGeom g{c1 - c0, l.in_size, l.kernel, l.stride, l.pad, l.dilation, out.h};
    im2col(net_sources_slice(sources, c0, c1, l.in_size), g, 0, out.h, col);
    net_gemm(lanes_, l.cout, static_cast<int>(n), static_cast<int>(k1 - k0), weight(layer, 0) + k0,
             static_cast<int>(k), col + (k0 - int64_t{c0} * area) * n, static_cast<int>(n),
             k0 == 0 ? 0.0f : 1.0f, out.data, static_cast<int>(n));
  });
  float inv_std[kMaxChannels];
  this->finish(layer, finish, batch_norm(layer, finish, inv_std), nullptr, out, 0, n);
}

// The batch norm that follows `layer`, with its 1/std in inv_std; none
// before a bias.
NetBn Pass::batch_norm(int layer, Finish finish, float *inv_std) const {
  if (finish == Finish::kBias) return NetBn{};
  net_bn_inv_std(weight(layer, 4), kBnEps, kNetLayers[layer].cout, inv_std);
  return NetBn{weight(layer, 1), weight(layer, 2), weight(layer, 3), inv_std};
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
  MRESULT st = conv(i, *x, kNetLayers[i].name, Finish::kBnRelu, &reduce, true);
  if (st == HSEG_OK) st = conv(i + 1, reduce, kNetLayers[i + 1].name, Finish::kBnRelu, &mid, true);
  drop(&reduce);
  if (st != HSEG_OK) return st;

  if (hooks_.ref_route) {
    // increase, projection, sum = (0 + shortcut) + increase, ReLU.
    st = conv(i + 2, mid, kNetLayers[i + 2].name, Finish::kBn, &increase);
    drop(&mid);
    if (st == HSEG_OK && projected) st = conv(i + 3, *x, kNetLayers[i + 3].name, Finish::kBn, &proj);
    if (st == HSEG_OK) st = make(name, increase.c, increase.h, increase.w, &sum);
    const Tensor &shortcut = projected ? proj : *x;
    if (st == HSEG_OK)
      st = static_cast<MRESULT>(ly_etlwise_sum(shortcut.data, increase.data, sum.w, sum.h,
                                               sum.c, sum.data));
    if (st == HSEG_OK) st = static_cast<MRESULT>(ly_relu_float(sum.data, sum.data, sum.w, sum.h, sum.c));
    drop(&increase);
    drop(&proj);
    drop(x);
  } else {
    // The projection first; then the increase finishes the block in place on
    // the shortcut (the projection, or the block's input), band by band.
    if (projected) st = conv(i + 3, *x, kNetLayers[i + 3].name, Finish::kBn, &proj);
    sum = projected ? proj : *x;
    if (st == HSEG_OK) st = conv_banded(i + 2, &mid, 1, Finish::kBnAddRelu, sum);
    drop(&mid);
    if (projected) drop(x);
  }
  *x = sum;
  if (st == HSEG_OK) show(name, *x);
  return st;
}

// pool1: max pooling 3x3, stride 2, pad 1, by channel over the lanes in the
// fast route.
MRESULT Pass::max_pool(const Tensor &in, const Tensor &out) const {
  if (hooks_.ref_route)
    return static_cast<MRESULT>(
        ly_pooling_max_float(in.data, in.w, in.h, in.c, out.data, 3, 3, 2, 2, 1, 1));
  by_channels(in.c, [&](int c0, int c1) {
    ly_pooling_max_float(in.data + c0 * in.count() / in.c, in.w, in.h, c1 - c0,
                         out.data + c0 * out.count() / out.c, 3, 3, 2, 2, 1, 1);
  });
  return HSEG_OK;
}

// The four pyramid branches on the conv5_3 output *x, in table order (bins
// 1, 2, 3, 6), each average pooling and a 1x1 convolution to 512 x n x n.
// conv5_4 reads conv5_3 and then the branches resized to 60 x 60, in the
// reverse order, pool6 first. The reference route resizes them with ly_interp and
// concatenates all five, returning the concatenation as the one part; the
// fast route returns the five parts as they are, and its column copy resizes
// the rows it needs as it reads them (net_interp_rows), so that neither the
// resized branches nor the concatenation are ever held. *x passes into
// `parts`.
MRESULT Pass::pyramid(int *layer, Tensor *x, Tensor parts[NetSources::kMax], int *count) {
  constexpr int kBranches = 4;
  const int first = *layer;
  *layer = first + kBranches;
  Tensor branch[kBranches];
  MRESULT st = HSEG_OK;
  for (int b = 0; b < kBranches && st == HSEG_OK; ++b) {
    const NetLayer &l = kNetLayers[first + b];
    const int bins = l.in_size, window = kNetScoreSize / bins;
    char name[40];
    std::snprintf(name, sizeof name, "conv5_3_pool%d", bins);
    Tensor pooled;
    st = make(name, x->c, pool_out(x->h, window, window, 0), pool_out(x->w, window, window, 0),
              &pooled, true);
    if (st == HSEG_OK && hooks_.ref_route) {
      st = static_cast<MRESULT>(ly_pooling_avg_float(x->data, x->w, x->h, x->c, pooled.data,
                                                     window, window, window, window, 0, 0));
    } else if (st == HSEG_OK && !dry_) {
      by_channels(x->c, [&](int c0, int c1) {
        net_avg_pool_tiled(x->data + c0 * x->count() / x->c, c1 - c0, x->h, window,
                           pooled.data + c0 * pooled.count() / pooled.c);
      });
    }
    if (st == HSEG_OK) st = conv(first + b, pooled, l.name, Finish::kBnRelu, &branch[b]);
    drop(&pooled);
    if (st == HSEG_OK) show(l.name, branch[b]);
  }
  parts[0] = *x;
  for (int b = 0; b < kBranches; ++b) parts[1 + b] = branch[kBranches - 1 - b];
  *count = 1 + kBranches;
  *x = Tensor{};
  if (st != HSEG_OK || !hooks_.ref_route) return st;

  for (int i = 1; i < *count && st == HSEG_OK; ++i) {
    Tensor resized;
    char name[40];
    std::snprintf(name, sizeof name, "conv5_3_pool%d_interp", parts[i].h);
    st = make(name, parts[i].c, kNetScoreSize, kNetScoreSize, &resized);
    if (st == HSEG_OK)
      st = static_cast<MRESULT>(ly_interp(parts[i].data, resized.data, 1, parts[i].c, parts[i].h,
                                          parts[i].w, 0, 0, kNetScoreSize, kNetScoreSize));
    drop(&parts[i]);
    parts[i] = resized;
  }
  Tensor concat;
  if (st == HSEG_OK) st = make("conv5_3_concat", kConcatChannels, kNetScoreSize, kNetScoreSize, &concat);
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
  if (st == HSEG_OK && !dry_)
    st = static_cast<MRESULT>(
        vb_ly_data_const_mean(bgr, kNetInputSize, kNetInputSize, pitch, kMeanBgr, x.data));
  if (st != HSEG_OK) return st;
  show("data", x);

  int layer = 0;
  for (; kNetLayers[layer].role == NetRole::kStem; ++layer) {
    Tensor y;
    st = conv(layer, x, kNetLayers[layer].name, Finish::kBnRelu, &y);
    drop(&x);
    x = y;
    if (st != HSEG_OK) return st;
    show(kNetLayers[layer].name, x);
  }

  Tensor pooled;
  st = make("pool1", x.c, pool_out(x.h, 3, 2, 1), pool_out(x.w, 3, 2, 1), &pooled);
  if (st == HSEG_OK && !dry_) st = max_pool(x, pooled);
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
    st = conv(layer, parts, count, kNetLayers[layer].name, Finish::kBnRelu, &head);
  for (Tensor &t : parts) drop(&t);
  if (st != HSEG_OK) return st;
  show(kNetLayers[layer].name, head);
  ++layer;
  // Dropout is a copy onto itself at inference; only the reference route calls it.
  if (hooks_.ref_route) {
    st = static_cast<MRESULT>(ly_drop(head.data, head.data, static_cast<int>(head.count())));
    if (st != HSEG_OK) return st;
  }

  Tensor out;
  st = conv(layer, head, kNetLayers[layer].name, Finish::kBias, &out);
  drop(&head);
  if (st != HSEG_OK) return st;
  show(kNetLayers[layer].name, out);
  if (!dry_) std::memcpy(scores, out.data, kNetScoreCount * sizeof(float));
  drop(&out);
  return HSEG_OK;
}

// The fast route: the Winograd filters (the fast network), then a dry pass
// sizes the arena, the arena is taken in one block, and the real pass runs
// in it. All the pass's memory is thus taken before its first GEMM.
MRESULT run_in_arena(const uint8_t *bgr, int32_t pitch, float *scores,
                     const float *const *weights, const NetHooks &hooks) {
  const NetBlasLanes blas(hooks.threads);
  const int lanes = blas.lanes();
  const float *filters = nullptr;
  NetFilterCache own_filters;  // when the caller gives no cache; empty until used
  if (hooks.winograd) {
    filters = (hooks.filters != nullptr ? hooks.filters : &own_filters)->get(weights, lanes);
    if (filters == nullptr) return HSEG_ERR_NO_MEMORY;
  }
  NetArena plan;
  MRESULT st = Pass(weights, hooks, &plan, /*dry=*/true, lanes).run(bgr, pitch, scores);
  if (st != HSEG_OK) return st;
  const size_t bytes = plan.high_water();
  const bool own = hooks.alloc == nullptr || hooks.release == nullptr;
  void *block = own ? net_arena_map(bytes) : hooks.alloc(hooks.user, bytes, "arena");
  if (block == nullptr) return HSEG_ERR_NO_MEMORY;
  NetArena arena(block, bytes);
  st = Pass(weights, hooks, &arena, /*dry=*/false, lanes, filters).run(bgr, pitch, scores);
  if (own)
    net_arena_unmap(block, bytes);
  else
    hooks.release(hooks.user, block);
  return st;
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
  NetHooks h = hooks != nullptr ? *hooks : NetHooks{};
  if (h.conv_output != nullptr) h.ref_route = true;
  if (h.ref_route && h.winograd) return HSEG_ERR_BAD_ARGUMENT;
  if (!h.ref_route) return run_in_arena(bgr, pitch, scores, weights, h);
  if (h.alloc == nullptr || h.release == nullptr) {
    h.alloc = default_alloc;
    h.release = default_release;
  }
  return Pass(weights, h, nullptr, /*dry=*/false, /*lanes=*/1).run(bgr, pitch, scores);
}

}  // namespace hseg
