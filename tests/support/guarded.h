// Buffers that sit against an inaccessible page, so that a read or write one
// byte outside them faults at once (in any build, sanitizers or not).
//
//   GuardedBuffer b(n);                     // data()[n] is the guard page
//   GuardedBuffer b(n, GuardedBuffer::kGuardBefore);  // data()[-1] is
//
// The buffer is filled with `fill` on creation. A size of 0 gives a pointer
// right at the guard.
//
// GuardedImage puts every plane of an image in a buffer of its own with the
// rows packed (pitch = the plane's row bytes), so that any access outside a
// plane faults: a copy of a caller's picture, or a blank destination.
#ifndef HSEG_TESTS_SUPPORT_GUARDED_H_
#define HSEG_TESTS_SUPPORT_GUARDED_H_

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/pixfmt.h"
#include "hseg/pipeline.h"

namespace hseg_test {

class GuardedBuffer {
 public:
  enum Mode { kGuardAfter, kGuardBefore };

  explicit GuardedBuffer(size_t bytes, Mode mode = kGuardAfter, uint8_t fill = 0xA5)
      : size_(bytes) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t body = (bytes + page - 1) / page * page;
    map_bytes_ = body + page;
    void *m = mmap(nullptr, map_bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) std::abort();
    map_ = static_cast<uint8_t *>(m);
    if (mode == kGuardAfter) {
      mprotect(map_ + body, page, PROT_NONE);
      data_ = map_ + body - bytes;
    } else {
      mprotect(map_, page, PROT_NONE);
      data_ = map_ + page;
    }
    std::memset(data_, fill, bytes);
  }
  ~GuardedBuffer() { munmap(map_, map_bytes_); }
  GuardedBuffer(const GuardedBuffer &) = delete;
  GuardedBuffer &operator=(const GuardedBuffer &) = delete;

  uint8_t *data() { return data_; }
  const uint8_t *data() const { return data_; }
  size_t size() const { return size_; }

 private:
  uint8_t *map_ = nullptr;
  size_t map_bytes_ = 0;
  uint8_t *data_ = nullptr;
  size_t size_ = 0;
};

class GuardedImage {
 public:
  // A blank `format` image of width x height filled with `fill`.
  GuardedImage(uint32_t format, int32_t width, int32_t height, GuardedBuffer::Mode mode,
               uint8_t fill = 0xA5) {
    d_ = OffscreenImage{format, width, height, {}, {}};
    for (int p = 0; p < hseg::pixfmt::plane_count(format); ++p) {
      const int64_t row = hseg::pixfmt::row_bytes(format, p, width);
      const int64_t rows = hseg::pixfmt::plane_rows(format, p, height);
      planes_[p] = std::make_unique<GuardedBuffer>(static_cast<size_t>(row * rows), mode, fill);
      d_.planes[p] = planes_[p]->data();
      d_.pitches[p] = static_cast<int32_t>(row);
    }
  }
  // A copy of the top-left width x height pixels of `src` (same format).
  GuardedImage(const OffscreenImage &src, int32_t width, int32_t height, GuardedBuffer::Mode mode)
      : GuardedImage(src.format, width, height, mode) {
    for (int p = 0; p < hseg::pixfmt::plane_count(src.format); ++p) {
      for (int64_t r = 0; r < hseg::pixfmt::plane_rows(src.format, p, height); ++r) {
        std::memcpy(d_.planes[p] + r * d_.pitches[p], src.planes[p] + r * src.pitches[p],
                    static_cast<size_t>(d_.pitches[p]));
      }
    }
  }
  OffscreenImage &desc() { return d_; }
  const GuardedBuffer &plane(int p) const { return *planes_[p]; }

 private:
  OffscreenImage d_{};
  std::unique_ptr<GuardedBuffer> planes_[3];
};

}  // namespace hseg_test

#endif  // HSEG_TESTS_SUPPORT_GUARDED_H_
