#include "tools/sim/ScenarioWriter.h"

#include <filesystem>
#include <fstream>
#include <utility>

#include <json/json.h>

namespace android::tools::sim {

bool writeScenarioFile(const Scenario& s, const std::string& path, std::string* error) {
    const auto ms = [](SimTime t) { return static_cast<double>(t) / 1e6; };
    Json::Value root;
    root["name"] = s.name;
    root["description"] = s.description;
    root["duration_ms"] = ms(s.duration);
    root["display"]["width"] = s.display.width;
    root["display"]["height"] = s.display.height;
    root["display"]["refresh_hz"] = s.display.refreshHz;
    for (const RefreshChange& r : s.display.refreshChanges) {
        Json::Value change;
        change["at_ms"] = ms(r.at);
        change["refresh_hz"] = r.refreshHz;
        root["display"]["refresh_changes"].append(change);
    }
    root["mode"] = s.listMode ? "list" : "api";
    if (s.listMode) {
        const std::filesystem::path dir =
                std::filesystem::absolute(std::filesystem::path(path)).parent_path();
        root["rules"] = std::filesystem::absolute(s.rules.path).lexically_relative(dir).string();
    }
    root["layers"] = Json::Value(Json::arrayValue);
    for (const LayerScript& l : s.layers) {
        Json::Value layer;
        layer["name"] = l.name;
        // A capture's layer keeps one area throughout.
        const float area = l.areas.empty() ? 0 : l.areas.front().area;
        if (area >= static_cast<float>(s.display.screenArea())) {
            layer["screen_percent"] = 100;
        } else {
            layer["area"] = area;
        }
        for (const auto& [key, windows] :
             {std::pair{"visible", &l.visible}, std::pair{"focused", &l.focused}}) {
            for (const Window& w : *windows) {
                Json::Value span(Json::arrayValue);
                span.append(ms(w.from));
                span.append(ms(w.to));
                layer[key].append(span);
            }
        }
        Json::Value& times = layer["frames"]["times_ms"] = Json::Value(Json::arrayValue);
        for (SimTime t : l.frames->times->inlineTimes) times.append(ms(t));
        root["layers"].append(layer);
    }
    for (const Event& e : s.events) {
        Json::Value event;
        event["at_ms"] = ms(e.at);
        if (e.kind == Event::Kind::SetTargetLayer) event["set_target_layer"] = e.layer;
        if (e.kind == Event::Kind::SetPeltoEnable) event["set_pelto_enable"] = e.flag;
        root["events"].append(event);
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = " ";
    builder["precision"] = 12;
    std::ofstream file(path);
    file << "// Made by pelto-sim --capture from " << s.path << ".\n";
    for (const std::string& line : s.assumptions) file << "// " << line << "\n";
    file << Json::writeString(builder, root) << "\n";
    if (!file) {
        *error = "cannot write the scenario to " + path;
        return false;
    }
    return true;
}

} // namespace android::tools::sim
