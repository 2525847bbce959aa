// Work runs here when the caller owns the context or can take it, else on the thread iterating it.
// Idle sources of one priority run in the order attached: "has it run yet" questions are exact.

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
using Mode = pxkit::internal::RunOnContextMode;

namespace {

const auto nothing = [] {};

// A context iterated by a thread of its own (which owns it throughout) until the object goes.
class LoopThread {
 public:
  LoopThread() : context_(g_main_context_new()), loop_(g_main_loop_new(context_.get(), FALSE)) {
    std::promise<std::thread::id> started;
    thread_ = std::thread([this, &started] {
      pxkit::glib::ThreadDefaultContext scope(context_.get());
      started.set_value(std::this_thread::get_id());
      g_main_loop_run(loop_.get());
    });
    threadID_ = started.get_future().get();
  }
  ~LoopThread() {
    const auto quit = [this] { g_main_loop_quit(loop_.get()); };
    runOnContext(context_.get(), quit, Mode::DontWait);
    thread_.join();
  }
  GMainContext* context() const { return context_.get(); }
  std::thread::id threadID() const { return threadID_; }
  void roundTrip() { ASSERT_TRUE(runOnContext(context(), nothing, Mode::Wait)); }

 private:
  pxkit::glib::MainContext context_;
  pxkit::glib::MainLoop loop_;
  std::thread thread_;
  std::thread::id threadID_;
};

// Where the work ran, if it ran with `context` owned and as the thread's default.
std::function<void()> recordWhere(GMainContext* context, std::atomic<std::thread::id>& ranOn) {
  return [context, &ranOn] {
    GMainContext* current = g_main_context_ref_thread_default();
    if (g_main_context_is_owner(context) && current == context) ranOn = std::this_thread::get_id();
    g_main_context_unref(current);
  };
}

}  // namespace

TEST(RunOnContext, FromAnotherThreadWhileTheLoopRunsAndInlineOnItsThread) {
  LoopThread loop;
  std::atomic<std::thread::id> waited, handed, refused;
  EXPECT_TRUE(runOnContext(loop.context(), recordWhere(loop.context(), waited), Mode::Wait));
  EXPECT_EQ(waited, loop.threadID()) << "Wait returned before the work ran";
  EXPECT_FALSE(runOnContext(loop.context(), recordWhere(loop.context(), handed), Mode::DontWait));
  EXPECT_FALSE(runOnContext(loop.context(), recordWhere(loop.context(), refused), Mode::OnlyHere));
  loop.roundTrip();
  EXPECT_EQ(handed, loop.threadID());
  EXPECT_EQ(refused, std::thread::id()) << "OnlyHere ran the work elsewhere";
  std::vector<int> order;
  auto nested = [&] {
    for (Mode mode : {Mode::Wait, Mode::DontWait, Mode::OnlyHere}) {
      const auto record = [&] { order.push_back(static_cast<int>(mode)); };
      EXPECT_TRUE(runOnContext(loop.context(), record, mode));
      order.push_back(-1);
    }
  };
  ASSERT_TRUE(runOnContext(loop.context(), nested, Mode::Wait));
  EXPECT_EQ(order, (std::vector<int>{0, -1, 1, -1, 2, -1}));
}

TEST(RunOnContext, ExceptionsReachAWaitingCallerAndAreLoggedOtherwise) {
  LoopThread loop;
  PXLogCapture log;
  const std::function<void()> throwers[] = {
      [] { PXException::raise("NSInternalInconsistencyException", "late %d", 1); },
      [] { throw std::runtime_error("later"); },
      [] { throw 42; },
  };
  EXPECT_THROW(runOnContext(loop.context(), throwers[1], Mode::Wait), std::runtime_error);
  for (const auto& thrower : throwers) runOnContext(loop.context(), thrower, Mode::DontWait);
  loop.roundTrip();
  const std::string prefix = "PXKit: work handed to a main context raised an exception: ";
  EXPECT_EQ(log.lines(), (std::vector<std::string>{prefix + "NSInternalInconsistencyException: late 1",
                                                   prefix + "later", prefix + "unknown exception"}));
  EXPECT_EQ(log.lines(PXLogLevel::Error).size(), 3u);
  // Inline, the exception simply propagates and the context is let go.
  pxkit::glib::MainContext idle(g_main_context_new());
  EXPECT_THROW(runOnContext(idle.get(), throwers[1], Mode::DontWait), std::runtime_error);
  EXPECT_FALSE(g_main_context_is_owner(idle.get()));
}

// The second caller hands its work to the first, who iterates nothing: it must take the context once free.
TEST(RunOnContext, TwoCallersOfAContextNobodyIteratesBothRunAndReturn) {
  pxkit::glib::MainContext context(g_main_context_new());
  std::promise<void> firstRunning;
  std::atomic<bool> secondRan{false};
  std::thread first([&] {
    auto holdUntilHandedOver = [&] {
      EXPECT_TRUE(g_main_context_is_owner(context.get()));  // taken by the caller, nobody iterating it
      firstRunning.set_value();
      while (!g_main_context_pending(context.get())) std::this_thread::yield();
    };
    runOnContext(context.get(), holdUntilHandedOver, Mode::Wait);
  });
  firstRunning.get_future().wait();
  const auto second = [&] { secondRan = true; };
  EXPECT_TRUE(runOnContext(context.get(), second, Mode::Wait));
  first.join();
  EXPECT_TRUE(secondRan);
  // The handed-over source was dropped, not left to run a second time.
  ASSERT_TRUE(g_main_context_acquire(context.get()));
  EXPECT_FALSE(g_main_context_iteration(context.get(), FALSE));
  g_main_context_release(context.get());
  EXPECT_FALSE(runOnContext(nullptr, nullptr, Mode::Wait));  // empty work runs nothing
}
