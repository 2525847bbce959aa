#include <linux/futex.h>
#include <pxkit/objects/PXMonitor.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

void futex(std::atomic<uint32_t>* word, int op, uint32_t value) noexcept {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op | FUTEX_PRIVATE_FLAG, value, nullptr, nullptr, 0);
}

}  // namespace

// Held by another thread: mark the lock as having waiters and sleep until it is
// handed back (the classic three-state futex mutex).
void PXMonitor::lockContended() noexcept {
  uint32_t state = state_.exchange(kLockedWithWaiters, std::memory_order_acquire);
  while (state != kFree) {
    futex(&state_, FUTEX_WAIT, kLockedWithWaiters);
    state = state_.exchange(kLockedWithWaiters, std::memory_order_acquire);
  }
}

void PXMonitor::wakeOne() noexcept {
  futex(&state_, FUTEX_WAKE, 1);
}
