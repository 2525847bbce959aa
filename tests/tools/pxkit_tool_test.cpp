// The pxkit tool as a user runs it: a separate process, judged by its exit status and output.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pxkit/PXKit.h>
#include <pxkit/metrics/PXMetricsTracker.h>
#include <pxkit/metrics/PXMetricsTrackerCommonMetrics.h>
#include <pxkit/net/PXJSONSerialization.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/system/PXIOService.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/PXSubprocess.h"
#include "support/PXTempHome.h"
#include "support/PXTestPaths.h"

namespace {

using ::testing::HasSubstr;
using Strings = std::vector<std::string>;

// The tool's output: standard output, with standard error when `merged`.
PXSubprocess::Result runTool(Strings args, bool merged = true) {
  args.insert(args.begin(), PXKIT_CLI);
  return PXSubprocess::run(args, {.environment = {}, .mergeStandardError = merged});
}

}  // namespace

TEST(PXKitTool, CommandLines) {
  const std::string dmi = PXTestSourceDir() + "/tests/rules/fixtures/dmi";
  struct Row {
    int status;
    bool whole;  // `output` is the whole output, else a part of it
    std::string output;
    Strings args;
  };
  const std::string bad = "Try 'pxkit --help'.";
  const Row rows[] = {
      {0, false, std::string("pxkit ") + PXKIT_VERSION_STRING, {"--version"}},
      {0, false, "demo [--keep]", {"--help"}},
      {2, false, "unknown command 'nosuchverb'", {"nosuchverb"}},
      {2, false, "Usage: pxkit <command>", {}},
      {2, false, "unknown option '--bogus'", {"demo", "--bogus"}},
      {1, false, "FAILED: no demo home", {"demo", "--second-launch", "/nonexistent/pxkit-demo"}},
      {0, true, "YES\n", {"check", "--root", dmi, "version.os == '12'"}},
      {1, true, "NO\n", {"check", "--root", dmi, "version.os == '13'"}},
      {0, true, "YES\n", {"check", "--", "-1 < 0"}},
      {2,
       false,
       "pxkit: check: NSInvalidArgumentException: Can't do a substring operation with something that isn't a "
       "string\n",
       {"check", "1 BEGINSWITH 'a'"}},
      {0,
       false,
       "  evaluated  $fnc0 == YES AND NULL == nil AND $fnc2 BEGINSWITH '6.'\n  $fnc0      1  (boolean)\n"
       "  $fnc2      6.1.0-18-amd64  (string)\nYES\n",
       {"check", "--explain", "--root", dmi,
        "${version(of=os;greaterThan=11)} == YES AND ${none} == nil AND ${version(kernel)} BEGINSWITH '6.'"}},
      {1, false, "  variables  (none)\nNO\n", {"check", "--explain", "--root", dmi, "1 == 2"}},
      {0,
       true,
       "  version.os                        12\n  version.computerModel             MacBookPro\n"
       "  ${version(of=kernel;lessThan=7)}  1\n  nosuch.path                       (none)\n",
       {"facts", "--root", dmi, "version.os", "version.computerModel", "${version(of=kernel;lessThan=7)}",
        "nosuch.path"}},
      {2, false, bad, {"check"}},
      {2, false, bad, {"check", "1 == 1", "--root"}},
      {2, false, bad, {"facts", "--bogus"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args.empty() ? "(no arguments)" : row.args.back());
    PXSubprocess::Result run = runTool(row.args);
    EXPECT_EQ(run.exitStatus, row.status) << run.output;
    if (row.whole) {
      EXPECT_EQ(run.output, row.output);
    }
    EXPECT_THAT(run.output, HasSubstr(row.output));
  }
  // Without key paths: the default list; without --root: the running machine, whose kernel is known.
  EXPECT_THAT(runTool({"facts"}).output, ::testing::ContainsRegex("  version.kernel +[0-9]"));
}

TEST(PXKitTool, FactsAsJsonHoldTheCatalogueAndTheRegistryClasses) {
  PXTempHome home;  // the tool's defaults and this process's: never launched
  const PXSubprocess::Result run = runTool({"facts", "--json"});
  ASSERT_EQ(run.exitStatus, 0) << run.output;
  PXRef<PXDictionary> doc =
      PXJSONSerialization::JSONObjectWithData(PXData::dataWithString(run.output), 0).dictionaryValue();
  ASSERT_TRUE(doc) << run.output;
  EXPECT_EQ(doc->objectForKey("facts").dictionaryValue()->objectForKey("sysctl.integer.hw.logicalcpu"),
            PXValue(sysconf(_SC_NPROCESSORS_ONLN)));
  std::string printed, expected;
  for (const PXValue& item : *doc->objectForKey("commonMetrics").arrayValue()) {
    for (const char* key : {"identifier", "primary", "secondary", "kind"})
      printed += item.dictionaryValue()->objectForKey(key).description().str() + " ";
  }
  for (const PXCommonMetric& m : PXMetricsTrackerCommonMetrics::commonMetricsCatalogue()) {
    for (const PXString& text : {m.identifier, m.primary, m.secondary, PXString(m.kind)})
      expected += (text ? text.str() : "<null>") + " ";
  }
  EXPECT_EQ(printed, expected);
  PXRef<PXDictionary> classes = doc->objectForKey("registryClasses").dictionaryValue();
  ASSERT_TRUE(classes);
  EXPECT_EQ(classes->count(), PXIOService::registryClassNames().size());
  for (const std::string& name : PXIOService::registryClassNames()) {
    EXPECT_EQ(classes->objectForKey(name).unsignedLongLongValue(),
              PXIOService::servicesForMatchingClass(name.c_str())->count())
        << name;
  }
}

TEST(PXKitTool, StateShowsTheStoredStateAndTheNextBodyWithoutChangingIt) {
  constexpr const char* kApp = "org.example.StateHost";
  PXTempHome home;
  ASSERT_TRUE(PXBundle::setMainBundleIdentity(kApp, "2.0", "200"));
  auto tracker = PXMake<PXMetricsTracker>();
  tracker->metricForIdentifier("com.example.clicks", "toolbar", {})->setValue(3);
  tracker->makePaperCutWithTimestamp(PXDate::now().dateByAddingTimeInterval(-60));
  tracker->metricForIdentifier("com.example.editing")->setValue(420);
  tracker->setLastAutoSubmissionDate(PXDate::now().dateByAddingTimeInterval(-3600));
  tracker->saveToPreferences();
  // What the application itself would post now (it has submitted today: the stored papercut alone).
  PXRef<PXData> body = tracker->dataForSubmissionSync();
  ASSERT_TRUE(body);
  const std::string expectedBody(body->view());
  const std::string packageID(
      tracker->paperCuts()->objectAtIndex(0).dictionaryValue()->objectForKey("packageID").stringValue());
  auto files = [&] {
    std::map<std::string, std::string> contents;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home.configHome())) {
      std::ostringstream bytes;
      if (entry.is_regular_file()) bytes << std::ifstream(entry.path(), std::ios::binary).rdbuf();
      contents[entry.path().string()] = bytes.str();
    }
    return contents;
  };
  const auto before = files();
  ASSERT_FALSE(before.empty());
  const PXSubprocess::Result shown = runTool({"state", "--app", kApp}, /*merged=*/false);
  EXPECT_EQ(shown.exitStatus, 0);
  size_t from = 0;  // each a whole line of the output, in this order
  for (const std::string& line :
       {std::string("application: ") + kApp, "system ID: " + PXMetricsTracker::systemID().str(),
        std::string("metrics (2):"), std::string("  com.example.clicks [toolbar] = 0"),
        std::string("  com.example.editing = 420"), std::string("papercuts waiting (1):"),
        "next submission body (" + std::to_string(expectedBody.size()) + " bytes):", expectedBody}) {
    size_t at = shown.output.find(line + "\n", from);
    EXPECT_NE(at, std::string::npos) << "missing line: " << line << "\nin:\n" << shown.output;
    from = at == std::string::npos ? from : at + line.size();
  }
  EXPECT_THAT(shown.output, HasSubstr("  " + packageID + "  "));
  // Complaints go to standard error.
  for (auto [status, args] :
       {std::pair{1, Strings{"state", "--app", "org.example.NeverRan"}},
        std::pair{2, Strings{"state", "--app"}}, std::pair{2, Strings{"state", "--verbose"}}}) {
    const PXSubprocess::Result run = runTool(args, /*merged=*/false);
    EXPECT_EQ(run.exitStatus, status) << args.back();
    EXPECT_EQ(run.output, "") << args.back();
  }
  EXPECT_EQ(files(), before) << "the tool wrote to the preferences";
}
