// Internal entry points of the permutohedral lattice: the plain reference
// versions of build and filtering (generic dimension, one hash lookup per
// vertex, plain component loops), which the tests compare with the
// specialised paths behind permhd_init and permhd_compute, and the filtering
// fused with the lattice filter's accumulation.
#ifndef HSEG_SRC_CRF_PERMUTOHEDRAL_H_
#define HSEG_SRC_CRF_PERMUTOHEDRAL_H_

#include <cstdint>

#include "hseg/crf.h"

namespace hseg {
namespace crf {

// permhd_init without the specialised dimensions and without reusing the
// previous point's lattice indices.
MRESULT lattice_init_reference(MHandle handle, PermutohedralLattice *lattice,
                               const float *features, uint32_t d, uint32_t N);

// permhd_compute with the plain loops.
MRESULT lattice_compute_reference(const PermutohedralLattice *lattice, float *out,
                                  const float *in, uint32_t vd, uint32_t in_offset,
                                  uint32_t out_offset, int32_t in_size, int32_t out_size);

// Filters all N points of `in` (vd values each) and adds
// (weight * norm[k]) * filtered[k*vd + c] to out[k*vd + c], slicing straight
// into the accumulation instead of through a scratch array. Same results as
// permhd_compute followed by that accumulation. Status 0 or 4. The lattice
// must be built and the pointers valid.
MRESULT lattice_filter_accumulate(const PermutohedralLattice *lattice, float *out,
                                  const float *in, uint32_t vd, float weight,
                                  const float *norm);

}  // namespace crf
}  // namespace hseg

#endif  // HSEG_SRC_CRF_PERMUTOHEDRAL_H_
