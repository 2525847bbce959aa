#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/objects/PXClass.h>
#include <pxkit/platform/PXLog.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "support/PXLogCapture.h"

namespace {

struct Written {
  std::string domain, message, priority;
  GLogLevelFlags level{};
  int count = 0;
  std::vector<std::string> keys;
};
Written written;

GLogWriterOutput recordingWriter(GLogLevelFlags level, const GLogField* fields, gsize n, gpointer) {
  ++written.count;
  written.level = level;
  written.keys.clear();
  for (gsize i = 0; i < n; ++i) {
    std::string key = fields[i].key;
    std::string value = fields[i].length < 0 ? std::string(static_cast<const char*>(fields[i].value))
                                             : std::string(static_cast<const char*>(fields[i].value),
                                                           static_cast<size_t>(fields[i].length));
    written.keys.push_back(key);
    if (key == "GLIB_DOMAIN") written.domain = value;
    if (key == "PRIORITY") written.priority = value;
    if (key == "MESSAGE") written.message = value;
  }
  return G_LOG_WRITER_HANDLED;
}

}  // namespace

TEST(PXLog, SwappingHandlersWhileOtherThreadsLogLosesNoLine) {
  // Two counting handlers swapped back and forth while writers log; every line
  // reaches exactly one of them, and once a swap returns the old one is idle.
  constexpr int kWriters = 3, kLinesEach = 2000;
  std::atomic<int> first{0}, second{0};
  std::atomic<bool> firstRunning{false};
  PXLogSetHandler([&](PXLogLevel, std::string_view) {
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
    PXLogSetHandler([&](PXLogLevel, std::string_view) { ++second; });
    if (!firstRunning) ++idleAfterSwap;
    PXLogSetHandler([&](PXLogLevel, std::string_view) {
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

// ---- Levels ---------------------------------------------------------------------

namespace {

struct LevelCase {
  PXLogLevel level;
  const char* name;
  GLogLevelFlags glibLevel;
  const char* priority;
};

const LevelCase kLevels[] = {
    {PXLogLevel::Debug, "debug", G_LOG_LEVEL_DEBUG, "7"},
    {PXLogLevel::Info, "info", G_LOG_LEVEL_INFO, "6"},
    {PXLogLevel::Notice, "notice", G_LOG_LEVEL_MESSAGE, "5"},
    {PXLogLevel::Warning, "warning", G_LOG_LEVEL_WARNING, "4"},
    {PXLogLevel::Error, "error", G_LOG_LEVEL_WARNING, "3"},
};

}  // namespace

TEST(PXLog, CaptureSeesEachLevelWithItsLine) {
  PXLogCapture log;
  for (const LevelCase& c : kLevels) PXLogWithLevel(c.level, "%s line %d", c.name, 7);
  PXLog("%s: caught exception: %@", "runCheck", PXString("NSRangeException: index (3) beyond bounds (2)"));
  PXLogLine("plain line, 100%");
  std::vector<PXLogCapture::Entry> expected;
  for (const LevelCase& c : kLevels) expected.emplace_back(c.level, std::string(c.name) + " line 7");
  expected.emplace_back(PXLogLevel::Notice,
                        "runCheck: caught exception: NSRangeException: index (3) beyond bounds (2)");
  expected.emplace_back(PXLogLevel::Notice, "plain line, 100%");
  EXPECT_EQ(log.entries(), expected);
  EXPECT_TRUE(log.contains("plain line, 100%"));
  EXPECT_FALSE(log.contains("plain line"));
  EXPECT_EQ(log.lines(PXLogLevel::Warning), (std::vector<std::string>{"warning line 7", "error line 7"}));
  for (const LevelCase& c : kLevels) EXPECT_STREQ(PXLogLevelName(c.level), c.name);
  log.clear();
  EXPECT_TRUE(log.lines().empty());
}

TEST(PXLog, WithoutAHandlerEachLevelReachesGLibWithItsLevelAndPriority) {
  // The writer can be set once per process; every test case runs in its own.
  g_log_set_writer_func(recordingWriter, nullptr, nullptr);
  PXLog("%@ launched %d times", PXString("app"), 3);
  EXPECT_EQ(written.count, 1);
  EXPECT_EQ(written.message, "app launched 3 times");
  EXPECT_EQ(written.level & G_LOG_LEVEL_MASK, G_LOG_LEVEL_MESSAGE);
  {
    PXLogCapture log;
    PXLogLine("captured, not written");
  }
  EXPECT_EQ(written.count, 1);
  for (const LevelCase& c : kLevels) {
    SCOPED_TRACE(c.name);
    const int before = written.count;
    PXLogWithLevel(c.level, "PXKit: %s at %d%%", c.name, 100);
    ASSERT_EQ(written.count, before + 1);
    EXPECT_EQ(written.level & G_LOG_LEVEL_MASK, c.glibLevel);
    EXPECT_EQ(written.priority, c.priority);
    EXPECT_EQ(written.domain, "PXKit");
    EXPECT_EQ(written.message, std::string("PXKit: ") + c.name + " at 100%");
    // The line is the whole record: no file, line or function fields.
    EXPECT_EQ(written.keys, (std::vector<std::string>{"PRIORITY", "GLIB_DOMAIN", "MESSAGE"}));
  }
  // A line that is not NUL-terminated where it ends is written as far as it goes.
  const std::string longer = "cut here|not this";
  PXLogLineWithLevel(PXLogLevel::Info, std::string_view(longer).substr(0, 8));
  EXPECT_EQ(written.message, "cut here");
}

// ---- Registration that cannot vanish -------------------------------------------------

// This binary (logging only) references nothing of these classes' files: they
// are here only because the area libraries are linked whole, with their static
// registrations, as they are in libpxkit.so.
TEST(PXLinkedWhole, ClassesRegisteredOnlyByStaticInitializersArePresent) {
  for (const char* name : {"PXUserDefaultsController", "PXUserDefaultsValues", "PXWorkspace", "PXTimer",
                           "PXOperationQueue", "PXBundle", "PXMutableArray", "PXError"}) {
    const PXClass* found = PXClass::named(name);
    ASSERT_NE(found, nullptr) << name << " is not registered in this binary";
    EXPECT_EQ(found->name(), name);
  }
}
