#include "pipeline/net_arena.h"

#include <cstdint>

#include "common/huge_map.h"

namespace hseg {
namespace {

// Where a planning arena's addresses start: any non-null, aligned value.
constexpr uintptr_t kPlanBase = 4096;

}  // namespace

NetArena::NetArena() : base_(kPlanBase), capacity_(SIZE_MAX / 2) {}

NetArena::NetArena(void *base, size_t bytes)
    : base_(reinterpret_cast<uintptr_t>(base)), capacity_(base == nullptr ? 0 : bytes) {}

size_t NetArena::extent(bool top) const {
  size_t end = 0;
  for (int i = 0; i < count_; ++i)
    if (blocks_[i].top == top && blocks_[i].offset + blocks_[i].bytes > end)
      end = blocks_[i].offset + blocks_[i].bytes;
  return end;
}

void *NetArena::take(size_t bytes, bool top) {
  if (count_ == kMaxBlocks || bytes > capacity_) return nullptr;
  bytes = (bytes + kAlign - 1) / kAlign * kAlign;
  // First fit from this end: the gap before block i of this end, or after
  // the last one.
  size_t start = 0;
  int i = 0;
  for (; i < count_; ++i) {
    if (blocks_[i].top != top) continue;
    if (blocks_[i].offset - start >= bytes) break;
    start = blocks_[i].offset + blocks_[i].bytes;
  }
  const size_t other = extent(!top);
  if (capacity_ - other < bytes || capacity_ - other - bytes < start) return nullptr;
  for (int j = count_; j > i; --j) blocks_[j] = blocks_[j - 1];
  blocks_[i] = Block{start, bytes, top};
  ++count_;
  const size_t held = extent(false) + extent(true);
  if (held > high_water_) high_water_ = held;
  return reinterpret_cast<void *>(address(blocks_[i]));
}

void NetArena::give(void *ptr) {
  const uintptr_t p = reinterpret_cast<uintptr_t>(ptr);
  for (int i = 0; i < count_; ++i) {
    if (address(blocks_[i]) != p) continue;
    for (int j = i; j + 1 < count_; ++j) blocks_[j] = blocks_[j + 1];
    --count_;
    return;
  }
}

void *net_arena_map(size_t bytes) { return map_huge(bytes); }

void net_arena_unmap(void *ptr, size_t bytes) { unmap_huge(ptr, bytes); }

}  // namespace hseg
