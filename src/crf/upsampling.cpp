// CRF-guided upsampling of the network's two score planes to a binary mask
// that follows the guide image's edges, and the CRF clean-up of a label image
// with a confidence map.
#include <cmath>
#include <cstring>

#include "crf/upsampling.h"

#include "common/checked.h"
#include "hseg/crf.h"

namespace {

// Added to every probability before the logarithm so that p = 0 gives a
// finite energy, -ln(0.00001) ~ 11.51.
constexpr float kProbFloor = 0.00001f;

// 1 / 65536, the product of the two 8-bit fractions of the bilinear lift.
constexpr float kInv65536 = 0.000015258789f;

constexpr int kLabels = 2;

// Negative log-probability; negative and NaN scores count as probability 0.
// The sum is single precision, the logarithm double, the result single.
inline float unary_of(float p) {
  const float sum = (p >= 0.0f ? p : 0.0f) + kProbFloor;
  return static_cast<float>(-std::log(static_cast<double>(sum)));
}

bool is_bgr_guide(const OffscreenImage *g) {
  return g->format == HSEG_PIXFMT_BGR24;
}

// Common checks of a BGR guide: plane present, sizes >= 1, pitch wide enough.
MRESULT check_guide(const OffscreenImage *guide) {
  if (guide->planes[0] == nullptr || guide->width < 1 || guide->height < 1 ||
      static_cast<int64_t>(guide->pitches[0]) < 3ll * guide->width) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  return is_bgr_guide(guide) ? HSEG_OK : HSEG_ERR_FORMAT;
}

// 8.8 step of the lift along one axis: trunc(coarse / n * 256), quotient in
// single precision.
inline int64_t lift_step(uint32_t coarse, int32_t n) {
  return static_cast<int64_t>(static_cast<float>(coarse) / static_cast<float>(n) * 256.0f);
}

// 8.8 source position of output index i: i * step clamped to (n - 1) * 256.
// The clamp takes the output size n, not the coarse size.
inline int64_t lift_position(int64_t i, int64_t step, int32_t n) {
  const int64_t p = i * step;
  const int64_t last = static_cast<int64_t>(n - 1) * 256;
  return p < last ? p : last;
}

// Bilinear lift of one coarse unary plane (sw wide, followed in memory by at
// least one more row and one more value) into label `label` of the CRF's
// pixel-major unary, in 8.8 fixed point. A result is 0 when any of its four
// samples is exactly 0.
void lift_plane(const float *plane, uint32_t sw, int64_t step_x, int64_t step_y, int32_t W,
                int32_t H, float *unary, int label) {
  for (int32_t j = 0; j < H; ++j) {
    const int64_t py = lift_position(j, step_y, H);
    const float fy = static_cast<float>(py & 255);
    const float gy = static_cast<float>(256 - (py & 255));
    const float *r0 = plane + static_cast<size_t>(py >> 8) * sw;
    const float *r1 = r0 + sw;
    float *dst = unary + static_cast<size_t>(j) * W * kLabels + label;
    for (int32_t i = 0; i < W; ++i, dst += kLabels) {
      const int64_t px = lift_position(i, step_x, W);
      const int64_t x0 = px >> 8;
      const float a00 = r0[x0];
      const float a10 = r0[x0 + 1];
      const float a01 = r1[x0];
      const float a11 = r1[x0 + 1];
      if (a00 == 0.0f || a10 == 0.0f || a01 == 0.0f || a11 == 0.0f) {
        *dst = 0.0f;
        continue;
      }
      const float fx = static_cast<float>(px & 255);
      const float gx = static_cast<float>(256 - (px & 255));
      *dst = ((a10 * gy + a11 * fy) * fx + (a00 * gy + a01 * fy) * gx) * kInv65536;
    }
  }
}

// Argument checks of DCR_Upsampling2.
MRESULT check_upsampling(const OffscreenImage *guide, const UpsamplingParams *params,
                         const float *scores, uint32_t sw, int32_t sh,
                         const OffscreenImage *output) {
  if (guide == nullptr || params == nullptr || scores == nullptr || output == nullptr) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  MRESULT st = check_guide(guide);
  if (st != HSEG_OK) return st;
  const int32_t W = guide->width;
  const int32_t H = guide->height;
  if (output->planes[0] == nullptr || output->width != W || output->height != H ||
      output->pitches[0] < W) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  if (output->format != HSEG_PIXFMT_GRAY) return HSEG_ERR_FORMAT;
  // The lift only enlarges: from a coarse grid wider or taller than the
  // guide its steps would skip coarse columns or rows and read only the
  // first ones. The coarse planes plus one spare row and one value, 2*sw*sh
  // + sw + 1 floats, must fit a 32-bit byte count.
  if (sw < 1 || sh < 1 || sw > static_cast<uint32_t>(W) || sh > H ||
      !hseg::mul2_i32_valid(static_cast<int64_t>(sw) * 2, sh) ||
      !hseg::mad3_i32_valid(static_cast<int64_t>(sw) * 2 * sh + sw + 1, 4, 0)) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  // Every sample, the +1 neighbours included, must lie inside the planes and
  // the spare row: x0 + 1 <= sw and y0 + 1 <= sh at the last output column
  // and row. Only absurd coarse sizes, where the single-precision step
  // rounds up past the exact ratio, break this.
  const int64_t step_x = lift_step(sw, W);
  const int64_t step_y = lift_step(static_cast<uint32_t>(sh), H);
  if ((lift_position(W - 1, step_x, W) >> 8) + 1 > static_cast<int64_t>(sw) ||
      (lift_position(H - 1, step_y, H) >> 8) + 1 > sh) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  return HSEG_OK;
}

// Argument checks of DCR_DepthRefine: a BGR guide, and label, confidence and
// output planes of its size in GRAY.
MRESULT check_refine(const UpsamplingParams *params, const OffscreenImage *guide,
                     const OffscreenImage *labels, const OffscreenImage *confidence,
                     const OffscreenImage *output) {
  if (params == nullptr || guide == nullptr || labels == nullptr || confidence == nullptr ||
      output == nullptr) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  MRESULT st = check_guide(guide);
  if (st != HSEG_OK) return st;
  const OffscreenImage *planes[3] = {labels, confidence, output};
  for (const OffscreenImage *p : planes) {
    if (p->planes[0] == nullptr || p->width != guide->width || p->height != guide->height) {
      return HSEG_ERR_BAD_ARGUMENT;
    }
  }
  for (const OffscreenImage *p : planes) {
    if (p->format != HSEG_PIXFMT_GRAY) return HSEG_ERR_FORMAT;
  }
  return hseg::mul2_i32_valid(guide->width, guide->height) ? HSEG_OK : HSEG_ERR_BAD_ARGUMENT;
}

// The label values present in an image, numbered densely in increasing
// value order, and back.
struct LabelMap {
  uint8_t index_of[256];
  uint8_t value_of[256];
  uint32_t count;
};

uint32_t compact_labels(const uint8_t *lab, size_t n, LabelMap *map) {
  bool present[256] = {false};
  for (size_t k = 0; k < n; ++k) present[lab[k]] = true;
  std::memset(map, 0, sizeof *map);
  for (uint32_t v = 0; v < 256; ++v) {
    if (!present[v]) continue;
    map->index_of[v] = static_cast<uint8_t>(map->count);
    map->value_of[map->count] = static_cast<uint8_t>(v);
    ++map->count;
  }
  return map->count;
}

// Unary of a labelled pixel with confidence c = conf / 255 (at least 1/12):
// -ln(c) for its own label, -ln((1 - c) / (M - 1)) for each other one.
void confidence_unary(const uint8_t *lab, const uint8_t *conf, size_t n, const LabelMap &map,
                      float *unary) {
  const uint32_t M = map.count;
  const float others = static_cast<float>(M - 1);
  for (size_t k = 0; k < n; ++k) {
    float c = static_cast<float>(conf[k]) / 255.0f;
    float r;
    if (c < 0.083333336f) {  // 1 / 12
      c = 0.083333336f;
      r = 0.9166667f;  // 11 / 12
    } else {
      r = 1.0f - c;
    }
    r = r / others;
    const float u_other = static_cast<float>(-std::log(static_cast<double>(r)));
    float *u = unary + k * M;
    for (uint32_t l = 0; l < M; ++l) u[l] = u_other;
    u[map.index_of[lab[k]]] = static_cast<float>(-std::log(static_cast<double>(c)));
  }
}

// The smoothness and appearance potentials of `params` on the guide's
// pixels; with skip_unweighted a potential whose weight is not positive is
// left out.
MRESULT add_pairwise(DenseCrf *crf, const OffscreenImage *guide, const UpsamplingParams *params,
                     bool skip_unweighted) {
  MRESULT st = HSEG_OK;
  if (!skip_unweighted || params->smooth_weight > 0.0f) {
    st = crf_add_gaussian_potts(crf, params->smooth_sx, params->smooth_sy, params->smooth_weight);
  }
  if (st == HSEG_OK && (!skip_unweighted || params->appear_weight > 0.0f)) {
    st = crf_add_bilateral_potts(crf, guide->planes[0], guide->pitches[0], params->appear_sx,
                                 params->appear_sy, params->colour_s0, params->colour_s1,
                                 params->colour_s2, params->appear_weight);
  }
  return st;
}

// Mean-field inference, then each pixel's most likely label index into the
// pixel_count bytes of `labels`.
MRESULT infer_labels(DenseCrf *crf, int32_t iterations, float relaxation, uint8_t *labels) {
  const MRESULT st = crf_inference(crf, iterations, relaxation);
  return st == HSEG_OK ? crf_map2du(crf, labels, nullptr) : st;
}

// Label 1 (person) becomes 255, label 0 stays 0, row by row into the mask.
void write_mask(uint8_t *labels, int32_t W, int32_t H, OffscreenImage *output) {
  const size_t n = static_cast<size_t>(W) * H;
  for (size_t k = 0; k < n; ++k) labels[k] = static_cast<uint8_t>(-labels[k]);
  for (int32_t r = 0; r < H; ++r) {
    std::memcpy(output->planes[0] + static_cast<size_t>(r) * output->pitches[0],
                labels + static_cast<size_t>(r) * W, static_cast<size_t>(W));
  }
}

}  // namespace

namespace hseg {
namespace crf {

void lift_unary(const float *scores, uint32_t sw, int32_t sh, int32_t W, int32_t H,
                float *coarse, float *unary) {
  const size_t plane = static_cast<size_t>(sw) * static_cast<size_t>(sh);
  for (size_t k = 0; k < 2 * plane; ++k) coarse[k] = unary_of(scores[k]);
  // Spare row below plane 1: its last row repeated, then that row's first
  // value once more (the sample right of the spare row's last column). The
  // zero guard of the bottom rows is thereby decided by real scores.
  float *spare = coarse + 2 * plane;
  std::memcpy(spare, spare - sw, sw * sizeof(float));
  spare[sw] = spare[0];
  const int64_t step_x = lift_step(sw, W);
  const int64_t step_y = lift_step(static_cast<uint32_t>(sh), H);
  for (int label = 0; label < kLabels; ++label) {
    lift_plane(coarse + label * plane, sw, step_x, step_y, W, H, unary, label);
  }
}

}  // namespace crf
}  // namespace hseg

extern "C" {

UpsamplingParams *ParamUpsampling2(UpsamplingParams *params) {
  if (params == nullptr) return nullptr;
  params->smooth_sx = 3.0f;
  params->smooth_sy = 3.0f;
  params->smooth_weight = 3.0f;
  params->appear_sx = 60.0f;
  params->appear_sy = 60.0f;
  params->colour_s0 = 20.0f;
  params->colour_s1 = 20.0f;
  params->colour_s2 = 20.0f;
  params->appear_weight = 8.0f;
  params->iterations = 10;
  params->relaxation = 1.0f;
  return params;
}

MRESULT DCR_Upsampling2(MHandle handle, const OffscreenImage *guide,
                        const UpsamplingParams *params, const float *scores, uint32_t sw,
                        int32_t sh, OffscreenImage *output) {
  MRESULT st = check_upsampling(guide, params, scores, sw, sh, output);
  if (st != HSEG_OK) return st;
  const int32_t W = guide->width;
  const int32_t H = guide->height;
  const size_t plane = static_cast<size_t>(sw) * static_cast<size_t>(sh);
  const int32_t scratch_bytes = static_cast<int32_t>((2 * plane + sw + 1) * 4);

  DenseCrf crf;
  st = crf_init2d(handle, &crf, W, static_cast<uint32_t>(H), kLabels);
  if (st != HSEG_OK) {
    crf_release(&crf);
    return st;
  }
  float *coarse = static_cast<float *>(MMemAlloc(handle, scratch_bytes));
  uint8_t *labels = static_cast<uint8_t *>(MMemAlloc(handle, W * H));
  if (coarse == nullptr || labels == nullptr) {
    MMemFree(handle, coarse);
    MMemFree(handle, labels);
    crf_release(&crf);
    return HSEG_ERR_NO_MEMORY;
  }
  hseg::crf::lift_unary(scores, sw, sh, W, H, coarse, crf.unary);
  st = add_pairwise(&crf, guide, params, /*skip_unweighted=*/false);
  if (st == HSEG_OK) st = infer_labels(&crf, params->iterations, params->relaxation, labels);
  if (st == HSEG_OK) write_mask(labels, W, H, output);
  MMemFree(handle, coarse);
  MMemFree(handle, labels);
  crf_release(&crf);
  return st;
}

MRESULT DCR_DepthRefine(MHandle handle, const UpsamplingParams *params,
                        const OffscreenImage *guide, const OffscreenImage *labels,
                        const OffscreenImage *confidence, OffscreenImage *output) {
  // Fixed interface behaviour: `handle` is not used; the CRF of this entry
  // takes its memory from the default context.
  (void)handle;
  MRESULT st = check_refine(params, guide, labels, confidence, output);
  if (st != HSEG_OK) return st;
  const int32_t W = guide->width;
  const int32_t H = guide->height;
  const size_t n = static_cast<size_t>(W) * H;
  LabelMap map;
  const uint8_t *lab = labels->planes[0];
  // The other labels share 1 - c; with one label there is nothing to share.
  if (compact_labels(lab, n, &map) < 2) return HSEG_ERR_BAD_ARGUMENT;

  DenseCrf crf;
  st = crf_init2d(nullptr, &crf, W, static_cast<uint32_t>(H), map.count);
  if (st != HSEG_OK) {
    crf_release(&crf);
    return st;
  }
  confidence_unary(lab, confidence->planes[0], n, map, crf.unary);
  st = add_pairwise(&crf, guide, params, /*skip_unweighted=*/true);
  uint8_t *out = output->planes[0];
  if (st == HSEG_OK) st = infer_labels(&crf, 10, 1.0f, out);
  if (st == HSEG_OK) {
    for (size_t k = 0; k < n; ++k) out[k] = map.value_of[out[k]];
  }
  crf_release(&crf);
  return st;
}

}  // extern "C"
