// The segmentation entry: area resize to 473x473 BGR, network and coarse
// mask, CRF-guided upsampling to a 473x473 mask, nearest resize to the
// caller's mask. Every buffer of a call is owned here and released on every
// path in one fixed order.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "common/pixfmt.h"
#include "hseg/crf.h"
#include "hseg/pipeline.h"
#include "hseg/resize.h"
#include "pipeline/network.h"
#include "pipeline/segment_internal.h"
#include "resize/area_table.h"

namespace hseg {
namespace {

// CRF weights of the pipeline, over the upsampler's defaults (3 and 8): a
// stronger smoothness term and a stronger edge-following appearance term.
constexpr float kSmoothnessWeight = 16.0f;
constexpr float kAppearanceWeight = 15.0f;
constexpr int32_t kScoreBytes = 2 * kScoreCells * static_cast<int32_t>(sizeof(float));

MRESULT run_real_network(void *, const uint8_t *bgr, int32_t pitch, float *scores) {
  return fr_extract_feature_deeplab_pspnet(bgr, pitch, scores, 0);
}

MRESULT run_fast_network(void *, const uint8_t *bgr, int32_t pitch, float *scores) {
  return net_forward_fast(bgr, pitch, scores);
}

// The size of the first version of HsegOptions: `size` and `network`.
constexpr uint32_t kOptionsV1 = 2 * sizeof(uint32_t);

// Describes an owned image to the stages: BGR for 3 channels, one 8-bit
// channel otherwise.
OffscreenImage describe(const Image *img) {
  OffscreenImage d;
  std::memset(&d, 0, sizeof d);
  d.format = img->channels == 3 ? HSEG_PIXFMT_BGR24 : HSEG_PIXFMT_GRAY;
  d.width = static_cast<int32_t>(img->width);
  d.height = static_cast<int32_t>(img->height);
  d.planes[0] = img->data;
  d.pitches[0] = static_cast<int32_t>(img->pitch);
  return d;
}

// Everything one call owns. Fixed interface behaviour: `out_size` and
// `dst_view` are allocated and released without being read, so that a caller
// whose mask size cannot be allocated gets HSEG_ERR_NO_MEMORY before any work.
struct Work {
  MHandle mem;
  Image *guide = nullptr;     // 473x473 BGR: network input and CRF guide
  Image *coarse = nullptr;    // 60x60 coarse mask
  float *scores = nullptr;    // 2 x 60 x 60 network scores
  Image *fine = nullptr;      // 473x473 mask from the CRF
  Image *out_size = nullptr;  // an image of the caller's mask size
  Image *dst_view = nullptr;  // a view over the caller's mask

  explicit Work(MHandle m) : mem(m) {}
  Work(const Work &) = delete;
  Work &operator=(const Work &) = delete;
  ~Work() {
    release_img(mem, &guide);
    release_img(mem, &coarse);
    release_img(mem, &fine);
    release_img(mem, &out_size);
    release_img_pesudo(mem, &dst_view);
    MMemFree(mem, scores);
  }
};

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

MRESULT run_stages(Work &w, const OffscreenImage *src, OffscreenImage *dst,
                   const NetworkHook &net, HsegStageTimes *times) {
  UpsamplingParams params;
  ParamUpsampling2(&params);

  w.guide = createimg(w.mem, kNetInputSize, kNetInputSize, 8, 3);
  if (w.guide == nullptr) return HSEG_ERR_NO_MEMORY;
  w.coarse = createimg(w.mem, kNetScoreSize, kNetScoreSize, 8, 1);
  if (w.coarse == nullptr) return HSEG_ERR_NO_MEMORY;
  w.scores = static_cast<float *>(MMemAlloc(w.mem, kScoreBytes));
  if (w.scores == nullptr) return HSEG_ERR_NO_MEMORY;
  w.fine = createimg(w.mem, kNetInputSize, kNetInputSize, 8, 1);
  if (w.fine == nullptr) return HSEG_ERR_NO_MEMORY;
  w.out_size = createimg(w.mem, dst->width, dst->height, 8, 1);
  if (w.out_size == nullptr) return HSEG_ERR_NO_MEMORY;
  w.dst_view = createimg_pesudo(w.mem, dst->planes[0], static_cast<uint32_t>(dst->width),
                                static_cast<uint32_t>(dst->height), 8, 1,
                                static_cast<uint32_t>(dst->pitches[0]));
  if (w.dst_view == nullptr) return HSEG_ERR_NO_MEMORY;

  Clock::time_point t = Clock::now();
  OffscreenImage guide = describe(w.guide);
  MRESULT s = LumResizeToBGR(w.mem, src, &guide);
  if (times != nullptr) times->resize = seconds_since(t);
  if (s != HSEG_OK) return s;

  t = Clock::now();
  OffscreenImage coarse = describe(w.coarse);
  s = figure_net(&guide, &coarse, w.scores, net);
  if (times != nullptr) times->network = seconds_since(t);
  if (s != HSEG_OK) return s;

  // The CRF starts from the two score planes; the coarse mask is not read.
  t = Clock::now();
  OffscreenImage fine = describe(w.fine);
  params.smooth_weight = kSmoothnessWeight;
  params.appear_weight = kAppearanceWeight;
  s = DCR_Upsampling2(w.mem, &guide, &params, w.scores, kNetScoreSize, kNetScoreSize, &fine);
  if (times != nullptr) times->crf = seconds_since(t);
  if (s != HSEG_OK) return s;

  t = Clock::now();
  s = zevImageResize_NN(w.mem, w.fine->data, static_cast<int32_t>(w.fine->pitch), kNetInputSize,
                        kNetInputSize, dst->planes[0], dst->pitches[0], dst->width, dst->height, 1);
  if (times != nullptr) times->final_resize = seconds_since(t);
  return s;
}

}  // namespace

NetworkHook default_network() { return NetworkHook{run_real_network, nullptr}; }
NetworkHook fast_network() { return NetworkHook{run_fast_network, nullptr}; }

MRESULT read_options(const HsegOptions *options, HsegOptions *out) {
  std::memset(out, 0, sizeof *out);
  out->size = sizeof *out;
  if (options == nullptr) return HSEG_OK;
  if (options->size < kOptionsV1) return HSEG_ERR_BAD_ARGUMENT;
  // Fields past the caller's size keep their defaults; a record from a later
  // version is read as far as this one knows it.
  std::memcpy(out, options, std::min<size_t>(options->size, sizeof *out));
  out->size = sizeof *out;
  if (out->network != HSEG_NETWORK_EXACT && out->network != HSEG_NETWORK_FAST)
    return HSEG_ERR_BAD_ARGUMENT;
  return HSEG_OK;
}

void coarse_mask(const float *scores, uint8_t *out) {
  const float *background = scores;
  const float *person = scores + kScoreCells;
  for (int32_t i = 0; i < kScoreCells; ++i) {
    const float a = background[i];
    const float threshold = a > 0.0f ? a : 0.0f;  // NaN fails a > 0: counts as 0
    out[i] = person[i] > threshold ? 255 : 0;     // NaN fails the comparison: 0
  }
}

MRESULT check_segment_args(const OffscreenImage *src, const OffscreenImage *dst) {
  if (src == nullptr || dst == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  // The mask is one byte a pixel, whatever format its descriptor names.
  OffscreenImage mask = *dst;
  mask.format = HSEG_PIXFMT_GRAY;
  if (!pixfmt::planes_ok(mask) || src->width < 1 || src->height < 1) return HSEG_ERR_BAD_ARGUMENT;
  switch (src->format) {
    case HSEG_PIXFMT_BGR24:
    case HSEG_PIXFMT_YUY2:
    case HSEG_PIXFMT_I420:
    case HSEG_PIXFMT_NV21:  // each plane as the area resize steps it
      return area::source_planes_ok(src->format, area::planes_of(*src), src->width)
                 ? HSEG_OK
                 : HSEG_ERR_BAD_ARGUMENT;
    default:
      return HSEG_OK;  // the area resize answers HSEG_ERR_FORMAT
  }
}

MRESULT figure_net(const OffscreenImage *in, OffscreenImage *out, float *scores,
                   const NetworkHook &net) {
  // The network reads exactly 473 rows of 473 BGR pixels, and the mask goes
  // out as 3600 contiguous bytes, which a one-channel image of at least
  // 60x60 whose pitch holds its row always has room for.
  if (in == nullptr || out == nullptr || in->planes[0] == nullptr ||
      in->format != HSEG_PIXFMT_BGR24 || in->width != kNetInputSize || in->height != kNetInputSize ||
      in->pitches[0] < 3 * kNetInputSize || out->planes[0] == nullptr ||
      out->format != HSEG_PIXFMT_GRAY || out->width < kNetScoreSize || out->height < kNetScoreSize ||
      out->pitches[0] < out->width)
    return HSEG_ERR_BAD_ARGUMENT;
  float *scratch = nullptr;
  if (scores == nullptr) {
    // More than the 7200 floats needed, zeroed, so that a failed pass leaves
    // a defined (all-background) mask.
    scratch = static_cast<float *>(std::calloc(10000, sizeof(float)));
    if (scratch == nullptr) return HSEG_ERR_NO_MEMORY;
    scores = scratch;
  }
  const MRESULT s = net.run(net.ctx, in->planes[0], in->pitches[0], scores);
  coarse_mask(scores, out->planes[0]);
  std::free(scratch);
  return s;
}

MRESULT segment(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                const NetworkHook &net, HsegStageTimes *times) {
  const MRESULT checked = check_segment_args(src, dst);
  if (checked != HSEG_OK) return checked;
  if (times != nullptr) std::memset(times, 0, sizeof *times);
  const Clock::time_point t0 = Clock::now();
  MRESULT s;
  {
    Work w(mem);
    s = run_stages(w, src, dst, net, times);
  }  // releases everything, success or not
  if (times != nullptr) times->total = seconds_since(t0);
  return s;
}

}  // namespace hseg

extern "C" {

HSEG_API MRESULT Hseg(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                      uint64_t, int32_t) {
  return hseg::segment(mem, src, dst, hseg::default_network(), nullptr);
}

HSEG_API MRESULT HsegTimed(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                           uint64_t, int32_t, HsegStageTimes *times) {
  return hseg::segment(mem, src, dst, hseg::default_network(), times);
}

HSEG_API MRESULT HsegEx(MHandle mem, const OffscreenImage *src, OffscreenImage *dst,
                        const HsegOptions *options) {
  HsegOptions o;
  const MRESULT s = hseg::read_options(options, &o);
  if (s != HSEG_OK) return s;
  return hseg::segment(mem, src, dst,
                       o.network == HSEG_NETWORK_FAST ? hseg::fast_network()
                                                      : hseg::default_network(),
                       o.times);
}

HSEG_API MRESULT FigureNet_il(MHandle, const OffscreenImage *in, OffscreenImage *out,
                              uint64_t, float *scores, int32_t) {
  return hseg::figure_net(in, out, scores, hseg::default_network());
}

}  // extern "C"
