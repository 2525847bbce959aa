// `pxkit demo` as a user runs it, with a real collector as its endpoint: the
// demo tells the story, these cases check it — the values the editor recorded
// as the collector received them, the restored state, the midnight timer, the
// receipt, the collector's summary, the files left with --keep, and a clear
// failure when a part the story needs is missing.
#include <gtest/gtest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/net/PXWebRequest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/PXRunLoopUntil.h"
#include "support/PXSubprocess.h"
#include "tools/ToolRun.h"

namespace {

namespace fs = std::filesystem;

// The demo with the collector of this build and a fixed time zone (its clock
// starts at 23:40 local time; in UTC that is 1749771600 s since 1970).
ToolRun runDemo(const std::vector<std::string>& args, std::vector<std::string> env = {}) {
  std::vector<std::string> all = {"demo"};
  all.insert(all.end(), args.begin(), args.end());
  // The first of two same-named variables counts: the case's own come first.
  env.insert(env.end(), {"TZ=UTC", std::string("PXKIT_COLLECTOR=") + PXKIT_COLLECTOR});
  return runTool(all, env);
}

// The value after "  label" on the line that starts with it ("" when none).
std::string field(const std::string& output, const std::string& label) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("  " + label + " ", 0) == 0) {
      size_t start = line.find_first_not_of(' ', label.size() + 2);
      return start == std::string::npos ? "" : line.substr(start);
    }
  }
  return "";
}

// The text between the first `from` and the next `to` after it ("" when absent).
std::string between(const std::string& output, const std::string& from, const std::string& to) {
  size_t begin = output.find(from);
  size_t end = begin == std::string::npos ? begin : output.find(to, begin);
  return end == std::string::npos ? "" : output.substr(begin, end - begin);
}

// The first JSON document printed after the line containing `marker`: the
// indented lines from "  {" to "  }".
PXRef<PXDictionary> documentAfter(const std::string& output, const std::string& marker) {
  size_t at = output.find(marker);
  size_t begin = at == std::string::npos ? at : output.find("\n  {\n", at);
  size_t end = begin == std::string::npos ? begin : output.find("\n  }\n", begin);
  if (end == std::string::npos) return {};
  std::string json = output.substr(begin + 1, end + 4 - begin);
  return PXJSONSerialization::JSONObjectWithData(PXData::dataWithString(json), 0).dictionaryValue();
}

// The value of the data set with this identity in a papercut's "metrics", or -1.
int64_t reported(const PXDictionary& cut, std::string_view identifier, std::string_view primary,
                 std::string_view secondary) {
  PXRef<PXArray> sets = cut.objectForKey("metrics").arrayValue();
  if (!sets) return -1;
  for (const PXValue& item : *sets) {
    PXRef<PXDictionary> set = item.dictionaryValue();
    if (set && set->objectForKey("identifier").stringValue() == identifier &&
        set->objectForKey("primary").stringValue() == primary &&
        set->objectForKey("secondary").stringValue() == secondary) {
      return set->objectForKey("value").longLongValue();
    }
  }
  return -1;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

struct Row {
  const char* identifier;
  const char* primary;
  const char* secondary;
  int64_t value;
};

}  // namespace

TEST(PXKitDemo, TheMidnightPapercutReachesTheCollectorAndTheReceiptRemovesIt) {
  ToolRun run = runDemo({"--keep"});
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output.find("FAILED"), std::string::npos) << run.output;

  // The second launch restored every persisted value of the first and no fixed value.
  const std::string restored = between(run.output, "Restored from the saved state:", "Not restored");
  ASSERT_FALSE(restored.empty()) << run.output;
  for (const char* line : {"demo.documents.opened    pdf                     12",
                           "demo.words.typed                               1000",
                           "demo.editing             markdown               390",
                           "demo.preview                                     45"}) {
    EXPECT_NE(restored.find(line), std::string::npos) << line << "\n" << restored;
  }
  EXPECT_EQ(restored.find("demo.settings"), std::string::npos) << restored;
  EXPECT_NE(run.output.find("The period still begins at 2025-06-12 23:40:00 UTC."), std::string::npos);

  // The daily timer fired at 00:00:01, began the new period there and armed the next day's.
  EXPECT_NE(run.output.find("The timer fired at 2025-06-13 00:00:01 UTC"), std::string::npos) << run.output;
  EXPECT_EQ(field(run.output, "new period"), "began 2025-06-13 00:00:01 UTC");
  EXPECT_EQ(field(run.output, "next timer"), "2025-06-14 00:00:01 UTC");

  // What the collector received: the one papercut of the period 23:40:00 - 00:00:01.
  PXRef<PXDictionary> posted = documentAfter(run.output, "Posted to http://127.0.0.1:");
  ASSERT_TRUE(posted) << "no posted document in:\n" << run.output;
  EXPECT_EQ(posted->count(), 1u);
  PXRef<PXArray> cuts = posted->objectForKey("papercuts").arrayValue();
  ASSERT_TRUE(cuts);
  ASSERT_EQ(cuts->count(), 1u) << run.output;
  PXRef<PXDictionary> cut = cuts->objectAtIndex(0).dictionaryValue();
  ASSERT_TRUE(cut);
  const std::string packageID(cut->objectForKey("packageID").stringValue());
  EXPECT_EQ(cut->objectForKey("applicationID").stringValue(), "org.pxkit.DemoEditor");
  EXPECT_EQ(cut->objectForKey("applicationVersion").stringValue(), "2.4");
  EXPECT_EQ(cut->objectForKey("channel").stringValue(), "demo");
  EXPECT_EQ(cut->objectForKey("timestamp").longLongValue(), 1749771600) << "the period's start, 23:40:00";
  // Both launches' values in one period: counters from four threads, usage
  // with autostop, fixed values as the second launch set them.
  const Row rows[] = {
      {"demo.documents.opened", "pdf", "", 12 + 2},
      {"demo.documents.opened", "markdown", "", 7},
      {"demo.documents.opened", "odt", "", 3},
      {"demo.documents.exported", "png", "clipboard", 4},
      {"demo.documents.exported", "pdf", "file", 2},
      {"demo.commands.undo", "", "", 9},
      {"demo.words.typed", "", "", 1000},
      {"demo.editing", "markdown", "", 390},
      {"demo.preview", "", "", 45},
      {"demo.settings.theme", "dark", "", 1},
      {"demo.settings.font-size", "", "", 16},
      // Each launch made the common metrics: two launches, the first one
      // ever, run time 23:40:00-23:51:30 and 23:56:00-00:00:01.
      {"common.launches", "", "", 2},
      {"common.firstlaunch", "", "", 1},
      {"common.runtime", "", "", 690 + 241},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(reported(*cut, row.identifier, row.primary, row.secondary), row.value)
        << row.identifier << " " << row.primary << " " << row.secondary;
  }
  // Besides these, only common metrics, whose values vary by machine.
  auto demoMetrics = [](auto&& identifiers) {
    return std::count_if(identifiers.begin(), identifiers.end(),
                         [](std::string_view id) { return id.starts_with("demo."); });
  };
  std::vector<std::string> sent;
  for (const PXValue& metric : *cut->objectForKey("metrics").arrayValue())
    sent.emplace_back(metric.dictionaryValue()->objectForKey("identifier").stringValue());
  std::vector<std::string_view> expected;
  for (const Row& row : rows) expected.emplace_back(row.identifier);
  EXPECT_EQ(demoMetrics(sent), demoMetrics(expected));
  EXPECT_EQ(std::count_if(
                sent.begin(), sent.end(),
                [](std::string_view id) { return !id.starts_with("demo.") && !id.starts_with("common."); }),
            0);

  // The receipt names it, and the tracker's store is empty afterwards (or the demo fails).
  PXRef<PXDictionary> receipt = documentAfter(run.output, "The receipt (status 200)");
  ASSERT_TRUE(receipt) << run.output;
  EXPECT_EQ(PXJSONSerialization::JSONify(receipt->objectForKey("processedPapercutPackageIDs")).str(),
            "[\"" + packageID + "\"]");

  // The collector's own account of the day.
  PXRef<PXDictionary> summary = documentAfter(run.output, "The collector's summary");
  ASSERT_TRUE(summary) << run.output;
  EXPECT_EQ(summary->objectForKey("papercuts").longLongValue(), 1);
  EXPECT_EQ(PXJSONSerialization::JSONify(summary->objectForKey("papercutsPerDay")).str(),
            R"([{"day":"2025-06-12","papercuts":1}])");

  EXPECT_NE(run.output.find("The collector ends (exit status 0)."), std::string::npos) << run.output;

  // --keep leaves the saved state and the collector's database (without it the
  // home goes: see the --serve case).
  const std::string root = field(run.output, "home");
  ASSERT_FALSE(root.empty()) << run.output;
  EXPECT_NE(run.output.find("The demo's home is kept: " + root), std::string::npos) << run.output;
  const fs::path app = fs::path(root) / "home/.config/org.pxkit.DemoEditor";
  EXPECT_NE(readFile(app / "org.pxkit.DemoEditor.plist").find("<key>Metrics</key>"), std::string::npos);
  // The by-host file is the application's other plist: <id>.<host key>.plist.
  int byHostFiles = 0;
  for (const auto& entry : fs::directory_iterator(app)) {
    byHostFiles +=
        entry.path().filename().string().size() == std::string("org.pxkit.DemoEditor..plist").size() + 64 &&
        readFile(entry.path()).find("<key>MetricsRandomSystemID</key>") != std::string::npos;
  }
  EXPECT_EQ(byHostFiles, 1);
  EXPECT_NE(readFile(fs::path(root) / "collector/papercuts.db").find("org.pxkit.DemoEditor"),
            std::string::npos);
  std::error_code ignored;
  fs::remove_all(root, ignored);
}

TEST(PXKitDemo, AMissingPartStopsTheStoryWithAClearLine) {
  struct Case {
    const char* name;
    std::vector<std::string> env;
    std::string expected;
  };
  const Case cases[] = {
      {"no home",
       {"TMPDIR=/nonexistent/pxkit-tmp"},
       "FAILED: cannot make a temporary directory from /nonexistent/pxkit-tmp/"},
      {"no collector",
       {"PXKIT_COLLECTOR=/nonexistent/pxkit-collector"},
       "FAILED: cannot start the collector (/nonexistent/pxkit-collector): No such file or directory"},
      {"a collector that does not start",
       {"PXKIT_COLLECTOR=/bin/false"},
       "FAILED: the collector did not start (exit status 1)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ToolRun run = runDemo({}, c.env);
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_NE(run.output.find(c.expected), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("== First launch"), std::string::npos) << "the story does not begin";
    // A home that was made is kept for a look at what went wrong; remove it here.
    if (std::string home = field(run.output, "home"); !home.empty()) {
      EXPECT_NE(run.output.find("The demo's home is kept: " + home), std::string::npos);
      std::error_code ignored;
      fs::remove_all(home, ignored);
    }
  }
}

TEST(PXKitDemo, ServeKeepsTheDashboardUpUntilInterrupted) {
  for (int signal : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(signal == SIGINT ? "SIGINT" : "SIGTERM");
    PXSubprocess demo({PXKIT_CLI, "demo", "--serve"},
                      {.environment = {"TZ=UTC", std::string("PXKIT_COLLECTOR=") + PXKIT_COLLECTOR},
                       .mergeStandardError = true});
    std::string told, dashboard;
    for (std::optional<std::string> line; dashboard.empty() && (line = demo.readLine());) {
      told += *line + "\n";
      if (line->starts_with("  dashboard ")) dashboard = field(*line + "\n", "dashboard");
    }
    ASSERT_TRUE(dashboard.starts_with("http://127.0.0.1:")) << told;
    // The collector still answers after the story has ended: its dashboard page.
    bool finished = false;
    PXRef<PXWebRequest> request = PXWebRequest::startedGETRequestForURL(
        dashboard, [&](PXWebRequest*, int32_t event, const PXValue&, uint32_t) {
          finished = finished || event == kPXWebRequestEventFinished;
        });
    ASSERT_TRUE(request);
    ASSERT_TRUE(PXRunLoopUntil([&] { return finished; }));
    EXPECT_EQ(request->responseStatusCode(), 200);
    EXPECT_NE(std::string(request->responseBodyData()->view()).find("<svg"), std::string::npos);

    demo.kill(signal);
    const std::string rest = demo.readAll();
    EXPECT_EQ(PXSubprocess::exitStatusOf(demo.wait()), 0) << told << rest;
    EXPECT_NE(rest.find("The collector ends (exit status 0)."), std::string::npos) << rest;
    ASSERT_FALSE(field(told, "home").empty()) << told;
    EXPECT_FALSE(fs::exists(field(told, "home"))) << "the throw-away home is removed without --keep";
  }
}
