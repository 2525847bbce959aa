#include "platform/internal/FdWatch.h"

#include <algorithm>
#include <new>
#include <utility>

#include "platform/internal/RunLoopContext.h"

// A watch is a GSource of ours with one unix fd. Removing a source inside its
// own dispatch is safe with GLib: the context holds a reference to every
// source it dispatches, so the source (and the handler stored in it) is
// finalized only after the dispatch returns, and a destroyed source that was
// ready in the same iteration is skipped.

namespace pxkit::internal {
namespace {

struct FdSource {
  GSource base;  // first: GLib allocates the whole struct
  int fd;
  unsigned events;
  gpointer tag;  // the fd's poll record; null while no event is watched
  FdWatch::Handler* handler;
};

FdSource* fdSource(GSource* source) noexcept {
  return reinterpret_cast<FdSource*>(source);
}

GIOCondition conditionsFor(unsigned events) noexcept {
  unsigned conditions = 0;
  if (events & kFdReadable) conditions |= G_IO_IN;
  if (events & kFdWritable) conditions |= G_IO_OUT;
  if (events & kFdError) conditions |= G_IO_ERR;
  return static_cast<GIOCondition>(conditions);
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

gboolean fdDispatch(GSource* source, GSourceFunc, gpointer) {
  FdSource* s = fdSource(source);
  if (!s->tag) return G_SOURCE_CONTINUE;
  const unsigned ready = eventsFrom(g_source_query_unix_fd(source, s->tag), s->events);
  // The handler lives until finalize, which cannot come before this returns.
  if (ready) (*s->handler)(ready);
  return G_SOURCE_CONTINUE;
}

void fdFinalize(GSource* source) {
  FdSource* s = fdSource(source);
  delete s->handler;
  s->handler = nullptr;
}

GSourceFuncs kFdSourceFuncs = {nullptr, nullptr, fdDispatch, fdFinalize, nullptr, nullptr};

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
  s->fd = fd;
  s->events = 0;
  s->tag = nullptr;
  s->handler = new Handler(std::move(handler));
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_static_name(source, "FdWatch");
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
  s->events = events;
  if (events == 0) {
    // Not polled at all: a hang-up would otherwise keep waking a watch that
    // asked for nothing.
    if (s->tag) g_source_remove_unix_fd(source_, std::exchange(s->tag, nullptr));
  } else if (s->tag) {
    g_source_modify_unix_fd(source_, s->tag, conditionsFor(events));
  } else {
    s->tag = g_source_add_unix_fd(source_, s->fd, conditionsFor(events));
  }
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
  // virtual clock on again.
  if (context->pendingIO.fetch_sub(1, std::memory_order_acq_rel) == 1) g_main_context_wakeup(context->glib);
}

bool hasPendingIO(PXRunLoop* loop) noexcept {
  return loop && loop->context()->pendingIO.load(std::memory_order_acquire) > 0;
}

// ---- RunLoopTimeout -------------------------------------------------------------------

RunLoopTimeout::RunLoopTimeout() noexcept = default;

RunLoopTimeout RunLoopTimeout::after(PXRunLoop* loop, int64_t milliseconds, std::function<void()> fire) {
  if (!loop || !fire) return RunLoopTimeout();
  const auto interval = static_cast<guint>(std::clamp<int64_t>(milliseconds, 0, G_MAXUINT));
  GSource* source = g_timeout_source_new(interval);
  g_source_set_static_name(source, "RunLoopTimeout");
  // GLib keeps the callback data alive through a dispatch even when the
  // callback destroys its own source, so `fire` may reset its handle.
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(fire)),
      [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
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

void RunLoopTimeout::reset() {
  release(source_);
}

RunLoopTimeout::operator bool() const noexcept {
  return source_ && !g_source_is_destroyed(source_);
}

}  // namespace pxkit::internal
