// Lattice filter: one normalised, weighted Gaussian kernel over a
// permutohedral lattice, adding its message to an accumulator. The
// normaliser is the lattice's response to a vector of ones, so a constant
// input comes back (up to the lattice's approximation) as weight times that
// constant.
#include <cstring>

#include "common/checked.h"
#include "crf/permutohedral.h"
#include "hseg/crf.h"

extern "C" {

MRESULT ppil_init(MHandle handle, LatticeFilter *filter, const float *features, uint32_t d,
                  uint32_t N, uint32_t normalisation, float weight) {
  if (filter == nullptr) return HSEG_ERR_NO_MEMORY;
  std::memset(filter, 0, sizeof *filter);
  filter->handle = handle;
  filter->point_count = N;
  filter->weight = weight;
  MRESULT st = permhd_init(handle, &filter->lattice, features, d, N);
  if (st != HSEG_OK) return st;
  // N <= INT32_MAX / 8 here, or the lattice would have refused it.
  float *norm = static_cast<float *>(MMemAlloc(handle, static_cast<int32_t>(N * 4u)));
  if (norm == nullptr) return HSEG_ERR_NO_MEMORY;
  filter->norm = norm;
  for (uint32_t i = 0; i < N; ++i) norm[i] = 1.0f;
  st = permhd_compute(&filter->lattice, norm, norm, 1, 0, 0, -1, -1);
  if (st != HSEG_OK) return st;
  if (normalisation == 0) {
    float sum = 0.0f;
    for (uint32_t i = 0; i < N; ++i) sum += norm[i];
    const float n_over_sum = static_cast<float>(N) / sum;
    for (uint32_t i = 0; i < N; ++i) norm[i] = n_over_sum;
  } else {
    for (uint32_t i = 0; i < N; ++i) norm[i] = 1.0f / (norm[i] + 1e-20f);
  }
  return HSEG_OK;
}

MRESULT ppil_apply(const LatticeFilter *filter, float *out, const float *in, float *tmp,
                   uint32_t vd) {
  if (filter == nullptr || out == nullptr || in == nullptr || tmp == nullptr ||
      filter->norm == nullptr || vd == 0) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  // The slice feeds the accumulation directly; `tmp` is not needed on this
  // path. lattice_filter_accumulate gives the same sums as permhd_compute
  // into tmp followed by out += (weight * norm) * tmp.
  (void)tmp;
  return hseg::crf::lattice_filter_accumulate(&filter->lattice, out, in, vd, filter->weight,
                                              filter->norm, nullptr);
}

MRESULT ppil_release(LatticeFilter *filter) {
  if (filter == nullptr) return HSEG_ERR_NO_MEMORY;
  const MRESULT st = permhd_release(&filter->lattice);
  if (st != HSEG_OK) return st;
  MMemFree(filter->handle, filter->norm);
  std::memset(filter, 0, sizeof *filter);
  return HSEG_OK;
}

}  // extern "C"
