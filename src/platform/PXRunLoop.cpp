#include <pthread.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/platform/PXTimer.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/RunLoopContext.h"
#include "platform/internal/RunLoopTimers.h"

// A run loop is a GLib main context plus two sources of ours attached to it:
// the perform source (blocks sent from any thread, run in order) and the timer
// source (RunLoopTimers.h). Running the loop is iterating the context, so a
// host that iterates the context itself (GTK, Qt's GLib dispatcher) runs our
// blocks and timers as well.

namespace pxkit::internal {

struct PerformSource {
  GSource base;  // first: GLib allocates the whole struct
  RunLoopCore* core;
};

struct RunLoopCore {
  GMainContext* context;  // +1
  RunLoopContext handle;  // what the platform layer sees (context, pending I/O)
  bool isMain;
  std::thread::id thread;  // the thread that made the loop (unused for the main loop)
  std::atomic<bool> stopRequested{false};

  std::mutex performMutex;
  std::deque<PXRunLoop::Block> performed;  // guarded by performMutex
  GSource* performSource = nullptr;
  TimerSource* timers = nullptr;

  RunLoopCore(GMainContext* c, bool main) : context(g_main_context_ref(c)), isMain(main) {
    handle.glib = context;
    if (!isMain) thread = std::this_thread::get_id();
  }

  bool isLoopThread() const;
  void dispatchPerformed();
};

// Whether this is the thread that started the process (or, after a fork, the
// one that forked). Asked at every PXRunLoop::current(): the answer is kept per
// thread, and asked again after a fork.
inline std::atomic<unsigned> forkGeneration{0};
inline bool isProcessMainThread() noexcept {
  [[maybe_unused]] static const int registered =
      pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1, std::memory_order_relaxed); });
  thread_local unsigned askedIn = ~0u;
  thread_local bool isMain = false;
  const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
  if (askedIn != generation) {
    isMain = gettid() == getpid();
    askedIn = generation;
  }
  return isMain;
}

static gboolean performDispatch(GSource* source, GSourceFunc, gpointer) {
  reinterpret_cast<PerformSource*>(source)->core->dispatchPerformed();
  return G_SOURCE_CONTINUE;
}

static GSourceFuncs kPerformSourceFuncs = {nullptr, nullptr, performDispatch, nullptr, nullptr, nullptr};

bool RunLoopCore::isLoopThread() const {
  if (g_main_context_is_owner(context)) return true;
  return isMain ? isProcessMainThread() : thread == std::this_thread::get_id();
}

void RunLoopCore::dispatchPerformed() {
  // Runs the blocks that were waiting when the dispatch began; those performed
  // meanwhile make the source ready again and run at the next iteration (or in a
  // nested run of the loop started by a block).
  size_t count;
  {
    std::lock_guard lock(performMutex);
    count = performed.size();
  }
  for (size_t i = 0; i < count; ++i) {
    PXRunLoop::Block block;
    {
      std::lock_guard lock(performMutex);
      if (performed.empty()) break;  // a nested run took the rest
      block = std::move(performed.front());
      performed.pop_front();
      if (performed.empty()) g_source_set_ready_time(performSource, -1);
    }
    block();
  }
}

}  // namespace pxkit::internal

using pxkit::internal::isProcessMainThread;
using pxkit::internal::kPerformSourceFuncs;
using pxkit::internal::RunLoopCore;

namespace {

// The run loops the calling thread has made: its own (with its context pushed
// as the thread-default) and those of contexts that others pushed on it.
struct ThreadLoops {
  PXRef<PXRunLoop> own;
  std::vector<PXRef<PXRunLoop>> foreign;

  ~ThreadLoops() {
    foreign.clear();
    if (own) {
      GMainContext* context = own->context()->glib;
      if (g_main_context_get_thread_default() == context) g_main_context_pop_thread_default(context);
      own = nullptr;
    }
  }
};
thread_local ThreadLoops tlLoops;

// Holds the context for the whole of a run, so that a run on the wrong thread
// returns instead of waiting for the owner.
class Acquired {
 public:
  explicit Acquired(GMainContext* context) : context_(context), ok_(g_main_context_acquire(context)) {}
  ~Acquired() {
    if (ok_) g_main_context_release(context_);
  }
  explicit operator bool() const noexcept { return ok_; }

 private:
  GMainContext* context_;
  bool ok_;
};

}  // namespace

PX_DEFINE_CLASS(PXRunLoop, PXObject, nullptr)

PXRunLoop::PXRunLoop(void* context, bool isMain)
    : core_(std::make_unique<RunLoopCore>(static_cast<GMainContext*>(context), isMain)) {
  GSource* perform = g_source_new(&kPerformSourceFuncs, sizeof(pxkit::internal::PerformSource));
  reinterpret_cast<pxkit::internal::PerformSource*>(perform)->core = core_.get();
  g_source_set_priority(perform, G_PRIORITY_DEFAULT);
  g_source_set_can_recurse(perform, TRUE);  // blocks also run in nested runs of the loop
  g_source_set_static_name(perform, "PXRunLoop perform");
  g_source_attach(perform, core_->context);
  core_->performSource = perform;
  core_->timers = pxkit::internal::timerSourceAttach(core_->context, this);
}

PXRunLoop::~PXRunLoop() {
  pxkit::internal::timerSourceDetach(core_->timers);
  g_source_destroy(core_->performSource);
  g_source_unref(core_->performSource);
  std::deque<Block> dropped;
  {
    std::lock_guard lock(core_->performMutex);
    dropped.swap(core_->performed);
  }
  dropped.clear();  // blocks for a loop that will never run again
  g_main_context_unref(core_->context);
}

PXRunLoop* PXRunLoop::main() {
  static PXRunLoop* loop = PXRef<PXRunLoop>::adopt(new PXRunLoop(g_main_context_default(), true)).detach();
  return loop;
}

PXRunLoop* PXRunLoop::current() {
  GMainContext* pushed = g_main_context_get_thread_default();  // null: none, or the global default
  ThreadLoops& loops = tlLoops;
  if (!pushed) {
    if (isProcessMainThread()) return main();
    if (!loops.own) {
      // A thread of its own: a fresh context, pushed for the rest of the thread's life.
      GMainContext* context = g_main_context_new();
      g_main_context_push_thread_default(context);
      loops.own = PXRef<PXRunLoop>::adopt(new PXRunLoop(context, false));
      g_main_context_unref(context);  // the loop holds it
      return loops.own.get();
    }
    // Our context was popped by someone, and the default is in force again:
    // the thread still has its own loop.
    return loops.own.get();
  }
  if (loops.own && loops.own->context()->glib == pushed) return loops.own.get();
  for (const PXRef<PXRunLoop>& loop : loops.foreign) {
    if (loop->context()->glib == pushed) return loop.get();
  }
  loops.foreign.push_back(PXRef<PXRunLoop>::adopt(new PXRunLoop(pushed, false)));
  return loops.foreign.back().get();
}

bool PXRunLoop::isMain() const noexcept {
  return core_->isMain;
}

pxkit::internal::RunLoopContext* PXRunLoop::context() const noexcept {
  return &core_->handle;
}

void PXRunLoop::run() {
  Acquired acquired(core_->context);
  if (!acquired) return;
  if (core_->stopRequested.exchange(false)) {
    g_main_context_iteration(core_->context, FALSE);
    return;
  }
  for (;;) {
    g_main_context_iteration(core_->context, TRUE);
    if (core_->stopRequested.exchange(false)) return;
  }
}

void PXRunLoop::runUntilDate(PXDate date) {
  Acquired acquired(core_->context);
  if (!acquired) return;
  if (core_->stopRequested.exchange(false) || PXClock::now() >= date) {
    g_main_context_iteration(core_->context, FALSE);
    return;
  }
  for (;;) {
    const PXDate now = PXClock::now();
    if (now >= date) {
      // The date has come: what became due at it (timers of exactly that date) runs too.
      g_main_context_iteration(core_->context, FALSE);
      return;
    }
    if (PXClock::isVirtual()) {
      // Virtual time stands still while there is work; when there is none, it
      // moves to the next thing that can happen here: a timer's date or the end.
      if (!g_main_context_iteration(core_->context, FALSE)) {
        if (core_->stopRequested.exchange(false)) return;
        if (core_->handle.pendingIO.load(std::memory_order_acquire) > 0) {
          // An answer is on its way: wait for it in real time, at this virtual
          // moment. The end of the last pending I/O wakes this wait (a wake-up
          // sent before it began is not lost: GLib's wake-up fd stays set).
          g_main_context_iteration(core_->context, TRUE);
          if (core_->stopRequested.exchange(false)) return;
          continue;
        }
        PXDate next = date;
        if (std::optional<PXDate> earliest = nextTimerDate()) next = std::min(next, *earliest);
        if (next > now) PXClock::setVirtualNow(next);
        continue;
      }
    } else {
      // Wakes the wait at `date` at the latest (a monotonic timeout: close
      // enough for the length of one wait; the loop re-reads the wall clock).
      const double milliseconds = std::ceil((date - now) * 1000.0);
      const auto interval = static_cast<guint>(std::clamp(milliseconds, 1.0, static_cast<double>(INT_MAX)));
      pxkit::glib::AttachedSource wake(g_timeout_source_new(interval));
      g_source_set_callback(
          wake.get(), [](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr, nullptr);
      g_source_attach(wake.get(), core_->context);
      g_main_context_iteration(core_->context, TRUE);
    }
    if (core_->stopRequested.exchange(false)) return;
  }
}

bool PXRunLoop::runOnce(bool mayBlock) {
  Acquired acquired(core_->context);
  if (!acquired) return false;
  return g_main_context_iteration(core_->context, mayBlock ? TRUE : FALSE);
}

void PXRunLoop::stop() {
  core_->stopRequested.store(true);
  wakeUp();
}

void PXRunLoop::wakeUp() noexcept {
  g_main_context_wakeup(core_->context);
}

void PXRunLoop::performBlock(Block block) {
  if (!block) return;
  std::lock_guard lock(core_->performMutex);
  const bool wasEmpty = core_->performed.empty();
  core_->performed.push_back(std::move(block));
  // Ready now; also wakes the context when it waits on another thread.
  if (wasEmpty) g_source_set_ready_time(core_->performSource, 0);
}

void PXRunLoop::performBlockAndWait(const Block& block) {
  if (!block) return;
  if (core_->isLoopThread()) {
    block();
    return;
  }
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  performBlock([&] {
    block();
    std::lock_guard lock(mutex);
    done = true;
    finished.notify_one();  // under the lock: the waiter's frame outlives this call
  });
  std::unique_lock lock(mutex);
  finished.wait(lock, [&] { return done; });
}

std::optional<PXDate> PXRunLoop::nextTimerDate() const {
  if (std::optional<double> earliest = pxkit::internal::timerSourceEarliestDate(core_->timers))
    return PXDate(*earliest);
  return std::nullopt;
}

void PXRunLoop::addTimer(PXTimer* timer, std::string_view mode) {
  (void)mode;  // every mode names the same set of sources
  if (timer) pxkit::internal::timerSourceAdd(core_->timers, timer);
}
