#include "tools/sim/HtmlReport.h"
#include "controller/PeltoTypes.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include <json/json.h>

#include "tools/sim/HtmlScript.h"
#include "tools/sim/HtmlTimeline.h"

namespace android::tools::sim {
namespace {

// The page's text timeline; the program's output has all of it.
constexpr size_t kMaxPageTimelineLines = 10000;

std::string escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// JSON inside a <script> element: "</" would end the element.
std::string scriptJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 3;
    builder["precisionType"] = "decimal";
    std::string json = Json::writeString(builder, value);
    for (size_t at = json.find("</"); at != std::string::npos; at = json.find("</", at)) {
        json.replace(at, 2, "<\\/");
    }
    return json;
}

void legendItem(std::ostringstream& html, const char* colour, const char* text) {
    html << "<span style=\"background:" << colour << "\"></span>" << text;
}

// The refresh estimate: on the vsync cadence and with the library's decisions.
// With no buffer played it has no basis, and the page says so instead.
void writeRefreshTable(std::ostringstream& html, const RunSummary& summary,
                       const RunDiagnosis& diagnosis) {
    if (!diagnosis.refreshBasis) {
        html << "<h2>Panel refreshes</h2><p>not estimated: " << kNoRefreshBasis
             << (diagnosis.layersWithoutBuffers.empty() ? "" : " (the frames lines above say why)")
             << "</p>\n";
        return;
    }
    const RefreshCounts& r = summary.refreshes;
    html << "<h2>Panel refreshes (estimate, floor " << summary.refreshFloorHz
         << " Hz)</h2>\n<table>\n<tr><th>state</th><th>vsync cadence</th>"
            "<th>with the library's decisions</th><th>saved</th></tr>\n";
    char text[32];
    for (int s = 0; s <= 3; ++s) {
        const int64_t fixed = s < 3 ? r.fixed[s] : r.fixedTotal();
        const int64_t paced = s < 3 ? r.paced[s] : r.pacedTotal();
        if (s < 3 && fixed == 0) continue;
        snprintf(text, sizeof(text), "%.1f%%", savedPercent(fixed, paced));
        html << "<tr><th>" << (s < 3 ? peltoStateName(s) : "whole run") << "</th><td>" << fixed
             << "</td><td>" << paced << "</td><td>" << text << "</td></tr>\n";
    }
    html << "</table>\n";
}

// The title, what was played, and the colours of the timeline.
void writeHeading(std::ostringstream& html, const Scenario& scenario) {
    html << "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\">\n<title>pelto-sim: "
         << escape(scenario.name) << "</title>\n<style>" << kPageStyle << "</style></head><body>\n";
    html << "<h1>" << escape(scenario.name) << "</h1>\n<p class=\"sub\">"
         << escape(scenario.description) << "<br>" << escape(scenario.path) << " &middot; "
         << (scenario.listMode ? "list" : "API") << " mode &middot; " << scenario.display.width
         << "&times;" << scenario.display.height << " at " << scenario.display.refreshHz
         << " Hz &middot; " << formatSeconds(scenario.duration) << "</p>\n";
    html << "<p class=\"legend\">state:";
    legendItem(html, "#2e7d32", "On");
    legendItem(html, "#f9a825", "Temp Off (reason code inside or under it)");
    legendItem(html, "#9e9e9e", "Off");
    html << " &nbsp; HWC Pelto mode:";
    legendItem(html, "#1565c0", "on (setHwcPeltoOn)");
    legendItem(html, "#fafafa", "off (setHwcPeltoOff, or no call yet)");
    html << "</p>\n<p class=\"legend\">Q2Q fps: purple line the traced rate, dashed the "
            "display's refresh rate &nbsp; layers, by the rule file:";
    legendItem(html, "#3949ab", "target");
    legendItem(html, "#b0bec5", "ignored");
    legendItem(html, "#c62828", "exception");
    legendItem(html, "#8d6e63", "other");
    legendItem(html, "#eceff1", "frames paused");
    legendItem(html, "#263238", "focused (strip)");
    html << "</p>\n";
}

// The timeline's toolbar and drawing area, its data and the script that draws it.
void writeTimeline(std::ostringstream& html, const Scenario& scenario, const RunRecord& record) {
    html << "<div id=\"timeline-box\"><div class=\"toolbar\">"
            "<button data-zoom=\"in\" title=\"zoom in (+)\">+</button>"
            "<button data-zoom=\"out\" title=\"zoom out (-)\">&minus;</button>"
            "<button data-zoom=\"all\" title=\"the whole run (0)\">whole run</button>"
            "<span id=\"range\"></span><span class=\"hint\">wheel or +/&minus;: zoom &middot; "
            "drag or arrow keys: pan &middot; double-click: whole run &middot; hover: values"
            "</span></div>\n"
            "<svg id=\"timeline\" xmlns=\"http://www.w3.org/2000/svg\" width=\"1200\" "
            "height=\"100\"></svg>\n<div id=\"tip\" class=\"tip\" hidden></div></div>\n"
            "<noscript><p>The timeline is drawn by the page's script; with scripts off, the "
            "tables below have the figures.</p></noscript>\n";
    html << "<script type=\"application/json\" id=\"pelto-data\">"
         << scriptJson(timelineData(scenario, record)) << "</script>\n<script>" << kTimelineScript
         << "</script>\n";
}

// The rule files' lint findings, each with its fix.
void writeLint(std::ostringstream& html, const std::vector<LintNote>& lint) {
    if (lint.empty()) return;
    html << "<h2>Lint of the rule files</h2>\n<p>What the library accepts, but is most likely "
            "a mistake.</p>\n<table>\n";
    for (const LintNote& n : lint) {
        html << "<tr><th>" << escape(n.file) << " line " << n.line << "</th><td>[" << escape(n.code)
             << "] " << escape(n.message);
        if (!n.fix.empty()) html << "<br>fix: " << escape(n.fix);
        html << "</td></tr>\n";
    }
    html << "</table>\n";
}

// The run's figures: time in each state, the library's calls, Q2Q, buffers;
// then what the figures alone do not say, and the refreshes.
void writeSummary(std::ostringstream& html, const Scenario& scenario, const RunSummary& summary,
                  const RunDiagnosis& diagnosis) {
    char text[160];
    html << "<h2>Summary</h2>\n<table>\n";
    for (int s = 0; s < 3; ++s) {
        snprintf(text, sizeof(text), "%s (%.1f%%)", formatSeconds(summary.timeInState[s]).c_str(),
                 100.0 * summary.timeInState[s] / scenario.duration);
        html << "<tr><th>time " << peltoStateName(s) << "</th><td>" << text << "</td></tr>\n";
    }
    html << "<tr><th>HWC toggles</th><td>" << summary.hwcToggles() << " (" << summary.hwcOn
         << " on, " << summary.hwcOff << " off)</td></tr>\n";
    html << "<tr><th>vsync callbacks requested</th><td>" << summary.vsyncCallbacks
         << "</td></tr>\n";
    snprintf(text, sizeof(text), "%" PRId64 " at the end; %" PRId64 " to %" PRId64, summary.q2qLast,
             summary.q2qMin, summary.q2qMax);
    html << "<tr><th>Q2Q fps</th><td>" << (summary.q2qMeasured ? text : "never measured")
         << "</td></tr>\n";
    snprintf(text, sizeof(text), "%" PRId64 " of %" PRId64 " compositions (%.1f%%)",
             summary.q2qFullCompositions, summary.compositions, summary.q2qFullShare() * 100);
    html << "<tr><th>isQ2QFull true</th><td>" << text << "</td></tr>\n";
    html << "<tr><th>buffers queued</th><td>" << summary.buffersPlayed << "</td></tr>\n";
    if (const ContentPace pace = contentPace(scenario, summary); pace.layer != nullptr) {
        snprintf(text, sizeof(text),
                 "the target's %" PRId64
                 " buffers, %.2f a second: a panel refreshing only for "
                 "them saves %.1f%%",
                 pace.layer->buffers, pace.layer->fps, pace.savedPercent);
        html << "<tr><th>content pace</th><td>" << text << "</td></tr>\n";
    }
    for (const DiagnosisLine& line : diagnosisLines(diagnosis)) {
        html << "<tr><th>" << line.label << "</th><td>" << escape(line.text) << "</td></tr>\n";
    }
    html << "</table>\n";
    if (scenario.capture && !scenario.capture->assumedFor.empty()) {
        html << "<p class=\"sub\">The figures rest on assumptions:";
        for (const CaptureFacts::Assumed& a : scenario.capture->assumedFor) {
            html << "<br>" << escape(a.what) << ", for";
            for (const std::string& f : a.figures) html << " " << escape(f) << ";";
        }
        html << "</p>\n";
    }
    writeRefreshTable(html, summary, diagnosis);
    writeLint(html, diagnosis.lint);
}

// Each expectation with its outcome, and for a failed one what the run gave.
void writeExpectations(std::ostringstream& html, const std::vector<ExpectationResult>& results) {
    html << "<h2>Expectations</h2>\n<table>\n";
    for (const ExpectationResult& r : results) {
        html << "<tr><td class=\"" << (r.passed ? "ok\">ok" : "fail\">FAIL") << "</td><td>"
             << escape(r.expectation->key) << "</td><td>" << escape(r.what);
        if (!r.passed) html << "<br>got " << escape(r.got);
        if (!r.expectation->why.empty()) html << "<br><i>" << escape(r.expectation->why) << "</i>";
        html << "</td></tr>\n";
    }
    if (results.empty()) html << "<tr><td>none</td></tr>\n";
    html << "</table>\n";
}

// The timeline as text, cut at kMaxPageTimelineLines.
void writeTextTimeline(std::ostringstream& html, const RunRecord& record) {
    char text[160];
    html << "<details><summary>Timeline</summary><pre>";
    size_t lines = 0;
    for (const TimelineEntry& e : record.timeline) {
        if (++lines > kMaxPageTimelineLines) {
            html << "... " << record.timeline.size() - kMaxPageTimelineLines
                 << " more lines: the program's output has them\n";
            break;
        }
        snprintf(text, sizeof(text), "%9.3f  %-10s  ", static_cast<double>(e.at) / 1e9,
                 timelineLabel(e.kind));
        html << text << escape(e.text) << "\n";
    }
    html << "</pre></details>\n";
}

} // namespace

bool writeHtmlReport(const std::string& path, const Scenario& scenario, const RunRecord& record,
                     const RunSummary& summary, const RunDiagnosis& diagnosis,
                     const std::vector<ExpectationResult>& results, std::string* error) {
    std::ostringstream html;
    writeHeading(html, scenario);
    writeTimeline(html, scenario, record);
    writeSummary(html, scenario, summary, diagnosis);
    writeExpectations(html, results);
    writeTextTimeline(html, record);
    html << "</body></html>\n";

    std::ofstream file(path);
    file << html.str();
    if (!file) {
        *error = "cannot write the page to " + path;
        return false;
    }
    return true;
}

} // namespace android::tools::sim
