// pelto-sim: plays the compositor for the library on virtual time, from a
// scenario file, and shows what the library decided, when and why.
//
//   pelto-sim [--lib PATH] [--trace FILE] [--html FILE] [--quiet] [--verbose]
//             [--debug-lines] [--dump] SCENARIO
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/host/PeltoLibrary.h"
#include "tools/sim/Expectations.h"
#include "tools/sim/HtmlReport.h"
#include "tools/sim/RunSummary.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/Simulation.h"
#include "tools/sim/SystraceWriter.h"
#include "tools/sim/TextReport.h"

namespace android::tools::sim {
namespace {

constexpr int kExitPassed = 0;
constexpr int kExitExpectationFailed = 1;
constexpr int kExitError = 2;

struct Options {
    std::string library = PELTO_LIBRARY_PATH;
    std::string scenario;
    std::string traceFile;
    std::string htmlFile;
    bool quiet = false;
    bool dump = false;
    RunOptions run;
};

void usage() {
    fprintf(stderr,
            "usage: pelto-sim [options] SCENARIO.json\n"
            "  --lib PATH       the library to load (default: %s)\n"
            "  --trace FILE     write the run as a systrace text file (Perfetto UI opens it)\n"
            "  --html FILE      write the run as one self-contained HTML page\n"
            "  --quiet          no timeline: the summary and the expectations only\n"
            "  --verbose        every library log line in the timeline\n"
            "  --debug-lines    switch on the library's debug lines (the property\n"
            "                   vendor.debug.sf.show_pelto2_trace); with --verbose or --trace\n"
            "  --dump           print the library's dump at the end of the run\n"
            "exit status: 0 every expectation held, 1 one failed, 2 the run could not start\n",
            PELTO_LIBRARY_PATH);
}

bool parseArgs(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--lib" && hasValue) {
            options->library = argv[++i];
        } else if (arg == "--trace" && hasValue) {
            options->traceFile = argv[++i];
        } else if (arg == "--html" && hasValue) {
            options->htmlFile = argv[++i];
        } else if (arg == "--quiet") {
            options->quiet = true;
        } else if (arg == "--verbose") {
            options->run.verbose = true;
        } else if (arg == "--debug-lines") {
            options->run.debugLines = true;
        } else if (arg == "--dump") {
            options->dump = true;
        } else if (arg == "--help" || arg == "-h") {
            usage();
            exit(kExitPassed);
        } else if (!arg.empty() && arg[0] == '-') {
            fprintf(stderr, "pelto-sim: unknown option or missing value: %s\n", arg.c_str());
            return false;
        } else if (options->scenario.empty()) {
            options->scenario = arg;
        } else {
            fprintf(stderr, "pelto-sim: one scenario at a time\n");
            return false;
        }
    }
    if (options->scenario.empty()) {
        fprintf(stderr, "pelto-sim: no scenario given\n");
        return false;
    }
    return true;
}

int run(const Options& options) {
    Scenario scenario;
    std::string error;
    if (!readScenario(options.scenario, &scenario, &error)) {
        fprintf(stderr, "pelto-sim: %s\n", error.c_str());
        return kExitError;
    }
    PeltoLibrary library;
    if (!library.open(options.library, &error)) {
        fprintf(stderr, "pelto-sim: %s\n", error.c_str());
        return kExitError;
    }

    RunRecord record;
    Simulation simulation(scenario, library, options.run);
    if (!simulation.run(&record, &error)) {
        fprintf(stderr, "pelto-sim: %s: %s\n", scenario.path.c_str(), error.c_str());
        return kExitError;
    }

    const RunSummary summary = summarize(scenario, record);
    const std::vector<ExpectationResult> results = checkExpectations(scenario, record, summary);
    printHeader(stdout, scenario);
    if (!options.quiet) printTimeline(stdout, record, options.run.verbose);
    printSummary(stdout, scenario, summary);
    if (options.dump) printf("\nlibrary dump at the end\n%s", record.finalDump.c_str());
    const int failed = printExpectations(stdout, results);
    fflush(stdout);

    if (!options.traceFile.empty()) {
        if (!writeSystraceFile(options.traceFile, record.trace, record.mainTid, &error)) {
            fprintf(stderr, "pelto-sim: %s\n", error.c_str());
            return kExitError;
        }
        printf("trace written to %s (%zu events; open it in Perfetto UI)\n",
               options.traceFile.c_str(), record.trace.size());
    }
    if (!options.htmlFile.empty()) {
        if (!writeHtmlReport(options.htmlFile, scenario, record, summary, results, &error)) {
            fprintf(stderr, "pelto-sim: %s\n", error.c_str());
            return kExitError;
        }
        printf("HTML page written to %s\n", options.htmlFile.c_str());
    }
    for (const ExpectationResult& r : results) {
        if (r.passed) continue;
        fprintf(stderr, "pelto-sim: %s: %s failed: %s; got %s\n", scenario.path.c_str(),
                r.expectation->key.c_str(), r.what.c_str(), r.got.c_str());
    }
    return failed == 0 ? kExitPassed : kExitExpectationFailed;
}

} // namespace
} // namespace android::tools::sim

int main(int argc, char** argv) {
    android::tools::sim::Options options;
    if (!android::tools::sim::parseArgs(argc, argv, &options)) {
        android::tools::sim::usage();
        return android::tools::sim::kExitError;
    }
    return android::tools::sim::run(options);
}
