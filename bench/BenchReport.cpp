#include "BenchReport.h"

#include <cstdio>

namespace bench {

void CollectingReporter::ReportRuns(const std::vector<Run> &runs) {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
        if (run.error_occurred) continue;
        const bool aggregate = run.run_type == Run::RT_Aggregate;
        // With repetitions only the median counts; without, the single run.
        if (aggregate && run.aggregate_name != "median") continue;
        const std::string name = run.run_name.str();
        if (!aggregate && seconds_.count(name) && run.repetitions > 1) continue;
        // The time the console shows, in seconds: for an aggregate the
        // accumulated field holds the statistic times the repetition count.
        const double perIteration =
            run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
        // Known by full name and by function name with its arguments alone
        // ("BM_Load/1"; the full name carries options like min_time).
        std::string shortName = run.run_name.function_name;
        if (!run.run_name.args.empty()) shortName += "/" + run.run_name.args;
        for (const std::string &key : {name, shortName}) {
            seconds_[key] = perIteration;
            for (const auto &[counterName, c] : run.counters) counters_[key][counterName] = c.value;
        }
    }
}

double CollectingReporter::secondsPerIteration(const std::string &name) const {
    auto it = seconds_.find(name);
    return it == seconds_.end() ? -1.0 : it->second;
}

double CollectingReporter::counter(const std::string &name, const std::string &key) const {
    auto it = counters_.find(name);
    if (it == counters_.end()) return -1.0;
    auto c = it->second.find(key);
    return c == it->second.end() ? -1.0 : c->second;
}

bool printRatio(const std::string &what, double ratio, double budget, bool higherIsBetter) {
    if (budget <= 0) {
        std::printf("  %-58s %7.2fx   (no budget)\n", what.c_str(), ratio);
        return true;
    }
    const bool ok = higherIsBetter ? ratio >= budget : ratio <= budget;
    std::printf("  %-58s %7.2fx   budget %s %.2fx   %s\n", what.c_str(), ratio,
                higherIsBetter ? ">=" : "<=", budget, ok ? "ok" : "MISSED");
    return ok;
}

bool runBenchmarks(int argc, char **argv, CollectingReporter &reporter) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return false;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return true;
}

} // namespace bench
