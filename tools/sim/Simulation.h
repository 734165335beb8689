#pragma once

#include <sys/types.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <binder/IBinder.h>

#include "tools/host/LogSink.h"
#include "tools/host/PeltoLibrary.h"
#include "tools/sim/RunRecord.h"
#include "tools/sim/Scenario.h"
#include "tools/sim/Schedule.h"
#include "tools/sim/SimHost.h"

namespace android::tools::sim {

struct RunOptions {
    bool verbose = false;            // every library log line in the timeline
    bool debugLines = false;         // switch on the library's "pelto2_sf_lib: " lines
    bool keepTrace = true;           // hold every trace event for a trace file
    std::FILE* traceSpool = nullptr; // with keepTrace: stream the events here instead
    // While the HWC is in Pelto mode the panel refreshes at least this often.
    double refreshFloorHz = 10;
};

// A record keeps at most this many timeline lines and vsync-callback times,
// so that a run of millions of frames holds bounded memory.
constexpr size_t kMaxKeptEntries = 50000;
// ... and at most this many changes of the Q2Q rate and of isQ2QFull, which
// may change at every buffer or composition (16 bytes each).
constexpr size_t kMaxKeptChanges = 1000000;

// Plays the compositor for one scenario on virtual time: registers and
// destroys layers, composites once per vsync, sends a transaction for every
// queued buffer and the scenario's hints and events, and answers the
// library's callbacks from the scenario. Records what the library did.
class Simulation {
public:
    Simulation(const Scenario& scenario, PeltoLibrary& library, const RunOptions& options);

    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    // Runs the scenario from start to end. False, with *error, when it cannot start.
    bool run(RunRecord* record, std::string* error);

private:
    using Layer = SimLayer;

    void runStep(const Step& step);
    void composite(SimTime now);
    void queueBuffer(Layer& layer);
    void applyEvent(const Event& event);
    bool useRules(const RuleSource& rules, std::string* error);
    void onLogLine(const LogLine& line);
    void onCounter(const std::string& name, int64_t value);
    void note(TimelineEntry::Kind kind, std::string text);
    void countRefresh(SimTime at);
    std::string causeOf(int32_t reason) const;
    void readClassification();
    void recordRoles();
    bool startRun(RunRecord* record, std::string* error);
    bool createController(std::string* error);
    void playSchedule(Schedule& schedule);
    void finishRun(const Schedule& schedule);
    void onHwc(bool on);
    void beginRuleLoad();
    RuleLoad endRuleLoad(const RuleSource& rules);

    SimTime now() const;
    bool isVisible(const Layer& layer) const;
    Layer* layerNamed(const std::string& name);
    std::string ruleLabel(const RuleSource& rules) const;

    const Scenario& mScenario;
    PeltoLibrary& mLib;
    const RunOptions mOptions;
    PeltoController* mController = nullptr;
    std::vector<Layer> mLayers; // never resized during a run
    RunRecord* mRecord = nullptr;
    pid_t mMainTid = 0;
    SimTime mLastComposition = 0;
    int32_t mState = 0; // as the library last logged it
    bool mHwcOn = false;
    bool mQ2QFull = false;             // isQ2QFull() after the last composition
    bool mNewFrame = false;            // a layer on screen queued since the last composition
    SimTime mLastPanelRefresh = -1;    // for the refresh estimate
    int64_t mLastQ2QFpsShown = 0;      // the value traced at construction
    bool mClassificationStale = false; // a layer registered since the last readClassification()
    SimTime mLastClassified = -1;      // when readClassification() last ran
    std::map<std::string, int> mLibraryWarnings; // repeats of each line shown once
    std::vector<base::unique_fd> mRuleFiles;
    // The loader's warnings and errors while a rule file loads.
    bool mCollectingLoaderLines = false;
    std::vector<std::string> mLoaderLines;
    SimHost mHost;
};

} // namespace android::tools::sim
