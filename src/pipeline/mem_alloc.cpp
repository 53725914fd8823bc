// Allocation services. Every allocation of the pipeline, the CRF and the
// resizers goes through these two functions with the caller's memory
// context, so that a host can route them to its own allocator. The context is
// passed through and never dereferenced.
#include <cstdlib>

#include "hseg/pipeline.h"

extern "C" {

void *MMemAlloc(MHandle /*handle*/, int32_t size) {
  // Widened with its sign: a negative size becomes a request no allocator
  // can satisfy, so it fails instead of wrapping to a small block.
  if (size < 0) return nullptr;
  return std::malloc(static_cast<size_t>(size));
}

void MMemFree(MHandle /*handle*/, void *ptr) { std::free(ptr); }

}  // extern "C"
