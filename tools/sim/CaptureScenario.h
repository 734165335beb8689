#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/sim/CaptureReader.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// A layer's geometry the user gave (--layer NAME=WxH[,focus][,visible=FROM_MS-TO_MS]):
// its size in pixels, its input focus, and optionally its span on screen.
struct LayerGiven {
    std::string option; // as given, for messages
    std::string name;   // a part of the layer's name
    uint32_t width = 0;
    uint32_t height = 0;
    bool focus = false;
    bool visibleGiven = false;
    SimTime from = 0;
    SimTime to = 0;
};

// Reads the value of --layer; false, with *error in the option's terms, when it is malformed.
bool parseLayerOption(const std::string& value, LayerGiven* given, std::string* error);

// How to play a capture: the rule file (list mode) or the API-mode target,
// and the display size a capture does not record.
struct CapturePlay {
    std::string rules;     // list mode when set
    std::string apiTarget; // API mode with this layer (a part of its name)
    uint32_t width = 1080;
    uint32_t height = 2400;
    bool displayGiven = false;
    double refreshHz = 0; // the panel's rate throughout (--refresh-hz), when set
    std::vector<LayerGiven> layers;
};

// A scenario that plays the capture, with the assumptions it makes in
// scenario->assumptions.
bool captureScenario(const Capture& capture, const CapturePlay& play, Scenario* scenario,
                     std::string* error);

} // namespace android::tools::sim
