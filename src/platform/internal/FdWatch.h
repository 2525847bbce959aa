// File-descriptor watches, pending I/O and real-time timeouts on a run loop
// (platform layer only).
//
// What an I/O client driven by a run loop needs (an HTTP client on a curl
// multi handle, a device monitor, a D-Bus connection): a source per file
// descriptor that calls back when the fd is ready, a one-shot timeout on the
// library's own (real, monotonic) time, and a way to tell the virtual clock
// of the tests that an answer is on its way.
//
//   FdWatch watch = FdWatch::watch(loop, fd, kFdReadable, [&](unsigned ready) {
//     if (ready & kFdReadable) readSome(fd);        // on the loop's thread
//     if (done) watch.reset();                      // fine inside the handler
//   });
//   PendingIO inFlight(loop);                       // until the answer is read
//   RunLoopTimeout timeout = RunLoopTimeout::after(loop, 5000, [&] { giveUp(); });
//
// All three are move-only RAII handles: destroying one removes what it stands
// for. None owns the file descriptor: reset the watch before closing the fd.
#pragma once

#include <glib.h>
#include <pxkit/platform/PXRunLoop.h>

#include <cstdint>
#include <functional>

namespace pxkit::internal {

// What a watch waits for and what its handler is told (bit set).
enum FdEvent : unsigned {
  kFdReadable = 1u << 0,  // data to read, or the peer hung up (a read then returns 0 or the error)
  kFdWritable = 1u << 1,  // room to write
  kFdError = 1u << 2,     // an error condition on the fd (POLLERR), or a closed fd (POLLNVAL)
};

// A watch of one file descriptor on a run loop's context.
//
// The handler runs on the loop's thread, in an iteration of the loop, with the
// events that are ready among those watched; an error is reported whenever it
// occurs (and a hang-up as kFdError when reading is not watched), whether
// asked for or not. A watch with no events calls nothing: it keeps its place
// in the poll set, so that setting events again costs no wake-up of the loop,
// until the fd hangs up, fails or is closed (one wake-up), and leaves it then.
// Changing events between non-zero sets never wakes the loop. The handler is
// not re-entered: while it runs, a nested run of the loop does not call it
// again (other watches, timers and blocks still run).
//
// Thread safety: watch() and setEvents() on the loop's thread. reset() and
// the destructor may be called on any thread, but only on the loop's thread
// (including from inside the handler, its own or another's) is it certain that
// the handler will not be called again once they return; from another thread
// a call already under way finishes.
class FdWatch {
 public:
  using Handler = std::function<void(unsigned readyEvents)>;

  // An empty watch (watches nothing; false).
  FdWatch() noexcept;
  // Starts watching `fd` on `loop` for `events` (FdEvent bits). An empty watch
  // when `loop` is null, `fd` is negative or `handler` is empty. The watch does
  // not own the fd. On the loop's thread.
  static FdWatch watch(PXRunLoop* loop, int fd, unsigned events, Handler handler);

  FdWatch(FdWatch&& other) noexcept;
  FdWatch& operator=(FdWatch&& other) noexcept;
  FdWatch(const FdWatch&) = delete;
  FdWatch& operator=(const FdWatch&) = delete;
  ~FdWatch();

  // Changes the events watched (0: none, until set again). Does nothing on an
  // empty watch. On the loop's thread.
  void setEvents(unsigned events);
  // The events watched; 0 for an empty watch.
  unsigned events() const noexcept;
  // Stops watching: removes the source from the loop and destroys the handler
  // (after it returns, when called from inside it). The watch becomes empty.
  void reset();
  // Whether the watch is watching (made by watch() and not reset).
  explicit operator bool() const noexcept;

 private:
  explicit FdWatch(GSource* source) noexcept : source_(source) {}
  GSource* source_ = nullptr;  // +1; an FdSource (FdWatch.cpp)
};

// I/O in flight on a run loop, for as long as the object lives: a request
// sent whose answer will arrive through the loop's sources. While a loop has
// any, PXRunLoop::runUntilDate with the virtual clock does not move the clock
// on when the loop is idle: it waits (really blocks) for the loop's sources
// instead, so the answer arrives at the virtual moment the request was made.
// Releasing the last one wakes the loop.
//
// Holds a reference to the loop. Move-only; any thread.
class PendingIO {
 public:
  PendingIO() noexcept = default;  // none
  // Counts one pending I/O on `loop` (none when `loop` is null).
  explicit PendingIO(PXRunLoop* loop);
  PendingIO(PendingIO&& other) noexcept = default;
  PendingIO& operator=(PendingIO&& other) noexcept;
  PendingIO(const PendingIO&) = delete;
  PendingIO& operator=(const PendingIO&) = delete;
  ~PendingIO();

  // The I/O is over (idempotent).
  void reset();
  explicit operator bool() const noexcept { return static_cast<bool>(loop_); }

 private:
  PXRef<PXRunLoop> loop_;
};

// Whether `loop` has pending I/O (a live PendingIO). Any thread.
bool hasPendingIO(PXRunLoop* loop) noexcept;

// A one-shot timeout on a run loop, measured on the real monotonic clock (not
// PXClock): for libraries that keep their own time, such as libcurl. The
// virtual clock neither fires nor holds it.
//
// Thread safety: after() and reset() may be called on any thread; `fire` runs
// on the loop's thread. On the loop's thread (inside `fire` too), reset() and
// disarm() guarantee that `fire` will not be called; from another thread a
// call already under way finishes.
class RunLoopTimeout {
 public:
  // An empty timeout (false).
  RunLoopTimeout() noexcept;
  // Calls `fire` once on `loop`'s thread, `milliseconds` from now (a negative
  // count is 0: the next iteration). Empty when `loop` is null or `fire` is empty.
  static RunLoopTimeout after(PXRunLoop* loop, int64_t milliseconds, std::function<void()> fire);

  RunLoopTimeout(RunLoopTimeout&& other) noexcept;
  RunLoopTimeout& operator=(RunLoopTimeout&& other) noexcept;
  RunLoopTimeout(const RunLoopTimeout&) = delete;
  RunLoopTimeout& operator=(const RunLoopTimeout&) = delete;
  ~RunLoopTimeout();

  // Moves the timeout to `milliseconds` from now (a negative count is 0),
  // whether it fired, was disarmed or is still to fire. Neither a new source
  // nor a wake-up of the loop: for a library that moves its timer at every call
  // (libcurl does). On the loop's thread; false (and nothing) on an empty
  // timeout.
  bool rearm(int64_t milliseconds);
  // Keeps it from firing until rearmed. On the loop's thread.
  void disarm();
  // Cancels the timeout if it has not fired; the object becomes empty.
  void reset();
  // Whether the timeout is still to fire. On the loop's thread.
  explicit operator bool() const noexcept;

 private:
  explicit RunLoopTimeout(GSource* source) noexcept : source_(source) {}
  GSource* source_ = nullptr;  // +1; a TimeoutSource (FdWatch.cpp)
};

}  // namespace pxkit::internal
