// Internal entry of the network pass, with the hooks the tests and the
// benchmark use. fr_extract_feature_deeplab_pspnet is net_forward with the
// linked weights and no hooks.
#ifndef HSEG_SRC_PIPELINE_NETWORK_H_
#define HSEG_SRC_PIPELINE_NETWORK_H_

#include <cstddef>
#include <cstdint>

#include "hseg/pipeline.h"

namespace hseg {

class NetFilterCache;

inline constexpr int kNetInputSize = HSEG_NET_INPUT_SIZE;
inline constexpr int kNetScoreSize = HSEG_NET_SCORE_SIZE;
inline constexpr int kNetScoreCount = 2 * kNetScoreSize * kNetScoreSize;

// One finished tensor of the pass, shown to the tap: the input tensor
// ("data"), each stem layer, "pool1", each block's output ("conv3_1"), each
// pyramid branch before its resize ("conv5_3_pool6_conv", 512 x 6 x 6),
// "conv5_4" and "fc8_zembdata". The reference route also shows "conv5_3_concat". Values are
// final (after batch norm and ReLU); the pointer is valid only during the call.
struct NetTap {
  const char *name;
  const float *data;
  int channels, height, width;
};

struct NetHooks {
  // Every block the pass allocates itself goes through alloc/release. The
  // fast route takes one block, "arena", for all its tensors and work buffers
  // (by default a fresh mapping advised for huge pages, see net_arena.h); the
  // reference route takes one block per tensor, named after it, e.g. "conv4_12"
  // for that block's output or "conv4_12_3x3" for a layer's (by default from
  // malloc). Work buffers inside the exported layer functions are not
  // included.
  void *(*alloc)(void *user, size_t bytes, const char *what) = nullptr;
  void (*release)(void *user, void *ptr) = nullptr;
  // Called with every finished tensor listed above, in order of execution.
  void (*tap)(void *user, const NetTap &tensor) = nullptr;
  void *user = nullptr;
  // Route every layer through the exported layer functions (one column copy
  // per convolution, batch norm, ReLU and sum as separate calls, 156 tensors)
  // instead of the network's fused kernels. Both give the same bits.
  bool ref_route = false;
  // In the reference route, keep every tensor until the pass ends instead of
  // releasing each after its last use.
  bool keep_all = false;
  // Threads for the work outside the matrix products; 0 for the pool's
  // default (net_default_lanes()). The scores do not depend on it.
  int threads = 0;
  // The fast network: every stride-1 3x3 convolution by Winograd minimal
  // filtering (net_winograd.h), everything else as the fast route. Not with
  // `ref_route`. The filters' transforms come from `filters` when set (the
  // process's cache net_filter_cache() for the linked weights), else from a
  // cache made for this pass alone.
  bool winograd = false;
  NetFilterCache *filters = nullptr;
  // Called after every convolution that a batch norm follows, with its raw
  // output, before the batch norm reads its four arrays; the weights tool
  // sets running statistics here. Setting it selects the reference route.
  void (*conv_output)(void *user, int layer, const float *data, int c, int h, int w) = nullptr;
};

// The 557 weight arrays in the order of net_tensor(); linked from
// libdeeplab_data.so.
const float *const *net_linked_weights();

// The whole pass. Arguments as fr_extract_feature_deeplab_pspnet; `weights`
// holds kNetTensorCount arrays; `hooks` may be null.
MRESULT net_forward(const uint8_t *bgr, int32_t pitch, float *scores,
                    const float *const *weights, const NetHooks *hooks);

// The fast network on the linked weights, with the process's filter cache.
MRESULT net_forward_fast(const uint8_t *bgr, int32_t pitch, float *scores);

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NETWORK_H_
