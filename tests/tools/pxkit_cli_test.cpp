// The pxkit tool as a user runs it: a separate process, judged by its exit
// status and what it prints.
#include <gtest/gtest.h>
#include <pxkit/PXKit.h>
#include <pxkit/net/PXJSONSerialization.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/ToolRun.h"

namespace {

namespace fs = std::filesystem;

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

// The papercut the demo prints: the JSON document between the indented "{" and "}" lines.
PXRef<PXDictionary> papercut(const std::string& output) {
  size_t begin = output.find("\n  {\n");
  size_t end = begin == std::string::npos ? begin : output.find("\n  }\n", begin);
  if (end == std::string::npos) return {};
  std::string json = output.substr(begin + 1, end + 4 - begin);
  return PXJSONSerialization::JSONObjectWithData(PXData::dataWithString(json), 0).dictionaryValue();
}

// The value of the data set with this identity in a papercut's "metrics", or -1.
int64_t reported(const PXDictionary& cut, std::string_view identifier, std::string_view primary = {},
                 std::string_view secondary = {}) {
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

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

}  // namespace

TEST(PXKitTool, DemoChecksEveryStepAndShowsTheMidnightPapercut) {
  ToolRun run = runTool({"demo"});
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output.find("FAILED"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("Restored 9 persisted values, all equal to what the first launch saved."),
            std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("Every step worked."), std::string::npos) << run.output;

  PXRef<PXDictionary> cut = papercut(run.output);
  ASSERT_TRUE(cut) << "no papercut JSON in:\n" << run.output;
  std::string packageID(cut->objectForKey("packageID").stringValue());
  EXPECT_EQ(packageID.size(), 32u);
  EXPECT_EQ(packageID.find_first_not_of("0123456789abcdef"), std::string::npos) << packageID;
  EXPECT_EQ(cut->objectForKey("applicationID").stringValue(), "org.pxkit.DemoEditor");
  EXPECT_EQ(cut->objectForKey("applicationVersion").stringValue(), "2.4");
  EXPECT_EQ(cut->objectForKey("channel").stringValue(), "demo");
  EXPECT_EQ(cut->objectForKey("totalUsageDays").longLongValue(), 0);
  // The first launch's values, then the second's additions, in one period.
  struct Row {
    const char* identifier;
    const char* primary;
    const char* secondary;
    int64_t value;
  };
  for (Row row :
       {Row{"demo.documents.opened", "pdf", "", 12 + 2}, Row{"demo.documents.opened", "markdown", "", 7},
        Row{"demo.documents.exported", "png", "clipboard", 4}, Row{"demo.words.typed", "", "", 1000},
        Row{"demo.editing", "markdown", "", 390}, Row{"demo.preview", "", "", 45},
        Row{"demo.settings.theme", "dark", "", 1}, Row{"demo.settings.font-size", "", "", 16}}) {
    EXPECT_EQ(reported(*cut, row.identifier, row.primary, row.secondary), row.value)
        << row.identifier << " " << row.primary << " " << row.secondary;
  }
  EXPECT_EQ(cut->objectForKey("metrics").arrayValue()->count(), 11u);
  // Stamped with the start of the period: 23:40:00 local time, a whole minute.
  double timestamp = cut->objectForKey("timestamp").doubleValue();
  EXPECT_EQ(std::fmod(timestamp, 60.0), 0.0) << timestamp;

  const std::string home = field(run.output, "home");
  ASSERT_FALSE(home.empty()) << run.output;
  EXPECT_FALSE(fs::exists(home)) << "the throw-away home is removed without --keep";
}

TEST(PXKitTool, DemoKeepLeavesTheHomeWithTheSavedState) {
  ToolRun run = runTool({"demo", "--keep"});
  ASSERT_EQ(run.status, 0) << run.output;
  const std::string root = field(run.output, "home");
  ASSERT_FALSE(root.empty()) << run.output;
  EXPECT_NE(run.output.find("The demo's home is kept: " + root), std::string::npos) << run.output;
  const fs::path app = fs::path(root) / "home/.config/org.pxkit.DemoEditor";
  const std::string defaults = readFile((app / "org.pxkit.DemoEditor.plist").string());
  EXPECT_NE(defaults.find("<key>Metrics</key>"), std::string::npos) << defaults;
  // The by-host file is the application's other plist: <id>.<host key>.plist.
  int byHostFiles = 0;
  for (const auto& entry : fs::directory_iterator(app)) {
    const std::string name = entry.path().filename().string();
    if (name.size() == std::string("org.pxkit.DemoEditor..plist").size() + 64 && name.ends_with(".plist")) {
      ++byHostFiles;
      EXPECT_NE(readFile(entry.path().string()).find("<key>MetricsRandomSystemID</key>"), std::string::npos);
    }
  }
  EXPECT_EQ(byHostFiles, 1);
  std::error_code ignored;
  fs::remove_all(root, ignored);
}

TEST(PXKitTool, CommandLines) {
  struct Row {
    std::vector<std::string> args;
    bool succeeds;
    std::string expected;  // in the output
  };
  const Row rows[] = {
      {{"--version"}, true, std::string("pxkit ") + PXKIT_VERSION_STRING},
      {{"--help"}, true, "demo [--keep]"},
      {{"nosuchverb"}, false, "unknown command 'nosuchverb'"},
      {{}, false, "Usage: pxkit <command>"},
      {{"demo", "--bogus"}, false, "unknown option '--bogus'"},
      {{"demo", "--second-launch", "/nonexistent/pxkit-demo"}, false, "FAILED: no demo home"},
  };
  for (const Row& row : rows) {
    ToolRun run = runTool(row.args);
    std::string line = row.args.empty() ? "(no arguments)" : row.args[0];
    EXPECT_EQ(run.status == 0, row.succeeds) << line << ": status " << run.status << "\n" << run.output;
    EXPECT_NE(run.status, -1) << line;
    EXPECT_NE(run.output.find(row.expected), std::string::npos) << line << ":\n" << run.output;
  }
}

TEST(PXKitTool, DemoFailsClearlyWhenItCannotMakeItsHome) {
  ToolRun run = runTool({"demo"}, {"TMPDIR=/nonexistent/pxkit-tmp"});
  EXPECT_EQ(run.status, 1) << run.output;
  EXPECT_NE(run.output.find("FAILED: cannot make a temporary directory from /nonexistent/pxkit-tmp/"),
            std::string::npos)
      << run.output;
}
