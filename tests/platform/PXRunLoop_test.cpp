#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXOperationQueue.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/platform/PXTimer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/internal/FdWatch.h"
#include "support/PXRunLoopUntil.h"

using namespace pxkit::internal;

namespace {

void drain() {
  while (PXRunLoop::current()->runOnce(/*mayBlock=*/false)) {
  }
}

TEST(FdWatch, ReportsWhatIsReadyAndStopsWhenResetInsideItsOwnHandler) {
  const struct {
    int watchedEnd, closedEnd;  // of a pipe; -1: none closed
    bool writeByte;
    unsigned events, expected;
  } cases[] = {
      {0, -1, true, kFdReadable, kFdReadable},                 // data to read
      {0, 1, false, kFdReadable, kFdReadable},                 // the writer hung up: end of stream
      {0, 1, false, kFdError, kFdError},                       // the same, reading not watched
      {1, 0, false, kFdWritable, kFdWritable | kFdError},      // room to write, the reader is gone
      {1, -1, false, kFdReadable | kFdWritable, kFdWritable},  // only what is watched is told
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    int calls = 0;
    unsigned ready = 0;
    FdWatch watch;
    watch = FdWatch::watch(PXRunLoop::current(), fds[c.watchedEnd], c.events, [&](unsigned events) {
      ++calls;
      ready = events;
      watch.reset();  // removed during its own dispatch
    });
    EXPECT_EQ(watch.events(), c.events);
    EXPECT_EQ(c.writeByte ? write(fds[1], "x", 1) : 1, 1);
    if (c.closedEnd >= 0) close(std::exchange(fds[c.closedEnd], -1));
    ASSERT_TRUE(PXRunLoopUntil([&] { return calls > 0; }));
    drain();  // the fd is still ready: a watch left in place would be called again
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(ready, c.expected);
    EXPECT_FALSE(watch);
    for (int fd : fds) close(fd);  // (-1 for the one closed already)
  }
}

// Iterations of the current loop, without waiting, that dispatched something
// (at most `limit`: a watch the loop spins on would dispatch every time).
int busyIterations(int limit = 20) {
  int busy = 0;
  for (int i = 0; i < limit; ++i) busy += PXRunLoop::current()->runOnce(/*mayBlock=*/false) ? 1 : 0;
  return busy;
}

// A watch set to no events stays in the poll set (setting events again is
// free), but a hang-up or a closed fd takes it out instead of waking the loop
// on every iteration, and is never reported to the handler.
TEST(FdWatch, AnIdleWatchIsNotCalledAndLeavesThePollSetWhenItsFdHangsUpOrCloses) {
  for (const bool closeWatchedEnd : {false, true}) {
    SCOPED_TRACE(closeWatchedEnd ? "watched fd closed" : "peer hung up");
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    std::vector<unsigned> calls;
    FdWatch watch = FdWatch::watch(PXRunLoop::current(), fds[0], kFdReadable,
                                   [&](unsigned events) { calls.push_back(events); });
    watch.setEvents(0);
    close(std::exchange(fds[closeWatchedEnd ? 0 : 1], -1));
    EXPECT_LE(busyIterations(), 1);  // the one that takes the watch out
    EXPECT_EQ(busyIterations(), 0);
    EXPECT_TRUE(calls.empty());
    if (!closeWatchedEnd) {
      watch.setEvents(kFdReadable);  // back in the poll set: the end of the stream is read
      ASSERT_TRUE(PXRunLoopUntil([&] { return !calls.empty(); }));
      EXPECT_EQ(calls, std::vector<unsigned>{kFdReadable});
    }
    watch.reset();
    for (int fd : fds) close(fd);
  }
}

// While its handler runs a nested run of the loop, a watch is not called
// again, and the nested run does not spin on its fd, even when the fd hangs up
// meanwhile; the hang-up is reported once the handler has returned.
TEST(FdWatch, IsNotReenteredByANestedRunOfItsLoop) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  std::vector<unsigned> calls;
  int nestedBusy = -1;
  FdWatch watch = FdWatch::watch(PXRunLoop::current(), fds[0], kFdReadable, [&](unsigned events) {
    calls.push_back(events);
    if (calls.size() > 1) return;
    close(std::exchange(fds[1], -1));  // the byte stays unread: the fd is readable and hung up
    nestedBusy = busyIterations();
  });
  ASSERT_TRUE(PXRunLoopUntil([&] { return calls.size() >= 2; }));
  EXPECT_LE(nestedBusy, 1);  // at most the iteration that takes the hung-up fd out
  EXPECT_EQ(calls, (std::vector<unsigned>{kFdReadable, kFdReadable}));
  watch.reset();
  close(fds[0]);
}

TEST(FdWatch, BadArgumentsMakeAnEmptyWatch) {
  auto handler = [](unsigned) {};
  const int fd = STDIN_FILENO;
  EXPECT_FALSE(FdWatch::watch(nullptr, fd, kFdReadable, handler));
  EXPECT_FALSE(FdWatch::watch(PXRunLoop::current(), -1, kFdReadable, handler));
  EXPECT_FALSE(FdWatch::watch(PXRunLoop::current(), fd, kFdReadable, nullptr));
  FdWatch empty;
  empty.setEvents(kFdReadable);  // nothing to change
  EXPECT_EQ(empty.events(), 0u);
  FdWatch moved = FdWatch::watch(PXRunLoop::current(), fd, kFdReadable, handler);
  FdWatch target(std::move(moved));
  EXPECT_FALSE(moved);  // NOLINT(bugprone-use-after-move): a moved-from watch is empty
  target.setEvents(0);
  EXPECT_TRUE(target);
  EXPECT_EQ(target.events(), 0u);
}

// The virtual clock stands still throughout: these run on real time.
TEST(RunLoopTimeout, FiresOnceOnTheRealClockUnlessCancelled) {
  PXScopedVirtualClock clock(PXDate(0));
  std::vector<std::string> fired;
  PXRunLoop* loop = PXRunLoop::current();
  RunLoopTimeout cancelled = RunLoopTimeout::after(loop, 0, [&] { fired.push_back("cancelled"); });
  RunLoopTimeout selfCancelling;
  selfCancelling = RunLoopTimeout::after(loop, -5, [&] {
    fired.push_back("self-cancelling");
    selfCancelling.reset();  // inside its own callback
  });
  RunLoopTimeout later = RunLoopTimeout::after(loop, 20, [&] { fired.push_back("later"); });
  EXPECT_TRUE(cancelled);
  cancelled.reset();
  EXPECT_FALSE(cancelled);
  // "later" comes after the 0 ms ones: had the cancelled one stayed, it would have fired first.
  ASSERT_TRUE(PXRunLoopUntil([&] { return fired.size() >= 2; }));
  drain();
  EXPECT_EQ(fired, (std::vector<std::string>{"self-cancelling", "later"}));
  EXPECT_FALSE(later);  // fired: nothing left to fire
  // Moved rather than made again: it fires again, but not once moved later or disarmed.
  ASSERT_TRUE(later.rearm(0));
  ASSERT_TRUE(PXRunLoopUntil([&] { return fired.size() >= 3; }));
  later.rearm(0);
  later.rearm(60'000);
  drain();
  EXPECT_TRUE(later);
  later.rearm(0);
  later.disarm();
  drain();
  EXPECT_FALSE(later);
  EXPECT_EQ(fired, (std::vector<std::string>{"self-cancelling", "later", "later"}));
  EXPECT_FALSE(RunLoopTimeout().rearm(0));
  EXPECT_EQ(PXClock::now(), PXDate(0));
  EXPECT_FALSE(RunLoopTimeout::after(nullptr, 0, [] {}));
  EXPECT_FALSE(RunLoopTimeout::after(loop, 0, nullptr));
}

TEST(PendingIO, CountsPerLoopAndMovesWithItsObject) {
  PXRunLoop* loop = PXRunLoop::current();
  PendingIO first(loop);
  EXPECT_TRUE(hasPendingIO(loop));
  PendingIO moved(std::move(first));
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move)
  PendingIO second(loop);
  moved.reset();
  moved.reset();  // idempotent
  EXPECT_TRUE(hasPendingIO(loop));
  second = PendingIO();
  EXPECT_FALSE(hasPendingIO(loop));
  EXPECT_FALSE(PendingIO(nullptr));
  EXPECT_FALSE(hasPendingIO(nullptr));
}

TEST(PXRunLoop, OtherThreadsWaitForTheMainThreadWhileItRunsItsLoop) {
  const std::thread::id mainThread = std::this_thread::get_id();
  std::atomic<int> ran{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      std::thread::id ranOn;
      PXRunLoop::main()->performBlockAndWait([&] {
        ranOn = std::this_thread::get_id();
        ++ran;
      });
      EXPECT_EQ(ranOn, mainThread);  // written by the block before the wait ended
    });
  }
  ASSERT_TRUE(PXRunLoopUntil([&] { return ran == 4; }));
  for (std::thread& t : callers) t.join();
  PXRunLoop::current()->performBlockAndWait([&] { ++ran; });  // on the loop's own thread: at once
  EXPECT_EQ(ran, 5);
}

// A request goes out at virtual 23:59:30; its answer takes real time. The run to the next hour must not
// move the clock (nor fire the midnight timer) before the answer is in, or the request is given up.
TEST(PXRunLoop, RunUntilDateWithTheVirtualClockWaitsForPendingIO) {
  enum class Peer { Answers, GivesUpTheRequest, StopsTheRun };
  const double start = 86400 - 30;  // 23:59:30 UTC
  const std::tuple<Peer, std::vector<std::string>, double> cases[] = {
      {Peer::Answers, {"answer at 23:59:30", "midnight"}, 86400 + 3600},
      {Peer::GivesUpTheRequest, {"midnight"}, 86400 + 3600},  // on another thread
      {Peer::StopsTheRun, {}, start},
  };
  for (const auto& [peerDoes, expected, endsAt] : cases) {
    PXScopedVirtualClock clock{PXDate(start)};
    PXRunLoop* loop = PXRunLoop::current();
    std::array<int, 2> connection{};  // the client's end and the server's
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, connection.data()), 0);
    std::vector<std::string> events;
    std::atomic<bool> peerActed{false};
    bool clockMovedFirst = false;
    uint64_t observer = PXClock::addChangeObserver([&] { clockMovedFirst |= !peerActed.load(); });
    PXRef<PXTimer> midnight = PXTimer::scheduledTimerWithTimeInterval(
        30, false, [&](PXTimer*) { events.emplace_back("midnight"); });
    PendingIO request(loop), handedOver;
    FdWatch answer = FdWatch::watch(loop, connection[0], kFdReadable, [&](unsigned) {
      char buffer[16];
      if (read(connection[0], buffer, sizeof buffer) > 0)
        events.emplace_back(PXClock::now() == PXDate(start) ? "answer at 23:59:30" : "answer later");
      answer.reset();
      request.reset();
    });
    if (peerDoes == Peer::GivesUpTheRequest) handedOver = std::move(request);
    std::thread peer([&, peerDoes = peerDoes] {
      // A slow server: real time passes. Not a synchronisation: without the wait
      // for I/O the clock would move in microseconds, long before this.
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      peerActed = true;
      if (peerDoes == Peer::Answers) {
        EXPECT_EQ(write(connection[1], "ok", 2), 2);
      }
      if (peerDoes == Peer::GivesUpTheRequest) handedOver.reset();
      if (peerDoes == Peer::StopsTheRun) loop->stop();
    });
    loop->runUntilDate(PXDate(86400 + 3600));
    peer.join();
    PXClock::removeChangeObserver(observer);
    EXPECT_FALSE(clockMovedFirst);
    EXPECT_EQ(events, expected);
    EXPECT_EQ(PXClock::now(), PXDate(endsAt));
    midnight->invalidate();
    close(connection[0]);
    close(connection[1]);
  }
}

// Running a loop from a thread other than the one running it returns at once.
TEST(PXRunLoop, RunningALoopOwnedByAnotherThreadReturnsAtOnce) {
  std::promise<PXRunLoop*> ready;
  std::atomic<bool> quit{false};
  std::thread worker([&] {
    PXRunLoop* current = PXRunLoop::current();
    ready.set_value(current);
    while (!quit.load()) current->run();
  });
  PXRef<PXRunLoop> loop(ready.get_future().get());
  loop->performBlockAndWait([] {});  // the worker is inside run(), holding its context
  EXPECT_FALSE(loop->runOnce(/*mayBlock=*/true));
  loop->run();
  loop->runUntilDate(PXDate::distantFuture());
  quit = true;
  loop->stop();
  worker.join();
}

// Performed blocks (what the main queue is made of) run later, in order, never inline.
TEST(PXOperationQueue, MainQueueRunsLaterOnTheMainThreadInOrderNeverInline) {
  PXOperationQueue* queue = PXOperationQueue::mainQueue();
  EXPECT_EQ(queue->runLoop(), PXRunLoop::main());
  EXPECT_EQ(PXOperationQueue::currentQueue(), queue);
  EXPECT_TRUE(PXRunLoop::main()->isMain());
  PXRunLoop::main()->performBlock({});  // ignored
  std::vector<std::string> order;
  queue->addOperationWithBlock([&] {
    order.push_back("first");
    queue->addOperationWithBlock([&] { order.push_back("added by first"); });
    EXPECT_EQ(PXOperationQueue::currentQueue(), queue);
  });
  std::thread([&] {
    EXPECT_EQ(PXOperationQueue::currentQueue(), nullptr);
    for (int i = 0; i < 50; ++i) queue->addOperationWithBlock([&, i] { order.push_back(std::to_string(i)); });
  }).join();
  EXPECT_TRUE(order.empty());
  ASSERT_TRUE(PXRunLoopUntil([&] { return order.size() == 52; }));
  EXPECT_EQ(order.front(), "first");
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[1 + i], std::to_string(i));
  EXPECT_EQ(order.back(), "added by first");
  PXRunLoop::main()->stop();  // with no run in progress: the next run returns after one iteration
  PXRunLoop::main()->run();
}

}  // namespace
