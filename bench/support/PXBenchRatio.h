// Comparison lines for `make bench`.
//
// Benchmarks that compare two things run both in the same binary and report
// "ratio <name>: <value>" through PXBenchReportRatio after RunSpecifiedBenchmarks.
// The lines are printed and appended to $PXKIT_RATIO_FILE so that
// scripts/run-benchmarks can print them together after every table.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>

// Runs every registered benchmark and returns, by name, its real seconds per
// iteration: the fastest repetition when run with --benchmark_repetitions.
std::map<std::string, double> PXBenchRunAll(int argc, char** argv);
// The seconds of the first run whose name begins with `run` ("BM_Pack/1000/"
// for BM_Pack/1000/process_time/real_time); 0 when there is none.
double PXBenchTimeOfRun(const std::map<std::string, double>& times, const std::string& run);
// Prints and records "ratio <name>: <value>".
void PXBenchReportRatio(const std::string& name, double value);
