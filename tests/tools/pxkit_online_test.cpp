// `pxkit online` as a user runs it, in a network namespace of the test's own
// (tests/net/run-in-netns) whose default route the test adds and removes on
// the loopback interface. The tool inherits the namespace.
#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

namespace {

// Why this process may not change routes (empty: it may).
std::string netnsUnavailableReason() {
  const char* inNamespace = getenv("PXKIT_TEST_NETNS");
  if (!inNamespace || std::string(inNamespace) != "1") {
    const char* reason = getenv("PXKIT_TEST_NETNS_UNAVAILABLE");
    return reason ? std::string("no network namespace: ") + reason
                  : "not started in a network namespace of its own (tests/net/run-in-netns)";
  }
  bool onlyLoopback = true;
  if (struct if_nameindex* list = if_nameindex()) {
    for (struct if_nameindex* i = list; i->if_index != 0; ++i)
      onlyLoopback &= std::string(i->if_name) == "lo";
    if_freenameindex(list);
  }
  return onlyLoopback ? "" : "the namespace has interfaces besides lo; its routes stay untouched";
}

bool ip(std::vector<const char*> args) {
  std::vector<const char*> argv = {"/usr/sbin/ip"};
  if (!g_file_test(argv[0], G_FILE_TEST_IS_EXECUTABLE)) argv[0] = "/sbin/ip";
  argv.insert(argv.end(), args.begin(), args.end());
  argv.push_back(nullptr);
  gint status = 0;
  return g_spawn_sync(nullptr, const_cast<gchar**>(argv.data()), nullptr,
                      GSpawnFlags(G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL), nullptr, nullptr,
                      nullptr, nullptr, &status, nullptr) &&
         g_spawn_check_wait_status(status, nullptr);
}

// The tool, started with its standard output on a pipe.
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
      waitStatus();
    }
    if (out_ >= 0) close(out_);
  }

  // The next line of output, without its newline; "" at the end of output or
  // when nothing comes for a long time (a guard against a hang, not a timing).
  std::string nextLine() {
    for (;;) {
      if (size_t end = buffer_.find('\n'); end != std::string::npos) {
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return line;
      }
      struct pollfd ready = {out_, POLLIN, 0};
      if (poll(&ready, 1, 60000) <= 0) return "";
      char chunk[512];
      const ssize_t n = read(out_, chunk, sizeof chunk);
      if (n <= 0) return "";
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }

  // The exit status once the tool has ended by itself (-1 otherwise).
  int waitStatus() {
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

class PXKitToolOnline : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string reason = netnsUnavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    unsetenv("GIO_USE_NETWORK_MONITOR");
    ASSERT_TRUE(ip({"link", "set", "lo", "up"}));
  }
};

TEST_F(PXKitToolOnline, AnswersOnceWithItsExitStatus) {
  struct Row {
    bool route;
    const char* line;
    int status;
  } rows[] = {
      {false, "network available: no (no route)", 1},
      {true, "network available: yes (reachable)", 0},
  };
  for (const Row& row : rows) {
    if (row.route) {
      ASSERT_TRUE(ip({"route", "add", "default", "dev", "lo"}));
    }
    Tool tool({"online"});
    EXPECT_EQ(tool.nextLine(), row.line);
    EXPECT_EQ(tool.nextLine(), "") << "one line only";
    EXPECT_EQ(tool.waitStatus(), row.status);
  }
}

TEST_F(PXKitToolOnline, WatchPrintsEachChange) {
  Tool tool({"online", "--watch"});
  ASSERT_EQ(tool.nextLine(), "network available: no (no route)");
  // The default route comes and goes, twice. In between, an address added on
  // lo is a routing change the monitor announces with the same verdict: the
  // tool prints nothing for it.
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(ip({"route", "add", "default", "dev", "lo"}));
    EXPECT_EQ(tool.nextLine(), "network available: yes (reachable)");
    ASSERT_TRUE(ip({"address", "add", round == 0 ? "10.9.9.9/32" : "10.9.9.10/32", "dev", "lo"}));
    ASSERT_TRUE(ip({"route", "del", "default", "dev", "lo"}));
    EXPECT_EQ(tool.nextLine(), "network available: no (no route)");
  }
}

TEST(PXKitToolOnlineUsage, RefusesUnknownOptions) {
  Tool tool({"online", "--forever"});
  EXPECT_EQ(tool.nextLine(), "") << "the complaint goes to standard error";
  EXPECT_EQ(tool.waitStatus(), 2);
}

}  // namespace
