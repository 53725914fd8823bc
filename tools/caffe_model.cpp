#include "caffe_model.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

namespace hseg_caffe {

namespace {

constexpr uint64_t kMaxFieldNumber = (uint64_t{1} << 29) - 1;
// Groups are obsolete and never nest deeply in a real file; the limit keeps
// a crafted run of group starts from growing the open-group list unbounded.
constexpr size_t kMaxGroupDepth = 64;

// Field numbers of the messages read here.
enum : uint32_t {
  kNetName = 1,
  kNetLayer = 100,
  kNetLayerV1 = 2,
  kLayerName = 1,
  kLayerType = 2,
  kLayerBlobs = 7,
  kV1Name = 4,
  kV1Type = 5,
  kV1Blobs = 6,
  kBlobNum = 1,  // .. kBlobWidth = 4: the old four-number shape
  kBlobWidth = 4,
  kBlobData = 5,
  kBlobShape = 7,
  kBlobDoubleData = 8,
  kShapeDim = 1,
};

const char *const kWireTypeNames[] = {"varint", "64-bit", "length-delimited",
                                      "group start", "group end", "32-bit"};

std::string at_offset(size_t at) { return "offset " + std::to_string(at); }

// A double as the float nearest to it; out of float range gives an infinity
// (an explicit rule: the plain conversion is undefined there).
float to_float(double d) {
  if (std::isfinite(d) && std::fabs(d) > static_cast<double>(FLT_MAX)) {
    // Doubles that round to FLT_MAX still do; beyond half an ulp past it, inf.
    const double limit = static_cast<double>(FLT_MAX) + std::ldexp(1.0, 127 - 24);
    if (std::fabs(d) < limit) return d < 0 ? -FLT_MAX : FLT_MAX;
    return d < 0 ? -std::numeric_limits<float>::infinity()
                 : std::numeric_limits<float>::infinity();
  }
  return static_cast<float>(d);
}

float float_at(const uint8_t *p) {
  float v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

double double_at(const uint8_t *p) {
  double v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Checks that `f` has one of the wire types its number may carry.
bool expect(WireReader &r, const WireField &f, WireType a, WireType b, const char *what) {
  if (f.type == a || f.type == b) return true;
  return r.fail(f.offset, std::string(what) + " (field " + std::to_string(f.number) + ") has " +
                              kWireTypeNames[f.type] + " wire type");
}

bool read_string(WireReader &r, const uint8_t *file, const WireField &f, const char *what,
                 std::string *out) {
  if (!expect(r, f, kBytes, kBytes, what)) return false;
  out->assign(reinterpret_cast<const char *>(file) + f.begin, f.end - f.begin);
  return true;
}

}  // namespace

bool WireReader::fail(size_t at, const std::string &what) {
  if (error_->empty()) *error_ = "damaged encoding at " + at_offset(at) + ": " + what;
  pos_ = end_;
  return false;
}

bool WireReader::past_end(size_t at, const std::string &what) {
  if (end_ != size_) return fail(at, what + " runs past the end of its message at " + at_offset(end_));
  if (error_->empty()) *error_ = "file is truncated: " + what + " at " + at_offset(at) + " runs past its end";
  pos_ = end_;
  return false;
}

bool WireReader::varint(uint64_t *value) {
  const size_t at = pos_;
  uint64_t v = 0;
  for (int i = 0; i < 10; ++i) {
    if (pos_ >= end_) return past_end(at, "a varint");
    const uint8_t b = file_[pos_++];
    if (i == 9 && (b & 0x80) != 0) return fail(at, "varint longer than 10 bytes");
    if (i == 9 && b > 1) return fail(at, "varint larger than 64 bits");
    v |= static_cast<uint64_t>(b & 0x7f) << (7 * i);
    if ((b & 0x80) == 0) break;
  }
  *value = v;
  return true;
}

bool WireReader::read_key(WireField *f) {
  f->offset = pos_;
  uint64_t key = 0;
  if (!varint(&key)) return false;
  const uint64_t number = key >> 3, type = key & 7;
  if (number == 0 || number > kMaxFieldNumber)
    return fail(f->offset, "field number " + std::to_string(number) + " is out of range");
  if (type > kFixed32)
    return fail(f->offset, "field " + std::to_string(number) + " has wire type " +
                               std::to_string(type) + ", which does not exist");
  f->number = static_cast<uint32_t>(number);
  f->type = static_cast<WireType>(type);
  f->value = 0;
  f->begin = f->end = pos_;
  return true;
}

bool WireReader::read_body(WireField *f) {
  const size_t at = pos_;
  switch (f->type) {
    case kVarint:
      return varint(&f->value);
    case kFixed64:
    case kFixed32: {
      const size_t n = f->type == kFixed64 ? 8 : 4;
      if (end_ - pos_ < n) return past_end(at, "a " + std::to_string(8 * n) + "-bit value");
      std::memcpy(&f->value, file_ + pos_, n);  // little-endian: the low bytes
      pos_ += n;
      return true;
    }
    case kBytes: {
      uint64_t n = 0;
      if (!varint(&n)) return false;
      if (n > end_ - pos_)
        return past_end(f->offset, "field " + std::to_string(f->number) + " of " +
                                       std::to_string(n) + " bytes");
      f->begin = pos_;
      f->end = pos_ += static_cast<size_t>(n);
      return true;
    }
    case kGroupStart:
      return skip_group(f);
    case kGroupEnd:
      break;
  }
  return fail(f->offset, "end of group " + std::to_string(f->number) + " without its start");
}

// Skips to the end of the group `f` opened, across nested groups.
bool WireReader::skip_group(WireField *f) {
  std::vector<uint32_t> open{f->number};
  f->begin = pos_;
  while (!open.empty()) {
    if (pos_ >= end_)
      return past_end(f->offset, "group " + std::to_string(f->number));
    WireField inner;
    if (!read_key(&inner)) return false;
    if (inner.type == kGroupEnd) {
      if (inner.number != open.back())
        return fail(inner.offset, "end of group " + std::to_string(inner.number) +
                                      " inside group " + std::to_string(open.back()));
      open.pop_back();
      f->end = inner.offset;
    } else if (inner.type == kGroupStart) {
      if (open.size() >= kMaxGroupDepth)
        return fail(inner.offset, "groups nested deeper than " + std::to_string(kMaxGroupDepth));
      open.push_back(inner.number);
    } else if (!read_body(&inner)) {
      return false;
    }
  }
  return true;
}

bool WireReader::next(WireField *f) {
  if (!ok() || pos_ >= end_) return false;
  return read_key(f) && read_body(f);
}

namespace {

bool read_dims(WireReader r, std::vector<int64_t> *dims) {
  for (WireField f; r.next(&f);) {
    if (f.number != kShapeDim) continue;
    if (!expect(r, f, kVarint, kBytes, "dim of a blob shape")) return false;
    if (f.type == kVarint) {
      dims->push_back(static_cast<int64_t>(f.value));
      continue;
    }
    WireReader packed = r.child(f);
    uint64_t v = 0;
    while (!packed.at_end() && packed.varint(&v)) dims->push_back(static_cast<int64_t>(v));
  }
  return r.ok();
}

// A run of `bytes` bytes of packed `width`-byte values.
bool packed_run(WireReader &r, const WireField &f, size_t width, const char *what, uint64_t *count) {
  if (f.type != kBytes) {
    *count += 1;
    return true;
  }
  if ((f.end - f.begin) % width != 0)
    return r.fail(f.offset, std::string("packed ") + what + " of " + std::to_string(f.end - f.begin) +
                                " bytes is not a whole number of values");
  *count += (f.end - f.begin) / width;
  return true;
}

bool read_blob(WireReader r, Blob *blob) {
  int64_t legacy[4] = {0, 0, 0, 0};
  bool has_shape = false, has_legacy = false;
  for (WireField f; r.next(&f);) {
    if (f.number == kBlobShape) {
      if (!expect(r, f, kBytes, kBytes, "shape of a blob")) return false;
      has_shape = true;
      if (!read_dims(r.child(f), &blob->shape)) return false;
    } else if (f.number >= kBlobNum && f.number <= kBlobWidth) {
      if (!expect(r, f, kVarint, kVarint, "dimension of a blob")) return false;
      legacy[f.number - kBlobNum] = static_cast<int32_t>(f.value);  // int32: low 32 bits
      has_legacy = true;
    } else if (f.number == kBlobData) {
      if (!expect(r, f, kBytes, kFixed32, "data of a blob") ||
          !packed_run(r, f, 4, "float data", &blob->floats))
        return false;
    } else if (f.number == kBlobDoubleData) {
      if (!expect(r, f, kBytes, kFixed64, "double_data of a blob") ||
          !packed_run(r, f, 8, "double data", &blob->doubles))
        return false;
    }
  }
  if (!has_shape && has_legacy) blob->shape.assign(legacy, legacy + 4);
  return r.ok();
}

bool read_layer(const uint8_t *file, WireReader r, bool v1, Layer *layer) {
  const uint32_t name = v1 ? kV1Name : kLayerName, blobs = v1 ? kV1Blobs : kLayerBlobs;
  for (WireField f; r.next(&f);) {
    if (f.number == name) {
      if (!read_string(r, file, f, "name of a layer", &layer->name)) return false;
    } else if (!v1 && f.number == kLayerType) {
      if (!read_string(r, file, f, "type of a layer", &layer->type)) return false;
    } else if (v1 && f.number == kV1Type) {
      if (!expect(r, f, kVarint, kVarint, "type of a layer")) return false;
      layer->type = "V1 type " + std::to_string(f.value);
    } else if (f.number == blobs) {
      if (!expect(r, f, kBytes, kBytes, "blob of a layer")) return false;
      Blob b;
      b.begin = f.begin;
      b.end = f.end;
      if (!read_blob(r.child(f), &b)) return false;
      layer->blobs.push_back(std::move(b));
    }
  }
  return r.ok();
}

}  // namespace

bool read_model(const uint8_t *file, size_t size, Model *model, std::string *error) {
  *model = Model{};
  error->clear();
  WireReader r(file, size, 0, size, error);
  for (WireField f; r.next(&f);) {
    if (f.number == kNetName) {
      if (!read_string(r, file, f, "name of the net", &model->name)) break;
    } else if (f.number == kNetLayer || f.number == kNetLayerV1) {
      if (!expect(r, f, kBytes, kBytes, "layer of the net")) break;
      Layer layer;
      layer.offset = f.offset;
      if (!read_layer(file, r.child(f), f.number == kNetLayerV1, &layer)) break;
      model->layers.push_back(std::move(layer));
    }
  }
  return r.ok();
}

bool for_each_chunk(const uint8_t *file, size_t size, const Blob &blob,
                    const std::function<void(const float *, size_t)> &chunk, std::string *error) {
  error->clear();
  WireReader r(file, size, blob.begin, blob.end, error);
  float buf[kChunk];
  size_t n = 0;
  auto push = [&](float v) {
    buf[n++] = v;
    if (n == kChunk) chunk(buf, n), n = 0;
  };
  for (WireField f; r.next(&f);) {
    const bool doubles = f.number == kBlobDoubleData;
    if (!doubles && f.number != kBlobData) continue;
    const uint8_t *bits = reinterpret_cast<const uint8_t *>(&f.value);  // one unpacked value
    if (f.type == (doubles ? kFixed64 : kFixed32))
      push(doubles ? to_float(double_at(bits)) : float_at(bits));
    if (f.type != kBytes) continue;
    const size_t width = doubles ? 8 : 4;
    for (size_t p = f.begin; p + width <= f.end; p += width)
      push(doubles ? to_float(double_at(file + p)) : float_at(file + p));
  }
  if (n > 0) chunk(buf, n);
  return r.ok();
}

bool read_values(const uint8_t *file, size_t size, const Blob &blob, float *dst,
                 std::string *error) {
  const uint64_t total = blob.values();
  uint64_t at = 0;
  const bool ok = for_each_chunk(
      file, size, blob,
      [&](const float *v, size_t n) {
        const size_t k = static_cast<size_t>(std::min<uint64_t>(n, total - at));
        std::memcpy(dst + at, v, k * sizeof(float));
        at += k;
      },
      error);
  if (ok && at != total) *error = "the values of a blob changed while it was read";
  return ok && at == total;
}

}  // namespace hseg_caffe
