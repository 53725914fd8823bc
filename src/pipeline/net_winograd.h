// Winograd minimal filtering F(4x4, 3x3) for the fast network: a 3x3
// convolution of stride 1 whose output is as large as its input (pad equal
// to the dilation).
//
// A dilated convolution is d x d independent undilated ones: output pixel
// (y, x) reads only input pixels on its own grid (y mod d, x mod d), so each
// grid is convolved on its own as a (size / d)-square image with pad 1. Every
// grid is cut into tiles of 4x4 outputs, read as 6x6 inputs; the tiles of all
// grids are numbered row by row over a TR x TC array of tiles (a tile row is
// a grid row and a tile index in it; the same for columns), partial tiles at
// a grid's edge included.
//
// For each tile and channel, V = B' d B (36 values) is the input transform;
// the 36 element-wise products over the channels are 36 GEMMs
// M[xi] = U[xi] V[xi], U[xi] being the filters' transforms G g G' (cached,
// see NetFilterCache); the output transform A' m A gives the 4x4 outputs.
// The arithmetic differs from the direct convolution's in its rounding: on
// the network's layers the results agree with it to about 1e-6 of the sum of
// the absolute products (the tests hold them to 2e-5).
//
// F(4x4, 3x3) rather than F(6x6, 3x3): the larger tiles' batched products
// took about 15% less time on this network's layers (fewer multiplications
// on the 60- and 30-pixel grids, more wasted partial tiles on the 15-pixel
// ones), but their filters would take 1.14 GB instead of 643 MB, and their
// transforms, with coefficients up to 32 and down to 1/32, round more.
#ifndef HSEG_SRC_PIPELINE_NET_WINOGRAD_H_
#define HSEG_SRC_PIPELINE_NET_WINOGRAD_H_

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "pipeline/net_kernels.h"
#include "pipeline/net_layers.h"

namespace hseg {

inline constexpr int kWinoOut = 4;              // outputs per tile side
inline constexpr int kWinoTile = kWinoOut + 2;  // inputs per tile side
inline constexpr int kWinoPoints = kWinoTile * kWinoTile;

// Whether the network computes layer l with Winograd in the fast route.
constexpr bool net_winograd_layer(const NetLayer &l) {
  return l.kernel == 3 && l.stride == 1 && l.pad == l.dilation;
}

// One Winograd convolution: channels -> out_channels, size x size, dilation,
// done in chunks of whole tile rows and of input channels so that its work
// buffers stay within a budget (see net_winograd_plan).
struct NetWinograd {
  int channels, out_channels, size, dilation;
  int tile_rows, tile_cols;  // TR, TC
  int chunk_rows;            // tile rows per chunk
  int chunk_channels;        // input channels per chunk
  bool avx2;                 // transforms compiled for AVX2 (same bits), if the CPU has it
  // Floats of the work buffers: V (36 x chunk_channels x chunk tiles) and
  // M (36 x out_channels x chunk tiles).
  size_t v_floats() const;
  size_t m_floats() const;
};

// The plan of a convolution of size at most 400 and dilation at most 4.
NetWinograd net_winograd_plan(int channels, int out_channels, int size, int dilation);

// The filters' transforms of one layer: U[xi][o][c] (36 x out_channels x
// channels) from kernels o x c x 3 x 3, computed in double precision, for
// output channels [o0, o1).
void net_winograd_filters(const float *kernel, int out_channels, int channels, int o0, int o1,
                          float *u);

// The whole convolution of `in` (sources as the column copy reads them) with
// filters `u`, into `out` (out_channels x size x size). With `bn`, each value
// y becomes relu(((y - mean) * inv_std) * scale + shift), the exact route's
// finish; without, the raw convolution. `v` and `m` are work buffers of the
// plan's sizes. Transforms and the GEMMs of the tile points run on `lanes`
// lanes of the pool, each GEMM on one of them.
void net_winograd_conv(const NetWinograd &w, const NetSources &in, const float *u,
                       const NetBn *bn, float *out, float *v, float *m, int lanes);

// The transformed filters of every Winograd layer of the network, in one
// block: a layer's U starts at offset(layer) floats. Made at the first get()
// for one weights table, kept until the object dies. The process keeps one
// (net_filter_cache) for the linked weights; tests make their own to count
// its memory. Thread-safe.
class NetFilterCache {
 public:
  using Alloc = void *(*)(size_t bytes);
  using Release = void (*)(void *ptr, size_t bytes);
  // Memory comes from alloc/release: by default a mapping advised for huge
  // pages (the block is read by every GEMM of the fast route).
  NetFilterCache(Alloc alloc = nullptr, Release release = nullptr);
  ~NetFilterCache();
  NetFilterCache(const NetFilterCache &) = delete;
  NetFilterCache &operator=(const NetFilterCache &) = delete;

  // The block for `weights` (transformed on `lanes` threads at the first
  // call), or null when its memory cannot be had. A cache made for one
  // weights table answers null for another.
  const float *get(const float *const *weights, int lanes);
  static size_t offset(int layer);
  static size_t bytes();  // of the whole block

 private:
  Alloc alloc_;
  Release release_;
  std::mutex mutex_;
  float *block_ = nullptr;
  const float *const *weights_ = nullptr;
};

// The process's cache, made at first use and released when the library is
// unloaded.
NetFilterCache &net_filter_cache();

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_WINOGRAD_H_
