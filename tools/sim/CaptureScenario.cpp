#include "tools/sim/CaptureScenario.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "tools/sim/ScenarioReader.h"
#include "tools/sim/Schedule.h"

namespace android::tools::sim {
namespace {

std::string formatMs(SimTime t) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f ms", static_cast<double>(t) / 1e6);
    return text;
}

} // namespace

bool captureScenario(const Capture& capture, const CapturePlay& play, Scenario* scenario,
                     std::string* error) {
    Scenario& s = *scenario;
    s.path = capture.path;
    s.name = std::filesystem::path(capture.path).filename().string();
    s.duration = capture.duration;
    s.display.width = play.width;
    s.display.height = play.height;
    // --refresh-hz: the panel's rate throughout, whatever the capture shows.
    const std::vector<RefreshChange> given{{0, play.refreshHz}};
    const std::vector<RefreshChange>& refresh = play.refreshHz > 0 ? given : capture.refresh;
    s.display.refreshHz = refresh.front().refreshHz;
    s.display.refreshChanges.assign(refresh.begin() + 1, refresh.end());
    char text[256];
    snprintf(text, sizeof(text), "capture: %lld %s, %s; refresh from %s (median spacing %.3f ms)",
             static_cast<long long>(capture.lines), capture.unit.c_str(),
             formatMs(capture.duration).c_str(), capture.vsyncSource.c_str(),
             capture.medianPeriodMs);
    s.description = text;
    CaptureFacts& facts = s.capture.emplace();
    facts.refreshSource = play.refreshHz > 0 ? "--refresh-hz" : capture.vsyncSource;
    facts.refreshTrusted = capture.refreshTrusted || play.refreshHz > 0;
    facts.refreshGiven = play.refreshHz > 0;
    facts.vsyncSparse = capture.vsyncSparse;
    std::vector<std::string>& a = s.assumptions;
    for (const RefreshChange& r : capture.refresh) {
        snprintf(text, sizeof(text), "read: %g Hz from %s", r.refreshHz, formatMs(r.at).c_str());
        a.push_back(text);
    }
    if (!capture.refreshWarning.empty()) {
        facts.warnings.push_back(capture.refreshWarning);
        a.push_back("warning: " + capture.refreshWarning);
    }
    if (play.refreshHz > 0) {
        snprintf(text, sizeof(text), "assumed: the panel at %g Hz throughout (--refresh-hz)",
                 play.refreshHz);
        a.push_back(text);
    }
    for (const std::string& note : capture.notes) a.push_back("read: " + note);
    // A capture is held to the bounds of a scenario file: a vsync signal
    // whose ticks share a timestamp, or a span of years, would make a run
    // that never ends.
    for (const RefreshChange& r : refresh) {
        if (r.refreshHz >= kMinRefreshHz && r.refreshHz <= kMaxRefreshHz) continue;
        snprintf(text, sizeof(text), "a refresh rate of %g Hz (median spacing %.3f ms)",
                 r.refreshHz, capture.medianPeriodMs);
        *error = capture.path + ": " + text + " from " + capture.vsyncSource +
                ": not a panel's rate (1 to 1000 Hz)";
        return false;
    }
    const SimTime period = vsyncPeriodOf(s.display.refreshHz);
    for (const Capture::Layer& c : capture.layers) {
        LayerScript layer;
        layer.name = c.name;
        layer.areas.push_back({0, static_cast<float>(s.display.screenArea())});
        layer.visible.push_back(
                {c.buffers.front(), std::min(c.buffers.back() + period, s.duration)});
        FrameTimes& times = layer.frames.emplace().times.emplace();
        times.inlineTimes = c.buffers;
        times.count = static_cast<int64_t>(c.buffers.size());
        times.first = c.buffers.front();
        times.last = c.buffers.back();
        a.push_back("read: layer " + c.name + ": " + std::to_string(c.buffers.size()) +
                    " buffers from " + c.source);
        const double span = static_cast<double>(c.buffers.back() - c.buffers.front()) / 1e9;
        facts.layers.push_back({c.name, c.source, static_cast<int64_t>(c.buffers.size()),
                                span > 0 ? static_cast<double>(c.buffers.size() - 1) / span : 0});
        s.layers.push_back(std::move(layer));
    }
    if (const double steps = runSteps(s); steps > kMaxRunSteps) {
        snprintf(text, sizeof(text),
                 "the capture spans %.3f s: the run would play %.3g compositions and buffers, "
                 "more than the 5e7 a run may play",
                 static_cast<double>(s.duration) / 1e9, steps);
        *error = capture.path + ": " + text;
        return false;
    }
    a.push_back(std::string("assumed: display ") + std::to_string(play.width) + "x" +
                std::to_string(play.height) +
                (play.displayGiven ? " (--display)" : " (--display to change)") +
                "; every layer covers the whole screen, none has input focus, each is on "
                "screen from its first buffer to one vsync after its last");
    if (!play.rules.empty()) {
        s.listMode = true;
        s.rules.path = play.rules;
        a.push_back("rules: " + play.rules);
        return true;
    }
    s.listMode = false;
    const LayerScript* target = nullptr;
    for (const LayerScript& l : s.layers) {
        if (!play.apiTarget.empty() && l.name.find(play.apiTarget) != std::string::npos) {
            target = &l;
            break;
        }
    }
    if (!play.apiTarget.empty() && target == nullptr) {
        *error = capture.path + ": --api-target " + play.apiTarget + ": no layer of that name";
        return false;
    }
    if (target == nullptr) target = &s.layers.front();
    facts.target = target->name;
    a.push_back("API mode, target " + target->name +
                (play.apiTarget.empty() ? " (the layer with the most buffers; --rules or "
                                          "--api-target to choose)"
                                        : " (--api-target)"));
    for (const auto& [kind, flag] : {std::pair{Event::Kind::SetTargetLayer, false},
                                     std::pair{Event::Kind::SetPeltoEnable, true}}) {
        Event e;
        e.kind = kind;
        e.flag = flag;
        if (kind == Event::Kind::SetTargetLayer) e.layer = target->name;
        e.key = "events[" + std::to_string(s.events.size()) + "]";
        s.events.push_back(std::move(e));
    }
    return true;
}

} // namespace android::tools::sim
