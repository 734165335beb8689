#include "tools/sim/CaptureReader.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include <json/json.h>

#include "tools/sim/FtraceLine.h"
#include "tools/sim/LineReader.h"
#include "tools/sim/PerfettoReader.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/Schedule.h"

namespace android::tools::sim {
namespace {

// Vsync counters of the compositor, most direct first.
constexpr const char* kVsyncCounters[] = {"HW_VSYNC_0", "VSYNC-sf", "VSYNC", "VSYNC-app"};
// Slices the compositor begins once per composition, for a capture without
// vsync counters.
constexpr const char* kCompositionSlices[] = {"onMessageRefresh", "handleMessageRefresh",
                                              "composite", "onMessageReceived", "handlePageFlip"};
// Refresh rates a measured period is rounded to when it is within 3 %.
constexpr double kKnownRates[] = {24, 25, 30, 48, 50, 60, 72, 75, 90, 96, 100, 120, 144, 165, 240};
// A new rate counts once this many vsync intervals in a row show it.
constexpr int kRateRun = 6;
// An app's queueBuffer is matched to the layer counter that rises within this.
constexpr SimTime kMatchWindow = 20'000'000;

// The compositor's counters that are not a layer's queued buffers.
bool isLayerCounter(const std::string& name) {
    static const char* kNotLayers[] = {"VSYNC", "HW_VSYNC", "Pelto", "HwcPeltoMode"};
    for (const char* prefix : kNotLayers) {
        if (name.rfind(prefix, 0) == 0) return false;
    }
    return name.find("FrameMissed") == std::string::npos;
}

std::string layerOfCounter(const std::string& name) {
    static const std::string kBufferTx = "BufferTX - ";
    return name.rfind(kBufferTx, 0) == 0 ? name.substr(kBufferTx.size()) : name;
}

struct Series {
    std::vector<SimTime> times;
    int64_t last = 0;
};

class CaptureParser {
public:
    CaptureParser(Capture* capture, int64_t maxKept) : mCapture(*capture), mMaxKept(maxKept) {}

    bool read(const std::string& path, std::string* error);

private:
    bool line(std::string text, std::string* error);
    bool preamble(const std::string& text, size_t start, std::string* error);
    bool event(const EventLine& e, SimTime t, std::string* error);
    void time(SimTime t);
    bool mark(const EventLine& e, SimTime t, std::string* error);
    // A mark that cannot be read: in text, a line cut short (an error); in a
    // Perfetto trace, an app's odd mark (skipped and counted).
    bool badMark(const std::string& what, const std::string& payload, std::string* error);
    bool readPerfettoTrace(std::string* error);
    bool keep(size_t bytes, std::string* error);
    std::string where() const;
    bool frameTimelineLayers(int compositorPid);
    bool finish(std::string* error);
    void findRefresh(const std::vector<SimTime>& ticks);

    Capture& mCapture;
    const int64_t mMaxKept;
    int64_t mKept = 0;
    LineReader mLines;
    bool mHtml = false;
    bool mInTrace = false;
    bool mSeenContent = false;
    // Lines before the first event line that are not ftrace text: atrace's
    // own "capturing trace... done" and "TRACE:". They are let through once
    // "TRACE:" or the "# tracer:" header follows them.
    bool mPreambleOver = false;
    int mPreambleLines = 0;
    std::string mPreambleError;  // about the first of them, until then
    bool mHaveStart = false;
    SimTime mStart = 0;  // absolute ns of the first event
    SimTime mEnd = 0;
    int64_t mEvents = 0;
    std::map<std::pair<int, std::string>, Series> mCounters;        // (pid, name)
    std::map<std::pair<int, std::string>, std::vector<SimTime>> mSlices;  // composition slices
    std::map<int, std::vector<SimTime>> mQueueBuffers;               // by app pid
    std::map<int, std::string> mTaskNames;                           // pid -> its main thread
    // A Perfetto trace's FrameTimeline: compositions by compositor pid, and
    // buffers by layer.
    bool mPerfetto = false;
    int64_t mSkippedMarks = 0;
    std::map<int, std::vector<SimTime>> mDisplayFrames;
    std::map<std::string, std::pair<int, std::vector<SimTime>>> mSurfaceFrames;
};

bool CaptureParser::read(const std::string& path, std::string* error) {
    if (!mLines.open(path, error)) return false;
    mCapture.path = mLines.path();
    const std::string& head = mLines.peek();
    // `atrace -z` writes zlib (0x78 ...) after "TRACE:"; say so rather than
    // "a NUL byte".
    for (const char* marker : {"TRACE:\n", "TRACE:\r\n"}) {
        const size_t at = head.find(marker);
        const size_t data = at + strlen(marker);
        if (at != std::string::npos && data < head.size() && head[data] == '\x78') {
            *error = mCapture.path + ": compressed by atrace -z (zlib after \"TRACE:\"): "
                                     "capture without -z";
            return false;
        }
    }
    // A whole file in zstd: zlib does not read it.
    if (head.size() >= 4 && head.compare(0, 4, "\x28\xb5\x2f\xfd") == 0) {
        *error = mCapture.path + ": compressed with zstd: decompress it first (zstd -d)";
        return false;
    }
    if (looksLikePerfetto(reinterpret_cast<const uint8_t*>(head.data()), head.size())) {
        return readPerfettoTrace(error) && finish(error);
    }
    std::string text;
    while (mLines.next(&text)) {
        if (!line(std::move(text), error)) return false;
    }
    if (!mLines.error().empty()) {
        *error = mLines.error();
        return false;
    }
    mCapture.lines = mLines.lineNumber();
    return finish(error);
}

bool CaptureParser::line(std::string text, std::string* error) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return true;
    if (!mSeenContent) {
        mSeenContent = true;
        mHtml = text[first] == '<';
        mInTrace = !mHtml;
    }
    if (mHtml) {
        // The trace text sits in a script block, as raw lines or as a
        // JavaScript string with "\n\" at the end of each line.
        if (!mInTrace) {
            mInTrace = text.compare(first, 9, "# tracer:") == 0;
            return true;
        }
        if (text.find("</script>") != std::string::npos) {
            mInTrace = false;
            return true;
        }
        for (const char* tail : {"\\n\\", "\\n\";", "\\n\""}) {
            const size_t n = strlen(tail);
            if (text.size() >= n && text.compare(text.size() - n, n, tail) == 0) {
                text.resize(text.size() - n);
                break;
            }
        }
    }
    const size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos) return true;
    if (text[start] == '#') {
        if (text.compare(start, 9, "# tracer:") == 0) {
            mPreambleError.clear();
            mPreambleOver = true;
        }
        return true;
    }
    if (text.compare(start, 4, "CPU:") == 0) return true;  // "CPU:3 [LOST 12 EVENTS]"
    EventLine e;
    if (!parseEventLine(text, &e)) {
        if (mEvents == 0 && !mHtml) return preamble(text, start, error);
        *error = mLines.where() + "not an ftrace event line (cut short?): " + text.substr(0, 120);
        return false;
    }
    if (!mPreambleError.empty()) {
        *error = mPreambleError;
        return false;
    }
    if (e.payload.rfind("trace_event_clock_sync", 0) == 0) return true;
    return event(e, std::llround(e.seconds * 1e9), error);
}

bool CaptureParser::event(const EventLine& e, SimTime t, std::string* error) {
    time(t);
    ++mEvents;
    if (e.event == "sched_switch" || e.event == "sched_wakeup") return true;
    if (e.event == "tracing_mark_write" || e.event == "0" || e.event == "print") {
        return mark(e, t, error);
    }
    return true;
}

void CaptureParser::time(SimTime t) {
    if (!mHaveStart) {
        mHaveStart = true;
        mStart = t;
    }
    mStart = std::min(mStart, t);
    mEnd = std::max(mEnd, t);
}

// A line before the first event line that is not one. atrace writes a few
// ("capturing trace... done", warnings) and then "TRACE:" before the ftrace
// text; anything else there is the error about its first line, reported when
// an event line comes without "TRACE:" or "# tracer:" between, or at the end.
bool CaptureParser::preamble(const std::string& text, size_t start, std::string* error) {
    constexpr int kMaxPreambleLines = 64;
    if (text.compare(start, std::string::npos, "TRACE:") == 0) {
        mPreambleError.clear();
        mPreambleOver = true;
        return true;
    }
    if (!mPreambleOver) {
        if (mPreambleError.empty()) {
            mPreambleError = mLines.where() + "not an ftrace event line: " + text.substr(0, 120);
        }
        if (++mPreambleLines > kMaxPreambleLines) {
            *error = mPreambleError + " (and no ftrace text in the next " +
                    std::to_string(kMaxPreambleLines) + " lines)";
            return false;
        }
        return true;
    }
    // After "TRACE:" or the header, only ftrace text.
    *error = mLines.where() + "not an ftrace event line (cut short?): " + text.substr(0, 120);
    return false;
}

// An atrace mark: "B|pid|name", "E[|pid]", "C|pid|name|value", "S|..", "F|..".
bool CaptureParser::mark(const EventLine& e, SimTime t, std::string* error) {
    const std::string& p = e.payload;
    if (p.size() < 2 || p[1] != '|' || (p[0] != 'B' && p[0] != 'C')) return true;
    const size_t bar = p.find('|', 2);
    if (bar == std::string::npos) {
        return badMark("an atrace mark without a name", p, error);
    }
    const int pid = atoi(p.c_str() + 2);
    if (e.tid == pid && !mTaskNames.count(pid)) {
        if (!keep(e.task.size() + 64, error)) return false;
        mTaskNames[pid] = e.task;
    }
    if (p[0] == 'B') {
        std::string name = p.substr(bar + 1);
        const size_t argsBar = name.find('|');
        if (argsBar != std::string::npos) name.resize(argsBar);
        if (name == "queueBuffer" || name.rfind("queueBuffer ", 0) == 0) {
            if (!keep(sizeof(SimTime), error)) return false;
            mQueueBuffers[pid].push_back(t);
        }
        for (const char* slice : kCompositionSlices) {
            if (name != slice) continue;
            if (!keep(sizeof(SimTime), error)) return false;
            mSlices[{pid, name}].push_back(t);
        }
        return true;
    }
    const size_t valueBar = p.rfind('|');
    char* stop = nullptr;
    const long long value = valueBar > bar ? strtoll(p.c_str() + valueBar + 1, &stop, 10) : 0;
    if (valueBar <= bar || stop == p.c_str() + valueBar + 1) {
        return badMark("a counter without a value", p, error);
    }
    const std::string name = p.substr(bar + 1, valueBar - bar - 1);
    const auto key = std::make_pair(pid, name);
    if (!mCounters.count(key) && !keep(name.size() + 96, error)) return false;
    Series& series = mCounters[key];
    const bool vsync = std::find_if(std::begin(kVsyncCounters), std::end(kVsyncCounters),
                                    [&](const char* v) { return name == v; }) !=
            std::end(kVsyncCounters);
    // A vsync counter toggles once per vsync; a layer's counter rises once per buffer.
    if (vsync ? value != series.last || series.times.empty() : value > series.last) {
        if (!keep(sizeof(SimTime), error)) return false;
        series.times.push_back(t);
    }
    series.last = value;
    return true;
}

// Counts what the reader keeps (times, names); past the limit the capture
// is too large to play, whatever its size on disk.
bool CaptureParser::keep(size_t bytes, std::string* error) {
    mKept += static_cast<int64_t>(bytes);
    if (mKept <= mMaxKept) return true;
    const std::string limit = mMaxKept >= (1 << 20) ? std::to_string(mMaxKept >> 20) + " MiB"
                                                    : std::to_string(mMaxKept) + " bytes";
    *error = where() + "more than " + limit + " of vsync ticks, slices, buffers and names to keep: too large a capture to play";
    return false;
}

std::string CaptureParser::where() const {
    return mPerfetto ? mCapture.path + ": " : mLines.where();
}

bool CaptureParser::badMark(const std::string& what, const std::string& payload,
                            std::string* error) {
    if (mPerfetto) {
        ++mSkippedMarks;
        return true;
    }
    *error = where() + what + " (cut short?): " + payload.substr(0, 120);
    return false;
}

// A Perfetto trace: its atrace marks go through the same path as text lines,
// its FrameTimeline is kept for when the marks hold no vsync signal.
bool CaptureParser::readPerfettoTrace(std::string* error) {
    mPerfetto = true;
    PerfettoTrace trace;
    const ReadBytes read = [this](uint8_t* out, size_t size, std::string* readError) {
        return mLines.readBytes(out, size, readError);
    };
    if (!readPerfetto(read, mCapture.path, &trace, error)) return false;
    mCapture.lines = trace.packets;
    mCapture.unit = "packets";
    EventLine e;
    e.event = "print";
    for (PerfettoTrace::Mark& m : trace.marks) {
        const auto name = trace.threadNames.find(m.tid);
        e.task = name == trace.threadNames.end() ? "" : name->second;
        e.tid = m.tid;
        e.payload = std::move(m.text);
        if (!event(e, m.time, error)) return false;
    }
    for (const PerfettoTrace::DisplayFrame& d : trace.displayFrames) {
        if (!keep(sizeof(SimTime), error)) return false;
        time(d.time);
        ++mEvents;
        mDisplayFrames[d.pid].push_back(d.time);
    }
    for (PerfettoTrace::SurfaceFrame& f : trace.surfaceFrames) {
        time(f.time);
        ++mEvents;
        static const std::string kTx = "TX - ";
        const std::string layer = f.layer.rfind(kTx, 0) == 0 ? f.layer.substr(kTx.size()) : f.layer;
        if (!keep(sizeof(SimTime) + (mSurfaceFrames.count(layer) ? 0 : layer.size() + 96), error)) {
            return false;
        }
        auto& [pid, times] = mSurfaceFrames[layer];
        pid = f.pid;
        times.push_back(f.time);
    }
    // A process's own name (its command line) says more than its main thread's.
    for (const auto& [pid, name] : trace.processNames) mTaskNames[pid] = name;
    if (trace.zstdBundles > 0) {
        mCapture.notes.push_back(std::to_string(trace.zstdBundles) +
                                 " zstd-compressed bundles of packets, not read (record without "
                                 "compression)");
    }
    if (trace.unreadEvents > 0) {
        mCapture.notes.push_back(std::to_string(trace.unreadEvents) +
                                 " events left out (a clock without a conversion, a track or an "
                                 "interned name the trace does not describe)");
    }
    return true;
}

// Vsync ticks to refresh rates: each interval is rounded to a known rate; a
// rate counts from the first of kRateRun intervals in a row that show it, so
// an idle gap or a missed vsync does not read as a change.
void CaptureParser::findRefresh(const std::vector<SimTime>& ticks) {
    std::vector<SimTime> intervals;
    for (size_t i = 1; i < ticks.size(); ++i) intervals.push_back(ticks[i] - ticks[i - 1]);
    if (intervals.empty()) return;
    std::vector<SimTime> sorted = intervals;
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    mCapture.medianPeriodMs = static_cast<double>(sorted[sorted.size() / 2]) / 1e6;
    const auto rateOf = [](SimTime interval) {
        const double hz = 1e9 / static_cast<double>(interval);
        for (double known : kKnownRates) {
            if (std::fabs(hz - known) <= known * 0.03) return known;
        }
        return 0.0;
    };
    double runRate = 0;
    int run = 0;
    SimTime runStart = 0;
    for (size_t i = 0; i < intervals.size(); ++i) {
        const double hz = rateOf(intervals[i]);
        if (hz == 0 || hz != runRate) {
            runRate = hz;
            run = 0;
            runStart = ticks[i] - mStart;
        }
        if (hz == 0 || ++run != kRateRun) continue;
        if (mCapture.refresh.empty()) {
            mCapture.refresh.push_back({0, hz});
        } else if (mCapture.refresh.back().refreshHz != hz) {
            mCapture.refresh.push_back({runStart, hz});
        }
    }
    if (mCapture.refresh.empty()) {
        // No steady known rate: the median spacing, as it is.
        mCapture.refresh.push_back({0, std::round(1e5 / mCapture.medianPeriodMs) / 100});
    }
}

bool CaptureParser::finish(std::string* error) {
    const std::string& path = mCapture.path;
    if (!mPreambleError.empty()) {
        *error = mPreambleError;
        return false;
    }
    if (mEvents == 0 && mPerfetto) {
        *error = path + ": no atrace marks and no FrameTimeline events (" +
                std::to_string(mCapture.lines) + " packets read): record with the gfx category";
        return false;
    }
    if (mEvents == 0) {
        *error = path + ": no ftrace event lines (" + std::to_string(mCapture.lines) +
                " lines read): not a systrace/atrace capture, or an empty one";
        return false;
    }
    if (mSkippedMarks > 0) {
        mCapture.notes.push_back(std::to_string(mSkippedMarks) +
                                 " atrace marks without a name or a value, left out");
    }
    mCapture.duration = mEnd - mStart + 1;
    // The refresh period: the compositor's vsync counters by preference, then
    // the spacing of its composition slices.
    for (const char* counter : kVsyncCounters) {
        for (auto& [key, series] : mCounters) {
            if (key.second != counter || series.times.size() < kRateRun + 1) continue;
            mCapture.compositorPid = key.first;
            mCapture.vsyncSource = std::string("the counter ") + counter + " of pid " +
                    std::to_string(key.first);
            std::sort(series.times.begin(), series.times.end());
            findRefresh(series.times);
            break;
        }
        if (mCapture.compositorPid >= 0) break;
    }
    if (mCapture.compositorPid < 0) {
        for (const char* slice : kCompositionSlices) {
            for (auto& [key, times] : mSlices) {
                if (key.second != slice || times.size() < kRateRun + 1) continue;
                mCapture.compositorPid = key.first;
                mCapture.vsyncSource = std::string("the spacing of the slices ") + slice +
                        " of pid " + std::to_string(key.first);
                std::sort(times.begin(), times.end());
                findRefresh(times);
                break;
            }
            if (mCapture.compositorPid >= 0) break;
        }
    }
    if (mCapture.compositorPid < 0) {
        // FrameTimeline's display frames: one per composition, so their
        // spacing is a multiple of the period and the shortest steady one is
        // the period. The panel's own rate changes are not in them.
        int pid = -1;
        for (const auto& [p, times] : mDisplayFrames) {
            if (times.size() >= kRateRun + 1 && (pid < 0 || times.size() > mDisplayFrames[pid].size())) {
                pid = p;
            }
        }
        if (pid >= 0) {
            std::vector<SimTime>& times = mDisplayFrames[pid];
            std::sort(times.begin(), times.end());
            mCapture.compositorPid = pid;
            mCapture.vsyncSource = "the shortest steady spacing of the FrameTimeline display "
                                   "frames of pid " + std::to_string(pid);
            findRefresh(times);
            double hz = 0;
            for (const RefreshChange& r : mCapture.refresh) hz = std::max(hz, r.refreshHz);
            mCapture.refresh.assign(1, {0, hz});
        }
    }
    if (mCapture.compositorPid < 0) {
        *error = path + ": no vsync signal: no compositor counter HW_VSYNC_0, VSYNC-sf, VSYNC "
                        "or VSYNC-app and no composition slices (onMessageRefresh, "
                        "handleMessageRefresh, composite, onMessageReceived, handlePageFlip)" +
                (mPerfetto ? std::string(" and no FrameTimeline display frames") : "") +
                "; capture with the gfx category";
        return false;
    }
    const int sf = mCapture.compositorPid;
    // The layers' queued-buffer counters in the compositor's process.
    std::map<std::string, std::vector<SimTime>> counterLayers;
    for (auto& [key, series] : mCounters) {
        if (key.first != sf || !isLayerCounter(key.second) || series.times.empty()) continue;
        std::sort(series.times.begin(), series.times.end());
        counterLayers[layerOfCounter(key.second)] = series.times;
    }
    // Without such counters, FrameTimeline's surface frames that carried a
    // buffer are each layer's buffers (an app's queueBuffer slices would
    // count the same buffers again).
    if (counterLayers.empty() && !mSurfaceFrames.empty()) {
        mQueueBuffers.clear();
        for (auto& [name, frames] : mSurfaceFrames) {
            auto& [pid, times] = frames;
            std::sort(times.begin(), times.end());
            Capture::Layer layer{name, {}, "its FrameTimeline surface frames with a buffer (pid " +
                                                   std::to_string(pid) + ")"};
            for (SimTime t : times) layer.buffers.push_back(t - mStart);
            mCapture.layers.push_back(std::move(layer));
        }
    }
    // Each app process's queueBuffer slices go to the layer whose counter
    // rises right after most of them.
    std::map<std::string, int> layerPid;
    for (auto& [pid, times] : mQueueBuffers) {
        if (pid == sf) continue;
        std::sort(times.begin(), times.end());
        std::map<std::string, int> votes;
        for (const auto& [layer, rises] : counterLayers) {
            for (SimTime q : times) {
                const auto it = std::lower_bound(rises.begin(), rises.end(), q);
                if (it != rises.end() && *it - q <= kMatchWindow) ++votes[layer];
            }
        }
        std::string best;
        for (const auto& [layer, n] : votes) {
            if (best.empty() || n > votes[best]) best = layer;
        }
        const std::string task = mTaskNames.count(pid) ? mTaskNames[pid] : "";
        if (best.empty() || layerPid.count(best)) {
            best = "queueBuffer of pid " + std::to_string(pid) + (task.empty() ? "" : " " + task);
        }
        layerPid[best] = pid;
        Capture::Layer layer{best, {}, "the queueBuffer slices of pid " + std::to_string(pid)};
        for (SimTime q : times) layer.buffers.push_back(q - mStart);
        mCapture.layers.push_back(std::move(layer));
    }
    for (const auto& [name, rises] : counterLayers) {
        if (layerPid.count(name)) continue;
        Capture::Layer layer{name, {}, "its queued-buffer counter in the compositor"};
        for (SimTime r : rises) layer.buffers.push_back(r - mStart);
        mCapture.layers.push_back(std::move(layer));
    }
    if (mCapture.layers.empty()) {
        *error = path + ": no layer with buffers: no queued-buffer counter in the compositor "
                        "(pid " + std::to_string(sf) + ") and no app queueBuffer slices";
        return false;
    }
    std::stable_sort(mCapture.layers.begin(), mCapture.layers.end(),
                     [](const Capture::Layer& a, const Capture::Layer& b) {
                         return a.buffers.size() > b.buffers.size();
                     });
    return true;
}

std::string formatMs(SimTime t) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f ms", static_cast<double>(t) / 1e6);
    return text;
}

} // namespace

bool readCapture(const std::string& path, Capture* capture, std::string* error, int64_t maxKept) {
    return CaptureParser(capture, maxKept).read(path, error);
}

bool captureScenario(const Capture& capture, const CapturePlay& play, Scenario* scenario,
                     std::string* error) {
    Scenario& s = *scenario;
    s.path = capture.path;
    s.name = std::filesystem::path(capture.path).filename().string();
    s.duration = capture.duration;
    s.display.width = play.width;
    s.display.height = play.height;
    s.display.refreshHz = capture.refresh.front().refreshHz;
    s.display.refreshChanges.assign(capture.refresh.begin() + 1, capture.refresh.end());
    char text[256];
    snprintf(text, sizeof(text), "capture: %lld %s, %s; refresh from %s (median spacing %.3f ms)",
             static_cast<long long>(capture.lines), capture.unit.c_str(),
             formatMs(capture.duration).c_str(),
             capture.vsyncSource.c_str(), capture.medianPeriodMs);
    s.description = text;
    std::vector<std::string>& a = s.assumptions;
    for (const RefreshChange& r : capture.refresh) {
        snprintf(text, sizeof(text), "read: %g Hz from %s", r.refreshHz, formatMs(r.at).c_str());
        a.push_back(text);
    }
    for (const std::string& note : capture.notes) a.push_back("read: " + note);
    // A capture is held to the bounds of a scenario file: a vsync signal
    // whose ticks share a timestamp, or a span of years, would make a run
    // that never ends.
    for (const RefreshChange& r : capture.refresh) {
        if (r.refreshHz >= kMinRefreshHz && r.refreshHz <= kMaxRefreshHz) continue;
        snprintf(text, sizeof(text), "a refresh rate of %g Hz (median spacing %.3f ms)",
                 r.refreshHz, capture.medianPeriodMs);
        *error = capture.path + ": " + text + " from " + capture.vsyncSource +
                ": not a panel's rate (1 to 1000 Hz)";
        return false;
    }
    const SimTime period = vsyncPeriodOf(s.display.refreshHz);
    for (const Capture::Layer& c : capture.layers) {
        LayerSpec layer;
        layer.name = c.name;
        layer.areas.push_back({0, static_cast<float>(s.display.screenArea())});
        layer.visible.push_back({c.buffers.front(),
                                 std::min(c.buffers.back() + period, s.duration)});
        FrameTimes& times = layer.frames.emplace().times.emplace();
        times.inlineTimes = c.buffers;
        times.count = static_cast<int64_t>(c.buffers.size());
        times.first = c.buffers.front();
        times.last = c.buffers.back();
        a.push_back("read: layer " + c.name + ": " + std::to_string(c.buffers.size()) +
                    " buffers from " + c.source);
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
                std::to_string(play.height) + (play.displayGiven ? " (--display)" : " (--display to change)") +
                "; every layer covers the whole screen, none has input focus, each is on "
                "screen from its first buffer to one vsync after its last");
    if (!play.rules.empty()) {
        s.listMode = true;
        s.rules.path = play.rules;
        a.push_back("rules: " + play.rules);
        return true;
    }
    s.listMode = false;
    const LayerSpec* target = nullptr;
    for (const LayerSpec& l : s.layers) {
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
        root["rules"] = std::filesystem::absolute(s.rules.path)
                                .lexically_relative(dir)
                                .string();
    }
    root["layers"] = Json::Value(Json::arrayValue);
    for (const LayerSpec& l : s.layers) {
        Json::Value layer;
        layer["name"] = l.name;
        layer["screen_percent"] = 100;
        for (const Window& w : l.visible) {
            Json::Value span(Json::arrayValue);
            span.append(ms(w.from));
            span.append(ms(w.to));
            layer["visible"].append(span);
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
