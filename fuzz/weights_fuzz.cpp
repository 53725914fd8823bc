// libFuzzer target for the weights file reader: any bytes must give a
// layout or a list of problems, never a crash, a hang or a leak.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "hseg_weights_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;  // fmemopen refuses an empty buffer
  FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "rb");
  if (f == nullptr) return 0;
  hseg_weights::FileLayout layout;
  std::vector<std::string> errors;
  hseg_weights::read_layout_stream(f, &layout, &errors);
  std::fclose(f);
  return 0;
}
