#include "tools/sim/RunSummary.h"

#include <algorithm>

namespace android::tools::sim {
namespace {

// The last element of `items` (in time order) at or before t, or null.
template <typename T>
const T* lastAt(const std::vector<T>& items, SimTime t) {
    const auto it = std::upper_bound(items.begin(), items.end(), t,
                                     [](SimTime time, const T& item) { return time < item.at; });
    return it == items.begin() ? nullptr : &*(it - 1);
}

} // namespace

double RunSummary::q2qFullShare() const {
    return compositions == 0 ? 0.0 : static_cast<double>(q2qFullCompositions) / compositions;
}

double savedPercent(int64_t fixed, int64_t paced) {
    return fixed == 0 ? 0.0
                      : 100.0 * static_cast<double>(fixed - paced) / static_cast<double>(fixed);
}

ContentPace contentPace(const Scenario& scenario, const RunSummary& summary) {
    ContentPace pace;
    if (!scenario.capture || scenario.capture->target.empty()) return pace;
    for (const CaptureFacts::Layer& l : scenario.capture->layers) {
        if (l.name != scenario.capture->target) continue;
        pace.layer = &l;
        const int64_t fixed = summary.refreshes.fixedTotal();
        pace.savedPercent = savedPercent(fixed, std::min(fixed, l.buffers));
    }
    return pace;
}

StateChange stateAt(const RunRecord& record, SimTime t) {
    const StateChange* change = lastAt(record.states, t);
    return change != nullptr ? *change : StateChange{0, 0, 0, -1, {}};
}

bool hwcOnAt(const RunRecord& record, SimTime t) {
    const TimedFlag* hwc = lastAt(record.hwc, t);
    return hwc != nullptr && hwc->on;
}

std::optional<std::string> activeTargetAt(const RunRecord& record, SimTime t) {
    const TimedText* target = lastAt(record.activeTargets, t);
    if (target == nullptr) return std::nullopt;
    return target->text;
}

int64_t q2qFpsAt(const RunRecord& record, SimTime t) {
    const TimedValue* fps = lastAt(record.q2qFps, t);
    return fps != nullptr ? fps->value : 0;
}

bool q2qFullAt(const RunRecord& record, SimTime t) {
    const TimedFlag* full = lastAt(record.q2qFull, t);
    return full != nullptr && full->on;
}

RunSummary summarize(const Scenario& scenario, const RunRecord& record) {
    RunSummary summary;
    SimTime since = 0;
    int32_t state = 0;
    for (const StateChange& change : record.states) {
        if (state >= 0 && state <= 2) summary.timeInState[state] += change.at - since;
        since = change.at;
        state = change.to;
    }
    if (state >= 0 && state <= 2) summary.timeInState[state] += scenario.duration - since;

    for (const TimedFlag& hwc : record.hwc) {
        (hwc.on ? summary.hwcOn : summary.hwcOff)++;
    }
    summary.vsyncCallbacks = static_cast<size_t>(record.vsyncCallbackCount);
    summary.compositions = record.compositions;
    summary.q2qFullCompositions = record.q2qFullCompositions;
    summary.q2qMin = record.q2qMin;
    summary.q2qMax = record.q2qMax;
    summary.q2qMeasured = static_cast<size_t>(record.q2qMeasuredSamples);
    summary.refreshes = record.refreshes;
    summary.refreshFloorHz = record.refreshFloorHz;
    summary.buffersPlayed = record.buffersPlayed;
    summary.framesSkipped = record.framesSkipped;
    summary.q2qLast = record.q2qLast;
    return summary;
}

} // namespace android::tools::sim
