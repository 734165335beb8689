#define LOG_TAG "PeltoConfig"

#include <log/log.h>

#include "config/PeltoConfig.h"
#include "config/PeltoExceptionRule.h"

namespace android {

// The type is resolved here, once, so that a match is a single comparison.
// Comparisons are strict and in T's own precision: a NaN matches nothing.
template <typename T>
PeltoExceptionRuleNumeric<T> makeNumericCondition(int32_t conditionType, T value1,
                                                  std::optional<T> value2) {
    PeltoExceptionRuleNumeric<T> condition;
    condition.conditionType = conditionType;
    condition.value1 = value1;
    condition.value2 = value2;
    switch (conditionType) {
        case kConditionSmaller:
            condition.func = [value1](T x) { return x < value1; };
            break;
        case kConditionBigger:
            condition.func = [value1](T x) { return x > value1; };
            break;
        case kConditionInRange:
            if (value2) {
                condition.func = [value1, upper = *value2](T x) { return value1 < x && x < upper; };
            } else {
                condition.func = [](T) { return false; };
            }
            break;
        case kConditionEqual:
            condition.func = [value1](T x) { return x == value1; };
            break;
        default:
            condition.func = [](T) { return false; };
            break;
    }
    return condition;
}

template PeltoExceptionRuleNumeric<float> makeNumericCondition<float>(int32_t, float,
                                                                      std::optional<float>);

PeltoExceptionRuleBool makeBoolCondition(bool value) {
    PeltoExceptionRuleBool condition;
    condition.value = value;
    condition.func = [value](bool x) { return x == value; };
    return condition;
}

namespace {

// An entry with both conditions matches when both do.
bool entryMatches(const PeltoExceptionRuleEntry& entry, const PeltoExceptionRuleInput& input) {
    if (entry.alwaysTrue) {
        return true;
    }
    const auto& ratio = entry.ruleLayerScreenSizeRatio;
    const auto& focus = entry.ruleFocus;
    if (!ratio && !focus) {
        ALOGW("no rule in this entry");
        return false;
    }
    if (ratio && !ratio->func) {
        ALOGW("entry.ruleLayerScreenSizeRatio->func == nullpltr");
        return false;
    }
    if (focus && !focus->func) {
        ALOGW("entry.ruleFocus->func == nullpltr");
        return false;
    }
    return (!ratio || ratio->func(input.layerScreenSizeRatio)) &&
            (!focus || focus->func(input.focus));
}

} // namespace

bool PeltoConfig::checkRuleMatch(const PeltoExceptionRuleInput& input,
                                 const PeltoExceptionRule& rule) const {
    for (const auto& entry : rule.entries) {
        if (entryMatches(entry, input)) {
            return true;
        }
    }
    return false;
}

bool PeltoConfig::checkExceptionGeneralRuleMatch(const PeltoExceptionRuleInput& input) const {
    return checkRuleMatch(input, mExceptionGeneralRule);
}

} // namespace android
