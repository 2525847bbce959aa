// A termination signal while the host runs a default GApplication: will-terminate
// is posted once, main-queue observers run, and the application quits in order
// (its shutdown hook runs). Taken in a forked child, which reports what its
// observers saw through a pipe.

#include <gtest/gtest.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/internal/GLibHandles.h"

namespace {

void writeLine(int fd, const std::string& line) {
  const std::string text = line + "\n";
  ssize_t ignored = write(fd, text.data(), text.size());
  (void)ignored;
}

// Observes will-terminate the way the kit's own tracker does (sender the shared
// application, on the main queue) and inline; each observer reports a line.
void observeWillTerminate(int fd) {
  PXNotificationCenter* center = PXNotificationCenter::defaultCenter();
  center->addObserverForName(kPXApplicationWillTerminateNotification, PXApplication::sharedApplication(),
                             PXOperationQueue::mainQueue(),
                             [fd](const PXNotification&) { writeLine(fd, "main-queue observer"); });
  center->addObserverForName(kPXApplicationWillTerminateNotification, nullptr, nullptr,
                             [fd](const PXNotification&) { writeLine(fd, "inline observer"); });
}

struct ChildResult {
  int status = 0;
  std::vector<std::string> lines;  // without "ready"
};

// Runs `body` in a forked child (then _exit(0), skipping exit handlers) that
// observes will-terminate and writes lines to the given descriptor; sends the
// child `signal`, when given, once it wrote "ready".
ChildResult runChild(const std::function<void(int fd)>& body, int signal = 0) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  fflush(stdout);
  fflush(stderr);
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    observeWillTerminate(fds[1]);
    body(fds[1]);
    _exit(0);
  }
  close(fds[1]);
  ChildResult result;
  std::string pending;
  char buffer[256];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof buffer)) > 0) {
    pending.append(buffer, static_cast<size_t>(n));
    for (size_t newline; (newline = pending.find('\n')) != std::string::npos; pending.erase(0, newline + 1)) {
      if (pending.compare(0, newline, "ready") != 0) {
        result.lines.push_back(pending.substr(0, newline));
      } else if (signal) {
        kill(child, signal);
      }
    }
  }
  close(fds[0]);
  waitpid(child, &result.status, 0);
  return result;
}

}  // namespace

TEST(PXApplication, TerminationSignalQuitsADefaultGApplication) {
  ChildResult child = runChild(
      [](int fd) {
        // No session bus: the application stays local.
        setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/pxkit-test", 1);
        PXApplication::sharedApplication()->installTerminationSignalHandlers();
        pxkit::glib::Object<GApplication> app(
            g_application_new("org.example.PXKitTest", G_APPLICATION_NON_UNIQUE));
        g_signal_connect(app.get(), "activate", G_CALLBACK(+[](GApplication* a, gpointer data) {
                           g_application_hold(a);
                           writeLine(GPOINTER_TO_INT(data), "ready");
                         }),
                         GINT_TO_POINTER(fd));
        // The host's own shutdown hook, as documented.
        g_signal_connect(app.get(), "shutdown", G_CALLBACK(+[](GApplication*, gpointer data) {
                           PXApplication::sharedApplication()->applicationWillTerminate();
                           writeLine(GPOINTER_TO_INT(data),
                                     PXApplication::sharedApplication()->isTerminating() ? "shutdown" : "?");
                         }),
                         GINT_TO_POINTER(fd));
        PXApplication::sharedApplication()->terminate(g_application_run(app.get(), 0, nullptr));
      },
      SIGTERM);
  ASSERT_TRUE(WIFEXITED(child.status)) << "status " << child.status;
  EXPECT_EQ(WEXITSTATUS(child.status), 0);
  EXPECT_EQ(child.lines, (std::vector<std::string>{"inline observer", "main-queue observer", "shutdown"}));
}
