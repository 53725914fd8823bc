// The weights file reader on every kind of bad file, and the hseg-weights
// program on the build's weights file and data library, and on data
// libraries with one thing wrong.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "hseg_weights_io.h"
#include "pipeline/net_layers.h"
#include "support/tool_run.h"

namespace {

using hseg_test::shell_quoted;
using hseg_test::temp_path;

const std::vector<hseg_weights::TensorShape> kShapes = {
    {"a.weight", {2, 3}}, {"a.bias", {2}}, {"b.weight", {1, 1, 2, 2}}};
constexpr size_t kDataBytes = (6 + 2 + 4) * 4;

// A file from a header text and `data_bytes` bytes of data holding the floats
// 1, 2, 3, ...; `length` overrides the header length field when not 0.
std::string make_file(const std::string &header, size_t data_bytes, uint64_t length = 0) {
  const uint64_t n = length != 0 ? length : header.size();
  std::string out(reinterpret_cast<const char *>(&n), 8);
  out += header;
  for (size_t i = 0; i < data_bytes / 4; ++i) {
    const float v = static_cast<float>(i + 1);
    out.append(reinterpret_cast<const char *>(&v), 4);
  }
  return out;
}

std::string entry(const std::string &name, const std::string &dtype, const std::string &shape,
                  uint64_t begin, uint64_t end) {
  return "\"" + name + "\":{\"dtype\":\"" + dtype + "\",\"shape\":" + shape +
         ",\"data_offsets\":[" + std::to_string(begin) + "," + std::to_string(end) + "]}";
}

// The three good entries, each replaceable (an empty one is left out).
std::string header(std::string a = entry("a.weight", "F32", "[2,3]", 0, 24),
                   std::string bias = entry("a.bias", "F32", "[2]", 24, 32),
                   std::string b = entry("b.weight", "F32", "[1,1,2,2]", 32, 48)) {
  std::string h = "{" + a;
  for (const std::string *e : {&bias, &b})
    if (!e->empty()) h += (h.size() > 1 ? "," : "") + *e;
  return h + "}";
}

// The file's problems, one a line.
std::string problems(const std::string &bytes) {
  const std::string path = temp_path("case.safetensors");
  hseg_test::write_text(path, bytes);
  hseg_weights::FileLayout layout;
  std::string s;
  for (const std::string &e : hseg_weights::validate(path, kShapes, &layout)) s += e + "\n";
  std::remove(path.c_str());
  return s;
}

TEST(WeightsFile, EachKindOfBadFileIsRejectedWithItsMessage) {
  const size_t d = kDataBytes;
  const std::string a = entry("a.weight", "F32", "[2,3]", 0, 24);
  std::string nan_file = make_file(header(), d), inf_file = nan_file;
  const float nan = std::nanf(""), inf = -INFINITY;
  nan_file.replace(nan_file.size() - d + 4 * 4, 4, reinterpret_cast<const char *>(&nan), 4);
  inf_file.replace(inf_file.size() - 4, 4, reinterpret_cast<const char *>(&inf), 4);
  const struct {
    std::string bytes;
    const char *message;
  } cases[] = {
      {make_file(header(a, entry("a.bias", "F32", "[2]", 24, 32), ""), 32), "missing tensor b.weight"},
      {make_file(header().insert(1, entry("c", "F32", "[1]", 48, 52) + ","), d + 4), "unexpected tensor c"},
      {make_file(header(entry("a.weight", "F32", "[3,2]", 0, 24)), d), "tensor a.weight: shape [3, 2], expected [2, 3]"},
      {make_file(header(a, entry("a.bias", "F64", "[1]", 24, 32)), d), "tensor a.bias: dtype F64, expected F32"},
      {nan_file, "tensor a.weight: element 4 is NaN"},
      {inf_file, "tensor b.weight: element 3 is -inf"},
      {make_file("{\"a.weight\":{", d), "malformed header"},
      {make_file("[1,2]", d), "not an object"},
      {make_file(header(entry("a.weight", "F32", "[2,3]", 0, 20)), d), "needs 24"},
      {make_file(header(entry("a.weight", "F32", "[2,3]", 4, 28), entry("a.bias", "F32", "[2]", 28, 36),
                        entry("b.weight", "F32", "[1,1,2,2]", 36, 52)), d + 4), "belong to no tensor"},
      {make_file(header(a, entry("a.bias", "F32", "[2]", 20, 28), entry("b.weight", "F32", "[1,1,2,2]", 28, 44)), d - 4),
       "overlaps"},
      {make_file(header(), d + 8), "8 bytes after the last tensor"},
      {make_file(header(), d, uint64_t{1} << 40), "larger than"},
      {make_file(header(entry("a.weight", "Q7", "[2,3]", 0, 24)), d), "unknown dtype Q7"},
      {make_file(header(entry("a.weight", "F32", "[-2,3]", 0, 24)), d), "non-negative"},
      {make_file("{\"a.weight\":{\"dtype\":\"F32\",\"shape\":[2,3],\"data_offsets\":[0]}}", d), "no \"data_offsets\" pair"},
      {make_file(header(entry("a.weight", "F32", "[1099511627776,1099511627776]", 0, 24)), d), "too large"},
      {make_file("{\"a.weight\":{\"dtype\":\"F32\",\"shape\":[\"2\"],\"data_offsets\":[0,24]}}", d), "non-negative integer"},
  };
  for (const auto &c : cases) {
    const std::string errors = problems(c.bytes);
    EXPECT_NE(errors.find(c.message), std::string::npos) << c.message << " not in:\n" << errors;
  }
  // The good file passes, and every cut of it (in the length field, the
  // header or the data) is reported as truncated.
  const std::string good = make_file(header(), d);
  EXPECT_EQ(problems(good), "");
  for (size_t n = 0; n < good.size(); ++n)
    EXPECT_NE(problems(good.substr(0, n)).find("file is truncated"), std::string::npos) << n;
}

#if defined(HSEG_WEIGHTS_TOOL)
// Runs a command line and returns its exit status and output (both streams).
int run(const std::string &cmd, std::string *output) {
  const hseg_test::RunResult r = hseg_test::run(cmd);
  *output = r.out + r.err;
  return r.status;
}

const std::string kTool = HSEG_WEIGHTS_TOOL;

// The build's file validates and lists each tensor once; its first megabyte
// fails validation and the assembly step (which fails the build).
TEST(WeightsTool, ValidatesListsAndRejectsATruncatedFile) {
  std::string out;
  EXPECT_EQ(run(kTool + " validate '" HSEG_WEIGHTS_FILE "'", &out), 0) << out;
  EXPECT_EQ(run(kTool + " list '" HSEG_WEIGHTS_FILE "'", &out), 0) << out;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), hseg::kNetTensorCount);
  const std::string cut = temp_path("cut.safetensors");
  hseg_test::write_text(cut, hseg_test::read_text(HSEG_WEIGHTS_FILE).substr(0, 1 << 20));
  EXPECT_EQ(run(kTool + " validate '" + cut + "'", &out), 1);
  EXPECT_NE(out.find("file is truncated"), std::string::npos) << out;
  EXPECT_EQ(run(kTool + " asm '" + cut + "' /dev/null", &out), 1);
  std::remove(cut.c_str());
}

// The data library, exported back, gives the weights file it was made from.
TEST(WeightsTool, ExportRoundTripIsByteIdentical) {
  const std::string exported = temp_path("exported.safetensors");
  std::string out;
  ASSERT_EQ(run(kTool + " export '" HSEG_DATA_LIBRARY "' '" + exported + "'", &out), 0) << out;
  hseg_weights::FileLayout layout;
  std::vector<std::string> errors;
  EXPECT_TRUE(hseg_weights::read_layout(exported, &layout, &errors));
  EXPECT_EQ(layout.header_size % 8, 0u);  // data aligned for mapping
#if HSEG_WEIGHTS_SYNTHETIC
  // The build's own file is written by the same canonical writer.
  EXPECT_TRUE(hseg_test::read_text(exported) == hseg_test::read_text(HSEG_WEIGHTS_FILE));
#endif
  std::remove(exported.c_str());
  EXPECT_EQ(run(kTool + " export /nonexistent/libdeeplab_data.so '" + exported + "'", &out), 1);
}

// Assembly of a data library with one thing changed in tensor `tensor`:
// kernels are zeros in .bss (so the file stays small), the other arrays 1.0.
enum class Change { kNone, kMissing, kShort, kNaN, kZero };
std::string library_asm(Change change, int tensor) {
  std::string s = "\t.section .note.GNU-stack,\"\",@progbits\n";
  for (int i = 0; i < hseg::kNetTensorCount; ++i) {
    const hseg::NetTensor t = hseg::net_tensor(i);
    const bool changed = i == tensor;
    if (changed && change == Change::kMissing) continue;
    const int64_t n = t.count - (changed && change == Change::kShort ? 1 : 0);
    char sym[96];
    hseg::net_tensor_symbol(i, sym, sizeof sym);
    const bool kernel = t.part == hseg::NetPart::kKernel;
    s += kernel ? "\t.bss\n" : "\t.section .rodata\n";
    s += std::string("\t.globl ") + sym + "\n\t.type " + sym + ", @object\n\t.size " + sym + ", " +
         std::to_string(4 * n) + "\n\t.balign 64\n" + sym + ":\n";
    const bool nan = changed && change == Change::kNaN;
    const char *value = changed && change == Change::kZero ? "0" : "0x3f800000";
    if (kernel) s += "\t.zero " + std::to_string(4 * n) + "\n";
    else s += "\t.fill " + std::to_string(n - nan) + ", 4, " + value + "\n" + (nan ? "\t.long 0x7fc00000\n" : "");
  }
  return s;
}

// check-lib passes the build's library and libraries without a fault, and
// stops at the first fault of the others with a message naming the symbol.
TEST(WeightsTool, CheckLibNamesTheFirstProblemOfALibrary) {
  std::string out;
  EXPECT_EQ(run(kTool + " check-lib '" HSEG_DATA_LIBRARY "'", &out), 0) << out;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), hseg::kNetLayerCount + 1) << out;
  const int bn = hseg::net_first_tensor(40);  // layer 40's kernel, then its batch norm
  const struct {
    Change change;
    int tensor;
    const char *message;
  } cases[] = {
      {Change::kNone, 0, "every variance > 0: good"},
      {Change::kMissing, bn, "missing symbol _CONV4_"},
      {Change::kShort, bn + 2, "_BN_DATA1_DEEPLAB_PSPNET_ holds 1020 bytes, expected 1024"},
      {Change::kNaN, bn + 3, "_BN_DATA2_DEEPLAB_PSPNET_: element 255 is NaN"},
      {Change::kZero, bn + 4, "_BN_DATA3_DEEPLAB_PSPNET_: a variance of 0"},
  };
  const std::string s = temp_path("lib.s"), lib = temp_path("lib.so");
  for (const auto &c : cases) {
    std::ofstream(s) << library_asm(c.change, c.tensor);
    ASSERT_EQ(run(std::string(HSEG_C_COMPILER) + " -shared -nostdlib -o " + shell_quoted(lib) + " " +
                      shell_quoted(s), &out), 0) << out;
    EXPECT_EQ(run(kTool + " check-lib " + shell_quoted(lib), &out), c.change == Change::kNone ? 0 : 1);
    EXPECT_NE(out.find(c.message), std::string::npos) << c.message << "\n  got: " << out;
  }
  EXPECT_EQ(run(kTool + " check-lib " + shell_quoted(s), &out), 1);
  EXPECT_NE(out.find("not an ELF file"), std::string::npos) << out;
  std::remove(s.c_str());
  std::remove(lib.c_str());
}
#endif

}  // namespace
