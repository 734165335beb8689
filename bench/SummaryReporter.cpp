#include "bench/SummaryReporter.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace android::bench {
namespace {

constexpr const char* kFloorSuffix = "Floor";
constexpr const char* kScalingSmall = "registered:64/visible:16";
constexpr const char* kScalingLarge = "registered:1024/visible:256";

double minimum(const std::vector<double>& v) {
    return v.empty() ? 0.0 : *std::min_element(v.begin(), v.end());
}

double maximum(const std::vector<double>& v) {
    return v.empty() ? 0.0 : *std::max_element(v.begin(), v.end());
}

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() &&
            s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string format(const char* format, double value) {
    char text[64];
    snprintf(text, sizeof(text), format, value);
    return text;
}

} // namespace

void addMinMaxStatistics(benchmark::internal::Benchmark* b) {
    b->ComputeStatistics("min", minimum);
    b->ComputeStatistics("max", maximum);
}

SummaryReporter::SummaryReporter() : ConsoleReporter(OO_Tabular) {}

void SummaryReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.error_occurred) {
            continue;
        }
        Times& t = mTimes[run.run_name.function_name + "/" + run.run_name.args];
        t.order = {run.family_index, run.per_family_instance_index};
        t.function = run.run_name.function_name;
        t.args = run.run_name.args;
        t.label = run.report_label;
        if (run.run_type == Run::RT_Iteration) {
            t.repetitions.push_back(run.GetAdjustedCPUTime());
        } else if (run.aggregate_unit == benchmark::kTime) {
            t.aggregates[run.aggregate_name] = run.GetAdjustedCPUTime();
            if (run.aggregate_name == "median") {
                for (const auto& [name, counter] : run.counters) {
                    t.counters[name] = counter.value;
                }
            }
        }
    }
    ConsoleReporter::ReportRuns(runs);
}

double SummaryReporter::median(const Times& t) {
    if (const auto it = t.aggregates.find("median"); it != t.aggregates.end()) {
        return it->second;
    }
    std::vector<double> v = t.repetitions;
    if (v.empty()) {
        return 0.0;
    }
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

std::string SummaryReporter::spread(const Times& t) {
    const auto min = t.aggregates.find("min");
    const auto max = t.aggregates.find("max");
    const double low = min != t.aggregates.end() ? min->second : minimum(t.repetitions);
    const double high = max != t.aggregates.end() ? max->second : maximum(t.repetitions);
    return format("%.1f", low) + "-" + format("%.1f", high);
}

const SummaryReporter::Times* SummaryReporter::find(const std::string& function,
                                                    const std::string& args) const {
    const auto it = mTimes.find(function + "/" + args);
    return it == mTimes.end() ? nullptr : &it->second;
}

void SummaryReporter::Finalize() {
    std::vector<const Times*> rows;
    for (const auto& [key, t] : mTimes) {
        if (!endsWith(t.function, kFloorSuffix)) {
            rows.push_back(&t);
        }
    }
    std::sort(rows.begin(), rows.end(),
              [](const Times* a, const Times* b) { return a->order < b->order; });

    std::ostream& out = GetOutputStream();
    out << "\nSummary: CPU time per call in ns, median and min-max over the repetitions;"
           " ratio = median / floor median\n\n";
    out << "| benchmark | arguments | median | min-max | floor median | floor min-max | ratio |\n";
    out << "|---|---|---:|---:|---:|---:|---:|\n";
    for (const Times* t : rows) {
        std::string args = t->args;
        if (!t->label.empty()) {
            args += " (" + t->label + ")";
        }
        out << "| " << t->function << " | " << args << " | " << format("%.1f", median(*t)) << " | "
            << spread(*t) << " | ";
        if (const Times* floor = find(t->function + kFloorSuffix, t->args)) {
            const double floorMedian = median(*floor);
            out << format("%.1f", floorMedian) << " | " << spread(*floor) << " | "
                << (floorMedian > 0 ? format("%.2f", median(*t) / floorMedian) : "-") << " |\n";
        } else {
            out << "- | - | - |\n";
        }
        for (const auto& [name, value] : t->counters) {
            out << "| " << t->function << " | " << name << " (median) | "
                << format(value < 10 ? "%.3f" : "%.1f", value) << " | | | | |\n";
        }
    }

    const Times* small = find("BM_CompositeList", kScalingSmall);
    const Times* large = find("BM_CompositeList", kScalingLarge);
    if (small != nullptr && large != nullptr && median(*small) > 0) {
        out << "\nScaling: BM_CompositeList (1024, 256) / (64, 16) = "
            << format("%.2f", median(*large) / median(*small)) << "\n";
    }
    ConsoleReporter::Finalize();
}

} // namespace android::bench
