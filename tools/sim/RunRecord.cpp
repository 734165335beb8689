#include "tools/sim/RunRecord.h"

namespace android::tools::sim {

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
