#include "support/PXBenchRatio.h"

#include <cstdio>
#include <cstdlib>

namespace {

// Shows the usual console table and keeps each run's time per iteration.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  explicit CollectingReporter(std::map<std::string, double>& out) : out_(out) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.iterations == 0) continue;
      out_[run.benchmark_name()] = run.real_accumulated_time / static_cast<double>(run.iterations);
    }
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
  return times;
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
