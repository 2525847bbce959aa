// The recording hot path: what `async` costs the thread that calls it.
//
// PXDispatchQueue is compared, in the same process, with the queue most code
// would write first: a std::mutex, a std::condition_variable and a
// std::deque<std::function<void()>> drained by one worker thread. Both run the
// same job, shaped like a recording call (a counted reference, a delta and
// three string handles: 40 bytes of captures), from 1, 2 and 4 producer
// threads.
//
// Recording comes in bursts (a user action records a few metrics), so each
// iteration enqueues a burst of jobs and only those enqueues are timed; the
// queue is then drained, untimed, before the next burst. The reported time per
// item is therefore the caller-side cost of one enqueue, including the wake-up
// of a worker that went to sleep between bursts.
#include <pxkit/platform/PXDispatchQueue.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "support/PXBenchRatio.h"

namespace {

constexpr int kBurst = 256;  // jobs enqueued per timed burst

// ---- the job -------------------------------------------------------------------------
struct Sink {
  std::atomic<int64_t> total{0};
};
struct Job {
  Sink* sink;
  int64_t delta;
  const char* identifier;
  const char* primary;
  const char* secondary;
  void operator()() const {
    sink->total.fetch_add(delta + (primary != secondary), std::memory_order_relaxed);
  }
};
static_assert(sizeof(Job) == 40);

// ---- the plain queue ---------------------------------------------------------------------
class CondvarQueue {
 public:
  CondvarQueue() : worker_([this] { run(); }) {}
  ~CondvarQueue() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_one();
    worker_.join();
  }
  void async(std::function<void()> job) {
    {
      std::lock_guard lock(mutex_);
      jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
  }
  void drain() {
    std::mutex m;
    std::condition_variable done;
    bool finished = false;
    async([&] {
      std::lock_guard lock(m);
      finished = true;
      done.notify_one();
    });
    std::unique_lock lock(m);
    done.wait(lock, [&] { return finished; });
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ready_.wait(lock, [&] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty()) return;
      std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::thread worker_;
};

// ---- benchmarks ---------------------------------------------------------------------------
Sink sink;
PXRef<PXDispatchQueue> dispatchQueue;
CondvarQueue* condvarQueue = nullptr;

void setUpDispatch(const benchmark::State&) {
  dispatchQueue = PXDispatchQueue::create("bench");
}
void tearDownDispatch(const benchmark::State&) {
  dispatchQueue = nullptr;
}
void setUpCondvar(const benchmark::State&) {
  condvarQueue = new CondvarQueue();
}
void tearDownCondvar(const benchmark::State&) {
  delete condvarQueue;
  condvarQueue = nullptr;
}

template <class Queue, class Drain>
void runBursts(benchmark::State& state, Queue* queue, Drain drain) {
  const int64_t delta = state.thread_index() + 1;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kBurst; ++i) queue->async(Job{&sink, delta, "common.launches", "", ""});
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    drain(queue);
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}

void BM_DispatchQueue_Async(benchmark::State& state) {
  runBursts(state, dispatchQueue.get(), [](PXDispatchQueue* q) { q->sync([] {}); });
}

void BM_CondvarQueue_Async(benchmark::State& state) {
  runBursts(state, condvarQueue, [](CondvarQueue* q) { q->drain(); });
}

BENCHMARK(BM_DispatchQueue_Async)
    ->Setup(setUpDispatch)
    ->Teardown(tearDownDispatch)
    ->ThreadRange(1, 4)
    ->UseManualTime();
BENCHMARK(BM_CondvarQueue_Async)
    ->Setup(setUpCondvar)
    ->Teardown(tearDownCondvar)
    ->ThreadRange(1, 4)
    ->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, double> times = PXBenchRunAll(argc, argv);
  // Per producer count.
  for (int threads : {1, 2, 4}) {
    const std::string suffix = "/manual_time/threads:" + std::to_string(threads);
    auto dispatch = times.find("BM_DispatchQueue_Async" + suffix);
    auto condvar = times.find("BM_CondvarQueue_Async" + suffix);
    if (dispatch == times.end() || condvar == times.end() || condvar->second <= 0) continue;
    const double ratio = dispatch->second / condvar->second;
    if (threads == 1) PXBenchReportRatio("dispatch-enqueue-vs-condvar-queue", ratio);
    PXBenchReportRatio("dispatch-enqueue-vs-condvar-queue-" + std::to_string(threads) + "-producers", ratio);
  }
  return 0;
}
