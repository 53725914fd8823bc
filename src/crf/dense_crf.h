// Internal kernels of the dense CRF: the per-pixel normalisation (softmax by
// the fast exponential), in its plain form for any label count and in the
// specialised form for two labels that the upsampler uses.
#ifndef HSEG_SRC_CRF_DENSE_CRF_H_
#define HSEG_SRC_CRF_DENSE_CRF_H_

#include <cstdint>

namespace hseg {
namespace crf {

// For each of N pixels with M values t[i*M .. i*M+M-1]: m = the largest
// (first value as the start), e[l] = fast_exp(t[l] - m), s = sum of e in
// label order, q[l] = e[l] / s. `sums` receives s per pixel (N entries).
// q may equal t.
void normalize_ref(const float *t, float *q, float *sums, uint32_t N, uint32_t M);

// The same for M == 2, one pass, without the per-pixel sums: the plain loop
// and the SSE2 loop (four pixels at a time; the plain loop where SSE2 is
// absent). Both give the same bits as normalize_ref.
void normalize_two_labels(const float *t, float *q, uint32_t N);
void normalize_two_labels_sse2(const float *t, float *q, uint32_t N);

}  // namespace crf
}  // namespace hseg

#endif  // HSEG_SRC_CRF_DENSE_CRF_H_
