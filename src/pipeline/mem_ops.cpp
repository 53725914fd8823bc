// Byte services: fill and copy. They take no memory context, unlike the
// allocation services.
#include <cstring>

#include "hseg/pipeline.h"

extern "C" {

void *MMemSet(void *ptr, int32_t value, int32_t count) {
  if (ptr != nullptr && count > 0) std::memset(ptr, value & 0xFF, static_cast<size_t>(count));
  return ptr;
}

void *MMemCpy(void *dst, const void *src, int32_t count) {
  if (dst != nullptr && src != nullptr && count > 0)
    std::memcpy(dst, src, static_cast<size_t>(count));
  return dst;
}

}  // extern "C"
