// Segmentation entry: argument checks, the coarse-mask rule, the stages
// around the network (with the network replaced by a function of the guide
// image), allocation failures, and end to end on the built-in weights.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "hseg/hseg.h"
#include "network_test_image.h"
#include "pipeline/segment_internal.h"
#include "support/alloc_hooks.h"
#include "support/guarded.h"
#include "support/resize_images.h"

namespace {

using namespace hseg_test;
using hseg::kNetInputSize;
using hseg::kScoreCells;
using hseg::kNetScoreSize;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// A 640x480 scene: a textured gradient background and a reddish figure (an
// ellipse for the body, a disc for the head) whose edges the CRF can follow.
// Y, U, V are full range (the inverse of the library's conversion), each
// chroma sample the mean over its 2x2 block; make_frame lays the scene out in
// any input format, every pitch 8 bytes past its row.
Picture scene() {
  constexpr int w = 640, h = 480;
  Picture s{w, h, std::vector<uint8_t>(3 * w * h), std::vector<uint8_t>(w * h), {}, {}};
  std::vector<double> u(w * h / 4), v(w * h / 4);
  s.u.resize(u.size()), s.v.resize(v.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t *p = &s.bgr[3 * (y * w + x)];
      const bool check = ((x / 16) + (y / 16)) % 2 == 0;
      p[0] = static_cast<uint8_t>(120 + x / 8 + (check ? 10 : 0));
      p[1] = static_cast<uint8_t>(110 + y / 8);
      p[2] = static_cast<uint8_t>(60 + (check ? 8 : 0));
      const double bx = (x - 320) / 130.0, by = (y - 330) / 160.0;
      const double hx = (x - 320) / 60.0, hy = (y - 130) / 60.0;
      if (bx * bx + by * by < 1.0 || hx * hx + hy * hy < 1.0) {
        p[0] = 50;
        p[1] = 80 + (x % 7);
        p[2] = 210;
      }
      const double luma = 0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2];
      s.y[y * w + x] = static_cast<uint8_t>(std::lround(std::clamp(luma, 0.0, 255.0)));
      u[y / 2 * (w / 2) + x / 2] += (128.0 + (p[0] - luma) / 1.773) / 4;
      v[y / 2 * (w / 2) + x / 2] += (128.0 + (p[2] - luma) / 1.403) / 4;
    }
  for (size_t i = 0; i < u.size(); ++i) {
    s.u[i] = static_cast<uint8_t>(std::lround(std::clamp(u[i], 0.0, 255.0)));
    s.v[i] = static_cast<uint8_t>(std::lround(std::clamp(v[i], 0.0, 255.0)));
  }
  return s;
}

// A caller's mask buffer, rows `pad` bytes apart, filled with the canary so
// that unwritten bytes show.
struct Mask : Raster {
  OffscreenImage desc;
  Mask(int w, int h, int pad = 0)
      : Raster(w, h, 1, pad), desc{HSEG_PIXFMT_GRAY, w, h, {px.data()}, {pitch}} {}
  Mask(const Mask &) = delete;
};

bool binary(const std::vector<uint8_t> &m) {
  return std::all_of(m.begin(), m.end(), [](uint8_t b) { return b == 0 || b == 255; });
}

// ---------------------------------------------------------------------------
// A stand-in for the network: person score 0.9 where the guide is red, else
// 0.1, sampled near each coarse cell's corner. It records what it is given.
// ---------------------------------------------------------------------------
struct FakeNet {
  MRESULT status = HSEG_OK;
  int calls = 0;
  bool guide_black = true, scores_zeroed = true;
  static MRESULT run(void *ctx, const uint8_t *bgr, int32_t pitch, float *scores) {
    auto *self = static_cast<FakeNet *>(ctx);
    ++self->calls;
    for (int y = 0; y < kNetInputSize; ++y)
      for (int x = 0; x < 3 * kNetInputSize; ++x) self->guide_black &= bgr[y * pitch + x] == 0;
    for (int i = 0; i < 2 * kScoreCells; ++i) self->scores_zeroed &= scores[i] == 0.0f;
    if (self->status != HSEG_OK) return self->status;
    fake_scores(bgr, pitch, scores);
    return HSEG_OK;
  }
  static void fake_scores(const uint8_t *bgr, int32_t pitch, float *scores) {
    for (int cy = 0; cy < kNetScoreSize; ++cy)
      for (int cx = 0; cx < kNetScoreSize; ++cx) {
        const uint8_t *p = bgr + (cy * kNetInputSize / kNetScoreSize + 4) * pitch +
                           3 * (cx * kNetInputSize / kNetScoreSize + 4);
        const float person = (p[2] > 150 && p[0] < 100) ? 0.9f : 0.1f;
        scores[cy * kNetScoreSize + cx] = 1.0f - person;
        scores[kScoreCells + cy * kNetScoreSize + cx] = person;
      }
  }
  hseg::NetworkHook hook() { return hseg::NetworkHook{run, this}; }
};

// ---------------------------------------------------------------------------
// The coarse mask and FigureNet_il
// ---------------------------------------------------------------------------

// One case per cell, the rest background: a rule that mixes up cells or
// planes shows too.
TEST(CoarseMask, EdgeCasesOfTheRule) {
  struct Case {
    float background, person;
    uint8_t want;
  };
  const Case cases[] = {
      {0.2f, 0.8f, 255}, {0.8f, 0.2f, 0},  {0.5f, 0.5f, 0},  // equal planes: strict
      {-1.0f, 0.0f, 0},  // person equal to the threshold 0 when background < 0
      {-1.0f, std::numeric_limits<float>::denorm_min(), 255},
      {-5.0f, -1.0f, 0},  // negative person score, even above the background
      {kNaN, 1.0f, 255},  {kNaN, 0.0f, 0},  // a NaN background counts as 0
      {-1.0f, kNaN, 0},   {kNaN, kNaN, 0},  // NaN person: 0
  };
  std::vector<float> scores(2 * kScoreCells, 0.0f);
  std::fill(scores.begin(), scores.begin() + kScoreCells, 1.0f);
  for (size_t i = 0; i < std::size(cases); ++i)
    scores[i] = cases[i].background, scores[kScoreCells + i] = cases[i].person;
  std::vector<uint8_t> mask(kScoreCells, kCanary);
  hseg::coarse_mask(scores.data(), mask.data());
  for (size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(mask[i], cases[i].want) << "background " << cases[i].background << ", person " << cases[i].person;
  EXPECT_EQ(std::count(mask.begin() + std::size(cases), mask.end(), 0), kScoreCells - std::size(cases));
}

// A null score buffer gets a zeroed scratch, so a failed pass still leaves a
// defined (all-background) mask, and a caller's buffer gets the scores; the
// network's status is passed on. The guide ends and the mask and scores
// begin at a guard page, rows packed. Missing
// buffers, and descriptors FigureNet_il cannot serve, are refused before
// anything is read or written (a 10x10 input over 300 bytes was read as 473
// rows, a 10x10 output over 100 bytes written 3600).
TEST(FigureNet, NullScoreBufferStatusAndDescriptorsItCannotServe) {
  using hseg_test::GuardedBuffer;
  using hseg_test::GuardedImage;
  const auto after = GuardedBuffer::kGuardAfter, before = GuardedBuffer::kGuardBefore;
  const uint32_t bgr = HSEG_PIXFMT_BGR24, grey = HSEG_PIXFMT_GRAY;
  GuardedImage guide(bgr, kNetInputSize, kNetInputSize, after, 0), out(grey, 60, 60, before, kCanary);
  for (int y = 0; y < kNetInputSize; ++y)  // red on the left half: the person
    for (int x = 0; x < kNetInputSize / 2; ++x) guide.desc().planes[0][y * 3 * kNetInputSize + 3 * x + 2] = 255;
  const uint8_t *mask = out.desc().planes[0];
  FakeNet net;
  ASSERT_EQ(hseg::figure_net(&guide.desc(), &out.desc(), nullptr, net.hook()), HSEG_OK);
  EXPECT_TRUE(net.scores_zeroed);
  for (int i = 0; i < kScoreCells; ++i)
    ASSERT_EQ(mask[i], (i % kNetScoreSize) < kNetScoreSize / 2 ? 255 : 0) << "cell " << i;
  GuardedBuffer score_bytes(2 * kScoreCells * sizeof(float), before, 0);
  float *scores = reinterpret_cast<float *>(score_bytes.data());
  ASSERT_EQ(hseg::figure_net(&guide.desc(), &out.desc(), scores, net.hook()), HSEG_OK);
  EXPECT_TRUE(scores[kScoreCells] == 0.9f && scores[2 * kScoreCells - 1] == 0.1f);  // person left only
  net.status = 9;
  EXPECT_EQ(hseg::figure_net(&guide.desc(), &out.desc(), nullptr, net.hook()), 9u);
  EXPECT_EQ(std::count(mask, mask + kScoreCells, 0), kScoreCells);

  std::fill(out.desc().planes[0], out.desc().planes[0] + kScoreCells, kCanary);
  OffscreenImage no_plane{}, narrow = guide.desc();
  narrow.pitches[0] = 3 * kNetInputSize - 1;
  for (const auto &[in, dst] : {std::pair{&no_plane, &out.desc()}, {&narrow, &out.desc()},
                                {&guide.desc(), &no_plane}, {nullptr, &out.desc()}, {&guide.desc(), nullptr}})
    EXPECT_EQ(FigureNet_il(nullptr, in, dst, 0, nullptr, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(std::count(mask, mask + kScoreCells, kCanary), kScoreCells);
  const struct { uint32_t in_format; int in_w, in_h; uint32_t out_format; int out_w, out_h, out_pitch; } cases[] = {
      {bgr, 10, 10, grey, 60, 60, 60},       {bgr, kNetInputSize, kNetInputSize, grey, 10, 10, 10},
      {grey, kNetInputSize, kNetInputSize, grey, 60, 60, 60}, {bgr, kNetInputSize, kNetInputSize - 1, grey, 60, 60, 60},
      {bgr, kNetInputSize, kNetInputSize, bgr, 60, 60, 180},  {bgr, kNetInputSize, kNetInputSize, grey, 61, 61, 60}};
  for (const auto &c : cases) {
    GuardedImage in(c.in_format, c.in_w, c.in_h, after);
    GuardedBuffer out_bytes(size_t(c.out_pitch) * (c.out_h - 1) + c.out_w, before, kCanary);
    OffscreenImage dst{c.out_format, c.out_w, c.out_h, {out_bytes.data()}, {c.out_pitch}};
    EXPECT_EQ(FigureNet_il(nullptr, &in.desc(), &dst, 0, nullptr, 0), HSEG_ERR_BAD_ARGUMENT)
        << c.in_w << "x" << c.in_h << " into " << c.out_w << "x" << c.out_h;
    EXPECT_EQ(std::count(out_bytes.data(), out_bytes.data() + out_bytes.size(), kCanary),
              std::ptrdiff_t(out_bytes.size()));
  }
}

// ---------------------------------------------------------------------------
// Argument checks: status 2 before anything is allocated
// ---------------------------------------------------------------------------

// Hseg's and HsegEx's bad arguments and records give 2 before anything is
// allocated or written: one source row for each format the area resize
// takes (its own test walks each plane's pointer and pitch).
TEST(HsegArguments, BadArgumentsFailBeforeAnyAllocation) {
  std::vector<uint8_t> pixels(3 * 600 * 600, 0), dst_bytes(100, kCanary);
  uint8_t *p = pixels.data(), *d = dst_bytes.data();
  auto image = [](uint32_t fmt, int w, int h, std::array<int32_t, 3> pitch, std::array<uint8_t *, 3> plane) {
    return OffscreenImage{fmt, w, h, {plane[0], plane[1], plane[2]}, {pitch[0], pitch[1], pitch[2]}};
  };
  const OffscreenImage src = image(HSEG_PIXFMT_BGR24, 500, 500, {1500}, {p});
  const OffscreenImage dst = image(HSEG_PIXFMT_GRAY, 10, 10, {10}, {d});
  struct Case {
    const char *what;
    OffscreenImage src, dst;
  };
  const Case cases[] = {
      {"dst width 0", src, image(HSEG_PIXFMT_GRAY, 0, 10, {10}, {d})},
      {"dst negative height", src, image(HSEG_PIXFMT_GRAY, 10, -3, {10}, {d})},
      {"dst plane null", src, image(HSEG_PIXFMT_GRAY, 10, 10, {10}, {nullptr})},
      {"dst pitch below width", src, image(HSEG_PIXFMT_GRAY, 10, 10, {9}, {d})},
      {"src width 0", image(HSEG_PIXFMT_BGR24, 0, 500, {1500}, {p}), dst},
      {"src height -1", image(HSEG_PIXFMT_BGR24, 500, -1, {1500}, {p}), dst},
      {"bgr pitch short", image(HSEG_PIXFMT_BGR24, 500, 500, {1499}, {p}), dst},
      {"yuy2 odd width pitch", image(HSEG_PIXFMT_YUY2, 501, 500, {1002}, {p}), dst},
      {"i420 V plane null", image(HSEG_PIXFMT_I420, 500, 500, {500, 250, 250}, {p, p, nullptr}), dst},
      {"nv21 chroma plane null", image(HSEG_PIXFMT_NV21, 500, 500, {500, 500}, {p, nullptr}), dst},
  };
  for (Case c : cases) {
    hseg_test::alloc_reset();
    HsegStageTimes times;
    EXPECT_EQ(Hseg(nullptr, &c.src, &c.dst, 0, 0), HSEG_ERR_BAD_ARGUMENT) << c.what;
    EXPECT_EQ(HsegTimed(nullptr, &c.src, &c.dst, 0, 0, &times), HSEG_ERR_BAD_ARGUMENT) << c.what;
    EXPECT_EQ(hseg_test::alloc_calls(), 0) << c.what;
  }
  OffscreenImage out = dst;
  EXPECT_EQ(Hseg(nullptr, nullptr, &out, 0, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Hseg(nullptr, &src, nullptr, 0, 0), HSEG_ERR_BAD_ARGUMENT);
  // HsegEx's options: a size below the first version's or an unknown network.
  const HsegOptions bad[] = {{0, HSEG_NETWORK_EXACT, nullptr}, {7, HSEG_NETWORK_EXACT, nullptr},
                             {sizeof(HsegOptions), 2, nullptr}, {8, 0xFFFFFFFFu, nullptr}};
  for (const HsegOptions &o : bad) {
    hseg_test::alloc_reset();
    EXPECT_EQ(HsegEx(nullptr, &src, &out, &o), HSEG_ERR_BAD_ARGUMENT) << o.size << " " << o.network;
    EXPECT_EQ(hseg_test::alloc_calls(), 0);
  }
  EXPECT_EQ(dst_bytes, std::vector<uint8_t>(100, kCanary));
}

// Fields past the caller's size keep their defaults, so a first-version
// record never has its stage times read; a later version's record is read
// as far as known.
TEST(HsegOptions, ShortRecordsKeepDefaults) {
  HsegStageTimes times;
  HsegOptions in{8, HSEG_NETWORK_FAST, &times}, out;
  ASSERT_EQ(hseg::read_options(&in, &out), HSEG_OK);
  EXPECT_TRUE(out.network == HSEG_NETWORK_FAST && out.times == nullptr);
  in.size = sizeof in + 8;
  ASSERT_EQ(hseg::read_options(&in, &out), HSEG_OK);
  EXPECT_TRUE(out.times == &times && out.size == sizeof out);
  ASSERT_EQ(hseg::read_options(nullptr, &out), HSEG_OK);
  EXPECT_TRUE(out.network == HSEG_NETWORK_EXACT && out.times == nullptr);
}

// ---------------------------------------------------------------------------
// The stages around a stand-in network
// ---------------------------------------------------------------------------

class AroundTheNetwork : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    bgr_ = std::make_unique<Frame>(make_frame(scene(), HSEG_PIXFMT_BGR24, 8, 8));
    // The reference 473x473 mask, built from the stages called directly: the
    // area resize, the stand-in scores, and the CRF with the pipeline's two
    // weights (16 and 15).
    reference_.assign(size_t(kNetInputSize) * kNetInputSize, kCanary);
    std::vector<uint8_t> guide(size_t(3) * kNetInputSize * kNetInputSize);
    OffscreenImage g{HSEG_PIXFMT_BGR24, kNetInputSize, kNetInputSize, {guide.data()}, {3 * kNetInputSize}};
    OffscreenImage f{HSEG_PIXFMT_GRAY, kNetInputSize, kNetInputSize, {reference_.data()}, {kNetInputSize}};
    ASSERT_EQ(LumResizeToBGR(nullptr, &bgr_->d, &g), HSEG_OK);
    std::vector<float> scores(2 * kScoreCells);
    FakeNet::fake_scores(guide.data(), 3 * kNetInputSize, scores.data());
    UpsamplingParams params;
    ParamUpsampling2(&params);
    params.smooth_weight = 16.0f;
    params.appear_weight = 15.0f;
    ASSERT_EQ(DCR_Upsampling2(nullptr, &g, &params, scores.data(), kNetScoreSize, kNetScoreSize, &f), HSEG_OK);
    // Both labels well represented, so that the comparisons below mean something.
    ASSERT_TRUE(binary(reference_));
    const auto n255 = std::count(reference_.begin(), reference_.end(), 255);
    EXPECT_GT(n255, kNetInputSize * kNetInputSize / 20);
    EXPECT_LT(n255, kNetInputSize * kNetInputSize * 19 / 20);
  }
  static uint8_t ref(int x, int y) { return reference_[size_t(y) * kNetInputSize + x]; }

  static inline std::unique_ptr<Frame> bgr_;
  static inline std::vector<uint8_t> reference_;
};

TEST_F(AroundTheNetwork, EveryOutputSizeIsTheNearestResizeOfTheFineMask) {
  struct Case {
    int w, h, pad;
  };
  const Case cases[] = {
      {473, 473, 0},   // a plain copy in effect
      {120, 90, 0},    // smaller
      {1000, 700, 0},  // larger
      {331, 257, 0},   // odd
      {200, 150, 56},  // pitch larger than the width
  };
  for (const Case &c : cases) {
    Mask mask(c.w, c.h, c.pad);
    FakeNet net;
    HsegStageTimes t;
    ASSERT_EQ(hseg::segment(nullptr, &bgr_->d, &mask.desc, net.hook(), &t), HSEG_OK)
        << c.w << "x" << c.h;
    EXPECT_EQ(net.calls, 1);
    EXPECT_GE(t.total, t.resize + t.network + t.crf + t.final_resize);
    EXPECT_GT(t.crf, 0.0);
    for (int y = 0; y < c.h; ++y) {
      const int sy = nn_index(kNetInputSize, c.h, y);
      for (int x = 0; x < c.w; ++x)
        ASSERT_EQ(mask.at(x, y), ref(nn_index(kNetInputSize, c.w, x), sy))
            << c.w << "x" << c.h << " at (" << x << ", " << y << ")";
    }
    EXPECT_TRUE(mask.padding_untouched()) << "bytes between rows";
  }
}

// An unsupported source format, then a failing network.
TEST_F(AroundTheNetwork, FailingStagesPassTheirStatusAndLeaveTheMask) {
  for (const auto &[format, net_status, want] : {std::tuple{HSEG_PIXFMT_GRAY, HSEG_OK, HSEG_ERR_FORMAT},
                                                 {HSEG_PIXFMT_BGR24, 9u, 9u}}) {
    OffscreenImage src = bgr_->d;
    src.format = format;
    Mask mask(64, 48);
    FakeNet net;
    net.status = net_status;
    const int64_t live = hseg_test::alloc_live();
    EXPECT_EQ(hseg::segment(nullptr, &src, &mask.desc, net.hook(), nullptr), want) << want;
    EXPECT_TRUE(mask.untouched() && hseg_test::alloc_live() == live) << want;
  }
}

// Every allocation of the call failing in turn (the stages' images, the area
// resize's, the CRF's and the nearest resize's blocks): status 4, the mask
// untouched, nothing leaked.
TEST_F(AroundTheNetwork, EachAllocationFailureGivesStatus4AndLeaksNothing) {
  const int64_t live = hseg_test::alloc_live();
  hseg_test::for_each_alloc_failure([&](int64_t failing) {
    Mask mask(200, 150, 8);
    FakeNet net;
    const MRESULT s = hseg::segment(nullptr, &bgr_->d, &mask.desc, net.hook(), nullptr);
    EXPECT_EQ(hseg_test::alloc_live(), live) << "allocation " << failing;
    EXPECT_EQ(s, failing == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "allocation " << failing;
    EXPECT_EQ(mask.untouched(), failing != 0) << "allocation " << failing;
  });
}

// The caller's planes and mask each end (or begin) at a guard page, rows
// packed, odd sizes, every format: the area resize, the CRF and the nearest
// resize stay inside them.
TEST_F(AroundTheNetwork, StaysInsideGuardedBuffers) {
  using hseg_test::GuardedBuffer;
  using hseg_test::GuardedImage;
  const Picture s = scene();
  for (uint32_t f : {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21}) {
    const Frame frame = make_frame(s, f, 8, 8);
    for (const auto mode : {GuardedBuffer::kGuardAfter, GuardedBuffer::kGuardBefore}) {
      const bool larger = mode == GuardedBuffer::kGuardAfter;  // a mask above 473 or below
      GuardedImage src(frame.d, s.w - 1, s.h - 3, mode);
      GuardedImage mask(HSEG_PIXFMT_GRAY, larger ? 701 : 121, larger ? 501 : 67, mode, kCanary);
      FakeNet net;
      EXPECT_EQ(hseg::segment(nullptr, &src.desc(), &mask.desc(), net.hook(), nullptr), HSEG_OK)
          << "format " << std::hex << f;
      const uint8_t *m = mask.desc().planes[0];
      EXPECT_TRUE(binary(std::vector<uint8_t>(m, m + mask.plane(0).size())));
    }
  }
}

// Four threads, each in its own format and mask size, twice over, give the
// masks of the same calls made one after the other: the stages share no
// state. The test script also runs this under ThreadSanitizer.
TEST_F(AroundTheNetwork, FourThreadsGiveTheSerialMasks) {
  const Picture s = scene();
  const uint32_t formats[4] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21};
  std::vector<Frame> frames;
  std::deque<Mask> serial, threaded;  // never moved: each desc points into its bytes
  for (int k = 0; k < 4; ++k) {
    frames.push_back(make_frame(s, formats[k], 8, 8));
    serial.emplace_back(100 + 37 * k, 90 + 11 * k, 20);
    threaded.emplace_back(100 + 37 * k, 90 + 11 * k, 20);
    FakeNet net;
    ASSERT_EQ(hseg::segment(nullptr, &frames[k].d, &serial[k].desc, net.hook(), nullptr), HSEG_OK);
  }
  MRESULT status[4] = {0, 0, 0, 0};
  std::vector<std::thread> threads;
  for (int k = 0; k < 4; ++k)
    threads.emplace_back([&, k] {
      FakeNet net;
      for (int round = 0; round < 2; ++round)
        status[k] |= hseg::segment(nullptr, &frames[k].d, &threaded[k].desc, net.hook(), nullptr);
    });
  for (auto &t : threads) t.join();
  for (int k = 0; k < 4; ++k) {
    EXPECT_EQ(status[k], HSEG_OK);
    EXPECT_TRUE(threaded[k].packed() == serial[k].packed()) << "thread " << k;
  }
}

TEST_F(AroundTheNetwork, SmallSourceIsNotEnlarged) {
  // The area resize only shrinks: a 100x100 source leaves the guide black.
  OffscreenImage src = bgr_->d;
  src.width = src.height = 100;
  Mask mask(100, 100);
  FakeNet net;
  EXPECT_EQ(hseg::segment(nullptr, &src, &mask.desc, net.hook(), nullptr), HSEG_OK);
  EXPECT_TRUE(net.guide_black);
  EXPECT_FALSE(mask.untouched());
}

// ---------------------------------------------------------------------------
// End to end on the built-in weights (seconds a pass): the scene in every
// format and the two example pictures through Hseg, four of them through the
// fast network, then those four at once on four threads.
// ---------------------------------------------------------------------------

// Share of equal pixels of two masks.
double agreement(const std::vector<uint8_t> &a, const std::vector<uint8_t> &b) {
  size_t same = 0;
  for (size_t i = 0; i < a.size(); ++i) same += a[i] == b[i];
  return static_cast<double>(same) / static_cast<double>(a.size());
}

TEST(HsegEndToEnd, FormatsAgreeFastAgreesAndFourThreadsGiveTheSerialMasks) {
  const Picture s = scene();
  std::vector<Frame> inputs;
  for (uint32_t f : {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420, HSEG_PIXFMT_NV21})
    inputs.push_back(make_frame(s, f, 8, 8));
  for (const char *name : {"astronaut.png", "coffee.png"}) {
    Frame f;
    f.plane[0] = example_bgr(name, 3 * kNetInputSize);
    ASSERT_FALSE(f.plane[0].empty()) << "cannot read examples/" << name;
    f.d = {HSEG_PIXFMT_BGR24, kNetInputSize, kNetInputSize, {f.plane[0].data()}, {3 * kNetInputSize}};
    inputs.push_back(std::move(f));
  }
  const char *names[] = {"bgr", "yuy2", "i420", "nv21", "astronaut", "coffee"};
  enum Call { kHseg, kNullOptions, kFast };
  auto segment = [&](size_t k, Call call) {
    const OffscreenImage &src = inputs[k].d;
    Mask mask(src.width, src.height, 4);
    const HsegOptions fast{sizeof(HsegOptions), HSEG_NETWORK_FAST, nullptr};
    EXPECT_EQ(call == kHseg ? Hseg(nullptr, &src, &mask.desc, 0, 0)
                            : HsegEx(nullptr, &src, &mask.desc, call == kFast ? &fast : nullptr),
              HSEG_OK) << names[k] << ", call " << call;
    const std::vector<uint8_t> packed = mask.packed();
    EXPECT_TRUE(binary(packed)) << names[k];
    return packed;
  };
  std::vector<std::vector<uint8_t>> exact, quick;
  for (size_t k = 0; k < inputs.size(); ++k) {
    exact.push_back(segment(k, kHseg));
    EXPECT_TRUE(k >= 4 || agreement(exact[k], exact[0]) >= 0.99) << names[k] << " against bgr";
  }
  EXPECT_TRUE(segment(0, kNullOptions) == exact[0]) << "null options";
  const size_t fast_inputs[4] = {0, 1, 4, 5};
  for (size_t k : fast_inputs) {
    quick.push_back(segment(k, kFast));
    const double a = agreement(exact[k], quick.back());
    RecordProperty(std::string("agreement_") + names[k], std::to_string(a));
    EXPECT_GE(a, 0.995) << names[k];
  }
  std::vector<std::vector<uint8_t>> threaded(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back([&, t] { threaded[t] = segment(fast_inputs[t], kFast); });
  for (auto &t : threads) t.join();
  for (int t = 0; t < 4; ++t) EXPECT_TRUE(threaded[t] == quick[t]) << "thread " << t;
}

}  // namespace
