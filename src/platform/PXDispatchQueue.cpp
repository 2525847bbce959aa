#include <linux/futex.h>
#include <pthread.h>
#include <pxkit/platform/PXDispatchQueue.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>

// How a serial queue works
//
// Producers link jobs into an intrusive multi-producer, single-consumer list
// (a stub-node queue: one atomic exchange on the tail per enqueue, no lock).
// One worker thread per queue takes them off in order. When the list is empty
// the worker spins briefly, then announces that it sleeps and waits on a futex;
// a producer makes the wake-up system call only when it sees that announcement,
// so a busy queue costs producers no system calls at all. A queue made with
// Wake::Deferred first dozes (timed futex waits, growing from 250 µs to 128 ms)
// and producers leave a dozing worker alone: calls spaced out in time cost no
// system call either, and an idle queue still ends up asleep with no timer.
//
// Nodes are recycled: the worker returns finished nodes to a global stack that
// producers take over whole into a per-thread cache, so the steady state
// allocates nothing. See docs/internals/run-loops-and-timers.md.

using pxkit::internal::DispatchNode;
using pxkit::internal::DispatchNodeSize;
using pxkit::internal::LargeDispatchNode;
using pxkit::internal::SmallDispatchNode;

namespace {

// ---- futex ---------------------------------------------------------------------
void futexWait(std::atomic<uint32_t>* word, uint32_t expected) noexcept {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}
void futexWake(std::atomic<uint32_t>* word, int count) noexcept {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

inline void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield" ::: "memory");
#endif
}

// ---- node pool -------------------------------------------------------------------
// One pool per node size. Workers hand finished nodes back in batches; a
// producer whose cache is empty takes the whole shared stack at once (taking
// everything makes the stack immune to the ABA problem, and batches keep that
// exchange rare).
constexpr size_t kRecycleBatch = 64;        // nodes a worker gathers before handing them back
constexpr size_t kPooledNodesLimit = 4096;  // nodes of one size kept for reuse beyond this are freed
constexpr size_t kNodeSizes = 2;

size_t nodeBytes(DispatchNodeSize size) {
  return size == DispatchNodeSize::Small ? sizeof(SmallDispatchNode) : sizeof(LargeDispatchNode);
}

// Nodes are carved from 8 KiB slabs (127 small or 63 large ones at a time), so
// that a burst of jobs costs one allocation per slab; a slab is freed once all
// its nodes have been released. Its first slot holds the count and the size.
constexpr size_t kSlabBytes = 8192;
struct SlabHeader {
  std::atomic<uint32_t> released{0};
  uint32_t nodes = 0;
  DispatchNodeSize size = DispatchNodeSize::Small;
};
static_assert(sizeof(SlabHeader) <= sizeof(SmallDispatchNode));

SlabHeader* slabOf(DispatchNode* node) noexcept {
  return reinterpret_cast<SlabHeader*>(reinterpret_cast<uintptr_t>(node) & ~(uintptr_t{kSlabBytes} - 1));
}
size_t sizeIndex(DispatchNode* node) noexcept {
  return static_cast<size_t>(slabOf(node)->size);
}

// The calling thread's free nodes of each size, linked through `next`.
thread_local DispatchNode* tlFreeNodes[kNodeSizes] __attribute__((tls_model("initial-exec"))) = {};

// A node from a new slab; the slab's other nodes go to the calling thread's cache.
DispatchNode* newNode(DispatchNodeSize size) {
  void* slab = std::aligned_alloc(kSlabBytes, kSlabBytes);
  if (!slab) throw std::bad_alloc();
  const size_t bytes = nodeBytes(size);
  auto* header = ::new (slab) SlabHeader();
  header->nodes = static_cast<uint32_t>(kSlabBytes / bytes - 1);
  header->size = size;
  auto* first = static_cast<unsigned char*>(slab) + bytes;
  DispatchNode*& cache = tlFreeNodes[static_cast<size_t>(size)];
  for (size_t i = header->nodes - 1; i >= 1; --i) {
    DispatchNode* node = ::new (first + i * bytes) DispatchNode();
    node->next.store(cache, std::memory_order_relaxed);
    cache = node;
  }
  return ::new (first) DispatchNode();
}
void deleteNode(DispatchNode* node) noexcept {
  SlabHeader* slab = slabOf(node);
  node->~DispatchNode();
  if (slab->released.fetch_add(1, std::memory_order_acq_rel) + 1 == slab->nodes) {
    slab->~SlabHeader();
    std::free(slab);
  }
}

struct NodePool {
  alignas(64) std::atomic<DispatchNode*> head{nullptr};
  alignas(64) std::atomic<size_t> count{0};  // approximate: used only to bound the pool
};
NodePool& pool(size_t sizeIndex) {
  static NodePool* p = new NodePool[kNodeSizes];  // never destroyed: workers may outlive static destruction
  return p[sizeIndex];
}

thread_local bool tlCacheClosed __attribute__((tls_model("initial-exec"))) = false;
thread_local bool tlReaperArmed __attribute__((tls_model("initial-exec"))) = false;

void freeCache(DispatchNode*& cache) noexcept {
  while (DispatchNode* node = cache) {
    cache = node->next.load(std::memory_order_relaxed);
    deleteNode(node);
  }
}

// Frees the thread's caches when the thread ends.
struct CacheReaper {
  ~CacheReaper() {
    tlCacheClosed = true;
    for (DispatchNode*& cache : tlFreeNodes) freeCache(cache);
  }
};

DispatchNode* acquireSlow(DispatchNodeSize size) {
  DispatchNode*& cache = tlFreeNodes[static_cast<size_t>(size)];
  if (tlCacheClosed) {
    DispatchNode* node = newNode(size);  // the rest of the slab is freed at once: nothing caches it now
    freeCache(cache);
    return node;
  }
  if (!tlReaperArmed) {
    static thread_local CacheReaper reaper;
    (void)reaper;
    tlReaperArmed = true;
  }
  NodePool& p = pool(static_cast<size_t>(size));
  if (p.head.load(std::memory_order_relaxed)) {
    if (DispatchNode* stolen = p.head.exchange(nullptr, std::memory_order_acquire)) {
      p.count.store(0, std::memory_order_relaxed);
      cache = stolen->next.load(std::memory_order_relaxed);
      return stolen;
    }
  }
  return newNode(size);
}

// A worker's finished nodes of one size, handed back to the pool in one exchange.
struct RecycleBatch {
  DispatchNode* first = nullptr;
  DispatchNode* last = nullptr;
  size_t count = 0;

  void add(DispatchNode* node, size_t sizeIndex) noexcept {
    node->next.store(first, std::memory_order_relaxed);
    if (!first) last = node;
    first = node;
    if (++count >= kRecycleBatch) flush(sizeIndex);
  }
  void flush(size_t sizeIndex) noexcept {
    if (!first) return;
    NodePool& p = pool(sizeIndex);
    if (p.count.load(std::memory_order_relaxed) >= kPooledNodesLimit) {
      while (DispatchNode* node = first) {
        first = node->next.load(std::memory_order_relaxed);
        deleteNode(node);
      }
    } else {
      p.count.fetch_add(count, std::memory_order_relaxed);
      DispatchNode* head = p.head.load(std::memory_order_relaxed);
      do {
        last->next.store(head, std::memory_order_relaxed);
      } while (
          !p.head.compare_exchange_weak(head, first, std::memory_order_release, std::memory_order_relaxed));
    }
    first = last = nullptr;
    count = 0;
  }
};

// One batch per node size.
struct RecycleBatches {
  RecycleBatch bySize[kNodeSizes];
  void add(DispatchNode* node) noexcept {
    const size_t index = sizeIndex(node);
    bySize[index].add(node, index);
  }
  void flush() noexcept {
    for (size_t index = 0; index < kNodeSizes; ++index) bySize[index].flush(index);
  }
};

thread_local PXDispatchQueue* tlCurrentQueue = nullptr;
// Enqueues this thread has made in a row onto dozing workers without waking them.
thread_local uint32_t tlUnwokenEnqueues __attribute__((tls_model("initial-exec"))) = 0;

}  // namespace

namespace pxkit::internal {

DispatchNode* dispatchNodeAcquire(DispatchNodeSize size) {
  DispatchNode*& cache = tlFreeNodes[static_cast<size_t>(size)];
  if (DispatchNode* node = cache) {
    cache = node->next.load(std::memory_order_relaxed);
    return node;
  }
  return acquireSlow(size);
}

void dispatchNodeDiscard(DispatchNode* node) noexcept {
  if (tlCacheClosed) {
    deleteNode(node);
    return;
  }
  DispatchNode*& cache = tlFreeNodes[sizeIndex(node)];
  node->next.store(cache, std::memory_order_relaxed);
  cache = node;
}

// The queue proper, shared by the PXDispatchQueue and its worker thread (which
// outlives the object when the last reference goes on the worker itself).
//
// `head` is the node whose job ran last (at first the stub): the worker runs
// the job of the node after it and only then lets the old head go. So the
// worker learns that the queue is empty from `head->next` alone and reads
// `tail`, the producers' line, only when it is about to sleep.
struct DispatchQueueCore {
  // kDozing: the worker sleeps with a timeout and looks at the queue when it
  // ends; producers leave it alone. kSleeping: it sleeps until woken.
  enum : uint32_t { kRunning = 0, kDozing = 1, kSleeping = 2 };
  // Spins of the worker on an empty queue before it goes to sleep: long enough
  // to catch the next job of a steady stream, short enough not to matter.
  static constexpr int kSpinsBeforeSleep = 256;
  // A deferred-wake queue dozes for 250 µs, then twice as long each time, up
  // to 128 ms: ten timed wake-ups in the quarter second after its last job,
  // then it sleeps until woken.
  static constexpr long kFirstDozeNanoseconds = 250'000;
  static constexpr int kDozes = 10;
  // A producer that has left this many jobs in a row to dozing workers wakes
  // the worker after all: a burst is under way, and the worker had better work
  // through it alongside than after it (one system call per this many calls).
  static constexpr uint32_t kWakeAfterUnwokenEnqueues = 1024;

  alignas(64) std::atomic<DispatchNode*> tail;  // producers
  alignas(64) DispatchNode* head;               // the worker only
  alignas(64) std::atomic<uint32_t> state{kRunning};
  std::atomic<bool> stopping{false};
  std::atomic<PXDispatchQueue*> owner;
  const PXDispatchQueue::Wake wake;
  DispatchNode stub;
  std::thread worker;

  DispatchQueueCore(PXDispatchQueue* queue, PXDispatchQueue::Wake wakePolicy)
      : tail(&stub), head(&stub), owner(queue), wake(wakePolicy) {}

  // ---- producers ----
  void push(DispatchNode* node) noexcept {
    node->next.store(nullptr, std::memory_order_relaxed);
    DispatchNode* previous = tail.exchange(node, std::memory_order_seq_cst);
    previous->next.store(node, std::memory_order_release);
  }
  // `urgent`: someone waits for the job, so a dozing worker is woken too.
  void enqueue(DispatchNode* node, bool urgent) noexcept {
    push(node);
    // Pairs with the worker's announcement in park(): either the worker sees
    // the new tail, or this load sees it asleep.
    uint32_t seen = state.load(std::memory_order_seq_cst);
    if (seen == kRunning) {
      tlUnwokenEnqueues = 0;
      return;
    }
    if (seen == kDozing && !urgent && ++tlUnwokenEnqueues < kWakeAfterUnwokenEnqueues) return;
    tlUnwokenEnqueues = 0;
    if (state.exchange(kRunning, std::memory_order_seq_cst) != kRunning) futexWake(&state, 1);
  }

  // ---- worker ----
  bool isEmpty() const noexcept {
    return !head->next.load(std::memory_order_acquire) && tail.load(std::memory_order_seq_cst) == head;
  }

  // Announces `how` (kDozing or kSleeping) and sleeps, unless a job or the
  // end arrived meanwhile; a timeout (nanoseconds) for dozing. Returns false
  // when the worker should end.
  enum class Woken { Job, Timeout, End };
  Woken sleep(uint32_t how, long nanoseconds) noexcept {
    state.store(how, std::memory_order_seq_cst);
    if (!isEmpty()) {
      state.store(kRunning, std::memory_order_relaxed);
      return Woken::Job;
    }
    if (stopping.load(std::memory_order_seq_cst)) return Woken::End;
    if (how == kDozing) {
      timespec timeout{0, nanoseconds};
      syscall(SYS_futex, reinterpret_cast<uint32_t*>(&state), FUTEX_WAIT_PRIVATE, how, &timeout, nullptr, 0);
    } else {
      futexWait(&state, how);
    }
    // Woken by a producer (state is kRunning), by the timeout or spuriously.
    bool timedOut = state.exchange(kRunning, std::memory_order_relaxed) == how;
    return timedOut && isEmpty() ? Woken::Timeout : Woken::Job;
  }

  // Waits for the next job. Returns false when the worker should end
  // (stopping and drained).
  bool park() noexcept {
    // Spin on the link a producer writes next, not on `tail`: a consumer that
    // keeps reading `tail` pulls its cache line away from the producers, and
    // every enqueue then pays a transfer for its exchange.
    for (int i = 0; i < kSpinsBeforeSleep; ++i) {
      if (head->next.load(std::memory_order_acquire)) return true;
      cpuRelax();
    }
    if (wake == PXDispatchQueue::Wake::Deferred) {
      long nanoseconds = kFirstDozeNanoseconds;
      for (int i = 0; i < kDozes; ++i, nanoseconds *= 2) {
        Woken woken = sleep(kDozing, std::min(nanoseconds, 999'999'999L));
        if (woken != Woken::Timeout) return woken == Woken::Job;
      }
    }
    for (;;) {
      Woken woken = sleep(kSleeping, 0);
      if (woken != Woken::Timeout) return woken == Woken::Job;
    }
  }

  void run() noexcept {
    RecycleBatches finished;
    for (;;) {
      DispatchNode* next = head->next.load(std::memory_order_acquire);
      if (next) {
        DispatchNode* done = head;
        head = next;
        tlCurrentQueue = owner.load(std::memory_order_relaxed);
        next->run(next);  // a throwing job ends the process here (noexcept)
        tlCurrentQueue = nullptr;
        if (done != &stub) finished.add(done);
        continue;
      }
      // Idle, or a producer is between its exchange and its link (park() then
      // finds the job at once): give the nodes back before spinning and sleeping.
      finished.flush();
      if (!park()) break;
    }
    // The last job's node, kept as the head until now.
    if (head != &stub) finished.add(head);
    head = &stub;
    finished.flush();
  }

  void stop() noexcept {
    stopping.store(true, std::memory_order_seq_cst);
    if (state.exchange(kRunning, std::memory_order_seq_cst) != kRunning) futexWake(&state, 1);
  }
};

void dispatchOnceSlow(std::atomic<uint32_t>& state, void (*call)(void*), void* callable) {
  enum : uint32_t { kUnused = 0, kRunning = 1, kDone = 2 };
  for (;;) {
    uint32_t seen = state.load(std::memory_order_acquire);
    if (seen == kDone) return;
    if (seen == kUnused && state.compare_exchange_strong(seen, kRunning, std::memory_order_acquire)) {
      try {
        call(callable);
      } catch (...) {
        state.store(kUnused, std::memory_order_release);
        futexWake(&state, INT32_MAX);  // one of the waiters tries next
        throw;
      }
      state.store(kDone, std::memory_order_release);
      futexWake(&state, INT32_MAX);
      return;
    }
    if (seen == kRunning) futexWait(&state, kRunning);
  }
}

}  // namespace pxkit::internal

PX_DEFINE_CLASS(PXDispatchQueue, PXObject, nullptr)

PXDispatchQueue::PXDispatchQueue(std::string_view label, Wake wake)
    : label_(label), core_(std::make_shared<pxkit::internal::DispatchQueueCore>(this, wake)) {
  std::shared_ptr<pxkit::internal::DispatchQueueCore> core = core_;
  core_->worker = std::thread([core] { core->run(); });
  std::string name = label_.empty() ? std::string("pxkit-queue") : label_.substr(0, 15);
  pthread_setname_np(core_->worker.native_handle(), name.c_str());
}

PXDispatchQueue::~PXDispatchQueue() {
  core_->owner.store(nullptr, std::memory_order_relaxed);
  core_->stop();
  if (core_->worker.get_id() == std::this_thread::get_id()) {
    // The last reference went inside one of our own jobs: the worker drains
    // the rest and ends by itself, keeping the core alive.
    core_->worker.detach();
  } else {
    core_->worker.join();
  }
}

PXRef<PXDispatchQueue> PXDispatchQueue::create(std::string_view label, Wake wake) {
  return PXMake<PXDispatchQueue>(label, wake);
}

bool pxkit::internal::dispatchQueueSleepsUntilWoken(const PXDispatchQueue& queue) noexcept {
  return queue.core_->state.load(std::memory_order_acquire) == DispatchQueueCore::kSleeping;
}

PXDispatchQueue* PXDispatchQueue::current() noexcept {
  return tlCurrentQueue;
}

void PXDispatchQueue::enqueue(pxkit::internal::DispatchNode* node, bool urgent) noexcept {
  core_->enqueue(node, urgent);
}

void PXDispatchQueue::syncInvoke(void (*call)(void*), void* callable) {
  if (isCurrent()) {
#ifndef NDEBUG
    std::fprintf(stderr,
                 "PXDispatchQueue::sync called from a job of the same queue \"%s\": it would wait forever\n",
                 label_.c_str());
    std::abort();
#else
    call(callable);
    return;
#endif
  }
  std::atomic<uint32_t> done{0};
  // Urgent: a dozing worker is woken at once, since this thread waits for it.
  enqueueJob(
      [call, callable, &done] {
        call(callable);
        done.store(1, std::memory_order_release);
        futexWake(&done, 1);  // may reach a futex word already gone: a harmless spurious wake-up
      },
      /*urgent=*/true);
  while (done.load(std::memory_order_acquire) == 0) futexWait(&done, 0);
}
