// The will-terminate notification and the three roads to it: the host's
// shutdown call, the opt-in termination signals, and the exit handler.

#include <glib-unix.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "platform/internal/GLibHandles.h"
#include "platform/internal/RunOnContext.h"
#include "platform/internal/SystemEvents.h"

namespace {

std::atomic<bool> gPosted{false};
std::once_flag gSignalsInstalled;

// Main-loop iterations spent, at most, running the main queue's operations
// after will-terminate. The queue's operations are ready at once, so this is
// never reached unless the posting happens inside a main-queue operation
// (whose source cannot run again until it returns) while other sources of the
// host keep the loop busy.
constexpr int kMaxDrainIterations = 10000;

// Runs the main loop until the main queue's operations added so far have run,
// so that observers queued there see will-terminate before the process ends.
// The caller owns the main context.
void drainMainQueue() {
  auto done = std::make_shared<bool>(false);
  PXOperationQueue::mainQueue()->addOperationWithBlock([done] { *done = true; });
  GMainContext* main = g_main_context_default();
  for (int i = 0; !*done && i < kMaxDrainIterations; ++i) {
    if (!g_main_context_iteration(main, FALSE)) break;
  }
}

// Posts will-terminate on this thread, unless it was posted before.
void postOnThisThread(PXApplication* app, bool drain) {
  if (gPosted.exchange(true, std::memory_order_acq_rel)) return;
  PXNotificationCenter::defaultCenter()->postNotificationName(kPXApplicationWillTerminateNotification, app);
  if (drain) drainMainQueue();
}

// Posts on the main thread: here, when this thread owns the main context or
// can take it; otherwise on the main loop's next iteration.
void postOnMainThread(PXApplication* app) {
  pxkit::internal::runOnContext(
      g_main_context_default(), [app] { postOnThisThread(app, /*drain=*/true); },
      pxkit::internal::RunOnContextMode::DontWait);
}

// The last resort: the process is exiting and nobody said so. The main thread
// posts as usual; an exit() called on another thread while the main thread
// runs its loop cannot wait for that loop, and posts on the exiting thread
// without running main-queue observers.
void onExit() {
  if (gPosted.load(std::memory_order_acquire)) return;
  PXApplication* app = PXApplication::sharedApplication();
  if (!pxkit::internal::runOnContext(
          g_main_context_default(), [app] { postOnThisThread(app, /*drain=*/true); },
          pxkit::internal::RunOnContextMode::OnlyHere))
    postOnThisThread(app, /*drain=*/false);
}

gboolean onTerminationSignal(gpointer data) {
  const int signal = GPOINTER_TO_INT(data);
  postOnThisThread(PXApplication::sharedApplication(), /*drain=*/true);
  if (GApplication* gapp = g_application_get_default()) {
    // An orderly end: g_application_run() returns and the host's "shutdown"
    // handler runs (its call to applicationWillTerminate finds it done).
    g_application_quit(gapp);
    return G_SOURCE_CONTINUE;
  }
  // End by the signal itself, as the process would have without the hook.
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
  sigset_t unblock;
  sigemptyset(&unblock);
  sigaddset(&unblock, signal);
  pthread_sigmask(SIG_UNBLOCK, &unblock, nullptr);
  kill(getpid(), signal);
  _exit(128 + signal);  // not reached: the default action ends the process first
}

// Observing will-terminate arranges the last-resort exit handler.
[[maybe_unused]] const bool gWillTerminateSourceAdded = pxkit::internal::addSystemNotificationSource(
    kPXApplicationWillTerminateNotification, [] { PXApplication::sharedApplication(); });

}  // namespace

PX_DEFINE_CLASS(PXApplication, PXObject, [](PXClassBuilder<PXApplication>&) {})

PXApplication* PXApplication::sharedApplication() {
  static PXApplication* app = [] {
    auto* made = new PXApplication;  // never released
    std::atexit(onExit);
    return made;
  }();
  return app;
}

void PXApplication::applicationWillTerminate() {
  if (gPosted.load(std::memory_order_acquire)) return;
  postOnMainThread(this);
}

void PXApplication::terminate(int status) {
  applicationWillTerminate();
  std::exit(status);
}

void PXApplication::installTerminationSignalHandlers() {
  std::call_once(gSignalsInstalled, [] {
    for (int signal : {SIGTERM, SIGINT}) {
      pxkit::glib::Source source(g_unix_signal_source_new(signal));
      g_source_set_callback(source.get(), onTerminationSignal, GINT_TO_POINTER(signal), nullptr);
      g_source_set_priority(source.get(), G_PRIORITY_HIGH);
      g_source_attach(source.get(), g_main_context_default());  // stays attached for the process's life
    }
  });
}

bool PXApplication::isTerminating() const noexcept {
  return gPosted.load(std::memory_order_acquire);
}
