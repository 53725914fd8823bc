// Reading, checking and writing weights files in the safetensors layout:
//
//   8 bytes   N, the header length, unsigned little-endian
//   N bytes   JSON object: {"<name>": {"dtype": "F32", "shape": [..],
//             "data_offsets": [begin, end]}, ..., "__metadata__": {..}}
//   the rest  tensor bytes; offsets are relative to the start of this part,
//             and the tensors cover it exactly, without holes or overlap.
//
// Only what the weights tool needs: every expected tensor is float32,
// little-endian.
#ifndef HSEG_TOOLS_HSEG_WEIGHTS_IO_H_
#define HSEG_TOOLS_HSEG_WEIGHTS_IO_H_

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace hseg_weights {

// A tensor the file must hold.
struct TensorShape {
  std::string name;
  std::vector<int64_t> shape;
};

// A tensor as the file's header describes it.
struct TensorEntry {
  std::string name;
  std::string dtype;
  std::vector<int64_t> shape;
  uint64_t begin = 0;  // data offsets, relative to the data part
  uint64_t end = 0;
};

struct FileLayout {
  uint64_t file_size = 0;
  uint64_t header_size = 0;          // N
  uint64_t data_start = 0;           // 8 + N
  std::vector<TensorEntry> tensors;  // in header order
};

// Header lengths above this are refused before anything is read.
inline constexpr uint64_t kMaxHeaderBytes = 100u << 20;

// Reads and checks the header of `path`: the length field, the JSON, each
// entry's fields, offsets that match dtype and shape, and tensors that cover
// the data part exactly. Problems are appended to `errors` (one sentence
// each); returns false when there was any.
bool read_layout(const std::string &path, FileLayout *layout, std::vector<std::string> *errors);
// The same on an open, seekable stream (read from its start; left open).
bool read_layout_stream(FILE *file, FileLayout *layout, std::vector<std::string> *errors);

// Checks a file against the tensors it must hold: read_layout, then missing
// and unexpected tensors, dtype (F32 only) and shape, then every value of
// every well-formed expected tensor must be finite. Returns all problems
// found (empty when the file is good); `layout` receives the header.
std::vector<std::string> validate(const std::string &path, const std::vector<TensorShape> &shapes,
                                  FileLayout *layout);

// Writes a file holding `shapes` in their order, every tensor float32, no
// metadata, the header padded with spaces to a multiple of 8 bytes. `fill`
// is called once per tensor, in order, with the tensor index and a buffer
// of exactly the tensor's element count to fill. The bytes depend only on
// the shapes and the values, so two writers with equal input give equal
// files. Returns false with a message when the file cannot be written.
bool write_file(const std::string &path, const std::vector<TensorShape> &shapes,
                const std::function<void(size_t, float *)> &fill, std::string *error);

// Element count of a shape; false when a dimension is negative or the
// product (times 4 bytes) would not fit in 63 bits.
bool shape_count(const std::vector<int64_t> &shape, uint64_t *count);

std::string shape_text(const std::vector<int64_t> &shape);

// A number as "%g" prints it.
std::string number_text(double v);

// "NaN", "+inf" or "-inf" for a value that is not finite.
const char *non_finite_name(float v);

// A running summary of float values: where the first NaN or infinity is, and
// the range and mean of the finite ones.
struct ValueStats {
  static constexpr uint64_t kAllFinite = UINT64_MAX;
  uint64_t count = 0;
  uint64_t first_bad = kAllFinite;  // index of the first value that is not finite
  float bad = 0.0f;                 // that value
  float min = INFINITY;
  float max = -INFINITY;
  double sum = 0.0;

  void add(const float *v, size_t n);
  bool finite() const { return first_bad == kAllFinite; }
  double mean() const { return count > 0 ? sum / static_cast<double>(count) : 0.0; }
};

// A file mapped read-only for as long as the object lives. An empty file
// gives no bytes (data() null, size() 0).
class MappedFile {
 public:
  MappedFile() = default;
  ~MappedFile();
  MappedFile(const MappedFile &) = delete;
  MappedFile &operator=(const MappedFile &) = delete;

  // False with a message (naming the reason, not the path) when the file
  // cannot be opened or mapped.
  bool open(const std::string &path, std::string *error);
  const uint8_t *data() const { return data_; }
  size_t size() const { return size_; }

 private:
  const uint8_t *data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace hseg_weights

#endif  // HSEG_TOOLS_HSEG_WEIGHTS_IO_H_
