#include "tools/sim/Expectations.h"
#include "controller/PeltoTypes.h"

#include <cinttypes>
#include <cstdio>

namespace android::tools::sim {
namespace {

std::string stateWithReason(const StateChange& s) {
    return std::string(peltoStateName(s.to)) + " (reason " + std::to_string(s.reason) + ", since " +
            formatSeconds(s.at) + ")";
}

// The library's state, HWC mode, active target or Q2Q at one moment, or
// the state over a span; false for the other kinds.
bool checkMoment(const Expectation& e, const RunRecord& record, ExpectationResult& r) {
    using Kind = Expectation::Kind;
    const std::string at = "at " + formatSeconds(e.at) + ": ";
    switch (e.kind) {
        case Kind::StateAt: {
            const StateChange s = stateAt(record, e.at);
            r.what = at + "state " + peltoStateName(e.state) +
                    (e.reason ? " with reason " + std::to_string(*e.reason) : "");
            r.passed = s.to == e.state && (!e.reason || *e.reason == s.reason);
            r.got = stateWithReason(s);
            break;
        }
        case Kind::HwcAt: {
            const bool on = hwcOnAt(record, e.at);
            r.what = at + "HWC Pelto mode " + (e.flag ? "on" : "off");
            r.passed = on == e.flag;
            r.got = std::string("HWC Pelto mode ") + (on ? "on" : "off");
            break;
        }
        case Kind::ActiveTargetAt: {
            const auto target = activeTargetAt(record, e.at);
            r.what = at + "active target " + e.layer;
            r.passed = target && *target == e.layer;
            r.got = target ? "active target " + *target : "no active target yet";
            break;
        }
        case Kind::Q2QFpsAt: {
            const int64_t fps = q2qFpsAt(record, e.at);
            r.what = at + "Q2Q fps from " + std::to_string(e.min) + " to " + std::to_string(e.max);
            r.passed = fps >= e.min && fps <= e.max;
            r.got = "Q2Q fps " + std::to_string(fps);
            if (record.q2qFpsLostFrom >= 0 && e.at >= record.q2qFpsLostFrom) {
                r.passed = false;
                r.got = "not known: the run kept the rate's first changes only, up to " +
                        formatSeconds(record.q2qFpsLostFrom);
            }
            break;
        }
        case Kind::Q2QFullAt: {
            const bool full = q2qFullAt(record, e.at);
            r.what = at + "isQ2QFull " + (e.flag ? "true" : "false");
            r.passed = full == e.flag;
            r.got = std::string("isQ2QFull ") + (full ? "true" : "false");
            if (record.q2qFullLostFrom >= 0 && e.at >= record.q2qFullLostFrom) {
                r.passed = false;
                r.got = "not known: the run kept its first changes only, up to " +
                        formatSeconds(record.q2qFullLostFrom);
            }
            break;
        }
        case Kind::StateThroughout: {
            r.what = "from " + formatSeconds(e.window.from) + " to " + formatSeconds(e.window.to) +
                    ": state " + peltoStateName(e.state) + " throughout";
            const StateChange first = stateAt(record, e.window.from);
            r.passed = first.to == e.state;
            r.got = "at " + formatSeconds(e.window.from) + " " + stateWithReason(first);
            for (const StateChange& s : record.states) {
                if (!r.passed) break;
                if (s.at > e.window.from && s.at < e.window.to && s.to != e.state) {
                    r.passed = false;
                    r.got = "at " + formatSeconds(s.at) + " " + stateWithReason(s);
                }
            }
            break;
        }
        default:
            return false;
    }
    return true;
}

// A count or a share over the whole run.
void checkRunFigure(const Expectation& e, const RunSummary& summary, ExpectationResult& r) {
    using Kind = Expectation::Kind;
    switch (e.kind) {
        case Kind::HwcTogglesAtMost:
        case Kind::HwcTogglesAtLeast: {
            const bool atMost = e.kind == Kind::HwcTogglesAtMost;
            r.what = std::string("HWC toggles ") + (atMost ? "at most " : "at least ") +
                    std::to_string(e.count);
            r.passed = atMost ? summary.hwcToggles() <= e.count : summary.hwcToggles() >= e.count;
            r.got = std::to_string(summary.hwcToggles()) + " HWC toggles";
            break;
        }
        case Kind::VsyncCallbacksAtLeast:
        case Kind::VsyncCallbacksAtMost: {
            const bool atLeast = e.kind == Kind::VsyncCallbacksAtLeast;
            const int64_t n = static_cast<int64_t>(summary.vsyncCallbacks);
            r.what = std::string("vsync callbacks ") + (atLeast ? "at least " : "at most ") +
                    std::to_string(e.count);
            r.passed = atLeast ? n >= e.count : n <= e.count;
            r.got = std::to_string(n) + " vsync callbacks";
            break;
        }
        case Kind::Q2QFullShareAtLeast:
        case Kind::Q2QFullShareAtMost: {
            const bool atLeast = e.kind == Kind::Q2QFullShareAtLeast;
            char text[128];
            snprintf(text, sizeof(text), "isQ2QFull true in %s %.1f%% of compositions",
                     atLeast ? "at least" : "at most", e.share * 100);
            r.what = text;
            r.passed =
                    atLeast ? summary.q2qFullShare() >= e.share : summary.q2qFullShare() <= e.share;
            snprintf(text, sizeof(text), "%.1f%% (%" PRId64 " of %" PRId64 ")",
                     summary.q2qFullShare() * 100, summary.q2qFullCompositions,
                     summary.compositions);
            r.got = text;
            break;
        }
        default:
            break;
    }
}

ExpectationResult check(const Expectation& e, const RunRecord& record, const RunSummary& summary) {
    ExpectationResult r;
    r.expectation = &e;
    if (!checkMoment(e, record, r)) checkRunFigure(e, summary, r);
    return r;
}

} // namespace

std::string formatSeconds(SimTime t) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f s", static_cast<double>(t) / 1e9);
    return text;
}

std::vector<ExpectationResult> checkExpectations(const Scenario& scenario, const RunRecord& record,
                                                 const RunSummary& summary) {
    std::vector<ExpectationResult> results;
    results.reserve(scenario.expectations.size());
    for (const Expectation& e : scenario.expectations) {
        results.push_back(check(e, record, summary));
    }
    return results;
}

} // namespace android::tools::sim
