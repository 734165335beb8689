// pelto-sim: plays the compositor for the library on virtual time, from a
// scenario file, and shows what the library decided, when and why.
//
//   pelto-sim [--lib PATH] [--trace FILE] [--html FILE] [--json FILE] [--quiet]
//             [--verbose] [--debug-lines] [--dump] [--rules RULES]
//             [--refresh-floor-hz HZ] SCENARIO
//   pelto-sim --capture FILE [--rules RULES | --api-target NAME] [--display WxH]
//             [--layer NAME=WxH[,focus][,visible=FROM_MS-TO_MS]]...
//             [--refresh-hz HZ] [--write-scenario OUT.json] [other options as above]
//   pelto-sim --compare OTHER_RULES [--rules RULES] [--json FILE] INPUT...
//   pelto-sim [--lib PATH] --version
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/host/PeltoLibrary.h"
#include "tools/host/ToolVersion.h"
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
    bool version = false;
    RunOptions run;
};

void usage() {
    fprintf(stderr,
            "usage: pelto-sim [options] SCENARIO.json\n"
            "       pelto-sim --capture FILE [--rules RULES.json | --api-target NAME]\n"
            "                 [--display WxH] [--layer NAME=WxH[,focus][,visible=FROM_MS-TO_MS]]\n"
            "                 [--refresh-hz HZ] [--write-scenario OUT.json]\n"
            "                 [options]\n"
            "       pelto-sim --compare OTHER_RULES.json [--rules RULES.json] INPUT...\n"
            "       pelto-sim [--lib PATH] --version\n"
            "  --lib PATH       the library to load (default: %s)\n"
            "  --capture FILE   play a systrace/atrace capture (text, HTML report, Perfetto\n"
            "                   trace, or gzip; - reads it from standard input)\n"
            "  --rules FILE     this rule file instead of the scenario's (list mode)\n"
            "  --api-target NAME  play a capture in API mode with this layer as target\n"
            "  --display WxH    the display size a capture does not record (default 1080x2400)\n"
            "  --layer NAME=WxH[,focus][,visible=FROM_MS-TO_MS]  a capture layer's size in\n"
            "                   pixels, its input focus and its span on screen (repeatable;\n"
            "                   NAME is a part of the layer's name; default: full screen, no\n"
            "                   focus, on screen while it queues buffers)\n"
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
            "  --version        print the version and the library it loads, and exit\n"
            "exit status: 0 every expectation held, 1 one failed, 2 the run could not start\n",
            PELTO_LIBRARY_PATH);
}

// An option with a value; false, having said why, when the value is bad.
bool parseValueOption(const std::string& arg, const char* value, Options* options) {
    if (arg == "--lib") {
        options->library = value;
    } else if (arg == "--trace") {
        options->traceFile = value;
    } else if (arg == "--html") {
        options->htmlFile = value;
    } else if (arg == "--capture") {
        options->capture = true;
        options->inputs.push_back(value);
    } else if (arg == "--rules") {
        options->rules = value;
        options->play.rules = options->rules;
    } else if (arg == "--api-target") {
        options->play.apiTarget = value;
    } else if (arg == "--display") {
        unsigned w = 0;
        unsigned h = 0;
        char extra = 0;
        if (sscanf(value, "%ux%u%c", &w, &h, &extra) != 2 || w == 0 || h == 0 ||
            static_cast<uint64_t>(w) * h > UINT32_MAX) {
            fprintf(stderr, "pelto-sim: --display %s: expected WIDTHxHEIGHT\n", value);
            return false;
        }
        options->play.width = w;
        options->play.height = h;
        options->play.displayGiven = true;
    } else if (arg == "--refresh-hz") {
        char* end = nullptr;
        const double hz = strtod(value, &end);
        if (end == value || *end != '\0' || !(hz >= kMinRefreshHz && hz <= kMaxRefreshHz)) {
            fprintf(stderr, "pelto-sim: --refresh-hz %s: expected 1 to 1000\n", value);
            return false;
        }
        options->play.refreshHz = hz;
    } else if (arg == "--layer") {
        std::string error;
        if (!parseLayerOption(value, &options->play.layers.emplace_back(), &error)) {
            fprintf(stderr, "pelto-sim: %s\n", error.c_str());
            return false;
        }
    } else if (arg == "--write-scenario") {
        options->writeScenario = value;
    } else if (arg == "--compare") {
        options->compareRules = value;
    } else if (arg == "--json") {
        options->jsonFile = value;
    } else if (arg == "--refresh-floor-hz") {
        options->run.refreshFloorHz = atof(value);
        if (!(options->run.refreshFloorHz > 0)) {
            fprintf(stderr, "pelto-sim: --refresh-floor-hz: expected a rate above 0\n");
            return false;
        }
    }
    return true;
}

bool takesValue(const std::string& arg) {
    static const char* const kValueOptions[] = {"--lib",
                                                "--trace",
                                                "--html",
                                                "--capture",
                                                "--rules",
                                                "--api-target",
                                                "--display",
                                                "--refresh-hz",
                                                "--layer",
                                                "--write-scenario",
                                                "--compare",
                                                "--json",
                                                "--refresh-floor-hz"};
    return std::any_of(std::begin(kValueOptions), std::end(kValueOptions),
                       [&arg](const char* option) { return arg == option; });
}

// A switch without a value; false when `arg` is none.
bool parseSwitch(const std::string& arg, Options* options) {
    if (arg == "--quiet") {
        options->quiet = true;
    } else if (arg == "--verbose") {
        options->run.verbose = true;
    } else if (arg == "--debug-lines") {
        options->run.debugLines = true;
    } else if (arg == "--dump") {
        options->dump = true;
    } else if (arg == "--version") {
        options->version = true;
    } else if (arg == "--help" || arg == "-h") {
        usage();
        exit(kExitPassed);
    } else {
        return false;
    }
    return true;
}

// What the options ask for together; false, having said why, when they
// cannot go together.
bool checkOptions(const Options& options) {
    const auto refuse = [](const char* why) {
        fprintf(stderr, "pelto-sim: %s\n", why);
        return false;
    };
    const bool capturesOnly = !options.capture && options.compareRules.empty();
    if (options.inputs.empty()) return refuse("no scenario given");
    if (options.compareRules.empty() && options.inputs.size() > 1) {
        return refuse("one scenario or capture at a time (several with --compare)");
    }
    if (std::count(options.inputs.begin(), options.inputs.end(), "-") > 1) {
        return refuse("standard input (-) can be read once");
    }
    if (options.play.refreshHz > 0 && capturesOnly) {
        return refuse("--refresh-hz goes with --capture");
    }
    if (!options.play.layers.empty() && capturesOnly) return refuse("--layer goes with --capture");
    if (!options.play.rules.empty() && !options.play.apiTarget.empty()) {
        return refuse("--rules and --api-target exclude each other");
    }
    return true;
}

bool parseArgs(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (takesValue(arg) && i + 1 < argc) {
            if (!parseValueOption(arg, argv[++i], options)) return false;
        } else if (parseSwitch(arg, options)) {
            continue;
        } else if (arg.size() > 1 && arg[0] == '-') { // "-" alone is standard input
            fprintf(stderr, "pelto-sim: unknown option or missing value: %s\n", arg.c_str());
            return false;
        } else {
            options->inputs.push_back(arg);
        }
    }
    if (options->version) {
        // After the loop, so that a --lib anywhere on the line is the one shown.
        printf("pelto-sim %s\nlibrary: %s\n", kPeltoToolsVersion, options->library.c_str());
        exit(kExitPassed);
    }
    if (!checkOptions(*options)) return false;
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

bool fail(const std::string& error) {
    fprintf(stderr, "pelto-sim: %s\n", error.c_str());
    return false;
}

// The scenario to play, written out first when --write-scenario asks.
bool prepareScenario(const Options& options, Scenario* scenario) {
    std::string error;
    if (!loadInput(options.inputs[0], options.capture, options.play, options.rules, scenario,
                   &error)) {
        return fail(error);
    }
    if (options.writeScenario.empty()) return true;
    if (!options.capture) return fail("--write-scenario goes with --capture");
    return writeScenarioFile(*scenario, options.writeScenario, &error) || fail(error);
}

using Spool = std::unique_ptr<FILE, int (*)(FILE*)>;

// The trace streams to an unnamed temporary file during the run and is
// written out at the end, so its memory does not grow with the run.
bool openTraceSpool(const Options& options, Spool* spool, RunOptions* run) {
    if (options.traceFile.empty()) return true;
    spool->reset(tmpfile());
    if (*spool == nullptr) {
        return fail(options.traceFile +
                    ": cannot make a temporary file for the trace: " + strerror(errno));
    }
    run->traceSpool = spool->get();
    return true;
}

bool writeTrace(const Options& options, FILE* spool, const RunRecord& record, FILE* text) {
    const TraceRecorder& trace = TraceRecorder::instance();
    const uint64_t events = trace.spooledEvents();
    std::string error;
    if (!writeSystraceSpool(options.traceFile, spool, trace.threadNames(), events, record.mainTid,
                            &error)) {
        return fail(error);
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
    return true;
}

// What one run printed and found, for the files written after it.
struct Played {
    const Scenario& scenario;
    const RunRecord& record;
    const RunSummary& summary;
    const RunDiagnosis& diagnosis;
    const std::vector<ExpectationResult>& results;
    int failed = 0;
};

// The text report; the number of expectations that failed.
int printReport(const Options& options, FILE* text, const Played& p) {
    printHeader(text, p.scenario);
    if (!options.quiet) printTimeline(text, p.record, options.run.verbose);
    printSummary(text, p.scenario, p.summary, p.diagnosis);
    if (options.dump) fprintf(text, "\nlibrary dump at the end\n%s", p.record.finalDump.c_str());
    const int failed = printExpectations(text, p.results);
    fflush(text);
    if (!options.writeScenario.empty()) {
        fprintf(text, "scenario written to %s\n", options.writeScenario.c_str());
    }
    return failed;
}

bool writeFiles(const Options& options, FILE* spool, FILE* text, const Played& p) {
    std::string error;
    if (!options.jsonFile.empty()) {
        Json::Value json = runJson(p.scenario, p.record, p.summary, p.diagnosis);
        for (const std::string& line : p.scenario.assumptions) json["assumptions"].append(line);
        json["expectations_failed"] = p.failed;
        if (!writeJson(json, options.jsonFile, &error)) return fail(error);
    }
    if (!options.traceFile.empty() && !writeTrace(options, spool, p.record, text)) return false;
    if (!options.htmlFile.empty()) {
        if (!writeHtmlReport(options.htmlFile, p.scenario, p.record, p.summary, p.diagnosis,
                             p.results, &error)) {
            return fail(error);
        }
        fprintf(text, "HTML page written to %s\n", options.htmlFile.c_str());
    }
    return true;
}

int run(const Options& options) {
    // With --json -, stdout carries the JSON alone.
    FILE* text = options.jsonFile == "-" ? stderr : stdout;
    std::string error;
    PeltoLibrary library;
    if (!library.open(options.library, &error)) {
        fail(error);
        return kExitError;
    }
    if (!options.compareRules.empty()) return compare(options, library);

    Scenario scenario;
    RunOptions run = options.run;
    Spool spool(nullptr, fclose);
    if (!prepareScenario(options, &scenario) || !openTraceSpool(options, &spool, &run)) {
        return kExitError;
    }
    RunRecord record;
    Simulation simulation(scenario, library, run);
    if (!simulation.run(&record, &error)) {
        fail(scenario.path + ": " + error);
        return kExitError;
    }

    const RunSummary summary = summarize(scenario, record);
    const RunDiagnosis diagnosis = diagnose(scenario, record, summary);
    const std::vector<ExpectationResult> results = checkExpectations(scenario, record, summary);
    Played played{scenario, record, summary, diagnosis, results};
    played.failed = printReport(options, text, played);
    if (!writeFiles(options, spool.get(), text, played)) return kExitError;
    for (const ExpectationResult& r : results) {
        if (r.passed) continue;
        fprintf(stderr, "pelto-sim: %s: %s failed: %s; got %s\n", scenario.path.c_str(),
                r.expectation->key.c_str(), r.what.c_str(), r.got.c_str());
    }
    return played.failed == 0 ? kExitPassed : kExitExpectationFailed;
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
