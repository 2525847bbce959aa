#include <pxkit/objects/PXClock.h>
#include <time.h>

#include <algorithm>
#include <atomic>
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

void PXClock::useVirtualClock(PXDate date) {
  ClockState& s = state();
  std::lock_guard change(s.changeMutex);
  s.virtualNow.store(date.timeIntervalSinceReferenceDate(), std::memory_order_release);
  s.isVirtual.store(true, std::memory_order_release);
  notifyObservers(s);
}

void PXClock::useRealClock() {
  ClockState& s = state();
  std::lock_guard change(s.changeMutex);
  if (!s.isVirtual.exchange(false, std::memory_order_acq_rel)) return;
  notifyObservers(s);
}

void PXClock::setVirtualNow(PXDate date) {
  ClockState& s = state();
  std::lock_guard change(s.changeMutex);
  if (!s.isVirtual.load(std::memory_order_acquire)) return;
  s.virtualNow.store(date.timeIntervalSinceReferenceDate(), std::memory_order_release);
  notifyObservers(s);
}

void PXClock::advanceVirtualClock(double seconds) {
  ClockState& s = state();
  std::lock_guard change(s.changeMutex);
  if (!s.isVirtual.load(std::memory_order_acquire)) return;
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
