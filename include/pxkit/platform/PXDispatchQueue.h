// PXKit — serial dispatch queues and run-once initialisation.
//
// A PXDispatchQueue runs jobs one at a time, in the order they were enqueued,
// on a worker thread of its own. `async` is the recording hot path of the kit:
// it costs the caller one lock-free enqueue (an atomic exchange) of a pooled
// node that holds the callable, and a futex wake only when the worker had gone
// to sleep (with Wake::Deferred, only when it had been idle a quarter second).
//
//   PXRef<PXDispatchQueue> queue = PXDispatchQueue::create("org.example.metrics");
//   queue->async([tracker, delta] { tracker->apply(delta); });   // returns at once
//   queue->sync([&] { snapshot = tracker->state(); });            // waits for all before it
//
//   static PXDispatchOnceToken once;
//   PXDispatchOnce(once, [] { shared = new Tracker(); });
//
// Thread safety: async and sync may be called from any thread, concurrently.
// Jobs run one at a time on the queue's worker thread, in enqueue order (the
// order in which the enqueues took effect; per producing thread, program order).
// Jobs must not throw: an exception that leaves a job ends the process
// (std::terminate), as an uncaught exception on any thread does.
//
// Lifetime: a queue is a PXObject held by PXRef. Each queued job keeps nothing
// alive by itself; capture what the job needs. When the last reference goes,
// the queue runs every job still queued and then its worker thread ends (the
// destructor waits for that, unless it runs on the worker itself).
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace pxkit::internal {

// One queued job: an intrusive link and the function that runs and destroys
// the job. The job's callable follows in the same node.
struct DispatchNode {
  std::atomic<DispatchNode*> next{nullptr};
  void (*run)(DispatchNode*) = nullptr;  // runs the job, then destroys the callable
};

// Nodes come in two sizes, each with room for the callable inline: one cache
// line (48 bytes: a reference, a value and three string handles, say), and two
// (112 bytes: a reference, a value and a few short strings copied in place — a
// recording). Larger callables live on the heap, which costs an allocation per job.
template <size_t Size>
struct DispatchNodeOf : DispatchNode {
  static constexpr size_t kInlineBytes = Size - sizeof(DispatchNode);
  alignas(alignof(std::max_align_t)) unsigned char storage[kInlineBytes];
};
using SmallDispatchNode = DispatchNodeOf<64>;
using LargeDispatchNode = DispatchNodeOf<128>;
static_assert(sizeof(SmallDispatchNode) == 64 && sizeof(LargeDispatchNode) == 128);

enum class DispatchNodeSize : uint8_t { Small, Large };

// A free node of that size from the calling thread's pool (or a new one).
// Never null; throws std::bad_alloc when memory is exhausted.
PXKIT_EXPORT DispatchNode* dispatchNodeAcquire(DispatchNodeSize size);
// Gives back a node whose job was never enqueued (its callable already destroyed).
PXKIT_EXPORT void dispatchNodeDiscard(DispatchNode* node) noexcept;

// Whether a callable of type Job fits inline in a node of type Node.
template <class Node, class Job>
inline constexpr bool kDispatchFits =
    sizeof(Job) <= Node::kInlineBytes &&
    alignof(Job) <= alignof(std::max_align_t) && std::is_nothrow_move_constructible_v<Job>;

// Moves `job` into `node`, which has room for it, and sets its run function.
template <class Node, class Job, class F>
void dispatchNodeFill(DispatchNode* node, F&& job) {
  ::new (static_cast<void*>(static_cast<Node*>(node)->storage)) Job(std::forward<F>(job));
  node->run = [](DispatchNode* n) {
    Job* callable = std::launder(reinterpret_cast<Job*>(static_cast<Node*>(n)->storage));
    (*callable)();
    callable->~Job();
  };
}

struct DispatchQueueCore;

}  // namespace pxkit::internal

class PXDispatchQueue;
namespace pxkit::internal {
// Whether the queue's worker is asleep with no timer (idle; only a new job wakes
// it). For tests of the idle state.
PXKIT_EXPORT bool dispatchQueueSleepsUntilWoken(const PXDispatchQueue& queue) noexcept;
}  // namespace pxkit::internal

class PXKIT_EXPORT PXDispatchQueue : public PXObject {
  PX_DECLARE_CLASS(PXDispatchQueue)

 public:
  // When the worker, idle, is given a new job.
  enum class Wake : uint8_t {
    // At once: the first `async` after the worker has gone to sleep makes a
    // wake-up system call (the worker spins briefly before sleeping, so only
    // after a pause).
    Prompt,
    // Within 250 µs to 128 ms (the longer, the longer the queue was idle):
    // the worker dozes in timed waits for a quarter of a second after its
    // last job, and `async` does not wake a dozing worker, so calls spaced out
    // in time cost no system call (a thread that has left 1024 jobs in a row
    // to a dozing worker wakes it, to get a burst worked through alongside).
    // After the quarter second the worker sleeps without a timer, and the next
    // `async` wakes it. `sync` always wakes it at once.
    // For work whose effects nobody waits for, such as recording metrics.
    Deferred,
  };

  // A serial queue with its worker thread, already running. `label` names the
  // queue (and, truncated to 15 bytes, its thread); it may be empty.
  explicit PXDispatchQueue(std::string_view label = {}, Wake wake = Wake::Prompt);
  // Runs every job still queued, then ends the worker thread (see Lifetime).
  ~PXDispatchQueue() override;

  // A new serial queue; never empty (throws std::system_error if no thread can be started).
  static PXRef<PXDispatchQueue> create(std::string_view label = {}, Wake wake = Wake::Prompt);

  // The label given at creation ("" when none).
  const std::string& label() const noexcept { return label_; }

  // Enqueues `job` (any callable taking no arguments) to run later on the
  // queue's thread, after every job enqueued before it. Returns at once. The
  // callable is moved (or copied) into the queue. An empty std::function is ignored.
  template <class F>
  void async(F&& job);

  // Whether `async` keeps a callable of type F inside its queue node, with no
  // allocation of its own.
  template <class F>
  static constexpr bool storesInline() noexcept {
    return pxkit::internal::kDispatchFits<pxkit::internal::LargeDispatchNode, std::decay_t<F>>;
  }

  // Runs `job` on the queue's thread after every job enqueued before it, and
  // waits for it to finish. `job` is not copied.
  // Calling sync from a job of the same queue would wait on itself forever:
  // debug builds abort with a message; release builds run `job` at once on the
  // calling thread (the queue is still serial, but jobs queued before it have
  // not run yet).
  template <class F>
  void sync(F&& job) {
    using Job = std::remove_reference_t<F>;
    syncInvoke([](void* callable) { (*static_cast<Job*>(callable))(); },
               const_cast<void*>(static_cast<const void*>(&job)));
  }

  // The queue whose job is running on the calling thread, or null.
  static PXDispatchQueue* current() noexcept;
  // Whether the calling thread is running a job of this queue.
  bool isCurrent() const noexcept { return current() == this; }

 private:
  template <class F>
  void enqueueJob(F&& job, bool urgent);
  void enqueue(pxkit::internal::DispatchNode* node, bool urgent) noexcept;
  friend bool pxkit::internal::dispatchQueueSleepsUntilWoken(const PXDispatchQueue& queue) noexcept;
  void syncInvoke(void (*call)(void*), void* callable);

  std::string label_;
  std::shared_ptr<pxkit::internal::DispatchQueueCore> core_;
};

template <class F>
void PXDispatchQueue::async(F&& job) {
  using Job = std::decay_t<F>;
  if constexpr (std::is_same_v<Job, std::function<void()>> || std::is_pointer_v<Job>) {
    if (!job) return;
  }
  enqueueJob(std::forward<F>(job), /*urgent=*/false);
}

template <class F>
void PXDispatchQueue::enqueueJob(F&& job, bool urgent) {
  using Job = std::decay_t<F>;
  using namespace pxkit::internal;
  // The smallest node the callable fits in; a pointer to it on the heap otherwise.
  constexpr bool kSmall = kDispatchFits<SmallDispatchNode, Job>;
  constexpr bool kLarge = !kSmall && kDispatchFits<LargeDispatchNode, Job>;
  DispatchNode* node = dispatchNodeAcquire(kLarge ? DispatchNodeSize::Large : DispatchNodeSize::Small);
  try {
    if constexpr (kSmall) {
      dispatchNodeFill<SmallDispatchNode, Job>(node, std::forward<F>(job));
    } else if constexpr (kLarge) {
      dispatchNodeFill<LargeDispatchNode, Job>(node, std::forward<F>(job));
    } else {
      auto onHeap = [callable = std::make_unique<Job>(std::forward<F>(job))] { (*callable)(); };
      dispatchNodeFill<SmallDispatchNode, decltype(onHeap)>(node, std::move(onHeap));
    }
  } catch (...) {
    dispatchNodeDiscard(node);
    throw;
  }
  enqueue(node, urgent);
}

// Run-once initialisation: PXDispatchOnce runs its callable exactly once per
// token, however many threads call it at the same time; the others wait until
// it has returned. If the callable throws, the token stays unused (the next
// call tries again) and the exception reaches the caller. After the first run,
// a call costs one atomic load. Tokens are usually static.
class PXDispatchOnceToken {
 public:
  constexpr PXDispatchOnceToken() noexcept = default;
  PXDispatchOnceToken(const PXDispatchOnceToken&) = delete;
  PXDispatchOnceToken& operator=(const PXDispatchOnceToken&) = delete;

 private:
  template <class F>
  friend void PXDispatchOnce(PXDispatchOnceToken& token, F&& f);
  std::atomic<uint32_t> state_{0};  // 0 unused, 1 running, 2 done
};

namespace pxkit::internal {
// The slow path of PXDispatchOnce: runs `call(callable)` once, or waits for the run in progress.
PXKIT_EXPORT void dispatchOnceSlow(std::atomic<uint32_t>& state, void (*call)(void*), void* callable);
}  // namespace pxkit::internal

template <class F>
void PXDispatchOnce(PXDispatchOnceToken& token, F&& f) {
  if (token.state_.load(std::memory_order_acquire) == 2) return;
  using Callable = std::remove_reference_t<F>;
  pxkit::internal::dispatchOnceSlow(
      token.state_, [](void* callable) { (*static_cast<Callable*>(callable))(); },
      const_cast<void*>(static_cast<const void*>(&f)));
}
