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

// The 1-D transforms of F(4, 3), each applied along both axes of a tile.
// Input: r = B' x, with
//   B' = [4  0 -5  0 1 0;  0 -4 -4  1 1 0;  0 4 -4 -1 1 0;
//         0 -2 -1  2 1 0;  0  2 -1 -2 1 0;  0 4  0 -5 0 1].
inline void input_1d(float x0, float x1, float x2, float x3, float x4, float x5, float *r,
                     size_t stride) {
  r[0 * stride] = (4.0f * x0 - 5.0f * x2) + x4;
  r[1 * stride] = (x3 + x4) - 4.0f * (x1 + x2);
  r[2 * stride] = (x4 - x3) + 4.0f * (x1 - x2);
  r[3 * stride] = (x4 - x2) + 2.0f * (x3 - x1);
  r[4 * stride] = (x4 - x2) - 2.0f * (x3 - x1);
  r[5 * stride] = (4.0f * x1 - 5.0f * x3) + x5;
}

// Output: o = A' m, with
//   A' = [1 1  1 1  1 0;  0 1 -1 2 -2 0;  0 1 1 4 4 0;  0 1 -1 8 -8 1].
inline void output_1d(float m0, float m1, float m2, float m3, float m4, float m5, float *o,
                      size_t stride) {
  const float a = m1 + m2, b = m1 - m2, c = m3 + m4, e = m3 - m4;
  o[0 * stride] = (m0 + a) + c;
  o[1 * stride] = b + 2.0f * e;
  o[2 * stride] = a + 4.0f * c;
  o[3 * stride] = (b + 8.0f * e) + m5;
}

// Filter: u = G g, with
//   G = [1/4 0 0;  -1/6 -1/6 -1/6;  -1/6 1/6 -1/6;
//        1/24 1/12 1/6;  1/24 -1/12 1/6;  0 0 1].
inline void filter_1d(const double g[3], double u[kWinoTile]) {
  u[0] = g[0] / 4.0;
  u[1] = -(g[0] + g[1] + g[2]) / 6.0;
  u[2] = -(g[0] - g[1] + g[2]) / 6.0;
  u[3] = (g[0] / 4.0 + g[1] / 2.0 + g[2]) / 6.0;
  u[4] = (g[0] / 4.0 - g[1] / 2.0 + g[2]) / 6.0;
  u[5] = g[2];
}

// Tile rows and tile columns are numbered alike: grid 0's tiles, then grid
// 1's, ... The first input row (or column) a tile reads, which may lie before
// the image: the grid's index plus d * (4 t - 1), t being the tile's index in
// its grid.
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

// V for channels [k0, k1) of the chunk: V[xi][c - chunk.c0][tile] with
// `tiles` columns.
void input_transform(const NetWinograd &w, const NetSources &in, const Chunk &ch, int k0,
                     int k1, float *v) {
  const int size = w.size, d = w.dilation, tc = w.tile_cols;
  const int nt = ch.tiles(tc), kc = ch.c1 - ch.c0;
  const int pad = d;  // the row buffer's left margin
  float resized[NetSources::kMaxResizedSize * NetSources::kMaxResizedSize];
  float row[kMaxSize + 6 * kMaxDilation + 1];
  float e[kWinoTile][kWinoTile][kMaxTileCols];  // row-transformed: [i][k][tile col]
  int x0[kMaxTileCols];
  for (int t = 0; t < tc; ++t) x0[t] = tile_origin(size, d, t) + pad;
  for (int c = k0; c < k1; ++c) {
    const float *plane = net_source_plane(in, c, size, 0, size, resized);
    for (int r = ch.r0; r < ch.r1; ++r) {
      const int y0 = tile_origin(size, d, r);
      for (int i = 0; i < kWinoTile; ++i) {
        const int y = y0 + d * i;
        const int width = size + 6 * d + 1;
        std::fill(row, row + width, 0.0f);
        if (y >= 0 && y < size) std::memcpy(row + pad, plane + static_cast<size_t>(y) * size, size * sizeof(float));
        for (int t = 0; t < tc; ++t) {
          const float *p = row + x0[t];
          input_1d(p[0], p[d], p[2 * d], p[3 * d], p[4 * d], p[5 * d], &e[i][0][t], kMaxTileCols);
        }
      }
      float *dst = v + static_cast<size_t>(c - ch.c0) * nt + static_cast<size_t>(r - ch.r0) * tc;
      const size_t xi_stride = static_cast<size_t>(kc) * nt;
      for (int k = 0; k < kWinoTile; ++k) {
        for (int t = 0; t < tc; ++t)
          input_1d(e[0][k][t], e[1][k][t], e[2][k][t], e[3][k][t], e[4][k][t], e[5][k][t],
                   dst + k * xi_stride + t, kWinoTile * xi_stride);
      }
    }
  }
}

// The outputs of output channels [o0, o1) for the chunk's tiles, from M.
void output_transform(const NetWinograd &w, const Chunk &ch, const float *m, const NetBn *bn,
                      int o0, int o1, float *out) {
  const int size = w.size, d = w.dilation, tc = w.tile_cols;
  const int nt = ch.tiles(tc);
  const size_t xi_stride = static_cast<size_t>(w.out_channels) * nt;
  float t4[kWinoOut][kWinoTile][kMaxTileCols];  // column-transformed: [i'][k][tile col]
  int x0[kMaxTileCols];
  for (int t = 0; t < tc; ++t) x0[t] = tile_origin(size, d, t);
  for (int o = o0; o < o1; ++o) {
    float *plane = out + static_cast<size_t>(o) * size * size;
    for (int r = ch.r0; r < ch.r1; ++r) {
      const float *src = m + static_cast<size_t>(o) * nt + static_cast<size_t>(r - ch.r0) * tc;
      for (int k = 0; k < kWinoTile; ++k) {
        const float *s = src + k * xi_stride;
        const size_t is = kWinoTile * xi_stride;  // from row i of the tile to row i + 1
        for (int t = 0; t < tc; ++t)
          output_1d(s[t], s[is + t], s[2 * is + t], s[3 * is + t], s[4 * is + t],
                    s[5 * is + t], &t4[0][k][t], kWinoTile * kMaxTileCols);
      }
      const int y0 = tile_origin(size, d, r) + d;
      for (int i = 0; i < kWinoOut; ++i) {
        const int y = y0 + d * i;
        if (y >= size) break;
        float *dst = plane + static_cast<size_t>(y) * size;
        for (int t = 0; t < tc; ++t) {
          float o4[kWinoOut];
          output_1d(t4[i][0][t], t4[i][1][t], t4[i][2][t], t4[i][3][t], t4[i][4][t],
                    t4[i][5][t], o4, 1);
          for (int j = 0; j < kWinoOut; ++j) {
            const int x = x0[t] + d * (j + 1);
            if (x >= size) break;
            float value = o4[j];
            if (bn != nullptr) {
              value = ((value - bn->mean[o]) * bn->inv_std[o]) * bn->scale[o] + bn->shift[o];
              value = 0.0f < value ? value : 0.0f;
            }
            dst[x] = value;
          }
        }
      }
    }
  }
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
  NetWinograd w{channels, out_channels, size, dilation, 0, 0, 0, 0};
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
  const size_t xi_stride = static_cast<size_t>(out_channels) * channels;
  for (int o = o0; o < o1; ++o) {
    for (int c = 0; c < channels; ++c) {
      const float *g = kernel + (static_cast<size_t>(o) * channels + c) * 9;
      double t[3][kWinoTile], col[3], out[kWinoTile];
      for (int a = 0; a < 3; ++a) {
        const double row[3] = {g[3 * a], g[3 * a + 1], g[3 * a + 2]};
        filter_1d(row, t[a]);
      }
      for (int k = 0; k < kWinoTile; ++k) {
        for (int a = 0; a < 3; ++a) col[a] = t[a][k];
        filter_1d(col, out);
        for (int i = 0; i < kWinoTile; ++i)
          u[(i * kWinoTile + k) * xi_stride + static_cast<size_t>(o) * channels + c] =
              static_cast<float>(out[i]);
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
      by_ranges(lanes, kc, [&](int b, int e) { input_transform(w, in, ch, c0 + b, c0 + e, v); });
      for (int xi = 0; xi < kWinoPoints; ++xi) {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, w.out_channels, nt, kc, 1.0f,
                    u + static_cast<size_t>(xi) * w.out_channels * w.channels + c0, w.channels,
                    v + static_cast<size_t>(xi) * kc * nt, nt, c0 == 0 ? 0.0f : 1.0f,
                    m + static_cast<size_t>(xi) * w.out_channels * nt, nt);
      }
    }
    const Chunk ch{r0, r1, 0, 0};
    by_ranges(lanes, w.out_channels,
              [&](int b, int e) { output_transform(w, ch, m, bn, b, e, out); });
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
