#include "Demo.h"

#include <fcntl.h>
#include <pxkit/PXKit.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/metrics/PXMetricsTrackerCommonMetrics.h>
#include <pxkit/net/PXJSONRequest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/net/PXWebRequest.h>
#include <pxkit/objects/PXClock.h>
#include <pxkit/platform/PXApplication.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXCalendar.h>
#include <pxkit/platform/PXLog.h>
#include <pxkit/platform/PXPreferences.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/platform/PXTimer.h>
#include <pxkit/platform/PXUserDefaults.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
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
// Where the first launch leaves the collector's address for the second.
constexpr const char* kCollectorURLFile = "collector-url";
// Mid-June: no time zone changes its offset near this midnight.
constexpr PXDateComponents kFirstLaunchClock{.year = 2025, .month = 6, .day = 12, .hour = 23, .minute = 40};
constexpr PXDateComponents kSecondLaunchClock{.year = 2025, .month = 6, .day = 12, .hour = 23, .minute = 56};
constexpr int kRecordingThreads = 4;
// How many virtual seconds the main loop may run while it waits for an answer
// (the clock stays while a request is in flight; these bound the idle rounds).
constexpr int kAnswerRounds = 60;

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

bool isFixedValue(const PXMetric& metric) {
  for (const Fixed& f : kFixedValues) {
    if (metric.identifier().view() == f.identifier && metric.primary().view() == view(f.primary)) return true;
  }
  return false;
}

// The tracker's metrics as table rows, pending usage committed first (on its queue).
void addMetricRows(PXMetricsTracker& tracker, Console::Table& table, bool withKind) {
  tracker.settleOutstandingOperationsWithOperationSync([&] {
    PXRef<PXArray> all = tracker.metrics();
    for (const PXValue& value : *all) {
      if (auto* metric = dynamic_cast<PXMetric*>(value.objectPointer())) metric->computeMetric();
    }
  });
  PXRef<PXArray> all = tracker.metrics();
  for (const PXValue& value : *all) {
    PXRef<PXMetric> metric = PXDynamicCast<PXMetric>(value.objectValue());
    if (!metric || metric->identifier().view().starts_with("common.")) continue;  // shown on their own
    std::vector<std::string> row = {metric->identifier().str(), metric->primary().str(),
                                    metric->secondary().str(), std::to_string(metric->value())};
    if (withKind) {
      const bool fixed = isFixedValue(*metric);
      const bool usage = metric->identifier().view() == kEditing || metric->identifier().view() == kPreview;
      row.insert(row.begin() + 3, fixed ? "fixed value" : usage ? "usage (s)" : "counter");
      row.push_back(metric->needsPersistentStorage() ? "saved" : "not saved: set anew each launch");
    }
    table.addRow(std::move(row));
  }
}

// Every host makes the common metrics once per launch; the story shows how
// many there are and which launch this is, `pxkit facts` shows them all.
void addCommonMetrics(PXMetricsTracker& tracker) {
  PXMetricsTrackerCommonMetrics::addCommonMetrics(tracker);
  tracker.settleOutstandingOperationsWithOperationSync();
  size_t count = 0;
  PXRef<PXArray> all = tracker.metrics();
  for (const PXValue& value : *all) {
    auto* metric = dynamic_cast<PXMetric*>(value.objectPointer());
    if (metric && metric->identifier().view().starts_with("common.")) ++count;
  }
  Console::line("addCommonMetrics: " + std::to_string(count) +
                " common metrics (this machine, this launch, run time, power source,");
  Console::line("  network; `pxkit facts` lists them), left out of the tables below.");
}

// A JSON value pretty printed, or absent when it cannot be written.
std::optional<std::string> prettyJSON(const PXValue& value) {
  PXErrorRef error;
  PXRef<PXData> json = PXJSONSerialization::dataWithJSONObject(value, kPXJSONWritingPrettyPrinted, &error);
  if (!json) return std::nullopt;
  return std::string(json->view());
}

// Prints a JSON document (given as data) pretty printed; false with a failure line when it is not JSON.
bool showJSON(const PXRef<PXData>& data, std::string_view what) {
  PXErrorRef error;
  PXValue parsed = data ? PXJSONSerialization::JSONObjectWithData(data, 0, &error) : PXValue();
  std::optional<std::string> text = parsed ? prettyJSON(parsed) : std::nullopt;
  if (!text) return fail(std::string(what) + " is not JSON");
  Console::line();
  Console::block(*text);
  return true;
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

// Waits for a child process; its exit status, or -1 when a signal ended it (or it was lost).
int waitForChild(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Spawn attributes that give the child the default signal mask (the demo
// blocks SIGINT and SIGTERM while it serves the dashboard).
struct SpawnAttributes {
  posix_spawnattr_t attributes;
  SpawnAttributes() {
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  }
  ~SpawnAttributes() { posix_spawnattr_destroy(&attributes); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
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
             "the application identity is not accepted")) {
    return false;
  }
  std::optional<PXDate> start = localDate(clock);
  if (!start) return false;
  PXClock::useVirtualClock(*start);
  *started = *start;
  return true;
}

// ---- The collector -------------------------------------------------------------------------

// Where the collector's executable is: $PXKIT_COLLECTOR, else beside this tool
// (installed), else in the build tree (tools/pxkit/pxkit -> tools/collector/pxkit-collector).
std::optional<std::string> findCollector(std::string* looked) {
  if (const char* chosen = std::getenv("PXKIT_COLLECTOR"); chosen && *chosen) return std::string(chosen);
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  if (error) {
    *looked = "/proc/self/exe: " + error.message();
    return std::nullopt;
  }
  const fs::path dir = self.parent_path();
  for (const fs::path& candidate :
       {dir / "pxkit-collector", dir.parent_path() / "collector" / "pxkit-collector"}) {
    if (access(candidate.c_str(), X_OK) == 0) return candidate.string();
    *looked += (looked->empty() ? "" : ", ") + candidate.string();
  }
  return std::nullopt;
}

// A pxkit-collector child process on an ephemeral loopback port, with its
// SQLite database in the demo's home. Ended (SIGTERM) by stop() or the destructor.
class Collector {
 public:
  Collector() = default;
  ~Collector() { stop(); }
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  bool start(const std::string& root) {
    std::string looked;
    std::optional<std::string> path = findCollector(&looked);
    if (!path) {
      return fail("no pxkit-collector (looked at " + looked +
                  "); build the target pxkit_collector (make demo does) or set PXKIT_COLLECTOR");
    }
    database_ = root + "/collector/papercuts.db";
    log_ = root + "/collector/collector.log";
    std::error_code error;
    fs::create_directories(root + "/collector", error);
    if (error) return fail("cannot make " + root + "/collector: " + error.message());

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return fail("cannot make a pipe: " + std::string(std::strerror(errno)));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    std::string arg0 = *path, listen = "--listen", address = "127.0.0.1:0", db = "--db", dbPath = database_;
    char* argv[] = {arg0.data(), listen.data(), address.data(), db.data(), dbPath.data(), nullptr};
    SpawnAttributes attributes;
    Console::flush();
    const int rc = posix_spawn(&pid_, path->c_str(), &actions, &attributes.attributes, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
      close(fds[0]);
      pid_ = -1;
      return fail("cannot start the collector (" + *path + "): " + std::strerror(rc));
    }
    output_ = fds[0];
    path_ = *path;
    // Its first line says where it listens; its second where it stores.
    const std::string first = readLine(), second = readLine();
    const std::string prefix = "listening on ";
    if (!first.starts_with(prefix)) {
      const int status = stop();
      std::optional<std::string> said = readFile(log_);
      return fail("the collector did not start (exit status " + std::to_string(status) + ")" +
                  (said && !said->empty() ? ": " + said->substr(0, said->find_last_not_of('\n') + 1) : ""));
    }
    url_ = first.substr(prefix.size());
    return true;
  }

  // Ends the collector (SIGTERM) and waits for it; its exit status (-1: none or a signal).
  int stop() {
    if (pid_ <= 0) return -1;
    kill(pid_, SIGTERM);
    const int status = waitForChild(pid_);
    pid_ = -1;
    if (output_ >= 0) close(output_);
    output_ = -1;
    return status;
  }

  // Whether the collector has ended by itself (reaped when it has).
  bool ended() {
    if (pid_ <= 0) return true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
    pid_ = -1;
    return true;
  }

  pid_t pid() const { return pid_; }
  const std::string& url() const { return url_; }
  const std::string& path() const { return path_; }
  const std::string& database() const { return database_; }

 private:
  std::string readLine() {
    std::string line;
    char c = 0;
    for (ssize_t n; (n = read(output_, &c, 1)) != 0;) {
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 || c == '\n') break;
      line += c;
    }
    return line;
  }

  pid_t pid_ = -1;
  int output_ = -1;  // its standard output, kept open while it runs
  std::string url_, path_, database_, log_;
};

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

// Starts this executable as the second launch and waits for it.
bool runSecondLaunchProcess(const std::string& self, const std::string& root) {
  Console::flush();
  std::string arg0 = "pxkit", verb = "demo", option = "--second-launch", dir = root;
  char* argv[] = {arg0.data(), verb.data(), option.data(), dir.data(), nullptr};
  SpawnAttributes attributes;
  pid_t child = -1;
  int rc = posix_spawn(&child, self.c_str(), nullptr, &attributes.attributes, argv, environ);
  if (rc != 0) return fail("cannot start the second launch (" + self + "): " + std::strerror(rc));
  const int status = waitForChild(child);
  return status == 0 || fail("the second launch ended with status " + std::to_string(status));
}

int firstLaunch(const std::string& root, const std::string& self) {
  PXDate start;
  if (!startHost(kFirstLaunchClock, &start)) return 1;
  KitLog log;

  Console::heading("First launch (process " + std::to_string(getpid()) + ")");
  PXMetricsTracker* tracker = PXMetricsTracker::sharedMetricsTracker();
  if (!check(tracker != nullptr, "there is no shared tracker")) return 1;
  tracker->setChannel(kPXMetricsChannelDemo);
  Console::field("clock", clockText(PXDate::now()));
  Console::field("system ID", PXMetricsTracker::systemID().str() + "  (made now, kept per host)");

  Console::line();
  addCommonMetrics(*tracker);
  Console::line();
  Console::line("Recording from " + std::to_string(kRecordingThreads) +
                " threads at once: counters and fixed values.");
  recordCountersFromThreads(*tracker);
  Console::line("Recording usage on the main thread while the clock moves on:");
  for (const std::string& step : recordUsage(*tracker)) Console::line("  " + step);

  Console::Table table({{"Identifier"},
                        {"Primary"},
                        {"Secondary"},
                        {"Recorded as"},
                        {"Value", Console::Align::Right},
                        {"Kept"}});
  addMetricRows(*tracker, table, /*withKind=*/true);
  Console::line();
  table.print();

  tracker->saveToPreferences();
  Console::line();
  Console::line("Saved the state under \"Metrics\" for this system ID in");
  Console::line("  " + PXUserDefaults::standardUserDefaults()->filePath());
  // The application quits: its will-terminate hook saves once more. Posted
  // now, so that this process does not save again when it exits after the
  // second launch has written its own state.
  PXApplication::sharedApplication()->applicationWillTerminate();
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

// Runs the main loop until `done` holds. While a request is in flight the
// virtual clock stays and the loop waits for its answer; when the loop is
// idle the clock moves on a second a round, at most kAnswerRounds times.
bool runUntil(const std::function<bool()>& done) {
  for (int round = 0; round < kAnswerRounds && !done(); ++round) {
    PXRunLoop::main()->runUntilDate(PXDate::now() + 1);
  }
  return done();
}

// The collector's summary (GET /api/summary), shown; false with a failure line.
bool showSummary(const std::string& collectorURL) {
  bool finished = false, succeeded = false;
  PXRef<PXWebRequest> request = PXWebRequest::startedGETRequestForURL(
      collectorURL + "/api/summary", [&](PXWebRequest*, int32_t event, const PXValue&, uint32_t flags) {
        if (event != kPXWebRequestEventFinished) return;
        finished = true;
        succeeded = (flags & kPXWebRequestFinishedSuccess) != 0;
      });
  if (!request) return fail("cannot ask the collector for its summary");
  if (!runUntil([&] { return finished; })) return fail("the collector did not answer GET /api/summary");
  if (!succeeded || request->responseStatusCode() != 200) {
    return fail("GET /api/summary answered status " + std::to_string(request->responseStatusCode()));
  }
  Console::line("The collector's summary, GET " + collectorURL + "/api/summary:");
  return showJSON(request->responseBodyData(), "the summary");
}

// Sends the stored papercuts to the collector and shows the exchange; false
// with a failure line when the receipt did not take them out of the store.
bool submit(PXMetricsTracker& tracker, PXDate submissionDate) {
  bool finished = false;
  int32_t status = 0;
  PXRef<PXData> posted;
  PXValue receipt;
  tracker.submitDataWithResponseHandler(
      [&](PXJSONRequest* request, bool, uint32_t, const PXValue& answer, PXError*) {
        finished = true;
        status = request->responseStatusCode();
        posted = request->requestBodyData();
        receipt = answer;
      },
      submissionDate);
  if (!runUntil([&] { return finished; })) return fail("the submission to the collector did not end");
  drainMainLoop();  // the receipt's save, enqueued on the main queue
  if (status == 0) return fail("the collector did not answer the submission");
  Console::line("Posted to " + tracker.metricsPostURL().str() + ":");
  if (!showJSON(posted, "the posted document")) return false;
  Console::line();
  if (!check(status >= 200 && status < 300, "the collector answered status " + std::to_string(status))) {
    return false;
  }
  std::optional<std::string> receiptText = receipt ? prettyJSON(receipt) : std::nullopt;
  if (!receiptText) return fail("the collector's answer is not a receipt");
  Console::line("The receipt (status " + std::to_string(status) + "):");
  Console::line();
  Console::block(*receiptText);
  Console::line();
  const size_t left = tracker.paperCuts()->count();
  if (!check(left == 0, std::to_string(left) + " papercuts are still stored after the receipt")) return false;
  Console::line("The receipt names every papercut sent: the tracker removes them from its store,");
  Console::line("saves, and records " + clockText(submissionDate) + " as its last submission.");
  return true;
}

int secondLaunch(const std::string& root) {
  PXDate start;
  if (!startHost(kSecondLaunchClock, &start)) return 1;
  KitLog log;
  std::optional<std::string> collectorURL = readFile(root + "/" + kCollectorURLFile);
  if (!collectorURL || collectorURL->empty()) {
    fail("the collector's address is not in " + root + "/" + kCollectorURLFile);
    return 1;
  }

  Console::heading("Second launch (process " + std::to_string(getpid()) + ")");
  Console::field("clock", clockText(PXDate::now()));
  // Made on first use: loads and restores the saved state, arms the daily timer.
  PXMetricsTracker* tracker = PXMetricsTracker::sharedMetricsTracker();
  if (!check(tracker != nullptr, "there is no shared tracker")) return 1;
  tracker->setChannel(kPXMetricsChannelDemo);
  tracker->setMetricsPostURL(*collectorURL + "/metrics/post");
  Console::field("endpoint", tracker->metricsPostURL().str());

  Console::line();
  Console::line("Restored from the saved state:");
  Console::Table restored({{"Identifier"}, {"Primary"}, {"Secondary"}, {"Value", Console::Align::Right}});
  addMetricRows(*tracker, restored, /*withKind=*/false);
  restored.print();
  Console::line("Not restored, as intended: the fixed values (set anew by each launch).");
  Console::line("The period still begins at " + clockText(tracker->metricsTimeBase()) + ".");
  Console::line();
  addCommonMetrics(*tracker);

  // This launch's own recording: two more PDFs, and the fixed values of this launch.
  for (int i = 0; i < kSecondLaunchCounter.times; ++i) {
    tracker->updateMetricValue(kSecondLaunchCounter.delta, kSecondLaunchCounter.identifier,
                               view(kSecondLaunchCounter.primary));
  }
  for (const Fixed& f : kFixedValues) tracker->setFixedValue(f.secondLaunch, f.identifier, view(f.primary));
  tracker->settleOutstandingOperationsWithOperationSync();
  Console::line();
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
  if (!check(timer && midnight, "the daily timer is not armed")) return 1;
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
  if (!check(tracker->paperCuts()->count() == 1,
             "no papercut was cut at midnight (the clock reads " + clockText(fired) + ")")) {
    return 1;
  }
  Console::line("The timer fired at " + clockText(fired) + " and cut one papercut for the period");
  Console::line("that began " + clockText(periodStart) + ".");
  Console::field("new period", "began " + clockText(tracker->metricsTimeBase()), 12);
  if (PXRef<PXTimer> next = tracker->automaticPapercutTimer()) {
    Console::field("next timer", clockText(next->fireDate()), 12);
  }
  Console::line("Persisted values start again from 0; fixed values keep theirs.");

  // ---- Submission
  Console::heading("Submission");
  Console::line("The editor sends what it has stored to the collector (submitDataWithResponseHandler;");
  Console::line("an application that calls start() has the daily timer do this once a day).");
  Console::line();
  if (!submit(*tracker, fired)) return 1;
  Console::line();
  if (!showSummary(*collectorURL)) return 1;

  // ---- Where the state is
  Console::heading("Where the state lives");
  tracker->saveToPreferences();
  const std::string byHost = PXPreferences::filePath(kPXPreferencesCurrentApplication,
                                                     kPXPreferencesCurrentUser, kPXPreferencesCurrentHost);
  Console::field("defaults", PXUserDefaults::standardUserDefaults()->filePath(), 10);
  Console::field("", "\"Metrics\": system ID -> the saved state (no papercut waiting)", 10);
  Console::field("by host", byHost, 10);
  Console::field("", "\"MetricsRandomSystemID\": " + PXMetricsTracker::systemID().str(), 10);
  PXApplication::sharedApplication()->applicationWillTerminate();
  Console::line("The second launch quits at " + timeText(PXDate::now()) +
                " (will-terminate saves the state).");
  log.show();
  return 0;
}

// Blocks SIGINT, SIGTERM and SIGCHLD in this thread, and so in every thread
// made after it: `--serve` waits for them with sigwait.
void blockServeSignals(sigset_t* set) {
  sigemptyset(set);
  sigaddset(set, SIGINT);
  sigaddset(set, SIGTERM);
  sigaddset(set, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, set, nullptr);
}

// Serves the dashboard until SIGINT or SIGTERM, or until the collector ends.
void serve(Collector& collector, const sigset_t& signals) {
  Console::heading("Serving");
  Console::field("dashboard", collector.url() + "/");
  Console::field("summary", collector.url() + "/api/summary");
  Console::line("The collector keeps running; press Ctrl-C to end it.");
  Console::flush();
  while (!collector.ended()) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0 || signal == SIGINT || signal == SIGTERM) break;
  }
}

}  // namespace

// ---- Entry points ------------------------------------------------------------------------------

int PXKitDemo::run(bool keep, bool serveAtEnd, const std::string& self) {
  sigset_t signals;
  if (serveAtEnd) blockServeSignals(&signals);  // before any thread is made
  std::optional<std::string> root = makeDemoRoot();
  if (!root || !enterDemoHome(*root)) return 1;

  std::printf("PXKit %s demonstration\n\n", PXKitVersionString());
  Console::line(std::string("A sample editor, ") + kApplicationID + " " + kShortVersion + " (" + kVersion +
                "), launches twice in a throw-away");
  Console::line("home. The kit's clock is virtual and starts at 23:40 local time, so the second");
  Console::line("launch lives through midnight, cuts the daily papercut and submits it to a");
  Console::line("collector running beside the demo.");
  Console::line();
  Console::field("home", *root);
  Console::field("time zone", PXCalendar::timeZoneName());
  Console::field("machine ID", "fixed, from " + machineIDPath(*root));

  Collector collector;
  int status = 1;
  if (collector.start(*root) && check(writeFile(*root + "/" + kCollectorURLFile, collector.url()),
                                      "cannot write the collector's address")) {
    Console::field("collector", collector.url() + "  (" + collector.path() + ", process " +
                                    std::to_string(collector.pid()) + ")");
    Console::field("", "its database: " + collector.database());
    status = firstLaunch(*root, self);
  }
  if (status == 0 && serveAtEnd) serve(collector, signals);
  if (collector.pid() > 0) {
    const int ended = collector.stop();
    Console::heading(status == 0 ? "Done" : "Stopped");
    Console::line("The collector ends (exit status " + std::to_string(ended) + ").");
  } else {
    Console::heading(status == 0 ? "Done" : "Stopped");
  }
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
