// BMP files: a reader that checks every header field against the file's
// length before using it, and a writer that replaces its target atomically.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "hseg/imgproc.h"

namespace {

constexpr uint32_t kFileHeader = 14;
// Everything the header parser reads lies in the first kHeadMax bytes: file
// header, the largest info header, four masks and a 256-entry palette.
constexpr size_t kHeadMax = kFileHeader + 124 + 16 + 256 * 4;

enum : uint32_t {
  kRgb = 0,
  kRle8 = 1,
  kRle4 = 2,
  kBitFields = 3,
  kJpeg = 4,
  kPng = 5,
  kAlphaBitFields = 6
};

uint32_t u16(const uint8_t *p) { return p[0] | uint32_t{p[1]} << 8; }
uint32_t u32(const uint8_t *p) {
  return p[0] | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
void put16(uint8_t *p, uint32_t v) { p[0] = uint8_t(v), p[1] = uint8_t(v >> 8); }
void put32(uint8_t *p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}

// One colour field of a 16- or 32-bit pixel: its mask, where it starts, and
// a table widening a field of up to 8 bits to 8 bits by bit replication
// (wider fields keep their top 8 bits).
struct Field {
  uint32_t mask = 0;
  int shift = 0, bits = 0;
  uint8_t widen[256];

  // False for a mask whose bits are not one contiguous run.
  bool set(uint32_t m) {
    mask = m;
    if (m == 0) return true;
    shift = __builtin_ctz(m);
    bits = __builtin_popcount(m);
    if (((m >> shift) & ((m >> shift) + 1)) != 0) return false;
    for (uint32_t v = 0; v < 256 && bits <= 8; ++v) {
      uint32_t out = 0;
      for (int s = 8 - bits; s > -bits; s -= bits) out |= s >= 0 ? v << s : v >> -s;
      widen[v] = static_cast<uint8_t>(out);
    }
    return true;
  }
  uint8_t get(uint32_t pixel) const {
    const uint32_t v = (pixel & mask) >> shift;
    return bits <= 8 ? widen[v] : static_cast<uint8_t>(v >> (bits - 8));
  }
};

// What the header says, once checked.
struct BmpInfo {
  int32_t width = 0, height = 0;  // height as rows, positive
  bool top_down = false;
  uint32_t bpp = 0;
  uint32_t data_offset = 0;
  size_t row_bytes = 0;       // a file row, padded to 4 bytes
  size_t last_row_bytes = 0;  // the bytes of the last row that hold pixels
  int32_t channels = 0;
  uint8_t palette[256][3] = {};  // B, G, R; entries past the file's are black
  Field field[4];                // R, G, B, A for 16- and 32-bit files
};

MRESULT malformed() { return HSEG_ERR_FILE; }

// Reads the masks of a bit-field file, or the implied ones of a plain 16- or
// 32-bit file, and checks them: R, G and B present, each contiguous, inside
// the pixel and not overlapping. *end is the end of the info header on
// entry, and moves past masks that follow a 40-byte header.
MRESULT read_masks(const uint8_t *head, size_t head_len, uint32_t header, uint32_t compression,
                   BmpInfo *info, size_t *end) {
  uint32_t m[4] = {0, 0, 0, 0};
  if (compression == kRgb) {
    if (info->bpp == 16) m[0] = 0x7C00, m[1] = 0x03E0, m[2] = 0x001F;
    if (info->bpp == 32) m[0] = 0xFF0000, m[1] = 0xFF00, m[2] = 0xFF, m[3] = 0xFF000000u;
  } else {
    // 108- and 124-byte headers hold all four masks at this offset; a 40-byte
    // header is followed by three (four with alpha bit fields).
    const int n = header >= 108 || compression == kAlphaBitFields ? 4 : 3;
    if (header == 40) *end += 4 * n;
    if (*end > head_len) return malformed();
    for (int i = 0; i < n; ++i) m[i] = u32(head + kFileHeader + 40 + 4 * i);
  }
  uint32_t seen = 0;
  for (int i = 0; i < 4; ++i) {
    if ((i < 3 && m[i] == 0) || (info->bpp == 16 && m[i] > 0xFFFF) || (m[i] & seen) != 0 ||
        !info->field[i].set(m[i]))
      return malformed();
    seen |= m[i];
  }
  return HSEG_OK;
}

// Reads the palette of a 1-, 4- or 8-bit file and decides the channel count.
MRESULT read_palette(const uint8_t *head, size_t head_len, size_t at, uint32_t used, BmpInfo *info,
                     size_t *end) {
  const uint32_t max = 1u << info->bpp;
  const uint32_t n = used == 0 ? max : used;
  if (n > max) return malformed();
  *end = at + 4 * size_t{n};
  if (*end > head_len) return malformed();
  bool grey = info->bpp == 8 && n == 256;
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t *e = head + at + 4 * i;  // B, G, R, reserved
    std::memcpy(info->palette[i], e, 3);
    grey = grey && e[0] == i && e[1] == i && e[2] == i;
  }
  info->channels = grey ? 1 : 3;
  return HSEG_OK;
}

// Checks the header in the first head_len bytes of a file of file_len bytes
// (head_len is file_len or at least kHeadMax) and fills *info.
MRESULT parse_header(const uint8_t *head, size_t head_len, uint64_t file_len, BmpInfo *info) {
  if (head_len < kFileHeader + 4 || head[0] != 'B' || head[1] != 'M') return malformed();
  const uint32_t header = u32(head + kFileHeader);
  if (header == 12 || header == 16 || header == 52 || header == 56 || header == 64)
    return HSEG_ERR_FORMAT;  // OS/2 and rarer Windows headers: valid, not read here
  if (header != 40 && header != 108 && header != 124) return malformed();
  if (head_len < kFileHeader + header) return malformed();
  const uint8_t *h = head + kFileHeader;
  const auto width = static_cast<int32_t>(u32(h + 4)), height = static_cast<int32_t>(u32(h + 8));
  const uint32_t planes = u16(h + 12), bpp = u16(h + 14), compression = u32(h + 16),
                 used = u32(h + 32);
  if (width <= 0 || height == 0 || height == INT32_MIN || planes != 1) return malformed();
  if (compression == kRle8 || compression == kRle4 || compression == kJpeg || compression == kPng)
    return HSEG_ERR_FORMAT;
  const bool fields = compression == kBitFields || compression == kAlphaBitFields;
  if ((compression != kRgb && !fields) ||
      (bpp != 1 && bpp != 4 && bpp != 8 && bpp != 16 && bpp != 24 && bpp != 32) ||
      (fields && bpp != 16 && bpp != 32))
    return malformed();
  info->width = width;
  info->height = height < 0 ? -height : height;
  info->top_down = height < 0;
  info->bpp = bpp;
  info->data_offset = u32(head + 10);

  size_t end = kFileHeader + header;  // end of the header, masks and palette
  MRESULT s = HSEG_OK;
  if (bpp <= 8)
    s = read_palette(head, head_len, end, used, info, &end);
  else if (bpp == 24)
    info->channels = 3;
  else {
    s = read_masks(head, head_len, header, compression, info, &end);
    info->channels = bpp == 16 ? 3 : 4;
  }
  if (s != HSEG_OK) return s;

  // Pixel data: after the palette, inside the file, the rows all there.
  const uint64_t row_bits = uint64_t(width) * bpp;
  info->row_bytes = static_cast<size_t>((row_bits + 31) / 32 * 4);
  info->last_row_bytes = static_cast<size_t>((row_bits + 7) / 8);
  if (info->data_offset < end || info->data_offset > file_len) return malformed();
  const uint64_t room = file_len - info->data_offset;
  if (info->last_row_bytes > room ||
      uint64_t(info->height - 1) > (room - info->last_row_bytes) / info->row_bytes)
    return malformed();
  // The image must be one that createimg can make: row and size in int32.
  const uint64_t pitch = (uint64_t(width) * info->channels + 3) / 4 * 4;
  if (uint64_t(width) * info->channels * 8 > INT32_MAX || pitch * info->height > INT32_MAX)
    return malformed();
  return HSEG_OK;
}

// Unpacks one file row into an image row.
void decode_row(const BmpInfo &info, const uint8_t *in, uint8_t *out) {
  const int32_t w = info.width;
  if (info.bpp <= 8) {
    const uint32_t bpp = info.bpp, per_byte = 8 / bpp, mask = (1u << bpp) - 1;
    for (int32_t x = 0; x < w; ++x) {
      const uint32_t shift = 8 - bpp * (x % per_byte + 1);
      const uint8_t *c = info.palette[(in[x / per_byte] >> shift) & mask];
      if (info.channels == 1)
        out[x] = c[0];
      else
        std::memcpy(out + 3 * x, c, 3);
    }
  } else if (info.bpp == 24) {
    std::memcpy(out, in, 3 * size_t(w));
  } else {
    const Field *f = info.field;
    for (int32_t x = 0; x < w; ++x, out += info.channels) {
      const uint32_t v = info.bpp == 16 ? u16(in + 2 * x) : u32(in + 4 * x);
      out[0] = f[2].get(v), out[1] = f[1].get(v), out[2] = f[0].get(v);
      if (info.channels == 4) out[3] = f[3].mask != 0 ? f[3].get(v) : 255;
    }
  }
}

uint8_t *image_row(const BmpInfo &info, const Image &img, int32_t file_row) {
  const int32_t y = info.top_down ? file_row : info.height - 1 - file_row;
  return img.data + size_t(y) * img.pitch;
}

struct FileCloser {
  void operator()(FILE *f) const { std::fclose(f); }
};
struct ImageReleaser {
  MHandle mem;
  void operator()(Image *img) const { release_img(mem, &img); }
};
struct BlockFreer {
  MHandle mem;
  void operator()(uint8_t *p) const { MMemFree(mem, p); }
};

// Writes the image as a BMP through `f`.
bool write_bmp(FILE *f, const Image &img) {
  const uint32_t c = img.channels, w = img.width, h = img.height;
  const uint32_t row = (w * c + 3) / 4 * 4, palette = c == 1 ? 256 * 4 : 0;
  const uint32_t offset = kFileHeader + 40 + palette;
  uint8_t head[kFileHeader + 40] = {'B', 'M'};
  put32(head + 2, offset + row * h);
  put32(head + 10, offset);
  uint8_t *i = head + kFileHeader;
  put32(i, 40);
  put32(i + 4, w);
  put32(i + 8, h);  // positive: bottom-up
  put16(i + 12, 1);
  put16(i + 14, 8 * c);
  put32(i + 20, row * h);
  put32(i + 24, 2835);  // 72 dpi in pixels per metre
  put32(i + 28, 2835);
  put32(i + 32, c == 1 ? 256 : 0);
  if (std::fwrite(head, sizeof head, 1, f) != 1) return false;
  for (uint32_t v = 0; v < palette / 4; ++v) {
    const uint8_t e[4] = {uint8_t(v), uint8_t(v), uint8_t(v), 0};
    if (std::fwrite(e, 4, 1, f) != 1) return false;
  }
  const uint8_t pad[3] = {0, 0, 0};
  for (uint32_t y = h; y-- > 0;) {
    if (std::fwrite(img.data + size_t(y) * img.pitch, w * c, 1, f) != 1) return false;
    if (row > w * c && std::fwrite(pad, row - w * c, 1, f) != 1) return false;
  }
  return true;
}

// Opens a new file beside `path` for writing; its name goes to `tmp`.
FILE *open_temporary(const char *path, char (&tmp)[PATH_MAX]) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    const int n = std::snprintf(tmp, sizeof tmp, "%s.%ld.%d.tmp", path, long(getpid()), attempt);
    if (n < 0 || size_t(n) >= sizeof tmp) return nullptr;
    const int fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
      FILE *f = fdopen(fd, "wb");
      if (f == nullptr) {
        close(fd);
        unlink(tmp);
      }
      return f;
    }
    if (errno != EEXIST) return nullptr;
  }
  return nullptr;
}

}  // namespace

extern "C" {

MRESULT LoadBMPFromMemory(MHandle mem, const uint8_t *data, size_t size, Image **out) {
  if (out != nullptr) *out = nullptr;
  if (data == nullptr || out == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  BmpInfo info;
  const MRESULT s = parse_header(data, size, size, &info);
  if (s != HSEG_OK) return s;
  Image *img = createimg(mem, info.width, info.height, 8, info.channels);
  if (img == nullptr) return HSEG_ERR_NO_MEMORY;
  for (int32_t r = 0; r < info.height; ++r)
    decode_row(info, data + info.data_offset + size_t(r) * info.row_bytes,
               image_row(info, *img, r));
  *out = img;
  return HSEG_OK;
}

MRESULT LoadBMP(MHandle mem, const char *path, Image **out) {
  if (out != nullptr) *out = nullptr;
  if (path == nullptr || out == nullptr) return HSEG_ERR_BAD_ARGUMENT;
  std::unique_ptr<FILE, FileCloser> f(std::fopen(path, "rb"));
  long len = -1;
  if (f == nullptr || std::fseek(f.get(), 0, SEEK_END) != 0 || (len = std::ftell(f.get())) < 0 ||
      std::fseek(f.get(), 0, SEEK_SET) != 0)
    return HSEG_ERR_FILE;
  // The header is checked before anything is allocated.
  uint8_t head[kHeadMax];
  const size_t head_len = std::fread(head, 1, std::min(kHeadMax, size_t(len)), f.get());
  BmpInfo info;
  const MRESULT s = parse_header(head, head_len, uint64_t(len), &info);
  if (s != HSEG_OK) return s;
  std::unique_ptr<Image, ImageReleaser> img(
      createimg(mem, info.width, info.height, 8, info.channels), ImageReleaser{mem});
  if (img == nullptr) return HSEG_ERR_NO_MEMORY;
  std::unique_ptr<uint8_t, BlockFreer> row(
      static_cast<uint8_t *>(MMemAlloc(mem, static_cast<int32_t>(info.row_bytes))),
      BlockFreer{mem});
  if (row == nullptr) return HSEG_ERR_NO_MEMORY;
  if (std::fseek(f.get(), long(info.data_offset), SEEK_SET) != 0) return HSEG_ERR_FILE;
  for (int32_t r = 0; r < info.height; ++r) {
    const size_t n = r + 1 < info.height ? info.row_bytes : info.last_row_bytes;
    if (std::fread(row.get(), 1, n, f.get()) != n) return HSEG_ERR_FILE;
    decode_row(info, row.get(), image_row(info, *img, r));
  }
  *out = img.release();
  return HSEG_OK;
}

MRESULT SaveBmp(const char *path, const Image *img) {
  if (path == nullptr || img == nullptr || img->data == nullptr || img->width < 1 ||
      img->height < 1)
    return HSEG_ERR_BAD_ARGUMENT;
  if (img->depth != 8 || (img->channels != 1 && img->channels != 3 && img->channels != 4))
    return HSEG_ERR_FORMAT;
  const uint64_t row = (uint64_t{img->width} * img->channels + 3) / 4 * 4;
  if (uint64_t{img->width} * img->channels > img->pitch || img->width > INT32_MAX ||
      img->height > INT32_MAX || row * img->height + kFileHeader + 40 + 1024 > UINT32_MAX)
    return HSEG_ERR_BAD_ARGUMENT;
  char tmp[PATH_MAX];
  FILE *f = open_temporary(path, tmp);
  if (f == nullptr) return HSEG_ERR_FILE;
  const bool written = write_bmp(f, *img);
  if (std::fclose(f) != 0 || !written || std::rename(tmp, path) != 0) {
    unlink(tmp);
    return HSEG_ERR_FILE;
  }
  return HSEG_OK;
}

}  // extern "C"
