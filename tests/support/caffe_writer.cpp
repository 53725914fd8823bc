#include "support/caffe_writer.h"

#include <cstring>
#include <fstream>
#include <random>

#include "pipeline/net_layers.h"

namespace hseg_test {

namespace {

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

}  // namespace

void ProtoMessage::varint(uint64_t v) {
  while (v >= 0x80) {
    bytes_.push_back(static_cast<char>((v & 0x7f) | 0x80));
    v >>= 7;
  }
  bytes_.push_back(static_cast<char>(v));
}

void ProtoMessage::key(uint32_t number, int wire_type, bool top) {
  if (record_) marks_.push_back(bytes_.size());
  if (record_ && top) top_.push_back(bytes_.size());
  varint((uint64_t{number} << 3) | static_cast<uint64_t>(wire_type));
}

void ProtoMessage::varint_field(uint32_t number, uint64_t v) {
  key(number, 0);
  varint(v);
}

void ProtoMessage::fixed32_field(uint32_t number, uint32_t bits) {
  key(number, 5);
  bytes_.append(reinterpret_cast<const char *>(&bits), 4);
}

void ProtoMessage::fixed64_field(uint32_t number, uint64_t bits) {
  key(number, 1);
  bytes_.append(reinterpret_cast<const char *>(&bits), 8);
}

void ProtoMessage::bytes_field(uint32_t number, const void *data, size_t size) {
  key(number, 2);
  varint(size);
  bytes_.append(static_cast<const char *>(data), size);
}

void ProtoMessage::nest(const ProtoMessage &m) {
  if (record_)
    for (size_t mark : m.marks_) marks_.push_back(bytes_.size() + mark);
  bytes_ += m.bytes_;
}

void ProtoMessage::append(const ProtoMessage &m) {
  if (record_)
    for (size_t mark : m.top_) top_.push_back(bytes_.size() + mark);
  nest(m);
}

void ProtoMessage::message_field(uint32_t number, const ProtoMessage &m) {
  key(number, 2);
  varint(m.bytes_.size());
  nest(m);
}

// The end tag is a field boundary, but the message does not end there.
void ProtoMessage::group_field(uint32_t number, const ProtoMessage &m) {
  key(number, 3);
  nest(m);
  key(number, 4, false);
}

ProtoMessage caffe_model(const std::vector<CaffeLayer> &layers, bool record) {
  ProtoMessage net(record);
  net.bytes_field(kNetName, kNetNameText, sizeof kNetNameText - 1);
  for (const CaffeLayer &l : layers) net.append(top_fields(l, record));
  return net;
}

bool write_caffe_model(const std::string &path, const std::vector<CaffeLayer> &layers) {
  std::ofstream f(path, std::ios::binary);
  f << caffe_model({}, false).bytes();  // the net's name
  for (const CaffeLayer &l : layers) f << top_fields(l, false).bytes();
  return static_cast<bool>(f.flush());
}

PspnetCaffeLayers::PspnetCaffeLayers(const std::function<const float *(int)> &tensor) {
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

}  // namespace hseg_test
