#include "platform/internal/FdWatch.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#include "platform/internal/RunLoopContext.h"

// A watch is a GSource of ours with one poll record of its own. Removing a
// source inside its own dispatch is safe with GLib: the context holds a reference to every
// source it dispatches, so the source (and the handler stored in it) is
// finalized only after the dispatch returns, and a destroyed source that was
// ready in the same iteration is skipped.

namespace pxkit::internal {
namespace {

struct FdSource {
  GSource base;  // first: GLib allocates the whole struct
  // Our own poll record. Its events are changed in place on the loop's thread
  // (GLib reads them afresh each time it polls), so a change neither wakes the
  // loop nor costs a call; only putting the record in the poll set or taking
  // it out does.
  GPollFD poll;
  bool polled;       // the record is in the source's poll set
  bool dispatching;  // the handler runs: polled for nothing meanwhile
  unsigned events;
  FdWatch::Handler* handler;
};

FdSource* fdSource(GSource* source) noexcept {
  return reinterpret_cast<FdSource*>(source);
}

gushort conditionsFor(unsigned events) noexcept {
  unsigned conditions = 0;
  if (events & kFdReadable) conditions |= G_IO_IN;
  if (events & kFdWritable) conditions |= G_IO_OUT;
  if (events & kFdError) conditions |= G_IO_ERR;
  return static_cast<gushort>(conditions);
}

unsigned eventsFrom(unsigned revents, unsigned watched) noexcept {
  unsigned ready = 0;
  if (revents & (G_IO_IN | G_IO_PRI)) ready |= kFdReadable;
  if (revents & G_IO_OUT) ready |= kFdWritable;
  if (revents & (G_IO_ERR | G_IO_NVAL)) ready |= kFdError;
  // A hang-up is read as the end of the stream when reading is watched.
  if (revents & G_IO_HUP) ready |= (watched & kFdReadable) ? kFdReadable : kFdError;
  return ready & (watched | kFdError);
}

// Puts the record's events in force: none while the handler runs or when none
// are watched. The record stays in the poll set then (a hang-up, an error or a
// closed fd is still reported, and takes it out: fdDispatch).
void applyEvents(GSource* source) {
  FdSource* s = fdSource(source);
  s->poll.events = s->dispatching ? 0 : conditionsFor(s->events);
  if (s->poll.events != 0 && !s->polled && !g_source_is_destroyed(source)) {
    g_source_add_poll(source, &s->poll);
    s->polled = true;
  }
}

gboolean fdCheck(GSource* source) {
  const FdSource* s = fdSource(source);
  return s->polled && (s->poll.revents & (s->poll.events | G_IO_ERR | G_IO_HUP | G_IO_NVAL)) != 0;
}

// The source may recurse (GLib would otherwise take its record out of the poll
// set for each dispatch and put it back after, waking the loop every time); it
// keeps its handler from being re-entered itself, by polling for nothing while
// the handler runs.
gboolean fdDispatch(GSource* source, GSourceFunc, gpointer) {
  FdSource* s = fdSource(source);
  const unsigned revents = std::exchange(s->poll.revents, 0);
  if (s->poll.events == 0) {
    // Polled for nothing (idle, or the handler runs), and the fd hung up,
    // failed or was closed: out of the poll set until events are set again,
    // or the loop would spin on it.
    if (s->polled) {
      g_source_remove_poll(source, &s->poll);
      s->polled = false;
    }
    return G_SOURCE_CONTINUE;
  }
  const unsigned ready = eventsFrom(revents, s->events);
  if (!ready) return G_SOURCE_CONTINUE;
  s->dispatching = true;
  applyEvents(source);
  // The handler lives until finalize, which cannot come before this returns;
  // so does the source, even when the handler resets its watch.
  (*s->handler)(ready);
  s->dispatching = false;
  applyEvents(source);
  return G_SOURCE_CONTINUE;
}

void fdFinalize(GSource* source) {
  FdSource* s = fdSource(source);
  delete s->handler;
  s->handler = nullptr;
}

GSourceFuncs kFdSourceFuncs = {nullptr, fdCheck, fdDispatch, fdFinalize, nullptr, nullptr};

// Destroys and drops a source held by a handle; null does nothing.
void release(GSource*& source) noexcept {
  if (GSource* s = std::exchange(source, nullptr)) {
    g_source_destroy(s);
    g_source_unref(s);
  }
}

}  // namespace

// ---- FdWatch ------------------------------------------------------------------------

FdWatch::FdWatch() noexcept = default;

FdWatch FdWatch::watch(PXRunLoop* loop, int fd, unsigned events, Handler handler) {
  if (!loop || fd < 0 || !handler) return FdWatch();
  GSource* source = g_source_new(&kFdSourceFuncs, sizeof(FdSource));
  FdSource* s = fdSource(source);
  s->poll = GPollFD{fd, 0, 0};
  s->polled = false;
  s->dispatching = false;
  s->events = 0;
  s->handler = new Handler(std::move(handler));
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_static_name(source, "FdWatch");
  g_source_set_can_recurse(source, TRUE);  // see fdDispatch
  FdWatch watch(source);
  watch.setEvents(events);
  g_source_attach(source, loop->context()->glib);
  return watch;
}

FdWatch::FdWatch(FdWatch&& other) noexcept : source_(std::exchange(other.source_, nullptr)) {}

FdWatch& FdWatch::operator=(FdWatch&& other) noexcept {
  if (this != &other) {
    GSource* old = std::exchange(source_, std::exchange(other.source_, nullptr));
    release(old);
  }
  return *this;
}

FdWatch::~FdWatch() {
  release(source_);
}

void FdWatch::setEvents(unsigned events) {
  if (!source_) return;
  FdSource* s = fdSource(source_);
  events &= kFdReadable | kFdWritable | kFdError;
  if (events == s->events) return;
  s->events = events;
  // What the last poll saw was asked for other events, or for none: for a
  // closed fd whose number is in use again, say. The next poll asks afresh.
  s->poll.revents = 0;
  applyEvents(source_);
}

unsigned FdWatch::events() const noexcept {
  return source_ ? fdSource(source_)->events : 0;
}

void FdWatch::reset() {
  release(source_);
}

FdWatch::operator bool() const noexcept {
  return source_ != nullptr;
}

// ---- PendingIO ----------------------------------------------------------------------

PendingIO::PendingIO(PXRunLoop* loop) : loop_(loop) {
  if (loop_) loop_->context()->pendingIO.fetch_add(1, std::memory_order_acq_rel);
}

PendingIO& PendingIO::operator=(PendingIO&& other) noexcept {
  if (this != &other) {
    reset();
    loop_ = std::move(other.loop_);
  }
  return *this;
}

PendingIO::~PendingIO() {
  reset();
}

void PendingIO::reset() {
  PXRef<PXRunLoop> loop = std::move(loop_);  // leaves loop_ empty
  if (!loop) return;
  RunLoopContext* context = loop->context();
  // The last one wakes a run that waits for I/O, so that it may move the
  // virtual clock on again. Inside an iteration on the loop's thread no run
  // waits: the one under way looks at the count again when the iteration ends.
  if (context->pendingIO.fetch_sub(1, std::memory_order_acq_rel) == 1 &&
      !g_main_context_is_owner(context->glib)) {
    g_main_context_wakeup(context->glib);
  }
}

bool hasPendingIO(PXRunLoop* loop) noexcept {
  return loop && loop->context()->pendingIO.load(std::memory_order_acquire) > 0;
}

// ---- RunLoopTimeout -------------------------------------------------------------------

namespace {

// A timeout is a GSource of ours that keeps its date itself, read each time
// the loop prepares to wait: moving the date on the loop's thread needs no
// wake-up, and one source serves a timer that is moved at every call.
struct TimeoutSource {
  GSource base;                  // first: GLib allocates the whole struct
  std::atomic<gint64> deadline;  // monotonic microseconds; -1: not armed
  std::function<void()>* fire;
};

TimeoutSource* timeoutSource(GSource* source) noexcept {
  return reinterpret_cast<TimeoutSource*>(source);
}

gboolean timeoutPrepare(GSource* source, gint* timeout) {
  const gint64 deadline = timeoutSource(source)->deadline.load(std::memory_order_relaxed);
  if (deadline < 0) {
    *timeout = -1;
    return FALSE;
  }
  const gint64 now = g_source_get_time(source);
  if (now >= deadline) {
    *timeout = 0;
    return TRUE;
  }
  *timeout = static_cast<gint>(std::min<gint64>((deadline - now + 999) / 1000, G_MAXINT));
  return FALSE;
}

gboolean timeoutCheck(GSource* source) {
  const gint64 deadline = timeoutSource(source)->deadline.load(std::memory_order_relaxed);
  return deadline >= 0 && g_source_get_time(source) >= deadline;
}

gboolean timeoutDispatch(GSource* source, GSourceFunc, gpointer) {
  TimeoutSource* s = timeoutSource(source);
  s->deadline.store(-1, std::memory_order_relaxed);
  // `fire` lives until finalize, which cannot come before this returns.
  (*s->fire)();
  return G_SOURCE_CONTINUE;
}

void timeoutFinalize(GSource* source) {
  TimeoutSource* s = timeoutSource(source);
  delete s->fire;
  s->fire = nullptr;
  s->deadline.~atomic();
}

GSourceFuncs kTimeoutSourceFuncs = {timeoutPrepare,  timeoutCheck, timeoutDispatch,
                                    timeoutFinalize, nullptr,      nullptr};

gint64 deadlineAfter(int64_t milliseconds) noexcept {
  const int64_t clamped = std::clamp<int64_t>(milliseconds, 0, G_MAXINT64 / 2000);
  return g_get_monotonic_time() + clamped * 1000;
}

}  // namespace

RunLoopTimeout::RunLoopTimeout() noexcept = default;

RunLoopTimeout RunLoopTimeout::after(PXRunLoop* loop, int64_t milliseconds, std::function<void()> fire) {
  if (!loop || !fire) return RunLoopTimeout();
  GSource* source = g_source_new(&kTimeoutSourceFuncs, sizeof(TimeoutSource));
  TimeoutSource* s = timeoutSource(source);
  new (&s->deadline) std::atomic<gint64>(deadlineAfter(milliseconds));
  s->fire = new std::function<void()>(std::move(fire));
  g_source_set_static_name(source, "RunLoopTimeout");
  g_source_attach(source, loop->context()->glib);
  return RunLoopTimeout(source);
}

RunLoopTimeout::RunLoopTimeout(RunLoopTimeout&& other) noexcept
    : source_(std::exchange(other.source_, nullptr)) {}

RunLoopTimeout& RunLoopTimeout::operator=(RunLoopTimeout&& other) noexcept {
  if (this != &other) {
    GSource* old = std::exchange(source_, std::exchange(other.source_, nullptr));
    release(old);
  }
  return *this;
}

RunLoopTimeout::~RunLoopTimeout() {
  release(source_);
}

bool RunLoopTimeout::rearm(int64_t milliseconds) {
  if (!source_ || g_source_is_destroyed(source_)) return false;
  timeoutSource(source_)->deadline.store(deadlineAfter(milliseconds), std::memory_order_relaxed);
  return true;
}

void RunLoopTimeout::disarm() {
  if (source_) timeoutSource(source_)->deadline.store(-1, std::memory_order_relaxed);
}

void RunLoopTimeout::reset() {
  release(source_);
}

RunLoopTimeout::operator bool() const noexcept {
  return source_ && !g_source_is_destroyed(source_) &&
         timeoutSource(source_)->deadline.load(std::memory_order_relaxed) >= 0;
}

}  // namespace pxkit::internal
