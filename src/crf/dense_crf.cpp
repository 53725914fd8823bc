// Fully connected CRF with Potts potentials on Gaussian kernels, solved by
// mean-field inference (Kraehenbuehl and Koltun, "Efficient Inference in
// Fully Connected CRFs with Gaussian Edge Potentials", NIPS 2011, algorithm
// 1 on page 4). Each potential's message is one lattice filtering.
#include "crf/dense_crf.h"

#include <algorithm>
#include <cstring>

#include "common/checked.h"
#include "crf/fast_math.h"
#include "crf/permutohedral.h"
#include "hseg/crf.h"

namespace hseg {
namespace crf {

void normalize_ref(const float *t, float *q, float *sums, uint32_t N, uint32_t M) {
  for (uint32_t i = 0; i < N; ++i) {
    const float *ti = t + static_cast<size_t>(i) * M;
    float *qi = q + static_cast<size_t>(i) * M;
    float m = ti[0];
    for (uint32_t l = 1; l < M; ++l) {
      if (ti[l] > m) m = ti[l];
    }
    float s = 0.0f;
    for (uint32_t l = 0; l < M; ++l) {
      qi[l] = fast_exp_inline(ti[l] - m);
      s += qi[l];
    }
    sums[i] = s;
  }
  for (uint32_t i = 0; i < N; ++i) {
    float *qi = q + static_cast<size_t>(i) * M;
    for (uint32_t l = 0; l < M; ++l) qi[l] = qi[l] / sums[i];
  }
}

void normalize_two_labels(const float *t, float *q, uint32_t N) {
  for (uint32_t i = 0; i < N; ++i) {
    const float t0 = t[2 * i];
    const float t1 = t[2 * i + 1];
    const float m = t1 > t0 ? t1 : t0;
    const float e0 = fast_exp_inline(t0 - m);
    const float e1 = fast_exp_inline(t1 - m);
    const float s = (0.0f + e0) + e1;
    q[2 * i] = e0 / s;
    q[2 * i + 1] = e1 / s;
  }
}

void normalize_two_labels_sse2(const float *t, float *q, uint32_t N) {
  uint32_t i = 0;
#if defined(__SSE2__)
  for (; i + 4 <= N; i += 4) {
    const __m128 lo = _mm_loadu_ps(t + 2 * i);      // t0 t1 of pixels i, i+1
    const __m128 hi = _mm_loadu_ps(t + 2 * i + 4);  // pixels i+2, i+3
    const __m128 t0 = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0));
    const __m128 t1 = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1));
    const __m128 m = _mm_max_ps(t1, t0);  // t1 > t0 ? t1 : t0, as the scalar loop
    const __m128 e0 = fast_exp_sse2(_mm_sub_ps(t0, m));
    const __m128 e1 = fast_exp_sse2(_mm_sub_ps(t1, m));
    const __m128 s = _mm_add_ps(_mm_add_ps(_mm_setzero_ps(), e0), e1);
    const __m128 q0 = _mm_div_ps(e0, s);
    const __m128 q1 = _mm_div_ps(e1, s);
    _mm_storeu_ps(q + 2 * i, _mm_unpacklo_ps(q0, q1));
    _mm_storeu_ps(q + 2 * i + 4, _mm_unpackhi_ps(q0, q1));
  }
#endif
  normalize_two_labels(t + 2 * i, q + 2 * i, N - i);
}

namespace {

void normalize(DenseCrf *crf, const float *t, float *q) {
  const uint32_t N = static_cast<uint32_t>(crf->pixel_count);
  const uint32_t M = static_cast<uint32_t>(crf->label_count);
  if (M == 2) {
    normalize_two_labels_sse2(t, q, N);
  } else {
    normalize_ref(t, q, crf->pixel_scratch, N, M);
  }
}

bool crf_is_set_up(const DenseCrf *crf) {
  return crf != nullptr && crf->unary != nullptr && crf->additional_unary != nullptr &&
         crf->marginals != nullptr && crf->next != nullptr && crf->filter_scratch != nullptr &&
         crf->pixel_scratch != nullptr && crf->pixel_count > 0 && crf->label_count > 0;
}

// Checks shared by the two add operations: a grid CRF with room for one more
// potential.
MRESULT check_add(const DenseCrf *crf) {
  if (!crf_is_set_up(crf) || crf->width < 1 || crf->height < 1 ||
      static_cast<int64_t>(crf->width) * crf->height != crf->pixel_count ||
      crf->potential_count < 0 || crf->potential_count >= HSEG_CRF_MAX_POTENTIALS) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  return HSEG_OK;
}

// Floats of the filter scratch: 2 * N * M, or more when a potential's
// lattice needs larger value buffers to filter the M marginals per pixel
// (scattered features touch up to N * (d + 1) lattice points). The add
// operations keep the scratch exactly this size, so that the inference finds
// every potential's buffers there and takes no memory of its own.
int64_t scratch_floats(const DenseCrf *crf, int32_t potentials) {
  int64_t floats = 2 * int64_t{crf->pixel_count} * crf->label_count;
  for (int32_t p = 0; p < potentials; ++p) {
    floats = std::max(floats, lattice_buffer_floats(&crf->potentials[p].lattice,
                                                    static_cast<uint32_t>(crf->label_count)));
  }
  return floats;
}

// Grows the filter scratch, when it must, for the potential just built at
// index crf->potential_count. The contents need not be kept.
MRESULT fit_scratch(DenseCrf *crf) {
  const int32_t n = crf->potential_count;
  const int64_t need = lattice_buffer_floats(&crf->potentials[n].lattice,
                                             static_cast<uint32_t>(crf->label_count));
  if (need < 0 || !mul2_i32_valid(need, 4)) return HSEG_ERR_BAD_ARGUMENT;
  if (need <= scratch_floats(crf, n)) return HSEG_OK;
  float *grown = static_cast<float *>(MMemAlloc(crf->handle, static_cast<int32_t>(need * 4)));
  if (grown == nullptr) return HSEG_ERR_NO_MEMORY;
  MMemFree(crf->handle, crf->filter_scratch);
  crf->filter_scratch = grown;
  return HSEG_OK;
}

// Builds the next potential over `features` (N rows of d) and frees the
// features. On failure the half-built filter is released and the CRF keeps
// its potentials.
MRESULT add_potential(DenseCrf *crf, float *features, uint32_t d, float weight) {
  LatticeFilter *filter = &crf->potentials[crf->potential_count];
  MRESULT st = ppil_init(crf->handle, filter, features, d,
                         static_cast<uint32_t>(crf->pixel_count), 1, weight);
  MMemFree(crf->handle, features);
  if (st == HSEG_OK) st = fit_scratch(crf);
  if (st != HSEG_OK) {
    ppil_release(filter);
    return st;
  }
  ++crf->potential_count;
  return HSEG_OK;
}

}  // namespace
}  // namespace crf
}  // namespace hseg

using hseg::crf::check_add;
using hseg::crf::crf_is_set_up;

extern "C" {

MRESULT crf_init(MHandle handle, DenseCrf *crf, uint64_t N, uint32_t M) {
  if (crf == nullptr) return HSEG_ERR_NO_MEMORY;
  std::memset(crf, 0, sizeof *crf);
  crf->handle = handle;
  // The largest array holds 2 * N * M floats.
  if (N < 1 || M < 1 || N > 0x7FFFFFFFull ||
      !hseg::mul2_i32_valid(static_cast<int64_t>(N), static_cast<int64_t>(M) * 8) ||
      !hseg::mad3_i32_valid(static_cast<int64_t>(N) + 10, 4, 0)) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  crf->pixel_count = static_cast<int32_t>(N);
  crf->label_count = static_cast<int32_t>(M);
  const int32_t bytes = static_cast<int32_t>(N * M * 4);
  crf->unary = static_cast<float *>(MMemAlloc(handle, bytes));
  crf->additional_unary = static_cast<float *>(MMemAlloc(handle, bytes));
  crf->marginals = static_cast<float *>(MMemAlloc(handle, bytes));
  crf->next = static_cast<float *>(MMemAlloc(handle, bytes));
  crf->filter_scratch = static_cast<float *>(MMemAlloc(handle, 2 * bytes));
  crf->pixel_scratch = static_cast<float *>(MMemAlloc(handle, static_cast<int32_t>((N + 10) * 4)));
  if (crf->unary == nullptr || crf->additional_unary == nullptr || crf->marginals == nullptr ||
      crf->next == nullptr || crf->filter_scratch == nullptr || crf->pixel_scratch == nullptr) {
    crf_release(crf);
    return HSEG_ERR_NO_MEMORY;
  }
  std::memset(crf->additional_unary, 0, static_cast<size_t>(bytes));
  return HSEG_OK;
}

MRESULT crf_init2d(MHandle handle, DenseCrf *crf, int32_t width, uint32_t height, uint32_t M) {
  if (crf == nullptr) return HSEG_ERR_NO_MEMORY;
  if (width < 1 || height < 1 || height > 0x7FFFFFFFu ||
      !hseg::mul2_i32_valid(width, static_cast<int64_t>(height))) {
    std::memset(crf, 0, sizeof *crf);
    return HSEG_ERR_BAD_ARGUMENT;
  }
  const MRESULT st = crf_init(handle, crf, static_cast<uint64_t>(width) * height, M);
  if (st != HSEG_OK) return st;
  crf->width = width;
  crf->height = static_cast<int32_t>(height);
  return HSEG_OK;
}

MRESULT crf_add_gaussian_potts(DenseCrf *crf, float sx, float sy, float weight) {
  MRESULT st = check_add(crf);
  if (st != HSEG_OK) return st;
  const int32_t W = crf->width;
  const int32_t H = crf->height;
  // N * 8 bytes fits: the CRF holds 2 * N * M floats.
  float *f = static_cast<float *>(MMemAlloc(crf->handle, crf->pixel_count * 8));
  if (f == nullptr) return HSEG_ERR_NO_MEMORY;
  float *row = f;
  for (int32_t y = 0; y < H; ++y) {
    for (int32_t x = 0; x < W; ++x, row += 2) {
      row[0] = static_cast<float>(x) / sx;
      row[1] = static_cast<float>(y) / sy;
    }
  }
  return hseg::crf::add_potential(crf, f, 2, weight);
}

MRESULT crf_add_bilateral_potts(DenseCrf *crf, const uint8_t *image, int32_t pitch, float sx,
                                float sy, float s0, float s1, float s2, float weight) {
  MRESULT st = check_add(crf);
  if (st != HSEG_OK) return st;
  const int32_t W = crf->width;
  const int32_t H = crf->height;
  if (image == nullptr || pitch < 0 || static_cast<int64_t>(pitch) < 3ll * W) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  if (!hseg::mul2_i32_valid(crf->pixel_count, 20)) return HSEG_ERR_BAD_ARGUMENT;
  float *f = static_cast<float *>(MMemAlloc(crf->handle, crf->pixel_count * 20));
  if (f == nullptr) return HSEG_ERR_NO_MEMORY;
  float *row = f;
  for (int32_t y = 0; y < H; ++y) {
    const uint8_t *src = image + static_cast<size_t>(y) * static_cast<size_t>(pitch);
    for (int32_t x = 0; x < W; ++x, row += 5, src += 3) {
      row[0] = static_cast<float>(x) / sx;
      row[1] = static_cast<float>(y) / sy;
      row[2] = static_cast<float>(src[0]) / s0;
      row[3] = static_cast<float>(src[1]) / s1;
      row[4] = static_cast<float>(src[2]) / s2;
    }
  }
  return hseg::crf::add_potential(crf, f, 5, weight);
}

MRESULT crf_inference(DenseCrf *crf, int32_t iterations, float relaxation) {
  if (!crf_is_set_up(crf) || crf->potential_count < 0 ||
      crf->potential_count > HSEG_CRF_MAX_POTENTIALS) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  const size_t n = static_cast<size_t>(crf->pixel_count) * crf->label_count;
  const uint32_t M = static_cast<uint32_t>(crf->label_count);
  float *next = crf->next;
  float *q = crf->marginals;
  // Start from the softmax of the negated energies.
  for (size_t k = 0; k < n; ++k) next[k] = -crf->unary[k];
  hseg::crf::normalize(crf, next, q);
  const float keep = 1.0f - relaxation;
  for (int32_t it = 0; it < iterations; ++it) {
    for (size_t k = 0; k < n; ++k) next[k] = -crf->unary[k] - crf->additional_unary[k];
    // Potts messages: each potential adds weight * norm * (kernel * Q),
    // filtered in the scratch that the add operations sized for it.
    bool ok = true;
    for (int32_t p = 0; p < crf->potential_count && ok; ++p) {
      const LatticeFilter &f = crf->potentials[p];
      ok = hseg::crf::lattice_filter_accumulate(&f.lattice, next, q, M, f.weight, f.norm,
                                                crf->filter_scratch) == HSEG_OK;
    }
    // Fixed interface behaviour: a failed filtering leaves this iteration's
    // marginals as they were and is not reported.
    if (!ok) continue;
    if (relaxation == 1.0f) {
      hseg::crf::normalize(crf, next, q);
    } else {
      hseg::crf::normalize(crf, next, next);
      for (size_t k = 0; k < n; ++k) q[k] = relaxation * next[k] + keep * q[k];
    }
  }
  return HSEG_OK;
}

MRESULT crf_map2du(const DenseCrf *crf, uint8_t *labels, float *confidence) {
  if (!crf_is_set_up(crf) || labels == nullptr || crf->label_count > 256) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  const int32_t M = crf->label_count;
  for (int32_t i = 0; i < crf->pixel_count; ++i) {
    const float *q = crf->marginals + static_cast<size_t>(i) * M;
    int32_t best = 0;
    float best_q = q[0];
    for (int32_t l = 1; l < M; ++l) {
      if (q[l] > best_q) {
        best_q = q[l];
        best = l;
      }
    }
    labels[i] = static_cast<uint8_t>(best);
    if (confidence != nullptr) confidence[i] = best_q;
  }
  return HSEG_OK;
}

MRESULT crf_release(DenseCrf *crf) {
  if (crf == nullptr) return HSEG_ERR_NO_MEMORY;
  MMemFree(crf->handle, crf->unary);
  MMemFree(crf->handle, crf->additional_unary);
  MMemFree(crf->handle, crf->marginals);
  MMemFree(crf->handle, crf->next);
  MMemFree(crf->handle, crf->filter_scratch);
  MMemFree(crf->handle, crf->pixel_scratch);
  const int32_t n = crf->potential_count;
  for (int32_t p = 0; p < n && p < HSEG_CRF_MAX_POTENTIALS; ++p) ppil_release(&crf->potentials[p]);
  std::memset(crf, 0, sizeof *crf);
  return HSEG_OK;
}

}  // extern "C"
