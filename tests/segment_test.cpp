// Segmentation entry: argument checks, the coarse-mask rule, the stages
// around the network (with the network replaced by a function of the guide
// image), allocation failures, and end to end on the built-in weights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "hseg/hseg.h"
#include "pipeline/segment_internal.h"
#include "support/alloc_hooks.h"

namespace {

using hseg::kNetSide;
using hseg::kScoreCells;
using hseg::kScoreSide;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr uint8_t kCanary = 0x5A;

// ---------------------------------------------------------------------------
// Test pictures in the four input formats
// ---------------------------------------------------------------------------

// A 640x480 scene: a textured gradient background and a reddish figure (an
// ellipse for the body, a disc for the head) whose edges the CRF can follow.
struct Scene {
  static constexpr int kW = 640, kH = 480;
  std::vector<uint8_t> bgr;  // packed, pitch 3 * kW
  Scene() : bgr(3 * kW * kH) {
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x) {
        uint8_t *p = &bgr[3 * (y * kW + x)];
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
      }
  }
};

uint8_t to_u8(double v) { return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0, 255.0))); }

// Full-range YUV of one BGR pixel (the inverse of the library's conversion).
void yuv_of(const uint8_t *p, double *y, double *u, double *v) {
  *y = 0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2];
  *u = 128.0 + (p[0] - *y) / 1.773;
  *v = 128.0 + (p[2] - *y) / 1.403;
}

// One picture in one format, with padded pitches so that pitch handling is
// exercised; `desc` points into `bytes`.
struct Frame {
  std::vector<uint8_t> bytes;
  OffscreenImage desc{};
  Frame() = default;
  Frame(Frame &&) = default;  // a moved vector keeps its buffer, so desc stays valid
  Frame(const Frame &) = delete;
};

Frame make_frame(const Scene &s, uint32_t format) {
  const int w = Scene::kW, h = Scene::kH, cw = w / 2, ch = h / 2;
  Frame f;
  f.desc.format = format;
  f.desc.width = w;
  f.desc.height = h;
  auto px = [&](int x, int y) { return &s.bgr[3 * (y * w + x)]; };
  if (format == HSEG_PIXFMT_BGR24) {
    const int pitch = 3 * w + 8;
    f.bytes.assign(static_cast<size_t>(pitch) * h, 0);
    for (int y = 0; y < h; ++y) std::memcpy(&f.bytes[y * pitch], px(0, y), 3 * w);
    f.desc.pitches[0] = pitch;
    f.desc.planes[0] = f.bytes.data();
    return f;
  }
  if (format == HSEG_PIXFMT_YUY2) {
    const int pitch = 2 * w + 12;
    f.bytes.assign(static_cast<size_t>(pitch) * h, 0);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; x += 2) {
        double y0, u0, v0, y1, u1, v1;
        yuv_of(px(x, y), &y0, &u0, &v0);
        yuv_of(px(x + 1, y), &y1, &u1, &v1);
        uint8_t *o = &f.bytes[y * pitch + 2 * x];
        o[0] = to_u8(y0);
        o[1] = to_u8((u0 + u1) / 2);
        o[2] = to_u8(y1);
        o[3] = to_u8((v0 + v1) / 2);
      }
    f.desc.pitches[0] = pitch;
    f.desc.planes[0] = f.bytes.data();
    return f;
  }
  // 4:2:0: a padded Y plane, then the chroma (two planes, or one of V,U pairs).
  const int ypitch = w + 16;
  const bool planar = format == HSEG_PIXFMT_I420;
  const int cpitch = planar ? cw + 8 : 2 * cw + 8;
  const size_t ysize = static_cast<size_t>(ypitch) * h, csize = static_cast<size_t>(cpitch) * ch;
  f.bytes.assign(ysize + (planar ? 2 : 1) * csize, 0);
  uint8_t *yp = f.bytes.data(), *c1 = yp + ysize, *c2 = c1 + csize;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      double yy, u, v;
      yuv_of(px(x, y), &yy, &u, &v);
      yp[y * ypitch + x] = to_u8(yy);
    }
  for (int y = 0; y < ch; ++y)
    for (int x = 0; x < cw; ++x) {
      double su = 0, sv = 0;
      for (int k = 0; k < 4; ++k) {
        double yy, u, v;
        yuv_of(px(2 * x + k % 2, 2 * y + k / 2), &yy, &u, &v);
        su += u;
        sv += v;
      }
      if (planar) {
        c1[y * cpitch + x] = to_u8(su / 4);
        c2[y * cpitch + x] = to_u8(sv / 4);
      } else {
        c1[y * cpitch + 2 * x] = to_u8(sv / 4);
        c1[y * cpitch + 2 * x + 1] = to_u8(su / 4);
      }
    }
  f.desc.planes[0] = yp;
  f.desc.pitches[0] = ypitch;
  f.desc.planes[1] = c1;
  f.desc.pitches[1] = cpitch;
  if (planar) {
    f.desc.planes[2] = c2;
    f.desc.pitches[2] = cpitch;
  }
  return f;
}

// A caller's mask buffer: `pitch` bytes a row, filled with a canary so that
// unwritten bytes show.
struct Mask {
  int w, h, pitch;
  std::vector<uint8_t> bytes;
  OffscreenImage desc{};
  Mask(int w_, int h_, int pitch_) : w(w_), h(h_), pitch(pitch_), bytes(size_t(pitch_) * h_, kCanary) {
    desc.format = HSEG_PIXFMT_GRAY;
    desc.width = w;
    desc.height = h;
    desc.planes[0] = bytes.data();
    desc.pitches[0] = pitch;
  }
  Mask(const Mask &o) : Mask(o.w, o.h, o.pitch) { bytes = o.bytes; }
  Mask &operator=(const Mask &) = delete;
  uint8_t at(int x, int y) const { return bytes[size_t(y) * pitch + x]; }
  std::vector<uint8_t> packed() const {
    std::vector<uint8_t> out;
    for (int y = 0; y < h; ++y) out.insert(out.end(), &bytes[size_t(y) * pitch], &bytes[size_t(y) * pitch] + w);
    return out;
  }
  bool untouched() const {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == kCanary; });
  }
};

// ---------------------------------------------------------------------------
// A stand-in for the network: person score 0.9 where the guide is red, else
// 0.1, sampled at each coarse cell's centre. It checks what it is given.
// ---------------------------------------------------------------------------
struct FakeNet {
  MRESULT status = HSEG_OK;
  int calls = 0;
  int32_t pitch_seen = 0;
  static MRESULT run(void *ctx, const uint8_t *bgr, int32_t pitch, float *scores) {
    auto *self = static_cast<FakeNet *>(ctx);
    ++self->calls;
    self->pitch_seen = pitch;
    if (self->status != HSEG_OK) return self->status;
    fake_scores(bgr, pitch, scores);
    return HSEG_OK;
  }
  static void fake_scores(const uint8_t *bgr, int32_t pitch, float *scores) {
    for (int cy = 0; cy < kScoreSide; ++cy)
      for (int cx = 0; cx < kScoreSide; ++cx) {
        const uint8_t *p = bgr + (cy * kNetSide / kScoreSide + 4) * pitch +
                           3 * (cx * kNetSide / kScoreSide + 4);
        const float person = (p[2] > 150 && p[0] < 100) ? 0.9f : 0.1f;
        scores[cy * kScoreSide + cx] = 1.0f - person;
        scores[kScoreCells + cy * kScoreSide + cx] = person;
      }
  }
  hseg::NetworkHook hook() { return hseg::NetworkHook{run, this}; }
};

// Nearest-neighbour source index of destination index d (sizes from the
// resizer's rule, written out independently).
int nn_source(int d, int src, int dst) {
  const int s = (std::min(src, dst) - 1 + 2 * d * src) / (2 * dst);
  return s >= src ? s - 1 : s;
}

// ---------------------------------------------------------------------------
// The coarse-mask rule
// ---------------------------------------------------------------------------

TEST(CoarseMask, EdgeCasesOfTheRule) {
  struct Case {
    float background, person;
    uint8_t want;
  };
  const float kTiny = std::numeric_limits<float>::denorm_min();
  const Case cases[] = {
      {0.2f, 0.8f, 255},   {0.8f, 0.2f, 0},     {0.5f, 0.5f, 0},  // equal planes
      {-1.0f, 0.0f, 0},    // person equals the threshold 0 when background < 0
      {-1.0f, -0.0f, 0},   {-1.0f, kTiny, 255}, {-1.0f, 0.5f, 255},
      {-5.0f, -1.0f, 0},   // negative person score, even above the background
      {kNaN, 1.0f, 255},   // a NaN background counts as 0
      {kNaN, 0.0f, 0},     {kNaN, -1.0f, 0},
      {1.0f, kNaN, 0},     {-1.0f, kNaN, 0},    {kNaN, kNaN, 0},  // NaN person: 0
      {1e30f, kInf, 255},  {kInf, kInf, 0},     {-kInf, 1e-30f, 255},
  };
  std::vector<float> scores(2 * kScoreCells);
  std::vector<uint8_t> mask(kScoreCells);
  for (const Case &c : cases) {
    std::fill(scores.begin(), scores.begin() + kScoreCells, c.background);
    std::fill(scores.begin() + kScoreCells, scores.end(), c.person);
    std::fill(mask.begin(), mask.end(), kCanary);
    hseg::coarse_mask(scores.data(), mask.data());
    EXPECT_EQ(std::count(mask.begin(), mask.end(), c.want), kScoreCells)
        << "background " << c.background << ", person " << c.person;
  }
}

TEST(CoarseMask, CellsKeepTheirPlaces) {
  // Person rises and background falls along the cells: the mask switches on
  // exactly past the middle, so a shifted plane or a swap shows.
  std::vector<float> scores(2 * kScoreCells);
  for (int i = 0; i < kScoreCells; ++i) {
    scores[i] = static_cast<float>(kScoreCells - 1 - i);
    scores[kScoreCells + i] = static_cast<float>(i);
  }
  std::vector<uint8_t> mask(kScoreCells);
  hseg::coarse_mask(scores.data(), mask.data());
  for (int i = 0; i < kScoreCells; ++i)
    ASSERT_EQ(mask[i], i >= kScoreCells / 2 ? 255 : 0) << "cell " << i;
}

// ---------------------------------------------------------------------------
// FigureNet_il around a stand-in network
// ---------------------------------------------------------------------------

struct GuideImage {
  std::vector<uint8_t> bytes = std::vector<uint8_t>(1420 * kNetSide, 0);
  OffscreenImage desc{};
  GuideImage() {
    // Red on the left half: the stand-in network calls that the person.
    for (int y = 0; y < kNetSide; ++y)
      for (int x = 0; x < kNetSide / 2; ++x) bytes[y * 1420 + 3 * x + 2] = 255;
    desc.format = HSEG_PIXFMT_BGR24;
    desc.width = desc.height = kNetSide;
    desc.planes[0] = bytes.data();
    desc.pitches[0] = 1420;
  }
};

TEST(FigureNet, NullScoreBufferUsesAZeroedScratch) {
  GuideImage guide;
  std::vector<uint8_t> mask(kScoreCells, kCanary);
  OffscreenImage out{};
  out.planes[0] = mask.data();
  out.pitches[0] = 1;  // not used: the coarse mask is written contiguously

  struct Check {
    bool zeroed = true;
    static MRESULT run(void *ctx, const uint8_t *bgr, int32_t pitch, float *scores) {
      auto *self = static_cast<Check *>(ctx);
      for (int i = 0; i < 2 * kScoreCells; ++i) self->zeroed &= scores[i] == 0.0f;
      FakeNet::fake_scores(bgr, pitch, scores);
      return HSEG_OK;
    }
  } check;
  ASSERT_EQ(hseg::figure_net(&guide.desc, &out, nullptr, hseg::NetworkHook{Check::run, &check}),
            HSEG_OK);
  EXPECT_TRUE(check.zeroed);
  for (int i = 0; i < kScoreCells; ++i)
    ASSERT_EQ(mask[i], (i % kScoreSide) < kScoreSide / 2 ? 255 : 0) << "cell " << i;
}

TEST(FigureNet, FailedNetworkStillWritesTheMaskAndPassesItsStatus) {
  GuideImage guide;
  std::vector<uint8_t> mask(kScoreCells, kCanary);
  OffscreenImage out{};
  out.planes[0] = mask.data();
  FakeNet net;
  net.status = 9;

  // Scratch scores: zeros, so all background.
  EXPECT_EQ(hseg::figure_net(&guide.desc, &out, nullptr, net.hook()), 9u);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 0), kScoreCells);

  // Caller's scores: the mask follows what they held.
  std::vector<float> scores(2 * kScoreCells, 0.0f);
  std::fill(scores.begin() + kScoreCells, scores.end(), 1.0f);
  EXPECT_EQ(hseg::figure_net(&guide.desc, &out, scores.data(), net.hook()), 9u);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 255), kScoreCells);
}

TEST(FigureNet, RefusesMissingBuffers) {
  GuideImage guide;
  std::vector<uint8_t> mask(kScoreCells, kCanary);
  OffscreenImage out{};
  out.planes[0] = mask.data();
  OffscreenImage no_plane{};
  OffscreenImage narrow = guide.desc;
  narrow.pitches[0] = 3 * kNetSide - 1;
  EXPECT_EQ(FigureNet_il(nullptr, nullptr, &out, 0, nullptr, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(FigureNet_il(nullptr, &guide.desc, nullptr, 0, nullptr, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(FigureNet_il(nullptr, &guide.desc, &no_plane, 0, nullptr, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(FigureNet_il(nullptr, &no_plane, &out, 0, nullptr, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(FigureNet_il(nullptr, &narrow, &out, 0, nullptr, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), kCanary), kScoreCells);
}

// ---------------------------------------------------------------------------
// Argument checks: status 2 before anything is allocated
// ---------------------------------------------------------------------------

TEST(HsegArguments, BadArgumentsFailBeforeAnyAllocation) {
  std::vector<uint8_t> pixels(3 * 600 * 600, 0);
  uint8_t *p = pixels.data();
  auto src = [&](uint32_t fmt, int w, int h, std::initializer_list<int32_t> pitches,
                 std::initializer_list<uint8_t *> planes) {
    OffscreenImage d{};
    d.format = fmt;
    d.width = w;
    d.height = h;
    int i = 0;
    for (int32_t q : pitches) d.pitches[i++] = q;
    i = 0;
    for (uint8_t *q : planes) d.planes[i++] = q;
    return d;
  };
  const OffscreenImage good_src = src(HSEG_PIXFMT_BGR24, 500, 500, {1500}, {p});
  struct Case {
    const char *what;
    OffscreenImage src;
    int dst_w, dst_h, dst_pitch;
    bool dst_plane;
  };
  const Case cases[] = {
      {"dst width 0", good_src, 0, 10, 10, true},
      {"dst height 0", good_src, 10, 0, 10, true},
      {"dst negative height", good_src, 10, -3, 10, true},
      {"dst plane null", good_src, 10, 10, 10, false},
      {"dst pitch below width", good_src, 10, 10, 9, true},
      {"src width 0", src(HSEG_PIXFMT_BGR24, 0, 500, {1500}, {p}), 10, 10, 10, true},
      {"src height -1", src(HSEG_PIXFMT_BGR24, 500, -1, {1500}, {p}), 10, 10, 10, true},
      {"bgr plane null", src(HSEG_PIXFMT_BGR24, 500, 500, {1500}, {nullptr}), 10, 10, 10, true},
      {"bgr pitch short", src(HSEG_PIXFMT_BGR24, 500, 500, {1499}, {p}), 10, 10, 10, true},
      {"yuy2 odd width pitch", src(HSEG_PIXFMT_YUY2, 501, 500, {1002}, {p}), 10, 10, 10, true},
      {"yuy2 negative pitch", src(HSEG_PIXFMT_YUY2, 500, 500, {-1000}, {p}), 10, 10, 10, true},
      {"i420 V plane null", src(HSEG_PIXFMT_I420, 500, 500, {500, 250, 250}, {p, p, nullptr}), 10, 10, 10, true},
      {"i420 chroma pitch short", src(HSEG_PIXFMT_I420, 501, 500, {501, 250, 251}, {p, p, p}), 10, 10, 10, true},
      {"i420 luma pitch short", src(HSEG_PIXFMT_I420, 500, 500, {499, 250, 250}, {p, p, p}), 10, 10, 10, true},
      {"nv21 chroma plane null", src(HSEG_PIXFMT_NV21, 500, 500, {500, 500}, {p, nullptr}), 10, 10, 10, true},
      {"nv21 chroma pitch short", src(HSEG_PIXFMT_NV21, 501, 500, {501, 501}, {p, p}), 10, 10, 10, true},
  };
  for (const Case &c : cases) {
    Mask mask(std::max(c.dst_w, 1), std::max(c.dst_h, 1), std::max(c.dst_pitch, 1));
    mask.desc.width = c.dst_w;
    mask.desc.height = c.dst_h;
    mask.desc.pitches[0] = c.dst_pitch;
    if (!c.dst_plane) mask.desc.planes[0] = nullptr;
    hseg_test::alloc_reset();
    HsegStageTimes times;
    EXPECT_EQ(Hseg(nullptr, &c.src, &mask.desc, 0, 0), HSEG_ERR_BAD_ARGUMENT) << c.what;
    EXPECT_EQ(HsegTimed(nullptr, &c.src, &mask.desc, 0, 0, &times), HSEG_ERR_BAD_ARGUMENT) << c.what;
    EXPECT_EQ(hseg_test::alloc_calls(), 0) << c.what;
    EXPECT_TRUE(mask.untouched()) << c.what;
  }
  Mask mask(10, 10, 10);
  EXPECT_EQ(Hseg(nullptr, nullptr, &mask.desc, 0, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Hseg(nullptr, &good_src, nullptr, 0, 0), HSEG_ERR_BAD_ARGUMENT);
  EXPECT_TRUE(mask.untouched());
}

// ---------------------------------------------------------------------------
// The stages around a stand-in network
// ---------------------------------------------------------------------------

class AroundTheNetwork : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    scene_ = new Scene;
    bgr_ = new Frame(make_frame(*scene_, HSEG_PIXFMT_BGR24));
    // The reference 473x473 mask, built from the stages called directly: the
    // area resize, the stand-in scores, and the CRF with the pipeline's two
    // weights (16 and 15).
    Image *guide = createimg(nullptr, kNetSide, kNetSide, 8, 3);
    Image *fine = createimg(nullptr, kNetSide, kNetSide, 8, 1);
    ASSERT_NE(guide, nullptr);
    ASSERT_NE(fine, nullptr);
    OffscreenImage g{HSEG_PIXFMT_BGR24, kNetSide, kNetSide, {guide->data}, {int32_t(guide->pitch)}};
    OffscreenImage f{HSEG_PIXFMT_GRAY, kNetSide, kNetSide, {fine->data}, {int32_t(fine->pitch)}};
    ASSERT_EQ(LumResizeToBGR(nullptr, &bgr_->desc, &g), HSEG_OK);
    std::vector<float> scores(2 * kScoreCells);
    FakeNet::fake_scores(guide->data, int32_t(guide->pitch), scores.data());
    UpsamplingParams params;
    ParamUpsampling2(&params);
    params.smooth_weight = 16.0f;
    params.appear_weight = 15.0f;
    ASSERT_EQ(DCR_Upsampling2(nullptr, &g, &params, scores.data(), kScoreSide, kScoreSide, &f),
              HSEG_OK);
    reference_ = new std::vector<uint8_t>(size_t(kNetSide) * kNetSide);
    for (int y = 0; y < kNetSide; ++y)
      std::memcpy(&(*reference_)[size_t(y) * kNetSide], fine->data + size_t(y) * fine->pitch, kNetSide);
    release_img(nullptr, &guide);
    release_img(nullptr, &fine);
  }
  static void TearDownTestSuite() {
    delete reference_;
    delete bgr_;
    delete scene_;
  }
  static uint8_t ref(int x, int y) { return (*reference_)[size_t(y) * kNetSide + x]; }

  static Scene *scene_;
  static Frame *bgr_;
  static std::vector<uint8_t> *reference_;
};
Scene *AroundTheNetwork::scene_ = nullptr;
Frame *AroundTheNetwork::bgr_ = nullptr;
std::vector<uint8_t> *AroundTheNetwork::reference_ = nullptr;

TEST_F(AroundTheNetwork, ReferenceMaskHasBothLabels) {
  const auto n255 = std::count(reference_->begin(), reference_->end(), 255);
  const auto n0 = std::count(reference_->begin(), reference_->end(), 0);
  EXPECT_EQ(n0 + n255, kNetSide * kNetSide);
  EXPECT_GT(n255, kNetSide * kNetSide / 20);
  EXPECT_GT(n0, kNetSide * kNetSide / 20);
}

TEST_F(AroundTheNetwork, EveryOutputSizeIsTheNearestResizeOfTheFineMask) {
  struct Case {
    int w, h, pitch;
  };
  const Case cases[] = {
      {473, 473, 473},   // a plain copy in effect
      {120, 90, 120},    // smaller
      {1000, 700, 1000}, // larger
      {331, 257, 331},   // odd
      {200, 150, 256},   // pitch larger than the width
  };
  for (const Case &c : cases) {
    Mask mask(c.w, c.h, c.pitch);
    FakeNet net;
    HsegStageTimes t;
    ASSERT_EQ(hseg::segment(nullptr, &bgr_->desc, &mask.desc, 0, net.hook(), &t), HSEG_OK)
        << c.w << "x" << c.h;
    EXPECT_EQ(net.calls, 1);
    EXPECT_EQ(net.pitch_seen, 1420);
    EXPECT_GE(t.total, t.resize + t.network + t.crf + t.final_resize);
    EXPECT_GT(t.crf, 0.0);
    for (int y = 0; y < c.h; ++y) {
      const int sy = nn_source(y, kNetSide, c.h);
      for (int x = 0; x < c.w; ++x)
        ASSERT_EQ(mask.at(x, y), ref(nn_source(x, kNetSide, c.w), sy))
            << c.w << "x" << c.h << " at (" << x << ", " << y << ")";
      for (int x = c.w; x < c.pitch; ++x)
        ASSERT_EQ(mask.at(x, y), kCanary) << "byte between rows, row " << y;
    }
  }
}

TEST_F(AroundTheNetwork, FailingStagesPassTheirStatusAndLeaveTheMask) {
  struct Case {
    const char *what;
    uint32_t format;
    MRESULT net_status;
    MRESULT want;
  };
  const Case cases[] = {
      {"unsupported source format", HSEG_PIXFMT_GRAY, HSEG_OK, HSEG_ERR_FORMAT},
      {"network failure", HSEG_PIXFMT_BGR24, 9, 9},
      {"network out of memory", HSEG_PIXFMT_BGR24, HSEG_ERR_NO_MEMORY, HSEG_ERR_NO_MEMORY},
  };
  for (const Case &c : cases) {
    OffscreenImage src = bgr_->desc;
    src.format = c.format;
    Mask mask(64, 48, 64);
    FakeNet net;
    net.status = c.net_status;
    const int64_t live = hseg_test::alloc_live();
    EXPECT_EQ(hseg::segment(nullptr, &src, &mask.desc, 0, net.hook(), nullptr), c.want) << c.what;
    EXPECT_TRUE(mask.untouched()) << c.what;
    EXPECT_EQ(hseg_test::alloc_live(), live) << c.what;
  }
}

TEST_F(AroundTheNetwork, EachAllocationFailureGivesStatus4AndLeaksNothing) {
  // Allocation points in order: the guide, coarse mask, scores, fine mask,
  // output-size image and wrapper of the caller's mask (15 records, buffers
  // and row tables), the area resize's work block, then those of the CRF and
  // the nearest resize's column table last.
  constexpr int64_t kBeforeNetwork = 16;
  std::vector<uint8_t> good;
  int64_t total = 0, swallowed = 0;
  const int64_t live = hseg_test::alloc_live();
  hseg_test::for_each_alloc_failure([&](int64_t failing) {
    Mask mask(200, 150, 208);
    FakeNet net;
    const MRESULT s = hseg::segment(nullptr, &bgr_->desc, &mask.desc, 0, net.hook(), nullptr);
    EXPECT_EQ(hseg_test::alloc_live(), live) << "allocation " << failing;
    EXPECT_EQ(net.calls, failing == 0 || failing > kBeforeNetwork ? 1 : 0) << "allocation " << failing;
    if (failing == 0) {
      ASSERT_EQ(s, HSEG_OK);
      total = hseg_test::alloc_calls();
      good = mask.packed();
      return;
    }
    if (s == HSEG_OK && failing > kBeforeNetwork && failing < total) {
      // The CRF's mean-field iterations skip a filtering whose scratch cannot
      // be allocated and go on: the call succeeds with a mask all the same.
      ++swallowed;
      const auto m = mask.packed();
      EXPECT_EQ(std::count(m.begin(), m.end(), 0) + std::count(m.begin(), m.end(), 255),
                static_cast<std::ptrdiff_t>(m.size())) << "allocation " << failing;
      return;
    }
    EXPECT_EQ(s, HSEG_ERR_NO_MEMORY) << "allocation " << failing;
    EXPECT_TRUE(mask.untouched()) << "allocation " << failing;
  });
  EXPECT_GT(total, kBeforeNetwork + 1);
  EXPECT_LT(swallowed, total - kBeforeNetwork - 1);  // the CRF's set-up failures are reported
  EXPECT_EQ(std::count(good.begin(), good.end(), kCanary), 0);
}

TEST_F(AroundTheNetwork, SmallSourceIsNotEnlarged) {
  // The area resize only shrinks: a 100x100 source leaves the guide black.
  struct Probe {
    bool black = true;
    static MRESULT run(void *ctx, const uint8_t *bgr, int32_t pitch, float *scores) {
      auto *self = static_cast<Probe *>(ctx);
      for (int y = 0; y < kNetSide; ++y)
        for (int x = 0; x < 3 * kNetSide; ++x) self->black &= bgr[y * pitch + x] == 0;
      FakeNet::fake_scores(bgr, pitch, scores);
      return HSEG_OK;
    }
  } probe;
  OffscreenImage src = bgr_->desc;
  src.width = src.height = 100;
  Mask mask(100, 100, 100);
  EXPECT_EQ(hseg::segment(nullptr, &src, &mask.desc, 0, hseg::NetworkHook{Probe::run, &probe},
                          nullptr),
            HSEG_OK);
  EXPECT_TRUE(probe.black);
  EXPECT_FALSE(mask.untouched());
}

// ---------------------------------------------------------------------------
// End to end on the built-in weights. Each pass takes seconds, so the four
// serial passes are made once and shared by the tests below.
// ---------------------------------------------------------------------------

constexpr uint32_t kFormats[4] = {HSEG_PIXFMT_BGR24, HSEG_PIXFMT_YUY2, HSEG_PIXFMT_I420,
                                  HSEG_PIXFMT_NV21};

struct EndToEnd {
  Scene scene;
  std::vector<Frame> frames;
  std::vector<std::vector<uint8_t>> masks;  // serial results, packed 640x480
  EndToEnd() {
    for (uint32_t f : kFormats) {
      frames.push_back(make_frame(scene, f));
      Mask mask(Scene::kW, Scene::kH, Scene::kW + 4);
      EXPECT_EQ(Hseg(nullptr, &frames.back().desc, &mask.desc, 0, 0), HSEG_OK) << std::hex << f;
      masks.push_back(mask.packed());
    }
  }
  static const EndToEnd &get() {
    static const EndToEnd e;
    return e;
  }
};

TEST(HsegEndToEnd, FormatsAgreeOnNearlyEveryPixel) {
  const EndToEnd &e = EndToEnd::get();
  const size_t n = size_t(Scene::kW) * Scene::kH;
  for (size_t k = 0; k < 4; ++k) {
    const auto &m = e.masks[k];
    ASSERT_EQ(m.size(), n);
    EXPECT_EQ(std::count(m.begin(), m.end(), 0) + std::count(m.begin(), m.end(), 255),
              static_cast<std::ptrdiff_t>(n))
        << "format " << std::hex << kFormats[k] << ": a byte is neither 0 nor 255";
    if (k == 0) continue;
    size_t same = 0;
    for (size_t i = 0; i < n; ++i) same += m[i] == e.masks[0][i];
    EXPECT_GE(same * 100, n * 99) << "format " << std::hex << kFormats[k] << " agrees with BGR on "
                                  << std::dec << same << " of " << n << " pixels";
  }
}

TEST(HsegEndToEnd, FourThreadsGiveTheSerialMasks) {
  const EndToEnd &e = EndToEnd::get();
  std::vector<Mask> masks(4, Mask(Scene::kW, Scene::kH, Scene::kW + 4));
  MRESULT status[4] = {1, 1, 1, 1};
  std::vector<std::thread> threads;
  for (int k = 0; k < 4; ++k)
    threads.emplace_back([&, k] {
      status[k] = Hseg(nullptr, &e.frames[k].desc, &masks[k].desc, 0, 0);
    });
  for (auto &t : threads) t.join();
  for (int k = 0; k < 4; ++k) {
    EXPECT_EQ(status[k], HSEG_OK);
    EXPECT_TRUE(masks[k].packed() == e.masks[k]) << "thread " << k;
  }
}

}  // namespace
