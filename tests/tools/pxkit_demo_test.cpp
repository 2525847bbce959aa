// `pxkit demo` as a user runs it, with a real collector as its endpoint.
#include <gtest/gtest.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/net/PXWebRequest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/PXRunLoopUntil.h"
#include "support/PXSubprocess.h"

namespace {

namespace fs = std::filesystem;

// The demo's clock starts at 23:40 local time: in UTC, 1749771600 s since 1970.
const std::vector<std::string> kEnvironment = {"TZ=UTC", std::string("PXKIT_COLLECTOR=") + PXKIT_COLLECTOR};

PXSubprocess::Result runDemo(const std::vector<std::string>& args, std::vector<std::string> env = {}) {
  std::vector<std::string> argv = {PXKIT_CLI, "demo"};
  argv.insert(argv.end(), args.begin(), args.end());
  // The first of two same-named variables counts.
  env.insert(env.end(), kEnvironment.begin(), kEnvironment.end());
  return PXSubprocess::run(argv, {.environment = env, .mergeStandardError = true});
}

// The value after "  label" on the line that starts with it ("" when none).
std::string field(const std::string& output, const std::string& label) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("  " + label + " "))
      return line.substr(std::min(line.size(), line.find_first_not_of(' ', label.size() + 2)));
  }
  return "";
}

// The first JSON document printed after `marker`: the indented lines from "  {" to "  }".
PXRef<PXDictionary> documentAfter(const std::string& output, const std::string& marker) {
  size_t at = output.find(marker);
  size_t begin = at == std::string::npos ? at : output.find("\n  {\n", at);
  size_t end = begin == std::string::npos ? begin : output.find("\n  }\n", begin);
  if (end == std::string::npos) return {};
  std::string json = output.substr(begin + 1, end + 4 - begin);
  return PXJSONSerialization::JSONObjectWithData(PXData::dataWithString(json), 0).dictionaryValue();
}

std::string readFile(const fs::path& path) {
  std::ostringstream contents;
  contents << std::ifstream(path).rdbuf();
  return contents.str();
}

TEST(PXKitDemo, ServeKeepsTheDashboardUpUntilInterrupted) {
  for (int signal : {SIGINT, SIGTERM}) {
    PXSubprocess demo({PXKIT_CLI, "demo", "--serve"},
                      {.environment = kEnvironment, .mergeStandardError = true});
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
    ASSERT_TRUE(request && PXRunLoopUntil([&] { return finished; }));
    EXPECT_NE(std::string(request->responseBodyData()->view()).find("<svg"), std::string::npos);
    demo.kill(signal);
    const std::string rest = demo.readAll();
    EXPECT_EQ(PXSubprocess::exitStatusOf(demo.wait()), 0) << signal << told << rest;
    EXPECT_NE(rest.find("The collector ends (exit status 0)."), std::string::npos) << rest;
    EXPECT_TRUE(!field(told, "home").empty() && !fs::exists(field(told, "home"))) << "kept without --keep";
  }
}

}  // namespace

TEST(PXKitDemo, TheMidnightPapercutReachesTheCollectorAndTheReceiptRemovesIt) {
  PXSubprocess::Result run = runDemo({"--keep"});
  const std::string& out = run.output;
  ASSERT_EQ(run.exitStatus, 0) << out;

  // The second launch restored every persisted value of the first and no fixed value.
  const size_t restored = out.find("Restored from the saved state:");
  const std::string block = out.substr(restored, out.find("Not restored") - restored);
  for (const char* line : {"demo.documents.opened    pdf                     12\n",
                           "demo.words.typed                               1000\n",
                           "demo.editing             markdown               390\n",
                           "demo.preview                                     45\n"}) {
    EXPECT_NE(block.find(line), std::string::npos) << line << block;
  }
  EXPECT_EQ(block.find("demo.settings"), std::string::npos) << block;
  // The daily timer fired at 00:00:01, began the new period there and armed the next day's.
  for (const char* line :
       {"The period still begins at 2025-06-12 23:40:00 UTC.", "The timer fired at 2025-06-13 00:00:01 UTC",
        "The collector ends (exit status 0)."})
    EXPECT_NE(out.find(line), std::string::npos) << line;
  EXPECT_EQ(field(out, "new period"), "began 2025-06-13 00:00:01 UTC");
  EXPECT_EQ(field(out, "next timer"), "2025-06-14 00:00:01 UTC");

  // What the collector received: the one papercut of the period 23:40:00 - 00:00:01.
  PXRef<PXDictionary> posted = documentAfter(out, "Posted to http://127.0.0.1:");
  ASSERT_TRUE(posted) << out;
  EXPECT_EQ(posted->count(), 1u);
  ASSERT_EQ(posted->objectForKey("papercuts").arrayValue()->count(), 1u) << out;
  PXRef<PXDictionary> cut =
      posted->objectForKey("papercuts").arrayValue()->objectAtIndex(0).dictionaryValue();
  EXPECT_EQ(cut->objectForKey("applicationID").stringValue(), "org.pxkit.DemoEditor");
  EXPECT_EQ(cut->objectForKey("applicationVersion").stringValue(), "2.4");
  EXPECT_EQ(cut->objectForKey("channel").stringValue(), "demo");
  EXPECT_EQ(cut->objectForKey("timestamp").longLongValue(), 1749771600) << "the period's start, 23:40:00";
  // Both launches' values in one period; the runtime of two launches is 690 + 241 s.
  std::set<std::string> sent;  // without the common metrics whose values vary by machine
  for (const PXValue& item : *cut->objectForKey("metrics").arrayValue()) {
    PXRef<PXDictionary> set = item.dictionaryValue();
    const std::string id(set->objectForKey("identifier").stringValue());
    if (id.starts_with("common.") && id != "common.runtime" && !id.ends_with("launch") &&
        !id.ends_with("launches"))
      continue;
    sent.insert(id + "/" + std::string(set->objectForKey("primary").stringValue()) + "/" +
                std::string(set->objectForKey("secondary").stringValue()) + "=" +
                std::to_string(set->objectForKey("value").longLongValue()));
  }
  std::string sorted;
  for (const std::string& line : sent) sorted += line + " ";
  EXPECT_EQ(sorted,
            "common.firstlaunch//=1 common.launches//=2 common.runtime//=931 demo.commands.undo//=9 "
            "demo.documents.exported/pdf/file=2 demo.documents.exported/png/clipboard=4 "
            "demo.documents.opened/markdown/=7 demo.documents.opened/odt/=3 demo.documents.opened/pdf/=14 "
            "demo.editing/markdown/=390 demo.preview//=45 demo.settings.font-size//=16 "
            "demo.settings.theme/dark/=1 demo.words.typed//=1000 ");

  // The receipt names it, and the collector's own account of the day.
  PXRef<PXDictionary> receipt = documentAfter(out, "The receipt (status 200)");
  ASSERT_TRUE(receipt) << out;
  EXPECT_EQ(PXJSONSerialization::JSONify(receipt->objectForKey("processedPapercutPackageIDs")).str(),
            "[\"" + std::string(cut->objectForKey("packageID").stringValue()) + "\"]");
  PXRef<PXDictionary> summary = documentAfter(out, "The collector's summary");
  ASSERT_TRUE(summary) << out;
  EXPECT_EQ(summary->objectForKey("papercuts").longLongValue(), 1);
  EXPECT_EQ(PXJSONSerialization::JSONify(summary->objectForKey("papercutsPerDay")).str(),
            R"([{"day":"2025-06-12","papercuts":1}])");

  // --keep leaves the saved state, the by-host file with the system ID and the collector's database.
  const std::string root = field(out, "home");
  ASSERT_FALSE(root.empty()) << out;
  const fs::path app = fs::path(root) / "home/.config/org.pxkit.DemoEditor";
  EXPECT_NE(readFile(app / "org.pxkit.DemoEditor.plist").find("<key>Metrics</key>"), std::string::npos);
  EXPECT_EQ(fs::path(field(out, "by host")).parent_path(), app);
  EXPECT_NE(readFile(field(out, "by host")).find("<key>MetricsRandomSystemID</key>"), std::string::npos);
  EXPECT_NE(readFile(fs::path(root) / "collector/papercuts.db").find("org.pxkit.DemoEditor"),
            std::string::npos);
  fs::remove_all(root);
}

TEST(PXKitDemo, AMissingPartStopsTheStoryWithAClearLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"PXKIT_COLLECTOR=/nonexistent/pxkit-collector",
       "FAILED: cannot start the collector (/nonexistent/pxkit-collector): No such file or directory"},
      {"PXKIT_COLLECTOR=/bin/false", "FAILED: the collector did not start (exit status 1)"},
  };
  for (const auto& [variable, expected] : cases) {
    PXSubprocess::Result run = runDemo({}, {variable});
    EXPECT_EQ(run.exitStatus, 1) << run.output;
    EXPECT_NE(run.output.find(expected), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("== First launch"), std::string::npos) << "the story does not begin";
    // A home that was made is kept for a look at what went wrong.
    const std::string home = field(run.output, "home");
    ASSERT_FALSE(home.empty()) << run.output;
    EXPECT_NE(run.output.find("The demo's home is kept: " + home), std::string::npos);
    fs::remove_all(home);
  }
}
