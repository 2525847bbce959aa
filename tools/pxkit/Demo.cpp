#include "Demo.h"

#include <pxkit/PXKit.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/platform/PXTimer.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Console.h"

extern char** environ;

namespace fs = std::filesystem;
using Console::check;
using Console::fail;

namespace {

// ---- The sample application and its day ------------------------------------------------

constexpr const char* kApplicationID = "org.pxkit.DemoEditor";
constexpr const char* kShortVersion = "2.4";
constexpr const char* kVersion = "240";
// A fixed machine identity, so that the by-host file name never depends on the host.
constexpr const char* kMachineID = "0d3e5a1b7c9f4e2a8b6d1c0f5e3a7b9d";
// Where the first launch writes down what it saved, for the second to compare.
constexpr const char* kSavedValuesFile = "first-launch-saved.json";
constexpr const char* kMetricsDefaultsKey = "Metrics";
// Mid-June: no time zone changes its offset near this midnight.
constexpr PXDateComponents kFirstLaunchClock{.year = 2025, .month = 6, .day = 12, .hour = 23, .minute = 40};
constexpr PXDateComponents kSecondLaunchClock{.year = 2025, .month = 6, .day = 12, .hour = 23, .minute = 56};
constexpr int kRecordingThreads = 4;

enum class Kind { Counter, Usage, Fixed };

// One metric of the scenario and the value it must have.
struct Expected {
  std::string identifier;
  std::string primary;
  std::string secondary;
  Kind kind;
  int32_t value;
};

// Counters the editor's parts record at once, each from its own thread:
// `times` calls adding `delta`.
struct Counter {
  const char* identifier;
  const char* primary;
  const char* secondary;
  int times;
  int32_t delta;
};
constexpr Counter kCounters[] = {
    {"demo.documents.opened", "pdf", nullptr, 12, 1}, {"demo.documents.opened", "markdown", nullptr, 7, 1},
    {"demo.documents.opened", "odt", nullptr, 3, 1},  {"demo.documents.exported", "png", "clipboard", 4, 1},
    {"demo.documents.exported", "pdf", "file", 2, 1}, {"demo.commands.undo", nullptr, nullptr, 9, 1},
    {"demo.words.typed", nullptr, nullptr, 25, 40},
};
// What the second launch adds before midnight.
constexpr Counter kSecondLaunchCounter = {"demo.documents.opened", "pdf", nullptr, 2, 1};

struct Fixed {
  const char* identifier;
  const char* primary;
  int32_t firstLaunch;
  int32_t secondLaunch;
};
// Facts of the current launch: set anew at every start, never saved.
constexpr Fixed kFixedValues[] = {
    {"demo.settings.theme", "dark", 1, 1},
    {"demo.settings.font-size", nullptr, 14, 16},
};

// Usage, on the main thread while the clock moves on (seconds from 23:40:00):
//   0    start editing (stops by itself 300 s after the last call)
//   90   continue editing (90 s so far); start the preview
//   135  stop the preview (45 s)
//   690  editing stopped by itself at 390 (90 + 300 s)
constexpr const char* kEditing = "demo.editing";
constexpr const char* kEditingPrimary = "markdown";
constexpr const char* kPreview = "demo.preview";
constexpr int32_t kEditingAutostop = 300;
constexpr int32_t kEditingContinuedAfter = 90;
constexpr int32_t kPreviewSeconds = 45;
constexpr int32_t kFirstLaunchSeconds = 690;  // the first launch quits at 23:51:30
constexpr int32_t kEditingSeconds = kEditingContinuedAfter + kEditingAutostop;

std::string_view view(const char* text) {
  return text ? std::string_view(text) : std::string_view();
}

std::vector<Expected> firstLaunchExpectations() {
  std::vector<Expected> all;
  for (const Counter& c : kCounters) {
    all.push_back({c.identifier, c.primary ? c.primary : "", c.secondary ? c.secondary : "", Kind::Counter,
                   c.times * c.delta});
  }
  all.push_back({kEditing, kEditingPrimary, "", Kind::Usage, kEditingSeconds});
  all.push_back({kPreview, "", "", Kind::Usage, kPreviewSeconds});
  for (const Fixed& f : kFixedValues)
    all.push_back({f.identifier, f.primary ? f.primary : "", "", Kind::Fixed, f.firstLaunch});
  return all;
}

// ---- Small helpers ---------------------------------------------------------------------

std::string clockText(PXDate date) {
  PXDateComponents c = PXCalendar::components(date);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d ", c.year, c.month, c.day, c.hour,
                c.minute, c.second);
  return buffer + PXCalendar::timeZoneAbbreviation(date);
}

std::string timeText(PXDate date) {
  return clockText(date).substr(11, 8);
}

std::string identityText(const Expected& e) {
  std::string s = e.identifier;
  if (!e.primary.empty()) s += " " + e.primary;
  if (!e.secondary.empty()) s += " " + e.secondary;
  return s;
}

const char* kindText(Kind kind) {
  switch (kind) {
    case Kind::Counter:
      return "counter";
    case Kind::Usage:
      return "usage (s)";
    case Kind::Fixed:
      return "fixed value";
  }
  return "";
}

// The registered metric of that identity, as a host finds it: among the
// tracker's metrics (an absent and an empty qualifier are the same).
PXRef<PXMetric> findMetric(PXMetricsTracker& tracker, const Expected& e) {
  auto same = [](const PXString& a, const std::string& b) { return a.view() == b; };
  PXRef<PXArray> metrics = tracker.metrics();
  for (const PXValue& value : *metrics) {
    PXRef<PXMetric> metric = PXDynamicCast<PXMetric>(value.objectValue());
    if (metric && same(metric->identifier(), e.identifier) && same(metric->primary(), e.primary) &&
        same(metric->secondary(), e.secondary)) {
      return metric;
    }
  }
  return {};
}

// The local moment of `c`, or a failure line.
std::optional<PXDate> localDate(const PXDateComponents& c) {
  std::optional<PXDate> date = PXCalendar::dateFromComponents(c);
  if (!date) fail("the local date of the demo's clock cannot be formed");
  return date;
}

bool writeFile(const std::string& path, std::string_view contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  return static_cast<bool>(out);
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

bool isNonEmptyFile(const std::string& path) {
  std::error_code ignored;
  return fs::is_regular_file(path, ignored) && fs::file_size(path, ignored) > 0;
}

// The kit's own log lines, kept and shown at the end of a launch rather than
// mixed into the demo's output.
class KitLog {
 public:
  KitLog() {
    PXLogSetHandler([this](PXLogLevel, std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  ~KitLog() { PXLogSetHandler(nullptr); }
  KitLog(const KitLog&) = delete;
  KitLog& operator=(const KitLog&) = delete;

  void show() {
    std::lock_guard lock(mutex_);
    if (lines_.empty()) return;
    Console::line();
    Console::line("The kit logged:");
    for (const std::string& line : lines_) Console::line("  " + line);
    lines_.clear();
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// ---- The throw-away home -------------------------------------------------------------------

std::string homeDir(const std::string& root) {
  return root + "/home";
}
std::string machineIDPath(const std::string& root) {
  return root + "/machine-id";
}

// Makes an empty directory for the demo under $TMPDIR (or /tmp).
std::optional<std::string> makeDemoRoot() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/pxkit-demo-XXXXXX";
  if (!mkdtemp(pattern.data())) {
    fail("cannot make a temporary directory from " + pattern);
    return std::nullopt;
  }
  return pattern;
}

// Points HOME, the XDG directories and the machine identity into `root`. Must
// run before the first GLib call of the process: GLib reads them once.
bool enterDemoHome(const std::string& root) {
  const std::string home = homeDir(root);
  const std::pair<const char*, std::string> variables[] = {
      {"HOME", home},
      {"XDG_CONFIG_HOME", home + "/.config"},
      {"XDG_DATA_HOME", home + "/.local/share"},
      {"XDG_STATE_HOME", home + "/.local/state"},
      {"XDG_CACHE_HOME", home + "/.cache"},
      {"XDG_RUNTIME_DIR", root + "/run"},
      // No desktop file or system-wide setting of this machine reaches the demo.
      {"XDG_DATA_DIRS", root + "/usr/share"},
      {"XDG_CONFIG_DIRS", root + "/etc/xdg"},
  };
  std::error_code error;
  for (const auto& [name, dir] : variables) {
    fs::create_directories(dir, error);
    if (error) return fail("cannot make " + dir + ": " + error.message());
    if (setenv(name, dir.c_str(), 1) != 0) return fail(std::string("cannot set ") + name);
  }
  chmod((root + "/run").c_str(), 0700);
  const std::string machineID = machineIDPath(root);
  if (!fs::exists(machineID) && !writeFile(machineID, std::string(kMachineID) + "\n")) {
    return fail("cannot write " + machineID);
  }
  return check(setenv("PXKIT_MACHINE_ID_PATH", machineID.c_str(), 1) == 0,
               "cannot set PXKIT_MACHINE_ID_PATH");
}

// The host's start-up: its identity, then the kit's clock.
bool startHost(const PXDateComponents& clock, PXDate* started) {
  if (!check(PXBundle::setMainBundleIdentity(kApplicationID, kShortVersion, kVersion),
             "the application identity is accepted")) {
    return false;
  }
  std::optional<PXDate> start = localDate(clock);
  if (!start) return false;
  PXClock::useVirtualClock(*start);
  *started = *start;
  return true;
}

// ---- Between the launches ------------------------------------------------------------------

// What the first launch saved, written as JSON for the second launch to compare.
bool writeSavedValues(const std::string& root, const std::vector<Expected>& saved, PXDate timeBase) {
  auto list = PXMutableArray::array();
  for (const Expected& e : saved) {
    auto entry = PXMutableDictionary::dictionary();
    entry->setObject(e.identifier, "identifier");
    if (!e.primary.empty()) entry->setObject(e.primary, "primary");
    if (!e.secondary.empty()) entry->setObject(e.secondary, "secondary");
    entry->setObject(static_cast<int>(e.kind), "kind");
    entry->setObject(e.value, "value");
    list->addObject(entry);
  }
  auto document = PXMutableDictionary::dictionary();
  document->setObject(timeBase.timeIntervalSinceReferenceDate(), "timeBase");
  document->setObject(list, "saved");
  PXErrorRef error;
  PXRef<PXData> json = PXJSONSerialization::dataWithJSONObject(document, kPXJSONWritingPrettyPrinted, &error);
  if (!json) return fail("the saved values cannot be written as JSON");
  const std::string path = root + "/" + kSavedValuesFile;
  return check(writeFile(path, json->view()), "cannot write " + path);
}

struct SavedValues {
  PXDate timeBase;
  std::vector<Expected> values;
};

std::optional<SavedValues> readSavedValues(const std::string& root) {
  const std::string path = root + "/" + kSavedValuesFile;
  std::optional<std::string> contents = readFile(path);
  if (!contents) {
    fail("the first launch's saved values (" + path + ") cannot be read");
    return std::nullopt;
  }
  PXErrorRef error;
  PXRef<PXDictionary> document =
      PXJSONSerialization::JSONObjectWithData(PXData::dataWithString(*contents), 0, &error).dictionaryValue();
  PXRef<PXArray> list = document ? document->objectForKey("saved").arrayValue() : PXRef<PXArray>();
  PXValue timeBase = document ? document->objectForKey("timeBase") : PXValue();
  if (!list || !timeBase.isNumber()) {
    fail("the first launch's saved values (" + path + ") do not parse");
    return std::nullopt;
  }
  SavedValues saved{PXDate(timeBase.doubleValue()), {}};
  for (const PXValue& item : *list) {
    PXRef<PXDictionary> entry = item.dictionaryValue();
    if (!entry) continue;
    saved.values.push_back({std::string(entry->objectForKey("identifier").stringValue()),
                            std::string(entry->objectForKey("primary").stringValue()),
                            std::string(entry->objectForKey("secondary").stringValue()),
                            static_cast<Kind>(entry->objectForKey("kind").intValue()),
                            entry->objectForKey("value").intValue()});
  }
  return saved;
}

// The saved state of this system in the defaults, as the kit keeps it: the
// "Metrics" dictionary's entry for the system ID. Empty when missing.
PXRef<PXData> savedStateBlob() {
  PXRef<PXDictionary> all = PXUserDefaults::standardUserDefaults()->dictionaryForKey(kMetricsDefaultsKey);
  PXString system = PXMetricsTracker::systemID();
  return all && system ? all->objectForKey(system).dataValue() : PXRef<PXData>();
}

// Starts this executable as the second launch and waits for it.
bool runSecondLaunchProcess(const std::string& self, const std::string& root) {
  Console::flush();
  std::string arg0 = "pxkit", verb = "demo", option = "--second-launch", dir = root;
  char* argv[] = {arg0.data(), verb.data(), option.data(), dir.data(), nullptr};
  pid_t child = -1;
  int rc = posix_spawn(&child, self.c_str(), nullptr, nullptr, argv, environ);
  if (rc != 0) return fail("cannot start the second launch (" + self + "): " + std::strerror(rc));
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return fail("lost the second launch: " + std::string(std::strerror(errno)));
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  if (WIFSIGNALED(status))
    return fail("the second launch was ended by signal " + std::to_string(WTERMSIG(status)));
  return fail("the second launch exited with status " + std::to_string(WEXITSTATUS(status)));
}

// ---- First launch ------------------------------------------------------------------------------

// Counters from several threads at once: each thread makes every n-th call of every counter.
void recordCountersFromThreads(PXMetricsTracker& tracker) {
  std::vector<std::thread> threads;
  for (int t = 0; t < kRecordingThreads; ++t) {
    threads.emplace_back([&tracker, t] {
      for (const Counter& c : kCounters) {
        for (int i = t; i < c.times; i += kRecordingThreads) {
          tracker.updateMetricValue(c.delta, c.identifier, view(c.primary), view(c.secondary));
        }
      }
      for (const Fixed& f : kFixedValues) {
        if (t == 0) tracker.setFixedValue(f.firstLaunch, f.identifier, view(f.primary));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Usage on the main thread while the clock moves on; returns the clock lines shown.
std::vector<std::string> recordUsage(PXMetricsTracker& tracker) {
  std::vector<std::string> story;
  auto at = [&](std::string what) { story.push_back(timeText(PXDate::now()) + "  " + std::move(what)); };
  // Every step settles before the clock moves: a recording takes the time at
  // which its operation runs on the tracker's queue.
  auto advance = [&](double seconds) {
    tracker.settleOutstandingOperationsWithOperationSync();
    PXClock::advanceVirtualClock(seconds);
  };
  const PXDate began = PXDate::now();
  tracker.startOrContinueUsageWithAutostopAfterInterval(kEditingAutostop, kEditing, kEditingPrimary);
  at("start   demo.editing markdown  (stops by itself 300 s after the last call)");
  advance(kEditingContinuedAfter);
  tracker.startOrContinueUsageWithAutostopAfterInterval(kEditingAutostop, kEditing, kEditingPrimary);
  tracker.startOrContinueUsageWithAutostopAfterInterval(0, kPreview);  // no autostop: stopped below
  at("continue demo.editing markdown; start demo.preview");
  advance(kPreviewSeconds);
  tracker.stopUsageForIdentifier(kPreview);
  at("stop    demo.preview");
  advance(kFirstLaunchSeconds - kEditingContinuedAfter - kPreviewSeconds);
  at("demo.editing stopped by itself at " + timeText(began + kEditingSeconds));
  tracker.settleOutstandingOperationsWithOperationSync();
  return story;
}

// The values as the tracker has them, pending usage committed (on its queue).
bool checkValues(PXMetricsTracker& tracker, const std::vector<Expected>& expected, Console::Table& table) {
  tracker.settleOutstandingOperationsWithOperationSync([&] {
    PXRef<PXArray> all = tracker.metrics();
    for (const PXValue& value : *all) {
      if (auto* metric = dynamic_cast<PXMetric*>(value.objectPointer())) metric->computeMetric();
    }
  });
  bool ok = check(tracker.metrics()->count() == expected.size(),
                  "the tracker holds " + std::to_string(tracker.metrics()->count()) + " metrics, not " +
                      std::to_string(expected.size()));
  for (const Expected& e : expected) {
    PXRef<PXMetric> metric = findMetric(tracker, e);
    if (!metric) {
      ok = fail(identityText(e) + " was not recorded");
      continue;
    }
    const bool persisted = e.kind != Kind::Fixed;
    ok = check(metric->value() == e.value, identityText(e) + " is " + std::to_string(metric->value()) +
                                               ", not " + std::to_string(e.value)) &&
         ok;
    ok = check(metric->needsPersistentStorage() == persisted,
               identityText(e) + (persisted ? " is not persisted" : " is persisted")) &&
         ok;
    table.addRow({e.identifier, e.primary, e.secondary, kindText(e.kind), std::to_string(metric->value()),
                  persisted ? "saved" : "not saved: rebuilt each launch"});
  }
  return ok;
}

int firstLaunch(const std::string& root, const std::string& self) {
  PXDate start;
  if (!startHost(kFirstLaunchClock, &start)) return 1;
  KitLog log;

  Console::heading("First launch (process " + std::to_string(getpid()) + ")");
  PXMetricsTracker* tracker = PXMetricsTracker::sharedMetricsTracker();
  if (!check(tracker != nullptr, "the shared tracker")) return 1;
  tracker->setChannel(kPXMetricsChannelDemo);
  Console::field("clock", clockText(PXDate::now()));
  Console::field("system ID", PXMetricsTracker::systemID().str() + "  (made now, kept per host)");
  if (!check(tracker->metrics()->count() == 0 && tracker->paperCuts()->count() == 0,
             "a fresh home starts with no metrics and no papercuts") ||
      !check(tracker->metricsTimeBase() == start, "the first period begins at launch")) {
    return 1;
  }

  Console::line();
  Console::line("Recording from " + std::to_string(kRecordingThreads) +
                " threads at once: counters and fixed values.");
  recordCountersFromThreads(*tracker);
  Console::line("Recording usage on the main thread while the clock moves on:");
  for (const std::string& step : recordUsage(*tracker)) Console::line("  " + step);

  const std::vector<Expected> expected = firstLaunchExpectations();
  Console::Table table({{"Identifier"},
                        {"Primary"},
                        {"Secondary"},
                        {"Recorded as"},
                        {"Value", Console::Align::Right},
                        {"Kept"}});
  const bool valuesOk = checkValues(*tracker, expected, table);
  Console::line();
  table.print();
  if (!valuesOk) return 1;

  tracker->saveToPreferences();
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  PXRef<PXData> blob = savedStateBlob();
  if (!check(blob && blob->length() > 0, "the state is saved under \"Metrics\" for this system ID") ||
      !check(isNonEmptyFile(defaults->filePath()),
             "the defaults file " + defaults->filePath() + " is written")) {
    return 1;
  }
  std::vector<Expected> saved;
  for (const Expected& e : expected) {
    if (e.kind != Kind::Fixed) saved.push_back(e);
  }
  if (!writeSavedValues(root, saved, tracker->metricsTimeBase())) return 1;
  Console::line();
  Console::line("Saved " + std::to_string(blob->length()) +
                " bytes of state under \"Metrics\" for this system ID in");
  Console::line("  " + defaults->filePath());

  // The application quits: its will-terminate hook saves once more. Posted
  // now, so that this process does not save again when it exits after the
  // second launch has written its own state.
  PXApplication::sharedApplication()->applicationWillTerminate();
  if (!check(tracker->paperCuts()->count() == 0, "no papercut before midnight")) return 1;
  Console::line("The first launch quits at " + timeText(PXDate::now()) +
                " (will-terminate saves the state too).");
  log.show();

  return runSecondLaunchProcess(self, root) ? 0 : 1;
}

// ---- Second launch -----------------------------------------------------------------------------

// Runs the main loop, without moving the clock, until nothing is ready.
void drainMainLoop() {
  for (int i = 0; i < 1000 && PXRunLoop::main()->runOnce(/*mayBlock=*/false); ++i) {
  }
}

const PXDictionary* findDataSet(const PXArray& dataSets, const Expected& e) {
  for (const PXValue& item : dataSets) {
    auto* set = dynamic_cast<const PXDictionary*>(item.objectPointer());
    if (set && set->objectForKey("identifier").stringValue() == e.identifier &&
        set->objectForKey("primary").stringValue() == e.primary &&
        set->objectForKey("secondary").stringValue() == e.secondary) {
      return set;
    }
  }
  return nullptr;
}

bool is32HexDigits(std::string_view s) {
  return s.size() == 32 && s.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// Restores, compares with what the first launch saved; fills `now` with the
// metrics as this launch has them before midnight.
bool checkRestored(PXMetricsTracker& tracker, const SavedValues& saved, std::vector<Expected>& now) {
  Console::Table table({{"Identifier"},
                        {"Primary"},
                        {"Secondary"},
                        {"Saved", Console::Align::Right},
                        {"Restored", Console::Align::Right}});
  bool ok = true;
  for (const Expected& e : saved.values) {
    PXRef<PXMetric> metric = findMetric(tracker, e);
    const int32_t restored = metric ? metric->value() : 0;
    table.addRow({e.identifier, e.primary, e.secondary, std::to_string(e.value),
                  metric ? std::to_string(restored) : "missing"});
    ok = check(metric && restored == e.value && metric->needsPersistentStorage(),
               identityText(e) + " was saved as " + std::to_string(e.value) + " but restored as " +
                   (metric ? std::to_string(restored) : "nothing")) &&
         ok;
    now.push_back(e);
  }
  Console::line();
  table.print();
  ok = check(tracker.metrics()->count() == saved.values.size(),
             "the tracker restored " + std::to_string(tracker.metrics()->count()) + " metrics, not " +
                 std::to_string(saved.values.size())) &&
       ok;
  std::string fixedNames;
  for (const Fixed& f : kFixedValues) {
    Expected e{f.identifier, f.primary ? f.primary : "", "", Kind::Fixed, f.secondLaunch};
    ok = check(!findMetric(tracker, e),
               identityText(e) + " is a fixed value but came back from the saved state") &&
         ok;
    fixedNames += (fixedNames.empty() ? "" : ", ") + identityText(e);
    now.push_back(e);
  }
  ok = check(tracker.metricsTimeBase() == saved.timeBase, "the period's start is restored") && ok;
  ok = check(tracker.paperCuts()->count() == 0, "no papercut is due on the same day") && ok;
  if (!ok) return false;
  Console::line();
  Console::line("Restored " + std::to_string(saved.values.size()) +
                " persisted values, all equal to what the first launch saved.");
  Console::line("Not restored, as intended: the fixed values " + fixedNames + ".");
  Console::line("The period still begins at " + clockText(tracker.metricsTimeBase()) + ".");
  return true;
}

// Checks the papercut's record against the expected values of the period.
bool checkPapercut(PXMetricsTracker& tracker, const PXDictionary& cut, const std::vector<Expected>& expected,
                   PXDate periodStart) {
  bool ok = check(is32HexDigits(cut.objectForKey("packageID").stringValue()),
                  "the papercut has a packageID of 32 hexadecimal digits");
  ok = check(cut.objectForKey("applicationID").stringValue() == kApplicationID,
             "the papercut names the application") &&
       ok;
  ok = check(cut.objectForKey("applicationVersion").stringValue() == kShortVersion,
             "the papercut names the application's version") &&
       ok;
  ok = check(cut.objectForKey("channel").stringValue() == kPXMetricsChannelDemo,
             "the papercut names the channel") &&
       ok;
  ok = check(cut.objectForKey("timestamp").doubleValue() == std::floor(periodStart.timeIntervalSince1970()),
             "the papercut is stamped with the period's start") &&
       ok;
  ok = check(cut.objectForKey("totalUsageDays").intValue() == 0, "the papercut counts 0 usage days") && ok;
  PXRef<PXArray> dataSets = cut.objectForKey("metrics").arrayValue();
  if (!check(dataSets != nullptr, "the papercut has a \"metrics\" list")) return false;
  ok = check(dataSets->count() == expected.size(), "the papercut reports " +
                                                       std::to_string(dataSets->count()) + " metrics, not " +
                                                       std::to_string(expected.size())) &&
       ok;
  for (const Expected& e : expected) {
    const PXDictionary* set = findDataSet(*dataSets, e);
    ok = check(set && set->objectForKey("value").intValue() == e.value,
               "the papercut reports " + identityText(e) + " = " + std::to_string(e.value)) &&
         ok;
  }
  // The new period: persisted values start from zero, fixed values stay.
  for (const Expected& e : expected) {
    PXRef<PXMetric> metric = findMetric(tracker, e);
    const int32_t after = e.kind == Kind::Fixed ? e.value : 0;
    ok = check(metric && metric->value() == after,
               identityText(e) + " is " + std::to_string(after) + " after the papercut") &&
         ok;
  }
  return ok;
}

int secondLaunch(const std::string& root) {
  PXDate start;
  if (!startHost(kSecondLaunchClock, &start)) return 1;
  KitLog log;
  std::optional<SavedValues> saved = readSavedValues(root);
  if (!saved) return 1;

  Console::heading("Second launch (process " + std::to_string(getpid()) + ")");
  Console::field("clock", clockText(PXDate::now()));
  // Made on first use: loads and restores the saved state, arms the daily timer.
  PXMetricsTracker* tracker = PXMetricsTracker::sharedMetricsTracker();
  if (!check(tracker != nullptr, "the shared tracker")) return 1;
  tracker->setChannel(kPXMetricsChannelDemo);
  std::vector<Expected> expected;
  if (!checkRestored(*tracker, *saved, expected)) return 1;

  // This launch's own recording: two more PDFs, and the fixed values of this launch.
  for (int i = 0; i < kSecondLaunchCounter.times; ++i) {
    tracker->updateMetricValue(kSecondLaunchCounter.delta, kSecondLaunchCounter.identifier,
                               view(kSecondLaunchCounter.primary));
  }
  for (const Fixed& f : kFixedValues) tracker->setFixedValue(f.secondLaunch, f.identifier, view(f.primary));
  tracker->settleOutstandingOperationsWithOperationSync();
  for (Expected& e : expected) {
    if (e.identifier == kSecondLaunchCounter.identifier && e.primary == kSecondLaunchCounter.primary &&
        e.secondary.empty()) {
      e.value += kSecondLaunchCounter.times * kSecondLaunchCounter.delta;
    }
  }
  Console::line("This launch records " + std::to_string(kSecondLaunchCounter.times) +
                " more demo.documents.opened pdf and sets its fixed values again");
  Console::line("(demo.settings.font-size is " + std::to_string(kFixedValues[1].secondLaunch) + " now).");
  log.show();

  // ---- Midnight
  Console::heading("Midnight");
  PXRunLoop* loop = PXRunLoop::main();
  drainMainLoop();  // the tracker arms its timer from the main queue
  PXRef<PXTimer> timer = tracker->automaticPapercutTimer();
  std::optional<PXDate> midnight = PXCalendar::dateOnFollowingDay(start, 0, 0, 1);
  if (!check(timer && midnight && timer->fireDate() == *midnight, "the daily timer is armed for 00:00:01")) {
    return 1;
  }
  Console::field("timer", "armed for " + clockText(timer->fireDate()), 12);
  Console::line("Running the main loop; the virtual clock moves on to the timer...");
  const PXDate periodStart = tracker->metricsTimeBase();
  // The loop lets virtual time move on to its next timer when idle; the timer
  // hands the papercut to the tracker's queue, which the settle waits for.
  for (int second = 0; second < 5 && tracker->paperCuts()->count() == 0; ++second) {
    loop->runUntilDate(*midnight + second);
    tracker->settleOutstandingOperationsWithOperationSync();
  }
  const PXDate fired = PXDate::now();
  drainMainLoop();  // the firing saves the state and arms tomorrow's timer from the main queue
  if (!check(tracker->paperCuts()->count() == 1, "one papercut is cut at midnight (found " +
                                                     std::to_string(tracker->paperCuts()->count()) + ")") ||
      !check(fired == *midnight, "the timer fired at 00:00:01 (the clock reads " + clockText(fired) + ")")) {
    return 1;
  }
  PXRef<PXDictionary> cut = tracker->paperCuts()->objectAtIndex(0).dictionaryValue();
  if (!check(cut != nullptr, "the papercut is a dictionary")) return 1;
  Console::line("The timer fired at " + clockText(fired) + " and cut one papercut for the period");
  Console::line("that began " + clockText(periodStart) + ":");

  PXErrorRef error;
  PXRef<PXData> json = PXJSONSerialization::dataWithJSONObject(cut, kPXJSONWritingPrettyPrinted, &error);
  if (!check(json != nullptr, "the papercut is written as JSON" +
                                  (error ? ": " + error->localizedDescription().str() : std::string()))) {
    return 1;
  }
  Console::line();
  Console::block(json->view());
  Console::line();
  if (!checkPapercut(*tracker, *cut, expected, periodStart)) return 1;
  PXRef<PXTimer> next = tracker->automaticPapercutTimer();
  std::optional<PXDate> tomorrow = PXCalendar::dateOnFollowingDay(fired, 0, 0, 1);
  if (!check(tracker->metricsTimeBase() == fired, "the new period begins at the cut") ||
      !check(next && next != timer && tomorrow && next->fireDate() == *tomorrow,
             "the next day's timer is armed")) {
    return 1;
  }
  Console::field("new period", "began " + clockText(tracker->metricsTimeBase()), 12);
  Console::field("next timer", clockText(next->fireDate()), 12);
  Console::line("Persisted values start again from 0; fixed values keep theirs.");

  // ---- Where the state is
  Console::heading("Where the state lives");
  tracker->saveToPreferences();
  PXUserDefaults* defaults = PXUserDefaults::standardUserDefaults();
  const std::string byHost = PXPreferences::filePath(kPXPreferencesCurrentApplication,
                                                     kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
  if (!check(savedStateBlob() != nullptr, "the state is saved again") ||
      !check(isNonEmptyFile(defaults->filePath()), "the defaults file " + defaults->filePath() + " exists") ||
      !check(isNonEmptyFile(byHost), "the by-host file " + byHost + " exists")) {
    return 1;
  }
  Console::field("defaults", defaults->filePath(), 10);
  Console::field("", "\"Metrics\": system ID -> the saved state, with 1 papercut waiting to be sent", 10);
  Console::field("by host", byHost, 10);
  Console::field("", "\"MetricsRandomSystemID\": " + PXMetricsTracker::systemID().str(), 10);
  PXApplication::sharedApplication()->applicationWillTerminate();
  Console::line("The second launch quits at " + timeText(PXDate::now()) +
                " (will-terminate saves the state).");
  log.show();
  return 0;
}

}  // namespace

// ---- Entry points ------------------------------------------------------------------------------

int PXKitDemo::run(bool keep, const std::string& self) {
  std::optional<std::string> root = makeDemoRoot();
  if (!root || !enterDemoHome(*root)) return 1;

  std::printf("PXKit %s demonstration\n\n", PXKitVersionString());
  Console::line(std::string("A sample editor, ") + kApplicationID + " " + kShortVersion + " (" + kVersion +
                "), launches twice in a throw-away");
  Console::line("home. The kit's clock is virtual and starts at 23:40 local time, so the second");
  Console::line("launch lives through midnight and the daily papercut.");
  Console::line();
  Console::field("home", *root);
  Console::field("time zone", PXCalendar::timeZoneName());
  Console::field("machine ID", "fixed, from " + machineIDPath(*root));

  const int status = firstLaunch(*root, self);
  Console::heading(status == 0 ? "Done" : "Stopped");
  if (status == 0) Console::line("Every step worked.");
  if (keep || status != 0) {
    Console::line("The demo's home is kept: " + *root);
  } else {
    std::error_code error;
    fs::remove_all(*root, error);
    if (error) {
      fail("cannot remove " + *root + ": " + error.message());
      return 1;
    }
    Console::line("The demo's home is removed (pxkit demo --keep leaves it in place).");
  }
  Console::flush();
  return status;
}

int PXKitDemo::runSecondLaunch(const std::string& root) {
  std::error_code error;
  if (!fs::is_directory(homeDir(root), error)) {
    fail("no demo home at " + root);
    return 1;
  }
  if (!enterDemoHome(root)) return 1;
  const int status = secondLaunch(root);
  Console::flush();
  return status;
}
