#include <pxkit/objects/PXClock.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace {

struct Observer {
  uint64_t token;
  std::shared_ptr<PXClock::ChangeObserver> callback;
};

// The clock's state. Reads are lock-free; changes are serialised by `changeMutex`,
// which is also held while observers run, so that removing an observer waits
// for a call in progress (it is recursive: an observer may remove itself).
struct ClockState {
  std::atomic<bool> isVirtual{false};
  std::atomic<double> virtualNow{0.0};
  // The monotonic clock: the virtual reading while the virtual clock is in
  // use, else CLOCK_MONOTONIC plus an offset that only grows (so that leaving
  // a virtual clock that ran ahead never takes the reading back). Written
  // under changeMutex, the offset before the switch that publishes it.
  std::atomic<double> virtualMonotonic{0.0};
  std::atomic<double> monotonicOffset{0.0};

  std::recursive_mutex changeMutex;
  std::mutex observersMutex;  // guards observers and nextToken
  std::vector<Observer> observers;
  uint64_t nextToken = 1;
};
static_assert(std::atomic<double>::is_always_lock_free);

ClockState& state() {
  // Never destroyed: run loops of exiting threads may still remove observers
  // while the process ends.
  static ClockState* s = new ClockState();
  return *s;
}

// Calls every observer; the caller holds changeMutex.
void notifyObservers(ClockState& s) {
  std::vector<Observer> snapshot;
  {
    std::lock_guard lock(s.observersMutex);
    snapshot = s.observers;
  }
  for (const Observer& observer : snapshot) {
    bool stillRegistered;
    {
      std::lock_guard lock(s.observersMutex);
      stillRegistered = std::any_of(s.observers.begin(), s.observers.end(),
                                    [&](const Observer& o) { return o.token == observer.token; });
    }
    if (stillRegistered) (*observer.callback)();
  }
}

double rawMonotonic() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Moves the virtual monotonic clock with a move of the virtual wall clock
// (forward only); the caller holds changeMutex.
void moveVirtualMonotonic(ClockState& s, double seconds) {
  if (seconds > 0.0 && std::isfinite(seconds))
    s.virtualMonotonic.store(s.virtualMonotonic.load(std::memory_order_acquire) + seconds,
                             std::memory_order_release);
}

}  // namespace

PXDate PXClock::now() noexcept {
  ClockState& s = state();
  if (s.isVirtual.load(std::memory_order_acquire))
    return PXDate(s.virtualNow.load(std::memory_order_acquire));
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return PXDate::dateWithTimeIntervalSince1970(static_cast<double>(ts.tv_sec) +
                                               static_cast<double>(ts.tv_nsec) * 1e-9);
}

bool PXClock::isVirtual() noexcept {
  return state().isVirtual.load(std::memory_order_acquire);
}

double PXClock::monotonicNow() noexcept {
  ClockState& s = state();
  if (s.isVirtual.load(std::memory_order_acquire)) return s.virtualMonotonic.load(std::memory_order_acquire);
  return rawMonotonic() + s.monotonicOffset.load(std::memory_order_acquire);
}

void PXClock::useVirtualClock(PXDate date) {
  ClockState& s = state();
  std::lock_guard change(s.changeMutex);
  s.virtualNow.store(date.timeIntervalSinceReferenceDate(), std::memory_order_release);
  // From the real clock, the monotonic clock goes on from the real reading;
  // from another virtual clock, it simply stays.
  if (!s.isVirtual.load(std::memory_order_acquire))
    s.virtualMonotonic.store(rawMonotonic() + s.monotonicOffset.load(std::memory_order_acquire),
                             std::memory_order_release);
  s.isVirtual.store(true, std::memory_order_release);
  notifyObservers(s);
}

void PXClock::useRealClock() {
  ClockState& s = state();
  std::lock_guard change(s.changeMutex);
  if (!s.isVirtual.load(std::memory_order_acquire)) return;
  // Resume the real monotonic clock no earlier than the virtual one stands.
  const double behind = s.virtualMonotonic.load(std::memory_order_acquire) - rawMonotonic();
  if (behind > s.monotonicOffset.load(std::memory_order_acquire))
    s.monotonicOffset.store(behind, std::memory_order_release);
  s.isVirtual.store(false, std::memory_order_release);
  notifyObservers(s);
}

void PXClock::setVirtualNow(PXDate date) {
  ClockState& s = state();
  std::lock_guard change(s.changeMutex);
  if (!s.isVirtual.load(std::memory_order_acquire)) return;
  const double to = date.timeIntervalSinceReferenceDate();
  moveVirtualMonotonic(s, to - s.virtualNow.load(std::memory_order_acquire));
  s.virtualNow.store(to, std::memory_order_release);
  notifyObservers(s);
}

void PXClock::advanceVirtualClock(double seconds) {
  ClockState& s = state();
  std::lock_guard change(s.changeMutex);
  if (!s.isVirtual.load(std::memory_order_acquire)) return;
  moveVirtualMonotonic(s, seconds);
  s.virtualNow.store(s.virtualNow.load(std::memory_order_acquire) + seconds, std::memory_order_release);
  notifyObservers(s);
}

uint64_t PXClock::addChangeObserver(ChangeObserver observer) {
  ClockState& s = state();
  std::lock_guard lock(s.observersMutex);
  uint64_t token = s.nextToken++;
  s.observers.push_back({token, std::make_shared<ChangeObserver>(std::move(observer))});
  return token;
}

void PXClock::removeChangeObserver(uint64_t token) {
  ClockState& s = state();
  // Waits for a notification in progress on another thread.
  std::lock_guard change(s.changeMutex);
  std::lock_guard lock(s.observersMutex);
  std::erase_if(s.observers, [token](const Observer& o) { return o.token == token; });
}
