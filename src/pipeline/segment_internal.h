// Internals of the segmentation entry, shared with its tests: the network
// can be swapped for a function that supplies scores, so that the stages
// around it are tested without a multi-second pass each time.
#ifndef HSEG_SRC_PIPELINE_SEGMENT_INTERNAL_H_
#define HSEG_SRC_PIPELINE_SEGMENT_INTERNAL_H_

#include <cstdint>

#include "hseg/pipeline.h"
#include "network.h"

namespace hseg {

constexpr int32_t kScoreCells = kNetScoreSize * kNetScoreSize;

// Fills 2 x 60 x 60 scores (background plane, then person plane) from the
// 473x473 BGR image at `bgr`, rows `pitch` bytes apart. Returns a status.
struct NetworkHook {
  MRESULT (*run)(void *ctx, const uint8_t *bgr, int32_t pitch, float *scores);
  void *ctx;
};

// The real network pass, and the fast network.
NetworkHook default_network();
NetworkHook fast_network();

// HsegEx's options with the defaults filled in; HSEG_ERR_BAD_ARGUMENT for a
// size below the first version's or an unknown network.
MRESULT read_options(const HsegOptions *options, HsegOptions *out);

// The coarse-mask rule: out[i] = 255 when person[i] > max(background[i], 0),
// else 0; a NaN background counts as 0 and a NaN person score gives 0.
void coarse_mask(const float *scores, uint8_t *out);

// 0 when src and dst can be segmented as far as their fields tell, else
// HSEG_ERR_BAD_ARGUMENT. Unknown formats pass (the area resize refuses them).
MRESULT check_segment_args(const OffscreenImage *src, const OffscreenImage *dst);

// FigureNet_il with the network given.
MRESULT figure_net(const OffscreenImage *in, OffscreenImage *out, float *scores,
                   const NetworkHook &net);

// HsegTimed with the network given (no stage reads Hseg's flags); `times`
// may be null.
MRESULT segment(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                const NetworkHook &net, HsegStageTimes *times);

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_SEGMENT_INTERNAL_H_
