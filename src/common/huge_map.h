// Anonymous mappings laid out for transparent huge pages: aligned to 2 MB,
// whole 2 MB pages, advised with MADV_HUGEPAGE. Where the kernel grants huge
// pages (THP "always", or "madvise" as Debian ships it), touching such a
// block costs one page fault per 2 MB instead of one per 4 kB.
#ifndef HSEG_SRC_COMMON_HUGE_MAP_H_
#define HSEG_SRC_COMMON_HUGE_MAP_H_

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace hseg {

inline constexpr size_t kHugePage = size_t{2} << 20;

inline size_t round_to_huge(size_t bytes) { return (bytes + kHugePage - 1) / kHugePage * kHugePage; }

// Maps round_to_huge(bytes) zeroed bytes at a 2 MB boundary; null on failure
// or for 0 bytes. Release with unmap_huge(ptr, bytes).
inline void *map_huge(size_t bytes) {
  if (bytes == 0 || bytes > SIZE_MAX / 2) return nullptr;
  bytes = round_to_huge(bytes);
  // Map a huge page more than needed and trim both ends to an aligned range.
  const size_t span = bytes + kHugePage;
  void *m = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (m == MAP_FAILED) return nullptr;
  const uintptr_t start = reinterpret_cast<uintptr_t>(m);
  const uintptr_t aligned = (start + kHugePage - 1) / kHugePage * kHugePage;
  const size_t head = aligned - start, tail = span - head - bytes;
  if (head > 0) munmap(m, head);
  if (tail > 0) munmap(reinterpret_cast<void *>(aligned + bytes), tail);
#ifdef MADV_HUGEPAGE
  madvise(reinterpret_cast<void *>(aligned), bytes, MADV_HUGEPAGE);  // a hint; may fail
#endif
  return reinterpret_cast<void *>(aligned);
}

inline void unmap_huge(void *ptr, size_t bytes) {
  if (ptr != nullptr) munmap(ptr, round_to_huge(bytes));
}

}  // namespace hseg

#endif  // HSEG_SRC_COMMON_HUGE_MAP_H_
