// hseg-segment: segments the person in image files and raw video frames with
// libhseg and writes the mask, and on request a cut-out and an overlay that
// show the result at a glance.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#include "common/checked.h"
#include "hseg/hseg.h"
#include "output_file.h"

namespace {

using hseg_tools::OutputFile;
using hseg_tools::OutputSet;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;   // unreadable or unsupported input, failed segmentation or write
constexpr int kExitUsage = 2;    // bad command line
constexpr int32_t kNetSide = 473;
constexpr int32_t kMaxSide = 65535;
// Every picture the tool writes (mask, cut-out, overlay) has at most this
// many pixels, 8192x8192. At that size a run holds the picture, the mask at
// two sizes, the cut-out or overlay and the PNG encoder's copies of it
// beside the network's working memory: a raw 8192x8192 frame written as
// all three outputs peaks at 1.33 GB resident, and a picture of that size
// adds its decoding, so 1.5 GB is enough. Every byte count then also stays
// far inside the 32-bit sizes of the PNG encoder and of the library's
// images.
constexpr int64_t kMaxOutputPixels = int64_t{1} << 26;
constexpr char kMaxOutputText[] = "67108864 (8192x8192)";

const char kUsage[] =
    "usage: hseg-segment [options] INPUT\n"
    "\n"
    "Segments the person in INPUT and writes a mask: 255 for the person, 0 for\n"
    "the background.\n"
    "\n"
    "INPUT is a PNG, JPEG or BMP picture, or with --raw a file of raw video\n"
    "frames written one after the other, as a camera or a video decoder writes\n"
    "them; every frame is segmented.\n"
    "\n"
    "options:\n"
    "  -o, --mask FILE      where the mask goes. For a picture, and for raw\n"
    "                       input when FILE ends in .png: a grey PNG. For raw\n"
    "                       input otherwise: the masks of all frames one after\n"
    "                       the other, one byte a pixel, rows packed.\n"
    "                       Default: INPUT without its extension + \"-mask.png\"\n"
    "                       (\"-mask.gray\" for raw input).\n"
    "      --cutout FILE    also write an RGBA PNG of the picture whose alpha\n"
    "                       is the mask (transparent background).\n"
    "      --overlay FILE   also write an RGB PNG of the picture with the\n"
    "                       background dimmed and the mask's edge drawn in green.\n"
    "      --mask-size WxH  size of the mask (default: the input's size).\n"
    "                       Cut-out and overlay keep the input's size.\n"
    "      --raw FORMAT     INPUT holds raw frames: yuy2 (packed 4:2:2, Y0 U Y1 V),\n"
    "                       i420 (planar 4:2:0: Y, then U, then V) or nv21 (Y,\n"
    "                       then interleaved V,U pairs). Needs --size. Chroma of\n"
    "                       odd sizes is rounded up; yuy2 needs an even width.\n"
    "      --size WxH       width and height of each raw frame.\n"
    "      --time           print the time of each stage (resize, network, CRF,\n"
    "                       final resize) and the total; for several frames,\n"
    "                       the mean per frame.\n"
    "      --fast           use the fast network: about half the network's time\n"
    "                       once the first frame has prepared it; the masks may\n"
    "                       differ from the exact network's in a few pixels.\n"
    "  -h, --help           print this help and exit.\n"
    "\n"
    "When several raw frames give PNG files (mask, cut-out, overlay), the\n"
    "frame number is put before the extension: overlay.png becomes\n"
    "overlay-000000.png, overlay-000001.png, ...\n"
    "\n"
    "Outputs are written under temporary names beside them and take their own\n"
    "names only when the whole run has succeeded; a failed run leaves none of\n"
    "them behind. Devices and pipes (/dev/null, say) are written directly.\n"
    "Every output (mask, cut-out, overlay) may have at most 67108864 pixels\n"
    "(8192x8192), which keeps a run within about 1.5 GB of memory; larger\n"
    "ones are refused before any work is done.\n"
    "\n"
    "Pictures and frames smaller than 473 pixels in a dimension are enlarged\n"
    "with the library's bilinear resizer first (a note says so). On a terminal,\n"
    "a run over several raw frames shows its progress.\n"
    "\n"
    "The mask means something only with real network weights; the library's\n"
    "default weights are synthetic.\n"
    "\n"
    "exit status: 0 success, 1 the input could not be read or segmented or an\n"
    "output could not be written, 2 bad command line.\n";

// ---------------------------------------------------------------------------
// Command line
// ---------------------------------------------------------------------------

struct Size {
  int32_t w = 0;
  int32_t h = 0;
  bool operator==(const Size &o) const { return w == o.w && h == o.h; }
};

enum class RawFormat { kNone, kYuy2, kI420, kNv21 };

struct Options {
  std::string input;
  std::string mask;
  std::string cutout;
  std::string overlay;
  Size mask_size;  // 0x0: the input's size
  RawFormat raw = RawFormat::kNone;
  Size raw_size;
  bool time = false;
  bool fast = false;
  bool help = false;
};

__attribute__((format(printf, 1, 2))) void complain(const char *fmt, ...) {
  std::fputs("hseg-segment: ", stderr);
  va_list args;
  va_start(args, fmt);
  std::vfprintf(stderr, fmt, args);
  va_end(args);
  std::fputc('\n', stderr);
}

// Parses "WxH" with 1 <= W, H <= kMaxSide, nothing else around it.
bool parse_size(const std::string &text, Size *out) {
  int64_t v[2] = {0, 0};
  size_t i = 0;
  for (int k = 0; k < 2; ++k) {
    const size_t start = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
      v[k] = v[k] * 10 + (text[i] - '0');
      if (v[k] > kMaxSide) return false;
      ++i;
    }
    if (i == start || v[k] < 1) return false;
    if (k == 0) {
      if (i >= text.size() || (text[i] != 'x' && text[i] != 'X')) return false;
      ++i;
    }
  }
  if (i != text.size()) return false;
  out->w = static_cast<int32_t>(v[0]);
  out->h = static_cast<int32_t>(v[1]);
  return true;
}

int64_t pixels(Size s) { return int64_t{s.w} * s.h; }

// Refuses, with the reason, an output larger than kMaxOutputPixels that a
// run over `input` (the input's size) would write: the mask (the input's
// size unless --mask-size says otherwise), the cut-out and the overlay (the
// input's size). `input` is null when the input's size is not known yet.
bool outputs_fit(const Options &opt, const Size *input) {
  auto refuse = [](const char *what, Size s, const char *hint) {
    complain("the %s would be %dx%d, %" PRId64 " pixels: an output may have at most %s%s", what,
             s.w, s.h, pixels(s), kMaxOutputText, hint);
    return false;
  };
  const Size mask = opt.mask_size.w != 0 ? opt.mask_size : input != nullptr ? *input : Size{};
  if (pixels(mask) > kMaxOutputPixels)
    return refuse("mask", mask, opt.mask_size.w != 0 ? "" : "; give a smaller --mask-size");
  if (input == nullptr || pixels(*input) <= kMaxOutputPixels) return true;
  if (!opt.cutout.empty()) return refuse("cut-out", *input, " (it keeps the input's size)");
  if (!opt.overlay.empty()) return refuse("overlay", *input, " (it keeps the input's size)");
  return true;
}

// Returns kExitOk or kExitUsage (after a message).
int parse_args(int argc, char **argv, Options *opt) {
  bool options_done = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (options_done || arg.empty() || arg[0] != '-' || arg == "-") {
      if (!opt->input.empty()) {
        complain("more than one input given ('%s'); see --help", arg.c_str());
        return kExitUsage;
      }
      opt->input = arg;
      continue;
    }
    if (arg == "--") {
      options_done = true;
      continue;
    }
    std::string value;
    bool has_inline_value = false;
    const size_t eq = arg.find('=');
    if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      has_inline_value = true;
    }
    if (arg == "-h" || arg == "--help") {
      opt->help = true;
      continue;
    }
    if (arg == "--time" || arg == "--fast") {
      if (has_inline_value) {
        complain("option %s takes no value", arg.c_str());
        return kExitUsage;
      }
      (arg == "--time" ? opt->time : opt->fast) = true;
      continue;
    }
    const bool takes_value = arg == "-o" || arg == "--mask" || arg == "--cutout" ||
                             arg == "--overlay" || arg == "--mask-size" || arg == "--raw" ||
                             arg == "--size";
    if (!takes_value) {
      complain("unknown option '%s'; see --help", arg.c_str());
      return kExitUsage;
    }
    if (!has_inline_value) {
      if (i + 1 >= argc) {
        complain("option %s needs a value; see --help", arg.c_str());
        return kExitUsage;
      }
      value = argv[++i];
    }
    if (value.empty()) {
      complain("option %s needs a non-empty value", arg.c_str());
      return kExitUsage;
    }
    if (arg == "-o" || arg == "--mask") {
      opt->mask = value;
    } else if (arg == "--cutout") {
      opt->cutout = value;
    } else if (arg == "--overlay") {
      opt->overlay = value;
    } else if (arg == "--mask-size" || arg == "--size") {
      Size *target = arg == "--size" ? &opt->raw_size : &opt->mask_size;
      if (!parse_size(value, target)) {
        complain("bad %s '%s': expected WxH with W and H from 1 to 65535", arg.c_str(),
                 value.c_str());
        return kExitUsage;
      }
    } else {  // --raw
      if (value == "yuy2") {
        opt->raw = RawFormat::kYuy2;
      } else if (value == "i420") {
        opt->raw = RawFormat::kI420;
      } else if (value == "nv21") {
        opt->raw = RawFormat::kNv21;
      } else {
        complain("unsupported raw format '%s': expected yuy2, i420 or nv21", value.c_str());
        return kExitUsage;
      }
    }
  }
  if (opt->help) return kExitOk;
  if (opt->input.empty()) {
    complain("no input file given; see --help");
    return kExitUsage;
  }
  if (opt->raw != RawFormat::kNone && opt->raw_size.w == 0) {
    complain("--raw needs --size WxH, the size of each frame");
    return kExitUsage;
  }
  if (opt->raw == RawFormat::kNone && opt->raw_size.w != 0) {
    complain("--size is for raw input; give --raw FORMAT as well");
    return kExitUsage;
  }
  if (opt->raw == RawFormat::kYuy2 && opt->raw_size.w % 2 != 0) {
    complain("yuy2 frames need an even width (two pixels share a chroma pair)");
    return kExitUsage;
  }
  if (!outputs_fit(*opt, opt->raw != RawFormat::kNone ? &opt->raw_size : nullptr))
    return kExitUsage;
  if (opt->mask.empty()) {
    std::string stem = opt->input;
    const size_t slash = stem.find_last_of('/');
    const size_t dot = stem.find_last_of('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash + 1))
      stem.erase(dot);
    opt->mask = stem + (opt->raw == RawFormat::kNone ? "-mask.png" : "-mask.gray");
  }
  return kExitOk;
}

bool ends_with_png(const std::string &name) {
  if (name.size() < 4) return false;
  std::string tail = name.substr(name.size() - 4);
  for (char &c : tail) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return tail == ".png";
}

// "dir/a.png", 7 -> "dir/a-000007.png"; without an extension the number goes
// at the end.
std::string numbered(const std::string &name, int64_t frame) {
  char number[32];
  std::snprintf(number, sizeof number, "-%06" PRId64, frame);
  const size_t slash = name.find_last_of('/');
  const size_t dot = name.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
      dot == 0 || (slash != std::string::npos && dot == slash + 1))
    return name + number;
  return name.substr(0, dot) + number + name.substr(dot);
}

// ---------------------------------------------------------------------------
// Pictures in, pictures out
// ---------------------------------------------------------------------------

// A one-plane image of `size` at `data`, rows packed, `bytes_per_pixel` each.
OffscreenImage packed_image(uint32_t format, Size size, uint8_t *data, int32_t bytes_per_pixel) {
  OffscreenImage d{};
  d.format = format;
  d.width = size.w;
  d.height = size.h;
  d.planes[0] = data;
  d.pitches[0] = bytes_per_pixel * size.w;
  return d;
}

// A packed BGR picture, 3 bytes a pixel, rows packed.
struct Picture {
  Size size;
  std::vector<uint8_t> bgr;
  OffscreenImage describe() { return packed_image(HSEG_PIXFMT_BGR24, size, bgr.data(), 3); }
};

bool read_file(const std::string &path, std::vector<uint8_t> *out) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    complain("cannot open '%s': %s", path.c_str(), std::strerror(errno));
    return false;
  }
  struct stat st;
  if (fstat(fileno(f), &st) == 0 && S_ISDIR(st.st_mode)) {
    std::fclose(f);
    complain("cannot read '%s': %s", path.c_str(), std::strerror(EISDIR));
    return false;
  }
  out->clear();
  uint8_t chunk[1 << 16];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) out->insert(out->end(), chunk, chunk + n);
  const int error = std::ferror(f) != 0 ? errno : 0;
  std::fclose(f);
  if (error != 0) complain("cannot read '%s': %s", path.c_str(), std::strerror(error));
  return error == 0;
}

enum class Codec { kUnknown, kPng, kJpeg, kBmp };

Codec sniff(const std::vector<uint8_t> &bytes) {
  static const uint8_t kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (bytes.size() >= 8 && std::memcmp(bytes.data(), kPng, 8) == 0) return Codec::kPng;
  if (bytes.size() >= 3 && bytes[0] == 0xff && bytes[1] == 0xd8 && bytes[2] == 0xff)
    return Codec::kJpeg;
  if (bytes.size() >= 2 && bytes[0] == 'B' && bytes[1] == 'M') return Codec::kBmp;
  return Codec::kUnknown;
}

uint32_t big_endian32(const uint8_t *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// Walks the chunks of a PNG file (length, type, data, CRC) up to IEND, so
// that a cut or damaged file is called so, rather than by whatever the
// decoder trips over first. Returns null for a whole file, else the reason.
const char *png_damage(const std::vector<uint8_t> &bytes) {
  size_t at = 8;  // past the signature
  for (bool first = true;; first = false) {
    if (bytes.size() - at < 8) return "the file is truncated (its PNG data ends early)";
    const uint32_t length = big_endian32(&bytes[at]);
    const uint8_t *type = &bytes[at + 4];
    if (length > 0x7FFFFFFFu || (first && std::memcmp(type, "IHDR", 4) != 0))
      return "not a valid PNG file (its chunks are damaged)";
    if (bytes.size() - at - 8 < size_t{length} + 4)
      return "the file is truncated (its PNG data ends early)";
    if (std::memcmp(type, "IEND", 4) == 0) return nullptr;
    at += size_t{length} + 12;
  }
}

bool load_picture(const std::string &path, const Options &opt, Picture *pic) {
  std::vector<uint8_t> bytes;
  if (!read_file(path, &bytes)) return false;
  const Codec codec = sniff(bytes);
  if (codec == Codec::kUnknown) {
    complain("unsupported format of '%s': expected a PNG, JPEG or BMP picture "
             "(for raw frames give --raw and --size)", path.c_str());
    return false;
  }
  if (bytes.size() > static_cast<size_t>(INT32_MAX)) {
    complain("'%s' is too large to decode", path.c_str());
    return false;
  }
  const char *damage = codec == Codec::kPng ? png_damage(bytes) : nullptr;
  if (damage != nullptr) {
    complain("cannot decode '%s': %s", path.c_str(), damage);
    return false;
  }
  // The size first, so that nothing is decoded that cannot be served.
  int w = 0, h = 0, n = 0;
  const int length = static_cast<int>(bytes.size());
  if (stbi_info_from_memory(bytes.data(), length, &w, &h, &n) == 0) {
    complain("cannot decode '%s': %s", path.c_str(), stbi_failure_reason());
    return false;
  }
  if (w > kMaxSide || h > kMaxSide) {
    complain("'%s' is larger than 65535 pixels in a dimension", path.c_str());
    return false;
  }
  const Size size{w, h};
  if (!outputs_fit(opt, &size)) return false;
  stbi_uc *rgb = stbi_load_from_memory(bytes.data(), length, &w, &h, &n, 3);
  if (rgb == nullptr) {
    complain("cannot decode '%s': %s", path.c_str(), stbi_failure_reason());
    return false;
  }
  pic->size = Size{w, h};
  pic->bgr.assign(rgb, rgb + size_t{3} * w * h);
  stbi_image_free(rgb);
  for (size_t i = 0; i < pic->bgr.size(); i += 3) std::swap(pic->bgr[i], pic->bgr[i + 2]);
  return true;
}

// Writes a PNG to a new output of `outputs`: through the file's checked
// writes, closed at once (a run over many frames keeps no file open).
bool write_png(OutputSet &outputs, const std::string &path, Size size, int comp,
               const uint8_t *data) {
  OutputFile &f = outputs.add(path);
  if (f.open()) {
    auto sink = [](void *context, void *bytes, int n) {
      static_cast<OutputFile *>(context)->write(bytes, static_cast<size_t>(n));
    };
    if (stbi_write_png_to_func(sink, &f, size.w, size.h, comp, data, size.w * comp) == 0)
      f.fail(ENOMEM);  // the encoder could not get its buffers
    if (f.close()) return true;
  }
  complain("%s", f.message().c_str());
  return false;
}

// Cut-out: the picture in RGBA with the mask as alpha.
std::vector<uint8_t> make_cutout(const Picture &pic, const uint8_t *mask) {
  const size_t n = size_t{1} * pic.size.w * pic.size.h;
  std::vector<uint8_t> rgba(4 * n);
  for (size_t i = 0; i < n; ++i) {
    rgba[4 * i + 0] = pic.bgr[3 * i + 2];
    rgba[4 * i + 1] = pic.bgr[3 * i + 1];
    rgba[4 * i + 2] = pic.bgr[3 * i + 0];
    rgba[4 * i + 3] = mask[i];
  }
  return rgba;
}

// One pass of a separable maximum over a w x h map of 0/1 marks: out(x, y)
// is set when a mark lies within r places of (x, y) along x (along_x) or y.
void spread_marks(const std::vector<uint8_t> &in, int32_t w, int32_t h, int32_t r, bool along_x,
                  std::vector<uint8_t> &out) {
  const int32_t len = along_x ? w : h;
  const std::ptrdiff_t step = along_x ? 1 : w;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const int32_t pos = along_x ? x : y;
      const uint8_t *at = &in[size_t{1} * y * w + x];
      uint8_t m = 0;
      for (int32_t k = std::max(0, pos - r); k <= std::min(len - 1, pos + r) && !m; ++k)
        m = at[(k - pos) * step];
      out[size_t{1} * y * w + x] = m;
    }
}

// Overlay: the picture in RGB with the background at 35% brightness and the
// mask's edge drawn in green, about 1/300 of the shorter side thick.
std::vector<uint8_t> make_overlay(const Picture &pic, const uint8_t *mask) {
  const int32_t w = pic.size.w, h = pic.size.h;
  const size_t n = size_t{1} * w * h;
  // Mark the pixels on either side of every change of the mask...
  std::vector<uint8_t> edge(n, 0);
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = size_t{1} * y * w + x;
      if (x + 1 < w && mask[i] != mask[i + 1]) edge[i] = edge[i + 1] = 1;
      if (y + 1 < h && mask[i] != mask[i + w]) edge[i] = edge[i + w] = 1;
    }
  }
  // ...and thicken the marks with a square of radius r (separable maximum).
  const int32_t r = std::max(0, std::min(w, h) / 300 - 1);
  if (r > 0) {
    std::vector<uint8_t> tmp(n, 0);
    spread_marks(edge, w, h, r, true, tmp);
    spread_marks(tmp, w, h, r, false, edge);
  }
  std::vector<uint8_t> rgb(3 * n);
  for (size_t i = 0; i < n; ++i) {
    uint8_t *o = &rgb[3 * i];
    if (edge[i]) {
      o[0] = 0;
      o[1] = 255;
      o[2] = 0;
      continue;
    }
    const uint8_t *p = &pic.bgr[3 * i];
    const bool person = mask[i] != 0;
    // 90 / 256 ~ 0.35
    o[0] = person ? p[2] : static_cast<uint8_t>((p[2] * 90) >> 8);
    o[1] = person ? p[1] : static_cast<uint8_t>((p[1] * 90) >> 8);
    o[2] = person ? p[0] : static_cast<uint8_t>((p[0] * 90) >> 8);
  }
  return rgb;
}

// ---------------------------------------------------------------------------
// Raw frames
// ---------------------------------------------------------------------------

const char *raw_name(RawFormat f) {
  switch (f) {
    case RawFormat::kYuy2: return "yuy2";
    case RawFormat::kI420: return "i420";
    case RawFormat::kNv21: return "nv21";
    default: return "?";
  }
}

// Bytes of one frame; sizes are at most 65535, so this fits easily.
int64_t frame_bytes(RawFormat f, Size s) {
  const int64_t luma = int64_t{s.w} * s.h;
  const int64_t chroma = int64_t{(s.w + 1) / 2} * ((s.h + 1) / 2);
  return f == RawFormat::kYuy2 ? 2 * luma : luma + 2 * chroma;
}

OffscreenImage describe_raw(RawFormat f, Size s, uint8_t *frame) {
  OffscreenImage d{};
  d.width = s.w;
  d.height = s.h;
  const int32_t cw = (s.w + 1) / 2;
  const size_t luma = size_t{1} * s.w * s.h;
  const size_t chroma = size_t{1} * cw * ((s.h + 1) / 2);
  d.planes[0] = frame;
  switch (f) {
    case RawFormat::kYuy2:
      d.format = HSEG_PIXFMT_YUY2;
      d.pitches[0] = 2 * s.w;
      break;
    case RawFormat::kI420:
      d.format = HSEG_PIXFMT_I420;
      d.pitches[0] = s.w;
      d.planes[1] = frame + luma;
      d.planes[2] = frame + luma + chroma;
      d.pitches[1] = d.pitches[2] = cw;
      break;
    default:
      d.format = HSEG_PIXFMT_NV21;
      d.pitches[0] = s.w;
      d.planes[1] = frame + luma;
      d.pitches[1] = 2 * cw;
      break;
  }
  return d;
}

// ---------------------------------------------------------------------------
// Segmentation of one frame and its outputs
// ---------------------------------------------------------------------------

struct Totals {
  int64_t frames = 0;
  double enlarge = 0, resize = 0, network = 0, crf = 0, final_resize = 0, total = 0;
  bool enlarged = false;
};

const char *status_text(MRESULT s) {
  switch (s) {
    case HSEG_ERR_BAD_ARGUMENT: return "bad argument";
    case HSEG_ERR_FORMAT: return "unsupported pixel format";
    case HSEG_ERR_NO_MEMORY: return "out of memory";
    case HSEG_ERR_TABLE: return "frame geometry the resize cannot handle";
    default: return "internal failure";
  }
}

class Segmenter {
 public:
  // Outputs go to new files of `outputs`, the mask to `raw_mask` instead
  // when it is a raw stream (not null).
  Segmenter(const Options &opt, Size input, int64_t frames, OutputSet &outputs,
            OutputFile *raw_mask)
      : opt_(opt), input_(input), frames_(frames), outputs_(outputs), raw_mask_(raw_mask) {
    mask_size_ = opt.mask_size.w != 0 ? opt.mask_size : input;
    net_size_ = Size{std::max(input.w, kNetSide), std::max(input.h, kNetSide)};
  }

  bool needs_picture() const { return !opt_.cutout.empty() || !opt_.overlay.empty(); }
  const Totals &totals() const { return totals_; }

  // Segments `src` (the frame as given) and writes every requested output.
  // `pic` is the frame as BGR, needed for the cut-out and the overlay only.
  bool run(const OffscreenImage &src, const Picture *pic, int64_t frame) {
    return segment(src) && write_outputs(pic, frame);
  }

 private:
  // Fills mask_ from `src`, enlarged first when it is smaller than the
  // network's input.
  bool segment(const OffscreenImage &src) {
    OffscreenImage net_src = src;
    if (!(net_size_ == input_)) {
      if (!totals_.enlarged)
        std::fprintf(stderr,
                     "hseg-segment: note: the input (%dx%d) is smaller than %dx%d; enlarging "
                     "it to %dx%d (bilinear) before segmentation\n",
                     input_.w, input_.h, kNetSide, kNetSide, net_size_.w, net_size_.h);
      totals_.enlarged = true;
      const auto t0 = std::chrono::steady_clock::now();
      enlarged_.size = net_size_;
      enlarged_.bgr.resize(size_t{3} * net_size_.w * net_size_.h);
      const MRESULT s = zevImageResize_BL(nullptr, &src,
                                          enlarged_.bgr.data(), net_size_.w, net_size_.h,
                                          3 * net_size_.w, 1);
      if (s != HSEG_OK) return library_failed("enlarging the input", s);
      totals_.enlarge += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      net_src = enlarged_.describe();
    }
    mask_.assign(size_t{1} * mask_size_.w * mask_size_.h, 0);
    OffscreenImage dst = packed_image(HSEG_PIXFMT_GRAY, mask_size_, mask_.data(), 1);
    HsegStageTimes t{};
    const HsegOptions options{sizeof(HsegOptions), opt_.fast ? HSEG_NETWORK_FAST : HSEG_NETWORK_EXACT,
                              &t};
    const MRESULT s = HsegEx(nullptr, &net_src, &dst, &options);
    if (s != HSEG_OK) return library_failed("segmentation", s);
    totals_.frames += 1;
    totals_.resize += t.resize;
    totals_.network += t.network;
    totals_.crf += t.crf;
    totals_.final_resize += t.final_resize;
    totals_.total += t.total;
    return true;
  }

  bool write_outputs(const Picture *pic, int64_t frame) {
    if (raw_mask_ != nullptr) {
      if (!raw_mask_->write(mask_.data(), mask_.size())) {
        complain("%s", raw_mask_->message().c_str());
        return false;
      }
    } else if (!write_png(outputs_, name(opt_.mask, frame), mask_size_, 1, mask_.data())) {
      return false;
    }
    if (!needs_picture()) return true;

    // Cut-out and overlay are at the input's size.
    const uint8_t *mask = mask_.data();
    if (!(mask_size_ == input_)) {
      input_mask_.resize(size_t{1} * input_.w * input_.h);
      const MRESULT r = zevImageResize_NN(nullptr, mask_.data(), mask_size_.w, mask_size_.w,
                                          mask_size_.h, input_mask_.data(), input_.w, input_.w,
                                          input_.h, 1);
      if (r != HSEG_OK) return library_failed("resizing the mask", r);
      mask = input_mask_.data();
    }
    if (!opt_.cutout.empty() && !write_png(outputs_, name(opt_.cutout, frame), input_, 4,
                                           make_cutout(*pic, mask).data()))
      return false;
    if (!opt_.overlay.empty() && !write_png(outputs_, name(opt_.overlay, frame), input_, 3,
                                            make_overlay(*pic, mask).data()))
      return false;
    return true;
  }

  std::string name(const std::string &base, int64_t frame) const {
    return frames_ > 1 ? numbered(base, frame) : base;
  }
  bool library_failed(const char *what, MRESULT s) {
    std::fprintf(stderr, "hseg-segment: %s failed: status %u (%s)\n", what, s, status_text(s));
    return false;
  }

  const Options &opt_;
  Size input_, mask_size_, net_size_;
  int64_t frames_;
  OutputSet &outputs_;
  OutputFile *raw_mask_;
  Picture enlarged_;
  std::vector<uint8_t> mask_, input_mask_;
  Totals totals_;
};

// Gives every output its name once the run has succeeded.
bool commit(OutputSet &outputs) {
  const OutputFile *failed = nullptr;
  if (outputs.commit(&failed)) return true;
  complain("%s", failed->message().c_str());
  return false;
}

void print_times(const Totals &t, bool fast) {
  if (t.frames == 0) return;
  const double k = 1000.0 / static_cast<double>(t.frames);
  if (t.frames == 1)
    std::printf("stage times (ms):\n");
  else
    std::printf("stage times (ms, mean of %" PRId64 " frames):\n", t.frames);
  if (t.enlarged) std::printf("  enlarge       %10.1f\n", t.enlarge * k);
  std::printf("  resize        %10.1f\n", t.resize * k);
  std::printf("  network       %10.1f  (%s network)\n", t.network * k, fast ? "fast" : "exact");
  std::printf("  crf           %10.1f\n", t.crf * k);
  std::printf("  final resize  %10.1f\n", t.final_resize * k);
  std::printf("  total         %10.1f\n", (t.total + t.enlarge) * k);
}

void show_progress(int64_t done, int64_t frames, double elapsed) {
  const double fps = elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0;
  const double left = fps > 0 ? static_cast<double>(frames - done) / fps : 0.0;
  const int64_t secs = static_cast<int64_t>(left + 0.5);
  std::fprintf(stderr, "\rframe %" PRId64 "/%" PRId64 "  %.2f frames/s  %" PRId64 ":%02" PRId64
               ":%02" PRId64 " left   ",
               done, frames, fps, secs / 3600, secs / 60 % 60, secs % 60);
  if (done == frames) std::fputc('\n', stderr);
  std::fflush(stderr);
}

int run_picture(const Options &opt) {
  Picture pic;
  if (!load_picture(opt.input, opt, &pic)) return kExitFailed;
  OutputSet outputs;
  Segmenter seg(opt, pic.size, 1, outputs, nullptr);
  if (!seg.run(pic.describe(), &pic, 0) || !commit(outputs)) return kExitFailed;
  if (opt.time) print_times(seg.totals(), opt.fast);
  return kExitOk;
}

// The number of whole frames in the raw input `in`, or -1 after a message.
int64_t count_frames(const Options &opt, FILE *in) {
  struct stat st;
  const char *reason = fstat(fileno(in), &st) != 0 ? std::strerror(errno)
                       : S_ISDIR(st.st_mode)       ? std::strerror(EISDIR)
                       : !S_ISREG(st.st_mode)
                           ? "not a regular file (raw frames are counted from its size)"
                           : nullptr;
  if (reason != nullptr) {
    complain("cannot read '%s': %s", opt.input.c_str(), reason);
    return -1;
  }
  const int64_t fb = frame_bytes(opt.raw, opt.raw_size);
  if (st.st_size == 0 || st.st_size % fb != 0) {
    complain("'%s' (%" PRId64 " bytes) is not a whole number of %dx%d %s frames "
             "(%" PRId64 " bytes each)",
             opt.input.c_str(), static_cast<int64_t>(st.st_size), opt.raw_size.w,
             opt.raw_size.h, raw_name(opt.raw), fb);
    return -1;
  }
  return st.st_size / fb;
}

// Segments every frame of the open raw input `in`.
bool segment_frames(const Options &opt, FILE *in, int64_t frames, OutputSet &outputs,
                    OutputFile *mask_out, Totals *totals) {
  Segmenter seg(opt, opt.raw_size, frames, outputs, mask_out);
  std::vector<uint8_t> frame(static_cast<size_t>(frame_bytes(opt.raw, opt.raw_size)));
  Picture pic;
  pic.size = opt.raw_size;
  if (seg.needs_picture()) pic.bgr.resize(size_t{3} * opt.raw_size.w * opt.raw_size.h);
  const bool progress = frames > 1 && isatty(STDERR_FILENO);
  const auto t0 = std::chrono::steady_clock::now();
  for (int64_t i = 0; i < frames; ++i) {
    if (std::fread(frame.data(), 1, frame.size(), in) != frame.size()) {
      complain("cannot read frame %" PRId64 " of '%s'", i, opt.input.c_str());
      return false;
    }
    const OffscreenImage src = describe_raw(opt.raw, opt.raw_size, frame.data());
    if (seg.needs_picture()) {
      // Equal sizes: the area resize is a plain colour conversion.
      OffscreenImage bgr = pic.describe();
      const MRESULT s = LumResizeToBGR(nullptr, &src, &bgr);
      if (s != HSEG_OK) {
        std::fprintf(stderr, "hseg-segment: colour conversion failed: status %u (%s)\n", s,
                     status_text(s));
        return false;
      }
    }
    if (!seg.run(src, &pic, i)) return false;
    if (progress)
      show_progress(i + 1, frames,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  *totals = seg.totals();
  return true;
}

int run_raw(const Options &opt) {
  FILE *in = std::fopen(opt.input.c_str(), "rb");
  if (in == nullptr) {
    complain("cannot open '%s': %s", opt.input.c_str(), std::strerror(errno));
    return kExitFailed;
  }
  const int64_t frames = count_frames(opt, in);
  OutputSet outputs;
  OutputFile *mask_out = ends_with_png(opt.mask) ? nullptr : &outputs.add(opt.mask);
  Totals totals;
  bool ok = frames > 0;
  if (ok && mask_out != nullptr && !mask_out->open()) {
    complain("%s", mask_out->message().c_str());
    ok = false;
  }
  ok = ok && segment_frames(opt, in, frames, outputs, mask_out, &totals);
  std::fclose(in);
  if (ok && mask_out != nullptr && !mask_out->close()) {
    complain("%s", mask_out->message().c_str());
    ok = false;
  }
  if (!ok || !commit(outputs)) return kExitFailed;
  if (opt.time) print_times(totals, opt.fast);
  return kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
  // A write past a file-size limit then fails with EFBIG, is reported and
  // cleaned up, instead of killing the tool and leaving temporaries behind.
  std::signal(SIGXFSZ, SIG_IGN);
  Options opt;
  const int parsed = parse_args(argc, argv, &opt);
  if (parsed != kExitOk) return parsed;
  if (opt.help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  try {
    return opt.raw == RawFormat::kNone ? run_picture(opt) : run_raw(opt);
  } catch (const std::bad_alloc &) {
    complain("out of memory");
    return kExitFailed;
  }
}
