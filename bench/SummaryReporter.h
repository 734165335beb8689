#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

namespace android::bench {

// Adds "min" and "max" to the aggregates of a benchmark run with repetitions.
void addMinMaxStatistics(benchmark::internal::Benchmark* b);

// The console report, followed by a summary table: for each benchmark the
// median CPU time per call (the thread's own time, which on a shared machine
// leaves out the time the thread waited for a core) with the min-max spread
// over the repetitions; its floor beside it (the benchmark of the same name
// with "Floor" appended, same arguments); the ratio of the two medians; and
// the scaling of the list-mode composition from (64, 16) to (1024, 256).
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    SummaryReporter();
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

private:
    struct Times {
        std::pair<int64_t, int64_t> order; // family, instance: registration order
        std::string function;
        std::string args;
        std::string label;
        std::vector<double> repetitions;          // CPU time per call of each repetition
        std::map<std::string, double> aggregates; // "median", "min", "max"
        std::map<std::string, double> counters;   // from the median aggregate
    };

    static double median(const Times& t);
    static std::string spread(const Times& t);
    const Times* find(const std::string& function, const std::string& args) const;

    std::map<std::string, Times> mTimes; // by function and arguments
};

} // namespace android::bench
