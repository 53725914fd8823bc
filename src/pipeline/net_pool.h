// The network's thread pool: its matrix products (a band's on each lane, or
// one product in parts, net_gemm.h) and the work between them (column
// copies, batch-norm finishes, pooling, Winograd transforms), on the same
// threads.
//
// One pool serves the process. It starts its threads at first use, grows to
// the largest number of lanes asked for, and stops them when the library is
// unloaded. A job splits into tasks that write disjoint outputs, so the result
// is the same bits whatever the number of lanes. Several passes may run at
// once: a job that finds the pool busy with another caller's job runs on the
// caller's thread alone.
#ifndef HSEG_SRC_PIPELINE_NET_POOL_H_
#define HSEG_SRC_PIPELINE_NET_POOL_H_

#include <type_traits>

namespace hseg {

// Calls body(ctx, task, lane) once for every task in [0, tasks), on up to
// `lanes` threads, the caller's among them, and returns when all have
// finished. Tasks are handed out in order to whichever lane is free; `lane`
// (0 for the caller, below `lanes`) is the calling thread's own for this
// call, so that a task may use that lane's share of a work buffer. If the
// pool's threads cannot be started, fewer lanes (at least the caller's) do
// the work.
void net_parallel(int lanes, int tasks, void (*body)(void *ctx, int task, int lane), void *ctx);

// body(task) or body(task, lane).
template <typename F>
void net_parallel(int lanes, int tasks, const F &body) {
  net_parallel(
      lanes, tasks,
      [](void *ctx, int task, int lane) {
        const F &f = *static_cast<const F *>(ctx);
        if constexpr (std::is_invocable_v<const F &, int, int>)
          f(task, lane);
        else
          f(task);
      },
      const_cast<void *>(static_cast<const void *>(&body)));
}

// [*begin, *end) of `count` items for part `part` of `parts` nearly equal parts.
inline void net_split(int count, int parts, int part, int *begin, int *end) {
  *begin = static_cast<int>(static_cast<long long>(count) * part / parts);
  *end = static_cast<int>(static_cast<long long>(count) * (part + 1) / parts);
}

}  // namespace hseg

#endif  // HSEG_SRC_PIPELINE_NET_POOL_H_
