#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXTimer.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <limits>
#include <mutex>
#include <set>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/RunLoopTimers.h"

// Timers and their run-loop source. One lock guards every timer's scheduling
// state and every source's ordered set: timers change rarely, and one lock
// keeps setFireDate/invalidate from any thread simple and race-free.

namespace pxkit::internal {
namespace {

std::mutex& timersMutex() {
  static std::mutex* m = new std::mutex();  // never destroyed: timers may outlive static destruction
  return *m;
}

uint64_t nextSequence() {
  static std::atomic<uint64_t> counter{0};
  return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

struct TimerKey {
  double date;
  uint64_t sequence;
  PXTimer* timer;
  bool operator<(const TimerKey& other) const noexcept {
    return date < other.date || (date == other.date && sequence < other.sequence);
  }
};

// With the real clock a timerfd expiry can be read a hair before the double
// deadline it was armed for; a microsecond of slack avoids spinning on it.
constexpr double kRealClockSlack = 1e-6;

bool isDue(double date, double now) noexcept {
  return date <= now + (PXClock::isVirtual() ? 0.0 : kRealClockSlack);
}

double nowSeconds() noexcept {
  return PXClock::now().timeIntervalSinceReferenceDate();
}

}  // namespace

// The C++ side of a timer source. Fields marked (lock) are guarded by timersMutex().
struct TimerState {
  GMainContext* context = nullptr;
  PXRunLoop* loop = nullptr;
  std::set<TimerKey> armed;            // (lock) valid timers waiting for their date
  std::unordered_set<PXTimer*> owned;  // (lock) each retained once, until invalidated
  // The loop's thread only:
  int fd = -1;
  gpointer fdTag = nullptr;
  double armedDeadline = std::numeric_limits<double>::quiet_NaN();
  bool armFailureLogged = false;  // one log line per run of failures, not one per iteration
  uint64_t clockObserver = 0;
};

struct TimerSource {
  GSource base;  // first: GLib allocates the whole struct
  TimerState* state;
};

namespace {

TimerState& stateOf(GSource* source) {
  return *reinterpret_cast<TimerSource*>(source)->state;
}

// Points the timerfd at `deadline` (seconds since the reference date), or
// disarms it with NaN. With TFD_TIMER_CANCEL_ON_SET a jump of the wall clock
// (settimeofday, NTP step, resume) makes the fd readable with ECANCELED.
// Returns whether the fd is set as asked; false with no fd or a failed call
// (logged once per run of failures).
bool armTimerFd(TimerState& s, double deadline) {
  if (s.fd < 0) return false;
  if (std::isnan(deadline) && std::isnan(s.armedDeadline)) return true;
  if (deadline == s.armedDeadline) return true;
  itimerspec spec{};
  if (!std::isnan(deadline)) {
    double unix = std::max(deadline + kPXTimeIntervalSince1970, 1.0);
    double whole = std::floor(unix);
    auto nanos = static_cast<long>(std::ceil((unix - whole) * 1e9));  // never early
    auto seconds = static_cast<time_t>(whole);
    if (nanos >= 1000000000L) {
      seconds += 1;
      nanos -= 1000000000L;
    }
    spec.it_value.tv_sec = seconds;
    spec.it_value.tv_nsec = nanos;
  }
  if (timerfd_settime(s.fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &spec, nullptr) != 0) {
    if (!s.armFailureLogged)
      PXLog("PXTimer: could not arm the timer fd (%s); waking by poll timeout instead", g_strerror(errno));
    s.armFailureLogged = true;
    s.armedDeadline = std::numeric_limits<double>::quiet_NaN();
    return false;
  }
  s.armFailureLogged = false;
  s.armedDeadline = deadline;
  return true;
}

// The poll timeout (milliseconds, rounded up) that wakes the loop at
// `deadline` when no timerfd can: measured on the monotonic clock, so a jump
// of the wall clock or a suspend makes it late or early; the loop re-reads the
// wall clock when it wakes and waits again if need be.
gint pollTimeoutFor(double deadline, double now) {
  const double milliseconds = std::ceil((deadline - now) * 1000.0);
  return static_cast<gint>(std::clamp(milliseconds, 1.0, static_cast<double>(INT_MAX)));
}

double earliestLocked(const TimerState& s) {
  return s.armed.empty() ? std::numeric_limits<double>::infinity() : s.armed.begin()->date;
}

gboolean prepare(GSource* source, gint* timeout) {
  TimerState& s = stateOf(source);
  *timeout = -1;
  double earliest;
  {
    std::lock_guard lock(timersMutex());
    earliest = earliestLocked(s);
  }
  const double now = nowSeconds();
  if (isDue(earliest, now)) {
    *timeout = 0;
    return TRUE;
  }
  const bool useFd = !PXClock::isVirtual() && std::isfinite(earliest);
  const bool armed = armTimerFd(s, useFd ? earliest : std::numeric_limits<double>::quiet_NaN());
  if (useFd && !armed) *timeout = pollTimeoutFor(earliest, now);
  return FALSE;
}

gboolean check(GSource* source) {
  TimerState& s = stateOf(source);
  if (s.fd >= 0 && (g_source_query_unix_fd(source, s.fdTag) & G_IO_IN)) {
    uint64_t expirations = 0;
    // Either the deadline passed or (ECANCELED) the wall clock was set: in both
    // cases the fd is spent; prepare arms it again.
    if (read(s.fd, &expirations, sizeof expirations) >= 0 || errno == ECANCELED) {
      s.armedDeadline = std::numeric_limits<double>::quiet_NaN();
    } else if (errno != EAGAIN && errno != EINTR) {
      // Arm afresh at the next prepare rather than trust a fd in an unknown state.
      PXLog("PXTimer: could not read the timer fd (%s)", g_strerror(errno));
      s.armedDeadline = std::numeric_limits<double>::quiet_NaN();
    }
  }
  std::lock_guard lock(timersMutex());
  return isDue(earliestLocked(s), nowSeconds());
}

void fireScheduled(TimerState& s, PXTimer* timer, double now);

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
  TimerState& s = stateOf(source);
  const double now = nowSeconds();
  // Fire what was due when the dispatch began, in date order; timers that a
  // firing makes due again wait for the next iteration, so a timer that keeps
  // moving its date into the past cannot hold the loop.
  std::vector<PXRef<PXTimer>> due;
  {
    std::lock_guard lock(timersMutex());
    for (const TimerKey& key : s.armed) {
      if (!isDue(key.date, now)) break;
      due.emplace_back(key.timer);
    }
  }
  for (const PXRef<PXTimer>& timer : due) fireScheduled(s, timer.get(), now);
  return G_SOURCE_CONTINUE;
}

void finalize(GSource* source) {
  TimerSource* timerSource = reinterpret_cast<TimerSource*>(source);
  if (timerSource->state->fd >= 0) close(timerSource->state->fd);
  delete timerSource->state;
  timerSource->state = nullptr;
}

GSourceFuncs kTimerSourceFuncs = {prepare, check, dispatch, finalize, nullptr, nullptr};

}  // namespace

// Friend of PXTimer: everything that touches a timer's guarded fields.
struct TimerAccess {
  static TimerKey keyOf(PXTimer* t) {
    return {t->fireDate_.timeIntervalSinceReferenceDate(), t->sequence_, t};
  }

  // Takes the target and action of an invalid timer that is not firing (lock held);
  // the caller releases them outside the lock.
  static void takeResources(PXTimer* t, PXObject*& target, PXTimer::Action& action) {
    if (t->valid_ || t->firing_ > 0) return;
    target = std::exchange(t->target_, nullptr);
    if (target == t) target = nullptr;  // a timer does not retain itself
    action = std::move(t->action_);
    t->action_ = nullptr;
  }

  static void releaseResources(PXObject* target, PXTimer::Action& action) {
    action = nullptr;
    if (target) target->release();
  }

  static void finishFiring(PXTimer* t) {
    PXObject* target = nullptr;
    PXTimer::Action action;
    {
      std::lock_guard lock(timersMutex());
      --t->firing_;
      takeResources(t, target, action);
    }
    releaseResources(target, action);
  }

  static void fire(TimerState& s, PXTimer* t, double now) {
    PXTimer::Action action;
    bool repeats;
    {
      std::lock_guard lock(timersMutex());
      if (!t->valid_ || !t->source_ || t->source_->state != &s) return;
      if (!isDue(t->fireDate_.timeIntervalSinceReferenceDate(), now)) return;
      s.armed.erase(keyOf(t));
      repeats = t->repeats_;
      if (repeats) {
        // Keep the rhythm from the fire date, skipping the beats that were
        // missed: one firing for a late timer, never a burst.
        const double date = t->fireDate_.timeIntervalSinceReferenceDate();
        const double interval = t->interval_;
        double next = date + interval;
        if (next <= now) next = date + interval * (std::floor((now - date) / interval) + 1.0);
        while (next <= now) next += interval;
        t->fireDate_ = PXDate(next);
        s.armed.insert(keyOf(t));
      }
      action = t->action_;
      ++t->firing_;
    }
    if (action) action(t);
    finishFiring(t);
    if (!repeats) t->invalidate();
  }

  static void add(TimerSource* source, PXTimer* t) {
    pxkit::glib::MainContext wake;
    {
      std::lock_guard lock(timersMutex());
      if (!t->valid_ || t->source_) return;
      TimerState& s = *source->state;
      t->source_ = source;
      t->runLoop_ = s.loop;
      t->sequence_ = nextSequence();
      t->retain();
      s.owned.insert(t);
      s.armed.insert(keyOf(t));
      wake = pxkit::glib::ref(s.context);
    }
    g_main_context_wakeup(wake.get());
  }

  static void detach(TimerSource* source) {
    TimerState& s = *source->state;
    PXClock::removeChangeObserver(s.clockObserver);
    struct Garbage {
      PXTimer* timer;
      PXObject* target = nullptr;
      PXTimer::Action action;
    };
    std::vector<Garbage> garbage;
    {
      std::lock_guard lock(timersMutex());
      for (PXTimer* t : s.owned) {
        t->valid_ = false;
        t->source_ = nullptr;
        t->runLoop_ = nullptr;
        Garbage g{t, nullptr, nullptr};
        takeResources(t, g.target, g.action);
        garbage.push_back(std::move(g));
      }
      s.owned.clear();
      s.armed.clear();
    }
    for (Garbage& g : garbage) {
      releaseResources(g.target, g.action);
      g.timer->release();
    }
    g_source_destroy(&source->base);
    g_source_unref(&source->base);
  }
};

namespace {
void fireScheduled(TimerState& s, PXTimer* timer, double now) {
  TimerAccess::fire(s, timer, now);
}
}  // namespace

TimerSource* timerSourceAttach(GMainContext* context, PXRunLoop* loop) {
  GSource* base = g_source_new(&kTimerSourceFuncs, sizeof(TimerSource));
  auto* source = reinterpret_cast<TimerSource*>(base);
  source->state = new TimerState();
  TimerState& s = *source->state;
  s.context = context;
  s.loop = loop;
  s.fd = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  if (s.fd >= 0) {
    s.fdTag = g_source_add_unix_fd(base, s.fd, G_IO_IN);
  } else {
    // Timers still fire, woken by poll timeouts on the monotonic clock (see prepare).
    PXLog("PXTimer: could not create a timer fd (%s); waking by poll timeout instead", g_strerror(errno));
  }
  g_source_set_priority(base, G_PRIORITY_DEFAULT);
  g_source_set_can_recurse(base, TRUE);  // timers fire in nested runs of the loop too
  g_source_set_static_name(base, "PXTimer");
  // A move of the virtual clock (or a switch of clocks) may make timers due:
  // wake the loop so that prepare() looks again.
  s.clockObserver = PXClock::addChangeObserver([context] { g_main_context_wakeup(context); });
  g_source_attach(base, context);
  return source;
}

void timerSourceDetach(TimerSource* source) {
  TimerAccess::detach(source);
}

void timerSourceAdd(TimerSource* source, PXTimer* timer) {
  TimerAccess::add(source, timer);
}

std::optional<double> timerSourceEarliestDate(TimerSource* source) {
  std::lock_guard lock(timersMutex());
  const TimerState& s = *source->state;
  if (s.armed.empty()) return std::nullopt;
  return s.armed.begin()->date;
}

}  // namespace pxkit::internal

using pxkit::internal::TimerAccess;
using pxkit::internal::timersMutex;

// ---- PXTimer ------------------------------------------------------------------------

PX_DEFINE_CLASS(PXTimer, PXObject, [](PXClassBuilder<PXTimer>& c) {
  c.computed("fireDate", &PXTimer::fireDate, &PXTimer::setFireDate);
  c.computed("timeInterval", &PXTimer::timeInterval);
  c.computed("userInfo", &PXTimer::userInfo);
  c.computed("valid", &PXTimer::isValid);
})

PXTimer::PXTimer(PXDate fireDate, double interval, PXObject* target, Action action, PXValue userInfo,
                 bool repeats)
    : fireDate_(fireDate),
      interval_(repeats ? (interval > 0.0 ? interval : 0.0001) : 0.0),
      repeats_(repeats),
      target_(target),
      action_(std::move(action)),
      userInfo_(std::move(userInfo)) {
  if (target_ && target_ != this) target_->retain();
}

PXTimer::~PXTimer() {
  if (target_ && target_ != this) target_->release();
}

PXRef<PXTimer> PXTimer::timerWithFireDate(PXDate fireDate, double interval, PXObject* target, Action action,
                                          PXValue userInfo, bool repeats) {
  return PXMake<PXTimer>(fireDate, interval, target, std::move(action), std::move(userInfo), repeats);
}

PXRef<PXTimer> PXTimer::timerWithTimeInterval(double seconds, PXObject* target, Action action,
                                              PXValue userInfo, bool repeats) {
  return timerWithFireDate(PXDate::now() + seconds, seconds, target, std::move(action), std::move(userInfo),
                           repeats);
}

PXRef<PXTimer> PXTimer::scheduledTimerWithTimeInterval(double seconds, PXObject* target, Action action,
                                                       PXValue userInfo, bool repeats) {
  PXRef<PXTimer> timer =
      timerWithTimeInterval(seconds, target, std::move(action), std::move(userInfo), repeats);
  PXRunLoop::current()->addTimer(timer.get(), kPXDefaultRunLoopMode);
  return timer;
}

PXRef<PXTimer> PXTimer::timerWithTimeInterval(double seconds, bool repeats, Action block) {
  return timerWithTimeInterval(seconds, nullptr, std::move(block), PXValue(), repeats);
}

PXRef<PXTimer> PXTimer::scheduledTimerWithTimeInterval(double seconds, bool repeats, Action block) {
  return scheduledTimerWithTimeInterval(seconds, nullptr, std::move(block), PXValue(), repeats);
}

void PXTimer::addToRunLoop(PXRunLoop* runLoop, std::string_view mode) {
  if (runLoop) runLoop->addTimer(this, mode);
}

void PXTimer::fire() {
  Action action;
  {
    std::lock_guard lock(timersMutex());
    if (!valid_) return;
    action = action_;
    ++firing_;
  }
  PXRef<PXTimer> keep(this);  // the action may invalidate the last other reference
  if (action) action(this);
  TimerAccess::finishFiring(this);
  if (!repeats_) invalidate();
}

void PXTimer::invalidate() {
  PXObject* target = nullptr;
  Action action;
  bool wasOwned = false;
  {
    std::lock_guard lock(timersMutex());
    if (!valid_) return;
    valid_ = false;
    if (source_) {
      source_->state->armed.erase(TimerAccess::keyOf(this));
      source_->state->owned.erase(this);
      source_ = nullptr;
      wasOwned = true;
    }
    TimerAccess::takeResources(this, target, action);
  }
  TimerAccess::releaseResources(target, action);
  if (wasOwned) release();  // the run loop's reference; may destroy this timer: last
}

bool PXTimer::isValid() const {
  std::lock_guard lock(timersMutex());
  return valid_;
}

PXDate PXTimer::fireDate() const {
  std::lock_guard lock(timersMutex());
  return fireDate_;
}

void PXTimer::setFireDate(PXDate date) {
  pxkit::glib::MainContext wake;
  {
    std::lock_guard lock(timersMutex());
    if (!valid_) return;
    if (source_) {
      source_->state->armed.erase(TimerAccess::keyOf(this));
      fireDate_ = date;
      source_->state->armed.insert(TimerAccess::keyOf(this));
      wake = pxkit::glib::ref(source_->state->context);
    } else {
      fireDate_ = date;
    }
  }
  // The loop measures the remaining time afresh from the clock in its next prepare().
  if (wake) g_main_context_wakeup(wake.get());
}

double PXTimer::timeInterval() const {
  return interval_;
}

bool PXTimer::repeats() const {
  return repeats_;
}

PXObject* PXTimer::target() const {
  std::lock_guard lock(timersMutex());
  return target_;
}

PXValue PXTimer::userInfo() const {
  return userInfo_;
}

PXRunLoop* PXTimer::runLoop() const {
  std::lock_guard lock(timersMutex());
  return runLoop_;
}
