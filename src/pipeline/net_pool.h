// The network's thread pool for the work between its matrix products
// (column copies, batch-norm finishes, pooling, Winograd transforms): OpenBLAS
// keeps both cores busy inside a GEMM, this pool does the same outside one.
//
// One pool serves the process. It starts its threads at first use, grows to
// the largest number of lanes asked for, and stops them when the library is
// unloaded. A job splits into tasks that write disjoint outputs, so the result
// is the same bits whatever the number of lanes. Several passes may run at
// once: a job that finds the pool busy with another caller's job runs on the
// caller's thread alone.
#ifndef HSEG_SRC_PIPELINE_NET_POOL_H_
#define HSEG_SRC_PIPELINE_NET_POOL_H_

namespace hseg {

// The lanes the pass uses by default: one for each of OpenBLAS's n threads
// and one more for each of its n - 1 workers (1 when OpenBLAS runs on one
// thread). After a product, OpenBLAS's workers poll for work for about a
// tenth of a second, yielding only to threads on their own core; with just
// n lanes the scheduler sees the cores evenly loaded while two lanes share
// one core and a polling worker holds the other. One more lane per worker
// puts a lane beside each of them, to which it yields (on two cores the
// pass's work between products then took 15 to 37% less time).
int net_default_lanes();

// Calls body(ctx, task) once for every task in [0, tasks), on up to `lanes`
// threads, the caller's among them, and returns when all have finished.
// Tasks are handed out in order to whichever lane is free. If the pool's
// threads cannot be started, fewer lanes (at least the caller's) do the work.
void net_parallel(int lanes, int tasks, void (*body)(void *ctx, int task), void *ctx);

template <typename F>
void net_parallel(int lanes, int tasks, const F &body) {
  net_parallel(
      lanes, tasks, [](void *ctx, int task) { (*static_cast<const F *>(ctx))(task); },
      const_cast<void *>(static_cast<const void *>(&body)));
}

// [*begin, *end) of `count` items for part `part` of `parts` nearly equal parts.
inline void net_split(int count, int parts, int part, int *begin, int *end) {
  *begin = static_cast<int>(static_cast<long long>(count) * part / parts);
  *end = static_cast<int>(static_cast<long long>(count) * (part + 1) / parts);
}

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_POOL_H_
