#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXClass.h>
#include <pxkit/platform/PXLog.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::pair<std::string, std::string>> written;
GLogLevelFlags writtenLevel{};

GLogWriterOutput recordingWriter(GLogLevelFlags level, const GLogField* fields, gsize n, gpointer) {
  writtenLevel = level;
  written.clear();
  for (gsize i = 0; i < n; ++i) {
    EXPECT_LT(fields[i].length, 0) << "every field is a NUL-terminated text";
    written.emplace_back(fields[i].key, static_cast<const char*>(fields[i].value));
  }
  return G_LOG_WRITER_HANDLED;
}

}  // namespace

// Each line reaches one of two handlers swapped while threads log; once a swap returns, the old one is idle.
TEST(PXLog, SwappingHandlersWhileOtherThreadsLogLosesNoLine) {
  constexpr int kWriters = 3, kLinesEach = 2000;
  std::atomic<int> first{0}, second{0};
  std::atomic<bool> firstRunning{false};
  auto firstHandler = [&](PXLogLevel, std::string_view) {
    firstRunning = true;
    ++first;
    firstRunning = false;
  };
  PXLogSetHandler(firstHandler);
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
    PXLogSetHandler([&](PXLogLevel, std::string_view) { ++second; });
    if (!firstRunning) ++idleAfterSwap;
    PXLogSetHandler(firstHandler);
  }
  for (auto& t : writers) t.join();
  PXLogSetHandler(nullptr);
  EXPECT_EQ(first + second, kWriters * kLinesEach);
  EXPECT_EQ(idleAfterSwap, 50);
}

TEST(PXLog, AHandlerMaySwapHandlersAndLogFromWithin) {
  std::vector<std::string> outer, inner;
  PXLogSetHandler([&](PXLogLevel, std::string_view line) {
    outer.emplace_back(line);
    PXLogSetHandler([&](PXLogLevel, std::string_view nested) { inner.emplace_back(nested); });
    PXLogLine("from inside");
  });
  PXLogLine("first");
  PXLogLine("second");
  PXLogSetHandler(nullptr);
  EXPECT_EQ(outer, (std::vector<std::string>{"first"}));
  EXPECT_EQ(inner, (std::vector<std::string>{"from inside", "second"}));
}

// The line is the whole record (no file, line or function fields), with the journal's priority.
TEST(PXLog, WithoutAHandlerEachLevelReachesGLibWithItsLevelAndPriority) {
  const struct {
    PXLogLevel level;
    const char* name;
    GLogLevelFlags glibLevel;
    const char* priority;
  } levels[] = {
      {PXLogLevel::Debug, "debug", G_LOG_LEVEL_DEBUG, "7"},
      {PXLogLevel::Info, "info", G_LOG_LEVEL_INFO, "6"},
      {PXLogLevel::Notice, "notice", G_LOG_LEVEL_MESSAGE, "5"},
      {PXLogLevel::Warning, "warning", G_LOG_LEVEL_WARNING, "4"},
      {PXLogLevel::Error, "error", G_LOG_LEVEL_WARNING, "3"},
      {static_cast<PXLogLevel>(99), "notice", G_LOG_LEVEL_MESSAGE, "5"},  // out of range: the default
  };
  // The writer can be set once per process; every test case runs in its own.
  g_log_set_writer_func(recordingWriter, nullptr, nullptr);
  for (const auto& c : levels) {
    SCOPED_TRACE(c.name);
    EXPECT_STREQ(PXLogLevelName(c.level), c.name);
    PXLogWithLevel(c.level, "%@: %s at %d%%", PXString("PXKit"), c.name, 100);
    EXPECT_EQ(writtenLevel & G_LOG_LEVEL_MASK, c.glibLevel);
    EXPECT_EQ(written, (decltype(written){{"PRIORITY", c.priority},
                                          {"GLIB_DOMAIN", "PXKit"},
                                          {"MESSAGE", std::string("PXKit: ") + c.name + " at 100%"}}));
  }
  // A line that is not NUL-terminated where it ends is written as far as it goes.
  const std::string longer = "cut here|not this";
  PXLogLine(std::string_view(longer).substr(0, 8));
  EXPECT_EQ(written.back().second, "cut here");
}

// This binary uses none of these classes: they are here because the areas are linked whole, as in the
// library.
TEST(PXLinkedWhole, ClassesRegisteredOnlyByStaticInitializersArePresent) {
  for (const char* name : {"PXUserDefaultsController", "PXUserDefaultsValues", "PXWorkspace", "PXTimer",
                           "PXOperationQueue", "PXBundle", "PXMutableArray", "PXError"}) {
    const PXClass* found = PXClass::named(name);
    ASSERT_NE(found, nullptr) << name << " is not registered in this binary";
    EXPECT_EQ(found->name(), name);
  }
}
