// The network pass: the layer table, the network's own kernels against the
// layer functions, and whole passes on the linked (synthetic) weights.
#include <cblas.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hseg/flatnn.h"
#include "hseg/pipeline.h"
#include "network_test_image.h"
#include "pipeline/net_arena.h"
#include "pipeline/net_gemm.h"
#include "pipeline/net_kernels.h"
#include "pipeline/net_layers.h"
#include "pipeline/net_pool.h"
#include "pipeline/net_winograd.h"
#include "pipeline/network.h"
#include "support/guarded.h"

namespace {

using hseg::kNetLayerCount;
using hseg::kNetLayers;
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

// Index of the first element whose bits differ, or n.
size_t first_diff(const float *a, const float *b, size_t n) {
  size_t i = 0;
  while (i < n && std::memcmp(a + i, b + i, sizeof(float)) == 0) ++i;
  return i;
}

// Each layer reads the channels and size its producer writes, through the
// stem and the 33 blocks (projection or identity shortcut); the
// tensor names and sizes the weights library exports follow from the table.
TEST(NetLayers, TableChainsAndNamesItsTensors) {
  int c = 3, size = 473, i = 0, blocks = 0;
  for (; kNetLayers[i].role == NetRole::kStem; ++i) {
    EXPECT_TRUE(kNetLayers[i].cin == c && kNetLayers[i].in_size == size) << kNetLayers[i].name;
    c = kNetLayers[i].cout;
    size = hseg::net_out_size(kNetLayers[i]);
  }
  size = (size + 2 - 3 + 1) / 2 + 1;  // pool1, 3/2 pad 1 rounded up: 237 -> 119
  for (; kNetLayers[i].role == NetRole::kReduce; ++blocks) {
    const auto &r = kNetLayers[i], &m = kNetLayers[i + 1], &u = kNetLayers[i + 2],
               &p = kNetLayers[i + 3];
    const bool proj = p.role == NetRole::kProj;
    EXPECT_TRUE(r.cin == c && r.in_size == size && m.cin == r.cout && m.in_size == size) << r.name;
    EXPECT_TRUE(u.cin == m.cout && u.cout == 4 * r.cout && u.in_size == hseg::net_out_size(m)) << r.name;
    EXPECT_TRUE(proj ? p.cin == c && p.cout == u.cout && hseg::net_out_size(p) == hseg::net_out_size(u)
                     : c == u.cout) << r.name;  // projection or identity shortcut
    c = u.cout;
    size = hseg::net_out_size(u);
    i += proj ? 4 : 3;
  }
  EXPECT_TRUE(blocks == 33 && c == 2048 && size == 60);
  EXPECT_EQ(i + 6, kNetLayerCount);  // 4 pyramid branches, conv5_4, classifier

  const int inc = hseg::net_first_tensor(layer_index("conv4_23_1x1_increase"));
  const struct {
    int index;
    const char *symbol, *file_name;
  } cases[] = {
      {0, "_CONV1_1_3X3_S2_DATA0_DEEPLAB_PSPNET_", "conv1_1_3x3_s2.weight"},
      {4, "_CONV1_1_3X3_S2_BN_DATA3_DEEPLAB_PSPNET_", "conv1_1_3x3_s2.bn.variance"},
      {inc + 3, "_CONV4_23_1X1_INCREASE_BN_DATA2_DEEPLAB_PSPNET_", "conv4_23_1x1_increase.bn.mean"},
      {556, "_FC8_ZEMBDATA_DATA1_DEEPLAB_PSPNET_", "fc8_zembdata.bias"},
  };
  char buf[96];
  for (const auto &k : cases) {
    ASSERT_TRUE(hseg::net_tensor_symbol(k.index, buf, sizeof buf));
    EXPECT_STREQ(buf, k.symbol);
    ASSERT_TRUE(hseg::net_tensor_file_name(k.index, buf, sizeof buf));
    EXPECT_STREQ(buf, k.file_name);
  }
  EXPECT_FALSE(hseg::net_tensor_symbol(0, buf, 10));  // does not fit
  std::set<std::string> symbols;
  for (int t = 0; t < hseg::kNetTensorCount; ++t) {
    ASSERT_TRUE(hseg::net_tensor_symbol(t, buf, sizeof buf));
    symbols.insert(buf);
    EXPECT_NE(hseg::net_linked_weights()[t], nullptr) << buf;
  }
  EXPECT_EQ(symbols.size(), size_t{hseg::kNetTensorCount});  // all distinct
}

// The fused finishes (portable and AVX2; the passes run whichever this
// machine dispatches to) against ly_bn_frozen,
// ly_etlwise_sum and ly_relu_float, on values that include signed zeros,
// denormals, huge magnitudes and NaN, on the whole tensor and on bands;
// outside the band nothing may change. The residual finish reads a
// band-wide product and works in place on the shortcut.
TEST(NetKernels, FinishesMatchTheLayerFunctions) {
  constexpr int kChannels = 5, kLen = 37, kN = kChannels * kLen;
  std::mt19937 rng(3);
  auto values = [&](float lo, float hi, int n, bool specials) {
    std::vector<float> v(n);
    for (float &x : v) x = std::uniform_real_distribution<float>(lo, hi)(rng);
    const float s[] = {0.0f, -0.0f, 1e-40f, -1e-40f, 3e38f, -3e38f, NAN, 1.0f};
    for (int i = 0; specials && i < 8; ++i) v[i * 19 % n] = s[i];
    return v;
  };
  const std::vector<float> scale = values(-2, 2, kChannels, false),
                           shift = values(-1, 1, kChannels, false),
                           mean = values(-1, 1, kChannels, false);
  std::vector<float> var = values(0, 4, kChannels, false), inv_std(kChannels);
  var[0] = 0.0f;  // inv_std from eps alone
  hseg::net_bn_inv_std(var.data(), kEps, kChannels, inv_std.data());
  const hseg::NetBn bn{scale.data(), shift.data(), mean.data(), inv_std.data()};
  for (const auto &band : {std::make_pair(0, kLen), std::make_pair(3, 20), std::make_pair(36, 37)}) {
    for (int kind = 0; kind < 3; ++kind) {  // BN, BN + ReLU, BN + sum + ReLU
      SCOPED_TRACE(testing::Message() << "kind " << kind << " band " << band.first);
      const std::vector<float> x = values(-3, 3, kN, true), shortcut = values(-3, 3, kN, true);
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
      for (int i = 0; i < kN; ++i)
        if (i % kLen < band.first || i % kLen >= band.second) want[i] = kind == 2 ? shortcut[i] : x[i];
      const int w = band.second - band.first;
      std::vector<float> product(kChannels * w);
      for (int i = 0; i < kChannels * w; ++i) product[i] = x[i / w * kLen + band.first + i % w];
      for (bool avx2 : {false, true}) {
        if (avx2 && !hseg::net_have_avx2()) continue;
        std::vector<float> got = kind == 2 ? shortcut : x;
        if (kind == 2) {
          (avx2 ? hseg::net_bn_add_relu_band_avx2 : hseg::net_bn_add_relu_band_ref)(
              product.data(), w, got.data() + band.first, kLen, kChannels, w, bn);
        } else {
          (avx2 ? hseg::net_bn_band_avx2 : hseg::net_bn_band_ref)(
              got.data(), kLen, kChannels, band.first, band.second, bn, kind == 1);
        }
        EXPECT_EQ(first_diff(want.data(), got.data(), kN), size_t{kN}) << "avx2 " << avx2;
      }
    }
  }
}

// The two column copies against the column formula, on bands of random
// geometries (stride 1 "same" ones, which take the one-copy kernel, and
// strided ones), with the input split over sources, one of them read
// resized as conv5_4 reads the pyramid branches (net_interp_rows against
// ly_interp, from 1x1 up to the unchanged size).
TEST(NetKernels, ColumnCopiesMatchTheFormula) {
  std::mt19937 rng(9);
  for (int k = 0; k < 40; ++k) {
    const int dilation = 1 + static_cast<int>(rng() % 3), kernel = k % 4 == 3 ? 1 : 3;
    const bool same = k % 2 == 0;
    hseg::NetConvGeom g{};
    g.channels = 1 + static_cast<int>(rng() % 9);
    g.size = 1 + static_cast<int>(rng() % 30);
    g.kernel = kernel;
    g.stride = same ? 1 : 1 + static_cast<int>(rng() % 2);
    g.dilation = dilation;
    g.pad = same ? dilation * (kernel - 1) / 2 : static_cast<int>(rng() % 3);
    g.out_size = (g.size + 2 * g.pad - (dilation * (kernel - 1) + 1)) / g.stride + 1;
    if (g.out_size < 1) continue;
    const int row0 = static_cast<int>(rng() % g.out_size);
    const int row1 = row0 + 1 + static_cast<int>(rng() % (g.out_size - row0));
    // Sources: the channels split in two, the second resized from n x n.
    const int first = 1 + static_cast<int>(rng() % g.channels), n = 1 + static_cast<int>(rng() % g.size);
    std::vector<float> a(static_cast<size_t>(first) * g.size * g.size), b(static_cast<size_t>(g.channels - first) * n * n);
    for (float &x : a) x = std::uniform_real_distribution<float>(-1, 1)(rng);
    for (float &x : b) x = std::uniform_real_distribution<float>(-1, 1)(rng);
    hseg::NetSources in{first < g.channels ? 2 : 1, {a.data(), b.data()}, {first, g.channels - first}, {0, n}};
    std::vector<float> dense = a, up(static_cast<size_t>(g.channels - first) * g.size * g.size);
    if (first < g.channels) {
      ASSERT_EQ(ly_interp(b.data(), up.data(), 1, g.channels - first, n, n, 0, 0, g.size, g.size), 0u);
    }
    dense.insert(dense.end(), up.begin(), up.end());
    const size_t band = static_cast<size_t>(row1 - row0) * g.out_size;
    std::vector<float> want(static_cast<size_t>(g.channels) * kernel * kernel * band);
    for (size_t i = 0; i < want.size(); ++i) {
      const int r = static_cast<int>(i / band), col = static_cast<int>(i % band);
      const int c = r / (kernel * kernel), kh = r / kernel % kernel, kw = r % kernel;
      const int ih = (row0 + col / g.out_size) * g.stride - g.pad + kh * dilation;
      const int iw = col % g.out_size * g.stride - g.pad + kw * dilation;
      const bool inside = ih >= 0 && ih < g.size && iw >= 0 && iw < g.size;
      want[i] = inside ? dense[(static_cast<size_t>(c) * g.size + ih) * g.size + iw] : 0.0f;
    }
    for (auto copy : {hseg::net_im2col_rows, hseg::net_im2col_rows_ref}) {
      std::vector<float> got(want.size(), kCanary);
      copy(in, g, row0, row1, got.data());
      ASSERT_EQ(first_diff(want.data(), got.data(), want.size()), want.size())
          << "case " << k << ": size " << g.size << ", kernel " << kernel << ", stride " << g.stride
          << ", pad " << g.pad << ", dilation " << dilation << ", rows [" << row0 << ", " << row1
          << "), ref " << (copy == hseg::net_im2col_rows_ref);
    }
  }
}

// The arena on random requests from both ends: the planning arena's high
// water is exactly what a real arena needs to serve the same requests, and
// no two live blocks of the real arena overlap.
TEST(NetArena, PlannedSizeServesTheSameRequests) {
  std::mt19937 rng(11);
  for (int round = 0; round < 20; ++round) {
    struct Step { bool take, top; size_t bytes; int victim; };
    std::vector<Step> steps;
    for (int i = 0, live = 0; i < 60; ++i) {
      const bool take = live == 0 || (live < 20 && rng() % 3 != 0);
      steps.push_back({take, rng() % 2 == 0, 1 + rng() % 5000, static_cast<int>(rng() % 20)});
      live += take ? 1 : -1;
    }
    // Replays the steps; false when a take fails or two live blocks overlap.
    auto replay = [&](hseg::NetArena &arena) {
      std::vector<std::pair<uint8_t *, size_t>> live;
      for (const Step &s : steps) {
        if (!s.take) {
          const size_t k = s.victim % live.size();
          arena.give(live[k].first);
          live.erase(live.begin() + k);
          continue;
        }
        auto *p = static_cast<uint8_t *>(arena.take(s.bytes, s.top));
        if (p == nullptr) return false;
        for (const auto &b : live)
          if (p < b.first + b.second && b.first < p + s.bytes) return false;
        live.push_back({p, s.bytes});
      }
      return true;
    };
    hseg::NetArena plan;
    ASSERT_TRUE(replay(plan));
    std::vector<uint8_t> memory(plan.high_water());
    hseg::NetArena real(memory.data(), memory.size()), short_one(memory.data(), memory.size() - 1);
    EXPECT_TRUE(replay(real)) << "round " << round;
    EXPECT_FALSE(replay(short_one)) << "round " << round;
  }
}

// Every task runs exactly once on at most the lanes asked for, each lane
// number on one thread only (tasks use their lane's share of a buffer), also
// when four callers share the pool (asking for 1 to 4 lanes, more than there
// are cores) and when there are fewer tasks than lanes.
TEST(NetPool, EveryTaskRunsOnceWithConcurrentCallers) {
  constexpr int kCallers = 4, kTasks = 257;
  std::vector<std::vector<int>> runs(kCallers, std::vector<int>(kTasks, 0));
  std::vector<int> most_threads(kCallers, 0);
  std::vector<std::thread> callers;
  for (int k = 0; k < kCallers; ++k)
    callers.emplace_back([&, k] {
      for (int rep = 0; rep < 50; ++rep) {
        std::mutex m;
        std::set<std::thread::id> threads;
        std::map<int, std::thread::id> lanes;
        bool lanes_ok = true;
        hseg::net_parallel(k + 1, rep % 2 ? kTasks : 3, [&](int t, int lane) {
          ++runs[k][t];
          std::lock_guard<std::mutex> lock(m);
          threads.insert(std::this_thread::get_id());
          lanes_ok &= lane >= 0 && lane <= k &&
                      lanes.emplace(lane, std::this_thread::get_id()).first->second ==
                          std::this_thread::get_id();
        });
        EXPECT_TRUE(lanes_ok) << "caller " << k;
        most_threads[k] = std::max(most_threads[k], static_cast<int>(threads.size()));
      }
    });
  for (auto &t : callers) t.join();
  for (int k = 0; k < kCallers; ++k) {
    EXPECT_LE(most_threads[k], k + 1) << "caller " << k;
    for (int t = 0; t < kTasks; ++t)
      ASSERT_EQ(runs[k][t], t < 3 ? 50 : 25) << "caller " << k << " task " << t;
  }
}

// OpenBLAS's K-block is found, and a product as deep as conv5_4's (36864)
// cut into K-slices by the pass's rule, with slices of one and of five
// blocks, gives the bits of the whole product.
TEST(NetGemm, KSlicesGiveTheWholeProduct) {
  const int block = hseg::net_gemm_k_block();
  RecordProperty("k_block", block);
  ASSERT_GT(block, 0) << "no K-block found: conv5_4 would go in narrow row bands";
  constexpr int kM = 32, kN = 120, kK = 36864;
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> value(-1.0f, 1.0f);
  std::vector<float> a(size_t{kM} * kK), b(size_t{kK} * kN), whole(kM * kN), split(kM * kN);
  for (float &v : a) v = value(rng);
  for (float &v : b) v = value(rng);
  cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kM, kN, kK, 1.0f, a.data(), kK, b.data(),
              kN, 0.0f, whole.data(), kN);
  for (int blocks : {1, 5}) {
    std::fill(split.begin(), split.end(), kCanary);
    for (int64_t k0 = 0, k1; k0 < kK; k0 = k1) {
      k1 = hseg::net_gemm_k_slice_end(k0, kK, int64_t{blocks} * block);
      cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kM, kN, static_cast<int>(k1 - k0),
                  1.0f, a.data() + k0, kK, b.data() + k0 * kN, kN, k0 == 0 ? 0.0f : 1.0f,
                  split.data(), kN);
    }
    EXPECT_EQ(first_diff(whole.data(), split.data(), whole.size()), whole.size())
        << "slices of " << blocks << " blocks";
  }
}

// Products cut in parts over the lanes, with OpenBLAS held at one thread,
// give the bits of the whole product on OpenBLAS's threads: the network's
// shapes, among them the pyramid branches' few columns and the classifier
// product, whose parts OpenBLAS would send to kernels that do not block K,
// and a part added to C (beta 1) as conv5_4's slices are.
TEST(NetGemm, PartsOnLanesGiveTheWholeProduct) {
  struct Shape {
    int m, n, k;
    float beta;
  };
  const Shape shapes[] = {{512, 1, 2048, 0}, {512, 4, 2048, 0}, {512, 36, 2048, 0},
                          {2, 3600, 512, 0}, {64, 3000, 27, 0},  {128, 1800, 1152, 0},
                          {96, 900, 1600, 1}};
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> value(-1.0f, 1.0f);
  const int threads = openblas_get_num_threads();
  for (const Shape &s : shapes) {
    std::vector<float> a(size_t{1} * s.m * s.k), b(size_t{1} * s.k * s.n);
    std::vector<float> c0(size_t{1} * s.m * s.n);
    for (float &v : a) v = value(rng);
    for (float &v : b) v = value(rng);
    for (float &v : c0) v = value(rng);
    std::vector<float> whole = c0;
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, s.m, s.n, s.k, 1.0f, a.data(), s.k,
                b.data(), s.n, s.beta, whole.data(), s.n);
    for (int lanes : {2, 3, 4}) {
      std::vector<float> parts = c0;
      {
        const hseg::NetBlasLanes blas(lanes);
        const hseg::NetBlasLanes nested(lanes);  // a second pass at once
        EXPECT_EQ(openblas_get_num_threads(), 1);
        hseg::net_gemm(blas.lanes(), s.m, s.n, s.k, a.data(), s.k, b.data(), s.n, s.beta,
                       parts.data(), s.n);
      }
      EXPECT_EQ(openblas_get_num_threads(), threads);
      EXPECT_EQ(first_diff(whole.data(), parts.data(), whole.size()), whole.size())
          << s.m << "x" << s.n << "x" << s.k << " on " << lanes << " lanes";
    }
  }
}

TEST(NetEntry, RejectsBadArgumentsLeavingScoresUntouched) {
  std::vector<uint8_t> bgr(473 * 1419, 128);
  std::vector<float> scores(7200, kCanary);
  EXPECT_EQ(fr_extract_feature_deeplab_pspnet(nullptr, 1419, scores.data(), 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(fr_extract_feature_deeplab_pspnet(bgr.data(), 1419, nullptr, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(fr_extract_feature_deeplab_pspnet(bgr.data(), 1418, scores.data(), 0), HSEG_ERR_BAD_ARGUMENT);
  std::vector<const float *> weights(hseg::net_linked_weights(),
                                     hseg::net_linked_weights() + hseg::kNetTensorCount);
  weights[300] = nullptr;
  EXPECT_EQ(hseg::net_forward(bgr.data(), 1419, scores.data(), weights.data(), nullptr),
            HSEG_ERR_BAD_ARGUMENT);
  for (float s : scores) ASSERT_EQ(s, kCanary);
}

// ---------------------------------------------------------------------------
// Whole passes

struct Tensor {
  std::vector<float> v;
  int c = 0, h = 0, w = 0;
};

// Records allocations (and can refuse one) and keeps copies of chosen taps.
struct Probe {
  std::string fail_name;  // the allocation to refuse, by name
  std::vector<std::string> names;
  std::map<void *, size_t> live;
  size_t live_bytes = 0, peak_bytes = 0;
  std::set<std::string> keep;
  std::map<std::string, Tensor> taps;
  int shown = 0;  // tensors the pass has finished

  hseg::NetHooks hooks(bool ref = false) {
    hseg::NetHooks h;
    h.alloc = [](void *user, size_t bytes, const char *what) -> void * {
      auto *p = static_cast<Probe *>(user);
      p->names.push_back(what);
      void *mem = what == p->fail_name ? nullptr : std::malloc(bytes);
      if (mem == nullptr) return nullptr;
      p->live[mem] = bytes;
      p->peak_bytes = std::max(p->peak_bytes, p->live_bytes += bytes);
      return mem;
    };
    h.release = [](void *user, void *ptr) {
      auto *p = static_cast<Probe *>(user);
      ASSERT_EQ(p->live.count(ptr), 1u) << "release of a block not allocated";
      p->live_bytes -= p->live[ptr];
      p->live.erase(ptr);
      std::free(ptr);
    };
    h.tap = [](void *user, const hseg::NetTap &t) {
      auto *p = static_cast<Probe *>(user);
      ++p->shown;
      if (p->keep.count(t.name) == 0) return;
      const int64_t n = int64_t{t.channels} * t.height * t.width;
      p->taps[t.name] = Tensor{std::vector<float>(t.data, t.data + n), t.channels, t.height, t.width};
    };
    h.user = this;
    h.ref_route = ref;
    return h;
  }
};

const float *weight(const std::string &layer, int part) {
  return hseg::net_linked_weights()[hseg::net_first_tensor(layer_index(layer)) + part];
}

// Convolution + batch norm (+ ReLU) through the layer functions, geometry
// written out here rather than read from the table.
Tensor conv_bn(const Tensor &in, const std::string &layer, int cout, int k, int stride, int pad,
               int dil, bool relu) {
  const int out = (in.h + 2 * pad - (dil * (k - 1) + 1)) / stride + 1;
  Tensor o{std::vector<float>(static_cast<size_t>(cout) * out * out), cout, out, out};
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

void expect_same(const Tensor &want, const Tensor &got, const std::string &what) {
  ASSERT_TRUE(want.c == got.c && want.h == got.h && want.v.size() == got.v.size()) << what;
  const size_t d = first_diff(want.v.data(), got.v.data(), want.v.size());
  EXPECT_EQ(d, want.v.size()) << what << ": element " << d << " is " << got.v[d]
                              << ", expected " << want.v[d];
}

// One pass on the photograph at pitch 1420 with garbage in the padding, on
// the caller's thread alone, shared by the tests below.
class NetPass : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    image_ = hseg_test::astronaut_bgr(kPitch, 0xA5);
    probe_ = std::make_unique<Probe>();
    probe_->keep = {"data", "conv1_1_3x3_s2", "conv2_3", "conv3_1", "conv5_3",
                    "conv5_3_pool1_conv", "conv5_3_pool2_conv", "conv5_3_pool3_conv",
                    "conv5_3_pool6_conv", "conv5_4"};
    scores_.assign(hseg::kNetScoreCount, kCanary);
    hseg::NetHooks hooks = probe_->hooks();
    hooks.threads = 1;
    if (!image_.empty())
      status_ = hseg::net_forward(image_.data(), kPitch, scores_.data(), hseg::net_linked_weights(),
                                  &hooks);
  }
  static void TearDownTestSuite() { probe_.reset(); }
  void SetUp() override {
    ASSERT_FALSE(image_.empty()) << "cannot read examples/astronaut.png";
    ASSERT_EQ(status_, HSEG_OK);
  }

  static inline std::vector<uint8_t> image_;
  static inline std::vector<float> scores_;
  static inline std::unique_ptr<Probe> probe_;
  static inline MRESULT status_ = ~0u;
};

// A second pass on 3 threads (more than this machine's cores, so the
// channel ranges fall unevenly), from rows packed at pitch 1419 that end at
// a guard page into scores that end at one, gives the same bits; the scores
// are finite and, though the synthetic weights mean nothing, give both
// labels over sizeable areas and almost never two non-positive planes (the
// CRF would have nothing to use).
TEST_F(NetPass, ScoresDoNotDependOnThreadsAndGiveBothLabels) {
  const std::vector<uint8_t> packed = hseg_test::astronaut_bgr(1419);
  hseg_test::GuardedBuffer img(packed.size()), out(7200 * sizeof(float));
  std::copy(packed.begin(), packed.end(), img.data());
  float *scores = reinterpret_cast<float *>(out.data());
  hseg::NetHooks hooks;
  hooks.threads = 3;
  ASSERT_EQ(hseg::net_forward(img.data(), 1419, scores, hseg::net_linked_weights(), &hooks), HSEG_OK);
  EXPECT_EQ(first_diff(scores, scores_.data(), 7200), 7200u);
  int person = 0, both_negative = 0;
  for (int i = 0; i < 3600; ++i) {
    const float a = scores_[i], b = scores_[3600 + i];
    ASSERT_TRUE(std::isfinite(a) && std::isfinite(b)) << "cell " << i;
    person += b > std::max(a, 0.0f);  // the coarse mask's rule
    both_negative += a <= 0 && b <= 0;
  }
  EXPECT_GT(person, 360);
  EXPECT_LT(person, 3600 - 360);
  EXPECT_LT(both_negative, 36);
}

// The graph, rebuilt here from the layer functions for a few places: the
// input, the stem's first layer, a block with a strided projection, one
// pyramid branch, the concatenation order (through conv5_4's first channels)
// and the classifier.
TEST_F(NetPass, GraphMatchesLayerByLayerRecomputation) {
  const auto &taps = probe_->taps;
  ASSERT_EQ(taps.size(), probe_->keep.size());
  // Input: byte minus the channel's mean, planes B, G, R.
  const float means[3] = {104.008f, 116.669f, 122.675f};
  const Tensor &data = taps.at("data");
  for (int k = 0; k < 3; ++k)
    for (int y = 0; y < 473; y += 7)
      for (int x = 0; x < 473; x += 5)
        ASSERT_EQ(data.v[(static_cast<size_t>(k) * 473 + y) * 473 + x],
                  static_cast<float>(image_[y * kPitch + 3 * x + k]) - means[k]);

  expect_same(conv_bn(data, "conv1_1_3x3_s2", 64, 3, 2, 1, 1, true), taps.at("conv1_1_3x3_s2"),
              "conv1_1_3x3_s2");

  // conv3_1: stride 2 on the 3x3 and on the projection; sum = proj + increase.
  const Tensor &x2 = taps.at("conv2_3");
  const Tensor r = conv_bn(x2, "conv3_1_1x1_reduce", 128, 1, 1, 0, 1, true);
  const Tensor m = conv_bn(r, "conv3_1_3x3", 128, 3, 2, 1, 1, true);
  const Tensor u = conv_bn(m, "conv3_1_1x1_increase", 512, 1, 1, 0, 1, false);
  const Tensor p = conv_bn(x2, "conv3_1_1x1_proj", 512, 1, 2, 0, 1, false);
  Tensor sum{std::vector<float>(u.v.size()), 512, 60, 60};
  ASSERT_EQ(ly_etlwise_sum(p.v.data(), u.v.data(), 60, 60, 512, sum.v.data()), 0u);
  ASSERT_EQ(ly_relu_float(sum.v.data(), sum.v.data(), 60, 60, 512), 0u);
  expect_same(sum, taps.at("conv3_1"), "conv3_1");

  // Pyramid branch of 6x6 bins: average pooling 10/10, 1x1 conv.
  const Tensor &x5 = taps.at("conv5_3");
  Tensor pooled{std::vector<float>(2048 * 36), 2048, 6, 6};
  ASSERT_EQ(ly_pooling_avg_float(x5.v.data(), 60, 60, 2048, pooled.v.data(), 10, 10, 10, 10, 0, 0), 0u);
  expect_same(conv_bn(pooled, "conv5_3_pool6_conv", 512, 1, 1, 0, 1, true),
              taps.at("conv5_3_pool6_conv"), "conv5_3_pool6_conv");

  // conv5_4 reads conv5_3, then the branches resized to 60x60 from the
  // coarsest bins down; its first 8 output channels (filters and batch-norm
  // entries come first) see every input channel.
  Tensor concat{x5.v, 4096, 60, 60};
  for (int bins : {6, 3, 2, 1}) {
    const Tensor &b = taps.at("conv5_3_pool" + std::to_string(bins) + "_conv");
    std::vector<float> up(512 * 3600);
    ASSERT_EQ(ly_interp(b.v.data(), up.data(), 1, 512, bins, bins, 0, 0, 60, 60), 0u);
    concat.v.insert(concat.v.end(), up.begin(), up.end());
  }
  const Tensor &x54 = taps.at("conv5_4");
  expect_same(conv_bn(concat, "conv5_4", 8, 3, 1, 1, 1, true),
              Tensor{std::vector<float>(x54.v.begin(), x54.v.begin() + 8 * 3600), 8, 60, 60}, "conv5_4");

  // Classifier: 1x1 with bias, nothing after; the scores are its output.
  Tensor fc{std::vector<float>(7200), 2, 60, 60};
  ASSERT_EQ(myc_forward_conv(x54.v.data(), fc.v.data(), weight("fc8_zembdata", 0),
                             weight("fc8_zembdata", 1), 512, 60, 60, 1, 1, 0, 0, 1, 1, 1, 1, 2), 0u);
  expect_same(fc, Tensor{scores_, 2, 60, 60}, "scores");
}

// The reference route (exported layer functions, every tensor kept to the end)
// against the fast route (fused banded kernels in one arena, tensors released
// after their last use): the same scores and intermediate tensors, bit for
// bit, and the fast route holds all it needs in one arena.
TEST_F(NetPass, FastRouteMatchesReferenceRouteKeepingEveryTensor) {
  Probe ref;
  ref.keep = probe_->keep;
  std::vector<float> scores(7200, kCanary);
  hseg::NetHooks hooks = ref.hooks(/*ref_route=*/true);
  hooks.keep_all = true;
  ASSERT_EQ(hseg::net_forward(image_.data(), kPitch, scores.data(), hseg::net_linked_weights(), &hooks),
            HSEG_OK);
  expect_same(Tensor{scores, 2, 60, 60}, Tensor{scores_, 2, 60, 60}, "scores");
  for (const auto &kv : probe_->taps) expect_same(ref.taps[kv.first], kv.second, kv.first);
  EXPECT_TRUE(ref.live.empty() && probe_->live.empty());
  // The arena stays within what keeps a whole Hseg call under 400 MB
  // resident beside the 263 MB of weights.
  EXPECT_EQ(probe_->names, std::vector<std::string>{"arena"});
  EXPECT_LT(probe_->peak_bytes, 110u * 1000 * 1000);
}

// The filter cache of the fast-network tests, on an allocator that counts
// its blocks (apart from the pass's, which go through the probe) and can
// refuse the next one.
int g_cache_blocks = 0;
bool g_cache_refuse = false;
void *cache_alloc(size_t bytes) {
  if (g_cache_refuse) return nullptr;
  ++g_cache_blocks;
  return std::malloc(bytes);
}
void cache_release(void *p, size_t) {
  --g_cache_blocks;
  std::free(p);
}

// The fast network on the photograph (against the shared exact pass) and on
// a second picture, without a person (against its own exact pass): scores
// within 1e-3 of the largest score's magnitude.
TEST_F(NetPass, FastNetworkScoresStayWithinTheBound) {
  const std::vector<uint8_t> coffee = hseg_test::example_bgr("coffee.png", kPitch);
  ASSERT_FALSE(coffee.empty());
  std::vector<float> coffee_scores(7200);
  ASSERT_EQ(hseg::net_forward(coffee.data(), kPitch, coffee_scores.data(), hseg::net_linked_weights(),
                              nullptr), HSEG_OK);
  hseg::NetFilterCache cache(cache_alloc, cache_release);
  const struct {
    const char *name;
    const std::vector<uint8_t> *image;
    const std::vector<float> *exact;
  } pictures[] = {{"astronaut", &image_, &scores_}, {"coffee", &coffee, &coffee_scores}};
  for (const auto &[name, image, exact] : pictures) {
    Probe p;
    hseg::NetHooks hooks = p.hooks();
    hooks.winograd = true;
    hooks.filters = &cache;
    std::vector<float> fast(7200, kCanary);
    ASSERT_EQ(hseg::net_forward(image->data(), kPitch, fast.data(), hseg::net_linked_weights(), &hooks),
              HSEG_OK);
    float largest = 0, worst = 0;
    for (int i = 0; i < 7200; ++i) {
      largest = std::max(largest, std::fabs((*exact)[i]));
      worst = std::max(worst, std::fabs(fast[i] - (*exact)[i]));
    }
    EXPECT_LE(worst, 1e-3f * largest) << name;
    EXPECT_TRUE(p.live.empty()) << name;
  }
  EXPECT_EQ(g_cache_blocks, 1);  // made once, used twice
}

// A refused allocation at each point of each route, in the order taken: the
// fast network's filter cache, then its arena; the fast route's one arena
// (taken before any work, so before OpenBLAS needs memory); the reference
// route's conv3_1 output, in the middle of the pass. Status 4, scores
// untouched, every block of the pass released, nothing asked for after the
// refusal. The cache's block, once made, belongs to the cache (its own
// allocator counts it, apart from the probe's) until the cache dies.
TEST_F(NetPass, AllocationFailureReleasesEverything) {
  {
    hseg::NetFilterCache cache(cache_alloc, cache_release);
    const struct {
      const char *fail;
      bool winograd, refuse_cache, ref;
    } cases[] = {{"arena", true, true, false}, {"arena", true, false, false},
                 {"arena", false, false, false}, {"conv3_1", false, false, true}};
    for (const auto &c : cases) {
      Probe p;
      p.fail_name = c.fail;
      g_cache_refuse = c.refuse_cache;
      hseg::NetHooks hooks = p.hooks(c.ref);
      hooks.winograd = c.winograd;
      hooks.filters = &cache;
      std::vector<float> scores(7200, kCanary);
      EXPECT_EQ(hseg::net_forward(image_.data(), kPitch, scores.data(), hseg::net_linked_weights(),
                                  &hooks), HSEG_ERR_NO_MEMORY) << c.fail;
      g_cache_refuse = false;
      EXPECT_EQ(p.names.empty() ? "the cache" : p.names.back(), c.refuse_cache ? "the cache" : c.fail);
      EXPECT_TRUE(c.ref || p.shown == 0) << "computed before taking its memory";
      EXPECT_TRUE(p.live.empty()) << c.fail << ": " << p.live.size() << " blocks left";
      EXPECT_EQ(g_cache_blocks, c.refuse_cache ? 0 : 1);
      for (float s : scores) ASSERT_EQ(s, kCanary);
    }
  }
  EXPECT_EQ(g_cache_blocks, 0);
}

}  // namespace
