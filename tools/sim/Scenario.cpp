#include "tools/sim/Scenario.h"

#include <algorithm>

namespace android::tools::sim {

bool inAnyWindow(const std::vector<Window>& windows, SimTime t) {
    return std::any_of(windows.begin(), windows.end(),
                       [t](const Window& w) { return w.contains(t); });
}

float LayerScript::areaAt(SimTime t) const {
    float area = areas.empty() ? 0.0f : areas.front().area;
    for (const AreaChange& change : areas) {
        if (change.at > t) break;
        area = change.area;
    }
    return area;
}

const LayerScript* Scenario::findLayer(const std::string& layerName) const {
    const auto it = std::find_if(layers.begin(), layers.end(),
                                 [&](const LayerScript& l) { return l.name == layerName; });
    return it == layers.end() ? nullptr : &*it;
}

} // namespace android::tools::sim
