#pragma once

#include <cstdint>
#include <optional>

#include "tools/sim/RunRecord.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// The figures of a run that the summary, the expectations and the HTML page share.
struct RunSummary {
    SimTime timeInState[3] = {}; // Off, On, Temp Off
    int hwcOn = 0;
    int hwcOff = 0;
    size_t vsyncCallbacks = 0;
    int64_t compositions = 0;
    int64_t q2qFullCompositions = 0;
    // Over the samples with a measured rate (0 means the ring is still filling).
    size_t q2qMeasured = 0;
    int64_t q2qMin = 0;
    int64_t q2qMax = 0;
    int64_t q2qLast = 0;
    RefreshCounts refreshes;
    double refreshFloorHz = 0;
    int64_t buffersPlayed = 0;
    int64_t framesSkipped = 0;

    int hwcToggles() const { return hwcOn + hwcOff; }
    double q2qFullShare() const;
};

// The share of `fixed` refreshes that `paced` saves, in percent.
double savedPercent(int64_t fixed, int64_t paced);

// A capture's API-mode target: its buffers, and the share of the run's
// refreshes a panel refreshing only for them (at the content's pace) saves.
struct ContentPace {
    const CaptureFacts::Layer* layer = nullptr;
    double savedPercent = 0;
};
ContentPace contentPace(const Scenario& scenario, const RunSummary& summary);

RunSummary summarize(const Scenario& scenario, const RunRecord& record);

// What the library had told the compositor by time t (inclusive).
StateChange stateAt(const RunRecord& record, SimTime t);
bool hwcOnAt(const RunRecord& record, SimTime t);
std::optional<std::string> activeTargetAt(const RunRecord& record, SimTime t);
int64_t q2qFpsAt(const RunRecord& record, SimTime t);
bool q2qFullAt(const RunRecord& record, SimTime t);

} // namespace android::tools::sim
