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
MRESULT lattice_init_ref(MHandle handle, PermutohedralLattice *lattice, const float *features,
                         uint32_t d, uint32_t N);

// permhd_compute with the plain loops.
MRESULT lattice_compute_ref(const PermutohedralLattice *lattice, float *out, const float *in,
                            uint32_t vd, uint32_t in_offset, uint32_t out_offset, int32_t in_size,
                            int32_t out_size);

// Floats of the two value buffers that filtering vd values per point over
// `lattice` works in: 2 * (M + 2) * vd. -1 when the lattice is not built or
// one buffer's byte count does not fit int32.
int64_t lattice_buffer_floats(const PermutohedralLattice *lattice, uint32_t vd);

// Filters all N points of `in` (vd values each) and adds
// (weight * norm[k]) * filtered[k*vd + c] to out[k*vd + c], slicing straight
// into the accumulation instead of through a scratch array. Same results as
// permhd_compute followed by that accumulation. `buffers` is null (the value
// buffers are then allocated for the call) or lattice_buffer_floats(lattice,
// vd) floats of scratch, which makes the call allocation-free. Status 0, 2
// for a lattice that is not built or a null pointer, or 4.
MRESULT lattice_filter_accumulate(const PermutohedralLattice *lattice, float *out,
                                  const float *in, uint32_t vd, float weight,
                                  const float *norm, float *buffers);

}  // namespace crf
}  // namespace hseg

#endif  // HSEG_SRC_CRF_PERMUTOHEDRAL_H_
