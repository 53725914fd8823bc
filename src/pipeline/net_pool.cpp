#include "pipeline/net_pool.h"

#include <cblas.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace hseg {
namespace {

// A job's tasks are short (a band's column copy, a few milliseconds at
// most), and the next job follows within microseconds, so an idle lane
// polls for a while before it sleeps: about 50 us on a 2.6 GHz core.
constexpr int kSpins = 2000;
constexpr int kMaxWorkers = 63;

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
  _mm_pause();
#else
  std::this_thread::yield();
#endif
}

class Pool {
 public:
  Pool() = default;
  Pool(const Pool &) = delete;
  Pool &operator=(const Pool &) = delete;
  ~Pool() { stop_workers(); }

  void run(int lanes, int tasks, void (*body)(void *, int), void *ctx);

 private:
  void worker(int index, unsigned seen);
  void work();
  int start_workers(int wanted);
  void stop_workers();

  std::mutex job_mutex_;  // held by the caller whose job the pool runs
  std::mutex mutex_;      // guards the sleeping side of the hand-over
  std::condition_variable wake_, done_;
  std::thread workers_[kMaxWorkers];
  int worker_count_ = 0;
  pid_t owner_ = 0;  // the process that started the workers

  // The current job. Written by its caller before the generation moves on,
  // read by the workers after they see it move.
  void (*body_)(void *, int) = nullptr;
  void *ctx_ = nullptr;
  int tasks_ = 0;
  std::atomic<int> helpers_{0};  // also read by workers that sit a job out
  std::atomic<int> next_{0};
  std::atomic<int> pending_{0};
  std::atomic<unsigned> generation_{0};
  std::atomic<bool> stop_{false};
};

// Takes tasks until none is left.
void Pool::work() {
  for (int t = next_.fetch_add(1, std::memory_order_relaxed); t < tasks_;
       t = next_.fetch_add(1, std::memory_order_relaxed))
    body_(ctx_, t);
}

// `seen` is the generation when the worker was started: a job posted before
// the thread runs is still the worker's to join.
void Pool::worker(int index, unsigned seen) {
  for (;;) {
    for (int i = 0; i < kSpins && generation_.load(std::memory_order_acquire) == seen &&
                    !stop_.load(std::memory_order_relaxed);
         ++i)
      cpu_relax();
    if (generation_.load(std::memory_order_acquire) == seen) {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [&] {
        return generation_.load(std::memory_order_acquire) != seen ||
               stop_.load(std::memory_order_relaxed);
      });
    }
    if (stop_.load(std::memory_order_relaxed)) return;
    seen = generation_.load(std::memory_order_acquire);
    if (index >= helpers_.load(std::memory_order_relaxed)) continue;
    work();
    if (pending_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      std::lock_guard<std::mutex> lock(mutex_);
      done_.notify_one();
    }
  }
}

// Starts workers until `wanted` run (or one fails to start); returns how
// many run. Called with job_mutex_ held.
int Pool::start_workers(int wanted) {
  if (owner_ != getpid()) {
    // A forked child inherits the pool but none of its threads.
    for (int i = 0; i < worker_count_; ++i) workers_[i].detach();
    worker_count_ = 0;
    owner_ = getpid();
  }
  if (wanted > kMaxWorkers) wanted = kMaxWorkers;
  while (worker_count_ < wanted) {
    try {
      workers_[worker_count_] = std::thread(&Pool::worker, this, worker_count_,
                                            generation_.load(std::memory_order_relaxed));
    } catch (...) {  // no memory or no thread left: work with what runs
      break;
    }
    ++worker_count_;
  }
  return worker_count_;
}

void Pool::stop_workers() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_.store(true, std::memory_order_relaxed);
  }
  wake_.notify_all();
  for (int i = 0; i < worker_count_; ++i)
    if (workers_[i].joinable()) workers_[i].join();
  worker_count_ = 0;
}

void Pool::run(int lanes, int tasks, void (*body)(void *, int), void *ctx) {
  std::unique_lock<std::mutex> job(job_mutex_, std::try_to_lock);
  int helpers = 0;
  if (job.owns_lock()) {
    helpers = start_workers(lanes - 1);
    if (helpers > lanes - 1) helpers = lanes - 1;
    if (helpers > tasks - 1) helpers = tasks - 1;
  }
  if (helpers <= 0) {  // busy with another caller's job, or no worker
    for (int t = 0; t < tasks; ++t) body(ctx, t);
    return;
  }
  body_ = body;
  ctx_ = ctx;
  tasks_ = tasks;
  helpers_.store(helpers, std::memory_order_relaxed);
  next_.store(0, std::memory_order_relaxed);
  pending_.store(helpers, std::memory_order_relaxed);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    generation_.fetch_add(1, std::memory_order_release);
  }
  wake_.notify_all();
  work();
  for (int i = 0; i < kSpins && pending_.load(std::memory_order_acquire) != 0; ++i) cpu_relax();
  if (pending_.load(std::memory_order_acquire) != 0) {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [&] { return pending_.load(std::memory_order_acquire) == 0; });
  }
}

}  // namespace

int net_default_lanes() {
  const int n = openblas_get_num_threads();
  return n < 1 ? 1 : n;
}

void net_parallel(int lanes, int tasks, void (*body)(void *ctx, int task), void *ctx) {
  if (tasks <= 0) return;
  if (lanes <= 1 || tasks == 1) {
    for (int t = 0; t < tasks; ++t) body(ctx, t);
    return;
  }
  static Pool pool;  // made at first use, stopped when the library unloads
  pool.run(lanes, tasks, body, ctx);
}

}  // namespace hseg
