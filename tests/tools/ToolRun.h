// Runs the pxkit tool as a user runs it: a separate process, judged by its
// exit status and what it prints.
//
//   ToolRun run = runTool({"check", "1 == 1"});
//   EXPECT_EQ(run.status, 0);
//   EXPECT_EQ(run.output, "YES\n");
#pragma once

#include <string>
#include <vector>

struct ToolRun {
  int status = -1;     // exit status, or -1 when the process did not exit by itself
  std::string output;  // standard output and standard error, interleaved
};

// Runs the tool (PXKIT_CLI) with `args`, its environment this process's with
// `extraEnv` ("NAME=value") added in front.
ToolRun runTool(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {});
