#include "hseg_weights_synth.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "pipeline/net_layers.h"
#include "pipeline/network.h"

namespace hseg_weights {

namespace {

using hseg::kNetLayerCount;
using hseg::kNetLayers;
using hseg::kNetTensorCount;
using hseg::NetLayer;
using hseg::NetPart;
using hseg::NetRole;

// Last batch norm of a residual branch: a small scale keeps each block's
// contribution modest, the negative shift pulls the rectified sum back.
constexpr double kBranchScale = 0.4;
constexpr double kBranchShift = -0.1;
// Other batch norms: scale 1 and shift 0, each jittered by up to this.
constexpr double kJitter = 0.1;
// A layer with fewer output positions than this (the pyramid branches on 1x1
// to 6x6 maps) takes one mean and variance over all its channels: one
// picture gives too few values per channel.
constexpr int64_t kMinPositions = 64;

// Classifier: score_bg = kClassBase + d, score_person = kClassBase - d, where
// d = u . (f - m) for the 512 features f, m their means on the calibration
// image, and u a random direction scaled so d has standard deviation
// kClassSpread there.
constexpr double kClassBase = 0.5;
constexpr double kClassSpread = 2.0;
constexpr int kPowerIterations = 30;

// splitmix64: a small generator with a well-mixed output for any seed.
class Rng {
 public:
  explicit Rng(uint64_t seed) : s_(seed) {}
  uint64_t next() {
    uint64_t z = (s_ += 0x9e3779b97f4a7c15u);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }  // [0, 1)
  double symmetric() { return 2.0 * uniform() - 1.0; }                         // [-1, 1)

 private:
  uint64_t s_;
};

// One independent stream per tensor, and one for the calibration image.
Rng stream(uint64_t seed, uint64_t index) {
  Rng mix(seed ^ (index * 0xd1b54a32d192ed03u));
  return Rng(mix.next());
}
constexpr uint64_t kImageStream = 1u << 20;

// Mean and variance of the values of `planes` planes of `n` values each,
// either per plane or (pooled) over all of them.
void plane_stats(const float *data, int planes, int64_t n, bool pooled, float *mean, float *var) {
  auto stats = [](const float *p, int64_t count, double *m, double *v) {
    double s = 0.0;
    for (int64_t i = 0; i < count; ++i) s += p[i];
    *m = s / static_cast<double>(count);
    double q = 0.0;
    for (int64_t i = 0; i < count; ++i) q += (p[i] - *m) * (p[i] - *m);
    *v = q / static_cast<double>(count);
  };
  if (pooled) {
    double m, v;
    stats(data, planes * n, &m, &v);
    std::fill(mean, mean + planes, static_cast<float>(m));
    std::fill(var, var + planes, static_cast<float>(std::max(v, 1e-6)));
    return;
  }
  for (int c = 0; c < planes; ++c) {
    double m, v;
    stats(data + c * n, n, &m, &v);
    mean[c] = static_cast<float>(m);
    var[c] = static_cast<float>(std::max(v, 1e-6));
  }
}

struct Calibration {
  std::vector<std::vector<float>> *tensors;
  std::vector<float> features;  // conv5_4's output
  int feature_channels = 0;
};

void on_conv_output(void *user, int layer, const float *data, int c, int h, int w) {
  auto *cal = static_cast<Calibration *>(user);
  const int first = hseg::net_first_tensor(layer);
  const int64_t n = int64_t{h} * w;
  plane_stats(data, c, n, n < kMinPositions, (*cal->tensors)[first + 3].data(),
              (*cal->tensors)[first + 4].data());
}

void on_tap(void *user, const hseg::NetTap &t) {
  if (std::strcmp(t.name, "conv5_4") != 0) return;
  auto *cal = static_cast<Calibration *>(user);
  cal->features.assign(t.data, t.data + int64_t{t.channels} * t.height * t.width);
  cal->feature_channels = t.channels;
}

// Per-channel means of `channels` planes of n features each.
std::vector<double> channel_means(const std::vector<float> &f, int channels, int64_t n) {
  std::vector<double> mean(channels, 0.0);
  for (int c = 0; c < channels; ++c) {
    for (int64_t i = 0; i < n; ++i) mean[c] += f[c * n + i];
    mean[c] /= static_cast<double>(n);
  }
  return mean;
}

// The features' first principal component by power iteration from `u`. It
// varies most over the picture, so d changes over regions rather than pixels.
std::vector<double> principal_direction(const std::vector<float> &f,
                                        const std::vector<double> &mean, int64_t n,
                                        std::vector<double> u) {
  const int channels = static_cast<int>(mean.size());
  std::vector<double> d(n), next(channels);
  for (int iter = 0; iter < kPowerIterations; ++iter) {
    for (int64_t i = 0; i < n; ++i) {
      double acc = 0.0;
      for (int c = 0; c < channels; ++c) acc += u[c] * (f[c * n + i] - mean[c]);
      d[i] = acc;
    }
    double norm = 0.0;
    for (int c = 0; c < channels; ++c) {
      double acc = 0.0;
      for (int64_t i = 0; i < n; ++i) acc += d[i] * (f[c * n + i] - mean[c]);
      next[c] = acc;
      norm += acc * acc;
    }
    norm = std::sqrt(std::max(norm, 1e-30));
    for (int c = 0; c < channels; ++c) u[c] = next[c] / norm;
  }
  return u;
}

// The classifier's rows `w` (u, then -u, starting from the random row in w)
// and biases `b`, centred and scaled so that d = u . (f - m) on the
// calibration features f has standard deviation kClassSpread.
void fit_classifier(const std::vector<float> &features, int channels, std::vector<float> *w,
                    std::vector<float> *b) {
  const int64_t n = static_cast<int64_t>(features.size()) / channels;
  const std::vector<double> mean = channel_means(features, channels, n);
  const std::vector<double> u = principal_direction(
      features, mean, n, std::vector<double>(w->begin(), w->begin() + channels));
  for (int c = 0; c < channels; ++c) (*w)[c] = static_cast<float>(u[c]);
  double sq = 0.0;
  for (int64_t i = 0; i < n; ++i) {
    double acc = 0.0;
    for (int c = 0; c < channels; ++c) acc += (*w)[c] * (features[c * n + i] - mean[c]);
    sq += acc * acc;
  }
  const double gain = kClassSpread / std::sqrt(std::max(sq / static_cast<double>(n), 1e-12));
  double centre = 0.0;
  for (int c = 0; c < channels; ++c) {
    (*w)[c] = static_cast<float>((*w)[c] * gain);
    (*w)[channels + c] = -(*w)[c];
    centre += static_cast<double>((*w)[c]) * mean[c];
  }
  (*b)[0] = static_cast<float>(kClassBase - centre);
  (*b)[1] = static_cast<float>(kClassBase + centre);
}

}  // namespace

std::vector<uint8_t> calibration_image(uint64_t seed) {
  constexpr int kSize = hseg::kNetInputSize, kPitch = 3 * kSize;
  Rng rng = stream(seed, kImageStream);
  std::vector<double> px(static_cast<size_t>(kSize) * kSize * 3);
  // A vertical gradient between two colours...
  double top[3], bottom[3];
  for (double &v : top) v = 40 + 200 * rng.uniform();
  for (double &v : bottom) v = 20 + 160 * rng.uniform();
  for (int y = 0; y < kSize; ++y)
    for (int x = 0; x < kSize; ++x)
      for (int k = 0; k < 3; ++k) {
        const double t = static_cast<double>(y) / (kSize - 1);
        px[(static_cast<size_t>(y) * kSize + x) * 3 + k] = top[k] + (bottom[k] - top[k]) * t;
      }
  // ...under flat-coloured ellipses of many sizes...
  for (int e = 0; e < 24; ++e) {
    const double cx = kSize * rng.uniform(), cy = kSize * rng.uniform();
    const double rx = 10 + 140 * rng.uniform(), ry = 10 + 140 * rng.uniform();
    double colour[3];
    for (double &v : colour) v = 255 * rng.uniform();
    for (int y = 0; y < kSize; ++y)
      for (int x = 0; x < kSize; ++x) {
        const double dx = (x - cx) / rx, dy = (y - cy) / ry;
        if (dx * dx + dy * dy <= 1.0)
          for (int k = 0; k < 3; ++k) px[(static_cast<size_t>(y) * kSize + x) * 3 + k] = colour[k];
      }
  }
  // ...with some grain.
  std::vector<uint8_t> bgr(static_cast<size_t>(kSize) * kPitch);
  for (size_t i = 0; i < px.size(); ++i) {
    const double v = px[i] + 12.0 * rng.symmetric();
    bgr[i] = static_cast<uint8_t>(std::lround(std::min(255.0, std::max(0.0, v))));
  }
  return bgr;
}

SyntheticWeights::SyntheticWeights(uint64_t seed) : seed_(seed), tensors_(kNetTensorCount) {
  for (int i = 0; i < kNetTensorCount; ++i) draw(i);
  calibrate();
}

// Kernels, scales and shifts from the tensor's own stream; running mean 0 and
// variance 1 until the calibration pass measures them; classifier biases 0.
void SyntheticWeights::draw(int index) {
  const hseg::NetTensor t = hseg::net_tensor(index);
  const NetLayer &l = kNetLayers[t.layer];
  std::vector<float> &dst = tensors_[index];
  dst.assign(static_cast<size_t>(t.count), 0.0f);
  Rng rng = stream(seed_, static_cast<uint64_t>(index));
  const bool branch_end = l.role == NetRole::kIncrease;
  switch (t.part) {
    case NetPart::kKernel: {
      if (l.role == NetRole::kClassifier) {
        // Two rows, u and -u; calibrate() scales them.
        for (int j = 0; j < l.cin; ++j) {
          dst[j] = static_cast<float>(rng.symmetric());
          dst[l.cin + j] = -dst[j];
        }
        break;
      }
      const double a = std::sqrt(6.0 / (static_cast<double>(l.cin) * l.kernel * l.kernel));
      for (float &v : dst) v = static_cast<float>(a * rng.symmetric());
      break;
    }
    case NetPart::kBnScale:
      for (float &v : dst)
        v = static_cast<float>((branch_end ? kBranchScale : 1.0) * (1.0 + kJitter * rng.symmetric()));
      break;
    case NetPart::kBnShift:
      for (float &v : dst)
        v = static_cast<float>(branch_end ? kBranchShift * (1.0 + kJitter * rng.symmetric())
                                          : kJitter * rng.symmetric());
      break;
    case NetPart::kBnVariance:
      std::fill(dst.begin(), dst.end(), 1.0f);
      break;
    case NetPart::kBnMean:
    case NetPart::kBias:
      break;
  }
}

void SyntheticWeights::calibrate() {
  std::vector<const float *> weights(kNetTensorCount);
  for (int i = 0; i < kNetTensorCount; ++i) weights[i] = tensors_[i].data();
  Calibration cal{&tensors_, {}, 0};
  hseg::NetHooks hooks;
  hooks.conv_output = on_conv_output;
  hooks.tap = on_tap;
  hooks.user = &cal;
  const std::vector<uint8_t> image = calibration_image(seed_);
  std::vector<float> scores(hseg::kNetScoreCount);
  status_ = hseg::net_forward(image.data(), 3 * hseg::kNetInputSize, scores.data(),
                              weights.data(), &hooks);
  if (status_ != 0 || cal.feature_channels == 0) {
    if (status_ == 0) status_ = HSEG_ERR_BAD_ARGUMENT;
    return;
  }

  const int fc8 = kNetLayerCount - 1;
  const int first = hseg::net_first_tensor(fc8);
  fit_classifier(cal.features, cal.feature_channels, &tensors_[first], &tensors_[first + 1]);
}

void SyntheticWeights::fill(int index, float *dst) const {
  if (index < 0 || index >= kNetTensorCount) return;
  std::memcpy(dst, tensors_[index].data(), tensors_[index].size() * sizeof(float));
}

}  // namespace hseg_weights
