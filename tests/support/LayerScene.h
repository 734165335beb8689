#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "support/LeanCompositor.h"

namespace android::test {

// A phone screen in the mix a compositor registers and shows, with the rule
// file that classifies it: a video player's surface (the target that the
// decision settles on) with its ignored layers; from 16 visible layers on, a
// second target with an ignored layer that counts as an other layer; one
// exception layer in eight; and small other layers. Every visible layer passes
// every rule, so a composition runs the whole decision and ends On. The
// layers that are registered but not visible are ordinary app layers, spread
// through the registration order.
struct LayerScene {
    static constexpr unsigned int kScreenArea = 1080 * 2400;

    struct Registration {
        const void* layerPtr = nullptr;
        std::string name;
    };

    std::string ruleFile;                             // JSON text
    std::vector<Registration> registrations;          // in registration order
    std::vector<LeanCompositor::BufferLayer> visible; // in traversal order
    const void* activeTarget = nullptr;               // the first visible target
    std::vector<const void*> visibleNonTargets;       // visible, not a target
};

// registered >= visible >= 8.
LayerScene makeLayerScene(size_t registered, size_t visible);

} // namespace android::test
