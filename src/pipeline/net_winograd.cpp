#include "pipeline/net_winograd.h"

#include <cblas.h>

#include <algorithm>
#include <cstring>

#include "pipeline/net_arena.h"
#include "pipeline/net_pool.h"

namespace hseg {
namespace {

// The work buffers' budget: V and M each stay under 24 MB.
constexpr size_t kBudgetFloats = size_t{6} << 20;
// Sizes and dilations up to these fit the transforms' buffers on the stack
// (the network's largest are 237 and 4).
constexpr int kMaxSize = 400;
constexpr int kMaxDilation = 4;
constexpr int kMaxTileCols = kMaxSize / kWinoOut + kMaxDilation;
// Tasks per lane handed to the pool (see network.cpp).
constexpr int kTasksPerLane = 4;

// Eight floats: the transforms run over eight tiles side by side.
typedef float Vec __attribute__((vector_size(32)));
constexpr int kLanes = 8;
// A row of tiles, padded so that whole vectors can be read and written.
constexpr int kRowPad = (kMaxTileCols + 2 * kLanes) / kLanes * kLanes;

// Every helper taking or giving a Vec is inlined into the kernels below, so
// no Vec crosses a call and the ABI of passing one does not matter.
#pragma GCC diagnostic ignored "-Wpsabi"
#define HSEG_INLINE inline __attribute__((always_inline))

HSEG_INLINE Vec load(const float *p) {
  Vec v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
HSEG_INLINE void store(float *p, Vec v) { std::memcpy(p, &v, sizeof v); }
// The first n (< kLanes) values only.
HSEG_INLINE Vec load_n(const float *p, int n) {
  Vec v = {};
  std::memcpy(&v, p, n * sizeof(float));
  return v;
}
HSEG_INLINE void store_n(float *p, Vec v, int n) { std::memcpy(p, &v, n * sizeof(float)); }

// The 1-D transforms of F(4, 3), each applied along both axes of a tile.
// Input: r = B' x, with
//   B' = [4  0 -5  0 1 0;  0 -4 -4  1 1 0;  0 4 -4 -1 1 0;
//         0 -2 -1  2 1 0;  0  2 -1 -2 1 0;  0 4  0 -5 0 1].
HSEG_INLINE void input_1d(Vec x0, Vec x1, Vec x2, Vec x3, Vec x4, Vec x5, Vec r[kWinoTile]) {
  r[0] = (4.0f * x0 - 5.0f * x2) + x4;
  r[1] = (x3 + x4) - 4.0f * (x1 + x2);
  r[2] = (x4 - x3) + 4.0f * (x1 - x2);
  r[3] = (x4 - x2) + 2.0f * (x3 - x1);
  r[4] = (x4 - x2) - 2.0f * (x3 - x1);
  r[5] = (4.0f * x1 - 5.0f * x3) + x5;
}

// Output: o = A' m, with
//   A' = [1 1  1 1  1 0;  0 1 -1 2 -2 0;  0 1 1 4 4 0;  0 1 -1 8 -8 1].
HSEG_INLINE void output_1d(Vec m0, Vec m1, Vec m2, Vec m3, Vec m4, Vec m5, Vec o[kWinoOut]) {
  const Vec a = m1 + m2, b = m1 - m2, c = m3 + m4, e = m3 - m4;
  o[0] = (m0 + a) + c;
  o[1] = b + 2.0f * e;
  o[2] = a + 4.0f * c;
  o[3] = (b + 8.0f * e) + m5;
}

// Filter: u = G g, with
//   G = [1/4 0 0;  -1/6 -1/6 -1/6;  -1/6 1/6 -1/6;
//        1/24 1/12 1/6;  1/24 -1/12 1/6;  0 0 1],
// on n values of each of g0, g1, g2 side by side, in double precision.
constexpr double kSixth = 1.0 / 6.0;
HSEG_INLINE void filter_1d(const double *g0, const double *g1, const double *g2, int n,
                           double *u[kWinoTile]) {
  for (int c = 0; c < n; ++c) {
    u[0][c] = g0[c] * 0.25;
    u[1][c] = -(g0[c] + g1[c] + g2[c]) * kSixth;
    u[2][c] = -(g0[c] - g1[c] + g2[c]) * kSixth;
    u[3][c] = (g0[c] * 0.25 + g1[c] * 0.5 + g2[c]) * kSixth;
    u[4][c] = (g0[c] * 0.25 - g1[c] * 0.5 + g2[c]) * kSixth;
    u[5][c] = g2[c];
  }
}

// Tile rows and tile columns are numbered alike: grid 0's tiles, then grid
// 1's, ... The first input row a tile row reads, which may lie before the
// image: the grid's index plus d * (4 t - 1), t being the tile's index in its
// grid.
int grid_tiles(int size, int d, int grid) {
  const int pixels = grid < size ? (size - grid + d - 1) / d : 0;
  return (pixels + kWinoOut - 1) / kWinoOut;
}
int tiles_along(int size, int d) {
  int n = 0;
  for (int g = 0; g < d; ++g) n += grid_tiles(size, d, g);
  return n;
}
int tile_origin(int size, int d, int index) {
  int g = 0;
  for (int n = grid_tiles(size, d, 0); index >= n; n = grid_tiles(size, d, ++g)) index -= n;
  return g + d * (kWinoOut * index - 1);
}

// One chunk of the convolution: tile rows [r0, r1), input channels [c0, c1).
struct Chunk {
  int r0, r1, c0, c1;
  int tiles(int tile_cols) const { return (r1 - r0) * tile_cols; }
};

// The tiles of one grid along a row, as their inputs lie in `row` (a row of
// the image, or null for a row outside it): phase q of input position s is
// the pixel at x = grid + d * (4 s + q - 1), or 0 outside the row, so that
// tile t reads phases 0-3 at s = t and phases 0-1 at s = t + 1, and the
// transforms run over contiguous tiles.
HSEG_INLINE void load_phases(const float *row, int size, int d, int grid, int tiles,
                             float p[4][kRowPad]) {
  if (row == nullptr) {
    for (int q = 0; q < 4; ++q) std::fill(p[q], p[q] + tiles + 1, 0.0f);
    return;
  }
  // Positions [1, inside) read inside the row with every phase (position 0
  // starts d pixels before it).
  const int last = size - 1 - grid - 2 * d;  // 4 d s <= last
  const int inside = std::min(tiles + 1, last < 0 ? 1 : last / (kWinoOut * d) + 1);
  for (int s = 0; s <= tiles; s = s == 0 && inside > 1 ? inside : s + 1) {
    for (int q = 0; q < 4; ++q) {
      const int x = grid + d * (kWinoOut * s + q - 1);
      p[q][s] = x >= 0 && x < size ? row[x] : 0.0f;
    }
  }
  for (int s = 1; s < inside; ++s) {
    const float *from = row + grid + d * (kWinoOut * s - 1);
    for (int q = 0; q < 4; ++q) p[q][s] = from[q * d];
  }
}

// V for channels [k0, k1) of the chunk: V[xi][c - chunk.c0][tile] with
// `tiles` columns.
HSEG_INLINE void input_transform_impl(const NetWinograd &w, const NetSources &in, const Chunk &ch,
                                      int k0, int k1, float *v) {
  const int size = w.size, d = w.dilation, tc = w.tile_cols;
  const int nt = ch.tiles(tc), kc = ch.c1 - ch.c0;
  const size_t xi_stride = static_cast<size_t>(kc) * nt;
  float resized[NetSources::kMaxResizedSize * NetSources::kMaxResizedSize];
  // Lanes past the last tile compute on whatever these hold: zeros to begin
  // with, so never on slow denormals.
  float e[kWinoTile][kWinoTile][kRowPad] = {};  // row-transformed: [i][k][tile column]
  float p[4][kRowPad] = {};
  for (int c = k0; c < k1; ++c) {
    const float *plane = net_source_plane(in, c, size, 0, size, resized);
    for (int r = ch.r0; r < ch.r1; ++r) {
      const int y0 = tile_origin(size, d, r);
      for (int i = 0; i < kWinoTile; ++i) {
        const int y = y0 + d * i;
        const float *row = y >= 0 && y < size ? plane + static_cast<size_t>(y) * size : nullptr;
        // Each grid's tiles in turn; a vector past a grid's last tile writes
        // into the next grid's columns, which that grid then overwrites.
        for (int g = 0, first = 0; g < d; ++g) {
          const int tiles = grid_tiles(size, d, g);
          load_phases(row, size, d, g, tiles, p);
          for (int t = 0; t < tiles; t += kLanes) {
            Vec out[kWinoTile];
            input_1d(load(&p[0][t]), load(&p[1][t]), load(&p[2][t]), load(&p[3][t]),
                     load(&p[0][t + 1]), load(&p[1][t + 1]), out);
            for (int k = 0; k < kWinoTile; ++k) store(&e[i][k][first + t], out[k]);
          }
          first += tiles;
        }
      }
      float *dst = v + static_cast<size_t>(c - ch.c0) * nt + static_cast<size_t>(r - ch.r0) * tc;
      for (int k = 0; k < kWinoTile; ++k) {
        for (int t = 0; t < tc; t += kLanes) {
          Vec out[kWinoTile];
          input_1d(load(&e[0][k][t]), load(&e[1][k][t]), load(&e[2][k][t]), load(&e[3][k][t]),
                   load(&e[4][k][t]), load(&e[5][k][t]), out);
          const int n = std::min(kLanes, tc - t);
          for (int i = 0; i < kWinoTile; ++i) {
            float *to = dst + (i * kWinoTile + k) * xi_stride + t;
            if (n == kLanes)
              store(to, out[i]);
            else
              store_n(to, out[i], n);
          }
        }
      }
    }
  }
}

// One output row from value j of each tile (o4[j][tile column]): tile t of
// grid g holds x = g + d (4 t + j).
HSEG_INLINE void store_row(const float o4[kWinoOut][kRowPad], int size, int d, float *dst) {
  for (int g = 0, first = 0; g < d; ++g) {
    const int tiles = grid_tiles(size, d, g);
    for (int t = 0; t < tiles; ++t)
      for (int j = 0; j < kWinoOut; ++j) {
        const int x = g + d * (kWinoOut * t + j);
        if (x < size) dst[x] = o4[j][first + t];
      }
    first += tiles;
  }
}

// The outputs of output channels [o0, o1) for the chunk's tiles, from M.
HSEG_INLINE void output_transform_impl(const NetWinograd &w, const Chunk &ch, const float *m,
                                       const NetBn *bn, int o0, int o1, float *out) {
  const int size = w.size, d = w.dilation, tc = w.tile_cols;
  const int nt = ch.tiles(tc);
  const size_t xi_stride = static_cast<size_t>(w.out_channels) * nt;
  float t4[kWinoOut][kWinoTile][kRowPad] = {};  // column-transformed: [i'][k][tile column]
  float o4[kWinoOut][kRowPad];                  // one output row: value j of each tile
  for (int o = o0; o < o1; ++o) {
    float *plane = out + static_cast<size_t>(o) * size * size;
    const Vec zero = {};
    const Vec mean = zero + (bn != nullptr ? bn->mean[o] : 0.0f);
    const Vec inv_std = zero + (bn != nullptr ? bn->inv_std[o] : 0.0f);
    const Vec scale = zero + (bn != nullptr ? bn->scale[o] : 0.0f);
    const Vec shift = zero + (bn != nullptr ? bn->shift[o] : 0.0f);
    for (int r = ch.r0; r < ch.r1; ++r) {
      const float *src = m + static_cast<size_t>(o) * nt + static_cast<size_t>(r - ch.r0) * tc;
      for (int k = 0; k < kWinoTile; ++k) {
        for (int t = 0; t < tc; t += kLanes) {
          const int n = std::min(kLanes, tc - t);
          Vec in[kWinoTile], res[kWinoOut];
          for (int i = 0; i < kWinoTile; ++i) {
            const float *from = src + (i * kWinoTile + k) * xi_stride + t;
            in[i] = n == kLanes ? load(from) : load_n(from, n);
          }
          output_1d(in[0], in[1], in[2], in[3], in[4], in[5], res);
          for (int i = 0; i < kWinoOut; ++i) store(&t4[i][k][t], res[i]);
        }
      }
      const int y0 = tile_origin(size, d, r) + d;
      for (int i = 0; i < kWinoOut; ++i) {
        const int y = y0 + d * i;
        if (y >= size) break;
        for (int t = 0; t < tc; t += kLanes) {
          Vec res[kWinoOut];
          output_1d(load(&t4[i][0][t]), load(&t4[i][1][t]), load(&t4[i][2][t]),
                    load(&t4[i][3][t]), load(&t4[i][4][t]), load(&t4[i][5][t]), res);
          for (int j = 0; j < kWinoOut; ++j) {
            Vec value = res[j];
            if (bn != nullptr) {
              value = ((value - mean) * inv_std) * scale + shift;
              value = zero < value ? value : zero;
            }
            store(&o4[j][t], value);
          }
        }
        store_row(o4, size, d, plane + static_cast<size_t>(y) * size);
      }
    }
  }
}

// The transforms compiled for the machine's baseline and for AVX2; the same
// operations in the same order, so the same bits.
void input_transform_ref(const NetWinograd &w, const NetSources &in, const Chunk &ch, int k0,
                             int k1, float *v) {
  input_transform_impl(w, in, ch, k0, k1, v);
}
__attribute__((target("avx2"))) void input_transform_avx2(const NetWinograd &w,
                                                          const NetSources &in, const Chunk &ch,
                                                          int k0, int k1, float *v) {
  input_transform_impl(w, in, ch, k0, k1, v);
}
void output_transform_ref(const NetWinograd &w, const Chunk &ch, const float *m,
                              const NetBn *bn, int o0, int o1, float *out) {
  output_transform_impl(w, ch, m, bn, o0, o1, out);
}
__attribute__((target("avx2"))) void output_transform_avx2(const NetWinograd &w, const Chunk &ch,
                                                           const float *m, const NetBn *bn,
                                                           int o0, int o1, float *out) {
  output_transform_impl(w, ch, m, bn, o0, o1, out);
}

// Calls body(b, e) on ranges that split [0, count) over the lanes.
template <typename Body>
void by_ranges(int lanes, int count, const Body &body) {
  const int tasks = std::min(count, lanes * kTasksPerLane);
  net_parallel(lanes, tasks, [&](int task) {
    int b, e;
    net_split(count, tasks, task, &b, &e);
    if (b < e) body(b, e);
  });
}

}  // namespace

size_t NetWinograd::v_floats() const {
  return size_t{kWinoPoints} * chunk_channels * chunk_rows * tile_cols;
}
size_t NetWinograd::m_floats() const {
  return size_t{kWinoPoints} * out_channels * chunk_rows * tile_cols;
}

NetWinograd net_winograd_plan(int channels, int out_channels, int size, int dilation) {
  NetWinograd w{channels, out_channels, size, dilation, 0, 0, 0, 0, net_have_avx2()};
  w.tile_rows = w.tile_cols = tiles_along(size, dilation);
  const size_t row_floats = size_t{kWinoPoints} * w.tile_cols;
  w.chunk_rows = static_cast<int>(std::clamp<size_t>(
      kBudgetFloats / (row_floats * out_channels), 1, static_cast<size_t>(w.tile_rows)));
  const size_t per_channel = row_floats * w.chunk_rows;
  size_t kc = std::max<size_t>(1, kBudgetFloats / per_channel);
  if (kc < static_cast<size_t>(channels) && kc > 64) kc = kc / 64 * 64;
  w.chunk_channels = static_cast<int>(std::min<size_t>(kc, channels));
  return w;
}

void net_winograd_filters(const float *kernel, int out_channels, int channels, int o0, int o1,
                          float *u) {
  // Input channels in blocks, each kernel tap of a block in its own row, so
  // that the transforms run over the block's channels side by side.
  constexpr int kBlock = 64;
  double taps[9][kBlock], rows[3][kWinoTile][kBlock], out[kWinoTile][kBlock];
  const size_t xi_stride = static_cast<size_t>(out_channels) * channels;
  for (int o = o0; o < o1; ++o) {
    for (int c0 = 0; c0 < channels; c0 += kBlock) {
      const int n = std::min(kBlock, channels - c0);
      const float *g = kernel + (static_cast<size_t>(o) * channels + c0) * 9;
      for (int c = 0; c < n; ++c)
        for (int j = 0; j < 9; ++j) taps[j][c] = g[c * 9 + j];
      for (int a = 0; a < 3; ++a) {  // along each kernel row: rows[a][k]
        double *r[kWinoTile] = {rows[a][0], rows[a][1], rows[a][2], rows[a][3], rows[a][4], rows[a][5]};
        filter_1d(taps[3 * a], taps[3 * a + 1], taps[3 * a + 2], n, r);
      }
      for (int k = 0; k < kWinoTile; ++k) {  // then down each column k
        double *r[kWinoTile] = {out[0], out[1], out[2], out[3], out[4], out[5]};
        filter_1d(rows[0][k], rows[1][k], rows[2][k], n, r);
        for (int i = 0; i < kWinoTile; ++i) {
          float *dst = u + (i * kWinoTile + k) * xi_stride + static_cast<size_t>(o) * channels + c0;
          for (int c = 0; c < n; ++c) dst[c] = static_cast<float>(out[i][c]);
        }
      }
    }
  }
}

void net_winograd_conv(const NetWinograd &w, const NetSources &in, const float *u,
                       const NetBn *bn, float *out, float *v, float *m, int lanes) {
  for (int r0 = 0; r0 < w.tile_rows; r0 += w.chunk_rows) {
    const int r1 = std::min(w.tile_rows, r0 + w.chunk_rows);
    const int nt = (r1 - r0) * w.tile_cols;
    for (int c0 = 0; c0 < w.channels; c0 += w.chunk_channels) {
      const Chunk ch{r0, r1, c0, std::min(w.channels, c0 + w.chunk_channels)};
      const int kc = ch.c1 - ch.c0;
      by_ranges(lanes, kc, [&](int b, int e) {
        (w.avx2 ? input_transform_avx2 : input_transform_ref)(w, in, ch, c0 + b, c0 + e, v);
      });
      // The products of the tile points, one per task (OpenBLAS runs each on
      // its lane's thread while the pass holds it at one thread).
      net_parallel(lanes, kWinoPoints, [&](int xi) {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, w.out_channels, nt, kc, 1.0f,
                    u + static_cast<size_t>(xi) * w.out_channels * w.channels + c0, w.channels,
                    v + static_cast<size_t>(xi) * kc * nt, nt, c0 == 0 ? 0.0f : 1.0f,
                    m + static_cast<size_t>(xi) * w.out_channels * nt, nt);
      });
    }
    const Chunk ch{r0, r1, 0, 0};
    by_ranges(lanes, w.out_channels, [&](int b, int e) {
      (w.avx2 ? output_transform_avx2 : output_transform_ref)(w, ch, m, bn, b, e, out);
    });
  }
}

// ---------------------------------------------------------------------------
// The filter cache

NetFilterCache::NetFilterCache(Alloc alloc, Release release)
    : alloc_(alloc != nullptr && release != nullptr ? alloc : net_arena_map),
      release_(alloc != nullptr && release != nullptr ? release : net_arena_unmap) {}

NetFilterCache::~NetFilterCache() {
  if (block_ != nullptr) release_(block_, bytes());
}

size_t NetFilterCache::offset(int layer) {
  size_t floats = 0;
  for (int i = 0; i < layer && i < kNetLayerCount; ++i)
    if (net_winograd_layer(kNetLayers[i]))
      floats += size_t{kWinoPoints} * kNetLayers[i].cout * kNetLayers[i].cin;
  return floats;
}

size_t NetFilterCache::bytes() { return offset(kNetLayerCount) * sizeof(float); }

const float *NetFilterCache::get(const float *const *weights, int lanes) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (block_ != nullptr) return weights == weights_ ? block_ : nullptr;
  float *block = static_cast<float *>(alloc_(bytes()));
  if (block == nullptr) return nullptr;
  for (int i = 0; i < kNetLayerCount; ++i) {
    const NetLayer &l = kNetLayers[i];
    if (!net_winograd_layer(l)) continue;
    const float *kernel = weights[net_first_tensor(i)];
    float *u = block + offset(i);
    by_ranges(lanes, l.cout,
              [&](int b, int e) { net_winograd_filters(kernel, l.cout, l.cin, b, e, u); });
  }
  block_ = block;
  weights_ = weights;
  return block_;
}

NetFilterCache &net_filter_cache() {
  static NetFilterCache cache;  // made at first use, released when the library unloads
  return cache;
}

}  // namespace hseg
