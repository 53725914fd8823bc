// Permutohedral lattice (Adams, Baek and Davis, "Fast High-Dimensional
// Filtering Using the Permutohedral Lattice", 2010): each point is embedded in
// the hyperplane x_0 + ... + x_d = 0 of R^(d+1), splatted onto the d + 1
// vertices of its enclosing simplex, blurred with (0.5, 1, 0.5) along the
// d + 1 lattice directions and sliced back with the same barycentric weights.
//
// Each step has a plain reference that follows the algorithm literally with
// the sizes taken at run time (build_points_ref, the <0, 0> kernels),
// and a fast path: dimensions 2 and 5 fixed at compile time, inline rounding
// and branch-free ranking, hash slots prefetched a block ahead, a point in
// the previous point's simplex reusing its indices, and SSE2 kernels for two
// values per point. The fast paths perform the same float operations in the
// same order and the same table insertions, so they give the same bits; the
// tests compare them.
#include "crf/permutohedral.h"

#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "common/checked.h"
#include "crf/lattice_hash.h"

namespace hseg {
namespace crf {
namespace {

constexpr int kMaxDim = HSEG_LATTICE_MAX_DIM;

// sqrt(2/3) in single precision: the spacing of the elevated coordinates
// that makes the lattice's simplices regular.
constexpr float kSqrtTwoThirds = 0.8164966f;

// Largest |q| (the rounded elevated coordinate divided by d + 1) whose
// lattice keys stay inside int16 together with their blur neighbours: after
// the rank wrap |p| <= (q + 1)(d + 1), a key adds at most d and a neighbour
// another d, so (q + 1)(d + 1) + 2d <= 32767 is needed.
inline int32_t max_abs_q(int d) { return (32767 - 2 * d) / (d + 1) - 1; }

void free_arrays(PermutohedralLattice *lat) {
  MMemFree(lat->handle, lat->offsets);
  MMemFree(lat->handle, lat->weights);
  MMemFree(lat->handle, lat->neighbours);
  std::memset(lat, 0, sizeof *lat);
}

// Constants of the embedding for one dimension d.
struct Embedding {
  int d;
  int d1;
  float scale[kMaxDim];  // (d + 1) sqrt(2/3) / sqrt((i + 1)(i + 2))
  float inv_d1;          // the single-precision 1 / (d + 1)
  float q_limit;
  // Canonical simplex: canon[r][j] = r for j <= d - r, r - (d + 1) after.
  int16_t canon[(kMaxDim + 1) * (kMaxDim + 1)];
};

void make_embedding(int d, Embedding *em) {
  em->d = d;
  em->d1 = d + 1;
  for (int i = 0; i < d; ++i) {
    em->scale[i] = (static_cast<float>(d + 1) * kSqrtTwoThirds) /
                   std::sqrt(static_cast<float>((i + 1) * (i + 2)));
  }
  em->inv_d1 = 1.0f / static_cast<float>(d + 1);
  em->q_limit = static_cast<float>(max_abs_q(d));
  for (int r = 0; r <= d; ++r) {
    for (int j = 0; j <= d; ++j) {
      em->canon[r * (d + 1) + j] = static_cast<int16_t>(j <= d - r ? r : r - (d + 1));
    }
  }
}

// Which path a lattice build or filtering takes: the reference that follows
// the algorithm literally, or the fast one that gives the same bits.
enum class Path { kRef, kSpecialised };

// roundf (half away from zero) of y, when |roundf(y)| <= limit; false
// otherwise and for NaN. y - trunc(y) is exact (Sterbenz for |y| >= 1, y
// itself below), so comparing it with 0.5 decides the rounding exactly.
inline bool round_fast(float y, float limit, int32_t *out) {
  if (!(std::fabs(y) < limit + 0.5f)) return false;
  int32_t t = static_cast<int32_t>(y);
  const float frac = y - static_cast<float>(t);
  t += (frac >= 0.5f) - (frac <= -0.5f);
  *out = t;
  return true;
}

// The same result through std::round and a range check (which NaN fails).
inline bool round_ref(float y, float limit, int32_t *out) {
  const float qf = std::round(y);
  if (!(std::fabs(qf) <= limit)) return false;
  *out = static_cast<int32_t>(qf);
  return true;
}

// Elevates the d features f into the d + 1 coordinates e of the hyperplane.
template <int kD>
inline void elevate(const Embedding &em, const float *f, float *e) {
  const int d = kD > 0 ? kD : em.d;
  float sm = 0.0f;
  for (int j = d; j >= 1; --j) {
    const float cf = f[j - 1] * em.scale[j - 1];
    e[j] = sm - static_cast<float>(j) * cf;
    sm = sm + cf;
  }
  e[0] = sm;
}

// Nearest point p whose coordinates are multiples of d + 1, rounding each
// e[i] / (d + 1) with kRound; *sum gets the sum of those quotients. False
// when a coordinate leaves the key range.
template <int kD, bool (*kRound)(float, float, int32_t *)>
inline bool nearest_remainder0(const Embedding &em, const float *e, int32_t *p, int32_t *sum) {
  const int d = kD > 0 ? kD : em.d;
  *sum = 0;
  for (int i = 0; i <= d; ++i) {
    int32_t q;
    if (!kRound(e[i] * em.inv_d1, em.q_limit, &q)) return false;
    p[i] = q * (d + 1);
    *sum += q;
  }
  return true;
}

// Ranks of the remainders e - p; on a tie the later coordinate ranks higher.
template <int kD>
inline void rank_ref(const Embedding &em, const float *e, const int32_t *p, int32_t *rank) {
  const int d = kD > 0 ? kD : em.d;
  for (int i = 0; i <= d; ++i) rank[i] = 0;
  for (int i = 0; i < d; ++i) {
    for (int j = i + 1; j <= d; ++j) {
      if (e[i] - static_cast<float>(p[i]) < e[j] - static_cast<float>(p[j])) {
        ++rank[i];
      } else {
        ++rank[j];
      }
    }
  }
}

// The same ranks with the remainders formed once and no branches.
template <int kD>
inline void rank_fast(const Embedding &em, const float *e, const int32_t *p, int32_t *rank) {
  const int d = kD > 0 ? kD : em.d;
  float rem[kMaxDim + 1];
  for (int i = 0; i <= d; ++i) {
    rank[i] = 0;
    rem[i] = e[i] - static_cast<float>(p[i]);
  }
  for (int i = 0; i < d; ++i) {
    for (int j = i + 1; j <= d; ++j) {
      const int32_t lt = rem[i] < rem[j];
      rank[i] += lt;
      rank[j] += 1 - lt;
    }
  }
}

// Brings p onto the remainder-0 plane by wrapping the ranks, then writes the
// barycentric weights b[0 .. d] of the simplex's d + 1 vertices (b[d + 1]
// is scratch).
template <int kD>
inline void wrap_and_weigh(const Embedding &em, const float *e, int32_t sum, int32_t *p,
                           int32_t *rank, float *b) {
  const int d = kD > 0 ? kD : em.d;
  const int d1 = d + 1;
  for (int i = 0; i <= d; ++i) {
    rank[i] += sum;
    if (rank[i] < 0) {
      rank[i] += d1;
      p[i] += d1;
    } else if (rank[i] > d) {
      rank[i] -= d1;
      p[i] -= d1;
    }
  }
  for (int i = 0; i <= d + 1; ++i) b[i] = 0.0f;
  for (int i = 0; i <= d; ++i) {
    const float v = (e[i] - static_cast<float>(p[i])) * em.inv_d1;
    b[d - rank[i]] += v;
    b[d - rank[i] + 1] -= v;
  }
  b[0] += 1.0f + b[d + 1];
}

// One point: elevation, nearest remainder-0 point p, ranks, wrap, and the
// barycentric weights b[0 .. d]. False when a coordinate leaves the key
// range. The fast path rounds inline and ranks without branches; the values
// are the same on either path.
template <int kD, Path kPath>
inline bool embed_point(const Embedding &em, const float *f, int32_t *p, int32_t *rank, float *b) {
  float e[kMaxDim + 1];
  int32_t sum = 0;
  elevate<kD>(em, f, e);
  if (kPath == Path::kSpecialised) {
    if (!nearest_remainder0<kD, round_fast>(em, e, p, &sum)) return false;
    rank_fast<kD>(em, e, p, rank);
  } else {
    if (!nearest_remainder0<kD, round_ref>(em, e, p, &sum)) return false;
    rank_ref<kD>(em, e, p, rank);
  }
  wrap_and_weigh<kD>(em, e, sum, p, rank, b);
  return true;
}

// Key of vertex r: p[i] + canon[r][rank[i]] for the first d coordinates
// (the last is implied by the zero sum).
template <int kD>
inline void vertex_key(const Embedding &em, const int32_t *p, const int32_t *rank, int r,
                       int16_t *key) {
  const int d = kD > 0 ? kD : em.d;
  for (int i = 0; i < d; ++i) key[i] = static_cast<int16_t>(p[i] + em.canon[r * (d + 1) + rank[i]]);
}

// Reference: embed every point and look each vertex up, in point order.
template <int kD>
MRESULT build_points_ref(const Embedding &em, LatticeHash *table, const float *features, uint32_t N,
                         uint32_t *offsets, float *weights) {
  const int d = kD > 0 ? kD : em.d;
  int32_t p[kMaxDim + 1];
  int32_t rank[kMaxDim + 1];
  float b[kMaxDim + 2];
  int16_t key[kMaxDim];
  for (uint32_t k = 0; k < N; ++k) {
    if (!embed_point<kD, Path::kRef>(em, features + static_cast<size_t>(k) * d, p, rank, b)) {
      return HSEG_ERR_BAD_ARGUMENT;
    }
    uint32_t *off = offsets + static_cast<size_t>(k) * (d + 1);
    float *w = weights + static_cast<size_t>(k) * (d + 1);
    for (int r = 0; r <= d; ++r) {
      vertex_key<kD>(em, p, rank, r, key);
      const MRESULT st = find_key<kD>(table, key, true, &off[r]);
      if (st != HSEG_OK) return st;
      w[r] = b[r];
    }
  }
  return HSEG_OK;
}

// Points handled together by the fast build: embedded and hashed first, with
// their home slots prefetched, then looked up in point order.
constexpr uint32_t kBlock = 16;

// Fast build, same table and indices as the reference: the lookups still
// happen in point and vertex order. A point whose simplex (p and rank of the
// first d coordinates, which fix every key) equals the previous point's
// reuses that point's indices, which the lookups would have returned
// without touching the table.
template <int kD>
MRESULT build_points_fast(const Embedding &em, LatticeHash *table, const float *features,
                          uint32_t N, uint32_t *offsets, float *weights) {
  constexpr int kDim = kD > 0 ? kD : kMaxDim;
  const int d = kD > 0 ? kD : em.d;
  const int d1 = d + 1;
  int16_t keys[kBlock][kDim + 1][kDim];
  uint32_t hashes[kBlock][kDim + 1];
  bool same[kBlock];
  int32_t p[kMaxDim + 1];
  int32_t rank[kMaxDim + 1];
  float b[kMaxDim + 2];
  int32_t prev_p[kMaxDim] = {0};
  int32_t prev_rank[kMaxDim] = {0};
  bool have_prev = false;

  for (uint32_t k0 = 0; k0 < N; k0 += kBlock) {
    const uint32_t n = N - k0 < kBlock ? N - k0 : kBlock;
    for (uint32_t t = 0; t < n; ++t) {
      const size_t k = static_cast<size_t>(k0) + t;
      if (!embed_point<kD, Path::kSpecialised>(em, features + k * d, p, rank, b)) {
        return HSEG_ERR_BAD_ARGUMENT;
      }
      float *w = weights + k * d1;
      for (int r = 0; r <= d; ++r) w[r] = b[r];
      bool eq = have_prev;
      for (int i = 0; i < d; ++i) eq = eq && p[i] == prev_p[i] && rank[i] == prev_rank[i];
      same[t] = eq;
      for (int i = 0; i < d; ++i) {
        prev_p[i] = p[i];
        prev_rank[i] = rank[i];
      }
      have_prev = true;
      if (eq) continue;
      for (int r = 0; r <= d; ++r) {
        vertex_key<kD>(em, p, rank, r, keys[t][r]);
        hashes[t][r] = hash_key<kD>(keys[t][r], static_cast<uint32_t>(d));
        prefetch_slot(table, hashes[t][r]);
      }
    }
    for (uint32_t t = 0; t < n; ++t) {
      uint32_t *off = offsets + (static_cast<size_t>(k0) + t) * d1;
      if (same[t]) {
        for (int r = 0; r <= d; ++r) off[r] = off[r - d1];
        continue;
      }
      for (int r = 0; r <= d; ++r) {
        const MRESULT st = find_key_hashed<kD>(table, keys[t][r], hashes[t][r], true, &off[r]);
        if (st != HSEG_OK) return st;
      }
    }
  }
  return HSEG_OK;
}

// Keys of the two neighbours of lattice point `key` along direction j: every
// coordinate moves by -1 (+1) except coordinate j, which moves by +d (-d).
// For j = d only the implied last coordinate moves by d, which the key does
// not hold.
template <int kD>
inline void neighbour_keys(const int16_t *key, int d_run, int j, int16_t *lo, int16_t *hi) {
  const int d = kD > 0 ? kD : d_run;
  for (int t = 0; t < d; ++t) {
    lo[t] = static_cast<int16_t>(key[t] - 1);
    hi[t] = static_cast<int16_t>(key[t] + 1);
  }
  if (j < d) {
    lo[j] = static_cast<int16_t>(key[j] + d);
    hi[j] = static_cast<int16_t>(key[j] - d);
  }
}

// Neighbour table: for direction j and lattice point i, pair j*M+i holds the
// indices of the minus and plus neighbours, 0xFFFFFFFF when absent. The
// fast path hashes a block of lattice points' neighbour keys ahead and
// prefetches their slots; the lookups and their results are the same.
template <int kD, Path kPath>
MRESULT build_neighbours(LatticeHash *table, int d_run, uint32_t M, uint32_t *pairs) {
  constexpr int kDim = kD > 0 ? kD : kMaxDim;
  constexpr uint32_t kAhead = kPath == Path::kSpecialised ? 4 : 1;
  const int d = kD > 0 ? kD : d_run;
  int16_t keys[kAhead][kDim + 1][2][kDim];
  uint32_t hashes[kAhead][kDim + 1][2];
  for (uint32_t i0 = 0; i0 < M; i0 += kAhead) {
    const uint32_t n = M - i0 < kAhead ? M - i0 : kAhead;
    for (uint32_t t = 0; t < n; ++t) {
      const int16_t *key = table->keys + (static_cast<size_t>(i0) + t) * d;
      for (int j = 0; j <= d; ++j) {
        neighbour_keys<kD>(key, d, j, keys[t][j][0], keys[t][j][1]);
        for (int s = 0; s < 2; ++s) {
          hashes[t][j][s] = hash_key<kD>(keys[t][j][s], static_cast<uint32_t>(d));
          if (kPath == Path::kSpecialised) prefetch_slot(table, hashes[t][j][s]);
        }
      }
    }
    for (uint32_t t = 0; t < n; ++t) {
      for (int j = 0; j <= d; ++j) {
        uint32_t *pair = pairs + 2 * (static_cast<size_t>(j) * M + i0 + t);
        for (int s = 0; s < 2; ++s) {
          const MRESULT st =
              find_key_hashed<kD>(table, keys[t][j][s], hashes[t][j][s], false, &pair[s]);
          if (st != HSEG_OK && st != HSEG_ERR_TABLE) return st;
        }
      }
    }
  }
  return HSEG_OK;
}

template <int kD, Path kPath>
MRESULT build(MHandle handle, PermutohedralLattice *lat, const float *features, uint32_t d,
              uint32_t N) {
  if (lat == nullptr) return HSEG_ERR_NO_MEMORY;
  std::memset(lat, 0, sizeof *lat);
  lat->handle = handle;
  if (features == nullptr || d < 1 || d > kMaxDim || N < 1 || N > 0x7FFFFFFFu) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  // N * (d + 1) vertices: 4 bytes each in offsets and weights, and the hash
  // table (capacity N * (d + 1)) needs 8 bytes a vertex for its slots. The
  // neighbour table needs 8 bytes per direction and lattice point, with at
  // most N * (d + 1) lattice points.
  const int64_t vertices = static_cast<int64_t>(N) * (d + 1);
  if (!mul2_i32_valid(vertices, 8) || !mul2_i32_valid(vertices * 8, d + 1)) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  LatticeHash table;
  MRESULT st = phash_init(handle, &table, d, static_cast<uint32_t>(vertices));
  if (st == HSEG_OK) {
    lat->offsets = static_cast<uint32_t *>(MMemAlloc(handle, static_cast<int32_t>(vertices * 4)));
    lat->weights = static_cast<float *>(MMemAlloc(handle, static_cast<int32_t>(vertices * 4)));
    st = (lat->offsets && lat->weights) ? HSEG_OK : HSEG_ERR_NO_MEMORY;
  }
  if (st == HSEG_OK) {
    Embedding em;
    make_embedding(static_cast<int>(d), &em);
    st = kPath == Path::kSpecialised
             ? build_points_fast<kD>(em, &table, features, N, lat->offsets, lat->weights)
             : build_points_ref<kD>(em, &table, features, N, lat->offsets, lat->weights);
  }
  uint32_t M = 0;
  if (st == HSEG_OK) {
    M = table.filled;
    lat->neighbours = static_cast<uint32_t *>(
        MMemAlloc(handle, static_cast<int32_t>(static_cast<int64_t>(M) * (d + 1) * 8)));
    st = lat->neighbours ? HSEG_OK : HSEG_ERR_NO_MEMORY;
  }
  if (st == HSEG_OK) {
    st = build_neighbours<kD, kPath>(&table, static_cast<int>(d), M, lat->neighbours);
  }
  phash_release(&table);
  if (st != HSEG_OK) {
    free_arrays(lat);
    return st;
  }
  lat->point_count = static_cast<int32_t>(N);
  lat->lattice_count = static_cast<int32_t>(M);
  lat->dim = static_cast<int32_t>(d);
  return HSEG_OK;
}

// ---------------------------------------------------------------------------
// Filtering. Lattice point i lives at row i + 1 of the value buffers; row 0
// stays zero and stands in for every absent neighbour (0xFFFFFFFF + 1 == 0).
// ---------------------------------------------------------------------------

struct Geometry {
  const PermutohedralLattice *lat;
  uint32_t d1;  // vertices per point
  uint32_t M;
  float alpha;  // slice normaliser 1 / (1 + 2^-d)
};

Geometry geometry_of(const PermutohedralLattice *lat) {
  Geometry g;
  g.lat = lat;
  g.d1 = static_cast<uint32_t>(lat->dim) + 1;
  g.M = static_cast<uint32_t>(lat->lattice_count);
  g.alpha = 1.0f / (1.0f + std::pow(2.0f, -static_cast<float>(lat->dim)));
  return g;
}

// Calls visit(row, weight) for the d + 1 vertices of point k in vertex
// order: the value-buffer row of the vertex's lattice point and its
// barycentric weight. Splat and slice, plain and SSE2, walk points this way.
template <int kD1, class Visit>
inline void for_each_vertex(const Geometry &g, size_t k, Visit visit) {
  const uint32_t d1 = kD1 > 0 ? kD1 : g.d1;
  const uint32_t *off = g.lat->offsets + k * d1;
  const float *w = g.lat->weights + k * d1;
  for (uint32_t r = 0; r < d1; ++r) visit(static_cast<size_t>(off[r]) + 1, w[r]);
}

// The d + 1 blur passes, one per lattice direction, alternating between the
// two buffers. step(minus, plus, self, dst) forms one lattice point's row
// from the rows of its two neighbours and its own. Returns the buffer that
// holds the result.
template <int kD1, class Step>
inline float *blur_passes(const Geometry &g, float *cur, float *other, size_t row_floats,
                          Step step) {
  const uint32_t d1 = kD1 > 0 ? kD1 : g.d1;
  const uint32_t M = g.M;
  for (uint32_t j = 0; j < d1; ++j) {
    const uint32_t *pair = g.lat->neighbours + 2 * static_cast<size_t>(j) * M;
    for (uint32_t i = 0; i < M; ++i) {
      step(cur + static_cast<size_t>(pair[2 * i] + 1) * row_floats,
           cur + static_cast<size_t>(pair[2 * i + 1] + 1) * row_floats,
           cur + (static_cast<size_t>(i) + 1) * row_floats,
           other + (static_cast<size_t>(i) + 1) * row_floats);
    }
    float *t = cur;
    cur = other;
    other = t;
  }
  return cur;
}

template <int kD1, int kVD>
void splat(const Geometry &g, float *buf, const float *in, uint32_t vd_run, uint32_t first,
           uint32_t count) {
  const uint32_t vd = kVD > 0 ? kVD : vd_run;
  for (uint32_t t = 0; t < count; ++t) {
    const float *v = in + static_cast<size_t>(t) * vd;
    for_each_vertex<kD1>(g, static_cast<size_t>(first) + t, [&](size_t row, float wr) {
      float *dst = buf + row * vd;
      for (uint32_t c = 0; c < vd; ++c) dst[c] += wr * v[c];
    });
  }
}

template <int kD1, int kVD>
float *blur(const Geometry &g, float *cur, float *other, uint32_t vd_run) {
  const uint32_t vd = kVD > 0 ? kVD : vd_run;
  return blur_passes<kD1>(g, cur, other, vd,
                          [vd](const float *a, const float *b, const float *o, float *n) {
                            for (uint32_t c = 0; c < vd; ++c) n[c] = o[c] + 0.5f * (a[c] + b[c]);
                          });
}

// Components c0 .. c0 + n - 1 of point k's sliced value into dst[0 .. n - 1]:
// alpha times each vertex weight, times the vertex's blurred row, summed in
// vertex order starting from zero.
template <int kD1>
inline void slice_point(const Geometry &g, const float *buf, size_t k, uint32_t vd, uint32_t c0,
                        uint32_t n, float *dst) {
  for (uint32_t c = 0; c < n; ++c) dst[c] = 0.0f;
  for_each_vertex<kD1>(g, k, [&](size_t row, float w) {
    const float wa = w * g.alpha;
    const float *src = buf + row * vd + c0;
    for (uint32_t c = 0; c < n; ++c) dst[c] += wa * src[c];
  });
}

template <int kD1, int kVD>
void slice(const Geometry &g, float *out, const float *buf, uint32_t vd_run, uint32_t first,
           uint32_t count) {
  const uint32_t vd = kVD > 0 ? kVD : vd_run;
  for (uint32_t t = 0; t < count; ++t) {
    slice_point<kD1>(g, buf, static_cast<size_t>(first) + t, vd, 0, vd,
                     out + static_cast<size_t>(t) * vd);
  }
}

// Slice fused with the lattice filter's accumulation: each sliced value is
// formed exactly as slice() forms it, a few components at a time into a small
// stack array, then added as (weight * norm) * value.
template <int kD1, int kVD>
void slice_accumulate(const Geometry &g, float *out, const float *buf, uint32_t vd_run,
                      float weight, const float *norm) {
  constexpr uint32_t kChunk = kVD > 0 ? kVD : 8;
  const uint32_t vd = kVD > 0 ? kVD : vd_run;
  const uint32_t N = static_cast<uint32_t>(g.lat->point_count);
  float acc[kChunk];
  for (uint32_t k = 0; k < N; ++k) {
    float *dst = out + static_cast<size_t>(k) * vd;
    const float scale = weight * norm[k];
    for (uint32_t c0 = 0; c0 < vd; c0 += kChunk) {
      const uint32_t n = vd - c0 < kChunk ? vd - c0 : kChunk;
      slice_point<kD1>(g, buf, k, vd, c0, n, acc);
      for (uint32_t c = 0; c < n; ++c) dst[c0 + c] += scale * acc[c];
    }
  }
}

#if defined(__SSE2__)
// Two values per point (the two labels of the CRF) in the low half of an
// SSE2 register: the same multiplies and adds as the plain loops, done for
// both components at once.

inline __m128 load2(const float *p) {
  return _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double *>(p)));
}
inline void store2(float *p, __m128 v) {
  _mm_store_sd(reinterpret_cast<double *>(p), _mm_castps_pd(v));
}

template <int kD1>
void splat_sse2(const Geometry &g, float *buf, const float *in, uint32_t, uint32_t first,
                uint32_t count) {
  for (uint32_t t = 0; t < count; ++t) {
    const __m128 v = load2(in + 2 * static_cast<size_t>(t));
    for_each_vertex<kD1>(g, static_cast<size_t>(first) + t, [&](size_t row, float wr) {
      float *dst = buf + row * 2;
      store2(dst, _mm_add_ps(load2(dst), _mm_mul_ps(_mm_set1_ps(wr), v)));
    });
  }
}

template <int kD1>
float *blur_sse2(const Geometry &g, float *cur, float *other, uint32_t) {
  const __m128 half = _mm_set1_ps(0.5f);
  return blur_passes<kD1>(g, cur, other, 2,
                          [half](const float *a, const float *b, const float *o, float *n) {
                            store2(n, _mm_add_ps(load2(o),
                                                 _mm_mul_ps(half, _mm_add_ps(load2(a), load2(b)))));
                          });
}

template <int kD1>
inline __m128 slice_point_sse2(const Geometry &g, const float *buf, size_t k) {
  __m128 acc = _mm_setzero_ps();
  for_each_vertex<kD1>(g, k, [&](size_t row, float w) {
    acc = _mm_add_ps(acc, _mm_mul_ps(_mm_set1_ps(w * g.alpha), load2(buf + row * 2)));
  });
  return acc;
}

template <int kD1>
void slice_sse2(const Geometry &g, float *out, const float *buf, uint32_t, uint32_t first,
                uint32_t count) {
  for (uint32_t t = 0; t < count; ++t) {
    store2(out + 2 * static_cast<size_t>(t),
           slice_point_sse2<kD1>(g, buf, static_cast<size_t>(first) + t));
  }
}

template <int kD1>
void slice_accumulate_sse2(const Geometry &g, float *out, const float *buf, uint32_t,
                           float weight, const float *norm) {
  const uint32_t N = static_cast<uint32_t>(g.lat->point_count);
  for (uint32_t k = 0; k < N; ++k) {
    const __m128 v = slice_point_sse2<kD1>(g, buf, k);
    float *dst = out + 2 * static_cast<size_t>(k);
    store2(dst, _mm_add_ps(load2(dst), _mm_mul_ps(_mm_set1_ps(weight * norm[k]), v)));
  }
}
#endif  // __SSE2__

// The kernels of one (d + 1, vd) pair.
struct Kernels {
  void (*splat)(const Geometry &, float *, const float *, uint32_t, uint32_t, uint32_t);
  float *(*blur)(const Geometry &, float *, float *, uint32_t);
  void (*slice)(const Geometry &, float *, const float *, uint32_t, uint32_t, uint32_t);
  void (*slice_accumulate)(const Geometry &, float *, const float *, uint32_t, float,
                           const float *);
};

template <int kD1, int kVD>
constexpr Kernels kernels_for() {
  return Kernels{&splat<kD1, kVD>, &blur<kD1, kVD>, &slice<kD1, kVD>,
                 &slice_accumulate<kD1, kVD>};
}

// Two values per point: SSE2 where the target has it, else the plain loops
// with the sizes fixed at compile time.
template <int kD1>
constexpr Kernels kernels_vd2() {
#if defined(__SSE2__)
  return Kernels{&splat_sse2<kD1>, &blur_sse2<kD1>, &slice_sse2<kD1>,
                 &slice_accumulate_sse2<kD1>};
#else
  return kernels_for<kD1, 2>();
#endif
}

// Specialised kernels for the dimensions the CRF uses (2 and 5) with one or
// two values per point; anything else runs the generic kernels.
Kernels select_kernels(uint32_t d1, uint32_t vd) {
  if (vd == 1) {
    if (d1 == 3) return kernels_for<3, 1>();
    if (d1 == 6) return kernels_for<6, 1>();
  }
  if (vd == 2) {
    if (d1 == 3) return kernels_vd2<3>();
    if (d1 == 6) return kernels_vd2<6>();
    return kernels_vd2<0>();
  }
  return kernels_for<0, 0>();
}

// Argument checks of permhd_compute; resolves the -1 sizes. Also gives the
// byte count of one value buffer.
MRESULT check_compute(const PermutohedralLattice *lat, const float *out, const float *in,
                      uint32_t vd, uint32_t in_offset, uint32_t out_offset, int32_t *in_size,
                      int32_t *out_size, int32_t *buffer_bytes) {
  if (lat == nullptr || out == nullptr || in == nullptr || vd == 0) return HSEG_ERR_BAD_ARGUMENT;
  if (lat->offsets == nullptr || lat->weights == nullptr || lat->neighbours == nullptr ||
      lat->point_count < 1 || lat->dim < 1 || lat->dim > kMaxDim || lat->lattice_count < 1) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  const int64_t N = lat->point_count;
  if (in_offset > N || out_offset > N) return HSEG_ERR_BAD_ARGUMENT;
  const int64_t in_n = *in_size == -1 ? N - in_offset : *in_size;
  const int64_t out_n = *out_size == -1 ? N - out_offset : *out_size;
  if (in_n < 0 || out_n < 0 || in_offset + in_n > N || out_offset + out_n > N) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  const int64_t rows = static_cast<int64_t>(lat->lattice_count) + 2;
  if (!mul2_i32_valid(rows, vd) || !mul2_i32_valid(rows * vd, 4)) return HSEG_ERR_BAD_ARGUMENT;
  *in_size = static_cast<int32_t>(in_n);
  *out_size = static_cast<int32_t>(out_n);
  *buffer_bytes = static_cast<int32_t>(rows * vd * 4);
  return HSEG_OK;
}

// Two value buffers of `bytes` each, zeroed: the two halves of the caller's
// `scratch`, or allocated (status 4 with nothing left allocated on failure).
MRESULT take_buffers(MHandle handle, int32_t bytes, float *scratch, float **a, float **b) {
  if (scratch != nullptr) {
    *a = scratch;
    *b = scratch + bytes / 4;
  } else {
    *a = static_cast<float *>(MMemAlloc(handle, bytes));
    *b = static_cast<float *>(MMemAlloc(handle, bytes));
    if (*a == nullptr || *b == nullptr) {
      MMemFree(handle, *a);
      MMemFree(handle, *b);
      return HSEG_ERR_NO_MEMORY;
    }
  }
  std::memset(*a, 0, static_cast<size_t>(bytes));
  std::memset(*b, 0, static_cast<size_t>(bytes));
  return HSEG_OK;
}

// The lattice filter's accumulation: out[k] += (weight * norm[k]) * value.
struct Accumulation {
  float weight;
  const float *norm;
};

// Checks the arguments, splats `in` into a zeroed value buffer, blurs it and
// slices into `out`: written when acc is null, else accumulated as acc says.
// The reference path runs the kernels with every size taken at run time,
// the fast one those specialised for the lattice's dimension and vd. The value buffers are
// `scratch` when it is not null, else allocated and freed on every path.
MRESULT filter(Path path, const PermutohedralLattice *lat, float *out, const float *in, uint32_t vd,
               uint32_t in_offset, uint32_t out_offset, int32_t in_size, int32_t out_size,
               const Accumulation *acc, float *scratch = nullptr) {
  int32_t bytes = 0;
  MRESULT st = check_compute(lat, out, in, vd, in_offset, out_offset, &in_size, &out_size, &bytes);
  if (st != HSEG_OK) return st;
  float *a = nullptr;
  float *b = nullptr;
  st = take_buffers(lat->handle, bytes, scratch, &a, &b);
  if (st != HSEG_OK) return st;
  const Geometry g = geometry_of(lat);
  const Kernels kern = path == Path::kRef ? kernels_for<0, 0>() : select_kernels(g.d1, vd);
  kern.splat(g, a, in, vd, in_offset, static_cast<uint32_t>(in_size));
  const float *res = kern.blur(g, a, b, vd);
  if (acc == nullptr) {
    kern.slice(g, out, res, vd, out_offset, static_cast<uint32_t>(out_size));
  } else {
    kern.slice_accumulate(g, out, res, vd, acc->weight, acc->norm);
  }
  if (scratch == nullptr) {
    MMemFree(lat->handle, a);
    MMemFree(lat->handle, b);
  }
  return HSEG_OK;
}

}  // namespace

MRESULT lattice_init_ref(MHandle handle, PermutohedralLattice *lattice, const float *features,
                         uint32_t d, uint32_t N) {
  return build<0, Path::kRef>(handle, lattice, features, d, N);
}

MRESULT lattice_compute_ref(const PermutohedralLattice *lattice, float *out, const float *in,
                            uint32_t vd, uint32_t in_offset, uint32_t out_offset, int32_t in_size,
                            int32_t out_size) {
  return filter(Path::kRef, lattice, out, in, vd, in_offset, out_offset, in_size, out_size,
                nullptr);
}

int64_t lattice_buffer_floats(const PermutohedralLattice *lat, uint32_t vd) {
  int32_t in_size = -1, out_size = -1, bytes = 0;
  float probe = 0.0f;  // check_compute wants non-null rows; none are read
  if (check_compute(lat, &probe, &probe, vd, 0, 0, &in_size, &out_size, &bytes) != HSEG_OK) {
    return -1;
  }
  return 2 * int64_t{bytes / 4};
}

MRESULT lattice_filter_accumulate(const PermutohedralLattice *lat, float *out, const float *in,
                                  uint32_t vd, float weight, const float *norm, float *buffers) {
  if (norm == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  const Accumulation acc{weight, norm};
  return filter(Path::kSpecialised, lat, out, in, vd, 0, 0, -1, -1, &acc, buffers);
}

}  // namespace crf
}  // namespace hseg

extern "C" {

MRESULT permhd_init(MHandle handle, PermutohedralLattice *lattice, const float *features,
                    uint32_t d, uint32_t N) {
  using hseg::crf::build;
  using hseg::crf::Path;
  if (d == 2) return build<2, Path::kSpecialised>(handle, lattice, features, d, N);
  if (d == 5) return build<5, Path::kSpecialised>(handle, lattice, features, d, N);
  return build<0, Path::kSpecialised>(handle, lattice, features, d, N);
}

MRESULT permhd_compute(const PermutohedralLattice *lattice, float *out, const float *in,
                       uint32_t vd, uint32_t in_offset, uint32_t out_offset, int32_t in_size,
                       int32_t out_size) {
  return hseg::crf::filter(hseg::crf::Path::kSpecialised, lattice, out, in, vd, in_offset,
                           out_offset, in_size, out_size, nullptr);
}

MRESULT permhd_release(PermutohedralLattice *lattice) {
  if (lattice == nullptr) return HSEG_ERR_NO_MEMORY;
  hseg::crf::free_arrays(lattice);
  return HSEG_OK;
}

}  // extern "C"
