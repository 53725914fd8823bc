// Writes Caffe model files (protobuf wire format) for the importer's tests:
// layers and blobs in any of the encodings released files use, with the
// offset of every field recorded, and the public PSPNet model's layout
// filled from the network's own tensors.
#ifndef HSEG_TESTS_SUPPORT_CAFFE_WRITER_H_
#define HSEG_TESTS_SUPPORT_CAFFE_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace hseg_test {

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
  void varint_field(uint32_t number, uint64_t v);
  void fixed32_field(uint32_t number, uint32_t bits);
  void fixed64_field(uint32_t number, uint64_t bits);
  void bytes_field(uint32_t number, const void *data, size_t size);
  void message_field(uint32_t number, const ProtoMessage &m);
  void group_field(uint32_t number, const ProtoMessage &m);
  // The fields of `m`, at this message's level.
  void append(const ProtoMessage &m);
  void varint(uint64_t v);  // a bare varint, as in a packed run

  const std::string &bytes() const { return bytes_; }
  const std::vector<size_t> &marks() const { return marks_; }
  const std::vector<size_t> &top_marks() const { return top_; }

 private:
  void key(uint32_t number, int wire_type, bool top = true);
  void nest(const ProtoMessage &m);
  std::string bytes_;
  std::vector<size_t> marks_, top_;
  bool record_;
};

// The model as one message: the net's name, then the fields of each layer.
// With `record`, its marks are the field boundaries of the file.
ProtoMessage caffe_model(const std::vector<CaffeLayer> &layers, bool record);
// The same, written to `path` one layer at a time.
bool write_caffe_model(const std::string &path, const std::vector<CaffeLayer> &layers);

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
  explicit PspnetCaffeLayers(const std::function<const float *(int)> &tensor);
  std::vector<CaffeLayer> layers;

 private:
  std::vector<float> conv6_kernel_, conv6_bias_, aux_kernel_, aux_bn_;
};

}  // namespace hseg_test

#endif  // HSEG_TESTS_SUPPORT_CAFFE_WRITER_H_
