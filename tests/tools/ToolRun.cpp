// Runs the pxkit tool in a child process; see ToolRun.h.
#include "tools/ToolRun.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

ToolRun runTool(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv) {
  std::vector<std::string> argStorage = {PXKIT_CLI};
  argStorage.insert(argStorage.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : argStorage) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::vector<std::string> envStorage = extraEnv;
  std::vector<char*> envp;
  for (std::string& entry : envStorage) envp.push_back(entry.data());
  for (char** entry = environ; *entry; ++entry) envp.push_back(*entry);
  envp.push_back(nullptr);

  ToolRun run;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return run;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    return run;
  }
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) != 0;) {
    if (n > 0) run.output.append(buffer, static_cast<size_t>(n));
    if (n < 0 && errno != EINTR) break;
  }
  close(fds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}
