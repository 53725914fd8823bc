// The exported network pass and the fast network, on the weights linked from
// libdeeplab_data.so.
#include "pipeline/net_layers.h"
#include "pipeline/net_winograd.h"
#include "pipeline/network.h"

// Generated from the layer table by hseg-weights: the address of every weight
// symbol of libdeeplab_data.so, in tensor order.
extern "C" const float *const hseg_net_weights[hseg::kNetTensorCount];

namespace hseg {

const float *const *net_linked_weights() { return hseg_net_weights; }

MRESULT net_forward_fast(const uint8_t *bgr, int32_t pitch, float *scores) {
  NetHooks hooks;
  hooks.winograd = true;
  hooks.filters = &net_filter_cache();
  return net_forward(bgr, pitch, scores, net_linked_weights(), &hooks);
}

}  // namespace hseg

extern "C" MRESULT fr_extract_feature_deeplab_pspnet(const uint8_t *bgr, int32_t pitch,
                                                    float *scores, uint64_t /*reserved*/) {
  return hseg::net_forward(bgr, pitch, scores, hseg::net_linked_weights(), nullptr);
}
