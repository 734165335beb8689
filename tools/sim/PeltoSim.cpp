// pelto-sim: plays the compositor for the library on virtual time, from a
// scenario file, and shows what the library decided, when and why.
//
//   pelto-sim [--lib PATH] [--trace FILE] [--html FILE] [--json FILE] [--quiet]
//             [--verbose] [--debug-lines] [--dump] [--rules RULES]
//             [--refresh-floor-hz HZ] SCENARIO
//   pelto-sim --capture FILE [--rules RULES | --api-target NAME] [--display WxH]
//             [--refresh-hz HZ] [--write-scenario OUT.json] [other options as above]
//   pelto-sim --compare OTHER_RULES [--rules RULES] [--json FILE] INPUT...
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/host/PeltoLibrary.h"
#include "tools/sim/CaptureReader.h"
#include "tools/sim/CaptureScenario.h"
#include "tools/sim/CompareReport.h"
#include "tools/sim/Expectations.h"
#include "tools/sim/HtmlReport.h"
#include "tools/sim/InputFile.h"
#include "tools/sim/JsonReport.h"
#include "tools/sim/RunDiagnosis.h"
#include "tools/sim/RunSummary.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/ScenarioWriter.h"
#include "tools/sim/SimClock.h"
#include "tools/sim/Simulation.h"
#include "tools/sim/SystraceWriter.h"
#include "tools/sim/TextReport.h"
#include "tools/sim/TraceRecorder.h"

namespace android::tools::sim {
namespace {

constexpr int kExitPassed = 0;
constexpr int kExitExpectationFailed = 1;
constexpr int kExitError = 2;

struct Options {
    std::string library = PELTO_LIBRARY_PATH;
    std::vector<std::string> inputs; // scenarios or captures
    bool capture = false;            // the input is a device capture
    std::string rules;               // replaces the input's rule file
    std::string compareRules;        // --compare: the other rule file
    CapturePlay play;
    std::string writeScenario;
    std::string jsonFile;
    std::string traceFile;
    std::string htmlFile;
    bool quiet = false;
    bool dump = false;
    RunOptions run;
};

void usage() {
    fprintf(stderr,
            "usage: pelto-sim [options] SCENARIO.json\n"
            "       pelto-sim --capture FILE [--rules RULES.json | --api-target NAME]\n"
            "                 [--display WxH] [--refresh-hz HZ] [--write-scenario OUT.json]\n"
            "                 [options]\n"
            "       pelto-sim --compare OTHER_RULES.json [--rules RULES.json] INPUT...\n"
            "  --lib PATH       the library to load (default: %s)\n"
            "  --capture FILE   play a systrace/atrace capture (text, HTML report, Perfetto\n"
            "                   trace, or gzip; - reads it from standard input)\n"
            "  --rules FILE     this rule file instead of the scenario's (list mode)\n"
            "  --api-target NAME  play a capture in API mode with this layer as target\n"
            "  --display WxH    the display size a capture does not record (default 1080x2400)\n"
            "  --refresh-hz HZ  the panel's rate throughout a capture, where the capture has\n"
            "                   no trustworthy vsync signal (its assumptions say so)\n"
            "  --write-scenario OUT.json  write the scenario made from a capture\n"
            "  --compare OTHER  play each input (a scenario, or a capture) with its rules\n"
            "                   and with OTHER; one table of both and the difference\n"
            "  --json FILE      the run's figures as JSON (- for stdout)\n"
            "  --refresh-floor-hz HZ  lowest panel refresh rate in Pelto mode for the\n"
            "                   refresh estimate (default 10)\n"
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
        } else if (arg == "--capture" && hasValue) {
            options->capture = true;
            options->inputs.push_back(argv[++i]);
        } else if (arg == "--rules" && hasValue) {
            options->rules = argv[++i];
            options->play.rules = options->rules;
        } else if (arg == "--api-target" && hasValue) {
            options->play.apiTarget = argv[++i];
        } else if (arg == "--display" && hasValue) {
            unsigned w = 0;
            unsigned h = 0;
            char extra = 0;
            if (sscanf(argv[++i], "%ux%u%c", &w, &h, &extra) != 2 || w == 0 || h == 0 ||
                static_cast<uint64_t>(w) * h > UINT32_MAX) {
                fprintf(stderr, "pelto-sim: --display %s: expected WIDTHxHEIGHT\n", argv[i]);
                return false;
            }
            options->play.width = w;
            options->play.height = h;
            options->play.displayGiven = true;
        } else if (arg == "--refresh-hz" && hasValue) {
            char* end = nullptr;
            const double hz = strtod(argv[++i], &end);
            if (end == argv[i] || *end != '\0' || !(hz >= kMinRefreshHz && hz <= kMaxRefreshHz)) {
                fprintf(stderr, "pelto-sim: --refresh-hz %s: expected 1 to 1000\n", argv[i]);
                return false;
            }
            options->play.refreshHz = hz;
        } else if (arg == "--write-scenario" && hasValue) {
            options->writeScenario = argv[++i];
        } else if (arg == "--compare" && hasValue) {
            options->compareRules = argv[++i];
        } else if (arg == "--json" && hasValue) {
            options->jsonFile = argv[++i];
        } else if (arg == "--refresh-floor-hz" && hasValue) {
            options->run.refreshFloorHz = atof(argv[++i]);
            if (!(options->run.refreshFloorHz > 0)) {
                fprintf(stderr, "pelto-sim: --refresh-floor-hz: expected a rate above 0\n");
                return false;
            }
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
        } else if (arg.size() > 1 && arg[0] == '-') { // "-" alone is standard input
            fprintf(stderr, "pelto-sim: unknown option or missing value: %s\n", arg.c_str());
            return false;
        } else {
            options->inputs.push_back(arg);
        }
    }
    if (options->inputs.empty()) {
        fprintf(stderr, "pelto-sim: no scenario given\n");
        return false;
    }
    if (options->compareRules.empty() && options->inputs.size() > 1) {
        fprintf(stderr, "pelto-sim: one scenario or capture at a time (several with --compare)\n");
        return false;
    }
    if (std::count(options->inputs.begin(), options->inputs.end(), "-") > 1) {
        fprintf(stderr, "pelto-sim: standard input (-) can be read once\n");
        return false;
    }
    if (options->play.refreshHz > 0 && !options->capture && options->compareRules.empty()) {
        fprintf(stderr, "pelto-sim: --refresh-hz goes with --capture\n");
        return false;
    }
    if (!options->play.rules.empty() && !options->play.apiTarget.empty()) {
        fprintf(stderr, "pelto-sim: --rules and --api-target exclude each other\n");
        return false;
    }
    options->run.keepTrace = !options->traceFile.empty();
    return true;
}

bool isScenarioFile(const std::string& path) {
    return path.size() > 5 && path.compare(path.size() - 5, 5, ".json") == 0;
}

// A scenario file, or a capture made into a scenario; `rules` (if set)
// replaces its rule file and puts it in list mode. A capture already in
// `read` (the same input played again, as --compare does) is not read
// again: standard input can be read only once.
bool loadInput(const std::string& input, bool capture, CapturePlay play, const std::string& rules,
               Scenario* scenario, std::string* error, std::optional<Capture>* read = nullptr) {
    if (!rules.empty() && !checkRuleFile(rules, error)) return false;
    if (capture) {
        std::optional<Capture> own;
        std::optional<Capture>& c = read != nullptr ? *read : own;
        if (!c) {
            c.emplace();
            if (!readCapture(input, &*c, error)) {
                c.reset();
                return false;
            }
        }
        play.rules = rules;
        return captureScenario(*c, play, scenario, error);
    }
    if (!readScenario(input, scenario, error)) return false;
    if (rules.empty()) return true;
    if (!scenario->listMode) {
        // API-mode calls mean nothing to a list-mode controller.
        auto& events = scenario->events;
        events.erase(std::remove_if(events.begin(), events.end(),
                                    [](const Event& e) {
                                        return e.kind == Event::Kind::SetTargetLayer ||
                                                e.kind == Event::Kind::SetPeltoEnable;
                                    }),
                     events.end());
        scenario->listMode = true;
    }
    scenario->rules = RuleSource{rules, {}};
    scenario->assumptions.push_back("rules: " + rules + " (--rules)");
    return true;
}

// --compare: each input with its own rules (or --rules) and with the other file.
int compare(const Options& options, PeltoLibrary& library) {
    std::vector<CompareRow> rows;
    for (const std::string& input : options.inputs) {
        const bool capture = options.capture || !isScenarioFile(input);
        CompareRow row;
        row.input = input;
        std::optional<Capture> read;
        for (CompareFigures* figures : {&row.a, &row.b}) {
            const std::string rules = figures == &row.a ? options.rules : options.compareRules;
            Scenario scenario;
            RunRecord record;
            std::string error;
            if (!loadInput(input, capture, options.play, rules, &scenario, &error, &read)) {
                fprintf(stderr, "pelto-sim: %s\n", error.c_str());
                return kExitError;
            }
            RunOptions run = options.run;
            run.keepTrace = false; // a comparison writes no trace
            Simulation simulation(scenario, library, run);
            if (!simulation.run(&record, &error)) {
                fprintf(stderr, "pelto-sim: %s: %s\n", input.c_str(), error.c_str());
                return kExitError;
            }
            const RunSummary summary = summarize(scenario, record);
            figures->rules = scenario.listMode
                    ? (scenario.rules.isInline() ? "inline rules" : scenario.rules.path)
                    : "API mode";
            figures->onPercent = 100.0 * static_cast<double>(summary.timeInState[1]) /
                    static_cast<double>(scenario.duration);
            figures->hwcToggles = summary.hwcToggles();
            figures->refreshesSavedPercent =
                    savedPercent(summary.refreshes.fixedTotal(), summary.refreshes.pacedTotal());
            figures->reasons = reasonsSeen(record);
            figures->refreshBasis = record.buffersPlayed > 0;
        }
        rows.push_back(std::move(row));
    }
    printCompare(options.jsonFile == "-" ? stderr : stdout, rows);
    std::string error;
    if (!options.jsonFile.empty() && !writeJson(compareJson(rows), options.jsonFile, &error)) {
        fprintf(stderr, "pelto-sim: %s\n", error.c_str());
        return kExitError;
    }
    return kExitPassed;
}

int run(const Options& options) {
    // With --json -, stdout carries the JSON alone.
    FILE* text = options.jsonFile == "-" ? stderr : stdout;
    std::string error;
    PeltoLibrary library;
    if (!library.open(options.library, &error)) {
        fprintf(stderr, "pelto-sim: %s\n", error.c_str());
        return kExitError;
    }
    if (!options.compareRules.empty()) return compare(options, library);

    Scenario scenario;
    if (!loadInput(options.inputs[0], options.capture, options.play, options.rules, &scenario,
                   &error)) {
        fprintf(stderr, "pelto-sim: %s\n", error.c_str());
        return kExitError;
    }
    if (!options.writeScenario.empty()) {
        if (!options.capture) {
            fprintf(stderr, "pelto-sim: --write-scenario goes with --capture\n");
            return kExitError;
        }
        if (!writeScenarioFile(scenario, options.writeScenario, &error)) {
            fprintf(stderr, "pelto-sim: %s\n", error.c_str());
            return kExitError;
        }
    }

    // The trace streams to an unnamed temporary file during the run and is
    // written out at the end, so its memory does not grow with the run.
    RunOptions run = options.run;
    std::unique_ptr<FILE, int (*)(FILE*)> spool(nullptr, fclose);
    if (!options.traceFile.empty()) {
        spool.reset(tmpfile());
        if (spool == nullptr) {
            fprintf(stderr, "pelto-sim: %s: cannot make a temporary file for the trace: %s\n",
                    options.traceFile.c_str(), strerror(errno));
            return kExitError;
        }
        run.traceSpool = spool.get();
    }
    RunRecord record;
    Simulation simulation(scenario, library, run);
    if (!simulation.run(&record, &error)) {
        fprintf(stderr, "pelto-sim: %s: %s\n", scenario.path.c_str(), error.c_str());
        return kExitError;
    }

    const RunSummary summary = summarize(scenario, record);
    const RunDiagnosis diagnosis = diagnose(scenario, record, summary);
    const std::vector<ExpectationResult> results = checkExpectations(scenario, record, summary);
    printHeader(text, scenario);
    if (!options.quiet) printTimeline(text, record, options.run.verbose);
    printSummary(text, scenario, summary, diagnosis);
    if (options.dump) fprintf(text, "\nlibrary dump at the end\n%s", record.finalDump.c_str());
    const int failed = printExpectations(text, results);
    fflush(text);

    if (!options.writeScenario.empty()) {
        fprintf(text, "scenario written to %s\n", options.writeScenario.c_str());
    }
    if (!options.jsonFile.empty()) {
        Json::Value json = runJson(scenario, record, summary, diagnosis);
        for (const std::string& line : scenario.assumptions) json["assumptions"].append(line);
        json["expectations_failed"] = failed;
        if (!writeJson(json, options.jsonFile, &error)) {
            fprintf(stderr, "pelto-sim: %s\n", error.c_str());
            return kExitError;
        }
    }

    if (!options.traceFile.empty()) {
        const TraceRecorder& trace = TraceRecorder::instance();
        const uint64_t events = trace.spooledEvents();
        if (!writeSystraceSpool(options.traceFile, spool.get(), trace.threadNames(), events,
                                record.mainTid, &error)) {
            fprintf(stderr, "pelto-sim: %s\n", error.c_str());
            return kExitError;
        }
        fprintf(text, "trace written to %s (%" PRIu64 " events; open it in Perfetto UI)\n",
                options.traceFile.c_str(), events);
        if (trace.spoolCutAt() >= 0) {
            fprintf(stderr,
                    "pelto-sim: %s: the trace stops at %.3f s: a trace file holds at most %" PRIu64
                    " events\n",
                    options.traceFile.c_str(),
                    static_cast<double>(trace.spoolCutAt() - kVirtualBootOffset) / 1e9,
                    kMaxTraceEvents);
        }
    }
    if (!options.htmlFile.empty()) {
        if (!writeHtmlReport(options.htmlFile, scenario, record, summary, diagnosis, results,
                             &error)) {
            fprintf(stderr, "pelto-sim: %s\n", error.c_str());
            return kExitError;
        }
        fprintf(text, "HTML page written to %s\n", options.htmlFile.c_str());
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
