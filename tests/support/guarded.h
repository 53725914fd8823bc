// Buffers that sit against an inaccessible page, so that a read or write one
// byte outside them faults at once (in any build, sanitizers or not).
//
//   GuardedBuffer b(n);                     // data()[n] is the guard page
//   GuardedBuffer b(n, GuardedBuffer::kGuardBefore);  // data()[-1] is
//
// The buffer is filled with `fill` on creation. A size of 0 gives a pointer
// right at the guard.
#ifndef HSEG_TESTS_SUPPORT_GUARDED_H_
#define HSEG_TESTS_SUPPORT_GUARDED_H_

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

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

}  // namespace hseg_test

#endif  // HSEG_TESTS_SUPPORT_GUARDED_H_
