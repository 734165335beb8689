#include "tools/sim/HtmlReport.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace android::tools::sim {
namespace {

constexpr double kLabelWidth = 230;
constexpr double kPlotWidth = 900;
constexpr double kLaneHeight = 24;
constexpr double kLaneGap = 8;
constexpr double kChartHeight = 90;
constexpr double kAxisHeight = 24;

constexpr const char* kStateColors[] = {"#9e9e9e", "#2e7d32", "#f9a825"};  // Off, On, Temp Off

std::string escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

// Long layer names keep their start and their "#id" end.
std::string shortName(const std::string& name) {
    constexpr size_t kMax = 34;
    if (name.size() <= kMax) return name;
    return name.substr(0, 18) + "\u2026" + name.substr(name.size() - 14);
}

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f", value);
    return text;
}

class Svg {
public:
    explicit Svg(SimTime duration) : mDuration(duration) {}

    double x(SimTime t) const {
        return kLabelWidth + kPlotWidth * static_cast<double>(t) / static_cast<double>(mDuration);
    }
    double y() const { return mY; }

    // A lane label on the left; returns the lane's top.
    double lane(const std::string& label, const std::string& title, double height) {
        const double top = mY;
        mOut << "<text class=\"label\" x=\"" << kLabelWidth - 8 << "\" y=\""
             << number(top + height / 2 + 4) << "\"><title>" << escape(title) << "</title>"
             << escape(label) << "</text>\n";
        mOut << "<rect class=\"lane\" x=\"" << kLabelWidth << "\" y=\"" << number(top)
             << "\" width=\"" << kPlotWidth << "\" height=\"" << number(height) << "\"/>\n";
        mY += height + kLaneGap;
        return top;
    }

    void span(SimTime from, SimTime to, double top, double height, const char* color,
              const std::string& title) {
        if (to <= from) return;
        mOut << "<rect x=\"" << number(x(from)) << "\" y=\"" << number(top) << "\" width=\""
             << number(std::max(0.5, x(to) - x(from))) << "\" height=\"" << number(height)
             << "\" fill=\"" << color << "\"><title>" << escape(title) << "</title></rect>\n";
    }

    // A short text inside a span, when the span is wide enough for it.
    void spanLabel(SimTime from, SimTime to, double top, const std::string& text) {
        constexpr double kCharWidth = 6.5;
        if (x(to) - x(from) < kCharWidth * text.size() + 6) return;
        mOut << "<text class=\"inside\" x=\"" << number(x(from) + 4) << "\" y=\""
             << number(top + 16) << "\">" << escape(text) << "</text>\n";
    }

    std::ostringstream& raw() { return mOut; }

    std::string finish() {
        std::ostringstream svg;
        const double height = mY + kAxisHeight;
        svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kLabelWidth + kPlotWidth + 20
            << "\" height=\"" << number(height) << "\" font-family=\"sans-serif\" "
            << "font-size=\"11\">\n";
        // Grid and time axis first, so the lanes draw over them.
        const double seconds = static_cast<double>(mDuration) / 1e9;
        const double step = seconds <= 10 ? 1 : seconds <= 30 ? 2 : seconds <= 120 ? 10 : 60;
        for (double s = 0; s <= seconds + 1e-9; s += step) {
            const double gx = x(static_cast<SimTime>(s * 1e9));
            svg << "<line class=\"grid\" x1=\"" << number(gx) << "\" y1=\"0\" x2=\"" << number(gx)
                << "\" y2=\"" << number(mY) << "\"/>\n"
                << "<text class=\"axis\" x=\"" << number(gx) << "\" y=\"" << number(mY + 14)
                << "\">" << s << " s</text>\n";
        }
        svg << mOut.str() << "</svg>\n";
        return svg.str();
    }

private:
    const SimTime mDuration;
    double mY = 4;
    std::ostringstream mOut;
};

void drawStates(Svg& svg, const Scenario& scenario, const RunRecord& record) {
    const double top = svg.lane("state", "the library's mode state (setPeltoState)", kLaneHeight);
    SimTime since = 0;
    StateChange current{0, 0, 0, -1, {}};
    const auto draw = [&](SimTime until) {
        const int32_t s = current.to;
        svg.span(since, until, top, kLaneHeight, s >= 0 && s <= 2 ? kStateColors[s] : "#000",
                 std::string(stateName(s)) + " from " + formatSeconds(since) + " to " +
                         formatSeconds(until) + ", reason " + std::to_string(current.reason) +
                         ": " + reasonText(current.reason) +
                         (current.cause.empty() ? "" : "; why: " + current.cause));
        svg.spanLabel(since, until, top,
                      std::string(stateName(s)) + " " + std::to_string(current.reason));
    };
    for (const StateChange& change : record.states) {
        draw(change.at);
        since = change.at;
        current = change;
    }
    draw(scenario.duration);
}

// Spans where a flag, given by its changes, is on.
void drawFlag(Svg& svg, const std::vector<TimedFlag>& changes, SimTime end, double top,
              const char* color, const std::string& what) {
    SimTime since = 0;
    bool on = false;
    for (const TimedFlag& change : changes) {
        if (on && !change.on) {
            svg.span(since, change.at, top, kLaneHeight, color,
                     what + " from " + formatSeconds(since) + " to " + formatSeconds(change.at));
        }
        if (!on && change.on) since = change.at;
        on = change.on;
    }
    if (on) svg.span(since, end, top, kLaneHeight, color, what + " from " + formatSeconds(since));
}

void drawQ2Q(Svg& svg, const Scenario& scenario, const RunRecord& record) {
    int64_t maxHz = 0;
    for (const TimedValue& p : record.vsyncPeriods) {
        maxHz = std::max<int64_t>(maxHz, std::llround(1e9 / static_cast<double>(p.value)));
    }
    int64_t scaleMax = maxHz;
    for (const TimedValue& fps : record.q2qFps) scaleMax = std::max(scaleMax, fps.value);
    scaleMax = std::max<int64_t>(10, (scaleMax + 9) / 10 * 10);
    const double y0 = svg.lane("Q2Q fps", "Pelto2-Q2QFps as traced; dashed: the refresh rate",
                               kChartHeight);
    const auto y = [&](double fps) {
        return y0 + kChartHeight - kChartHeight * fps / static_cast<double>(scaleMax);
    };
    auto& out = svg.raw();
    out << "<text class=\"scale\" x=\"" << kLabelWidth + 3 << "\" y=\"" << number(y0 + 10) << "\">"
        << scaleMax << "</text>\n";

    // The display's rate, dashed.
    out << "<polyline class=\"refresh\" points=\"";
    for (size_t i = 0; i < record.vsyncPeriods.size(); ++i) {
        const TimedValue& p = record.vsyncPeriods[i];
        const SimTime until =
                i + 1 < record.vsyncPeriods.size() ? record.vsyncPeriods[i + 1].at : scenario.duration;
        const double hz = 1e9 / static_cast<double>(p.value);
        out << number(svg.x(p.at)) << "," << number(y(hz)) << " " << number(svg.x(until)) << ","
            << number(y(hz)) << " ";
    }
    out << "\"><title>display refresh rate</title></polyline>\n";

    // The traced rate, as steps.
    out << "<polyline class=\"q2q\" points=\"" << number(svg.x(0)) << "," << number(y(0)) << " ";
    int64_t last = 0;
    for (const TimedValue& fps : record.q2qFps) {
        out << number(svg.x(fps.at)) << "," << number(y(last)) << " " << number(svg.x(fps.at))
            << "," << number(y(fps.value)) << " ";
        last = fps.value;
    }
    out << number(svg.x(scenario.duration)) << "," << number(y(last))
        << "\"><title>Q2Q fps</title></polyline>\n";
}

void drawTicks(Svg& svg, const std::vector<SimTime>& times, const char* label,
               const std::string& title, const char* color) {
    const double top = svg.lane(label, title, kLaneHeight);
    auto& out = svg.raw();
    out << "<path stroke=\"" << color << "\" stroke-width=\"1\" d=\"";
    for (SimTime t : times) {
        out << "M" << number(svg.x(t)) << " " << number(top + 3) << "v" << kLaneHeight - 6 << " ";
    }
    out << "\"><title>" << escape(title) << ": " << times.size() << "</title></path>\n";
}

void drawLayers(Svg& svg, const Scenario& scenario) {
    for (const LayerSpec& layer : scenario.layers) {
        const double top = svg.lane(shortName(layer.name), layer.name, kLaneHeight);
        for (const Window& w : layer.visible) {
            svg.span(w.from, w.to, top + 4, kLaneHeight - 8, "#90a4ae",
                     layer.name + ": on screen from " + formatSeconds(w.from) + " to " +
                             formatSeconds(w.to));
        }
        for (const Window& w : layer.frames ? layer.frames->pauses : std::vector<Window>()) {
            svg.span(w.from, w.to, top + 4, kLaneHeight - 8, "#cfd8dc",
                     layer.name + ": no frames from " + formatSeconds(w.from) + " to " +
                             formatSeconds(w.to));
        }
        for (const Window& w : layer.focused) {
            svg.span(w.from, w.to, top + kLaneHeight - 6, 4, "#37474f",
                     layer.name + ": focused from " + formatSeconds(w.from));
        }
        for (const AreaChange& a : layer.areas) {
            const double percent = 100.0 * a.area / scenario.display.screenArea();
            svg.raw() << "<text class=\"area\" x=\"" << number(svg.x(a.at) + 2) << "\" y=\""
                      << number(top + 15) << "\">" << number(percent) << "%</text>\n";
        }
    }
}

void drawEvents(Svg& svg, const Scenario& scenario, const RunRecord& record) {
    const double top = svg.lane("compositor events", "forceOff, refresh changes, hints, reloads",
                                kLaneHeight);
    for (const Window& w : scenario.forceOff) {
        svg.span(w.from, w.to, top + 4, kLaneHeight - 8, "#c62828",
                 "forceOff from " + formatSeconds(w.from) + " to " + formatSeconds(w.to));
    }
    // The compositor's calls after the start; the layer lanes show the rest.
    for (const TimelineEntry& e : record.timeline) {
        if (e.kind != TimelineEntry::Kind::Compositor || e.at == 0) continue;
        svg.raw() << "<path fill=\"#283593\" d=\"M" << number(svg.x(e.at)) << " "
                  << number(top + 4) << "l5 8l-5 8l-5 -8z\"><title>" << formatSeconds(e.at)
                  << ": " << escape(e.text) << "</title></path>\n";
    }
}

const char* kStyle = R"(
body { font-family: sans-serif; margin: 24px; color: #212121; }
h1 { font-size: 20px; margin-bottom: 4px; }
p.sub { color: #616161; margin-top: 0; }
.label { text-anchor: end; fill: #424242; }
.lane { fill: #fafafa; stroke: #e0e0e0; }
.grid { stroke: #eeeeee; }
.axis { text-anchor: middle; fill: #757575; }
.scale { fill: #9e9e9e; font-size: 10px; }
.area { fill: #263238; font-size: 10px; }
.inside { fill: #ffffff; font-size: 11px; pointer-events: none; }
.refresh { fill: none; stroke: #9e9e9e; stroke-dasharray: 4 3; }
.q2q { fill: none; stroke: #6a1b9a; stroke-width: 1.2; }
table { border-collapse: collapse; margin: 8px 0 16px; }
td, th { padding: 3px 10px; text-align: left; border-bottom: 1px solid #eeeeee; font-size: 13px; }
.ok { color: #2e7d32; font-weight: bold; }
.fail { color: #c62828; font-weight: bold; }
.legend span { display: inline-block; width: 12px; height: 12px; margin: 0 4px 0 14px;
               vertical-align: middle; }
pre { font-size: 12px; background: #fafafa; padding: 8px; }
)";

// The refresh estimate: on the vsync cadence and with the library's decisions.
void writeRefreshTable(std::ostringstream& html, const RunSummary& summary) {
    const RefreshCounts& r = summary.refreshes;
    html << "<h2>Panel refreshes (estimate, floor " << summary.refreshFloorHz
         << " Hz)</h2>\n<table>\n<tr><th>state</th><th>vsync cadence</th>"
            "<th>with the library's decisions</th><th>saved</th></tr>\n";
    const char* names[] = {"Off", "On", "Temp Off"};
    char text[32];
    for (int s = 0; s <= 3; ++s) {
        const int64_t fixed = s < 3 ? r.fixed[s] : r.fixedTotal();
        const int64_t paced = s < 3 ? r.paced[s] : r.pacedTotal();
        if (s < 3 && fixed == 0) continue;
        snprintf(text, sizeof(text), "%.1f%%", savedPercent(fixed, paced));
        html << "<tr><th>" << (s < 3 ? names[s] : "whole run") << "</th><td>" << fixed
             << "</td><td>" << paced << "</td><td>" << text << "</td></tr>\n";
    }
    html << "</table>\n";
}

} // namespace

bool writeHtmlReport(const std::string& path, const Scenario& scenario, const RunRecord& record,
                     const RunSummary& summary, const std::vector<ExpectationResult>& results,
                     std::string* error) {
    Svg svg(scenario.duration);
    drawStates(svg, scenario, record);
    drawFlag(svg, record.hwc, scenario.duration,
             svg.lane("HWC Pelto mode", "setHwcPeltoOn / setHwcPeltoOff", kLaneHeight), "#1565c0",
             "HWC Pelto mode on");
    drawQ2Q(svg, scenario, record);
    drawFlag(svg, record.q2qFull, scenario.duration,
             svg.lane("isQ2QFull", "isQ2QFull() after each composition", kLaneHeight), "#00838f",
             "isQ2QFull true");
    drawTicks(svg, record.vsyncCallbacks, "vsync requests", "vsync callbacks requested",
              "#d84315");
    drawEvents(svg, scenario, record);
    drawLayers(svg, scenario);

    std::ostringstream html;
    html << "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\">\n<title>pelto-sim: "
         << escape(scenario.name) << "</title>\n<style>" << kStyle << "</style></head><body>\n";
    html << "<h1>" << escape(scenario.name) << "</h1>\n<p class=\"sub\">"
         << escape(scenario.description) << "<br>" << escape(scenario.path) << " &middot; "
         << (scenario.listMode ? "list" : "API") << " mode &middot; " << scenario.display.width
         << "&times;" << scenario.display.height << " at " << scenario.display.refreshHz
         << " Hz &middot; " << formatSeconds(scenario.duration) << "</p>\n";
    html << "<p class=\"legend\">state:<span style=\"background:" << kStateColors[1]
         << "\"></span>On<span style=\"background:" << kStateColors[2]
         << "\"></span>Temp Off<span style=\"background:" << kStateColors[0]
         << "\"></span>Off &nbsp; Hover over a shape for its times.</p>\n";
    html << svg.finish();

    char text[160];
    html << "<h2>Summary</h2>\n<table>\n";
    const char* names[] = {"Off", "On", "Temp Off"};
    for (int s = 0; s < 3; ++s) {
        snprintf(text, sizeof(text), "%s (%.1f%%)", formatSeconds(summary.timeInState[s]).c_str(),
                 100.0 * summary.timeInState[s] / scenario.duration);
        html << "<tr><th>time " << names[s] << "</th><td>" << text << "</td></tr>\n";
    }
    html << "<tr><th>HWC toggles</th><td>" << summary.hwcToggles() << " (" << summary.hwcOn
         << " on, " << summary.hwcOff << " off)</td></tr>\n";
    html << "<tr><th>vsync callbacks requested</th><td>" << summary.vsyncCallbacks << "</td></tr>\n";
    snprintf(text, sizeof(text), "%" PRId64 " at the end; %" PRId64 " to %" PRId64, summary.q2qLast,
             summary.q2qMin, summary.q2qMax);
    html << "<tr><th>Q2Q fps</th><td>" << (summary.q2qMeasured ? text : "never measured")
         << "</td></tr>\n";
    snprintf(text, sizeof(text), "%" PRId64 " of %" PRId64 " compositions (%.1f%%)",
             summary.q2qFullCompositions, summary.compositions, summary.q2qFullShare() * 100);
    html << "<tr><th>isQ2QFull true</th><td>" << text << "</td></tr>\n</table>\n";
    writeRefreshTable(html, summary);

    html << "<h2>Expectations</h2>\n<table>\n";
    for (const ExpectationResult& r : results) {
        html << "<tr><td class=\"" << (r.passed ? "ok\">ok" : "fail\">FAIL") << "</td><td>"
             << escape(r.expectation->key) << "</td><td>" << escape(r.what);
        if (!r.passed) html << "<br>got " << escape(r.got);
        if (!r.expectation->why.empty()) html << "<br><i>" << escape(r.expectation->why) << "</i>";
        html << "</td></tr>\n";
    }
    if (results.empty()) html << "<tr><td>none</td></tr>\n";
    html << "</table>\n<details><summary>Timeline</summary><pre>";
    for (const TimelineEntry& e : record.timeline) {
        snprintf(text, sizeof(text), "%9.3f  %-10s  ", static_cast<double>(e.at) / 1e9,
                 timelineLabel(e.kind));
        html << text << escape(e.text) << "\n";
    }
    html << "</pre></details>\n</body></html>\n";

    std::ofstream file(path);
    file << html.str();
    if (!file) {
        *error = "cannot write the page to " + path;
        return false;
    }
    return true;
}

} // namespace android::tools::sim
