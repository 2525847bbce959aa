#include <linux/futex.h>
#include <pthread.h>
#include <pxkit/platform/PXDispatchQueue.h>
#include <sys/syscall.h>
#include <unistd.h>

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
// so a busy queue costs producers no system calls at all.
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
struct DispatchQueueCore {
  enum : uint32_t { kRunning = 0, kSleeping = 1 };
  // Spins of the worker on an empty queue before it goes to sleep: long enough
  // to catch the next job of a steady stream, short enough not to matter.
  static constexpr int kSpinsBeforeSleep = 256;

  alignas(64) std::atomic<DispatchNode*> tail;  // producers
  alignas(64) DispatchNode* head;               // the worker only
  alignas(64) std::atomic<uint32_t> state{kRunning};
  std::atomic<bool> stopping{false};
  std::atomic<PXDispatchQueue*> owner;
  DispatchNode stub;
  std::thread worker;

  explicit DispatchQueueCore(PXDispatchQueue* queue) : tail(&stub), head(&stub), owner(queue) {}

  // ---- producers ----
  void push(DispatchNode* node) noexcept {
    node->next.store(nullptr, std::memory_order_relaxed);
    DispatchNode* previous = tail.exchange(node, std::memory_order_seq_cst);
    previous->next.store(node, std::memory_order_release);
  }
  void enqueue(DispatchNode* node) noexcept {
    push(node);
    // Pairs with the worker's announcement in park(): either the worker sees
    // the new tail, or this load sees it sleeping.
    if (state.load(std::memory_order_seq_cst) == kSleeping &&
        state.exchange(kRunning, std::memory_order_seq_cst) == kSleeping) {
      futexWake(&state, 1);
    }
  }

  // ---- worker ----
  // The oldest node, or null when the queue is empty or a producer is between
  // its exchange and its link.
  DispatchNode* pop() noexcept {
    DispatchNode* first = head;
    DispatchNode* next = first->next.load(std::memory_order_acquire);
    if (first == &stub) {
      if (!next) return nullptr;
      head = next;
      first = next;
      next = next->next.load(std::memory_order_acquire);
    }
    if (next) {
      head = next;
      return first;
    }
    if (first != tail.load(std::memory_order_acquire)) return nullptr;  // a push is under way
    push(&stub);
    next = first->next.load(std::memory_order_acquire);
    if (next) {
      head = next;
      return first;
    }
    return nullptr;
  }
  bool isEmpty() const noexcept {
    // The link of our own last node first: it changes only when a job arrives,
    // so spinning on it leaves the producers' tail alone.
    return !head->next.load(std::memory_order_acquire) && tail.load(std::memory_order_seq_cst) == head;
  }

  // Returns false when the worker should end (stopping and drained).
  bool park() noexcept {
    // Spin on the link a producer writes next, not on `tail`: a consumer that
    // keeps reading `tail` pulls its cache line away from the producers, and
    // every enqueue then pays a transfer for its exchange.
    for (int i = 0; i < kSpinsBeforeSleep; ++i) {
      if (head->next.load(std::memory_order_acquire)) return true;
      cpuRelax();
    }
    state.store(kSleeping, std::memory_order_seq_cst);
    if (!isEmpty()) {
      state.store(kRunning, std::memory_order_relaxed);
      return true;
    }
    if (stopping.load(std::memory_order_seq_cst)) return false;
    futexWait(&state, kSleeping);
    state.store(kRunning, std::memory_order_relaxed);
    return true;
  }

  void run() noexcept {
    RecycleBatches finished;
    for (;;) {
      if (DispatchNode* node = pop()) {
        tlCurrentQueue = owner.load(std::memory_order_relaxed);
        node->run(node);  // a throwing job ends the process here (noexcept)
        tlCurrentQueue = nullptr;
        finished.add(node);
        continue;
      }
      if (!isEmpty()) {
        cpuRelax();  // a producer is linking its node
        continue;
      }
      finished.flush();  // idle: give the nodes back before spinning and sleeping
      if (!park()) return;
    }
  }

  void stop() noexcept {
    stopping.store(true, std::memory_order_seq_cst);
    if (state.exchange(kRunning, std::memory_order_seq_cst) == kSleeping) futexWake(&state, 1);
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

PXDispatchQueue::PXDispatchQueue(std::string_view label)
    : label_(label), core_(std::make_shared<pxkit::internal::DispatchQueueCore>(this)) {
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

PXRef<PXDispatchQueue> PXDispatchQueue::create(std::string_view label) {
  return PXMake<PXDispatchQueue>(label);
}

PXDispatchQueue* PXDispatchQueue::current() noexcept {
  return tlCurrentQueue;
}

void PXDispatchQueue::enqueue(pxkit::internal::DispatchNode* node) noexcept {
  core_->enqueue(node);
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
  async([call, callable, &done] {
    call(callable);
    done.store(1, std::memory_order_release);
    futexWake(&done, 1);  // may reach a futex word already gone: a harmless spurious wake-up
  });
  while (done.load(std::memory_order_acquire) == 0) futexWait(&done, 0);
}
