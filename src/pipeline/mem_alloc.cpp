// Allocation services. Every allocation of the pipeline, the CRF and the
// resizers goes through these two functions with the caller's memory
// context, so that a host can route them to its own allocator. The context is
// passed through and never dereferenced.
//
// A segmentation call takes some 50 MB in a few dozen blocks of 1 to 14 MB
// (the CRF's lattice and marginals, the working images) and gives them back
// at its end. From malloc, whose heap top is trimmed and whose large blocks
// are mapped afresh, every 4 kB of them is a page fault on every call (about
// 8,000). Blocks of 1 MB and more are therefore mapped here, laid out for
// transparent huge pages: one fault per 2 MB. Each block starts with a
// header that tells MMemFree how it was made.
#include <cstdlib>

#include "common/huge_map.h"
#include "hseg/pipeline.h"

namespace {

// Sanitizer builds keep every block on malloc, so that the leak checker
// sees all of them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kMapFrom = SIZE_MAX;
#else
constexpr size_t kMapFrom = size_t{1} << 20;
#endif

// Before the caller's bytes: the mapped length, 0 for a malloc block. Its
// size keeps the caller's pointer aligned as malloc's would be.
struct alignas(alignof(std::max_align_t)) Header {
  size_t mapped;
};

}  // namespace

extern "C" {

void *MMemAlloc(MHandle /*handle*/, int32_t size) {
  // A negative size fails here rather than reaching malloc as a huge size_t.
  if (size < 0) return nullptr;
  const size_t bytes = sizeof(Header) + static_cast<size_t>(size);
  const bool mapped = bytes >= kMapFrom;
  void *block = mapped ? hseg::map_huge(bytes) : std::malloc(bytes);
  if (block == nullptr) return nullptr;
  Header *h = static_cast<Header *>(block);
  h->mapped = mapped ? bytes : 0;
  return h + 1;
}

void MMemFree(MHandle /*handle*/, void *ptr) {
  if (ptr == nullptr) return;
  Header *h = static_cast<Header *>(ptr) - 1;
  if (h->mapped != 0)
    hseg::unmap_huge(h, h->mapped);
  else
    std::free(h);
}

}  // extern "C"
