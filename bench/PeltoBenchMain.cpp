#include <cstring>

#include <benchmark/benchmark.h>

#include "bench/BenchHost.h"
#include "bench/CallgrindDriver.h"
#include "bench/SummaryReporter.h"

int main(int argc, char** argv) {
    // The controller logs while it is built and torn down; the lines are
    // counted and dropped, and a benchmark fails if its timed loop logs.
    android::bench::installCountingLogger();
    if (argc > 1 && strncmp(argv[1], "--callgrind=", 12) == 0) {
        return android::bench::runCallgrindDriver(argc, argv);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    android::bench::SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
