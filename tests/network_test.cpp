// The network pass: the layer table, the network's own kernels against the
// layer functions, and whole passes on the linked (synthetic) weights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "hseg/flatnn.h"
#include "hseg/pipeline.h"
#include "network_test_image.h"
#include "pipeline/net_kernels.h"
#include "pipeline/net_layers.h"
#include "pipeline/network.h"

namespace {

using hseg::kNetLayerCount;
using hseg::kNetLayers;
using hseg::NetLayer;
using hseg::NetRole;

constexpr int kPitch = 1420;  // what the segmentation entry passes
constexpr float kEps = 1e-5f;
constexpr float kCanary = -7777.25f;

int layer_index(const std::string &name) {
  for (int i = 0; i < kNetLayerCount; ++i)
    if (name == kNetLayers[i].name) return i;
  ADD_FAILURE() << "no layer " << name;
  return 0;
}

bool same_bits(const float *a, const float *b, size_t n, size_t *first_diff) {
  for (size_t i = 0; i < n; ++i) {
    if (std::memcmp(a + i, b + i, sizeof(float)) != 0) {
      *first_diff = i;
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------
// The layer table

// Walks the graph the way the pass does and checks that each layer reads the
// channels and size its producer writes.
TEST(NetLayers, ShapesChainThroughTheGraph) {
  int c = 3, size = 473, i = 0;
  for (; kNetLayers[i].role == NetRole::kStem; ++i) {
    SCOPED_TRACE(kNetLayers[i].name);
    EXPECT_EQ(kNetLayers[i].cin, c);
    EXPECT_EQ(kNetLayers[i].in_size, size);
    c = kNetLayers[i].cout;
    size = hseg::net_out_size(kNetLayers[i]);
  }
  EXPECT_EQ(size, 237);
  size = 119;  // pool1: ceil((237 + 2 - 3) / 2) + 1
  int blocks = 0;
  while (kNetLayers[i].role == NetRole::kReduce) {
    const NetLayer &r = kNetLayers[i], &m = kNetLayers[i + 1], &u = kNetLayers[i + 2];
    SCOPED_TRACE(r.name);
    EXPECT_EQ(r.cin, c);
    EXPECT_EQ(r.in_size, size);
    EXPECT_EQ(m.role, NetRole::kMid);
    EXPECT_EQ(m.cin, r.cout);
    EXPECT_EQ(m.in_size, size);
    EXPECT_EQ(u.role, NetRole::kIncrease);
    EXPECT_EQ(u.cin, m.cout);
    EXPECT_EQ(u.cout, 4 * r.cout);
    EXPECT_EQ(u.in_size, hseg::net_out_size(m));
    if (kNetLayers[i + 3].role == NetRole::kProj) {
      const NetLayer &p = kNetLayers[i + 3];
      EXPECT_EQ(p.cin, c);
      EXPECT_EQ(p.cout, u.cout);
      EXPECT_EQ(hseg::net_out_size(p), hseg::net_out_size(u));
      i += 4;
    } else {
      EXPECT_EQ(c, u.cout);  // identity shortcut
      i += 3;
    }
    c = u.cout;
    size = hseg::net_out_size(u);
    ++blocks;
  }
  EXPECT_EQ(blocks, 33);
  EXPECT_EQ(c, 2048);
  EXPECT_EQ(size, 60);
  const int bins[] = {1, 2, 3, 6};
  for (int b : bins) {
    EXPECT_EQ(kNetLayers[i].role, NetRole::kPyramid);
    EXPECT_EQ(kNetLayers[i].cin, c);
    EXPECT_EQ(kNetLayers[i].in_size, b);
    ++i;
  }
  EXPECT_EQ(kNetLayers[i].cin, 2048 + 4 * 512);
  EXPECT_EQ(hseg::net_out_size(kNetLayers[i]), 60);
  EXPECT_EQ(kNetLayers[i + 1].role, NetRole::kClassifier);
  EXPECT_EQ(kNetLayers[i + 1].cin, kNetLayers[i].cout);
  EXPECT_EQ(kNetLayers[i + 1].cout, 2);
  EXPECT_EQ(i + 2, kNetLayerCount);
}

TEST(NetLayers, TensorNamesAndSizes) {
  struct Case {
    int index;
    const char *symbol, *file_name;
    int64_t count;
  };
  const int inc = hseg::net_first_tensor(layer_index("conv4_23_1x1_increase"));
  const Case cases[] = {
      {0, "_CONV1_1_3X3_S2_DATA0_DEEPLAB_PSPNET_", "conv1_1_3x3_s2.weight", 64 * 3 * 9},
      {1, "_CONV1_1_3X3_S2_BN_DATA0_DEEPLAB_PSPNET_", "conv1_1_3x3_s2.bn.scale", 64},
      {4, "_CONV1_1_3X3_S2_BN_DATA3_DEEPLAB_PSPNET_", "conv1_1_3x3_s2.bn.variance", 64},
      {inc, "_CONV4_23_1X1_INCREASE_DATA0_DEEPLAB_PSPNET_", "conv4_23_1x1_increase.weight",
       1024 * 256},
      {inc + 3, "_CONV4_23_1X1_INCREASE_BN_DATA2_DEEPLAB_PSPNET_", "conv4_23_1x1_increase.bn.mean",
       1024},
      {555, "_FC8_ZEMBDATA_DATA0_DEEPLAB_PSPNET_", "fc8_zembdata.weight", 2 * 512},
      {556, "_FC8_ZEMBDATA_DATA1_DEEPLAB_PSPNET_", "fc8_zembdata.bias", 2},
  };
  char buf[96];
  for (const Case &c : cases) {
    SCOPED_TRACE(c.index);
    ASSERT_TRUE(hseg::net_tensor_symbol(c.index, buf, sizeof buf));
    EXPECT_STREQ(buf, c.symbol);
    ASSERT_TRUE(hseg::net_tensor_file_name(c.index, buf, sizeof buf));
    EXPECT_STREQ(buf, c.file_name);
    EXPECT_EQ(hseg::net_tensor(c.index).count, c.count);
  }
  EXPECT_FALSE(hseg::net_tensor_symbol(hseg::kNetTensorCount, buf, sizeof buf));
  EXPECT_FALSE(hseg::net_tensor_symbol(0, buf, 10));  // does not fit

  std::set<std::string> symbols;
  for (int i = 0; i < hseg::kNetTensorCount; ++i) {
    ASSERT_TRUE(hseg::net_tensor_symbol(i, buf, sizeof buf));
    symbols.insert(buf);
    EXPECT_NE(hseg::net_linked_weights()[i], nullptr) << buf;
  }
  EXPECT_EQ(symbols.size(), 557u);
  EXPECT_EQ(hseg::net_first_tensor(kNetLayerCount - 1), 555);
  EXPECT_EQ(hseg::net_weight_bytes(), 263238408);
}

// ---------------------------------------------------------------------------
// The network's kernels

TEST(NetKernels, ColumnBandsMatchTheColumnFormula) {
  struct Geom {
    int channels, size, kernel, stride, pad, dilation;
  };
  const Geom geoms[] = {  // at most NetSources::kMax channels (split test)
      {2, 7, 3, 1, 1, 1}, {3, 9, 3, 2, 1, 1}, {2, 9, 3, 1, 2, 2}, {1, 13, 3, 1, 4, 4},
      {3, 8, 1, 2, 0, 1}, {2, 5, 3, 2, 1, 1}, {1, 1, 3, 1, 1, 1}, {2, 6, 3, 1, 4, 4},
      {2, 3, 3, 1, 4, 4}, {2, 10, 3, 1, 4, 4}, {1, 4, 1, 1, 0, 1},
  };
  std::mt19937 rng(7);
  for (const Geom &g : geoms) {
    const int out = (g.size + 2 * g.pad - (g.dilation * (g.kernel - 1) + 1)) / g.stride + 1;
    const hseg::NetConvGeom ng{g.channels, g.size, g.kernel, g.stride, g.pad, g.dilation, out};
    std::vector<float> in(static_cast<size_t>(g.channels) * g.size * g.size);
    for (float &v : in) v = std::uniform_real_distribution<float>(-1, 1)(rng);
    for (int band = 1; band <= out; ++band) {
      for (int row0 = 0; row0 < out; row0 += band) {
        const int row1 = std::min(out, row0 + band), width = (row1 - row0) * out;
        SCOPED_TRACE(testing::Message() << "c" << g.channels << " size " << g.size << " k"
                                        << g.kernel << " s" << g.stride << " p" << g.pad << " d"
                                        << g.dilation << " rows " << row0 << ".." << row1);
        const size_t count = static_cast<size_t>(g.channels) * g.kernel * g.kernel * width;
        // One source, and the same channels split over separate tensors.
        const size_t plane = static_cast<size_t>(g.size) * g.size;
        const hseg::NetSources one{1, {in.data()}, {g.channels}};
        std::vector<std::vector<float>> pieces;
        hseg::NetSources split{0, {}, {}};
        for (int c = 0; c < g.channels; ++c) {
          pieces.emplace_back(in.begin() + c * plane, in.begin() + (c + 1) * plane);
          split.data[split.count] = pieces.back().data();
          split.channels[split.count++] = 1;
        }
        std::vector<float> col(count, kCanary), col_ref(count, -kCanary), col_split(count, 0.5f);
        hseg::net_im2col_rows(one, ng, row0, row1, col.data());
        hseg::net_im2col_rows_ref(one, ng, row0, row1, col_ref.data());
        hseg::net_im2col_rows(split, ng, row0, row1, col_split.data());
        size_t diff = 0;
        ASSERT_TRUE(same_bits(col.data(), col_ref.data(), count, &diff)) << "element " << diff;
        ASSERT_TRUE(same_bits(col.data(), col_split.data(), count, &diff)) << "element " << diff;
        size_t at = 0;
        for (int c = 0; c < g.channels; ++c)
          for (int kh = 0; kh < g.kernel; ++kh)
            for (int kw = 0; kw < g.kernel; ++kw)
              for (int oh = row0; oh < row1; ++oh)
                for (int ow = 0; ow < out; ++ow, ++at) {
                  const int ih = oh * g.stride - g.pad + kh * g.dilation;
                  const int iw = ow * g.stride - g.pad + kw * g.dilation;
                  const bool inside = ih >= 0 && ih < g.size && iw >= 0 && iw < g.size;
                  const float want = inside ? in[(static_cast<size_t>(c) * g.size + ih) * g.size + iw] : 0.0f;
                  ASSERT_EQ(std::memcmp(&col[at], &want, sizeof want), 0)
                      << "c " << c << " kh " << kh << " kw " << kw << " oh " << oh << " ow " << ow;
                }
      }
    }
  }
}

// The finishes against ly_bn_frozen, ly_etlwise_sum and ly_relu_float, on
// values that include signed zeros, tiny and huge magnitudes and NaN, on the
// whole tensor and on a band; outside the band nothing may change.
TEST(NetKernels, FinishesMatchTheLayerFunctions) {
  constexpr int kChannels = 5, kLen = 37;
  constexpr int kN = kChannels * kLen;
  std::mt19937 rng(3);
  auto values = [&] {
    std::vector<float> v(kN);
    for (float &x : v) x = std::uniform_real_distribution<float>(-3, 3)(rng);
    const float specials[] = {0.0f, -0.0f, 1e-40f, -1e-40f, 3e38f, -3e38f, NAN, 1.0f};
    for (size_t i = 0; i < sizeof specials / sizeof *specials; ++i) v[i * 19 % kN] = specials[i];
    return v;
  };
  std::vector<float> scale(kChannels), shift(kChannels), mean(kChannels), var(kChannels);
  for (int c = 0; c < kChannels; ++c) {
    scale[c] = std::uniform_real_distribution<float>(-2, 2)(rng);
    shift[c] = std::uniform_real_distribution<float>(-1, 1)(rng);
    mean[c] = std::uniform_real_distribution<float>(-1, 1)(rng);
    var[c] = std::uniform_real_distribution<float>(0, 4)(rng);
  }
  var[0] = 0.0f;  // inv_std from eps alone
  std::vector<float> inv_std(kChannels);
  hseg::net_bn_inv_std(var.data(), kEps, kChannels, inv_std.data());
  const hseg::NetBn bn{scale.data(), shift.data(), mean.data(), inv_std.data()};

  struct Band {
    int col0, col1;
  };
  for (const Band band : {Band{0, kLen}, Band{3, 20}, Band{36, 37}}) {
    for (int kind = 0; kind < 3; ++kind) {  // BN, BN + ReLU, BN + sum + ReLU
      SCOPED_TRACE(testing::Message() << "kind " << kind << " band " << band.col0 << ".."
                                      << band.col1);
      const std::vector<float> x = values(), shortcut = values();
      std::vector<float> want = x, sum(kN);
      ASSERT_EQ(ly_bn_frozen(want.data(), want.data(), kN, 1, kChannels, scale.data(),
                             shift.data(), mean.data(), var.data(), kEps), 0u);
      if (kind == 2) {
        ASSERT_EQ(ly_etlwise_sum(shortcut.data(), want.data(), kLen, 1, kChannels, sum.data()), 0u);
        want = sum;
      }
      if (kind >= 1) {
        ASSERT_EQ(ly_relu_float(want.data(), want.data(), kLen, 1, kChannels), 0u);
      }
      for (int c = 0; c < kChannels; ++c)  // outside the band: the input
        for (int i = 0; i < kLen; ++i)
          if (i < band.col0 || i >= band.col1) want[c * kLen + i] = x[c * kLen + i];
      for (int path = 0; path < 3; ++path) {  // dispatched, portable, AVX2
        if (path == 2 && !hseg::net_have_avx2()) continue;
        SCOPED_TRACE(testing::Message() << "path " << path);
        std::vector<float> got = x;
        if (kind == 2) {
          auto *f = path == 0   ? hseg::net_bn_add_relu_band
                    : path == 1 ? hseg::net_bn_add_relu_band_generic
                                : hseg::net_bn_add_relu_band_avx2;
          f(got.data(), shortcut.data(), kLen, kChannels, band.col0, band.col1, bn);
        } else {
          auto *f = path == 0   ? hseg::net_bn_band
                    : path == 1 ? hseg::net_bn_band_generic
                                : hseg::net_bn_band_avx2;
          f(got.data(), kLen, kChannels, band.col0, band.col1, bn, kind == 1);
        }
        size_t diff = 0;
        EXPECT_TRUE(same_bits(want.data(), got.data(), kN, &diff))
            << "element " << diff << ": " << want[diff] << " vs " << got[diff];
      }
    }
  }
}

TEST(NetKernels, TiledAveragePoolingMatchesTheLayerFunction) {
  constexpr int kChannels = 11, kSize = 60;  // channels not a multiple of the 8 lanes
  std::mt19937 rng(5);
  std::vector<float> in(static_cast<size_t>(kChannels) * kSize * kSize);
  for (float &v : in) v = std::uniform_real_distribution<float>(-1, 1)(rng) * 1e3f;
  for (int window : {60, 30, 20, 10, 1}) {
    SCOPED_TRACE(testing::Message() << "window " << window);
    const int bins = kSize / window;
    std::vector<float> want(static_cast<size_t>(kChannels) * bins * bins, kCanary);
    std::vector<float> got(want.size(), -kCanary);
    ASSERT_EQ(ly_pooling_avg_float(in.data(), kSize, kSize, kChannels, want.data(), window, window,
                                   window, window, 0, 0), 0u);
    hseg::net_avg_pool_tiled(in.data(), kChannels, kSize, window, got.data());
    size_t diff = 0;
    EXPECT_TRUE(same_bits(want.data(), got.data(), want.size(), &diff)) << "element " << diff;
  }
}

// ---------------------------------------------------------------------------
// Whole passes

// Records allocations (and can fail one) and keeps copies of chosen taps.
struct Probe {
  int64_t fail_at = 0;  // 1-based allocation to refuse; 0 for none
  std::vector<std::string> names;
  std::map<void *, size_t> live;
  size_t live_bytes = 0, peak_bytes = 0;
  std::set<std::string> keep;
  struct Kept {
    std::vector<float> v;
    int c, h, w;
  };
  std::map<std::string, Kept> taps;
  std::vector<std::string> tap_order;

  hseg::NetHooks hooks(bool plain = false, bool keep_all = false) {
    hseg::NetHooks h;
    h.alloc = alloc;
    h.release = release;
    h.tap = tap;
    h.user = this;
    h.plain = plain;
    h.keep_all = keep_all;
    return h;
  }
  static void *alloc(void *user, size_t bytes, const char *what) {
    auto *p = static_cast<Probe *>(user);
    p->names.push_back(what);
    if (static_cast<int64_t>(p->names.size()) == p->fail_at) return nullptr;
    void *mem = std::malloc(bytes);
    if (mem == nullptr) return nullptr;
    p->live[mem] = bytes;
    p->live_bytes += bytes;
    p->peak_bytes = std::max(p->peak_bytes, p->live_bytes);
    return mem;
  }
  static void release(void *user, void *ptr) {
    auto *p = static_cast<Probe *>(user);
    auto it = p->live.find(ptr);
    ASSERT_NE(it, p->live.end()) << "release of a block not allocated";
    p->live_bytes -= it->second;
    p->live.erase(it);
    std::free(ptr);
  }
  static void tap(void *user, const hseg::NetTap &t) {
    auto *p = static_cast<Probe *>(user);
    p->tap_order.push_back(t.name);
    if (p->keep.count(t.name) == 0) return;
    p->taps[t.name] = Kept{std::vector<float>(t.data, t.data + int64_t{t.channels} * t.height * t.width),
                           t.channels, t.height, t.width};
  }
};

struct T {
  std::vector<float> v;
  int c = 0, h = 0, w = 0;
};

T from_tap(const Probe::Kept &k) { return T{k.v, k.c, k.h, k.w}; }

const float *weight(const std::string &layer, int part) {
  return hseg::net_linked_weights()[hseg::net_first_tensor(layer_index(layer)) + part];
}

// Convolution + batch norm (+ ReLU) through the layer functions, geometry
// written out here rather than read from the table.
T conv_bn(const T &in, const std::string &layer, int cout, int k, int stride, int pad, int dil,
          bool relu) {
  const int out = (in.h + 2 * pad - (dil * (k - 1) + 1)) / stride + 1;
  T o{std::vector<float>(static_cast<size_t>(cout) * out * out), cout, out, out};
  EXPECT_EQ(myc_forward_conv(in.v.data(), o.v.data(), weight(layer, 0), nullptr, in.c, in.h, in.w,
                             k, k, pad, pad, stride, stride, dil, dil, cout), 0u);
  EXPECT_EQ(ly_bn_frozen(o.v.data(), o.v.data(), static_cast<int>(o.v.size()), 1, cout,
                         weight(layer, 1), weight(layer, 2), weight(layer, 3), weight(layer, 4),
                         kEps), 0u);
  if (relu) {
    EXPECT_EQ(ly_relu_float(o.v.data(), o.v.data(), out, out, cout), 0u);
  }
  return o;
}

void expect_same(const T &want, const Probe::Kept &got, const char *what) {
  ASSERT_EQ(want.c, got.c) << what;
  ASSERT_EQ(want.h, got.h) << what;
  ASSERT_EQ(want.v.size(), got.v.size()) << what;
  size_t diff = 0;
  EXPECT_TRUE(same_bits(want.v.data(), got.v.data(), want.v.size(), &diff))
      << what << ": element " << diff << " is " << got.v[diff] << ", recomputed " << want.v[diff];
}

class NetPass : public testing::Test {
 protected:
  // One pass on the photograph (pitch 1420), shared by the tests below.
  static void SetUpTestSuite() {
    image_ = hseg_test::astronaut_bgr(kPitch);
    ASSERT_FALSE(image_.empty()) << "cannot read examples/astronaut.png";
    probe_ = new Probe;
    probe_->keep = {"data", "conv1_1_3x3_s2", "conv2_3", "conv3_1", "conv5_3",
                    "conv5_3_pool1_interp", "conv5_3_pool2_interp", "conv5_3_pool3_interp",
                    "conv5_3_pool6_interp", "conv5_4"};
    scores_.assign(hseg::kNetScoreCount, kCanary);
    const hseg::NetHooks hooks = probe_->hooks();
    status_ = hseg::net_forward(image_.data(), kPitch, scores_.data(), hseg::net_linked_weights(),
                                &hooks);
  }
  static void TearDownTestSuite() {
    delete probe_;
    probe_ = nullptr;
  }
  void SetUp() override {
    ASSERT_FALSE(image_.empty());
    ASSERT_EQ(status_, HSEG_OK);
  }

  static std::vector<uint8_t> image_;
  static std::vector<float> scores_;
  static Probe *probe_;
  static MRESULT status_;
};
std::vector<uint8_t> NetPass::image_;
std::vector<float> NetPass::scores_;
Probe *NetPass::probe_ = nullptr;
MRESULT NetPass::status_ = 0;

TEST(NetEntry, RejectsBadArguments) {
  std::vector<uint8_t> bgr(473 * 1419, 128);
  std::vector<float> scores(7200, kCanary);
  EXPECT_EQ(fr_extract_feature_deeplab_pspnet(nullptr, 1419, scores.data(), 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(fr_extract_feature_deeplab_pspnet(bgr.data(), 1419, nullptr, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(fr_extract_feature_deeplab_pspnet(bgr.data(), 1418, scores.data(), 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(fr_extract_feature_deeplab_pspnet(bgr.data(), -1420, scores.data(), 0), HSEG_ERR_BAD_ARGUMENT);
  std::vector<const float *> weights(hseg::net_linked_weights(),
                                     hseg::net_linked_weights() + hseg::kNetTensorCount);
  weights[300] = nullptr;
  EXPECT_EQ(hseg::net_forward(bgr.data(), 1419, scores.data(), weights.data(), nullptr),
            HSEG_ERR_BAD_ARGUMENT);
  for (float s : scores) ASSERT_EQ(s, kCanary);
}

TEST_F(NetPass, ScoresAreFiniteAndGiveBothLabels) {
  int person = 0, bg_positive = 0, person_positive = 0, both_negative = 0;
  for (int i = 0; i < 3600; ++i) {
    const float a = scores_[i], b = scores_[3600 + i];
    ASSERT_TRUE(std::isfinite(a) && std::isfinite(b)) << "cell " << i;
    person += b > std::max(a, 0.0f);  // the coarse mask's rule
    bg_positive += a > 0;
    person_positive += b > 0;
    both_negative += a <= 0 && b <= 0;
  }
  std::printf("astronaut: person %.1f%%, background %.1f%%; background score > 0 on %.1f%%, "
              "person score > 0 on %.1f%%, both <= 0 on %.1f%%\n",
              person / 36.0, (3600 - person) / 36.0, bg_positive / 36.0, person_positive / 36.0,
              both_negative / 36.0);
  // Synthetic weights: no meaning, but both labels over sizeable areas and
  // almost never two non-positive planes (the CRF would have nothing to use).
  EXPECT_GT(person, 360);
  EXPECT_LT(person, 3600 - 360);
  EXPECT_LT(both_negative, 36);
}

// The graph, rebuilt here from the layer functions for a few places: the
// input, the stem's first layer, a block with a strided projection, one
// pyramid branch, the concatenation order (checked through conv5_4) and the
// classifier.
TEST_F(NetPass, GraphMatchesLayerByLayerRecomputation) {
  const auto &taps = probe_->taps;
  for (const char *name : {"data", "conv1_1_3x3_s2", "conv2_3", "conv3_1", "conv5_3",
                           "conv5_3_pool6_interp", "conv5_4"})
    ASSERT_EQ(taps.count(name), 1u) << name;

  // Input: byte minus the channel's mean, planes B, G, R.
  const float means[3] = {104.008f, 116.669f, 122.675f};
  const Probe::Kept &data = taps.at("data");
  for (int k = 0; k < 3; ++k)
    for (int y = 0; y < 473; y += 7)
      for (int x = 0; x < 473; x += 5)
        ASSERT_EQ(data.v[(static_cast<size_t>(k) * 473 + y) * 473 + x],
                  static_cast<float>(image_[y * kPitch + 3 * x + k]) - means[k]);

  expect_same(conv_bn(from_tap(data), "conv1_1_3x3_s2", 64, 3, 2, 1, 1, true),
              taps.at("conv1_1_3x3_s2"), "conv1_1_3x3_s2");

  // conv3_1: stride 2 on the 3x3 and on the projection; sum = (0 + proj) + increase.
  {
    const T x = from_tap(taps.at("conv2_3"));
    const T r = conv_bn(x, "conv3_1_1x1_reduce", 128, 1, 1, 0, 1, true);
    const T m = conv_bn(r, "conv3_1_3x3", 128, 3, 2, 1, 1, true);
    const T u = conv_bn(m, "conv3_1_1x1_increase", 512, 1, 1, 0, 1, false);
    const T p = conv_bn(x, "conv3_1_1x1_proj", 512, 1, 2, 0, 1, false);
    T sum{std::vector<float>(u.v.size()), 512, 60, 60};
    ASSERT_EQ(ly_etlwise_sum(p.v.data(), u.v.data(), 60, 60, 512, sum.v.data()), 0u);
    ASSERT_EQ(ly_relu_float(sum.v.data(), sum.v.data(), 60, 60, 512), 0u);
    expect_same(sum, taps.at("conv3_1"), "conv3_1");
  }

  // Pyramid branch of 6x6 bins: average pooling 10/10, 1x1 conv, resize to 60.
  const T x5 = from_tap(taps.at("conv5_3"));
  {
    T pooled{std::vector<float>(2048 * 36), 2048, 6, 6};
    ASSERT_EQ(ly_pooling_avg_float(x5.v.data(), 60, 60, 2048, pooled.v.data(), 10, 10, 10, 10, 0, 0), 0u);
    const T b = conv_bn(pooled, "conv5_3_pool6_conv", 512, 1, 1, 0, 1, true);
    T up{std::vector<float>(512 * 3600), 512, 60, 60};
    ASSERT_EQ(ly_interp(b.v.data(), up.v.data(), 1, 512, 6, 6, 0, 0, 60, 60), 0u);
    expect_same(up, taps.at("conv5_3_pool6_interp"), "conv5_3_pool6_interp");
  }

  // conv5_4 reads conv5_3, then the branches from the coarsest bins down:
  // pool6, pool3, pool2, pool1.
  {
    T concat{std::vector<float>(), 4096, 60, 60};
    concat.v = x5.v;
    for (const char *b : {"conv5_3_pool6_interp", "conv5_3_pool3_interp", "conv5_3_pool2_interp",
                          "conv5_3_pool1_interp"}) {
      const auto &t = taps.at(b).v;
      concat.v.insert(concat.v.end(), t.begin(), t.end());
    }
    expect_same(conv_bn(concat, "conv5_4", 512, 3, 1, 1, 1, true), taps.at("conv5_4"), "conv5_4");
  }

  // Classifier: 1x1 with bias, nothing after; the scores are its output.
  {
    const T head = from_tap(taps.at("conv5_4"));
    T fc{std::vector<float>(7200), 2, 60, 60};
    ASSERT_EQ(myc_forward_conv(head.v.data(), fc.v.data(), weight("fc8_zembdata", 0),
                               weight("fc8_zembdata", 1), 512, 60, 60, 1, 1, 0, 0, 1, 1, 1, 1, 2), 0u);
    size_t diff = 0;
    EXPECT_TRUE(same_bits(fc.v.data(), scores_.data(), 7200, &diff)) << "score " << diff;
  }
}

TEST_F(NetPass, SameScoresAcrossCallsAndPitches) {
  struct Case {
    int pitch;
    uint8_t pad;
  };
  // The shared pass read pitch 1420 with zero padding.
  for (const Case c : {Case{1419, 0}, Case{1420, 0xA5}}) {
    SCOPED_TRACE(testing::Message() << "pitch " << c.pitch);
    const std::vector<uint8_t> img = hseg_test::astronaut_bgr(c.pitch, c.pad);
    std::vector<float> scores(7200, kCanary);
    ASSERT_EQ(fr_extract_feature_deeplab_pspnet(img.data(), c.pitch, scores.data(), 0), HSEG_OK);
    size_t diff = 0;
    EXPECT_TRUE(same_bits(scores.data(), scores_.data(), 7200, &diff)) << "score " << diff;
  }
}

// The plain route (exported layer functions, every tensor kept to the end)
// against the fast route (fused banded kernels, tensors released after their
// last use): the same scores and the same intermediate tensors, bit for bit.
TEST_F(NetPass, FastRouteMatchesPlainRouteKeepingEveryTensor) {
  Probe plain;
  plain.keep = probe_->keep;
  std::vector<float> scores(7200, kCanary);
  const hseg::NetHooks hooks = plain.hooks(/*plain=*/true, /*keep_all=*/true);
  ASSERT_EQ(hseg::net_forward(image_.data(), kPitch, scores.data(), hseg::net_linked_weights(), &hooks),
            HSEG_OK);
  size_t diff = 0;
  EXPECT_TRUE(same_bits(scores.data(), scores_.data(), 7200, &diff)) << "score " << diff;
  for (const auto &kv : probe_->taps) {
    ASSERT_EQ(plain.taps.count(kv.first), 1u) << kv.first;
    const auto &a = kv.second.v, &b = plain.taps.at(kv.first).v;
    ASSERT_EQ(a.size(), b.size()) << kv.first;
    EXPECT_TRUE(same_bits(a.data(), b.data(), a.size(), &diff)) << kv.first << " element " << diff;
  }
  // The plain route makes the 156 tensors of the graph, 1,486,897,612 bytes
  // together; the fast route holds a small part of that at any time.
  EXPECT_EQ(plain.names.size(), 156u);
  EXPECT_EQ(plain.peak_bytes, 1486897612u);
  EXPECT_TRUE(plain.live.empty());
  EXPECT_TRUE(probe_->live.empty());
  std::printf("tensors and work buffers held at once: fast route %.1f MB, keep-everything %.1f MB\n",
              probe_->peak_bytes / 1e6, plain.peak_bytes / 1e6);
  EXPECT_LT(probe_->peak_bytes, 256u << 20);
}

// A refused allocation at the start, in the middle (conv4_12's output) and
// at the end: status 4, scores untouched, everything released.
TEST_F(NetPass, AllocationFailureReleasesEverything) {
  const auto &names = probe_->names;
  const int64_t middle =
      std::find(names.begin(), names.end(), std::string("conv4_12")) - names.begin() + 1;
  ASSERT_LE(middle, static_cast<int64_t>(names.size()));
  for (const int64_t fail_at : {int64_t{1}, middle, static_cast<int64_t>(names.size())}) {
    SCOPED_TRACE(testing::Message() << "allocation " << fail_at << " of " << names.size() << " ("
                                    << names[fail_at - 1] << ")");
    Probe p;
    p.fail_at = fail_at;
    std::vector<float> scores(7200, kCanary);
    const hseg::NetHooks hooks = p.hooks();
    EXPECT_EQ(hseg::net_forward(image_.data(), kPitch, scores.data(), hseg::net_linked_weights(),
                                &hooks),
              HSEG_ERR_NO_MEMORY);
    EXPECT_EQ(static_cast<int64_t>(p.names.size()), fail_at);
    EXPECT_TRUE(p.live.empty()) << p.live.size() << " blocks left";
    for (float s : scores) ASSERT_EQ(s, kCanary);
  }
}

}  // namespace
