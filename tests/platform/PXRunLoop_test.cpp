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
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/internal/FdWatch.h"
#include "platform/internal/RunLoopContext.h"
#include "support/PXRunLoopUntil.h"

namespace {

// A thread that runs its own run loop until asked to stop.
class LoopThread {
 public:
  LoopThread() {
    std::promise<PXRunLoop*> ready;
    std::future<PXRunLoop*> loop = ready.get_future();
    thread_ = std::thread([&ready, this] {
      PXRunLoop* current = PXRunLoop::current();
      threadId_ = std::this_thread::get_id();
      ready.set_value(current);
      while (!quit_.load()) current->run();
    });
    loop_ = PXRef<PXRunLoop>(loop.get());
  }
  ~LoopThread() {
    quit_ = true;
    loop_->stop();
    thread_.join();
  }
  PXRunLoop* loop() const { return loop_.get(); }
  std::thread::id id() const { return threadId_; }

 private:
  std::thread thread_;
  std::thread::id threadId_;
  std::atomic<bool> quit_{false};
  PXRef<PXRunLoop> loop_;
};

TEST(PXRunLoop, TheMainThreadsLoopIsTheDefaultContextAndEachThreadHasItsOwn) {
  PXRunLoop* main = PXRunLoop::main();
  EXPECT_EQ(PXRunLoop::current(), main);
  EXPECT_TRUE(main->isMain());
  EXPECT_EQ(main->context()->glib, g_main_context_default());

  PXRunLoop* first = nullptr;
  bool stable = false, pushedIsItsContext = false, isMain = true;
  std::thread worker([&] {
    first = PXRunLoop::current();
    stable = PXRunLoop::current() == first;
    pushedIsItsContext = g_main_context_get_thread_default() == first->context()->glib;
    isMain = first->isMain();
  });
  worker.join();  // (its loop is gone with it)
  EXPECT_NE(first, main);
  EXPECT_TRUE(stable);
  EXPECT_TRUE(pushedIsItsContext);
  EXPECT_FALSE(isMain);
}

TEST(PXRunLoop, AContextPushedByOthersIsThatThreadsRunLoop) {
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  PXRunLoop* loop = PXRunLoop::current();
  EXPECT_EQ(loop->context()->glib, context);
  EXPECT_EQ(PXRunLoop::current(), loop);
  bool ran = false;
  loop->performBlock([&] { ran = true; });
  while (g_main_context_iteration(context, FALSE)) {
  }
  EXPECT_TRUE(ran);
  g_main_context_pop_thread_default(context);
  EXPECT_EQ(PXRunLoop::current(), PXRunLoop::main());
  g_main_context_unref(context);
}

TEST(PXRunLoop, PerformedBlocksRunLaterInOrderNeverInline) {
  PXRunLoop* loop = PXRunLoop::current();
  std::vector<std::string> order;
  loop->performBlock([&] {
    order.push_back("A");
    loop->performBlock([&] { order.push_back("C, performed by A"); });
  });
  loop->performBlock([&] { order.push_back("B"); });
  loop->performBlock({});  // ignored
  EXPECT_TRUE(order.empty());
  ASSERT_TRUE(PXRunLoopUntil([&] { return order.size() == 3; }));
  EXPECT_EQ(order, (std::vector<std::string>{"A", "B", "C, performed by A"}));
}

TEST(PXRunLoop, AHostIteratingTheContextItselfRunsBlocksAndTimers) {
  PXScopedVirtualClock clock(PXDate(0));
  bool performed = false, fired = false;
  PXRunLoop::main()->performBlock([&] { performed = true; });
  PXRunLoop::main()->addTimer(
      PXTimer::timerWithTimeInterval(5, false, [&](PXTimer*) { fired = true; }).get());
  clock.advance(5);
  // What a GTK or Qt main loop does, with no kit call in between.
  for (int i = 0; i < 10 && !(performed && fired); ++i) g_main_context_iteration(nullptr, FALSE);
  EXPECT_TRUE(performed);
  EXPECT_TRUE(fired);
}

TEST(PXRunLoop, OtherThreadsWaitForTheMainThreadWhileItRunsItsLoop) {
  int ran = 0;  // main thread only
  std::vector<std::thread::id> ranOn(4);
  std::array<bool, 4> sawItsResult{};
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&, i] {
      int result = 0;
      PXRunLoop::main()->performBlockAndWait([&, i] {
        ranOn[i] = std::this_thread::get_id();
        result = i + 1;
        ++ran;
      });
      sawItsResult[i] = result == i + 1;  // written by the block before the wait ended
    });
  }
  ASSERT_TRUE(PXRunLoopUntil([&] { return ran == 4; }));
  for (std::thread& t : callers) t.join();
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(ranOn[i], std::this_thread::get_id());
    EXPECT_TRUE(sawItsResult[i]);
  }
  // On the loop's own thread it runs at once.
  bool inlined = false;
  PXRunLoop::current()->performBlockAndWait([&] { inlined = true; });
  EXPECT_TRUE(inlined);
}

TEST(PXRunLoop, StopEndsTheInnermostRunAndIsRememberedOnce) {
  PXRunLoop* loop = PXRunLoop::current();
  std::vector<std::string> order;
  loop->performBlock([&] {
    order.push_back("outer");
    loop->performBlock([&] {
      order.push_back("inner");
      loop->stop();  // ends the nested run below, not the outer one
    });
    loop->run();
    order.push_back("nested run returned");
    loop->stop();
  });
  loop->run();
  EXPECT_EQ(order, (std::vector<std::string>{"outer", "inner", "nested run returned"}));

  // A stop with no run in progress makes the next run return after one iteration
  // without waiting (nothing is pending here: a blocking wait would hang).
  loop->stop();
  loop->run();
}

TEST(PXRunLoop, RunUntilDateWithTheVirtualClockWalksFromTimerToTimer) {
  PXScopedVirtualClock clock(PXDate(1000));
  PXRunLoop* loop = PXRunLoop::current();
  std::vector<double> firedAt;
  auto record = [&](PXTimer*) { firedAt.push_back(PXDate::now().timeIntervalSinceReferenceDate()); };
  PXRef<PXTimer> a = PXTimer::scheduledTimerWithTimeInterval(10, false, record);
  PXRef<PXTimer> b = PXTimer::scheduledTimerWithTimeInterval(20, false, record);
  loop->runUntilDate(PXDate(1015));
  EXPECT_EQ(firedAt, (std::vector<double>{1010}));
  EXPECT_EQ(PXDate::now(), PXDate(1015));
  loop->runUntilDate(PXDate(1100));
  EXPECT_EQ(firedAt, (std::vector<double>{1010, 1020}));
  EXPECT_EQ(PXDate::now(), PXDate(1100));
  // A date in the past: one iteration, no waiting, the clock unmoved.
  bool ran = false;
  loop->performBlock([&] { ran = true; });
  loop->runUntilDate(PXDate(0));
  EXPECT_TRUE(ran);
  EXPECT_EQ(PXDate::now(), PXDate(1100));
}

TEST(PXRunLoop, RunUntilDateWithTheVirtualClockWaitsForPendingIO) {
  // A request goes out at virtual 23:59:30; its answer takes real time. The run
  // to the next hour must not move the clock (nor fire the midnight timer)
  // before the answer is in, or before the request is given up.
  enum class Peer { Answers, GivesUpTheRequest, StopsTheRun };
  struct Case {
    const char* name;
    Peer peer;
    std::vector<std::string> expected;
    double endsAt;
  };
  const double start = 86400 - 30;  // 23:59:30 UTC
  const Case cases[] = {
      {"the answer arrives", Peer::Answers, {"answer at 23:59:30", "midnight"}, 86400 + 3600},
      {"the request is given up on another thread", Peer::GivesUpTheRequest, {"midnight"}, 86400 + 3600},
      {"the run is stopped", Peer::StopsTheRun, {}, start},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
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
    pxkit::internal::PendingIO request(loop);
    pxkit::internal::FdWatch answer;
    answer =
        pxkit::internal::FdWatch::watch(loop, connection[0], pxkit::internal::kFdReadable, [&](unsigned) {
          char buffer[16];
          if (read(connection[0], buffer, sizeof buffer) > 0)
            events.emplace_back(PXClock::now() == PXDate(start) ? "answer at 23:59:30" : "answer later");
          answer.reset();
          request.reset();
        });
    pxkit::internal::PendingIO handedOver;
    if (c.peer == Peer::GivesUpTheRequest) handedOver = std::move(request);
    std::thread peer([&] {
      // A slow server: real time passes. Not a synchronisation: without the
      // wait for I/O the clock would move in microseconds, long before this.
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      peerActed = true;
      if (c.peer == Peer::Answers) {
        EXPECT_EQ(write(connection[1], "ok", 2), 2);
      }
      if (c.peer == Peer::GivesUpTheRequest) handedOver.reset();
      if (c.peer == Peer::StopsTheRun) loop->stop();
    });
    loop->runUntilDate(PXDate(86400 + 3600));
    peer.join();
    PXClock::removeChangeObserver(observer);
    EXPECT_FALSE(clockMovedFirst);
    EXPECT_EQ(events, c.expected);
    EXPECT_EQ(PXClock::now(), PXDate(c.endsAt));
    midnight->invalidate();
    close(connection[0]);
    close(connection[1]);
  }
}

TEST(PXRunLoop, RunUntilDateWithTheRealClockReturnsOnceTheDateHasCome) {
  const PXDate until = PXDate::dateWithTimeIntervalSinceNow(0.02);
  PXRunLoop::current()->runUntilDate(until);
  EXPECT_GE(PXDate::now(), until);
}

TEST(PXRunLoop, TimersFireInEveryModeAndInNestedRuns) {
  PXScopedVirtualClock clock(PXDate(0));
  PXRunLoop* loop = PXRunLoop::current();
  std::vector<std::string> fired;
  for (std::string_view mode :
       {kPXDefaultRunLoopMode, kPXRunLoopCommonModes, std::string_view("SomeModalMode")}) {
    PXRef<PXTimer> t =
        PXTimer::timerWithTimeInterval(10, false, [&, mode](PXTimer*) { fired.emplace_back(mode); });
    loop->addTimer(t.get(), mode);
  }
  bool nestedSawTimers = false;
  loop->performBlock([&] {
    // A modal run inside a block: the timers fire in it.
    nestedSawTimers = PXRunLoopUntil([&] { return fired.size() == 3; }, {.maxVirtualSeconds = 60});
  });
  ASSERT_TRUE(PXRunLoopUntil([&] { return fired.size() == 3; }));
  EXPECT_TRUE(nestedSawTimers);
  EXPECT_EQ(fired,
            (std::vector<std::string>{"PXDefaultRunLoopMode", "PXRunLoopCommonModes", "SomeModalMode"}));
}

TEST(PXRunLoop, AThreadsLoopEndsWithTheThreadAndDropsWhatItNeverRan) {
  PXRef<PXRunLoop> kept;
  PXWeakRef<PXRunLoop> weak;
  auto token = std::make_shared<int>(0);
  std::thread([&] { weak = PXRef<PXRunLoop>(PXRunLoop::current()); }).join();
  EXPECT_FALSE(weak.lock());  // released when its thread ended

  std::thread([&] { kept = PXRef<PXRunLoop>(PXRunLoop::current()); }).join();
  weak = kept;
  bool ran = false;
  kept->performBlock([token, &ran] { ran = true; });
  EXPECT_EQ(token.use_count(), 2);
  kept = nullptr;  // the last reference: the block is destroyed unrun
  EXPECT_FALSE(weak.lock());
  EXPECT_FALSE(ran);
  EXPECT_EQ(token.use_count(), 1);
}

TEST(PXRunLoop, RunningALoopOwnedByAnotherThreadReturnsAtOnce) {
  LoopThread worker;
  // The worker is inside run(), holding its context.
  std::atomic<bool> inside{false};
  worker.loop()->performBlockAndWait([&] { inside = true; });
  ASSERT_TRUE(inside.load());
  EXPECT_FALSE(worker.loop()->runOnce(/*mayBlock=*/true));
  worker.loop()->run();  // returns: not this thread's loop
  worker.loop()->runUntilDate(PXDate::distantFuture());
}

// ---- the main operation queue ---------------------------------------------------------

TEST(PXOperationQueue, MainQueueRunsLaterOnTheMainThreadInOrderNeverInline) {
  PXOperationQueue* queue = PXOperationQueue::mainQueue();
  EXPECT_EQ(queue->runLoop(), PXRunLoop::main());
  EXPECT_EQ(PXOperationQueue::currentQueue(), queue);

  std::vector<std::string> order;
  std::vector<std::thread::id> ranOn;
  queue->addOperationWithBlock([&] {
    order.push_back("first");
    queue->addOperationWithBlock([&] { order.push_back("added by first"); });
    order.push_back("first, after adding");  // the added one did not run inline
    EXPECT_EQ(PXOperationQueue::currentQueue(), queue);
  });
  std::thread worker([&] {
    EXPECT_EQ(PXOperationQueue::currentQueue(), nullptr);
    for (int i = 0; i < 50; ++i) {
      queue->addOperationWithBlock([&, i] {
        order.push_back("worker " + std::to_string(i));
        ranOn.push_back(std::this_thread::get_id());
      });
    }
  });
  worker.join();
  EXPECT_TRUE(order.empty());
  ASSERT_TRUE(PXRunLoopUntil([&] { return order.size() == 53; }));
  EXPECT_EQ(order[0], "first");
  EXPECT_EQ(order[1], "first, after adding");
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[2 + i], "worker " + std::to_string(i));
  EXPECT_EQ(order.back(), "added by first");
  for (std::thread::id id : ranOn) EXPECT_EQ(id, std::this_thread::get_id());
}

}  // namespace
