#include "tools/sim/CaptureScenario.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "tools/sim/ScenarioReader.h"
#include "tools/sim/Schedule.h"

namespace android::tools::sim {
namespace {

constexpr const char* kLayerUsage = "--layer NAME=WxH[,focus][,visible=FROM_MS-TO_MS]";

std::string formatMs(SimTime t) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f ms", static_cast<double>(t) / 1e6);
    return text;
}

// The length of the longest run of characters two names share.
size_t sharedRun(const std::string& a, const std::string& b) {
    size_t best = 0;
    std::vector<size_t> previous(b.size() + 1, 0);
    std::vector<size_t> current(b.size() + 1, 0);
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            current[j] = a[i - 1] == b[j - 1] ? previous[j - 1] + 1 : 0;
            best = std::max(best, current[j]);
        }
        std::swap(previous, current);
    }
    return best;
}

// The capture's layer names that share the longest runs with `name`, a few.
std::string closeNames(const Capture& capture, const std::string& name) {
    constexpr size_t kShown = 3;
    // Bounds on the comparison's cost for a capture of many layers: longer
    // names are cut, and the layers with the most buffers are looked at.
    constexpr size_t kLongestName = 128;
    constexpr size_t kLayersLooked = 4000;
    std::vector<std::pair<size_t, const std::string*>> ranked;
    for (const Capture::Layer& l : capture.layers) {
        ranked.emplace_back(sharedRun(name.substr(0, kLongestName), l.name.substr(0, kLongestName)),
                            &l.name);
        if (ranked.size() >= kLayersLooked) break;
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    std::string out;
    for (size_t i = 0; i < ranked.size() && i < kShown; ++i) {
        out += (out.empty() ? "" : ", ") + *ranked[i].second;
    }
    return out;
}

// The --layer entry for a layer: the first whose name is a part of its name.
const LayerGiven* givenFor(const CapturePlay& play, const std::string& layer) {
    for (const LayerGiven& g : play.layers) {
        if (layer.find(g.name) != std::string::npos) return &g;
    }
    return nullptr;
}

// Every --layer names a layer of the capture and fits the display and the capture's span.
bool checkGiven(const Capture& capture, const CapturePlay& play, std::string* error) {
    for (const LayerGiven& g : play.layers) {
        const bool found = std::any_of(
                capture.layers.begin(), capture.layers.end(),
                [&](const Capture::Layer& l) { return l.name.find(g.name) != std::string::npos; });
        std::string why;
        if (!found) {
            why = "no layer of that name; close: " + closeNames(capture, g.name);
        } else if (g.width > play.width || g.height > play.height) {
            why = "larger than the display " + std::to_string(play.width) + "x" +
                    std::to_string(play.height);
        } else if (g.visibleGiven && g.from >= capture.duration) {
            why = "on screen from " + formatMs(g.from) + ", after the capture's end at " +
                    formatMs(capture.duration);
        }
        if (why.empty()) continue;
        *error = capture.path + ": --layer " + g.option + ": " + why;
        return false;
    }
    return true;
}

// The panel's rate: the capture's, or --refresh-hz; false when it is not a panel's.
bool playRefresh(const Capture& capture, const CapturePlay& play, Scenario* scenario,
                 std::string* error) {
    Scenario& s = *scenario;
    const std::vector<RefreshChange> given{{0, play.refreshHz}};
    const std::vector<RefreshChange>& refresh = play.refreshHz > 0 ? given : capture.refresh;
    s.display.refreshHz = refresh.front().refreshHz;
    s.display.refreshChanges.assign(refresh.begin() + 1, refresh.end());
    CaptureFacts& facts = *s.capture;
    facts.refreshSource = play.refreshHz > 0 ? "--refresh-hz" : capture.vsyncSource;
    facts.refreshTrusted = capture.refreshTrusted || play.refreshHz > 0;
    facts.refreshGiven = play.refreshHz > 0;
    facts.vsyncSparse = capture.vsyncSparse;
    char text[256];
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
    // whose ticks share a timestamp would make a run that never ends.
    for (const RefreshChange& r : refresh) {
        if (r.refreshHz >= kMinRefreshHz && r.refreshHz <= kMaxRefreshHz) continue;
        snprintf(text, sizeof(text), "a refresh rate of %g Hz (median spacing %.3f ms)",
                 r.refreshHz, capture.medianPeriodMs);
        *error = (capture.zeroPeriodAt.empty() ? capture.path + ": " : capture.zeroPeriodAt) +
                text + " from " + capture.vsyncSource + ": not a panel's rate (1 to 1000 Hz)" +
                (capture.zeroPeriodAt.empty() ? ""
                                              : ": this vsync tick has the time of the one before");
        return false;
    }
    return true;
}

// The assumption line of a layer given with --layer.
std::string givenLine(const std::string& name, const LayerGiven& g) {
    std::string line = "given: layer " + name + ": " + std::to_string(g.width) + "x" +
            std::to_string(g.height) + (g.focus ? ", input focus" : ", no input focus") +
            " (--layer); on screen ";
    if (!g.visibleGiven)
        return line + "from its first buffer to one vsync after its last (assumed)";
    return line + "from " + formatMs(g.from) + " to " + formatMs(g.to) + " (--layer)";
}

// One layer script for each layer of the capture, with the geometry given
// for it or the one assumed.
void playLayers(const Capture& capture, const CapturePlay& play, Scenario* scenario) {
    Scenario& s = *scenario;
    CaptureFacts& facts = *s.capture;
    const SimTime period = vsyncPeriodOf(s.display.refreshHz);
    size_t assumed = 0;
    for (const Capture::Layer& c : capture.layers) {
        LayerScript layer;
        layer.name = c.name;
        const LayerGiven* g = givenFor(play, c.name);
        const float area = g != nullptr ? static_cast<float>(g->width) * g->height
                                        : static_cast<float>(s.display.screenArea());
        layer.areas.push_back({0, area});
        if (g != nullptr && g->visibleGiven) {
            layer.visible.push_back({g->from, std::min(g->to, s.duration)});
        } else {
            layer.visible.push_back(
                    {c.buffers.front(), std::min(c.buffers.back() + period, s.duration)});
        }
        if (g != nullptr && g->focus) layer.focused = layer.visible;
        FrameTimes& times = layer.frames.emplace().times.emplace();
        times.inlineTimes = c.buffers;
        times.count = static_cast<int64_t>(c.buffers.size());
        times.first = c.buffers.front();
        times.last = c.buffers.back();
        s.assumptions.push_back("read: layer " + c.name + ": " + std::to_string(c.buffers.size()) +
                                (c.buffers.size() == 1 ? " buffer from " : " buffers from ") +
                                c.source);
        if (g != nullptr) s.assumptions.push_back(givenLine(c.name, *g));
        assumed += g == nullptr ? 1 : 0;
        const double span = static_cast<double>(c.buffers.back() - c.buffers.front()) / 1e9;
        facts.layers.push_back({c.name, c.source, static_cast<int64_t>(c.buffers.size()),
                                span > 0 ? static_cast<double>(c.buffers.size() - 1) / span : 0,
                                g != nullptr});
        s.layers.push_back(std::move(layer));
    }
    std::string layers = assumed == capture.layers.size()
            ? "every layer covers"
            : "the " + std::to_string(assumed) + " layers without --layer cover";
    if (assumed == 1 && capture.layers.size() > 1) layers = "the layer without --layer covers";
    s.assumptions.push_back(
            std::string("assumed: display ") + std::to_string(play.width) + "x" +
            std::to_string(play.height) +
            (play.displayGiven ? " (--display)" : " (--display to change)") +
            (assumed == 0 ? ""
                          : "; " + layers +
                             " the whole screen, without input focus, each on screen from its "
                             "first buffer to one vsync after its last (" +
                             kLayerUsage + " to give)"));
    if (assumed > 0) {
        facts.assumedFor.push_back({"the geometry of " + std::to_string(assumed) + " of " +
                                            std::to_string(capture.layers.size()) +
                                            " layers (--layer to give)",
                                    {"panel refreshes saved", "time On"}});
    }
    if (play.refreshHz > 0 || !capture.refreshTrusted) {
        facts.assumedFor.push_back(
                {play.refreshHz > 0 ? "the panel's rate (--refresh-hz)"
                                    : "the panel's rate (a floor read from a signal that ticks "
                                      "only with work)",
                 {"panel refreshes saved", "time On", "content pace"}});
    }
}

// List mode with the rule file, or API mode with the target layer.
bool playMode(const Capture& capture, const CapturePlay& play, Scenario* scenario,
              std::string* error) {
    Scenario& s = *scenario;
    std::vector<std::string>& a = s.assumptions;
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
        *error = capture.path + ": --api-target " + play.apiTarget +
                ": no layer of that name; close: " + closeNames(capture, play.apiTarget);
        return false;
    }
    if (target == nullptr) target = &s.layers.front();
    s.capture->target = target->name;
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

} // namespace

bool parseLayerOption(const std::string& value, LayerGiven* given, std::string* error) {
    LayerGiven g;
    g.option = value;
    const size_t equals = value.rfind('=', value.find(','));
    const auto fail = [&](const std::string& why) {
        *error = "--layer " + value + ": " + why + " (" + kLayerUsage + ")";
        return false;
    };
    if (equals == std::string::npos || equals == 0) return fail("expected NAME=WxH");
    g.name = value.substr(0, equals);
    std::string rest = value.substr(equals + 1);
    unsigned w = 0;
    unsigned h = 0;
    int used = 0;
    if (sscanf(rest.c_str(), "%ux%u%n", &w, &h, &used) != 2 || w == 0 || h == 0 ||
        (rest[used] != '\0' && rest[used] != ',')) {
        return fail("expected a size WIDTHxHEIGHT in pixels after NAME=");
    }
    g.width = w;
    g.height = h;
    rest.erase(0, used);
    while (!rest.empty()) {
        rest.erase(0, 1); // the comma
        const std::string item = rest.substr(0, rest.find(','));
        rest.erase(0, item.size());
        double from = 0;
        double to = 0;
        int end = 0;
        if (item == "focus") {
            g.focus = true;
        } else if (sscanf(item.c_str(), "visible=%lf-%lf%n", &from, &to, &end) == 2 &&
                   item[end] == '\0' && from >= 0 && to > from && to < 1e12) {
            g.visibleGiven = true;
            g.from = std::llround(from * 1e6);
            g.to = std::llround(to * 1e6);
        } else {
            return fail("unknown \"" + item + "\": expected focus or visible=FROM_MS-TO_MS");
        }
    }
    *given = std::move(g);
    return true;
}

bool captureScenario(const Capture& capture, const CapturePlay& play, Scenario* scenario,
                     std::string* error) {
    Scenario& s = *scenario;
    s.path = capture.path;
    s.name = std::filesystem::path(capture.path).filename().string();
    s.duration = capture.duration;
    s.display.width = play.width;
    s.display.height = play.height;
    char text[256];
    snprintf(text, sizeof(text), "capture: %lld %s, %s; refresh from %s (median spacing %.3f ms)",
             static_cast<long long>(capture.lines), capture.unit.c_str(),
             formatMs(capture.duration).c_str(), capture.vsyncSource.c_str(),
             capture.medianPeriodMs);
    s.description = text;
    s.capture.emplace();
    if (!playRefresh(capture, play, scenario, error) || !checkGiven(capture, play, error)) {
        return false;
    }
    playLayers(capture, play, scenario);
    // A span of years would make a run that never ends.
    if (const double steps = runSteps(s); steps > kMaxRunSteps) {
        snprintf(text, sizeof(text),
                 "the capture spans %.3f s: the run would play %.3g compositions and buffers, "
                 "more than the 5e7 a run may play",
                 static_cast<double>(s.duration) / 1e9, steps);
        *error = capture.path + ": " + text;
        return false;
    }
    return playMode(capture, play, scenario, error);
}

} // namespace android::tools::sim
