// BMP reading and writing: round trips, files from another encoder, a table
// of malformed files, and every allocation failure.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "support/alloc_hooks.h"
#include "support/tool_run.h"
#include "support/ubo_images.h"

namespace {

using namespace hseg_test;
using Bytes = std::string;

Bytes read_file(const std::string &name) { return read_text(HSEG_BMP_DIR "/" + name); }

// Status of both readers on `bytes`: from memory (the bytes end at a guard
// page) and from a file. They must agree; the image read from memory comes
// back in *out when asked for, else nothing may be left allocated.
MRESULT load_both(const Bytes &bytes, Image **out = nullptr) {
  const int64_t live = alloc_live();
  GuardedBuffer buf(bytes.size());
  std::copy(bytes.begin(), bytes.end(), buf.data());
  Image *from_memory = nullptr, *from_file = nullptr;
  const MRESULT s = LoadBMPFromMemory(nullptr, buf.data(), bytes.size(), &from_memory);
  const std::string path = temp_path("in.bmp");
  write_text(path, bytes);
  EXPECT_EQ(LoadBMP(nullptr, path.c_str(), &from_file), s);
  std::remove(path.c_str());
  EXPECT_EQ(from_memory == nullptr, s != HSEG_OK);
  EXPECT_TRUE(s != HSEG_OK || same_pixels(from_memory, from_file));
  release_img(nullptr, &from_file);
  if (out != nullptr) {
    *out = from_memory;
  } else {
    release_img(nullptr, &from_memory);
    EXPECT_EQ(alloc_live(), live);
  }
  return s;
}

TEST(Bmp, WriteThenReadIsIdenticalAtOddWidths) {
  std::mt19937 rng(13);
  const std::string path = temp_path("round.bmp");
  for (int c : {1, 3, 4})
    for (int w : {1, 5, 7, 13}) {
      GuardedRecord img(w, 3, c, 8, 2);
      fill_random(img.get(), rng);
      ASSERT_EQ(SaveBmp(path.c_str(), img.get()), HSEG_OK);
      const Bytes file = read_text(path);
      ASSERT_EQ(file.size(), 54u + (c == 1 ? 1024 : 0) + 3 * ((w * c + 3) / 4 * 4));
      Image *back = nullptr;
      ASSERT_EQ(load_both(file, &back), HSEG_OK);
      EXPECT_TRUE(same_pixels(back, img.get())) << c << " channels, width " << w;
      release_img(nullptr, &back);
    }
  std::remove(path.c_str());
}

// The samples of scripts/make_bmp_samples.py: palette files index
// `colours` entries (2: black and white), the others carry rgba(x, y) in
// fields of r, g, b bits.
struct Sample {
  const char *name;
  uint32_t channels;
  int colours, r, g, b;
  bool alpha;
};

int expected(const Sample &s, int x, int y, int k) {  // k: B, G, R, A
  const int i = (x * 3 + y * 5) % std::max(s.colours, 3);
  if (s.colours == 2) return i == 0 ? 255 : 0;
  if (s.colours > 2) return (k == 0 ? i * 151 + 7 : k == 1 ? i * 23 + 40 : i * 67) & 255;
  const int rgba[4] = {(x * 37 + y * 11) & 255, (x * 5 + y * 53) & 255, (x * x + y * 29) & 255,
                       (x * 19 + y * 71) & 255};
  if (s.channels == 1) return rgba[0];
  if (k == 3) return s.alpha ? rgba[3] : 255;
  // The field's bits widened by replication.
  const int bits = k == 0 ? s.b : k == 1 ? s.g : s.r, f = rgba[2 - k] >> (8 - bits);
  int out = 0;
  for (int sh = 8 - bits; sh > -bits; sh -= bits) out |= sh >= 0 ? f << sh : f >> -sh;
  return out;
}

TEST(Bmp, ReadsFilesOfAnotherEncoder) {
  const Sample samples[] = {
      {"pal1.bmp", 3, 2, 0, 0, 0, false},         {"pal4.bmp", 3, 16, 0, 0, 0, false},
      {"pal8.bmp", 3, 256, 0, 0, 0, false},       {"grey8.bmp", 1, 0, 8, 8, 8, false},
      {"rgb24.bmp", 3, 0, 8, 8, 8, false},        {"rgb24_topdown.bmp", 3, 0, 8, 8, 8, false},
      {"rgba32.bmp", 4, 0, 8, 8, 8, true},        {"bf32_v5_rgba.bmp", 4, 0, 8, 8, 8, true},
      {"bf32_noalpha.bmp", 4, 0, 8, 8, 8, false}, {"bf565.bmp", 3, 0, 5, 6, 5, false},
      {"rgb555.bmp", 3, 0, 5, 5, 5, false},       {"bf555_v4_topdown.bmp", 3, 0, 5, 5, 5, false},
  };
  for (const Sample &s : samples) {
    SCOPED_TRACE(s.name);
    Image *img = nullptr;
    ASSERT_EQ(load_both(read_file(s.name), &img), HSEG_OK);
    ASSERT_TRUE(img->width == 7 && img->height == 5 && img->channels == s.channels);
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 7; ++x)
        for (uint32_t k = 0; k < s.channels; ++k)
          ASSERT_EQ(img->rows[y][x * s.channels + k], expected(s, x, y, k)) << x << "," << y;
    release_img(nullptr, &img);
  }
}

Bytes patch(Bytes b, size_t at, uint32_t value, int bytes = 4) {
  for (int i = 0; i < bytes; ++i) b.at(at + i) = char(value >> (8 * i));
  return b;
}
Bytes patched(const char *name, size_t at, uint32_t value, int bytes = 4) {
  return patch(read_file(name), at, value, bytes);
}

// Damaged files, one for each kind of check (the fuzz target covers the
// breadth): a status, never a crash, and nothing left allocated.
TEST(Bmp, MalformedAndUnsupportedFilesGiveAStatus) {
  constexpr MRESULT kFile = HSEG_ERR_FILE, kFormat = HSEG_ERR_FORMAT;
  const Bytes rgb = read_file("rgb24.bmp");
  const struct {
    const char *what;
    Bytes file;
    MRESULT want;
  } cases[] = {
      {"magic", patched("rgb24.bmp", 0, 'B' | 'N' << 8, 2), kFile},
      {"width 0", patched("rgb24.bmp", 18, 0), kFile},
      {"height INT32_MIN", patched("rgb24.bmp", 22, 0x80000000u), kFile},
      {"huge width", patched("rgb24.bmp", 18, 0x7FFFFFFF), kFile},
      {"data offset past the end", patched("rgb24.bmp", 10, 0xFFFFFFF0u), kFile},
      {"data offset inside the palette", patched("pal8.bmp", 10, 54), kFile},
      {"palette count past 2^bpp", patched("pal4.bmp", 46, 17), kFile},
      {"palette past the end", patch(patched("pal4.bmp", 28, 8, 2), 46, 256), kFile},
      {"bits per pixel", patched("rgb24.bmp", 28, 7, 2), kFile},
      {"RLE8", patched("pal8.bmp", 30, 1), kFormat},
      {"compression 9", patched("rgb24.bmp", 30, 9), kFile},
      {"core header", patched("rgb24.bmp", 14, 12), kFormat},
      {"header size past the end", patched("rgb24.bmp", 14, 0xFFFFFF00u), kFile},
      {"mask zero", patched("bf565.bmp", 54, 0), kFile},
      {"mask not contiguous", patched("bf565.bmp", 62, 0x0015), kFile},
      {"alpha mask overlaps", patched("bf32_v5_rgba.bmp", 66, 0x00FF0000), kFile},
      {"last row short", rgb.substr(0, rgb.size() - 4), kFile},
      {"last row's padding missing", rgb.substr(0, rgb.size() - 3), HSEG_OK},
  };
  for (const auto &c : cases) EXPECT_EQ(load_both(c.file), c.want) << c.what;
  // Cut anywhere before the pixel data.
  for (const char *name : {"pal4.bmp", "bf32_v5_rgba.bmp", "bf565.bmp"}) {
    const Bytes b = read_file(name);
    for (size_t n = 0; n <= uint8_t(b[10]); ++n)
      ASSERT_EQ(load_both(b.substr(0, n)), kFile) << name << " " << n;
  }
}

TEST(Bmp, EveryFailedAllocationGivesFourWithoutLeaks) {
  const std::string path = HSEG_BMP_DIR "/bf32_v5_rgba.bmp";
  const Bytes file = read_text(path);
  const int64_t live = alloc_live();
  Image *img = nullptr;
  auto walk = [&](auto load) {
    return for_each_alloc_failure([&](int64_t i) {
      EXPECT_EQ(load(), i == 0 ? HSEG_OK : HSEG_ERR_NO_MEMORY) << "failing " << i;
      EXPECT_EQ(img == nullptr, i != 0);
      release_img(nullptr, &img);
      EXPECT_EQ(alloc_live(), live);
    });
  };
  EXPECT_GE(walk([&] { return LoadBMP(nullptr, path.c_str(), &img); }), 1);
  EXPECT_GE(walk([&] { return LoadBMPFromMemory(nullptr, reinterpret_cast<const uint8_t *>(file.data()), file.size(), &img); }), 1);
}

TEST(Bmp, FailedWritesLeaveNothingBehind) {
  GuardedRecord img(3, 2, 3), two(3, 2, 2);
  const std::string dir = temp_path("dir");
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  // No such directory; a target that is a directory (the rename fails).
  EXPECT_EQ(SaveBmp((dir + "/missing/x.bmp").c_str(), img.get()), HSEG_ERR_FILE);
  ASSERT_EQ(mkdir((dir + "/x.bmp").c_str(), 0700), 0);
  EXPECT_EQ(SaveBmp((dir + "/x.bmp").c_str(), img.get()), HSEG_ERR_FILE);
  EXPECT_EQ(SaveBmp((dir + "/y.bmp").c_str(), two.get()), HSEG_ERR_FORMAT);
  // Only the directory made above is left.
  ASSERT_EQ(rmdir((dir + "/x.bmp").c_str()), 0);
  EXPECT_EQ(rmdir(dir.c_str()), 0) << "a file was left in " << dir;
  Image *out = nullptr;
  EXPECT_EQ(LoadBMP(nullptr, (dir + "/none.bmp").c_str(), &out), HSEG_ERR_FILE);
}

}  // namespace
