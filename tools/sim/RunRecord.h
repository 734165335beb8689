#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/host/LogSink.h"
#include "tools/sim/Scenario.h"
#include "tools/sim/TraceRecorder.h"

namespace android::tools::sim {

// A state change as the library logged it.
struct StateChange {
    SimTime at = 0;
    int32_t from = 0;
    int32_t to = 0;
    int32_t reason = -1;
    std::string cause; // the layers that brought it about, as far as the run can tell
};

// Panel refreshes over the run, by the library's state after each
// composition: on the fixed vsync cadence (one per composition), and as the
// panel would refresh with the library's decisions (see Simulation::composite).
struct RefreshCounts {
    int64_t fixed[3] = {}; // Off, On, Temp Off
    int64_t paced[3] = {};
    int64_t fixedTotal() const { return fixed[0] + fixed[1] + fixed[2]; }
    int64_t pacedTotal() const { return paced[0] + paced[1] + paced[2]; }
};

struct TimedFlag {
    SimTime at = 0;
    bool on = false;
};

struct TimedValue {
    SimTime at = 0;
    int64_t value = 0;
};

struct TimedText {
    SimTime at = 0;
    std::string text;
};

// One line of the printed timeline.
struct TimelineEntry {
    enum class Kind {
        Compositor,   // a call of the compositor into the library
        Screen,       // what the screen shows: layers shown, hidden, resized, focused; forceOff
        State,        // the library's state changes, as it logged them
        Hwc,          // the library's HWC callbacks
        ActiveTarget, // the library's choice of active target
        Q2QFps,       // the library's Q2Q rate counter
        Library,      // other library lines: warnings, errors, reload results
    };
    SimTime at = 0;
    Kind kind = Kind::Compositor;
    std::string text;
};

// One load of a rule file: at the controller's creation, or by a reload event.
struct RuleLoad {
    SimTime at = 0;
    bool atCreation = true;
    std::string file;                  // its path, or "the scenario's inline rules"
    std::string text;                  // what was loaded, for the lint; empty if unreadable
    bool failed = false;               // the loader loaded nothing from it
    std::vector<std::string> problems; // the loader's warnings and errors, as it logged them
};

// Everything a run produced, in time order: what the compositor did, what
// the library answered, logged and traced.
struct RunRecord {
    std::vector<TimelineEntry> timeline;
    std::vector<StateChange> states;
    std::vector<TimedFlag> hwc;           // HWC callbacks: true for on
    std::vector<SimTime> vsyncCallbacks;  // mTriggerVsyncCallback calls
    std::vector<TimedText> activeTargets; // "active target layer: %s"
    std::vector<TimedValue> q2qFps;       // the "Pelto2-Q2QFps" counter, its changes
    std::vector<TimedFlag> q2qFull;       // changes of isQ2QFull() after composite
    // Both keep their first kMaxKeptChanges changes; from the first one they
    // could not keep on (-1: none), what they say is unknown.
    SimTime q2qFpsLostFrom = -1;
    SimTime q2qFullLostFrom = -1;
    int64_t q2qLast = 0; // the last value traced
    int64_t q2qMin = 0;  // over the values above 0
    int64_t q2qMax = 0;
    std::vector<TimedValue> vsyncPeriods; // the display's period from then on
    std::vector<TimedText> reloads;       // the reload's result line
    std::vector<RuleLoad> ruleLoads;      // every load of a rule file, in order
    // Per scenario layer, how the library classified it, from then on:
    // "TargetLayer", "TargetIgnoreLayer", "ExceptionLayer" or "Nobody" (in
    // API mode "TargetLayer" while setTargetLayer names it).
    std::vector<std::vector<TimedText>> layerRoles;
    std::vector<LogLine> backgroundLog; // lines from the library's own threads
    int64_t q2qSamples = 0;             // every value traced
    int64_t q2qMeasuredSamples = 0;     // of those, the ones above 0
    int64_t vsyncCallbackCount = 0;     // vsyncCallbacks keeps the first ones only
    int64_t timelineDropped = 0;        // timeline lines beyond the limit
    int64_t buffersPlayed = 0;
    std::vector<int64_t> buffersByLayer; // per scenario layer
    int64_t framesSkipped = 0;           // measured times outside spans or the run
    RefreshCounts refreshes;
    double refreshFloorHz = 0;
    int64_t compositions = 0;
    int64_t q2qFullCompositions = 0; // isQ2QFull() true after composite
    std::string finalDump;
    std::vector<TraceEvent> trace; // the library's and the simulator's
    pid_t mainTid = 0;             // the thread that played the compositor
};

// The timeline's column for each kind: "compositor", "screen", "state", ...
const char* timelineLabel(TimelineEntry::Kind kind);

// The state of a name the library prints (peltoStateName), or -1.
int32_t stateFromName(const std::string& name);

} // namespace android::tools::sim
