// A counting allocator that replaces MMemAlloc/MMemFree in every test binary
// (the test executables link the static library, and these definitions come
// first, so the library's own allocation services are not linked in).
//
// It counts calls and live blocks and can fail the Nth call, so a test can
// walk every failure path of a function and check that nothing leaks.
#ifndef HSEG_TESTS_SUPPORT_ALLOC_HOOKS_H_
#define HSEG_TESTS_SUPPORT_ALLOC_HOOKS_H_

#include <cstdint>

namespace hseg_test {

// Starts a fresh count: no failure armed, call count 0. Live blocks are kept.
void alloc_reset();
// Makes the Nth MMemAlloc call from now (1-based) return null; 0 disarms.
void alloc_fail_at(int64_t n);
// MMemAlloc calls since the last reset.
int64_t alloc_calls();
// Blocks handed out by MMemAlloc and not yet returned to MMemFree.
int64_t alloc_live();

// Runs `call` once to count its allocations, then once more for each of
// them with that allocation failing. `call` gets the index of the failing
// allocation (0 for the counting run) and checks the outcome itself.
template <typename F>
int64_t for_each_alloc_failure(F call) {
  alloc_reset();
  call(0);
  const int64_t n = alloc_calls();
  for (int64_t i = 1; i <= n; ++i) {
    alloc_reset();
    alloc_fail_at(i);
    call(i);
  }
  alloc_reset();
  return n;
}

}  // namespace hseg_test

#endif  // HSEG_TESTS_SUPPORT_ALLOC_HOOKS_H_
