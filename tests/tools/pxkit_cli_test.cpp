// The pxkit tool as a user runs it: a separate process, judged by its exit
// status and what it prints. The demo's story is checked in pxkit_demo_test.cpp.
#include <gtest/gtest.h>
#include <pxkit/PXKit.h>

#include <string>
#include <vector>

#include "tools/ToolRun.h"

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
