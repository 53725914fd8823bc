// The layer table and the weight tensors derived from it.
#include "pipeline/net_layers.h"

#include <cstdio>

namespace hseg {

namespace {
using R = NetRole;
}  // namespace

// In order of execution. Columns: name, Cin, Cout, kernel, stride, pad,
// dilation, input size, role.
const NetLayer kNetLayers[kNetLayerCount] = {
    // stem
    {"conv1_1_3x3_s2", 3, 64, 3, 2, 1, 1, 473, R::kStem},
    {"conv1_2_3x3", 64, 64, 3, 1, 1, 1, 237, R::kStem},
    {"conv1_3_3x3", 64, 128, 3, 1, 1, 1, 237, R::kStem},
    // stage 2: bottleneck blocks; the first has a projection shortcut
    {"conv2_1_1x1_reduce", 128, 64, 1, 1, 0, 1, 119, R::kReduce},
    {"conv2_1_3x3", 64, 64, 3, 1, 1, 1, 119, R::kMid},
    {"conv2_1_1x1_increase", 64, 256, 1, 1, 0, 1, 119, R::kIncrease},
    {"conv2_1_1x1_proj", 128, 256, 1, 1, 0, 1, 119, R::kProj},
    {"conv2_2_1x1_reduce", 256, 64, 1, 1, 0, 1, 119, R::kReduce},
    {"conv2_2_3x3", 64, 64, 3, 1, 1, 1, 119, R::kMid},
    {"conv2_2_1x1_increase", 64, 256, 1, 1, 0, 1, 119, R::kIncrease},
    {"conv2_3_1x1_reduce", 256, 64, 1, 1, 0, 1, 119, R::kReduce},
    {"conv2_3_3x3", 64, 64, 3, 1, 1, 1, 119, R::kMid},
    {"conv2_3_1x1_increase", 64, 256, 1, 1, 0, 1, 119, R::kIncrease},
    // stage 3: bottleneck blocks; the first has a projection shortcut
    {"conv3_1_1x1_reduce", 256, 128, 1, 1, 0, 1, 119, R::kReduce},
    {"conv3_1_3x3", 128, 128, 3, 2, 1, 1, 119, R::kMid},
    {"conv3_1_1x1_increase", 128, 512, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv3_1_1x1_proj", 256, 512, 1, 2, 0, 1, 119, R::kProj},
    {"conv3_2_1x1_reduce", 512, 128, 1, 1, 0, 1, 60, R::kReduce},
    {"conv3_2_3x3", 128, 128, 3, 1, 1, 1, 60, R::kMid},
    {"conv3_2_1x1_increase", 128, 512, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv3_3_1x1_reduce", 512, 128, 1, 1, 0, 1, 60, R::kReduce},
    {"conv3_3_3x3", 128, 128, 3, 1, 1, 1, 60, R::kMid},
    {"conv3_3_1x1_increase", 128, 512, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv3_4_1x1_reduce", 512, 128, 1, 1, 0, 1, 60, R::kReduce},
    {"conv3_4_3x3", 128, 128, 3, 1, 1, 1, 60, R::kMid},
    {"conv3_4_1x1_increase", 128, 512, 1, 1, 0, 1, 60, R::kIncrease},
    // stage 4: bottleneck blocks; the first has a projection shortcut
    {"conv4_1_1x1_reduce", 512, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_1_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_1_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_1_1x1_proj", 512, 1024, 1, 1, 0, 1, 60, R::kProj},
    {"conv4_2_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_2_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_2_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_3_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_3_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_3_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_4_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_4_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_4_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_5_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_5_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_5_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_6_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_6_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_6_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_7_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_7_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_7_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_8_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_8_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_8_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_9_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_9_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_9_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_10_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_10_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_10_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_11_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_11_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_11_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_12_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_12_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_12_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_13_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_13_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_13_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_14_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_14_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_14_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_15_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_15_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_15_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_16_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_16_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_16_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_17_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_17_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_17_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_18_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_18_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_18_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_19_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_19_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_19_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_20_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_20_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_20_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_21_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_21_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_21_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_22_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_22_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_22_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv4_23_1x1_reduce", 1024, 256, 1, 1, 0, 1, 60, R::kReduce},
    {"conv4_23_3x3", 256, 256, 3, 1, 2, 2, 60, R::kMid},
    {"conv4_23_1x1_increase", 256, 1024, 1, 1, 0, 1, 60, R::kIncrease},
    // stage 5: bottleneck blocks; the first has a projection shortcut
    {"conv5_1_1x1_reduce", 1024, 512, 1, 1, 0, 1, 60, R::kReduce},
    {"conv5_1_3x3", 512, 512, 3, 1, 4, 4, 60, R::kMid},
    {"conv5_1_1x1_increase", 512, 2048, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv5_1_1x1_proj", 1024, 2048, 1, 1, 0, 1, 60, R::kProj},
    {"conv5_2_1x1_reduce", 2048, 512, 1, 1, 0, 1, 60, R::kReduce},
    {"conv5_2_3x3", 512, 512, 3, 1, 4, 4, 60, R::kMid},
    {"conv5_2_1x1_increase", 512, 2048, 1, 1, 0, 1, 60, R::kIncrease},
    {"conv5_3_1x1_reduce", 2048, 512, 1, 1, 0, 1, 60, R::kReduce},
    {"conv5_3_3x3", 512, 512, 3, 1, 4, 4, 60, R::kMid},
    {"conv5_3_1x1_increase", 512, 2048, 1, 1, 0, 1, 60, R::kIncrease},
    // pyramid branches, in the order they run (bin sizes 1, 2, 3, 6)
    {"conv5_3_pool1_conv", 2048, 512, 1, 1, 0, 1, 1, R::kPyramid},
    {"conv5_3_pool2_conv", 2048, 512, 1, 1, 0, 1, 2, R::kPyramid},
    {"conv5_3_pool3_conv", 2048, 512, 1, 1, 0, 1, 3, R::kPyramid},
    {"conv5_3_pool6_conv", 2048, 512, 1, 1, 0, 1, 6, R::kPyramid},
    // head and classifier
    {"conv5_4", 4096, 512, 3, 1, 1, 1, 60, R::kHead},
    {"fc8_zembdata", 512, 2, 1, 1, 0, 1, 60, R::kClassifier},
};

int net_first_tensor(int layer) {
  int index = 0;
  for (int i = 0; i < layer && i < kNetLayerCount; ++i) index += net_tensors_of(kNetLayers[i]);
  return index;
}

NetTensor net_tensor(int index) {
  NetTensor t{};
  t.layer = -1;
  if (index < 0) return t;
  int first = 0;
  for (int i = 0; i < kNetLayerCount; ++i) {
    const NetLayer &l = kNetLayers[i];
    const int k = index - first;
    first += net_tensors_of(l);
    if (index >= first) continue;
    t.layer = i;
    if (k == 0) {
      t.part = NetPart::kKernel;
      t.rank = 4;
      t.shape[0] = l.cout;
      t.shape[1] = l.cin;
      t.shape[2] = l.kernel;
      t.shape[3] = l.kernel;
      t.count = net_kernel_count(l);
    } else {
      t.part = net_has_bias(l) ? NetPart::kBias : static_cast<NetPart>(k);
      t.rank = 1;
      t.shape[0] = l.cout;
      t.count = l.cout;
    }
    return t;
  }
  return t;
}

namespace {

// Writes the formatted name; false when it was cut or the index is invalid.
template <typename... Args>
bool format_into(char *buf, size_t size, const char *fmt, Args... args) {
  if (buf == nullptr || size == 0) return false;
  const int n = std::snprintf(buf, size, fmt, args...);
  return n >= 0 && static_cast<size_t>(n) < size;
}

}  // namespace

bool net_tensor_symbol(int index, char *buf, size_t size) {
  const NetTensor t = net_tensor(index);
  if (t.layer < 0) {
    if (buf != nullptr && size > 0) buf[0] = '\0';
    return false;
  }
  char upper[64];
  const char *name = kNetLayers[t.layer].name;
  size_t n = 0;
  for (; name[n] != '\0' && n + 1 < sizeof upper; ++n) {
    const char c = name[n];
    upper[n] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  }
  upper[n] = '\0';
  switch (t.part) {
    case NetPart::kKernel:
      return format_into(buf, size, "_%s_DATA0_DEEPLAB_PSPNET_", upper);
    case NetPart::kBias:
      return format_into(buf, size, "_%s_DATA1_DEEPLAB_PSPNET_", upper);
    default:
      return format_into(buf, size, "_%s_BN_DATA%d_DEEPLAB_PSPNET_", upper,
                         static_cast<int>(t.part) - static_cast<int>(NetPart::kBnScale));
  }
}

bool net_tensor_file_name(int index, char *buf, size_t size) {
  static const char *const kSuffix[] = {"weight", "bn.scale", "bn.shift", "bn.mean",
                                        "bn.variance", "bias"};
  const NetTensor t = net_tensor(index);
  if (t.layer < 0) {
    if (buf != nullptr && size > 0) buf[0] = '\0';
    return false;
  }
  return format_into(buf, size, "%s.%s", kNetLayers[t.layer].name,
                     kSuffix[static_cast<int>(t.part)]);
}

int64_t net_weight_bytes() {
  int64_t bytes = 0;
  for (int i = 0; i < kNetTensorCount; ++i) bytes += net_tensor(i).count * 4;
  return bytes;
}

}  // namespace hseg
