#include "support/PXSubprocess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

PXSubprocess::PXSubprocess(const std::vector<std::string>& argv, const Options& options) {
  std::vector<std::string> args = argv, env = options.environment;
  std::vector<char*> argp, envp;
  for (std::string& a : args) argp.push_back(a.data());
  argp.push_back(nullptr);
  for (std::string& e : env) envp.push_back(e.data());
  for (char** e = environ; *e; ++e) envp.push_back(*e);
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
  if (rc != 0) {
    ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(rc);
    pid_ = -1;
    close(fds[0]);
    return;
  }
  output_ = fds[0];
}

PXSubprocess::~PXSubprocess() {
  if (pid_ > 0 && !status_) {
    kill(SIGKILL);
    wait();
  }
  if (output_ >= 0) close(output_);
}

std::optional<std::string> PXSubprocess::readLine() {
  for (;;) {
    if (size_t nl = buffer_.find('\n'); nl != std::string::npos) {
      std::string line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      return line;
    }
    char chunk[4096];
    const ssize_t n = output_ < 0 ? 0 : read(output_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

std::string PXSubprocess::readAll() {
  std::string all;
  all.swap(buffer_);
  char chunk[4096];
  for (ssize_t n; output_ >= 0 && (n = read(output_, chunk, sizeof chunk)) != 0;) {
    if (n > 0) all.append(chunk, static_cast<size_t>(n));
    if (n < 0 && errno != EINTR) break;
  }
  return all;
}

void PXSubprocess::kill(int signal) {
  if (pid_ > 0 && !status_) ::kill(pid_, signal);
}

int PXSubprocess::wait() {
  if (!status_ && pid_ > 0) {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    status_ = status;
  }
  return status_.value_or(-1);
}

PXSubprocess::Result PXSubprocess::run(const std::vector<std::string>& argv, const Options& options) {
  PXSubprocess child(argv, options);
  Result result;
  if (child.pid() < 0) return result;
  result.output = child.readAll();
  result.exitStatus = exitStatusOf(child.wait());
  return result;
}

bool PXSubprocess::killedBy(int waitStatus, int signal) {
  return WIFSIGNALED(waitStatus) && WTERMSIG(waitStatus) == signal;
}

int PXSubprocess::exitStatusOf(int waitStatus) {
  return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
}
