#include "tools/sim/CaptureReader.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

#include "tools/sim/FtraceLine.h"
#include "tools/sim/LineReader.h"
#include "tools/sim/PerfettoReader.h"
#include "tools/sim/ScenarioReader.h"
#include "tools/sim/Schedule.h"

namespace android::tools::sim {
namespace {

// Vsync counters of the compositor after HW_VSYNC_<display>, most direct
// first. Since Android 11 they tick only on the vsyncs something was
// scheduled for, so they may show the content's rate rather than the panel's.
constexpr const char* kVsyncCounters[] = {"VSYNC-sf", "VSYNC", "VSYNC-app"};
// The compositor's counters of the panel's mode, in frames a second: the
// rate the composer applied first.
constexpr const char* kModeCounters[] = {"ActiveModeFPS_HWC", "ActiveModeFPS",
                                         "ActiveConfigFPS_HWC", "ActiveConfigFPS"};
// Slices the compositor begins once per composition, for a capture without
// vsync counters; newer releases add the vsync id ("commit 1234").
constexpr const char* kCompositionSlices[] = {"onMessageRefresh", "handleMessageRefresh",
                                              "composite",        "onMessageReceived",
                                              "handlePageFlip",   "commit"};
// Refresh rates a measured period is rounded to when it is within 3 %.
constexpr double kKnownRates[] = {24, 25, 30, 48, 50, 60, 72, 75, 90, 96, 100, 120, 144, 165, 240};
// A new rate counts once this many vsync intervals in a row show it; inside
// a resync window of the hardware vsync, fewer do, as each tick is a vsync.
constexpr int kRateRun = 6;
constexpr int kHwRateRun = 3;
// A signal that ticks on fewer than this share of the vsyncs its rate makes
// ticks only when there is work.
constexpr double kDenseShare = 0.75;
// An app's queueBuffer is matched to the layer counter that rises within this.
constexpr SimTime kMatchWindow = 20'000'000;
// How far back a text capture's time may step from one line to the next:
// ftrace text merges per-CPU buffers, which leaves small steps back; a
// larger one is a capture pieced together or cut, not one recording.
constexpr SimTime kMaxStepBack = 1'000'000;

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

bool allDigits(const std::string& text, size_t from) {
    return from < text.size() &&
            std::all_of(text.begin() + static_cast<long>(from), text.end(),
                        [](char c) { return c >= '0' && c <= '9'; });
}

// HW_VSYNC_<physical display id> (HW_VSYNC_0 before Android 11).
bool isHwVsync(const std::string& name) {
    return startsWith(name, "HW_VSYNC_") && allDigits(name, 9);
}

bool isModeCounter(const std::string& name) {
    return std::any_of(std::begin(kModeCounters), std::end(kModeCounters),
                       [&](const char* m) { return startsWith(name, m); });
}

// A counter that toggles once per vsync it shows.
bool isVsyncCounter(const std::string& name) {
    return isHwVsync(name) ||
            std::any_of(std::begin(kVsyncCounters), std::end(kVsyncCounters),
                        [&](const char* v) { return name == v; });
}

// The compositor's counters that cannot be a layer's queued buffers.
bool isLayerCounter(const std::string& name) {
    static const char* kNotLayers[] = {"VSYNC", "HW_VSYNC", "Pelto", "HwcPeltoMode"};
    for (const char* prefix : kNotLayers) {
        if (startsWith(name, prefix)) return false;
    }
    return !isModeCounter(name) && name.find("FrameMissed") == std::string::npos;
}

// A layer's name ends in "#<sequence>" ("StatusBar#74", "...(BLAST)#1077").
bool layerLikeName(const std::string& name) {
    const size_t hash = name.rfind('#');
    return hash != std::string::npos && hash > 0 && allDigits(name, hash + 1);
}

// A slice name without the vsync id newer releases add.
std::string sliceName(const std::string& name) {
    const size_t space = name.rfind(' ');
    return space != std::string::npos && allDigits(name, space + 1) ? name.substr(0, space) : name;
}

struct BufferSignal;
struct Rise;

// A list as "a, b, c".
std::string joined(const std::vector<std::string>& list) {
    std::string out;
    for (const std::string& item : list) out += (out.empty() ? "" : ", ") + item;
    return out;
}

struct Series {
    std::vector<SimTime> times;
    int64_t last = 0;
    std::string zeroAt; // where a tick first came at the time of the one before
};

class CaptureParser {
public:
    CaptureParser(Capture* capture, int64_t maxKept) : mCapture(*capture), mMaxKept(maxKept) {}

    bool read(const std::string& path, std::string* error);

private:
    bool line(std::string text, std::string* error);
    bool preamble(const std::string& text, size_t start, std::string* error);
    bool event(const EventLine& e, SimTime t, std::string* error);
    bool inOrder(SimTime t, std::string* error);
    void time(SimTime t);
    bool mark(const EventLine& e, SimTime t, std::string* error);
    // A mark that cannot be read: in text, a line cut short (an error); in a
    // Perfetto trace, an app's odd mark (skipped and counted).
    bool badMark(const std::string& what, const std::string& payload, std::string* error);
    bool readPerfettoTrace(std::string* error);
    bool keep(size_t bytes, std::string* error);
    std::string where() const;
    bool finish(std::string* error);
    std::vector<RefreshChange> readRates(const std::vector<SimTime>& ticks, int run,
                                         double* medianMs) const;
    bool dense(const std::vector<SimTime>& ticks, const std::vector<RefreshChange>& rates) const;
    void workRates(std::vector<SimTime>& ticks, int pid, const std::string& what,
                   const std::string& zeroAt = {});
    bool findRefresh();
    std::vector<RefreshChange> readModes(bool ofPid, std::string* name, int* pid) const;
    void hwRefresh(const std::vector<SimTime>& hwTicks, std::vector<RefreshChange> hwRates,
                   const std::string& hwName, int hwPid,
                   const std::vector<RefreshChange>& modeRates, const std::string& modeName,
                   int modePid);
    bool workSignalRefresh();
    bool findLayers(std::string* error);
    // Producer threads no counter follows: (tid, its queueBuffer times) by pid.
    using Producers = std::map<int, std::vector<std::pair<int, std::vector<SimTime>>>>;
    std::vector<BufferSignal> bufferSignals();
    void surfaceFrameLayers();
    Producers matchProducers(std::vector<BufferSignal>& signals, const std::vector<Rise>& rises);
    void addLayer(Capture::Layer layer, std::set<std::string>* named);
    void signalLayers(std::vector<BufferSignal>& signals, std::set<std::string>* named);
    void producerLayers(const Producers& unmatched, std::set<std::string>* named);
    void noteFrameTimeline();

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
    std::string mPreambleError; // about the first of them, until then
    bool mHaveStart = false;
    SimTime mStart = 0; // absolute ns of the first event
    SimTime mEnd = 0;
    SimTime mLatest = 0;     // of a text capture: the latest time so far ...
    int64_t mLatestLine = 0; // ... and its line
    int64_t mEvents = 0;
    std::map<std::pair<int, std::string>, Series> mCounters;             // (pid, name)
    std::map<std::pair<int, std::string>, std::vector<SimTime>> mSlices; // composition slices
    std::map<std::pair<int, int>, std::vector<SimTime>> mQueueBuffers;   // by (pid, tid)
    std::map<int, std::string> mTaskNames;                               // pid -> its main thread
    std::map<int, std::string> mThreadNames; // tid of a producer -> name
    // The panel mode counters' values, at each change, by (pid, name).
    std::map<std::pair<int, std::string>, std::vector<RefreshChange>> mModes;
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
            *error = mCapture.path +
                    ": compressed by atrace -z (zlib after \"TRACE:\"): "
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
    if (text.compare(start, 4, "CPU:") == 0) return true; // "CPU:3 [LOST 12 EVENTS]"
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
    const SimTime t = std::llround(e.seconds * 1e9);
    return inOrder(t, error) && event(e, t, error);
}

// A text capture's lines are in time order, but for small steps back.
bool CaptureParser::inOrder(SimTime t, std::string* error) {
    if (mEvents > 0 && t < mLatest - kMaxStepBack) {
        char text[200];
        snprintf(text, sizeof(text),
                 "time %.6f s is %.3f ms before %.6f s on line %lld: the lines are out of time "
                 "order (more than 1 ms back), not one recording",
                 static_cast<double>(t) / 1e9, static_cast<double>(mLatest - t) / 1e6,
                 static_cast<double>(mLatest) / 1e9, static_cast<long long>(mLatestLine));
        *error = mLines.where() + text;
        return false;
    }
    if (mEvents == 0 || t >= mLatest) {
        mLatest = t;
        mLatestLine = mLines.lineNumber();
    }
    return true;
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
            if (!mThreadNames.count(e.tid)) {
                if (!keep(e.task.size() + 64, error)) return false;
                mThreadNames[e.tid] = e.task;
            }
            mQueueBuffers[{pid, e.tid}].push_back(t);
        }
        const std::string bare = sliceName(name);
        for (const char* slice : kCompositionSlices) {
            if (bare != slice) continue;
            if (!keep(sizeof(SimTime), error)) return false;
            mSlices[{pid, bare}].push_back(t);
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
    if (isModeCounter(name)) {
        std::vector<RefreshChange>& modes = mModes[key];
        if (modes.empty() || modes.back().refreshHz != static_cast<double>(value)) {
            if (!keep(sizeof(RefreshChange), error)) return false;
            modes.push_back({t, static_cast<double>(value)});
        }
    }
    const bool vsync = isVsyncCounter(name);
    // A vsync counter toggles once per vsync; a layer's counter rises once per buffer.
    if (vsync ? value != series.last || series.times.empty() : value > series.last) {
        if (!keep(sizeof(SimTime), error)) return false;
        if (vsync && !mPerfetto && series.zeroAt.empty() && !series.times.empty() &&
            series.times.back() == t) {
            if (!keep(mLines.where().size(), error)) return false;
            series.zeroAt = mLines.where();
        }
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
    *error = where() + "more than " + limit +
            " of vsync ticks, slices, buffers and names to keep: too large a capture to play";
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
// rate counts from the first of `run` intervals in a row that show it, so
// an idle gap or a missed vsync does not read as a change. Times from the
// capture's start; empty when no rate is steady.
std::vector<RefreshChange> CaptureParser::readRates(const std::vector<SimTime>& ticks, int run,
                                                    double* medianMs) const {
    std::vector<RefreshChange> rates;
    std::vector<SimTime> intervals;
    for (size_t i = 1; i < ticks.size(); ++i) intervals.push_back(ticks[i] - ticks[i - 1]);
    if (intervals.empty()) return rates;
    std::vector<SimTime> sorted = intervals;
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    *medianMs = static_cast<double>(sorted[sorted.size() / 2]) / 1e6;
    const auto rateOf = [](SimTime interval) {
        const double hz = 1e9 / static_cast<double>(interval);
        for (double known : kKnownRates) {
            if (std::fabs(hz - known) <= known * 0.03) return known;
        }
        return 0.0;
    };
    double runRate = 0;
    int length = 0;
    SimTime runStart = 0;
    for (size_t i = 0; i < intervals.size(); ++i) {
        const double hz = intervals[i] > 0 ? rateOf(intervals[i]) : 0;
        if (hz == 0 || hz != runRate) {
            runRate = hz;
            length = 0;
            runStart = ticks[i] - mStart;
        }
        if (hz == 0 || ++length != run) continue;
        if (rates.empty()) {
            rates.push_back({0, hz});
        } else if (rates.back().refreshHz != hz) {
            rates.push_back({runStart, hz});
        }
    }
    return rates;
}

// Whether ticks come on every vsync: on at least kDenseShare of the vsyncs
// their rates make between the first and the last, and with no rate a whole
// multiple of another (24 Hz runs between 120 Hz ones: a 120 Hz panel ticked
// on every fifth vsync) and none below 48 Hz, which few panels run at.
bool CaptureParser::dense(const std::vector<SimTime>& ticks,
                          const std::vector<RefreshChange>& rates) const {
    if (ticks.size() < 2 || rates.empty()) return true;
    const SimTime first = ticks.front() - mStart;
    const SimTime last = ticks.back() - mStart;
    double expected = 0;
    std::set<double> seen; // of the known rates only
    for (size_t i = 0; i < rates.size(); ++i) {
        const SimTime from = std::max(first, rates[i].at);
        const SimTime to = std::min(last, i + 1 < rates.size() ? rates[i + 1].at : last);
        if (to > from) expected += static_cast<double>(to - from) / 1e9 * rates[i].refreshHz;
        seen.insert(rates[i].refreshHz);
    }
    for (double low : seen) {
        if (low < 48) return false;
        for (double high : seen) {
            const double ratio = high / low;
            if (ratio > 1.5 && std::fabs(ratio - std::round(ratio)) <= 0.03 * ratio) return false;
        }
    }
    return static_cast<double>(ticks.size() - 1) >= kDenseShare * expected;
}

// A signal that ticks when the compositor has work: when it ticks on most
// vsyncs, its rates as they are; else its fastest steady rate throughout, a
// floor for the panel's, said in the warning.
void CaptureParser::workRates(std::vector<SimTime>& ticks, int pid, const std::string& what,
                              const std::string& zeroAt) {
    std::sort(ticks.begin(), ticks.end());
    mCapture.compositorPid = pid;
    mCapture.vsyncSource = what + " of pid " + std::to_string(pid);
    std::vector<RefreshChange> rates = readRates(ticks, kRateRun, &mCapture.medianPeriodMs);
    if (mCapture.medianPeriodMs == 0) mCapture.zeroPeriodAt = zeroAt;
    if (rates.empty()) {
        // No steady known rate: the median spacing, as it is.
        mCapture.refresh.push_back({0, std::round(1e5 / mCapture.medianPeriodMs) / 100});
        mCapture.refreshTrusted = false;
        mCapture.refreshWarning = what + " shows no steady known rate; the median spacing is taken";
        return;
    }
    if (dense(ticks, rates)) {
        mCapture.refresh = std::move(rates);
        return;
    }
    double hz = 0;
    for (const RefreshChange& r : rates) hz = std::max(hz, r.refreshHz);
    const double span = static_cast<double>(ticks.back() - ticks.front()) / 1e9;
    char text[400];
    snprintf(text, sizeof(text),
             "%s ticks on %zu of the %.0f vsyncs a %g Hz panel makes in %.3f s: it ticks only "
             "when there is work, so %g Hz (its fastest steady rate) is a floor for the panel's "
             "rate; give the panel's with --refresh-hz",
             what.c_str(), ticks.size(), span * hz + 1, hz, span, hz);
    mCapture.refresh.assign(1, {0, hz});
    mCapture.refreshTrusted = false;
    mCapture.vsyncSparse = true;
    mCapture.refreshWarning = text;
}

// The panel's rate: the spacing of the hardware vsync inside the windows
// where the compositor re-syncs its model to it, with the mode counter's
// changes; else a signal that ticks when there is work (see workRates).
bool CaptureParser::findRefresh() {
    const Series* hw = nullptr;
    int hwPid = -1;
    std::string hwName;
    for (const auto& [key, series] : mCounters) {
        if (!isHwVsync(key.second) || (hw != nullptr && series.times.size() <= hw->times.size())) {
            continue;
        }
        hw = &series;
        hwPid = key.first;
        hwName = key.second;
    }
    std::vector<RefreshChange> hwRates;
    std::vector<SimTime> hwTicks;
    if (hw != nullptr && hw->times.size() > kHwRateRun) {
        hwTicks = hw->times;
        std::sort(hwTicks.begin(), hwTicks.end());
        hwRates = readRates(hwTicks, kHwRateRun, &mCapture.medianPeriodMs);
    }
    std::string modeName;
    int modePid = hw != nullptr ? hwPid : -1;
    const std::vector<RefreshChange> modeRates = readModes(hw != nullptr, &modeName, &modePid);
    if (!hwRates.empty() || !modeRates.empty()) {
        hwRefresh(hwTicks, hwRates, hwName, hwPid, modeRates, modeName, modePid);
        return true;
    }
    if (workSignalRefresh()) return true;
    if (!hwTicks.empty()) {
        workRates(hwTicks, hwPid, "the counter " + hwName, hw->zeroAt);
        return true;
    }
    return false;
}

// The mode counter's rates, from the capture's start: of the compositor
// (*pid) when `ofPid`, else the one with the most changes; empty without one.
std::vector<RefreshChange> CaptureParser::readModes(bool ofPid, std::string* name, int* pid) const {
    const std::vector<RefreshChange>* modes = nullptr;
    for (const char* prefix : kModeCounters) {
        for (const auto& [key, values] : mModes) {
            if (!startsWith(key.second, prefix) || (ofPid && key.first != *pid)) continue;
            if (modes == nullptr || values.size() > modes->size()) {
                modes = &values;
                *name = key.second;
                *pid = key.first;
            }
        }
        if (modes != nullptr) break;
    }
    std::vector<RefreshChange> rates;
    if (modes == nullptr) return rates;
    for (const RefreshChange& m : *modes) {
        if (m.refreshHz < 1 || m.refreshHz > 1000) continue; // 0 while the display is off
        rates.push_back({m.at - mStart, m.refreshHz});
    }
    std::stable_sort(rates.begin(), rates.end(),
                     [](const RefreshChange& a, const RefreshChange& b) { return a.at < b.at; });
    return rates;
}

// The rate from the hardware vsync's resync windows and the mode counter.
void CaptureParser::hwRefresh(const std::vector<SimTime>& hwTicks,
                              std::vector<RefreshChange> hwRates, const std::string& hwName,
                              int hwPid, const std::vector<RefreshChange>& modeRates,
                              const std::string& modeName, int modePid) {
    size_t windows = 0;
    for (size_t i = 0; i < hwTicks.size(); ++i) {
        if (i == 0 || hwTicks[i] - hwTicks[i - 1] > 4 * vsyncPeriodOf(kKnownRates[0])) ++windows;
    }
    std::string source;
    if (!hwRates.empty()) {
        source = "the resync windows of " + hwName + " (pid " + std::to_string(hwPid) + ": " +
                std::to_string(windows) + " windows, " + std::to_string(hwTicks.size()) +
                " vsyncs)";
    }
    if (!modeRates.empty()) {
        // Before the mode counter's first change: the rate the windows
        // showed then, else its first value.
        double before = modeRates.front().refreshHz;
        for (const RefreshChange& r : hwRates) {
            if (r.at < modeRates.front().at) before = r.refreshHz;
        }
        std::vector<RefreshChange> rates{{0, before}};
        for (const RefreshChange& m : modeRates) {
            if (m.at == rates.back().at) {
                rates.back().refreshHz = m.refreshHz; // the last of one instant
            } else if (m.refreshHz != rates.back().refreshHz) {
                rates.push_back(m);
            }
        }
        hwRates = std::move(rates);
        source += (source.empty() ? "" : " and ") + std::string("the counter ") + modeName +
                " of pid " + std::to_string(modePid);
        if (hwPid < 0) hwPid = modePid;
    }
    mCapture.compositorPid = hwPid;
    mCapture.vsyncSource = source;
    mCapture.refresh = std::move(hwRates);
}

// The rate from a signal that ticks when the compositor has work: its vsync
// counters, its composition slices, then FrameTimeline's display frames.
bool CaptureParser::workSignalRefresh() {
    for (const char* counter : kVsyncCounters) {
        for (auto& [key, series] : mCounters) {
            if (key.second != counter || series.times.size() < kRateRun + 1) continue;
            workRates(series.times, key.first, std::string("the counter ") + counter,
                      series.zeroAt);
            return true;
        }
    }
    for (const char* slice : kCompositionSlices) {
        for (auto& [key, times] : mSlices) {
            if (key.second != slice || times.size() < kRateRun + 1) continue;
            workRates(times, key.first, std::string("the spacing of the slices ") + slice);
            return true;
        }
    }
    // FrameTimeline's display frames: one per composition, so their spacing
    // is a multiple of the period and the shortest steady one is the period.
    // The panel's own rate changes are not in them.
    int pid = -1;
    for (const auto& [p, times] : mDisplayFrames) {
        if (times.size() >= kRateRun + 1 &&
            (pid < 0 || times.size() > mDisplayFrames[pid].size())) {
            pid = p;
        }
    }
    if (pid < 0) return false;
    workRates(mDisplayFrames[pid], pid, "the FrameTimeline display frames");
    mCapture.vsyncSource = "the shortest steady spacing of " + mCapture.vsyncSource;
    double hz = 0;
    for (const RefreshChange& r : mCapture.refresh) hz = std::max(hz, r.refreshHz);
    mCapture.refresh.assign(1, {0, hz});
    return true;
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
    if (!findRefresh()) {
        *error = path +
                ": no vsync signal: no compositor counter HW_VSYNC_<display>, VSYNC-sf, "
                "VSYNC or VSYNC-app and no composition slices (onMessageRefresh, "
                "handleMessageRefresh, composite, onMessageReceived, handlePageFlip, "
                "commit)" +
                (mPerfetto ? std::string(" and no FrameTimeline display frames") : "") +
                "; capture with the gfx category";
        return false;
    }
    return findLayers(error);
}

// A signal of a layer's buffers: a counter that rises once per buffer.
struct BufferSignal {
    enum Kind { kBufferTx, kLayerCounter, kOtherCounter, kAppCounter };
    std::string layer;
    std::string counter;
    int pid = 0;
    Kind kind = kOtherCounter;
    const std::vector<SimTime>* rises = nullptr;
    std::vector<SimTime> producerTimes; // the queueBuffer slices matched to it
    std::vector<std::string> producers;
    std::set<int> producerPids;
    std::string appCounter; // an app's QueuedBuffer counter matched to it
    bool absorbed = false;  // an app counter matched to a compositor's
};

// One rise of a signal's counter.
struct Rise {
    SimTime t;
    size_t signal;
    bool operator<(const Rise& o) const { return t < o.t; }
};
// A time votes for the first this many rises within kMatchWindow after it,
// so hostile counts of counters rising together cost bounded time.
constexpr int kMaxRisesAfter = 32;

// The signal, among those `eligible`, whose counter rises within
// kMatchWindow after at least half of `times`: the one after the most, then
// a layer's signal before another counter, then the shortest delays; -1
// when none. `rises` holds every signal's rises in time order.
template <typename Eligible>
int matchSignal(const std::vector<SimTime>& times, const std::vector<Rise>& rises,
                const std::vector<BufferSignal>& signals, Eligible&& eligible) {
    std::map<size_t, std::pair<size_t, SimTime>> votes; // signal -> (times, their delays)
    std::vector<size_t> voted;
    for (SimTime q : times) {
        voted.clear();
        auto it = std::lower_bound(rises.begin(), rises.end(), Rise{q, 0});
        for (int n = 0; it != rises.end() && it->t - q <= kMatchWindow && n < kMaxRisesAfter;
             ++it, ++n) {
            if (!eligible(signals[it->signal]) ||
                std::find(voted.begin(), voted.end(), it->signal) != voted.end()) {
                continue;
            }
            voted.push_back(it->signal);
            auto& [count, delays] = votes[it->signal];
            ++count;
            delays += it->t - q;
        }
    }
    int winner = -1;
    std::tuple<size_t, bool, SimTime> best;
    for (const auto& [i, vote] : votes) {
        if (2 * vote.first < times.size()) continue;
        const std::tuple<size_t, bool, SimTime> rank{
                vote.first, signals[i].kind != BufferSignal::kOtherCounter, -vote.second};
        if (winner < 0 || rank > best) {
            winner = static_cast<int>(i);
            best = rank;
        }
    }
    return winner;
}

// Each buffer to its layer, in order of trust: the compositor's
// "BufferTX - <layer>" counter, an app's "QueuedBuffer - <name>" counter,
// then the producer thread of queueBuffer slices matched to a counter. A
// compositor counter is a layer only when it carries buffers: a BufferTX
// prefix, a layer's "#N" name, or a producer whose slices it follows.
bool CaptureParser::findLayers(std::string* error) {
    std::vector<BufferSignal> signals = bufferSignals();
    std::vector<Rise> rises;
    for (size_t i = 0; i < signals.size(); ++i) {
        for (SimTime t : *signals[i].rises) rises.push_back({t, i});
    }
    std::stable_sort(rises.begin(), rises.end());
    const bool compositorLayers = std::any_of(
            signals.begin(), signals.end(),
            [](const BufferSignal& s) { return s.kind != BufferSignal::kOtherCounter; });
    // Without such counters, FrameTimeline's surface frames that carried a
    // buffer are each layer's buffers (an app's queueBuffer slices would
    // count the same buffers again).
    const bool frameTimelineLayers = !compositorLayers && !mSurfaceFrames.empty();
    if (frameTimelineLayers) surfaceFrameLayers();
    // An app's counter names the app's side of a compositor layer it precedes.
    for (BufferSignal& app : signals) {
        if (app.kind != BufferSignal::kAppCounter) continue;
        const int w = matchSignal(*app.rises, rises, signals, [](const BufferSignal& s) {
            return s.kind == BufferSignal::kBufferTx || s.kind == BufferSignal::kLayerCounter;
        });
        if (w < 0) continue;
        signals[w].appCounter = app.counter;
        app.absorbed = true;
    }
    const Producers unmatched = matchProducers(signals, rises);
    std::set<std::string> named;
    if (!frameTimelineLayers) signalLayers(signals, &named);
    producerLayers(unmatched, &named);
    if (!mCapture.skippedCounters.empty()) {
        mCapture.notes.push_back(
                std::to_string(mCapture.skippedCounters.size()) +
                " compositor counters not taken for layers (no producer, no BufferTX prefix, no "
                "#N name): " +
                joined(mCapture.skippedCounters));
    }
    if (mCapture.layers.empty()) {
        *error = mCapture.path +
                ": no layer with buffers: no queued-buffer counter in the compositor "
                "(pid " +
                std::to_string(mCapture.compositorPid) + ") and no app queueBuffer slices";
        return false;
    }
    std::stable_sort(mCapture.layers.begin(), mCapture.layers.end(),
                     [](const Capture::Layer& a, const Capture::Layer& b) {
                         return a.buffers.size() > b.buffers.size();
                     });
    if (compositorLayers) noteFrameTimeline();
    return true;
}

// The compositor's counters that may carry a layer's buffers, and the
// apps' QueuedBuffer counters.
std::vector<BufferSignal> CaptureParser::bufferSignals() {
    const int sf = mCapture.compositorPid;
    std::vector<BufferSignal> signals;
    for (auto& [key, series] : mCounters) {
        if (series.times.empty()) continue;
        BufferSignal s;
        s.counter = key.second;
        s.pid = key.first;
        if (key.first == sf && isLayerCounter(key.second)) {
            static const char* kBufferTx = "BufferTX - ";
            const bool tx = startsWith(key.second, kBufferTx);
            s.layer = tx ? key.second.substr(strlen(kBufferTx)) : key.second;
            s.kind = tx                         ? BufferSignal::kBufferTx
                    : layerLikeName(key.second) ? BufferSignal::kLayerCounter
                                                : BufferSignal::kOtherCounter;
        } else if (key.first != sf && startsWith(key.second, "QueuedBuffer - ")) {
            s.layer = key.second.substr(15);
            s.kind = BufferSignal::kAppCounter;
        } else {
            continue;
        }
        if (s.layer.empty()) continue;
        std::sort(series.times.begin(), series.times.end());
        s.rises = &series.times;
        signals.push_back(std::move(s));
    }
    return signals;
}

// Each layer's FrameTimeline surface frames with a buffer are its buffers.
void CaptureParser::surfaceFrameLayers() {
    mQueueBuffers.clear();
    for (auto& [name, frames] : mSurfaceFrames) {
        auto& [pid, times] = frames;
        std::sort(times.begin(), times.end());
        Capture::Layer layer{
                name,
                {},
                "its FrameTimeline surface frames with a buffer (pid " + std::to_string(pid) + ")"};
        for (SimTime t : times) layer.buffers.push_back(t - mStart);
        mCapture.layers.push_back(std::move(layer));
    }
}

// Each producer thread's slices go to the signal that follows them; the
// threads no signal follows, by pid.
CaptureParser::Producers CaptureParser::matchProducers(std::vector<BufferSignal>& signals,
                                                       const std::vector<Rise>& rises) {
    Producers unmatched;
    for (auto& [key, times] : mQueueBuffers) {
        const int pid = key.first;
        const int tid = key.second;
        if (pid == mCapture.compositorPid) continue;
        std::sort(times.begin(), times.end());
        const int w = matchSignal(times, rises, signals, [&](const BufferSignal& s) {
            return !s.absorbed && (s.kind != BufferSignal::kAppCounter || s.pid == pid);
        });
        if (w < 0) {
            unmatched[pid].emplace_back(tid, times);
            continue;
        }
        BufferSignal& s = signals[w];
        s.producerTimes.insert(s.producerTimes.end(), times.begin(), times.end());
        s.producerPids.insert(pid);
        s.producers.push_back(mThreadNames[tid] + " (tid " + std::to_string(tid) + ") of pid " +
                              std::to_string(pid));
    }
    return unmatched;
}

// A layer, unless one of that name came from a more trusted signal.
void CaptureParser::addLayer(Capture::Layer layer, std::set<std::string>* named) {
    if (!named->insert(layer.name).second) return;
    mCapture.layers.push_back(std::move(layer));
}

// A layer for each signal that carries buffers, with where they came from.
void CaptureParser::signalLayers(std::vector<BufferSignal>& signals, std::set<std::string>* named) {
    for (BufferSignal& s : signals) {
        if (s.absorbed) continue;
        std::sort(s.producerTimes.begin(), s.producerTimes.end());
        const std::string producers =
                s.producers.empty() ? "" : "; queued by " + joined(s.producers);
        const std::string app =
                s.appCounter.empty() ? "" : "; the app counts them in " + s.appCounter;
        Capture::Layer layer{s.layer, {}, {}};
        const std::vector<SimTime>* times = s.rises;
        switch (s.kind) {
            case BufferSignal::kBufferTx:
                layer.source = "its BufferTX counter in the compositor" + producers + app;
                break;
            case BufferSignal::kAppCounter:
                layer.source = "the app's counter " + s.counter + " (pid " + std::to_string(s.pid) +
                        ")" + producers;
                break;
            case BufferSignal::kLayerCounter:
            case BufferSignal::kOtherCounter:
                // Before BLAST the app's queueBuffer is the buffer; the
                // compositor's counter only names its layer.
                if (!s.producerTimes.empty()) {
                    times = &s.producerTimes;
                    std::string list;
                    for (int p : s.producerPids)
                        list += (list.empty() ? "" : ", ") + std::to_string(p);
                    layer.source = "the queueBuffer slices of pid " + list + producers + app;
                } else if (s.kind == BufferSignal::kLayerCounter) {
                    layer.source = "its queued-buffer counter in the compositor" + app;
                } else {
                    mCapture.skippedCounters.push_back(s.counter);
                    continue;
                }
                break;
        }
        for (SimTime t : *times) layer.buffers.push_back(t - mStart);
        addLayer(std::move(layer), named);
    }
}

// Producers that no counter follows: one layer a process, or one a thread
// where a process has several.
void CaptureParser::producerLayers(const Producers& unmatched, std::set<std::string>* named) {
    for (const auto& [pid, threads] : unmatched) {
        const std::string task = mTaskNames.count(pid) ? " " + mTaskNames[pid] : "";
        for (const auto& [tid, times] : threads) {
            const std::string thread = mThreadNames[tid] + " (tid " + std::to_string(tid) + ")";
            Capture::Layer layer{"queueBuffer of pid " + std::to_string(pid) + task +
                                         (threads.size() > 1 ? " " + thread : ""),
                                 {},
                                 "the queueBuffer slices of pid " + std::to_string(pid) +
                                         "; queued by " + thread};
            for (SimTime q : times) layer.buffers.push_back(q - mStart);
            addLayer(std::move(layer), named);
        }
    }
}

// A Perfetto trace with both atrace's counters and FrameTimeline: the
// layers' buffers came from atrace; FrameTimeline's count of each layer's
// buffers is named beside it, to compare.
void CaptureParser::noteFrameTimeline() {
    if (mSurfaceFrames.empty() && mDisplayFrames.empty()) return;
    size_t displayFrames = 0;
    for (const auto& [pid, times] : mDisplayFrames) displayFrames += times.size();
    size_t matched = 0;
    for (Capture::Layer& layer : mCapture.layers) {
        const auto it = mSurfaceFrames.find(layer.name);
        if (it == mSurfaceFrames.end()) continue;
        ++matched;
        layer.source += "; FrameTimeline has " + std::to_string(it->second.second.size()) +
                " surface frames with a buffer for it";
    }
    mCapture.notes.push_back("FrameTimeline beside atrace: " + std::to_string(displayFrames) +
                             " display frames and the surface frames of " +
                             std::to_string(mSurfaceFrames.size()) + " layers (" +
                             std::to_string(matched) +
                             " of them among the layers); the panel's rate comes from " +
                             mCapture.vsyncSource + " and the layers' buffers from atrace");
}

} // namespace

bool readCapture(const std::string& path, Capture* capture, std::string* error, int64_t maxKept) {
    return CaptureParser(capture, maxKept).read(path, error);
}

} // namespace android::tools::sim
