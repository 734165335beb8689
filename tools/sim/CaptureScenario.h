#pragma once

#include <cstdint>
#include <string>

#include "tools/sim/CaptureReader.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// How to play a capture: the rule file (list mode) or the API-mode target,
// and the display size a capture does not record.
struct CapturePlay {
    std::string rules;     // list mode when set
    std::string apiTarget; // API mode with this layer (a part of its name)
    uint32_t width = 1080;
    uint32_t height = 2400;
    bool displayGiven = false;
    double refreshHz = 0; // the panel's rate throughout (--refresh-hz), when set
};

// A scenario that plays the capture, with the assumptions it makes in
// scenario->assumptions.
bool captureScenario(const Capture& capture, const CapturePlay& play, Scenario* scenario,
                     std::string* error);

} // namespace android::tools::sim
