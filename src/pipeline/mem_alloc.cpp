// Allocation services. Every allocation of the pipeline, the CRF and the
// resizers goes through these two functions with the caller's memory
// context, so that a host can route them to its own allocator. The context is
// passed through and never dereferenced.
#include <cstdlib>

#include "hseg/pipeline.h"

extern "C" {

void *MMemAlloc(MHandle /*handle*/, int32_t size) {
  // A negative size fails here rather than reaching malloc as a huge size_t.
  if (size < 0) return nullptr;
  return std::malloc(static_cast<size_t>(size));
}

void MMemFree(MHandle /*handle*/, void *ptr) { std::free(ptr); }

}  // extern "C"
