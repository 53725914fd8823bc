// hseg-segment: segments the person in image files and raw video frames with
// libhseg and writes the mask; on request a cut-out and an overlay that show
// the result at a glance, and the picture or the frames with their
// background blurred or replaced, also as a filter in a raw-video pipe.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#include "frames.h"
#include "hseg/hseg.h"
#include "output_file.h"
#include "stdio_file.h"

namespace {

using hseg_tools::File;
using hseg_tools::file_message;
using hseg_tools::frame_bytes;
using hseg_tools::OutputFile;
using hseg_tools::OutputSet;
using hseg_tools::Picture;
using hseg_tools::pixels;
using hseg_tools::Size;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;   // unreadable or unsupported input, failed segmentation or write
constexpr int kExitUsage = 2;    // bad command line
constexpr int32_t kNetSide = HSEG_NET_INPUT_SIZE;
constexpr int32_t kMaxSide = 65535;
// Every picture the tool writes (mask, cut-out, overlay, composited
// picture) and the replacement background have at most this many pixels,
// 8192x8192. At that size a run holds the picture, the mask at two sizes,
// the cut-out or overlay and the PNG encoder's copies of it beside the
// network's working memory: a raw 8192x8192 frame written as all three
// outputs peaks at 1.33 GB resident, and a picture of that size adds its
// decoding, so 1.5 GB is enough. Every byte count then also stays far
// inside the 32-bit sizes of the PNG encoder and of the library's images.
constexpr int64_t kMaxOutputPixels = int64_t{1} << 26;
constexpr char kMaxOutputText[] = "67108864 (8192x8192)";

const char kUsage[] =
    "usage: hseg-segment [options] INPUT\n"
    "\n"
    "Segments the person in INPUT and writes a mask: 255 for the person, 0 for\n"
    "the background; or, with --output, the input with its background blurred\n"
    "or replaced.\n"
    "\n"
    "INPUT is a PNG, JPEG or BMP picture, or with --raw a file of raw video\n"
    "frames written one after the other, as a camera or a video decoder writes\n"
    "them; every frame is segmented. With --raw, INPUT may be - for\n"
    "standard input.\n"
    "\n"
    "options:\n"
    "  -o, --mask FILE      where the mask goes. For a picture, and for raw\n"
    "                       input when FILE ends in .png: a grey PNG. For raw\n"
    "                       input otherwise: the masks of all frames one after\n"
    "                       the other, one byte a pixel, rows packed.\n"
    "                       Default: INPUT without its extension + \"-mask.png\"\n"
    "                       (\"-mask.gray\" for raw input); none with --output.\n"
    "      --cutout FILE    also write an RGBA PNG of the picture whose alpha\n"
    "                       is the mask (transparent background).\n"
    "      --overlay FILE   also write an RGB PNG of the picture with the\n"
    "                       background dimmed and the mask's edge drawn in green.\n"
    "      --mask-size WxH  size of the mask (default: the input's size).\n"
    "                       Cut-out and overlay keep the input's size.\n"
    "      --blur-background SIGMA\n"
    "                       write to --output the input with its background\n"
    "                       blurred by a Gaussian of SIGMA pixels (12 suits a\n"
    "                       720p video call) behind the sharp person.\n"
    "      --replace-background FILE\n"
    "                       write to --output the input with the PNG, JPEG or\n"
    "                       BMP picture FILE behind the person. FILE is scaled\n"
    "                       to cover the frame, keeping its proportions:\n"
    "                       centred, what sticks out is cut off.\n"
    "      --output FILE    where the input with the new background goes. For\n"
    "                       a picture: a PNG, or a JPEG or BMP when FILE ends in\n"
    "                       .jpg, .jpeg or .bmp. For raw input: the frames in\n"
    "                       the input's raw format, one after the other.\n"
    "      --raw FORMAT     INPUT holds raw frames: yuy2 (packed 4:2:2, Y0 U Y1 V),\n"
    "                       i420 (planar 4:2:0: Y, then U, then V) or nv21 (Y,\n"
    "                       then interleaved V,U pairs). Needs --size. Chroma of\n"
    "                       odd sizes is rounded up; yuy2 needs an even width.\n"
    "      --size WxH       width and height of each raw frame.\n"
    "      --time           print the time of each stage (resize, network, CRF,\n"
    "                       final resize, background effect) and the total; for\n"
    "                       several frames, the mean per frame.\n"
    "      --fast           use the fast network: about half the network's time\n"
    "                       once the first frame has prepared it; the masks may\n"
    "                       differ from the exact network's in a few pixels.\n"
    "  -h, --help           print this help and exit.\n"
    "\n"
    "Raw frames are processed as they arrive: each is read, segmented,\n"
    "composited, written and flushed before the next is read, so that the tool\n"
    "can sit in a pipe between a camera reader and a video sink:\n"
    "  ... | hseg-segment --raw yuy2 --size 1280x720 --blur-background 12 \\\n"
    "            --output - - | ...\n"
    "Any one output may be - for standard output. Input that ends inside a\n"
    "frame is an error (after the whole frames before it have been written).\n"
    "Progress and notes go to standard error; the --time report goes to\n"
    "standard output, or to standard error when an output is -.\n"
    "\n"
    "When several raw frames give PNG files (mask, cut-out, overlay), the\n"
    "frame number is put before the extension: overlay.png becomes\n"
    "overlay-000000.png, overlay-000001.png, ... (always so for standard\n"
    "input, whose frames are not counted beforehand).\n"
    "\n"
    "Outputs are written under temporary names beside them and take their own\n"
    "names only when the whole run has succeeded; a failed run leaves none of\n"
    "them behind. Devices and pipes (/dev/null, say) are written directly.\n"
    "Every output (mask, cut-out, overlay, composited picture), and the\n"
    "replacement background, may have at most 67108864 pixels (8192x8192),\n"
    "which keeps a run within about 1.5 GB of memory; larger ones are refused\n"
    "before any work is done.\n"
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

struct Options {
  std::string input;
  std::string mask;
  std::string cutout;
  std::string overlay;
  std::string output;      // the composited picture or frames
  std::string background;  // --replace-background
  float blur_sigma = 0.0f; // > 0: --blur-background
  Size mask_size;          // 0x0: the input's size
  uint32_t raw = 0;        // HSEG_PIXFMT_* of raw input; 0 for a picture
  Size raw_size;
  HsegOptions segmentation = {sizeof(HsegOptions), HSEG_NETWORK_EXACT, nullptr};  // --fast
  bool time = false;
  bool help = false;

  bool effect() const { return blur_sigma > 0.0f || !background.empty(); }
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

// Refuses, with the reason, an output larger than kMaxOutputPixels that a
// run over `input` (the input's size) would write: the mask (the input's
// size unless --mask-size says otherwise), the cut-out, the overlay and the
// composited output (the input's size). `input` is null when the input's
// size is not known yet.
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
  const char *keeps = " (it keeps the input's size)";
  if (!opt.cutout.empty()) return refuse("cut-out", *input, keeps);
  if (!opt.overlay.empty()) return refuse("overlay", *input, keeps);
  if (!opt.output.empty()) return refuse("composited output", *input, keeps);
  return true;
}

// What one option does with its value (empty for a flag); false after a
// message when it refuses the value.
using OptionAction = bool (*)(const char *name, const std::string &value, Options *opt);

struct OptionEntry {
  const char *name;
  const char *alias;  // a short form, or null
  bool takes_value;
  OptionAction apply;
};

template <std::string Options::*kField>
bool store(const char *, const std::string &value, Options *opt) {
  opt->*kField = value;
  return true;
}

bool store_size(const char *name, const std::string &value, Options *opt) {
  Size *target = std::strcmp(name, "--size") == 0 ? &opt->raw_size : &opt->mask_size;
  if (parse_size(value, target)) return true;
  complain("bad %s '%s': expected WxH with W and H from 1 to 65535", name, value.c_str());
  return false;
}

bool store_raw_format(const char *, const std::string &value, Options *opt) {
  for (const hseg_tools::RawFormat &f : hseg_tools::kRawFormats) {
    if (value == f.name) {
      opt->raw = f.format;
      return true;
    }
  }
  complain("unsupported raw format '%s': expected yuy2, i420 or nv21", value.c_str());
  return false;
}

bool store_sigma(const char *name, const std::string &value, Options *opt) {
  char *end = nullptr;
  const float sigma = std::strtof(value.c_str(), &end);
  if (*end == '\0' && std::isfinite(sigma) && sigma > 0.0f) {
    opt->blur_sigma = sigma;
    return true;
  }
  complain("bad %s '%s': expected a number of pixels above 0", name, value.c_str());
  return false;
}

const OptionEntry kOptions[] = {
    {"--mask", "-o", true, store<&Options::mask>},
    {"--cutout", nullptr, true, store<&Options::cutout>},
    {"--overlay", nullptr, true, store<&Options::overlay>},
    {"--output", nullptr, true, store<&Options::output>},
    {"--replace-background", nullptr, true, store<&Options::background>},
    {"--blur-background", nullptr, true, store_sigma},
    {"--mask-size", nullptr, true, store_size},
    {"--size", nullptr, true, store_size},
    {"--raw", nullptr, true, store_raw_format},
    {"--time", nullptr, false,
     [](const char *, const std::string &, Options *opt) { return opt->time = true; }},
    {"--fast", nullptr, false,
     [](const char *, const std::string &, Options *opt) {
       opt->segmentation.network = HSEG_NETWORK_FAST;
       return true;
     }},
    {"--help", "-h", false,
     [](const char *, const std::string &, Options *opt) { return opt->help = true; }},
};

const OptionEntry *find_option(const std::string &arg) {
  for (const OptionEntry &o : kOptions)
    if (arg == o.name || (o.alias != nullptr && arg == o.alias)) return &o;
  return nullptr;
}

// What is wrong with the options taken together, or null.
const char *options_problem(const Options &o) {
  if (o.input.empty()) return "no input file given; see --help";
  if (o.raw != 0 && o.raw_size.w == 0) return "--raw needs --size WxH, the size of each frame";
  if (o.raw == 0 && o.raw_size.w != 0) return "--size is for raw input; give --raw FORMAT as well";
  if (o.raw == HSEG_PIXFMT_YUY2 && o.raw_size.w % 2 != 0)
    return "yuy2 frames need an even width (two pixels share a chroma pair)";
  if (o.input == "-" && o.raw == 0)
    return "standard input is read as raw frames: give --raw FORMAT and --size WxH";
  if (o.blur_sigma > 0.0f && !o.background.empty())
    return "give --blur-background or --replace-background, not both";
  if (o.effect() && o.output.empty())
    return "a background effect needs --output FILE, where the result goes";
  if (!o.effect() && !o.output.empty())
    return "--output needs --blur-background SIGMA or --replace-background FILE";
  if (o.input == "-" && o.mask.empty() && o.output.empty())
    return "reading standard input, give the mask a name with --mask FILE";
  const std::string *outputs[] = {&o.mask, &o.cutout, &o.overlay, &o.output};
  if (std::count_if(std::begin(outputs), std::end(outputs),
                    [](const std::string *s) { return *s == "-"; }) > 1)
    return "only one output can go to standard output ('-')";
  return nullptr;
}

// The rules between options, and the mask's default name. Returns kExitOk
// or kExitUsage (after a message).
int check_options(Options *opt) {
  if (const char *problem = options_problem(*opt)) {
    complain("%s", problem);
    return kExitUsage;
  }
  if (!outputs_fit(*opt, opt->raw != 0 ? &opt->raw_size : nullptr)) return kExitUsage;
  if (opt->mask.empty() && opt->output.empty()) {
    std::string stem = opt->input;
    const size_t slash = stem.find_last_of('/');
    const size_t dot = stem.find_last_of('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash + 1))
      stem.erase(dot);
    opt->mask = stem + (opt->raw == 0 ? "-mask.png" : "-mask.gray");
  }
  return kExitOk;
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
    const size_t eq = arg.find('=');
    const bool inline_value = arg.compare(0, 2, "--") == 0 && eq != std::string::npos;
    if (inline_value) {
      value = arg.substr(eq + 1);
      arg.erase(eq);
    }
    const OptionEntry *entry = find_option(arg);
    if (entry == nullptr) {
      complain("unknown option '%s'; see --help", arg.c_str());
      return kExitUsage;
    }
    if (!entry->takes_value && inline_value) {
      complain("option %s takes no value", arg.c_str());
      return kExitUsage;
    }
    if (entry->takes_value && !inline_value) {
      if (i + 1 >= argc) {
        complain("option %s needs a value; see --help", arg.c_str());
        return kExitUsage;
      }
      value = argv[++i];
    }
    if (entry->takes_value && value.empty()) {
      complain("option %s needs a non-empty value", arg.c_str());
      return kExitUsage;
    }
    if (!entry->apply(entry->name, value, opt)) return kExitUsage;
  }
  return opt->help ? kExitOk : check_options(opt);
}

bool has_extension(const std::string &name, const char *extension) {
  const size_t n = std::strlen(extension);
  if (name.size() < n) return false;
  for (size_t i = 0; i < n; ++i) {
    const char c = name[name.size() - n + i];
    if ((c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c) != extension[i]) return false;
  }
  return true;
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

// The input as messages name it.
std::string input_name(const Options &opt) {
  return opt.input == "-" ? "standard input" : "'" + opt.input + "'";
}

// Passes `ok` on, after saying what went wrong with `f` when it is false.
bool reported(const OutputFile &f, bool ok) {
  if (!ok) complain("%s", f.message().c_str());
  return ok;
}

// Writes one frame's piece to a stream output and hands it on at once.
bool append(OutputFile &stream, const void *data, size_t n) {
  return reported(stream, stream.write(data, n) && stream.flush());
}

// ---------------------------------------------------------------------------
// Pictures in, pictures out
// ---------------------------------------------------------------------------

bool read_file(const std::string &path, std::vector<uint8_t> *out) {
  File f(std::fopen(path.c_str(), "rb"));
  if (!f) {
    complain("%s", file_message("open", path, errno).c_str());
    return false;
  }
  struct stat st;
  if (fstat(fileno(f.get()), &st) == 0 && S_ISDIR(st.st_mode)) {
    complain("%s", file_message("read", path, EISDIR).c_str());
    return false;
  }
  out->clear();
  uint8_t chunk[1 << 16];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f.get())) > 0)
    out->insert(out->end(), chunk, chunk + n);
  if (std::ferror(f.get()) == 0) return true;
  complain("%s", file_message("read", path, errno).c_str());
  return false;
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

void swap_red_blue(std::vector<uint8_t> &pixels) {
  for (size_t i = 0; i + 2 < pixels.size(); i += 3) std::swap(pixels[i], pixels[i + 2]);
}

// Reads a PNG, JPEG or BMP picture as BGR. `fits` sees the picture's size
// before it is decoded and may refuse it (after a message).
bool load_picture(const std::string &path, const std::function<bool(Size)> &fits,
                  Picture *pic) {
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
  if (!fits(Size{w, h})) return false;
  stbi_uc *rgb = stbi_load_from_memory(bytes.data(), length, &w, &h, &n, 3);
  if (rgb == nullptr) {
    complain("cannot decode '%s': %s", path.c_str(), stbi_failure_reason());
    return false;
  }
  pic->size = Size{w, h};
  pic->bgr.assign(rgb, rgb + size_t{3} * w * h);
  stbi_image_free(rgb);
  swap_red_blue(pic->bgr);
  return true;
}

// Writes a picture (`comp` bytes a pixel, RGB order) to a new output of
// `outputs`: a JPEG or BMP when the name ends so and `by_name`, else a PNG.
// Through the file's checked writes, closed at once (a run over many frames
// keeps no file open).
bool write_picture(OutputSet &outputs, const std::string &path, Size size, int comp,
                   const uint8_t *data, bool by_name = false) {
  OutputFile &f = outputs.add(path);
  if (!f.open()) return reported(f, false);
  auto sink = [](void *context, void *bytes, int n) {
    static_cast<OutputFile *>(context)->write(bytes, static_cast<size_t>(n));
  };
  int encoded;
  if (by_name && (has_extension(path, ".jpg") || has_extension(path, ".jpeg")))
    encoded = stbi_write_jpg_to_func(sink, &f, size.w, size.h, comp, data, 95);
  else if (by_name && has_extension(path, ".bmp"))
    encoded = stbi_write_bmp_to_func(sink, &f, size.w, size.h, comp, data);
  else
    encoded = stbi_write_png_to_func(sink, &f, size.w, size.h, comp, data, size.w * comp);
  if (encoded == 0) f.fail(ENOMEM);  // the encoder could not get its buffers
  return reported(f, f.close());
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
// Segmentation of one frame, its outputs and its new background
// ---------------------------------------------------------------------------

struct Totals {
  int64_t frames = 0;
  double enlarge = 0, resize = 0, network = 0, crf = 0, final_resize = 0, effect = 0, total = 0;
  bool enlarged = false;
};

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

const char *status_text(MRESULT s) {
  switch (s) {
    case HSEG_ERR_BAD_ARGUMENT: return "bad argument";
    case HSEG_ERR_FORMAT: return "unsupported pixel format";
    case HSEG_ERR_NO_MEMORY: return "out of memory";
    case HSEG_ERR_TABLE: return "frame geometry the resize cannot handle";
    default: return "internal failure";
  }
}

bool library_failed(const char *what, MRESULT s) {
  complain("%s failed: status %u (%s)", what, s, status_text(s));
  return false;
}

// The new background: a blur of `sigma`, or `picture`, the replacement in
// the frame's format and size.
struct Effect {
  float sigma = 0.0f;
  std::vector<uint8_t> bytes;
  OffscreenImage picture{};
};

// Makes the effect for frames of `format` and `size`: loads the
// replacement picture and fits it to them.
bool prepare_effect(const Options &opt, uint32_t format, Size size, Effect *effect) {
  effect->sigma = opt.blur_sigma;
  if (opt.background.empty()) return true;
  const auto fits = [&opt](Size s) {
    if (pixels(s) <= kMaxOutputPixels) return true;
    complain("the background picture '%s' is %dx%d, %" PRId64 " pixels: it may have at most %s",
             opt.background.c_str(), s.w, s.h, pixels(s), kMaxOutputText);
    return false;
  };
  Picture picture, fitted;
  if (!load_picture(opt.background, fits, &picture)) return false;
  MRESULT s = hseg_tools::cover(picture, size, &fitted);
  if (s == HSEG_OK && format != HSEG_PIXFMT_BGR24)
    s = hseg_tools::bgr_to_frame(fitted, format, &effect->bytes);
  else
    effect->bytes.swap(fitted.bgr);
  if (s != HSEG_OK) return library_failed("fitting the background picture to the frame", s);
  effect->picture = hseg_tools::describe_frame(format, size, effect->bytes.data());
  return true;
}

// Where a run's outputs go: every file it writes, and the streams that take
// one piece a frame (null when not asked for).
struct Outputs {
  OutputSet files;
  OutputFile *raw_masks = nullptr;   // the masks of raw frames
  OutputFile *raw_frames = nullptr;  // the composited raw frames
};

class Segmenter {
 public:
  // `frames`: how many frames the run has, or -1 when they are counted as
  // they arrive.
  Segmenter(const Options &opt, Size input, int64_t frames, const Effect &effect,
            Outputs &outputs)
      : opt_(opt), input_(input), frames_(frames), effect_(effect), outputs_(outputs) {
    mask_size_ = opt.mask_size.w != 0 ? opt.mask_size : input;
    net_size_ = Size{std::max(input.w, kNetSide), std::max(input.h, kNetSide)};
    net_mask_.resize(size_t{1} * kNetSide * kNetSide);
  }

  bool needs_picture() const { return !opt_.cutout.empty() || !opt_.overlay.empty(); }
  const Totals &totals() const { return totals_; }

  // Segments `frame` (as given), writes every requested output and gives
  // the frame its new background, in place. `pic` is the frame as BGR,
  // needed for the cut-out and the overlay only.
  bool run(OffscreenImage &frame, const Picture *pic, int64_t index) {
    return segment(frame) && write_outputs(pic, index) && composite(frame, index);
  }

 private:
  // Fills net_mask_ from `src`, enlarged first when it is smaller than the
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
      totals_.enlarge += seconds_since(t0);
      net_src = enlarged_.describe();
    }
    OffscreenImage dst = hseg_tools::describe_frame(HSEG_PIXFMT_GRAY, Size{kNetSide, kNetSide},
                                                    net_mask_.data());
    HsegStageTimes t{};
    HsegOptions options = opt_.segmentation;
    options.times = &t;
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

  // The segmentation's mask at `size` (nearest neighbour, as the library
  // sizes its masks), kept in `buf`; null after a message.
  const uint8_t *mask_at(Size size, std::vector<uint8_t> *buf) {
    const auto t0 = std::chrono::steady_clock::now();
    buf->resize(size_t{1} * size.w * size.h);
    const MRESULT s = zevImageResize_NN(nullptr, net_mask_.data(), kNetSide, kNetSide, kNetSide,
                                        buf->data(), size.w, size.w, size.h, 1);
    if (s != HSEG_OK) {
      library_failed("resizing the mask", s);
      return nullptr;
    }
    totals_.final_resize += seconds_since(t0);
    totals_.total += seconds_since(t0);
    return buf->data();
  }

  bool write_outputs(const Picture *pic, int64_t index) {
    const uint8_t *mask = nullptr;
    if (!opt_.mask.empty()) {
      if ((mask = mask_at(mask_size_, &mask_)) == nullptr) return false;
      if (outputs_.raw_masks != nullptr) {
        if (!append(*outputs_.raw_masks, mask, mask_.size())) return false;
      } else if (!write_picture(outputs_.files, name(opt_.mask, index), mask_size_, 1, mask)) {
        return false;
      }
    }
    if (!needs_picture()) return true;

    // Cut-out and overlay are at the input's size.
    if (mask == nullptr || !(mask_size_ == input_)) mask = mask_at(input_, &input_mask_);
    if (mask == nullptr) return false;
    if (!opt_.cutout.empty() && !write_picture(outputs_.files, name(opt_.cutout, index), input_, 4,
                                               make_cutout(*pic, mask).data()))
      return false;
    if (!opt_.overlay.empty() && !write_picture(outputs_.files, name(opt_.overlay, index), input_,
                                                3, make_overlay(*pic, mask).data()))
      return false;
    return true;
  }

  // Blurs or replaces the background of `frame` through the segmentation's
  // mask and writes the result.
  bool composite(OffscreenImage &frame, int64_t index) {
    if (!opt_.effect()) return true;
    const auto t0 = std::chrono::steady_clock::now();
    OffscreenImage mask = hseg_tools::describe_frame(HSEG_PIXFMT_GRAY, Size{kNetSide, kNetSide},
                                                     net_mask_.data());
    const bool blur = effect_.sigma > 0.0f;
    const MRESULT s =
        blur ? HsegBlurBackground(nullptr, &frame, &mask, effect_.sigma, &frame)
             : HsegReplaceBackground(nullptr, &frame, &mask, &effect_.picture, &frame);
    if (s != HSEG_OK)
      return library_failed(blur ? "blurring the background" : "replacing the background", s);
    totals_.effect += seconds_since(t0);
    totals_.total += seconds_since(t0);
    if (outputs_.raw_frames != nullptr)
      return append(*outputs_.raw_frames, frame.planes[0],
                    static_cast<size_t>(frame_bytes(frame.format, input_)));
    std::vector<uint8_t> rgb(frame.planes[0], frame.planes[0] + size_t{3} * input_.w * input_.h);
    swap_red_blue(rgb);
    return write_picture(outputs_.files, name(opt_.output, index), input_, 3, rgb.data(), true);
  }

  std::string name(const std::string &base, int64_t index) const {
    return frames_ != 1 ? numbered(base, index) : base;
  }

  const Options &opt_;
  Size input_, mask_size_, net_size_;
  int64_t frames_;
  const Effect &effect_;
  Outputs &outputs_;
  Picture enlarged_;
  std::vector<uint8_t> net_mask_, mask_, input_mask_;
  Totals totals_;
};

// Gives every output its name once the run has succeeded.
bool commit(OutputSet &outputs) {
  const OutputFile *failed = nullptr;
  if (outputs.commit(&failed)) return true;
  return reported(*failed, false);
}

void print_times(const Options &opt, const Totals &t) {
  if (t.frames == 0) return;
  // Standard output may carry pictures or frames; the report then goes to
  // standard error.
  const bool stdout_taken = opt.mask == "-" || opt.cutout == "-" || opt.overlay == "-" ||
                            opt.output == "-";
  FILE *out = stdout_taken ? stderr : stdout;
  const double k = 1000.0 / static_cast<double>(t.frames);
  if (t.frames == 1)
    std::fprintf(out, "stage times (ms):\n");
  else
    std::fprintf(out, "stage times (ms, mean of %" PRId64 " frames):\n", t.frames);
  if (t.enlarged) std::fprintf(out, "  enlarge       %10.1f\n", t.enlarge * k);
  std::fprintf(out, "  resize        %10.1f\n", t.resize * k);
  std::fprintf(out, "  network       %10.1f  (%s network)\n", t.network * k,
               opt.segmentation.network == HSEG_NETWORK_FAST ? "fast" : "exact");
  std::fprintf(out, "  crf           %10.1f\n", t.crf * k);
  std::fprintf(out, "  final resize  %10.1f\n", t.final_resize * k);
  if (opt.effect()) std::fprintf(out, "  effect        %10.1f\n", t.effect * k);
  std::fprintf(out, "  total         %10.1f\n", (t.total + t.enlarge) * k);
}

// One line of progress, rewritten in place; `frames` is -1 when unknown.
void show_progress(int64_t done, int64_t frames, double elapsed) {
  const double fps = elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0;
  if (frames < 0) {
    std::fprintf(stderr, "\rframe %" PRId64 "  %.2f frames/s   ", done, fps);
  } else {
    const double left = fps > 0 ? static_cast<double>(frames - done) / fps : 0.0;
    const int64_t secs = static_cast<int64_t>(left + 0.5);
    std::fprintf(stderr, "\rframe %" PRId64 "/%" PRId64 "  %.2f frames/s  %" PRId64
                 ":%02" PRId64 ":%02" PRId64 " left   ",
                 done, frames, fps, secs / 3600, secs / 60 % 60, secs % 60);
  }
  std::fflush(stderr);
}

int run_picture(const Options &opt) {
  Picture pic;
  if (!load_picture(opt.input, [&opt](Size s) { return outputs_fit(opt, &s); }, &pic))
    return kExitFailed;
  Effect effect;
  if (!prepare_effect(opt, HSEG_PIXFMT_BGR24, pic.size, &effect)) return kExitFailed;
  Outputs outputs;
  Segmenter seg(opt, pic.size, 1, effect, outputs);
  OffscreenImage frame = pic.describe();
  if (!seg.run(frame, &pic, 0) || !commit(outputs.files)) return kExitFailed;
  if (opt.time) print_times(opt, seg.totals());
  return kExitOk;
}

// ---------------------------------------------------------------------------
// Raw frames
// ---------------------------------------------------------------------------

constexpr int64_t kCountedOnArrival = -1;

// Says that the raw input ends `extra` bytes into the frame after its
// `whole` whole frames, or that it holds no frames at all.
void say_cut(const Options &opt, int64_t whole, int64_t extra) {
  if (whole == 0 && extra == 0) {
    complain("%s holds no frames", input_name(opt).c_str());
    return;
  }
  complain("%s ends %" PRId64 " bytes into frame %" PRId64 ", after %" PRId64
           " whole frame%s: a %dx%d %s frame has %" PRId64 " bytes",
           input_name(opt).c_str(), extra, whole, whole, whole == 1 ? "" : "s", opt.raw_size.w,
           opt.raw_size.h, hseg_tools::raw_name(opt.raw), frame_bytes(opt.raw, opt.raw_size));
}

// The number of whole frames left in the raw input `in`, which must hold
// nothing else (a cut file is refused before any work); kCountedOnArrival
// for a pipe or a device; 0 after a message.
int64_t count_frames(const Options &opt, FILE *in) {
  struct stat st;
  const int error = fstat(fileno(in), &st) != 0 ? errno : S_ISDIR(st.st_mode) ? EISDIR : 0;
  if (error != 0) {
    complain("%s", file_message("read", opt.input, error).c_str());
    return 0;
  }
  if (!S_ISREG(st.st_mode)) return kCountedOnArrival;
  const int64_t bytes =
      std::max<int64_t>(0, st.st_size - std::max<int64_t>(0, lseek(fileno(in), 0, SEEK_CUR)));
  const int64_t fb = frame_bytes(opt.raw, opt.raw_size);
  if (bytes == 0 || bytes % fb != 0) {
    say_cut(opt, bytes / fb, bytes % fb);
    return 0;
  }
  return bytes / fb;
}

// Whether the input ended well after `whole` frames, given how the next
// read went (`got` bytes of the next frame, `error` its errno); says what
// went wrong otherwise.
bool input_ended(const Options &opt, hseg_tools::FrameRead read, int64_t whole, size_t got,
                 int error) {
  if (read == hseg_tools::FrameRead::kError) {
    complain("%s", file_message("read", opt.input, error).c_str());
    return false;
  }
  if (read == hseg_tools::FrameRead::kEnd && whole > 0) return true;
  say_cut(opt, whole, static_cast<int64_t>(got));
  return false;
}

// Segments every frame of the open raw input `in`, one at a time as they
// arrive.
bool segment_frames(const Options &opt, FILE *in, int64_t frames, const Effect &effect,
                    Outputs &outputs, Totals *totals) {
  Segmenter seg(opt, opt.raw_size, frames, effect, outputs);
  std::vector<uint8_t> frame(static_cast<size_t>(frame_bytes(opt.raw, opt.raw_size)));
  Picture pic;
  pic.size = opt.raw_size;
  if (seg.needs_picture()) pic.bgr.resize(size_t{3} * opt.raw_size.w * opt.raw_size.h);
  const bool progress = frames != 1 && isatty(STDERR_FILENO);
  const auto t0 = std::chrono::steady_clock::now();
  for (int64_t i = 0;; ++i) {
    size_t got = 0;
    const hseg_tools::FrameRead read = hseg_tools::read_frame(in, &frame, &got);
    if (read != hseg_tools::FrameRead::kFrame) {
      const int error = errno;
      if (progress) std::fputc('\n', stderr);
      *totals = seg.totals();
      return input_ended(opt, read, i, got, error);
    }
    OffscreenImage src = hseg_tools::describe_frame(opt.raw, opt.raw_size, frame.data());
    if (seg.needs_picture()) {
      // Equal sizes: the area resize is a plain colour conversion.
      OffscreenImage bgr = pic.describe();
      const MRESULT s = LumResizeToBGR(nullptr, &src, &bgr);
      if (s != HSEG_OK) return library_failed("colour conversion", s);
    }
    if (!seg.run(src, &pic, i)) return false;
    if (progress) show_progress(i + 1, frames, seconds_since(t0));
  }
}

// Opens the outputs that take one piece a frame: the masks, unless they go
// to PNG files, and the composited frames.
bool open_streams(const Options &opt, Outputs *out) {
  if (!opt.mask.empty() && !has_extension(opt.mask, ".png")) {
    out->raw_masks = &out->files.add(opt.mask);
    if (!reported(*out->raw_masks, out->raw_masks->open())) return false;
  }
  if (!opt.output.empty()) {
    out->raw_frames = &out->files.add(opt.output);
    if (!reported(*out->raw_frames, out->raw_frames->open())) return false;
  }
  return true;
}

bool close_streams(const Outputs &out) {
  for (OutputFile *f : {out.raw_masks, out.raw_frames})
    if (f != nullptr && !reported(*f, f->close())) return false;
  return true;
}

int run_raw(const Options &opt) {
  File in = hseg_tools::open_file(opt.input, "rb");
  if (!in) {
    complain("%s", file_message("open", opt.input, errno).c_str());
    return kExitFailed;
  }
  const int64_t frames = count_frames(opt, in.get());
  Effect effect;
  Outputs outputs;
  Totals totals;
  const bool ok = frames != 0 && prepare_effect(opt, opt.raw, opt.raw_size, &effect) &&
                  open_streams(opt, &outputs) &&
                  segment_frames(opt, in.get(), frames, effect, outputs, &totals) &&
                  close_streams(outputs);
  if (!ok || !commit(outputs.files)) return kExitFailed;
  if (opt.time) print_times(opt, totals);
  return kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
  // A write past a file-size limit, or to a pipe whose reader has gone,
  // then fails with EFBIG or EPIPE, is reported and cleaned up, instead of
  // killing the tool and leaving temporaries behind.
  std::signal(SIGXFSZ, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  Options opt;
  const int parsed = parse_args(argc, argv, &opt);
  if (parsed != kExitOk) return parsed;
  if (opt.help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  try {
    return opt.raw == 0 ? run_picture(opt) : run_raw(opt);
  } catch (const std::bad_alloc &) {
    complain("out of memory");
    return kExitFailed;
  }
}
