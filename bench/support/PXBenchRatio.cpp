#include "support/PXBenchRatio.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

// Shows the usual console table and keeps, per benchmark, the fastest of its
// repetitions. Interference from the rest of the machine only ever adds time,
// so the fastest repetition is the run closest to the code's own cost; both
// sides of every ratio are treated alike.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  explicit CollectingReporter(std::map<std::string, double>& out) : out_(out) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;
    for (const Run& run : runs) {
      // With repetitions, the table shows the aggregates only.
      if (run.run_type == Run::RT_Aggregate || run.repetitions <= 1) shown.push_back(run);
      if (run.run_type == Run::RT_Aggregate) continue;
      if (run.error_occurred || run.iterations == 0) continue;
      const double perIteration = run.real_accumulated_time / static_cast<double>(run.iterations);
      const std::string name = run.run_name.str();
      auto [it, inserted] = out_.try_emplace(name, perIteration);
      if (!inserted) it->second = std::min(it->second, perIteration);
    }
    if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
  }

 private:
  std::map<std::string, double>& out_;
};

}  // namespace

std::map<std::string, double> PXBenchRunAll(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::map<std::string, double> times;
  CollectingReporter reporter(times);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  if (std::getenv("PXKIT_BENCH_FASTEST")) {
    for (const auto& [name, seconds] : times)
      std::printf("fastest %s: %.3f ms\n", name.c_str(), seconds * 1e3);
  }
  return times;
}

double PXBenchTimeOfRun(const std::map<std::string, double>& times, const std::string& run) {
  for (const auto& [name, seconds] : times) {
    if (name.starts_with(run)) return seconds;
  }
  return 0.0;
}

void PXBenchReportRatio(const std::string& name, double value) {
  std::printf("ratio %s: %.3f\n", name.c_str(), value);
  std::fflush(stdout);
  if (const char* path = std::getenv("PXKIT_RATIO_FILE")) {
    if (FILE* f = std::fopen(path, "a")) {
      std::fprintf(f, "ratio %s: %.3f\n", name.c_str(), value);
      std::fclose(f);
    }
  }
}
