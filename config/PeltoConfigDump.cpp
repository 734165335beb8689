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
    const auto ignoreLayers = sortedByName(mTargetIgnoreLayers);
    for (const auto* target : sortedByName(mTargetLayers)) {
        os << target->second.id << ": " << target->first << "\n";
        for (const auto* ignore : ignoreLayers) {
            if (ignore->second.id == target->second.id) {
                os << "\tignore name: " << ignore->first << "\n";
            }
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
