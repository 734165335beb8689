#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Something that happens at a point of scenario time.
struct Step {
    // At one instant the steps run in this order.
    enum class Kind {
        Register,       // registerLayer
        Destroy,        // destroyLayer
        RefreshChange,  // the display's new rate; onActiveModeUpdated
        Note,           // a change on screen, shown in the timeline only
        Event,          // one of the scenario's events
        Vsync,          // commit, composite, isQ2QFull
        Buffer,         // a layer queues a buffer: setTransactionState
    };
    SimTime at = 0;
    Kind kind = Kind::Note;
    size_t index = 0;  // the layer, refresh change or event
    std::string note;
};

// Everything a scenario makes happen, in the order the simulation plays it:
// by time, and at one instant by kind. A buffer queued at the very instant of
// a vsync is latched by the next one.
std::vector<Step> buildSchedule(const Scenario& scenario);

// The vsync period of a refresh rate, in whole nanoseconds (60 Hz: 16666666).
int64_t vsyncPeriodOf(double refreshHz);

} // namespace android::tools::sim
