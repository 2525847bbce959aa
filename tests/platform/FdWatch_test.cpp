#include "platform/internal/FdWatch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXRunLoop.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "support/PXRunLoopUntil.h"

using pxkit::internal::FdWatch;
using pxkit::internal::hasPendingIO;
using pxkit::internal::kFdError;
using pxkit::internal::kFdReadable;
using pxkit::internal::kFdWritable;
using pxkit::internal::PendingIO;
using pxkit::internal::RunLoopTimeout;

namespace {

// A pipe whose ends close with the object (or earlier, by hand).
struct Pipe {
  std::array<int, 2> fds{-1, -1};
  Pipe() { EXPECT_EQ(pipe2(fds.data(), O_CLOEXEC | O_NONBLOCK), 0); }
  ~Pipe() {
    closeEnd(0);
    closeEnd(1);
  }
  int readEnd() const { return fds[0]; }
  int writeEnd() const { return fds[1]; }
  void write(char c = 'x') const { ASSERT_EQ(::write(fds[1], &c, 1), 1); }
  void closeEnd(int end) {
    if (fds[end] >= 0) close(fds[end]);
    fds[end] = -1;
  }
};

// Dispatches what is ready on the calling thread's loop, without waiting.
void drain() {
  while (PXRunLoop::current()->runOnce(/*mayBlock=*/false)) {
  }
}

TEST(FdWatch, ReportsWhatIsReadyAndStopsWhenResetInsideItsOwnHandler) {
  enum class Act { WriteByte, CloseWriteEnd, CloseReadEnd, Nothing };
  struct Case {
    const char* name;
    bool watchWriteEnd;
    unsigned events;
    Act act;
    unsigned expected;
  };
  const Case cases[] = {
      {"data to read", false, kFdReadable, Act::WriteByte, kFdReadable},
      {"the writer hung up: end of stream", false, kFdReadable, Act::CloseWriteEnd, kFdReadable},
      {"the writer hung up, reading not watched", false, kFdError, Act::CloseWriteEnd, kFdError},
      {"room to write", true, kFdWritable, Act::Nothing, kFdWritable},
      {"room to write, the reader is gone", true, kFdWritable, Act::CloseReadEnd, kFdWritable | kFdError},
      {"only what is watched is told", true, kFdReadable | kFdWritable, Act::Nothing, kFdWritable},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Pipe pipe;
    int calls = 0;
    unsigned ready = 0;
    FdWatch watch;
    watch = FdWatch::watch(PXRunLoop::current(), c.watchWriteEnd ? pipe.writeEnd() : pipe.readEnd(), c.events,
                           [&](unsigned events) {
                             ++calls;
                             ready = events;
                             watch.reset();  // removed during its own dispatch
                             EXPECT_FALSE(watch);
                           });
    ASSERT_TRUE(watch);
    EXPECT_EQ(watch.events(), c.events);
    if (c.act == Act::WriteByte) pipe.write();
    if (c.act == Act::CloseWriteEnd) pipe.closeEnd(1);
    if (c.act == Act::CloseReadEnd) pipe.closeEnd(0);
    ASSERT_TRUE(PXRunLoopUntil([&] { return calls > 0; }));
    drain();  // the fd is still ready: a watch left in place would be called again
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(ready, c.expected);
  }
}

TEST(FdWatch, AWatchOfNoEventsIsNotCalledUntilItsEventsAreSet) {
  Pipe pipe;
  std::vector<unsigned> calls;
  FdWatch watch = FdWatch::watch(PXRunLoop::current(), pipe.readEnd(), 0, [&](unsigned ready) {
    calls.push_back(ready);
    char c;
    EXPECT_EQ(read(pipe.readEnd(), &c, 1), 1);
  });
  pipe.write();
  pipe.closeEnd(1);  // a hang-up too: still nothing, the fd is not polled
  drain();
  EXPECT_TRUE(calls.empty());
  watch.setEvents(kFdReadable);
  ASSERT_TRUE(PXRunLoopUntil([&] { return !calls.empty(); }));
  EXPECT_EQ(calls.front(), kFdReadable);
  watch.setEvents(0);
  drain();  // end of stream stays ready, but is no longer watched
  EXPECT_EQ(calls.size(), 1u);
}

TEST(FdWatch, AHandlerMayRemoveAnotherWatchThatIsReadyInTheSameIteration) {
  Pipe first, second;
  int calls = 0;
  FdWatch a, b;
  a = FdWatch::watch(PXRunLoop::current(), first.readEnd(), kFdReadable, [&](unsigned) {
    ++calls;
    b.reset();
    a.reset();
  });
  b = FdWatch::watch(PXRunLoop::current(), second.readEnd(), kFdReadable, [&](unsigned) {
    ++calls;
    a.reset();
    b.reset();
  });
  first.write();
  second.write();
  // Both are ready in one poll; whichever runs first removes the other.
  ASSERT_TRUE(PXRunLoopUntil([&] { return calls > 0; }));
  drain();
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(a);
  EXPECT_FALSE(b);
}

TEST(FdWatch, BadArgumentsMakeAnEmptyWatch) {
  Pipe pipe;
  auto handler = [](unsigned) {};
  EXPECT_FALSE(FdWatch::watch(nullptr, pipe.readEnd(), kFdReadable, handler));
  EXPECT_FALSE(FdWatch::watch(PXRunLoop::current(), -1, kFdReadable, handler));
  EXPECT_FALSE(FdWatch::watch(PXRunLoop::current(), pipe.readEnd(), kFdReadable, nullptr));
  FdWatch empty;
  empty.setEvents(kFdReadable);  // nothing to change
  EXPECT_EQ(empty.events(), 0u);
  FdWatch moved = FdWatch::watch(PXRunLoop::current(), pipe.readEnd(), kFdReadable, handler);
  FdWatch target(std::move(moved));
  EXPECT_FALSE(moved);  // NOLINT(bugprone-use-after-move): a moved-from watch is empty
  EXPECT_TRUE(target);
}

TEST(RunLoopTimeout, FiresOnceOnTheRealClockUnlessCancelled) {
  // The virtual clock stands still throughout: these run on real time.
  PXScopedVirtualClock clock(PXDate(0));
  std::vector<std::string> fired;
  RunLoopTimeout cancelled =
      RunLoopTimeout::after(PXRunLoop::current(), 0, [&] { fired.push_back("cancelled"); });
  RunLoopTimeout selfCancelling;
  selfCancelling = RunLoopTimeout::after(PXRunLoop::current(), -5, [&] {
    fired.push_back("self-cancelling");
    selfCancelling.reset();  // inside its own callback
  });
  RunLoopTimeout later = RunLoopTimeout::after(PXRunLoop::current(), 20, [&] { fired.push_back("later"); });
  EXPECT_TRUE(cancelled);
  EXPECT_TRUE(later);
  cancelled.reset();
  EXPECT_FALSE(cancelled);
  // "later" comes after the 0 ms ones: had the cancelled one stayed, it would have fired first.
  ASSERT_TRUE(PXRunLoopUntil([&] { return fired.size() >= 2; }));
  drain();
  EXPECT_EQ(fired, (std::vector<std::string>{"self-cancelling", "later"}));
  EXPECT_FALSE(later);  // fired: nothing left to fire
  EXPECT_FALSE(selfCancelling);
  EXPECT_EQ(PXClock::now(), PXDate(0));
  EXPECT_FALSE(RunLoopTimeout::after(nullptr, 0, [] {}));
  EXPECT_FALSE(RunLoopTimeout::after(PXRunLoop::current(), 0, nullptr));
}

TEST(PendingIO, CountsPerLoopAndMovesWithItsObject) {
  PXRunLoop* loop = PXRunLoop::current();
  EXPECT_FALSE(hasPendingIO(loop));
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

}  // namespace
