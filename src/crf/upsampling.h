// Internal step of DCR_Upsampling2: the coarse unary and its bilinear lift.
#ifndef HSEG_SRC_CRF_UPSAMPLING_H_
#define HSEG_SRC_CRF_UPSAMPLING_H_

#include <cstdint>

namespace hseg {
namespace crf {

// Writes the coarse unaries -ln(p + 0.00001) of the 2 * sw * sh scores into
// `coarse` (2 * sw * sh + sw + 1 floats: the planes, a spare row repeating
// plane 1's last row, and that row's first value once more) and lifts both
// planes to the W x H pixel-major two-label `unary`. The caller has checked
// that the 8.8 positions stay inside `coarse`.
void lift_unary(const float *scores, uint32_t sw, int32_t sh, int32_t W, int32_t H,
                float *coarse, float *unary);

}  // namespace crf
}  // namespace hseg

#endif  // HSEG_SRC_CRF_UPSAMPLING_H_
