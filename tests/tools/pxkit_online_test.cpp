// `pxkit online` as a user runs it, in a network namespace of the test's own
// (tests/net/run-in-netns) whose default route the test adds and removes on
// lo; the tool inherits the namespace.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/PXNetworkNamespace.h"

extern char** environ;

namespace {

// The tool, started with its standard output on a pipe; ended with SIGTERM
// when still running at the end.
class Tool {
 public:
  explicit Tool(std::vector<std::string> args) {
    args.insert(args.begin(), PXKIT_CLI);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fds[0];
  }
  ~Tool() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      exitStatus();
    }
    close(out_);
  }
  // The next line printed; "" at the end of the output, or when nothing comes
  // for a minute (a guard against a hang, not a measure of time).
  std::string nextLine() {
    for (size_t end; (end = buffer_.find('\n')) == std::string::npos;) {
      struct pollfd ready = {out_, POLLIN, 0};
      char chunk[512];
      ssize_t n = poll(&ready, 1, 60000) > 0 ? read(out_, chunk, sizeof chunk) : 0;
      if (n <= 0) return "";
      buffer_.append(chunk, static_cast<size_t>(n));
    }
    std::string line = buffer_.substr(0, buffer_.find('\n'));
    buffer_.erase(0, line.size() + 1);
    return line;
  }
  int exitStatus() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string buffer_;
};

constexpr const char* kNo = "network available: no (no route)";
constexpr const char* kYes = "network available: yes (reachable)";

TEST(PXKitToolOnline, AnswersOnceWithItsExitStatus) {
  PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
  for (bool route : {false, true}) {
    ASSERT_TRUE(!route || PXRunIp({"route", "add", "default", "dev", "lo"}));
    Tool tool({"online"});
    EXPECT_EQ(tool.nextLine(), route ? kYes : kNo);
    EXPECT_EQ(tool.nextLine(), "") << "one line only";
    EXPECT_EQ(tool.exitStatus(), route ? 0 : 1);
  }
  Tool refused({"online", "--forever"});
  EXPECT_EQ(refused.nextLine(), "") << "the complaint goes to standard error";
  EXPECT_EQ(refused.exitStatus(), 2);
}

TEST(PXKitToolOnline, WatchPrintsEachChange) {
  PX_SKIP_WITHOUT_NETWORK_NAMESPACE();
  Tool tool({"online", "--watch"});
  ASSERT_EQ(tool.nextLine(), kNo);
  // The route comes and goes twice. In between, an address added on lo is a
  // routing change announced with the same verdict: the tool prints nothing.
  for (const char* address : {"10.9.9.9/32", "10.9.9.10/32"}) {
    ASSERT_TRUE(PXRunIp({"route", "add", "default", "dev", "lo"}));
    EXPECT_EQ(tool.nextLine(), kYes);
    ASSERT_TRUE(PXRunIp({"address", "add", address, "dev", "lo"}));
    ASSERT_TRUE(PXRunIp({"route", "del", "default", "dev", "lo"}));
    EXPECT_EQ(tool.nextLine(), kNo);
  }
}

}  // namespace
