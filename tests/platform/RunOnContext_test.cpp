// Running work on a GLib context: here when the caller owns the context or can
// take it, there (on the thread iterating it) otherwise, waited for or not.
// Real contexts and real threads; the order of idle sources of one priority
// (first attached, first run) makes "has it run yet" questions exact.

#include "platform/internal/RunOnContext.h"

#include <gtest/gtest.h>
#include <pxkit/objects/PXException.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/internal/GLibHandles.h"
#include "support/PXLogCapture.h"

using pxkit::internal::runOnContext;
using pxkit::internal::RunOnContextMode;

namespace {

// A context iterated by a thread of its own until the object goes.
class LoopThread {
 public:
  LoopThread() : context_(g_main_context_new()), loop_(g_main_loop_new(context_.get(), FALSE)) {
    std::promise<std::thread::id> started;
    auto id = started.get_future();
    thread_ = std::thread([this, &started] {
      pxkit::glib::ThreadDefaultContext scope(context_.get());
      // Running only once the loop owns the context: callers then find it taken.
      pxkit::glib::Source idle(g_idle_source_new());
      g_source_set_callback(
          idle.get(),
          [](gpointer data) -> gboolean {
            static_cast<std::promise<std::thread::id>*>(data)->set_value(std::this_thread::get_id());
            return G_SOURCE_REMOVE;
          },
          &started, nullptr);
      g_source_attach(idle.get(), context_.get());
      g_main_loop_run(loop_.get());
    });
    threadID_ = id.get();
  }
  ~LoopThread() {
    runOnContext(
        context_.get(), [this] { g_main_loop_quit(loop_.get()); }, RunOnContextMode::DontWait);
    thread_.join();
  }
  GMainContext* context() const { return context_.get(); }
  std::thread::id threadID() const { return threadID_; }

 private:
  pxkit::glib::MainContext context_;
  pxkit::glib::MainLoop loop_;
  std::thread thread_;
  std::thread::id threadID_;
};

// What one piece of work saw.
struct Seen {
  std::atomic<int> runs{0};
  std::thread::id thread;
  bool owned = false;
  bool wasThreadDefault = false;

  std::function<void()> work(GMainContext* expected) {
    return [this, expected] {
      thread = std::this_thread::get_id();
      owned = g_main_context_is_owner(expected);
      wasThreadDefault = g_main_context_get_thread_default() == expected ||
                         (!g_main_context_get_thread_default() && expected == g_main_context_default());
      ++runs;
    };
  }
};

// Returns once everything handed to `loop` before has run.
void roundTrip(LoopThread& loop) {
  ASSERT_TRUE(runOnContext(
      loop.context(), [] {}, RunOnContextMode::Wait));
}

struct ModeCase {
  RunOnContextMode mode;
  const char* name;
};
const ModeCase kModes[] = {{RunOnContextMode::Wait, "Wait"},
                           {RunOnContextMode::DontWait, "DontWait"},
                           {RunOnContextMode::OnlyHere, "OnlyHere"}};

}  // namespace

TEST(RunOnContext, NobodyIteratingRunsHereInEveryModeAndReleasesTheContext) {
  for (const ModeCase& c : kModes) {
    SCOPED_TRACE(c.name);
    pxkit::glib::MainContext context(g_main_context_new());
    Seen seen;
    EXPECT_TRUE(runOnContext(context.get(), seen.work(context.get()), c.mode));
    EXPECT_EQ(seen.runs, 1);
    EXPECT_EQ(seen.thread, std::this_thread::get_id());
    EXPECT_TRUE(seen.owned);
    EXPECT_TRUE(seen.wasThreadDefault) << "sources made inside would attach elsewhere";
    EXPECT_FALSE(g_main_context_is_owner(context.get()));
    EXPECT_NE(g_main_context_get_thread_default(), context.get());
    // Released: another thread can take it now.
    std::thread([&] {
      ASSERT_TRUE(g_main_context_acquire(context.get()));
      g_main_context_release(context.get());
    }).join();
  }
  // Null is the global default context; empty work runs nothing.
  Seen seen;
  EXPECT_TRUE(runOnContext(nullptr, seen.work(g_main_context_default()), RunOnContextMode::DontWait));
  EXPECT_TRUE(seen.owned && seen.wasThreadDefault);
  EXPECT_FALSE(runOnContext(nullptr, nullptr, RunOnContextMode::Wait));
}

TEST(RunOnContext, FromTheOwningThreadRunsInlineInEveryMode) {
  LoopThread loop;
  std::vector<std::string> order;
  ASSERT_TRUE(runOnContext(
      loop.context(),
      [&] {
        for (const ModeCase& c : kModes) {
          order.push_back(std::string("before ") + c.name);
          EXPECT_TRUE(runOnContext(
              loop.context(), [&] { order.push_back(c.name); }, c.mode));
          order.push_back(std::string("after ") + c.name);
        }
      },
      RunOnContextMode::Wait));
  EXPECT_EQ(order,
            (std::vector<std::string>{"before Wait", "Wait", "after Wait", "before DontWait", "DontWait",
                                      "after DontWait", "before OnlyHere", "OnlyHere", "after OnlyHere"}));
}

TEST(RunOnContext, FromAnotherThreadWhileTheLoopRuns) {
  LoopThread loop;
  ASSERT_NE(loop.threadID(), std::this_thread::get_id());

  Seen waited;
  EXPECT_TRUE(runOnContext(loop.context(), waited.work(loop.context()), RunOnContextMode::Wait));
  EXPECT_EQ(waited.runs, 1) << "Wait returned before the work ran";
  EXPECT_EQ(waited.thread, loop.threadID());
  EXPECT_TRUE(waited.owned);
  EXPECT_TRUE(waited.wasThreadDefault);

  Seen handed;
  EXPECT_FALSE(runOnContext(loop.context(), handed.work(loop.context()), RunOnContextMode::DontWait));
  roundTrip(loop);
  EXPECT_EQ(handed.runs, 1);
  EXPECT_EQ(handed.thread, loop.threadID());
  EXPECT_TRUE(handed.wasThreadDefault);

  Seen refused;
  EXPECT_FALSE(runOnContext(loop.context(), refused.work(loop.context()), RunOnContextMode::OnlyHere));
  roundTrip(loop);
  EXPECT_EQ(refused.runs, 0) << "OnlyHere ran the work elsewhere";
}

TEST(RunOnContext, ExceptionsReachAWaitingCallerAndAreLoggedOtherwise) {
  LoopThread loop;
  EXPECT_THROW(runOnContext(
                   loop.context(), [] { throw std::runtime_error("in the loop"); }, RunOnContextMode::Wait),
               std::runtime_error);
  PXLogCapture log;
  runOnContext(
      loop.context(), [] { PXException::raise("NSInternalInconsistencyException", "late %d", 1); },
      RunOnContextMode::DontWait);
  roundTrip(loop);
  EXPECT_EQ(log.lines(PXLogLevel::Error),
            (std::vector<std::string>{"PXKit: work handed to a main context raised an exception: "
                                      "NSInternalInconsistencyException: late 1"}));
  // Inline, the exception simply propagates.
  pxkit::glib::MainContext idle(g_main_context_new());
  EXPECT_THROW(runOnContext(
                   idle.get(), [] { throw std::runtime_error("here"); }, RunOnContextMode::DontWait),
               std::runtime_error);
  EXPECT_FALSE(g_main_context_is_owner(idle.get())) << "the context stayed taken after the exception";
}

TEST(RunOnContext, TwoCallersOfAContextNobodyIteratesBothRunAndReturn) {
  // The first caller takes the free context for its work; the second cannot
  // take it and hands its work over. Nobody iterates the context, so the second
  // must take it itself once the first lets it go, not wait forever.
  pxkit::glib::MainContext context(g_main_context_new());
  std::promise<void> firstRunning;
  std::atomic<bool> secondRan{false};
  std::thread first([&] {
    runOnContext(
        context.get(),
        [&] {
          firstRunning.set_value();
          // Holding the context until the second caller's work is attached to it.
          while (!g_main_context_pending(context.get())) std::this_thread::yield();
        },
        RunOnContextMode::Wait);
  });
  firstRunning.get_future().wait();
  EXPECT_TRUE(runOnContext(
      context.get(), [&] { secondRan = true; }, RunOnContextMode::Wait));
  first.join();
  EXPECT_TRUE(secondRan);
  // The handed-over source was dropped, not left to run a second time.
  ASSERT_TRUE(g_main_context_acquire(context.get()));
  EXPECT_FALSE(g_main_context_iteration(context.get(), FALSE));
  g_main_context_release(context.get());
}
