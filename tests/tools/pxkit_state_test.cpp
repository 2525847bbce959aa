// `pxkit state` as a user runs it: a separate process reading the preferences
// a tracker of this test saved in a throw-away home, and changing none of them.
#include <gtest/gtest.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/platform/PXBundle.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/PXSubprocess.h"
#include "support/PXTempHome.h"

namespace {

constexpr const char* kApp = "org.example.StateHost";

// The tool with `args`, its standard output alone (standard error is left out).
PXSubprocess::Result runTool(std::vector<std::string> args) {
  args.insert(args.begin(), PXKIT_CLI);
  return PXSubprocess::run(args);
}

// Every file under `root` with its contents.
std::map<std::string, std::string> filesUnder(const std::string& root) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    files[entry.path().string()] = bytes.str();
  }
  return files;
}

}  // namespace

TEST(PXKitStateTool, ShowsTheStoredStateAndTheNextBodyWithoutChangingIt) {
  PXTempHome home;
  ASSERT_TRUE(PXBundle::setMainBundleIdentity(kApp, "2.0", "200"));
  PXString systemID = PXMetricsTracker::systemID();
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->metricForIdentifier("com.example.clicks", "toolbar", {})->setValue(3);
  tracker->makePaperCutWithTimestamp(PXDate::now().dateByAddingTimeInterval(-60));
  tracker->metricForIdentifier("com.example.editing")->setValue(420);
  tracker->setLastAutoSubmissionDate(PXDate::now().dateByAddingTimeInterval(-3600));
  tracker->saveToPreferences();
  // What the application itself would post now (it has submitted today: the stored papercut alone).
  PXRef<PXData> body = tracker->dataForSubmissionSync();
  ASSERT_TRUE(body);
  const std::string expectedBody(reinterpret_cast<const char*>(body->bytes().data()), body->length());
  const std::string packageID(
      tracker->paperCuts()->objectAtIndex(0).dictionaryValue()->objectForKey("packageID").stringValue());
  const auto before = filesUnder(home.configHome());
  ASSERT_FALSE(before.empty());

  struct Case {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> lines;  // each a whole line of the output, in this order
  };
  const std::vector<Case> cases = {
      {{"state", "--app", kApp},
       0,
       {std::string("application: ") + kApp, "system ID: " + std::string(systemID.view()), "metrics (2):",
        "  com.example.clicks [toolbar] = 0", "  com.example.editing = 420", "papercuts waiting (1):",
        "next submission body (" + std::to_string(expectedBody.size()) + " bytes):", expectedBody}},
      {{"state", "--app", "org.example.NeverRan"}, 1, {}},
      {{"state", "--app"}, 2, {}},
      {{"state", "--verbose"}, 2, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.back());
    PXSubprocess::Result run = runTool(c.args);
    EXPECT_EQ(run.exitStatus, c.status);
    size_t from = 0;
    for (const std::string& line : c.lines) {
      size_t at = run.output.find(line + "\n", from);
      EXPECT_NE(at, std::string::npos) << "missing line: " << line << "\nin:\n" << run.output;
      if (at != std::string::npos) from = at + line.size();
    }
    if (c.status != 0) {
      EXPECT_EQ(run.output, "");
    }
    EXPECT_EQ(filesUnder(home.configHome()), before) << "the tool wrote to the preferences";
  }
  EXPECT_NE(runTool({"state", "--app", kApp}).output.find("  " + packageID + "  "), std::string::npos);
}
