#include "tools/sim/RunRecord.h"

namespace android::tools::sim {

const char* timelineLabel(TimelineEntry::Kind kind) {
    switch (kind) {
        case TimelineEntry::Kind::Compositor:
            return "compositor";
        case TimelineEntry::Kind::Screen:
            return "screen";
        case TimelineEntry::Kind::State:
            return "state";
        case TimelineEntry::Kind::Hwc:
            return "HWC Pelto";
        case TimelineEntry::Kind::ActiveTarget:
            return "target";
        case TimelineEntry::Kind::Q2QFps:
            return "Q2Q fps";
        case TimelineEntry::Kind::Library:
            return "library";
    }
    return "";
}

const char* stateName(int32_t state) {
    switch (state) {
        case 0:
            return "Off";
        case 1:
            return "On";
        case 2:
            return "Temp Off";
        default:
            return "Unknown";
    }
}

int32_t stateFromName(const std::string& name) {
    for (int32_t state = 0; state <= 2; ++state) {
        if (name == stateName(state)) return state;
    }
    return -1;
}

const char* reasonText(int32_t reason) {
    switch (reason) {
        case -1:
            return "no decision yet";
        case 360:
            return "the compositor forced it off";
        case 375:
            return "API mode: no target layer set";
        case 389:
            return "API mode: target visible and enabled";
        case 391:
            return "API mode: target visible, not enabled";
        case 394:
            return "API mode: target not visible";
        case 413:
            return "no target layer registered";
        case 455:
            return "no target layer visible";
        case 511:
            return "another layer visible, no general rule";
        case 518:
            return "the general rule, on another layer";
        case 547:
            return "an exception layer's rule";
        case 551:
            return "every test passed";
        default:
            return "unknown reason";
    }
}

} // namespace android::tools::sim
