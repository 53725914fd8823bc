// The pass's memory: one block per call, taken before the first matrix
// product and carved into tensors and work buffers.
//
// Blocks are placed first fit from either end: the tensors that carry the
// network from layer to layer from the bottom, the short-lived work buffers
// (column copies, a block's inner tensors) from the top, so that the latter
// come and go without leaving gaps between the former. The arena's size comes
// from a dry run of the same pass, in which an arena without memory hands out
// addresses from a notional base and records the most that both ends ever
// held together; the real run then makes exactly the same requests and cannot
// run out. The block is mapped fresh for each call, aligned to 2 MB and
// advised for transparent huge pages, so a pass takes about one page fault
// per 2 MB where the kernel grants them (madvise or always mode) and one per
// 4 KB where it does not.
#ifndef HSEG_SRC_PIPELINE_NET_ARENA_H_
#define HSEG_SRC_PIPELINE_NET_ARENA_H_

#include <cstddef>
#include <cstdint>

namespace hseg {

class NetArena {
 public:
  static constexpr int kMaxBlocks = 32;  // a pass holds a handful at once
  static constexpr size_t kAlign = 64;

  // An arena that only plans: it hands out addresses from a notional base
  // and never fails. Nothing may be read or written through them.
  NetArena();
  // An arena over [base, base + bytes).
  NetArena(void *base, size_t bytes);

  // The free place nearest to the bottom (or the top) for `bytes`, rounded
  // up to kAlign; null when none is left or kMaxBlocks are taken.
  void *take(size_t bytes, bool top = false);
  // Frees a block from take(); null and unknown pointers are ignored.
  void give(void *ptr);
  // The most that both ends have held together: the size a real arena needs
  // to serve the same requests.
  size_t high_water() const { return high_water_; }

 private:
  struct Block {
    size_t offset, bytes;  // from the block's own end
    bool top;
  };
  size_t extent(bool top) const;
  uintptr_t address(const Block &b) const {
    return b.top ? base_ + capacity_ - b.offset - b.bytes : base_ + b.offset;
  }

  uintptr_t base_;
  size_t capacity_;
  Block blocks_[kMaxBlocks];  // taken blocks of each end, in order of offset
  int count_ = 0;
  size_t high_water_ = 0;
};

// Maps `bytes` of zeroed memory for an arena, advised for huge pages where
// the kernel offers them; null on failure. net_arena_unmap releases it.
void *net_arena_map(size_t bytes);
void net_arena_unmap(void *ptr, size_t bytes);

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_ARENA_H_
