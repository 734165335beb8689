#include "tools/sim/RunDiagnosis.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>

#include "controller/PeltoTypes.h"
#include "tools/check/LayerName.h"
#include "tools/check/RuleLint.h"
#include "tools/sim/Expectations.h"

namespace android::tools::sim {
namespace {

// A name further than this many edits from a target is not offered as close.
constexpr size_t kMaxCloseDistance = 3;

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1,
                               diagonal + (tolower(a[i - 1]) == tolower(b[j - 1]) ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string loadLabel(const RuleLoad& load) {
    return load.atCreation ? load.file : load.file + " (reload at " + formatSeconds(load.at) + ")";
}

void addRuleProblems(const RunRecord& record, RunDiagnosis* d) {
    for (const RuleLoad& load : record.ruleLoads) {
        if (load.problems.empty()) continue;
        std::string said;
        for (const std::string& p : load.problems) {
            // The failure's own line only repeats what the line before it said.
            if (load.problems.size() > 1 && p.rfind("loadConfig failed, ret ", 0) == 0) continue;
            said += (said.empty() ? "" : "; ") + p;
        }
        d->ruleProblems.push_back(
                loadLabel(load) +
                (load.failed ? " did not load: " + said +
                                 "; from then on the library has no targets, ignored names or "
                                 "exception rules (its general_rule switches stay as they were)"
                             : " loaded; the loader logged: " + said +
                                 " (pelto-check names the lines)"));
    }
}

// The rule files the run loaded, each once, parsed.
struct LoadedFile {
    std::string file;
    RuleFileText text;
};

std::vector<LoadedFile> loadedFiles(const RunRecord& record) {
    std::vector<LoadedFile> files;
    std::set<std::string> seen;
    for (const RuleLoad& load : record.ruleLoads) {
        if (load.failed || load.text.empty() || !seen.insert(load.file + load.text).second)
            continue;
        LoadedFile file{load.file, {}};
        std::string error;
        if (file.text.parse(load.text, &error)) files.push_back(std::move(file));
    }
    return files;
}

void addLint(const std::vector<LoadedFile>& files, RunDiagnosis* d) {
    for (const LoadedFile& f : files) {
        for (const Finding& finding : lintRuleFile(f.text)) {
            d->lint.push_back({f.file, finding.code, finding.line, finding.message, finding.fix});
        }
    }
}

// The layers' names the library ever classified as a target.
std::set<std::string> matchedKeys(const Scenario& scenario, const RunRecord& record) {
    std::set<std::string> keys;
    for (size_t i = 0; i < record.layerRoles.size() && i < scenario.layers.size(); ++i) {
        for (const TimedText& role : record.layerRoles[i]) {
            if (role.text == "TargetLayer") keys.insert(lookupName(scenario.layers[i].name));
        }
    }
    return keys;
}

// A layer's name and the name the library looks it up by.
struct LayerKey {
    const std::string* name;
    std::string key;
};

// The distinct lookup names of the run's layers, for the close-name search.
// A run of many layers is searched in its first kLayersLooked names, each
// cut at kLongestName, so the search stays cheap.
std::vector<LayerKey> layerKeys(const Scenario& scenario) {
    constexpr size_t kLayersLooked = 4000;
    constexpr size_t kLongestName = 128;
    std::vector<LayerKey> keys;
    std::set<std::string> seen;
    for (const LayerScript& layer : scenario.layers) {
        std::string key = lookupName(layer.name).substr(0, kLongestName);
        if (!seen.insert(key).second) continue;
        keys.push_back({&layer.name, std::move(key)});
        if (keys.size() >= kLayersLooked) break;
    }
    return keys;
}

bool isClose(const std::string& key, const std::string& target) {
    const size_t longer = std::max(key.size(), target.size());
    const size_t shorter = std::min(key.size(), target.size());
    if (key == target || (!key.empty() && target.find(key) != std::string::npos)) return true;
    return longer - shorter <= kMaxCloseDistance && editDistance(key, target) <= kMaxCloseDistance;
}

std::string closeNames(const std::vector<LayerKey>& keys, const std::string& target) {
    constexpr size_t kShown = 3;
    std::string out;
    size_t shown = 0;
    for (const LayerKey& k : keys) {
        if (!isClose(k.key, target)) continue;
        out += (out.empty() ? "" : ", ") + quoted(*k.name) + " is looked up as " + quoted(k.key);
        if (++shown == kShown) break;
    }
    return out.empty() ? "no layer of the run has a name close to it" : out;
}

void addUnmatchedTargets(const Scenario& scenario, const RunRecord& record,
                         const std::vector<LoadedFile>& files, RunDiagnosis* d) {
    // A rule file for many apps has many targets a run never shows: the
    // first few are named, the rest counted.
    constexpr size_t kListed = 10;
    const std::set<std::string> matched = matchedKeys(scenario, record);
    const std::vector<LayerKey> keys = layerKeys(scenario);
    std::set<std::string> told;
    size_t more = 0;
    for (const LoadedFile& f : files) {
        const Json::Value& targets = f.text.root()["target_layers"];
        if (!targets.isArray()) continue;
        for (const Json::Value& target : targets) {
            if (!target.isObject() || !target["name"].isString()) continue;
            const std::string name = target["name"].asString();
            if (matched.count(name) != 0 || !told.insert(name).second) continue;
            if (d->unmatchedTargets.size() == kListed) {
                ++more;
                continue;
            }
            d->unmatchedTargets.push_back(quoted(name) + " (" + f.file +
                                          ") matched no layer: " + closeNames(keys, name));
        }
    }
    if (more > 0) {
        d->unmatchedTargets.push_back("and " + std::to_string(more) +
                                      " more targets that matched no layer");
    }
}

std::string noBufferReason(const Scenario& scenario, const LayerScript& layer) {
    if (!layer.frames->times) return "it is never on screen with frames due";
    const FrameTimes& t = *layer.frames->times;
    const std::string source = t.file.empty() ? "times_ms" : t.file;
    if (t.count == 0) return source + " holds no frame time";
    char text[256];
    const double shift = static_cast<double>(t.offset - t.first) / 1e6;
    if (t.first >= scenario.duration) {
        snprintf(text, sizeof(text),
                 "the first time of %s is %.1f s after the run's end; set offset_ms to %.0f to "
                 "play them from the start",
                 source.c_str(), static_cast<double>(t.first - scenario.duration) / 1e9, shift);
        return text;
    }
    return "none of the " + std::to_string(t.count) + " times of " + source +
            " falls in a span where the layer is on screen and its frames are not paused";
}

void addLayersWithoutBuffers(const Scenario& scenario, const RunRecord& record, RunDiagnosis* d) {
    for (size_t i = 0; i < scenario.layers.size() && i < record.buffersByLayer.size(); ++i) {
        const LayerScript& layer = scenario.layers[i];
        if (!layer.frames || !layer.hasBuffer || record.buffersByLayer[i] > 0) continue;
        d->layersWithoutBuffers.push_back("no buffer played for layer " + quoted(layer.name) +
                                          ": " + noBufferReason(scenario, layer));
    }
    d->refreshBasis = record.buffersPlayed > 0;
}

std::string neverOnInList(const Scenario& scenario, const RunRecord& record, int32_t reason,
                          const RunDiagnosis& d) {
    switch (static_cast<PeltoReason>(reason)) {
        case PeltoReason::None:
        case PeltoReason::NoTargetRegistered:
        case PeltoReason::NoTargetVisible: {
            if (matchedKeys(scenario, record).empty()) {
                return "no layer of the run matched a target of the rule file" +
                        std::string(d.unmatchedTargets.empty() ? "" : " (see the targets above)") +
                        "; fix: write each target as the layer's name cut before its last '#'";
            }
            return "a target layer was registered but never on screen with a buffer; fix: check "
                   "the target layer's visible spans and has_buffer";
        }
        case PeltoReason::OtherLayerNoGeneralRule:
            return "another layer was on screen and the rule file has no general_rule; fix: add "
                   "\"general_rule\": { \"on_when_has_other_layer\": true }, or list the layer "
                   "in the target's ignore_names";
        case PeltoReason::GeneralRule:
            return "the general rule forbade the other layers on screen; fix: set "
                   "on_when_has_other_layer to true, or list them in the target's ignore_names";
        case PeltoReason::ExceptionRule:
            return "an exception rule forbade its layer; fix: check that rule's conditions "
                   "(layer_screen_size_ratio, focus)";
        default:
            return {};
    }
}

std::string neverOnInApi(int32_t reason) {
    switch (static_cast<PeltoReason>(reason)) {
        case PeltoReason::None:
        case PeltoReason::ApiNoTarget:
            return "no target layer was set; fix: add a set_target_layer event naming the layer";
        case PeltoReason::ApiTargetNotVisible:
            return "the target layer was not on screen; fix: check its visible spans";
        case PeltoReason::ApiDisabled:
            return "the target was on screen but setPeltoEnable was never true; fix: add a "
                   "set_pelto_enable event with true";
        default:
            return {};
    }
}

// Explains from the library's last state reason. Every Off and Temp Off reason
// names a test of the composition's decision; none of them reads the Q2Q
// measure, which the library samples only while On. So a never-On run's
// isQ2QFull false is a consequence of the state, never its cause, and there
// is no pacing case to tell apart here.
void explainNeverOn(const Scenario& scenario, const RunRecord& record, const RunSummary& summary,
                    RunDiagnosis* d) {
    if (summary.timeInState[1] > 0 || summary.compositions == 0) return;
    const StateChange last = record.states.empty() ? StateChange{} : record.states.back();
    std::string why;
    if (last.reason == static_cast<int32_t>(PeltoReason::ForceOff)) {
        why = "the compositor forced it off (forceOff); fix: check the scenario's force_off spans";
    } else {
        why = scenario.listMode ? neverOnInList(scenario, record, last.reason, *d)
                                : neverOnInApi(last.reason);
    }
    if (why.empty()) why = "the library's last decision was reason " + std::to_string(last.reason);
    char head[96];
    snprintf(head, sizeof(head), "last state %s, reason %d (%s): ", peltoStateName(last.to),
             last.reason, peltoReasonText(last.reason));
    d->neverOn = head + why + (last.cause.empty() ? "" : "; on screen: " + last.cause);
}

} // namespace

std::vector<DiagnosisLine> diagnosisLines(const RunDiagnosis& d) {
    std::vector<DiagnosisLine> lines;
    for (const std::string& line : d.ruleProblems) lines.push_back({"rule file", line});
    for (const std::string& line : d.layersWithoutBuffers) lines.push_back({"frames", line});
    for (const std::string& line : d.unmatchedTargets) lines.push_back({"unmatched target", line});
    if (!d.neverOn.empty()) lines.push_back({"never On", d.neverOn});
    return lines;
}

RunDiagnosis diagnose(const Scenario& scenario, const RunRecord& record,
                      const RunSummary& summary) {
    RunDiagnosis d;
    addRuleProblems(record, &d);
    const std::vector<LoadedFile> files = loadedFiles(record);
    addLint(files, &d);
    if (scenario.listMode) addUnmatchedTargets(scenario, record, files, &d);
    addLayersWithoutBuffers(scenario, record, &d);
    explainNeverOn(scenario, record, summary, &d);
    return d;
}

} // namespace android::tools::sim
