// A child process for tests: another instance of the kit, the pxkit tool, a
// helper program. One way to start, read, kill and wait for it.
//
//   PXSubprocess writer({PXKIT_PREFS_CHILD, "loop", "org.example.App", "65536"});
//   std::optional<std::string> line = writer.readLine();   // "1"
//   writer.kill(SIGKILL);
//   EXPECT_TRUE(PXSubprocess::killedBy(writer.wait(), SIGKILL));
//
//   PXSubprocess::Result r = PXSubprocess::run({PXKIT_CLI, "version"}, {.environment = {"LANG=C"}});
//   EXPECT_EQ(r.exitStatus, 0);
//
// The child inherits this process's environment (XDG_CONFIG_HOME of a
// PXTempHome included), with `environment` ("NAME=value") put in front. Its
// output goes to a pipe this object reads: standard output (and standard error
// with `mergeStandardError`) when `outputDescriptor` is 1, or descriptor 3 of
// the child alone (a side channel) when it is 3. Not thread-safe: one thread
// owns the object.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

class PXSubprocess {
 public:
  struct Options {
    std::vector<std::string> environment;  // "NAME=value", ahead of the inherited ones
    int outputDescriptor = 1;              // the child's descriptor that feeds the pipe: 1 or 3
    bool mergeStandardError = false;       // standard error into the pipe too
    std::string workingDirectory{};        // the child's; empty: this process's
  };
  struct Result {
    int exitStatus = -1;  // exit status, or -1 when it could not start or did not exit by itself
    std::string output;   // everything it wrote to the pipe
  };

  // Starts argv[0] (a path) with the arguments; a failure to start is a test
  // failure and leaves pid() at -1.
  explicit PXSubprocess(const std::vector<std::string>& argv, const Options& options);
  explicit PXSubprocess(const std::vector<std::string>& argv) : PXSubprocess(argv, Options{}) {}
  // Kills (SIGKILL) and reaps a child still running.
  ~PXSubprocess();
  PXSubprocess(const PXSubprocess&) = delete;
  PXSubprocess& operator=(const PXSubprocess&) = delete;

  pid_t pid() const { return pid_; }
  // The next line of output without its newline; absent at the end of output
  // (a last line without a newline is dropped: it was never finished).
  std::optional<std::string> readLine();
  // The rest of the output, to its end.
  std::string readAll();
  void kill(int signal);
  // Waits for the child to end; its raw wait status (see killedBy/exitStatusOf).
  int wait();

  // Runs to the end, output collected.
  static Result run(const std::vector<std::string>& argv, const Options& options);
  static Result run(const std::vector<std::string>& argv) { return run(argv, Options{}); }
  static bool killedBy(int waitStatus, int signal);
  static int exitStatusOf(int waitStatus);  // -1 when it did not exit by itself

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  std::string buffer_;
  std::optional<int> status_;
};
