#include "tools/sim/TextReport.h"
#include "controller/PeltoTypes.h"

#include <cinttypes>

namespace android::tools::sim {
namespace {

double percent(SimTime part, SimTime whole) {
    return whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

// The refresh estimate; with no buffer played there is nothing to base it on.
void printRefreshes(FILE* out, const RunSummary& summary, const RunDiagnosis& diagnosis) {
    const RefreshCounts& r = summary.refreshes;
    if (!diagnosis.refreshBasis) {
        fprintf(out, "  panel refreshes   not estimated: %s (see below)\n", kNoRefreshBasis);
        return;
    }
    fprintf(out,
            "  panel refreshes   %" PRId64 " on the vsync cadence, %" PRId64
            " with the library's decisions: %.1f%% saved (estimate, floor %g Hz)\n",
            r.fixedTotal(), r.pacedTotal(), savedPercent(r.fixedTotal(), r.pacedTotal()),
            summary.refreshFloorHz);
    for (int s = 0; s < 3; ++s) {
        if (r.fixed[s] == 0) continue;
        fprintf(out, "    while %-9s %" PRId64 " -> %" PRId64 " (%.1f%% saved)\n",
                peltoStateName(s), r.fixed[s], r.paced[s], savedPercent(r.fixed[s], r.paced[s]));
    }
}

void printDiagnosis(FILE* out, const RunDiagnosis& diagnosis) {
    for (const DiagnosisLine& line : diagnosisLines(diagnosis))
        fprintf(out, "  %-17s %s\n", line.label, line.text.c_str());
    if (diagnosis.lint.empty()) return;
    fprintf(out,
            "\nlint of the rule files (what the library accepts, but is most likely a mistake)\n");
    for (const LintNote& n : diagnosis.lint) {
        fprintf(out, "  %s line %d [%s]: %s\n", n.file.c_str(), n.line, n.code.c_str(),
                n.message.c_str());
        if (!n.fix.empty()) fprintf(out, "      fix: %s\n", n.fix.c_str());
    }
}

} // namespace

void printHeader(FILE* out, const Scenario& scenario) {
    fprintf(out, "scenario: %s (%s)\n", scenario.name.c_str(), scenario.path.c_str());
    if (!scenario.description.empty()) {
        fprintf(out, "  %s\n", scenario.description.c_str());
    }
    fprintf(out, "  %s mode, display %ux%u at %g Hz, %s\n", scenario.listMode ? "list" : "API",
            scenario.display.width, scenario.display.height, scenario.display.refreshHz,
            formatSeconds(scenario.duration).c_str());
    for (const std::string& line : scenario.assumptions) {
        fprintf(out, "  %s\n", line.c_str());
    }
}

void printTimeline(FILE* out, const RunRecord& record, bool libraryThreads) {
    fprintf(out, "\ntimeline (seconds from the start)\n");
    for (const TimelineEntry& entry : record.timeline) {
        fprintf(out, "  %9.3f  %-10s  %s\n", static_cast<double>(entry.at) / 1e9,
                timelineLabel(entry.kind), entry.text.c_str());
    }
    if (record.timelineDropped > 0) {
        fprintf(out, "  ... %" PRId64 " later lines not kept\n", record.timelineDropped);
    }
    if (!libraryThreads || record.backgroundLog.empty()) return;
    // Their order against the timeline depends on the scheduler.
    fprintf(out, "\nlogged by the library's own threads\n");
    for (const LogLine& line : record.backgroundLog) {
        fprintf(out, "  %c %s: %s\n", priorityLetter(line.priority), line.tag.c_str(),
                line.message.c_str());
    }
}

void printSummary(FILE* out, const Scenario& scenario, const RunSummary& summary,
                  const RunDiagnosis& diagnosis) {
    const SimTime d = scenario.duration;
    fprintf(out, "\nsummary over %s, %" PRId64 " compositions\n", formatSeconds(d).c_str(),
            summary.compositions);
    fprintf(out, "  time in state     Off %s (%.1f%%), On %s (%.1f%%), Temp Off %s (%.1f%%)\n",
            formatSeconds(summary.timeInState[0]).c_str(), percent(summary.timeInState[0], d),
            formatSeconds(summary.timeInState[1]).c_str(), percent(summary.timeInState[1], d),
            formatSeconds(summary.timeInState[2]).c_str(), percent(summary.timeInState[2], d));
    fprintf(out, "  HWC toggles       %d (%d on, %d off)\n", summary.hwcToggles(), summary.hwcOn,
            summary.hwcOff);
    fprintf(out, "  vsync callbacks   %zu requested\n", summary.vsyncCallbacks);
    if (summary.q2qMeasured > 0) {
        fprintf(out,
                "  Q2Q fps           %" PRId64 " at the end; %" PRId64 " to %" PRId64
                " over %zu measured samples\n",
                summary.q2qLast, summary.q2qMin, summary.q2qMax, summary.q2qMeasured);
    } else {
        fprintf(out, "  Q2Q fps           never measured\n");
    }
    fprintf(out,
            "  isQ2QFull         true after %" PRId64 " of %" PRId64 " compositions (%.1f%%)\n",
            summary.q2qFullCompositions, summary.compositions, summary.q2qFullShare() * 100);
    printRefreshes(out, summary, diagnosis);
    if (const ContentPace pace = contentPace(scenario, summary); pace.layer != nullptr) {
        fprintf(out,
                "  content pace      the target's %" PRId64
                " buffers, %.2f a second: a panel "
                "refreshing only for them saves %.1f%%\n",
                pace.layer->buffers, pace.layer->fps, pace.savedPercent);
    }
    if (scenario.capture && !scenario.capture->assumedFor.empty()) {
        std::string line;
        for (const CaptureFacts::Assumed& a : scenario.capture->assumedFor) {
            std::string figures;
            for (const std::string& f : a.figures) figures += (figures.empty() ? "" : ", ") + f;
            line += (line.empty() ? "" : "; ") + figures + " rest on " + a.what;
        }
        fprintf(out, "  assumed           %s\n", line.c_str());
    }
    if (summary.buffersPlayed > 0 || summary.framesSkipped > 0) {
        fprintf(out, "  buffers queued    %" PRId64 "%s\n", summary.buffersPlayed,
                summary.framesSkipped == 0
                        ? ""
                        : (" (" + std::to_string(summary.framesSkipped) +
                           " measured times outside the layer's spans or the run not played)")
                                  .c_str());
    }
    printDiagnosis(out, diagnosis);
}

int printExpectations(FILE* out, const std::vector<ExpectationResult>& results) {
    if (results.empty()) {
        fprintf(out, "\nno expectations\n");
        return 0;
    }
    fprintf(out, "\nexpectations\n");
    int failed = 0;
    for (const ExpectationResult& r : results) {
        const Expectation& e = *r.expectation;
        fprintf(out, "  %-4s  %s  %s\n", r.passed ? "ok" : "FAIL", e.key.c_str(), r.what.c_str());
        if (!r.passed) {
            ++failed;
            fprintf(out, "          got %s\n", r.got.c_str());
            if (!e.why.empty()) fprintf(out, "          why it matters: %s\n", e.why.c_str());
        }
    }
    fprintf(out, "%zu expectations: %zu passed, %d failed\n", results.size(),
            results.size() - failed, failed);
    return failed;
}

} // namespace android::tools::sim
