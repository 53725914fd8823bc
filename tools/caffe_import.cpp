#include "caffe_import.h"

#include <cstring>
#include <unordered_map>

#include "hseg_weights_io.h"
#include "pipeline/net_layers.h"

namespace hseg_caffe {

namespace {

using hseg::kNetLayerCount;
using hseg::kNetLayers;
using hseg::NetLayer;

const char *const kBnParts[] = {"scale", "shift", "mean", "variance"};

// What a blob must hold.
struct BlobWant {
  const char *part;            // "kernel", "bias", "variance", ...
  std::vector<int64_t> shape;  // exact for kernels; {C} means C values in any 1-padded shape
  bool positive = false;       // every value > 0 (variances)
};

class Planner {
 public:
  Planner(const uint8_t *file, size_t size, const Model &model, ImportPlan *plan, std::string *error)
      : file_(file), size_(size), model_(model), plan_(plan), error_(error) {
    for (size_t i = 0; i < model.layers.size(); ++i)
      by_name_[model.layers[i].name].push_back(static_cast<int>(i));
  }

  bool classifier();
  bool network_layer(int index);
  void list_skipped();

 private:
  int find(const std::string &name, const std::string &role);
  bool blob_count(int layer, size_t count, const char *what);
  bool check_blob(int layer, int blob, const BlobWant &want);
  bool fail(const std::string &message) {
    *error_ = message;
    return false;
  }

  const uint8_t *file_;
  size_t size_;
  const Model &model_;
  ImportPlan *plan_;
  std::string *error_;
  std::unordered_map<std::string, std::vector<int>> by_name_;
};

// The layer named `name`; -1 (with the message) when it is missing or not unique.
int Planner::find(const std::string &name, const std::string &role) {
  const auto it = by_name_.find(name);
  if (it == by_name_.end()) {
    fail("missing layer " + name + role);
    return -1;
  }
  const std::vector<int> &at = it->second;
  if (at.size() > 1) {
    fail("layer " + name + " appears " + std::to_string(at.size()) + " times (at offsets " +
         std::to_string(model_.layers[at[0]].offset) + " and " +
         std::to_string(model_.layers[at[1]].offset) + ")");
    return -1;
  }
  return at[0];
}

bool Planner::blob_count(int layer, size_t count, const char *what) {
  const Layer &l = model_.layers[layer];
  if (l.blobs.size() == count) return true;
  return fail("layer " + l.name + " has " + std::to_string(l.blobs.size()) + " blobs, expected " +
              std::to_string(count) + " (" + what + ")");
}

// A shape of `n` values: one dimension n, the others 1 (or no dimension for n = 1).
bool is_vector_of(const std::vector<int64_t> &shape, int64_t n) {
  int64_t other = 1;
  int big = 0;
  for (int64_t d : shape) {
    if (d == 1) continue;
    other = d;
    ++big;
  }
  return big == 0 ? n == 1 : big == 1 && other == n;
}

bool Planner::check_blob(int layer, int blob, const BlobWant &want) {
  const Layer &l = model_.layers[layer];
  const Blob &b = l.blobs[blob];
  const std::string where =
      "layer " + l.name + ": blob " + std::to_string(blob) + " (" + want.part + ")";
  const bool vector = want.shape.size() == 1;
  if (vector ? !is_vector_of(b.shape, want.shape[0]) : b.shape != want.shape)
    return fail(where + " has shape " + hseg_weights::shape_text(b.shape) + ", expected " +
                hseg_weights::shape_text(want.shape));
  uint64_t count = 0;
  if (!hseg_weights::shape_count(want.shape, &count))  // only a classifier's class count can be
    return fail(where + " has shape " + hseg_weights::shape_text(b.shape) + ", which is too large");
  if (b.floats > 0 && b.doubles > 0)
    return fail(where + " holds both float and double values");
  if (b.values() != count)
    return fail(where + " holds " + std::to_string(b.values()) + " values, its shape needs " +
                std::to_string(count));
  hseg_weights::ValueStats stats;
  if (!for_each_chunk(file_, size_, b, [&](const float *v, size_t n) { stats.add(v, n); }, error_))
    return false;
  if (!stats.finite())
    return fail(where + ": value " + std::to_string(stats.first_bad) + " is " +
                hseg_weights::non_finite_name(stats.bad) +
                (b.doubles > 0 ? " as a float" : "") + "; every value must be finite");
  if (want.positive && stats.min <= 0.0f)
    return fail(where + " has a value of " + hseg_weights::number_text(stats.min) +
                "; every variance must be > 0");
  return true;
}

bool Planner::classifier() {
  const int fc8 = kNetLayerCount - 1;
  const NetLayer &net = kNetLayers[fc8];
  const ImportOptions &o = plan_->options;
  const int at = find(kClassifierLayer, " (the classifier)");
  if (at < 0 || !blob_count(at, 2, "kernel and bias")) return false;
  const std::vector<int64_t> &k = model_.layers[at].blobs[0].shape;
  const bool kernel_ok = k.size() == 4 && k[0] > 0 && k[1] == net.cin && k[2] == 1 && k[3] == 1;
  if (!kernel_ok)
    return fail(std::string("layer ") + kClassifierLayer + ": blob 0 (kernel) has shape " +
                hseg_weights::shape_text(k) + ", expected [classes, " + std::to_string(net.cin) +
                ", 1, 1]");
  const int64_t classes = k[0];
  for (int64_t c : {o.background, o.person})
    if (c < 0 || c >= classes)
      return fail("class " + std::to_string(c) + " is out of range: " + kClassifierLayer + " has " +
                  std::to_string(classes) + " classes (0 to " + std::to_string(classes - 1) + ")");
  if (o.background == o.person)
    return fail("the background and person classes must differ (both are " +
                std::to_string(o.person) + ")");
  if (!check_blob(at, 0, {"kernel", k}) || !check_blob(at, 1, {"bias", {classes}})) return false;
  plan_->classes = classes;
  const int first = hseg::net_first_tensor(fc8);
  plan_->tensors[first] = {at, 0, true};
  plan_->tensors[first + 1] = {at, 1, true};
  return true;
}

bool Planner::network_layer(int index) {
  const NetLayer &net = kNetLayers[index];
  const int first = hseg::net_first_tensor(index);
  const int conv = find(net.name, " (a convolution)");
  if (conv < 0 || !blob_count(conv, 1, "a kernel, no bias") ||
      !check_blob(conv, 0, {"kernel", {net.cout, net.cin, net.kernel, net.kernel}}))
    return false;
  plan_->tensors[first] = {conv, 0, false};
  const std::string bn_name = std::string(net.name) + "/bn";
  const int bn = find(bn_name, std::string(" (the batch norm of ") + net.name + ")");
  if (bn < 0 || !blob_count(bn, 4, "scale, shift, mean, variance")) return false;
  for (int p = 0; p < 4; ++p) {
    if (!check_blob(bn, p, {kBnParts[p], {net.cout}, p == 3})) return false;
    plan_->tensors[first + 1 + p] = {bn, p, false};
  }
  return true;
}

void Planner::list_skipped() {
  std::vector<bool> used(model_.layers.size(), false);
  for (const TensorSource &t : plan_->tensors) used[t.layer] = true;
  for (size_t i = 0; i < used.size(); ++i)
    if (!used[i]) plan_->skipped.push_back(static_cast<int>(i));
}

}  // namespace

bool plan_import(const uint8_t *file, size_t size, const Model &model, const ImportOptions &options,
                 ImportPlan *plan, std::string *error) {
  *plan = ImportPlan{};
  plan->options = options;
  plan->tensors.resize(hseg::kNetTensorCount);
  Planner p(file, size, model, plan, error);
  if (!p.classifier()) return false;
  for (int i = 0; i < kNetLayerCount; ++i)
    if (!hseg::net_has_bias(kNetLayers[i]) && !p.network_layer(i)) return false;
  p.list_skipped();
  return true;
}

bool fill_tensor(const uint8_t *file, size_t size, const Model &model, const ImportPlan &plan,
                 int index, float *dst, std::string *error) {
  const TensorSource &t = plan.tensors[index];
  const Blob &b = model.layers[t.layer].blobs[t.blob];
  if (!t.classes) return read_values(file, size, b, dst, error);
  // Rows of the classifier: the whole blob is small (classes x 512 values).
  std::vector<float> all(b.values());
  if (!read_values(file, size, b, all.data(), error)) return false;
  const size_t row = all.size() / static_cast<size_t>(plan.classes);
  std::memcpy(dst, &all[static_cast<size_t>(plan.options.background) * row], row * sizeof(float));
  std::memcpy(dst + row, &all[static_cast<size_t>(plan.options.person) * row], row * sizeof(float));
  return true;
}

}  // namespace hseg_caffe
