#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace android::tools::sim {

// Times are nanoseconds from the start of the scenario.
using SimTime = int64_t;

// [from, to): a half-open span of scenario time.
struct Window {
    SimTime from = 0;
    SimTime to = 0;
    bool contains(SimTime t) const { return t >= from && t < to; }
};

bool inAnyWindow(const std::vector<Window>& windows, SimTime t);

// A rule file: a path, or the text of a rule file given inline in the scenario.
struct RuleSource {
    std::string path;
    std::string text;
    bool isInline() const { return path.empty(); }
};

struct RefreshChange {
    SimTime at = 0;
    double refreshHz = 0;
};

struct PanelScript {
    uint32_t width = 0;
    uint32_t height = 0;
    double refreshHz = 0;
    std::vector<RefreshChange> refreshChanges;
    uint32_t screenArea() const { return width * height; }
};

// A layer's area from a given time on.
struct AreaChange {
    SimTime at = 0;
    float area = 0;
};

// Measured frame times: given inline or read from a column of a text file
// (plain or gzip). A file is read twice, once to check it when the scenario
// is read and once while it plays, never held in memory.
struct FrameTimes {
    std::vector<SimTime> inlineTimes; // "times_ms", already shifted
    std::string file;                 // resolved path; empty for inline times
    std::string column;               // a column's header name; empty: by index
    size_t columnIndex = 0;
    double nanosPerUnit = 1e6; // "unit": ms by default
    SimTime offset = 0;        // "offset_ms", may be negative
    // Found when the scenario is read.
    int64_t count = 0;
    SimTime first = 0;
    SimTime last = 0;
};

// Buffers queued while the layer is visible: at a steady rate, or at
// measured times (`times`; then fps is 0).
struct FrameScript {
    double fps = 0;
    std::optional<FrameTimes> times;
    SimTime phase = 0;  // offset of the first frame from the start of a visible window
    SimTime jitter = 0; // each frame moves by up to this much, either way
    std::vector<Window> pauses;
};

struct LayerScript {
    std::string name;
    SimTime registeredAt = 0;
    std::optional<SimTime> destroyedAt;
    std::vector<Window> visible;   // already limited to the registered span
    std::vector<AreaChange> areas; // first entry at registeredAt
    std::vector<Window> focused;
    bool hasBuffer = true;
    int bufferCount = 1;
    bool pendingBufferHint = false;
    std::optional<FrameScript> frames;

    float areaAt(SimTime t) const;
};

// Something the compositor does at a point in time besides compositing.
struct Event {
    enum class Kind {
        SetHasOtherUI,
        SetHasPendingBuffer,
        SetSFInProgress,
        SetPreviousPresentFence,
        SetTargetLayer,
        SetPeltoEnable,
        ReloadRules,
    };
    SimTime at = 0;
    Kind kind = Kind::SetHasOtherUI;
    bool flag = false;
    std::string layer; // empty: no layer (a null pointer)
    RuleSource rules;
    std::string key; // where it is in the scenario, for messages
};

struct Expectation {
    enum class Kind {
        StateAt,         // at `at`: state (and reason) as given
        StateThroughout, // the state holds over [from, to)
        HwcAt,           // at `at`: the HWC mode is on/off
        ActiveTargetAt,  // at `at`: the library's active target layer
        Q2QFpsAt,        // at `at`: the last traced Q2Q fps lies in [min, max]
        Q2QFullAt,       // at `at`: isQ2QFull() answered as given
        HwcTogglesAtMost,
        HwcTogglesAtLeast,
        VsyncCallbacksAtLeast,
        VsyncCallbacksAtMost,
        Q2QFullShareAtLeast,
        Q2QFullShareAtMost,
    };
    Kind kind = Kind::StateAt;
    std::string key; // "expect[2]"
    std::string why; // the scenario's own words for it, if any
    SimTime at = 0;
    Window window;
    int32_t state = 0;
    std::optional<int32_t> reason;
    bool flag = false; // hwc: on; q2q_full: the answer
    std::string layer;
    int64_t min = 0;
    int64_t max = 0;
    int64_t count = 0;
    double share = 0;
};

// What a capture showed, for the JSON report.
struct CaptureFacts {
    std::string refreshSource;
    bool refreshTrusted = true;
    bool refreshGiven = false; // --refresh-hz
    bool vsyncSparse = false;
    std::vector<std::string> warnings;
    struct Layer {
        std::string name;
        std::string source;
        int64_t buffers = 0;
        double fps = 0;             // buffers a second between its first and last
        bool geometryGiven = false; // --layer; else full screen, no focus, on while it queues
    };
    std::vector<Layer> layers;
    std::string target; // API mode
    // What the run's figures rest on that the capture does not show: each
    // assumption, with the figures it bears on.
    struct Assumed {
        std::string what;
        std::vector<std::string> figures;
    };
    std::vector<Assumed> assumedFor;
};

struct Scenario {
    std::string path;
    std::string name;
    std::string description;
    SimTime duration = 0;
    uint64_t seed = 0;
    PanelScript display;
    bool listMode = true;
    RuleSource rules;
    std::vector<LayerScript> layers;
    std::vector<Event> events;
    std::vector<Window> forceOff;
    std::vector<Expectation> expectations;
    // What a scenario made from a device capture assumes where the capture
    // is silent; printed at the top of the run.
    std::vector<std::string> assumptions;
    std::optional<CaptureFacts> capture;

    const LayerScript* findLayer(const std::string& name) const;
};

} // namespace android::tools::sim
