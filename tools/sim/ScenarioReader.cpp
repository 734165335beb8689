#include "tools/sim/ScenarioReader.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>

#include <json/json.h>

#include "config/JsonNesting.h"
#include "tools/sim/FrameTimesReader.h"
#include "tools/sim/InputFile.h"
#include "tools/sim/JsonFields.h"
#include "tools/sim/RunRecord.h"

namespace android::tools::sim {
namespace {

// What the simulator accepts. No panel refreshes faster than 1000 Hz, and a
// layer queues no faster than a panel shows; the slowest rates keep a frame
// period far inside 64-bit nanoseconds.
constexpr double kMaxRateHz = kMaxRefreshHz;
constexpr double kMinFps = 0.01;
constexpr int64_t kMaxDisplaySide = 16384;
constexpr int64_t kMaxBufferCount = 64; // a buffer queue's slots
constexpr double kMaxAbsMillis = 1e9;   // measured times and offset_ms, either sign
constexpr double kMaxSteps = kMaxRunSteps;

std::string dirName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::string baseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

class ScenarioParser {
public:
    ScenarioParser(const std::string& path, Scenario* scenario)
          : mDir(dirName(path)), mScenario(*scenario) {
        mScenario.path = path;
    }

    bool parse(const Json::Value& root, std::string* error);

private:
    RuleSource readRules(const Json::Value& value, const std::string& path);
    void readDisplay(const Json::Value& value);
    float readArea(JsonFields& fields);
    void readLayer(const Json::Value& value, const std::string& path);
    void readFrames(const Json::Value& value, const std::string& path, FrameScript* frames);
    void readFrameTimes(JsonFields& fields, const Json::Value* times, const Json::Value* file,
                        FrameScript* frames);
    void readEvent(const Json::Value& value, const std::string& path);
    void readExpectation(const Json::Value& value, const std::string& path);
    // An expectation's at_ms, from_ms and to_ms, each null when not given.
    struct Times {
        const Json::Value* at;
        const Json::Value* from;
        const Json::Value* to;
    };
    int readRunFigures(JsonFields& fields, Expectation* expectation);
    int readMoments(JsonFields& fields, bool span, Expectation* expectation);
    void checkExpectationShape(const Expectation& e, JsonFields& fields, const std::string& path,
                               int kinds, const Times& times);
    void checkReferences();
    void checkWork();
    // A time in the run: before its end, or (endIncluded) at most its end.
    SimTime readTimeInRun(const Json::Value& value, const std::string& path, bool endIncluded);
    void requireLayer(const std::string& name, const std::string& path);

    const std::string mDir;
    Scenario& mScenario;
    JsonErrors mErrors;
};

SimTime ScenarioParser::readTimeInRun(const Json::Value& value, const std::string& path,
                                      bool endIncluded) {
    const SimTime t = readTimeMs(value, path, mErrors);
    const SimTime end = mScenario.duration;
    if (endIncluded ? t > end : t >= end) {
        mErrors.fail(path,
                     std::string(endIncluded ? "after" : "at or after") +
                             " the end of the run (duration_ms " + millisText(end) + ")");
    }
    return t;
}

RuleSource ScenarioParser::readRules(const Json::Value& value, const std::string& path) {
    RuleSource rules;
    if (value.isString()) {
        const std::string file = value.asString();
        rules.path = !file.empty() && file[0] == '/'
                ? file
                : (std::filesystem::path(mDir) / file).lexically_normal().string();
        std::string why;
        if (!checkRuleFile(rules.path, &why)) mErrors.fail(path, "rule file " + why);
    } else if (value.isObject()) {
        rules.text = value.toStyledString();
    } else {
        mErrors.fail(path, "expected a rule file path or an inline rule object");
    }
    return rules;
}

void ScenarioParser::readDisplay(const Json::Value& value) {
    JsonFields fields(value, "display", mErrors);
    PanelScript& display = mScenario.display;
    for (const auto& [key, side] :
         {std::pair{"width", &display.width}, std::pair{"height", &display.height}}) {
        if (const auto* v = fields.required(key)) {
            const int64_t pixels = readCount(*v, fields.path(key), mErrors);
            if (pixels < 1 || pixels > kMaxDisplaySide) {
                mErrors.fail(fields.path(key), "expected 1 to 16384 pixels");
            }
            *side = static_cast<uint32_t>(std::clamp<int64_t>(pixels, 1, kMaxDisplaySide));
        }
    }
    const auto readRate = [&](const Json::Value& v, const std::string& path) {
        return readInRange(v, path, kMinRefreshHz, kMaxRateHz,
                           "1 to 1000 Hz (no panel refreshes faster)", mErrors);
    };
    if (const auto* v = fields.required("refresh_hz")) {
        display.refreshHz = readRate(*v, fields.path("refresh_hz"));
    }
    if (const auto* changes = fields.optional("refresh_changes")) {
        const std::string path = fields.path("refresh_changes");
        if (!changes->isArray()) mErrors.fail(path, "expected a list");
        for (Json::ArrayIndex i = 0; changes->isArray() && i < changes->size(); ++i) {
            JsonFields change((*changes)[i], indexPath(path, i), mErrors);
            RefreshChange c;
            if (const auto* v = change.required("at_ms")) {
                c.at = readTimeInRun(*v, change.path("at_ms"), false);
            }
            if (const auto* v = change.required("refresh_hz")) {
                c.refreshHz = readRate(*v, change.path("refresh_hz"));
            }
            if (!display.refreshChanges.empty() && c.at <= display.refreshChanges.back().at) {
                mErrors.fail(change.path("at_ms"), "refresh changes must be in time order");
            }
            change.finish();
            display.refreshChanges.push_back(c);
        }
    }
    fields.finish();
}

// One of: "width" and "height", "area" (square pixels), "screen_percent".
float ScenarioParser::readArea(JsonFields& fields) {
    const auto* width = fields.optional("width");
    const auto* height = fields.optional("height");
    const auto* area = fields.optional("area");
    const auto* percent = fields.optional("screen_percent");
    const int given =
            (width != nullptr || height != nullptr) + (area != nullptr) + (percent != nullptr);
    if (given != 1 || (width != nullptr) != (height != nullptr)) {
        mErrors.fail(fields.path("width"),
                     "give the size as width and height, as area, or as screen_percent");
        return 0;
    }
    // What the compositor reports is the layer's visible area: never more
    // than the screen.
    const double screen = mScenario.display.screenArea();
    if (area != nullptr) {
        return static_cast<float>(readInRange(*area, fields.path("area"), 0, screen,
                                              "0 up to the screen's area (width * height)",
                                              mErrors));
    }
    if (percent != nullptr) {
        const double p =
                readInRange(*percent, fields.path("screen_percent"), 0, 100, "0 to 100", mErrors);
        return static_cast<float>(p / 100.0 * screen);
    }
    const double w = readInRange(*width, fields.path("width"), 0, kMaxDisplaySide,
                                 "0 to 16384 pixels", mErrors);
    const double h = readInRange(*height, fields.path("height"), 0, kMaxDisplaySide,
                                 "0 to 16384 pixels", mErrors);
    if (w * h > screen) {
        mErrors.fail(fields.path("width"), "width * height is larger than the screen");
    }
    return static_cast<float>(std::min(w * h, screen));
}

void ScenarioParser::readFrames(const Json::Value& value, const std::string& path,
                                FrameScript* frames) {
    JsonFields fields(value, path, mErrors);
    const auto* fps = fields.optional("fps");
    const auto* times = fields.optional("times_ms");
    const auto* file = fields.optional("file");
    if ((fps != nullptr) + (times != nullptr) + (file != nullptr) != 1) {
        mErrors.fail(fields.path("fps"), "give one of fps, times_ms or file");
    } else if (fps != nullptr) {
        frames->fps = readInRange(*fps, fields.path("fps"), kMinFps, kMaxRateHz,
                                  "0.01 to 1000 frames a second (no panel shows more)", mErrors);
    } else {
        readFrameTimes(fields, times, file, frames);
    }
    if (const auto* v = fields.optional("phase_ms")) {
        frames->phase = readTimeMs(*v, fields.path("phase_ms"), mErrors);
    }
    if (const auto* v = fields.optional("jitter_ms")) {
        frames->jitter = readTimeMs(*v, fields.path("jitter_ms"), mErrors);
    }
    if (const auto* v = fields.optional("pauses")) {
        frames->pauses = readWindows(*v, fields.path("pauses"), mScenario.duration, mErrors);
    }
    if (frames->times && (frames->phase != 0 || frames->jitter != 0)) {
        mErrors.fail(fields.path("phase_ms"), "phase_ms and jitter_ms go only with fps");
    }
    fields.finish();
}

// "times_ms": [...], or "file" with "column", "unit"; both with "offset_ms".
void ScenarioParser::readFrameTimes(JsonFields& fields, const Json::Value* times,
                                    const Json::Value* file, FrameScript* frames) {
    FrameTimes& source = frames->times.emplace();
    if (const auto* v = fields.optional("offset_ms")) {
        const double ms = readInRange(*v, fields.path("offset_ms"), -kMaxAbsMillis, kMaxAbsMillis,
                                      "-1e9 to 1e9", mErrors);
        source.offset = std::llround(ms * 1e6);
    }
    const auto* column = fields.optional("column");
    const auto* unit = fields.optional("unit");
    if (times != nullptr) {
        if (column != nullptr || unit != nullptr) {
            mErrors.fail(fields.path("column"), "column and unit go only with file");
        }
        if (!times->isArray()) mErrors.fail(fields.path("times_ms"), "expected a list");
        for (Json::ArrayIndex i = 0; times->isArray() && i < times->size(); ++i) {
            const double ms = readInRange((*times)[i], indexPath(fields.path("times_ms"), i),
                                          -kMaxAbsMillis, kMaxAbsMillis, "-1e9 to 1e9", mErrors);
            source.inlineTimes.push_back(std::llround(ms * 1e6) + source.offset);
        }
    } else {
        const std::string name = readString(*file, fields.path("file"), mErrors);
        source.file = !name.empty() && name[0] == '/'
                ? name
                : (std::filesystem::path(mDir) / name).lexically_normal().string();
        if (column != nullptr && column->isString()) {
            source.column = column->asString();
        } else if (column != nullptr) {
            source.columnIndex =
                    static_cast<size_t>(readCount(*column, fields.path("column"), mErrors));
        }
        if (unit != nullptr) {
            const std::string u = readString(*unit, fields.path("unit"), mErrors);
            static const std::pair<const char*, double> kUnits[] = {
                    {"s", 1e9}, {"ms", 1e6}, {"us", 1e3}, {"ns", 1}};
            bool known = false;
            for (const auto& [n, scale] : kUnits) {
                if (u == n) source.nanosPerUnit = scale, known = true;
            }
            if (!known) mErrors.fail(fields.path("unit"), "expected s, ms, us or ns");
        }
    }
    std::string error;
    if (!mErrors.failed() && !scanFrameTimes(&source, &error)) {
        // The reader names the element (times_ms[3]) or the file and its line.
        const std::string key = fields.path(times != nullptr ? "times_ms" : "file");
        mErrors.fail(times != nullptr ? key.substr(0, key.rfind('.')) : key, error);
    }
}

void ScenarioParser::readLayer(const Json::Value& value, const std::string& path) {
    JsonFields fields(value, path, mErrors);
    LayerScript layer;
    if (const auto* v = fields.required("name")) {
        layer.name = readString(*v, fields.path("name"), mErrors);
    }
    if (const auto* v = fields.optional("registered_ms")) {
        layer.registeredAt = readTimeInRun(*v, fields.path("registered_ms"), false);
    }
    if (const auto* v = fields.optional("destroyed_ms")) {
        layer.destroyedAt = readTimeInRun(*v, fields.path("destroyed_ms"), true);
        if (*layer.destroyedAt <= layer.registeredAt) {
            mErrors.fail(fields.path("destroyed_ms"), "must be later than registered_ms");
        }
    }
    // A layer is on screen only while it is registered.
    const Window alive{layer.registeredAt, layer.destroyedAt.value_or(mScenario.duration)};
    std::vector<Window> visible{alive};
    if (const auto* v = fields.optional("visible")) {
        visible = readWindows(*v, fields.path("visible"), mScenario.duration, mErrors);
    }
    for (const Window& w : visible) {
        const Window clipped{std::max(w.from, alive.from), std::min(w.to, alive.to)};
        if (clipped.from < clipped.to) layer.visible.push_back(clipped);
    }
    layer.areas.push_back({layer.registeredAt, readArea(fields)});
    if (const auto* resizes = fields.optional("resize")) {
        const std::string at = fields.path("resize");
        if (!resizes->isArray()) mErrors.fail(at, "expected a list");
        for (Json::ArrayIndex i = 0; resizes->isArray() && i < resizes->size(); ++i) {
            JsonFields resize((*resizes)[i], indexPath(at, i), mErrors);
            AreaChange change;
            if (const auto* t = resize.required("at_ms")) {
                change.at = readTimeInRun(*t, resize.path("at_ms"), false);
            }
            change.area = readArea(resize);
            if (change.at <= layer.areas.back().at) {
                mErrors.fail(resize.path("at_ms"),
                             "resizes must be in time order, after "
                             "registered_ms");
            }
            resize.finish();
            layer.areas.push_back(change);
        }
    }
    if (const auto* v = fields.optional("focused")) {
        if (v->isBool()) {
            if (v->asBool()) layer.focused = {alive};
        } else {
            layer.focused = readWindows(*v, fields.path("focused"), mScenario.duration, mErrors);
        }
    }
    if (const auto* v = fields.optional("has_buffer")) {
        layer.hasBuffer = readBool(*v, fields.path("has_buffer"), mErrors);
    }
    if (const auto* v = fields.optional("buffer_count")) {
        const int64_t count = readCount(*v, fields.path("buffer_count"), mErrors);
        if (count > kMaxBufferCount) {
            mErrors.fail(fields.path("buffer_count"), "expected 0 to 64 (a buffer queue's slots)");
        }
        layer.bufferCount = static_cast<int>(std::min(count, kMaxBufferCount));
    }
    if (const auto* v = fields.optional("pending_buffer_hint")) {
        layer.pendingBufferHint = readBool(*v, fields.path("pending_buffer_hint"), mErrors);
    }
    if (const auto* v = fields.optional("frames")) {
        layer.frames.emplace();
        readFrames(*v, fields.path("frames"), &*layer.frames);
    }
    fields.finish();
    mScenario.layers.push_back(std::move(layer));
}

void ScenarioParser::readEvent(const Json::Value& value, const std::string& path) {
    JsonFields fields(value, path, mErrors);
    Event event;
    event.key = path;
    if (const auto* v = fields.required("at_ms")) {
        event.at = readTimeInRun(*v, fields.path("at_ms"), false);
    }
    struct Action {
        const char* key;
        Event::Kind kind;
    };
    static constexpr Action kActions[] = {
            {"set_has_other_ui", Event::Kind::SetHasOtherUI},
            {"set_has_pending_buffer", Event::Kind::SetHasPendingBuffer},
            {"set_sf_in_progress", Event::Kind::SetSFInProgress},
            {"set_previous_present_fence", Event::Kind::SetPreviousPresentFence},
            {"set_target_layer", Event::Kind::SetTargetLayer},
            {"set_pelto_enable", Event::Kind::SetPeltoEnable},
            {"reload_rules", Event::Kind::ReloadRules},
    };
    int actions = 0;
    for (const Action& action : kActions) {
        // set_target_layer may hold null, so presence is tested on the key.
        const bool present = value.isObject() && value.isMember(action.key);
        const Json::Value* v = fields.optional(action.key);
        if (!present) continue;
        ++actions;
        event.kind = action.kind;
        const std::string at = fields.path(action.key);
        switch (action.kind) {
            case Event::Kind::SetHasPendingBuffer:
                event.layer = readString(value[action.key], at, mErrors);
                break;
            case Event::Kind::SetTargetLayer:
                event.layer = v == nullptr ? "" : readString(*v, at, mErrors);
                break;
            case Event::Kind::ReloadRules:
                event.rules = readRules(value[action.key], at);
                break;
            default:
                event.flag = readBool(value[action.key], at, mErrors);
                break;
        }
    }
    if (actions != 1) {
        mErrors.fail(path, "give exactly one action, such as set_has_other_ui or reload_rules");
    }
    fields.finish();
    mScenario.events.push_back(std::move(event));
}

// The counts and shares over the whole run; returns how many were given.
int ScenarioParser::readRunFigures(JsonFields& fields, Expectation* expectation) {
    Expectation& e = *expectation;
    using Kind = Expectation::Kind;
    struct Count {
        const char* key;
        Kind kind;
    };
    static constexpr Count kCounts[] = {
            {"hwc_toggles_at_most", Kind::HwcTogglesAtMost},
            {"hwc_toggles_at_least", Kind::HwcTogglesAtLeast},
            {"vsync_callbacks_at_least", Kind::VsyncCallbacksAtLeast},
            {"vsync_callbacks_at_most", Kind::VsyncCallbacksAtMost},
    };
    int kinds = 0;
    for (const Count& count : kCounts) {
        if (const auto* v = fields.optional(count.key)) {
            ++kinds;
            e.kind = count.kind;
            e.count = readCount(*v, fields.path(count.key), mErrors);
        }
    }
    for (const auto& [key, kind] :
         {std::pair{"q2q_full_share_at_least", Kind::Q2QFullShareAtLeast},
          std::pair{"q2q_full_share_at_most", Kind::Q2QFullShareAtMost}}) {
        if (const auto* v = fields.optional(key)) {
            ++kinds;
            e.kind = kind;
            e.share = readNumber(*v, fields.path(key), mErrors);
            if (e.share < 0 || e.share > 1) mErrors.fail(fields.path(key), "expected 0 to 1");
        }
    }
    return kinds;
}

// The expectations at a moment (or, for state, over a span); returns how
// many were given.
int ScenarioParser::readMoments(JsonFields& fields, bool span, Expectation* expectation) {
    using Kind = Expectation::Kind;
    Expectation& e = *expectation;
    int kinds = 0;
    if (const auto* v = fields.optional("state")) {
        ++kinds;
        e.kind = span ? Kind::StateThroughout : Kind::StateAt;
        e.state = stateFromName(readString(*v, fields.path("state"), mErrors));
        if (e.state < 0)
            mErrors.fail(fields.path("state"),
                         "expected \"Off\", \"On\" or "
                         "\"Temp Off\"");
    }
    if (const auto* r = fields.optional("reason")) {
        e.reason = static_cast<int32_t>(readInRange(*r, fields.path("reason"), -1, 9999,
                                                    "a reason code such as 551", mErrors));
    }
    if (const auto* v = fields.optional("hwc")) {
        ++kinds;
        e.kind = Kind::HwcAt;
        const std::string hwc = readString(*v, fields.path("hwc"), mErrors);
        if (hwc != "on" && hwc != "off") mErrors.fail(fields.path("hwc"), "expected on or off");
        e.flag = hwc == "on";
    }
    if (const auto* v = fields.optional("q2q_full")) {
        ++kinds;
        e.kind = Kind::Q2QFullAt;
        e.flag = readBool(*v, fields.path("q2q_full"), mErrors);
    }
    if (const auto* v = fields.optional("active_target")) {
        ++kinds;
        e.kind = Kind::ActiveTargetAt;
        e.layer = readString(*v, fields.path("active_target"), mErrors);
    }
    if (const auto* v = fields.optional("q2q_fps")) {
        ++kinds;
        e.kind = Kind::Q2QFpsAt;
        if (!v->isArray() || v->size() != 2) {
            mErrors.fail(fields.path("q2q_fps"), "expected [min, max]");
        } else {
            e.min = readCount((*v)[0], fields.path("q2q_fps") + "[0]", mErrors);
            e.max = readCount((*v)[1], fields.path("q2q_fps") + "[1]", mErrors);
        }
    }
    return kinds;
}

// One kind of expectation, with the times that kind takes.
void ScenarioParser::checkExpectationShape(const Expectation& e, JsonFields& fields,
                                           const std::string& path, int kinds, const Times& times) {
    using Kind = Expectation::Kind;
    const auto* at = times.at;
    const auto* from = times.from;
    const auto* to = times.to;
    const bool pointInTime = at != nullptr;
    if (kinds != 1) {
        mErrors.fail(path,
                     "give exactly one of state, hwc, active_target, q2q_fps, q2q_full, "
                     "hwc_toggles_at_most/at_least, vsync_callbacks_at_least/at_most, "
                     "q2q_full_share_at_least/at_most");
    } else if (e.kind == Kind::StateThroughout) {
        if (at != nullptr) mErrors.fail(path, "give at_ms or from_ms and to_ms, not both");
        if (e.window.to <= e.window.from)
            mErrors.fail(fields.path("to_ms"),
                         "must be later "
                         "than from_ms");
    } else if (e.kind == Kind::StateAt || e.kind == Kind::HwcAt || e.kind == Kind::ActiveTargetAt ||
               e.kind == Kind::Q2QFpsAt || e.kind == Kind::Q2QFullAt) {
        if (!pointInTime) mErrors.fail(fields.path("at_ms"), "missing");
        if (from != nullptr || to != nullptr)
            mErrors.fail(path,
                         "from_ms and to_ms go only "
                         "with state");
    } else if (at != nullptr || from != nullptr || to != nullptr) {
        mErrors.fail(path, "a count covers the whole run: no at_ms, from_ms or to_ms");
    }
    if (e.reason && e.kind != Kind::StateAt) {
        mErrors.fail(fields.path("reason"), "goes only with state at at_ms");
    }
}

void ScenarioParser::readExpectation(const Json::Value& value, const std::string& path) {
    JsonFields fields(value, path, mErrors);
    Expectation e;
    e.key = path;
    if (const auto* v = fields.optional("why")) {
        e.why = readString(*v, fields.path("why"), mErrors);
    }
    int kinds = readRunFigures(fields, &e);
    const Times times{fields.optional("at_ms"), fields.optional("from_ms"),
                      fields.optional("to_ms")};
    // "At the end" is the state the run ends in.
    if (times.at != nullptr) e.at = readTimeInRun(*times.at, fields.path("at_ms"), true);
    if (times.from != nullptr) {
        e.window.from = readTimeInRun(*times.from, fields.path("from_ms"), false);
    }
    if (times.to != nullptr) e.window.to = readTimeInRun(*times.to, fields.path("to_ms"), true);
    kinds += readMoments(fields, times.from != nullptr && times.to != nullptr, &e);
    checkExpectationShape(e, fields, path, kinds, times);
    fields.finish();
    mScenario.expectations.push_back(std::move(e));
}

void ScenarioParser::requireLayer(const std::string& name, const std::string& path) {
    if (!name.empty() && mScenario.findLayer(name) == nullptr) {
        mErrors.fail(path, "no layer named \"" + name + "\" in layers");
    }
}

void ScenarioParser::checkReferences() {
    std::set<std::string> names;
    for (size_t i = 0; i < mScenario.layers.size(); ++i) {
        if (!names.insert(mScenario.layers[i].name).second) {
            mErrors.fail("layers[" + std::to_string(i) + "].name",
                         "another layer has the name \"" + mScenario.layers[i].name + "\"");
        }
    }
    for (const Event& event : mScenario.events) {
        requireLayer(event.layer, event.key);
        if (event.kind == Event::Kind::ReloadRules && !mScenario.listMode) {
            mErrors.fail(event.key, "reload_rules needs \"mode\": \"list\"");
        }
    }
    for (const Expectation& e : mScenario.expectations) {
        // The library names its active target with the layer's full name.
        requireLayer(e.layer, e.key + ".active_target");
    }
}

// A run that would take hours is refused before it starts.
void ScenarioParser::checkWork() {
    const double steps = runSteps(mScenario);
    if (steps > kMaxSteps) {
        char text[200];
        snprintf(text, sizeof(text),
                 "the run would play %.3g compositions and buffers, more than the 5e7 a run "
                 "may play; shorten duration_ms or lower the rates",
                 steps);
        mErrors.fail("duration_ms", text);
    }
}

bool ScenarioParser::parse(const Json::Value& root, std::string* error) {
    JsonFields fields(root, "", mErrors);
    mScenario.name = baseName(mScenario.path);
    if (const auto* v = fields.optional("name")) {
        mScenario.name = readString(*v, "name", mErrors);
    }
    if (const auto* v = fields.optional("description")) {
        mScenario.description = readString(*v, "description", mErrors);
    }
    if (const auto* v = fields.required("duration_ms")) {
        mScenario.duration = readTimeMs(*v, "duration_ms", mErrors);
        if (mScenario.duration == 0) mErrors.fail("duration_ms", "expected more than 0");
    }
    if (const auto* v = fields.optional("seed")) {
        mScenario.seed = static_cast<uint64_t>(readCount(*v, "seed", mErrors));
    }
    if (const auto* v = fields.required("display")) readDisplay(*v);
    if (const auto* v = fields.required("mode")) {
        const std::string mode = readString(*v, "mode", mErrors);
        if (mode != "list" && mode != "api") mErrors.fail("mode", "expected \"list\" or \"api\"");
        mScenario.listMode = mode == "list";
    }
    const auto* rules = fields.optional("rules");
    if (mScenario.listMode && rules == nullptr) {
        mErrors.fail("rules", "missing: list mode needs a rule file");
    } else if (!mScenario.listMode && rules != nullptr) {
        mErrors.fail("rules", "API mode reads no rule file");
    } else if (rules != nullptr) {
        mScenario.rules = readRules(*rules, "rules");
    }
    if (const auto* layers = fields.required("layers")) {
        if (!layers->isArray()) mErrors.fail("layers", "expected a list");
        for (Json::ArrayIndex i = 0; layers->isArray() && i < layers->size(); ++i) {
            readLayer((*layers)[i], indexPath("layers", i));
        }
    }
    if (const auto* events = fields.optional("events")) {
        if (!events->isArray()) mErrors.fail("events", "expected a list");
        for (Json::ArrayIndex i = 0; events->isArray() && i < events->size(); ++i) {
            readEvent((*events)[i], indexPath("events", i));
        }
    }
    if (const auto* v = fields.optional("force_off")) {
        mScenario.forceOff = readWindows(*v, "force_off", mScenario.duration, mErrors);
    }
    if (const auto* expect = fields.optional("expect")) {
        if (!expect->isArray()) mErrors.fail("expect", "expected a list");
        for (Json::ArrayIndex i = 0; expect->isArray() && i < expect->size(); ++i) {
            readExpectation((*expect)[i], indexPath("expect", i));
        }
    }
    fields.finish();
    if (!mErrors.failed()) checkReferences();
    if (!mErrors.failed()) checkWork();
    if (mErrors.failed()) {
        *error = mScenario.path + ": " + mErrors.message();
        return false;
    }
    return true;
}

} // namespace

// The compositions and buffers the run will play, from the scenario alone.
double runSteps(const Scenario& scenario) {
    const auto seconds = [](SimTime from, SimTime to) {
        return static_cast<double>(to - from) / 1e9;
    };
    double steps = 0;
    SimTime since = 0;
    double hz = scenario.display.refreshHz;
    for (const RefreshChange& change : scenario.display.refreshChanges) {
        steps += seconds(since, change.at) * hz;
        since = change.at;
        hz = change.refreshHz;
    }
    steps += seconds(since, scenario.duration) * hz;
    for (const LayerScript& layer : scenario.layers) {
        if (!layer.frames) continue;
        if (layer.frames->times) {
            steps += static_cast<double>(layer.frames->times->count);
            continue;
        }
        for (const Window& w : layer.visible) steps += seconds(w.from, w.to) * layer.frames->fps;
    }
    return steps;
}

bool readScenario(const std::string& path, Scenario* scenario, std::string* error) {
    std::string text;
    if (!readRegularFile(path, kMaxScenarioBytes, &text, error)) return false;
    if (jsonNestsDeeperThan(text, kMaxScenarioNesting)) {
        *error = path + ": not a scenario: arrays and objects nest more than " +
                std::to_string(kMaxScenarioNesting) + " levels deep";
        return false;
    }
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
        while (!errors.empty() && errors.back() == '\n') errors.pop_back();
        *error = path + ": not valid JSON: " + errors;
        return false;
    }
    return ScenarioParser(path, scenario).parse(root, error);
}

} // namespace android::tools::sim
