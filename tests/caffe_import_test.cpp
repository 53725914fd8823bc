// Importing the public PSPNet Caffe model: a full-size file written from the
// build's weights in every encoding comes back byte for byte and gives the
// same scores; damaged files each give their message; the tool writes
// nothing when it fails.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "caffe_import.h"
#include "caffe_model.h"
#include "pipeline/net_layers.h"
#include "pipeline/network.h"
#include "support/caffe_writer.h"
#include "support/tool_run.h"

namespace {

using namespace hseg_test;

const std::string kTool = HSEG_WEIGHTS_TOOL;

// Tensor i of the build's weights, as the linked data library holds it.
const float *tensor(int i) { return hseg::net_linked_weights()[i]; }

// Every encoding a released file may use, one at a time, and all at once.
std::vector<CaffeEncoding> encodings() {
  std::vector<CaffeEncoding> e(8);
  e[1].unpacked = e[2].doubles = e[3].legacy_dims = e[4].v1 = e[5].reordered = e[6].unknown_fields = true;
  e[7] = {true, true, true, true, true, true};
  return e;
}

// The problem read_model and plan_import find in `bytes`, "" if none.
std::string import_problem(const std::string &bytes, hseg_caffe::ImportOptions options = {}) {
  const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
  hseg_caffe::Model model;
  hseg_caffe::ImportPlan plan;
  std::string error;
  if (hseg_caffe::read_model(data, bytes.size(), &model, &error) &&
      hseg_caffe::plan_import(data, bytes.size(), model, options, &plan, &error))
    return "";
  return error;
}

// The model's first layers and its classifier, in one encoding: small, and
// complete up to the first missing layer, conv1_2_3x3.
std::vector<CaffeLayer> small_model(const PspnetCaffeLayers &full, CaffeEncoding e = {}) {
  std::vector<CaffeLayer> out;
  for (const CaffeLayer &l : full.layers)
    for (const char *name : {"data", "conv1_1_3x3_s2", "conv1_1_3x3_s2/bn", "conv1_1_3x3_s2/relu", "conv6"})
      if (l.name == name) out.push_back(l), out.back().encoding = e;
  return out;
}

CaffeLayer *layer(std::vector<CaffeLayer> &layers, const std::string &name) {
  for (CaffeLayer &l : layers)
    if (l.name == name) return &l;
  return nullptr;
}

std::string pass_scores(const float *const *weights) {
  std::mt19937 rng(12);
  constexpr int kPitch = 3 * hseg::kNetInputSize;
  std::vector<uint8_t> bgr(size_t{kPitch} * hseg::kNetInputSize);
  for (uint8_t &b : bgr) b = static_cast<uint8_t>(rng());
  std::vector<float> scores(hseg::kNetScoreCount, -1.0f);
  EXPECT_EQ(hseg::net_forward(bgr.data(), kPitch, scores.data(), weights, nullptr), HSEG_OK);
  return std::string(reinterpret_cast<const char *>(scores.data()), scores.size() * sizeof(float));
}

// The whole path once, at full size: write the model in every encoding (the
// one 75 MB kernel stays plain to keep this test's memory modest), import
// it with the tool, build a data library from the result and run the pass.
TEST(CaffeImport, FullSizeModelInEveryEncodingGivesTheSameWeightsAndScores) {
  PspnetCaffeLayers model(tensor);
  const std::vector<CaffeEncoding> enc = encodings();
  for (size_t k = 0; k < model.layers.size(); ++k)
    if (model.layers[k].blobs.empty() || model.layers[k].blobs[0].count < (4u << 20))
      model.layers[k].encoding = enc[k % enc.size()];
  const std::string caffe = temp_path("model.caffemodel"), out = temp_path("imported.safetensors"),
                    s = temp_path("imported.s"), lib = temp_path("imported.so");
  ASSERT_TRUE(write_caffe_model(caffe, model.layers));
  const auto r = run(kTool + " import-caffe --verbose " + shell_quoted(caffe) + " " + shell_quoted(out));
  std::remove(caffe.c_str());
  ASSERT_EQ(r.status, 0) << r.err;
#if HSEG_WEIGHTS_SYNTHETIC
  EXPECT_TRUE(read_text(out) == read_text(HSEG_WEIGHTS_FILE));
#endif
  ASSERT_EQ(run(kTool + " asm " + shell_quoted(out) + " " + shell_quoted(s)).status, 0);
  ASSERT_EQ(run(std::string(HSEG_C_COMPILER) + " -shared -nostdlib -o " + shell_quoted(lib) + " " + shell_quoted(s)).status, 0);
  std::remove(out.c_str());
  std::remove(s.c_str());
  void *handle = dlopen(lib.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  std::vector<const float *> weights(hseg::kNetTensorCount);
  for (int i = 0; i < hseg::kNetTensorCount; ++i) {
    char sym[96];
    hseg::net_tensor_symbol(i, sym, sizeof sym);
    weights[i] = static_cast<const float *>(dlsym(handle, sym));
    ASSERT_NE(weights[i], nullptr) << sym;
  }
  EXPECT_TRUE(pass_scores(weights.data()) == pass_scores(hseg::net_linked_weights()));
  dlclose(handle);
  std::remove(lib.c_str());
}

TEST(CaffeImport, DamagedFilesEachGiveTheirMessage) {
  const PspnetCaffeLayers full(tensor);
  const char *conv = "conv1_1_3x3_s2", *bn = "conv1_1_3x3_s2/bn";
  std::vector<float> bad_kernel(tensor(0), tensor(0) + 64 * 27), bad_variance(64, 1.0f);
  bad_kernel[5] = std::nanf("");
  bad_variance[9] = 0.0f;
  using Model = std::vector<CaffeLayer>;
  const struct {
    std::function<void(Model &)> change;
    hseg_caffe::ImportOptions options;
    const char *message;
  } cases[] = {
      {[](Model &) {}, {}, "missing layer conv1_2_3x3 (a convolution)"},
      {[&](Model &m) { layer(m, bn)->name += "_"; }, {},
       "missing layer conv1_1_3x3_s2/bn (the batch norm of conv1_1_3x3_s2)"},
      {[&](Model &m) { layer(m, conv)->blobs[0].shape = {64, 3, 9, 1}; }, {},
       "layer conv1_1_3x3_s2: blob 0 (kernel) has shape [64, 3, 9, 1], expected [64, 3, 3, 3]"},
      {[&](Model &m) { layer(m, conv)->blobs[0].values = bad_kernel.data(); }, {},
       "layer conv1_1_3x3_s2: blob 0 (kernel): value 5 is NaN"},
      {[&](Model &m) { layer(m, bn)->blobs[3].values = bad_variance.data(); }, {},
       "layer conv1_1_3x3_s2/bn: blob 3 (variance) has a value of 0; every variance must be > 0"},
      {[&](Model &m) { layer(m, conv)->blobs.push_back(layer(m, conv)->blobs[0]); }, {},
       "layer conv1_1_3x3_s2 has 2 blobs, expected 1 (a kernel, no bias)"},
      {[&](Model &m) { layer(m, conv)->blobs[0].count -= 1; }, {},
       "layer conv1_1_3x3_s2: blob 0 (kernel) holds 1727 values, its shape needs 1728"},
      {[&](Model &m) { layer(m, "data")->name = conv; }, {},
       "layer conv1_1_3x3_s2 appears 2 times (at offsets 23 and "},
      {[&](Model &m) { layer(m, "conv6")->blobs[1] = {{20}, tensor(1), 20}; }, {},
       "layer conv6: blob 1 (bias) has shape [20], expected [21]"},
      {[&](Model &m) { layer(m, "conv6")->name = "fc8"; }, {}, "missing layer conv6 (the classifier)"},
      {[](Model &) {}, {0, 21}, "class 21 is out of range: conv6 has 21 classes (0 to 20)"},
      {[](Model &) {}, {15, 15}, "the background and person classes must differ (both are 15)"},
  };
  for (const auto &c : cases) {
    Model m = small_model(full);
    c.change(m);
    const std::string problem = import_problem(caffe_model(m, false).bytes(), c.options);
    EXPECT_NE(problem.find(c.message), std::string::npos) << c.message << "\n  got: " << problem;
  }
  // A double beyond float range in an old-style file (V1, doubles, four
  // numbers): a marked value, patched after writing.
  Model old_style = small_model(full, {true, false, true, true, false, false});
  std::vector<float> shift(tensor(2), tensor(2) + 64);
  shift[3] = 12345.5f;
  layer(old_style, bn)->blobs[1].values = shift.data();
  std::string bytes = caffe_model(old_style, false).bytes();
  const double from = 12345.5, to = 1e300;
  bytes.replace(bytes.find(std::string(reinterpret_cast<const char *>(&from), 8)), 8,
                reinterpret_cast<const char *>(&to), 8);
  EXPECT_NE(import_problem(bytes).find("layer conv1_1_3x3_s2/bn: blob 1 (shift): value 3 is +inf as a float"),
            std::string::npos)
      << import_problem(bytes);
}

// Encodings that no writer makes, byte by byte.
TEST(CaffeImport, DamagedEncodingsNameTheirOffset) {
  const struct {
    std::string bytes;
    const char *message;
  } cases[] = {
      {"\xa2\x06" + std::string(10, '\x80') + '\x00', "damaged encoding at offset 2: varint longer than 10 bytes"},
      {"\x08" + std::string(9, '\xff') + '\x02', "damaged encoding at offset 1: varint larger than 64 bits"},
      {"\xa2\x06\xe8\x07" + std::string(10, 'x'), "file is truncated: field 100 of 1000 bytes at offset 0 runs past its end"},
      {std::string("\xa2\x06\x06\x3a\x64", 5) + "abcd" + std::string("\x0a\x00", 2),
       "damaged encoding at offset 3: field 7 of 100 bytes runs past the end of its message at offset 9"},
      {"\xa2\x06\x02\x08\x01", "damaged encoding at offset 3: name of a layer (field 1) has varint wire type"},
      {std::string("\xa2\x06\x0b\x3a\x09\x2a\x07", 7) + "1234567",
       "damaged encoding at offset 5: packed float data of 7 bytes is not a whole number of values"},
      {"\x0f", "damaged encoding at offset 0: field 1 has wire type 7, which does not exist"},
      {std::string("\x02\x00", 2), "damaged encoding at offset 0: field number 0 is out of range"},
      {"\x2c", "damaged encoding at offset 0: end of group 5 without its start"},
      {"\x2b\x34", "damaged encoding at offset 1: end of group 6 inside group 5"},
      {std::string(65, '\x1b'), "damaged encoding at offset 64: groups nested deeper than 64"},
      {"\x1b\x08\x01", "file is truncated: group 3 at offset 0 runs past its end"},
  };
  for (const auto &c : cases) {
    const std::string problem = import_problem(c.bytes);
    EXPECT_NE(problem.find(c.message), std::string::npos) << c.message << "\n  got: " << problem;
  }
}

// Cut at every field boundary of the first layers, and at random points:
// between top-level fields the file is a smaller model that lacks a layer;
// anywhere else it is truncated.
TEST(CaffeImport, EveryCutOfAFileIsReported) {
  const PspnetCaffeLayers full(tensor);
  std::mt19937 rng(3);
  for (const CaffeEncoding &e : {encodings()[0], encodings()[7]}) {
    const ProtoMessage m = caffe_model(small_model(full, e), true);
    const std::string &bytes = m.bytes();
    const std::set<size_t> top(m.top_marks().begin(), m.top_marks().end());
    std::vector<size_t> cuts = m.marks();
    for (int i = 0; i < 64; ++i) cuts.push_back(rng() % bytes.size());
    for (size_t cut : cuts) {
      const std::string expected = top.count(cut) ? "missing layer conv6" : "file is truncated";
      const std::string problem = import_problem(bytes.substr(0, cut));
      EXPECT_NE(problem.find(expected), std::string::npos) << "cut at " << cut << ": " << problem;
    }
    EXPECT_NE(import_problem(bytes).find("missing layer conv1_2_3x3"), std::string::npos);
  }
}

// The tool on a bad file: status 1, one line, and the output path as it was.
TEST(CaffeImport, ToolFailsWithOneLineAndWritesNothing) {
  const PspnetCaffeLayers full(tensor);
  std::vector<CaffeLayer> layers = small_model(full);
  std::vector<float> nan_kernel(tensor(0), tensor(0) + 64 * 27);
  nan_kernel[100] = -INFINITY;
  layer(layers, "conv1_1_3x3_s2")->blobs[0].values = nan_kernel.data();
  std::string dir = temp_path("import_XXXXXX");
  ASSERT_NE(mkdtemp(&dir[0]), nullptr);
  const std::string model = dir + "/model.caffemodel", out = dir + "/out.safetensors";
  const std::string bytes = caffe_model(layers, false).bytes();
  const struct {
    std::string file;  // model bytes
    const char *args;
    int status;
    const char *message;
  } cases[] = {
      {bytes, "", 1, "model.caffemodel: layer conv1_1_3x3_s2: blob 0 (kernel): value 100 is -inf"},
      {bytes.substr(0, 3000), "", 1, "model.caffemodel: file is truncated"},
      {bytes, "--classes '0;15' ", 2, "usage:"},
  };
  for (const auto &c : cases) {
    write_text(model, c.file);
    write_text(out, "the previous file");
    const auto r = run(kTool + " import-caffe " + c.args + shell_quoted(model) + " " + shell_quoted(out));
    EXPECT_EQ(r.status, c.status) << c.message;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    if (c.status == 1) {
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    EXPECT_EQ(read_text(out), "the previous file");
    EXPECT_EQ(run("ls " + shell_quoted(dir)).out, "model.caffemodel\nout.safetensors\n");
  }
  EXPECT_EQ(run(kTool + " import-caffe " + shell_quoted(dir + "/none") + " " + shell_quoted(out)).status, 1);
  run("rm -r " + shell_quoted(dir));
}

}  // namespace
