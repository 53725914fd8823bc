// libFuzzer target for the BMP reader: any bytes must give an image or a
// status, never a crash, a hang or a leak.
#include <cstdint>

#include "hseg/imgproc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Image *img = nullptr;
  LoadBMPFromMemory(nullptr, data, size, &img);
  release_img(nullptr, &img);
  return 0;
}
