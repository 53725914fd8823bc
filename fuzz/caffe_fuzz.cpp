// libFuzzer target for the Caffe model reader: any bytes must give a model
// index or a message, and every indexed blob must read back, never a crash,
// a hang or a leak. The import's checks then run on whatever was indexed.
//
// Seeds: the first layers of the public model and a small classifier, in
// each encoding the writer in tests/caffe_import_test.cpp makes.
#include <cstdint>
#include <string>
#include <vector>

#include "caffe_import.h"
#include "caffe_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  hseg_caffe::Model model;
  std::string error;
  if (!hseg_caffe::read_model(data, size, &model, &error)) return 0;
  std::vector<float> values;
  for (const hseg_caffe::Layer &layer : model.layers)
    for (const hseg_caffe::Blob &blob : layer.blobs) {
      values.resize(blob.values());
      if (!hseg_caffe::read_values(data, size, blob, values.data(), &error)) __builtin_trap();
    }
  hseg_caffe::ImportPlan plan;
  hseg_caffe::plan_import(data, size, model, hseg_caffe::ImportOptions{}, &plan, &error);
  return 0;
}
