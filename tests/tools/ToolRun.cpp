// Runs the pxkit tool in a child process; see ToolRun.h.
#include "tools/ToolRun.h"

#include "support/PXSubprocess.h"

ToolRun runTool(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv) {
  std::vector<std::string> argv = {PXKIT_CLI};
  argv.insert(argv.end(), args.begin(), args.end());
  PXSubprocess::Result result =
      PXSubprocess::run(argv, {.environment = extraEnv, .mergeStandardError = true});
  return {result.exitStatus, std::move(result.output)};
}
