#include "hseg_weights_io.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "stdio_file.h"

namespace hseg_weights {

namespace {

using Json = nlohmann::ordered_json;

using hseg_tools::File;

// Bytes per element of the safetensors dtypes; 0 for a name it does not know.
uint64_t dtype_bytes(const std::string &dtype) {
  static const std::map<std::string, uint64_t> kSizes = {
      {"BOOL", 1}, {"U8", 1},  {"I8", 1},  {"F8_E4M3", 1}, {"F8_E5M2", 1},
      {"I16", 2},  {"U16", 2}, {"F16", 2}, {"BF16", 2},    {"I32", 4},
      {"U32", 4},  {"F32", 4}, {"I64", 8}, {"U64", 8},     {"F64", 8}};
  const auto it = kSizes.find(dtype);
  return it == kSizes.end() ? 0 : it->second;
}

bool file_size_of(FILE *f, uint64_t *size) {
  if (std::fseek(f, 0, SEEK_END) != 0) return false;
  const long end = std::ftell(f);
  if (end < 0 || std::fseek(f, 0, SEEK_SET) != 0) return false;
  *size = static_cast<uint64_t>(end);
  return true;
}

bool read_exact(FILE *f, void *dst, size_t n) { return std::fread(dst, 1, n, f) == n; }

// Reads a non-negative JSON integer into `out`.
bool json_u64(const Json &v, uint64_t *out) {
  if (v.is_number_unsigned()) {
    *out = v.get<uint64_t>();
    return true;
  }
  if (v.is_number_integer() && v.get<int64_t>() >= 0) {
    *out = static_cast<uint64_t>(v.get<int64_t>());
    return true;
  }
  return false;
}

// Parses one header entry; returns an empty string or what is wrong with it.
std::string parse_entry(const std::string &name, const Json &v, TensorEntry *e) {
  e->name = name;
  if (!v.is_object()) return "tensor " + name + ": header entry is not an object";
  const auto dtype = v.find("dtype");
  const auto shape = v.find("shape");
  const auto offsets = v.find("data_offsets");
  if (dtype == v.end() || !dtype->is_string())
    return "tensor " + name + ": header entry has no \"dtype\" string";
  if (shape == v.end() || !shape->is_array())
    return "tensor " + name + ": header entry has no \"shape\" array";
  if (offsets == v.end() || !offsets->is_array() || offsets->size() != 2)
    return "tensor " + name + ": header entry has no \"data_offsets\" pair";
  e->dtype = dtype->get<std::string>();
  for (const Json &d : *shape) {
    uint64_t n = 0;
    if (!json_u64(d, &n) || n > static_cast<uint64_t>(INT64_MAX))
      return "tensor " + name + ": shape holds something other than a non-negative integer";
    e->shape.push_back(static_cast<int64_t>(n));
  }
  if (!json_u64((*offsets)[0], &e->begin) || !json_u64((*offsets)[1], &e->end) ||
      e->begin > e->end)
    return "tensor " + name + ": data_offsets must be two non-negative integers, begin <= end";
  const uint64_t elem = dtype_bytes(e->dtype);
  if (elem == 0) return "tensor " + name + ": unknown dtype " + e->dtype;
  uint64_t count = 0;
  if (!shape_count(e->shape, &count))
    return "tensor " + name + ": shape " + shape_text(e->shape) + " is too large";
  // count < 2^61 (shape_count), so count * elem <= 2^64 / 2 does not wrap.
  if (e->end - e->begin != count * elem) {
    std::ostringstream s;
    s << "tensor " << name << ": data_offsets [" << e->begin << ", " << e->end << "] span "
      << (e->end - e->begin) << " bytes, but " << e->dtype << " " << shape_text(e->shape)
      << " needs " << count * elem;
    return s.str();
  }
  return "";
}

// The data part must be covered exactly: sorted by offset, each tensor starts
// where the previous one ended, the first at 0, the last at `data_bytes`.
void check_coverage(const std::vector<TensorEntry> &tensors, uint64_t data_bytes,
                    std::vector<std::string> *errors) {
  std::vector<const TensorEntry *> order;
  for (const TensorEntry &t : tensors) order.push_back(&t);
  std::sort(order.begin(), order.end(), [](const TensorEntry *a, const TensorEntry *b) {
    return a->begin != b->begin ? a->begin < b->begin : a->end < b->end;
  });
  uint64_t at = 0;
  for (const TensorEntry *t : order) {
    std::ostringstream s;
    if (t->begin < at) {
      s << "tensor " << t->name << " overlaps the tensor before it (starts at " << t->begin
        << ", previous ends at " << at << ")";
    } else if (t->begin > at) {
      s << "data bytes " << at << " to " << t->begin << " belong to no tensor";
    }
    if (!s.str().empty()) errors->push_back(s.str());
    at = std::max(at, t->end);
  }
  if (at > data_bytes) {
    std::ostringstream s;
    s << "file is truncated: the tensors need " << at << " data bytes, the file has "
      << data_bytes;
    errors->push_back(s.str());
  } else if (at < data_bytes) {
    std::ostringstream s;
    s << "file has " << (data_bytes - at) << " bytes after the last tensor";
    errors->push_back(s.str());
  }
}

}  // namespace

bool shape_count(const std::vector<int64_t> &shape, uint64_t *count) {
  // Keep the product below 2^61 so that the byte count of any dtype up to
  // 8 bytes stays below 2^64 and every offset sum is exact.
  const uint64_t kLimit = uint64_t{1} << 61;
  uint64_t n = 1;
  for (int64_t d : shape) {
    if (d < 0) return false;
    const uint64_t u = static_cast<uint64_t>(d);
    if (u != 0 && n > kLimit / u) return false;
    n *= u;
  }
  *count = n;
  return true;
}

std::string shape_text(const std::vector<int64_t> &shape) {
  std::ostringstream s;
  s << '[';
  for (size_t i = 0; i < shape.size(); ++i) s << (i ? ", " : "") << shape[i];
  s << ']';
  return s.str();
}

std::string number_text(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

const char *non_finite_name(float v) {
  if (std::isnan(v)) return "NaN";
  return v < 0 ? "-inf" : "+inf";
}

void ValueStats::add(const float *v, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (!std::isfinite(v[i])) {
      if (first_bad == kAllFinite) {
        first_bad = count + i;
        bad = v[i];
      }
      continue;
    }
    min = std::min(min, v[i]);
    max = std::max(max, v[i]);
    sum += v[i];
  }
  count += n;
}

MappedFile::~MappedFile() {
  if (data_ != nullptr) munmap(const_cast<uint8_t *>(data_), size_);
}

bool MappedFile::open(const std::string &path, std::string *error) {
  if (data_ != nullptr) munmap(const_cast<uint8_t *>(data_), size_);
  data_ = nullptr;
  size_ = 0;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = std::string("cannot open the file: ") + std::strerror(errno);
    return false;
  }
  struct stat st;
  bool ok = fstat(fd, &st) == 0;
  if (ok && !S_ISREG(st.st_mode)) {
    *error = "not a regular file";
    ::close(fd);
    return false;
  }
  if (ok && st.st_size > 0) {
    void *m = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    ok = m != MAP_FAILED;
    if (ok) {
      data_ = static_cast<const uint8_t *>(m);
      size_ = static_cast<size_t>(st.st_size);
    }
  }
  if (!ok) *error = std::string("cannot read the file: ") + std::strerror(errno);
  ::close(fd);
  return ok;
}

bool read_layout(const std::string &path, FileLayout *layout, std::vector<std::string> *errors) {
  *layout = FileLayout{};
  File f(std::fopen(path.c_str(), "rb"));
  if (!f) {
    errors->push_back("cannot open the file: " + std::string(std::strerror(errno)));
    return false;
  }
  return read_layout_stream(f.get(), layout, errors);
}

bool read_layout_stream(FILE *file, FileLayout *layout, std::vector<std::string> *errors) {
  const size_t errors_before = errors->size();
  *layout = FileLayout{};
  if (!file_size_of(file, &layout->file_size)) {
    errors->push_back("cannot determine the file's size");
    return false;
  }
  unsigned char len[8];
  if (layout->file_size < 8 || !read_exact(file, len, 8)) {
    errors->push_back("file is truncated: shorter than the 8-byte header length");
    return false;
  }
  uint64_t n = 0;
  for (int i = 7; i >= 0; --i) n = (n << 8) | len[i];
  layout->header_size = n;
  if (n > kMaxHeaderBytes) {
    errors->push_back("malformed header: header length " + std::to_string(n) +
                      " is larger than the 100 MiB allowed");
    return false;
  }
  if (n > layout->file_size - 8) {
    errors->push_back("file is truncated: the header needs " + std::to_string(n) +
                      " bytes, the file has " + std::to_string(layout->file_size - 8) +
                      " after the length");
    return false;
  }
  layout->data_start = 8 + n;
  std::string text(n, '\0');
  if (n > 0 && !read_exact(file, &text[0], n)) {
    errors->push_back("cannot read the header");
    return false;
  }
  Json header;
  try {
    header = Json::parse(text);
  } catch (const Json::exception &e) {
    errors->push_back(std::string("malformed header: ") + e.what());
    return false;
  }
  if (!header.is_object()) {
    errors->push_back("malformed header: the JSON is not an object");
    return false;
  }
  for (auto it = header.begin(); it != header.end(); ++it) {
    if (it.key() == "__metadata__") {
      if (!it.value().is_object()) errors->push_back("malformed header: __metadata__ is not an object");
      continue;
    }
    TensorEntry e;
    const std::string problem = parse_entry(it.key(), it.value(), &e);
    if (!problem.empty()) {
      errors->push_back("malformed header: " + problem);
      continue;
    }
    layout->tensors.push_back(std::move(e));
  }
  if (errors->size() == errors_before)
    check_coverage(layout->tensors, layout->file_size - layout->data_start, errors);
  return errors->size() == errors_before;
}

namespace {

// Names, dtypes and shapes against the expected list; the tensors that pass
// are appended to `to_scan`.
void check_tensors(const FileLayout &layout, const std::vector<TensorShape> &shapes,
                   std::vector<std::string> *errors, std::vector<const TensorEntry *> *to_scan) {
  std::map<std::string, const TensorEntry *> by_name;
  for (const TensorEntry &t : layout.tensors) by_name[t.name] = &t;
  std::set<std::string> expected;
  for (const TensorShape &s : shapes) {
    expected.insert(s.name);
    const auto it = by_name.find(s.name);
    if (it == by_name.end()) {
      errors->push_back("missing tensor " + s.name + " (float32 " + shape_text(s.shape) + ")");
      continue;
    }
    const TensorEntry &t = *it->second;
    bool ok = true;
    if (t.dtype != "F32") {
      errors->push_back("tensor " + s.name + ": dtype " + t.dtype + ", expected F32");
      ok = false;
    }
    if (t.shape != s.shape) {
      errors->push_back("tensor " + s.name + ": shape " + shape_text(t.shape) + ", expected " +
                        shape_text(s.shape));
      ok = false;
    }
    if (ok) to_scan->push_back(&t);
  }
  for (const TensorEntry &t : layout.tensors)
    if (expected.count(t.name) == 0) errors->push_back("unexpected tensor " + t.name);
}

// Every value of the tensors finite, the first non-finite one of each
// reported. Read in file order so the scan is one sequential pass.
void check_values(const std::string &path, const FileLayout &layout,
                  std::vector<const TensorEntry *> tensors, std::vector<std::string> *errors) {
  std::sort(tensors.begin(), tensors.end(),
            [](const TensorEntry *a, const TensorEntry *b) { return a->begin < b->begin; });
  File f(std::fopen(path.c_str(), "rb"));
  if (!f) {
    errors->push_back("cannot reopen the file: " + std::string(std::strerror(errno)));
    return;
  }
  std::vector<uint32_t> buf(1u << 18);
  for (const TensorEntry *t : tensors) {
    if (std::fseek(f.get(), static_cast<long>(layout.data_start + t->begin), SEEK_SET) != 0) {
      errors->push_back("cannot seek to tensor " + t->name);
      return;
    }
    uint64_t left = (t->end - t->begin) / 4, index = 0;
    bool reported = false;
    while (left > 0) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(left, buf.size()));
      if (!read_exact(f.get(), buf.data(), n * 4)) {
        errors->push_back("cannot read tensor " + t->name);
        return;
      }
      for (size_t i = 0; i < n && !reported; ++i) {
        const uint32_t bits = buf[i];  // little-endian host: the stored bit pattern
        if ((bits & 0x7f800000u) == 0x7f800000u) {
          float v;
          std::memcpy(&v, &bits, sizeof v);
          errors->push_back("tensor " + t->name + ": element " + std::to_string(index + i) +
                            " is " + non_finite_name(v) + ", every value must be finite");
          reported = true;
        }
      }
      left -= n;
      index += n;
    }
  }
}

}  // namespace

std::vector<std::string> validate(const std::string &path, const std::vector<TensorShape> &shapes,
                                  FileLayout *layout) {
  std::vector<std::string> errors;
  if (!read_layout(path, layout, &errors)) return errors;
  std::vector<const TensorEntry *> to_scan;
  check_tensors(*layout, shapes, &errors, &to_scan);
  check_values(path, *layout, std::move(to_scan), &errors);
  return errors;
}

bool write_file(const std::string &path, const std::vector<TensorShape> &shapes,
                const std::function<void(size_t, float *)> &fill, std::string *error) {
  nlohmann::ordered_json header = nlohmann::ordered_json::object();
  uint64_t at = 0;
  std::vector<uint64_t> counts;
  for (const TensorShape &s : shapes) {
    uint64_t count = 0;
    if (!shape_count(s.shape, &count)) {
      *error = "tensor " + s.name + ": shape too large";
      return false;
    }
    counts.push_back(count);
    header[s.name] = {{"dtype", "F32"}, {"shape", s.shape}, {"data_offsets", {at, at + count * 4}}};
    at += count * 4;
  }
  std::string text = header.dump();
  text.append((8 - text.size() % 8) % 8, ' ');

  File f(std::fopen(path.c_str(), "wb"));
  if (!f) {
    *error = hseg_tools::file_message("create", path, errno);
    return false;
  }
  unsigned char len[8];
  for (int i = 0; i < 8; ++i) len[i] = static_cast<unsigned char>(uint64_t{text.size()} >> (8 * i));
  bool ok = std::fwrite(len, 1, 8, f.get()) == 8 &&
            std::fwrite(text.data(), 1, text.size(), f.get()) == text.size();
  std::vector<float> values;
  for (size_t i = 0; ok && i < shapes.size(); ++i) {
    values.assign(counts[i], 0.0f);
    fill(i, values.data());
    ok = std::fwrite(values.data(), 4, values.size(), f.get()) == values.size();
  }
  const int write_error = ok ? 0 : errno;
  const int close_error = hseg_tools::close_file(f);
  if (ok && close_error == 0) return true;
  *error = hseg_tools::file_message("write", path, ok ? close_error : write_error);
  return false;
}

}  // namespace hseg_weights
