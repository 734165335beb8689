#include "tools/sim/JsonReport.h"
#include "controller/PeltoTypes.h"

#include <algorithm>
#include <fstream>
#include <iostream>

namespace android::tools::sim {
namespace {

// State changes listed in the JSON; the counts cover all of them.
constexpr size_t kMaxListedChanges = 1000;

double seconds(SimTime t) {
    return static_cast<double>(t) / 1e9;
}

} // namespace

std::vector<int32_t> reasonsSeen(const RunRecord& record) {
    std::vector<int32_t> reasons;
    for (const StateChange& change : record.states) {
        if (std::find(reasons.begin(), reasons.end(), change.reason) == reasons.end()) {
            reasons.push_back(change.reason);
        }
    }
    return reasons;
}

namespace {

// Rule-file problems, the lint, unmatched targets, layers without buffers and
// why the mode never went On. Without a buffer played the refresh estimate
// has no basis: its saved shares are null, with the reason.
void addDiagnosis(const RunDiagnosis& d, Json::Value* out) {
    const auto list = [&](const char* key, const std::vector<std::string>& lines) {
        (*out)[key] = Json::Value(Json::arrayValue);
        for (const std::string& line : lines) (*out)[key].append(line);
    };
    list("rule_file_problems", d.ruleProblems);
    list("unmatched_targets", d.unmatchedTargets);
    list("layers_without_buffers", d.layersWithoutBuffers);
    (*out)["lint"] = Json::Value(Json::arrayValue);
    for (const LintNote& n : d.lint) {
        Json::Value finding;
        finding["file"] = n.file;
        finding["code"] = n.code;
        finding["line"] = n.line;
        finding["message"] = n.message;
        finding["fix"] = n.fix;
        (*out)["lint"].append(finding);
    }
    if (!d.neverOn.empty()) (*out)["never_on"] = d.neverOn;
    if (d.refreshBasis) return;
    Json::Value& refreshes = (*out)["panel_refreshes"];
    refreshes["saved_percent"] = Json::nullValue;
    refreshes["not_estimated"] = kNoRefreshBasis;
    for (const auto& state : refreshes["by_state"].getMemberNames()) {
        refreshes["by_state"][state]["saved_percent"] = Json::nullValue;
    }
}

// The run's figures: time in each state, the library's calls, Q2Q.
void addRunFigures(const Scenario& scenario, const RunSummary& summary, Json::Value* out) {
    Json::Value& o = *out;
    o["name"] = scenario.name;
    o["input"] = scenario.path;
    o["duration_s"] = seconds(scenario.duration);
    o["compositions"] = Json::Int64(summary.compositions);
    for (int s = 0; s < 3; ++s) {
        Json::Value& state = o["time_in_state"][peltoStateName(s)];
        state["s"] = seconds(summary.timeInState[s]);
        state["percent"] = scenario.duration == 0
                ? 0.0
                : 100.0 * static_cast<double>(summary.timeInState[s]) / scenario.duration;
    }
    o["hwc_toggles"] = summary.hwcToggles();
    o["vsync_callbacks"] = Json::UInt64(summary.vsyncCallbacks);
    o["buffers_queued"] = Json::Int64(summary.buffersPlayed);
    Json::Value& q2q = o["q2q_fps"];
    q2q["measured_samples"] = Json::UInt64(summary.q2qMeasured);
    q2q["last"] = Json::Int64(summary.q2qLast);
    q2q["min"] = Json::Int64(summary.q2qMin);
    q2q["max"] = Json::Int64(summary.q2qMax);
    o["q2q_full_share"] = summary.q2qFullShare();
}

// The refresh estimate, for the whole run and for each state.
void addRefreshes(const RunSummary& summary, Json::Value* out) {
    const RefreshCounts& r = summary.refreshes;
    Json::Value& refreshes = (*out)["panel_refreshes"];
    refreshes["estimate"] = true;
    refreshes["floor_hz"] = summary.refreshFloorHz;
    refreshes["vsync_cadence"] = Json::Int64(r.fixedTotal());
    refreshes["with_decisions"] = Json::Int64(r.pacedTotal());
    refreshes["saved_percent"] = savedPercent(r.fixedTotal(), r.pacedTotal());
    for (int s = 0; s < 3; ++s) {
        Json::Value& state = refreshes["by_state"][peltoStateName(s)];
        state["vsync_cadence"] = Json::Int64(r.fixed[s]);
        state["with_decisions"] = Json::Int64(r.paced[s]);
        state["saved_percent"] = savedPercent(r.fixed[s], r.paced[s]);
    }
}

// The panel's rate as numbers: the first, every change, and where they came
// from in a capture.
void addPanel(const Scenario& scenario, Json::Value* out) {
    Json::Value& panel = (*out)["panel"];
    panel["refresh_hz"] = scenario.display.refreshHz;
    panel["changes"] = Json::Value(Json::arrayValue);
    panel["rates_hz"] = Json::Value(Json::arrayValue);
    std::vector<double> rates;
    std::vector<RefreshChange> changes{{0, scenario.display.refreshHz}};
    changes.insert(changes.end(), scenario.display.refreshChanges.begin(),
                   scenario.display.refreshChanges.end());
    for (const RefreshChange& c : changes) {
        Json::Value change;
        change["at_s"] = seconds(c.at);
        change["hz"] = c.refreshHz;
        panel["changes"].append(change);
        if (std::find(rates.begin(), rates.end(), c.refreshHz) == rates.end()) {
            rates.push_back(c.refreshHz);
            panel["rates_hz"].append(c.refreshHz);
        }
    }
    if (const auto& capture = scenario.capture) {
        panel["source"] = capture->refreshSource;
        panel["trusted"] = capture->refreshTrusted;
        panel["given"] = capture->refreshGiven;
        panel["vsync_signal_sparse"] = capture->vsyncSparse;
    }
}

// What a capture told: the reader's warnings, each layer's buffers, and the
// API-mode target's pace.
void addCaptureFacts(const Scenario& scenario, const RunSummary& summary, Json::Value* out) {
    const auto& capture = scenario.capture;
    if (!capture) return;
    Json::Value& o = *out;
    o["warnings"] = Json::Value(Json::arrayValue);
    for (const std::string& w : capture->warnings) o["warnings"].append(w);
    Json::Value& layers = o["capture_layers"] = Json::Value(Json::arrayValue);
    for (const CaptureFacts::Layer& l : capture->layers) {
        Json::Value layer;
        layer["name"] = l.name;
        layer["buffers"] = Json::Int64(l.buffers);
        layer["fps"] = l.fps;
        layer["source"] = l.source;
        layer["geometry_given"] = l.geometryGiven;
        layers.append(layer);
    }
    // The figures that rest on what the capture does not show.
    Json::Value& assumed = o["assumed_for"] = Json::Value(Json::arrayValue);
    for (const CaptureFacts::Assumed& a : capture->assumedFor) {
        Json::Value item;
        item["assumption"] = a.what;
        item["figures"] = Json::Value(Json::arrayValue);
        for (const std::string& f : a.figures) item["figures"].append(f);
        assumed.append(item);
    }
    if (const ContentPace pace = contentPace(scenario, summary); pace.layer != nullptr) {
        Json::Value& target = o["target"];
        target["name"] = pace.layer->name;
        target["buffers"] = Json::Int64(pace.layer->buffers);
        target["fps"] = pace.layer->fps;
        target["content_paced_saved_percent"] = pace.savedPercent;
    }
}

// The reasons seen, and the first kMaxListedChanges state changes with their causes.
void addStateChanges(const RunRecord& record, Json::Value* out) {
    Json::Value& o = *out;
    o["reasons_seen"] = Json::Value(Json::arrayValue);
    for (int32_t reason : reasonsSeen(record)) o["reasons_seen"].append(reason);
    o["state_changes"] = Json::Value(Json::arrayValue);
    for (size_t i = 0; i < record.states.size() && i < kMaxListedChanges; ++i) {
        const StateChange& c = record.states[i];
        Json::Value change;
        change["at_s"] = seconds(c.at);
        change["from"] = peltoStateName(c.from);
        change["to"] = peltoStateName(c.to);
        change["reason"] = c.reason;
        if (!c.cause.empty()) change["why"] = c.cause;
        o["state_changes"].append(change);
    }
    o["state_changes_total"] = Json::UInt64(record.states.size());
}

} // namespace

Json::Value runJson(const Scenario& scenario, const RunRecord& record, const RunSummary& summary,
                    const RunDiagnosis& diagnosis) {
    Json::Value out;
    addRunFigures(scenario, summary, &out);
    addRefreshes(summary, &out);
    addPanel(scenario, &out);
    addCaptureFacts(scenario, summary, &out);
    addStateChanges(record, &out);
    addDiagnosis(diagnosis, &out);
    return out;
}

bool writeJson(const Json::Value& value, const std::string& path, std::string* error) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    const std::string text = Json::writeString(builder, value) + "\n";
    if (path == "-") {
        std::cout << text << std::flush;
        return true;
    }
    std::ofstream file(path);
    file << text;
    if (!file) {
        *error = "cannot write the JSON to " + path;
        return false;
    }
    return true;
}

} // namespace android::tools::sim
