// `pxkit check` and `pxkit facts`, run as a user runs them, against the
// fixture system trees of the rule tests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/PXTempHome.h"
#include "support/PXTestPaths.h"
#include "tools/ToolRun.h"

namespace {

using ::testing::HasSubstr;

std::string fixture(const char* name) {
  return PXTestSourceDir() + "/tests/rules/fixtures/" + name;
}

TEST(PXKitToolRules, CheckAnswersYesOrNoByExitStatus) {
  const std::string root = fixture("dmi");
  struct Row {
    std::string rule;
    int status;
    const char* output;
  };
  const std::vector<Row> rows = {
      {"version.os == '12'", 0, "YES\n"},
      {"version.os == '13'", 1, "NO\n"},
      {"version.computerModel BEGINSWITH 'MacBook' AND version.computerVersionMajor == '8'", 0, "YES\n"},
      {"${version(of=os;greaterThan=11)} == YES", 0, "YES\n"},
      {"${version(of=os;greaterThan=12)} == YES", 1, "NO\n"},  // the answer "12" stays: not YES
      {"${filesystem(do=exists;absPath=" + root + "/etc/os-release)} == YES", 0, "YES\n"},
      {"${nosuch(fallbackValue=3)} == '3'", 0, "YES\n"},
      {"${nosuch} == nil", 0, "YES\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.rule);
    ToolRun run = runTool({"check", "--root", root, row.rule});
    EXPECT_EQ(run.status, row.status) << run.output;
    EXPECT_EQ(run.output, row.output);
  }
  // After "--" a rule may begin with "-".
  ToolRun negative = runTool({"check", "--", "-1 < 0"});
  EXPECT_EQ(negative.status, 0) << negative.output;
  EXPECT_EQ(negative.output, "YES\n");
}

TEST(PXKitToolRules, CheckPrintsTheExceptionOfARuleThatCannotBeEvaluated) {
  struct Row {
    const char* rule;
    const char* says;
  };
  const Row rows[] = {
      {"version.os ==", "Unable to parse the format string \"version.os ==\""},
      {"nosuch.key == 1", "this class is not key value coding-compliant for the key nosuch."},
      {"${version(os", "Unterminated function: ${version(os"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.rule);
    ToolRun run = runTool({"check", "--root", fixture("dmi"), row.rule});
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_THAT(run.output, HasSubstr(row.says));
    EXPECT_THAT(run.output, HasSubstr("pxkit: check: "));
    EXPECT_THAT(run.output, ::testing::Not(HasSubstr("YES")));
  }
}

TEST(PXKitToolRules, ExplainShowsThePreprocessedRuleAndItsVariables) {
  ToolRun run = runTool(
      {"check", "--explain", "--root", fixture("dmi"),
       "${version(of=os;greaterThan=11)} == YES AND ${none} == nil AND ${version(kernel)} BEGINSWITH '6.'"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output, HasSubstr("  evaluated  $fnc0 == YES AND NULL == nil AND $fnc2 BEGINSWITH '6.'\n"));
  EXPECT_THAT(run.output, HasSubstr("  $fnc0      1  (boolean)\n"));
  EXPECT_THAT(run.output, HasSubstr("  $fnc2      6.1.0-18-amd64  (string)\n"));
  EXPECT_THAT(run.output, ::testing::EndsWith("YES\n"));

  ToolRun plain = runTool({"check", "--explain", "--root", fixture("dmi"), "1 == 2"});
  EXPECT_EQ(plain.status, 1);
  EXPECT_THAT(plain.output, HasSubstr("  variables  (none)\n"));
}

TEST(PXKitToolRules, FactsPrintsEachKeyPathOrCall) {
  ToolRun run = runTool({"facts", "--root", fixture("dmi"), "version.os", "version.computerModel",
                         "${version(of=kernel;lessThan=7)}", "nosuch.path"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output,
            "  version.os                        12\n"
            "  version.computerModel             MacBookPro\n"
            "  ${version(of=kernel;lessThan=7)}  1\n"
            "  nosuch.path                       (none)\n");
  // Without key paths: the default list; without --root: the running machine, whose kernel is known.
  ToolRun here = runTool({"facts"});
  EXPECT_EQ(here.status, 0) << here.output;
  EXPECT_THAT(here.output, HasSubstr("  version.os "));
  EXPECT_THAT(here.output, ::testing::ContainsRegex("  version.kernel +[0-9]"));
}

TEST(PXKitToolRules, CommandLinesItCannotUnderstand) {
  const std::vector<std::vector<std::string>> lines = {
      {"check"},
      {"check", "1 == 1", "2 == 2"},
      {"check", "--bogus", "1 == 1"},
      {"check", "1 == 1", "--root"},
      {"facts", "--bogus"},
  };
  for (const auto& args : lines) {
    SCOPED_TRACE(args.size() > 1 ? args[1] : args[0]);
    ToolRun run = runTool(args);
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_THAT(run.output, HasSubstr("Try 'pxkit --help'."));
  }
}

}  // namespace
