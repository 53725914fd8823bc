// The SIMD row kernels, written once over a vector type `V` that each SIMD
// source file defines (SSE2: 4 lanes, AVX2: 8 lanes of 32 bits). Included
// only by those files, inside their anonymous namespace, so every copy is
// compiled for its own instruction set. Leftover values at a row's end go
// through the same scalar arithmetic as the plain kernels.
//
// V provides, for lanes of 32-bit unsigned values:
//   R, kLanes, load/store (uint32_t), load8/load16 (widen kLanes samples),
//   store8/store16 (narrow lanes that fit), add, sub, set1,
//   scale_round(v, scale)   (int)((float)v * scale + 0.5f) lane by lane,
//   mulhi_shift(x, m, k)    (x * m) >> (32 + k) lane by lane,
//   shift_lanes<S>(v)       lane j takes lane j - S, the first S lanes 0,
//   carry<CH>(v)            lane j takes lane kLanes - CH + j % CH.
#ifndef HSEG_SRC_BLUR_BLUR_ROWS_SIMD_H_
#define HSEG_SRC_BLUR_BLUR_ROWS_SIMD_H_

inline R load_n(const uint8_t *p) { return V::load8(p); }
inline R load_n(const uint16_t *p) { return V::load16(p); }
inline R load_n(const uint32_t *p) { return V::load(p); }
inline void store_n(uint8_t *p, R v) { V::store8(p, v); }
inline void store_n(uint16_t *p, R v) { V::store16(p, v); }

template <typename T>
void vsum(uint32_t *acc, const T *add, const T *sub, int32_t n) {
  int32_t i = 0;
  for (; i + V::kLanes <= n; i += V::kLanes)
    V::store(acc + i, V::add(V::load(acc + i), V::sub(load_n(add + i), load_n(sub + i))));
  for (; i < n; ++i) acc[i] += static_cast<uint32_t>(add[i]) - sub[i];
}

template <typename T>
void vsum_norm(uint32_t *acc, const T *add, const T *sub, int32_t n, float scale,
               uint16_t *out) {
  int32_t i = 0;
  for (; i + V::kLanes <= n; i += V::kLanes) {
    const R a = V::add(V::load(acc + i), V::sub(load_n(add + i), load_n(sub + i)));
    V::store(acc + i, a);
    V::store16(out + i, V::scale_round(a, scale));
  }
  for (; i < n; ++i) {
    acc[i] += static_cast<uint32_t>(add[i]) - sub[i];
    out[i] = static_cast<uint16_t>(hseg::blur::scale_round(acc[i], scale));
  }
}

// Stride-CH prefix: within a vector, add the value CH, 2 CH, 4 CH lanes
// back; then add the carry, which holds for each lane the prefix just
// before the first lane of its channel in this vector.
// What a prefix row sums: samples of a row, or window sums hi - lo.
template <typename T>
struct Samples {
  const T *a;
  R load(int32_t i) const { return load_n(a + i); }
  uint32_t at(int32_t i) const { return a[i]; }
};
struct WindowSums {
  const uint32_t *hi, *lo;
  R load(int32_t i) const { return V::sub(V::load(hi + i), V::load(lo + i)); }
  uint32_t at(int32_t i) const { return hi[i] - lo[i]; }
};

template <int CH, typename S>
inline R scan_block(const S &a, int32_t i, R carry, uint32_t *p) {
  R x = a.load(i);
  x = V::add(x, V::template shift_lanes<CH>(x));
  if (2 * CH < V::kLanes) x = V::add(x, V::template shift_lanes<2 * CH>(x));
  if (4 * CH < V::kLanes) x = V::add(x, V::template shift_lanes<4 * CH>(x));
  x = V::add(x, carry);
  V::store(p, x);
  return V::template carry<CH>(x);
}

// The carry chain (an add and a lane permutation a vector) bounds the speed
// of one prefix, so a long row is scanned as two halves side by side, the
// second from zero; then the second half gets the first half's last sums
// added, lane by lane for each lane's channel. The half boundary is a
// whole number of vectors and of pixels, so the sums are exactly those of
// one pass (modulo 2^32, like every prefix here).
template <int CH, typename S>
void scan_ch(const S &a, int32_t n, uint32_t *p) {
  constexpr int32_t kL = V::kLanes;
  const int32_t blocks = n / kL;
  const int32_t half = blocks >= 8 ? blocks / (2 * CH) * CH : 0;  // blocks in the first half
  uint32_t start[kL + CH];
  for (int j = 0; j < kL + CH; ++j) start[j] = p[j % CH];
  R carry_a = V::load(start), carry_b = V::set1(0);
  const int32_t mid = half * kL;
  for (int32_t b = 0; b < half; ++b) {
    carry_a = scan_block<CH>(a, b * kL, carry_a, p + CH + b * kL);
    carry_b = scan_block<CH>(a, mid + b * kL, carry_b, p + CH + mid + b * kL);
  }
  int32_t i = 2 * mid;
  if (half > 0) {
    for (; i + kL <= n; i += kL) carry_b = scan_block<CH>(a, i, carry_b, p + CH + i);
    for (; i < n; ++i) p[CH + i] = p[i] + a.at(i);
    // p[mid .. mid + CH) hold the first half's last sum of each channel.
    uint32_t last[kL + CH];
    for (int j = 0; j < kL + CH; ++j) last[j] = p[mid + j % CH];
    int32_t k = mid;
    for (; k + kL <= n; k += kL) {
      const R add = V::load(last + (k - mid) % CH);
      V::store(p + CH + k, V::add(V::load(p + CH + k), add));
    }
    for (; k < n; ++k) p[CH + k] += last[(k - mid) % CH];
    return;
  }
  for (i = 0; i + kL <= n; i += kL) carry_a = scan_block<CH>(a, i, carry_a, p + CH + i);
  for (; i < n; ++i) p[CH + i] = p[i] + a.at(i);
}

template <typename S>
void scan_any(const S &a, int32_t n, int32_t ch, uint32_t *p) {
  if (ch == 3) {
    scan_ch<3>(a, n, p);
  } else if (ch == 2) {
    scan_ch<2>(a, n, p);
  } else {
    scan_ch<1>(a, n, p);
  }
}

template <typename T>
void scan(const T *a, int32_t n, int32_t ch, uint32_t *p) {
  scan_any(Samples<T>{a}, n, ch, p);
}

void diff_scan(const uint32_t *hi, const uint32_t *lo, int32_t n, int32_t ch, uint32_t *p) {
  scan_any(WindowSums{hi, lo}, n, ch, p);
}

template <typename T>
void diff_div(const uint32_t *hi, const uint32_t *lo, int32_t n, const hseg::blur::Divisor &d,
              T *out) {
  const R half = V::set1(d.half), mul = V::set1(d.mul);
  int32_t i = 0;
  for (; i + V::kLanes <= n; i += V::kLanes) {
    const R s = V::add(V::sub(V::load(hi + i), V::load(lo + i)), half);
    store_n(out + i, V::mulhi_shift(s, mul, d.shift));
  }
  for (; i < n; ++i) out[i] = static_cast<T>(hseg::blur::divide(hi[i] - lo[i], d));
}

template <typename T>
void diff_norm(const uint32_t *hi, const uint32_t *lo, int32_t n, float scale, T *out) {
  int32_t i = 0;
  for (; i + V::kLanes <= n; i += V::kLanes)
    store_n(out + i, V::scale_round(V::sub(V::load(hi + i), V::load(lo + i)), scale));
  for (; i < n; ++i) out[i] = static_cast<T>(hseg::blur::scale_round(hi[i] - lo[i], scale));
}

constexpr hseg::blur::RowKernels kTable = {
    vsum<uint8_t>,      vsum<uint16_t>,     vsum_norm<uint8_t>, vsum_norm<uint16_t>,
    scan<uint16_t>,     scan<uint32_t>,     diff_scan,          diff_div<uint8_t>,
    diff_div<uint16_t>,
    diff_norm<uint8_t>, diff_norm<uint16_t>};

#endif  // HSEG_SRC_BLUR_BLUR_ROWS_SIMD_H_
