// The network's 112 convolution layers as one table, and the 557 weight
// tensors that follow from it.
//
// Everything that needs a layer's shape reads it from here: the forward pass,
// the weights tool that writes, checks and exports the weights file, and the
// generated table of weight symbols the pass is linked against. The tensors
// of layer L, in this order, are its kernel (Cout x Cin x K x K, output
// channel major), then either the four batch-norm arrays (scale, shift,
// running mean, running variance; Cout each) or, for the classifier alone,
// its Cout biases.
#ifndef HSEG_SRC_PIPELINE_NET_LAYERS_H_
#define HSEG_SRC_PIPELINE_NET_LAYERS_H_

#include <cstddef>
#include <cstdint>

namespace hseg {

// What follows the convolution, and where the layer sits in the graph.
enum class NetRole : uint8_t {
  kStem,        // conv1_x: BN, ReLU
  kReduce,      // bottleneck 1x1 reduce: BN, ReLU
  kMid,         // bottleneck 3x3 with its stage's stride and dilation: BN, ReLU
  kIncrease,    // bottleneck 1x1 increase: BN (the ReLU follows the residual sum)
  kProj,        // projection shortcut of a stage's first block: BN
  kPyramid,     // pyramid branch 1x1 on the pooled map: BN, ReLU
  kHead,        // conv5_4 on the concatenation: BN, ReLU
  kClassifier,  // fc8: bias, nothing else
};

struct NetLayer {
  const char *name;  // layer name; the weight symbols use its upper-case form
  int cin;
  int cout;
  int kernel;    // kernel height = width
  int stride;    // the same in both directions
  int pad;       // the same on every side
  int dilation;  // the same in both directions
  int in_size;   // input height = width
  NetRole role;
};

inline constexpr int kNetLayerCount = 112;
inline constexpr int kNetTensorCount = 557;
extern const NetLayer kNetLayers[kNetLayerCount];

// Output height (= width) by the convolution's floor rule.
constexpr int net_out_size(const NetLayer &l) {
  return (l.in_size + 2 * l.pad - (l.dilation * (l.kernel - 1) + 1)) / l.stride + 1;
}
constexpr bool net_has_bias(const NetLayer &l) { return l.role == NetRole::kClassifier; }
constexpr int net_tensors_of(const NetLayer &l) { return net_has_bias(l) ? 2 : 5; }
// Cout * Cin * K * K: at most 4096 * 512 * 9 in this table, far from overflow.
constexpr int64_t net_kernel_count(const NetLayer &l) {
  return int64_t{l.cout} * l.cin * l.kernel * l.kernel;
}

// The part of a layer that a tensor holds. Numbering follows the tensor order
// within a layer: kernel 0, then batch norm 1..4 or bias 1.
enum class NetPart : uint8_t { kKernel, kBnScale, kBnShift, kBnMean, kBnVariance, kBias };

struct NetTensor {
  int layer;         // index into kNetLayers
  NetPart part;
  int rank;          // 4 for kernels, 1 otherwise
  int64_t shape[4];  // unused entries are 0
  int64_t count;     // elements (float32)
};

// Tensor `index` (0 .. kNetTensorCount-1) of the fixed order. Out of range
// gives a tensor with layer -1.
NetTensor net_tensor(int index);
// Index of layer `layer`'s first tensor (its kernel).
int net_first_tensor(int layer);

// Names, written into `buf` (always terminated; false when it does not fit).
//   symbol: _CONV4_23_1X1_INCREASE_DATA0_DEEPLAB_PSPNET_, _<L>_BN_DATA2_...,
//           _FC8_ZEMBDATA_DATA1_DEEPLAB_PSPNET_ (the classifier's bias)
//   file name (the weights file's tensor key): conv4_23_1x1_increase.weight,
//           <l>.bn.scale, <l>.bn.shift, <l>.bn.mean, <l>.bn.variance, <l>.bias
bool net_tensor_symbol(int index, char *buf, size_t size);
bool net_tensor_file_name(int index, char *buf, size_t size);

// Bytes of all tensors together (263,238,408).
int64_t net_weight_bytes();

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_LAYERS_H_
