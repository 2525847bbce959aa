// PXKit — the host application's lifecycle, as the kit sees it.
//
// PXApplication::sharedApplication() stands for the running host application.
// Its one duty is the will-terminate notification
// (kPXApplicationWillTerminateNotification on the default centre, sender the
// shared application): the kit saves its state when it is posted. It is posted
// at most once per process, on the main thread, by whichever of these comes
// first:
//  1. the host's own shutdown path calls applicationWillTerminate():
//       GTK / GApplication:  g_signal_connect(app, "shutdown", G_CALLBACK(onShutdown), nullptr);
//                            static void onShutdown(GApplication*, gpointer) {
//                              PXApplication::sharedApplication()->applicationWillTerminate();
//                            }
//       Qt:                  QObject::connect(qApp, &QCoreApplication::aboutToQuit, [] {
//                              PXApplication::sharedApplication()->applicationWillTerminate();
//                            });
//     or terminate(), which posts and then ends the process;
//  2. SIGTERM or SIGINT, when the host opted in with
//     installTerminationSignalHandlers();
//  3. the last-resort exit handler, when the process calls exit() (or returns
//     from main) without either of the above having happened.
// Observers queued on PXOperationQueue::mainQueue() — the usual way to observe
// it — have run by the time the posting returns: the poster runs the main
// loop until the main queue's operations added so far are done, because after
// termination the main loop would not run again.
//
// Thread safety: any thread. The notification is always delivered on the main
// thread (the thread running the main run loop, or the caller when no thread
// runs it); a call from another thread while the main thread runs its loop
// hands the posting to the main loop and returns at once.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/platform/PXNotificationCenter.h>

class PXKIT_EXPORT PXApplication : public PXObject {
  PX_DECLARE_CLASS(PXApplication)

 public:
  // The shared application object. Never null; lives until the process ends.
  // The first call also arranges the last-resort exit handler (see above).
  static PXApplication* sharedApplication();

  // The host's shutdown hook: posts the will-terminate notification unless it
  // has been posted already, and returns once its main-queue observers have
  // run (see Thread safety for calls from other threads).
  void applicationWillTerminate();

  // Posts will-terminate as applicationWillTerminate() does, then ends the
  // process with exit(status).
  [[noreturn]] void terminate(int status = 0);

  // Opt-in: SIGTERM and SIGINT post will-terminate from the main loop, then end
  // the application: a default GApplication (GTK) is asked to quit, so that it
  // returns from g_application_run() as usual; otherwise the signal's default
  // action is restored and the signal raised again, so the process ends by the
  // signal exactly as it would have without the hook. Only while the main loop
  // is running are the signals handled (a host that never runs it keeps the
  // default action by not opting in). Call once, at start-up; later calls do
  // nothing. Any thread.
  void installTerminationSignalHandlers();

  // Whether will-terminate has been posted (or its posting has begun).
  bool isTerminating() const noexcept;

 private:
  PXApplication() = default;
};
