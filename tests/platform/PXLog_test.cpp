#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/platform/PXLog.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "support/PXLogCapture.h"

TEST(PXLog, CaptureSeesTheExactLines) {
  PXLogCapture log;
  PXLog("%s: caught exception: %@", "runCheck", PXString("NSRangeException: index (3) beyond bounds (2)"));
  PXLogLine("plain line");
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                "runCheck: caught exception: NSRangeException: index (3) beyond bounds (2)", "plain line"}));
  EXPECT_TRUE(log.contains("plain line"));
  EXPECT_FALSE(log.contains("plain"));
  log.clear();
  EXPECT_TRUE(log.lines().empty());
}

namespace {

struct Written {
  std::string domain, message;
  GLogLevelFlags level{};
  int count = 0;
};
Written written;

GLogWriterOutput recordingWriter(GLogLevelFlags level, const GLogField* fields, gsize n, gpointer) {
  ++written.count;
  written.level = level;
  for (gsize i = 0; i < n; ++i) {
    std::string key = fields[i].key;
    std::string value = fields[i].length < 0 ? std::string(static_cast<const char*>(fields[i].value))
                                             : std::string(static_cast<const char*>(fields[i].value),
                                                           static_cast<size_t>(fields[i].length));
    if (key == "GLIB_DOMAIN") written.domain = value;
    if (key == "MESSAGE") written.message = value;
  }
  return G_LOG_WRITER_HANDLED;
}

}  // namespace

TEST(PXLog, WithoutAHandlerLinesGoToGLibStructuredLogging) {
  // The writer can be set once per process; every test case runs in its own.
  g_log_set_writer_func(recordingWriter, nullptr, nullptr);
  PXLog("%@ launched %d times", PXString("app"), 3);
  EXPECT_EQ(written.count, 1);
  EXPECT_EQ(written.domain, "PXKit");
  EXPECT_EQ(written.message, "app launched 3 times");
  EXPECT_EQ(written.level & G_LOG_LEVEL_MASK, G_LOG_LEVEL_MESSAGE);
  {
    PXLogCapture log;
    PXLogLine("captured, not written");
  }
  PXLogLine("written again, with 100% of its text");
  EXPECT_EQ(written.count, 2);
  EXPECT_EQ(written.message, "written again, with 100% of its text");
}

TEST(PXLog, SwappingHandlersWhileOtherThreadsLogLosesNoLine) {
  // Two counting handlers swapped back and forth while writers log; every line
  // reaches exactly one of them, and once a swap returns the old one is idle.
  constexpr int kWriters = 3, kLinesEach = 2000;
  std::atomic<int> first{0}, second{0};
  std::atomic<bool> firstRunning{false};
  PXLogSetHandler([&](std::string_view) {
    firstRunning = true;
    ++first;
    firstRunning = false;
  });
  std::latch start(kWriters + 1);
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&] {
      start.arrive_and_wait();
      for (int i = 0; i < kLinesEach; ++i) PXLog("line %d", i);
    });
  }
  start.arrive_and_wait();
  int idleAfterSwap = 0;
  for (int swap = 0; swap < 50; ++swap) {
    PXLogSetHandler([&](std::string_view) { ++second; });
    if (!firstRunning) ++idleAfterSwap;
    PXLogSetHandler([&](std::string_view) {
      firstRunning = true;
      ++first;
      firstRunning = false;
    });
  }
  for (auto& t : writers) t.join();
  PXLogSetHandler(nullptr);
  EXPECT_EQ(first + second, kWriters * kLinesEach);
  EXPECT_EQ(idleAfterSwap, 50);
}

TEST(PXLog, AHandlerMaySwapHandlersAndLogFromWithin) {
  std::vector<std::string> outer, inner;
  PXLogSetHandler([&](std::string_view line) {
    outer.emplace_back(line);
    PXLogSetHandler([&](std::string_view nested) { inner.emplace_back(nested); });
    PXLogLine("from inside");
  });
  PXLogLine("first");
  PXLogLine("second");
  PXLogSetHandler(nullptr);
  EXPECT_EQ(outer, (std::vector<std::string>{"first"}));
  EXPECT_EQ(inner, (std::vector<std::string>{"from inside", "second"}));
}
