// Collects Google Benchmark results so that a benchmark program can print
// ratios of one measurement against another taken in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

class CollectingReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override;

    // Seconds per iteration of the named benchmark (its median when it was
    // repeated), or a negative value when it did not run.
    double secondsPerIteration(const std::string &name) const;
    double counter(const std::string &name, const std::string &counter) const;

  private:
    std::map<std::string, double> seconds_;
    std::map<std::string, std::map<std::string, double>> counters_;
};

// One line of the comparison table: what was measured, the ratio, the budget
// and whether the ratio meets it. higherIsBetter tells which way the budget
// points; a budget <= 0 only reports. Returns whether the budget was met.
bool printRatio(const std::string &what, double ratio, double budget, bool higherIsBetter);

// Runs the registered benchmarks with the given reporter; returns false when
// the command line was not understood.
bool runBenchmarks(int argc, char **argv, CollectingReporter &reporter);

} // namespace bench
