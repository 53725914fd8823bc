#include "support/alloc_hooks.h"

#include <atomic>
#include <cstdlib>

#include "hseg/pipeline.h"

namespace {
std::atomic<int64_t> g_calls{0};
std::atomic<int64_t> g_fail_at{0};
std::atomic<int64_t> g_live{0};
}  // namespace

namespace hseg_test {
void alloc_reset() {
  g_calls = 0;
  g_fail_at = 0;
}
void alloc_fail_at(int64_t n) { g_fail_at = n; }
int64_t alloc_calls() { return g_calls; }
int64_t alloc_live() { return g_live; }
}  // namespace hseg_test

extern "C" {

void *MMemAlloc(MHandle, int32_t size) {
  const int64_t n = ++g_calls;
  if (n == g_fail_at.load() || size < 0) return nullptr;
  void *p = std::malloc(static_cast<size_t>(size) + (size == 0));
  if (p != nullptr) ++g_live;
  return p;
}

void MMemFree(MHandle, void *ptr) {
  if (ptr == nullptr) return;
  --g_live;
  std::free(ptr);
}

}  // extern "C"
