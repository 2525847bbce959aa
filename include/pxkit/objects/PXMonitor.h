// PXKit — the recursive lock every object carries.
//
// PXObject::monitor() returns a PXMonitor: a recursive mutex that the owning
// thread may lock again, meant for short critical sections. Taking it when it is
// free, or again on the owning thread, is a few instructions with no system
// call; a thread that finds it held by another waits in the kernel (futex).
//
//   std::lock_guard lock(object->monitor());   // BasicLockable and Lockable
//   PXMonitorLock lock(object->monitor());     // the same, seen by -Wthread-safety
//
// Thread safety: any thread. Unlocking on a thread that does not hold it is an
// error (as for std::recursive_mutex).
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXThreadSafety.h>

#include <atomic>
#include <cstdint>

class PXKIT_EXPORT PX_CAPABILITY("monitor") PXMonitor {
 public:
  PXMonitor() noexcept = default;
  PXMonitor(const PXMonitor&) = delete;
  PXMonitor& operator=(const PXMonitor&) = delete;

  void lock() noexcept PX_ACQUIRE() {
    uintptr_t self = currentThread();
    if (owner_.load(std::memory_order_relaxed) == self) {
      ++depth_;
      return;
    }
    uint32_t expected = kFree;
    if (!state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
      lockContended();
    }
    owner_.store(self, std::memory_order_relaxed);
    depth_ = 1;
  }

  bool try_lock() noexcept PX_TRY_ACQUIRE(true) {
    uintptr_t self = currentThread();
    if (owner_.load(std::memory_order_relaxed) == self) {
      ++depth_;
      return true;
    }
    uint32_t expected = kFree;
    if (!state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
      return false;
    }
    owner_.store(self, std::memory_order_relaxed);
    depth_ = 1;
    return true;
  }

  void unlock() noexcept PX_RELEASE() {
    if (--depth_ > 0) return;
    owner_.store(0, std::memory_order_relaxed);
    if (state_.exchange(kFree, std::memory_order_release) == kLockedWithWaiters) wakeOne();
  }

  // Whether the calling thread holds the monitor.
  bool isHeldByCurrentThread() const noexcept {
    return owner_.load(std::memory_order_relaxed) == currentThread();
  }

 private:
  enum : uint32_t { kFree = 0, kLocked = 1, kLockedWithWaiters = 2 };

  // A value unique to each live thread: the address of a thread-local byte.
  static uintptr_t currentThread() noexcept {
    static thread_local char marker;
    return reinterpret_cast<uintptr_t>(&marker);
  }
  void lockContended() noexcept;
  void wakeOne() noexcept;

  std::atomic<uint32_t> state_{kFree};
  // Written only by the holder; read by any thread, which can only ever see its
  // own id there if it holds the monitor.
  std::atomic<uintptr_t> owner_{0};
  uint32_t depth_ = 0;  // the holder's count
};

// Holds a monitor for a scope, as std::lock_guard does, in a form the
// thread-safety analysis understands.
class PX_SCOPED_CAPABILITY PXMonitorLock {
 public:
  explicit PXMonitorLock(PXMonitor& monitor) noexcept PX_ACQUIRE(monitor) : monitor_(monitor) {
    monitor_.lock();
  }
  ~PXMonitorLock() PX_RELEASE() { monitor_.unlock(); }
  PXMonitorLock(const PXMonitorLock&) = delete;
  PXMonitorLock& operator=(const PXMonitorLock&) = delete;

 private:
  PXMonitor& monitor_;
};
