// PXKit — run loops: one event loop per thread.
//
// A PXRunLoop is a thread's event loop. It is the thread's GLib main context
// underneath, so a GTK or Qt application (whose Linux event loop is GLib's)
// drives the kit with no glue:
//  - the main run loop is the global default main context; it is the run loop
//    of the process's main thread;
//  - any other thread's run loop is its thread-default main context; a thread
//    that has none gets a new context, pushed as its thread-default, the first
//    time it asks for PXRunLoop::current().
// A host with no GLib loop of its own iterates the main run loop itself:
//
//   PXRunLoop::main()->runUntilDate(PXDate::dateWithTimeIntervalSinceNow(0.25));
//
//   PXRunLoop* loop = PXRunLoop::current();
//   loop->performBlock([] { puts("later, on this thread"); });
//   otherThreadsLoop->performBlockAndWait([] { ... });   // on that thread; waits
//
// Modes: a run loop has one set of sources. The default mode and the common
// modes (and any other mode name) are that same set, so a timer added in any
// mode fires whenever the loop runs, also inside a nested ("modal") run.
//
// Thread safety: performBlock, performBlockAndWait, stop and wakeUp may be
// called from any thread. run, runUntilDate and runOnce must be called on the
// run loop's own thread. Timers: see PXTimer.h.
//
// Lifetime: run loops are PXObjects. The main run loop lives until the process
// ends; another thread's run loop is kept by that thread until it exits (hold a
// PXRef to use it from elsewhere for longer; blocks performed on a loop whose
// thread has ended never run and are destroyed with the loop).
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDate.h>
#include <pxkit/objects/PXObject.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

class PXTimer;

// Mode names. On Linux they all name the same set of sources (see above).
inline constexpr std::string_view kPXDefaultRunLoopMode = "PXDefaultRunLoopMode";
inline constexpr std::string_view kPXRunLoopCommonModes = "PXRunLoopCommonModes";

namespace pxkit::internal {
struct RunLoopCore;
struct RunLoopContext;  // platform layer only (src/platform/internal/RunLoopContext.h)
}  // namespace pxkit::internal

class PXKIT_EXPORT PXRunLoop : public PXObject {
  PX_DECLARE_CLASS(PXRunLoop)

 public:
  using Block = std::function<void()>;

  ~PXRunLoop() override;

  // The calling thread's run loop (made on first use). Never null. Borrowed:
  // valid while the thread lives.
  static PXRunLoop* current();
  // The main run loop (the global default main context). Never null; lives
  // until the process ends. May be asked for from any thread.
  static PXRunLoop* main();
  // Whether this is the main run loop.
  bool isMain() const noexcept;

  // ---- Running (on the run loop's own thread) ------------------------------
  // Runs until stop() is called. Returns at once if the loop is already
  // running on another thread.
  void run();
  // Runs until the clock (PXClock) reaches `date`, or until stop() is called.
  // With the virtual clock, time moves only when the loop has nothing to do:
  // then the clock is advanced to the earliest due date of this loop's timers
  // (or to `date`, whichever comes first), so the timers of the coming span
  // fire in order, each at its own date. A date in the past runs one
  // iteration without waiting.
  // Virtual time waits for I/O: while the loop has pending I/O (a request of
  // the platform layer in flight on this loop, such as an HTTP request whose
  // answer comes through the loop's fd watches), an idle loop does not move
  // the clock on; it really blocks until one of its sources is ready, the last
  // pending I/O ends or stop() is called. So a test that moves the virtual
  // clock to midnight sees the submission made at midnight reach its loopback
  // server before the clock passes midnight. (The I/O's own timeouts run on
  // the real monotonic clock, so a peer that never answers cannot hold the
  // run for ever.) Pending I/O on other loops does not hold this one.
  void runUntilDate(PXDate date);
  // Runs one iteration: dispatches what is ready; waits for something to become
  // ready when `mayBlock`. Returns whether anything was dispatched.
  bool runOnce(bool mayBlock);
  // Makes the innermost run() or runUntilDate() of this loop return after its
  // current iteration. If the loop is not running, the next run()/runUntilDate()
  // returns after one iteration (the stop is remembered once).
  void stop();
  // Interrupts a wait of the loop so that it looks at its sources again.
  void wakeUp() noexcept;

  // ---- Work from other threads ---------------------------------------------
  // Runs `block` later on this loop's thread: never inline, even when called on
  // that thread. Blocks run in the order they were performed, at default
  // priority; a block performed while blocks are running waits for the next
  // iteration of the loop. An empty block is ignored. Any thread.
  void performBlock(Block block);
  // Runs `block` on this loop's thread and waits until it has returned. Runs it
  // at once when called on this loop's thread. Blocks forever if that thread
  // never runs its loop again. Any thread.
  void performBlockAndWait(const Block& block);

  // ---- Timers ----------------------------------------------------------------
  // Schedules `timer` on this loop (the loop holds a reference until the timer
  // is invalidated). The mode is accepted for every name (see Modes). A timer
  // belongs to at most one run loop: adding it to a second one, or adding an
  // invalidated timer, does nothing. Any thread.
  void addTimer(PXTimer* timer, std::string_view mode = kPXDefaultRunLoopMode);

  // The earliest fire date among the valid timers of this loop, or nothing
  // when it has none. Any thread.
  std::optional<PXDate> nextTimerDate() const;

  // ---- For the platform layer -------------------------------------------------
  // The GLib main context underneath and the loop's count of pending I/O, for
  // code in the platform layer that attaches its own sources (file-descriptor
  // watches, timeouts): see src/platform/internal/RunLoopContext.h. Never null;
  // valid as long as the loop. Any thread.
  pxkit::internal::RunLoopContext* context() const noexcept;

 private:
  friend class PXTimer;
  friend struct pxkit::internal::RunLoopCore;
  PXRunLoop(void* context, bool isMain);  // made by current() and main() only

  std::unique_ptr<pxkit::internal::RunLoopCore> core_;
};
