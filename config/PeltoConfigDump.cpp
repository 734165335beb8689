#include <algorithm>
#include <sstream>
#include <vector>

#include "config/PeltoConfig.h"

namespace android {
namespace {

const char* conditionName(int32_t conditionType) {
    switch (conditionType) {
        case kConditionSmaller:
            return "smaller";
        case kConditionBigger:
            return "bigger";
        case kConditionInRange:
            return "in_range";
        case kConditionEqual:
            return "equal";
        default:
            return "wtf";
    }
}

// The maps' own order changes from run to run; names are listed in byte order
// so that two dumps of the same file compare equal.
template <typename Map>
std::vector<const typename Map::value_type*> sortedByName(const Map& map) {
    std::vector<const typename Map::value_type*> items;
    items.reserve(map.size());
    for (const auto& item : map) {
        items.push_back(&item);
    }
    std::sort(items.begin(), items.end(),
              [](const auto* a, const auto* b) { return a->first < b->first; });
    return items;
}

// ">" opens the rule's first line; it stands alone when the rule prints nothing else.
void dumpExceptionRule(std::ostringstream& os, const std::string& prefix,
                       const PeltoExceptionRule& rule) {
    os << ">";
    bool wroteLine = false;
    for (const auto& entry : rule.entries) {
        if (const auto& ratio = entry.ruleLayerScreenSizeRatio) {
            os << prefix << "condition: " << conditionName(ratio->conditionType) << "\n";
            os << prefix << "value1: " << ratio->value1 << "\n";
            if (ratio->value2) {
                os << prefix << "value2: " << *ratio->value2 << "\n";
            }
            wroteLine = true;
        }
        if (entry.ruleFocus) {
            os << prefix << "focus: " << (entry.ruleFocus->value ? "true" : "false") << "\n";
            wroteLine = true;
        }
        if (entry.alwaysTrue) {
            os << prefix << "always true: true\n";
            wroteLine = true;
        }
    }
    if (!wroteLine) {
        os << "\n";
    }
}

} // namespace

void PeltoConfig::dump(std::string& out) const {
    std::ostringstream os;
    os << "mLoadConfigSucceeded: " << mLoadConfigSucceeded << "\n";
    os << "General Rule:\n";
    os << "\tstayOnWhenHasOtherLayer " << mStayOnWhenHasOtherLayer << "\n";
    os << "\tuseAdaptiveTimeout " << mUseAdaptiveTimeout << "\n";
    os << "==========\n";

    os << "Target Layer\n";
    // Ignored names grouped by target id, in byte order within a group, so
    // that each target finds its own in one search: scanning every ignored
    // name for every target made a file with 10^5 targets take a minute.
    auto ignoreLayers = sortedByName(mTargetIgnoreLayers);
    std::stable_sort(ignoreLayers.begin(), ignoreLayers.end(),
                     [](const auto* a, const auto* b) { return a->second.id < b->second.id; });
    for (const auto* target : sortedByName(mTargetLayers)) {
        os << target->second.id << ": " << target->first << "\n";
        const int32_t id = target->second.id;
        auto ignore = std::lower_bound(
                ignoreLayers.begin(), ignoreLayers.end(), id,
                [](const auto* item, int32_t value) { return item->second.id < value; });
        for (; ignore != ignoreLayers.end() && (*ignore)->second.id == id; ++ignore) {
            os << "\tignore name: " << (*ignore)->first << "\n";
        }
    }
    os << "==========\n";

    os << "Exception Rule\n";
    os << "Exception General Rule\n";
    dumpExceptionRule(os, "\t", mExceptionGeneralRule);
    for (const auto* rule : sortedByName(mExceptionRules)) {
        os << rule->first << "\n";
        dumpExceptionRule(os, "\t", rule->second);
    }
    out.append(os.str());
}

} // namespace android
