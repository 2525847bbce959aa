// What the machine's whole picture costs: `pxkit facts --json` (key-path
// facts, the common-metrics catalogue, the registry classes and their
// services) against `facter --json` (Debian's system-facts tool), each run
// as a whole process from start to exit, its output written to a file.
//
//   BM_PxkitFacts   pxkit facts --json
//   BM_Facter       facter --json (only when facter is installed)
// Ratio: facts-vs-facter (pxkit's time over facter's; below 1 is faster).
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "support/PXBenchHome.h"
#include "support/PXBenchRatio.h"

extern char** environ;

namespace {

// The program `name` on PATH, or empty.
std::string findProgram(const char* name) {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    const size_t end = std::min(dirs.find(':', start), dirs.size());
    const std::string candidate = dirs.substr(start, end - start) + "/" + name;
    if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return {};
}

// Runs `argv` with standard output into `output` (truncated first) and
// standard error on /dev/null; the exit status, or -1 when it did not exit.
int run(const std::vector<std::string>& argv, const std::string& output) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Whether the file holds a JSON object (its first byte is "{").
bool wroteJSONObject(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "r");
  if (!f) return false;
  const int first = std::fgetc(f);
  std::fclose(f);
  return first == '{';
}

// Times the whole process. `anyStatus`: facter exits 1 after writing its
// document when some source is unreadable (/proc/1/environ in a container),
// so for it the document counts, not the status.
void runProcess(benchmark::State& state, const std::vector<std::string>& argv, bool anyStatus) {
  const std::string output = std::string(std::getenv("HOME")) + "/facts.json";
  for (auto _ : state) {
    const int status = run(argv, output);
    if (status < 0 || (status != 0 && !anyStatus)) {
      state.SkipWithError((argv[0] + " failed").c_str());
      return;
    }
  }
  if (!wroteJSONObject(output)) state.SkipWithError((argv[0] + " wrote no JSON object").c_str());
}

}  // namespace

int main(int argc, char** argv) {
  PXBenchHome home;  // the tool's user defaults land in a throw-away home
  const std::string facter = findProgram("facter");
  benchmark::RegisterBenchmark("BM_PxkitFacts", runProcess,
                               std::vector<std::string>{PXKIT_CLI, "facts", "--json"}, false)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  if (facter.empty()) {
    std::printf("facter is not installed (scripts/setup-deps installs it): facts-vs-facter skipped\n");
  } else {
    benchmark::RegisterBenchmark("BM_Facter", runProcess, std::vector<std::string>{facter, "--json"}, true)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  const std::map<std::string, double> times = PXBenchRunAll(argc, argv);
  // Google Benchmark names a real-time benchmark's runs "<name>/real_time".
  auto seconds = [&times](const std::string& name) {
    auto it = times.find(name + "/real_time");
    return it == times.end() ? 0.0 : it->second;
  };
  if (seconds("BM_PxkitFacts") > 0 && seconds("BM_Facter") > 0)
    PXBenchReportRatio("facts-vs-facter", seconds("BM_PxkitFacts") / seconds("BM_Facter"));
  return 0;
}
