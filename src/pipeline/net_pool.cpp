#include "pipeline/net_pool.h"

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

// Jobs come in quick succession (a band's column copy, its product, its
// finish, the next band's copy), so an idle worker polls for a while before
// it sleeps.
constexpr int kSpins = 2000;
constexpr int kMaxWorkers = 63;

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
  _mm_pause();
#else
  std::this_thread::yield();
#endif
}

// Polls until pred() holds, now and then yielding the core to a thread that
// may be waiting for it (a worker woken onto the caller's core, say).
template <typename Pred>
void wait_until(Pred pred) {
  for (int i = 1; !pred(); ++i) {
    if (i % 64 == 0)
      std::this_thread::yield();
    else
      cpu_relax();
  }
}

// One call's tasks, on the caller's stack.
struct Job {
  void (*body)(void *, int, int);
  void *ctx;
  int tasks;
  std::atomic<int> seats;    // workers that may still join
  std::atomic<int> next{0};  // the next task to hand out
  std::atomic<int> done{0};  // tasks finished
};

// Runs the job's tasks as `lane` until none is left to hand out.
void take_tasks(Job *job, int lane) {
  for (int t = job->next.fetch_add(1, std::memory_order_relaxed); t < job->tasks;
       t = job->next.fetch_add(1, std::memory_order_relaxed)) {
    job->body(job->ctx, t, lane);
    job->done.fetch_add(1, std::memory_order_release);
  }
}

// The caller works on its own job at once and waits only for tasks that a
// worker has taken: a worker that wakes late (the other core busy with
// another process, say) finds nothing left and costs the caller nothing.
class Pool {
 public:
  Pool() = default;
  Pool(const Pool &) = delete;
  Pool &operator=(const Pool &) = delete;
  ~Pool() { stop_workers(); }

  void run(int lanes, int tasks, void (*body)(void *, int, int), void *ctx);

 private:
  void worker(unsigned seen);
  int start_workers(int wanted);
  void stop_workers();

  std::mutex job_mutex_;  // held by the caller whose job the pool runs
  std::mutex mutex_;      // guards the sleeping side of the hand-over
  std::condition_variable wake_;
  std::thread workers_[kMaxWorkers];
  int worker_count_ = 0;
  pid_t owner_ = 0;  // the process that started the workers

  std::atomic<Job *> job_{nullptr};   // the job on offer, or null
  std::atomic<int> inside_{0};        // workers that may be looking at job_
  std::atomic<unsigned> generation_{0};  // moves on with every job offered
  std::atomic<bool> stop_{false};
};

// `seen` is the generation when the worker was started: a job offered before
// the thread runs is still one to join.
void Pool::worker(unsigned seen) {
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
    // Announce before looking, so that the caller, which withdraws the job
    // and then waits for inside_ to fall to 0, cannot free it under us.
    inside_.fetch_add(1, std::memory_order_seq_cst);
    Job *job = job_.load(std::memory_order_seq_cst);
    if (job != nullptr) {
      // Seats lanes - 1 down to 1: each worker that joins its own lane.
      const int seat = job->seats.fetch_sub(1, std::memory_order_relaxed);
      if (seat > 0) take_tasks(job, seat);
    }
    inside_.fetch_sub(1, std::memory_order_release);
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
      workers_[worker_count_] =
          std::thread(&Pool::worker, this, generation_.load(std::memory_order_relaxed));
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

void Pool::run(int lanes, int tasks, void (*body)(void *, int, int), void *ctx) {
  std::unique_lock<std::mutex> busy(job_mutex_, std::try_to_lock);
  if (!busy.owns_lock() || start_workers(lanes - 1) == 0) {
    // Busy with another caller's job, or no worker: the caller alone.
    for (int t = 0; t < tasks; ++t) body(ctx, t, 0);
    return;
  }
  // lanes - 1 workers may join; any others that are awake find no seat.
  Job job{body, ctx, tasks, {lanes - 1}};
  job_.store(&job, std::memory_order_seq_cst);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    generation_.fetch_add(1, std::memory_order_release);
  }
  wake_.notify_all();
  take_tasks(&job, 0);
  // The tasks that workers took are running: wait for them, then withdraw
  // the job and wait until no worker can still be looking at it.
  wait_until([&] { return job.done.load(std::memory_order_acquire) == tasks; });
  job_.store(nullptr, std::memory_order_seq_cst);
  wait_until([&] { return inside_.load(std::memory_order_seq_cst) == 0; });
}

}  // namespace

void net_parallel(int lanes, int tasks, void (*body)(void *ctx, int task, int lane), void *ctx) {
  if (tasks <= 0) return;
  if (lanes <= 1 || tasks == 1) {
    for (int t = 0; t < tasks; ++t) body(ctx, t, 0);
    return;
  }
  static Pool pool;  // made at first use, stopped when the library unloads
  pool.run(lanes, tasks, body, ctx);
}

}  // namespace hseg
