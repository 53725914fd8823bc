// Deterministic synthetic weights for the segmentation network.
//
// The values carry no knowledge of people; they exist so that every stage of
// the library runs on realistic value ranges without a real model:
//  - kernels are He-uniform, U(-a, a) with a = sqrt(6 / fan_in), and batch
//    norm scales and shifts are near 1 and 0;
//  - the running mean and variance of every batch norm are measured, as in
//    training, on the output of its convolution while the network runs on a
//    calibration image (a seeded picture of soft colour gradients, blobs and
//    grain), so each normalised layer is close to unit scale there;
//  - the last batch norm of each residual branch has a small scale and a
//    negative shift, so the rectified trunk does not grow from block to
//    block through the 33 blocks;
//  - the classifier gives the two planes a positive common part and opposite
//    signs of one random projection of the features, centred and scaled on
//    the calibration image: at each position one plane is clearly positive
//    and the other lower, and both labels cover sizeable areas of a picture.
//
// For one seed the file is the same on every run on a machine; across
// machines the measured statistics may differ in their last bits with the
// BLAS library's summation order.
#ifndef HSEG_TOOLS_HSEG_WEIGHTS_SYNTH_H_
#define HSEG_TOOLS_HSEG_WEIGHTS_SYNTH_H_

#include <cstdint>
#include <string>
#include <vector>

namespace hseg_weights {

inline constexpr uint64_t kDefaultSeed = 20240601;

class SyntheticWeights {
 public:
  // Draws and calibrates every tensor; ok() tells whether the calibration
  // pass ran (it needs about 1 GB of memory for a few seconds).
  explicit SyntheticWeights(uint64_t seed);
  bool ok() const { return status_ == 0; }
  uint32_t status() const { return status_; }
  // Writes tensor `index` of the network's fixed order (net_tensor(index).count floats).
  void fill(int index, float *dst) const;

 private:
  void draw(int index);
  void calibrate();
  uint64_t seed_;
  uint32_t status_ = 0;
  std::vector<std::vector<float>> tensors_;
};

// The calibration picture for `seed`: 473x473 BGR, 3 bytes a pixel, rows
// 1419 bytes apart.
std::vector<uint8_t> calibration_image(uint64_t seed);

}  // namespace hseg_weights

#endif  // HSEG_TOOLS_HSEG_WEIGHTS_SYNTH_H_
