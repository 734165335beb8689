#include "tools/sim/RunRecord.h"

#include "controller/PeltoTypes.h"

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

int32_t stateFromName(const std::string& name) {
    for (int32_t state = 0; state <= 2; ++state) {
        if (name == peltoStateName(state)) return state;
    }
    return -1;
}

} // namespace android::tools::sim
