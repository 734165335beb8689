#include "tools/sim/Simulation.h"

#include "controller/PeltoTypes.h"

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <android-base/properties.h>
#include <android/log.h>
#include <ui/Fence.h>

#include "config/PeltoRuleFileReader.h"
#include "tools/host/RegularFile.h"
#include "tools/sim/Schedule.h"
#include "tools/sim/SimClock.h"
#include "tools/sim/TraceRecorder.h"

namespace android::tools::sim {
namespace {

constexpr const char* kControllerTag = "PeltoController";
constexpr const char* kConfigTag = "PeltoConfig";
constexpr const char* kStatePrefix = "setPeltoState, ";
constexpr const char* kActiveTargetPrefix = "active target layer: ";
constexpr const char* kQ2QCounter = "Pelto2-Q2QFps";
constexpr const char* kDebugProperty = "vendor.debug.sf.show_pelto2_trace";

// "setPeltoState, Off -> Temp Off, 511"
bool parseStateLine(const std::string& message, StateChange* change) {
    if (message.rfind(kStatePrefix, 0) != 0) return false;
    const std::string rest = message.substr(strlen(kStatePrefix));
    const size_t arrow = rest.find(" -> ");
    const size_t comma = rest.rfind(", ");
    if (arrow == std::string::npos || comma == std::string::npos || comma < arrow) return false;
    change->from = stateFromName(rest.substr(0, arrow));
    change->to = stateFromName(rest.substr(arrow + 4, comma - arrow - 4));
    change->reason = static_cast<int32_t>(strtol(rest.c_str() + comma + 2, nullptr, 10));
    return true;
}

// jsoncpp's parse errors span lines; a summary line holds them on one.
std::string oneLine(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n') {
            while (!out.empty() && out.back() == ' ') out.pop_back();
            out += ' ';
        } else if (c != ' ' || (!out.empty() && out.back() != ' ')) {
            out += c;
        }
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

// The loader's lines that say it loaded nothing from the file.
bool isLoadFailure(const std::string& message) {
    return message.rfind("failed to open ", 0) == 0 ||
            message.rfind("loadConfig failed, ret ", 0) == 0;
}

} // namespace

Simulation::Simulation(const Scenario& scenario, PeltoLibrary& library, const RunOptions& options)
      : mScenario(scenario),
        mLib(library),
        mOptions(options),
        mHost(mLayers, [this](bool on) { onHwc(on); }) {
    mLayers.reserve(scenario.layers.size());
    for (const LayerScript& described : scenario.layers) {
        mLayers.push_back({&described, sp<IBinder>(new BBinder()), false, {}});
    }
}

SimTime Simulation::now() const {
    return virtualTime() - kVirtualBootOffset;
}

bool Simulation::isVisible(const Layer& layer) const {
    return mHost.isVisible(layer);
}

Simulation::Layer* Simulation::layerNamed(const std::string& name) {
    for (Layer& layer : mLayers) {
        if (layer.scenario->name == name) return &layer;
    }
    return nullptr;
}

void Simulation::note(TimelineEntry::Kind kind, std::string text) {
    if (mRecord->timeline.size() >= kMaxKeptEntries) {
        ++mRecord->timelineDropped;
        return;
    }
    mRecord->timeline.push_back({now(), kind, std::move(text)});
}

// The layer sections of the library's dump name each registered layer under
// its class: "TargetLayer:", "TargetIgnoreLayer:", "ExceptionLayer:", "Nobody:".
void Simulation::readClassification() {
    if (!mScenario.listMode) return;
    std::string dump;
    mLib.dump(mController, dump);
    std::map<std::string, std::string> kinds;
    std::string section;
    size_t start = 0;
    while (start < dump.size()) {
        size_t end = dump.find('\n', start);
        if (end == std::string::npos) end = dump.size();
        const std::string line = dump.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == ':' && line[0] != '\t' &&
            line.find(' ') == std::string::npos) {
            section = line.substr(0, line.size() - 1);
        } else if (line.size() > 1 && line[0] == '\t' && line[1] != '\t' && !section.empty()) {
            kinds[line.substr(1)] = section;
        }
    }
    for (Layer& layer : mLayers) {
        const auto it = kinds.find(layer.scenario->name);
        layer.kind = it == kinds.end() ? "" : it->second;
    }
    recordRoles();
}

// Each layer's class as a change in time, for the page's layer lanes.
void Simulation::recordRoles() {
    mRecord->layerRoles.resize(mLayers.size());
    for (size_t i = 0; i < mLayers.size(); ++i) {
        auto& roles = mRecord->layerRoles[i];
        const std::string& kind = mLayers[i].kind;
        if (kind.empty() || (!roles.empty() && roles.back().text == kind)) continue;
        // In list mode, a layer registered since the last read took its class then.
        const SimTime at = mScenario.listMode && mLayers[i].registeredAt > mLastClassified
                ? mLayers[i].registeredAt
                : now();
        if (!roles.empty() && roles.back().at == at) {
            roles.back().text = kind;
        } else {
            roles.push_back({at, kind});
        }
    }
    mLastClassified = now();
}

// The layers on screen that explain a state the library just chose.
std::string Simulation::causeOf(int32_t reason) const {
    const uint32_t screen = mScenario.display.screenArea();
    const auto describe = [&](const Layer& layer, const char* kind) {
        char text[64];
        snprintf(text, sizeof(text), " (%s, %.1f%% of the screen%s)", kind,
                 screen == 0 ? 0.0 : 100.0 * layer.scenario->areaAt(now()) / screen,
                 inAnyWindow(layer.scenario->focused, now()) ? ", focused" : "");
        return layer.scenario->name + text;
    };
    std::string out;
    const auto add = [&](const std::string& text) { out += (out.empty() ? "" : "; ") + text; };
    // The layers of a class on screen; those that changed since the state was
    // last On first, the others after them as "also on screen".
    const auto onScreen = [&](const char* kind, const char* label) {
        std::string still;
        for (const Layer& l : mLayers) {
            if (!isVisible(l) || !l.scenario->hasBuffer || l.kind != kind) continue;
            const bool unchanged = l.shownWhileOn && l.areaWhileOn == l.scenario->areaAt(now()) &&
                    l.focusedWhileOn == inAnyWindow(l.scenario->focused, now());
            if (unchanged) {
                still += (still.empty() ? "" : "; ") + describe(l, label);
            } else {
                add(describe(l, label));
            }
        }
        if (out.empty()) {
            out = still;
        } else if (!still.empty()) {
            out += "; also on screen before: " + still;
        }
    };
    switch (static_cast<PeltoReason>(reason)) {
        case PeltoReason::ExceptionRule:
            onScreen("ExceptionLayer", "exception layer");
            break;
        case PeltoReason::OtherLayerNoGeneralRule:
        case PeltoReason::GeneralRule:
            onScreen("Nobody", "not in the rule file");
            break;
        case PeltoReason::NoTargetVisible:
            for (const Layer& l : mLayers) {
                if (l.registered && l.kind == "TargetLayer" && !isVisible(l)) {
                    add(l.scenario->name + " (target, not on screen)");
                }
            }
            if (out.empty()) out = "no layer the rule file targets is on screen";
            break;
        case PeltoReason::ApiTargetNotVisible:
            out = "the target layer is not on screen";
            break;
        case PeltoReason::ForceOff:
            out = "forceOff from the compositor";
            break;
        default:
            break;
    }
    return out;
}

// Panel refreshes: one per composition on the fixed cadence. While the HWC
// is in Pelto mode the panel refreshes only for a new frame of a layer on
// screen, or when the floor period has passed since the last refresh.
void Simulation::countRefresh(SimTime at) {
    const int32_t s = mState >= 0 && mState <= 2 ? mState : 0;
    ++mRecord->refreshes.fixed[s];
    const SimTime floorPeriod = static_cast<SimTime>(1e9 / mOptions.refreshFloorHz);
    if (!mHwcOn || mNewFrame || mLastPanelRefresh < 0 || at - mLastPanelRefresh >= floorPeriod) {
        ++mRecord->refreshes.paced[s];
        mLastPanelRefresh = at;
    }
    mNewFrame = false;
}

std::string Simulation::ruleLabel(const RuleSource& rules) const {
    return rules.isInline() ? "the scenario's inline rules" : rules.path;
}

// Points the library's loader at the rule file. The library is reached only
// through its exported entry points, which take no path, so this is the host
// build's PELTO_CONFIG_PATH, which the library reads at every load: set again
// before a reload, it names that reload's file. Inline rules are written to
// an anonymous in-memory file, reached through /proc/self/fd.
bool Simulation::useRules(const RuleSource& rules, std::string* error) {
    std::string path = rules.path;
    if (rules.isInline()) {
        base::unique_fd fd(memfd_create("pelto-rules", MFD_CLOEXEC));
        if (fd.get() < 0 ||
            write(fd.get(), rules.text.data(), rules.text.size()) !=
                    static_cast<ssize_t>(rules.text.size())) {
            *error = "cannot hold the inline rules in memory: " + std::string(strerror(errno));
            return false;
        }
        path = "/proc/self/fd/" + std::to_string(fd.get());
        mRuleFiles.push_back(std::move(fd));
    }
    setenv("PELTO_CONFIG_PATH", path.c_str(), 1);
    return true;
}

void Simulation::composite(SimTime at) {
    TraceRecorder& trace = TraceRecorder::instance();
    trace.counter("VSYNC-sf", mRecord->compositions % 2);
    trace.begin("composite");
    mLib.commit(mController);
    mLib.composite(mController, inAnyWindow(mScenario.forceOff, at), /*compositeFlag=*/false,
                   mScenario.display.screenArea());
    ++mRecord->compositions;
    const bool full = mLib.isQ2QFull(mController);
    if (full) {
        ++mRecord->q2qFullCompositions;
    }
    if (full != mQ2QFull) {
        mQ2QFull = full;
        if (mRecord->q2qFull.size() < kMaxKeptChanges) {
            mRecord->q2qFull.push_back({at, full});
        } else if (mRecord->q2qFullLostFrom < 0) {
            mRecord->q2qFullLostFrom = at;
        }
    }
    trace.end();
    countRefresh(at);
    if (mState == 1) {
        for (Layer& l : mLayers) {
            l.shownWhileOn = isVisible(l);
            l.areaWhileOn = l.scenario->areaAt(at);
            l.focusedWhileOn = inAnyWindow(l.scenario->focused, at);
        }
    }
    mLastComposition = at;
}

void Simulation::queueBuffer(Layer& layer) {
    TraceRecorder& trace = TraceRecorder::instance();
    ++mRecord->buffersByLayer[static_cast<size_t>(&layer - mLayers.data())];
    if (isVisible(layer)) mNewFrame = true;
    trace.begin("queueBuffer " + layer.scenario->name);
    // The transaction carries the time of the composition before it.
    mLib.setTransactionState(mController, {{layer.handle, true, false, Fence::NO_FENCE}},
                             kVirtualBootOffset + mLastComposition);
    if (layer.scenario->pendingBufferHint) {
        mLib.setHasPendingBuffer(mController, &layer);
    }
    trace.end();
}

void Simulation::applyEvent(const Event& event) {
    Layer* layer = event.layer.empty() ? nullptr : layerNamed(event.layer);
    const char* flag = event.flag ? "true" : "false";
    switch (event.kind) {
        case Event::Kind::SetHasOtherUI:
            note(TimelineEntry::Kind::Compositor, std::string("setHasOtherUI(") + flag + ")");
            mLib.setHasOtherUI(mController, event.flag);
            break;
        case Event::Kind::SetHasPendingBuffer:
            note(TimelineEntry::Kind::Compositor, "setHasPendingBuffer(" + event.layer + ")");
            mLib.setHasPendingBuffer(mController, layer);
            break;
        case Event::Kind::SetSFInProgress:
            note(TimelineEntry::Kind::Compositor, std::string("setSFInProgress(") + flag + ")");
            mLib.setSFInProgress(mController, event.flag);
            break;
        case Event::Kind::SetPreviousPresentFence:
            note(TimelineEntry::Kind::Compositor, "setPreviousPresentFence(signalled fence)");
            mLib.setPreviousPresentFence(mController, sp<Fence>(new Fence()));
            break;
        case Event::Kind::SetTargetLayer:
            note(TimelineEntry::Kind::Compositor,
                 "setTargetLayer(" + (layer ? event.layer : std::string("null")) + ")");
            mLib.setTargetLayer(mController, layer);
            if (!mScenario.listMode) {
                for (Layer& l : mLayers) l.kind = &l == layer ? "TargetLayer" : "Nobody";
                recordRoles();
            }
            break;
        case Event::Kind::SetPeltoEnable:
            note(TimelineEntry::Kind::Compositor, std::string("setPeltoEnable(") + flag + ")");
            mLib.setPeltoEnable(mController, event.flag);
            break;
        case Event::Kind::ReloadRules: {
            std::string error;
            if (!useRules(event.rules, &error)) {
                note(TimelineEntry::Kind::Compositor, "rule reload skipped: " + error);
                break;
            }
            note(TimelineEntry::Kind::Compositor,
                 "reloadConfigThenDump(" + ruleLabel(event.rules) + ")");
            std::string out;
            beginRuleLoad();
            mLib.reloadConfigThenDump(mController, out);
            mRecord->ruleLoads.push_back(endRuleLoad(event.rules));
            mRecord->ruleLoads.back().atCreation = false;
            const std::string result = out.substr(0, out.find('\n'));
            mRecord->reloads.push_back({now(), result});
            note(TimelineEntry::Kind::Library, result);
            readClassification();
            break;
        }
    }
}

void Simulation::runStep(const Step& step) {
    switch (step.kind) {
        case Step::Kind::Register: {
            Layer& layer = mLayers[step.index];
            layer.registered = true;
            note(TimelineEntry::Kind::Compositor,
                 "registerLayer(" + layer.scenario->name + ")" +
                         (isVisible(layer) ? ", on screen" : ", not on screen yet"));
            mLib.registerLayer(mController, &layer, layer.scenario->name);
            layer.registeredAt = now();
            mClassificationStale = true;
            break;
        }
        case Step::Kind::Destroy: {
            Layer& layer = mLayers[step.index];
            layer.registered = false;
            note(TimelineEntry::Kind::Compositor, "destroyLayer(" + layer.scenario->name + ")");
            mLib.destroyLayer(mController, &layer);
            break;
        }
        case Step::Kind::RefreshChange: {
            const RefreshChange& change = mScenario.display.refreshChanges[step.index];
            mHost.setVsyncPeriod(vsyncPeriodOf(change.refreshHz));
            mRecord->vsyncPeriods.push_back({now(), mHost.vsyncPeriod()});
            char text[96];
            snprintf(text, sizeof(text),
                     "display now %g Hz (period %" PRId64 " ns); onActiveModeUpdated()",
                     change.refreshHz, mHost.vsyncPeriod());
            note(TimelineEntry::Kind::Compositor, text);
            mLib.onActiveModeUpdated(mController);
            break;
        }
        case Step::Kind::Note:
            note(TimelineEntry::Kind::Screen, step.note);
            break;
        case Step::Kind::Event:
            applyEvent(mScenario.events[step.index]);
            break;
        case Step::Kind::Vsync:
            composite(step.at);
            break;
        case Step::Kind::Buffer:
            queueBuffer(mLayers[step.index]);
            break;
    }
}

void Simulation::onLogLine(const LogLine& line) {
    if (gettid() != mMainTid) {
        // The library's own threads; joined before the record is read.
        mRecord->backgroundLog.push_back(line);
        return;
    }
    if (mCollectingLoaderLines && line.tag == kConfigTag && line.priority >= ANDROID_LOG_WARN) {
        mLoaderLines.push_back(line.message);
    }
    StateChange change;
    if (line.tag == kControllerTag && parseStateLine(line.message, &change)) {
        change.at = now();
        change.cause = causeOf(change.reason);
        mState = change.to;
        char text[128];
        snprintf(text, sizeof(text), "%s -> %s  (%d: %s)", peltoStateName(change.from),
                 peltoStateName(change.to), change.reason, peltoReasonText(change.reason));
        note(TimelineEntry::Kind::State,
             text +
                     (change.cause.empty() ? ""
                                           : "\n" + std::string(25, ' ') + "why: " + change.cause));
        mRecord->states.push_back(std::move(change));
        return;
    }
    if (line.tag == kControllerTag && line.message.rfind(kActiveTargetPrefix, 0) == 0) {
        const std::string name = line.message.substr(strlen(kActiveTargetPrefix));
        mRecord->activeTargets.push_back({now(), name});
        note(TimelineEntry::Kind::ActiveTarget, name);
        return;
    }
    const std::string text =
            std::string(1, priorityLetter(line.priority)) + " " + line.tag + ": " + line.message;
    if (mOptions.verbose) {
        note(TimelineEntry::Kind::Library, text);
    } else if (line.priority >= ANDROID_LOG_WARN && mLibraryWarnings[text]++ == 0) {
        // Each distinct warning once; the summary counts the repeats.
        note(TimelineEntry::Kind::Library, text);
    }
}

void Simulation::onCounter(const std::string& name, int64_t value) {
    if (name != kQ2QCounter || gettid() != mMainTid) return;
    ++mRecord->q2qSamples;
    if (value > 0) ++mRecord->q2qMeasuredSamples;
    // Only changes are kept: a long run of a steady rate holds one entry.
    if (value > 0) {
        const bool first = mRecord->q2qMeasuredSamples == 1;
        mRecord->q2qMin = first ? value : std::min(mRecord->q2qMin, value);
        mRecord->q2qMax = first ? value : std::max(mRecord->q2qMax, value);
    }
    if (mRecord->q2qSamples == 1 || mRecord->q2qLast != value) {
        mRecord->q2qLast = value;
        if (mRecord->q2qFps.size() < kMaxKeptChanges) {
            mRecord->q2qFps.push_back({now(), value});
        } else if (mRecord->q2qFpsLostFrom < 0) {
            mRecord->q2qFpsLostFrom = now();
        }
    }
    // The timeline shows a start, a restart (0) and moves of more than 1 fps;
    // the record and the trace keep every sample.
    const bool restart = (value == 0) != (mLastQ2QFpsShown == 0);
    if (restart || std::abs(value - mLastQ2QFpsShown) > 1) {
        mLastQ2QFpsShown = value;
        note(TimelineEntry::Kind::Q2QFps, std::to_string(value));
    }
}

void Simulation::onHwc(bool on) {
    mHwcOn = on;
    mRecord->hwc.push_back({now(), on});
    TraceRecorder::instance().counter("HwcPeltoMode", on ? 1 : 0);
    note(TimelineEntry::Kind::Hwc, on ? "on" : "off");
}

void Simulation::beginRuleLoad() {
    mLoaderLines.clear();
    mCollectingLoaderLines = true;
}

// What the loader said while it loaded `rules`, and the text it loaded.
RuleLoad Simulation::endRuleLoad(const RuleSource& rules) {
    mCollectingLoaderLines = false;
    RuleLoad load;
    load.at = now();
    load.file = ruleLabel(rules);
    for (const std::string& message : mLoaderLines) {
        if (isLoadFailure(message)) load.failed = true;
        load.problems.push_back(oneLine(message));
    }
    mLoaderLines.clear();
    std::string ignored;
    if (rules.isInline()) {
        load.text = rules.text;
    } else if (!readRegularFile(rules.path, kMaxRuleFileBytes, &load.text, &ignored)) {
        load.text.clear();
    }
    return load;
}

bool Simulation::startRun(RunRecord* record, std::string* error) {
    mRecord = record;
    mMainTid = gettid();
    mRecord->mainTid = mMainTid;
    mRecord->refreshFloorHz = mOptions.refreshFloorHz;
    mRecord->buffersByLayer.assign(mLayers.size(), 0);
    TraceRecorder::instance().restart(mOptions.keepTrace, mOptions.traceSpool);
    setVirtualTime(kVirtualBootOffset);
    mHost.setVsyncPeriod(vsyncPeriodOf(mScenario.display.refreshHz));
    mRecord->vsyncPeriods.push_back({0, mHost.vsyncPeriod()});

    if (mScenario.listMode && !useRules(mScenario.rules, error)) {
        return false;
    }
    if (mOptions.debugLines) {
        // Read once by the library, at its first gated line.
        base::SetProperty(kDebugProperty, "true");
    }
    TraceRecorder::instance().setCounterListener(
            [this](const std::string& name, int64_t value) { onCounter(name, value); });
    return true;
}

// Creates the controller. In list mode, a first rule file from which the
// loader loaded nothing ends the run: every figure after it would be one
// of a controller without rules.
bool Simulation::createController(std::string* error) {
    if (mScenario.listMode) {
        note(TimelineEntry::Kind::Compositor,
             "createPeltoController(list mode, rules: " + ruleLabel(mScenario.rules) + ")");
    } else {
        note(TimelineEntry::Kind::Compositor, "createPeltoController(API mode)");
    }
    beginRuleLoad();
    mController = mHost.createController(mLib, mScenario.listMode);
    RuleLoad load = endRuleLoad(mScenario.rules);
    if (!mScenario.listMode) return true;
    if (load.failed) {
        std::string why;
        for (const std::string& line : load.problems) {
            if (!isLoadFailure(line) || load.problems.size() == 1) {
                why += (why.empty() ? "" : "; ") + line;
            }
        }
        *error = "rule file " + load.file + " does not load (the library says: " + why +
                "): the run would play a controller without rules";
        mLib.destroyPeltoController(mController);
        mController = nullptr;
        return false;
    }
    mRecord->ruleLoads.push_back(std::move(load));
    return true;
}

void Simulation::playSchedule(Schedule& schedule) {
    Step step;
    while (schedule.next(&step)) {
        // Registrations share one read of the classification, taken before
        // the next step that may read it: a read dumps every layer, so one a
        // layer would make a run of many layers quadratic. Only a composition
        // (a state change's cause), an event, a rate change or a destroy
        // reads it; a new layer's class counts from its registration.
        const bool reads = step.kind != Step::Kind::Register && step.kind != Step::Kind::Buffer &&
                step.kind != Step::Kind::Note;
        if (mClassificationStale && reads) {
            mClassificationStale = false;
            readClassification();
        }
        setVirtualTime(kVirtualBootOffset + step.at);
        runStep(step);
    }
    if (mClassificationStale) {
        mClassificationStale = false;
        readClassification();
    }
}

void Simulation::finishRun(const Schedule& schedule) {
    mRecord->buffersPlayed = schedule.buffersPlayed();
    mRecord->framesSkipped = schedule.framesSkipped();
    setVirtualTime(kVirtualBootOffset + mScenario.duration);
    mLib.dump(mController, mRecord->finalDump);
    mLib.destroyPeltoController(mController);
    mController = nullptr;
    TraceRecorder::instance().setCounterListener(nullptr);

    const SimHost::Requests requests = mHost.requests();
    mRecord->vsyncCallbacks = requests.vsyncCallbacks;
    mRecord->vsyncCallbackCount = requests.vsyncCallbackCount;
    if (requests.invalidateCalls > 0) {
        note(TimelineEntry::Kind::Library,
             "triggerEventQueueInvalidate was called " + std::to_string(requests.invalidateCalls) +
                     " times");
    }
    int repeats = 0;
    for (const auto& [text, count] : mLibraryWarnings) repeats += count - 1;
    if (repeats > 0) {
        note(TimelineEntry::Kind::Library,
             std::to_string(repeats) + " repeats of the warnings above not shown");
    }
    mRecord->trace = TraceRecorder::instance().events();
}

bool Simulation::run(RunRecord* record, std::string* error) {
    if (!startRun(record, error)) return false;
    LogSink sink([this](const LogLine& line) { onLogLine(line); });
    if (!createController(error)) {
        TraceRecorder::instance().setCounterListener(nullptr);
        return false;
    }
    Schedule schedule(mScenario);
    playSchedule(schedule);
    finishRun(schedule);
    if (!schedule.error().empty()) {
        *error = schedule.error();
        return false;
    }
    return true;
}

} // namespace android::tools::sim
