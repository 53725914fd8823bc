// The public PSPNet-101 Caffe model mapped onto the network's 557 weight
// tensors.
//
// Layers are matched by name; their type strings are not read (released
// files spell them differently). Each convolution L of the layer table takes
// the single blob of layer L (its kernel, Cout x Cin x K x K: no bias); the
// batch norm after it takes the four blobs of layer "L/bn" (scale, shift,
// running mean, running variance; C values each, shaped C, 1xCx1x1 or any
// other shape with one dimension of C and the rest 1). The classifier
// fc8_zembdata takes two rows of the model's classifier conv6 (N classes:
// kernel N x 512 x 1 x 1, bias N): the background class as plane 0, the
// person class as plane 1. Every other layer is left out.
#ifndef HSEG_TOOLS_CAFFE_IMPORT_H_
#define HSEG_TOOLS_CAFFE_IMPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "caffe_model.h"

namespace hseg_caffe {

inline constexpr char kClassifierLayer[] = "conv6";

struct ImportOptions {
  int64_t background = 0;  // class of conv6 read as plane 0 (VOC: 0 background)
  int64_t person = 15;     // class read as plane 1 (VOC: 15 person)
};

// Where one tensor of the network comes from.
struct TensorSource {
  int layer = -1;        // index into Model::layers
  int blob = 0;
  bool classes = false;  // the classifier: rows background and person of the blob
};

struct ImportPlan {
  std::vector<TensorSource> tensors;  // one per tensor, in the network's tensor order
  std::vector<int> skipped;           // layers of the model that give no tensor
  int64_t classes = 0;                // conv6's classes
  ImportOptions options;
};

// Finds every layer the network needs and checks it: present once, the
// number of blobs, each shape and value count, every value finite as a
// float, every variance > 0, the two classes distinct and in range. False
// with a one-line message naming the layer (the classifier is checked first,
// then the layers in the network's order).
bool plan_import(const uint8_t *file, size_t size, const Model &model, const ImportOptions &options,
                 ImportPlan *plan, std::string *error);

// Writes tensor `index` (net_tensor(index).count floats) from a checked plan.
bool fill_tensor(const uint8_t *file, size_t size, const Model &model, const ImportPlan &plan,
                 int index, float *dst, std::string *error);

}  // namespace hseg_caffe

#endif  // HSEG_TOOLS_CAFFE_IMPORT_H_
