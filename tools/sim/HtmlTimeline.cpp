#include "tools/sim/HtmlTimeline.h"
#include "controller/PeltoTypes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "tools/sim/Expectations.h"

namespace android::tools::sim {
namespace {

constexpr size_t kMaxLabel = 44;

double ms(SimTime t) {
    return static_cast<double>(t) / 1e6;
}

// Cuts at a character boundary of UTF-8 text.
size_t charStart(const std::string& text, size_t at) {
    while (at > 0 && at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) {
        --at;
    }
    return at;
}

// "pkg.name/pkg.name.Activity": by level, "Activity", "name/Activity", all.
std::string shortActivity(const std::string& inner, int level) {
    if (level >= 2) return inner;
    const size_t slash = inner.find('/');
    const std::string package = slash == std::string::npos ? "" : inner.substr(0, slash);
    const std::string activity = slash == std::string::npos ? inner : inner.substr(slash + 1);
    const size_t dot = activity.rfind('.');
    std::string out = dot == std::string::npos || dot + 1 == activity.size()
            ? activity
            : activity.substr(dot + 1);
    if (level == 1 && !package.empty()) out = package.substr(package.rfind('.') + 1) + "/" + out;
    return out;
}

std::string percentText(double area, uint32_t screen) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f%%", screen == 0 ? 0.0 : 100.0 * area / screen);
    return text;
}

struct Role {
    const char* colour;
    const char* meaning;
};

Role roleOf(const std::string& kind) {
    if (kind == "TargetLayer") return {"target", "a target of the rule file"};
    if (kind == "TargetIgnoreLayer") return {"ignored", "ignored beside the target"};
    if (kind == "ExceptionLayer") return {"exception", "has an exception rule"};
    return {"other", "not in the rule file"};
}

Json::Value span(SimTime from, SimTime to, const char* colour, const std::string& tip) {
    Json::Value s(Json::arrayValue);
    s.append(ms(from));
    s.append(ms(to));
    s.append(colour);
    s.append(tip);
    return s;
}

// Spans where a flag, given by its changes, is on.
Json::Value flagSpans(const std::vector<TimedFlag>& changes, SimTime end, const char* colour,
                      const std::string& what) {
    Json::Value spans(Json::arrayValue);
    SimTime since = 0;
    bool on = false;
    for (const TimedFlag& change : changes) {
        if (on && !change.on) {
            spans.append(span(
                    since, change.at, colour,
                    what + " from " + formatSeconds(since) + " to " + formatSeconds(change.at)));
        }
        if (!on && change.on) since = change.at;
        on = change.on;
    }
    if (on) spans.append(span(since, end, colour, what + " from " + formatSeconds(since)));
    return spans;
}

Json::Value lane(const std::string& label, const std::string& title, int height) {
    Json::Value l;
    l["label"] = label;
    l["title"] = title;
    l["height"] = height;
    return l;
}

Json::Value stateLane(const Scenario& scenario, const RunRecord& record) {
    Json::Value l = lane("state", "the library's mode state (setPeltoState), with its reason", 24);
    Json::Value spans(Json::arrayValue);
    StateChange current{0, 0, 0, -1, {}};
    const auto add = [&](SimTime until) {
        if (until <= current.at) return;
        const char* name = peltoStateName(current.to);
        Json::Value s =
                span(current.at, until, name,
                     std::string(name) + " from " + formatSeconds(current.at) + " to " +
                             formatSeconds(until) + ", reason " + std::to_string(current.reason) +
                             ": " + peltoReasonText(current.reason) +
                             (current.cause.empty() ? "" : "; why: " + current.cause));
        s.append(std::string(name) + " " + std::to_string(current.reason));
        s.append(std::to_string(current.reason));
        s.append(std::string(name) + " " + std::to_string(current.reason) + ": " +
                 peltoReasonText(current.reason));
        spans.append(std::move(s));
    };
    for (const StateChange& change : record.states) {
        add(change.at);
        current = change;
    }
    add(scenario.duration);
    l["spans"] = mergeShortSpans(spans, ms(scenario.duration), kMaxShapesPerLane);
    l["reasons"] = true;
    return l;
}

Json::Value q2qLane(const Scenario& scenario, const RunRecord& record) {
    Json::Value l =
            lane("Q2Q fps", "Pelto2-Q2QFps as traced; dashed: the display's refresh rate", 90);
    double maxValue = 0;
    Json::Value refresh(Json::arrayValue);
    for (const TimedValue& p : record.vsyncPeriods) {
        const double hz = 1e9 / static_cast<double>(p.value);
        maxValue = std::max(maxValue, hz);
        Json::Value point(Json::arrayValue);
        point.append(ms(p.at));
        point.append(std::round(hz * 100) / 100);
        refresh.append(point);
    }
    // Changes only; beyond the limit, per stretch of the run its highest,
    // its lowest and its last value, so the envelope stays visible.
    Json::Value steps(Json::arrayValue);
    const auto point = [&](SimTime at, int64_t value) {
        Json::Value p(Json::arrayValue);
        p.append(ms(at));
        p.append(Json::Int64(value));
        steps.append(p);
    };
    const auto& fps = record.q2qFps;
    for (const TimedValue& v : fps) maxValue = std::max(maxValue, static_cast<double>(v.value));
    if (fps.size() <= 2 * kMaxShapesPerLane) {
        for (const TimedValue& v : fps) point(v.at, v.value);
    } else {
        const SimTime width = std::max<SimTime>(1, scenario.duration / kMaxShapesPerLane);
        for (size_t i = 0; i < fps.size();) {
            const SimTime bucket = fps[i].at / width;
            size_t j = i;
            int64_t lo = fps[i].value;
            int64_t hi = fps[i].value;
            for (; j < fps.size() && fps[j].at / width == bucket; ++j) {
                lo = std::min(lo, fps[j].value);
                hi = std::max(hi, fps[j].value);
            }
            point(fps[i].at, hi);
            if (j - i > 1) {
                point((fps[i].at + fps[j - 1].at) / 2, lo);
                point(fps[j - 1].at, fps[j - 1].value);
            }
            i = j;
        }
        l["merged"] = Json::UInt64(fps.size());
    }
    if (record.q2qFpsLostFrom >= 0) {
        l["title"] = l["title"].asString() + "; the run kept the first changes only, up to " +
                formatSeconds(record.q2qFpsLostFrom);
    }
    l["steps"] = steps;
    l["refresh"] = refresh;
    l["scaleMax"] = std::max(10.0, std::ceil(maxValue / 10) * 10);
    return l;
}

// Times to ticks, one per stretch of duration / kMaxShapesPerLane at most.
Json::Value ticks(const std::vector<SimTime>& times, SimTime duration) {
    Json::Value out(Json::arrayValue);
    const SimTime width = std::max<SimTime>(1, duration / kMaxShapesPerLane);
    SimTime lastBucket = -1;
    for (SimTime t : times) {
        if (times.size() > kMaxShapesPerLane && t / width == lastBucket) continue;
        lastBucket = t / width;
        out.append(ms(t));
    }
    return out;
}

Json::Value eventsLane(const Scenario& scenario, const RunRecord& record) {
    Json::Value l = lane("compositor events",
                         "forceOff (red), refresh changes, hints, reloads; the layer lanes show "
                         "when layers come and go",
                         24);
    Json::Value spans(Json::arrayValue);
    for (const Window& w : scenario.forceOff) {
        spans.append(span(w.from, w.to, "forceOff",
                          "forceOff from " + formatSeconds(w.from) + " to " + formatSeconds(w.to)));
    }
    l["spans"] = mergeShortSpans(spans, ms(scenario.duration), kMaxShapesPerLane);
    // The compositor's calls after the start, several in one stretch as one.
    Json::Value marks(Json::arrayValue);
    const SimTime width = std::max<SimTime>(1, scenario.duration / kMaxShapesPerLane);
    int folded = 0;
    SimTime lastBucket = -1;
    for (const TimelineEntry& e : record.timeline) {
        if (e.kind != TimelineEntry::Kind::Compositor || e.at == 0) continue;
        const std::string text = formatSeconds(e.at) + ": " + e.text;
        if (e.at / width == lastBucket) {
            Json::Value& last = marks[marks.size() - 1][1];
            if (++folded <= 8) last = last.asString() + "\n" + text;
            continue;
        }
        lastBucket = e.at / width;
        folded = 0;
        Json::Value m(Json::arrayValue);
        m.append(ms(e.at));
        m.append(text);
        marks.append(m);
    }
    l["marks"] = marks;
    return l;
}

// The layers whose names differ only after the last '#' (instances of one
// window), in the order the first of them comes in the scenario.
struct WindowGroup {
    std::string base;
    std::vector<size_t> layers;
};

std::vector<WindowGroup> windowGroups(const Scenario& scenario) {
    std::vector<WindowGroup> groups;
    std::map<std::string, size_t> index;
    for (size_t i = 0; i < scenario.layers.size(); ++i) {
        const std::string& name = scenario.layers[i].name;
        const size_t hash = name.rfind('#');
        const std::string base =
                hash == std::string::npos || hash == 0 ? name : name.substr(0, hash);
        const auto [at, added] = index.emplace(base, groups.size());
        if (added) groups.push_back({base, {}});
        groups[at->second].layers.push_back(i);
    }
    return groups;
}

// One label per group: labels that would look alike keep more of the name,
// any still alike are numbered, and a group of several layers says how many.
std::vector<std::string> laneLabels(const std::vector<WindowGroup>& groups) {
    std::vector<int> level(groups.size(), 0);
    std::vector<std::string> labels(groups.size());
    for (int round = 0; round < 3; ++round) {
        std::map<std::string, int> seen;
        for (size_t b = 0; b < groups.size(); ++b) {
            labels[b] = laneName(groups[b].base, level[b]);
            ++seen[labels[b]];
        }
        for (size_t b = 0; b < groups.size(); ++b) {
            if (seen[labels[b]] > 1 && level[b] < 2) ++level[b];
        }
    }
    std::map<std::string, int> used;
    for (size_t b = 0; b < groups.size(); ++b) {
        std::string& label = labels[b];
        if (const int n = used[label]++; n > 0) label += " (" + std::to_string(n + 1) + ")";
        if (groups[b].layers.size() > 1)
            label += " \u00d7" + std::to_string(groups[b].layers.size());
    }
    return labels;
}

// The layer's time on screen, split at the reloads that changed its class.
void addScreenSpans(const LayerScript& layer, const std::vector<TimedText>& roles, uint32_t screen,
                    Json::Value* spans) {
    for (const Window& w : layer.visible) {
        SimTime from = w.from;
        while (from < w.to) {
            std::string kind;
            SimTime until = w.to;
            for (const TimedText& r : roles) {
                if (r.at <= from) kind = r.text;
                if (r.at > from && r.at < until) until = r.at;
            }
            const Role role = roleOf(kind);
            spans->append(span(from, until, role.colour,
                               layer.name + " (" + role.colour + ": " + role.meaning +
                                       "): on screen from " + formatSeconds(from) + " to " +
                                       formatSeconds(until) + ", " +
                                       percentText(layer.areaAt(from), screen) + " of the screen"));
            from = until;
        }
    }
}

// Puts a list of [at_ms, ...] in time order; items at one time keep their order.
void sortByTime(Json::Value* list) {
    std::vector<Json::Value> items(list->begin(), list->end());
    std::stable_sort(items.begin(), items.end(), [](const Json::Value& a, const Json::Value& b) {
        return a[0].asDouble() < b[0].asDouble();
    });
    *list = Json::Value(Json::arrayValue);
    for (Json::Value& item : items) list->append(std::move(item));
}

// The lane of one group: time on screen by class, frame pauses, focus and
// size changes of each of its layers.
Json::Value windowLane(const Scenario& scenario, const RunRecord& record, const WindowGroup& group,
                       const std::string& label) {
    const uint32_t screen = scenario.display.screenArea();
    std::string title;
    for (size_t i : group.layers) title += (title.empty() ? "" : "\n") + scenario.layers[i].name;
    Json::Value l = lane(label, title, 24);
    l["layer"] = true;

    Json::Value spans(Json::arrayValue);
    Json::Value pauses(Json::arrayValue);
    Json::Value focus(Json::arrayValue);
    Json::Value texts(Json::arrayValue);
    const std::vector<TimedText> none;
    for (size_t i : group.layers) {
        const LayerScript& layer = scenario.layers[i];
        addScreenSpans(layer, i < record.layerRoles.size() ? record.layerRoles[i] : none, screen,
                       &spans);
        for (const Window& w : layer.frames ? layer.frames->pauses : std::vector<Window>()) {
            pauses.append(span(w.from, w.to, "paused",
                               layer.name + ": no frames from " + formatSeconds(w.from) + " to " +
                                       formatSeconds(w.to)));
        }
        for (const Window& w : layer.focused) {
            focus.append(span(w.from, w.to, "focus",
                              layer.name + ": focused from " + formatSeconds(w.from) + " to " +
                                      formatSeconds(w.to)));
        }
        for (const AreaChange& a : layer.areas) {
            Json::Value t(Json::arrayValue);
            t.append(ms(a.at));
            t.append(percentText(a.area, screen));
            texts.append(t);
        }
    }
    for (Json::Value* list : {&spans, &pauses, &focus, &texts}) sortByTime(list);
    const double duration = ms(scenario.duration);
    l["spans"] = mergeShortSpans(spans, duration, kMaxShapesPerLane);
    l["overlays"] = mergeShortSpans(pauses, duration, kMaxShapesPerLane);
    l["bars"] = mergeShortSpans(focus, duration, kMaxShapesPerLane);
    if (texts.size() > kMaxShapesPerLane) texts.resize(kMaxShapesPerLane);
    l["texts"] = texts;
    return l;
}

// One lane per window (WindowGroup), in the scenario's order.
void addLayerLanes(const Scenario& scenario, const RunRecord& record, Json::Value* lanes) {
    const std::vector<WindowGroup> groups = windowGroups(scenario);
    const std::vector<std::string> labels = laneLabels(groups);
    for (size_t b = 0; b < groups.size(); ++b) {
        lanes->append(windowLane(scenario, record, groups[b], labels[b]));
    }
}

} // namespace

std::string laneName(const std::string& name, int level) {
    std::string out = name;
    const size_t open = name.find('[');
    const size_t close = open == std::string::npos ? open : name.find(']', open);
    if (close != std::string::npos) {
        out = name.substr(0, open + 1) +
                shortActivity(name.substr(open + 1, close - open - 1), level) + name.substr(close);
    } else if (name.find('/') != std::string::npos && name.find(' ') == std::string::npos) {
        out = shortActivity(name, level); // a capture's "package/activity"
    }
    if (out.size() > kMaxLabel) {
        // The start says what kind of layer it is, the end which one.
        out = out.substr(0, charStart(out, 14)) + "\u2026" +
                out.substr(charStart(out, out.size() - 29));
    }
    return out;
}

Json::Value mergeShortSpans(const Json::Value& spans, double durationMs, size_t maxSpans) {
    if (spans.size() <= maxSpans) return spans;
    const double width = durationMs / static_cast<double>(maxSpans);
    Json::Value out(Json::arrayValue);
    std::vector<const Json::Value*> pending;
    double from = 0;
    double to = 0;
    const auto flush = [&] {
        if (pending.size() == 1) out.append(*pending[0]);
        if (pending.size() > 1) {
            std::map<std::string, double> time;
            for (const Json::Value* s : pending) {
                time[(*s)[2].asString()] += (*s)[1].asDouble() - (*s)[0].asDouble();
            }
            std::string colour;
            std::string shares;
            for (const auto& [name, t] : time) {
                if (colour.empty() || t > time[colour]) colour = name;
                char text[64];
                snprintf(text, sizeof(text), "%s %.3f s", name.c_str(), t / 1000);
                shares += (shares.empty() ? "" : ", ") + std::string(text);
            }
            char text[160];
            snprintf(text, sizeof(text),
                     "%zu spans from %.3f s to %.3f s, merged on this page: ", pending.size(),
                     from / 1000, to / 1000);
            Json::Value merged(Json::arrayValue);
            merged.append(from);
            merged.append(to);
            merged.append(colour);
            merged.append(text + shares + " (the text timeline and --trace have each one)");
            merged.append(Json::Value()); // no label
            merged.append("merged");
            out.append(std::move(merged));
        }
        pending.clear();
    };
    for (const Json::Value& s : spans) {
        const double a = s[0].asDouble();
        const double b = s[1].asDouble();
        if (b - a >= width) {
            flush();
            out.append(s);
            continue;
        }
        if (pending.empty()) from = a, to = b;
        pending.push_back(&s);
        to = std::max(to, b);
        if (to - from >= width) flush();
    }
    flush();
    return out;
}

Json::Value timelineData(const Scenario& scenario, const RunRecord& record) {
    Json::Value data;
    data["durationMs"] = ms(scenario.duration);
    Json::Value& lanes = data["lanes"];
    lanes.append(stateLane(scenario, record));
    Json::Value hwc = lane("HWC Pelto mode",
                           "filled: the HWC is in Pelto mode (setHwcPeltoOn); empty: it is not "
                           "(setHwcPeltoOff, or no call yet)",
                           24);
    hwc["spans"] =
            mergeShortSpans(flagSpans(record.hwc, scenario.duration, "hwc", "HWC Pelto mode on"),
                            ms(scenario.duration), kMaxShapesPerLane);
    lanes.append(hwc);
    lanes.append(q2qLane(scenario, record));
    Json::Value full = lane("isQ2QFull",
                            "filled: isQ2QFull() answered true after the "
                            "composition",
                            24);
    full["spans"] =
            mergeShortSpans(flagSpans(record.q2qFull, scenario.duration, "full", "isQ2QFull true"),
                            ms(scenario.duration), kMaxShapesPerLane);
    lanes.append(full);
    Json::Value vsync = lane("vsync requests", "vsync callbacks the library requested", 24);
    vsync["ticks"] = ticks(record.vsyncCallbacks, scenario.duration);
    vsync["tickTip"] = "vsync callbacks requested: " + std::to_string(record.vsyncCallbackCount) +
            " over the run";
    lanes.append(vsync);
    lanes.append(eventsLane(scenario, record));
    addLayerLanes(scenario, record, &lanes);
    return data;
}

} // namespace android::tools::sim
