// A child process for tests (another instance of the kit, the pxkit tool, a helper): one way to
// start, read, kill and wait for it. The child inherits this process's environment, with
// `environment` in front; a pipe this object reads gets its descriptor `outputDescriptor` (1, or 3
// as a side channel), and standard error too with `mergeStandardError`. One thread owns the object.
//
//   PXSubprocess writer({PXKIT_CLI, "state", "--app", "org.example.App"});
//   std::optional<std::string> line = writer.readLine();
//   writer.kill(SIGKILL);
//   EXPECT_EQ(PXSubprocess::exitStatusOf(writer.wait()), -1);  // it did not exit by itself
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

class PXSubprocess {
 public:
  struct Options {
    std::vector<std::string> environment;  // "NAME=value", ahead of the inherited ones
    int outputDescriptor = 1;
    bool mergeStandardError = false;
    std::string workingDirectory{};  // empty: this process's
  };
  struct Result {
    int exitStatus = -1;  // -1 when it could not start or did not exit by itself
    std::string output;
  };

  // Starts argv[0] (a path); a failure to start is a test failure and leaves pid() at -1.
  explicit PXSubprocess(const std::vector<std::string>& argv, const Options& options) {
    std::vector<char*> argp, envp;  // posix_spawn does not write to them
    for (const std::string& a : argv) argp.push_back(const_cast<char*>(a.c_str()));
    for (const std::string& e : options.environment) envp.push_back(const_cast<char*>(e.c_str()));
    for (char** e = environ; *e; ++e) envp.push_back(*e);
    argp.push_back(nullptr);
    envp.push_back(nullptr);
    int fds[2];
    if (argv.empty() || pipe2(fds, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "cannot start a child process";
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], options.outputDescriptor);
    if (options.mergeStandardError) posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    if (!options.workingDirectory.empty())
      posix_spawn_file_actions_addchdir_np(&actions, options.workingDirectory.c_str());
    const int rc = posix_spawn(&pid_, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    output_ = fds[0];
    if (rc != 0) {
      ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(rc);
      pid_ = -1;
    }
  }
  explicit PXSubprocess(const std::vector<std::string>& argv) : PXSubprocess(argv, Options{}) {}
  ~PXSubprocess() {  // kills (SIGKILL) and reaps a child still running
    kill(SIGKILL);
    wait();
    close(output_);
  }
  PXSubprocess(const PXSubprocess&) = delete;
  PXSubprocess& operator=(const PXSubprocess&) = delete;

  pid_t pid() const { return pid_; }
  // The next line without its newline; absent at the end (an unfinished last line is dropped).
  std::optional<std::string> readLine() {
    size_t newline;
    while ((newline = buffer_.find('\n')) == std::string::npos) {
      if (!readMore()) return std::nullopt;
    }
    std::string line = buffer_.substr(0, newline);
    buffer_.erase(0, newline + 1);
    return line;
  }
  std::string readAll() {
    while (readMore()) {
    }
    return std::exchange(buffer_, {});
  }
  void kill(int signal) {
    if (pid_ > 0 && !status_) ::kill(pid_, signal);
  }
  int wait() {  // the raw wait status
    int status = 0;
    if (!status_ && pid_ > 0) {
      while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
      }
      status_ = status;
    }
    return status_.value_or(-1);
  }

  static Result run(const std::vector<std::string>& argv, const Options& options) {
    PXSubprocess child(argv, options);
    if (child.pid() < 0) return {};
    std::string output = child.readAll();
    return {exitStatusOf(child.wait()), std::move(output)};
  }
  static Result run(const std::vector<std::string>& argv) { return run(argv, Options{}); }
  static int exitStatusOf(int waitStatus) { return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1; }

 private:
  bool readMore() {  // appends the next chunk to buffer_; false at the end
    char chunk[4096];
    ssize_t n;
    while ((n = read(output_, chunk, sizeof chunk)) < 0 && errno == EINTR) {
    }
    if (n > 0) buffer_.append(chunk, static_cast<size_t>(n));
    return n > 0;
  }

  pid_t pid_ = -1;
  int output_ = -1;
  std::string buffer_;
  std::optional<int> status_;
};
