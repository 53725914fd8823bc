// Reading Caffe model files (.caffemodel) straight from the protobuf wire
// format, over the file's bytes (mapped, never copied): an index of the
// layers and their blobs, then the blobs' values on demand.
//
// Only these fields are read; every other field, of any wire type, is
// skipped:
//   NetParameter      name 1, layer 100 (LayerParameter), layers 2 (V1LayerParameter)
//   LayerParameter    name 1, type 2 (string), blobs 7 (BlobProto)
//   V1LayerParameter  name 4, type 5 (enum), blobs 6
//   BlobProto         shape 7 (BlobShape: dim 1, int64), data 5 (float),
//                     double_data 8 (double), and the old four-number shape
//                     num 1, channels 2, height 3, width 4 (int32)
// Repeated numbers may be packed or one field each, in any mix. Every
// length and varint is checked against the message that holds it; a damaged
// encoding is reported with its file offset.
#ifndef HSEG_TOOLS_CAFFE_MODEL_H_
#define HSEG_TOOLS_CAFFE_MODEL_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace hseg_caffe {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "fixed-width values are read as little-endian host words");

enum WireType : uint8_t {
  kVarint = 0,
  kFixed64 = 1,
  kBytes = 2,  // length-delimited: strings, messages, packed numbers
  kGroupStart = 3,
  kGroupEnd = 4,
  kFixed32 = 5,
};

// One field of a message, read whole.
struct WireField {
  uint32_t number = 0;
  WireType type = kVarint;
  uint64_t value = 0;  // a varint, or the bits of a fixed-width value
  size_t offset = 0;   // of the field's tag in the file
  size_t begin = 0;    // the payload of a length-delimited field or a group
  size_t end = 0;
};

// The fields of one message: bytes [begin, end) of a file of `size` bytes.
// Readers of one file share an error string: the first problem any of them
// meets is kept, and every reader stops there.
class WireReader {
 public:
  WireReader(const uint8_t *file, size_t size, size_t begin, size_t end, std::string *error)
      : file_(file), size_(size), pos_(begin), end_(end), error_(error) {}
  // A reader of the message that a length-delimited field holds.
  WireReader child(const WireField &field) const {
    return WireReader(file_, size_, field.begin, field.end, error_);
  }

  // Reads the next field; false at the end of the message or after damage.
  bool next(WireField *field);
  // For a packed run of varints.
  bool at_end() const { return pos_ >= end_; }
  bool varint(uint64_t *value);

  bool ok() const { return error_->empty(); }
  // Records damage at file offset `at` (such as a wire type a known field
  // cannot have) unless a problem was recorded before; returns false.
  bool fail(size_t at, const std::string &what);

 private:
  bool past_end(size_t at, const std::string &what);
  bool read_key(WireField *field);
  bool read_body(WireField *field);
  bool skip_group(WireField *field);

  const uint8_t *file_;
  size_t size_;
  size_t pos_;
  size_t end_;
  std::string *error_;
};

struct Blob {
  size_t begin = 0;  // the BlobProto message's bytes in the file
  size_t end = 0;
  std::vector<int64_t> shape;   // `shape`, else num, channels, height, width
  uint64_t floats = 0;          // values in `data`
  uint64_t doubles = 0;         // values in `double_data`
  uint64_t values() const { return floats + doubles; }
};

struct Layer {
  std::string name;
  std::string type;  // the type string, or "V1 type N" for an old layer
  size_t offset = 0;  // of its field in the file
  std::vector<Blob> blobs;
};

struct Model {
  std::string name;
  std::vector<Layer> layers;  // in file order
};

// Indexes the model in `file`. On damage returns false with a one-line
// message naming the file offset (and "file is truncated" where the
// encoding runs past the end of the file).
bool read_model(const uint8_t *file, size_t size, Model *model, std::string *error);

// Walks a blob's values in order, float or double data converted to float,
// in chunks of at most kChunk values. The blob must come from read_model on
// the same bytes; false (with a message) only if they changed since.
inline constexpr size_t kChunk = 4096;
bool for_each_chunk(const uint8_t *file, size_t size, const Blob &blob,
                    const std::function<void(const float *, size_t)> &chunk, std::string *error);

// The blob's values into `dst` (blob.values() floats).
bool read_values(const uint8_t *file, size_t size, const Blob &blob, float *dst,
                 std::string *error);

}  // namespace hseg_caffe

#endif  // HSEG_TOOLS_CAFFE_MODEL_H_
