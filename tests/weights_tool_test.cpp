// The weights file reader and writer on small files, every kind of bad file,
// and the hseg-weights program on the build's weights and data library.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "hseg_weights_io.h"

namespace {

using hseg_weights::TensorShape;

const std::vector<TensorShape> kShapes = {
    {"a.weight", {2, 3}}, {"a.bias", {2}}, {"b.weight", {1, 1, 2, 2}}};
constexpr size_t kDataBytes = (6 + 2 + 4) * 4;

// Per process, so that two builds can run this test at once.
std::string temp_path(const std::string &name) {
  return testing::TempDir() + "hseg_weights_" + std::to_string(getpid()) + "_" + name;
}

std::vector<uint8_t> read_bytes(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

void write_bytes(const std::string &path, const std::vector<uint8_t> &bytes) {
  std::ofstream f(path, std::ios::binary);
  f.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// A file from a header text and `data_bytes` bytes of data holding the floats
// 1, 2, 3, ...; `length` overrides the header length field when not 0.
std::vector<uint8_t> make_file(const std::string &header, size_t data_bytes, uint64_t length = 0) {
  std::vector<uint8_t> out(8);
  const uint64_t n = length != 0 ? length : header.size();
  for (int i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(n >> (8 * i));
  out.insert(out.end(), header.begin(), header.end());
  for (size_t i = 0; i < data_bytes / 4; ++i) {
    const float v = static_cast<float>(i + 1);
    const auto *b = reinterpret_cast<const uint8_t *>(&v);
    out.insert(out.end(), b, b + 4);
  }
  return out;
}

std::string entry(const std::string &name, const std::string &dtype, const std::string &shape,
                  uint64_t begin, uint64_t end) {
  return "\"" + name + "\":{\"dtype\":\"" + dtype + "\",\"shape\":" + shape +
         ",\"data_offsets\":[" + std::to_string(begin) + "," + std::to_string(end) + "]}";
}

// The three good entries, each replaceable.
std::string header(std::string a = entry("a.weight", "F32", "[2,3]", 0, 24),
                   std::string bias = entry("a.bias", "F32", "[2]", 24, 32),
                   std::string b = entry("b.weight", "F32", "[1,1,2,2]", 32, 48)) {
  std::string h = "{";
  for (const std::string *e : {&a, &bias, &b}) {
    if (e->empty()) continue;
    if (h.size() > 1) h += ",";
    h += *e;
  }
  return h + "}";
}

std::vector<std::string> validate_bytes(const std::vector<uint8_t> &bytes) {
  const std::string path = temp_path("case.safetensors");
  write_bytes(path, bytes);
  hseg_weights::FileLayout layout;
  auto errors = hseg_weights::validate(path, kShapes, &layout);
  std::remove(path.c_str());
  return errors;
}

std::string joined(const std::vector<std::string> &errors) {
  std::string s;
  for (const auto &e : errors) s += e + "\n";
  return s;
}

TEST(WeightsFile, WrittenFileValidatesAndIsCanonical) {
  const std::string p1 = temp_path("w1.safetensors"), p2 = temp_path("w2.safetensors");
  auto fill = [](size_t i, float *dst) { dst[0] = static_cast<float>(i) + 0.5f; };
  std::string error;
  ASSERT_TRUE(hseg_weights::write_file(p1, kShapes, fill, &error)) << error;
  ASSERT_TRUE(hseg_weights::write_file(p2, kShapes, fill, &error)) << error;
  const std::vector<uint8_t> a = read_bytes(p1), b = read_bytes(p2);
  EXPECT_EQ(a, b);
  hseg_weights::FileLayout layout;
  EXPECT_TRUE(hseg_weights::validate(p1, kShapes, &layout).empty());
  EXPECT_EQ(layout.header_size % 8, 0u);
  EXPECT_EQ(layout.file_size, 8 + layout.header_size + kDataBytes);
  ASSERT_EQ(layout.tensors.size(), 3u);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(layout.tensors[i].name, kShapes[i].name);  // header order
  std::remove(p1.c_str());
  std::remove(p2.c_str());
}

TEST(WeightsFile, EachKindOfBadFileIsRejectedWithItsMessage) {
  struct Case {
    const char *what;
    std::vector<uint8_t> bytes;
    const char *message;
  };
  const size_t d = kDataBytes;
  std::vector<uint8_t> nan_file = make_file(header(), d);
  const float nan = std::nanf(""), inf = -INFINITY;
  std::memcpy(&nan_file[nan_file.size() - d + 4 * 4], &nan, 4);
  std::vector<uint8_t> inf_file = make_file(header(), d);
  std::memcpy(&inf_file[inf_file.size() - 4], &inf, 4);
  const Case cases[] = {
      {"good", make_file(header(), d), nullptr},
      {"missing", make_file(header(entry("a.weight", "F32", "[2,3]", 0, 24), entry("a.bias", "F32", "[2]", 24, 32), ""), 32),
       "missing tensor b.weight"},
      {"extra", make_file(header().insert(1, entry("c", "F32", "[1]", 48, 52) + ","), d + 4),
       "unexpected tensor c"},
      {"shape", make_file(header(entry("a.weight", "F32", "[3,2]", 0, 24)), d),
       "tensor a.weight: shape [3, 2], expected [2, 3]"},
      {"dtype", make_file(header(entry("a.weight", "F32", "[2,3]", 0, 24), entry("a.bias", "F64", "[1]", 24, 32)), d),
       "tensor a.bias: dtype F64, expected F32"},
      {"nan", nan_file, "tensor a.weight: element 4 is NaN"},
      {"inf", inf_file, "tensor b.weight: element 3 is -inf"},
      {"truncated data", make_file(header(), d - 4), "file is truncated"},
      {"truncated header", make_file(header(), 0, 4096), "file is truncated"},
      {"shorter than the length", {1, 2, 3}, "file is truncated"},
      {"bad json", make_file("{\"a.weight\":{", d), "malformed header"},
      {"not an object", make_file("[1,2]", d), "not an object"},
      {"offsets", make_file(header(entry("a.weight", "F32", "[2,3]", 0, 20)), d), "needs 24"},
      {"gap", make_file(header(entry("a.weight", "F32", "[2,3]", 4, 28), entry("a.bias", "F32", "[2]", 28, 36), entry("b.weight", "F32", "[1,1,2,2]", 36, 52)), d + 4),
       "belong to no tensor"},
      {"overlap", make_file(header(entry("a.weight", "F32", "[2,3]", 0, 24), entry("a.bias", "F32", "[2]", 20, 28), entry("b.weight", "F32", "[1,1,2,2]", 28, 44)), d - 4),
       "overlaps"},
      {"trailing bytes", make_file(header(), d + 8), "8 bytes after the last tensor"},
      {"huge header length", make_file(header(), d, uint64_t{1} << 40), "larger than"},
      {"unknown dtype", make_file(header(entry("a.weight", "Q7", "[2,3]", 0, 24)), d), "unknown dtype Q7"},
      {"negative dimension", make_file(header(entry("a.weight", "F32", "[-2,3]", 0, 24)), d), "non-negative"},
      {"offsets not a pair", make_file("{\"a.weight\":{\"dtype\":\"F32\",\"shape\":[2,3],\"data_offsets\":[0]}}", d),
       "no \"data_offsets\" pair"},
      {"huge shape", make_file(header(entry("a.weight", "F32", "[1099511627776,1099511627776]", 0, 24)), d), "too large"},
      {"shape of text", make_file("{\"a.weight\":{\"dtype\":\"F32\",\"shape\":[\"2\"],\"data_offsets\":[0,24]}}", d), "non-negative integer"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const std::vector<std::string> errors = validate_bytes(c.bytes);
    if (c.message == nullptr) {
      if (std::string(c.what) == "good") {
        EXPECT_TRUE(errors.empty()) << joined(errors);
      }
      continue;
    }
    EXPECT_NE(joined(errors).find(c.message), std::string::npos) << joined(errors);
  }
}

// Any cut of a good file, and any byte of its header replaced, is reported or
// accepted without crashing; every cut is reported.
TEST(WeightsFile, DamagedFilesNeverCrashTheReader) {
  const std::vector<uint8_t> good = make_file(header(), kDataBytes);
  for (size_t n = 0; n < good.size(); ++n) {
    const std::vector<uint8_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_FALSE(validate_bytes(cut).empty()) << "cut at " << n;
  }
  std::mt19937 rng(11);
  const uint8_t replacements[] = {0, '{', '}', '"', ':', ',', '[', '9', '-', 0xff};
  for (size_t i = 0; i < 8 + header().size(); ++i) {
    std::vector<uint8_t> bad = good;
    bad[i] = replacements[rng() % sizeof replacements];
    validate_bytes(bad);  // must return
  }
}

#if defined(HSEG_WEIGHTS_TOOL)
// Runs a command line and returns its exit status and output (both streams).
int run(const std::string &cmd, std::string *output) {
  FILE *p = popen((cmd + " 2>&1").c_str(), "r");
  if (p == nullptr) return -1;
  char buf[4096];
  size_t n;
  output->clear();
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) output->append(buf, n);
  const int status = pclose(p);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const std::string kTool = HSEG_WEIGHTS_TOOL;

TEST(WeightsTool, ValidatesListsAndRejectsATruncatedFile) {
  std::string out;
  EXPECT_EQ(run(kTool + " validate '" HSEG_WEIGHTS_FILE "'", &out), 0) << out;
  EXPECT_NE(out.find("good"), std::string::npos) << out;
  EXPECT_EQ(run(kTool + " list '" HSEG_WEIGHTS_FILE "'", &out), 0) << out;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 557);
  EXPECT_NE(out.find("_FC8_ZEMBDATA_DATA1_DEEPLAB_PSPNET_"), std::string::npos);

  std::vector<uint8_t> head(1 << 20);
  {
    std::ifstream f(HSEG_WEIGHTS_FILE, std::ios::binary);
    f.read(reinterpret_cast<char *>(head.data()), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(f.gcount()));
  }
  const std::string cut = temp_path("cut.safetensors");
  write_bytes(cut, head);
  EXPECT_EQ(run(kTool + " validate '" + cut + "'", &out), 1);
  EXPECT_NE(out.find("file is truncated"), std::string::npos) << out;
  EXPECT_EQ(run(kTool + " asm '" + cut + "' /dev/null", &out), 1);
  std::remove(cut.c_str());
  EXPECT_EQ(run(kTool + " nonsense", &out), 2);
}

// The data library, exported back, gives the weights file it was made from.
TEST(WeightsTool, ExportRoundTripIsByteIdentical) {
  const std::string exported = temp_path("exported.safetensors");
  std::string out;
  ASSERT_EQ(run(kTool + " export '" HSEG_DATA_LIBRARY "' '" + exported + "'", &out), 0) << out;
  hseg_weights::FileLayout layout;
  std::vector<std::string> errors;
  EXPECT_TRUE(hseg_weights::read_layout(exported, &layout, &errors)) << joined(errors);
  EXPECT_EQ(layout.tensors.size(), 557u);
#if HSEG_WEIGHTS_SYNTHETIC
  // The build's own file is written by the same canonical writer.
  EXPECT_TRUE(read_bytes(exported) == read_bytes(HSEG_WEIGHTS_FILE));
#endif
  std::remove(exported.c_str());
  EXPECT_EQ(run(kTool + " export /nonexistent/libdeeplab_data.so '" + exported + "'", &out), 1);
}
#endif

}  // namespace
