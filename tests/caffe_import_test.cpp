// Importing the public PSPNet Caffe model: a full-size file written from the
// build's weights in every encoding comes back byte for byte and gives the
// same scores; damaged files each give their message; the tool writes
// nothing when it fails. The files come from the protobuf writer below.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "caffe_import.h"
#include "caffe_model.h"
#include "pipeline/net_layers.h"
#include "pipeline/network.h"
#include "support/tool_run.h"

namespace {

using namespace hseg_test;

// ---------------------------------------------------------------------------
// A writer of Caffe model files (protobuf wire format): layers and blobs in
// any of the encodings released files use, with the offset of every field
// recorded, and the public PSPNet model's layout filled from the network's
// own tensors.
// ---------------------------------------------------------------------------

// How one layer is written.
struct CaffeEncoding {
  bool v1 = false;              // an old `layers` entry: name 4, type 5 (enum), blobs 6
  bool unpacked = false;        // one field per value and per dimension
  bool doubles = false;         // double_data instead of data
  bool legacy_dims = false;     // num, channels, height, width instead of shape
  bool reordered = false;       // blobs before type and name, data (in two runs) before shape
  bool unknown_fields = false;  // fields of every wire type that no reader knows, at every level
};

struct CaffeBlob {
  std::vector<int64_t> shape;  // at most 4 dimensions; legacy dims pad it with leading 1s
  const float *values = nullptr;
  size_t count = 0;
};

struct CaffeLayer {
  std::string name;
  std::string type;
  std::vector<CaffeBlob> blobs;
  CaffeEncoding encoding;
};

// A message under construction. With `marks` it records where each field
// starts: at any depth (marks), and at its own level (top_marks).
class ProtoMessage {
 public:
  explicit ProtoMessage(bool marks = false) : record_(marks) {}
  void varint_field(uint32_t number, uint64_t v) {
    key(number, 0);
    varint(v);
  }
  void fixed32_field(uint32_t number, uint32_t bits) {
    key(number, 5);
    bytes_.append(reinterpret_cast<const char *>(&bits), 4);
  }
  void fixed64_field(uint32_t number, uint64_t bits) {
    key(number, 1);
    bytes_.append(reinterpret_cast<const char *>(&bits), 8);
  }
  void bytes_field(uint32_t number, const void *data, size_t size) {
    key(number, 2);
    varint(size);
    bytes_.append(static_cast<const char *>(data), size);
  }
  void message_field(uint32_t number, const ProtoMessage &m) {
    key(number, 2);
    varint(m.bytes_.size());
    nest(m);
  }
  // The end tag is a field boundary, but the message does not end there.
  void group_field(uint32_t number, const ProtoMessage &m) {
    key(number, 3);
    nest(m);
    key(number, 4, false);
  }
  // The fields of `m`, at this message's level.
  void append(const ProtoMessage &m) {
    if (record_)
      for (size_t mark : m.top_) top_.push_back(bytes_.size() + mark);
    nest(m);
  }
  void varint(uint64_t v) {  // a bare varint, as in a packed run
    for (; v >= 0x80; v >>= 7) bytes_.push_back(static_cast<char>((v & 0x7f) | 0x80));
    bytes_.push_back(static_cast<char>(v));
  }

  const std::string &bytes() const { return bytes_; }
  const std::vector<size_t> &marks() const { return marks_; }
  const std::vector<size_t> &top_marks() const { return top_; }

 private:
  void key(uint32_t number, int wire_type, bool top = true) {
    if (record_) marks_.push_back(bytes_.size());
    if (record_ && top) top_.push_back(bytes_.size());
    varint((uint64_t{number} << 3) | static_cast<uint64_t>(wire_type));
  }
  void nest(const ProtoMessage &m) {
    if (record_)
      for (size_t mark : m.marks_) marks_.push_back(bytes_.size() + mark);
    bytes_ += m.bytes_;
  }
  std::string bytes_;
  std::vector<size_t> marks_, top_;
  bool record_;
};

// Field numbers, as the importer reads them.
constexpr uint32_t kNetName = 1, kNetLayer = 100, kNetLayerV1 = 2;
constexpr uint32_t kLayerName = 1, kLayerType = 2, kLayerBlobs = 7;
constexpr uint32_t kV1Name = 4, kV1Type = 5, kV1Blobs = 6;
constexpr uint32_t kBlobNum = 1, kBlobData = 5, kBlobShape = 7, kBlobDoubleData = 8;
constexpr uint32_t kShapeDim = 1;
constexpr uint64_t kV1Convolution = 4;

// Fields of every wire type under numbers no level of the model uses: a
// varint, a 64-bit value, bytes, a group holding a nested group, a 32-bit value.
void unknown_fields(ProtoMessage *m) {
  m->varint_field(9001, 300);
  m->fixed64_field(9002, 0x0123456789abcdefu);
  m->bytes_field(9003, "junk", 4);
  ProtoMessage inner, group;
  inner.varint_field(1, 7);
  group.fixed32_field(2, 5);
  group.group_field(3, inner);
  m->group_field(9004, group);
  m->fixed32_field(9005, 0xdeadbeefu);
}

void write_values(const CaffeBlob &b, const CaffeEncoding &e, size_t begin, size_t end,
                  ProtoMessage *m) {
  std::vector<double> d;  // only for doubles: the full model's kernels are large
  if (e.doubles) d.assign(b.values + begin, b.values + end);
  const char *data = e.doubles ? reinterpret_cast<const char *>(d.data())
                               : reinterpret_cast<const char *>(b.values + begin);
  const size_t size = e.doubles ? 8 : 4, n = end - begin;
  const uint32_t field = e.doubles ? kBlobDoubleData : kBlobData;
  if (!e.unpacked) return m->bytes_field(field, data, n * size);
  for (size_t i = 0; i < n; ++i) {
    uint64_t bits = 0;  // little-endian: a float's bits land in the low half
    std::memcpy(&bits, data + i * size, size);
    if (e.doubles) m->fixed64_field(field, bits);
    else m->fixed32_field(field, static_cast<uint32_t>(bits));
  }
}

void write_shape(const CaffeBlob &b, const CaffeEncoding &e, bool marks, ProtoMessage *m) {
  if (e.legacy_dims) {
    std::vector<int64_t> dims(4 - b.shape.size(), 1);
    dims.insert(dims.end(), b.shape.begin(), b.shape.end());
    for (uint32_t k = 0; k < 4; ++k) m->varint_field(kBlobNum + k, static_cast<uint64_t>(dims[k]));
    return;
  }
  ProtoMessage shape(marks);
  if (e.unknown_fields) unknown_fields(&shape);
  if (e.unpacked) {
    for (int64_t d : b.shape) shape.varint_field(kShapeDim, static_cast<uint64_t>(d));
  } else {
    ProtoMessage packed;
    for (int64_t d : b.shape) packed.varint(static_cast<uint64_t>(d));
    shape.bytes_field(kShapeDim, packed.bytes().data(), packed.bytes().size());
  }
  m->message_field(kBlobShape, shape);
}

ProtoMessage blob_message(const CaffeBlob &b, const CaffeEncoding &e, bool marks) {
  ProtoMessage m(marks);
  if (e.unknown_fields) unknown_fields(&m);
  if (e.reordered) {  // data first, in two runs, then the shape
    write_values(b, e, 0, b.count / 2, &m);
    write_values(b, e, b.count / 2, b.count, &m);
    write_shape(b, e, marks, &m);
  } else {
    write_shape(b, e, marks, &m);
    write_values(b, e, 0, b.count, &m);
  }
  return m;
}

ProtoMessage layer_message(const CaffeLayer &l, bool marks) {
  const CaffeEncoding &e = l.encoding;
  ProtoMessage m(marks);
  if (e.unknown_fields) unknown_fields(&m);
  const auto names = [&] {
    if (e.v1) {
      m.bytes_field(kV1Name, l.name.data(), l.name.size());
      m.varint_field(kV1Type, kV1Convolution);
    } else {
      m.bytes_field(kLayerName, l.name.data(), l.name.size());
      m.bytes_field(kLayerType, l.type.data(), l.type.size());
    }
  };
  if (!e.reordered) names();
  for (const CaffeBlob &b : l.blobs) m.message_field(e.v1 ? kV1Blobs : kLayerBlobs, blob_message(b, e, marks));
  if (e.reordered) names();
  return m;
}

// The top-level fields of one layer (an unknown field before it, if asked).
ProtoMessage top_fields(const CaffeLayer &l, bool marks) {
  ProtoMessage top(marks);
  if (l.encoding.unknown_fields) unknown_fields(&top);
  top.message_field(l.encoding.v1 ? kNetLayerV1 : kNetLayer, layer_message(l, marks));
  return top;
}

const char kNetNameText[] = "pspnet101_VOC2012_473";

// The model as one message: the net's name, then the fields of each layer.
// With `record`, its marks are the field boundaries of the file.
ProtoMessage caffe_model(const std::vector<CaffeLayer> &layers, bool record) {
  ProtoMessage net(record);
  net.bytes_field(kNetName, kNetNameText, sizeof kNetNameText - 1);
  for (const CaffeLayer &l : layers) net.append(top_fields(l, record));
  return net;
}

// The same, written to `path` one layer at a time.
bool write_caffe_model(const std::string &path, const std::vector<CaffeLayer> &layers) {
  std::ofstream f(path, std::ios::binary);
  f << caffe_model({}, false).bytes();  // the net's name
  for (const CaffeLayer &l : layers) f << top_fields(l, false).bytes();
  return static_cast<bool>(f.flush());
}

// The public PSPNet-101 model's layout, filled from the network's tensors
// (`tensor(i)` gives net_tensor(i).count floats, kept alive by the caller):
// an Input layer "data"; each layer L of the table but the classifier with
// its kernel, then "L/bn" with scale, shift, mean and variance (shaped
// 1xCx1x1 and C in turn); ReLU, Interp and Dropout layers without blobs; an
// auxiliary head conv4_24 with its batch norm; and the 21-class classifier
// "conv6" whose rows 0 (background) and 15 (person) are the network's two
// classifier rows and biases, the other rows random.
class PspnetCaffeLayers {
 public:
  std::vector<CaffeLayer> layers;

  explicit PspnetCaffeLayers(const std::function<const float *(int)> &tensor) {
    using hseg::kNetLayers;
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
    const auto random = [&](std::vector<float> *v, size_t n, float offset) {
      v->resize(n);
      for (float &x : *v) x = offset + uniform(rng);
    };
    layers.push_back({"data", "Input", {}, {}});
    for (int i = 0; i + 1 < hseg::kNetLayerCount; ++i) {
      const hseg::NetLayer &l = kNetLayers[i];
      const int first = hseg::net_first_tensor(i);
      const int64_t c = l.cout;
      const auto count = [&](int k) { return static_cast<size_t>(hseg::net_tensor(first + k).count); };
      layers.push_back({l.name, "Convolution", {{{c, l.cin, l.kernel, l.kernel}, tensor(first), count(0)}}, {}});
      const std::vector<int64_t> bn_shape = i % 2 == 0 ? std::vector<int64_t>{1, c, 1, 1}
                                                       : std::vector<int64_t>{c};
      CaffeLayer bn{std::string(l.name) + "/bn", "BN", {}, {}};
      for (int k = 1; k <= 4; ++k) bn.blobs.push_back({bn_shape, tensor(first + k), count(k)});
      layers.push_back(bn);
      if (i == 0) layers.push_back({std::string(l.name) + "/relu", "ReLU", {}, {}});
      if (std::string(l.name) == "conv4_23_1x1_increase") {  // the auxiliary head of training
        random(&aux_kernel_, 256 * 1024 * 9, 0.0f);
        random(&aux_bn_, 256, 1.0f);
        layers.push_back({"conv4_24", "Convolution", {{{256, 1024, 3, 3}, aux_kernel_.data(), aux_kernel_.size()}}, {}});
        layers.push_back({"conv4_24/bn", "BN", {}, {}});
        for (int k = 0; k < 4; ++k) layers.back().blobs.push_back({{1, 256, 1, 1}, aux_bn_.data(), 256});
        layers.push_back({"conv4_24_dropout", "Dropout", {}, {}});
      }
      if (std::string(l.name) == "conv5_3_pool1_conv") layers.push_back({"conv5_3_pool1_interp", "Interp", {}, {}});
    }
    // The classifier: the network's two rows among 21 classes.
    const int fc8 = hseg::net_first_tensor(hseg::kNetLayerCount - 1);
    constexpr int kClasses = 21, kIn = 512;
    random(&conv6_kernel_, kClasses * kIn, 0.0f);
    random(&conv6_bias_, kClasses, 0.0f);
    for (int plane = 0; plane < 2; ++plane) {
      const int row = plane == 0 ? 0 : 15;  // VOC's background and person
      std::memcpy(&conv6_kernel_[row * kIn], tensor(fc8) + plane * kIn, kIn * sizeof(float));
      conv6_bias_[row] = tensor(fc8 + 1)[plane];
    }
    layers.push_back({"conv5_4_dropout", "Dropout", {}, {}});
    layers.push_back({"conv6", "Convolution",
                      {{{kClasses, kIn, 1, 1}, conv6_kernel_.data(), conv6_kernel_.size()},
                       {{kClasses}, conv6_bias_.data(), conv6_bias_.size()}},
                      {}});
    layers.push_back({"conv6_interp", "Interp", {}, {}});
  }

 private:
  std::vector<float> conv6_kernel_, conv6_bias_, aux_kernel_, aux_bn_;
};

// ---------------------------------------------------------------------------
// The importer
// ---------------------------------------------------------------------------

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
